// The image buttons with real PNG files, the label, the shape, the Vista fix, the
// object bounder, modal forms and ownership, the registry and the DLL's version block.
#include <gtest/gtest.h>

#include <cstdlib>

#include "ControlsTestKit.h"
#include "KlTest.h"
#include "controls/UBitButtonEx.h"
#include "controls/UCustomPaintControls.h"
#include "controls/UModalForms.h"
#include "controls/UMyLabel.h"
#include "controls/URegister.h"
#include "controls/UVisibleObjectBounder.h"
#include "controls/VistaAltFixUnit.h"
#include "diagnostics/UFileVersionInfo.h"

using namespace kl;
using kltest::Render;
using kltest::SendMouse;

namespace {

// A 16x16 PNG of one straight-alpha colour $AARRGGBB.
std::string WritePng(const kltest::TTempDir& Dir, const std::string& Name, uint32_t Argb) {
  TBitmap b(16, 16);
  for (int y = 0; y < 16; ++y)
    for (int x = 0; x < 16; ++x) b.Scanline(y)[x] = Argb;
  std::string path = Dir / Name;
  EXPECT_TRUE(TPngImage::SaveBitmap(b, path, true));
  return path;
}

TPngImage Load(const std::string& Path) {
  TPngImage p;
  EXPECT_TRUE(p.LoadFromFile(Path)) << Path;
  return p;
}

bool Same(const RECT& A, const RECT& B) { return EqualRect(&A, &B) != 0; }

bool Near(COLORREF A, COLORREF B) {
  return std::abs(GetRValue(A) - GetRValue(B)) <= 2 && std::abs(GetGValue(A) - GetGValue(B)) <= 2 &&
         std::abs(GetBValue(A) - GetBValue(B)) <= 2;
}

}  // namespace

TEST(BitBtn2, ImagesHoverDisabledAndCorruptPng) {
  kltest::TTempDir dir;
  auto form = kltest::MakeHostForm();
  auto* btn = new UBitButtonEx::TklBitBtn2(form.get());
  btn->SetColor(clWhite);
  btn->SetBounds(10, 10, 40, 30);
  btn->SetParent(form.get());
  btn->SetGlyphNormal(Load(WritePng(dir, "n.png", 0xFFFF0000)));
  btn->SetGlyphOver(Load(WritePng(dir, "o.png", 0x8000FF00)));  // half-transparent green
  btn->SetGlyphDisabled(Load(WritePng(dir, "d.png", 0xFF0000FF)));
  int enter = 0, leave = 0;
  btn->OnMouseEnter = [&enter](TComponent*) { ++enter; };
  btn->OnMouseLeave = [&leave](TComponent*) { ++leave; };
  TBitmap b;
  Render(*btn, b);
  kltest::SaveScreenshot(b, "bitbtn2_normal");
  EXPECT_EQ(b.Pixel(20, 15), RGB(255, 0, 0));
  EXPECT_EQ(b.Pixel(2, 2), RGB(255, 255, 255));
  SendMouse(*btn, WM_MOUSEMOVE, 20, 15);
  Render(*btn, b);
  kltest::SaveScreenshot(b, "bitbtn2_hover");
  EXPECT_TRUE(Near(b.Pixel(20, 15), RGB(127, 255, 127))) << std::hex << b.Pixel(20, 15);
  SendMessageA(btn->Handle(), WM_MOUSELEAVE, 0, 0);
  Render(*btn, b);
  EXPECT_EQ(b.Pixel(20, 15), RGB(255, 0, 0));
  EXPECT_EQ(enter, 1);
  EXPECT_GE(leave, 1);
  btn->SetEnabled(false);
  Render(*btn, b);
  kltest::SaveScreenshot(b, "bitbtn2_disabled");
  EXPECT_EQ(b.Pixel(20, 15), RGB(0, 0, 255));

  // Corrupt and cut files are refused; an empty image draws only the background.
  std::string good = kltest::ReadFileBytes(dir / "n.png");
  kltest::WriteFileBytes(dir / "cut.png", good.substr(0, good.size() / 2));
  kltest::WriteFileBytes(dir / "bad.png", good.substr(0, 16) + std::string(200, '\x5A'));
  for (const char* name : {"cut.png", "bad.png", "missing.png"}) {
    TPngImage p;
    EXPECT_FALSE(p.LoadFromFile(dir / name)) << name;
    EXPECT_TRUE(p.Empty());
    btn->SetGlyphDisabled(p);
    btn->SetGlyphNormal(p);
  }
  Render(*btn, b);
  EXPECT_EQ(b.Pixel(20, 15), RGB(255, 255, 255));
}

TEST(SmallControls, LabelShapeAndVistaFix) {
  auto form = kltest::MakeHostForm();
  auto* label = new UMyLabel::TMyLabel(form.get());
  label->SetColor(clWhite);
  label->SetBounds(10, 10, 120, 20);
  label->SetParent(form.get());
  label->SetRealText("C:\\media\\a rather long file name.mp4");
  EXPECT_EQ(label->GetLabelText(), label->GetRealText());
  label->SetText("file.mp4");
  EXPECT_EQ(label->GetLabelText(), "file.mp4");
  TBitmap b;
  Render(*label, b);
  kltest::SaveScreenshot(b, "mylabel");
  int dark = 0;
  for (int y = 0; y < b.Height(); ++y)
    for (int x = 0; x < b.Width(); ++x) dark += GetGValue(b.Pixel(x, y)) < 128;
  EXPECT_GT(dark, 10);

  auto* shape = new UCustomPaintControls::TCustomPaintShape(form.get());
  shape->SetBounds(150, 10, 40, 40);
  shape->SetParent(form.get());
  shape->SetShape(UCustomPaintControls::TShapeType::stEllipse);
  shape->Brush.Color = clRed;
  shape->OnPaint = [](TComponent*, TCanvas& C) {
    C.Brush.Color = clBlue;
    C.FillRect(RECT{18, 18, 22, 22});  // over the shape
  };
  Render(*shape, b);
  kltest::SaveScreenshot(b, "custompaintshape");
  EXPECT_EQ(b.Pixel(1, 1), ColorToRGB(clBtnFace));
  EXPECT_EQ(b.Pixel(10, 20), RGB(255, 0, 0));
  EXPECT_EQ(b.Pixel(20, 20), RGB(0, 0, 255));

  // Where the system is not themed Vista or later the fix stays out of the way.
  VistaAltFixUnit::TVistaAltFix fix(nullptr);
  EXPECT_EQ(fix.Active(), VistaAltFixUnit::VistaWithTheme());
  Application().Idle();
  EXPECT_EQ(static_cast<bool>(form->OnMessage), fix.Active());
}

TEST(Bounder, MovesAndSizesWithTheMouse) {
  using UVisibleObjectBounder::TVisibleObjectBounder;
  auto form = kltest::MakeHostForm(400, 300);
  auto* b = new TVisibleObjectBounder(form.get());
  b->SetParent(form.get());
  b->SetObjectBounds(RECT{50, 50, 150, 100});
  std::vector<RECT> reports;
  b->OnBoundsChange = [&reports](TComponent*, const RECT& R) { reports.push_back(R); };
  const int m = TVisibleObjectBounder::Margin;
  EXPECT_EQ(b->HitTest(b->Width() / 2, b->Height() / 2), TVisibleObjectBounder::hNone);
  // Bottom-right handle: 20 right, 10 down.
  int hx = b->Width() - m - 1, hy = b->Height() - m - 1;
  ASSERT_EQ(b->HitTest(hx, hy), TVisibleObjectBounder::hBottomRight);
  SendMouse(*b, WM_LBUTTONDOWN, hx, hy, MK_LBUTTON);
  SendMouse(*b, WM_MOUSEMOVE, hx + 20, hy + 10, MK_LBUTTON);
  SendMouse(*b, WM_LBUTTONUP, hx + 20, hy + 10);
  // The frame: the window follows the pointer, so the release comes at the same spot.
  SendMouse(*b, WM_LBUTTONDOWN, 30, m, MK_LBUTTON);
  SendMouse(*b, WM_MOUSEMOVE, 35, m + 7, MK_LBUTTON);
  SendMouse(*b, WM_LBUTTONUP, 30, m);
  // Past the opposite edge: the minimum size holds.
  SendMouse(*b, WM_LBUTTONDOWN, m, b->Height() / 2, MK_LBUTTON);
  SendMouse(*b, WM_MOUSEMOVE, m + 500, b->Height() / 2, MK_LBUTTON);
  SendMouse(*b, WM_LBUTTONUP, m + 500, b->Height() / 2);
  ASSERT_EQ(reports.size(), 3u);
  EXPECT_TRUE(Same(reports[0], RECT{50, 50, 170, 110}));
  EXPECT_TRUE(Same(reports[1], RECT{55, 57, 175, 117}));
  EXPECT_EQ(reports[2].left, 175 - b->MinSize);
  EXPECT_EQ(b->Left(), reports[2].left - m);
  TBitmap shot;
  Render(*b, shot);
  kltest::SaveScreenshot(shot, "objectbounder");
}

TEST(Forms, ModalResultOwnershipAndTimer) {
  // The owner frees what it owns; one freed before leaves its list.
  int freed = 0;
  struct TCounted : TComponent {
    int* Freed;
    TCounted(TComponent* O, int* F) : TComponent(O), Freed(F) {}
    ~TCounted() override { ++*Freed; }
  };
  auto* owner = new TComponent(nullptr);
  new TCounted(owner, &freed);
  delete new TCounted(owner, &freed);
  new TCounted(owner, &freed);
  EXPECT_EQ(owner->ComponentCount(), 2);
  delete owner;
  EXPECT_EQ(freed, 3);

  // A timer closes a modal form with OK; the form's own OnClose still runs and the form
  // that was active comes back.
  auto host = kltest::MakeHostForm();
  SetActiveWindow(host->Handle());
  TForm dialog(nullptr);
  dialog.BorderStyle = TFormBorderStyle::bsNone;
  dialog.SetBounds(100, 100, 100, 60);
  bool closed = false;
  dialog.OnClose = [&closed](TComponent*, TCloseAction&) { closed = true; };
  TTimer timer(&dialog);
  timer.SetInterval(30);
  int ticks = 0;
  timer.OnTimer = [&](TComponent*) {
    EXPECT_FALSE(IsWindowEnabled(host->Handle()));  // the other forms wait
    if (++ticks == 2) UModalForms::SetModalResult(&dialog, mrOk);
  };
  EXPECT_EQ(UModalForms::ShowFormModal(&dialog), mrOk);
  EXPECT_TRUE(closed);
  EXPECT_EQ(ticks, 2);
  EXPECT_FALSE(dialog.Visible());
  EXPECT_TRUE(IsWindowEnabled(host->Handle()));
  EXPECT_EQ(GetActiveWindow(), host->Handle());
  EXPECT_EQ(UModalForms::ShowFormModal(nullptr), mrNone);
}

TEST(Register, ListsCreatesAndCarriesBitmapsAndVersion) {
  URegister::Register();
  URegister::Register();  // again: nothing new
  const std::vector<std::string> expected = {
      "TklColorComboBox", "TklBitBtn",          "TklBitBtn2",         "TklMediaPlayer", "TFileVersionInfo",
      "TVistaAltFix",     "TVisibleObjectBounder", "TklColorButton",  "TTimeLineControl", "TTimeLineControlEx",
      "TFFmpegPlayer",    "TMyLabel",           "TCustomPaintShape"};
  std::vector<std::string> names;
  for (const auto& c : URegister::RegisteredClasses()) {
    names.push_back(c.Name);
    EXPECT_EQ(c.Page, "KL");
  }
  EXPECT_EQ(names, expected);
  auto form = kltest::MakeHostForm();
  int created = 0;
  for (const auto& c : URegister::RegisteredClasses()) {
    if (!c.Create) continue;
    TComponent* obj = URegister::CreateComponent(c.Name, form.get());
    ASSERT_NE(obj, nullptr) << c.Name;
    EXPECT_EQ(obj->Owner(), form.get());
    if (auto* w = dynamic_cast<TWinControl*>(obj)) {
      w->SetParent(form.get());
      EXPECT_TRUE(IsWindow(w->Handle())) << c.Name;
    }
    ++created;
  }
  EXPECT_EQ(created, 11);
  EXPECT_EQ(URegister::CreateComponent("TNoSuchClass", form.get()), nullptr);

  const std::string dll = kltest::ExeDir() + "klComponents.dll";
  HMODULE module = LoadLibraryExA(dll.c_str(), nullptr, LOAD_LIBRARY_AS_DATAFILE);
  ASSERT_NE(module, nullptr);
  for (const auto& n : expected) EXPECT_NE(FindResourceA(module, n.c_str(), MAKEINTRESOURCEA(2)), nullptr) << n;
  FreeLibrary(module);

  UFileVersionInfo::TFileVersionInfo info(nullptr);
  ASSERT_TRUE(info.SetFileName(dll));
  EXPECT_EQ(info.FileVersion(), "1.0.0.0");
  EXPECT_EQ(info.Value("ProductName"), "klComponents");
  EXPECT_EQ(info.Value("FileVersion"), "1.0.0.0");
  EXPECT_FALSE(info.SetFileName(kltest::ExeDir() + "no such file.dll"));
  EXPECT_TRUE(info.FileVersion().empty() && info.Strings().empty());
}
