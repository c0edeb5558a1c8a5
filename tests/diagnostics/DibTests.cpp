// Bitmap helpers checked pixel by pixel, reading the results back with GetDIBits.
#include <gtest/gtest.h>

#include <windows.h>

#include <algorithm>
#include <cstring>
#include <numeric>
#include <tuple>

#include "KlTest.h"
#include "diagnostics/UDib.h"
#include "rtl/SysUtils.h"

using namespace kl;
using namespace kl::UDib;

namespace {

// A 32-bit section of W x H pixels, freed at the end; pixels in image coordinates
// (row 0 at the top, while the section stores it last).
struct TBitmap {
  HBITMAP Handle = nullptr;
  uint32_t* Bits = nullptr;
  int W, H;
  TBitmap(int AW, int AH, uint32_t Fill) : W(AW), H(AH) {
    void* bits = nullptr;
    Handle = CreateDIBSectionEx(W, H, 32, bits);
    Bits = static_cast<uint32_t*>(bits);
    for (int i = 0; i < W * H; ++i) Bits[i] = Fill;
  }
  ~TBitmap() { DeleteObject(Handle); }
  TBitmap(const TBitmap&) = delete;
  TBitmap& operator=(const TBitmap&) = delete;
  void Set(int X, int Y, uint32_t C) {
    GdiFlush();
    Bits[(H - 1 - Y) * W + X] = C;
  }
  // Top-down read-back through the graphics system, colour bits only.
  std::vector<uint32_t> Read() const {
    GdiFlush();
    std::vector<uint32_t> px(static_cast<size_t>(W * H));
    BITMAPINFO bi{{static_cast<DWORD>(sizeof(BITMAPINFOHEADER)), W, -H, 1, 32, BI_RGB, 0, 0, 0, 0, 0}, {}};
    HDC dc = GetDC(nullptr);
    const int rows = GetDIBits(dc, Handle, 0, static_cast<UINT>(H), px.data(), &bi, DIB_RGB_COLORS);
    ReleaseDC(nullptr, dc);
    EXPECT_EQ(rows, H);
    for (auto& p : px) p &= 0xFFFFFF;
    return px;
  }
};

// A memory context holding a bitmap, for the DC forms.
struct TDC {
  HDC DC;
  HGDIOBJ Old;
  explicit TDC(HBITMAP B) : DC(CreateCompatibleDC(nullptr)), Old(SelectObject(DC, B)) {}
  ~TDC() {
    SelectObject(DC, Old);
    DeleteDC(DC);
  }
  TDC(const TDC&) = delete;
  TDC& operator=(const TDC&) = delete;
};

uint32_t Blend(uint32_t S, uint32_t D, int A) {
  uint32_t r = 0;
  for (int shift = 0; shift < 24; shift += 8) {
    const int s = (S >> shift) & 0xFF, d = (D >> shift) & 0xFF;
    r |= static_cast<uint32_t>((s * A + d * (255 - A) + 127) / 255) << shift;
  }
  return r;
}

bool Near(uint32_t A, uint32_t B) {
  for (int shift = 0; shift < 24; shift += 8) {
    if (std::abs(static_cast<int>((A >> shift) & 0xFF) - static_cast<int>((B >> shift) & 0xFF)) > 1) return false;
  }
  return true;
}

constexpr uint32_t kKey = 0x102030;  // the transparent colour as a pixel (RGB(0x10, 0x20, 0x30))
constexpr COLORREF kKeyRef = RGB(0x10, 0x20, 0x30);
constexpr uint32_t kDest = 0x204060;

// A 4 x 4 source: a checkerboard of the key colour and distinct colours.
void FillSource(TBitmap& S) {
  for (int y = 0; y < 4; ++y) {
    for (int x = 0; x < 4; ++x) S.Set(x, y, (x + y) % 2 == 0 ? kKey : 0xC86400 + static_cast<uint32_t>(y * 16 + x));
  }
}

}  // namespace

TEST(DibSection, CreatesOnlyValidSections) {
  void* const sentinel = reinterpret_cast<void*>(0x1234);
  void* bits = sentinel;
  for (const auto& [w, h, bpp] : {std::tuple{0, 10, 32}, {-3, 10, 24}, {10, 10, 16}}) {
    EXPECT_EQ(CreateDIBSectionEx(w, h, bpp, bits), nullptr) << w << "x" << h << "x" << bpp;
  }
  EXPECT_EQ(CreateDIBSectionEx(10, 10, std::vector<uint32_t>(), bits), nullptr);
  EXPECT_EQ(bits, sentinel);

  const HBITMAP b = CreateDIBSectionEx(3, 2, 24, bits);
  ASSERT_NE(b, nullptr);
  EXPECT_NE(bits, sentinel);
  DIBSECTION ds{};
  ASSERT_EQ(GetObject(b, sizeof ds, &ds), static_cast<int>(sizeof ds));
  // Width, height, bits, and a positive height in the header: bottom-up.
  EXPECT_EQ(std::make_tuple(ds.dsBm.bmWidth, ds.dsBm.bmHeight, ds.dsBm.bmBitsPixel, ds.dsBmih.biHeight),
            std::make_tuple(3, 2, 24, 2));
  EXPECT_EQ(ds.dsBm.bmBits, bits);
  DeleteObject(b);

  // 40 GB: the system refuses.
  kltest::ExpectRaises([&] { CreateDIBSectionEx(100000, 100000, 32, bits); }, "CreateDIBSectionEx: Result = 0");
}

TEST(DibSection, PalettisedBitCountsAndColourTables) {
  for (const auto& [n, bpp, table] :
       std::vector<std::tuple<int, int, int>>{{2, 1, 2}, {3, 4, 16}, {17, 8, 256}, {257, 32, 0}}) {
    std::vector<uint32_t> pal(static_cast<size_t>(n));
    std::iota(pal.begin(), pal.end(), 0x010203u);
    void* bits = nullptr;
    const HBITMAP b = CreateDIBSectionEx(5, 3, pal, bits);
    ASSERT_NE(b, nullptr) << n;
    DIBSECTION ds{};
    GetObject(b, sizeof ds, &ds);
    EXPECT_EQ(ds.dsBm.bmBitsPixel, bpp) << n;
    {  // the table holds the palette, then zeros
      TDC dc(b);
      std::vector<RGBQUAD> got(256);
      EXPECT_EQ(GetDIBColorTable(dc.DC, 0, 256, got.data()), static_cast<UINT>(table)) << n;
      std::vector<uint32_t> want(static_cast<size_t>(table), 0);
      std::copy_n(pal.begin(), std::min(n, table), want.begin());
      EXPECT_EQ(std::memcmp(got.data(), want.data(), want.size() * 4), 0) << n;
    }
    DeleteObject(b);
  }
}

TEST(DibFlip, BuffersAndBitmaps) {
  // 24 bits, width 3: rows of (2 * 2 * 24) div 8 = 12 bytes; the middle row of an odd
  // height stays.
  std::vector<uint8_t> buf(36);
  for (size_t i = 0; i < buf.size(); ++i) buf[i] = static_cast<uint8_t>(i / 12 * 100 + i % 12);
  const std::vector<uint8_t> orig = buf;
  std::vector<uint8_t> want(orig.begin() + 24, orig.end());
  want.insert(want.end(), orig.begin() + 12, orig.begin() + 24);
  want.insert(want.end(), orig.begin(), orig.begin() + 12);
  EXPECT_FALSE(FlipVertically(3, 3, 24, buf.data()));
  EXPECT_EQ(buf, want);
  // Ignored: other bit counts, non-positive sizes, no buffer.
  EXPECT_FALSE(FlipVertically(3, 3, 16, buf.data()));
  EXPECT_FALSE(FlipVertically(3, -3, 24, buf.data()));
  EXPECT_FALSE(FlipVertically(3, 3, 24, nullptr));
  EXPECT_EQ(buf, want);

  std::vector<uint8_t> src = {1, 2, 3, 4, 5, 6}, dst(6, 0);
  FlippingCopy(src.data(), dst.data(), 2, 3);
  EXPECT_EQ(dst, (std::vector<uint8_t>{5, 6, 3, 4, 1, 2}));
  FlippingCopy(nullptr, dst.data(), 2, 3);
  FlippingCopy(src.data(), nullptr, 2, 3);

  TBitmap b(3, 4, 0);
  for (int y = 0; y < 4; ++y) {
    for (int x = 0; x < 3; ++x) b.Set(x, y, static_cast<uint32_t>(0x010000 * (y + 1) + x));
  }
  const auto before = b.Read();
  EXPECT_FALSE(FlipVertically(3, 4, b.Handle));
  const auto after = b.Read();
  for (int y = 0; y < 4; ++y) {
    for (int x = 0; x < 3; ++x) EXPECT_EQ(after[y * 3 + x], before[(3 - y) * 3 + x]) << x << "," << y;
  }
  EXPECT_FALSE(FlipVertically(3, 4, static_cast<HBITMAP>(nullptr)));
}

TEST(DibCopyBits, ClipsAndZeroFills) {
  // Source 8 x 6 with distinct pixels; destination 10 x 10 pre-filled.
  constexpr uint32_t kFill = 0xEEEEEEEE;
  std::vector<uint32_t> src(48);
  std::iota(src.begin(), src.end(), 0x1000u);
  // Block pixels that land inside the destination take the source's pixel, or zero
  // where the block lies outside the source; the rest of the destination stays.
  struct { int32_t SrcX, SrcY, W, H, DstX, DstY; } cases[] = {
      {-5, -5, 8, 8, 1, 1},                  // the block's first five columns and rows are zero
      {5, 3, 6, 6, -2, 7},                   // over the destination's edges, the source's right and bottom
      {0, 0, 4, 4, 10, 0},                   // entirely outside the destination
      {0, 0, 4, 4, 0x7FFFFFF0, 0x7FFFFFF0},  // far outside, where a sum would overflow
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(Format("source %d,%d to %d,%d", c.SrcX, c.SrcY, c.DstX, c.DstY));
    std::vector<uint32_t> want(100, kFill), dst(100, kFill);
    for (int64_t by = 0; by < c.H; ++by) {
      for (int64_t bx = 0; bx < c.W; ++bx) {
        const int64_t x = c.DstX + bx, y = c.DstY + by, sx = c.SrcX + bx, sy = c.SrcY + by;
        if (x < 0 || y < 0 || x >= 10 || y >= 10) continue;
        want[static_cast<size_t>(y * 10 + x)] = sx >= 0 && sy >= 0 && sx < 8 && sy < 6 ? src[static_cast<size_t>(sy * 8 + sx)] : 0;
      }
    }
    ASSERT_TRUE(CopyBits(c.SrcX, c.SrcY, c.W, c.H, c.DstX, c.DstY, src.data(), 8, 6, dst.data(), 10, 10, 32));
    EXPECT_EQ(dst, want);
  }

  std::vector<uint32_t> dst(100, kFill);
  EXPECT_FALSE(CopyBits(0, 0, 4, 4, 0, 0, nullptr, 8, 6, dst.data(), 10, 10, 32));
  EXPECT_FALSE(CopyBits(0, 0, 4, 4, 0, 0, src.data(), 8, -6, dst.data(), 10, 10, 32));
  kltest::ExpectRaises([&] { CopyBits(0, 0, 4, 4, 0, 0, src.data(), 8, 6, dst.data(), 10, 10, 24); },
                       "not released for this BytesPerPixel");
  EXPECT_EQ(dst, std::vector<uint32_t>(100, kFill));
}

TEST(DibBitBltEx, EveryPathAndFormPixelExact) {
  // The 3 x 2 block at source (1, 1) goes to destination (2, 3), through each pairing of
  // contexts and bitmaps.
  using TDraw = void (*)(HBITMAP Dst, HBITMAP Src, uint8_t Opacity, bool Transparent);
  const std::pair<const char*, TDraw> forms[] = {
      {"BMBM", [](HBITMAP D, HBITMAP S, uint8_t O, bool T) { BitBltExBMBM(D, 2, 3, 3, 2, S, 1, 1, O, T, kKeyRef); }},
      {"DCDC", [](HBITMAP D, HBITMAP S, uint8_t O, bool T) {
         TDC sd(S), dd(D);
         BitBltExDCDC(dd.DC, 2, 3, 3, 2, sd.DC, 1, 1, O, T, kKeyRef);
       }},
      {"BMDC", [](HBITMAP D, HBITMAP S, uint8_t O, bool T) {
         TDC sd(S);
         BitBltExBMDC(D, 2, 3, 3, 2, sd.DC, 1, 1, O, T, kKeyRef);
       }},
      {"DCBM", [](HBITMAP D, HBITMAP S, uint8_t O, bool T) {
         TDC dd(D);
         BitBltExDCBM(dd.DC, 2, 3, 3, 2, S, 1, 1, O, T, kKeyRef);
       }},
  };
  for (const auto& [form, draw] : forms) {
    for (const auto& [opacity, transparent] : {std::pair<uint8_t, bool>{255, false}, {100, false}, {255, true}, {100, true}}) {
      SCOPED_TRACE(Format("%s, opacity %d, transparent %d", form, opacity, transparent));
      TBitmap src(4, 4, 0), dst(6, 6, kDest);
      FillSource(src);
      const auto s = src.Read();
      draw(dst.Handle, src.Handle, opacity, transparent);
      const auto d = dst.Read();
      for (int y = 0; y < 6; ++y) {
        for (int x = 0; x < 6; ++x) {
          uint32_t want = kDest;
          if (x >= 2 && x < 5 && y >= 3 && y < 5) {
            const uint32_t sp = s[static_cast<size_t>((y - 2) * 4 + (x - 1))];
            if (!(transparent && sp == kKey)) want = opacity == 255 ? sp : Blend(sp, kDest, opacity);
          }
          const uint32_t got = d[static_cast<size_t>(y * 6 + x)];
          // Blending may round either way.
          EXPECT_TRUE(opacity == 255 ? got == want : Near(got, want))
              << x << "," << y << std::hex << " got " << got << " want " << want;
        }
      }
    }
  }
}

TEST(DibBitBltEx, RasterOperationsAndBadInput) {
  TBitmap src(2, 2, 0x0F0F0F), dst(2, 2, 0xFFFFFF);
  BitBltExBMBM(dst.Handle, 0, 0, 2, 2, src.Handle, 0, 0, SRCINVERT);
  EXPECT_EQ(dst.Read(), std::vector<uint32_t>(4, 0xF0F0F0));
  {
    TDC dd(dst.Handle);
    BitBltDCBM(dd.DC, 1, 0, 1, 2, src.Handle, 0, 0, SRCCOPY);
  }
  EXPECT_EQ(dst.Read(), (std::vector<uint32_t>{0xF0F0F0, 0x0F0F0F, 0xF0F0F0, 0x0F0F0F}));

  const auto before = dst.Read();
  BitBltExBMBM(dst.Handle, 0, 0, 2, -1, src.Handle, 0, 0, 100, true, 0);
  BitBltExBMBM(dst.Handle, 0, 0, 2, 2, nullptr, 0, 0, 100, true, 0);
  BitBltExDCDC(nullptr, 0, 0, 2, 2, nullptr, 0, 0, 100, false, 0);
  BitBltDCBM(nullptr, 0, 0, 2, 2, src.Handle, 0, 0, SRCCOPY);
  EXPECT_EQ(dst.Read(), before);
}
