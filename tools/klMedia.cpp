// klMedia: the library's ffmpeg jobs from the command line.
//
//   klMedia info FILE                          what the file holds (TVideoFileInfo)
//   klMedia extract VIDEO SOUND [OPTIONS...]   the film's sound into SOUND (ExtractSound)
//   klMedia mux VIDEO SOUND OUTPUT [OPTIONS...] SOUND laid under VIDEO into OUTPUT (AddSound),
//                                              waits for ffmpeg and prints OUTPUT's duration
//
// OPTIONS are handed to ffmpeg as they are, joined by blanks. Exit code 0 on success, 1
// on failure (one line on standard error), 2 for a wrong command line.
#include <windows.h>

#include <fcntl.h>
#include <io.h>
#include <tlhelp32.h>

#include <cstdio>
#include <set>
#include <string>
#include <vector>

#include "Components.h"

using kl::ComPtr;
using namespace kl::UFfmpeg;

namespace {

int Usage() {
  std::fprintf(stderr,
               "usage: klMedia info FILE\n"
               "       klMedia extract VIDEO SOUND [OPTIONS...]\n"
               "       klMedia mux VIDEO SOUND OUTPUT [OPTIONS...]\n");
  return 2;
}

int Fail(const std::string& Message) {
  std::fprintf(stderr, "klMedia: %s\n", Message.c_str());
  return 1;
}

std::string Join(const std::vector<std::string>& Args, size_t From) {
  std::string r;
  for (size_t i = From; i < Args.size(); ++i) r += (r.empty() ? "" : " ") + Args[i];
  return r;
}

bool Exists(const std::string& Name) { return kl::FileExists(Name) || kl::klFiles::IsWebFile(Name); }

std::set<DWORD> FfmpegProcesses() {
  std::set<DWORD> ids;
  HANDLE snap = CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
  if (snap == INVALID_HANDLE_VALUE) return ids;
  PROCESSENTRY32 e{};
  e.dwSize = sizeof e;
  for (BOOL ok = Process32First(snap, &e); ok; ok = Process32Next(snap, &e)) {
    if (lstrcmpiA(e.szExeFile, "ffmpeg.exe") == 0) ids.insert(e.th32ProcessID);
  }
  CloseHandle(snap);
  return ids;
}

std::string Describe(const std::string& File) {
  const ComPtr<IVideoFileInfo2> info = TVideoFileInfo::Create(File);
  return kl::Format("%s: duration %s (%d ms), %s, %d audio track(s)", File.c_str(), info->GetDuration().c_str(),
                    info->GetLength(), info->GetVideoPresent() ? "video" : "no video", info->GetAudioCount());
}

int Info(const std::string& File) {
  if (!Exists(File)) return Fail("file not found: " + File);
  const ComPtr<IVideoFileInfo2> info = TVideoFileInfo::Create(File);
  const std::string text = info->ToString(true);
  std::fwrite(text.data(), 1, text.size(), stdout);
  if (info->GetDuration().empty() && !info->GetVideoPresent() && !info->GetAudioPresent()) {
    return Fail("ffmpeg found nothing in " + File);
  }
  return 0;
}

int Extract(const std::vector<std::string>& A) {
  if (!Exists(A[1])) return Fail("file not found: " + A[1]);
  if (!ExtractSound(A[1], A[2], Join(A, 3))) return Fail("no sound written to " + A[2] + " (see the library's log)");
  std::printf("%s\n", Describe(A[2]).c_str());
  return 0;
}

int Mux(const std::vector<std::string>& A) {
  for (const std::string& f : {A[1], A[2]}) {
    if (!kl::FileExists(f)) return Fail("file not found: " + f);
  }
  // AddSound does not wait: the ffmpeg that it starts is the one that was not running
  // before, and the output is complete when that process has ended.
  const std::set<DWORD> before = FfmpegProcesses();
  if (!AddSound(A[1], A[2], A[3], nullptr, Join(A, 4))) return Fail("ffmpeg could not be started");
  for (DWORD id : FfmpegProcesses()) {
    if (before.count(id) != 0) continue;
    if (HANDLE h = OpenProcess(SYNCHRONIZE, FALSE, id)) {
      WaitForSingleObject(h, INFINITE);
      CloseHandle(h);
    }
  }
  if (!kl::FileExists(A[3])) return Fail("ffmpeg wrote no " + A[3]);
  std::printf("%s\n", Describe(A[3]).c_str());
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  // ToString's lines end in CR LF already.
  _setmode(_fileno(stdout), _O_BINARY);
  const std::vector<std::string> a(argv + 1, argv + argc);
  if (a.empty()) return Usage();
  if (a[0] == "info" && a.size() == 2) return Info(a[1]);
  if (a[0] == "extract" && a.size() >= 3) return Extract(a);
  if (a[0] == "mux" && a.size() >= 4) return Mux(a);
  return Usage();
}
