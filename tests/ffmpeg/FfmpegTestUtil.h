// Helpers of the ffmpeg tests: what the log gained, split into messages; how many
// ffmpeg.exe processes run.
#pragma once

#include <windows.h>

#include <tlhelp32.h>

#include <regex>
#include <string>
#include <vector>

#include "KlTest.h"

namespace fftest {

using kltest::LogOf;
using kltest::WaitUntil;

// The messages of log lines ("dd.mm.yyyy hh:nn:ss.zzz  K  message\r\n"); a message may
// hold line breaks of its own. Text before the first line (the file's header) is skipped.
inline std::vector<std::string> LogMessages(const std::string& Log) {
  static const std::regex head(R"(\d\d\.\d\d\.\d{4} \d\d.\d\d.\d\d\.\d{3}  \S+  )");
  std::vector<std::string> messages;
  std::sregex_iterator it(Log.begin(), Log.end(), head), end;
  while (it != end) {
    const size_t body = static_cast<size_t>(it->position(0) + it->length(0));
    const size_t next = ++it == end ? Log.size() : static_cast<size_t>(it->position(0));
    std::string m = Log.substr(body, next - body);
    if (m.size() >= 2 && m.compare(m.size() - 2, 2, "\r\n") == 0) m.resize(m.size() - 2);
    messages.push_back(m);
  }
  return messages;
}

inline int FfmpegProcessCount() {
  HANDLE snap = CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
  if (snap == INVALID_HANDLE_VALUE) return -1;
  PROCESSENTRY32 e{};
  e.dwSize = sizeof e;
  int n = 0;
  for (BOOL ok = Process32First(snap, &e); ok; ok = Process32Next(snap, &e)) {
    if (lstrcmpiA(e.szExeFile, "ffmpeg.exe") == 0) ++n;
  }
  CloseHandle(snap);
  return n;
}

}  // namespace fftest
