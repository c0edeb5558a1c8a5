// Wave-format helpers and the compression-manager stage: resampling and remixing PCM,
// decoding MP3 made by ffmpeg.exe, the failure paths of what the platform cannot do,
// and absurd formats.
#include <cstdio>

#include "ConversionTestUtil.h"
#include "formats/UMp3.h"

using namespace kltest::conv;
using kl::ComPtr;
using kltest::TTempDir;

TEST(WaveFormats, RecordsAndMatches) {
  WAVEFORMATEX* f = nullptr;
  CreatePcmWaveFormat(44100, 2, 16, f);
  ASSERT_NE(f, nullptr);
  EXPECT_EQ(std::vector<int>({f->wFormatTag, f->nBlockAlign, static_cast<int>(f->nAvgBytesPerSec), f->cbSize}),
            std::vector<int>({1, 4, 176400, 0}));
  EXPECT_EQ(GetWaveFormatSize(f), 18u);
  std::free(f);
  EXPECT_EQ(GetWaveFormatSize(nullptr), 0u);
  InitPcmWaveFormat(44100, 2, 16, nullptr);

  CreateMp3WaveFormat(44100, 2, 128, f);
  ASSERT_NE(f, nullptr);
  const auto* m = reinterpret_cast<const MPEGLAYER3WAVEFORMAT*>(f);
  EXPECT_EQ(std::vector<int>({f->wFormatTag, static_cast<int>(f->nAvgBytesPerSec), f->nBlockAlign,
                              f->wBitsPerSample, f->cbSize, m->wID, static_cast<int>(m->fdwFlags), m->nBlockSize,
                              m->nFramesPerBlock, m->nCodecDelay}),
            std::vector<int>({85, 16000, 1, 0, 12, 1, 0, 418, 1, 1393}));
  EXPECT_EQ(GetWaveFormatSize(f), 30u);
  // The same in bit/s; and a rate of 0 must not divide by zero.
  InitMp3WaveFormat(22050, 1, 64000, f);
  EXPECT_EQ(m->nBlockSize, 144 * 64000 / 22050 + 1);
  InitMp3WaveFormat(0, 1, 64, f);
  std::free(f);
  InitMp3WaveFormat(44100, 2, 128, nullptr);

  for (const auto& [kbits, rate] : std::vector<std::pair<int, int>>{
           {128, 44100}, {32, 8000}, {64, 22050}, {32001, 22050}, {320000, 44100}}) {
    EXPECT_EQ(GetPreferedSamplePerSec(kbits), rate) << kbits;
  }
  EXPECT_TRUE(IsFloatFormat(W(Float32(44100, 2))));
  EXPECT_FALSE(IsFloatFormat(W(Pcm(44100, 2, 32))));
  EXPECT_FALSE(IsFloatFormat(nullptr));
  EXPECT_EQ(AcmErrorText(0), "");
  EXPECT_EQ(AcmErrorText(512), "The requested operation cannot be performed");
  EXPECT_EQ(AcmErrorText(11), "At least one parameter is invalid");
  EXPECT_EQ(AcmErrorText(514), "The stream header specified in pash is currently not prepared");
  EXPECT_EQ(AcmErrorText(999), "Unknown error");

  // The nearest format the codecs offer: 44100 x 3 x 2 bytes lies nearest to 24-bit
  // stereo; an odd rate moves to an offered one.
  struct TCase {
    std::vector<uint8_t> Format;
    uint32_t Avg, Rate;
  };
  for (auto& c : std::vector<TCase>{{Pcm(44100, 3), 264600, 44100}, {Pcm(22050, 1), 44100, 22050},
                                    {Pcm(44000, 2), 176400, 44100}}) {
    ASSERT_TRUE(FindMatchFormat(reinterpret_cast<WAVEFORMATEX*>(c.Format.data()))) << c.Avg;
    EXPECT_LE(W(c.Format)->nChannels, 2);
    EXPECT_EQ(W(c.Format)->nAvgBytesPerSec, c.Avg);
    EXPECT_EQ(W(c.Format)->nSamplesPerSec, c.Rate);
  }
  // Nothing offers MP3 formats here.
  auto mp3 = Mp3(44100, 2, 128);
  EXPECT_FALSE(FindMatchFormat(reinterpret_cast<WAVEFORMATEX*>(mp3.data())));
  EXPECT_FALSE(FindMatchFormat(nullptr));
}

TEST(AcmConverter, ShortWriteWaitsForFinishWhichFinishesTheSinkFirst) {
  auto sink = MakeSink();
  auto a = MakeConverter<TAcmConverter>(Pcm(22050, 1), Pcm(44100, 2), sink.Get());
  const auto tone = kltest::tempo::Tone16(1000, 22050, 1000, 1);
  ASSERT_TRUE(a->Write(tone.data(), 2000));
  EXPECT_TRUE(a->IsOpen());
  EXPECT_EQ(a->GetSrcSize(), 4410u);
  EXPECT_EQ(a->GetDstSize(), 17640u);
  EXPECT_EQ(sink->Writes, 0);
  EXPECT_EQ(a->GetQueued(), 2000);
  ASSERT_TRUE(a->Finish());
  EXPECT_FALSE(a->IsOpen());
  EXPECT_EQ(a->GetQueued(), 0);
  EXPECT_EQ(sink->FinishCount, 1);
  // The last block arrives after the sink was told that no more data follows.
  EXPECT_EQ(sink->BytesAfterFinish, static_cast<int>(sink->Bytes.size()));
  EXPECT_NEAR(static_cast<double>(sink->Bytes.size()), 8000.0, 64.0);
  EXPECT_FALSE(a->Finish());

  // A write after Finish opens a fresh stream.
  ASSERT_TRUE(a->Write(tone.data(), 2000));
  EXPECT_TRUE(a->IsOpen());
  EXPECT_TRUE(a->Finish());
}

TEST(AcmConverter, PcmMono22050ToStereo44100KeepsLengthAndTone) {
  auto sink = MakeSink();
  auto c = MakeConverter(Pcm(22050, 1), Pcm(44100, 2), sink.Get());
  const int frames = 22050 * 3 + 777;
  const auto tone = kltest::tempo::Tone16(1000, 22050, frames, 1);
  ASSERT_TRUE(WriteInPieces(c.Get(), std::string(reinterpret_cast<const char*>(tone.data()), tone.size() * 2), 2002));
  ASSERT_EQ(c->GetSubConverterCount(), 1);
  ASSERT_TRUE(c->Finish());
  const auto out = AsSamples16(sink->Bytes);
  const double outFrames = out.size() / 2.0;
  EXPECT_NEAR(outFrames, frames * 2.0, 64.0);
  const auto left = kltest::tempo::Channel(out, 2, 0);
  const auto right = kltest::tempo::Channel(out, 2, 1);
  EXPECT_EQ(left, right);
  EXPECT_NEAR(kltest::tempo::DominantFrequency(left, 44100, 500, 2000), 1000.0, 2.0);
  // The level is kept too.
  double peak = 0;
  for (double x : left) peak = std::max(peak, std::fabs(x));
  EXPECT_NEAR(peak, 16000.0, 800.0);
}

TEST(AcmConverter, Mp3DecodesLikeFfmpeg) {
  TTempDir dir;
  const std::string mp3 = MakeMp3Frames(dir, "tones.mp3", 44100, 3, 128);
  ASSERT_FALSE(mp3.empty());
  kl::UMp3::TMP3Info info{};
  ASSERT_TRUE(kl::UMp3::GetMP3Info(mp3.data(), static_cast<int32_t>(mp3.size()), info));
  ASSERT_EQ(info.Offset, 0);
  ASSERT_EQ(info.Channels, 2);

  auto sink = MakeSink();
  auto c = MakeConverter(Mp3(info.SampleRate, static_cast<uint16_t>(info.Channels), info.BitRate),
                         Pcm(info.SampleRate, 2), sink.Get());
  ASSERT_TRUE(WriteInPieces(c.Get(), mp3, 3000));
  ASSERT_EQ(c->GetSubConverterCount(), 1);
  ASSERT_TRUE(c->Finish());

  const auto ours = AsSamples16(sink->Bytes);
  const auto theirs = AsSamples16(FfmpegDecode(dir, dir / "tones.mp3", 44100, 2));
  ASSERT_FALSE(theirs.empty());
  const double frameSamples = 1152 * 2;
  EXPECT_NEAR(static_cast<double>(ours.size()), static_cast<double>(theirs.size()), frameSamples);

  // The decoder starts a fixed distance later; find it, then compare both channels.
  for (int ch = 0; ch < 2; ++ch) {
    const auto a = kltest::tempo::Channel(ours, 2, ch);
    const auto b = kltest::tempo::Channel(theirs, 2, ch);
    size_t bestLag = 0;
    double best = -2;
    for (size_t lag = 0; lag < 2400; ++lag) {
      const double r = Correlation(b, std::vector<double>(a.begin(), a.begin() + std::min<size_t>(a.size(), 20000)),
                                   lag);
      if (r > best) {
        best = r;
        bestLag = lag;
      }
    }
    const double whole = Correlation(b, a, bestLag);
    EXPECT_GT(whole, 0.99) << "channel " << ch << " lag " << bestLag;
    // Beyond the shape, the values themselves agree closely.
    double worst = 0;
    for (size_t i = 0; i + bestLag < b.size() && i < a.size(); ++i) {
      worst = std::max(worst, std::fabs(b[i + bestLag] - a[i]));
    }
    EXPECT_LE(worst, 4.0) << "channel " << ch;
    std::printf("channel %d: lag %zu, correlation %.5f, largest difference %.0f, %zu vs %zu samples\n", ch, bestLag,
                whole, worst, a.size(), b.size());
  }
}

TEST(AcmConverter, Mp3ToOtherRateAndChannelsTakesTwoStages) {
  TTempDir dir;
  const std::string mp3 = MakeMp3Frames(dir, "two.mp3", 44100, 3, 128);
  ASSERT_FALSE(mp3.empty());
  auto sink = MakeSink();
  auto c = MakeConverter(Mp3(44100, 2, 128), Pcm(22050, 1), sink.Get());
  ASSERT_TRUE(WriteInPieces(c.Get(), mp3, 5000));
  ASSERT_EQ(c->GetSubConverterCount(), 2);
  ASSERT_TRUE(c->Finish());
  const auto out = AsSamples16(sink->Bytes);
  const auto theirs = AsSamples16(FfmpegDecode(dir, dir / "two.mp3", 22050, 1));
  ASSERT_FALSE(theirs.empty());
  // The first stage's last block reaches the second after that one was finished: it
  // is queued there and never converted, so up to two tenths of a second go missing.
  EXPECT_LE(out.size(), theirs.size() + 64);
  EXPECT_GE(out.size() + 4410, theirs.size());
  const std::vector<double> x(out.begin(), out.end());
  EXPECT_NEAR(kltest::tempo::DominantFrequency(x, 22050, 300, 1500), 440.0, 2.0);
  EXPECT_GT(kltest::tempo::PowerAt(x, 22050, 660), 100 * kltest::tempo::PowerAt(x, 22050, 900));
}

TEST(AcmConverter, Mp3StageCannotResampleItself) {
  TBoxRecorder boxes;
  auto sink = MakeSink();
  auto a = MakeConverter<TAcmConverter>(Mp3(44100, 2, 128), Pcm(22050, 1), sink.Get());
  char data[1000] = {};
  EXPECT_FALSE(a->Write(data, sizeof data));
  EXPECT_EQ(a->LastError(), "acmStreamOpen ERROR: The requested operation cannot be performed");
  ASSERT_EQ(boxes.Boxes.size(), 1u);
  EXPECT_EQ(boxes.Boxes[0].Text, "acmStreamOpen error");
  EXPECT_EQ(boxes.Boxes[0].Caption, "");
  EXPECT_FALSE(a->IsOpen());
}

TEST(AcmConverter, EncodingToMp3FailsCleanly) {
  TBoxRecorder boxes;
  auto sink = MakeSink();
  auto c = MakeConverter(Pcm(44100, 2), Mp3(44100, 2, 128), sink.Get());
  const auto tone = kltest::tempo::Tone16(440, 44100, 44100, 2);
  // Less than a tenth of a second stays in the first stage.
  EXPECT_TRUE(c->Write(tone.data(), 1000));
  EXPECT_TRUE(boxes.Boxes.empty());
  EXPECT_FALSE(c->Write(tone.data(), static_cast<int32_t>(tone.size() * 2)));
  EXPECT_EQ(c->LastError(), "TAudioConverter.Write: ERROR on write");
  ASSERT_EQ(c->GetSubConverterCount(), 2);
  EXPECT_EQ(c->GetSubConverter(0)->LastError(), "TAcmConverter.Convert: Next.Write error");
  EXPECT_EQ(c->GetSubConverter(1)->LastError(), "acmFormatSuggest error");
  ASSERT_GE(boxes.Boxes.size(), 1u);
  EXPECT_EQ(boxes.Boxes[0].Text, "acmFormatSuggest error");
  EXPECT_EQ(boxes.Boxes[0].Caption, "");
  EXPECT_EQ(sink->Writes, 0);
  const std::string log = kltest::ReadFileBytes(GetConverterLogFileName());
  EXPECT_NE(log.find("\r\nacmFormatSuggest error\r\n"), std::string::npos);
  EXPECT_NE(log.find("\r\nTAudioConverter.Write: ERROR on write\r\n"), std::string::npos);
  EXPECT_NE(log.find("\r\nConvert ERROR\r\n"), std::string::npos);
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
  }
  {
    // Two compressed formats cannot be joined by one stream.
    auto a = MakeConverter<TAcmConverter>(Mp3(44100, 2, 128), Mp3(44100, 2, 128), nullptr);
    char b[500] = {};
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
  const auto tone = kltest::tempo::Tone16(440, 44100, 44100, 2);
  for (size_t i = 0; i < absurd.size(); ++i) {
    for (int asInput = 0; asInput < 2; ++asInput) {
      auto sink = MakeSink();
      auto c = MakeConverter(asInput ? absurd[i] : Pcm(44100, 2), asInput ? Pcm(44100, 2) : absurd[i], sink.Get());
      bool ok = true;
      for (int k = 0; k < 3; ++k) ok = c->Write(tone.data(), static_cast<int32_t>(tone.size() * 2)) && ok;
      c->Finish();
      // Refused, or (an output the codecs can be matched to) converted to that.
      if (asInput && i == 2) {
        // Seven channels are a real layout: the codec mixes them down to two.
        EXPECT_TRUE(ok);
        EXPECT_NEAR(static_cast<double>(sink->Bytes.size()), 3 * tone.size() * 2 / 21 * 4.0, 64.0);
      } else if (asInput) {
        EXPECT_FALSE(ok) << "format " << i;
      }
      if (ok) {
        EXPECT_GT(sink->Bytes.size(), 0u) << "format " << i;
      } else {
        EXPECT_FALSE(c->LastError().empty());
      }
    }
  }
}
