#include "controls/UMyLabel.h"

namespace kl::UMyLabel {

TMyLabel::TMyLabel(TComponent* AOwner) : TCustomControl(AOwner) {
  FWidth = 65;
  FHeight = 17;
}

void TMyLabel::SetText(const std::string& V) {
  FText = V;
  Invalidate();
}

void TMyLabel::SetRealText(const std::string& V) {
  FRealText = V;
  Invalidate();
}

void TMyLabel::Paint(TCanvas& Canvas) {
  RECT r = ClientRect();
  Canvas.Brush.Color = FColor;
  Canvas.Brush.Style = TBrushStyle::bsSolid;
  Canvas.FillRect(r);
  Canvas.Font = Font;
  Canvas.Brush.Style = TBrushStyle::bsClear;
  Canvas.DrawText(r, GetLabelText(), DT_LEFT | DT_VCENTER | DT_SINGLELINE | DT_NOPREFIX | DT_END_ELLIPSIS);
}

}  // namespace kl::UMyLabel
