#include "tempo/USoundTouchDLL.h"

#include <windows.h>

#include "rtl/SysUtils.h"

namespace kl::USoundTouchDLL {

TSoundTouchClear SoundTouchClear = nullptr;
TSoundTouchCreateInstance SoundTouchCreateInstance = nullptr;
TSoundTouchDestroyInstance SoundTouchDestroyInstance = nullptr;
TSoundTouchFlush SoundTouchFlush = nullptr;
TSoundTouchGetSetting SoundTouchGetSetting = nullptr;
TSoundTouchGetVersionId SoundTouchGetVersionId = nullptr;
TSoundTouchGetVersionString SoundTouchGetVersionString = nullptr;
TSoundTouchIsEmpty SoundTouchIsEmpty = nullptr;
TSoundTouchNumSamples SoundTouchNumSamples = nullptr;
TSoundTouchNumUnprocessedSamples SoundTouchNumUnprocessedSamples = nullptr;
TSoundTouchPutSamples SoundTouchPutSamples = nullptr;
TSoundTouchReceiveSamples SoundTouchReceiveSamples = nullptr;
TSoundTouchSetChannels SoundTouchSetChannels = nullptr;
TSoundTouchSetPitch SoundTouchSetPitch = nullptr;
TSoundTouchSetPitchOctaves SoundTouchSetPitchOctaves = nullptr;
TSoundTouchSetPitchSemiTones SoundTouchSetPitchSemiTones = nullptr;
TSoundTouchSetRate SoundTouchSetRate = nullptr;
TSoundTouchSetRateChange SoundTouchSetRateChange = nullptr;
TSoundTouchSetSampleRate SoundTouchSetSampleRate = nullptr;
TSoundTouchSetSetting SoundTouchSetSetting = nullptr;
TSoundTouchSetTempo SoundTouchSetTempo = nullptr;
TSoundTouchSetTempoChange SoundTouchSetTempoChange = nullptr;

namespace {

// Where the two checks report from, kept stable so that reports stay comparable
// between builds.
constexpr const char* UNIT_NAME = "USoundTouchDLL";
constexpr int CHANNELS_CHECK_LINE = 329;
constexpr int SAMPLERATE_CHECK_LINE = 403;

template <class T>
void Bind(HMODULE Library, T& Entry, const char* Name) {
  // Through a plain function-pointer type: FARPROC's own signature means nothing here.
  Entry = reinterpret_cast<T>(reinterpret_cast<void (*)()>(GetProcAddress(Library, Name)));
}

// Loads the library when the unit starts and frees it when the process ends. Ordinal
// numbers differ between builds of the library, the exported names do not: bind by name.
class TLibrary {
 public:
  TLibrary() {
    FHandle = LoadLibraryA("SoundTouch.DLL");
    if (FHandle == nullptr) return;
    Bind(FHandle, SoundTouchClear, "soundtouch_clear");
    Bind(FHandle, SoundTouchCreateInstance, "soundtouch_createInstance");
    Bind(FHandle, SoundTouchDestroyInstance, "soundtouch_destroyInstance");
    Bind(FHandle, SoundTouchFlush, "soundtouch_flush");
    Bind(FHandle, SoundTouchGetSetting, "soundtouch_getSetting");
    Bind(FHandle, SoundTouchGetVersionId, "soundtouch_getVersionId");
    Bind(FHandle, SoundTouchGetVersionString, "soundtouch_getVersionString");
    Bind(FHandle, SoundTouchIsEmpty, "soundtouch_isEmpty");
    Bind(FHandle, SoundTouchNumSamples, "soundtouch_numSamples");
    Bind(FHandle, SoundTouchNumUnprocessedSamples, "soundtouch_numUnprocessedSamples");
    Bind(FHandle, SoundTouchPutSamples, "soundtouch_putSamples");
    Bind(FHandle, SoundTouchReceiveSamples, "soundtouch_receiveSamples");
    Bind(FHandle, SoundTouchSetChannels, "soundtouch_setChannels");
    Bind(FHandle, SoundTouchSetPitch, "soundtouch_setPitch");
    Bind(FHandle, SoundTouchSetPitchOctaves, "soundtouch_setPitchOctaves");
    Bind(FHandle, SoundTouchSetPitchSemiTones, "soundtouch_setPitchSemiTones");
    Bind(FHandle, SoundTouchSetRate, "soundtouch_setRate");
    Bind(FHandle, SoundTouchSetRateChange, "soundtouch_setRateChange");
    Bind(FHandle, SoundTouchSetSampleRate, "soundtouch_setSampleRate");
    Bind(FHandle, SoundTouchSetSetting, "soundtouch_setSetting");
    Bind(FHandle, SoundTouchSetTempo, "soundtouch_setTempo");
    Bind(FHandle, SoundTouchSetTempoChange, "soundtouch_setTempoChange");
  }

  ~TLibrary() {
    if (FHandle == nullptr) return;
    // Objects destroyed after this point find the entries unset instead of calling
    // into freed code.
    SoundTouchClear = nullptr;
    SoundTouchCreateInstance = nullptr;
    SoundTouchDestroyInstance = nullptr;
    SoundTouchFlush = nullptr;
    SoundTouchGetSetting = nullptr;
    SoundTouchGetVersionId = nullptr;
    SoundTouchGetVersionString = nullptr;
    SoundTouchIsEmpty = nullptr;
    SoundTouchNumSamples = nullptr;
    SoundTouchNumUnprocessedSamples = nullptr;
    SoundTouchPutSamples = nullptr;
    SoundTouchReceiveSamples = nullptr;
    SoundTouchSetChannels = nullptr;
    SoundTouchSetPitch = nullptr;
    SoundTouchSetPitchOctaves = nullptr;
    SoundTouchSetPitchSemiTones = nullptr;
    SoundTouchSetRate = nullptr;
    SoundTouchSetRateChange = nullptr;
    SoundTouchSetSampleRate = nullptr;
    SoundTouchSetSetting = nullptr;
    SoundTouchSetTempo = nullptr;
    SoundTouchSetTempoChange = nullptr;
    FreeLibrary(FHandle);
  }

  TLibrary(const TLibrary&) = delete;
  TLibrary& operator=(const TLibrary&) = delete;

 private:
  HMODULE FHandle = nullptr;
};

TLibrary Library;

// Every call goes through here: an object made without the library, or one outliving
// it, holds no instance, and the library itself does not accept a null one.
template <class R, class F, class... A>
R CallOr(R Default, F Entry, TSoundTouchHandle Handle, A... Args) {
  return Entry != nullptr && Handle != nullptr ? static_cast<R>(Entry(Handle, Args...)) : Default;
}

}  // namespace


TSoundTouch::TSoundTouch() {
  if (SoundTouchCreateInstance != nullptr) FHandle = SoundTouchCreateInstance();
  SamplerateChanged();
  ChannelsChanged();
}

TSoundTouch::~TSoundTouch() {
  if (SoundTouchDestroyInstance != nullptr && FHandle != nullptr) SoundTouchDestroyInstance(FHandle);
}

void TSoundTouch::SetSampleRate(float Value) {
  if (Value == FSampleRate) return;
  FSampleRate = Value;
  SamplerateChanged();
}

void TSoundTouch::SetChannels(uint32_t Value) {
  if (Value == FChannels) return;
  FChannels = Value;
  ChannelsChanged();
}

void TSoundTouch::SetTempo(float Value) {
  if (Value == FTempo) return;
  FTempo = Value;
  TempoChanged();
}

void TSoundTouch::SetRate(float Value) {
  if (Value == FRate) return;
  FRate = Value;
  RateChanged();
}

void TSoundTouch::SetPitch(float Value) {
  if (Value == FPitch) return;
  FPitch = Value;
  PitchChanged();
}

void TSoundTouch::SetTempoChange(float Percent) { SetTempo(1.0f + Percent * 0.01f); }
void TSoundTouch::SetRateChange(float Percent) { SetRate(1.0f + Percent * 0.01f); }
void TSoundTouch::SetPitchChange(float Percent) { SetPitch(1.0f + Percent * 0.01f); }
float TSoundTouch::GetTempoChange() const { return (FTempo - 1.0f) * 100.0f; }
float TSoundTouch::GetRateChange() const { return (FRate - 1.0f) * 100.0f; }
float TSoundTouch::GetPitchChange() const { return (FPitch - 1.0f) * 100.0f; }

void TSoundTouch::SamplerateChanged() {
  Assert(FSampleRate > 0, UNIT_NAME, SAMPLERATE_CHECK_LINE);
  CallOr(0, SoundTouchSetSampleRate, FHandle, static_cast<unsigned int>(Round(FSampleRate)));
}

void TSoundTouch::ChannelsChanged() {
  Assert(FChannels == 1 || FChannels == 2, UNIT_NAME, CHANNELS_CHECK_LINE);
  CallOr(0, SoundTouchSetChannels, FHandle, FChannels);
}

void TSoundTouch::PitchChanged() {
  if (SoundTouchSetPitch != nullptr && FHandle != nullptr) SoundTouchSetPitch(FHandle, FPitch);
}

void TSoundTouch::TempoChanged() {
  if (SoundTouchSetTempo != nullptr && FHandle != nullptr) SoundTouchSetTempo(FHandle, FTempo);
}

void TSoundTouch::RateChanged() {
  if (SoundTouchSetRate != nullptr && FHandle != nullptr) SoundTouchSetRate(FHandle, FRate);
}

void TSoundTouch::PutSamples(const float* Samples, uint32_t Count) {
  if (Samples == nullptr || Count == 0) return;
  CallOr(0, SoundTouchPutSamples, FHandle, Samples, Count);
}

int32_t TSoundTouch::ReceiveSamples(float* Buffer, int32_t MaxCount) {
  // A negative count would reach the library as a huge unsigned one.
  if (Buffer == nullptr || MaxCount <= 0) return 0;
  return static_cast<int32_t>(CallOr(0u, SoundTouchReceiveSamples, FHandle, Buffer, static_cast<unsigned int>(MaxCount)));
}

void TSoundTouch::Flush() { CallOr(0, SoundTouchFlush, FHandle); }

void TSoundTouch::Clear() {
  if (SoundTouchClear != nullptr && FHandle != nullptr) SoundTouchClear(FHandle);
}

uint32_t TSoundTouch::GetNumSamples() const { return CallOr(0u, SoundTouchNumSamples, FHandle); }

uint32_t TSoundTouch::GetNumUnprocessedSamples() const { return CallOr(0u, SoundTouchNumUnprocessedSamples, FHandle); }

bool TSoundTouch::GetIsEmpty() const { return CallOr(1, SoundTouchIsEmpty, FHandle) != 0; }

int32_t TSoundTouch::GetSetting(int32_t Id) const { return CallOr(0, SoundTouchGetSetting, FHandle, Id); }

void TSoundTouch::SetSetting(int32_t Id, int32_t Value) { CallOr(0, SoundTouchSetSetting, FHandle, Id, Value); }

int32_t TSoundTouch::GetVersionId() {
  return SoundTouchGetVersionId != nullptr ? static_cast<int32_t>(SoundTouchGetVersionId()) : 0;
}

std::string TSoundTouch::GetVersionString() {
  if (SoundTouchGetVersionString == nullptr) return std::string();
  const char* text = SoundTouchGetVersionString();
  return text != nullptr ? std::string(text) : std::string();
}

}  // namespace kl::USoundTouchDLL
