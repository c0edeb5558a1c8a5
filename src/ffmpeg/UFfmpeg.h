// ffmpeg.exe as the library's media engine: where the executable is, the FFmpeg
// shared libraries kept resident beside it, one-shot jobs (taking the sound out of a
// film, laying a sound under a film) and what a media file holds, read from the text
// that "ffmpeg -i" prints.
#pragma once

#include <windows.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "channels/klChildProcess.h"
#include "rtl/ComBase.h"

namespace kl::UFfmpeg {

struct IVideoFileInfo;
struct IVideoFileInfo2;
struct IVideoFramesDecoder;
struct IVideoFramesDecoder2;
struct IVideoFramesEncoder;

}  // namespace kl::UFfmpeg

KL_DECLARE_IID(kl::UFfmpeg::IVideoFileInfo, "B84FC7AF-B4AE-4869-AD20-52D7C1C812FF", 0xB84FC7AF, 0xB4AE, 0x4869, 0xAD,
               0x20, 0x52, 0xD7, 0xC1, 0xC8, 0x12, 0xFF)
KL_DECLARE_IID(kl::UFfmpeg::IVideoFileInfo2, "4E97279D-E951-4452-8ECB-538979736168", 0x4E97279D, 0xE951, 0x4452,
               0x8E, 0xCB, 0x53, 0x89, 0x79, 0x73, 0x61, 0x68)
KL_DECLARE_IID(kl::UFfmpeg::IVideoFramesDecoder, "13FBA178-06D3-4DB7-B681-7434936DBA7B", 0x13FBA178, 0x06D3, 0x4DB7,
               0xB6, 0x81, 0x74, 0x34, 0x93, 0x6D, 0xBA, 0x7B)
KL_DECLARE_IID(kl::UFfmpeg::IVideoFramesDecoder2, "5C49B03E-8C3A-4969-95FF-F5C54F8DD24A", 0x5C49B03E, 0x8C3A, 0x4969,
               0x95, 0xFF, 0xF5, 0xC5, 0x4F, 0x8D, 0xD2, 0x4A)
KL_DECLARE_IID(kl::UFfmpeg::IVideoFramesEncoder, "B58CA077-FDFF-4455-88B1-CA7BC86FD6B4", 0xB58CA077, 0xFDFF, 0x4455,
               0x88, 0xB1, 0xCA, 0x7B, 0xC8, 0x6F, 0xD6, 0xB4)

namespace kl::UFfmpeg {

// --- locating ffmpeg ----------------------------------------------------------------

// "..\common\" at start, cleared when the unit is unloaded. Kept for hosts that read
// it; the library itself finds ffmpeg.exe by FFmpegExePath.
extern std::string FFmpegExeDir;

// The running executable's folder's parent + "common\ffmpeg.exe": for C:\App\bin\tool.exe
// this is C:\App\common\ffmpeg.exe. Whether the file exists is not checked.
std::string FFmpegExePath();

// The FFmpeg shared libraries that are loaded (only loaded, never called) when the unit
// starts, if a file of that name is in the current directory, and freed when it ends.
constexpr int FFmpegLibraryCount = 8;
extern const char* const FFmpegLibraryNames[FFmpegLibraryCount];
// The module handle kept for FFmpegLibraryNames[Index]; null when that file was absent,
// after FreeFFmpegLibraries and for an index out of range.
HMODULE FFmpegLibraryHandle(int Index);
// What the unit does when it starts: loads the libraries that are present. Does nothing
// while they are loaded, however often it is called.
void LoadFFmpegLibraries();
// What the unit does when it ends: frees every library it loaded.
void FreeFFmpegLibraries();

// --- one-shot jobs ------------------------------------------------------------------

// Runs ffmpeg -y -i VideoFile -vn Options SoundFile and waits for it without limit. True
// when SoundFile exists afterwards (an older file of that name counts too).
bool ExtractSound(const std::string& VideoFile, const std::string& SoundFile, const std::string& Options);

// Accepted by AddSound and never called.
using TAddSoundCallback = std::function<void(IUnknown* Sender, int32_t Value)>;

// Starts ffmpeg -y -i VideoFile -vn -i SoundFile Options OutputFile in a console window
// of its own and returns without waiting: true means only that ffmpeg was started.
bool AddSound(const std::string& VideoFile, const std::string& SoundFile, const std::string& OutputFile,
              const TAddSoundCallback& Callback, const std::string& Options);

// --- number texts ------------------------------------------------------------------

// The framework's StrToFloatDef: blanks around the number allowed, the system's decimal
// separator (FormatSettings) and no other; Default when the text is no number.
double DecimalStrToFloat(const std::string& S, double Default);
// A number as ffmpeg prints it, whatever the locale: every "," and "." counts as the
// decimal separator. 0 when the text is no number.
double LenientStrToFloat(const std::string& S);
// Value with at most MaxDecimals decimals and no trailing zeros, the system's decimal
// separator, no thousands separators (the "0.###" picture of the host framework).
std::string FormatFloatDecimals(double Value, int MaxDecimals);

// --- media file information ---------------------------------------------------------

struct TAudioInfo {
  std::string Codec;
  int32_t SamplesPerSec = 0;  // Hz
  int32_t Bitrate = 0;        // kb/s
  int32_t Channels = 0;       // 1 mono, 2 stereo, 5 for 5.1, 0 anything else

  bool operator==(const TAudioInfo&) const = default;
};

// "hh:mm:ss.xx" (or "mm:ss.x", "ss") in milliseconds, rounded to nearest, halves to even.
// Parts left of the hours are ignored; an unreadable part counts as 0.
int32_t TimeAsMilliseconds(const std::string& S);

struct IVideoFileInfo : public IUnknown {
  virtual void STDMETHODCALLTYPE SetFileName(const std::string& FileName) = 0;
  virtual std::string STDMETHODCALLTYPE GetDuration() = 0;
  virtual std::string STDMETHODCALLTYPE GetFileName() = 0;
  virtual float STDMETHODCALLTYPE GetFPS() = 0;
  virtual int32_t STDMETHODCALLTYPE GetFrames() = 0;
  virtual int32_t STDMETHODCALLTYPE GetHeight() = 0;
  virtual std::string STDMETHODCALLTYPE GetVideoCodec() = 0;
  virtual int32_t STDMETHODCALLTYPE GetWidth() = 0;
  virtual void STDMETHODCALLTYPE Init() = 0;
  virtual std::string STDMETHODCALLTYPE ToString(bool Multiline) = 0;

 protected:
  ~IVideoFileInfo() = default;
};

struct IVideoFileInfo2 : public IVideoFileInfo {
  using TParent = IVideoFileInfo;
  // The first audio track's values; empty or 0 without audio.
  virtual int32_t STDMETHODCALLTYPE GetAudioBitrate() = 0;
  virtual std::string STDMETHODCALLTYPE GetAudioCodec() = 0;
  virtual int32_t STDMETHODCALLTYPE GetSamplesPerSec() = 0;
  virtual int32_t STDMETHODCALLTYPE GetVideoBitrate() = 0;
  virtual int32_t STDMETHODCALLTYPE GetAudioChannels() = 0;
  virtual bool STDMETHODCALLTYPE GetVideoPresent() = 0;
  virtual bool STDMETHODCALLTYPE GetAudioPresent() = 0;
  // The duration in milliseconds.
  virtual int32_t STDMETHODCALLTYPE GetLength() = 0;
  virtual int32_t STDMETHODCALLTYPE GetAudioCount() = 0;
  // An all-zero record whatever the index: the tracks are read through ToString and the
  // first-track getters. Kept so for the callers that rely on it.
  virtual TAudioInfo STDMETHODCALLTYPE GetAudio(int32_t Index) = 0;

 protected:
  ~IVideoFileInfo2() = default;
};

// What a media file holds, taken from the text ffmpeg prints for "ffmpeg -i <file>":
// duration, frame size, frame rate and count, video codec and bitrate, the audio tracks.
// Never fails: a file that cannot be read leaves the object empty (and a log line).
class TVideoFileInfo : public TInterfacedObject<IVideoFileInfo2> {
 public:
  TVideoFileInfo() { Init(); }
  explicit TVideoFileInfo(const std::string& FileName);
  static ComPtr<IVideoFileInfo2> Create(const std::string& FileName);

  // Fills the values from a text as ffmpeg prints it (everything but the file name,
  // which is kept). Depends on the text alone; never raises.
  void ParseText(const std::string& Text);

  void STDMETHODCALLTYPE SetFileName(const std::string& FileName) override;
  std::string STDMETHODCALLTYPE GetDuration() override { return Duration; }
  std::string STDMETHODCALLTYPE GetFileName() override { return FileName; }
  float STDMETHODCALLTYPE GetFPS() override { return FPS; }
  int32_t STDMETHODCALLTYPE GetFrames() override { return Frames; }
  int32_t STDMETHODCALLTYPE GetHeight() override { return Height; }
  std::string STDMETHODCALLTYPE GetVideoCodec() override { return VideoCodec; }
  int32_t STDMETHODCALLTYPE GetWidth() override { return Width; }
  void STDMETHODCALLTYPE Init() override;
  std::string STDMETHODCALLTYPE ToString(bool Multiline) override;

  int32_t STDMETHODCALLTYPE GetAudioBitrate() override { return Audio.empty() ? 0 : Audio[0].Bitrate; }
  std::string STDMETHODCALLTYPE GetAudioCodec() override { return Audio.empty() ? std::string() : Audio[0].Codec; }
  int32_t STDMETHODCALLTYPE GetSamplesPerSec() override { return Audio.empty() ? 0 : Audio[0].SamplesPerSec; }
  int32_t STDMETHODCALLTYPE GetVideoBitrate() override { return VideoBitrate; }
  int32_t STDMETHODCALLTYPE GetAudioChannels() override { return Audio.empty() ? 0 : Audio[0].Channels; }
  bool STDMETHODCALLTYPE GetVideoPresent() override { return VideoPresent; }
  bool STDMETHODCALLTYPE GetAudioPresent() override { return !Audio.empty(); }
  int32_t STDMETHODCALLTYPE GetLength() override { return TimeAsMilliseconds(Duration); }
  int32_t STDMETHODCALLTYPE GetAudioCount() override { return static_cast<int32_t>(Audio.size()); }
  TAudioInfo STDMETHODCALLTYPE GetAudio(int32_t Index) override;

 private:
  void Parse(const std::string& Text);

  int32_t Width = 0;
  int32_t Frames = 0;
  int32_t Height = 0;
  float FPS = 0;
  std::string Duration;
  std::string FileName;
  std::string VideoCodec;
  int32_t VideoBitrate = 0;
  std::vector<TAudioInfo> Audio;
  bool VideoPresent = false;
};

// --- frames out of a file ----------------------------------------------------------

// Optional decoding parameters; zeros mean "as the file has it".
struct TFramesDecoderParams {
  int32_t Width = 0;   // target width; 0 = derived from Height (or the file's)
  int32_t Height = 0;  // target height; 0 = derived from Width (or the file's)
  int32_t FromSec = 0;  // start, whole seconds
  int32_t ToSec = 0;    // end, whole seconds of the input (not a duration)
  double FPS = 0;       // output rate; 0 or less = the file's own
};

struct IVideoFramesDecoder : public IUnknown {
  virtual ComPtr<IVideoFileInfo2> STDMETHODCALLTYPE GetFileInfo() = 0;
  // The next frame in the decoder's own bitmap (a 24-bit top-down DIB section, the same
  // one every time: use or copy it before the next call). False once the stream has
  // ended or failed, and from then on.
  virtual bool STDMETHODCALLTYPE GetNextFrame(HBITMAP& Bitmap, void*& Bits) = 0;

 protected:
  ~IVideoFramesDecoder() = default;
};

struct IVideoFramesDecoder2 : public IVideoFramesDecoder {
  using TParent = IVideoFramesDecoder;
  virtual int32_t STDMETHODCALLTYPE GetTargetWidth() = 0;
  virtual int32_t STDMETHODCALLTYPE GetTargetHeight() = 0;

 protected:
  ~IVideoFramesDecoder2() = default;
};

// A video file as a sequence of raw 24-bit frames: ffmpeg decodes (and scales, cuts,
// resamples) into its standard output, one frame is read per call.
class TVideoFramesDecoder : public TInterfacedObject<IVideoFramesDecoder2> {
 public:
  // No decoder (and a log line) for a missing file, a file without a picture size,
  // negative times, or when ffmpeg cannot be started. FileInfo, when given, is taken
  // instead of reading the file's information again; Params may be null.
  static ComPtr<IVideoFramesDecoder2> Create(const std::string& FileName, IVideoFileInfo2* FileInfo = nullptr,
                                             const TFramesDecoderParams* Params = nullptr);
  ~TVideoFramesDecoder() override;

  ComPtr<IVideoFileInfo2> STDMETHODCALLTYPE GetFileInfo() override { return FFileInfo; }
  bool STDMETHODCALLTYPE GetNextFrame(HBITMAP& Bitmap, void*& Bits) override;
  int32_t STDMETHODCALLTYPE GetTargetWidth() override { return TargetWidth; }
  int32_t STDMETHODCALLTYPE GetTargetHeight() override { return TargetHeight; }

 private:
  TVideoFramesDecoder() = default;

  int32_t TargetWidth = 0;
  int32_t TargetHeight = 0;
  ComPtr<klChildProcess::IChildProcess3> FChild;
  ComPtr<IVideoFileInfo2> FFileInfo;
  HBITMAP FBitmap = nullptr;
  void* FBits = nullptr;
  std::vector<uint8_t> FScratch;  // one packed frame, for widths whose rows need padding
};

// --- frames into a file -------------------------------------------------------------

struct IVideoFramesEncoder : public IUnknown {
  virtual bool STDMETHODCALLTYPE SetSize(int32_t Width, int32_t Height) = 0;
  virtual bool STDMETHODCALLTYPE SetFPS(float Value) = 0;
  // Digits and K, M or k ("2500k", "2M"); empty removes the option.
  virtual bool STDMETHODCALLTYPE SetBitrate(const std::string& Value) = 0;
  // 1, 2, 3: from rough to fine; anything else (not negative): ffmpeg's default.
  virtual bool STDMETHODCALLTYPE SetQuality(int32_t Value) = 0;
  virtual bool STDMETHODCALLTYPE SetBitsPerPixel(int32_t Value) = 0;  // 24 or 32
  // Not available: raises EklException for any bitmap (0 is logged and refused).
  virtual bool STDMETHODCALLTYPE EncodeFrameBitmap(HBITMAP Frame) = 0;
  // Width x Height packed rows, top row first, B G R (and a fourth byte at 32 bits).
  virtual bool STDMETHODCALLTYPE EncodeFrameBits(const void* FrameBits) = 0;
  // Always 0: no operation counts the frames.
  virtual int32_t STDMETHODCALLTYPE GetFrameCount() = 0;
  // Ends ffmpeg's input; ffmpeg completes the file on its own, later.
  virtual void STDMETHODCALLTYPE Finish() = 0;

  bool EncodeFrame(HBITMAP Frame) { return EncodeFrameBitmap(Frame); }
  bool EncodeFrame(const void* FrameBits) { return EncodeFrameBits(FrameBits); }

 protected:
  ~IVideoFramesEncoder() = default;
};

// Writes raw frames into a named pipe that ffmpeg reads and encodes into FileName (the
// encoder follows the file's extension). ffmpeg starts with the first frame.
class TVideoFramesEncoder : public TInterfacedObject<IVideoFramesEncoder> {
 public:
  // Raises EklException for an empty name.
  explicit TVideoFramesEncoder(const std::string& FileName);
  ~TVideoFramesEncoder() override;

  bool STDMETHODCALLTYPE SetSize(int32_t AWidth, int32_t AHeight) override;
  bool STDMETHODCALLTYPE SetFPS(float Value) override;
  bool STDMETHODCALLTYPE SetBitrate(const std::string& Value) override;
  bool STDMETHODCALLTYPE SetQuality(int32_t Value) override;
  bool STDMETHODCALLTYPE SetBitsPerPixel(int32_t Value) override;
  bool STDMETHODCALLTYPE EncodeFrameBitmap(HBITMAP Frame) override;
  bool STDMETHODCALLTYPE EncodeFrameBits(const void* FrameBits) override;
  int32_t STDMETHODCALLTYPE GetFrameCount() override { return FrameCount; }
  void STDMETHODCALLTYPE Finish() override { ClosePipe(); }

  // The pipe's name once made: "\\.\pipe\FramesEncoder", or that and a random number
  // when the name was taken.
  const std::string& GetPipeName() const { return PipeName; }

 private:
  bool PrepareWriting();
  bool WriteToPipe(const void* Buffer, int32_t Size);
  void ClosePipe();

  int32_t Width = 0;
  int32_t Height = 0;
  float FPS = 0;
  int32_t FrameCount = 0;
  std::string Bitrate;
  int32_t Quality = 0;
  int32_t BitsPerPixel = 24;
  std::string FileName;
  std::string PipeName;
  HANDLE PipeHandle = nullptr;
  bool Prepared = false;
};

// The framework's "%n": two decimals, thousands separated (FormatSettings).
std::string FormatThousands(double Value);

}  // namespace kl::UFfmpeg
