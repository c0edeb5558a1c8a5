#include "controls/UHint.h"

#include <memory>

#include "rtl/Forms.h"

namespace kl::UHint {

namespace {

constexpr int kPadX = 4, kPadY = 2;  // text inset inside the border
constexpr UINT kTextFormat = DT_WORDBREAK | DT_NOPREFIX | DT_LEFT;

class THintWindow : public TCustomControl {
 public:
  THintWindow() : TCustomControl(nullptr) {
    FVisible = false;
    FColor = clWhite;
  }

  // The window's size for Text: the text measured within the widest the window may be,
  // plus the inset and the border.
  SIZE CalcHintSize(const std::string& Text) {
    HDC dc = GetDC(nullptr);
    RECT r{0, 0, HintMaxWidth - 2 * kPadX - 2, 0};
    {
      TCanvas canvas(dc);
      canvas.Font = FFont;
      canvas.DrawText(r, Text, kTextFormat | DT_CALCRECT);
    }
    ReleaseDC(nullptr, dc);
    int w = std::min<int>(HintMaxWidth, static_cast<int>(r.right) + 2 * kPadX + 2);
    return SIZE{w, static_cast<int>(r.bottom) + 2 * kPadY + 2};
  }

  void Activate(int X, int Y, const std::string& Text) {
    FCaption = Text;
    SIZE s = CalcHintSize(Text);
    FLeft = X - s.cx / 2;
    FTop = Y;
    FWidth = s.cx;
    FHeight = s.cy;
    if (!Handle()) return;
    SetWindowPos(FHandle, HWND_TOPMOST, FLeft, FTop, FWidth, FHeight, SWP_NOACTIVATE | SWP_SHOWWINDOW);
    FVisible = true;
    InvalidateRect(FHandle, nullptr, FALSE);
  }

  void ReleaseHandle() {
    DestroyHandle();
    FVisible = false;
  }

 protected:
  DWORD WindowStyle() const override { return WS_POPUP | WS_BORDER; }
  DWORD WindowExStyle() const override { return WS_EX_TOOLWINDOW | WS_EX_TOPMOST | WS_EX_NOACTIVATE; }
  HWND ParentHandleForCreate() override { return Application().Handle(); }

  void Paint(TCanvas& Canvas) override {
    RECT r = ClientRect();
    Canvas.Brush.Color = FColor;
    Canvas.FillRect(r);
    Canvas.Font = FFont;
    Canvas.Brush.Style = TBrushStyle::bsClear;
    RECT tr{r.left + kPadX, r.top + kPadY, r.right - kPadX, r.bottom - kPadY};
    Canvas.DrawText(tr, FCaption, kTextFormat);
  }

 private:
  TFont FFont{"Tahoma", -11, clBlack, false};
};

std::unique_ptr<THintWindow>& HintWindow() {
  static std::unique_ptr<THintWindow> hint;
  return hint;
}

bool gHintVisible = false;

}  // namespace

void ShowHint(int X, int Y, const std::string& Text, HWND /*Handle*/) {
  auto& hint = HintWindow();
  if (!hint) hint = std::make_unique<THintWindow>();
  hint->Activate(X, Y, Text);
  gHintVisible = hint->HandleAllocated();
}

void HideHint() {
  if (auto& hint = HintWindow()) hint->ReleaseHandle();
  gHintVisible = false;
}

bool HintVisible() { return gHintVisible; }

HWND HintHandle() {
  auto& hint = HintWindow();
  return hint && hint->HandleAllocated() ? hint->Handle() : nullptr;
}

}  // namespace kl::UHint
