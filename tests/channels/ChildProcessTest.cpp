// The child process against real children: this executable in child roles and
// ffmpeg.exe (raw video on standard output; its banner on standard error is what the
// media information reads).
#include <gtest/gtest.h>

#include <fcntl.h>
#include <io.h>

#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "ChannelsTestUtil.h"
#include "KlTest.h"
#include "channels/klChildProcess.h"

using namespace kl::klChildProcess;
using chtest::LogOf;
using chtest::TStopwatch;
using kl::ComPtr;

namespace {

using kltest::ChildCommandLine;

ComPtr<IChildProcess3> Start(const std::string& Role, const std::vector<std::string>& Args) {
  return TChildProcess::Create(ChildCommandLine(Role, Args));
}

void Put(FILE* F, const std::string& S) {
  fwrite(S.data(), 1, S.size(), F);
  fflush(F);
}

// "\r" and "\n" in role arguments stand for those bytes.
std::string Unescape(const std::string& S) {
  return std::regex_replace(std::regex_replace(S, std::regex(R"(\\r)"), "\r"), std::regex(R"(\\n)"), "\n");
}

}  // namespace

// Args: pieces for standard output and standard error (escaped), then optionally the
// exit code and a pause in ms between the pieces of standard output (split at '|').
KL_CHILD_ROLE(emit) {
  const DWORD pause = Args.size() > 3 ? static_cast<DWORD>(std::stoul(Args[3])) : 0;
  std::string out = Args[0];
  for (size_t bar; (bar = out.find('|')) != std::string::npos; out.erase(0, bar + 1)) {
    Put(stdout, Unescape(out.substr(0, bar)));
    Sleep(pause);
  }
  Put(stdout, Unescape(out));
  Put(stderr, Unescape(Args[1]));
  return Args.size() > 2 ? std::stoi(Args[2]) : 0;
}

// Copies standard input to standard output until end of input, then prints "EOF".
KL_CHILD_ROLE(echo) {
  (void)Args;
  _setmode(_fileno(stdin), _O_BINARY);
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, stdin)) > 0) Put(stdout, std::string(buf, n));
  Put(stdout, "EOF");
  return 0;
}

// Sleeps Args[0] ms, writing nothing.
KL_CHILD_ROLE(sleep) {
  Sleep(static_cast<DWORD>(std::stoul(Args[0])));
  return 0;
}

// Writes the test pattern to standard output for ever.
KL_CHILD_ROLE(flood) {
  (void)Args;
  for (uint64_t sent = 0;; sent += 4096) Put(stdout, chtest::Pattern(sent, 4096));
}

TEST(ChildProcess, ReadLineStandardErrorAndAvailableData) {
  auto child = Start("emit", {"abc\\r\\ndef\\r", ""});
  ASSERT_TRUE(child);
  ComPtr<IReadable2> out = child->GetStdOut();
  // A line ends at a carriage return: the line feed starts the next one.
  EXPECT_EQ(out->ReadLine(), "abc\r");
  EXPECT_EQ(out->ReadLine(), "\ndef\r");
  EXPECT_TRUE(out->GetConnected());
  EXPECT_EQ(out->ReadLine(), "");
  EXPECT_FALSE(out->SetTimeout(-1));
  EXPECT_TRUE(out->SetTimeout(0));
  char buf[4];
  EXPECT_EQ(out->Read(buf, 0, 1000), 0);
  EXPECT_EQ(out->Read(nullptr, 1, 1000), 0);

  child = Start("emit", {"out", "err\\r\\n"});
  ASSERT_TRUE(child);
  EXPECT_EQ(child->ReadFromChildStderr(5000), "err\r\n");  // written after standard output
  out = child->GetStdOut();
  EXPECT_EQ(out->ReadAvailabe(), "out");
  EXPECT_EQ(out->ReadAvailabe(nullptr, 4), 0);
}

TEST(ChildProcess, TimeOutMeasuresSilenceAndAnExitEndsTheWait) {
  {
    // Nothing ever written: the full time-out passes even though the child is gone.
    auto child = Start("emit", {"", ""});
    ASSERT_TRUE(child);
    TStopwatch w;
    EXPECT_EQ(child->ReadFromChildStdout(700), "");
    EXPECT_GE(w.Ms(), 600u);
    EXPECT_FALSE(child->GetStdOut()->GetConnected());
  }
  {
    // Pauses of 300 ms within a 2000 ms time-out: one read gets everything, and the
    // exit ends it without waiting out the time-out again.
    auto child = Start("emit", {"a|b|c", "", "0", "300"});
    ASSERT_TRUE(child);
    TStopwatch w;
    EXPECT_EQ(child->ReadFromChildStdout(20000), "abc");
    EXPECT_LT(w.Ms(), 15000u);
  }
  {
    // A pause longer than the time-out ends the read early.
    auto child = Start("emit", {"a|b", "", "0", "3000"});
    ASSERT_TRUE(child);
    EXPECT_EQ(child->ReadFromChildStdout(1500), "a");
    char buf[16] = {};
    EXPECT_EQ(child->GetStdOut()->Read(buf, 16, 100), 0);
    EXPECT_TRUE(child->ReadFromChildStdout(buf, 16, 5000));
    EXPECT_EQ(buf[0], 'b');
  }
}

TEST(ChildProcess, ClosingStandardInputEndsTheChildsInput) {
  auto child = Start("echo", {});
  ASSERT_TRUE(child);
  EXPECT_TRUE(child->WriteToChild(std::string("hello\0ignored", 13)));
  EXPECT_TRUE(child->WriteToChild("bin", 3));
  EXPECT_FALSE(child->WriteToChild(nullptr, 3));
  child->ClosePipe(0);
  EXPECT_FALSE(child->WriteToChild("x"));
  EXPECT_EQ(child->ReadFromChildStdout(10000), "hello\r\nbinEOF");
  child->ClosePipe(7);
}

TEST(ChildProcess, CloseWaitsThreeSecondsAndLeavesTheChildRunning) {
  auto child = Start("sleep", {"60000"});
  ASSERT_TRUE(child);
  const DWORD pid = GetProcessId(child->GetProc());
  TStopwatch w;
  child->Close();
  EXPECT_GE(w.Ms(), 2900u);
  EXPECT_LT(w.Ms(), 10000u);
  EXPECT_EQ(child->GetProc(), nullptr);
  EXPECT_FALSE(child->GetStdOut());
  HANDLE h = OpenProcess(PROCESS_TERMINATE | SYNCHRONIZE, FALSE, pid);
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(WaitForSingleObject(h, 0), static_cast<DWORD>(WAIT_TIMEOUT));  // still running
  TerminateProcess(h, 9);
  WaitForSingleObject(h, 5000);
  CloseHandle(h);
}

TEST(ChildProcess, CommandsThatCannotStart) {
  ComPtr<IChildProcess3> child;
  std::string log = LogOf([&] { child = TChildProcess::Create(""); });
  EXPECT_FALSE(child);
  EXPECT_EQ(log.find("CreateChild: "), std::string::npos) << log;
  EXPECT_NE(log.find("TChildProcess.Create: Child.CreateChild failed \"\""), std::string::npos) << log;

  const std::string bad = "C:\\no\\such\\program.exe -x";
  log = LogOf([&] { child = TChildProcess::Create(bad); });
  EXPECT_FALSE(child);
  EXPECT_NE(log.find("E  TChildProcess.CreateChild: Не удалось запустить процесс\r\n\"" + bad + "\""), std::string::npos)
      << log;
  EXPECT_NE(log.find("E  TChildProcess.Create: Child.CreateChild failed \"" + bad + "\""), std::string::npos) << log;

  EXPECT_FALSE(RunAndWait(""));
  log = LogOf([&] { EXPECT_FALSE(RunAndWait(bad)); });
  EXPECT_NE(log.find("klChildProcess.RunAndWait: create process failed: " + bad + "  LastError: "), std::string::npos)
      << log;
}

TEST(ChildProcess, RunAndWaitWritesOverTheOutputFile) {
  kltest::TTempDir dir;
  const std::string file = dir / "out.txt";
  ASSERT_TRUE(kltest::WriteFileBytes(file, std::string(20, 'x')));
  uint32_t code = 0;
  ASSERT_TRUE(RunAndWait(ChildCommandLine("emit", {"hello", "ignored", "7"}), file, &code));
  EXPECT_EQ(code, 7u);
  EXPECT_EQ(kltest::ReadFileBytes(file), "hello" + std::string(15, 'x'));
  EXPECT_TRUE(RunAndWait(ChildCommandLine("emit", {"", "", "3"})));
}

TEST(ChildProcess, FfmpegRawVideo) {
  kltest::TTempDir dir;
  const std::string source = " -f lavfi -i testsrc=size=32x24:rate=25 -frames:v 20 -f rawvideo -pix_fmt rgb32 ";
  ASSERT_EQ(kltest::Ffmpeg(source + kltest::Quote(dir / "f.raw")).ExitCode, 0u);
  const std::string expected = kltest::ReadFileBytes(dir / "f.raw");
  auto child = TChildProcess::Create(kltest::Quote(kltest::FfmpegExe()) + " -hide_banner" + source + "-");
  ASSERT_TRUE(child);
  std::string got(expected.size() + 100, '\0');
  got.resize(static_cast<size_t>(child->GetStdOut()->Read(got.data(), static_cast<int32_t>(got.size()), 10000)));
  EXPECT_TRUE(got == expected) << got.size() << " of " << expected.size();
}

TEST(ChildProcess, KilledChildDeadStreamsAndHandles) {
  const DWORD before = chtest::HandleCount();
  {
    auto child = Start("flood", {});
    ASSERT_TRUE(child);
    ComPtr<IReadable2> out = child->GetStdOut();
    std::vector<char> buf(100000);
    ASSERT_EQ(out->Read(buf.data(), 100000, 10000), 100000);
    EXPECT_TRUE(chtest::Matches(buf.data(), 0, 100000));
    TerminateProcess(child->GetProc(), 9);
    // Whatever was still in the pipe comes, then the broken pipe ends the read.
    TStopwatch w;
    std::string rest;
    for (int i = 0; i < 100 && w.Ms() < 20000; ++i) {
      const std::string s = out->Read(2000);
      if (s.empty()) break;
      rest += s;
    }
    EXPECT_LT(w.Ms(), 20000u);
    EXPECT_TRUE(chtest::Matches(rest.data(), 100000, rest.size()));
    // The stream outlives the process object and closes its handle itself.
    child.Reset();
    EXPECT_EQ(out->Read(buf.data(), 10, 100), 0);
  }
  for (int i = 0; i < 3; ++i) {
    auto child = Start("emit", {"x", "y"});
    ASSERT_TRUE(child);
    EXPECT_EQ(child->ReadFromChildStdout(5000), "x");
  }
  // Each child leaves exactly its thread handle behind, no more.
  EXPECT_LE(chtest::HandleCount(), before + 4);
}

TEST(ChildProcess, ConcurrentChildrenInheritOnlyTheirOwnPipes) {
  // One thread starts long-lived children while another starts short ones: a
  // long-lived child that inherited a short one's pipe end would keep that pipe open,
  // and the short one's reader would wait out its whole time-out after the exit.
  std::vector<ComPtr<IChildProcess3>> sleepers;
  std::thread other([&] {
    for (int i = 0; i < 8; ++i) sleepers.push_back(Start("sleep", {"40000"}));
  });
  for (int i = 0; i < 8; ++i) {
    auto child = Start("emit", {"x", ""});
    ASSERT_TRUE(child);
    TStopwatch w;
    EXPECT_EQ(child->ReadFromChildStdout(40000), "x");
    EXPECT_LT(w.Ms(), 20000u) << "round " << i;
  }
  other.join();
  for (auto& s : sleepers) {
    ASSERT_TRUE(s);
    TerminateProcess(s->GetProc(), 9);
  }
}
