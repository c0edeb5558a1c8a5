// The colour pickers on real windows: the named-colour list and its command entries, the
// screen picker over painted windows, the colour form's swatches, double click and
// registry-kept custom colours, the colour button, and no GDI or USER objects left behind.
#include <gtest/gtest.h>

#include <string>

#include "ControlsTestKit.h"
#include "controls/UColorsForm.h"
#include "controls/klColorButton.h"
#include "controls/klColorComboBox.h"

using namespace kl;
using namespace kl::UColorsForm;
using kl::klColorButton::TklColorButton;
using kl::klColorComboBox::TklColorComboBox;

namespace {

// Once the modal loop in progress runs out of messages, Act runs (once).
void WhenIdle(std::function<void()> Act) {
  auto id = std::make_shared<int>(0);
  *id = Application().AddIdleHandler([id, Act](bool&) {
    Application().RemoveIdleHandler(*id);
    Act();
  });
}

// A left click at a screen point, posted to whatever window is there.
void PostClickAt(POINT Screen) {
  HWND w = WindowFromPoint(Screen);
  POINT p = Screen;
  ScreenToClient(w, &p);
  PostMessageA(w, WM_LBUTTONDOWN, MK_LBUTTON, MAKELPARAM(p.x, p.y));
  PostMessageA(w, WM_LBUTTONUP, 0, MAKELPARAM(p.x, p.y));
}

void SetCustomColorsValue(const char* Text) {
  HKEY key = nullptr;
  ASSERT_EQ(RegCreateKeyExA(HKEY_CURRENT_USER, CustomColorsKey, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key, nullptr),
            ERROR_SUCCESS);
  if (Text)
    RegSetValueExA(key, CustomColorsValue, 0, REG_SZ, reinterpret_cast<const BYTE*>(Text), DWORD(strlen(Text) + 1));
  else
    RegDeleteValueA(key, CustomColorsValue);
  RegCloseKey(key);
}

std::vector<TColor> CustomColors() {
  TfrmColors f(nullptr);
  std::vector<TColor> out;
  for (TShape* s : f.CustomShapes) out.push_back(TfrmColors::GetShapeColor(s));
  return out;
}

}  // namespace

TEST(ColorComboBox, ListValuesSelectionAndDrawing) {
  auto host = kltest::MakeHostForm();
  auto* box = new TklColorComboBox(host.get());
  box->SetBounds(10, 10, 160, 240);
  box->SetParent(host.get());
  const char* texts[] = {"Указать...",   "Выбрать...",     "Черный",       "Бордовый",   "Темно зеленый", "Оливковый",
                         "Темно синий",  "Фиолетовый",     "Сине-зеленый", "Темно серый", "Светло серый",  "Красный",
                         "Светло зеленый", "Желтый",       "Синий",        "Ярко фиолетовый", "Голубой",  "Белый"};
  const TColor values[] = {0xFFFFFD, 0xFFFFFE, 0x000000, 0x000080, 0x008000, 0x008080, 0x800000, 0x800080, 0x808000,
                           0x808080, 0xC0C0C0, 0x0000FF, 0x00FF00, 0x00FFFF, 0xFF0000, 0xFF00FF, 0xFFFF00, 0xFFFFFF};
  ASSERT_EQ(box->ItemCount(), 18);
  for (int i = 0; i < 18; ++i) {
    EXPECT_EQ(box->ItemText(i), texts[i]) << i;
    EXPECT_EQ(box->ItemValue(i), values[i]) << i;
  }
  EXPECT_EQ(box->ItemText(2), "\xD7\xE5\xF0\xED\xFB\xE9");  // Windows-1251 at run time
  EXPECT_EQ(box->ColorValue(), 0u);

  int changes = 0;
  box->OnChange = [&](TComponent*) { ++changes; };
  box->SetColorValue(0x0000FF);
  EXPECT_EQ(box->ItemIndex(), 11);
  box->SetColorValue(0xFFFFFD);  // the screen entry never matches
  EXPECT_EQ(box->ItemIndex(), 1);
  EXPECT_EQ(box->ItemValue(1), 0xFFFFFDu);
  EXPECT_EQ(box->ItemValue(0), 0xFFFFFDu);
  EXPECT_EQ(changes, 2);

  // Selections by the keyboard: one change each; the dialog entry asks the dialog.
  TColor offered = 0;
  bool confirm = true;
  auto old = SetColorDialogFunction([&](HWND, TColor& C) {
    offered = C;
    C = 0x123456;
    return confirm;
  });
  box->SetColorValue(clBlack);
  changes = 0;
  kltest::SendKey(*box, VK_DOWN);
  EXPECT_EQ(box->ItemIndex(), 3);
  EXPECT_EQ(changes, 1);
  kltest::SendKey(*box, VK_UP);
  kltest::SendKey(*box, VK_UP);
  EXPECT_EQ(changes, 3);
  EXPECT_EQ(offered, 0xFFFFFDu);  // the custom colour held by the entry
  EXPECT_EQ(box->ItemIndex(), 1);
  EXPECT_EQ(box->ColorValue(), 0x123456u);
  confirm = false;
  box->SetColorValue(clBlack);
  kltest::SendKey(*box, VK_UP);  // the dialog, cancelled: back to the previous entry
  EXPECT_EQ(box->ItemIndex(), 2);
  SetColorDialogFunction(old);

  // An owner-drawn item as its parent asks for it.
  TBitmap b(150, 16);
  b.Fill(RGB(1, 2, 3));
  DRAWITEMSTRUCT dis{ODT_COMBOBOX, 0, 11, ODA_DRAWENTIRE, 0, box->Handle(), b.DC(), {0, 0, 150, 16}, 0};
  SendMessageA(host->Handle(), WM_DRAWITEM, 0, reinterpret_cast<LPARAM>(&dis));
  EXPECT_EQ(b.Pixel(14, 8), 0x0000FFu);
  EXPECT_EQ(b.Pixel(2, 2), 0u);  // the box's outline
  int text = 0;
  for (int x = 30; x < 150; ++x)
    for (int y = 0; y < 16; ++y) text += b.Pixel(x, y) == ColorToRGB(clWindowText);
  EXPECT_GT(text, 20);
  kltest::SaveScreenshot(b, "colorcombo_item_red");

  box->SetDroppedDown(true);
  Application().ProcessMessages();
  TBitmap screen;
  if (CaptureScreen(screen)) kltest::SaveScreenshot(screen, "colorcombo_list_open");
  box->SetDroppedDown(false);
}

TEST(ColorPickers, ScreenPickerTakesThePixelUnderTheRelease) {
  auto host = kltest::MakeHostForm(300, 80);
  const TColor colors[] = {0x0000FF, 0x00FF00, 0x8040C0};  // the middle one for the list
  for (int i = 0; i < 3; ++i) {
    auto* part = new TCustomControl(host.get());
    part->SetColor(colors[i]);
    part->SetBounds(i * 100, 0, 100, 80);
    part->SetParent(host.get());
  }
  Application().ProcessMessages();
  UpdateWindow(host->Handle());
  for (int i : {0, 2}) {
    WhenIdle([&host, i] { PostClickAt(host->ClientToScreen({i * 100 + 50, 40})); });
    TColor c = 0;
    ASSERT_TRUE(ChooseColor(c));
    EXPECT_EQ(c, colors[i]) << i;
  }

  // The list's screen entry (each picker costs Wine 2 s: a window as large as the screen
  // is handed to the window manager, and the test screen has none): the picked colour selects its name.
  auto* box = new TklColorComboBox(host.get());
  box->SetBounds(0, 0, 100, 200);
  box->SetParent(host.get());
  host->SetBounds(60, 200, 300, 80);  // the parts stay clear of the list's own window
  Application().ProcessMessages();
  box->SetColorValue(clBlack);
  SendMessageA(box->Handle(), CB_SETCURSEL, 1, 0);
  WhenIdle([&host] { PostClickAt(host->ClientToScreen({150, 40})); });
  kltest::SendKey(*box, VK_UP);
  EXPECT_EQ(box->ItemIndex(), 12);
  EXPECT_EQ(box->ColorValue(), 0x00FF00u);

  // A capture that fails ends the picker at once.
  auto old = SetScreenCaptureFunction([](TBitmap&) { return false; });
  TColor c = 7;
  EXPECT_FALSE(ChooseColor(c));
  EXPECT_EQ(c, 7u);
  SetScreenCaptureFunction(old);
}

TEST(ColorsForm, SwatchesDoubleClickAndCustomColors) {
  SetCustomColorsValue(nullptr);
  EXPECT_EQ(CustomColors(), std::vector<TColor>(8, CustomColorDesigned));
  SetCustomColorsValue("");
  EXPECT_EQ(CustomColors(), std::vector<TColor>(8, CustomColorDesigned));
  SetCustomColorsValue("1,x,3");
  EXPECT_EQ(CustomColors(), (std::vector<TColor>{1, CustomColorFallback, 3, CustomColorDesigned, CustomColorDesigned,
                                                 CustomColorDesigned, CustomColorDesigned, CustomColorDesigned}));
  {
    TfrmColors f(nullptr);
    EXPECT_EQ(f.Caption(), "Выбор цвета");
    ASSERT_EQ(f.CustomShapes.size(), 8u);
    EXPECT_EQ(f.CustomShapes[0]->Name, "shpCustomColor1");
    for (int i = 0; i < 8; ++i) f.CustomShapes[size_t(i)]->SetBrushColor(TColor(0x10000 * i + 5));
    f.Close();
  }
  std::vector<TColor> expected;
  for (int i = 0; i < 8; ++i) expected.push_back(TColor(0x10000 * i + 5));
  EXPECT_EQ(CustomColors(), expected);

  TfrmColors f(nullptr);
  f.SetColorValue(0x00FFFF);
  EXPECT_EQ(f.SelectedShape(), f.FindShapeByColor(0x00FFFF));
  EXPECT_EQ(TfrmColors::GetShapeColor(f.SelectedShape()), 0x00FFFFu);
  EXPECT_EQ(TfrmColors::GetShapeColor(f.shpSelected), 0x00FFFFu);
  f.SetColorValue(0x123457);
  EXPECT_EQ(f.SelectedShape(), nullptr);

  // Two clicks 400 ms apart are two single clicks; within 300 ms they close with OK.
  ASSERT_TRUE(f.Handle());
  TShape* s = f.PresetShapes[10];
  auto click = [&] {
    kltest::SendMouse(*s, WM_LBUTTONDOWN, 5, 5, MK_LBUTTON);
    kltest::SendMouse(*s, WM_LBUTTONUP, 5, 5);
  };
  click();
  for (DWORD t0 = GetTickCount(); GetTickCount() - t0 < 400;) {
    Application().ProcessMessages();
    Sleep(10);
  }
  click();
  EXPECT_EQ(f.ModalResult(), mrNone);
  EXPECT_EQ(f.ColorValue(), 0x0000FFu);
  EXPECT_EQ(f.SelectedShape(), s);
  click();
  EXPECT_EQ(f.ModalResult(), mrOk);
  kltest::SendMouse(*s, WM_RBUTTONDOWN, 5, 5, MK_RBUTTON);  // the right button does nothing
}

TEST(ColorButton, OkTakesTheColourCancelKeepsIt) {
  auto host = kltest::MakeHostForm();
  auto* button = new TklColorButton(host.get());
  button->SetBounds(10, 10, 75, 25);
  button->SetParent(host.get());
  button->SetColorValue(0x0000FF);
  int changes = 0;
  button->OnChange = [&](TComponent*) { ++changes; };
  auto drive = [&](TColor Pick, bool Ok, const char* Shot) {
    button->OnShowDialog = [=](TfrmColors* F) {
      F->BorderStyle = TFormBorderStyle::bsNone;  // no window manager to wait for
      F->SetColorValue(Pick);
      WhenIdle([=] {
        TBitmap screen;
        if (Shot && CaptureScreen(screen)) kltest::SaveScreenshot(screen, Shot);
        PostMessageA((Ok ? F->btnOk : F->btnCancel)->Handle(), BM_CLICK, 0, 0);
      });
    };
    kltest::SendMouse(*button, WM_LBUTTONDOWN, 10, 10, MK_LBUTTON);
    kltest::SendMouse(*button, WM_LBUTTONUP, 10, 10);
  };
  drive(0x00FF00, true, "colors_form");
  EXPECT_EQ(button->ColorValue(), 0x00FF00u);
  EXPECT_EQ(changes, 1);
  drive(0xFF0000, false, nullptr);
  EXPECT_EQ(button->ColorValue(), 0x00FF00u);
  EXPECT_EQ(changes, 1);

  TBitmap b;
  kltest::Render(*button, b);
  kltest::SaveScreenshot(b, "color_button");
  EXPECT_EQ(b.Pixel(37, 12), 0x00FF00u);
}

// Twenty openings: under Wine each shows and hides fifty child windows in about 0.35 s.
TEST(ColorsForm, NoObjectsLeftOverOpenings) {
  TfrmColors f(nullptr);
  f.BorderStyle = TFormBorderStyle::bsNone;
  auto open = [&f](TColor C) {
    f.Show();
    f.SetColorValue(C);
    Application().ProcessMessages();
    f.Close();
  };
  open(clRed);
  const int gdi = kltest::GdiObjects(), user = kltest::UserObjects();
  for (int i = 0; i < 20; ++i) open(i % 2 ? clRed : 0x123456);
  for (int i = 0; i < 3; ++i) TfrmColors(nullptr).Handle();  // whole forms made and freed
  EXPECT_LE(kltest::GdiObjects(), gdi + 3);
  EXPECT_EQ(kltest::UserObjects(), user);
}
