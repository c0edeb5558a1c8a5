// TPipeVideoStream lets the named pipe's reader run three pictures ahead of the player, and no further.
#include <gtest/gtest.h>

#include <windows.h>

#include <thread>

#include "FfmpegTestUtil.h"
#include "KlTest.h"
#include "ffmpeg/UVideoStreams.h"

TEST(PipeVideoStream, ReaderQueuesThreePicturesAheadAndStops) {
  constexpr int kFrame = 160 * 120 * 4;  // three of them lie above the pipe's default level
  kl::ComPtr<kl::UPipe::INamedPipe2> pipe(new kl::UPipe::TNamedPipe(kl::Format("klpva%lu", GetCurrentProcessId()), 1));
  auto s = kl::UVideoStreams::TPipeVideoStream::Create(kl::klMediaPlayer::VideoInfo(160, 120, 32, 25), pipe.Get());
  ASSERT_TRUE(s);
  EXPECT_EQ(pipe->GetBufferLevel(), 3 * kFrame);
  kltest::TRunResult r;
  std::thread writer([&] {
    r = kltest::Ffmpeg("-f lavfi -i testsrc=size=160x120:rate=25:duration=0.8 -f rawvideo -pix_fmt rgb32 " +
                           pipe->GetName(), 60000);
  });
  // Twenty pictures are coming; the reader takes three and at most one more read.
  EXPECT_TRUE(fftest::WaitUntil([&] { return pipe->GetSizeToRead() >= 3 * kFrame; }, 30000));
  Sleep(500);
  EXPECT_LT(pipe->GetSizeToRead(), 3 * kFrame + 40960);
  uint32_t frame = 0;
  int frames = 0;
  while (s->GetFrame(frame)) ++frames;
  writer.join();
  EXPECT_EQ(r.ExitCode, 0u) << r.Err;
  EXPECT_EQ(frames, 20);
}
