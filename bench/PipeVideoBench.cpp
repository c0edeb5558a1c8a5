// Frames per second of 1280x720 RGB32 pictures from ffmpeg.exe through a named pipe and
// TPipeVideoStream.GetFrame, next to ffmpeg.exe writing the same frames to NUL, in one
// run (each timed from ffmpeg's start; best of three). A third line shows what the
// transport itself allows: the same pipe (same creation arguments) drained by a plain
// blocking read loop with no queue behind it. Run from bin\ (ffmpeg.exe is expected in
// ..\common\); an argument sets the number of frames (300 without).
#include "BenchClock.h"
#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "channels/UPipe.h"
#include "channels/klChildProcess.h"
#include "ffmpeg/UFfmpeg.h"
#include "ffmpeg/UVideoStreams.h"
#include "rtl/Handles.h"
#include "rtl/SysUtils.h"

namespace {

constexpr int kW = 1280, kH = 720;
int kFrames = 300;  // or the first argument

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

// Bytes drained and seconds taken by a blocking overlapped read loop.
std::pair<int64_t, double> PlainReader() {
  const std::string name = kl::Format("\\\\.\\pipe\\klBench_PipeVideoPlain%lu", GetCurrentProcessId());
  kl::Handles::THandle pipe(
      CreateNamedPipeA(name.c_str(), PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED, 0, 1, 4096, 4096, 0, nullptr));
  kl::Handles::THandle event(CreateEventA(nullptr, TRUE, FALSE, nullptr));
  if (!pipe || !event) return {0, 1};
  const double t = Seconds();
  std::thread writer([&] { kl::klChildProcess::RunAndWait(Command(name)); });
  ConnectNamedPipe(pipe.Get(), nullptr);
  std::vector<uint8_t> buffer(40960);
  int64_t total = 0;
  for (;;) {
    OVERLAPPED o{};
    o.hEvent = event.Get();
    DWORD got = 0;
    if (!ReadFile(pipe.Get(), buffer.data(), static_cast<DWORD>(buffer.size()), &got, &o) &&
        (GetLastError() != ERROR_IO_PENDING || !GetOverlappedResult(pipe.Get(), &o, &got, TRUE))) {
      break;
    }
    total += got;
  }
  const double took = Seconds() - t;
  writer.join();
  return {total, took};
}

}  // namespace

int main(int argc, char** argv) {
  // Unbuffered: the figures must show even when a run ends early.
  std::setvbuf(stdout, nullptr, _IONBF, 0);
  if (argc > 1) kFrames = std::max(1, std::atoi(argv[1]));
  double bare = 1e9, lib = 1e9, plain = 1e9;
  int frames = 0;
  int64_t plainBytes = 0;
  for (int run = 0; run < 3; ++run) {
    const double t = Seconds();
    kl::klChildProcess::RunAndWait(Command("NUL"));
    bare = std::min(bare, Seconds() - t);
    const auto [n, took] = ThroughThePipe();
    frames = n;
    lib = std::min(lib, took);
    const auto [bytes, plainTook] = PlainReader();
    plainBytes = bytes;
    plain = std::min(plain, plainTook);
  }
  std::printf("%d frames %dx%d rgb32 (%.1f MB each), best of 3\n", kFrames, kW, kH, kW * kH * 4 / 1e6);
  std::printf("  ffmpeg to NUL                  %7.1f fps\n", kFrames / bare);
  std::printf("  named pipe, TPipeVideoStream   %7.1f fps  (%.2fx)  %d frames read\n", frames / lib, bare / lib,
              frames);
  const int64_t frameBytes = int64_t{kW} * kH * 4;
  std::printf("  named pipe, plain reader       %7.1f fps  (%.2fx)  %lld frames read\n", kFrames / plain, bare / plain,
              static_cast<long long>(plainBytes / frameBytes));
  return frames == kFrames && plainBytes == kFrames * frameBytes ? 0 : 1;
}
