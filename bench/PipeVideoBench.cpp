// Frames per second of 1280x720 RGB32 pictures from ffmpeg.exe through a named pipe and
// TPipeVideoStream.GetFrame, next to ffmpeg.exe writing the same frames to NUL, in one
// run (each timed from ffmpeg's start; best of three). Run from bin\ (ffmpeg.exe is
// expected in ..\common\).
#include "BenchClock.h"
#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <thread>

#include "channels/UPipe.h"
#include "channels/klChildProcess.h"
#include "ffmpeg/UFfmpeg.h"
#include "ffmpeg/UVideoStreams.h"
#include "rtl/SysUtils.h"

namespace {

constexpr int kFrames = 300, kW = 1280, kH = 720;

std::string Command(const std::string& Output) {
  return kl::Format("\"%s\" -hide_banner -loglevel error -y -f lavfi -i testsrc=size=%dx%d:rate=25 -frames:v %d "
                    "-f rawvideo -pix_fmt rgb32 %s",
                    kl::UFfmpeg::FFmpegExePath().c_str(), kW, kH, kFrames, Output.c_str());
}

// Frames read and seconds taken.
std::pair<int, double> ThroughThePipe() {
  kl::ComPtr<kl::UPipe::INamedPipe2> pipe(new kl::UPipe::TNamedPipe("klBench_PipeVideo", 1));
  const auto stream = kl::UVideoStreams::TPipeVideoStream::Create(
      kl::klMediaPlayer::VideoInfo(kW, kH, 32, 25), pipe.Get());
  const double t = Seconds();
  std::thread writer([&] { kl::klChildProcess::RunAndWait(Command(pipe->GetName())); });
  // GetFrame waits 2 s for a picture; ffmpeg may take longer to connect on a busy machine.
  while (pipe->GetSizeToRead() == 0 && Seconds() - t < 30) Sleep(1);
  int frames = 0;
  uint32_t frame = 0;
  while (stream && stream->GetFrame(frame)) ++frames;
  const double took = Seconds() - t;
  writer.join();
  return {frames, took};
}

}  // namespace

int main() {
  // Unbuffered: the figures must show even when a run ends early.
  std::setvbuf(stdout, nullptr, _IONBF, 0);
  double bare = 1e9, lib = 1e9;
  int frames = 0;
  for (int run = 0; run < 3; ++run) {
    const double t = Seconds();
    kl::klChildProcess::RunAndWait(Command("NUL"));
    bare = std::min(bare, Seconds() - t);
    const auto [n, took] = ThroughThePipe();
    frames = n;
    lib = std::min(lib, took);
  }
  std::printf("%d frames %dx%d rgb32 (%.1f MB each), best of 3\n", kFrames, kW, kH, kW * kH * 4 / 1e6);
  std::printf("  ffmpeg to NUL                  %7.1f fps\n", kFrames / bare);
  std::printf("  named pipe, TPipeVideoStream   %7.1f fps  (%.2fx)  %d frames read\n", frames / lib, bare / lib,
              frames);
  return frames == kFrames ? 0 : 1;
}
