// Helpers shared by the test executables: real child processes (the test executable
// itself in a child role, ffmpeg.exe), temporary folders, files, and the capture of
// what the audio server played.
#pragma once

#include <gtest/gtest.h>

#include <windows.h>

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "diagnostics/klLog.h"
#include "rtl/Dialogs.h"
#include "rtl/SysUtils.h"

namespace kltest {

// --- child roles --------------------------------------------------------------------
// A test executable started as "<exe> --kl-child <role> args..." runs the role's
// function instead of the tests and exits with its result.
using TChildRole = std::function<int(const std::vector<std::string>& Args)>;
std::map<std::string, TChildRole>& ChildRoles();
struct TChildRoleRegistrar {
  TChildRoleRegistrar(const char* Name, TChildRole Role) { ChildRoles()[Name] = std::move(Role); }
};
#define KL_CHILD_ROLE(name)                                                                    \
  static int KlChildRole_##name(const std::vector<std::string>& Args);                         \
  static ::kltest::TChildRoleRegistrar KlChildRoleRegistrar_##name(#name, &KlChildRole_##name); \
  static int KlChildRole_##name(const std::vector<std::string>& Args)

std::string SelfExe();
std::string ExeDir();  // with a trailing backslash
// <exe folder>\..\common\ffmpeg.exe
std::string FfmpegExe();

struct TRunResult {
  bool Started = false;
  bool TimedOut = false;
  DWORD ExitCode = 0;
  std::string Out;  // standard output
  std::string Err;  // standard error
};

// Runs a command line hidden with an empty standard input, collects its output, waits
// at most TimeoutMs (then kills).
TRunResult Run(const std::string& CommandLine, DWORD TimeoutMs = 60000);
// Runs this executable in a child role.
TRunResult RunChild(const std::string& Role, const std::vector<std::string>& Args, DWORD TimeoutMs = 60000);
// A child role started without waiting; the caller ends it.
struct TProcess {
  PROCESS_INFORMATION Info{};
  TProcess() = default;
  TProcess(const TProcess&) = delete;
  TProcess& operator=(const TProcess&) = delete;
  ~TProcess();
  bool Wait(DWORD TimeoutMs);
  void Kill();
};
bool StartChild(TProcess& Process, const std::string& Role, const std::vector<std::string>& Args);
// For a child role: the write end of pipe Name, waiting up to 5 s for the server to
// create it; INVALID_HANDLE_VALUE if it never does.
HANDLE OpenPipeForWriting(const std::string& Name);
// Runs ffmpeg.exe with the given arguments (-hide_banner -y are added).
TRunResult Ffmpeg(const std::string& Args, DWORD TimeoutMs = 120000);
// The audio packets of stream 0 as ffmpeg's demuxer delivers them (framecrc).
struct TPacket {
  int32_t Size = 0;
  uint32_t Adler = 0;  // adler32 seeded with 0, as ffmpeg's framecrc muxer prints it
};
std::vector<TPacket> FfmpegPackets(const std::string& Path);
// ffmpeg's own decoding of File to signed 16-bit samples, with further output Options
// ("-ac 1 -ar 22050"); empty when ffmpeg fails.
std::string FfmpegDecode(const std::string& File, const std::string& Options = "");

// Records the message boxes (text, caption; type) shown during the life of the object.
class TBoxRecorder {
 public:
  using TBoxes = std::vector<std::pair<std::string, std::string>>;
  TBoxRecorder() {
    FOld = kl::SetMessageBoxFunction([this](HWND, const std::string& Text, const std::string& Caption, UINT Type) {
      Boxes.emplace_back(Text, Caption);
      Types.push_back(Type);
      return IDOK;
    });
  }
  ~TBoxRecorder() { kl::SetMessageBoxFunction(FOld); }
  TBoxRecorder(const TBoxRecorder&) = delete;
  TBoxRecorder& operator=(const TBoxRecorder&) = delete;
  TBoxes Boxes;
  std::vector<UINT> Types;

 private:
  kl::TMessageBoxFunction FOld;
};

std::string Quote(const std::string& S);
// "<exe> --kl-child Role args...", quoted.
std::string ChildCommandLine(const std::string& Role, const std::vector<std::string>& Args);
// Base, this process's id and a counter: a pipe or event name nothing else uses.
std::string UniqueName(const std::string& Base);
// Threads of this process now (a leak check's count).
int ThreadCount();

// What the log gained while Body ran.
template <class F>
std::string LogOf(F&& Body) {
  const size_t mark = kl::klLog::GetWholeLog().size();
  Body();
  const std::string all = kl::klLog::GetWholeLog();
  return mark < all.size() ? all.substr(mark) : std::string();
}
inline bool LogHas(const std::string& Text) { return kl::klLog::GetWholeLog().find(Text) != std::string::npos; }

// Call must raise E (any kl::Exception by default) with exactly Message.
template <class E = kl::Exception, class F>
void ExpectRaises(F&& Call, const std::string& Message) {
  try {
    Call();
    ADD_FAILURE() << "nothing raised, expected: " << Message;
  } catch (const E& e) {
    EXPECT_EQ(std::string(e.what()), Message);
  }
}

// Polls Cond every 10 ms for at most TimeoutMs; true when Cond came true.
template <class F>
bool WaitUntil(F&& Cond, DWORD TimeoutMs) {
  for (const ULONGLONG start = GetTickCount64(); !Cond(); Sleep(10)) {
    if (GetTickCount64() - start > TimeoutMs) return false;
  }
  return true;
}

// --- files ----------------------------------------------------------------------
// A fresh folder under the temp folder, deleted with everything in it at the end.
class TTempDir {
 public:
  TTempDir();
  ~TTempDir();
  TTempDir(const TTempDir&) = delete;
  TTempDir& operator=(const TTempDir&) = delete;
  const std::string& Path() const { return FPath; }  // with a trailing backslash
  std::string operator/(const std::string& Name) const { return FPath + Name; }

 private:
  std::string FPath;
};

std::string ReadFileBytes(const std::string& FileName);
bool WriteFileBytes(const std::string& FileName, const std::string& Bytes);
bool WriteFileBytes(const std::string& FileName, const void* Data, size_t Size);

// A canonical PCM WAV file in memory (16-byte "fmt " when Extensible is false).
std::string MakeWav(uint16_t Channels, uint32_t Rate, uint16_t Bits, const std::string& Data);

// --- audio capture ------------------------------------------------------------------
// The test script records the audio server's null-sink monitor for the whole run
// (s16le, 44100 Hz, stereo) into the file named by KL_CAPTURE_FILE. A mark taken
// before playing and read after gives what was played in between.
class TCapture {
 public:
  static bool Available();
  // Current length of the recording (bytes).
  static int64_t Mark();
  // Bytes recorded since Mark, waiting WaitMs first for the recorder to catch up.
  static std::string Since(int64_t Mark, DWORD WaitMs = 300);
};

}  // namespace kltest
