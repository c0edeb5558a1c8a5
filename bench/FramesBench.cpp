// Frames per second through TVideoFramesDecoder (1280x720 H.264 -> GetNextFrame) next to
// ffmpeg.exe decoding the same file to raw BGR24 into NUL, and through
// TVideoFramesEncoder (EncodeFrame -> H.264) next to ffmpeg.exe encoding the same raw
// frames read from a file, in one run. Run from bin\ (ffmpeg.exe is expected in
// ..\common\).
#include "BenchClock.h"
#include <windows.h>

#include <tlhelp32.h>

#include <cstdio>
#include <string>
#include <vector>

#include "channels/klChildProcess.h"
#include "ffmpeg/UFfmpeg.h"
#include "rtl/SysUtils.h"

namespace {

constexpr int kFrames = 150;
constexpr int kEncW = 640, kEncH = 360;

std::string Ffmpeg() { return "\"" + kl::UFfmpeg::FFmpegExePath() + "\" -hide_banner -loglevel error -y "; }

bool Run(const std::string& Args) { return kl::klChildProcess::RunAndWait(Ffmpeg() + Args); }

// The ffmpeg processes running now (the encoder's: none of the benchmark's own runs then).
std::vector<HANDLE> FfmpegProcesses() {
  std::vector<HANDLE> r;
  HANDLE snap = CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
  PROCESSENTRY32 e{};
  e.dwSize = sizeof e;
  for (BOOL ok = Process32First(snap, &e); ok; ok = Process32Next(snap, &e)) {
    if (lstrcmpiA(e.szExeFile, "ffmpeg.exe") != 0) continue;
    if (HANDLE h = OpenProcess(SYNCHRONIZE, FALSE, e.th32ProcessID)) r.push_back(h);
  }
  CloseHandle(snap);
  return r;
}

}  // namespace

int main() {
  const std::string dir = kl::GetTempDir();
  const std::string film = dir + "klBench_Frames.mp4", raw = dir + "klBench_Frames.bgr", out = dir + "klBench_Out.mp4";
  if (!Run(kl::Format("-f lavfi -i testsrc=size=1280x720:rate=25 -frames:v %d -c:v libx264 -preset ultrafast "
                      "-pix_fmt yuv420p \"%s\"", kFrames, film.c_str())) ||
      !Run(kl::Format("-f lavfi -i testsrc=size=%dx%d:rate=25 -frames:v %d -f rawvideo -pix_fmt bgr24 \"%s\"", kEncW,
                      kEncH, kFrames, raw.c_str()))) {
    std::fprintf(stderr, "ffmpeg could not make the material\n");
    return 1;
  }

  // Decoding.
  double t = Seconds();
  Run(kl::Format("-i \"%s\" -an -f rawvideo -pix_fmt bgr24 NUL", film.c_str()));
  const double bareDecode = Seconds() - t;
  // The file's information is read beforehand: the frames are timed, not the probe.
  const auto info = kl::UFfmpeg::TVideoFileInfo::Create(film);
  t = Seconds();
  int decoded = 0;
  {
    const auto decoder = kl::UFfmpeg::TVideoFramesDecoder::Create(film, info.Get());
    HBITMAP bmp = nullptr;
    void* bits = nullptr;
    while (decoder && decoder->GetNextFrame(bmp, bits)) ++decoded;
  }
  const double libDecode = Seconds() - t;

  // Encoding.
  t = Seconds();
  Run(kl::Format("-f rawvideo -pix_fmt bgr24 -s %dx%d -r 25 -i \"%s\" \"%s\"", kEncW, kEncH, raw.c_str(), out.c_str()));
  const double bareEncode = Seconds() - t;
  std::vector<char> frames;
  {
    FILE* f = std::fopen(raw.c_str(), "rb");
    frames.resize(static_cast<size_t>(kEncW) * kEncH * 3 * kFrames);
    const size_t got = f != nullptr ? std::fread(frames.data(), 1, frames.size(), f) : 0;
    if (f != nullptr) std::fclose(f);
    if (got != frames.size()) return 1;
  }
  t = Seconds();
  std::vector<HANDLE> started;
  {
    const kl::ComPtr<kl::UFfmpeg::IVideoFramesEncoder> encoder = new kl::UFfmpeg::TVideoFramesEncoder(out);
    encoder->SetSize(kEncW, kEncH);
    encoder->SetFPS(25);
    for (int i = 0; i < kFrames; ++i) {
      encoder->EncodeFrame(static_cast<const void*>(frames.data() + static_cast<size_t>(kEncW) * kEncH * 3 * i));
      if (i == 0) started = FfmpegProcesses();
    }
  }
  // The encoder does not wait for ffmpeg to complete the file; the benchmark does.
  for (HANDLE h : started) {
    WaitForSingleObject(h, INFINITE);
    CloseHandle(h);
  }
  const double libEncode = Seconds() - t;

  std::printf("decoder: %d frames 1280x720 H.264\n", decoded);
  std::printf("  ffmpeg to NUL          %7.1f fps\n", kFrames / bareDecode);
  std::printf("  GetNextFrame           %7.1f fps  (%.2fx)\n", decoded / libDecode, bareDecode / libDecode);
  std::printf("encoder: %d frames %dx%d into H.264\n", kFrames, kEncW, kEncH);
  std::printf("  ffmpeg from a file     %7.1f fps\n", kFrames / bareEncode);
  std::printf("  EncodeFrame            %7.1f fps  (%.2fx)\n", kFrames / libEncode, bareEncode / libEncode);
  DeleteFileA(film.c_str());
  DeleteFileA(raw.c_str());
  DeleteFileA(out.c_str());
  return decoded == kFrames ? 0 : 1;
}
