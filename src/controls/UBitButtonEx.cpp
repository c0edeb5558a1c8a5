#include "controls/UBitButtonEx.h"

namespace kl::UBitButtonEx {

// --- TklBitBtn ----------------------------------------------------------------------

TklBitBtn::TklBitBtn(TComponent* AOwner) : TWinControl(AOwner) {
  FWidth = 75;
  FHeight = 25;
  TabStop = true;
}

DWORD TklBitBtn::WindowStyle() const { return TWinControl::WindowStyle() | BS_PUSHBUTTON; }

void TklBitBtn::CreateWnd() {
  TWinControl::CreateWnd();
  if (FHandle && FGlyph) SendMessageA(FHandle, BM_SETIMAGE, IMAGE_BITMAP, reinterpret_cast<LPARAM>(FGlyph));
}

void TklBitBtn::SetGlyph(HBITMAP Glyph) {
  FGlyph = Glyph;
  if (FHandle) SendMessageA(FHandle, BM_SETIMAGE, IMAGE_BITMAP, reinterpret_cast<LPARAM>(Glyph));
}

void TklBitBtn::MouseEnter() {
  if (OnMouseEnter) OnMouseEnter(this);
}

void TklBitBtn::MouseLeave() {
  if (OnMouseLeave) OnMouseLeave(this);
}

LRESULT TklBitBtn::WndProc(UINT Msg, WPARAM WParam, LPARAM LParam) {
  if (Msg == CN_COMMAND) {
    if (HIWORD(WParam) == BN_CLICKED) Click();
    return 0;
  }
  return TWinControl::WndProc(Msg, WParam, LParam);
}

// --- TklBitBtn2 ---------------------------------------------------------------------

TklBitBtn2::TklBitBtn2(TComponent* AOwner) : TklBitBtn(AOwner) {}

DWORD TklBitBtn2::WindowStyle() const { return TWinControl::WindowStyle() | BS_OWNERDRAW; }

void TklBitBtn2::SetGlyphNormal(const TPngImage& V) {
  FGlyphNormal = V;
  OnGlyphChange();
}
void TklBitBtn2::SetGlyphOver(const TPngImage& V) {
  FGlyphOver = V;
  OnGlyphChange();
}
void TklBitBtn2::SetGlyphDisabled(const TPngImage& V) {
  FGlyphDisabled = V;
  OnGlyphChange();
}

void TklBitBtn2::OnGlyphChange() { Invalidate(); }

const TPngImage& TklBitBtn2::CurrentGlyph() const {
  if (!FEnabled) return FGlyphDisabled.Empty() ? FGlyphNormal : FGlyphDisabled;
  if (FOver && !FGlyphOver.Empty()) return FGlyphOver;
  return FGlyphNormal;
}

void TklBitBtn2::MouseEnter() {
  FOver = true;
  Invalidate();
  TklBitBtn::MouseEnter();
}

void TklBitBtn2::MouseLeave() {
  FOver = false;
  Invalidate();
  TklBitBtn::MouseLeave();
}

LRESULT TklBitBtn2::WndProc(UINT Msg, WPARAM WParam, LPARAM LParam) {
  if (Msg == CN_DRAWITEM) {
    CNDrawItem(*reinterpret_cast<const DRAWITEMSTRUCT*>(LParam));
    return TRUE;
  }
  // Owner-drawn: no background of the system's own.
  if (Msg == WM_ERASEBKGND) return 1;
  return TklBitBtn::WndProc(Msg, WParam, LParam);
}

void TklBitBtn2::CNDrawItem(const DRAWITEMSTRUCT& Item) { DrawPng(Item); }

void TklBitBtn2::DrawPng(const DRAWITEMSTRUCT& Item) {
  TCanvas canvas(Item.hDC);
  canvas.Brush.Color = FColor;
  canvas.FillRect(Item.rcItem);
  const TPngImage& png = CurrentGlyph();
  if (png.Empty()) return;
  const int w = Item.rcItem.right - Item.rcItem.left, h = Item.rcItem.bottom - Item.rcItem.top;
  // Pressed: the image moves one pixel down and right.
  const int shift = (Item.itemState & ODS_SELECTED) ? 1 : 0;
  png.Draw(Item.hDC, Item.rcItem.left + (w - png.Width()) / 2 + shift, Item.rcItem.top + (h - png.Height()) / 2 + shift);
}

}  // namespace kl::UBitButtonEx
