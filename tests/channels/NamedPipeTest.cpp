// The named pipe server against real clients: this executable in a client role and
// ffmpeg.exe writing raw video into the pipe's name; a server released from its events.
#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <regex>
#include <string>
#include <vector>

#include "ChannelsTestUtil.h"
#include "KlTest.h"
#include "channels/UPipe.h"

using namespace kl::UPipe;
using chtest::LogOf;
using chtest::TStopwatch;
using chtest::WaitUntil;
using kl::ComPtr;
using kltest::UniqueName;

namespace {

ComPtr<INamedPipe2> MakePipe(const std::string& Name, int32_t Interval = 1) {
  return ComPtr<INamedPipe2>(new TNamedPipe(Name, Interval));
}

// Reads until Total bytes have come or the client is gone and the queue is empty.
std::string Drain(INamedPipe2* P, size_t Total, DWORD TimeoutMs = 30000) {
  std::string got;
  TStopwatch w;
  std::vector<char> buf(65536);
  while (got.size() < Total && w.Ms() < TimeoutMs) {
    const int32_t n = P->Read(buf.data(), static_cast<int32_t>(buf.size()));
    if (n > 0) {
      got.append(buf.data(), static_cast<size_t>(n));
    } else if (P->GetDisconnected() && P->GetSizeToRead() == 0) {
      break;
    } else {
      Sleep(1);
    }
  }
  return got;
}

}  // namespace

// Connects to pipe Args[0], writes Args[1] bytes of the test pattern in pieces, then:
// "close" closes the pipe and exits 0; "hold" keeps it open for Args[3] ms; "vanish"
// writes nothing and exits at once; "flood" writes until a write fails, then exits 5.
KL_CHILD_ROLE(pipe_client) {
  HANDLE h = kltest::OpenPipeForWriting(Args[0]);
  if (h == INVALID_HANDLE_VALUE) return 3;
  const std::string mode = Args[2];
  if (mode == "vanish") return 0;
  const uint64_t total = mode == "flood" ? UINT64_MAX : std::stoull(Args[1]);
  uint64_t sent = 0;
  while (sent < total) {
    const size_t piece = static_cast<size_t>(std::min<uint64_t>(total - sent, 7919));
    const std::string data = chtest::Pattern(sent, piece);
    DWORD written = 0;
    if (!WriteFile(h, data.data(), static_cast<DWORD>(piece), &written, nullptr)) return mode == "flood" ? 5 : 4;
    sent += written;
  }
  if (mode == "hold") Sleep(static_cast<DWORD>(std::stoul(Args[3])));
  CloseHandle(h);
  return 0;
}

TEST(NamedPipe, NamesArePrefixedAndATakenNameGetsANumber) {
  const std::string base = UniqueName("klnp");
  auto first = MakePipe(base);
  EXPECT_EQ(first->GetName(), "\\\\.\\pipe\\" + base);
  ComPtr<INamedPipe2> second;
  const std::string log = LogOf([&] { second = MakePipe(base); });
  EXPECT_NE(log.find("TNamedPipe.Create: Не удалось создать PIPE " + base), std::string::npos) << log;
  EXPECT_TRUE(std::regex_match(second->GetName(), std::regex(R"(\\\\\.\\pipe\\)" + base + R"(\d{1,5})")))
      << second->GetName();

  const std::string upper = "\\\\.\\PIPE\\" + UniqueName("klnpUpper");
  EXPECT_EQ(MakePipe(upper)->GetName(), upper);
}

TEST(NamedPipe, ClientDataArrivesWholeWithEventsInOrder) {
  auto p = MakePipe(UniqueName("klnpData"));
  std::mutex lock;
  std::vector<std::string> events;
  auto note = [&](const char* What) {
    return [&, What](void* Sender) {
      std::lock_guard<std::mutex> g(lock);
      if (Sender == static_cast<void*>(static_cast<TNamedPipe*>(p.Get()))) events.push_back(What);
    };
  };
  p->SetOnConnect(note("connect"));
  p->SetOnData(note("data"));
  p->SetOnDisconnect(note("disconnect"));
  EXPECT_FALSE(p->GetConnected());
  EXPECT_EQ(p->Write("x", 1), 0);

  constexpr size_t kTotal = 3000000;
  kltest::TProcess client;
  ASSERT_TRUE(kltest::StartChild(client, "pipe_client", {p->GetName(), std::to_string(kTotal), "close"}));
  ASSERT_TRUE(p->WaitForData(100000, 20000));
  EXPECT_EQ(p->GetBufferLevel(), 100000);
  EXPECT_TRUE(p->GetConnected());
  const std::string got = Drain(p.Get(), kTotal);
  ASSERT_EQ(got.size(), kTotal);
  EXPECT_TRUE(chtest::Matches(got.data(), 0, kTotal));
  ASSERT_TRUE(client.Wait(20000));
  ASSERT_TRUE(WaitUntil([&] { return p->GetDisconnected(); }, 10000));

  const std::string log = LogOf([&] { EXPECT_FALSE(p->WaitForData(1, 5000)); });
  EXPECT_NE(log.find("  w  TNamedPipe.WaitForData: Disconnected"), std::string::npos) << log;
  std::lock_guard<std::mutex> g(lock);
  ASSERT_GE(events.size(), 3u);
  EXPECT_EQ(events.front(), "connect");
  EXPECT_EQ(events.back(), "disconnect");
  for (size_t i = 1; i + 1 < events.size(); ++i) EXPECT_EQ(events[i], "data") << i;
}

TEST(NamedPipe, WaitForDataTimesOutAndDataBeforeDisconnectStillCounts) {
  auto idle = MakePipe(UniqueName("klnpIdle"));
  TStopwatch w;
  const std::string log = LogOf([&] { EXPECT_FALSE(idle->WaitForData(10, 300)); });
  EXPECT_GE(w.Ms(), 250u);
  EXPECT_NE(log.find("TNamedPipe.WaitForData: Timeout - Size: 0  DataSize: 10"), std::string::npos) << log;

  // The client has written 1000 bytes and left before anyone waits for them.
  auto p = MakePipe(UniqueName("klnpLate"));
  ASSERT_EQ(kltest::RunChild("pipe_client", {p->GetName(), "1000", "close"}, 20000).ExitCode, 0u);
  ASSERT_TRUE(WaitUntil([&] { return p->GetDisconnected(); }, 10000));
  EXPECT_TRUE(p->WaitForData(1000, 100));
  EXPECT_FALSE(p->WaitForData(1001, 100));
  EXPECT_EQ(p->GetText(), chtest::Pattern(0, 1000));
  EXPECT_EQ(p->GetSizeToRead(), 0);
}

TEST(NamedPipe, ReaderPausesAtTheBufferLevelAndResumes) {
  auto p = MakePipe(UniqueName("klnpLevel"), 5);
  constexpr size_t kTotal = 1000000;
  kltest::TProcess client;
  ASSERT_TRUE(kltest::StartChild(client, "pipe_client", {p->GetName(), std::to_string(kTotal), "close"}));
  ASSERT_TRUE(WaitUntil([&] { return p->GetSizeToRead() >= 65536; }, 20000));
  Sleep(500);  // a reader that did not pause would take everything meanwhile
  const int32_t held = p->GetSizeToRead();
  EXPECT_GE(held, 65536);
  EXPECT_LT(held, 65536 + 40960);
  EXPECT_FALSE(p->GetDisconnected());
  const std::string got = Drain(p.Get(), kTotal);
  ASSERT_EQ(got.size(), kTotal);
  EXPECT_TRUE(chtest::Matches(got.data(), 0, kTotal));
  EXPECT_TRUE(client.Wait(20000));
}

TEST(NamedPipe, FfmpegWritesRawVideoIntoThePipe) {
  kltest::TTempDir dir;
  const std::string source = "-f lavfi -i testsrc=size=64x48:rate=25 -frames:v 12 -f rawvideo -pix_fmt rgb32 ";
  ASSERT_EQ(kltest::Ffmpeg(source + kltest::Quote(dir / "frames.raw")).ExitCode, 0u);
  const std::string expected = kltest::ReadFileBytes(dir / "frames.raw");
  ASSERT_EQ(expected.size(), 12u * 64 * 48 * 4);

  auto p = MakePipe("klnpVideo");
  // ffmpeg runs on this thread; the reader thread must keep taking the frames.
  p->SetBufferLevel(1 << 24);
  const kltest::TRunResult r = kltest::Ffmpeg(source + p->GetName(), 60000);
  EXPECT_EQ(r.ExitCode, 0u) << r.Err;
  ASSERT_TRUE(p->WaitForData(static_cast<int32_t>(expected.size()), 10000));
  EXPECT_TRUE(p->GetText() == expected);
}

TEST(NamedPipe, VanishingClientsDeadServersAndNoLeaks) {
  // Counted after the first server with a client is gone: the system keeps a handle it
  // opens for the process on that first cycle (the count then stays, cycle after cycle).
  DWORD before = 0;
  {
    // Connects and leaves without a byte: waiting ends, nothing hangs.
    auto p = MakePipe(UniqueName("klnpVanish"));
    EXPECT_EQ(kltest::RunChild("pipe_client", {p->GetName(), "0", "vanish"}, 20000).ExitCode, 0u);
    EXPECT_FALSE(p->WaitForData(1, 500));
    EXPECT_EQ(p->GetSizeToRead(), 0);
  }
  before = chtest::HandleCount();
  {
    // Never connected: destruction must not wait for a client.
    TStopwatch w;
    MakePipe(UniqueName("klnpLonely"));
    EXPECT_LT(w.Ms(), 5000u);
  }
  {
    // The server goes while the client still writes: the client sees its writes fail.
    kltest::TProcess client;
    {
      auto p = MakePipe(UniqueName("klnpGone"));
      ASSERT_TRUE(kltest::StartChild(client, "pipe_client", {p->GetName(), "0", "flood"}));
      ASSERT_TRUE(WaitUntil([&] { return p->GetSizeToRead() > 0; }, 20000));
      TStopwatch w;
      p.Reset();
      EXPECT_LT(w.Ms(), 5000u);
    }
    ASSERT_TRUE(client.Wait(20000));
    DWORD code = 0;
    GetExitCodeProcess(client.Info.hProcess, &code);
    EXPECT_EQ(code, 5u);
  }
  {
    // A full cycle with a client, repeated: handles come back.
    for (int i = 0; i < 3; ++i) {
      auto p = MakePipe(UniqueName("klnpCycle"));
      ASSERT_EQ(kltest::RunChild("pipe_client", {p->GetName(), "5000", "close"}, 20000).ExitCode, 0u);
      EXPECT_TRUE(p->WaitForData(5000, 10000));
    }
  }
  // The client processes' handles are gone with kltest's own objects.
  EXPECT_LE(chtest::HandleCount(), before);
}

TEST(NamedPipe, ReleasedFromItsOwnEvents) {
  for (const bool onData : {true, false}) {
    SCOPED_TRACE(onData);
    const std::string name = "\\\\.\\pipe\\" + UniqueName("klnpSelf");
    auto p = MakePipe(name);
    ASSERT_EQ(p->GetName(), name);
    HANDLE gone = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    auto release = [&p, gone](void*) {
      if (WaitForSingleObject(gone, 0) == WAIT_OBJECT_0) return;
      p.Reset();  // the last reference
      SetEvent(gone);
    };
    onData ? p->SetOnData(release) : p->SetOnDisconnect(release);
    kltest::TProcess client;
    ASSERT_TRUE(kltest::StartChild(client, "pipe_client", {name, "20000", onData ? "hold" : "close", "2000"}));
    EXPECT_EQ(WaitForSingleObject(gone, 20000), WAIT_OBJECT_0);
    EXPECT_TRUE(client.Wait(20000));
    CloseHandle(gone);
    // The handle went with the object: the name is free again.
    EXPECT_TRUE(WaitUntil([&] { return MakePipe(name)->GetName() == name; }, 5000));
  }
}
