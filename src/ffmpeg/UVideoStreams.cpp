#include "ffmpeg/UVideoStreams.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <new>

#include "diagnostics/UDib.h"
#include "diagnostics/klLog.h"
#include "rtl/SysUtils.h"

namespace kl::UVideoStreams {

namespace {
int32_t Stride(int32_t Width, int32_t BitCount) {
  return static_cast<int32_t>((static_cast<int64_t>(Width) * BitCount / 8 + 3) / 4 * 4);
}

// ffmpeg writes into the named pipe in small blocking pieces, so whenever the reader
// thread stops taking data ffmpeg stops too. Pictures queued ahead keep it busy while
// the player waits for a frame's due time or takes one that came late; a few are
// enough, and the reader stops there, which bounds the queue.
constexpr int64_t kFramesAhead = 3;
}  // namespace

TPipeVideoStream::TPipeVideoStream(const TVideoInfo& Info, UPipe::INamedPipe2* Pipe) : FInfo(Info), FPipe(Pipe) {}

TPipeVideoStream::~TPipeVideoStream() {
  if (FBM != nullptr) DeleteObject(FBM);
}

ComPtr<IVideoStream> TPipeVideoStream::Create(const TVideoInfo& Info, UPipe::INamedPipe2* Pipe) {
  const BITMAPINFOHEADER& h = Info.Header;
  // "!(FPS > 0)" also refuses NaN.
  if (Pipe == nullptr || !(Info.FPS > 0) || h.biWidth < 1 || h.biHeight < 1 ||
      (h.biBitCount != 24 && h.biBitCount != 32)) {
    return nullptr;
  }
  auto* s = new (std::nothrow) TPipeVideoStream(Info, Pipe);
  if (s == nullptr) return nullptr;
  ComPtr<IVideoStream> result(s);
  try {
    // A negative height makes the rows top-down, as ffmpeg sends them.
    s->FBM = UDib::CreateDIBSectionEx(h.biWidth, -h.biHeight, h.biBitCount, s->FBits);
  } catch (const std::exception&) {
    return nullptr;
  }
  if (s->FBM == nullptr) return nullptr;
  const int64_t ahead = kFramesAhead * h.biWidth * (h.biBitCount / 8) * h.biHeight;
  Pipe->SetBufferLevel(static_cast<int32_t>(std::max<int64_t>(Pipe->GetBufferLevel(), std::min<int64_t>(ahead, INT32_MAX))));
  return result;
}

int32_t STDMETHODCALLTYPE TPipeVideoStream::GetPosition() {
  if (FInfo.FPS == 0) return FPosition;
  return FPosition + static_cast<int32_t>(std::nearbyint(FFrameCount / static_cast<double>(FInfo.FPS) * 1000.0));
}

void STDMETHODCALLTYPE TPipeVideoStream::SetPosition(int32_t Value) { FPosition = Value; }

int32_t STDMETHODCALLTYPE TPipeVideoStream::GetFrameData(void*& Data) {
  Data = FBits;
  if (FBits == nullptr || (BitCount() != 24 && BitCount() != 32)) return 0;
  return Stride(Width(), BitCount()) * Height();
}

bool STDMETHODCALLTYPE TPipeVideoStream::GetFrame(uint32_t& Frame) {
  if (!FillFrame()) {
    klLog::AddToEventLog("TPipeVideoStream.GetFrame: FillFrame failed", klLog::lkWarning);
    return false;
  }
  // The interface carries the handle as a 32-bit value: GDI handles fit in 32 bits.
  Frame = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(FBM));
  return true;
}

bool TPipeVideoStream::FillFrame() {
  if (FBits == nullptr || FBM == nullptr || !FPipe) {
    klLog::AddToEventLog("TPipeVideoStream.FillFrame: (FBits = nil) or (FBM = 0) or (FPipe = nil)", klLog::lkWarning);
    return false;
  }
  const int64_t bpp = BitCount() / 8;
  const int64_t row = Width() * bpp;
  const int64_t size = row * Height();
  if (size <= 0 || size > INT32_MAX) {
    klLog::AddToEventLog("TPipeVideoStream.FillFrame: Size <= 0", klLog::lkWarning);
    return false;
  }
  const bool direct = row % 4 == 0;
  uint8_t* target = static_cast<uint8_t*>(FBits);
  if (!direct) {
    FScratch.resize(static_cast<size_t>(size));
    target = FScratch.data();
  }
  if (!FPipe->WaitForData(static_cast<int32_t>(size), 2000)) {
    klLog::AddToEventLog("TPipeVideoStream.FillFrame: FPipe.WaitForData failed", klLog::lkWarning);
    return false;
  }
  // The wait saw the whole picture queued, and only this thread takes from the pipe.
  FPipe->Read(target, static_cast<int32_t>(size));
  if (!direct) {
    const int32_t stride = Stride(Width(), BitCount());
    for (int32_t y = 0; y < Height(); ++y) {
      std::memcpy(static_cast<uint8_t*>(FBits) + static_cast<size_t>(y) * stride,
                  FScratch.data() + static_cast<size_t>(y) * row, static_cast<size_t>(row));
    }
  }
  ++FFrameCount;
  klLog::AddToEventLog(Format("FillFrame: %d", FFrameCount), klLog::lkInformation);
  return true;
}

}  // namespace kl::UVideoStreams
