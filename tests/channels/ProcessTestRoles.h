// Helpers for the tests of the named pipe server and the child process: command lines
// of this executable in a child role, the process's handle count, and a stopwatch.
#pragma once

#include <windows.h>

#include <cstdint>
#include <string>
#include <vector>

#include "KlTest.h"

namespace chproc {

inline std::string ChildCommand(const std::string& Role, const std::vector<std::string>& Args) {
  std::string cmd = kltest::Quote(kltest::SelfExe()) + " --kl-child " + Role;
  for (const auto& a : Args) cmd += " " + kltest::Quote(a);
  return cmd;
}

// The process's open handles. Wine reports 0 from GetProcessHandleCount, so the
// handle table is probed instead (handle values are multiples of 4).
inline DWORD HandleCount() {
  DWORD n = 0;
  if (GetProcessHandleCount(GetCurrentProcess(), &n) && n > 0) return n;
  for (uintptr_t h = 4; h < 0x10000; h += 4) {
    DWORD flags = 0;
    if (GetHandleInformation(reinterpret_cast<HANDLE>(h), &flags)) ++n;
  }
  return n;
}

// Milliseconds since construction.
class TStopwatch {
 public:
  TStopwatch() : FStart(GetTickCount64()) {}
  ULONGLONG Ms() const { return GetTickCount64() - FStart; }

 private:
  ULONGLONG FStart;
};

// Polls Cond every 5 ms for at most TimeoutMs.
template <class F>
bool WaitUntil(F&& Cond, DWORD TimeoutMs) {
  TStopwatch w;
  while (!Cond()) {
    if (w.Ms() > TimeoutMs) return false;
    Sleep(5);
  }
  return true;
}

inline bool ProcessRunning(DWORD Pid) {
  HANDLE h = OpenProcess(SYNCHRONIZE, FALSE, Pid);
  if (h == nullptr) return false;
  const bool running = WaitForSingleObject(h, 0) == WAIT_TIMEOUT;
  CloseHandle(h);
  return running;
}

inline void KillProcess(DWORD Pid) {
  HANDLE h = OpenProcess(PROCESS_TERMINATE | SYNCHRONIZE, FALSE, Pid);
  if (h == nullptr) return;
  TerminateProcess(h, 9);
  WaitForSingleObject(h, 5000);
  CloseHandle(h);
}

}  // namespace chproc
