#include "controls/klColorButton.h"

#include <memory>

#include "controls/UModalForms.h"

namespace kl::klColorButton {

TklColorButton::TklColorButton(TComponent* AOwner) : TCustomControl(AOwner) {
  TabStop = true;
  FWidth = 75;
  FHeight = 25;
}

void TklColorButton::SetColorValue(TColor V) {
  FColorValue = V;
  Invalidate();
}

void TklColorButton::Paint(TCanvas& Canvas) {
  RECT r = ClientRect();
  Canvas.Brush.Color = clBtnFace;
  Canvas.FillRect(r);
  DrawEdge(Canvas.Handle(), &r, FPressed ? EDGE_SUNKEN : EDGE_RAISED, BF_RECT);
  const int shift = FPressed ? 1 : 0;
  RECT box{r.left + 5 + shift, r.top + 5 + shift, r.right - 5 + shift, r.bottom - 5 + shift};
  Canvas.Pen.Color = Enabled() ? clBlack : clGray;
  Canvas.Brush.Color = FColorValue;
  Canvas.Rectangle(box);
  if (Focused()) {
    RECT f{r.left + 3, r.top + 3, r.right - 3, r.bottom - 3};
    Canvas.DrawFocusRect(f);
  }
}

void TklColorButton::MouseDown(TMouseButton Button, TShiftState Shift, int X, int Y) {
  if (Button == TMouseButton::mbLeft) {
    FPressed = true;
    if (CanFocus()) SetFocus();
    Repaint();
  }
  TCustomControl::MouseDown(Button, Shift, X, Y);
}

void TklColorButton::MouseUp(TMouseButton Button, TShiftState Shift, int X, int Y) {
  if (Button == TMouseButton::mbLeft && FPressed) {
    FPressed = false;
    Repaint();
  }
  TCustomControl::MouseUp(Button, Shift, X, Y);
}

void TklColorButton::KeyDown(WORD& Key, TShiftState Shift) {
  TCustomControl::KeyDown(Key, Shift);
  if (Key == VK_SPACE || Key == VK_RETURN) {
    Key = 0;
    Click();
  }
}

void TklColorButton::Click() {
  // The face comes up before the dialog takes over the messages.
  FPressed = false;
  Repaint();
  TCustomControl::Click();
  DoOnClick();
}

void TklColorButton::DoOnClick() {
  if (FForm) return;  // already open
  auto form = std::make_unique<UColorsForm::TfrmColors>(nullptr);
  form->SetColorValue(FColorValue);
  if (OnShowDialog) OnShowDialog(form.get());
  FForm = form.get();
  {
    UModalForms::TModalShow show(form.get(), [this](int R) { OnModalResult(R); }, true, Application().ActiveForm());
    show.Execute();
  }
  FForm = nullptr;
}

void TklColorButton::OnModalResult(int ModalResult) {
  if (ModalResult != mrOk || !FForm) return;
  SetColorValue(FForm->ColorValue());
  if (OnChange) OnChange(this);
}

}  // namespace kl::klColorButton
