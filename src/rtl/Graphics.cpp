#include "rtl/Graphics.h"

#include <wincodec.h>

#include <algorithm>
#include <cstring>

#include "rtl/ComBase.h"
#include "diagnostics/klLog.h"

namespace kl {

COLORREF ColorToRGB(TColor Color) {
  if ((Color & 0xFF000000u) == clSystemColor) return GetSysColor(static_cast<int>(Color & 0xFF));
  return Color & 0xFFFFFF;
}

// --- TCanvas ------------------------------------------------------------------------

void TCanvas::SetHandle(HDC DC) {
  if (FDC) {
    if (FOldPen) SelectObject(FDC, FOldPen);
    if (FOldBrush) SelectObject(FDC, FOldBrush);
    if (FOldFont) SelectObject(FDC, FOldFont);
  }
  FOldPen = FOldBrush = FOldFont = nullptr;
  if (FPen) DeleteObject(FPen);
  if (FBrush) DeleteObject(FBrush);
  if (FFont) DeleteObject(FFont);
  FPen = nullptr;
  FBrush = nullptr;
  FFont = nullptr;
  FDC = DC;
}

void TCanvas::UsePen() {
  if (FPen && FPenMade.Color == Pen.Color && FPenMade.Width == Pen.Width && FPenMade.Style == Pen.Style) return;
  static constexpr int Styles[] = {PS_SOLID, PS_DASH, PS_DOT, PS_NULL};
  HPEN pen = CreatePen(Styles[static_cast<int>(Pen.Style)], Pen.Width, ColorToRGB(Pen.Color));
  HGDIOBJ old = SelectObject(FDC, pen);
  if (!FOldPen) FOldPen = old;
  if (FPen) DeleteObject(FPen);
  FPen = pen;
  FPenMade = Pen;
}

void TCanvas::UseBrush() {
  if (FBrush && FBrushMade.Color == Brush.Color && FBrushMade.Style == Brush.Style) return;
  HBRUSH brush;
  if (Brush.Style == TBrushStyle::bsClear) {
    LOGBRUSH lb{BS_NULL, 0, 0};
    brush = CreateBrushIndirect(&lb);
  } else {
    brush = CreateSolidBrush(ColorToRGB(Brush.Color));
  }
  HGDIOBJ old = SelectObject(FDC, brush);
  if (!FOldBrush) FOldBrush = old;
  if (FBrush) DeleteObject(FBrush);
  FBrush = brush;
  FBrushMade = Brush;
}

void TCanvas::UseFont() {
  if (!FFont || FFontMade.Name != Font.Name || FFontMade.Height != Font.Height || FFontMade.Bold != Font.Bold) {
    HFONT font = CreateFontA(Font.Height, 0, 0, 0, Font.Bold ? FW_BOLD : FW_NORMAL, 0, 0, 0, DEFAULT_CHARSET,
                             OUT_DEFAULT_PRECIS, CLIP_DEFAULT_PRECIS, DEFAULT_QUALITY, DEFAULT_PITCH,
                             Font.Name.c_str());
    HGDIOBJ old = SelectObject(FDC, font);
    if (!FOldFont) FOldFont = old;
    if (FFont) DeleteObject(FFont);
    FFont = font;
    FFontMade = Font;
  }
  SetTextColor(FDC, ColorToRGB(Font.Color));
  if (Brush.Style == TBrushStyle::bsClear) {
    SetBkMode(FDC, TRANSPARENT);
  } else {
    SetBkMode(FDC, OPAQUE);
    SetBkColor(FDC, ColorToRGB(Brush.Color));
  }
}

void TCanvas::Rectangle(int Left, int Top, int Right, int Bottom) {
  UsePen();
  UseBrush();
  ::Rectangle(FDC, Left, Top, Right, Bottom);
}

void TCanvas::FillRect(const RECT& R) {
  UseBrush();
  ::FillRect(FDC, &R, FBrush);
}

void TCanvas::FrameRect(const RECT& R) {
  UseBrush();
  ::FrameRect(FDC, &R, FBrush);
}

void TCanvas::Polygon(const std::vector<POINT>& Points) {
  if (Points.empty()) return;
  UsePen();
  UseBrush();
  ::Polygon(FDC, Points.data(), static_cast<int>(Points.size()));
}

void TCanvas::MoveTo(int X, int Y) { MoveToEx(FDC, X, Y, nullptr); }

void TCanvas::LineTo(int X, int Y) {
  UsePen();
  ::LineTo(FDC, X, Y);
}

void TCanvas::Ellipse(int Left, int Top, int Right, int Bottom) {
  UsePen();
  UseBrush();
  ::Ellipse(FDC, Left, Top, Right, Bottom);
}

void TCanvas::RoundRect(int Left, int Top, int Right, int Bottom, int CornerWidth, int CornerHeight) {
  UsePen();
  UseBrush();
  ::RoundRect(FDC, Left, Top, Right, Bottom, CornerWidth, CornerHeight);
}

void TCanvas::DrawFocusRect(const RECT& R) {
  // The dotted XOR frame uses the DC's text and background colours.
  COLORREF text = SetTextColor(FDC, RGB(0, 0, 0));
  COLORREF back = SetBkColor(FDC, RGB(255, 255, 255));
  ::DrawFocusRect(FDC, &R);
  SetTextColor(FDC, text);
  SetBkColor(FDC, back);
}

void TCanvas::TextOut(int X, int Y, const std::string& Text) {
  UseFont();
  ::TextOutA(FDC, X, Y, Text.data(), static_cast<int>(Text.size()));
}

int TCanvas::DrawText(RECT& R, const std::string& Text, UINT Format) {
  UseFont();
  return ::DrawTextA(FDC, Text.data(), static_cast<int>(Text.size()), &R, Format);
}

SIZE TCanvas::TextExtent(const std::string& Text) {
  UseFont();
  SIZE s{0, 0};
  GetTextExtentPoint32A(FDC, Text.data(), static_cast<int>(Text.size()), &s);
  return s;
}

void TCanvas::Draw(int X, int Y, HDC Source, int Width, int Height) {
  BitBlt(FDC, X, Y, Width, Height, Source, 0, 0, SRCCOPY);
}

// --- TBitmap ------------------------------------------------------------------------

TBitmap::~TBitmap() { Free(); }

void TBitmap::Free() {
  FCanvas.Release();
  if (FDC) {
    SelectObject(FDC, FOldBitmap);
    DeleteDC(FDC);
  }
  if (FBitmap) DeleteObject(FBitmap);
  FDC = nullptr;
  FBitmap = nullptr;
  FOldBitmap = nullptr;
  FBits = nullptr;
  FWidth = FHeight = 0;
}

bool TBitmap::SetSize(int Width, int Height) {
  Free();
  if (Width <= 0 || Height <= 0 || Width > 32768 || Height > 32768) {
    klLog::AddToEventLog("TBitmap.SetSize: bad size " + std::to_string(Width) + "x" + std::to_string(Height), 1);
    return false;
  }
  BITMAPINFO bi{};
  bi.bmiHeader.biSize = sizeof(bi.bmiHeader);
  bi.bmiHeader.biWidth = Width;
  bi.bmiHeader.biHeight = -Height;
  bi.bmiHeader.biPlanes = 1;
  bi.bmiHeader.biBitCount = 32;
  bi.bmiHeader.biCompression = BI_RGB;
  void* bits = nullptr;
  FBitmap = CreateDIBSection(nullptr, &bi, DIB_RGB_COLORS, &bits, nullptr, 0);
  FDC = CreateCompatibleDC(nullptr);
  if (!FBitmap || !FDC) {
    klLog::AddToEventLog("TBitmap.SetSize: " + klLog::GetLastErrorStr(), 1);
    if (FDC) DeleteDC(FDC);
    if (FBitmap) DeleteObject(FBitmap);
    FDC = nullptr;
    FBitmap = nullptr;
    return false;
  }
  FOldBitmap = SelectObject(FDC, FBitmap);
  FBits = static_cast<uint32_t*>(bits);
  FWidth = Width;
  FHeight = Height;
  FCanvas.SetHandle(FDC);
  return true;
}

COLORREF TBitmap::Pixel(int X, int Y) const {
  if (!FBits || X < 0 || Y < 0 || X >= FWidth || Y >= FHeight) return CLR_INVALID;
  GdiFlush();
  uint32_t p = Scanline(Y)[X];
  return RGB((p >> 16) & 0xFF, (p >> 8) & 0xFF, p & 0xFF);
}

void TBitmap::Fill(COLORREF Color) {
  if (!FBits) return;
  GdiFlush();
  uint32_t p = (GetRValue(Color) << 16) | (GetGValue(Color) << 8) | GetBValue(Color);
  std::fill(FBits, FBits + static_cast<size_t>(FWidth) * static_cast<size_t>(FHeight), p);
}

// --- TPngImage ----------------------------------------------------------------------

namespace {

// COM for the calling thread as long as the object lives, if it was not there already.
struct TComScope {
  bool Owns = false;
  TComScope() { Owns = SUCCEEDED(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED)); }
  ~TComScope() {
    if (Owns) CoUninitialize();
  }
};

ComPtr<IWICImagingFactory> WicFactory() {
  ComPtr<IWICImagingFactory> f;
  CoCreateInstance(CLSID_WICImagingFactory, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&f));
  return f;
}

}  // namespace

bool TPngImage::LoadFromFile(const std::string& FileName) {
  HANDLE h = CreateFileA(FileName.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
  if (h == INVALID_HANDLE_VALUE) {
    klLog::AddToEventLog("TPngImage.LoadFromFile: " + FileName + ": " + klLog::GetLastErrorStr(), 1);
    FPixels.clear();
    return false;
  }
  std::vector<uint8_t> data;
  LARGE_INTEGER size{};
  bool ok = GetFileSizeEx(h, &size) && size.QuadPart < (256 << 20);
  if (ok) {
    data.resize(static_cast<size_t>(size.QuadPart));
    DWORD got = 0;
    ok = data.empty() || (ReadFile(h, data.data(), static_cast<DWORD>(data.size()), &got, nullptr) && got == data.size());
  }
  CloseHandle(h);
  if (!ok) {
    klLog::AddToEventLog("TPngImage.LoadFromFile: cannot read " + FileName, 1);
    FPixels.clear();
    return false;
  }
  return LoadFromMemory(data.data(), data.size());
}

bool TPngImage::LoadFromMemory(const void* Data, size_t Size) {
  FPixels.clear();
  FWidth = FHeight = 0;
  TComScope com;
  auto fail = [](const char* Step, HRESULT Hr) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "0x%08lX", static_cast<unsigned long>(Hr));
    klLog::AddToEventLog(std::string("TPngImage.LoadFromMemory: ") + Step + " failed, " + buf, 1);
    return false;
  };
  if (!Data || Size == 0 || Size > 0xFFFFFFFFu) return fail("empty data", E_INVALIDARG);
  ComPtr<IWICImagingFactory> factory = WicFactory();
  if (!factory) return fail("WIC factory", E_NOINTERFACE);
  ComPtr<IWICStream> stream;
  HRESULT hr = factory->CreateStream(&stream);
  if (SUCCEEDED(hr))
    hr = stream->InitializeFromMemory(static_cast<BYTE*>(const_cast<void*>(Data)), static_cast<DWORD>(Size));
  if (FAILED(hr)) return fail("stream", hr);
  ComPtr<IWICBitmapDecoder> decoder;
  hr = factory->CreateDecoderFromStream(stream.Get(), nullptr, WICDecodeMetadataCacheOnDemand, &decoder);
  if (FAILED(hr)) return fail("decoder", hr);
  GUID format{};
  if (FAILED(decoder->GetContainerFormat(&format)) || !IsEqualGUID(format, GUID_ContainerFormatPng))
    return fail("PNG container", E_INVALIDARG);
  ComPtr<IWICBitmapFrameDecode> frame;
  hr = decoder->GetFrame(0, &frame);
  if (FAILED(hr)) return fail("frame", hr);
  ComPtr<IWICFormatConverter> conv;
  hr = factory->CreateFormatConverter(&conv);
  if (SUCCEEDED(hr))
    hr = conv->Initialize(frame.Get(), GUID_WICPixelFormat32bppPBGRA, WICBitmapDitherTypeNone, nullptr, 0.0,
                          WICBitmapPaletteTypeCustom);
  if (FAILED(hr)) return fail("converter", hr);
  UINT w = 0, h = 0;
  hr = conv->GetSize(&w, &h);
  if (FAILED(hr) || w == 0 || h == 0 || w > 16384 || h > 16384) return fail("size", FAILED(hr) ? hr : E_INVALIDARG);
  std::vector<uint32_t> pixels(static_cast<size_t>(w) * h);
  hr = conv->CopyPixels(nullptr, w * 4, static_cast<UINT>(pixels.size() * 4), reinterpret_cast<BYTE*>(pixels.data()));
  if (FAILED(hr)) return fail("pixels", hr);
  FPixels = std::move(pixels);
  FWidth = static_cast<int>(w);
  FHeight = static_cast<int>(h);
  return true;
}

void TPngImage::Draw(HDC DC, int X, int Y) const {
  if (FPixels.empty()) return;
  TBitmap tmp;
  if (!tmp.SetSize(FWidth, FHeight)) return;
  GdiFlush();
  std::memcpy(tmp.Scanline(0), FPixels.data(), FPixels.size() * 4);
  BLENDFUNCTION bf{AC_SRC_OVER, 0, 255, AC_SRC_ALPHA};
  AlphaBlend(DC, X, Y, FWidth, FHeight, tmp.DC(), 0, 0, FWidth, FHeight, bf);
}

bool TPngImage::SaveBitmap(const TBitmap& Bitmap, const std::string& FileName, bool Alpha) {
  if (Bitmap.Empty()) return false;
  TComScope com;
  GdiFlush();
  ComPtr<IWICImagingFactory> factory = WicFactory();
  ComPtr<IWICStream> stream;
  ComPtr<IWICBitmapEncoder> encoder;
  ComPtr<IWICBitmapFrameEncode> frame;
  std::wstring wname(FileName.begin(), FileName.end());
  WICPixelFormatGUID fmt = Alpha ? GUID_WICPixelFormat32bppBGRA : GUID_WICPixelFormat32bppBGR;
  UINT stride = static_cast<UINT>(Bitmap.Width()) * 4;
  bool ok = factory && SUCCEEDED(factory->CreateStream(&stream)) &&
            SUCCEEDED(stream->InitializeFromFilename(wname.c_str(), GENERIC_WRITE)) &&
            SUCCEEDED(factory->CreateEncoder(GUID_ContainerFormatPng, nullptr, &encoder)) &&
            SUCCEEDED(encoder->Initialize(stream.Get(), WICBitmapEncoderNoCache)) &&
            SUCCEEDED(encoder->CreateNewFrame(&frame, nullptr)) && SUCCEEDED(frame->Initialize(nullptr)) &&
            SUCCEEDED(frame->SetSize(static_cast<UINT>(Bitmap.Width()), static_cast<UINT>(Bitmap.Height()))) &&
            SUCCEEDED(frame->SetPixelFormat(&fmt)) &&
            SUCCEEDED(frame->WritePixels(static_cast<UINT>(Bitmap.Height()), stride,
                                         stride * static_cast<UINT>(Bitmap.Height()),
                                         reinterpret_cast<BYTE*>(const_cast<uint32_t*>(Bitmap.Scanline(0))))) &&
            SUCCEEDED(frame->Commit()) && SUCCEEDED(encoder->Commit());
  if (!ok) klLog::AddToEventLog("TPngImage.SaveBitmap: cannot write " + FileName, 1);
  return ok;
}

}  // namespace kl
