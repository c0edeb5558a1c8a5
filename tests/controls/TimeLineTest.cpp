// The timeline and the floating hint on real windows: painted pixels against the marker
// geometry, keys, clicks and drags as window messages, the hint window, and no GDI or
// USER objects left behind.
#include <gtest/gtest.h>

#include <vector>

#include "ControlsTestKit.h"
#include "controls/UHint.h"
#include "controls/UTimeLineControl.h"

using namespace kl;
using namespace kl::UTimeLineControl;
using kltest::Render;
using kltest::SendKey;
using kltest::SendMouse;

namespace {

struct TCounts {
  int Change = 0, ByUser = 0, Select = 0;
  std::vector<int> Values;
};

template <class T>
T* AddTimeline(TForm& Form, TCounts& C, int Width) {
  auto* t = new T(&Form);
  t->SetBounds(10, 40, Width, 20);
  t->SetParent(&Form);
  t->OnChange = [&C, t](TComponent*) {
    ++C.Change;
    C.Values.push_back(t->Value());
  };
  t->OnChangeByUser = [&C](TComponent*) { ++C.ByUser; };
  return t;
}

const COLORREF kFace = ColorToRGB(clBtnFace);

struct TPixel {
  int X, Y;
  COLORREF Color;
};
void ExpectPixels(const TBitmap& B, std::initializer_list<TPixel> Pixels) {
  for (const TPixel& p : Pixels) EXPECT_EQ(B.Pixel(p.X, p.Y), p.Color) << p.X << "," << p.Y;
}

}  // namespace

// First in the executable: no hint window exists yet.
TEST(Hint, HideFirstReuseMoveAndWrap) {
  UHint::HideHint();
  EXPECT_EQ(UHint::HintHandle(), nullptr);
  EXPECT_FALSE(UHint::HintVisible());

  UHint::ShowHint(300, 200, "00:01", nullptr);
  HWND first = UHint::HintHandle();
  ASSERT_NE(first, nullptr);
  RECT r1;
  GetWindowRect(first, &r1);
  UHint::ShowHint(500, 300, "00:02", nullptr);
  EXPECT_EQ(UHint::HintHandle(), first);
  RECT r2;
  GetWindowRect(first, &r2);
  EXPECT_TRUE(IsWindowVisible(first) && UHint::HintVisible());
  EXPECT_EQ(r2.top, 300);
  EXPECT_EQ(r2.left, 500 - (r2.right - r2.left) / 2);
  EXPECT_LE(r2.right - r2.left, UHint::HintMaxWidth);

  UHint::ShowHint(500, 300, "a long hint text that cannot fit on one line of a hundred pixels", nullptr);
  RECT r3;
  GetWindowRect(first, &r3);
  EXPECT_LE(r3.right - r3.left, UHint::HintMaxWidth);
  EXPECT_GE(r3.bottom - r3.top, 2 * (r2.bottom - r2.top) - 8);
  UHint::HideHint();
  EXPECT_FALSE(IsWindow(first));
  EXPECT_FALSE(UHint::HintVisible());
}

TEST(TimeLine, PaintBase) {
  auto form = kltest::MakeHostForm();
  TCounts c;
  // W = 185: Value 50 puts the marker at round(92.5) = 92 (ties to even).
  auto* t = AddTimeline<TTimeLineControl>(*form, c, 198);
  t->SetValue(50);
  TBitmap b;
  Render(*t, b);
  kltest::SaveScreenshot(b, "timeline_base_50");
  // The marker's outline (nothing left of it), inside, right and bottom edges; the rest
  // of the line: top edge, inside, right end; the done part from x = 1; the line is 5
  // high from y = 4.
  ExpectPixels(b, {{92, 0, 0}, {91, 0, kFace}, {98, 6, 0xE0E0E0}, {104, 12, 0}, {110, 4, 0}, {110, 6, 0xD0D0D0},
                   {197, 6, 0}, {1, 6, 0}, {0, 6, kFace}, {50, 6, 0xA0A0A0}, {50, 2, kFace}, {50, 9, kFace},
                   {50, 19, kFace}});
  t->SetBorder(false);
  Render(*t, b);
  ExpectPixels(b, {{92, 0, 0xE0E0E0}, {1, 4, 0xA0A0A0}, {110, 4, 0xD0D0D0}});

  t->SetMaxValue(0);
  Render(*t, b);
  kltest::SaveScreenshot(b, "timeline_base_max0");
  for (int x = 0; x < b.Width(); x += 7) EXPECT_EQ(b.Pixel(x, 6), kFace) << x;

  // Focus: only the frame round the client area changes.
  t->SetMaxValue(100);
  TBitmap unfocused, focused;
  Render(*t, unfocused);
  t->SetFocus();
  ASSERT_TRUE(t->Focused());
  Render(*t, focused);
  kltest::SaveScreenshot(focused, "timeline_base_focused");
  int onFrame = 0, inside = 0;
  for (int y = 0; y < b.Height(); ++y)
    for (int x = 0; x < b.Width(); ++x)
      if (focused.Pixel(x, y) != unfocused.Pixel(x, y))
        ++(x == 0 || y == 0 || x == b.Width() - 1 || y == b.Height() - 1 ? onFrame : inside);
  EXPECT_GT(onFrame, 100);
  EXPECT_EQ(inside, 0);
}

TEST(TimeLine, PaintExtendedWithSelection) {
  auto form = kltest::MakeHostForm();
  TCounts c;
  auto* t = AddTimeline<TTimeLineControlEx>(*form, c, 200);
  t->SetValue(30);
  t->SetSelectStart(20);
  t->SetSelectFinish(60);
  TBitmap b;
  Render(*t, b);
  kltest::SaveScreenshot(b, "timeline_ex_selection");
  // s = 187 / 100 as a float: marker at 56, selection 43..118 (20 * s + 6, 40 * s wide).
  // The marker (over the selection), the done part, the selection's outline and inside,
  // the rest of the line; triangles at y = MarkerWidth + 1 under both ends.
  ExpectPixels(b, {{56, 0, 0x808080}, {55, 0, kFace}, {60, 6, 0xE0E0E0}, {30, 6, 0xC0C0C0}, {43, 4, 0x808080},
                   {80, 6, 0xFFC000}, {117, 6, 0x808080}, {150, 6, 0xE0E0E0}, {42, 14, 0}, {43, 17, 0},
                   {37, 17, kFace}, {119, 14, 0}, {118, 17, 0}, {80, 14, kFace}});
  t->SetBorder(false);  // ignored by the extended control
  TBitmap again;
  Render(*t, again);
  EXPECT_EQ(again.Pixel(56, 0), 0x808080u);

  // The selection setters: a start beyond the finish moves both, with two events.
  t->OnSelectChange = [&c](TComponent*) { ++c.Select; };
  t->SetSelectStart(80);
  EXPECT_EQ(c.Select, 2);
  EXPECT_EQ(t->SelectFinish(), 80);
  t->SetSelectStart(80);
  EXPECT_EQ(c.Select, 2);
  t->SetSelectFinish(10);
  EXPECT_EQ(c.Select, 3);
  EXPECT_EQ(t->SelectStart(), 10);
  t->SetSelectFinish(500);
  EXPECT_EQ(t->SelectFinish(), 100);
}

TEST(TimeLine, KeysClicksAndValue) {
  auto form = kltest::MakeHostForm();
  TCounts c;
  auto* t = AddTimeline<TTimeLineControl>(*form, c, 200);  // W = 187
  EXPECT_EQ(SendMessageA(t->Handle(), WM_GETDLGCODE, 0, 0), DLGC_WANTARROWS);
  t->SetValue(50);
  t->SetValue(50);
  EXPECT_EQ(c.Change, 2);  // the same value fires again
  SendKey(*t, VK_RIGHT);
  SendKey(*t, VK_LEFT, true);
  SendKey(*t, VK_UP, false, true);
  SendKey(*t, VK_DOWN);
  EXPECT_EQ(c.Values, (std::vector<int>{50, 50, 51, 41, 46, 45}));
  EXPECT_EQ(c.ByUser, 4);
  t->SetValue(1000);
  EXPECT_EQ(t->Value(), 100);
  t->SetValue(-5);
  EXPECT_EQ(t->Value(), 0);

  // Clicks away from the marker jump; left of half the marker clamps to 0.
  c = {};
  SendMouse(*t, WM_LBUTTONDOWN, 150, 5, MK_LBUTTON);  // round(100 / 187 * 144) = 77
  SendMouse(*t, WM_LBUTTONUP, 150, 5);
  EXPECT_EQ(t->Value(), 77);
  EXPECT_TRUE(t->Focused());
  SendMouse(*t, WM_LBUTTONDOWN, 2, 5, MK_LBUTTON);
  SendMouse(*t, WM_LBUTTONUP, 2, 5);
  EXPECT_EQ(c.Values, (std::vector<int>{77, 0}));
  EXPECT_EQ(c.ByUser, 2);

  // MaxValue 0: clicks change nothing, keys still clamp through SetValue.
  t->SetMaxValue(0);
  c = {};
  SendMouse(*t, WM_LBUTTONDOWN, 150, 5, MK_LBUTTON);
  SendMouse(*t, WM_LBUTTONUP, 150, 5);
  EXPECT_EQ(c.Change, 0);
  SendKey(*t, VK_RIGHT, true);
  EXPECT_EQ(c.Values, std::vector<int>{0});
}

TEST(TimeLine, DragTrackingEscapeAndHint) {
  auto form = kltest::MakeHostForm();
  TCounts c;
  auto* t = AddTimeline<TTimeLineControl>(*form, c, 200);  // W = 187, marker at 0
  TBitmap b;
  // Without tracking only the picture follows the pointer.
  SendMouse(*t, WM_LBUTTONDOWN, 5, 5, MK_LBUTTON);
  EXPECT_TRUE(t->ProgressDragging());
  SendMouse(*t, WM_MOUSEMOVE, 50, 5, MK_LBUTTON);
  SendMouse(*t, WM_MOUSEMOVE, 98, 5, MK_LBUTTON);
  Render(*t, b);
  EXPECT_EQ(b.Pixel(93, 0), 0u);
  EXPECT_EQ(c.Change, 0);
  SendMouse(*t, WM_MOUSEMOVE, 900, 5, MK_LBUTTON);  // clamped to W
  SendMouse(*t, WM_LBUTTONUP, 98, 5);               // 93 px: round(49.73)
  EXPECT_FALSE(t->ProgressDragging());
  EXPECT_EQ(c.Values, std::vector<int>{50});
  EXPECT_EQ(c.ByUser, 1);

  // With tracking every move sets the value.
  c = {};
  t->SetTracking(true);
  SendMouse(*t, WM_LBUTTONDOWN, 100, 5, MK_LBUTTON);  // marker 94..107
  SendMouse(*t, WM_MOUSEMOVE, 106, 5, MK_LBUTTON);    // 100 px: 53
  SendMouse(*t, WM_MOUSEMOVE, -500, 5, MK_LBUTTON);   // 0
  SendMouse(*t, WM_LBUTTONUP, -500, 5);
  EXPECT_EQ(c.Values, (std::vector<int>{53, 0, 0}));
  EXPECT_EQ(c.ByUser, 3);

  // Escape puts the marker back; the release still sets the value from the pointer.
  c = {};
  t->SetTracking(false);
  SendMouse(*t, WM_LBUTTONDOWN, 3, 5, MK_LBUTTON);
  SendMouse(*t, WM_MOUSEMOVE, 100, 5, MK_LBUTTON);
  SendKey(*t, VK_ESCAPE);
  EXPECT_FALSE(t->ProgressDragging());
  Render(*t, b);
  EXPECT_EQ(b.Pixel(0, 1), 0u);
  EXPECT_EQ(b.Pixel(97, 1), kFace);  // row 0 holds the focus frame
  SendMouse(*t, WM_LBUTTONUP, 100, 5);
  EXPECT_EQ(c.Values, std::vector<int>{52});  // 97 px

  // The hint: position in 0..1, shown 24 pixels above the control, hidden on release.
  std::vector<float> positions;
  t->OnHintValue = [&positions](TComponent*, std::string& Text, float Pos) {
    EXPECT_TRUE(Text.empty());
    positions.push_back(Pos);
    if (Pos > 0.2f) Text = "00:42";
  };
  SendMouse(*t, WM_MOUSEMOVE, 20, 5);
  EXPECT_FALSE(UHint::HintVisible());
  SendMouse(*t, WM_MOUSEMOVE, 500, 5);
  EXPECT_EQ(positions, (std::vector<float>{0.1f, 1.0f}));
  ASSERT_TRUE(UHint::HintVisible());
  RECT hr, cr;
  GetWindowRect(UHint::HintHandle(), &hr);
  GetWindowRect(t->Handle(), &cr);
  EXPECT_EQ(hr.top, cr.top - 24);
  EXPECT_EQ((hr.left + hr.right) / 2, cr.left + 200);
  SendMouse(*t, WM_LBUTTONUP, 500, 5);
  EXPECT_FALSE(UHint::HintVisible());
}

TEST(TimeLine, EnterLeaveAndNoObjectLeak) {
  int enter = 0, leave = 0;
  {
    auto form = kltest::MakeHostForm();
    TCounts c;
    auto* t = AddTimeline<TTimeLineControl>(*form, c, 200);
    t->OnMouseEnter = [&enter](TComponent*) { ++enter; };
    t->OnMouseLeave = [&leave](TComponent*) { ++leave; };
    SendMouse(*t, WM_MOUSEMOVE, 20, 5);
    SendMouse(*t, WM_MOUSEMOVE, 30, 5);
    EXPECT_EQ(enter, 1);
    SendMessageA(t->Handle(), WM_MOUSELEAVE, 0, 0);
    EXPECT_GE(leave, 1);
  }
  auto cycle = [](int Paints) {
    auto form = kltest::MakeHostForm();
    TCounts c;
    auto* t = AddTimeline<TTimeLineControlEx>(*form, c, 200);
    t->SetSelectFinish(40);
    t->SetFocus();
    TBitmap b(200, 20);
    for (int i = 0; i < Paints; ++i) {
      t->SetValue(i % 100);
      SendMessageA(t->Handle(), WM_PRINTCLIENT, reinterpret_cast<WPARAM>(b.DC()), PRF_CLIENT);
      if (i % 10 == 0) RedrawWindow(t->Handle(), nullptr, nullptr, RDW_INVALIDATE | RDW_UPDATENOW);
    }
    UHint::ShowHint(100, 100, "x", nullptr);
    UHint::HideHint();
    Application().ProcessMessages();
  };
  cycle(10);
  const int gdi = kltest::GdiObjects(), user = kltest::UserObjects();
  cycle(1000);
  for (int i = 0; i < 100; ++i) cycle(1);
  EXPECT_LE(kltest::GdiObjects(), gdi + 3);
  EXPECT_EQ(kltest::UserObjects(), user);
}
