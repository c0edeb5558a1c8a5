// TPipeVideoStream fed through a real named pipe by ffmpeg.exe and by a writer killed mid-frame.
#include <gtest/gtest.h>

#include <windows.h>

#include <cmath>
#include <cstring>
#include <thread>

#include "FfmpegTestUtil.h"
#include "KlTest.h"
#include "ffmpeg/UVideoStreams.h"

using namespace kl::klMediaPlayer;
using kl::ComPtr;
using kl::UPipe::INamedPipe2;
using kl::UVideoStreams::TPipeVideoStream;

namespace {

ComPtr<INamedPipe2> NewPipe() {
  static int n = 0;
  return ComPtr<INamedPipe2>(new kl::UPipe::TNamedPipe(kl::Format("klpvs%lu_%d", GetCurrentProcessId(), ++n), 1));
}

// ffmpeg writing Args plus the pipe's name; waits for the first Bytes: GetFrame waits only 2 s, ffmpeg starts slowly.
std::thread FfmpegInto(INamedPipe2* Pipe, const std::string& Args, int Bytes, kltest::TRunResult& R) {
  std::thread t([&R, Pipe, Args] { R = kltest::Ffmpeg(Args + Pipe->GetName(), 60000); });
  EXPECT_TRUE(fftest::WaitUntil([&] { return Pipe->GetSizeToRead() >= Bytes; }, 30000));
  return t;
}

}  // namespace

// Connects to pipe Args[0], writes Args[1] bytes, then stays until killed.
KL_CHILD_ROLE(frame_writer_hangs) {
  HANDLE h = kltest::OpenPipeForWriting(Args[0]);
  if (h == INVALID_HANDLE_VALUE) return 3;
  const std::string data(static_cast<size_t>(std::stoi(Args[1])), '\x5A');
  DWORD written = 0;
  if (!WriteFile(h, data.data(), static_cast<DWORD>(data.size()), &written, nullptr)) return 4;
  Sleep(60000);
  return 0;
}

TEST(PipeVideoStream, FramesEqualFfmpegsOwnRawOutput) {
  auto bad = NewPipe();
  for (const auto& info : {VideoInfo(8, 8, 16, 25), VideoInfo(8, 8, 32, 0), VideoInfo(8, 8, 32, std::nanf("")),
                           VideoInfo(8, 0, 32, 25)}) {
    EXPECT_FALSE(TPipeVideoStream::Create(info, bad.Get()));
  }
  EXPECT_FALSE(TPipeVideoStream::Create(VideoInfo(8, 8, 32, 25), nullptr));
  kltest::TTempDir dir;
  for (const int bits : {24, 32}) {  // bgr24: 1926-byte rows into a 1928-byte stride
    const std::string args = std::string("-f lavfi -i testsrc=size=642x40:rate=25:duration=0.4 -f rawvideo -pix_fmt ") +
                             (bits == 24 ? "bgr24 " : "rgb32 ");
    ASSERT_EQ(kltest::Ffmpeg(args + kltest::Quote(dir / "ref.raw")).ExitCode, 0u);
    const std::string ref = kltest::ReadFileBytes(dir / "ref.raw");
    const int32_t row = 642 * bits / 8, stride = (row + 3) / 4 * 4;
    ASSERT_EQ(ref.size(), 10u * row * 40);
    auto pipe = NewPipe();
    ComPtr<IVideoStream> s = TPipeVideoStream::Create(VideoInfo(642, 40, bits, 25), pipe.Get());
    ASSERT_TRUE(s);
    kltest::TRunResult r;
    std::thread writer = FfmpegInto(pipe.Get(), args, 1, r);
    uint32_t frame = 0;
    std::string got;
    for (int i = 0; i < 10 && s->GetFrame(frame); ++i) {
      void* data = nullptr;
      EXPECT_EQ(s->GetFrameData(data), stride * 40);
      for (int y = 0; y < 40; ++y) got.append(static_cast<char*>(data) + y * stride, static_cast<size_t>(row));
    }
    writer.join();
    EXPECT_EQ(r.ExitCode, 0u) << r.Err;
    EXPECT_TRUE(got == ref) << bits;
    EXPECT_FALSE(s->GetFrame(frame));  // the writer has gone
    s->SetPosition(10000);
    EXPECT_EQ(s->GetPosition(), 10400);  // ten frames at 25 fps
  }
}

TEST(PipeVideoStream, NoDataAndAKilledWriterGiveFalse) {
  constexpr int kFrame = 16 * 8 * 4;
  auto pipe = NewPipe();
  ComPtr<IVideoStream> s = TPipeVideoStream::Create(VideoInfo(16, 8, 32, 25), pipe.Get());
  ASSERT_TRUE(s);
  kltest::TProcess child;
  ASSERT_TRUE(kltest::StartChild(child, "frame_writer_hangs", {pipe->GetName(), std::to_string(kFrame * 3 / 2)}));
  uint32_t frame = 0;
  ASSERT_TRUE(fftest::WaitUntil([&] { return pipe->GetSizeToRead() >= kFrame; }, 20000));
  const auto first = fftest::LogMessages(fftest::LogOf([&] { EXPECT_TRUE(s->GetFrame(frame)); }));
  EXPECT_EQ(first, std::vector<std::string>{"FillFrame: 1"});
  // Half a frame queued, nothing more coming: the 2 s wait fails and counts nothing.
  auto stalled = fftest::LogMessages(fftest::LogOf([&] { EXPECT_FALSE(s->GetFrame(frame)); }));
  ASSERT_GE(stalled.size(), 2u);  // the pipe's own time-out line comes first
  stalled.erase(stalled.begin(), stalled.end() - 2);
  EXPECT_EQ(stalled, (std::vector<std::string>{"TPipeVideoStream.FillFrame: FPipe.WaitForData failed",
                                               "TPipeVideoStream.GetFrame: FillFrame failed"}));
  EXPECT_EQ(s->GetPosition(), 40);
  child.Kill();
  EXPECT_FALSE(s->GetFrame(frame));
  EXPECT_EQ(s->GetPosition(), 40);
}

TEST(PipeVideoStream, FfmpegThroughThePipeIntoTheFramesPlayerToTheEnd) {
  auto pipe = NewPipe();
  ComPtr<IVideoStream> s = TPipeVideoStream::Create(VideoInfo(64, 48, 32, 25), pipe.Get());
  HWND wnd = CreateWindowExA(0, "STATIC", "", WS_POPUP | WS_VISIBLE, 0, 0, 64, 48, nullptr, nullptr, nullptr, nullptr);
  kltest::TRunResult r;
  const char* args = "-f lavfi -i testsrc=size=64x48:rate=25:duration=1 -f rawvideo -pix_fmt rgb32 ";
  std::thread writer = FfmpegInto(pipe.Get(), args, 64 * 48 * 4, r);
  {
    TFramesPlayer p;
    std::atomic<int> frames{0}, finishes{0};
    p.SetOnFrame([&](void*, int32_t Size) { frames += Size == 64 * 48 * 4; });
    p.SetOnFinish([&](void*) { ++finishes; });
    p.SetTargetWindow(wnd);
    p.SetSource(s.Get());
    EXPECT_TRUE(p.Play());
    EXPECT_TRUE(fftest::WaitUntil([&] { return p.GetMode() == pmFinished; }, 30000));
    p.Stop();
    EXPECT_EQ(finishes.load(), 1);
    EXPECT_EQ(frames.load(), 26);  // the first frame shows at Play and again at the first tick
  }
  writer.join();
  EXPECT_EQ(r.ExitCode, 0u) << r.Err;
  DestroyWindow(wnd);
}
