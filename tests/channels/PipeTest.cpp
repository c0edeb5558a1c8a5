// The pipe: block growth and recycling, bad input, transfers to and from streams,
// files (also while another process holds the file) and pipes, and the stream facade.
#include <gtest/gtest.h>

#include "ChannelsTestUtil.h"
#include "KlTest.h"
#include "channels/UPipe.h"
#include "rtl/SysUtils.h"

using namespace kl::UPipe;
using chtest::LogOf;
using chtest::Pattern;
using kl::ComPtr;

namespace {
std::string ReadAll(IPipe* P) {
  std::string s(static_cast<size_t>(P->GetSizeToRead()), '\0');
  s.resize(static_cast<size_t>(P->Read(s.data(), static_cast<int32_t>(s.size()))));
  return s;
}
void Put(IPipe* P, uint64_t Offset, size_t Size) { ASSERT_TRUE(P->Write(Pattern(Offset, Size).data(), static_cast<int32_t>(Size))); }
}  // namespace

// Holds file Args[0] open ("r"/"rw" in Args[1], share "none"/"read"/"readwrite" in
// Args[2]), sets the event named Args[3] and waits to be killed.
KL_CHILD_ROLE(hold_file) {
  const DWORD share = Args[2] == "none" ? 0 : Args[2] == "read" ? FILE_SHARE_READ : FILE_SHARE_READ | FILE_SHARE_WRITE;
  HANDLE h = CreateFileA(Args[0].c_str(), Args[1] == "rw" ? GENERIC_READ | GENERIC_WRITE : GENERIC_READ, share, nullptr,
                         OPEN_EXISTING, 0, nullptr);
  HANDLE ready = OpenEventA(EVENT_MODIFY_STATE, FALSE, Args[3].c_str());
  if (h == INVALID_HANDLE_VALUE || ready == nullptr) return 3;
  SetEvent(ready);
  Sleep(60000);
  return 0;
}

TEST(Pipe, BlocksGrowWithTheSpareBlockAndAreRecycled) {
  ComPtr<TPipe> p(new TPipe(4096));
  Put(p.Get(), 0, 4096);  // ends on a block boundary: a spare block comes with it
  EXPECT_EQ(p->GetBlockCount(), 2);
  Put(p.Get(), 4096, 100);
  const void* first = p->GetBlock(0);
  char buf[4096];
  ASSERT_EQ(p->Read(buf, 4096), 4096);  // block 0 used up: it moves to the tail
  EXPECT_EQ(p->GetReadPos(), 0);
  EXPECT_EQ(p->GetBlock(1), first);
  for (int i = 0; i < 100; ++i) {  // a steady flow allocates nothing more
    Put(p.Get(), 4196 + 1000 * i, 1000);
    ASSERT_EQ(p->Read(buf, 1100), i == 0 ? 1100 : 1000);
    EXPECT_TRUE(chtest::Matches(buf, i == 0 ? 4096 : 4196 + 1000 * i, i == 0 ? 1100 : 1000));
  }
  EXPECT_EQ(p->GetBlockCount(), 2);

  Put(p.Get(), 0, 20000);
  const int32_t blocks = p->GetBlockCount();
  p->Clear();  // keeps the capacity: a write one byte short of it needs no block
  EXPECT_EQ(p->GetSizeToRead(), 0);
  Put(p.Get(), 0, static_cast<size_t>(blocks) * 4096 - 1);
  EXPECT_EQ(p->GetBlockCount(), blocks);
  EXPECT_TRUE(ReadAll(p.Get()) == Pattern(0, static_cast<size_t>(blocks) * 4096 - 1));
}

TEST(Pipe, ReadsWhatIsThereSkipsAndRefusesBadInput) {
  ComPtr<IPipe> p(new TPipe(16));
  char buf[100];
  EXPECT_EQ(p->Read(buf, 100), 0);
  Put(p.Get(), 0, 25);
  EXPECT_EQ(p->Read(nullptr, 10), 10);  // skipping
  EXPECT_EQ(p->Read(buf, -1), 0);
  EXPECT_EQ(p->Read(buf, 100), 15);
  EXPECT_TRUE(chtest::Matches(buf, 10, 15));
  const std::string log = LogOf([&] {
    EXPECT_FALSE(p->Write(nullptr, 5));
    EXPECT_FALSE(p->Write(buf, -3));
  });
  const std::string addr = std::to_string(static_cast<int32_t>(reinterpret_cast<intptr_t>(buf)));
  EXPECT_NE(log.find("  E  TPipe.Write: data: 0, DataSize: 5\r\n"), std::string::npos) << log;
  EXPECT_NE(log.find("TPipe.Write: data: " + addr + ", DataSize: -3\r\n"), std::string::npos) << log;
  EXPECT_EQ(p->GetSizeToRead(), 0);
  void* other = nullptr;
  EXPECT_EQ(p->QueryInterface(IID_IStream, &other), E_NOINTERFACE);
}

TEST(PipeTransfer, StreamsAndPipes) {
  kl::TMemoryStream src, dst;
  src.WriteBuffer(Pattern(0, 10000).data(), 10000);
  src.SetPosition(1000);
  ComPtr<IPipe> a(new TPipe(4096)), b(new TPipe(1000));
  EXPECT_EQ(a->ReadFrom(&src, 7000), 7000);
  EXPECT_EQ(a->ReadFrom(&src, 7000), 2000);  // the stream ran dry
  EXPECT_EQ(a->ReadFromStream(nullptr, 10), 0);
  EXPECT_EQ(b->ReadFrom(a.Get(), 6000), 6000);  // over several staging steps
  EXPECT_EQ(a->WriteTo(b.Get(), 99999), 3000);
  EXPECT_EQ(b->WriteTo(&dst, 8193), 8193);  // a step larger than a block
  EXPECT_EQ(b->WriteTo(&dst, 99999), 807);
  EXPECT_EQ(b->WriteTo(&dst, 1), 0);
  EXPECT_EQ(a->ReadFromPipe(nullptr, 1), 0);
  EXPECT_TRUE(std::string(static_cast<char*>(dst.Memory()), 9000) == Pattern(1000, 9000));
  // An empty source still makes one zero-length Write, which logs on the target.
  std::string log = LogOf([&] { EXPECT_EQ(b->ReadFrom(a.Get(), 100), 0); });
  EXPECT_NE(log.find(", DataSize: 0\r\n"), std::string::npos) << log;
  log = LogOf([&] { EXPECT_EQ(a->WriteTo(b.Get(), 100), 0); });
  EXPECT_NE(log.find("TPipe.Write: data: "), std::string::npos) << log;
}

TEST(PipeTransfer, Files) {
  kltest::TTempDir dir;
  const std::string in = dir / "in.bin", out = dir / "out.bin";
  ASSERT_TRUE(kltest::WriteFileBytes(in, Pattern(0, 300000)));
  ComPtr<IPipe> p(new TPipe(0x20000));
  EXPECT_EQ(p->WriteTo(out, 100, false), 0);  // nothing to write: no file made
  EXPECT_FALSE(kl::FileExists(out));
  EXPECT_EQ(p->ReadFrom(in, 100000, 12345), 100000);
  EXPECT_EQ(p->ReadFrom(in, 100000, 250000), 50000);  // up to the end of the file
  EXPECT_EQ(p->ReadFrom(in, 100, 400000), 0);
  EXPECT_EQ(p->ReadFrom(in, 100, -1), 0);
  EXPECT_EQ(p->ReadFrom(dir / "missing", 100, 0), 0);
  EXPECT_EQ(p->WriteTo(std::string(), 100, false), 0);
  EXPECT_EQ(p->WriteTo(out, 120000, false), 120000);
  EXPECT_EQ(p->WriteTo(out, 1000, true), 1000);
  EXPECT_TRUE(kltest::ReadFileBytes(out) == Pattern(12345, 100000) + Pattern(250000, 21000));
  EXPECT_EQ(p->WriteTo(out, 5000, false), 5000);  // replaces a longer file entirely
  EXPECT_TRUE(kltest::ReadFileBytes(out) == Pattern(271000, 5000));
  EXPECT_EQ(p->WriteTo(out, 99999, true), 24000);
  EXPECT_TRUE(kltest::ReadFileBytes(out) == Pattern(271000, 29000));
}

TEST(PipeTransfer, FilesHeldByAnotherProcess) {
  kltest::TTempDir dir;
  const std::string f = dir / "held.bin";
  ASSERT_TRUE(kltest::WriteFileBytes(f, Pattern(0, 5000)));
  ComPtr<IPipe> p(new TPipe(4096));
  auto whileHeld = [&](const char* Access, const char* Share, auto&& Body) {
    const std::string name = "klHoldFile" + std::to_string(GetCurrentProcessId());
    HANDLE ready = CreateEventA(nullptr, TRUE, FALSE, name.c_str());
    kltest::TProcess child;  // killed (and the file released) when it goes out of scope
    ASSERT_TRUE(kltest::StartChild(child, "hold_file", {f, Access, Share, name}));
    const bool held = WaitForSingleObject(ready, 30000) == WAIT_OBJECT_0;
    CloseHandle(ready);
    ASSERT_TRUE(held);
    Body();
  };
  whileHeld("r", "read", [&] {  // other readers are welcome: the pipe only denies writers
    EXPECT_EQ(p->ReadFrom(f, 5000, 0), 5000);
    EXPECT_TRUE(ReadAll(p.Get()) == Pattern(0, 5000));
  });
  whileHeld("rw", "readwrite", [&] {
    const std::string log = LogOf([&] { EXPECT_EQ(p->ReadFrom(f, 5000, 0), 0); });
    EXPECT_NE(log.find("  E  TPipe.ReadFrom: Cannot open file"), std::string::npos) << log;
  });
  Put(p.Get(), 0, 3000);
  whileHeld("r", "none", [&] {
    const std::string log = LogOf([&] { EXPECT_EQ(p->WriteTo(f, 3000, false), 0); });
    EXPECT_NE(log.find("  E  TPipe.WriteTo: Cannot open file"), std::string::npos) << log;
  });
  EXPECT_EQ(p->GetSizeToRead(), 3000);  // nothing lost
  EXPECT_EQ(p->WriteTo(f, 3000, false), 3000);
}

TEST(PipeStream, FiguresFollowTheUnreadData) {
  auto* s = new TPipeStream();
  ComPtr<IUnknown> holder(static_cast<IUnknown*>(s));
  EXPECT_EQ(s->Write("0123456789", 10), 10);
  EXPECT_EQ(s->Seek(0, kl::TSeekOrigin::soEnd), 10);
  EXPECT_EQ(s->Seek(5, kl::TSeekOrigin::soBeginning), 0);
  s->SetSize(0);
  char buf[100];
  EXPECT_EQ(s->Read(buf, 100), 10);
  EXPECT_EQ(s->Read(buf, 100), 0);
  EXPECT_EQ(s->Write(nullptr, 4), 4);  // refused by the pipe (and logged), counted anyway
  EXPECT_EQ(s->GetSize(), 0);
  kl::TMemoryStream m;
  m.WriteBuffer(Pattern(0, 70000).data(), 70000);
  EXPECT_EQ(s->CopyFrom(m, 0), 70000);
  kl::TMemoryStream back;
  EXPECT_EQ(back.CopyFrom(*s, 0), 70000);
  EXPECT_TRUE(chtest::Matches(back.Memory(), 0, 70000));
  void* other = nullptr;
  EXPECT_EQ(holder->QueryInterface(__uuidof(IPipe), &other), E_NOINTERFACE);
  EXPECT_EQ(holder.Detach()->Release(), 0u);
}
