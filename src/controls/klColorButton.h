// A button that shows a colour on its face and, when clicked, opens the colour selection
// dialog modally; the dialog's colour is taken when it closes with OK.
#pragma once

#include <functional>

#include "controls/UColorsForm.h"
#include "rtl/Controls.h"

namespace kl::klColorButton {

class TklColorButton : public TCustomControl {
 public:
  explicit TklColorButton(TComponent* AOwner);

  TColor ColorValue() const { return FColorValue; }
  void SetColorValue(TColor V);
  // Opens the colour selection modally, starting at ColorValue.
  void DoOnClick();
  // The colour selection closed with ModalResult.
  void OnModalResult(int ModalResult);

  // Fires when the colour is taken from the dialog.
  TNotifyEvent OnChange;
  // Called with the dialog before it is shown (to adjust or drive it).
  std::function<void(UColorsForm::TfrmColors* Form)> OnShowDialog;

 protected:
  void Paint(TCanvas& Canvas) override;
  void Click() override;
  void MouseDown(TMouseButton Button, TShiftState Shift, int X, int Y) override;
  void MouseUp(TMouseButton Button, TShiftState Shift, int X, int Y) override;
  LRESULT GetDlgCode() override { return DLGC_BUTTON; }
  void KeyDown(WORD& Key, TShiftState Shift) override;

 private:
  TColor FColorValue = clBlack;
  UColorsForm::TfrmColors* FForm = nullptr;
  bool FPressed = false;
};

}  // namespace kl::klColorButton
