#include "controls/UTimeLineControl.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "controls/UHint.h"

namespace kl::UTimeLineControl {

namespace {

// Rounding to nearest with ties to even, as the marker geometry wants; out-of-range and
// undefined results (a zero usable width) end at the nearest int32 or 0.
int32_t RoundEven(double V) {
  if (std::isnan(V)) return 0;
  V = std::nearbyint(V);
  if (V >= static_cast<double>(std::numeric_limits<int32_t>::max())) return std::numeric_limits<int32_t>::max();
  if (V <= static_cast<double>(std::numeric_limits<int32_t>::min())) return std::numeric_limits<int32_t>::min();
  return static_cast<int32_t>(V);
}

int32_t ClampInt(int64_t V, int64_t Lo, int64_t Hi) { return static_cast<int32_t>(std::max(Lo, std::min(V, Hi))); }

}  // namespace

// --- TTimeLineControl ---------------------------------------------------------------

TTimeLineControl::TTimeLineControl(TComponent* AOwner) : TCustomControl(AOwner) {
  FWidth = 100;
  // The height comes from the marker width before that gets its value: 0.
  FHeight = FMarkerWidth;
  FMarkerWidth = 13;
  FMarkerHeight = 13;
  FLineHeight = 5;
  TabStop = true;
  Cursor = IDC_HAND;
}

void TTimeLineControl::SetMarkerColor(TColor V) {
  FMarkerColor = V;
  Invalidate();
}
void TTimeLineControl::SetBorderColor(TColor V) {
  FBorderColor = V;
  Invalidate();
}
void TTimeLineControl::SetTimelineColor(TColor V) {
  FTimelineColor = V;
  Invalidate();
}
void TTimeLineControl::SetDoneColor(TColor V) {
  FDoneColor = V;
  Invalidate();
}
void TTimeLineControl::SetMaxValue(int32_t V) {
  FMaxValue = V;
  Invalidate();
}
void TTimeLineControl::SetLineHeight(int32_t V) {
  FLineHeight = V;
  Invalidate();
}
void TTimeLineControl::SetMarkerWidth(int32_t V) {
  FMarkerWidth = V;
  Invalidate();
}
void TTimeLineControl::SetMarkerHeight(int32_t V) {
  FMarkerHeight = V;
  Invalidate();
}
void TTimeLineControl::SetBorder(bool V) {
  FBorder = V;
  Invalidate();
}

void TTimeLineControl::SetValue(int32_t V) {
  FValue = ClampInt(V, 0, std::max(0, FMaxValue));
  Invalidate();
  if (OnChange) OnChange(this);
}

int TTimeLineControl::MarkerX() const {
  if (FProgressDragging) return FDragPos;
  return RoundEven(static_cast<double>(FValue) / FMaxValue * UsableWidth());
}

int32_t TTimeLineControl::PositionToValue(double Position) const {
  const int w = UsableWidth();
  if (w == 0) return 0;
  return RoundEven(static_cast<double>(FMaxValue) / w * Position);
}

int TTimeLineControl::DragPositionFor(int X) const {
  return ClampInt(static_cast<int64_t>(FDragStartPos) + X - FDragStartX, 0, std::max(0, UsableWidth()));
}

void TTimeLineControl::PaintBackground(TCanvas& Canvas) {
  Canvas.Brush.Color = FColor;
  Canvas.Brush.Style = TBrushStyle::bsSolid;
  Canvas.FillRect(RECT{0, 0, FWidth, FHeight});
  if (Focused()) {
    Canvas.Pen.Color = clBlack;
    Canvas.DrawFocusRect(RECT{0, 0, FWidth, FHeight});
  }
}

void TTimeLineControl::Paint(TCanvas& Canvas) {
  PaintBackground(Canvas);
  Canvas.Pen.Color = FBorder ? FBorderColor : FTimelineColor;
  Canvas.Brush.Color = FTimelineColor;
  if (FMaxValue < 1) return;
  const int x = MarkerX(), t = LineTop();
  if (FMarkerWidth + x < FWidth) Canvas.Rectangle(FMarkerWidth + x - 1, t, FWidth, t + FLineHeight);
  if (x > 1) {
    Canvas.Brush.Color = FDoneColor;
    if (!FBorder) Canvas.Pen.Color = FDoneColor;
    Canvas.Rectangle(1, t, 1 + x, t + FLineHeight);
  }
  Canvas.Brush.Color = FMarkerColor;
  if (!FBorder) Canvas.Pen.Color = FMarkerColor;
  Canvas.Rectangle(x, 0, x + FMarkerWidth, FMarkerHeight);
}

void TTimeLineControl::KeyDown(WORD& Key, TShiftState Shift) {
  int64_t step;
  switch (Key) {
    case VK_LEFT:
    case VK_DOWN: step = -1; break;
    case VK_UP:
    case VK_RIGHT: step = 1; break;
    case VK_ESCAPE:
      // The marker goes back to Value; a button still down ends the drag on release.
      FProgressDragging = false;
      Invalidate();
      TCustomControl::KeyDown(Key, Shift);
      return;
    default: TCustomControl::KeyDown(Key, Shift); return;
  }
  if (Shift & ssShift)
    step *= 10;
  else if (Shift & ssCtrl)
    step *= RoundEven(FMaxValue * 0.05);
  SetValue(ClampInt(FValue + step, std::numeric_limits<int32_t>::min(), std::numeric_limits<int32_t>::max()));
  if (OnChangeByUser) OnChangeByUser(this);
}

void TTimeLineControl::MouseDown(TMouseButton Button, TShiftState Shift, int X, int Y) {
  if (Button != TMouseButton::mbLeft) {
    TCustomControl::MouseDown(Button, Shift, X, Y);
    return;
  }
  if (CanFocus()) SetFocus();
  if (FMaxValue < 1) return;
  const int x = MarkerX();
  if (X >= x && X <= x + FMarkerWidth) {
    FProgressDragging = true;
    FDragging = true;
    FDragStartX = X;
    FDragStartPos = x;
    FDragPos = x;
  } else {
    SetValue(PositionToValue(X - FMarkerWidth / 2));
    if (OnChangeByUser) OnChangeByUser(this);
    FProgressDragging = false;
  }
}

void TTimeLineControl::MouseMove(TShiftState Shift, int X, int Y) {
  if (OnHintValue) {
    std::string text;
    float pos = FWidth > 0 ? std::clamp(static_cast<float>(X) / static_cast<float>(FWidth), 0.0f, 1.0f) : 0.0f;
    OnHintValue(this, text, pos);
    if (!text.empty()) {
      POINT p = ClientToScreen(POINT{std::clamp(X, 0, std::max(0, FWidth)), -24});
      UHint::ShowHint(p.x, p.y, text, FHandle);
    }
  }
  if (FProgressDragging) {
    FDragPos = DragPositionFor(X);
    Invalidate();
    if (FTracking) {
      SetValue(PositionToValue(FDragPos));
      if (OnChangeByUser) OnChangeByUser(this);
    }
  }
  TCustomControl::MouseMove(Shift, X, Y);
}

void TTimeLineControl::MouseUp(TMouseButton Button, TShiftState Shift, int X, int Y) {
  if (Button == TMouseButton::mbLeft) {
    if (FDragging) {
      FDragging = false;
      FProgressDragging = false;
      FDragPos = DragPositionFor(X);
      SetValue(PositionToValue(FDragPos));
      if (OnChangeByUser) OnChangeByUser(this);
    }
    UHint::HideHint();
  }
  TCustomControl::MouseUp(Button, Shift, X, Y);
}

void TTimeLineControl::DoEnter() {
  Invalidate();
  TCustomControl::DoEnter();
}

void TTimeLineControl::DoExit() {
  Invalidate();
  TCustomControl::DoExit();
}

void TTimeLineControl::MouseEnter() {
  if (OnMouseEnter) OnMouseEnter(this);
}

void TTimeLineControl::MouseLeave() {
  if (OnMouseLeave) OnMouseLeave(this);
}

// --- TTimeLineControlEx -------------------------------------------------------------

TTimeLineControlEx::TTimeLineControlEx(TComponent* AOwner) : TTimeLineControl(AOwner) {
  FHeight = FMarkerWidth + 7;
  FBorderColor = 0x808080;
  FTimelineColor = 0xE0E0E0;
  FMarkerColor = 0xE0E0E0;
  FDoneColor = 0xC0C0C0;
}

void TTimeLineControlEx::SetSelectStart(int32_t V) {
  V = ClampInt(V, 0, std::max(0, FMaxValue));
  if (V == FSelectStart) return;
  FSelectStart = V;
  if (V > FSelectFinish) SetSelectFinish(V);
  Invalidate();
  if (OnSelectChange) OnSelectChange(this);
}

void TTimeLineControlEx::SetSelectFinish(int32_t V) {
  V = ClampInt(V, 0, std::max(0, FMaxValue));
  if (V == FSelectFinish) return;
  FSelectFinish = V;
  if (V < FSelectStart) FSelectStart = V;
  Invalidate();
  if (OnSelectChange) OnSelectChange(this);
}

void TTimeLineControlEx::SetSelectColor(TColor V) {
  FSelectColor = V;
  Invalidate();
}

void TTimeLineControlEx::Paint(TCanvas& Canvas) {
  PaintBackground(Canvas);
  // The Border flag plays no part here: the outline is always BorderColor.
  Canvas.Pen.Color = FBorderColor;
  Canvas.Brush.Color = FTimelineColor;
  if (FMaxValue <= 0) return;
  const float s = static_cast<float>(static_cast<double>(UsableWidth()) / FMaxValue);
  const int x = FProgressDragging ? FDragPos : RoundEven(static_cast<double>(FValue) * s);
  const int t = LineTop();
  if (FMarkerWidth + x < FWidth) Canvas.Rectangle(FMarkerWidth + x - 1, t, FWidth, t + FLineHeight);
  if (x > 1) {
    Canvas.Brush.Color = FDoneColor;
    Canvas.Rectangle(1, t, 1 + x, t + FLineHeight);
  }
  if (FSelectFinish - FSelectStart > 0) {
    const int w = RoundEven(static_cast<double>(FSelectFinish - FSelectStart) * s);
    const int sx = RoundEven(static_cast<double>(FSelectStart) * s) + FMarkerWidth / 2;
    Canvas.Brush.Color = FSelectColor;
    Canvas.Rectangle(sx, t, sx + w, t + FLineHeight);
    Canvas.Brush.Color = clBlack;
    Canvas.Pen.Color = clBlack;
    // Under the line by the marker's width (not its height), as the control always drew.
    const int y0 = FMarkerWidth + 1;
    Canvas.Polygon({{sx, y0}, {sx - 5, y0}, {sx, y0 + 5}});
    Canvas.Polygon({{sx + w, y0}, {sx + w + 5, y0}, {sx + w, y0 + 5}});
  }
  Canvas.Pen.Color = FBorderColor;
  Canvas.Brush.Color = FMarkerColor;
  Canvas.Rectangle(x, 0, x + FMarkerWidth, FMarkerHeight);
}

}  // namespace kl::UTimeLineControl
