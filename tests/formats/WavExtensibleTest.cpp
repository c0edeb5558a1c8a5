// WAV files that ffmpeg writes with an extensible format record (above 48000 Hz, more
// than two channels): PCM all the same, read, converted and resampled as PCM.
#include <gtest/gtest.h>

#include <string>

#include "Components.h"
#include "KlTest.h"

namespace {

using kl::UAudioConverter::TAudioConverter;

struct TBytesSink : kl::TInterfacedObject<kl::UAudioConverter::IWritable> {
  std::string Bytes;
  bool STDMETHODCALLTYPE Write(const void* Data, int32_t Size) override {
    Bytes.append(static_cast<const char*>(Data), static_cast<size_t>(Size));
    return true;
  }
  bool STDMETHODCALLTYPE Finish() override { return true; }
  bool STDMETHODCALLTYPE GetFinished() override { return true; }
};

std::string MakeTone(const kltest::TTempDir& Dir, const std::string& Name, int Rate, int Channels) {
  const std::string path = Dir / Name;
  const DWORD rc = kltest::Ffmpeg(kl::Format("-f lavfi -i sine=frequency=1000:sample_rate=%d:duration=1 -ac %d "
                                             "-c:a pcm_s16le ",
                                             Rate, Channels) +
                                  kltest::Quote(path))
                       .ExitCode;
  return rc == 0 ? path : std::string();
}

}  // namespace

TEST(WavExtensible, FfmpegFilesReadConvertAndResampleAsPcm) {
  kltest::TTempDir dir;
  for (const auto& [rate, channels] : {std::pair{96000, 2}, std::pair{48000, 6}}) {
    SCOPED_TRACE(kl::Format("%d Hz, %d channels", rate, channels));
    const std::string src = MakeTone(dir, kl::Format("x%d_%d.wav", rate, channels), rate, channels);
    ASSERT_FALSE(src.empty());
    kl::UWAV::TWAVFile wav(src);
    ASSERT_EQ(wav.Format()->wFormatTag, WAVE_FORMAT_EXTENSIBLE);
    EXPECT_TRUE(kl::UAudioConverter::IsPcmFormat(wav.Format()));
    EXPECT_FALSE(kl::UAudioConverter::IsFloatFormat(wav.Format()));
    EXPECT_EQ(wav.GetDataSize(), rate * channels * 2);
    // Players get the plain record, with no extra bytes promised.
    kl::ComPtr<kl::USoundStreams::TWavFileSoundStream> stream(new kl::USoundStreams::TWavFileSoundStream(src));
    const WAVEFORMATEX f = stream->GetWaveFormat();
    EXPECT_EQ(f.wFormatTag, WAVE_FORMAT_PCM);
    EXPECT_EQ(f.cbSize, 0);
    EXPECT_EQ(f.nChannels, channels);
    EXPECT_EQ(stream->GetLength(), 1000);

    const std::string out = dir / kl::Format("out%d.wav", rate);
    ASSERT_TRUE(wav.SaveAs(out, 44100, 16, true));
    kl::UWAV::TWAVFile copy(out);
    EXPECT_NEAR(copy.GetDataSize() / 2, 44100, 4410);

    // The chain to plain PCM of the same shape passes the samples through unchanged.
    kl::ComPtr<TBytesSink> sink(new TBytesSink());
    kl::ComPtr<TAudioConverter> chain(new TAudioConverter());
    chain->SetInFormat(wav.Format());
    chain->SetOutFormat(&f);
    chain->SetOutStream(sink.Get());
    std::string data(static_cast<size_t>(wav.GetDataSize()), '\0');
    wav.GetData(0, wav.GetDataSize(), data.data());
    ASSERT_TRUE(chain->Write(data.data(), static_cast<int32_t>(data.size())));
    EXPECT_EQ(chain->GetSubConverterCount(), 0);
    EXPECT_EQ(sink->Bytes, data);
  }
  // ConvertToPCM writes ffmpeg's own samples under a plain header.
  const std::string src = dir / "x96000_2.wav", plain = dir / "plain.wav", raw = dir / "x.raw";
  ASSERT_TRUE(kl::UWAV::TWAVFile(src).ConvertToPCM(plain));
  ASSERT_EQ(kltest::Ffmpeg("-i " + kltest::Quote(src) + " -f s16le " + kltest::Quote(raw)).ExitCode, 0u);
  kl::UWAV::TWAVFile pcm(plain);
  EXPECT_EQ(pcm.Format()->wFormatTag, WAVE_FORMAT_PCM);
  std::string got(static_cast<size_t>(pcm.GetDataSize()), '\0');
  pcm.GetData(0, pcm.GetDataSize(), got.data());
  EXPECT_TRUE(got == kltest::ReadFileBytes(raw));
}

TEST(WavExtensible, DamagedRecordsAreNotPcmAndSaveAsFails) {
  kltest::TTempDir dir;
  const std::string good = kltest::ReadFileBytes(MakeTone(dir, "x.wav", 96000, 2));
  const size_t fmt = good.find("fmt ");
  ASSERT_NE(fmt, std::string::npos);
  std::string small = good;  // cbSize 10: no room for the sub-format
  small[fmt + 8 + 16] = 10;
  // A "fmt " chunk cut to 18 bytes while cbSize still says 22.
  std::string cut = good.substr(0, fmt + 8 + 18) + good.substr(fmt + 8 + 40);
  cut[fmt + 4] = 18;
  for (const auto& bytes : {small, cut}) {
    const std::string path = dir / "bad.wav";
    ASSERT_TRUE(kltest::WriteFileBytes(path, bytes));
    kl::UWAV::TWAVFile wav(path);
    EXPECT_FALSE(kl::UAudioConverter::IsPcmFormat(wav.Format()));
    EXPECT_FALSE(wav.SaveAs(dir / "out.wav", 44100, 16, true));
  }
}
