// An on-screen frame with eight grab handles round a rectangle of its parent: dragging
// the frame moves the rectangle, dragging a handle sizes it, and the new bounds are
// reported when the button is released. The frame's window is only the band round the
// rectangle's edge, so the object inside stays visible.
#pragma once

#include <functional>

#include "rtl/Controls.h"

namespace kl::UVisibleObjectBounder {

using TBoundsEvent = std::function<void(TComponent* Sender, const RECT& Bounds)>;

class TVisibleObjectBounder : public TCustomControl {
 public:
  static constexpr int HandleSize = 7;
  // The band reaches this far to either side of the rectangle's edge.
  static constexpr int Margin = HandleSize / 2 + 1;
  // Handles: corners and edge middles clockwise from the top left.
  enum THandle { hTopLeft, hTop, hTopRight, hRight, hBottomRight, hBottom, hBottomLeft, hLeft, hFrame, hNone };

  explicit TVisibleObjectBounder(TComponent* AOwner);

  // The rectangle in the parent's client coordinates.
  RECT ObjectBounds() const { return FBounds; }
  void SetObjectBounds(const RECT& R);
  // What lies under a point of this control's client area.
  THandle HitTest(int X, int Y) const;
  int MinSize = 8;
  TBoundsEvent OnBoundsChange;

 protected:
  void Paint(TCanvas& Canvas) override;
  void MouseDown(TMouseButton Button, TShiftState Shift, int X, int Y) override;
  void MouseMove(TShiftState Shift, int X, int Y) override;
  void MouseUp(TMouseButton Button, TShiftState Shift, int X, int Y) override;
  void CreateWnd() override;

 private:
  RECT HandleRect(int Index) const;
  void ApplyRegion();
  RECT FBounds{0, 0, 0, 0};
  THandle FDrag = hNone;
  POINT FDragStart{};
  RECT FStartBounds{};
};

}  // namespace kl::UVisibleObjectBounder
