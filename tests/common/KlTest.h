// Helpers shared by the test executables: real child processes (the test executable
// itself in a child role, ffmpeg.exe), temporary folders, files, and the capture of
// what the audio server played.
#pragma once

#include <windows.h>

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

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

std::string Quote(const std::string& S);

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
