// Wave-format helpers and the compression-manager stage: resampling and remixing PCM,
// decoding MP3 made by ffmpeg.exe, the failure paths of what the platform cannot do,
// and absurd formats.
#include <algorithm>
#include <cstdlib>
#include <tuple>

#include "ConversionTestUtil.h"

using namespace kltest::conv;
using kl::ComPtr;
using kltest::TTempDir;
namespace tone = kltest::tempo;

TEST(WaveFormats, SizesAndNearestOffered) {
  WAVEFORMATEX* f = nullptr;
  CreatePcmWaveFormat(44100, 2, 16, f);
  ASSERT_NE(f, nullptr);
  EXPECT_EQ(GetWaveFormatSize(f), 18u);
  std::free(f);
  CreateMp3WaveFormat(44100, 2, 128, f);
  ASSERT_NE(f, nullptr);
  EXPECT_EQ(GetWaveFormatSize(f), 30u);
  InitMp3WaveFormat(0, 1, 64, f);  // a rate of 0 must not divide by zero
  std::free(f);
  EXPECT_EQ(GetWaveFormatSize(nullptr), 0u);
  EXPECT_EQ(AcmErrorText(999), "Unknown error");

  // The nearest format the codecs offer: 44100 x 3 x 2 bytes lies nearest to 24-bit
  // stereo; an odd rate moves to an offered one.
  struct TCase {
    std::vector<uint8_t> Format;
    uint32_t Avg, Rate;
  };
  for (auto& c : std::vector<TCase>{{Pcm(44100, 3), 264600, 44100}, {Pcm(44000, 2), 176400, 44100}}) {
    ASSERT_TRUE(FindMatchFormat(reinterpret_cast<WAVEFORMATEX*>(c.Format.data()))) << c.Avg;
    EXPECT_LE(W(c.Format)->nChannels, 2);
    EXPECT_EQ(std::make_tuple(W(c.Format)->nAvgBytesPerSec, W(c.Format)->nSamplesPerSec),
              std::make_tuple(c.Avg, c.Rate));
  }
  // Nothing offers MP3 formats here.
  auto mp3 = Mp3(44100, 2, 128);
  EXPECT_FALSE(FindMatchFormat(reinterpret_cast<WAVEFORMATEX*>(mp3.data())));
  EXPECT_FALSE(FindMatchFormat(nullptr));
}

TEST(AcmConverter, PcmMonoToStereoQueuesShortWritesAndSendsTheLastBlockAfterFinish) {
  auto sink = MakeSink();
  auto a = MakeConverter<TAcmConverter>(Pcm(22050, 1), Pcm(44100, 2), sink.Get());
  const int frames = 22050 * 3 + 777;
  const std::string data = Bytes16(tone::Tone16(1000, 22050, frames, 1));
  // Less than a block (a tenth of a second) waits for more.
  ASSERT_TRUE(a->Write(data.data(), 2000));
  EXPECT_EQ(std::vector<int64_t>({a->IsOpen(), a->GetSrcSize(), a->GetDstSize(), sink->Writes, a->GetQueued()}),
            std::vector<int64_t>({1, 4410, 17640, 0, 2000}));
  ASSERT_TRUE(WriteInPieces(a.Get(), data.substr(2000), 2002));
  ASSERT_TRUE(a->Finish());
  EXPECT_EQ(std::vector<int64_t>({a->IsOpen(), a->GetQueued(), sink->FinishCount}), std::vector<int64_t>({0, 0, 1}));
  // The last, short block reaches the sink after it was told that no more data follows.
  EXPECT_NEAR(sink->BytesAfterFinish, (data.size() % 4410) * 4.0, 64.0);
  EXPECT_FALSE(a->Finish());

  const auto out = AsSamples16(sink->Bytes);
  EXPECT_NEAR(out.size() / 2.0, frames * 2.0, 64.0);
  const auto left = tone::Channel(out, 2, 0);
  EXPECT_EQ(left, tone::Channel(out, 2, 1));
  EXPECT_NEAR(tone::DominantFrequency(left, 44100, 500, 2000), 1000.0, 2.0);
  EXPECT_NEAR(*std::max_element(left.begin(), left.end()), 16000.0, 800.0);

  // A write after Finish opens a fresh stream.
  ASSERT_TRUE(a->Write(data.data(), 2000));
  EXPECT_TRUE(a->IsOpen());
  EXPECT_TRUE(a->Finish());
}

TEST(AcmConverter, Mp3DecodesLikeFfmpegInOneOrTwoStages) {
  TTempDir dir;
  const std::string mp3 = MakeMp3Frames(dir, "tones.mp3", 44100, 3, 128);
  ASSERT_FALSE(mp3.empty());
  auto sink = MakeSink();
  auto c = MakeConverter(Mp3(44100, 2, 128), Pcm(44100, 2), sink.Get());
  ASSERT_TRUE(WriteInPieces(c.Get(), mp3, 3000));
  ASSERT_EQ(c->GetSubConverterCount(), 1);
  ASSERT_TRUE(c->Finish());

  const auto ours = AsSamples16(sink->Bytes);
  const auto theirs = AsSamples16(FfmpegDecode(dir, dir / "tones.mp3", 44100, 2));
  ASSERT_FALSE(theirs.empty());
  EXPECT_NEAR(static_cast<double>(ours.size()), static_cast<double>(theirs.size()), 1152 * 2);
  // The decoder starts a fixed number of frames later: find that lag on the start,
  // then every value of both channels agrees within rounding.
  const auto worstAt = [&](size_t Lag, size_t Count) {
    int worst = 0;
    for (size_t i = 0; i < Count && i < ours.size() && i + 2 * Lag < theirs.size(); ++i) {
      worst = std::max(worst, std::abs(theirs[i + 2 * Lag] - ours[i]));
    }
    return worst;
  };
  size_t lag = 0;
  for (size_t l = 1; l < 2400; ++l) {
    if (worstAt(l, 40000) < worstAt(lag, 40000)) lag = l;
  }
  EXPECT_LE(worstAt(lag, ours.size()), 4) << "lag " << lag;

  // To another rate and channel count takes a second stage.
  sink = MakeSink();
  c = MakeConverter(Mp3(44100, 2, 128), Pcm(22050, 1), sink.Get());
  ASSERT_TRUE(WriteInPieces(c.Get(), mp3, 5000));
  ASSERT_EQ(c->GetSubConverterCount(), 2);
  ASSERT_TRUE(c->Finish());
  const auto out = AsSamples16(sink->Bytes);
  const auto mono = AsSamples16(FfmpegDecode(dir, dir / "tones.mp3", 22050, 1));
  ASSERT_FALSE(mono.empty());
  // The first stage's last block reaches the second after that one was finished: it
  // is queued there and never converted, so up to two tenths of a second go missing.
  EXPECT_LE(out.size(), mono.size() + 64);
  EXPECT_GE(out.size() + 4410, mono.size());
  const std::vector<double> x(out.begin(), out.end());
  EXPECT_NEAR(tone::DominantFrequency(x, 22050, 300, 1500), 440.0, 2.0);
  EXPECT_GT(tone::PowerAt(x, 22050, 660), 100 * tone::PowerAt(x, 22050, 900));
}

TEST(AcmConverter, Mp3StageCannotResampleItself) {
  TBoxRecorder boxes;
  auto a = MakeConverter<TAcmConverter>(Mp3(44100, 2, 128), Pcm(22050, 1), MakeSink().Get());
  char data[1000] = {};
  EXPECT_FALSE(a->Write(data, sizeof data));
  EXPECT_EQ(a->LastError(), "acmStreamOpen ERROR: The requested operation cannot be performed");
  EXPECT_EQ(boxes.Boxes, TBoxRecorder::TBoxes({{"acmStreamOpen error", ""}}));
  EXPECT_FALSE(a->IsOpen());
}

TEST(AcmConverter, EncodingToMp3FailsCleanly) {
  TBoxRecorder boxes;
  auto sink = MakeSink();
  auto c = MakeConverter(Pcm(44100, 2), Mp3(44100, 2, 128), sink.Get());
  const auto pcm = tone::Tone16(440, 44100, 44100, 2);
  // Less than a tenth of a second stays in the first stage.
  EXPECT_TRUE(c->Write(pcm.data(), 1000));
  EXPECT_TRUE(boxes.Boxes.empty());
  EXPECT_FALSE(c->Write(pcm.data(), static_cast<int32_t>(pcm.size() * 2)));
  ASSERT_EQ(c->GetSubConverterCount(), 2);
  EXPECT_EQ(std::vector<std::string>(
                {c->LastError(), c->GetSubConverter(0)->LastError(), c->GetSubConverter(1)->LastError()}),
            std::vector<std::string>({"TAudioConverter.Write: ERROR on write",
                                      "TAcmConverter.Convert: Next.Write error", "acmFormatSuggest error"}));
  ASSERT_GE(boxes.Boxes.size(), 1u);
  EXPECT_EQ(boxes.Boxes[0], std::make_pair(std::string("acmFormatSuggest error"), std::string()));
  EXPECT_EQ(sink->Writes, 0);
  const std::string log = kltest::ReadFileBytes(GetConverterLogFileName());
  for (const char* line : {"acmFormatSuggest error", "TAudioConverter.Write: ERROR on write", "Convert ERROR"}) {
    EXPECT_NE(log.find(std::string("\r\n") + line + "\r\n"), std::string::npos) << line;
  }
  c->Finish();
}

TEST(AcmConverter, BadInputAndAbsurdFormats) {
  TBoxRecorder boxes;
  {
    ComPtr<TAcmConverter> a(new TAcmConverter());
    char b[8] = {};
    EXPECT_FALSE(a->Write(b, 8));
    EXPECT_EQ(a->LastError(), "TAcmConverter.Write: Format is not set");
    EXPECT_FALSE(a->Write(nullptr, 8));
    EXPECT_EQ(a->LastError(), "TAcmConverter.Write: Invalid params");
    EXPECT_FALSE(a->Write(b, -8));
    EXPECT_TRUE(a->Write(b, 0));
    EXPECT_TRUE(a->Finish());
    // Two compressed formats cannot be joined by one stream.
    a = MakeConverter<TAcmConverter>(Mp3(44100, 2, 128), Mp3(44100, 2, 128), nullptr);
    EXPECT_FALSE(a->Write(b, sizeof b));
  }
  auto zeroChannels = Pcm(44100, 1);
  reinterpret_cast<WAVEFORMATEX*>(zeroChannels.data())->nChannels = 0;
  auto bigExtra = Pcm(44100, 2);
  reinterpret_cast<WAVEFORMATEX*>(bigExtra.data())->wFormatTag = 2;
  reinterpret_cast<WAVEFORMATEX*>(bigExtra.data())->cbSize = 400;
  bigExtra.resize(18 + 400, 0xEE);
  const std::vector<std::vector<uint8_t>> absurd = {zeroChannels, Pcm(0, 2), Pcm(44100, 7, 24), bigExtra,
                                                     Pcm(44100, 2, 0)};
  const auto pcm = tone::Tone16(440, 44100, 44100, 2);
  for (size_t i = 0; i < absurd.size(); ++i) {
    for (int asInput = 0; asInput < 2; ++asInput) {
      auto sink = MakeSink();
      auto c = MakeConverter(asInput ? absurd[i] : Pcm(44100, 2), asInput ? Pcm(44100, 2) : absurd[i], sink.Get());
      bool ok = true;
      for (int k = 0; k < 3; ++k) ok = c->Write(pcm.data(), static_cast<int32_t>(pcm.size() * 2)) && ok;
      c->Finish();
      // Refused as input, except seven channels, a real layout the codec mixes down to
      // two; as output refused or matched to what the codecs offer and converted.
      if (asInput && i == 2) {
        EXPECT_TRUE(ok);
        EXPECT_NEAR(static_cast<double>(sink->Bytes.size()), 3 * pcm.size() * 2 / 21 * 4.0, 64.0);
      } else if (asInput) {
        EXPECT_FALSE(ok) << "format " << i;
      }
      EXPECT_TRUE(ok ? !sink->Bytes.empty() : !c->LastError().empty()) << "format " << i;
    }
  }
}
