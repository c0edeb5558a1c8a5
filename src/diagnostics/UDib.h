// Device-independent bitmap helpers: DIB sections whose pixel memory the caller writes
// directly (decoded video frames go there), flipping frames between top-down and
// bottom-up row order, copying rectangles of 32-bit pixels with clipping, and drawing
// one device context or bitmap onto another with constant opacity and an optional
// transparent colour. No state.
#pragma once

#include <windows.h>

#include <cstdint>
#include <vector>

namespace kl::UDib {

// A bottom-up section of 24 or 32 bits. 0 (Bits untouched) for Width < 1 or another bit
// count; raises kl::Exception("CreateDIBSectionEx: Result = 0") when the system makes
// none. Free it with DeleteObject.
HBITMAP CreateDIBSectionEx(int32_t Width, int32_t Height, int32_t BitCount, void*& Bits);
// A palettised section (1, 4 or 8 bits for up to 2, 16, 256 colours, else 32 bits).
// Palette entries are 0x00RRGGBB as in a colour table (blue in the low byte).
HBITMAP CreateDIBSectionEx(int32_t Width, int32_t Height, const std::vector<uint32_t>& Palette, void*& Bits);

// Rows of (Width rounded up to even) * BitCount / 8 bytes, 24 or 32 bits only: this is
// not the DIB stride for 24-bit widths that are not a multiple of 4. Always false.
bool FlipVertically(int32_t Width, int32_t Height, int32_t BitCount, void* Bits);
// Through StretchBlt on a memory context. Always false.
bool FlipVertically(int32_t Width, int32_t Height, HBITMAP Bitmap);
// Dest row i = Source row Rows - 1 - i.
void FlippingCopy(const void* Source, void* Dest, int32_t RowSize, int32_t Rows);

// Copies the Width x Height block at (SrcX, SrcY) of Source to (DestX, DestY) of Dest.
// Buffers are rows of Width pixels without padding, first row first. Destination pixels
// outside Dest are skipped; those whose source pixel lies outside Source are zeroed.
// False for non-positive sizes, missing buffers or a bit count below 8; any bit count
// other than 32 raises kl::Exception("not released for this BytesPerPixel").
bool CopyBits(int32_t SrcX, int32_t SrcY, int32_t Width, int32_t Height, int32_t DestX, int32_t DestY,
              const void* Source, int32_t SourceWidth, int32_t SourceHeight, void* Dest, int32_t DestWidth,
              int32_t DestHeight, int32_t BitCount);

// Opacity 255 without transparency copies; below 255 blends with constant alpha;
// Transparent leaves the source pixels of TransparentColor out.
void BitBltExDCDC(HDC Dest, int32_t X, int32_t Y, int32_t Width, int32_t Height, HDC Source, int32_t SrcX,
                  int32_t SrcY, uint8_t Opacity, bool Transparent, COLORREF TransparentColor);
void BitBltExBMDC(HBITMAP Dest, int32_t X, int32_t Y, int32_t Width, int32_t Height, HDC Source, int32_t SrcX,
                  int32_t SrcY, uint8_t Opacity, bool Transparent, COLORREF TransparentColor);
void BitBltExDCBM(HDC Dest, int32_t X, int32_t Y, int32_t Width, int32_t Height, HBITMAP Source, int32_t SrcX,
                  int32_t SrcY, uint8_t Opacity, bool Transparent, COLORREF TransparentColor);
void BitBltExBMBM(HBITMAP Dest, int32_t X, int32_t Y, int32_t Width, int32_t Height, HBITMAP Source, int32_t SrcX,
                  int32_t SrcY, uint8_t Opacity, bool Transparent, COLORREF TransparentColor);
// Plain BitBlt with a raster operation (SRCCOPY, SRCINVERT ...).
void BitBltExBMBM(HBITMAP Dest, int32_t X, int32_t Y, int32_t Width, int32_t Height, HBITMAP Source, int32_t SrcX,
                  int32_t SrcY, DWORD Rop);
void BitBltDCBM(HDC Dest, int32_t X, int32_t Y, int32_t Width, int32_t Height, HBITMAP Source, int32_t SrcX,
                int32_t SrcY, DWORD Rop);

}  // namespace kl::UDib
