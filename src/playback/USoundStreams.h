// Sound sources for the players: PCM pulled block by block and sought by milliseconds.
#pragma once

#include <windows.h>
#include <mmsystem.h>
#include <mmreg.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "channels/UPipe.h"
#include "conversion/UAudioConverter.h"
#include "formats/UMp3.h"
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

// Decoded PCM waiting to be read: what the MP3 decoder writes into and the stream reads
// from. Unbounded (a ring of 128 KiB blocks); the stream decodes only what a read needs.
class TMp3Buffer : public TInterfacedObject<UPipe::IPipe, UAudioConverter::IWritable> {
 public:
  TMp3Buffer();

  // Serves both sides: the decoder's writes and the pipe's.
  bool STDMETHODCALLTYPE Write(const void* Buffer, int32_t Count) override;
  int32_t STDMETHODCALLTYPE Read(void* Buffer, int32_t Count) override;
  void STDMETHODCALLTYPE Clear() override;
  int32_t STDMETHODCALLTYPE GetSizeToRead() override;
  void STDMETHODCALLTYPE Lock() override;
  void STDMETHODCALLTYPE Unlock() override;
  int32_t STDMETHODCALLTYPE ReadFromStream(TStream* Stream, int32_t Count) override;
  int32_t STDMETHODCALLTYPE ReadFromFile(const std::string& FileName, int32_t Count, int64_t Position) override;
  int32_t STDMETHODCALLTYPE WriteToStream(TStream* Stream, int32_t Count) override;
  int32_t STDMETHODCALLTYPE WriteToFile(const std::string& FileName, int32_t Count, bool Append) override;
  int32_t STDMETHODCALLTYPE ReadFromPipe(UPipe::IPipe* Pipe, int32_t Count) override;
  int32_t STDMETHODCALLTYPE WriteToPipe(UPipe::IPipe* Pipe, int32_t Count) override;

  bool STDMETHODCALLTYPE Finish() override;
  bool STDMETHODCALLTYPE GetFinished() override;

 private:
  ComPtr<UPipe::IPipe> FPipe;
  bool FFinished = false;
};

// MP3 data inside a seekable stream, decoded to 16-bit PCM on demand. The whole source
// is scanned once at creation for a frame index, so a seek is one lookup. The position
// is the last seek target, rounded down to a frame boundary: reading does not move it.
class TMp3StreamSoundStream : public TInterfacedObject<ISoundStream> {
 public:
  // Stream is not owned and must outlive this object; it is expected at the place where
  // the MP3 data (with any leading tag) begins. Start counts from the first frame header
  // found there; Len = 0 takes the stream's size. A Len that is still 0 is logged and
  // gives a stream that delivers nothing.
  TMp3StreamSoundStream(TStream* Stream, int64_t Start, int64_t Len);

  int32_t STDMETHODCALLTYPE GetPosition() override;
  // Lands on the frame that holds Ms (the last indexed frame when Ms is past the end)
  // and drops PCM decoded but not read. The stream is sought to the frame's index
  // entry taken as an absolute offset: that entry counts from the first frame, so the
  // two agree only when the data starts the stream.
  void STDMETHODCALLTYPE SetPosition(int32_t Ms) override;
  int32_t STDMETHODCALLTYPE GetLength() override;
  // Decodes just enough 4 KiB source blocks to fill the request. Once the source bytes
  // are used up it returns 0, even if the decoder left PCM in the buffer.
  int32_t STDMETHODCALLTYPE GetWavData(void* Buffer, int32_t Size) override;
  WAVEFORMATEX STDMETHODCALLTYPE GetWaveFormat() override;

  int32_t FramesToMilliseconds(int32_t Frames) const;
  const UMp3::TMP3Info& Mp3Info() const { return FMp3Info; }
  // Byte offsets of the indexed frames, from the first frame header.
  const std::vector<int64_t>& Frames() const { return FFrames; }

 private:
  void BuildFrameIndex();

  TStream* FStream;
  int64_t FStart;
  int64_t FLen;
  ComPtr<UAudioConverter::IAudioConverter> FConverter;
  ComPtr<UPipe::IPipe> FBuffer;
  WAVEFORMATEX FWaveFormat{};
  UMp3::TMP3Info FMp3Info{};
  std::vector<int64_t> FFrames;
  int32_t FPosition = 0;
};

// Byte offsets of the MPEG audio frames of [Start, Start + Len) behind the first header
// Info was read from, counted from that header; empty when Info has no frame size. A
// short run of foreign bytes between frames is stepped over; the very last frame, with
// nothing behind it, is not taken. Leaves the stream anywhere.
std::vector<int64_t> IndexMp3Frames(TStream* Stream, const UMp3::TMP3Info& Info, int64_t Start, int64_t Len);

// An MP3 file on disk: owns the file and the stream that decodes it.
class TMp3FileSoundStream : public TInterfacedObject<ISoundStream> {
 public:
  // A file that cannot be opened raises the file stream's EFOpenError.
  explicit TMp3FileSoundStream(const std::string& FileName);
  ~TMp3FileSoundStream() override;

  int32_t STDMETHODCALLTYPE GetPosition() override;
  void STDMETHODCALLTYPE SetPosition(int32_t Ms) override;
  int32_t STDMETHODCALLTYPE GetLength() override;
  int32_t STDMETHODCALLTYPE GetWavData(void* Buffer, int32_t Size) override;
  WAVEFORMATEX STDMETHODCALLTYPE GetWaveFormat() override;

  TMp3StreamSoundStream* Mp3Stream() const { return FMp3Stream.Get(); }

 private:
  std::unique_ptr<TFileStream> FFileStream;
  ComPtr<TMp3StreamSoundStream> FMp3Stream;
};

// Passes another stream on and says it is finished once a read of it gave nothing, so
// that a player reaches its end with a file stream (which alone never says so). A seek
// clears the flag.
class TFinishingSoundStream : public TInterfacedObject<ISoundStream, IFinishable> {
 public:
  explicit TFinishingSoundStream(ISoundStream* Inner) : FInner(Inner) {}

  int32_t STDMETHODCALLTYPE GetPosition() override { return FInner->GetPosition(); }
  void STDMETHODCALLTYPE SetPosition(int32_t Ms) override;
  int32_t STDMETHODCALLTYPE GetLength() override { return FInner->GetLength(); }
  int32_t STDMETHODCALLTYPE GetWavData(void* Buffer, int32_t Size) override;
  WAVEFORMATEX STDMETHODCALLTYPE GetWaveFormat() override { return FInner->GetWaveFormat(); }
  bool STDMETHODCALLTYPE GetFinished() override { return FEnded.load(); }

 private:
  ComPtr<ISoundStream> FInner;
  // Set on the player's buffer thread, read on its window thread.
  std::atomic<bool> FEnded{false};
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
