// TklMediaPlayer on the real wave-out device, checked against what the audio server
// recorded (a null sink whose monitor the test script captures); a player destroyed by
// its own OnFinish, and positions past the device count's 32 bits.
#include <gtest/gtest.h>

#include <windows.h>
#include <atomic>
#include <cmath>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "PlaybackTestUtil.h"

using namespace kltest::playback;
using namespace kl::klMediaPlayer;

namespace {
constexpr int RATE = 44100;
}  // namespace

// Every frame of the file, once and in order, scaled by the volume; 8-bit samples are
// scaled as signed values.
TEST(MediaPlayer, PlaysEveryFrameOnceAndScalesSixteenAndEightBitSamples) {
  REQUIRE_CAPTURE();
  kltest::TTempDir dir;
  const auto frames = Pattern(RATE * 3 / 2);  // 1.5 s: 15 blocks
  TklMediaPlayer p;
  p.SetVolume(0.5f);
  EXPECT_EQ(0.5f, p.GetVolume());
  TSentRecorder sent(p);
  TRun r = PlayToEnd(p, WavSource(WriteWav(dir, "a.wav", frames), true).Get(), 6000);
  EXPECT_EQ(pmFinished, r.Mode);
  EXPECT_EQ(1, r.Finishes);
  // The event sees the source's own samples: the volume comes after it.
  EXPECT_TRUE(sent.Bytes() == Bytes(frames)) << sent.Bytes().size() << " bytes sent";
  p.SetOnSendingWavBlock(nullptr);
  const auto half = Scaled(frames, 0.5);
  TPlayed played = Analyse(r.Captured, half);
  EXPECT_EQ(0, played.Foreign);  // every value halved, none left as it was
  EXPECT_EQ("", InOrder(played, 0, played.Segments.size() - 1, 0, half.size(), RATE));

  // 8-bit stereo: bytes are scaled as signed values, so 0x80 (silence) becomes 0xC0,
  // 0x40 becomes 0x20, 0xFF (-1) becomes 0x00 (-0.5 to even) and 0x10 becomes 0x08.
  const unsigned char in[4] = {0x80, 0x40, 0xFF, 0x10};
  const unsigned char out[4] = {0xC0, 0x20, 0x00, 0x08};
  std::string data;
  for (int i = 0; i < RATE / 2; ++i) data.append(reinterpret_cast<const char*>(in), 4);  // 1 s
  kltest::WriteFileBytes(dir / "b8.wav", kltest::MakeWav(2, RATE, 8, data));
  r = PlayToEnd(p, WavSource(dir / "b8.wav", true).Get(), 5000);
  std::vector<TFrame> expected;
  for (int i = 0; i < RATE / 2; ++i) {
    for (int k = 0; k < 4; k += 2) {
      expected.push_back({static_cast<int16_t>((out[k] - 128) * 256), static_cast<int16_t>((out[k + 1] - 128) * 256)});
    }
  }
  int64_t matching = 0;
  for (size_t i = 0; i + 1 < r.Captured.size(); ++i) {
    const TFrame f = r.Captured[i];
    // Once the data ends the driver pads an 8-bit device with byte 0 (full negative),
    // not 0x80: not the player's doing.
    if (f.Silent() || f == TFrame{-32768, -32768}) continue;
    ASSERT_TRUE(f == expected[0] || f == expected[1]) << i << ": " << f.L << "," << f.R;
    ++matching;
  }
  EXPECT_GT(matching, RATE * 9 / 10);
}

TEST(MediaPlayer, PauseResumeAndSeekLoseAndRepeatNothing) {
  REQUIRE_CAPTURE();
  kltest::TTempDir dir;
  const auto frames = Pattern(RATE * 3);
  TklMediaPlayer p;
  TSentRecorder recorder(p);
  p.SetSource(WavSource(WriteWav(dir, "a.wav", frames), true).Get());
  const int64_t mark = kltest::TCapture::Mark();
  ASSERT_TRUE(p.Play());
  Sleep(700);
  p.Pause();
  EXPECT_EQ(pmPaused, p.GetMode());
  Sleep(100);
  const int32_t frozen = p.GetPosition();
  Sleep(400);
  EXPECT_EQ(frozen, p.GetPosition());
  EXPECT_GT(frozen, 400);
  EXPECT_TRUE(p.Play());
  EXPECT_EQ(pmPlaying, p.GetMode());
  Sleep(300);
  p.SetPosition(2000);
  EXPECT_EQ(pmPlaying, p.GetMode());
  const int32_t at = p.GetPosition();
  EXPECT_GE(at, 2000);
  EXPECT_LT(at, 2400);
  EXPECT_TRUE(WaitUntil([&] { return p.GetMode() == pmFinished; }, 5000));
  // What the server played: the driver replays a few milliseconds that were already in
  // the server when it paused and may smear the edges, but nothing is lost. From the
  // start for a while, then from the frame of 2000 ms to the end.
  const TPlayed played = Analyse(Frames(kltest::TCapture::Since(mark)), frames);
  EXPECT_LE(played.Foreign, RATE / 100);
  size_t jump = 1;
  while (jump < played.Segments.size() && played.Segments[jump].Start < 2 * RATE) ++jump;
  ASSERT_LT(jump, played.Segments.size()) << Describe(played);
  EXPECT_EQ("", InOrder(played, 0, jump - 1, 0, played.Segments[jump - 1].Start + played.Segments[jump - 1].Count, RATE));
  EXPECT_GT(played.Segments[jump - 1].Start + played.Segments[jump - 1].Count, RATE / 2);
  EXPECT_EQ("", InOrder(played, jump, played.Segments.size() - 1, 2 * RATE, frames.size(), RATE));
  // What the player handed to the device, exactly: a whole-block prefix of the file,
  // once, then the file from 2000 ms on.
  const std::string sent = recorder.Bytes();
  const std::string all = Bytes(frames), tail = all.substr(2 * RATE * 4);
  ASSERT_GE(sent.size(), tail.size());
  const size_t head = sent.size() - tail.size();
  EXPECT_EQ(0u, head % 17640);
  EXPECT_TRUE(sent.compare(head, std::string::npos, tail) == 0);
  EXPECT_TRUE(sent.compare(0, head, all, 0, head) == 0);
}

// The position moves with the device's byte count: twice as fast at speed 2. Compared
// with itself rather than the wall clock, as the shared machine's audio server may run
// a few per cent slow.
TEST(MediaPlayer, PositionScalesWithSpeed) {
  REQUIRE_CAPTURE();
  kltest::TTempDir dir;
  TklMediaPlayer p;
  p.SetSource(WavSource(WriteWav(dir, "a.wav", Pattern(RATE * 13)), true).Get());
  ASSERT_TRUE(p.Play());
  Sleep(300);
  const auto advance = [&p] {
    const int32_t from = p.GetPosition();
    Sleep(1500);
    return p.GetPosition() - from;
  };
  const int32_t normal = advance();
  ASSERT_GT(normal, 500);
  p.SetSpeed(2.0f);
  p.SetPosition(6000);
  EXPECT_EQ(pmPlaying, p.GetMode());
  Sleep(300);
  EXPECT_NEAR(advance(), 2 * normal, normal / 4);
  p.Stop();
  EXPECT_EQ(pmStopped, p.GetMode());
}

TEST(MediaPlayer, SpeedTwoHalvesTheTimeAndKeepsThePitch) {
  REQUIRE_CAPTURE();
  kltest::TTempDir dir;
  std::vector<TFrame> tone(RATE * 2);
  for (size_t i = 0; i < tone.size(); ++i) {
    const auto v = static_cast<int16_t>(std::lround(12000 * std::sin(2 * 3.14159265358979 * 440 * i / RATE)));
    tone[i] = {v, v};
  }
  TklMediaPlayer p;
  p.SetSpeed(2.0f);
  const TRun r = PlayToEnd(p, WavSource(WriteWav(dir, "t.wav", tone), true).Get(), 5000);
  EXPECT_EQ(pmFinished, r.Mode);
  // The server may insert silence when it falls behind: count only sounding frames,
  // and zero crossings only between neighbours that both sound.
  int64_t sounding = 0;
  int crossings = 0;
  for (size_t i = 0; i < r.Captured.size(); ++i) {
    if (r.Captured[i].Silent()) continue;
    ++sounding;
    if (i > 0 && !r.Captured[i - 1].Silent() && (r.Captured[i - 1].L < 0) != (r.Captured[i].L < 0)) ++crossings;
  }
  EXPECT_NEAR(RATE, sounding, RATE / 10);  // 2 s of tone in about 1 s
  // 440 Hz, not 880.
  const double freq = crossings / 2.0 / (static_cast<double>(sounding) / RATE);
  EXPECT_NEAR(440, freq, 25);
}

TEST(MediaPlayer, LimitsModesAndPositionWithoutPlaying) {
  TklMediaPlayer p;
  EXPECT_EQ(1.0f, p.GetSpeed());
  EXPECT_EQ(1.0f, p.GetVolume());
  EXPECT_EQ(pmNotReady, p.GetMode());
  // Each value in turn: what the player holds afterwards (a refused value changes nothing).
  const std::pair<float, float> speeds[] = {{3.0f, 1.0f}, {0.0f, 1.0f}, {NAN, 1.0f}, {2.99f, 2.99f}};
  for (const auto& [value, held] : speeds) {
    p.SetSpeed(value);
    EXPECT_EQ(held, p.GetSpeed()) << "speed " << value;
  }
  const std::pair<float, float> volumes[] = {{5.0f, 5.0f}, {-0.1f, 5.0f}, {5.01f, 5.0f}};
  for (const auto& [value, held] : volumes) {
    p.SetVolume(value);
    EXPECT_EQ(held, p.GetVolume()) << "volume " << value;
  }
  EXPECT_EQ(0, p.BytesToMilliseconds(176400));
  EXPECT_FALSE(p.Play());
  EXPECT_TRUE(kltest::LogHas("TklMediaPlayer.Play: FSoundStream = nil"));

  // With a source but not playing.
  kltest::TTempDir dir;
  p.SetSource(WavSource(WriteWav(dir, "a.wav", Pattern(RATE * 2)), false).Get());
  EXPECT_EQ(pmStopped, p.GetMode());
  EXPECT_EQ(2000, p.GetLength());
  EXPECT_EQ(0, p.BytesToMilliseconds(-5));
  EXPECT_EQ("OK", p.GetErrorMessage());
  p.Pause();  // not playing: nothing
  EXPECT_EQ(pmStopped, p.GetMode());
  p.SetPosition(1500);
  EXPECT_EQ(pmStopped, p.GetMode());
  EXPECT_EQ(1500, p.GetPosition());
  p.Close();
  EXPECT_EQ(pmNotReady, p.GetMode());
  EXPECT_FALSE(p.GetSource());
  EXPECT_EQ(0, p.GetPosition());
}

TEST(MediaPlayer, FileSourceWithoutFinishStaysPlayingAndLogsTheCastError) {
  REQUIRE_CAPTURE();
  kltest::TTempDir dir;
  TklMediaPlayer p;
  int finishes = 0;
  p.SetOnFinish([&finishes](void*) { ++finishes; });
  p.SetSource(WavSource(WriteWav(dir, "a.wav", Pattern(RATE / 2)), false).Get());
  ASSERT_TRUE(p.Play());
  EXPECT_TRUE(WaitUntil([] { return kltest::LogHas("klMediaPlayer.WindowProc: Interface not supported"); }, 3000));
  Sleep(300);
  EXPECT_EQ(pmPlaying, p.GetMode());
  EXPECT_EQ(0, finishes);
  p.Stop();  // nothing is queued: returns at once
  EXPECT_EQ(pmStopped, p.GetMode());
}

TEST(MediaPlayer, RefusedFormatShowsTheWriteErrorAndStops) {
  kltest::TTempDir dir;
  // A format tag no driver knows: no device opens for it, so the first write has no
  // handle.
  std::string wav = kltest::MakeWav(1, 8000, 8, std::string(8000, '\x80'));
  wav[20] = '\x22';
  wav[21] = '\x22';
  kltest::WriteFileBytes(dir / "odd.wav", wav);
  kltest::TBoxRecorder boxes;
  {
    TklMediaPlayer p;
    p.SetSource(WavSource(dir / "odd.wav", false).Get());
    EXPECT_EQ("", p.GetErrorMessage());
    EXPECT_TRUE(p.Play());  // the failure shows in the mode
    EXPECT_EQ(pmStopped, p.GetMode());
  }
  const std::string caption = "\xC2\xED\xE8\xEC\xE0\xED\xE8\xE5";  // Windows-1251
  EXPECT_EQ(boxes.Boxes, kltest::TBoxRecorder::TBoxes({{"The specified handle is invalid", caption}}));
  EXPECT_EQ(boxes.Types, std::vector<UINT>{48});
  EXPECT_TRUE(kltest::LogHas("TklMediaPlayer.Play: QueueNextBuffer error"));
}

TEST(MediaPlayer, CloseDestroyAndSourceChangeDuringPlaybackEndCleanly) {
  REQUIRE_CAPTURE();
  kltest::TTempDir dir;
  const std::string a = WriteWav(dir, "a.wav", Pattern(RATE * 5));
  const int threadsBefore = kltest::ThreadCount();
  for (int round = 0; round < 2; ++round) {
    auto p = std::make_unique<TklMediaPlayer>();
    p->SetSource(WavSource(a, true).Get());
    ASSERT_TRUE(p->Play());
    Sleep(300);
    // A new source while playing stops the old one and is ready to play.
    p->SetSource(WavSource(a, true).Get());
    EXPECT_EQ(pmStopped, p->GetMode());
    ASSERT_TRUE(p->Play());
    Sleep(300);
    DWORD t = GetTickCount();
    if (round == 0) {
      p->Close();
      EXPECT_EQ(pmNotReady, p->GetMode());
      EXPECT_FALSE(p->Play());
    }
    p.reset();  // destroyed while playing in round 1
    EXPECT_LT(GetTickCount() - t, 3000u);
  }
  EXPECT_EQ(nullptr, FindWindowA("WaveOutWindow", nullptr));
  // The audio driver may keep a thread of its own; the players' threads are gone.
  EXPECT_LE(kltest::ThreadCount(), threadsBefore + 2);
}

TEST(MediaPlayer, EveryQuickStartOfAShortFilePlays) {
  REQUIRE_CAPTURE();
  kltest::TTempDir dir;
  const std::string path = dir / "short.mp3";
  ASSERT_EQ(0u, kltest::Ffmpeg("-f lavfi -i sine=f=440:d=3 -ac 2 -ar 44100 -c:a libmp3lame " + kltest::Quote(path)).ExitCode);
  TklMediaPlayer p;
  TSentRecorder sent(p);
  // Play at once, while the buffer thread may be reading the whole file.
  for (int i = 0; i < 40; ++i) {
    const size_t before = sent.Bytes().size();
    p.SetSource(ComPtr<ISoundStream>(new kl::USoundStreams::TMp3FileSoundStream(path)).Get());
    ASSERT_TRUE(p.Play());
    ASSERT_EQ(pmPlaying, p.GetMode()) << "start " << i;
    ASSERT_GE(sent.Bytes().size(), before + 2 * 17640) << "start " << i;
  }
}

// The usual meter: handlers hand their data to the host's window and wait for it.
TEST(MediaPlayer, HandlersThatWaitForTheHostsThreadHangNeitherStopNorTheDestructor) {
  REQUIRE_CAPTURE();
  kltest::TTempDir dir;
  const std::string a = WriteWav(dir, "a.wav", Pattern(RATE));
  HWND host = CreateWindowExA(0, "STATIC", "", 0, 0, 0, 0, 0, nullptr, nullptr, nullptr, nullptr);
  std::atomic<int> answered{0};
  {
    TklMediaPlayer p;
    p.SetOnSendingWavBlock([&](void*, int32_t) { answered += 1 + static_cast<int>(SendMessageA(host, WM_NULL, 0, 0)); });
    p.SetOnFinish([&](void*) { answered += 1 + static_cast<int>(SendMessageA(host, WM_NULL, 0, 0)); });
    for (int round = 0; round < 5; ++round) {
      p.SetSource(WavSource(a, true).Get());
      ASSERT_TRUE(p.Play());
      Sleep(round == 3 ? 1500 : 100 + 50 * round);  // round 3 plays to the end
      if (round < 4) p.Stop();
    }
  }  // destroyed while playing
  EXPECT_GT(answered.load(), 8);
  DestroyWindow(host);
}

TEST(MediaPlayer, DestroyedFromItsOwnOnFinish) {
  kltest::TTempDir dir;
  // A source shorter than a block finishes inside Play, a longer one on the wave-out thread.
  for (const int frames : {441, 22050}) {
    SCOPED_TRACE(frames);
    auto* p = new TklMediaPlayer;
    HANDLE gone = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    p->SetOnFinish([&p, gone](void*) {
      delete p;
      SetEvent(gone);
    });
    p->SetSource(WavSource(WriteWav(dir, "short.wav", Pattern(frames)), true).Get());
    EXPECT_TRUE(p->Play());
    EXPECT_EQ(WaitForSingleObject(gone, 20000), WAIT_OBJECT_0);
    CloseHandle(gone);
    Sleep(300);  // the wave-out thread leaves and frees itself meanwhile
  }
  // The device and the window class are still usable.
  TklMediaPlayer next;
  std::atomic<int> finishes{0};
  next.SetOnFinish([&](void*) { ++finishes; });
  next.SetSource(WavSource(WriteWav(dir, "next.wav", Pattern(4410)), true).Get());
  EXPECT_TRUE(next.Play());
  EXPECT_TRUE(WaitUntil([&] { return finishes.load() == 1; }, 20000));
}

TEST(MediaPlayer, PositionsGoOnPastTheDeviceCountsWrap) {
  // 2^31 bytes of CD audio is 3 h 22 min, 2^32 is 6 h 45 min; the device is read every 10 min.
  TWideByteCount count;
  constexpr uint64_t kTenMinutes = 600 * 176400;
  for (uint64_t bytes = 0; bytes < 10 * 3600 * 176400ull; bytes += kTenMinutes) {
    ASSERT_EQ(count.Widen(static_cast<uint32_t>(bytes)), bytes);
  }
  kltest::TTempDir dir;
  TklMediaPlayer p;
  p.SetSource(WavSource(WriteWav(dir, "cd.wav", Pattern(441)), false).Get());
  EXPECT_EQ(p.BytesToMilliseconds(4 * 3600 * 176400ll), 4 * 3600 * 1000);
  EXPECT_EQ(p.BytesToMilliseconds(7 * 3600 * 176400ll), 7 * 3600 * 1000);
}
