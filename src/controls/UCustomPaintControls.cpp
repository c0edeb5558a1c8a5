#include "controls/UCustomPaintControls.h"

#include <algorithm>

namespace kl::UCustomPaintControls {

TCustomPaintShape::TCustomPaintShape(TComponent* AOwner) : TCustomControl(AOwner) {
  FWidth = 65;
  FHeight = 65;
}

void TCustomPaintShape::SetShape(TShapeType V) {
  FShape = V;
  Invalidate();
}

void TCustomPaintShape::Paint(TCanvas& Canvas) {
  Canvas.Brush.Color = FColor;
  Canvas.Brush.Style = TBrushStyle::bsSolid;
  Canvas.FillRect(ClientRect());
  Canvas.Pen = Pen;
  Canvas.Brush = Brush;
  // The pen's width stays inside the client area.
  const int half = Pen.Width / 2;
  int x = half, y = half, w = FWidth - Pen.Width + 1, h = FHeight - Pen.Width + 1;
  if (Pen.Width == 0) {
    --w;
    --h;
  }
  const bool square = FShape == TShapeType::stSquare || FShape == TShapeType::stRoundSquare ||
                      FShape == TShapeType::stCircle;
  if (square) {
    const int s = std::min(w, h);
    x += (w - s) / 2;
    y += (h - s) / 2;
    w = h = s;
  }
  switch (FShape) {
    case TShapeType::stRectangle:
    case TShapeType::stSquare: Canvas.Rectangle(x, y, x + w, y + h); break;
    case TShapeType::stRoundRect:
    case TShapeType::stRoundSquare:
      Canvas.RoundRect(x, y, x + w, y + h, std::min(w, h) / 4, std::min(w, h) / 4);
      break;
    case TShapeType::stEllipse:
    case TShapeType::stCircle: Canvas.Ellipse(x, y, x + w, y + h); break;
  }
  if (OnPaint) OnPaint(this, Canvas);
}

}  // namespace kl::UCustomPaintControls
