// A focusable, owner-painted horizontal seek bar: a thin line with a filled "done" part
// left of a square marker that stands for Value in 0..MaxValue. The user drags the
// marker, clicks the line to jump or steps with the arrow keys; a floating hint above the
// pointer can show a text the application computes from the pointer position.
// TTimeLineControlEx adds a highlighted selection with a small triangle under each end.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "rtl/Controls.h"

namespace kl::UTimeLineControl {

using THintValueEvent = std::function<void(TComponent* Sender, std::string& HintText, float Position)>;

class TTimeLineControl : public TCustomControl {
 public:
  // The defaults the properties declare for streaming; the constructor's initial values
  // are the same where given, and are what a new control has.
  static constexpr TColor DefaultMarkerColor = 0xE0E0E0;
  static constexpr TColor DefaultBorderColor = 0x000000;
  static constexpr TColor DefaultDoneColor = 0xA0A0A0;
  static constexpr int32_t DefaultMaxValue = 100;
  static constexpr int32_t DefaultValue = 0;
  static constexpr bool DefaultTracking = false;

  explicit TTimeLineControl(TComponent* AOwner);

  TColor MarkerColor() const { return FMarkerColor; }
  TColor BorderColor() const { return FBorderColor; }
  TColor TimelineColor() const { return FTimelineColor; }
  TColor DoneColor() const { return FDoneColor; }
  int32_t MaxValue() const { return FMaxValue; }
  int32_t Value() const { return FValue; }
  bool Tracking() const { return FTracking; }
  bool ProgressDragging() const { return FProgressDragging; }
  int32_t LineHeight() const { return FLineHeight; }
  int32_t MarkerWidth() const { return FMarkerWidth; }
  int32_t MarkerHeight() const { return FMarkerHeight; }
  bool Border() const { return FBorder; }

  // Store and repaint; no checks (a smaller MaxValue leaves Value as it is).
  void SetMarkerColor(TColor V);
  void SetBorderColor(TColor V);
  void SetTimelineColor(TColor V);
  void SetDoneColor(TColor V);
  void SetMaxValue(int32_t V);
  void SetLineHeight(int32_t V);
  void SetMarkerWidth(int32_t V);
  void SetMarkerHeight(int32_t V);
  void SetBorder(bool V);
  void SetTracking(bool V) { FTracking = V; }
  // Clamps to 0..MaxValue, repaints and fires OnChange (also for an unchanged value).
  virtual void SetValue(int32_t V);

  TNotifyEvent OnChange, OnChangeByUser, OnMouseEnter, OnMouseLeave;
  THintValueEvent OnHintValue;

 protected:
  void Paint(TCanvas& Canvas) override;
  void KeyDown(WORD& Key, TShiftState Shift) override;
  void MouseDown(TMouseButton Button, TShiftState Shift, int X, int Y) override;
  void MouseMove(TShiftState Shift, int X, int Y) override;
  void MouseUp(TMouseButton Button, TShiftState Shift, int X, int Y) override;
  void DoEnter() override;
  void DoExit() override;
  void MouseEnter() override;
  void MouseLeave() override;
  LRESULT GetDlgCode() override { return DLGC_WANTARROWS; }

  int UsableWidth() const { return FWidth - FMarkerWidth; }
  // The marker's left edge: the dragged position while dragging, else Value scaled.
  int MarkerX() const;
  int LineTop() const { return (FMarkerHeight - FLineHeight) / 2; }
  // Value for a marker position in pixels.
  int32_t PositionToValue(double Position) const;
  void PaintBackground(TCanvas& Canvas);
  int DragPositionFor(int X) const;

  TColor FMarkerColor = 0xE0E0E0;
  TColor FBorderColor = 0x000000;
  TColor FTimelineColor = 0xD0D0D0;
  TColor FDoneColor = 0xA0A0A0;
  int32_t FMaxValue = 100;
  int32_t FValue = 0;
  bool FTracking = false;
  bool FProgressDragging = false;
  int32_t FLineHeight = 0;
  int32_t FMarkerWidth = 0;  // set in the constructor, after the height is taken from it
  int32_t FMarkerHeight = 0;
  bool FBorder = true;
  // Drag state: the dragged marker position, the marker position and the pointer X when
  // the drag began. FDragging is the button-down drag itself: Escape clears only
  // ProgressDragging (the picture), the release still ends the drag and sets the value.
  int FDragPos = 0, FDragStartPos = 0, FDragStartX = 0;
  bool FDragging = false;
};

class TTimeLineControlEx : public TTimeLineControl {
 public:
  // Deliberately not the constructor's initial SelectColor ($FFC000).
  static constexpr TColor DefaultSelectColor = 0xFFFF00;

  explicit TTimeLineControlEx(TComponent* AOwner);

  int32_t SelectStart() const { return FSelectStart; }
  int32_t SelectFinish() const { return FSelectFinish; }
  TColor SelectColor() const { return FSelectColor; }
  // Clamped to 0..MaxValue; an unchanged value does nothing. A start beyond the finish
  // moves the finish too (two OnSelectChange); a finish before the start moves the start.
  void SetSelectStart(int32_t V);
  void SetSelectFinish(int32_t V);
  void SetSelectColor(TColor V);

  TNotifyEvent OnSelectChange;

 protected:
  void Paint(TCanvas& Canvas) override;

 private:
  int32_t FSelectStart = 0;
  int32_t FSelectFinish = 0;
  TColor FSelectColor = 0xFFC000;
};

}  // namespace kl::UTimeLineControl
