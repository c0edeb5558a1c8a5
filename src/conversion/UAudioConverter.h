// Audio conversion: a chain of converters that each write into the next, the last one
// into a sink (a file writer or any other IWritable). TAudioConverter builds the chain
// from its input and output formats; the elementary stages are TFloatToPcmConverter
// and TAcmConverter (a stream of the platform's audio compression manager). Every
// converter and writer records its life in the unit's own log, "AudioConverter.log"
// beside the host executable.
//
// Wave-format blocks handed out by the Create* helpers come from std::malloc; the
// caller releases them with std::free. Objects keep their own copies of any format
// they are given.
#pragma once

#include <windows.h>
#include <mmsystem.h>
#include <mmreg.h>
#include <msacm.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "channels/UMemoryBuffer.h"
#include "formats/UWAV.h"
#include "rtl/Classes.h"
#include "rtl/ComBase.h"

namespace kl::UAudioConverter {

struct IWritable;
struct IAudioConverter;

}  // namespace kl::UAudioConverter

KL_DECLARE_IID(kl::UAudioConverter::IWritable, "D1781AC3-2DA3-4B08-81CA-D6C9CB9022F3", 0xD1781AC3, 0x2DA3, 0x4B08,
               0x81, 0xCA, 0xD6, 0xC9, 0xCB, 0x90, 0x22, 0xF3)
KL_DECLARE_IID(kl::UAudioConverter::IAudioConverter, "3B71AABA-E48F-45FB-A0B0-AC8A3223FE96", 0x3B71AABA, 0xE48F,
               0x45FB, 0xA0, 0xB0, 0xAC, 0x8A, 0x32, 0x23, 0xFE, 0x96)

namespace kl::UAudioConverter {

// Every data sink of the chain. Not the child process's interface of the same name.
struct IWritable : public IUnknown {
  virtual bool STDMETHODCALLTYPE Write(const void* Data, int32_t DataSize) = 0;
  // No more data follows.
  virtual bool STDMETHODCALLTYPE Finish() = 0;
  virtual bool STDMETHODCALLTYPE GetFinished() = 0;
};

// What the chain needs of its members.
struct IAudioConverter : public IUnknown {
  virtual bool STDMETHODCALLTYPE SetInFormat(const WAVEFORMATEX* Format) = 0;
  virtual bool STDMETHODCALLTYPE SetOutFormat(const WAVEFORMATEX* Format) = 0;
  virtual bool STDMETHODCALLTYPE SetOutStream(IWritable* Next) = 0;
  virtual bool STDMETHODCALLTYPE Write(const void* Data, int32_t DataSize) = 0;
};

// --- the unit log -------------------------------------------------------------------
// Appends "<yyyy.mm.dd hh:nn:ss.zzz>\r\n<Msg>\r\n\r\n" under the unit's lock. Empty
// messages and messages while no file could be opened are dropped.
void AddToConverterLog(const std::string& Msg);
// The file the unit writes to (empty when none could be opened).
std::string GetConverterLogFileName();

// --- wave formats -------------------------------------------------------------------
// 0 for a null format, else 18 + cbSize.
using UWAV::GetWaveFormatSize;
void InitPcmWaveFormat(uint32_t SamplesPerSec, uint16_t Channels, uint16_t BitsPerSample, WAVEFORMATEX* Format);
void CreatePcmWaveFormat(uint32_t SamplesPerSec, uint16_t Channels, uint16_t BitsPerSample,
                         WAVEFORMATEX*& Format);
// BitRate below 1000 is taken as kbit/s. Format points to at least 30 bytes.
void InitMp3WaveFormat(uint32_t SamplesPerSec, uint16_t Channels, int32_t BitRate, WAVEFORMATEX* Format);
void CreateMp3WaveFormat(uint32_t SamplesPerSec, uint16_t Channels, int32_t BitRate, WAVEFORMATEX*& Format);
int32_t GetPreferedSamplePerSec(int32_t BitRate);
// Moves Format's channels (1 or 2), byte rate and sample rate to the nearest ones that
// an installed codec offers for its tag. False when none offers anything.
bool FindMatchFormat(WAVEFORMATEX* Format);
// 32-bit IEEE float (plain or extensible tag; not an extensible record of PCM).
bool IsFloatFormat(const WAVEFORMATEX* Format);
// PCM: the PCM tag, or an extensible record (tag 0xFFFE, at least 22 extra bytes, so
// Format must hold 18 + cbSize bytes) whose sub-format is PCM. ffmpeg writes WAV files
// above 48000 Hz, with more than two channels or deeper than 16 bits that way, and the
// compression manager takes only the plain record.
bool IsPcmFormat(const WAVEFORMATEX* Format);
// The first 18 bytes of Format; an extensible PCM record becomes the plain one (tag 1,
// cbSize 0, the rest as it is).
WAVEFORMATEX PlainPcmFormat(const WAVEFORMATEX& Format);
// The compression manager's text for a result code; empty for 0.
std::string AcmErrorText(MMRESULT Code);

// --- decoding without a backlog ------------------------------------------------------
// The most PCM bytes (PcmBlockAlign bytes a frame) that SrcBytes of MPEG audio of
// Mp3Format's rate can decode to: as many of the rate's smallest frames as fit, and one
// begun earlier and one finished later. A destination this large takes everything a
// source block yields, whatever the bit rate of the first frame was.
uint32_t GetMp3DecodedSizeLimit(const WAVEFORMATEX* Mp3Format, uint32_t SrcBytes, uint16_t PcmBlockAlign);
// One acmStreamConvert of Header's source (Flags as for it), then further ones with no
// new source bytes and without the start flag for as long as the codec still gives
// output, each output handed to Sink: a decoder is never left holding sound that the
// block yielded, so its backlog cannot grow. Header keeps its lengths; cbSrcLengthUsed
// is the first round's. False when the codec fails (Result its code) or Sink refuses
// (Result 0). The first-generation player's MP3 path and TAcmConverter both use it.
bool AcmConvertAll(HACMSTREAM Stream, ACMSTREAMHEADER& Header, DWORD Flags,
                   const std::function<bool(const uint8_t* Data, DWORD Size)>& Sink, MMRESULT& Result);
// Fills Header afresh for the two buffers and prepares it for Stream; the result is
// acmStreamPrepareHeader's.
MMRESULT PrepareAcmHeader(HACMSTREAM Stream, ACMSTREAMHEADER& Header, uint8_t* Src, DWORD SrcSize, uint8_t* Dst,
                          DWORD DstSize);

// --- converters ---------------------------------------------------------------------
class TBaseAudioConverter : public TInterfacedObject<IWritable, IAudioConverter> {
 public:
  ~TBaseAudioConverter() override;

  bool STDMETHODCALLTYPE SetInFormat(const WAVEFORMATEX* Format) override;
  bool STDMETHODCALLTYPE SetOutFormat(const WAVEFORMATEX* Format) override;
  bool STDMETHODCALLTYPE SetOutStream(IWritable* Next) override;
  // The part every converter runs first: logs the call and clears Finished.
  bool STDMETHODCALLTYPE Write(const void* Data, int32_t DataSize) override;
  // Propagates to the next writer once; a second call gives false.
  bool STDMETHODCALLTYPE Finish() override;
  bool STDMETHODCALLTYPE GetFinished() override { return FFinished; }

  // Called before a new input or output format is stored.
  virtual void SetChanged() {}
  // Passes on whatever the converter still holds, without finishing anything; the chain
  // runs this on its stages first to last before the finish goes down.
  virtual bool Flush() { return true; }

  const std::string& GetName() const { return FName; }
  const std::string& ClassName() const { return FClassName; }
  const std::string& LastError() const { return FLastError; }
  const WAVEFORMATEX* GetInFormat() const { return AsFormat(FInFormat); }
  const WAVEFORMATEX* GetOutFormat() const { return AsFormat(FOutFormat); }
  IWritable* GetOutStream() const { return FNext.Get(); }

 protected:
  explicit TBaseAudioConverter(const char* ClassName);
  static const WAVEFORMATEX* AsFormat(const std::vector<uint8_t>& Block) {
    return Block.empty() ? nullptr : reinterpret_cast<const WAVEFORMATEX*>(Block.data());
  }
  static WAVEFORMATEX* AsFormat(std::vector<uint8_t>& Block) {
    return Block.empty() ? nullptr : reinterpret_cast<WAVEFORMATEX*>(Block.data());
  }
  static void CopyFormat(std::vector<uint8_t>& Block, const WAVEFORMATEX* Format);
  // Stores Msg as LastError and logs it.
  void Fail(const std::string& Msg);

  std::string FName;
  std::string FClassName;
  std::vector<uint8_t> FInFormat;
  std::vector<uint8_t> FOutFormat;
  ComPtr<IWritable> FNext;
  std::string FLastError;
  bool FFinished = false;
};

// 32-bit float samples to 16-bit PCM with the same channels and rate.
class TFloatToPcmConverter : public TBaseAudioConverter {
 public:
  TFloatToPcmConverter();
  // Only a 32-bit float format with a block of at least 4 bytes per channel.
  bool STDMETHODCALLTYPE SetInFormat(const WAVEFORMATEX* Format) override;
  // The output follows from the input: always false.
  bool STDMETHODCALLTYPE SetOutFormat(const WAVEFORMATEX* Format) override;
  bool STDMETHODCALLTYPE Write(const void* Data, int32_t DataSize) override;
};

// One conversion stream of the audio compression manager, fed a tenth of a second of
// the PCM side at a time.
class TAcmConverter : public TBaseAudioConverter {
 public:
  TAcmConverter();
  ~TAcmConverter() override;
  bool STDMETHODCALLTYPE Write(const void* Data, int32_t DataSize) override;
  // Finishes the next writer first, then converts what is still queued into it.
  bool STDMETHODCALLTYPE Finish() override;
  // Converts what is still queued into the next writer and closes the stream.
  bool Flush() override;

  bool IsOpen() const { return FStream != nullptr; }
  uint32_t GetSrcSize() const { return FSrcSize; }
  uint32_t GetDstSize() const { return FDstSize; }
  int32_t GetQueued() const { return FPipe.GetSizeToRead(); }

 private:
  bool Open();
  void Close();
  bool Convert(bool Flush);

  UMemoryBuffer::TPipe FPipe{65536};
  HACMSTREAM FStream = nullptr;
  ACMSTREAMHEADER FHeader{};
  bool FPrepared = false;
  std::vector<uint8_t> FSrc;
  uint32_t FSrcSize = 0;
  std::vector<uint8_t> FDst;
  uint32_t FDstSize = 0;
  bool FFirstConvert = true;
  bool FPcmToPcm = false;
  // Compressed input: every write is decoded at once and nothing is left in the codec.
  bool FDecoding = false;
  // Source bytes the codec left unconverted (a block encoder takes whole blocks only):
  // they stay at the front of the source buffer for the next conversion.
  uint32_t FCarry = 0;
};

// Any format to any format: builds its chain of stages from the two formats the first
// time data arrives after either changed.
class TAudioConverter : public TBaseAudioConverter {
 public:
  TAudioConverter();
  ~TAudioConverter() override;
  bool STDMETHODCALLTYPE Write(const void* Data, int32_t DataSize) override;
  // Flushes the stages first to last, so that each one's tail reaches the next while it
  // still takes data, then finishes the chain from its first stage (which finishes the
  // sink last of all), or the sink itself when the data went straight through.
  bool STDMETHODCALLTYPE Finish() override;
  void SetChanged() override { FChanged = true; }

  int32_t GetSubConverterCount() const { return static_cast<int32_t>(FSubItems.size()); }
  // Stage Index of the chain (null when out of range).
  TBaseAudioConverter* GetSubConverter(int32_t Index) const;

 private:
  void ClearSubItems();
  bool BuildChain();

  std::vector<ComPtr<TBaseAudioConverter>> FSubItems;
  bool FChanged = false;
};

// --- file writers -------------------------------------------------------------------
class TBaseAudioFile : public TInterfacedObject<IWritable> {
 public:
  ~TBaseAudioFile() override;

  // Ends a file in progress before taking the new name.
  void SetFileName(const std::string& S);
  const std::string& GetFileName() const { return FFileName; }
  // Keeps a copy; false for a null format.
  bool SetFormat(const WAVEFORMATEX* Format);
  const WAVEFORMATEX* GetFormat() const {
    return FFormat.empty() ? nullptr : reinterpret_cast<const WAVEFORMATEX*>(FFormat.data());
  }
  const std::string& GetName() const { return FName; }

  bool STDMETHODCALLTYPE Write(const void* Data, int32_t DataSize) override;
  bool STDMETHODCALLTYPE Finish() override;
  bool STDMETHODCALLTYPE GetFinished() override { return FFinished; }

  virtual bool IsOpen() const = 0;

 protected:
  explicit TBaseAudioFile(const char* ClassName);

  std::string FFileName;
  std::vector<uint8_t> FFormat;
  bool FFinished = false;
  std::string FName;
};

// Raw bytes (finished MP3 frames) into a new file, or into an existing named pipe.
class TMp3AudioFile : public TBaseAudioFile {
 public:
  TMp3AudioFile();
  ~TMp3AudioFile() override;
  bool STDMETHODCALLTYPE Write(const void* Data, int32_t DataSize) override;
  bool STDMETHODCALLTYPE Finish() override;
  bool IsOpen() const override { return FStream != nullptr; }

 private:
  std::unique_ptr<TFileStream> FStream;
};

// A RIFF WAVE file with an 18-byte "fmt " chunk taken from the format.
class TWavAudioFile : public TBaseAudioFile {
 public:
  TWavAudioFile();
  ~TWavAudioFile() override;
  bool STDMETHODCALLTYPE Write(const void* Data, int32_t DataSize) override;
  bool STDMETHODCALLTYPE Finish() override;
  bool IsOpen() const override { return FHandle != nullptr; }

 private:
  bool OpenFile();
  void CloseFile();

  MMCKINFO FChunk{};
  MMCKINFO FRiff{};
  HMMIO FHandle = nullptr;
};

// A writer chosen by the extension (".mp3", ".wav", any case) with the name set; none
// for an empty name or another extension.
ComPtr<TBaseAudioFile> CreateAudioFile(const std::string& FileName);

}  // namespace kl::UAudioConverter
