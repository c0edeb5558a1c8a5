#include "KlTest.h"

#include <tlhelp32.h>

#include <shellapi.h>

#include <cstring>
#include <regex>
#include <sstream>

#include "rtl/SysUtils.h"

namespace kltest {

std::map<std::string, TChildRole>& ChildRoles() {
  static std::map<std::string, TChildRole> roles;
  return roles;
}

std::string SelfExe() { return kl::ExeFileName(); }

std::string ExeDir() { return kl::ExtractFilePath(SelfExe()); }

std::string FfmpegExe() { return ExeDir() + "..\\common\\ffmpeg.exe"; }

std::string Quote(const std::string& S) {
  if (!S.empty() && S.find_first_of(" \t\"") == std::string::npos) return S;
  std::string r = "\"";
  for (char c : S) {
    if (c == '"') r += '\\';
    r += c;
  }
  return r + "\"";
}

namespace {

struct THandle {
  HANDLE H = nullptr;
  THandle() = default;
  THandle(const THandle&) = delete;
  THandle& operator=(const THandle&) = delete;
  ~THandle() { Close(); }
  void Close() {
    if (H != nullptr && H != INVALID_HANDLE_VALUE) CloseHandle(H);
    H = nullptr;
  }
};

// Takes what the pipe holds now; false when it held nothing.
bool TakeAvailable(HANDLE Pipe, std::string& Out) {
  DWORD avail = 0;
  if (!PeekNamedPipe(Pipe, nullptr, 0, nullptr, &avail, nullptr) || avail == 0) return false;
  const size_t at = Out.size();
  Out.resize(at + avail);
  DWORD n = 0;
  if (!ReadFile(Pipe, Out.data() + at, avail, &n, nullptr)) n = 0;
  Out.resize(at + n);
  return n > 0;
}

}  // namespace

std::string ChildCommandLine(const std::string& Role, const std::vector<std::string>& Args) {
  std::string cmd = Quote(SelfExe()) + " --kl-child " + Role;
  for (const auto& a : Args) cmd += " " + Quote(a);
  return cmd;
}

std::string UniqueName(const std::string& Base) {
  static LONG n = 0;
  return Base + std::to_string(GetCurrentProcessId()) + "_" + std::to_string(InterlockedIncrement(&n));
}

TRunResult Run(const std::string& CommandLine, DWORD TimeoutMs) {
  TRunResult r;
  SECURITY_ATTRIBUTES sa{sizeof sa, nullptr, TRUE};
  THandle outR, outW, errR, errW, inR, inW;
  if (!CreatePipe(&outR.H, &outW.H, &sa, 1 << 16) || !CreatePipe(&errR.H, &errW.H, &sa, 1 << 16) ||
      !CreatePipe(&inR.H, &inW.H, &sa, 1 << 16)) {
    return r;
  }
  SetHandleInformation(outR.H, HANDLE_FLAG_INHERIT, 0);
  SetHandleInformation(errR.H, HANDLE_FLAG_INHERIT, 0);
  SetHandleInformation(inW.H, HANDLE_FLAG_INHERIT, 0);
  STARTUPINFOA si{};
  si.cb = sizeof si;
  si.dwFlags = STARTF_USESTDHANDLES | STARTF_USESHOWWINDOW;
  si.wShowWindow = SW_HIDE;
  si.hStdInput = inR.H;
  si.hStdOutput = outW.H;
  si.hStdError = errW.H;
  PROCESS_INFORMATION pi{};
  std::string cmd = CommandLine;
  if (!CreateProcessA(nullptr, cmd.data(), nullptr, nullptr, TRUE, CREATE_NO_WINDOW, nullptr, nullptr, &si, &pi)) {
    return r;
  }
  r.Started = true;
  outW.Close();
  errW.Close();
  inR.Close();
  inW.Close();
  // Polled rather than read to the end: under Wine a helper process the child starts
  // (the desktop) may inherit the pipes and keep them open after the child is gone.
  const ULONGLONG deadline = GetTickCount64() + TimeoutMs;
  for (;;) {
    const bool got = TakeAvailable(outR.H, r.Out) | TakeAvailable(errR.H, r.Err);
    if (WaitForSingleObject(pi.hProcess, got ? 0 : 2) == WAIT_OBJECT_0) {
      while (TakeAvailable(outR.H, r.Out) | TakeAvailable(errR.H, r.Err)) {
      }
      break;
    }
    if (GetTickCount64() > deadline) {
      r.TimedOut = true;
      TerminateProcess(pi.hProcess, 259);
      WaitForSingleObject(pi.hProcess, 5000);
      break;
    }
  }
  GetExitCodeProcess(pi.hProcess, &r.ExitCode);
  CloseHandle(pi.hThread);
  CloseHandle(pi.hProcess);
  return r;
}

TRunResult RunChild(const std::string& Role, const std::vector<std::string>& Args, DWORD TimeoutMs) {
  return Run(ChildCommandLine(Role, Args), TimeoutMs);
}

TProcess::~TProcess() {
  Kill();
  if (Info.hThread != nullptr) CloseHandle(Info.hThread);
  if (Info.hProcess != nullptr) CloseHandle(Info.hProcess);
}

bool TProcess::Wait(DWORD TimeoutMs) {
  return Info.hProcess != nullptr && WaitForSingleObject(Info.hProcess, TimeoutMs) == WAIT_OBJECT_0;
}

void TProcess::Kill() {
  if (Info.hProcess != nullptr && WaitForSingleObject(Info.hProcess, 0) == WAIT_TIMEOUT) {
    TerminateProcess(Info.hProcess, 1);
    WaitForSingleObject(Info.hProcess, 5000);
  }
}

HANDLE OpenPipeForWriting(const std::string& Name) {
  HANDLE h = INVALID_HANDLE_VALUE;
  for (int i = 0; i < 500 && h == INVALID_HANDLE_VALUE; ++i) {
    h = CreateFileA(Name.c_str(), GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    if (h == INVALID_HANDLE_VALUE) Sleep(10);
  }
  return h;
}

bool StartChild(TProcess& Process, const std::string& Role, const std::vector<std::string>& Args) {
  std::string cmd = ChildCommandLine(Role, Args);
  STARTUPINFOA si{};
  si.cb = sizeof si;
  return CreateProcessA(nullptr, cmd.data(), nullptr, nullptr, FALSE, CREATE_NO_WINDOW, nullptr, nullptr, &si,
                        &Process.Info) != 0;
}

TRunResult Ffmpeg(const std::string& Args, DWORD TimeoutMs) {
  return Run(Quote(FfmpegExe()) + " -hide_banner -nostdin -y " + Args, TimeoutMs);
}

std::vector<TPacket> FfmpegPackets(const std::string& Path) {
  std::istringstream in(Ffmpeg("-i " + Quote(Path) + " -c:a copy -f framecrc -").Out);
  static const std::regex re(R"(^\s*0,\s*-?\d+,\s*-?\d+,\s*\d+,\s*(\d+),\s*0x([0-9a-fA-F]+))");
  std::vector<TPacket> packets;
  std::smatch m;
  for (std::string line; std::getline(in, line);) {
    if (std::regex_search(line, m, re)) {
      packets.push_back({std::stoi(m[1].str()), static_cast<uint32_t>(std::stoul(m[2].str(), nullptr, 16))});
    }
  }
  return packets;
}

std::string FfmpegDecode(const std::string& File, const std::string& Options) {
  const TRunResult r = Ffmpeg("-i " + Quote(File) + " " + Options + " -f s16le -");
  return r.ExitCode == 0 ? r.Out : std::string();
}

// --- files ------------------------------------------------------------------------

TTempDir::TTempDir() {
  static LONG counter = 0;
  for (;;) {
    FPath = kl::GetTempDir() + kl::Format("kltest_%lu_%ld\\", GetCurrentProcessId(), InterlockedIncrement(&counter));
    if (CreateDirectoryA(FPath.c_str(), nullptr)) break;
  }
}

namespace {
void DeleteTree(const std::string& Dir) {
  const std::string base = kl::IncludeTrailingPathDelimiter(Dir);
  WIN32_FIND_DATAA fd;
  HANDLE h = FindFirstFileA((base + "*").c_str(), &fd);
  if (h != INVALID_HANDLE_VALUE) {
    do {
      const std::string name = fd.cFileName;
      if (name == "." || name == "..") continue;
      if (fd.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) {
        DeleteTree(base + name);
      } else {
        SetFileAttributesA((base + name).c_str(), FILE_ATTRIBUTE_NORMAL);
        DeleteFileA((base + name).c_str());
      }
    } while (FindNextFileA(h, &fd));
    FindClose(h);
  }
  RemoveDirectoryA(base.c_str());
}
}  // namespace

TTempDir::~TTempDir() { DeleteTree(FPath); }

std::string ReadFileBytes(const std::string& FileName) {
  std::string r;
  HANDLE h = CreateFileA(FileName.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                         nullptr, OPEN_EXISTING, 0, nullptr);
  if (h == INVALID_HANDLE_VALUE) return r;
  char buf[65536];
  DWORD n = 0;
  while (ReadFile(h, buf, sizeof buf, &n, nullptr) && n > 0) r.append(buf, n);
  CloseHandle(h);
  return r;
}

bool WriteFileBytes(const std::string& FileName, const void* Data, size_t Size) {
  HANDLE h = CreateFileA(FileName.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
  if (h == INVALID_HANDLE_VALUE) return false;
  DWORD n = 0;
  const bool ok = Size == 0 || (WriteFile(h, Data, static_cast<DWORD>(Size), &n, nullptr) && n == Size);
  CloseHandle(h);
  return ok;
}

bool WriteFileBytes(const std::string& FileName, const std::string& Bytes) {
  return WriteFileBytes(FileName, Bytes.data(), Bytes.size());
}

namespace {
void Put32(std::string& S, uint32_t V) { S.append(reinterpret_cast<const char*>(&V), 4); }
void Put16(std::string& S, uint16_t V) { S.append(reinterpret_cast<const char*>(&V), 2); }
}  // namespace

std::string MakeWav(uint16_t Channels, uint32_t Rate, uint16_t Bits, const std::string& Data) {
  const uint16_t align = static_cast<uint16_t>((Bits + 7) / 8 * Channels);
  std::string fmt;
  Put16(fmt, 1);
  Put16(fmt, Channels);
  Put32(fmt, Rate);
  Put32(fmt, Rate * align);
  Put16(fmt, align);
  Put16(fmt, Bits);
  std::string body = "WAVEfmt ";
  Put32(body, static_cast<uint32_t>(fmt.size()));
  body += fmt + "data";
  Put32(body, static_cast<uint32_t>(Data.size()));
  body += Data;
  if (Data.size() % 2) body += '\0';
  std::string r = "RIFF";
  Put32(r, static_cast<uint32_t>(body.size()));
  return r + body;
}

// --- capture ----------------------------------------------------------------------

namespace {
std::string CaptureFile() {
  char buf[MAX_PATH] = {};
  const DWORD n = GetEnvironmentVariableA("KL_CAPTURE_FILE", buf, sizeof buf);
  return n > 0 && n < sizeof buf ? std::string(buf, n) : std::string();
}

int64_t FileLength(const std::string& Name) {
  WIN32_FILE_ATTRIBUTE_DATA a;
  if (!GetFileAttributesExA(Name.c_str(), GetFileExInfoStandard, &a)) return -1;
  return (static_cast<int64_t>(a.nFileSizeHigh) << 32) | a.nFileSizeLow;
}
}  // namespace

bool TCapture::Available() { return !CaptureFile().empty() && FileLength(CaptureFile()) >= 0; }

int64_t TCapture::Mark() {
  const int64_t n = FileLength(CaptureFile());
  return n < 0 ? 0 : n - n % 4;
}

std::string TCapture::Since(int64_t Mark, DWORD WaitMs) {
  Sleep(WaitMs);
  std::string r;
  HANDLE h = CreateFileA(CaptureFile().c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                         OPEN_EXISTING, 0, nullptr);
  if (h == INVALID_HANDLE_VALUE) return r;
  LARGE_INTEGER at;
  at.QuadPart = Mark;
  if (SetFilePointerEx(h, at, nullptr, FILE_BEGIN)) {
    char buf[65536];
    DWORD n = 0;
    while (ReadFile(h, buf, sizeof buf, &n, nullptr) && n > 0) r.append(buf, n);
  }
  CloseHandle(h);
  return r.substr(0, r.size() - r.size() % 4);
}

int ThreadCount() {
  HANDLE snap = CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
  if (snap == INVALID_HANDLE_VALUE) return -1;
  THREADENTRY32 e{};
  e.dwSize = sizeof e;
  int n = 0;
  for (BOOL ok = Thread32First(snap, &e); ok; ok = Thread32Next(snap, &e)) {
    if (e.th32OwnerProcessID == GetCurrentProcessId()) ++n;
  }
  CloseHandle(snap);
  return n;
}

}  // namespace kltest
