// Bytes per second taken from ffmpeg.exe writing raw video: through a TNamedPipe
// against a bare PeekNamedPipe/ReadFile loop on a named pipe of the same kind, and
// through a child's IReadable2::Read against a bare loop on a redirected stdout.
// Run from bin\ (ffmpeg.exe is expected in ..\common\).
#include "BenchClock.h"
#include <windows.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "channels/UPipe.h"
#include "channels/klChildProcess.h"
#include "rtl/SysUtils.h"

namespace {

constexpr int kRuns = 3;
const char kSource[] = " -hide_banner -loglevel error -f lavfi -i testsrc=size=640x480:rate=25 -frames:v 150"
                       " -f rawvideo -pix_fmt rgb32 ";

std::string Ffmpeg() { return "\"" + kl::ExtractFilePath(kl::ExeFileName()) + "..\\common\\ffmpeg.exe\""; }

HANDLE Launch(const std::string& Args, HANDLE StdOut) {
  std::string cmd = Ffmpeg() + kSource + Args;
  STARTUPINFOA si{};
  si.cb = sizeof si;
  if (StdOut != nullptr) {
    si.dwFlags = STARTF_USESTDHANDLES;
    si.hStdOutput = StdOut;
  }
  PROCESS_INFORMATION pi{};
  if (!CreateProcessA(nullptr, cmd.data(), nullptr, nullptr, StdOut != nullptr, CREATE_NO_WINDOW, nullptr, nullptr, &si,
                      &pi)) {
    return nullptr;
  }
  CloseHandle(pi.hThread);
  return pi.hProcess;
}

// Peek+ReadFile until the writer has gone; returns the bytes read.
int64_t BareLoop(HANDLE Pipe, HANDLE Process) {
  std::vector<char> buf(40960);
  int64_t total = 0;
  for (;;) {
    DWORD avail = 0;
    if (!PeekNamedPipe(Pipe, nullptr, 0, nullptr, &avail, nullptr)) {
      if (GetLastError() == ERROR_BROKEN_PIPE) break;
      if (WaitForSingleObject(Process, 0) == WAIT_OBJECT_0) break;
      Sleep(0);
      continue;
    }
    if (avail == 0) {
      if (WaitForSingleObject(Process, 0) == WAIT_OBJECT_0 && total > 0) break;
      Sleep(0);
      continue;
    }
    DWORD got = 0;
    if (!ReadFile(Pipe, buf.data(), avail < 40960 ? avail : 40960, &got, nullptr)) break;
    total += got;
  }
  return total;
}

double BareNamedPipe(int n) {
  const std::string name = "\\\\.\\pipe\\klBenchBare" + std::to_string(GetCurrentProcessId()) + "_" + std::to_string(n);
  HANDLE pipe = CreateNamedPipeA(name.c_str(), PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED, 0, 1, 4096, 4096, 0, nullptr);
  const double t0 = Seconds();
  HANDLE proc = Launch(name, nullptr);
  if (proc == nullptr) {
    CloseHandle(pipe);
    return 0;
  }
  ConnectNamedPipe(pipe, nullptr);
  const int64_t bytes = BareLoop(pipe, proc);
  const double rate = static_cast<double>(bytes) / (Seconds() - t0) / 1e6;
  WaitForSingleObject(proc, INFINITE);
  CloseHandle(proc);
  CloseHandle(pipe);
  return rate;
}

double LibraryNamedPipe(int n) {
  kl::ComPtr<kl::UPipe::INamedPipe2> pipe(new kl::UPipe::TNamedPipe("klBenchLib" + std::to_string(n), 0));
  std::vector<char> buf(1 << 20);
  const double t0 = Seconds();
  HANDLE proc = Launch(pipe->GetName(), nullptr);
  if (proc == nullptr) return 0;
  int64_t bytes = 0;
  while (!(pipe->GetDisconnected() && pipe->GetSizeToRead() == 0)) {
    // A writer that ends without ever being seen by the reader raises no event.
    if (Seconds() - t0 > 120 || (!pipe->GetConnected() && WaitForSingleObject(proc, 0) == WAIT_OBJECT_0)) break;
    const int32_t got = pipe->Read(buf.data(), static_cast<int32_t>(buf.size()));
    if (got == 0) Sleep(0);
    bytes += got;
  }
  const double rate = static_cast<double>(bytes) / (Seconds() - t0) / 1e6;
  WaitForSingleObject(proc, INFINITE);
  CloseHandle(proc);
  return rate;
}

double BareStdout() {
  SECURITY_ATTRIBUTES sa{sizeof sa, nullptr, TRUE};
  HANDLE rd = nullptr, wr = nullptr;
  CreatePipe(&rd, &wr, &sa, 0);
  SetHandleInformation(rd, HANDLE_FLAG_INHERIT, 0);
  const double t0 = Seconds();
  HANDLE proc = Launch("-", wr);
  CloseHandle(wr);
  const int64_t bytes = BareLoop(rd, proc);
  const double rate = static_cast<double>(bytes) / (Seconds() - t0) / 1e6;
  WaitForSingleObject(proc, INFINITE);
  CloseHandle(proc);
  CloseHandle(rd);
  return rate;
}

double LibraryStdout() {
  const double t0 = Seconds();
  auto child = kl::klChildProcess::TChildProcess::Create(Ffmpeg() + kSource + "-");
  if (!child) return 0;
  auto out = child->GetStdOut();
  std::vector<char> buf(1 << 20);
  int64_t bytes = 0;
  for (int32_t got; (got = out->Read(buf.data(), static_cast<int32_t>(buf.size()), 5000)) > 0;) bytes += got;
  return static_cast<double>(bytes) / (Seconds() - t0) / 1e6;
}

}  // namespace

int main() {
  std::printf("ffmpeg.exe raw video (150 frames of 640x480 RGB32), best of %d runs, MB/s\n", kRuns);
  double bareNamed = 0, libNamed = 0, bareOut = 0, libOut = 0;
  for (int i = 0; i < kRuns; ++i) {
    // Taking turns, so that a busy moment on a shared machine hits both sides.
    bareNamed = std::max(bareNamed, BareNamedPipe(i));
    libNamed = std::max(libNamed, LibraryNamedPipe(i));
    bareOut = std::max(bareOut, BareStdout());
    libOut = std::max(libOut, LibraryStdout());
  }
  std::printf("%-28s %10s %10s %8s\n", "channel", "bare", "library", "ratio");
  std::printf("%-28s %10.1f %10.1f %8.2f\n", "named pipe (TNamedPipe)", bareNamed, libNamed, libNamed / bareNamed);
  std::printf("%-28s %10.1f %10.1f %8.2f\n", "child stdout (IReadable2)", bareOut, libOut, libOut / bareOut);
  return 0;
}
