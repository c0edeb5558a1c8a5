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

// Runs Samples (interleaved) through St, in pieces as a player feeds it, and returns
// everything it gives back.
std::vector<float> Process(TSoundTouch& St, const std::vector<float>& Samples, int Channels) {
  std::vector<float> out, buf(4096 * Channels);
  const auto drain = [&] {
    for (int32_t got; (got = St.ReceiveSamples(buf.data(), 4096)) > 0;) {
      out.insert(out.end(), buf.begin(), buf.begin() + got * Channels);
    }
  };
  const uint32_t frames = static_cast<uint32_t>(Samples.size() / Channels);
  for (uint32_t at = 0; at < frames; at += 4410) {
    St.PutSamples(Samples.data() + static_cast<size_t>(at) * Channels, std::min<uint32_t>(4410, frames - at));
    drain();
  }
  St.Flush();
  drain();
  return out;
}

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

TEST(SoundTouch, ChannelAndSampleRateChecksRaiseAfterStoring) {
  TSoundTouch st;
  using kltest::ExpectRaises;
  for (uint32_t ch : {0u, 3u}) {
    ExpectRaises<kl::EAssertionFailed>([&] { st.SetChannels(ch); }, "Assertion failed (USoundTouchDLL, line 329)");
  }
  for (float rate : {0.0f, -8000.0f}) {
    ExpectRaises<kl::EAssertionFailed>([&] { st.SetSampleRate(rate); }, "Assertion failed (USoundTouchDLL, line 403)");
  }
  EXPECT_EQ(st.GetChannels(), 3u);
  EXPECT_EQ(st.GetSampleRate(), -8000.0f);
  // Valid values still reach a working instance afterwards.
  st.SetChannels(2);
  st.SetSampleRate(44100);
  EXPECT_NEAR(Process(st, ToneFloat(440, 44100, 44100, 2), 2).size() / 2.0, 44100, 44100 * 0.03);
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

TEST(SoundTouch, QueueClearSettingsAndPercentForms) {
  TSoundTouch pc;
  pc.SetTempoChange(50);
  pc.SetRateChange(-25);
  pc.SetPitchChange(100);
  EXPECT_EQ(std::vector<float>({pc.GetTempo(), pc.GetRate(), pc.GetPitch()}), std::vector<float>({1.5f, 0.75f, 2}));
  TSoundTouch st;
  const auto tone = ToneFloat(440, 44100, 44100, 1);
  st.PutSamples(tone.data(), 44100);
  EXPECT_FALSE(st.GetIsEmpty());
  st.Clear();
  EXPECT_TRUE(st.GetIsEmpty());
  EXPECT_EQ(st.GetNumUnprocessedSamples(), 0u);
  EXPECT_EQ(st.GetSetting(SETTING_USE_QUICKSEEK), 0);
  st.SetSetting(SETTING_USE_QUICKSEEK, 1);
  EXPECT_EQ(st.GetSetting(SETTING_USE_QUICKSEEK), 1);
  std::vector<float> buf(16);
  EXPECT_EQ(st.ReceiveSamples(buf.data(), -5), 0);
  EXPECT_EQ(st.ReceiveSamples(nullptr, 16), 0);
}
