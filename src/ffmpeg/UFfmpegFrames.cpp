// TVideoFramesDecoder and TVideoFramesEncoder: raw frames out of and into ffmpeg.exe.
#include <chrono>
#include <climits>
#include <cmath>
#include <cstring>
#include <exception>
#include <random>

#include "diagnostics/UDib.h"
#include "diagnostics/klLog.h"
#include "ffmpeg/UFfmpeg.h"
#include "rtl/SysUtils.h"

namespace kl::UFfmpeg {

namespace {

// A rate as ffmpeg reads it: a point, whatever the system's decimal separator.
std::string RateText(double Value, int MaxDecimals) {
  std::string s = FormatFloatDecimals(Value, MaxDecimals);
  if (const size_t p = s.find(','); p != std::string::npos) s[p] = '.';
  return s;
}

// Made even by rounding down, for sizes derived from the other side.
int32_t Even(double Value) { return static_cast<int32_t>(Round(Value)) / 2 * 2; }

}  // namespace

std::string FormatThousands(double Value) {
  if (!std::isfinite(Value)) return FormatFloatDecimals(Value, 2);
  std::string s = FormatFloatDecimals(std::fabs(Value) + 0.0, 2);
  const char sep = FormatSettings().DecimalSeparator;
  size_t point = s.find(sep);
  if (point == std::string::npos) {
    s += sep;
    point = s.size() - 1;
  }
  s.append(3 - (s.size() - point), '0');
  for (size_t i = point; i > 3; i -= 3) s.insert(i - 3, 1, FormatSettings().ThousandSeparator);
  if (Value < 0 && s.find_first_not_of(std::string("0") + sep) != std::string::npos) s.insert(s.begin(), '-');
  return s;
}

// --- decoder ------------------------------------------------------------------------

ComPtr<IVideoFramesDecoder2> TVideoFramesDecoder::Create(const std::string& FileName, IVideoFileInfo2* FileInfo,
                                                         const TFramesDecoderParams* Params) {
  if (!FileExists(FileName)) {
    klLog::AddToEventLog("TVideoFramesDecoder.Create: Не найден файл: \r\n" + FileName, klLog::lkError);
    return nullptr;
  }
  try {
    auto* decoder = new TVideoFramesDecoder();
    ComPtr<IVideoFramesDecoder2> result(decoder);
    decoder->FFileInfo = FileInfo != nullptr ? ComPtr<IVideoFileInfo2>(FileInfo) : TVideoFileInfo::Create(FileName);
    const int32_t fileWidth = decoder->FFileInfo->GetWidth(), fileHeight = decoder->FFileInfo->GetHeight();
    if (fileWidth < 1 || fileHeight <= 0) {
      klLog::AddToEventLog(Format("TVideoFramesDecoder.Create: Ошибочные параметры файла: %s\r\nW:%d x H:%d",
                                  FileName.c_str(), fileWidth, fileHeight),
                           klLog::lkError);
      return nullptr;
    }
    decoder->TargetWidth = fileWidth;
    decoder->TargetHeight = fileHeight;
    if (Params != nullptr && (Params->FromSec < 0 || Params->ToSec < 0)) {
      klLog::AddToEventLog(Format("TVideoFramesDecoder.Create: Ошибочные параметры: FromSec:%d x ToSec:%d",
                                  Params->FromSec, Params->ToSec),
                           klLog::lkError);
      return nullptr;
    }
    std::string size, start, end, rate;
    if (Params != nullptr) {
      if (Params->Width > 0 || Params->Height >= 1) {
        decoder->TargetWidth = Params->Width;
        decoder->TargetHeight = Params->Height;
        if (Params->Width == 0) {
          decoder->TargetWidth = Even(fileWidth * (static_cast<double>(Params->Height) / fileHeight));
        } else if (Params->Height == 0) {
          decoder->TargetHeight = Even(fileHeight * (static_cast<double>(Params->Width) / fileWidth));
        }
        size = Format("-s %dx%d", decoder->TargetWidth, decoder->TargetHeight);
      }
      if (Params->FromSec > 0) start = Format("-ss %d", Params->FromSec);
      if (Params->ToSec > 0) end = Format("-to %d", Params->ToSec);
      if (Params->FPS > 0) rate = "-r:v " + RateText(Params->FPS, 4);
    }
    const std::string cmd =
        Format("\"%s\" %s -i \"%s\" %s %s %s -an -f image2pipe -pix_fmt bgr24 -vcodec rawvideo -",
               FFmpegExePath().c_str(), start.c_str(), FileName.c_str(), end.c_str(), size.c_str(), rate.c_str());
    decoder->FChild = klChildProcess::TChildProcess::Create(cmd);
    if (!decoder->FChild) return nullptr;
    // Only the pictures are read: ffmpeg's text would fill its pipe and stall it.
    decoder->FChild->ClosePipe(2);
    decoder->FChild->ClosePipe(0);
    // Top-down, as ffmpeg sends the rows.
    decoder->FBitmap = UDib::CreateDIBSectionEx(decoder->TargetWidth, -decoder->TargetHeight, 24, decoder->FBits);
    return result;
  } catch (...) {
    klLog::AddToEventLog("TVideoFramesDecoder.Create: " + ExceptionText(std::current_exception()), klLog::lkError);
    return nullptr;
  }
}

TVideoFramesDecoder::~TVideoFramesDecoder() {
  if (FBitmap != nullptr) DeleteObject(FBitmap);
  FChild.Reset();
}

bool STDMETHODCALLTYPE TVideoFramesDecoder::GetNextFrame(HBITMAP& Bitmap, void*& Bits) {
  const int64_t size = static_cast<int64_t>(TargetWidth) * TargetHeight * 3;
  if (!FChild || !FFileInfo || FBits == nullptr || size <= 0 || size > INT32_MAX || TargetWidth < 1) return false;
  bool ok = false;
  try {
    if (TargetWidth % 4 == 0) {
      // Rows of a multiple of 4 pixels need no padding: straight into the bitmap.
      ok = FChild->ReadFromChildStdout(FBits, static_cast<int32_t>(size), 5000);
    } else {
      FScratch.resize(static_cast<size_t>(size));
      ok = FChild->ReadFromChildStdout(FScratch.data(), static_cast<int32_t>(size), 5000);
      if (ok) {
        const size_t row = static_cast<size_t>(TargetWidth) * 3, stride = (row + 3) / 4 * 4;
        for (int32_t y = 0; y < TargetHeight; ++y) {
          std::memcpy(static_cast<uint8_t*>(FBits) + stride * y, FScratch.data() + row * y, row);
        }
      }
    }
  } catch (...) {
    klLog::AddToEventLog("TVideoFramesDecoder.GetNextFrame: " + ExceptionText(std::current_exception()),
                         klLog::lkError);
    ok = false;
  }
  if (!ok) {
    // The stream has ended (or ffmpeg failed): for good.
    FChild.Reset();
    return false;
  }
  Bitmap = FBitmap;
  Bits = FBits;
  return true;
}

// --- encoder ------------------------------------------------------------------------

TVideoFramesEncoder::TVideoFramesEncoder(const std::string& AFileName) {
  if (AFileName.empty()) throw klLog::EklException("TVideoFramesEncoder.Create: file name is empty");
  FileName = AFileName;
  BitsPerPixel = 24;
}

TVideoFramesEncoder::~TVideoFramesEncoder() { ClosePipe(); }

bool STDMETHODCALLTYPE TVideoFramesEncoder::SetSize(int32_t AWidth, int32_t AHeight) {
  if (AWidth < 1 || AHeight <= 0) {
    klLog::AddToEventLog(Format("TVideoFramesEncoder.SetSize: invalid params: %d, %d", AWidth, AHeight),
                         klLog::lkError);
    return false;
  }
  Width = AWidth;
  Height = AHeight;
  return true;
}

bool STDMETHODCALLTYPE TVideoFramesEncoder::SetFPS(float Value) {
  if (!(Value > 0)) {
    klLog::AddToEventLog("TVideoFramesEncoder.SetFPS: invalid fps " + FormatThousands(Value), klLog::lkError);
    return false;
  }
  FPS = Value;
  return true;
}

bool STDMETHODCALLTYPE TVideoFramesEncoder::SetBitrate(const std::string& Value) {
  for (char c : Value) {
    if (!((c >= '0' && c <= '9') || c == 'K' || c == 'M' || c == 'k')) {
      klLog::AddToEventLog(Format("TVideoFramesEncoder.SetBitrate: invalid value %s", Value.c_str()), klLog::lkError);
      return false;
    }
  }
  Bitrate = Value;
  return true;
}

bool STDMETHODCALLTYPE TVideoFramesEncoder::SetQuality(int32_t Value) {
  if (Value < 0) {
    klLog::AddToEventLog(Format("TVideoFramesEncoder.SetQuality: invalid value %d", Value), klLog::lkError);
    return false;
  }
  Quality = Value;
  return true;
}

bool STDMETHODCALLTYPE TVideoFramesEncoder::SetBitsPerPixel(int32_t Value) {
  if (Value != 24 && Value != 32) {
    klLog::AddToEventLog(Format("TVideoFramesEncoder.SetBitsPerPixel: Invalid value %d", Value), klLog::lkError);
    return false;
  }
  BitsPerPixel = Value;
  return true;
}

bool STDMETHODCALLTYPE TVideoFramesEncoder::EncodeFrameBitmap(HBITMAP Frame) {
  if (Frame != nullptr) throw klLog::EklException("TVideoFramesEncoder.EncodeFrame( AFrame: HBITMAP ) not released yet");
  klLog::AddToEventLog("TVideoFramesEncoder.EncodeFrame: AFrame = 0", klLog::lkError);
  return false;
}

bool STDMETHODCALLTYPE TVideoFramesEncoder::EncodeFrameBits(const void* FrameBits) {
  if (FrameBits == nullptr) {
    klLog::AddToEventLog("TVideoFramesEncoder.EncodeFrame: AFrameBits = nil", klLog::lkError);
    return false;
  }
  const int64_t size = static_cast<int64_t>(Width) * Height * BitsPerPixel / 8;
  if (!WriteToPipe(FrameBits, size > INT32_MAX ? -1 : static_cast<int32_t>(size))) {
    klLog::AddToEventLog("TVideoFramesEncoder.EncodeFrame: WriteToPipe failed", klLog::lkError);
    return false;
  }
  return true;
}

bool TVideoFramesEncoder::PrepareWriting() {
  // A pipe left from a start that failed is not reused.
  ClosePipe();
  const std::string base = "\\\\.\\pipe\\FramesEncoder";
  PipeName = base;
  HANDLE h = CreateNamedPipeA(PipeName.c_str(), PIPE_ACCESS_DUPLEX, 0, 1, 262144, 262144, 0, nullptr);
  if (h == INVALID_HANDLE_VALUE) {
    klLog::AddToEventLog(Format("TVideoFramesEncoder.PrepareWriting: CreateNamedPipe \"%s\" failed ", PipeName.c_str()),
                         klLog::lkWarning);
    std::mt19937 random(static_cast<uint32_t>(std::chrono::steady_clock::now().time_since_epoch().count()));
    std::uniform_int_distribution<int32_t> number(0, 999999);
    for (int i = 0; i < 1001 && h == INVALID_HANDLE_VALUE; ++i) {
      PipeName = base + IntToStr(number(random));
      // Only these retries ask for overlapped mode; every write and the connect still
      // go without an OVERLAPPED record.
      h = CreateNamedPipeA(PipeName.c_str(), PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED, 0, 1, 262144, 262144, 0,
                           nullptr);
    }
    if (h == INVALID_HANDLE_VALUE) {
      klLog::AddToEventLog("TVideoFramesEncoder.PrepareWriting: CreateNamedPipe failed", klLog::lkError);
      return false;
    }
  }
  PipeHandle = h;
  const std::string rate = RateText(FPS, 2);
  const std::string bitrate = Bitrate.empty() ? std::string() : "-b:v " + Bitrate;
  const char* quality = Quality == 1 ? "-q:v 10" : Quality == 2 ? "-q:v 4" : Quality == 3 ? "-q:v 0" : "";
  const std::string pixels = Format("bgr%d", BitsPerPixel);
  const std::string cmd = Format(
      "\"%s\" -y -f rawvideo -pix_fmt %s -vcodec rawvideo -s %dx%d -r %s -i \"%s\" %s %s \"%s\"",
      FFmpegExePath().c_str(), pixels.c_str(), Width, Height, rate.c_str(), PipeName.c_str(), bitrate.c_str(), quality,
      FileName.c_str());
  if (WinExec(cmd.c_str(), SW_HIDE) < 32) {
    klLog::AddToEventLog("TVideoFramesEncoder.PrepareWriting: winexec failed", klLog::lkError);
    return false;
  }
  Sleep(100);
  // Returns once ffmpeg has opened its end.
  ConnectNamedPipe(PipeHandle, nullptr);
  Prepared = true;
  return true;
}

bool TVideoFramesEncoder::WriteToPipe(const void* Buffer, int32_t Size) {
  if (Buffer == nullptr || Size < 1) {
    klLog::AddToEventLog(Format("TVideoFramesEncoder.WriteToPipe: invalid params %d, %d",
                                static_cast<int>(reinterpret_cast<intptr_t>(Buffer)), Size),
                         klLog::lkError);
    return false;
  }
  if (!Prepared && !PrepareWriting()) {
    klLog::AddToEventLog("TVideoFramesEncoder.WriteToPipe: PrepareWriting failed", klLog::lkError);
    return false;
  }
  DWORD written = 0;
  if (!WriteFile(PipeHandle, Buffer, static_cast<DWORD>(Size), &written, nullptr)) {
    klLog::AddToEventLog("TVideoFramesEncoder.WriteToPipe: WriteFile failed - " + klLog::GetLastErrorStr(),
                         klLog::lkError);
    return false;
  }
  if (written != static_cast<DWORD>(Size)) {
    klLog::AddToEventLog("TVideoFramesEncoder.WriteToPipe: Written <> Size", klLog::lkError);
    return false;
  }
  return true;
}

void TVideoFramesEncoder::ClosePipe() {
  if (PipeHandle == nullptr) return;
  CloseHandle(PipeHandle);
  PipeHandle = nullptr;
  Prepared = false;
}

}  // namespace kl::UFfmpeg
