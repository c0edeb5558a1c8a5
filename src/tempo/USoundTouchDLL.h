// Binding to the SoundTouch time-stretching library (SoundTouch.DLL), loaded at run time
// once per process, and TSoundTouch, a thin object over one instance of it.
#pragma once

#include <cstdint>
#include <string>

namespace kl::USoundTouchDLL {

using TSoundTouchHandle = void*;

// The library's C interface (cdecl, resolved by its exported names).
using TSoundTouchClear = void(__cdecl*)(TSoundTouchHandle Handle);
using TSoundTouchCreateInstance = TSoundTouchHandle(__cdecl*)();
using TSoundTouchDestroyInstance = void(__cdecl*)(TSoundTouchHandle Handle);
using TSoundTouchFlush = int(__cdecl*)(TSoundTouchHandle Handle);
using TSoundTouchGetSetting = int(__cdecl*)(TSoundTouchHandle Handle, int SettingId);
using TSoundTouchGetVersionId = unsigned int(__cdecl*)();
using TSoundTouchGetVersionString = const char*(__cdecl*)();
using TSoundTouchIsEmpty = int(__cdecl*)(TSoundTouchHandle Handle);
using TSoundTouchNumSamples = unsigned int(__cdecl*)(TSoundTouchHandle Handle);
using TSoundTouchNumUnprocessedSamples = unsigned int(__cdecl*)(TSoundTouchHandle Handle);
using TSoundTouchPutSamples = int(__cdecl*)(TSoundTouchHandle Handle, const float* Samples, unsigned int NumSamples);
using TSoundTouchReceiveSamples = unsigned int(__cdecl*)(TSoundTouchHandle Handle, float* OutBuffer,
                                                         unsigned int MaxSamples);
using TSoundTouchSetChannels = int(__cdecl*)(TSoundTouchHandle Handle, unsigned int NumChannels);
using TSoundTouchSetPitch = void(__cdecl*)(TSoundTouchHandle Handle, float NewPitch);
using TSoundTouchSetPitchOctaves = void(__cdecl*)(TSoundTouchHandle Handle, float NewPitch);
using TSoundTouchSetPitchSemiTones = void(__cdecl*)(TSoundTouchHandle Handle, float NewPitch);
using TSoundTouchSetRate = void(__cdecl*)(TSoundTouchHandle Handle, float NewRate);
using TSoundTouchSetRateChange = void(__cdecl*)(TSoundTouchHandle Handle, float NewRate);
using TSoundTouchSetSampleRate = int(__cdecl*)(TSoundTouchHandle Handle, unsigned int SampleRate);
using TSoundTouchSetSetting = int(__cdecl*)(TSoundTouchHandle Handle, int SettingId, int Value);
using TSoundTouchSetTempo = void(__cdecl*)(TSoundTouchHandle Handle, float NewTempo);
using TSoundTouchSetTempoChange = void(__cdecl*)(TSoundTouchHandle Handle, float NewTempo);

// Set when the unit starts if SoundTouch.DLL could be loaded and exports the entry;
// null otherwise, and again once the library has been freed at process end. Callers
// test SoundTouchCreateInstance before creating a TSoundTouch.
extern TSoundTouchClear SoundTouchClear;
extern TSoundTouchCreateInstance SoundTouchCreateInstance;
extern TSoundTouchDestroyInstance SoundTouchDestroyInstance;
extern TSoundTouchFlush SoundTouchFlush;
extern TSoundTouchGetSetting SoundTouchGetSetting;
extern TSoundTouchGetVersionId SoundTouchGetVersionId;
extern TSoundTouchGetVersionString SoundTouchGetVersionString;
extern TSoundTouchIsEmpty SoundTouchIsEmpty;
extern TSoundTouchNumSamples SoundTouchNumSamples;
extern TSoundTouchNumUnprocessedSamples SoundTouchNumUnprocessedSamples;
extern TSoundTouchPutSamples SoundTouchPutSamples;
extern TSoundTouchReceiveSamples SoundTouchReceiveSamples;
extern TSoundTouchSetChannels SoundTouchSetChannels;
extern TSoundTouchSetPitch SoundTouchSetPitch;
extern TSoundTouchSetPitchOctaves SoundTouchSetPitchOctaves;
extern TSoundTouchSetPitchSemiTones SoundTouchSetPitchSemiTones;
extern TSoundTouchSetRate SoundTouchSetRate;
extern TSoundTouchSetRateChange SoundTouchSetRateChange;
extern TSoundTouchSetSampleRate SoundTouchSetSampleRate;
extern TSoundTouchSetSetting SoundTouchSetSetting;
extern TSoundTouchSetTempo SoundTouchSetTempo;
extern TSoundTouchSetTempoChange SoundTouchSetTempoChange;

// Settings of GetSetting/SetSetting, as the library numbers them.
constexpr int SETTING_USE_AA_FILTER = 0;
constexpr int SETTING_AA_FILTER_LENGTH = 1;
constexpr int SETTING_USE_QUICKSEEK = 2;
constexpr int SETTING_SEQUENCE_MS = 3;
constexpr int SETTING_SEEKWINDOW_MS = 4;
constexpr int SETTING_OVERLAP_MS = 5;

// One library instance. Samples are 32-bit floats interleaved by channel; counts are
// in frames (one sample per channel). The sample rate starts at 44100 Hz, the channel
// count at 1, tempo, rate and pitch at 1.0.
// Without the library (SoundTouchCreateInstance unset) the object holds no instance and
// every call does nothing and returns 0.
class TSoundTouch {
 public:
  TSoundTouch();
  virtual ~TSoundTouch();
  TSoundTouch(const TSoundTouch&) = delete;
  TSoundTouch& operator=(const TSoundTouch&) = delete;

  // The library is told only when a value changes. A sample rate that is not above 0
  // or a channel count other than 1 or 2 raises kl::EAssertionFailed after the value
  // has been stored.
  void SetSampleRate(float Value);
  void SetChannels(uint32_t Value);
  void SetTempo(float Value);
  void SetRate(float Value);
  void SetPitch(float Value);
  float GetSampleRate() const { return FSampleRate; }
  uint32_t GetChannels() const { return FChannels; }
  float GetTempo() const { return FTempo; }
  float GetRate() const { return FRate; }
  float GetPitch() const { return FPitch; }

  // Percent forms: 50 means 1.5, -25 means 0.75.
  void SetTempoChange(float Percent);
  void SetRateChange(float Percent);
  void SetPitchChange(float Percent);
  float GetTempoChange() const;
  float GetRateChange() const;
  float GetPitchChange() const;

  void PutSamples(const float* Samples, uint32_t Count);
  // Up to MaxCount frames into Buffer; returns the frames received.
  int32_t ReceiveSamples(float* Buffer, int32_t MaxCount);
  void Flush();
  void Clear();
  uint32_t GetNumSamples() const;
  uint32_t GetNumUnprocessedSamples() const;
  bool GetIsEmpty() const;
  int32_t GetSetting(int32_t Id) const;
  void SetSetting(int32_t Id, int32_t Value);

  // 0 and empty without the library.
  static int32_t GetVersionId();
  static std::string GetVersionString();

  TSoundTouchHandle Handle() const { return FHandle; }

 protected:
  // Each pushes the stored value to the library.
  virtual void SamplerateChanged();
  virtual void ChannelsChanged();
  virtual void PitchChanged();
  virtual void TempoChanged();
  virtual void RateChanged();

 private:
  TSoundTouchHandle FHandle = nullptr;
  float FRate = 1.0f;
  float FPitch = 1.0f;
  float FTempo = 1.0f;
  float FSampleRate = 44100.0f;
  uint32_t FChannels = 1;
};

}  // namespace kl::USoundTouchDLL
