// UklMediaPlayer's player and streams on the real wave-out device, SoundTouch.dll and the
// system's ACM MP3 decoder, checked against what the audio server recorded.
#include <gtest/gtest.h>

#include <windows.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <string>
#include <vector>

#include "../tempo/ToneHelpers.h"
#include "PlaybackTestUtil.h"

using namespace kltest::playback;
namespace fg = kl::UklMediaPlayer;

namespace {

constexpr int RATE = 44100;

using kltest::LogHas;

std::string DecodeAll(fg::TSoundStream& S) {
  std::string r;
  std::vector<char> buf(17640);
  for (int32_t n; (n = S.GetWavData(buf.data(), 17640)) > 0;) r.append(buf.data(), static_cast<size_t>(n));
  return r;
}

// Opens File, plays it to the end at Speed and returns what was recorded meanwhile.
std::vector<TFrame> PlayFile(fg::TklMediaPlayer& P, const std::string& File, float Speed, DWORD TimeoutMs) {
  std::atomic<int> finishes{0};
  P.SetOnFinish([&finishes](void*) { ++finishes; });
  EXPECT_TRUE(P.OpenFile(File));
  P.SetSpeed(Speed);
  const int64_t mark = kltest::TCapture::Mark();
  EXPECT_TRUE(P.Play());
  EXPECT_TRUE(WaitUntil([&] { return P.GetMode() == fg::pmFinished; }, TimeoutMs));
  Sleep(100);
  EXPECT_EQ(1, finishes.load());
  P.SetOnFinish(nullptr);
  return Frames(kltest::TCapture::Since(mark));
}

}  // namespace

TEST(FirstGenerationPlayer, PlaysWavAndMp3FilesInOrderToTheEnd) {
  REQUIRE_CAPTURE();
  kltest::TTempDir dir;
  fg::TklMediaPlayer p;
  const auto frames = Pattern(RATE * 3 / 2);
  TPlayed played = Analyse(PlayFile(p, WriteWav(dir, "a.wav", frames), 1.0f, 6000), frames);
  EXPECT_EQ(0, played.Foreign);
  EXPECT_EQ("", InOrder(played, 0, played.Segments.size() - 1, 0, frames.size(), RATE));

  // The MP3 as this generation decodes it must be heard whole; the decoding itself is
  // ffmpeg's within a few steps, some 1105 frames later.
  const std::string mp3 = EncodeChirp(dir, "chirp.mp3", 2);
  kl::TFileStream file(mp3, kl::fmOpenRead | kl::fmShareDenyWrite);
  fg::TMp3SoundStream stream(&file, 0, file.GetSize());
  ASSERT_TRUE(stream.GetValid());
  EXPECT_TRUE(IsCdFormat(stream.GetWaveFormat()));
  const std::string raw = DecodeAll(stream);
  const std::vector<TFrame> decoded = Frames(raw);
  ASSERT_GT(decoded.size(), static_cast<size_t>(RATE * 19 / 10));
  const TMatch m = Align(Samples(kltest::FfmpegDecode(mp3)), 5000, 55000, Samples(raw), 2, 1, 3000);
  EXPECT_LE(m.MaxDiff, 4) << "no lag where the decoding follows ffmpeg's";

  // The decoder's first and last frames are near silence whose short patterns recur:
  // the check holds for the loud part, which must be heard in order and whole.
  size_t from = 0, to = decoded.size();
  while (from < to && std::abs(decoded[from].L) < 256) ++from;
  while (to > from && std::abs(decoded[to - 1].L) < 256) --to;
  const std::vector<TFrame> loud(decoded.begin() + static_cast<ptrdiff_t>(from), decoded.begin() + static_cast<ptrdiff_t>(to));
  played = Analyse(PlayFile(p, mp3, 1.0f, 8000), loud);
  size_t k = 0;
  while (k < played.Segments.size() && played.Segments[k].Count < 64) ++k;
  ASSERT_LT(k, played.Segments.size()) << Describe(played);
  EXPECT_EQ("", InOrder(played, k, played.Segments.size() - 1, 0, loud.size(), RATE));
}

TEST(FirstGenerationPlayer, PauseResumeSeekAndStop) {
  REQUIRE_CAPTURE();
  kltest::TTempDir dir;
  const auto frames = Pattern(RATE * 3);
  fg::TklMediaPlayer p;
  EXPECT_EQ(fg::pmNotReady, p.GetMode());
  ASSERT_TRUE(p.OpenFile(WriteWav(dir, "a.wav", frames)));
  EXPECT_EQ(fg::pmStopped, p.GetMode());
  EXPECT_EQ(3000, p.GetLength());
  const int64_t mark = kltest::TCapture::Mark();
  ASSERT_TRUE(p.Play());
  Sleep(500);
  p.Pause();
  EXPECT_EQ(fg::pmPaused, p.GetMode());
  const int32_t paused = p.GetPosition();
  Sleep(300);
  EXPECT_EQ(paused, p.GetPosition());
  EXPECT_TRUE(p.Play());
  Sleep(300);
  p.SetPosition(2000);
  EXPECT_EQ(fg::pmPlaying, p.GetMode());
  EXPECT_TRUE(WaitUntil([&] { return p.GetMode() == fg::pmFinished; }, 4000));
  const TPlayed played = Analyse(Frames(kltest::TCapture::Since(mark)), frames);
  EXPECT_LE(played.Foreign, RATE / 100);
  size_t jump = 1;
  while (jump < played.Segments.size() && played.Segments[jump].Start < 2 * RATE) ++jump;
  ASSERT_LT(jump, played.Segments.size()) << Describe(played);
  EXPECT_EQ("", InOrder(played, 0, jump - 1, 0, played.Segments[jump - 1].Start + played.Segments[jump - 1].Count, RATE));
  EXPECT_EQ("", InOrder(played, jump, played.Segments.size() - 1, 2 * RATE, frames.size(), RATE));

  ASSERT_TRUE(p.Play());
  p.Stop();
  EXPECT_EQ(fg::pmStopped, p.GetMode());
  p.Close();
  EXPECT_EQ(fg::pmNotReady, p.GetMode());
  EXPECT_FALSE(p.Play());
  EXPECT_TRUE(LogHas("TklMediaPlayer.Play: FSoundStream = nil"));
}

TEST(FirstGenerationPlayer, SpeedOneAndAHalfShortensThePlayAndKeepsTheTone) {
  REQUIRE_CAPTURE();
  kltest::TTempDir dir;
  const std::vector<int16_t> tone = kltest::tempo::Tone16(1000, RATE, RATE * 3, 2);
  const std::string path = dir / "tone.wav";
  kltest::WriteFileBytes(path, kltest::MakeWav(2, RATE, 16, std::string(reinterpret_cast<const char*>(tone.data()),
                                                                        tone.size() * 2)));
  fg::TklMediaPlayer p;
  ASSERT_NE(nullptr, p.GetSoundTouch());
  const std::vector<TFrame> captured = PlayFile(p, path, 1.5f, 6000);
  EXPECT_FLOAT_EQ(1.5f, p.GetSoundTouch()->GetTempo());
  size_t first = 0, last = captured.size();
  while (first < last && std::abs(captured[first].L) < 1000) ++first;
  while (last > first && std::abs(captured[last - 1].L) < 1000) --last;
  const double seconds = static_cast<double>(last - first) / RATE;
  EXPECT_NEAR(2.0, seconds, 0.25);
  std::vector<double> left;
  for (size_t i = first; i < last; ++i) left.push_back(captured[i].L);
  EXPECT_NEAR(1000, kltest::tempo::DominantFrequency(left, RATE, 500, 2000), 5);
}

TEST(FirstGenerationStreams, SilenceAndTheIndexedMp3Stream) {
  const WAVEFORMATEX cd{WAVE_FORMAT_PCM, 2, 44100, 176400, 4, 16, 0};
  fg::TSilenceSoundStream sized(cd, 500);
  EXPECT_EQ(500, sized.GetLength());
  EXPECT_EQ(std::string(88200, '\0'), DecodeAll(sized));
  sized.SetPosition(250);
  EXPECT_EQ(250, sized.GetPosition());
  EXPECT_EQ(44100u, DecodeAll(sized).size());
  fg::TSilenceSoundStream endless(cd, -1);
  EXPECT_EQ(0, endless.GetLength());
  std::vector<char> buf(100000, 1);
  for (int i = 0; i < 50; ++i) ASSERT_EQ(100000, endless.GetWavData(buf.data(), 100000));
  EXPECT_EQ(std::vector<char>(100000, 0), buf);

  // Length and seek by the frame index, in step with the other generation's stream.
  kltest::TTempDir dir;
  const std::string mp3 = EncodeChirp(dir, "chirp.mp3", 2.5);
  kl::TFileStream file(mp3, kl::fmOpenRead | kl::fmShareDenyWrite);
  fg::TMp3SoundStream2 s(&file, 0, file.GetSize());
  kl::USoundStreams::TMp3FileSoundStream other(mp3);
  EXPECT_EQ(static_cast<int32_t>(other.Mp3Stream()->Frames().size()), s.GetFrameCount());
  EXPECT_EQ(other.GetLength(), s.GetLength());
  EXPECT_NEAR(2500, s.GetLength(), 60);
  const std::string whole = DecodeAll(s);
  s.SetPosition(1000);
  EXPECT_EQ(993, s.GetPosition());  // frame 38 of 1152 samples at 44.1 kHz
  const std::string tail = DecodeAll(s);
  EXPECT_NEAR(static_cast<double>(whole.size() - 38 * 1152 * 4), static_cast<double>(tail.size()), 1152 * 4);
  s.SetPosition(100000);
  EXPECT_EQ(s.GetLength() - 26, s.GetPosition());
}

TEST(FirstGenerationPlayer, BadFilesAreRefusedOrEndWithoutHanging) {
  kltest::TTempDir dir;
  kl::TMemoryStream memory;
  fg::TklMediaPlayer p;
  EXPECT_FALSE(p.OpenFile(dir / "none.mp3"));
  EXPECT_TRUE(LogHas("TklMediaPlayer.OpenFile: file not found " + dir / "none.mp3"));
  kltest::WriteFileBytes(dir / "text.mp3", std::string(5000, 'x'));
  EXPECT_FALSE(p.OpenFile(dir / "text.mp3"));
  EXPECT_TRUE(LogHas("TMp3SoundStream.Create: Frame size = 0"));
  EXPECT_FALSE(p.OpenMp3Stream(nullptr, 0, 100));
  EXPECT_TRUE(LogHas("TklMediaPlayer.OpenMp3Stream: invalid args"));
  EXPECT_FALSE(fg::TMp3SoundStream(nullptr, 0, 100).GetValid());
  EXPECT_TRUE(LogHas("TMp3SoundStream.Create: Stream = nil"));
  fg::TMp3SoundStream empty(&memory, 0, 0);
  EXPECT_TRUE(LogHas("TMp3SoundStream.Create: Len <= 0"));
  EXPECT_EQ(0, empty.GetWavData(nullptr, 100));
  EXPECT_TRUE(LogHas("TMp3SoundStream.GetWavData: (Buffer = nil) or (BufferSize <= 0)"));

  // MP3 data in memory cut inside a frame: what there is plays, then the player finishes.
  const std::string whole = kltest::ReadFileBytes(EncodeChirp(dir, "c.mp3", 1));
  memory.WriteBuffer(whole.data(), static_cast<int32_t>(whole.size() / 2 + 77));
  p.SetSpeed(2.0f);
  std::atomic<bool> finished{false};
  p.SetOnFinish([&finished](void*) { finished = true; });
  ASSERT_TRUE(p.OpenMp3Stream2(&memory, 0, memory.GetSize()));
  ASSERT_TRUE(p.Play());
  EXPECT_TRUE(WaitUntil([&] { return finished.load(); }, 5000));
  p.SetOnFinish(nullptr);
  p.Close();
  EXPECT_EQ(nullptr, p.GetSoundStream());
}

TEST(FirstGenerationStreams, DecoderLadderLogsEveryStepItTries) {
  kltest::TTempDir dir;
  const std::string mp3 = EncodeChirp(dir, "c.mp3", 0.5);
  kl::TFileStream file(mp3, kl::fmOpenRead | kl::fmShareDenyWrite);
  fg::TMp3SoundStream s(&file, 0, file.GetSize());
  ASSERT_TRUE(s.GetValid());
  const std::string acm = "TMp3SoundStream.CreateAcmConverter: ";
  // Without the MPEG ID the system's decoder refuses to open but still suggests PCM;
  // the LAME driver is the last resort, and it is not installed here.
  s.Mp3Format().wID = 0;
  EXPECT_FALSE(s.CreateAcmConverter());
  const std::string log = kl::klLog::GetWholeLog();
  size_t at = 0;
  for (const std::string& line :
       {acm + "acmStreamOpen failed - ",
        std::string("Mp3Format:  tag: 85  channels: 2  SamplesPerSec: 44100  AvgBytesPerSec: 16000  BlockAlign: 1  "
                    "BitsPerSample: 0  BlockSize: 418  Flags: 0  FramesPerBlock: 1  CodecDelay: 1393  cbSize: 12"),
        std::string("WavFormat:  tag: 1  channels: 2  SamplesPerSec: 44100  AvgBytesPerSec: 176400  BlockAlign: 4  "
                    "BitsPerSample: 16  cbSize: 0"),
        acm + "acmStreamOpen 3 failed - ", std::string("After acmFormatSuggest"),
        std::string("Suggested WavFormat:  tag: 1  channels: 2  SamplesPerSec: 44100"), acm + "acmStreamOpen 2 failed - ",
        acm + "acmDriverEnum: lame not found"}) {
    at = log.find(line, at);
    EXPECT_NE(std::string::npos, at) << line;
  }
  std::vector<char> buf(100);
  EXPECT_EQ(0, s.GetWavData(buf.data(), 100));
  s.Mp3Format().wID = MPEGLAYER3_ID_MPEG;
  s.Mp3Format().wfx.nSamplesPerSec = 11111;  // no decoder suggests anything for this
  EXPECT_FALSE(s.CreateAcmConverter());
  EXPECT_TRUE(LogHas(acm + "acmFormatSuggest failed - "));
  s.Mp3Format().wfx.nSamplesPerSec = 44100;
  ASSERT_TRUE(s.CreateAcmConverter());
  EXPECT_GT(DecodeAll(s).size(), 4u * RATE / 3);
}

// Run from a folder without SoundTouch.dll: the player says so at creation, plays the
// whole file at speed 1 and, at any other speed, finds no data and stops at once.
KL_CHILD_ROLE(fg_no_soundtouch) {
  fg::TklMediaPlayer p;
  if (p.GetSoundTouch() != nullptr || !LogHas("TklMediaPlayer.Create: SoundTouchCreateInstance not assigned")) return 1;
  std::atomic<int64_t> sent{0};
  p.SetOnSendingWavBlock([&sent](void*, int32_t Size) { sent += Size; });
  if (!p.OpenFile(Args.at(0)) || !p.Play()) return 2;
  if (!WaitUntil([&] { return p.GetMode() == fg::pmFinished; }, 5000) || sent != RATE / 2 * 4) return 3;
  p.SetSpeed(1.5f);
  p.SetPosition(0);
  if (!p.Play() || p.GetMode() != fg::pmStopped || sent != RATE / 2 * 4) return 4;
  return LogHas("FillTempCorrectedPipe: FSoundTouch = nil") && LogHas("TklMediaPlayer.Play: QueueNextBuffer failed") ? 0 : 5;
}

TEST(FirstGenerationPlayer, WithoutSoundTouchPlaysOnlyAtSpeedOne) {
  kltest::TTempDir dir;
  const std::string exe = dir / "alone.exe";
  ASSERT_TRUE(CopyFileA(kltest::SelfExe().c_str(), exe.c_str(), FALSE));
  const auto r = kltest::Run(kltest::Quote(exe) + " --kl-child fg_no_soundtouch " +
                                 kltest::Quote(WriteWav(dir, "a.wav", Pattern(RATE / 2))),
                             30000);
  EXPECT_EQ(0u, r.ExitCode) << r.Out << r.Err;
}
