// A shape control that does the ordinary shape painting and then hands its canvas to
// the application's paint event to draw over it.
#pragma once

#include <functional>

#include "rtl/Controls.h"

namespace kl::UCustomPaintControls {

enum class TShapeType { stRectangle, stSquare, stRoundRect, stRoundSquare, stEllipse, stCircle };
using TPaintEvent = std::function<void(TComponent* Sender, TCanvas& Canvas)>;

class TCustomPaintShape : public TCustomControl {
 public:
  explicit TCustomPaintShape(TComponent* AOwner);
  TShapeType Shape() const { return FShape; }
  void SetShape(TShapeType V);
  TPen Pen;
  TBrush Brush;
  TPaintEvent OnPaint;

 protected:
  void Paint(TCanvas& Canvas) override;

 private:
  TShapeType FShape = TShapeType::stRectangle;
};

}  // namespace kl::UCustomPaintControls
