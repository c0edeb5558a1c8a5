// Video sources fed by ffmpeg.exe: raw pictures arriving through a named pipe, one
// picture per frame, placed into a bitmap that the frames player draws.
#pragma once

#include <windows.h>

#include <cstdint>
#include <vector>

#include "channels/UPipe.h"
#include "playback/klMediaPlayer.h"
#include "rtl/ComBase.h"

namespace kl::UVideoStreams {

using klMediaPlayer::IVideoStream;
using klMediaPlayer::TVideoInfo;

// Takes packed rows (no padding, first row on top) of 24 or 32 bits a pixel out of a
// named pipe, one whole picture per GetFrame, into a top-down DIB section. No lock of
// its own: the pipe does the locking against its reader thread.
class TPipeVideoStream : public TInterfacedObject<IVideoStream> {
 public:
  // None (and nothing logged) for a missing pipe, FPS not above 0 (NaN included), a
  // width or height below 1, or a bit count other than 24 and 32. Lets the pipe's reader
  // thread queue up to three pictures ahead (never lowers its level).
  static ComPtr<IVideoStream> Create(const TVideoInfo& Info, UPipe::INamedPipe2* Pipe);
  ~TPipeVideoStream() override;

  // The start position plus the frames delivered so far at the described rate.
  int32_t STDMETHODCALLTYPE GetPosition() override;
  // Only the start position: neither the pipe nor the frame count is touched.
  void STDMETHODCALLTYPE SetPosition(int32_t Value) override;
  int32_t STDMETHODCALLTYPE GetLength() override { return FLength; }
  void SetLength(int32_t Value) { FLength = Value; }
  TVideoInfo STDMETHODCALLTYPE GetVideoInfo() override { return FInfo; }
  // The bitmap's pixels: stride (rounded up to 4 bytes) x height bytes. Reads nothing.
  int32_t STDMETHODCALLTYPE GetFrameData(void*& Data) override;
  // Waits up to 2 s for a whole picture; false (logged) leaves count and bitmap as
  // they were, so a later call may still succeed.
  bool STDMETHODCALLTYPE GetFrame(uint32_t& Frame) override;

  int32_t GetFrameCount() const { return FFrameCount; }

 private:
  TPipeVideoStream(const TVideoInfo& Info, UPipe::INamedPipe2* Pipe);
  bool FillFrame();
  int32_t Width() const { return FInfo.Header.biWidth; }
  int32_t Height() const { return FInfo.Header.biHeight; }
  int32_t BitCount() const { return FInfo.Header.biBitCount; }

  TVideoInfo FInfo;
  ComPtr<UPipe::INamedPipe2> FPipe;
  HBITMAP FBM = nullptr;
  void* FBits = nullptr;
  int32_t FLength = 0;
  int32_t FPosition = 0;
  int32_t FFrameCount = 0;
  // Rows whose length is not a multiple of 4 arrive here before going into the stride.
  std::vector<uint8_t> FScratch;
};

}  // namespace kl::UVideoStreams
