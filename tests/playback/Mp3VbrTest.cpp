// Variable-bit-rate MP3 files as the common encoder presets write them, with and
// without the encoder's Xing frame, checked against ffmpeg's own decoding.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "PlaybackTestUtil.h"

using namespace kltest::playback;
using kl::USoundStreams::TMp3FileSoundStream;

namespace {

struct TCase {
  const char* Name;
  int Rate, Channels;
  bool Xing, NoiseFirst;  // NoiseFirst: the first frame is far above the average rate
};

// 3 s: half a second of noise or of a rising tone (faint by default), then the other
// (commas escaped for the filter graph).
std::string Encode(const kltest::TTempDir& Dir, const TCase& C, double Tone = 0.05) {
  const std::string noise = "0.5*(random(0)*2-1)", faint = kl::Format("%g*sin(2*PI*(300+200*t)*t)", Tone);
  const std::string expr = kl::Format("if(lt(t\\,0.5)\\,%s\\,%s)", C.NoiseFirst ? noise.c_str() : faint.c_str(),
                                      C.NoiseFirst ? faint.c_str() : noise.c_str());
  const std::string path = Dir / (std::string(C.Name) + ".mp3");
  const auto r = kltest::Ffmpeg(kl::Format("-f lavfi -i \"aevalsrc=%s:s=%d:d=3\" -ac %d -c:a libmp3lame -q:a 4 "
                                           "-id3v2_version 0 %s ",
                                           expr.c_str(), C.Rate, C.Channels, C.Xing ? "" : "-write_xing 0") +
                                kltest::Quote(path));
  EXPECT_EQ(0u, r.ExitCode) << r.Err;
  return path;
}

std::vector<int16_t> ReadAll(ISoundStream* S) { return Samples(ReadAllBytes(S, 17640)); }

const TCase kCases[] = {
    {"m1_stereo_noise_first", 44100, 2, false, true},
    {"m1_mono_faint_first_xing", 48000, 1, true, false},
    {"m2_stereo_faint_first", 22050, 2, false, false},
    {"m2_mono_noise_first_xing", 16000, 1, true, true},
};

}  // namespace

TEST(Mp3Vbr, LengthDecodingAndSeekFollowEveryFrame) {
  kltest::TTempDir dir;
  for (const TCase& c : kCases) {
    SCOPED_TRACE(c.Name);
    const std::string path = Encode(dir, c);
    const int spf = c.Rate >= 32000 ? 1152 : 576;
    // ffmpeg's duration: the sound frames its demuxer delivers (a Xing frame is none).
    const int64_t frames = static_cast<int64_t>(kltest::FfmpegPackets(path).size());
    ASSERT_GT(frames, 2 * c.Rate / spf);
    const std::vector<int16_t> theirs = Samples(kltest::FfmpegDecode(path));
    ASSERT_FALSE(theirs.empty());

    ComPtr<TMp3FileSoundStream> s = new TMp3FileSoundStream(path);
    EXPECT_EQ(c.Xing, s->Mp3Stream()->XingInfo().Present);
    if (c.Xing) {
      EXPECT_EQ(frames, s->Mp3Stream()->XingInfo().Frames);
    }
    const double frameMs = 1000.0 * spf / c.Rate;
    EXPECT_NEAR(s->GetLength(), frames * frameMs, frameMs + 1);

    // Sample for sample ffmpeg's decoding at one lag (the decoder's delay), and complete
    // up to a tenth of a second at the end.
    const std::vector<int16_t> ours = ReadAll(s.Get());
    const int64_t oursFrames = static_cast<int64_t>(ours.size()) / c.Channels;
    const TMatch m = Align(ours, c.Rate, c.Rate / 10, theirs, c.Channels, -2 * spf - 200, 0);
    EXPECT_LE(m.MaxDiff, 4);
    const int64_t from = -m.Lag + spf;
    const int64_t theirsFrames = static_cast<int64_t>(theirs.size()) / c.Channels;
    const TMatch whole =
        Align(ours, from, std::min(oursFrames, theirsFrames - m.Lag) - from, theirs, c.Channels, m.Lag, m.Lag);
    EXPECT_LE(whole.MaxDiff, 4);
    EXPECT_GE(oursFrames + m.Lag, theirsFrames - c.Rate / 10);

    // A seek to 90 %: from its first sample on, ffmpeg's decoding from the frame sought,
    // the same decoder lag behind.
    s->SetPosition(s->GetLength() * 9 / 10);
    EXPECT_NEAR(s->GetPosition(), s->GetLength() * 0.9, frameMs);
    const int64_t start = kl::Round(s->GetPosition() / frameMs) * spf;
    const std::vector<int16_t> after = ReadAll(s.Get());
    const TMatch at = Align(after, 0, spf, theirs, c.Channels, start + m.Lag - spf, start + m.Lag + spf);
    EXPECT_LE(at.MaxDiff, 4);
    EXPECT_EQ(start + m.Lag, at.Lag);

    s->SetPosition(1000000);
    EXPECT_EQ(s->Mp3Stream()->FramesToMilliseconds(static_cast<int32_t>(s->Mp3Stream()->Frames().size()) - 1),
              s->GetPosition());
  }
}

// The converter chain alone: a source whose first frame is large decodes whole while it
// is written, before any finish.
TEST(Mp3Vbr, ChainLeavesNoBacklogInTheDecoder) {
  kltest::TTempDir dir;
  const TCase& c = kCases[0];
  const std::string bytes = kltest::ReadFileBytes(Encode(dir, c));
  kl::UMp3::TMP3Info info{};
  ASSERT_TRUE(kl::UMp3::GetMP3Info(bytes.data(), static_cast<int32_t>(bytes.size()), info));
  kl::UMp3::TMP3WAVEFORMAT mp3{};
  WAVEFORMATEX pcm{};
  kl::UAudioConverter::InitMp3WaveFormat(44100, 2, info.BitRate, reinterpret_cast<WAVEFORMATEX*>(&mp3));
  kl::UAudioConverter::InitPcmWaveFormat(44100, 2, 16, &pcm);
  ComPtr<kl::USoundStreams::TMp3Buffer> sink = new kl::USoundStreams::TMp3Buffer();
  ComPtr<kl::UAudioConverter::TAudioConverter> chain = new kl::UAudioConverter::TAudioConverter();
  chain->SetInFormat(reinterpret_cast<WAVEFORMATEX*>(&mp3));
  chain->SetOutFormat(&pcm);
  chain->SetOutStream(sink.Get());
  for (size_t at = 0; at < bytes.size(); at += 4096) {
    ASSERT_TRUE(chain->Write(bytes.data() + at, static_cast<int32_t>(std::min<size_t>(4096, bytes.size() - at))));
  }
  // Every indexed frame but one the decoder may still be waiting to see whole.
  ComPtr<TMp3FileSoundStream> indexed = new TMp3FileSoundStream(dir / (std::string(c.Name) + ".mp3"));
  const int64_t frames = static_cast<int64_t>(indexed->Mp3Stream()->Frames().size());
  EXPECT_GE(sink->GetSizeToRead(), (frames - 1) * 1152 * 4);
  EXPECT_TRUE(chain->Finish());
}

// The player plays a variable-rate file to its very end, which lies inside a block:
// what is heard is what the stream decodes, and that is the whole file.
TEST(Mp3Vbr, PlayerPlaysTheWholeFile) {
  REQUIRE_CAPTURE();
  kltest::TTempDir dir;
  // A loud tone: the recording is matched frame by frame, and faint sound repeats.
  const std::string path = Encode(dir, kCases[0], 0.4);
  ComPtr<ISoundStream> mp3 = new TMp3FileSoundStream(path);
  const std::vector<TFrame> expected = Frames(ReadAllBytes(mp3.Get(), 17640));
  ASSERT_GT(expected.size(), 44100u * 29 / 10);
  ASSERT_NE(0u, expected.size() % 4410);
  kl::klMediaPlayer::TklMediaPlayer p;
  mp3 = new TMp3FileSoundStream(path);
  const TRun r = PlayToEnd(p, ComPtr<ISoundStream>(new kl::USoundStreams::TFinishingSoundStream(mp3.Get())).Get(), 10000);
  EXPECT_EQ(1, r.Finishes);
  const TPlayed played = Analyse(r.Captured, expected);
  ASSERT_FALSE(played.Segments.empty());
  // The decoder's first frames are near silence whose patterns recur: from the first run.
  EXPECT_LT(played.Segments[0].Start, 44100 / 10) << Describe(played);
  EXPECT_EQ("", InOrder(played, 0, played.Segments.size() - 1, played.Segments[0].Start,
                        static_cast<int64_t>(expected.size()), 44100));
}
