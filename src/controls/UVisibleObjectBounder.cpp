#include "controls/UVisibleObjectBounder.h"

#include <algorithm>

namespace kl::UVisibleObjectBounder {

namespace {
const LPCSTR kCursors[] = {IDC_SIZENWSE, IDC_SIZENS, IDC_SIZENESW, IDC_SIZEWE, IDC_SIZENWSE,
                           IDC_SIZENS,   IDC_SIZENESW, IDC_SIZEWE, IDC_SIZEALL, IDC_ARROW};
}  // namespace

TVisibleObjectBounder::TVisibleObjectBounder(TComponent* AOwner) : TCustomControl(AOwner) {
  FColor = clWhite;
  SetObjectBounds(RECT{Margin, Margin, Margin + 50, Margin + 50});
}

void TVisibleObjectBounder::SetObjectBounds(const RECT& R) {
  FBounds = R;
  SetBounds(R.left - Margin, R.top - Margin, R.right - R.left + 2 * Margin, R.bottom - R.top + 2 * Margin);
  ApplyRegion();
  Invalidate();
}

void TVisibleObjectBounder::CreateWnd() {
  TCustomControl::CreateWnd();
  ApplyRegion();
}

void TVisibleObjectBounder::ApplyRegion() {
  if (!FHandle) return;
  HRGN outer = CreateRectRgn(0, 0, FWidth, FHeight);
  HRGN inner = CreateRectRgn(2 * Margin, 2 * Margin, FWidth - 2 * Margin, FHeight - 2 * Margin);
  CombineRgn(outer, outer, inner, RGN_DIFF);
  DeleteObject(inner);
  // The window owns the region from here on.
  if (!SetWindowRgn(FHandle, outer, TRUE)) DeleteObject(outer);
}

RECT TVisibleObjectBounder::HandleRect(int Index) const {
  const int l = Margin, t = Margin, r = FWidth - Margin - 1, b = FHeight - Margin - 1;
  const int cx[] = {l, (l + r) / 2, r, r, r, (l + r) / 2, l, l};
  const int cy[] = {t, t, t, (t + b) / 2, b, b, b, (t + b) / 2};
  const int h = HandleSize / 2;
  return RECT{cx[Index] - h, cy[Index] - h, cx[Index] + h + 1, cy[Index] + h + 1};
}

TVisibleObjectBounder::THandle TVisibleObjectBounder::HitTest(int X, int Y) const {
  POINT p{X, Y};
  for (int i = 0; i < 8; ++i) {
    RECT r = HandleRect(i);
    if (PtInRect(&r, p)) return static_cast<THandle>(i);
  }
  RECT all{0, 0, FWidth, FHeight}, inner{2 * Margin, 2 * Margin, FWidth - 2 * Margin, FHeight - 2 * Margin};
  if (PtInRect(&all, p) && !PtInRect(&inner, p)) return hFrame;
  return hNone;
}

void TVisibleObjectBounder::Paint(TCanvas& Canvas) {
  Canvas.Brush.Color = FColor;
  Canvas.FillRect(ClientRect());
  Canvas.Pen.Color = clBlack;
  Canvas.Pen.Style = TPenStyle::psDot;
  Canvas.Brush.Style = TBrushStyle::bsClear;
  Canvas.Rectangle(Margin, Margin, FWidth - Margin, FHeight - Margin);
  Canvas.Pen.Style = TPenStyle::psSolid;
  Canvas.Brush.Style = TBrushStyle::bsSolid;
  Canvas.Brush.Color = clBlack;
  for (int i = 0; i < 8; ++i) Canvas.FillRect(HandleRect(i));
}

void TVisibleObjectBounder::MouseDown(TMouseButton Button, TShiftState Shift, int X, int Y) {
  if (Button == TMouseButton::mbLeft) {
    FDrag = HitTest(X, Y);
    // Parent coordinates: the window itself moves during the drag.
    FDragStart = POINT{FLeft + X, FTop + Y};
    FStartBounds = FBounds;
  }
  TCustomControl::MouseDown(Button, Shift, X, Y);
}

void TVisibleObjectBounder::MouseMove(TShiftState Shift, int X, int Y) {
  if (FDrag == hNone) {
    Cursor = kCursors[HitTest(X, Y)];
  } else {
    const int dx = FLeft + X - FDragStart.x, dy = FTop + Y - FDragStart.y;
    RECT r = FStartBounds;
    switch (FDrag) {
      case hFrame: OffsetRect(&r, dx, dy); break;
      default: {
        const bool left = FDrag == hTopLeft || FDrag == hBottomLeft || FDrag == hLeft;
        const bool right = FDrag == hTopRight || FDrag == hBottomRight || FDrag == hRight;
        const bool top = FDrag == hTopLeft || FDrag == hTop || FDrag == hTopRight;
        const bool bottom = FDrag == hBottomLeft || FDrag == hBottom || FDrag == hBottomRight;
        if (left) r.left = std::min<LONG>(r.left + dx, r.right - MinSize);
        if (right) r.right = std::max<LONG>(r.right + dx, r.left + MinSize);
        if (top) r.top = std::min<LONG>(r.top + dy, r.bottom - MinSize);
        if (bottom) r.bottom = std::max<LONG>(r.bottom + dy, r.top + MinSize);
        break;
      }
    }
    if (!EqualRect(&r, &FBounds)) SetObjectBounds(r);
  }
  TCustomControl::MouseMove(Shift, X, Y);
}

void TVisibleObjectBounder::MouseUp(TMouseButton Button, TShiftState Shift, int X, int Y) {
  if (Button == TMouseButton::mbLeft && FDrag != hNone) {
    FDrag = hNone;
    if (!EqualRect(&FBounds, &FStartBounds) && OnBoundsChange) OnBoundsChange(this, FBounds);
  }
  TCustomControl::MouseUp(Button, Shift, X, Y);
}

}  // namespace kl::UVisibleObjectBounder
