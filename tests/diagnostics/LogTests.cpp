// The log: what a process writes into its file, which file it picks when others hold
// the plain name, and that lines of concurrent threads stay whole.
#include <gtest/gtest.h>

#include <windows.h>

#include <cstdio>
#include <regex>
#include <tuple>
#include <thread>
#include <vector>

#include "KlTest.h"
#include "diagnostics/klLog.h"
#include "rtl/Dialogs.h"
#include "rtl/SysUtils.h"

using namespace kl::klLog;
using kltest::TTempDir;

namespace {

// A fresh process that logs: args are the log folder, the append option, then steps:
//   "K:text"   log text with kind K (a number)
//   "dir:X"    SetLogDir(X)
//   "whole"    print GetWholeLog() between markers
//   "infile"   check that the last logged line is already in the file
// Each logged line prints its result; message boxes are printed instead of shown.
KL_CHILD_ROLE(log) {
  kl::SetMessageBoxFunction([](HWND, const std::string& Text, const std::string& Caption, UINT Type) {
    std::printf("BOX|%s|%s|%u\n", Caption.c_str(), Text.c_str(), Type);
    return IDOK;
  });
  if (!Args[0].empty()) SetLogDir(Args[0]);
  SetBoolOption(boAppendLog, Args[1] == "1");
  std::string last;
  for (size_t i = 2; i < Args.size(); ++i) {
    const std::string& a = Args[i];
    if (a.rfind("dir:", 0) == 0) {
      SetLogDir(a.substr(4));
    } else if (a == "whole") {
      std::printf("<<%s>>\n", GetWholeLog().c_str());
    } else if (a == "infile") {
      const std::string file = kl::IncludeTrailingPathDelimiter(Args[0]) + "klTests_diagnostics.log";
      if (kltest::ReadFileBytes(file).find(last) == std::string::npos) return 3;
    } else {
      const size_t colon = a.find(':');
      last = a.substr(colon + 1);
      const bool ok = AddToEventLog(last, static_cast<TLogEntryKind>(std::atoi(a.substr(0, colon).c_str())));
      std::printf("%d\n", ok ? 1 : 0);
    }
  }
  std::fflush(stdout);
  return 0;
}

kltest::TRunResult LogChild(const std::string& Dir, bool Append, std::vector<std::string> Steps) {
  Steps.insert(Steps.begin(), {Dir, Append ? "1" : "0"});
  return kltest::RunChild("log", Steps);
}

const char* kLine = R"(\d\d\.\d\d\.\d{4} \d\d:\d\d:\d\d\.\d{3})";

// The file's lines with the time stamps replaced by "T".
std::string Masked(const std::string& Text) {
  return std::regex_replace(Text, std::regex(kLine), "T");
}

// Holds a file open the way the log does (others may read, nobody else may write).
struct THeldFile {
  HANDLE H;
  explicit THeldFile(const std::string& Name)
      : H(CreateFileA(Name.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ, nullptr, OPEN_ALWAYS, 0,
                      nullptr)) {}
  ~THeldFile() {
    if (H != INVALID_HANDLE_VALUE) CloseHandle(H);
  }
};

}  // namespace

TEST(LogFile, NewFileStartsWithExeNameAndEmptyLineAndKeepsItsFolder) {
  TTempDir dir, second;
  // The folder is fixed by the first line: a later SetLogDir changes nothing.
  auto r = LogChild(dir.Path(), false, {"0:hello", "dir:" + second.Path(), "1:bad thing", "2:careful", "7:odd kind"});
  ASSERT_EQ(r.ExitCode, 0u) << r.Err;
  EXPECT_FALSE(kl::FileExists(second / "klTests_diagnostics.log"));
  const std::string text = kltest::ReadFileBytes(dir / "klTests_diagnostics.log");
  EXPECT_EQ(Masked(text),
            "klTests_diagnostics.exe\r\n\r\n"
            "T  i  hello\r\n"
            "T  E  bad thing\r\n"
            "T  w  careful\r\n"
            "T    odd kind\r\n");
  // Day, month, four-digit year; the clock is the local one.
  SYSTEMTIME now;
  GetLocalTime(&now);
  EXPECT_NE(text.find(kl::Format("%02u.%02u.%04u ", now.wDay, now.wMonth, now.wYear)), std::string::npos);
}

TEST(LogFile, EachRunStartsAfreshUnlessAppending) {
  TTempDir dir;
  const std::string head = "klTests_diagnostics.exe\r\n\r\n";
  // Appending to a file that is not there yet still writes the header.
  for (const auto& [append, line, want] : std::vector<std::tuple<bool, std::string, std::string>>{
           {true, "first run", head + "T  i  first run\r\n"},
           {false, "second run", head + "T  i  second run\r\n"},
           {true, "third run", head + "T  i  second run\r\n\r\nT  i  third run\r\n"}}) {
    ASSERT_EQ(LogChild(dir.Path(), append, {"0:" + line}).ExitCode, 0u);
    EXPECT_EQ(Masked(kltest::ReadFileBytes(dir / "klTests_diagnostics.log")), want) << line;
  }
}

TEST(LogFile, BusyNamesAreNumbered) {
  TTempDir dir;
  THeldFile plain(dir / "klTests_diagnostics.log");
  ASSERT_NE(plain.H, INVALID_HANDLE_VALUE);
  ASSERT_EQ(LogChild(dir.Path(), false, {"0:to one"}).ExitCode, 0u);
  EXPECT_NE(kltest::ReadFileBytes(dir / "klTests_diagnostics_1.log").find("to one"), std::string::npos);

  std::vector<std::unique_ptr<THeldFile>> held;
  for (int i = 1; i <= 99; ++i) {
    held.push_back(std::make_unique<THeldFile>(dir / kl::Format("klTests_diagnostics_%d.log", i)));
  }
  ASSERT_EQ(LogChild(dir.Path(), false, {"0:to hundred"}).ExitCode, 0u);
  EXPECT_NE(kltest::ReadFileBytes(dir / "klTests_diagnostics_100.log").find("to hundred"), std::string::npos);

  // All 101 names busy: a message box per logged line, and nothing is written.
  held.push_back(std::make_unique<THeldFile>(dir / "klTests_diagnostics_100.log"));
  auto r = LogChild(dir.Path(), false, {"0:nowhere", "0:still nowhere"});
  ASSERT_EQ(r.ExitCode, 0u);
  const std::string box =
      "BOX|klTests_diagnostics.exe|Не удалось создать файл лога. Возможно не хватает прав для записи в эту "
      "папку.|48\n";
  EXPECT_EQ(r.Out, box + "0\n" + box + "0\n");
  EXPECT_FALSE(kl::FileExists(dir / "klTests_diagnostics_101.log"));
}

TEST(LogFile, LinesReachTheFileAtOnceAndReadBackWhole) {
  TTempDir dir;
  auto r = LogChild(dir.Path(), false, {"whole", "0:a line", "infile", "2:another", "infile", "whole", "0:after"});
  ASSERT_EQ(r.ExitCode, 0u) << "a logged line was not in the file yet";
  // Nothing logged yet: empty, and no file made by asking.
  EXPECT_EQ(r.Out.substr(0, 5), "<<>>\n");
  const size_t open = r.Out.find("<<", 5);
  const size_t close = r.Out.find(">>", open);
  ASSERT_NE(close, std::string::npos);
  EXPECT_EQ(Masked(r.Out.substr(open + 2, close - open - 2)),
            "klTests_diagnostics.exe\r\n\r\nT  i  a line\r\nT  w  another\r\n");
  // Reading the whole log leaves later lines appending at the end.
  EXPECT_EQ(Masked(kltest::ReadFileBytes(dir / "klTests_diagnostics.log")),
            "klTests_diagnostics.exe\r\n\r\nT  i  a line\r\nT  w  another\r\nT  i  after\r\n");
}

TEST(LogFile, ConcurrentThreadsNeverInterleaveInsideALine) {
  const int threads = 8, lines = 300;
  std::vector<std::thread> pool;
  for (int t = 0; t < threads; ++t) {
    pool.emplace_back([t] {
      for (int i = 0; i < lines; ++i) {
        AddToEventLog(kl::Format("concurrent-%d-%d-%s", t, i, std::string(static_cast<size_t>(40 + i % 50), 'x').c_str()),
                      lkInformation);
      }
    });
  }
  for (auto& th : pool) th.join();
  const std::string whole = GetWholeLog();
  const std::regex line(std::string(kLine) + R"(  i  concurrent-(\d+)-(\d+)-(x+)\r\n)");
  int found = 0;
  for (auto it = std::sregex_iterator(whole.begin(), whole.end(), line); it != std::sregex_iterator(); ++it) {
    const int i = std::atoi((*it)[2].str().c_str());
    EXPECT_EQ((*it)[3].length(), static_cast<size_t>(40 + i % 50));
    ++found;
  }
  EXPECT_EQ(found, threads * lines);
}

TEST(LastError, IsStoredAndLoggedExceptionsLogAndSystemTexts) {
  SetMyLastError("device gone");
  EXPECT_EQ(GetMyLastError(), "device gone");
  EXPECT_NE(GetWholeLog().find("  E  ERROR: device gone\r\n"), std::string::npos);
  try {
    throw EklException("TSomething.Do: FThing = nil");
  } catch (const kl::Exception& e) {
    EXPECT_STREQ(e.what(), "TSomething.Do: FThing = nil");
  }
  EXPECT_NE(GetWholeLog().find("  E  TSomething.Do: FThing = nil\r\n"), std::string::npos);

  const std::string text = GetErrorStr(ERROR_FILE_NOT_FOUND);
  ASSERT_GE(text.size(), 3u);
  EXPECT_EQ(text.substr(text.size() - 2), "\r\n");  // as the system gives it, not trimmed
  EXPECT_EQ(GetErrorStr(0x2FFFFFFF), "");
  SetBoolOption(5, true);  // only option 0 exists
  EXPECT_FALSE(GetBoolOption(5));
}
