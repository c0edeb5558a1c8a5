// WAV files that ffmpeg writes with an extensible format record (above 48000 Hz, more
// than two channels): PCM all the same, read, converted and resampled as PCM.
#include "../conversion/ConversionTestUtil.h"
#include "Components.h"

using namespace kltest::conv;

TEST(WavExtensible, FfmpegFilesReadConvertAndResampleAsPcm) {
  kltest::TTempDir dir;
  for (const auto& [rate, channels] : {std::pair{96000, 2}, std::pair{48000, 6}}) {
    SCOPED_TRACE(kl::Format("%d Hz, %d channels", rate, channels));
    const std::string src = dir / kl::Format("x%d.wav", channels);
    const std::string args = kl::Format("-f lavfi -i sine=sample_rate=%d:duration=1 -ac %d ", rate, channels);
    ASSERT_EQ(kltest::Ffmpeg(args + kltest::Quote(src)).ExitCode, 0u);
    kl::UWAV::TWAVFile wav(src);
    ASSERT_EQ(wav.Format()->wFormatTag, WAVE_FORMAT_EXTENSIBLE);
    // Players get the plain record, with no extra bytes promised.
    kl::ComPtr<kl::USoundStreams::TWavFileSoundStream> stream(new kl::USoundStreams::TWavFileSoundStream(src));
    const WAVEFORMATEX f = stream->GetWaveFormat();
    EXPECT_EQ(f.wFormatTag, WAVE_FORMAT_PCM);
    EXPECT_EQ(f.cbSize, 0);
    EXPECT_EQ(stream->GetLength(), 1000);
    ASSERT_TRUE(wav.SaveAs(dir / "out.wav", 44100, 16, true));
    EXPECT_NEAR(kl::UWAV::TWAVFile(dir / "out.wav").GetDataSize() / 2, 44100, 4410);
    // A chain to the plain record of the same shape passes the samples through.
    auto sink = MakeSink();
    std::string data(static_cast<size_t>(wav.GetDataSize()), '\0');
    wav.GetData(0, wav.GetDataSize(), data.data());
    kl::ComPtr<TAudioConverter> chain(new TAudioConverter());
    chain->SetInFormat(wav.Format());
    chain->SetOutFormat(&f);
    chain->SetOutStream(sink.Get());
    ASSERT_TRUE(chain->Write(data.data(), static_cast<int32_t>(data.size())));
    EXPECT_EQ(chain->GetSubConverterCount(), 0);
    EXPECT_TRUE(sink->Bytes == data);
  }
  // ConvertToPCM writes ffmpeg's own samples under a plain header.
  ASSERT_TRUE(kl::UWAV::TWAVFile(dir / "x2.wav").ConvertToPCM(dir / "plain.wav"));
  kl::UWAV::TWAVFile pcm(dir / "plain.wav");
  EXPECT_EQ(pcm.Format()->wFormatTag, WAVE_FORMAT_PCM);
  std::string got(static_cast<size_t>(pcm.GetDataSize()), '\0');
  pcm.GetData(0, pcm.GetDataSize(), got.data());
  EXPECT_TRUE(got == FfmpegDecode(dir, dir / "x2.wav", 96000, 2));
}

TEST(WavExtensible, DamagedRecordsAreNotPcmAndSaveAsFails) {
  kltest::TTempDir dir;
  const std::string args = "-f lavfi -i sine=sample_rate=96000:duration=0.2 -ac 2 ";
  ASSERT_EQ(kltest::Ffmpeg(args + kltest::Quote(dir / "x.wav")).ExitCode, 0u);
  const std::string good = kltest::ReadFileBytes(dir / "x.wav");
  const size_t fmt = good.find("fmt ");
  ASSERT_NE(fmt, std::string::npos);
  std::string small = good;  // cbSize 10: no room for the sub-format
  small[fmt + 8 + 16] = 10;
  // A "fmt " chunk cut to 18 bytes while cbSize still says 22.
  std::string cut = good.substr(0, fmt + 8 + 18) + good.substr(fmt + 8 + 40);
  cut[fmt + 4] = 18;
  for (const auto& bytes : {small, cut}) {
    ASSERT_TRUE(kltest::WriteFileBytes(dir / "bad.wav", bytes));
    kl::UWAV::TWAVFile wav(dir / "bad.wav");
    EXPECT_FALSE(kl::UAudioConverter::IsPcmFormat(wav.Format()));
    EXPECT_FALSE(wav.SaveAs(dir / "out.wav", 44100, 16, true));
  }
}
