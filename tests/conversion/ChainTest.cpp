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
  ComPtr<TAudioConverter> c;
  c = new TAudioConverter();
  auto sink = MakeSink();
  c->SetInFormat(W(In));
  c->SetOutFormat(W(Out));
  c->SetOutStream(sink.Get());
  std::vector<uint8_t> silence(4096, 0);
  c->Write(silence.data(), static_cast<int32_t>(silence.size()));
  return StageKinds(*c.Get());
}

}  // namespace

TEST(FloatToPcm, RoundsHalvesToEvenAndClamps) {
  ComPtr<TAudioConverter> c;
  c = new TAudioConverter();
  auto sink = MakeSink();
  const auto in = Float32(44100, 2);
  const auto out = Pcm(44100, 2);
  ASSERT_TRUE(c->SetInFormat(W(in)));
  ASSERT_TRUE(c->SetOutFormat(W(out)));
  ASSERT_TRUE(c->SetOutStream(sink.Get()));
  const float nan = std::nanf("");
  const std::vector<float> samples = {0.5f, 1.5f, -1.5f, 1.0f, -1.0f, 0.0f, 2.5f / 32767, -2.5f / 32767,
                                      nan,  -0.5f};
  ASSERT_TRUE(c->Write(samples.data(), static_cast<int32_t>(samples.size() * 4)));
  EXPECT_EQ(StageKinds(*c.Get()), std::vector<std::string>{"TFloatToPcmConverter"});
  const auto pcm = AsSamples16(sink->Bytes);
  EXPECT_EQ(pcm, (std::vector<int16_t>{16384, 32767, -32768, 32767, -32767, 0, 2, -2, 0, -16384}));
}

TEST(FloatToPcm, OutputFollowsInputAndPartialFramesAreDropped) {
  ComPtr<TFloatToPcmConverter> f;
  f = new TFloatToPcmConverter();
  auto sink = MakeSink();
  EXPECT_FALSE(f->SetInFormat(W(Pcm(44100, 2))));
  EXPECT_EQ(f->GetInFormat(), nullptr);
  auto ext = Float32(48000, 3);
  reinterpret_cast<WAVEFORMATEX*>(ext.data())->wFormatTag = 65534;
  ASSERT_TRUE(f->SetInFormat(W(ext)));
  EXPECT_FALSE(f->SetOutFormat(W(Pcm(44100, 2))));
  const WAVEFORMATEX* o = f->GetOutFormat();
  ASSERT_NE(o, nullptr);
  EXPECT_EQ(o->wFormatTag, 1);
  EXPECT_EQ(o->nChannels, 3);
  EXPECT_EQ(o->nSamplesPerSec, 48000u);
  EXPECT_EQ(o->nBlockAlign, 6);
  EXPECT_EQ(o->nAvgBytesPerSec, 288000u);
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

TEST(FloatToPcm, BadInput) {
  ComPtr<TFloatToPcmConverter> f;
  f = new TFloatToPcmConverter();
  float x = 0;
  EXPECT_FALSE(f->Write(&x, 4));
  EXPECT_EQ(f->LastError(), "TFloatToPcmConverter.Write: Format is not set");
  EXPECT_FALSE(f->Write(nullptr, 4));
  EXPECT_EQ(f->LastError(), "TFloatToPcmConverter.Write: Invalid params");
  EXPECT_FALSE(f->Write(&x, -4));
  EXPECT_TRUE(f->Write(&x, 0));
  f->SetInFormat(W(Float32(44100, 1)));
  auto sink = MakeSink();
  sink->FailWrites = true;
  f->SetOutStream(sink.Get());
  EXPECT_FALSE(f->Write(&x, 4));
  EXPECT_EQ(f->LastError(), "TFloatToPcmConverter.Write: Next.Write error");
}

TEST(Chain, IdenticalFormatsPassStraightThrough) {
  ComPtr<TAudioConverter> c;
  c = new TAudioConverter();
  auto sink = MakeSink();
  const auto mp3 = Mp3(44100, 2, 128);
  c->SetInFormat(W(mp3));
  c->SetOutFormat(W(mp3));
  c->SetOutStream(sink.Get());
  const std::string data = "not even audio";
  ASSERT_TRUE(c->Write(data.data(), static_cast<int32_t>(data.size())));
  EXPECT_EQ(sink->Bytes, data);
  EXPECT_EQ(sink->LastData, data.data());
  EXPECT_EQ(c->GetSubConverterCount(), 0);
  EXPECT_TRUE(c->Finish());
  EXPECT_EQ(sink->FinishCount, 1);
  EXPECT_FALSE(c->Finish());
  EXPECT_EQ(sink->FinishCount, 1);
}

TEST(Chain, StagesForEachShape) {
  using V = std::vector<std::string>;
  const std::string F = "TFloatToPcmConverter", A = "TAcmConverter";
  EXPECT_EQ(ChainFor(Pcm(22050, 1), Pcm(44100, 2)), (V{A}));
  EXPECT_EQ(ChainFor(Float32(44100, 2), Pcm(44100, 2)), (V{F}));
  EXPECT_EQ(ChainFor(Float32(44100, 2), Pcm(22050, 1)), (V{F, A}));
  // Six channels are reduced to two before anything else.
  EXPECT_EQ(ChainFor(Pcm(44100, 6), Pcm(44100, 2)), (V{A}));
  EXPECT_EQ(ChainFor(Pcm(44100, 6), Pcm(22050, 1)), (V{A, A}));
  // MP3 input: decode, then resample or remix.
  EXPECT_EQ(ChainFor(Mp3(44100, 2, 128), Pcm(44100, 2)), (V{A}));
  EXPECT_EQ(ChainFor(Mp3(44100, 2, 128), Pcm(22050, 1)), (V{A, A}));
  // 8-bit PCM input is widened to 16 bits first.
  EXPECT_EQ(ChainFor(Pcm(44100, 2, 8), Pcm(44100, 2)), (V{A}));
  // A PCM output of another depth still gets a 16-bit stage (and 16-bit data).
  EXPECT_EQ(ChainFor(Float32(44100, 2), Pcm(44100, 2, 8)), (V{F, A}));
  // MP3 output: the depth test of the middle step always adds a stage, then the encoder.
  EXPECT_EQ(ChainFor(Pcm(44100, 2), Mp3(44100, 2, 128)), (V{A, A}));
  EXPECT_EQ(ChainFor(Float32(48000, 6), Mp3(22050, 1, 64)), (V{F, A, A}));
}

TEST(Chain, FormatChangeRebuildsOnNextWrite) {
  ComPtr<TAudioConverter> c;
  c = new TAudioConverter();
  auto sink = MakeSink();
  c->SetInFormat(W(Float32(44100, 2)));
  c->SetOutFormat(W(Pcm(44100, 2)));
  c->SetOutStream(sink.Get());
  std::vector<float> v(64, 0.5f);
  ASSERT_TRUE(c->Write(v.data(), 256));
  ASSERT_EQ(c->GetSubConverterCount(), 1);
  TBaseAudioConverter* first = c->GetSubConverter(0);
  c->SetInFormat(W(Float32(44100, 1)));
  c->SetOutFormat(W(Pcm(44100, 1)));
  EXPECT_EQ(c->GetSubConverter(0), first) << "rebuilt before data arrived";
  ASSERT_TRUE(c->Write(v.data(), 256));
  ASSERT_EQ(c->GetSubConverterCount(), 1);
  // Mono now: 64 frames of one channel.
  EXPECT_EQ(sink->Bytes.size(), 128u + 128u);
  ASSERT_TRUE(c->Write(v.data(), 256));
  EXPECT_EQ(sink->Bytes.size(), 128u + 128u + 128u);
}

TEST(Chain, FinishGoesDownTheChainOnce) {
  ComPtr<TAudioConverter> c;
  c = new TAudioConverter();
  auto sink = MakeSink();
  c->SetInFormat(W(Float32(44100, 2)));
  c->SetOutFormat(W(Pcm(44100, 2)));
  c->SetOutStream(sink.Get());
  std::vector<float> v(64, 0.5f);
  ASSERT_TRUE(c->Write(v.data(), 256));
  EXPECT_TRUE(c->Finish());
  EXPECT_TRUE(c->GetFinished());
  EXPECT_TRUE(c->GetSubConverter(0)->GetFinished());
  EXPECT_EQ(sink->FinishCount, 1);
  EXPECT_FALSE(c->Finish());
  EXPECT_EQ(sink->FinishCount, 1);
  // Writing again starts a new run that can be finished again.
  ASSERT_TRUE(c->Write(v.data(), 256));
  EXPECT_FALSE(c->GetFinished());
  EXPECT_TRUE(c->Finish());
  EXPECT_EQ(sink->FinishCount, 2);
}

TEST(Chain, BadInput) {
  ComPtr<TAudioConverter> c;
  c = new TAudioConverter();
  char b[16] = {};
  EXPECT_FALSE(c->Write(b, 16));
  EXPECT_EQ(c->LastError(), "TAudioConverter.Write: Out Stream is not assigned");
  auto sink = MakeSink();
  EXPECT_FALSE(c->SetOutStream(nullptr));
  EXPECT_TRUE(c->SetOutStream(sink.Get()));
  EXPECT_FALSE(c->Write(nullptr, 16));
  EXPECT_EQ(c->LastError(), "TAudioConverter.Write: Invalid params");
  EXPECT_FALSE(c->Write(b, -1));
  EXPECT_EQ(c->LastError(), "TAudioConverter.Write: Invalid params");
  EXPECT_TRUE(c->Write(b, 0));
  EXPECT_FALSE(c->Write(b, 16));
  EXPECT_EQ(c->LastError(), "TAudioConverter.Write: Format is not set");
  EXPECT_FALSE(c->SetInFormat(nullptr));
  c->SetInFormat(W(Pcm(44100, 2)));
  EXPECT_FALSE(c->Write(b, 16));
  EXPECT_EQ(c->LastError(), "TAudioConverter.Write: Format is not set");
  EXPECT_EQ(sink->Writes, 0);
}

TEST(Chain, SinkFailureIsReported) {
  ComPtr<TAudioConverter> c;
  c = new TAudioConverter();
  auto sink = MakeSink();
  sink->FailWrites = true;
  c->SetInFormat(W(Float32(44100, 2)));
  c->SetOutFormat(W(Pcm(44100, 2)));
  c->SetOutStream(sink.Get());
  std::vector<float> v(64, 0.5f);
  EXPECT_FALSE(c->Write(v.data(), 256));
  EXPECT_EQ(c->LastError(), "TAudioConverter.Write: ERROR on write");
  EXPECT_EQ(c->GetSubConverter(0)->LastError(), "TFloatToPcmConverter.Write: Next.Write error");
}

TEST(ConverterLog, EntriesBesideTheExecutable) {
  std::string name;
  {
    ComPtr<TAudioConverter> c;
    c = new TAudioConverter();
    name = c->GetName();
    auto sink = MakeSink();
    c->SetInFormat(W(Float32(44100, 2)));
    c->SetOutFormat(W(Pcm(44100, 2)));
    c->SetOutStream(sink.Get());
    float v[2] = {0, 0};
    c->Write(v, 8);
    c->Finish();
  }
  AddToConverterLog("");
  const std::string file = GetConverterLogFileName();
  ASSERT_EQ(kl::ExtractFilePath(file), kltest::ExeDir());
  EXPECT_TRUE(kl::ExtractFileName(file) == "AudioConverter.log" ||
              std::regex_match(kl::ExtractFileName(file), std::regex("AudioConverter_\\d+\\.log")));
  const std::string log = kltest::ReadFileBytes(file);
  EXPECT_TRUE(std::regex_match(name, std::regex("TAudioConverter_\\d+")));
  const std::string stamp = "\\d{4}\\.\\d{2}\\.\\d{2} \\d{2}:\\d{2}:\\d{2}\\.\\d{3}\r\n";
  for (const std::string& line : std::vector<std::string>{"TBaseAudioConverter.Create: " + name, "Subconverter count: 1", "TBaseAudioConverter.Finish: TAudioConverter",
        "TBaseAudioConverter.Destroy: " + name}) {
    EXPECT_TRUE(std::regex_search(log, std::regex(stamp + line + "\r\n\r\n"))) << line;
  }
  EXPECT_TRUE(std::regex_search(log, std::regex("TBaseAudioConverter.Write:  " + name +
                                                " \\[TAudioConverter\\]  [0-9A-F]{8,16} 8\r\n")));
  // Nothing is written for an empty message: no entry ends in a bare stamp.
  EXPECT_FALSE(std::regex_search(log, std::regex(stamp + "\r\n\r\n")));
}
