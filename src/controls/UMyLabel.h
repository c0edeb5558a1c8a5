// A label with two texts: RealText, the full text the label stands for, and Text, an
// optional shorter form to show instead. The label paints GetLabelText, cut with an
// ellipsis when it does not fit.
#pragma once

#include <string>

#include "rtl/Controls.h"

namespace kl::UMyLabel {

class TMyLabel : public TCustomControl {
 public:
  explicit TMyLabel(TComponent* AOwner);
  std::string GetText() const { return FText; }
  void SetText(const std::string& V);
  std::string GetRealText() const { return FRealText; }
  void SetRealText(const std::string& V);
  // Text when it is set, else RealText.
  std::string GetLabelText() const { return FText.empty() ? FRealText : FText; }
  TFont Font;

 protected:
  void Paint(TCanvas& Canvas) override;

 private:
  std::string FText, FRealText;
};

}  // namespace kl::UMyLabel
