// The WAV file sound stream over real files.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "PlaybackTestUtil.h"

using namespace kltest::playback;
using kl::USoundStreams::TWavFileSoundStream;

TEST(WavFileSoundStream, DeliversTheDataInOrderAndKeepsTheSeekTargetAsPosition) {
  kltest::TTempDir dir;
  const auto frames = Pattern(44100 + 22050);  // 1.5 s
  ComPtr<ISoundStream> s = WavSource(WriteWav(dir, "a.wav", frames), false);

  EXPECT_EQ(1500, s->GetLength());
  EXPECT_TRUE(IsCdFormat(s->GetWaveFormat()));
  // A sound stream answers for its ancestor, and for IFinishable only when it has it.
  ComPtr<kl::klMediaPlayer::IMediaStream> media;
  EXPECT_TRUE(SUCCEEDED(s.As(&media)));
  ComPtr<IFinishable> fin;
  EXPECT_FALSE(SUCCEEDED(s.As(&fin)));
  EXPECT_TRUE(SUCCEEDED(WavSource(dir / "a.wav", true).As(&fin)));

  // Odd sizes and the end: every byte once, then 0.
  std::string got;
  std::vector<char> buf(10001);
  for (int32_t n; (n = s->GetWavData(buf.data(), static_cast<int32_t>(buf.size()))) > 0;) got.append(buf.data(), n);
  EXPECT_TRUE(got == Bytes(frames));
  EXPECT_EQ(0, s->GetWavData(buf.data(), 100));
  EXPECT_EQ(0, s->GetPosition());  // reading does not move it

  s->SetPosition(1000);
  EXPECT_EQ(1000, s->GetPosition());
  TFrame fr[3];
  ASSERT_EQ(12, s->GetWavData(fr, 12));
  EXPECT_EQ(frames[44100], fr[0]);
  EXPECT_EQ(frames[44102], fr[2]);
  EXPECT_EQ(1000, s->GetPosition());

  // A target in the middle of a frame rounds to a whole frame (half to even).
  s->SetPosition(1);  // 44.1 frames -> 44
  ASSERT_EQ(4, s->GetWavData(fr, 4));
  EXPECT_EQ(frames[44], fr[0]);
}

TEST(WavFileSoundStream, OutOfRangeTargetsOddFormatsAndEmptyData) {
  kltest::TTempDir dir;
  ComPtr<ISoundStream> s = WavSource(WriteWav(dir, "a.wav", Pattern(4410)), false);
  char buf[64];
  // The position is clamped, the read offset is not: both read nothing.
  s->SetPosition(-500);
  EXPECT_EQ(0, s->GetPosition());
  EXPECT_EQ(0, s->GetWavData(buf, sizeof buf));
  s->SetPosition(INT32_MAX);
  EXPECT_EQ(100, s->GetPosition());
  EXPECT_EQ(0, s->GetWavData(buf, sizeof buf));
  s->SetPosition(0);
  EXPECT_EQ(0, s->GetWavData(nullptr, 10));

  // 11025 Hz mono 16-bit, 1000 frames and a stray byte: 90.7 ms -> 91.
  kltest::WriteFileBytes(dir / "m.wav", kltest::MakeWav(1, 11025, 16, std::string(2001, '\x01')));
  EXPECT_EQ(91, WavSource(dir / "m.wav", false)->GetLength());
  kltest::WriteFileBytes(dir / "e.wav", kltest::MakeWav(2, 44100, 16, ""));
  ComPtr<ISoundStream> e = WavSource(dir / "e.wav", false);
  EXPECT_EQ(0, e->GetLength());
  EXPECT_EQ(0, e->GetWavData(buf, sizeof buf));
}

TEST(WavFileSoundStream, MissingAndDamagedFilesAreLoggedAndAbort) {
  kltest::TTempDir dir;
  const std::string missing = dir / "none.wav";
  EXPECT_THROW(TWavFileSoundStream s(missing), kl::EAbort);
  EXPECT_TRUE(kltest::LogHas("TWavFileSoundStream.Create: file not found: \r\n" + missing));

  const std::string bad = dir / "bad.wav";
  kltest::WriteFileBytes(bad, std::string("RIFF\x10\x00\x00\x00WAVEjunkjunkjunk", 20));
  EXPECT_THROW(TWavFileSoundStream s(bad), kl::EAbort);
  EXPECT_TRUE(kltest::LogHas("TWavFileSoundStream.Create: cannot open file: \r\n" + bad));
}
