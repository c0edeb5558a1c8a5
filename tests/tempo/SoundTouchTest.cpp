// The SoundTouch binding over the real SoundTouch.dll beside the test executable.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "Components.h"
#include "KlTest.h"
#include "ToneHelpers.h"

using namespace kl::USoundTouchDLL;
using kltest::tempo::Channel;
using kltest::tempo::DominantFrequency;
using kltest::tempo::ToneFloat;

namespace {

// Runs Samples (interleaved) through St and returns everything it gives back.
std::vector<float> Process(TSoundTouch& St, const std::vector<float>& Samples, int Channels) {
  std::vector<float> out;
  std::vector<float> buf(4096 * Channels);
  const uint32_t frames = static_cast<uint32_t>(Samples.size() / Channels);
  // In pieces, as a player feeds it.
  for (uint32_t at = 0; at < frames; at += 4410) {
    const uint32_t n = std::min<uint32_t>(4410, frames - at);
    St.PutSamples(Samples.data() + static_cast<size_t>(at) * Channels, n);
    int32_t got;
    while ((got = St.ReceiveSamples(buf.data(), 4096)) > 0) out.insert(out.end(), buf.begin(), buf.begin() + got * Channels);
  }
  St.Flush();
  int32_t got;
  while ((got = St.ReceiveSamples(buf.data(), 4096)) > 0) out.insert(out.end(), buf.begin(), buf.begin() + got * Channels);
  return out;
}

// Counts the pushes to the library while keeping them.
class TCountingSoundTouch : public TSoundTouch {
 public:
  int Tempo = 0, Rate = 0, Pitch = 0, SampleRate = 0, Channels = 0;

 protected:
  void TempoChanged() override { ++Tempo; TSoundTouch::TempoChanged(); }
  void RateChanged() override { ++Rate; TSoundTouch::RateChanged(); }
  void PitchChanged() override { ++Pitch; TSoundTouch::PitchChanged(); }
  void SamplerateChanged() override { ++SampleRate; TSoundTouch::SamplerateChanged(); }
  void ChannelsChanged() override { ++Channels; TSoundTouch::ChannelsChanged(); }
};

// Replaces a library entry for the life of the object.
template <class T>
class TEntrySwap {
 public:
  TEntrySwap(T& Entry, T Stub) : FEntry(Entry), FSaved(Entry) { Entry = Stub; }
  ~TEntrySwap() { FEntry = FSaved; }
  TEntrySwap(const TEntrySwap&) = delete;
  TEntrySwap& operator=(const TEntrySwap&) = delete;

 private:
  T& FEntry;
  T FSaved;
};

int GTempoCalls = 0;
float GLastTempo = 0;
void __cdecl CountingSetTempo(TSoundTouchHandle, float Value) {
  ++GTempoCalls;
  GLastTempo = Value;
}
int GPercentCalls = 0;
void __cdecl CountingPercent(TSoundTouchHandle, float) { ++GPercentCalls; }

// Standard output without the CRs of text mode.
std::string Lines(std::string S) {
  S.erase(std::remove(S.begin(), S.end(), '\r'), S.end());
  return S;
}

int CountSetEntries() {
  const auto set = [](auto Entry) { return Entry != nullptr ? 1 : 0; };
  return set(SoundTouchClear) + set(SoundTouchCreateInstance) + set(SoundTouchDestroyInstance) +
         set(SoundTouchFlush) + set(SoundTouchGetSetting) + set(SoundTouchGetVersionId) +
         set(SoundTouchGetVersionString) + set(SoundTouchIsEmpty) + set(SoundTouchNumSamples) +
         set(SoundTouchNumUnprocessedSamples) + set(SoundTouchPutSamples) + set(SoundTouchReceiveSamples) +
         set(SoundTouchSetChannels) + set(SoundTouchSetPitch) + set(SoundTouchSetPitchOctaves) +
         set(SoundTouchSetPitchSemiTones) + set(SoundTouchSetRate) + set(SoundTouchSetRateChange) +
         set(SoundTouchSetSampleRate) + set(SoundTouchSetSetting) + set(SoundTouchSetTempo) +
         set(SoundTouchSetTempoChange);
}

}  // namespace

// Reports how many entries this process bound, then uses a TSoundTouch the way a
// careless caller would: without the library nothing may crash.
KL_CHILD_ROLE(SoundTouchEntries) {
  (void)Args;
  std::printf("entries=%d\n", CountSetEntries());
  {
    TSoundTouch st;
    st.SetChannels(2);
    st.SetSampleRate(48000);
    st.SetTempo(1.5f);
    std::vector<float> in(2 * 4410, 0.25f), out(2 * 4410);
    st.PutSamples(in.data(), 4410);
    st.Flush();
    const int got = st.ReceiveSamples(out.data(), 4410);
    std::printf("handle=%d received=%d empty=%d version=%d text=[%s]\n", st.Handle() != nullptr ? 1 : 0, got,
                st.GetIsEmpty() ? 1 : 0, TSoundTouch::GetVersionId(), TSoundTouch::GetVersionString().c_str());
  }
  std::fflush(stdout);
  return 0;
}

TEST(SoundTouchLibrary, AbsentLibraryLeavesEntriesUnsetAndObjectsHarmless) {
  // The same executable in a folder without SoundTouch.dll.
  kltest::TTempDir dir;
  const std::string copy = dir / "klTests_tempo_alone.exe";
  ASSERT_TRUE(CopyFileA(kltest::SelfExe().c_str(), copy.c_str(), FALSE));
  const auto alone = kltest::Run(kltest::Quote(copy) + " --kl-child SoundTouchEntries", 60000);
  ASSERT_TRUE(alone.Started);
  ASSERT_FALSE(alone.TimedOut);
  EXPECT_EQ(alone.ExitCode, 0u) << alone.Err;
  EXPECT_NE(Lines(alone.Out).find("entries=0\n"), std::string::npos) << alone.Out;
  EXPECT_NE(Lines(alone.Out).find("handle=0 received=0 empty=1 version=0 text=[]"), std::string::npos) << alone.Out;

  // Beside the library every entry is bound, and the version id and text describe the
  // same release (major*10000 + minor*100 + patch).
  EXPECT_EQ(CountSetEntries(), 22);
  const int id = TSoundTouch::GetVersionId();
  ASSERT_GT(id, 10000);
  const std::string fromId = kl::Format("%d.%d.%d", id / 10000, id / 100 % 100, id % 100);
  EXPECT_EQ(TSoundTouch::GetVersionString().substr(0, fromId.size()), fromId);
}

TEST(SoundTouch, StartsAt44100MonoAndTellsTheLibraryOnlyOfChanges) {
  TCountingSoundTouch st;
  ASSERT_NE(st.Handle(), nullptr);
  EXPECT_EQ(st.GetSampleRate(), 44100.0f);
  EXPECT_EQ(st.GetChannels(), 1u);
  EXPECT_EQ(st.GetTempo(), 1.0f);
  EXPECT_EQ(st.GetRate(), 1.0f);
  EXPECT_EQ(st.GetPitch(), 1.0f);

  GTempoCalls = 0;
  TEntrySwap<TSoundTouchSetTempo> swap(SoundTouchSetTempo, &CountingSetTempo);
  st.SetTempo(1.0f);
  st.SetRate(1.0f);
  st.SetPitch(1.0f);
  st.SetSampleRate(44100.0f);
  st.SetChannels(1);
  EXPECT_EQ(st.Tempo + st.Rate + st.Pitch + st.SampleRate + st.Channels, 0);
  EXPECT_EQ(GTempoCalls, 0);

  st.SetTempo(1.25f);
  st.SetTempo(1.25f);
  EXPECT_EQ(st.Tempo, 1);
  EXPECT_EQ(GTempoCalls, 1);
  EXPECT_EQ(GLastTempo, 1.25f);
  st.SetRate(0.5f);
  st.SetPitch(2.0f);
  st.SetChannels(2);
  st.SetSampleRate(22050.0f);
  EXPECT_EQ(st.Rate, 1);
  EXPECT_EQ(st.Pitch, 1);
  EXPECT_EQ(st.Channels, 1);
  EXPECT_EQ(st.SampleRate, 1);
}

TEST(SoundTouch, PercentFormsGoThroughThePlainValues) {
  GPercentCalls = 0;
  TEntrySwap<TSoundTouchSetTempoChange> s1(SoundTouchSetTempoChange, &CountingPercent);
  TEntrySwap<TSoundTouchSetRateChange> s2(SoundTouchSetRateChange, &CountingPercent);
  TSoundTouch st;
  st.SetTempoChange(50);
  EXPECT_FLOAT_EQ(st.GetTempo(), 1.5f);
  EXPECT_FLOAT_EQ(st.GetTempoChange(), 50.0f);
  st.SetRateChange(-25);
  EXPECT_FLOAT_EQ(st.GetRate(), 0.75f);
  EXPECT_FLOAT_EQ(st.GetRateChange(), -25.0f);
  st.SetPitchChange(100);
  EXPECT_FLOAT_EQ(st.GetPitch(), 2.0f);
  EXPECT_FLOAT_EQ(st.GetPitchChange(), 100.0f);
  st.SetTempo(0.8f);
  EXPECT_NEAR(st.GetTempoChange(), -20.0f, 1e-4);
  EXPECT_EQ(GPercentCalls, 0);
}

TEST(SoundTouch, ChannelAndSampleRateChecksRaise) {
  TSoundTouch st;
  const auto raises = [](auto Call, const char* Message) {
    try {
      Call();
      ADD_FAILURE() << "no assertion: " << Message;
    } catch (const kl::EAssertionFailed& e) {
      EXPECT_EQ(e.Message(), Message);
    }
  };
  for (uint32_t channels : {0u, 3u}) raises([&] { st.SetChannels(channels); }, "Assertion failed (USoundTouchDLL, line 329)");
  for (float rate : {0.0f, -8000.0f}) raises([&] { st.SetSampleRate(rate); }, "Assertion failed (USoundTouchDLL, line 403)");
  // Valid values still reach a working instance afterwards.
  st.SetChannels(2);
  st.SetSampleRate(44100);
  const auto out = Process(st, ToneFloat(440, 44100, 44100, 2), 2);
  EXPECT_NEAR(static_cast<double>(out.size()) / 2, 44100, 44100 * 0.03);
}

TEST(SoundTouch, TempoChangesTheLengthAndPitchTheFrequency) {
  struct TCase {
    float Tempo, Pitch;
    uint32_t Channels;
    double Frames, Freq;  // of the output
  };
  for (const TCase& c : {TCase{1.5f, 1.0f, 2, 2 * 44100 / 1.5, 440}, TCase{1.0f, 2.0f, 1, 2 * 44100, 880}}) {
    SCOPED_TRACE(::testing::Message() << "tempo " << c.Tempo << " pitch " << c.Pitch);
    TSoundTouch st;  // mono, 44100 Hz from the start
    st.SetChannels(c.Channels);
    st.SetTempo(c.Tempo);
    st.SetPitch(c.Pitch);
    const int n = static_cast<int>(c.Channels);
    const auto out = Process(st, ToneFloat(440, 44100, 2 * 44100, n), n);
    EXPECT_NEAR(static_cast<double>(out.size()) / n, c.Frames, c.Frames * 0.03);
    // Every channel carries the tone.
    for (int ch = 0; ch < n; ++ch) EXPECT_NEAR(DominantFrequency(Channel(out, n, ch, 32768), 44100, 100, 2000), c.Freq, 4);
    if (c.Pitch == 1.0f) {  // the rate transposer behind a pitch change may keep a few
      EXPECT_TRUE(st.GetIsEmpty());
      EXPECT_EQ(st.GetNumSamples(), 0u);
    }
  }
}

TEST(SoundTouch, QueueClearAndSettings) {
  TSoundTouch st;
  const auto tone = ToneFloat(440, 44100, 44100, 1);
  EXPECT_TRUE(st.GetIsEmpty());
  st.PutSamples(tone.data(), 44100);
  EXPECT_GT(st.GetNumSamples() + st.GetNumUnprocessedSamples(), 0u);
  EXPECT_FALSE(st.GetIsEmpty());
  st.Clear();
  EXPECT_TRUE(st.GetIsEmpty());
  EXPECT_EQ(st.GetNumSamples(), 0u);
  EXPECT_EQ(st.GetNumUnprocessedSamples(), 0u);

  st.SetSetting(SETTING_USE_QUICKSEEK, 1);
  EXPECT_EQ(st.GetSetting(SETTING_USE_QUICKSEEK), 1);
  st.SetSetting(SETTING_USE_QUICKSEEK, 0);
  EXPECT_EQ(st.GetSetting(SETTING_USE_QUICKSEEK), 0);

  std::vector<float> buf(16);
  EXPECT_EQ(st.ReceiveSamples(buf.data(), -5), 0);
  EXPECT_EQ(st.ReceiveSamples(nullptr, 16), 0);
}
