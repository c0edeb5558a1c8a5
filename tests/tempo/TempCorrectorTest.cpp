// The tempo corrector of the media player unit, over real buffers and its real debug file.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "Components.h"
#include "KlTest.h"
#include "ToneHelpers.h"

using kl::klMediaPlayer::TTempCorrector;
using kltest::tempo::Tone16;

namespace {

const char* const DEBUG_WAV = "c:\\debug.wav";

// Gives the corrector its format, as the player copies it in, then the tempo.
void Prepare(TTempCorrector& C, uint32_t Rate, float Tempo, uint16_t Channels = 1) {
  WAVEFORMATEX f{};
  f.wFormatTag = WAVE_FORMAT_PCM;
  f.nChannels = Channels;
  f.nSamplesPerSec = Rate;
  f.wBitsPerSample = 16;
  f.nBlockAlign = static_cast<WORD>(2 * Channels);
  f.nAvgBytesPerSec = Rate * f.nBlockAlign;
  C.SetFormat(&f);
  C.Init(Tempo);
}

int32_t Correct(TTempCorrector& C, std::vector<int16_t>& V) {
  const int32_t size = C.Correct(V.data(), static_cast<int32_t>(V.size() * 2));
  V.resize(static_cast<size_t>(size) / 2);
  return size;
}

std::vector<int16_t> Ramp(size_t Count, int First = 0) {
  std::vector<int16_t> v(Count);
  for (size_t i = 0; i < Count; ++i) v[i] = static_cast<int16_t>(First + static_cast<int>(i));
  return v;
}

// What a block of In keeps: its first Head values and, after the splice, its last
// Keep - Head values.
std::vector<int16_t> Spliced(const std::vector<int16_t>& In, size_t Block, size_t Len, size_t Head, size_t Keep) {
  std::vector<int16_t> r(In.begin() + Block, In.begin() + Block + Head);
  r.insert(r.end(), In.begin() + Block + Len - (Keep - Head), In.begin() + Block + Len);
  return r;
}

// The sample data of the debug file, once the corrector that wrote it is gone.
std::vector<int16_t> DebugFileValues(WAVEFORMATEX* Format = nullptr) {
  kl::UWAV::TWAVFile wav(DEBUG_WAV);
  if (Format != nullptr && wav.Format() != nullptr) std::memcpy(Format, wav.Format(), sizeof(WAVEFORMAT) + 2);
  std::vector<int16_t> v(static_cast<size_t>(wav.GetDataSize()) / 2);
  if (!v.empty()) wav.GetData(0, static_cast<int32_t>(v.size() * 2), v.data());
  return v;
}

}  // namespace

TEST(TempCorrector, SpliceGoesWhereBothSidesAreClosest) {
  TTempCorrector c;
  Prepare(c, 44100, 2.0f);
  // Keep 2205: Half 1102, Rest 1103, Span 220. The left side of the cut reads
  // value[1102 + d], the right side value[3307 + d].
  std::vector<int16_t> v(4410, 0);
  for (int d = -220; d <= 220; ++d) v[3307 + d] = 20000;
  v[3307 - 150] = v[3307 + 100] = 5;  // close pairs
  v[3307 + 60] = -2;                   // the closest pair
  const auto in = v;
  EXPECT_EQ(Correct(c, v), 4410);
  // Cut = 1102 + 60 = 1162 head values, then the tail from value[3367].
  EXPECT_EQ(v, Spliced(in, 0, 4410, 1162, 2205));
  EXPECT_EQ(v[1162], -2);
}

TEST(TempCorrector, TempoOneAndAHalfKeepsTwoThirdsWithRunningTotals) {
  TTempCorrector c;
  Prepare(c, 44100, 1.5f);
  auto v = Ramp(4410);
  EXPECT_EQ(Correct(c, v), 2940 * 2);
  EXPECT_EQ(Correct(c, v = Ramp(4410, 5000)), 2940 * 2);
  EXPECT_EQ(std::make_tuple(c.GetInCount(), c.GetOutCount()), std::make_tuple(8820, 5880));

  // At 22050 Hz a block of 2205 values should keep 1102.5: the halves go to the even
  // neighbour and the running totals make up the difference in the next block.
  TTempCorrector h;
  Prepare(h, 22050, 2.0f);
  for (int32_t expected : {2204, 2206, 2204, 2206}) EXPECT_EQ(Correct(h, v = Ramp(2205)), expected);
  EXPECT_EQ(h.GetOutCount(), 4410);

  // Init(0) restarts the counting and keeps the tempo.
  h.Init(0);
  EXPECT_EQ(std::make_tuple(h.GetTempo(), h.GetInCount(), h.GetOutCount()), std::make_tuple(2.0f, 0, 0));
  EXPECT_EQ(Correct(h, v = Ramp(2205)), 2204);
  // A negative tempo changes nothing at all, not even the counters.
  h.Init(-1);
  EXPECT_EQ(h.GetTempo(), 2.0f);
  EXPECT_EQ(h.GetOutCount(), 1102);
}

TEST(TempCorrector, OutOfRangeTemposAndBadArgumentsLeaveDataAlone) {
  const auto in = Tone16(440, 44100, 8820, 1);
  // Tempo 1 (the start), 0.5, 6, and -1 on a fresh corrector (still 1).
  for (float tempo : {0.5f, 6.0f, -1.0f}) {
    TTempCorrector c;
    Prepare(c, 44100, tempo);
    auto v = in;
    EXPECT_EQ(c.Correct(v.data(), 17640), 17640) << tempo;
    EXPECT_EQ(v, in) << tempo;
  }
  TTempCorrector c;
  Prepare(c, 44100, 5.0f);  // the top of the range still works
  auto v = in;
  EXPECT_EQ(c.Correct(v.data(), 17640), 2 * 2 * 882);
  EXPECT_EQ(c.Correct(nullptr, 17640), 17640);
  EXPECT_EQ(c.Correct(v.data(), -4), -4);
  // Whole blocks only: what is left over, and a last odd byte, are dropped.
  EXPECT_EQ(c.Correct(v.data(), 4409 * 2), 0);
  auto w = Ramp(8820 + 51);
  EXPECT_EQ(c.Correct(w.data(), static_cast<int32_t>(w.size() * 2) - 1), 2 * 2 * 882);

  // Before the owner copies a format in there is no block length: nothing is touched.
  TTempCorrector noFormat;
  noFormat.Init(2.0f);
  w = in;
  EXPECT_EQ(noFormat.Correct(w.data(), 17640), 17640);
  EXPECT_EQ(w, in);
}

TEST(TempCorrector, DebugFileHoldsEverythingProducedAsMono44100) {
  kl::RemoveFile(DEBUG_WAV);
  std::vector<int16_t> produced;
  {
    TTempCorrector c;
    Prepare(c, 22050, 2.0f, 2);  // the debug file ignores the real format
    auto a = Ramp(4410, -3000);
    Correct(c, a);
    auto shortOne = Ramp(100);
    EXPECT_EQ(c.Correct(shortOne.data(), 200), 0);
    auto b = Ramp(2205, 7000);
    Correct(c, b);
    produced = a;
    produced.insert(produced.end(), b.begin(), b.end());
  }
  ASSERT_TRUE(kl::FileExists(DEBUG_WAV));
  WAVEFORMATEX f{};
  const auto values = DebugFileValues(&f);
  EXPECT_EQ(std::vector<uint32_t>({f.wFormatTag, f.nChannels, f.nSamplesPerSec, f.wBitsPerSample}),
            std::vector<uint32_t>({WAVE_FORMAT_PCM, 1, 44100, 16}));
  EXPECT_EQ(values, produced);

  // A corrector that produced nothing leaves an empty but valid file.
  { TTempCorrector idle; }
  EXPECT_TRUE(DebugFileValues().empty());

  // Two correctors at once share one file name; both keep working.
  {
    TTempCorrector first, second;
    for (TTempCorrector* c : {&first, &second}) {
      Prepare(*c, 44100, 2.0f);
      auto v = Ramp(4410);
      EXPECT_EQ(Correct(*c, v), 4410);
    }
  }
  EXPECT_NO_THROW(DebugFileValues());
  kl::RemoveFile(DEBUG_WAV);
}
