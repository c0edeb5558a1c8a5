#include "diagnostics/UDib.h"

#include <algorithm>
#include <cstring>

#include "rtl/SysUtils.h"

namespace kl::UDib {

namespace {

// A memory context compatible with the screen, with a bitmap selected into it for
// the context's life.
class TMemDC {
 public:
  explicit TMemDC(HBITMAP Bitmap) : FDC(CreateCompatibleDC(nullptr)) {
    if (FDC != nullptr && Bitmap != nullptr) FOld = SelectObject(FDC, Bitmap);
  }
  ~TMemDC() {
    if (FDC == nullptr) return;
    if (FOld != nullptr) SelectObject(FDC, FOld);
    DeleteDC(FDC);
  }
  TMemDC(const TMemDC&) = delete;
  TMemDC& operator=(const TMemDC&) = delete;
  // Null unless the bitmap could be selected.
  HDC DC() const { return FOld != nullptr && FOld != HGDI_ERROR ? FDC : nullptr; }

 private:
  HDC FDC;
  HGDIOBJ FOld = nullptr;
};

HBITMAP CreateSection(int32_t Width, int32_t Height, int32_t BitCount, const uint32_t* Colors, size_t ColorCount,
                      size_t TableSize, void*& Bits) {
  // The header and the colour table that follows it directly.
  std::vector<uint8_t> info(sizeof(BITMAPINFOHEADER) + TableSize * 4, 0);
  auto* h = reinterpret_cast<BITMAPINFOHEADER*>(info.data());
  h->biSize = sizeof(BITMAPINFOHEADER);
  h->biWidth = Width;
  h->biHeight = Height;
  h->biPlanes = 1;
  h->biBitCount = static_cast<WORD>(BitCount);
  h->biCompression = BI_RGB;
  if (ColorCount > 0) std::memcpy(info.data() + sizeof(BITMAPINFOHEADER), Colors, ColorCount * 4);
  void* bits = nullptr;
  const HBITMAP bmp =
      CreateDIBSection(nullptr, reinterpret_cast<BITMAPINFO*>(info.data()), DIB_RGB_COLORS, &bits, nullptr, 0);
  // The standard exception, not the library's: this one is not logged.
  if (bmp == nullptr) throw Exception("CreateDIBSectionEx: Result = 0");
  Bits = bits;
  return bmp;
}

void Draw(HDC Dest, int32_t X, int32_t Y, int32_t Width, int32_t Height, HDC Source, int32_t SrcX, int32_t SrcY,
          uint8_t Opacity, bool Transparent, COLORREF TransparentColor) {
  if (Dest == nullptr || Source == nullptr || Width < 1 || Height < 1) return;
  if (Opacity == 255 && !Transparent) {
    BitBlt(Dest, X, Y, Width, Height, Source, SrcX, SrcY, SRCCOPY);
    return;
  }
  const BLENDFUNCTION blend{AC_SRC_OVER, 0, Opacity, 0};
  if (!Transparent) {
    AlphaBlend(Dest, X, Y, Width, Height, Source, SrcX, SrcY, Width, Height, blend);
    return;
  }
  if (Opacity == 255) {
    TransparentBlt(Dest, X, Y, Width, Height, Source, SrcX, SrcY, Width, Height, TransparentColor);
    return;
  }
  // Both: the transparent drawing goes onto a copy of the destination block, which is
  // then blended back with the opacity.
  void* bits = nullptr;
  const HBITMAP temp = CreateDIBSectionEx(Width, Height, 32, bits);
  {
    TMemDC tempDC(temp);
    if (tempDC.DC() != nullptr) {
      BitBlt(tempDC.DC(), 0, 0, Width, Height, Dest, X, Y, SRCCOPY);
      TransparentBlt(tempDC.DC(), 0, 0, Width, Height, Source, SrcX, SrcY, Width, Height, TransparentColor);
      AlphaBlend(Dest, X, Y, Width, Height, tempDC.DC(), 0, 0, Width, Height, blend);
    }
  }
  DeleteObject(temp);
}

}  // namespace

HBITMAP CreateDIBSectionEx(int32_t Width, int32_t Height, int32_t BitCount, void*& Bits) {
  if (Width < 1 || (BitCount != 24 && BitCount != 32)) return nullptr;
  return CreateSection(Width, Height, BitCount, nullptr, 0, 0, Bits);
}

HBITMAP CreateDIBSectionEx(int32_t Width, int32_t Height, const std::vector<uint32_t>& Palette, void*& Bits) {
  const size_t n = Palette.size();
  if (Width < 1 || n < 1) return nullptr;
  int32_t bitCount = 32;
  size_t table = 0;
  if (n <= 2) {
    bitCount = 1;
    table = 2;
  } else if (n <= 16) {
    bitCount = 4;
    table = 16;
  } else if (n <= 256) {
    bitCount = 8;
    table = 256;
  }
  return CreateSection(Width, Height, bitCount, Palette.data(), table == 0 ? 0 : n, table, Bits);
}

bool FlipVertically(int32_t Width, int32_t Height, int32_t BitCount, void* Bits) {
  if (Width < 1 || Height < 1 || Bits == nullptr || (BitCount != 24 && BitCount != 32)) return false;
  // Deliberately the even-width row, not the 4-byte-aligned DIB stride.
  const size_t rowSize = static_cast<size_t>((static_cast<int64_t>(Width + 1) / 2) * 2 * BitCount / 8);
  std::vector<uint8_t> row(rowSize);
  auto* p = static_cast<uint8_t*>(Bits);
  for (int32_t i = 0; i < Height / 2; ++i) {
    uint8_t* a = p + static_cast<size_t>(i) * rowSize;
    uint8_t* b = p + static_cast<size_t>(Height - 1 - i) * rowSize;
    std::memcpy(row.data(), a, rowSize);
    std::memcpy(a, b, rowSize);
    std::memcpy(b, row.data(), rowSize);
  }
  return false;
}

bool FlipVertically(int32_t Width, int32_t Height, HBITMAP Bitmap) {
  if (Width < 1 || Height < 1 || Bitmap == nullptr || GetObjectType(Bitmap) != OBJ_BITMAP) return false;
  TMemDC dc(Bitmap);
  // A negative extent counts from its origin row inclusive (rows y, y-1, ... y+h+1), so
  // the mirrored source starts at the last row, Height - 1; starting at Height would
  // leave the first row and shift the others by one.
  if (dc.DC() != nullptr) StretchBlt(dc.DC(), 0, 0, Width, Height, dc.DC(), 0, Height - 1, Width, -Height, SRCCOPY);
  return false;
}

void FlippingCopy(const void* Source, void* Dest, int32_t RowSize, int32_t Rows) {
  if (Source == nullptr || Dest == nullptr || RowSize < 1 || Rows < 1) return;
  const auto* s = static_cast<const uint8_t*>(Source);
  auto* d = static_cast<uint8_t*>(Dest);
  const auto row = static_cast<size_t>(RowSize);
  for (int32_t i = 0; i < Rows; ++i) {
    std::memcpy(d + static_cast<size_t>(i) * row, s + static_cast<size_t>(Rows - 1 - i) * row, row);
  }
}

bool CopyBits(int32_t SrcX, int32_t SrcY, int32_t Width, int32_t Height, int32_t DestX, int32_t DestY,
              const void* Source, int32_t SourceWidth, int32_t SourceHeight, void* Dest, int32_t DestWidth,
              int32_t DestHeight, int32_t BitCount) {
  if (Width < 1 || Height < 1 || Source == nullptr || Dest == nullptr || SourceWidth < 1 || SourceHeight < 1 ||
      DestWidth < 1 || DestHeight < 1) {
    return false;
  }
  if (BitCount < 8) return false;
  if (BitCount != 32) throw Exception("not released for this BytesPerPixel");
  // 64-bit arithmetic: positions near the int32 limits must clip, not wrap.
  const int64_t w = Width, h = Height;
  // The block's columns and rows that land inside the destination.
  const int64_t i0 = std::max<int64_t>(0, -static_cast<int64_t>(DestX));
  const int64_t i1 = std::min<int64_t>(w, static_cast<int64_t>(DestWidth) - DestX);
  const int64_t j0 = std::max<int64_t>(0, -static_cast<int64_t>(DestY));
  const int64_t j1 = std::min<int64_t>(h, static_cast<int64_t>(DestHeight) - DestY);
  if (i0 >= i1 || j0 >= j1) return true;
  // Of those, the columns whose source pixel is inside the source.
  const int64_t c0 = std::clamp<int64_t>(-static_cast<int64_t>(SrcX), i0, i1);
  const int64_t c1 = std::clamp<int64_t>(static_cast<int64_t>(SourceWidth) - SrcX, c0, i1);
  const auto* src = static_cast<const uint32_t*>(Source);
  auto* dst = static_cast<uint32_t*>(Dest);
  for (int64_t j = j0; j < j1; ++j) {
    // Indexes stay inside the buffers: DestX + i0 >= 0 and SrcX + c0 >= 0.
    uint32_t* drow = dst + (DestY + j) * static_cast<int64_t>(DestWidth);
    const int64_t sy = SrcY + j;
    if (sy < 0 || sy >= SourceHeight) {
      std::memset(drow + (DestX + i0), 0, static_cast<size_t>(i1 - i0) * 4);
      continue;
    }
    const uint32_t* srow = src + sy * static_cast<int64_t>(SourceWidth);
    std::memset(drow + (DestX + i0), 0, static_cast<size_t>(c0 - i0) * 4);
    if (c1 > c0) std::memcpy(drow + (DestX + c0), srow + (SrcX + c0), static_cast<size_t>(c1 - c0) * 4);
    std::memset(drow + (DestX + c1), 0, static_cast<size_t>(i1 - c1) * 4);
  }
  return true;
}

void BitBltExDCDC(HDC Dest, int32_t X, int32_t Y, int32_t Width, int32_t Height, HDC Source, int32_t SrcX,
                  int32_t SrcY, uint8_t Opacity, bool Transparent, COLORREF TransparentColor) {
  Draw(Dest, X, Y, Width, Height, Source, SrcX, SrcY, Opacity, Transparent, TransparentColor);
}

void BitBltExBMDC(HBITMAP Dest, int32_t X, int32_t Y, int32_t Width, int32_t Height, HDC Source, int32_t SrcX,
                  int32_t SrcY, uint8_t Opacity, bool Transparent, COLORREF TransparentColor) {
  if (Dest == nullptr || Source == nullptr || Width < 1 || Height < 1) return;
  TMemDC d(Dest);
  Draw(d.DC(), X, Y, Width, Height, Source, SrcX, SrcY, Opacity, Transparent, TransparentColor);
}

void BitBltExDCBM(HDC Dest, int32_t X, int32_t Y, int32_t Width, int32_t Height, HBITMAP Source, int32_t SrcX,
                  int32_t SrcY, uint8_t Opacity, bool Transparent, COLORREF TransparentColor) {
  if (Dest == nullptr || Source == nullptr || Width < 1 || Height < 1) return;
  TMemDC s(Source);
  Draw(Dest, X, Y, Width, Height, s.DC(), SrcX, SrcY, Opacity, Transparent, TransparentColor);
}

void BitBltExBMBM(HBITMAP Dest, int32_t X, int32_t Y, int32_t Width, int32_t Height, HBITMAP Source, int32_t SrcX,
                  int32_t SrcY, uint8_t Opacity, bool Transparent, COLORREF TransparentColor) {
  if (Dest == nullptr || Source == nullptr || Width < 1 || Height < 1) return;
  TMemDC d(Dest);
  TMemDC s(Source);
  Draw(d.DC(), X, Y, Width, Height, s.DC(), SrcX, SrcY, Opacity, Transparent, TransparentColor);
}

void BitBltExBMBM(HBITMAP Dest, int32_t X, int32_t Y, int32_t Width, int32_t Height, HBITMAP Source, int32_t SrcX,
                  int32_t SrcY, DWORD Rop) {
  if (Dest == nullptr || Source == nullptr || Width < 1 || Height < 1) return;
  TMemDC d(Dest);
  TMemDC s(Source);
  if (d.DC() != nullptr && s.DC() != nullptr) BitBlt(d.DC(), X, Y, Width, Height, s.DC(), SrcX, SrcY, Rop);
}

void BitBltDCBM(HDC Dest, int32_t X, int32_t Y, int32_t Width, int32_t Height, HBITMAP Source, int32_t SrcX,
                int32_t SrcY, DWORD Rop) {
  if (Dest == nullptr || Source == nullptr || Width < 1 || Height < 1) return;
  TMemDC s(Source);
  if (s.DC() != nullptr) BitBlt(Dest, X, Y, Width, Height, s.DC(), SrcX, SrcY, Rop);
}

}  // namespace kl::UDib
