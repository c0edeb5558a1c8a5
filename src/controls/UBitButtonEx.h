// Image buttons: TklBitBtn reports the pointer entering and leaving it; TklBitBtn2 is an
// owner-drawn button with three PNG images (normal, under the pointer, disabled) drawn
// with their alpha over the button's colour.
#pragma once

#include <windows.h>

#include "rtl/Controls.h"
#include "rtl/Graphics.h"

namespace kl::UBitButtonEx {

// A push button (the system's button class) with an optional bitmap glyph.
class TklBitBtn : public TWinControl {
 public:
  explicit TklBitBtn(TComponent* AOwner);
  // The bitmap shown on the button; not owned, kept by the caller while shown.
  void SetGlyph(HBITMAP Glyph);

  TNotifyEvent OnMouseEnter, OnMouseLeave;

  LRESULT WndProc(UINT Msg, WPARAM WParam, LPARAM LParam) override;

 protected:
  const char* WindowClass() const override { return "BUTTON"; }
  DWORD WindowStyle() const override;
  void MouseEnter() override;
  void MouseLeave() override;
  void CreateWnd() override;
  HBITMAP FGlyph = nullptr;
};

class TklBitBtn2 : public TklBitBtn {
 public:
  explicit TklBitBtn2(TComponent* AOwner);

  const TPngImage& GlyphNormal() const { return FGlyphNormal; }
  const TPngImage& GlyphOver() const { return FGlyphOver; }
  const TPngImage& GlyphDisabled() const { return FGlyphDisabled; }
  void SetGlyphNormal(const TPngImage& V);
  void SetGlyphOver(const TPngImage& V);
  void SetGlyphDisabled(const TPngImage& V);
  // The image the button shows now: disabled, under the pointer or normal (a missing
  // disabled or hover image falls back to the normal one).
  const TPngImage& CurrentGlyph() const;

  LRESULT WndProc(UINT Msg, WPARAM WParam, LPARAM LParam) override;

 protected:
  DWORD WindowStyle() const override;
  void MouseEnter() override;
  void MouseLeave() override;
  // Repaints after an image changed.
  virtual void OnGlyphChange();
  void CNDrawItem(const DRAWITEMSTRUCT& Item);
  void DrawPng(const DRAWITEMSTRUCT& Item);

 private:
  TPngImage FGlyphNormal, FGlyphOver, FGlyphDisabled;
  bool FOver = false;
};

}  // namespace kl::UBitButtonEx
