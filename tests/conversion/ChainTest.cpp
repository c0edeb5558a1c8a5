// The converter chain: float to PCM values, pass-through, the stages built for each
// shape of conversion, Finish propagation, bad input and the unit's own log.
#include <regex>

#include "ConversionTestUtil.h"

using namespace kltest::conv;
using kl::ComPtr;

namespace {

std::vector<std::string> StageKinds(TAudioConverter& C) {
  std::vector<std::string> r;
  for (int i = 0; i < C.GetSubConverterCount(); ++i) r.push_back(C.GetSubConverter(i)->ClassName());
  return r;
}

// Builds the chain for In -> Out with one write of silence and returns the stages.
std::vector<std::string> ChainFor(const std::vector<uint8_t>& In, const std::vector<uint8_t>& Out) {
  TBoxRecorder boxes;
  auto sink = MakeSink();
  auto c = MakeConverter(In, Out, sink.Get());
  std::vector<uint8_t> silence(4096, 0);
  c->Write(silence.data(), static_cast<int32_t>(silence.size()));
  return StageKinds(*c.Get());
}

const std::vector<float> kHalves(64, 0.5f);  // 32 stereo frames

}  // namespace

TEST(FloatToPcm, RoundsHalvesToEvenAndClamps) {
  auto sink = MakeSink();
  auto c = MakeConverter(Float32(44100, 2), Pcm(44100, 2), sink.Get());
  const float nan = std::nanf("");
  const std::vector<float> samples = {0.5f, 1.5f, -1.5f, 1.0f, -1.0f, 0.0f, 2.5f / 32767, -2.5f / 32767,
                                      nan,  -0.5f};
  ASSERT_TRUE(c->Write(samples.data(), static_cast<int32_t>(samples.size() * 4)));
  EXPECT_EQ(StageKinds(*c.Get()), std::vector<std::string>{"TFloatToPcmConverter"});
  const auto pcm = AsSamples16(sink->Bytes);
  EXPECT_EQ(pcm, (std::vector<int16_t>{16384, 32767, -32768, 32767, -32767, 0, 2, -2, 0, -16384}));
}

TEST(FloatToPcm, OutputFollowsInputAndPartialFramesAreDropped) {
  auto sink = MakeSink();
  ComPtr<TFloatToPcmConverter> f(new TFloatToPcmConverter());
  EXPECT_FALSE(f->SetInFormat(W(Pcm(44100, 2))));
  EXPECT_EQ(f->GetInFormat(), nullptr);
  auto ext = Float32(48000, 3);
  reinterpret_cast<WAVEFORMATEX*>(ext.data())->wFormatTag = 65534;
  ASSERT_TRUE(f->SetInFormat(W(ext)));
  EXPECT_FALSE(f->SetOutFormat(W(Pcm(44100, 2))));
  ASSERT_NE(f->GetOutFormat(), nullptr);
  EXPECT_EQ(std::memcmp(f->GetOutFormat(), W(Pcm(48000, 3)), 16), 0);
  f->SetOutStream(sink.Get());
  // Two frames and a half: the half frame is not converted.
  std::vector<float> v(8, 0.25f);
  ASSERT_TRUE(f->Write(v.data(), 30));
  EXPECT_EQ(sink->Bytes.size(), 12u);
  // A float block too short for its channels is refused rather than overread.
  auto bad = Float32(44100, 2);
  reinterpret_cast<WAVEFORMATEX*>(bad.data())->nBlockAlign = 4;
  EXPECT_FALSE(f->SetInFormat(W(bad)));
}

TEST(Chain, IdenticalFormatsPassStraightThrough) {
  auto sink = MakeSink();
  auto c = MakeConverter(Mp3(44100, 2, 128), Mp3(44100, 2, 128), sink.Get());
  const std::string data = "not even audio";
  ASSERT_TRUE(c->Write(data.data(), static_cast<int32_t>(data.size())));
  EXPECT_EQ(sink->Bytes, data);
  EXPECT_EQ(sink->LastData, data.data());
  EXPECT_EQ(c->GetSubConverterCount(), 0);
  EXPECT_TRUE(c->Finish());
  EXPECT_EQ(sink->FinishCount, 1);
}

TEST(Chain, StagesForEachShape) {
  using V = std::vector<std::string>;
  const std::string F = "TFloatToPcmConverter", A = "TAcmConverter";
  EXPECT_EQ(ChainFor(Float32(44100, 2), Pcm(22050, 1)), (V{F, A}));
  // Six channels are reduced to two before anything else.
  EXPECT_EQ(ChainFor(Pcm(44100, 6), Pcm(22050, 1)), (V{A, A}));
  // A PCM output of another depth still gets a 16-bit stage (and 16-bit data).
  EXPECT_EQ(ChainFor(Float32(44100, 2), Pcm(44100, 2, 8)), (V{F, A}));
  // MP3 output: the depth test of the middle step always adds a stage, then the encoder;
  // six float channels skip the reduction to two.
  EXPECT_EQ(ChainFor(Float32(48000, 6), Mp3(22050, 1, 64)), (V{F, A, A}));
}

TEST(Chain, FinishGoesDownOnceAndAFormatChangeRebuildsOnTheNextWrite) {
  auto sink = MakeSink();
  auto c = MakeConverter(Float32(44100, 2), Pcm(44100, 2), sink.Get());
  ASSERT_TRUE(c->Write(kHalves.data(), 256));
  EXPECT_TRUE(c->Finish());
  EXPECT_TRUE(c->GetFinished());
  EXPECT_TRUE(c->GetSubConverter(0)->GetFinished());
  EXPECT_FALSE(c->Finish());
  EXPECT_EQ(sink->FinishCount, 1);

  TBaseAudioConverter* first = c->GetSubConverter(0);
  c->SetInFormat(W(Float32(44100, 1)));
  c->SetOutFormat(W(Pcm(44100, 1)));
  EXPECT_EQ(c->GetSubConverter(0), first) << "rebuilt before data arrived";
  // Writing again starts a new run, mono now: 64 frames of one channel.
  ASSERT_TRUE(c->Write(kHalves.data(), 256));
  ASSERT_EQ(c->GetSubConverterCount(), 1);
  EXPECT_EQ(sink->Bytes.size(), 128u + 128u);
  EXPECT_FALSE(c->GetFinished());
  EXPECT_TRUE(c->Finish());
  EXPECT_EQ(sink->FinishCount, 2);
}

TEST(Chain, BadInputAndFailingSinks) {
  char b[16] = {};
  ComPtr<TAudioConverter> c(new TAudioConverter());
  ComPtr<TFloatToPcmConverter> f(new TFloatToPcmConverter());
  auto sink = MakeSink();
  const auto expect = [&](TBaseAudioConverter* Conv, const void* Data, int32_t Size, const std::string& Error) {
    EXPECT_FALSE(Conv->Write(Data, Size)) << Error;
    EXPECT_EQ(Conv->LastError(), Error);
  };
  expect(c.Get(), b, 16, "TAudioConverter.Write: Out Stream is not assigned");
  EXPECT_TRUE(c->SetOutStream(sink.Get()));
  expect(c.Get(), b, -1, "TAudioConverter.Write: Invalid params");
  c->SetInFormat(W(Pcm(44100, 2)));
  expect(c.Get(), b, 16, "TAudioConverter.Write: Format is not set");
  EXPECT_EQ(sink->Writes, 0);

  expect(f.Get(), b, 4, "TFloatToPcmConverter.Write: Format is not set");
  expect(f.Get(), nullptr, 4, "TFloatToPcmConverter.Write: Invalid params");

  // A sink that refuses: each stage reports it in its own words.
  sink->FailWrites = true;
  f->SetInFormat(W(Float32(44100, 1)));
  f->SetOutStream(sink.Get());
  expect(f.Get(), b, 4, "TFloatToPcmConverter.Write: Next.Write error");
  auto chain = MakeConverter(Float32(44100, 2), Pcm(44100, 2), sink.Get());
  expect(chain.Get(), kHalves.data(), 256, "TAudioConverter.Write: ERROR on write");
  EXPECT_EQ(chain->GetSubConverter(0)->LastError(), "TFloatToPcmConverter.Write: Next.Write error");
}

TEST(ConverterLog, EntriesBesideTheExecutable) {
  std::string name;
  {
    auto sink = MakeSink();
    auto c = MakeConverter(Float32(44100, 2), Pcm(44100, 2), sink.Get());
    name = c->GetName();
    float v[2] = {0, 0};
    c->Write(v, 8);
    c->Finish();
  }
  AddToConverterLog("");
  const std::string file = GetConverterLogFileName();
  ASSERT_EQ(kl::ExtractFilePath(file), kltest::ExeDir());
  EXPECT_TRUE(std::regex_match(kl::ExtractFileName(file), std::regex("AudioConverter(_\\d+)?\\.log")));
  const std::string log = kltest::ReadFileBytes(file);
  EXPECT_TRUE(std::regex_match(name, std::regex("TAudioConverter_\\d+")));
  const std::string stamp = "\\d{4}\\.\\d{2}\\.\\d{2} \\d{2}:\\d{2}:\\d{2}\\.\\d{3}\r\n";
  for (const std::string& line : {"TBaseAudioConverter.Create: " + name, std::string("Subconverter count: 1"),
                                  std::string("TBaseAudioConverter.Finish: TAudioConverter"),
                                  "TBaseAudioConverter.Destroy: " + name}) {
    EXPECT_TRUE(std::regex_search(log, std::regex(stamp + line + "\r\n\r\n"))) << line;
  }
  EXPECT_TRUE(std::regex_search(log, std::regex("TBaseAudioConverter.Write:  " + name +
                                                " \\[TAudioConverter\\]  [0-9A-F]{8,16} 8\r\n")));
  // Nothing is written for an empty message: no entry ends in a bare stamp.
  EXPECT_FALSE(std::regex_search(log, std::regex(stamp + "\r\n\r\n")));
}

// A chain that ends in a WAV writer leaves the whole file: every stage converts what it
// still holds before the writer learns that nothing more follows.
TEST(Chain, ChainsIntoWavFilesKeepEveryByte) {
  TBoxRecorder boxes;
  kltest::TTempDir dir;
  const int frames = 22050 * 2 + 777;
  std::vector<uint8_t> ima(20, 0);
  auto* f = reinterpret_cast<WAVEFORMATEX*>(ima.data());
  *f = {WAVE_FORMAT_IMA_ADPCM, 1, 22050, 22050 * 256 / 505, 256, 4, 2};
  const uint16_t samplesPerBlock = 505;
  std::memcpy(ima.data() + 18, &samplesPerBlock, 2);
  const auto floats = kltest::tempo::ToneFloat(440, 22050, frames, 1);
  struct Case {
    const char* name;
    std::vector<uint8_t> in, out;
    std::string data;
    int rate, channels;
    std::vector<int16_t> want;
    double tolerance;  // RMS against the ideal tone
    size_t slack;      // frames the codec may keep back at the end
  } cases[] = {
      {"ima.wav", Float32(22050, 1), ima, std::string(reinterpret_cast<const char*>(floats.data()), floats.size() * 4),
       22050, 1, kltest::tempo::Tone<int16_t>(440, 22050, frames, 1, 16383.5), 600, 505},
      {"up.wav", Pcm(22050, 1), Pcm(44100, 2), Bytes16(kltest::tempo::Tone16(440, 22050, frames, 1)), 44100, 2,
       kltest::tempo::Tone16(440, 44100, frames * 2, 2), 600, 64},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string name = dir / c.name;
    auto file = CreateAudioFile(name);
    ASSERT_TRUE(file->SetFormat(W(c.out)));
    auto conv = MakeConverter(c.in, c.out, file.Get());
    ASSERT_TRUE(WriteInPieces(conv.Get(), c.data, 3000));
    ASSERT_TRUE(conv->Finish());
    ExpectWavLayout(kltest::ReadFileBytes(name), nullptr);
    const auto back = AsSamples16(FfmpegDecode(dir, name, c.rate, c.channels));
    const size_t wantFrames = c.want.size() / c.channels;
    EXPECT_LE(back.size() / c.channels, wantFrames + c.slack);
    ASSERT_GE(back.size() / c.channels + c.slack, wantFrames);
    double sum = 0;
    const size_t n = std::min(back.size(), c.want.size());
    for (size_t i = 0; i < n; ++i) sum += (double(back[i]) - c.want[i]) * (double(back[i]) - c.want[i]);
    EXPECT_LT(std::sqrt(sum / n), c.tolerance);
  }
}
