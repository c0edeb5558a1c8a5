// TFFmpegPlayer at half speed, and one player opened, sought and closed many times.
#include <gtest/gtest.h>

#include <windows.h>

#include <string>
#include <vector>

#include "FfmpegPlayerTestUtil.h"

using namespace kl::klMediaPlayer;
using namespace playertest;

// The tempo corrector only shortens sound, so at 0.5 the sound keeps its rate while the
// pictures come at half theirs: when the film's last sample has been heard, about half
// of the pictures have been drawn, in order.
TEST(FFmpegPlayerMore, HalfSpeedSlowsThePicturesAndKeepsTheSound) {
  REQUIRE_CAPTURE();
  TFFmpegPlayer p;
  TWatch w(p);
  p.SetSpeed(0.5f);
  ASSERT_TRUE(p.Open(Film("av.mkv")));
  ASSERT_TRUE(p.Play());
  std::vector<int64_t> heard;
  ASSERT_TRUE(fftest::WaitUntil(
      [&] {
        Sleep(200);
        heard = Indices(kltest::TCapture::Since(w.Mark, 0), 1);
        return !heard.empty() && heard.back() == 4 * kRate - 1;
      },
      20000));
  const int last = w.Last();
  p.Close();
  EXPECT_EQ(InOrder(heard, 0, 4 * kRate), "");
  EXPECT_LT(last, 75);
  EXPECT_EQ(w.Runs(), "0..0 0.." + std::to_string(w.Last()));
  EXPECT_EQ(p.GetSpeed(), 0.5f);
}

// Every cycle seeks at once after Open, before the first start's ffmpeg processes have
// opened their pipes: the pictures still begin at the new place (no late ffmpeg of the
// first start takes the new pipes). Cycles run for about 15 s (at least 3, at most 20);
// afterwards the process has no more threads than after the first one, and no more
// handles than the information reading of each Open keeps.
TEST(FFmpegPlayerMore, CyclesWithAnEarlySeekStartAtTheSeekAndLeaveNothingBehind) {
  const std::string film = Film("av.mkv");
  const int ffmpegBefore = fftest::FfmpegProcessCount();
  DWORD handles = 0, handlesAfter = 0;
  int threads = 0, threadsAfter = 0;
  int cycles = 0;
  const ULONGLONG start = GetTickCount64();
  {
    TFFmpegPlayer p;
    TWatch w(p);
    for (; cycles < 20 && (cycles < 3 || GetTickCount64() - start < 15000); ++cycles) {
      ASSERT_TRUE(p.Open(film));
      p.SetPosition(2500);
      size_t from;
      {
        std::lock_guard<std::mutex> g(w.Lock);
        from = w.Frames.size();
      }
      ASSERT_TRUE(p.Play());
      ASSERT_TRUE(fftest::WaitUntil([&] { return w.Last() >= 65; }, 10000)) << w.Runs();
      p.Close();
      {
        std::lock_guard<std::mutex> g(w.Lock);
        ASSERT_LT(from, w.Frames.size());
        EXPECT_TRUE(w.Frames[from] == 62 || w.Frames[from] == 63) << "cycle " << cycles << ": " << w.Frames[from];
      }
      // The first cycle loads what Wine keeps for the rest of the process.
      (cycles == 0 ? handles : handlesAfter) = chtest::HandleCount();
      (cycles == 0 ? threads : threadsAfter) = kltest::ThreadCount();
    }
  }
  std::printf("%d open/seek/play/close cycles, handles %lu -> %lu, threads %d -> %d\n", cycles, handles, handlesAfter,
              threads, threadsAfter);
  // Open reads the film's information through a child process, whose thread handle is
  // kept by design: one handle an Open.
  EXPECT_LE(handlesAfter, handles + (cycles - 1) + 4);
  EXPECT_LE(threadsAfter, threads + 1);  // a restart used to keep a wave-out device, with its thread
  EXPECT_TRUE(NoFfmpegAfter(ffmpegBefore));
}
