// The earlier generation of the audio player, kept for applications built against it:
// the same wave-out playing as klMediaPlayer's player, with tempo changed by the
// SoundTouch library, MP3 decoded by an ACM stream of its own (with a search for the LAME
// driver when the system's decoder refuses), and sources derived from TSoundStream.
#pragma once

#include <windows.h>
#include <mmsystem.h>
#include <mmreg.h>
#include <msacm.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "channels/UMemoryBuffer.h"
#include "channels/UPipe.h"
#include "formats/UMp3.h"
#include "playback/klMediaPlayer.h"
#include "rtl/Classes.h"
#include "tempo/USoundTouchDLL.h"

namespace kl::UklMediaPlayer {

using klMediaPlayer::MAX_SPEED;
using klMediaPlayer::MAX_TEMP;
using klMediaPlayer::MAX_VOLUME;
using klMediaPlayer::TNotifyEvent;
using klMediaPlayer::TSendingWavBlockEvent;

// The same values as the other generation's modes; a type of its own, so that the two
// PlayerModeToStr never compete for a call.
enum TPlayerMode : uint8_t { pmNotReady = 0, pmStopped = 1, pmPlaying = 2, pmPaused = 3, pmFinished = 4 };

// "NotReady", "Stopped", "Playing", "Paused", "Finished"; "Unknown" for anything else.
std::string PlayerModeToStr(TPlayerMode Mode);

// --- sound streams --------------------------------------------------------------------

// A source of PCM in one format. Positions are milliseconds; the position is the last
// seek target (reading does not move it), as with the other generation's sources.
class TSoundStream {
 public:
  explicit TSoundStream(const WAVEFORMATEX& Format);
  virtual ~TSoundStream() = default;
  TSoundStream(const TSoundStream&) = delete;
  TSoundStream& operator=(const TSoundStream&) = delete;

  const WAVEFORMATEX& GetWaveFormat() const { return FWaveFormat; }
  int32_t GetBlockAlign() const { return FWaveFormat.nBlockAlign; }
  // Copies up to Size bytes; 0 at the end (or when nothing can be delivered).
  virtual int32_t GetWavData(void* Buffer, int32_t Size) = 0;
  virtual int32_t GetPosition() { return FPosition; }
  virtual void SetPosition(int32_t Ms) = 0;
  // All the PCM the source holds, in bytes (-1: endless).
  virtual int64_t GetTotalWavBytes() = 0;
  // The PCM byte the last seek landed on.
  virtual int64_t GetOffsetBytePosition() { return MillisecondsToBytes(FPosition); }
  // Prepares more data ahead of GetWavData; false when none can come.
  virtual bool FillBuffer() { return true; }
  // GetTotalWavBytes in milliseconds (0 for an endless source).
  int32_t GetLength();

 protected:
  void AddToLog(const std::string& Msg, int8_t Kind = 1);
  // Whole sample frames, rounded to nearest.
  int64_t MillisecondsToBytes(int64_t Ms) const;
  void SetWaveFormat(const WAVEFORMATEX& Format) { FWaveFormat = Format; }

  int32_t FPosition = 0;

 private:
  WAVEFORMATEX FWaveFormat{};
};

// The sample data of a WAV file.
class TWavSoundStream : public TSoundStream {
 public:
  // A missing or unreadable file is logged and raises EAbort.
  explicit TWavSoundStream(const std::string& FileName);
  int32_t GetWavData(void* Buffer, int32_t Size) override;
  void SetPosition(int32_t Ms) override;
  int64_t GetTotalWavBytes() override;

 private:
  explicit TWavSoundStream(klMediaPlayer::ISoundStream* File);
  ComPtr<klMediaPlayer::ISoundStream> FFile;
};

// Silence in a given format: LengthMs long, or endless when LengthMs is below 0.
class TSilenceSoundStream : public TSoundStream {
 public:
  TSilenceSoundStream(const WAVEFORMATEX& Format, int32_t LengthMs);
  int32_t GetWavData(void* Buffer, int32_t Size) override;
  void SetPosition(int32_t Ms) override;
  int64_t GetTotalWavBytes() override;

 private:
  int64_t FTotal;
  int64_t FDataPos = 0;
};

// MP3 data in [Start, Start + Len) of a seekable stream (not owned; it must outlive this
// object and belongs to the read-ahead while it lives), decoded to 16-bit PCM by an ACM
// stream of its own. Length and seeking go by the header's bit rate.
class TMp3SoundStream : public TSoundStream {
 public:
  TMp3SoundStream(TStream* Stream, int64_t Start, int64_t Len);
  ~TMp3SoundStream() override;

  // False when the stream was refused or no decoder could be opened.
  bool GetValid() const { return FAcmStream != nullptr; }
  int32_t GetWavData(void* Buffer, int32_t Size) override;
  void SetPosition(int32_t Ms) override;
  int64_t GetTotalWavBytes() override;
  // Decodes one input block into the PCM pipe.
  bool FillBuffer() override;
  const UMp3::TMP3Info& Mp3Info() const { return FMp3Info; }

  // Opens the decoder for the MP3 format, trying the ACM's choice, a plain open, a
  // suggested PCM format and the LAME driver in turn; the MP3 format's fields are
  // overridable for the caller that knows better.
  bool CreateAcmConverter();
  void DestroyAcmConverter();
  MPEGLAYER3WAVEFORMAT& Mp3Format() { return FMp3Format; }
  // Makes the stream read from this object's own: it goes when the object goes.
  void OwnStream(std::unique_ptr<TStream> Stream) { FOwnedStream = std::move(Stream); }

 protected:
  // Restarts decoding at the MP3 byte Offset of the data.
  void SeekData(int64_t Offset, int32_t Ms);

  TStream* FStream = nullptr;
  int64_t FStart = 0;  // of the first frame header in the stream
  int64_t FLen = 0;    // of the MP3 data from there
  UMp3::TMP3Info FMp3Info{};
  // Declared before the read-ahead, whose thread reads it, so that it goes after it.
  std::unique_ptr<TStream> FOwnedStream;

 private:
  MPEGLAYER3WAVEFORMAT FMp3Format{};
  std::unique_ptr<UMemoryBuffer::TMemoryBuffer> FMemoryBuffer;
  std::unique_ptr<UMemoryBuffer::TPipe> FPipe;
  HACMSTREAM FAcmStream = nullptr;
  HACMDRIVER FAcmDriver = nullptr;
  ACMSTREAMHEADER FAcmHeader{};
  bool FPrepared = false;
  bool FFirstConvert = true;
  bool FEnded = false;
  std::vector<uint8_t> FMp3Buf;
  std::vector<uint8_t> FWavBuf;
  uint32_t FCarry = 0;  // MP3 bytes the decoder left at the front of FMp3Buf
};

// TMp3SoundStream with a frame index built at creation: the length counts the frames
// and a seek lands on the frame that holds the target.
class TMp3SoundStream2 : public TMp3SoundStream {
 public:
  TMp3SoundStream2(TStream* Stream, int64_t Start, int64_t Len);
  void SetPosition(int32_t Ms) override;
  int64_t GetTotalWavBytes() override;
  int32_t GetFrameCount() const { return static_cast<int32_t>(FFrames.size()); }

 private:
  std::vector<int64_t> FFrames;
};

// --- player ---------------------------------------------------------------------------

// Plays a TSoundStream the way klMediaPlayer's player plays its sources; speed goes
// through SoundTouch. Call the public operations from one thread; the events come on the
// player's threads.
class TklMediaPlayer : protected klMediaPlayer::TWaveOutPlayer {
 public:
  TklMediaPlayer();
  ~TklMediaPlayer() override;

  // By the name's ending: ".mp3" a TMp3SoundStream over the file, ".wav" a
  // TWavSoundStream. False (logged) for a missing file or one that does not open.
  bool OpenFile(const std::string& FileName);
  // MP3 data in [Start, Start + Len) of Stream, which must outlive the player's use of it.
  bool OpenMp3Stream(TStream* Stream, int64_t Start, int64_t Len);
  bool OpenMp3Stream2(TStream* Stream, int64_t Start, int64_t Len);
  // Takes the stream over; null closes the current one.
  bool OpenSoundStream(std::unique_ptr<TSoundStream> Stream);
  TSoundStream* GetSoundStream() const { return FSoundStream.get(); }

  using TWaveOutPlayer::BytesToMilliseconds;
  using TWaveOutPlayer::GetErrorMessage;
  using TWaveOutPlayer::GetLength;
  using TWaveOutPlayer::GetOnFinish;
  using TWaveOutPlayer::GetOnSendingWavBlock;
  using TWaveOutPlayer::GetPosition;
  using TWaveOutPlayer::GetSpeed;
  using TWaveOutPlayer::GetVolume;
  using TWaveOutPlayer::Pause;
  using TWaveOutPlayer::Play;
  using TWaveOutPlayer::SetCallback;
  using TWaveOutPlayer::SetOnFinish;
  using TWaveOutPlayer::SetOnSendingWavBlock;
  using TWaveOutPlayer::SetPosition;
  using TWaveOutPlayer::SetSpeed;
  using TWaveOutPlayer::SetVolume;
  using TWaveOutPlayer::Stop;
  // Closes the device and lets the stream go (and with it a stream it owns).
  void Close();
  TPlayerMode GetMode() const { return static_cast<TPlayerMode>(TWaveOutPlayer::GetMode()); }
  // Bytes per block handed to the device.
  int32_t GetBlockSize() const { return GetBufferSize(); }
  USoundTouchDLL::TSoundTouch* GetSoundTouch() const { return FSoundTouch.get(); }

  // Pushes the source's channels, its sample rate and the speed (as tempo) into
  // SoundTouch; a step that raises is logged and the next one tried.
  void InitSoundTouch();
  // Tops the tempo-corrected pipe up to one block through SoundTouch.
  void FillTempCorrectedPipe();

 protected:
  int32_t ReadBlock(void* Data, int32_t Size, const WAVEFORMATEX& Format) override;
  void InitTempo(float Tempo) override;

 private:
  bool OpenMp3(std::unique_ptr<TMp3SoundStream> Stream, const char* Name);

  std::unique_ptr<USoundTouchDLL::TSoundTouch> FSoundTouch;
  std::shared_ptr<TSoundStream> FSoundStream;
  ComPtr<UPipe::IPipe> FTempCorrectedPipe;
};

}  // namespace kl::UklMediaPlayer
