#include "controls/UColorsForm.h"

#include <algorithm>
#include <charconv>
#include <mutex>

#include "controls/UModalForms.h"
#include "diagnostics/klLog.h"
#include "rtl/Handles.h"

namespace kl::UColorsForm {

namespace {

struct TRegKeyTraits {
  static bool Valid(HKEY H) { return H != nullptr; }
  static void Close(HKEY H) { RegCloseKey(H); }
};
using TRegKey = Handles::TOwnedHandle<HKEY, TRegKeyTraits>;

std::mutex& FunctionLock() {
  static std::mutex m;
  return m;
}
TColorDialogFunction& DialogFunction() {
  static TColorDialogFunction f;
  return f;
}
TScreenCaptureFunction& CaptureFunction() {
  static TScreenCaptureFunction f;
  return f;
}

bool SystemColorDialog(HWND Owner, TColor& Color) {
  // The dialog's own sixteen custom colours live as long as the process.
  static COLORREF custom[16] = {};
  CHOOSECOLORA cc{};
  cc.lStructSize = sizeof(cc);
  cc.hwndOwner = Owner;
  cc.rgbResult = ColorToRGB(Color);
  cc.lpCustColors = custom;
  cc.Flags = CC_RGBINIT | CC_FULLOPEN;
  if (!::ChooseColorA(&cc)) return false;
  Color = cc.rgbResult;
  return true;
}

bool SystemScreenCapture(TBitmap& Into) {
  const int x = GetSystemMetrics(SM_XVIRTUALSCREEN), y = GetSystemMetrics(SM_YVIRTUALSCREEN);
  const int w = GetSystemMetrics(SM_CXVIRTUALSCREEN), h = GetSystemMetrics(SM_CYVIRTUALSCREEN);
  if (!Into.SetSize(w, h)) return false;
  HDC screen = GetDC(nullptr);
  if (!screen) {
    klLog::AddToEventLog("UColorsForm.CaptureScreen: GetDC: " + klLog::GetLastErrorStr(), klLog::lkError);
    return false;
  }
  BOOL ok = BitBlt(Into.DC(), 0, 0, w, h, screen, x, y, SRCCOPY | CAPTUREBLT);
  ReleaseDC(nullptr, screen);
  if (!ok) klLog::AddToEventLog("UColorsForm.CaptureScreen: BitBlt: " + klLog::GetLastErrorStr(), klLog::lkError);
  return ok != FALSE;
}

// The picker's window: borderless, above every other window, over the whole screen.
class TPickerForm : public TForm {
 public:
  TPickerForm() : TForm(nullptr), Image(new TImage(this)) {
    BorderStyle = TFormBorderStyle::bsNone;
    Image->Cursor = IDC_CROSS;
    Image->OnMouseUp = [this](TComponent*, TMouseButton Button, TShiftState, int X, int Y) {
      if (Button != TMouseButton::mbLeft || Image->Picture.Empty()) return;
      X = std::clamp(X, 0, Image->Picture.Width() - 1);
      Y = std::clamp(Y, 0, Image->Picture.Height() - 1);
      Result = Image->Picture.Pixel(X, Y);
      UModalForms::SetModalResult(this, mrOk);
    };
    Image->OnKeyDown = [this](TComponent*, WORD& Key, TShiftState) {
      if (Key == VK_ESCAPE) UModalForms::SetModalResult(this, mrCancel);
    };
  }
  TImage* Image;
  TColor Result = clBlack;

 protected:
  DWORD WindowExStyle() const override { return TForm::WindowExStyle() | WS_EX_TOPMOST | WS_EX_TOOLWINDOW; }
};

// The preset swatches: the sixteen basic colours first, then lighter and darker shades.
constexpr TColor kPresets[] = {
    0x000000, 0x808080, 0x000080, 0x008080, 0x008000, 0x808000, 0x800000, 0x800080,  //
    0xFFFFFF, 0xC0C0C0, 0x0000FF, 0x00FFFF, 0x00FF00, 0xFFFF00, 0xFF0000, 0xFF00FF,  //
    0x8080FF, 0x80FFFF, 0x80FF80, 0xFFFF80, 0xFF8080, 0xFF80C0, 0x4080FF, 0x80C0FF,  //
    0x004080, 0x0080FF, 0x408000, 0x804000, 0xFF8000, 0xC08080, 0x400080, 0x404040,  //
    0xE0E0E0, 0xA0A0A0, 0x202020, 0x0040FF, 0x00C0C0, 0x40C040, 0xC0C000, 0xC04080};
constexpr int kColumns = 8, kSwatch = 25, kStep = 28, kMargin = 8;
constexpr int kClientWidth = kMargin * 2 + (kColumns - 1) * kStep + kSwatch;

// "1, 2,x" -> 1, 2, fallback; an empty text has no items.
std::vector<TColor> ParseColors(const std::string& Text) {
  std::vector<TColor> out;
  if (Text.empty()) return out;
  size_t pos = 0;
  for (;;) {
    size_t comma = Text.find(',', pos);
    std::string item = Text.substr(pos, comma == std::string::npos ? std::string::npos : comma - pos);
    size_t b = item.find_first_not_of(" \t"), e = item.find_last_not_of(" \t");
    item = b == std::string::npos ? std::string() : item.substr(b, e - b + 1);
    long long v = 0;
    auto [end, ec] = std::from_chars(item.data(), item.data() + item.size(), v);
    bool ok = !item.empty() && ec == std::errc() && end == item.data() + item.size();
    out.push_back(ok ? static_cast<TColor>(v) : CustomColorFallback);
    if (comma == std::string::npos) break;
    pos = comma + 1;
  }
  return out;
}

}  // namespace

TColorDialogFunction SetColorDialogFunction(TColorDialogFunction Func) {
  std::lock_guard<std::mutex> guard(FunctionLock());
  TColorDialogFunction old = std::move(DialogFunction());
  DialogFunction() = std::move(Func);
  return old;
}

TScreenCaptureFunction SetScreenCaptureFunction(TScreenCaptureFunction Func) {
  std::lock_guard<std::mutex> guard(FunctionLock());
  TScreenCaptureFunction old = std::move(CaptureFunction());
  CaptureFunction() = std::move(Func);
  return old;
}

bool ExecuteColorDialog(HWND Owner, TColor& Color) {
  TColorDialogFunction f;
  {
    std::lock_guard<std::mutex> guard(FunctionLock());
    f = DialogFunction();
  }
  return f ? f(Owner, Color) : SystemColorDialog(Owner, Color);
}

bool CaptureScreen(TBitmap& Into) {
  TScreenCaptureFunction f;
  {
    std::lock_guard<std::mutex> guard(FunctionLock());
    f = CaptureFunction();
  }
  return f ? f(Into) : SystemScreenCapture(Into);
}

bool ChooseColor(TColor& Color) {
  TPickerForm picker;
  if (!CaptureScreen(picker.Image->Picture) || picker.Image->Picture.Empty()) {
    klLog::AddToEventLog("UColorsForm.ChooseColor: the screen capture failed", klLog::lkError);
    return false;
  }
  const int w = picker.Image->Picture.Width(), h = picker.Image->Picture.Height();
  picker.SetBounds(GetSystemMetrics(SM_XVIRTUALSCREEN), GetSystemMetrics(SM_YVIRTUALSCREEN), w, h);
  picker.Image->SetBounds(0, 0, w, h);
  picker.Image->SetParent(&picker);
  // The image takes the keys (Escape) once the picker is up.
  picker.OnActivate = [&picker](TComponent*) { picker.Image->SetFocus(); };
  if (picker.ShowModal() != mrOk) return false;
  Color = picker.Result;
  return true;
}

// --- small controls ------------------------------------------------------------------

void TShape::Paint(TCanvas& Canvas) {
  Canvas.Pen = Pen;
  Canvas.Brush = Brush;
  Canvas.Rectangle(ClientRect());
}

TButton::TButton(TComponent* AOwner) : TWinControl(AOwner) { TabStop = true; }

DWORD TButton::WindowStyle() const { return TWinControl::WindowStyle() | BS_PUSHBUTTON; }

LRESULT TButton::WndProc(UINT Msg, WPARAM WParam, LPARAM LParam) {
  if (Msg == CN_COMMAND && HIWORD(WParam) == BN_CLICKED) {
    if (ModalResult != mrNone)
      for (TWinControl* p = Parent(); p; p = p->Parent())
        if (auto* form = dynamic_cast<TForm*>(p)) {
          UModalForms::SetModalResult(form, ModalResult);
          break;
        }
    Click();
    return 0;
  }
  return TWinControl::WndProc(Msg, WParam, LParam);
}

void TButton::CreateWnd() {
  TWinControl::CreateWnd();
  // The system button's default font is the old bitmap one.
  if (FHandle) SendMessageA(FHandle, WM_SETFONT, reinterpret_cast<WPARAM>(GetStockObject(DEFAULT_GUI_FONT)), FALSE);
}

void TImage::Paint(TCanvas& Canvas) {
  TWinControl::Paint(Canvas);
  if (!Picture.Empty()) Canvas.Draw(0, 0, Picture.DC(), Picture.Width(), Picture.Height());
}

// --- TfrmColors ----------------------------------------------------------------------

TShape* TfrmColors::AddSwatch(int X, int Y, TColor Color, const std::string& AName) {
  auto* s = new TShape(this);
  s->Name = AName;
  s->SetBounds(X, Y, kSwatch, kSwatch);
  s->Pen.Color = clGray;
  s->Brush.Color = Color;
  s->Cursor = IDC_HAND;
  s->OnMouseDown = [this](TComponent* Sender, TMouseButton Button, TShiftState Shift, int X, int Y) {
    shpCustomColorMouseDown(Sender, Button, Shift, X, Y);
  };
  FChildrenToPlace.push_back(s);
  return s;
}

TfrmColors::TfrmColors(TComponent* AOwner) : TForm(AOwner) {
  Name = "frmColors";
  SetCaption("Выбор цвета");
  BorderStyle = TFormBorderStyle::bsDialog;

  imgChoose = new TImage(this);
  imgChoose->Name = "imgChoose";
  imgChoose->SetBounds(kMargin, kMargin, 32, 32);
  imgChoose->Cursor = IDC_HAND;
  imgChoose->Hint = "Указать цвет мышкой на экране";
  imgChoose->ShowHint = true;
  imgChoose->OnClick = [this](TComponent*) { imgChooseClick(); };
  {
    // An aiming mark: a ring with a cross through it.
    TBitmap& b = imgChoose->Picture;
    b.SetSize(32, 32);
    b.Fill(ColorToRGB(clBtnFace));
    TCanvas& c = b.Canvas();
    c.Pen.Color = clBlack;
    c.Pen.Width = 2;
    c.Brush.Style = TBrushStyle::bsClear;
    c.Ellipse(6, 6, 26, 26);
    c.MoveTo(16, 1);
    c.LineTo(16, 31);
    c.MoveTo(1, 16);
    c.LineTo(31, 16);
    c.Release();
  }
  FChildrenToPlace.push_back(imgChoose);

  shpSelected = new TShape(this);
  shpSelected->Name = "shpSelected";
  shpSelected->SetBounds(kMargin + 40, kMargin, kClientWidth - 2 * kMargin - 40, 32);
  shpSelected->Brush.Color = FColor;
  FChildrenToPlace.push_back(shpSelected);

  int y = kMargin + 40;
  for (size_t i = 0; i < std::size(kPresets); ++i) {
    int col = static_cast<int>(i) % kColumns, row = static_cast<int>(i) / kColumns;
    PresetShapes.push_back(
        AddSwatch(kMargin + col * kStep, y + row * kStep, kPresets[i], "shpColor" + std::to_string(i + 1)));
  }
  y += static_cast<int>((std::size(kPresets) + kColumns - 1) / kColumns) * kStep + 8;
  for (int i = 0; i < CustomColorCount; ++i)
    CustomShapes.push_back(
        AddSwatch(kMargin + i * kStep, y, CustomColorDesigned, "shpCustomColor" + std::to_string(i + 1)));
  y += kStep + 6;

  const int bw = kClientWidth - 2 * kMargin;
  btnPallete = new TButton(this);
  btnPallete->Name = "btnPallete";
  btnPallete->SetCaption("Из палитры ...");
  btnPallete->SetBounds(kMargin, y, bw, 25);
  btnPallete->OnClick = [this](TComponent*) { btnPalleteClick(); };
  y += 32;
  btnOk = new TButton(this);
  btnOk->Name = "btnOk";
  btnOk->SetCaption("OK");
  btnOk->ModalResult = mrOk;
  btnOk->SetBounds(kMargin, y, (bw - 8) / 2, 25);
  btnCancel = new TButton(this);
  btnCancel->Name = "btnCancel";
  btnCancel->SetCaption("Cancel");
  btnCancel->ModalResult = mrCancel;
  btnCancel->SetBounds(kMargin + (bw + 8) / 2, y, (bw - 8) / 2, 25);
  FChildrenToPlace.insert(FChildrenToPlace.end(), {btnPallete, btnOk, btnCancel});
  y += 25 + kMargin;

  tmrDoubleClick = new TTimer(this);
  tmrDoubleClick->Name = "tmrDoubleClick";
  tmrDoubleClick->SetEnabled(false);
  tmrDoubleClick->SetInterval(DoubleClickInterval);
  tmrDoubleClick->OnTimer = [this](TComponent*) { tmrDoubleClick->SetEnabled(false); };

  RECT r{0, 0, kClientWidth, y};
  AdjustWindowRectEx(&r, WindowStyle(), FALSE, WindowExStyle());
  SetBounds(200, 150, r.right - r.left, r.bottom - r.top);

  OnClose = [this](TComponent*, TCloseAction&) { SaveCustomColors(); };
  LoadCustomColors();
}

void TfrmColors::CreateWnd() {
  TForm::CreateWnd();
  // The children's windows follow the form's, so that the border style stays open to
  // change until the form's window is made.
  if (!FHandle) return;
  for (TWinControl* c : FChildrenToPlace) c->SetParent(this);
}

void TfrmColors::SetColorValue(TColor Color) {
  FColor = Color;
  SelectShape(FindShapeByColor(Color));
  shpSelected->SetBrushColor(Color);
}

TShape* TfrmColors::FindShapeByColor(TColor Color) const {
  for (TShape* s : PresetShapes)
    if (GetShapeColor(s) == Color) return s;
  for (TShape* s : CustomShapes)
    if (GetShapeColor(s) == Color) return s;
  return nullptr;
}

void TfrmColors::SelectShape(TShape* Shape) {
  if (FSelected) {
    FSelected->Pen = TPen{clGray, 1, TPenStyle::psSolid};
    FSelected->Invalidate();
  }
  FSelected = Shape;
  if (FSelected) {
    FSelected->Pen = TPen{clBlack, 3, TPenStyle::psSolid};
    FSelected->Invalidate();
  }
}

void TfrmColors::shpCustomColorMouseDown(TComponent* Sender, TMouseButton Button, TShiftState, int, int) {
  if (Button != TMouseButton::mbLeft) return;
  if (!tmrDoubleClick->Enabled())
    tmrDoubleClick->SetEnabled(true);
  else
    UModalForms::SetModalResult(this, mrOk);
  auto* shape = dynamic_cast<TShape*>(Sender);
  if (!shape) return;
  SelectShape(shape);
  FColor = GetShapeColor(shape);
  shpSelected->SetBrushColor(FColor);
}

void TfrmColors::btnPalleteClick() {
  TColor c = FColor;
  if (!ExecuteColorDialog(Handle(), c)) return;
  // A colour that no swatch has takes the next custom swatch in turn.
  if (!FindShapeByColor(c) && !CustomShapes.empty()) {
    CustomShapes[static_cast<size_t>(FNextCustom)]->SetBrushColor(c);
    FNextCustom = (FNextCustom + 1) % static_cast<int>(CustomShapes.size());
  }
  SetColorValue(c);
}

void TfrmColors::imgChooseClick() {
  TColor c = FColor;
  if (ChooseColor(c)) SetColorValue(c);
}

void TfrmColors::LoadCustomColors() {
  TRegKey key;
  if (RegOpenKeyExA(HKEY_CURRENT_USER, CustomColorsKey, 0, KEY_QUERY_VALUE, key.Receive()) != ERROR_SUCCESS) return;
  DWORD type = 0, size = 0;
  if (RegQueryValueExA(key.Get(), CustomColorsValue, nullptr, &type, nullptr, &size) != ERROR_SUCCESS ||
      type != REG_SZ || size == 0)
    return;
  std::string text(size, '\0');
  if (RegQueryValueExA(key.Get(), CustomColorsValue, nullptr, &type, reinterpret_cast<BYTE*>(text.data()), &size) !=
      ERROR_SUCCESS)
    return;
  text.resize(std::min<size_t>(size, text.size()));
  while (!text.empty() && text.back() == '\0') text.pop_back();
  std::vector<TColor> colors = ParseColors(text);
  for (size_t i = 0; i < colors.size() && i < CustomShapes.size(); ++i) CustomShapes[i]->SetBrushColor(colors[i]);
}

void TfrmColors::SaveCustomColors() {
  std::string text;
  for (const TShape* s : CustomShapes) {
    if (!text.empty()) text += ',';
    text += std::to_string(GetShapeColor(s));
  }
  TRegKey key;
  LONG r = RegCreateKeyExA(HKEY_CURRENT_USER, CustomColorsKey, 0, nullptr, 0, KEY_SET_VALUE, nullptr, key.Receive(),
                           nullptr);
  if (r == ERROR_SUCCESS)
    r = RegSetValueExA(key.Get(), CustomColorsValue, 0, REG_SZ, reinterpret_cast<const BYTE*>(text.c_str()),
                       static_cast<DWORD>(text.size() + 1));
  if (r != ERROR_SUCCESS)
    klLog::AddToEventLog("TfrmColors.SaveCustomColors: " + klLog::GetErrorStr(static_cast<DWORD>(r)), klLog::lkError);
}

}  // namespace kl::UColorsForm
