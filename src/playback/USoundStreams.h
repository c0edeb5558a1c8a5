// Sound sources for the players: PCM pulled block by block and sought by milliseconds.
#pragma once

#include <windows.h>
#include <mmsystem.h>
#include <mmreg.h>

#include <cstdint>
#include <memory>
#include <string>

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

}  // namespace kl::USoundStreams
