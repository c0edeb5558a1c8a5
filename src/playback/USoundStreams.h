// Sound sources for the players: PCM pulled block by block and sought by milliseconds.
#pragma once

#include <windows.h>
#include <mmsystem.h>
#include <mmreg.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "channels/UPipe.h"
#include "formats/UWAV.h"
#include "playback/klMediaPlayer.h"
#include "rtl/ComBase.h"

namespace kl::USoundStreams {

using klMediaPlayer::IFinishable;
using klMediaPlayer::IMediaStream;
using klMediaPlayer::ISoundStream;

// The sample data of a RIFF/WAV file on disk. The position is the last seek target:
// reading does not move it.
class TWavFileSoundStream : public TInterfacedObject<ISoundStream> {
 public:
  // A missing file, or one the WAV reader refuses, is logged and raises EAbort.
  explicit TWavFileSoundStream(const std::string& FileName);

  int32_t STDMETHODCALLTYPE GetPosition() override;
  // The reported position is clamped to the length; the byte offset comes from Ms
  // itself, so a negative or too large Ms reads nothing.
  void STDMETHODCALLTYPE SetPosition(int32_t Ms) override;
  int32_t STDMETHODCALLTYPE GetLength() override;
  int32_t STDMETHODCALLTYPE GetWavData(void* Buffer, int32_t Size) override;
  WAVEFORMATEX STDMETHODCALLTYPE GetWaveFormat() override;

 private:
  std::unique_ptr<UWAV::TWAVFile> FWavFile;
  // Next byte to read, from the start of the data chunk. 64-bit: a far seek must not wrap.
  int64_t FDataPos = 0;
  int32_t FPosition = 0;
};

// Raw PCM arriving through a named pipe, as a decoder in a child process writes it. Not
// seekable and of unknown length; it ends when the writer closes its end of the pipe.
class TWavPipeSoundStream : public TInterfacedObject<IFinishable, ISoundStream> {
 public:
  // Takes over the pipe's disconnect event; the stream gives it back when it goes.
  TWavPipeSoundStream(const WAVEFORMATEX& Format, UPipe::INamedPipe2* Pipe);
  ~TWavPipeSoundStream() override;

  int32_t STDMETHODCALLTYPE GetPosition() override;
  // Only remembered (never below 0): the pipe delivers what it delivers.
  void STDMETHODCALLTYPE SetPosition(int32_t Ms) override;
  // Always 0: the length of a pipe is not known in advance.
  int32_t STDMETHODCALLTYPE GetLength() override;
  // What has arrived so far, without waiting; 0 when nothing has (see GetFinished).
  int32_t STDMETHODCALLTYPE GetWavData(void* Buffer, int32_t Size) override;
  WAVEFORMATEX STDMETHODCALLTYPE GetWaveFormat() override;
  // True once the writer has gone and nothing it sent is left unread: a 0 from
  // GetWavData then means the end.
  bool STDMETHODCALLTYPE GetFinished() override;
  // The pipe's disconnect event (runs on the pipe's reader thread).
  void OnDisconnect(void* Sender);

 private:
  ComPtr<UPipe::INamedPipe2> FPipe;
  WAVEFORMATEX FWaveFormat{};
  int32_t FPosition = 0;
  int32_t FLength = 0;
  // Set on the pipe's reader thread, read on the player's threads; shared with the
  // pipe's disconnect handler, which may outlive the stream.
  std::shared_ptr<std::atomic<bool>> FFinished;
};

}  // namespace kl::USoundStreams
