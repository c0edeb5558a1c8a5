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

TEST(WavFileSoundStream, OutOfRangeTargetsClampThePositionButNotTheReadOffset) {
  kltest::TTempDir dir;
  ComPtr<ISoundStream> s = WavSource(WriteWav(dir, "a.wav", Pattern(4410)), false);
  char buf[64];
  s->SetPosition(-500);
  EXPECT_EQ(0, s->GetPosition());
  EXPECT_EQ(0, s->GetWavData(buf, sizeof buf));  // offset -88200 bytes reads nothing
  s->SetPosition(5000);
  EXPECT_EQ(100, s->GetPosition());
  EXPECT_EQ(0, s->GetWavData(buf, sizeof buf));
  s->SetPosition(INT32_MAX);
  EXPECT_EQ(100, s->GetPosition());
  EXPECT_EQ(0, s->GetWavData(buf, sizeof buf));
  s->SetPosition(0);
  EXPECT_EQ(64, s->GetWavData(buf, sizeof buf));
  EXPECT_EQ(0, s->GetWavData(nullptr, 10));
  EXPECT_EQ(0, s->GetWavData(buf, 0));
}

TEST(WavFileSoundStream, LengthOfOddFormatsAndOfAnEmptyDataChunk) {
  kltest::TTempDir dir;
  // 11025 Hz mono 16-bit, 1000 frames and a stray byte: 90.7 ms -> 91.
  kltest::WriteFileBytes(dir / "m.wav", kltest::MakeWav(1, 11025, 16, std::string(2001, '\x01')));
  ComPtr<ISoundStream> m = WavSource(dir / "m.wav", false);
  EXPECT_EQ(91, m->GetLength());
  kltest::WriteFileBytes(dir / "e.wav", kltest::MakeWav(2, 44100, 16, ""));
  ComPtr<ISoundStream> e = WavSource(dir / "e.wav", false);
  EXPECT_EQ(0, e->GetLength());
  char buf[16];
  EXPECT_EQ(0, e->GetWavData(buf, sizeof buf));
}

TEST(WavFileSoundStream, MissingAndDamagedFilesAreLoggedAndAbort) {
  kltest::TTempDir dir;
  const std::string missing = dir / "none.wav";
  EXPECT_THROW(TWavFileSoundStream s(missing), kl::EAbort);
  EXPECT_NE(std::string::npos,
            kl::klLog::GetWholeLog().find("TWavFileSoundStream.Create: file not found: \r\n" + missing));

  const std::string bad = dir / "bad.wav";
  kltest::WriteFileBytes(bad, std::string("RIFF\x10\x00\x00\x00WAVEjunkjunkjunk", 20));
  EXPECT_THROW(TWavFileSoundStream s(bad), kl::EAbort);
  EXPECT_NE(std::string::npos,
            kl::klLog::GetWholeLog().find("TWavFileSoundStream.Create: cannot open file: \r\n" + bad));
}

TEST(StreamInterfaces, IdentitiesModesAndVideoInfo) {
  using namespace kl::klMediaPlayer;
  auto text = [](const GUID& G) {
    wchar_t w[64];
    StringFromGUID2(G, w, 64);
    return std::string(w, w + wcslen(w));
  };
  EXPECT_EQ("{B7E88FD9-C51F-4D4D-8C96-949F019D5B11}", text(__uuidof(IMediaStream)));
  EXPECT_EQ("{D5DAF2A5-EC6C-4347-9388-2D34723F4CFE}", text(__uuidof(ISoundStream)));
  EXPECT_EQ("{A41CDA6A-F617-45A0-9884-85CB5A1D5451}", text(__uuidof(IFinishable)));
  EXPECT_EQ("{48EEA762-8778-4401-808A-4C4A6A1D5F3F}", text(__uuidof(IVideoStream)));

  // A sound stream answers for its ancestor, and for IFinishable only when it has it.
  kltest::TTempDir dir;
  ComPtr<ISoundStream> s = WavSource(WriteWav(dir, "a.wav", Pattern(100)), false);
  ComPtr<IMediaStream> media;
  EXPECT_TRUE(SUCCEEDED(s.As(&media)));
  ComPtr<IFinishable> fin;
  EXPECT_FALSE(SUCCEEDED(s.As(&fin)));
  ComPtr<ISoundStream> f = WavSource(dir / "a.wav", true);
  EXPECT_TRUE(SUCCEEDED(f.As(&fin)));

  EXPECT_EQ("Not ready", PlayerModeToStr(pmNotReady));
  EXPECT_EQ("Stopped", PlayerModeToStr(pmStopped));
  EXPECT_EQ("Playing", PlayerModeToStr(pmPlaying));
  EXPECT_EQ("Paused", PlayerModeToStr(pmPaused));
  EXPECT_EQ("Finished", PlayerModeToStr(pmFinished));
  EXPECT_EQ("Unknown", PlayerModeToStr(static_cast<TPlayerMode>(5)));
  EXPECT_EQ(1u, sizeof(TPlayerMode));
  EXPECT_EQ(3.0f, MAX_SPEED);
  EXPECT_EQ(5.0f, MAX_VOLUME);

  const TVideoInfo v = VideoInfo(640, -480, 32, 25.0f);
  EXPECT_EQ(40u, v.Header.biSize);
  EXPECT_EQ(640, v.Header.biWidth);
  EXPECT_EQ(-480, v.Header.biHeight);
  EXPECT_EQ(1, v.Header.biPlanes);
  EXPECT_EQ(32, v.Header.biBitCount);
  EXPECT_EQ(0u, v.Header.biSizeImage);
  EXPECT_EQ(0u, v.Header.biCompression);
  EXPECT_EQ(25.0f, v.FPS);
  EXPECT_EQ(44u, sizeof(TVideoInfo));
}
