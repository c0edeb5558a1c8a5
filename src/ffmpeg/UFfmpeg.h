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

#include "rtl/ComBase.h"

namespace kl::UFfmpeg {

struct IVideoFileInfo;
struct IVideoFileInfo2;

}  // namespace kl::UFfmpeg

KL_DECLARE_IID(kl::UFfmpeg::IVideoFileInfo, "B84FC7AF-B4AE-4869-AD20-52D7C1C812FF", 0xB84FC7AF, 0xB4AE, 0x4869, 0xAD,
               0x20, 0x52, 0xD7, 0xC1, 0xC8, 0x12, 0xFF)
KL_DECLARE_IID(kl::UFfmpeg::IVideoFileInfo2, "4E97279D-E951-4452-8ECB-538979736168", 0x4E97279D, 0xE951, 0x4452,
               0x8E, 0xCB, 0x53, 0x89, 0x79, 0x73, 0x61, 0x68)

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

}  // namespace kl::UFfmpeg
