// TWAVFile.SaveAs between sample rates that are no whole multiples of each other (and
// some that are): the copy lasts as long as the source and a tone keeps its pitch.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "../tempo/ToneHelpers.h"
#include "Components.h"
#include "KlTest.h"

namespace tone = kltest::tempo;

TEST(WavRates, SaveAsKeepsDurationAndPitchFromAnyRate) {
  kltest::TTempDir dir;
  for (const int from : {8000, 16000, 32000, 96000}) {
    // 1.5 s of a 1 kHz tone, stereo. ffmpeg would write rates above 48000 as an extensible
    // format, so the file is written by the library from ffmpeg's raw samples.
    const std::string raw = dir / kl::Format("src%d.raw", from);
    ASSERT_EQ(0u, kltest::Ffmpeg(kl::Format("-f lavfi -i sine=frequency=1000:sample_rate=%d:duration=1.5 -ac 2 -f s16le ",
                                            from) +
                                 kltest::Quote(raw))
                      .ExitCode);
    const std::string samples = kltest::ReadFileBytes(raw);
    const std::string src = dir / kl::Format("src%d.wav", from);
    {
      kl::UWAV::TWAVFile w(src, 16, static_cast<uint32_t>(from), 2);
      w.AddData(samples.data(), static_cast<int32_t>(samples.size()));
      w.Save();
    }
    kl::UWAV::TWAVFile wav(src);
    for (const int to : {11025, 22050, 44100, 48000}) {
      SCOPED_TRACE(kl::Format("%d -> %d", from, to));
      const std::string out = dir / kl::Format("out%d_%d.wav", from, to);
      ASSERT_TRUE(wav.SaveAs(out, to, 16, true));
      kl::UWAV::TWAVFile copy(out);
      ASSERT_EQ(static_cast<DWORD>(to), copy.Format()->nSamplesPerSec);
      std::vector<int16_t> s(static_cast<size_t>(copy.GetDataSize() / 2));
      copy.GetData(0, copy.GetDataSize(), s.data());
      EXPECT_NEAR(static_cast<double>(s.size()), 1.5 * to, to / 10.0);
      const std::vector<double> x(s.begin() + to / 10, s.end() - to / 10);
      EXPECT_NEAR(tone::DominantFrequency(x, to, 950, 1050), 1000.0, 2.0);
    }
  }
}
