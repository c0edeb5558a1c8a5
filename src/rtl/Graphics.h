// Stand-ins for the host framework's drawing classes: colours, a canvas over a device
// context, a 32-bit bitmap with its own memory DC, and PNG images through WIC.
#pragma once

#include <windows.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace kl {

// $BBGGRR, or a system colour: $FF000000 or-ed with a COLOR_* index.
using TColor = uint32_t;
constexpr TColor clBlack = 0x000000;
constexpr TColor clWhite = 0xFFFFFF;
constexpr TColor clGray = 0x808080;
constexpr TColor clSilver = 0xC0C0C0;
constexpr TColor clRed = 0x0000FF;
constexpr TColor clLime = 0x00FF00;
constexpr TColor clBlue = 0xFF0000;
constexpr TColor clYellow = 0x00FFFF;
constexpr TColor clAqua = 0xFFFF00;
constexpr TColor clSystemColor = 0xFF000000;
constexpr TColor clBtnFace = clSystemColor | COLOR_BTNFACE;
constexpr TColor clWindow = clSystemColor | COLOR_WINDOW;
constexpr TColor clWindowText = clSystemColor | COLOR_WINDOWTEXT;
constexpr TColor clHighlight = clSystemColor | COLOR_HIGHLIGHT;
constexpr TColor clHighlightText = clSystemColor | COLOR_HIGHLIGHTTEXT;
constexpr TColor clNone = 0x1FFFFFFF;

// A system colour resolved to its current RGB value; plain colours pass through.
COLORREF ColorToRGB(TColor Color);

enum class TPenStyle { psSolid, psDash, psDot, psClear };
enum class TBrushStyle { bsSolid, bsClear };

struct TPen {
  TColor Color = clBlack;
  int Width = 1;
  TPenStyle Style = TPenStyle::psSolid;
};
struct TBrush {
  TColor Color = clWhite;
  TBrushStyle Style = TBrushStyle::bsSolid;
};
struct TFont {
  std::string Name = "Tahoma";
  int Height = -11;  // negative: character height in pixels, as CreateFont takes it
  TColor Color = clWindowText;
  bool Bold = false;
};

// Draws on a device context it does not own. Pen, brush and font are plain values; the
// GDI objects that stand for them are made when a drawing call needs them, selected,
// and on destruction (or Release) the DC gets its original objects back and the made
// ones are deleted.
class TCanvas {
 public:
  explicit TCanvas(HDC DC = nullptr) : FDC(DC) {}
  ~TCanvas() { Release(); }
  TCanvas(const TCanvas&) = delete;
  TCanvas& operator=(const TCanvas&) = delete;

  HDC Handle() const { return FDC; }
  // Gives the DC its original objects back, deletes the made ones, and takes DC.
  void SetHandle(HDC DC);
  void Release() { SetHandle(nullptr); }

  TPen Pen;
  TBrush Brush;
  TFont Font;

  // GDI semantics: the pen draws on the edges inside (Left, Top)..(Right-1, Bottom-1).
  void Rectangle(int Left, int Top, int Right, int Bottom);
  void Rectangle(const RECT& R) { Rectangle(R.left, R.top, R.right, R.bottom); }
  // The brush alone, no outline.
  void FillRect(const RECT& R);
  void FrameRect(const RECT& R);  // a one-pixel frame in the brush colour
  void Polygon(const std::vector<POINT>& Points);
  void MoveTo(int X, int Y);
  void LineTo(int X, int Y);
  void Ellipse(int Left, int Top, int Right, int Bottom);
  void RoundRect(int Left, int Top, int Right, int Bottom, int CornerWidth, int CornerHeight);
  void DrawFocusRect(const RECT& R);
  // Text in the font's colour; the background is the brush's unless the brush is clear.
  void TextOut(int X, int Y, const std::string& Text);
  // DrawTextA; with DT_CALCRECT it stores the measured rectangle in R.
  int DrawText(RECT& R, const std::string& Text, UINT Format);
  SIZE TextExtent(const std::string& Text);
  int TextWidth(const std::string& Text) { return TextExtent(Text).cx; }
  int TextHeight(const std::string& Text) { return TextExtent(Text).cy; }
  void Draw(int X, int Y, HDC Source, int Width, int Height);  // BitBlt SRCCOPY

 private:
  void UsePen();
  void UseBrush();
  void UseFont();

  HDC FDC = nullptr;
  HGDIOBJ FOldPen = nullptr, FOldBrush = nullptr, FOldFont = nullptr;
  HPEN FPen = nullptr;
  HBRUSH FBrush = nullptr;
  HFONT FFont = nullptr;
  TPen FPenMade;
  TBrush FBrushMade;
  TFont FFontMade;
};

// A top-down 32-bit DIB section selected into its own memory DC.
class TBitmap {
 public:
  TBitmap() = default;
  TBitmap(int Width, int Height) { SetSize(Width, Height); }
  ~TBitmap();
  TBitmap(const TBitmap&) = delete;
  TBitmap& operator=(const TBitmap&) = delete;

  // False (and logged) when the size is not positive or the bitmap cannot be made.
  bool SetSize(int Width, int Height);
  int Width() const { return FWidth; }
  int Height() const { return FHeight; }
  bool Empty() const { return FBits == nullptr; }
  HDC DC() const { return FDC; }
  HBITMAP Handle() const { return FBitmap; }
  TCanvas& Canvas() { return FCanvas; }
  // Pixel as $AARRGGBB (the DIB's own byte order); Pixel() as a COLORREF $BBGGRR.
  uint32_t* Scanline(int Y) { return FBits + static_cast<size_t>(Y) * static_cast<size_t>(FWidth); }
  const uint32_t* Scanline(int Y) const { return FBits + static_cast<size_t>(Y) * static_cast<size_t>(FWidth); }
  COLORREF Pixel(int X, int Y) const;
  void Fill(COLORREF Color);

 private:
  void Free();
  int FWidth = 0, FHeight = 0;
  HDC FDC = nullptr;
  HBITMAP FBitmap = nullptr;
  HGDIOBJ FOldBitmap = nullptr;
  uint32_t* FBits = nullptr;
  TCanvas FCanvas;
};

// A PNG decoded by WIC into premultiplied 32-bit BGRA rows (top-down).
class TPngImage {
 public:
  // False (and logged) for a file or data that WIC cannot decode; the image is then empty.
  bool LoadFromFile(const std::string& FileName);
  bool LoadFromMemory(const void* Data, size_t Size);
  bool Empty() const { return FPixels.empty(); }
  int Width() const { return FWidth; }
  int Height() const { return FHeight; }
  const std::vector<uint32_t>& Pixels() const { return FPixels; }
  // Blends the image onto DC at (X, Y) with its per-pixel alpha.
  void Draw(HDC DC, int X, int Y) const;
  // Writes Bitmap as a PNG; with Alpha the top bytes are its straight alpha, else the
  // pixels are written opaque.
  static bool SaveBitmap(const TBitmap& Bitmap, const std::string& FileName, bool Alpha = false);

 private:
  int FWidth = 0, FHeight = 0;
  std::vector<uint32_t> FPixels;
};

}  // namespace kl
