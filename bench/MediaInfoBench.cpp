// The time TVideoFileInfo takes for a file next to the time of "ffmpeg.exe -i" on the
// same file alone (started, its standard error read to the end, ended), in one run.
// Also split: the child process started and its standard error read until ffmpeg has
// exited (what SetFileName waits for), the parse of the text, and the full object.
// Run from bin\ (ffmpeg.exe is expected in ..\common\).
#include "BenchClock.h"
#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "channels/klChildProcess.h"
#include "ffmpeg/UFfmpeg.h"
#include "rtl/SysUtils.h"

namespace {

constexpr int kRuns = 15;

std::string Ffmpeg() { return "\"" + kl::UFfmpeg::FFmpegExePath() + "\""; }

// ffmpeg -i File with its standard error in a pipe read to the end; the text.
std::string Bare(const std::string& File) {
  SECURITY_ATTRIBUTES sa{sizeof sa, nullptr, TRUE};
  HANDLE readEnd = nullptr, writeEnd = nullptr;
  if (!CreatePipe(&readEnd, &writeEnd, &sa, 0)) return std::string();
  SetHandleInformation(readEnd, HANDLE_FLAG_INHERIT, 0);
  std::string cmd = Ffmpeg() + " -i \"" + File + "\"";
  STARTUPINFOA si{};
  si.cb = sizeof si;
  si.dwFlags = STARTF_USESTDHANDLES;
  si.hStdError = writeEnd;
  PROCESS_INFORMATION pi{};
  const BOOL started =
      CreateProcessA(nullptr, cmd.data(), nullptr, nullptr, TRUE, CREATE_NO_WINDOW, nullptr, nullptr, &si, &pi);
  CloseHandle(writeEnd);
  std::string text;
  if (started) {
    char buf[4096];
    DWORD n = 0;
    while (ReadFile(readEnd, buf, sizeof buf, &n, nullptr) && n > 0) text.append(buf, n);
    WaitForSingleObject(pi.hProcess, INFINITE);
    CloseHandle(pi.hThread);
    CloseHandle(pi.hProcess);
  }
  CloseHandle(readEnd);
  return text;
}

double Median(std::vector<double> V) {
  std::sort(V.begin(), V.end());
  return V[V.size() / 2];
}

}  // namespace

int main() {
  const std::string file = kl::GetTempDir() + "klBench_MediaInfo.mp4";
  const std::string make = Ffmpeg() + " -hide_banner -loglevel error -y -f lavfi -i testsrc=duration=2:size=1280x720:rate=25"
                                      " -f lavfi -i sine=duration=2 -c:v libx264 -preset ultrafast -c:a aac \"" + file + "\"";
  if (!kl::klChildProcess::RunAndWait(make) || !kl::FileExists(file)) {
    std::fprintf(stderr, "ffmpeg could not make %s\n", file.c_str());
    return 1;
  }
  std::vector<double> bare, read, parse, full;
  double longestRead = 0;
  std::string text;
  for (int i = 0; i < kRuns; ++i) {
    double t = Seconds();
    text = Bare(file);
    bare.push_back(Seconds() - t);

    t = Seconds();
    {
      auto child = kl::klChildProcess::TChildProcess::Create(Ffmpeg() + " -i \"" + file + "\"");
      text = child ? child->ReadFromChildStderr(5000) : std::string();
      read.push_back(Seconds() - t);
      longestRead = std::max(longestRead, read.back());
    }

    t = Seconds();
    kl::UFfmpeg::TVideoFileInfo parsed;
    parsed.ParseText(text);
    parse.push_back(Seconds() - t);

    t = Seconds();
    const auto info = kl::UFfmpeg::TVideoFileInfo::Create(file);
    full.push_back(Seconds() - t);
    if (info->GetFrames() != 50) {
      std::fprintf(stderr, "unexpected frame count %d\n", info->GetFrames());
      return 1;
    }
  }
  const double b = Median(bare) * 1000, r = Median(read) * 1000, p = Median(parse) * 1000, f = Median(full) * 1000;
  std::printf("medians of %d runs, ms\n", kRuns);
  std::printf("  ffmpeg -i alone                      %7.1f\n", b);
  std::printf("  child started, stderr read to exit   %7.1f  (%+.1f against alone; longest %.0f)\n", r, r - b,
              longestRead * 1000);
  std::printf("  parse of the text                    %7.2f\n", p);
  std::printf("  TVideoFileInfo, all of it            %7.1f  (%+.1f against alone)\n", f, f - b);
  DeleteFileA(file.c_str());
  return longestRead < 5.0 ? 0 : 1;
}
