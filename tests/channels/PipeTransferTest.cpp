// The pipe's transfers: to and from streams, files (with another process holding the
// file) and other pipes, and the stream facade over a pipe.
#include <gtest/gtest.h>

#include <string>

#include "ChannelsTestUtil.h"
#include "KlTest.h"
#include "channels/UPipe.h"
#include "rtl/Classes.h"
#include "rtl/SysUtils.h"

using kl::ComPtr;
using kl::TSeekOrigin;
using kl::UPipe::IPipe;
using kl::UPipe::TPipe;
using kl::UPipe::TPipeStream;

namespace {

ComPtr<TPipe> NewPipe(int32_t BlockSize) { return ComPtr<TPipe>(new TPipe(BlockSize)); }

std::string ReadAll(IPipe* Pipe) {
  std::string s(static_cast<size_t>(Pipe->GetSizeToRead()), '\0');
  if (!s.empty()) s.resize(static_cast<size_t>(Pipe->Read(s.data(), static_cast<int32_t>(s.size()))));
  return s;
}

void Fill(IPipe* Pipe, uint64_t Offset, size_t Size) {
  const std::string s = chtest::PatternString(Offset, Size);
  ASSERT_TRUE(Pipe->Write(s.data(), static_cast<int32_t>(s.size())));
}

std::string MemoryText(kl::TMemoryStream& S) {
  return std::string(static_cast<const char*>(S.Memory()), static_cast<size_t>(S.GetSize()));
}

// Another process holding a file open with the given access and share mode until the
// holder goes out of scope.
class TFileHolder {
 public:
  TFileHolder(const std::string& FileName, const std::string& Access, const std::string& Share) {
    const std::string tag = std::to_string(GetCurrentProcessId()) + "_" + std::to_string(++FCounter);
    FReady = CreateEventA(nullptr, TRUE, FALSE, ("klHoldReady_" + tag).c_str());
    FQuit = CreateEventA(nullptr, TRUE, FALSE, ("klHoldQuit_" + tag).c_str());
    Ok = kltest::StartChild(FProcess, "hold_file", {FileName, Access, Share, tag}) &&
         WaitForSingleObject(FReady, 30000) == WAIT_OBJECT_0;
  }
  ~TFileHolder() {
    SetEvent(FQuit);
    FProcess.Wait(30000);
    CloseHandle(FReady);
    CloseHandle(FQuit);
  }
  TFileHolder(const TFileHolder&) = delete;
  TFileHolder& operator=(const TFileHolder&) = delete;
  bool Ok = false;

 private:
  static inline int FCounter = 0;
  kltest::TProcess FProcess;
  HANDLE FReady;
  HANDLE FQuit;
};

}  // namespace

// Args: file, "r" or "rw", share "none" / "read" / "readwrite", event tag.
KL_CHILD_ROLE(hold_file) {
  if (Args.size() < 4) return 2;
  const DWORD access = Args[1] == "rw" ? GENERIC_READ | GENERIC_WRITE : GENERIC_READ;
  DWORD share = 0;
  if (Args[2] == "read") share = FILE_SHARE_READ;
  if (Args[2] == "readwrite") share = FILE_SHARE_READ | FILE_SHARE_WRITE;
  HANDLE file = CreateFileA(Args[0].c_str(), access, share, nullptr, OPEN_EXISTING, 0, nullptr);
  if (file == INVALID_HANDLE_VALUE) return 3;
  HANDLE ready = OpenEventA(EVENT_MODIFY_STATE, FALSE, ("klHoldReady_" + Args[3]).c_str());
  HANDLE quit = OpenEventA(SYNCHRONIZE, FALSE, ("klHoldQuit_" + Args[3]).c_str());
  if (ready == nullptr || quit == nullptr) return 4;
  SetEvent(ready);
  WaitForSingleObject(quit, 60000);
  CloseHandle(file);
  return 0;
}

TEST(PipeTransfer, FromStream) {
  kl::TMemoryStream source;
  const std::string data = chtest::PatternString(0, 10000);
  source.WriteBuffer(data.data(), 10000);
  source.SetPosition(1000);
  auto pipe = NewPipe(4096);
  EXPECT_EQ(pipe->ReadFrom(&source, 7000), 7000);
  EXPECT_EQ(pipe->ReadFrom(&source, 7000), 2000);  // the stream ran dry
  EXPECT_EQ(pipe->ReadFrom(&source, 7000), 0);
  EXPECT_EQ(pipe->ReadFromStream(nullptr, 10), 0);
  source.SetPosition(0);
  EXPECT_EQ(pipe->ReadFrom(&source, 0), 0);
  EXPECT_EQ(pipe->ReadFrom(&source, -1), 0);
  EXPECT_TRUE(ReadAll(pipe.Get()) == data.substr(1000));
}

TEST(PipeTransfer, ToStream) {
  auto pipe = NewPipe(1000);
  kl::TMemoryStream target;
  EXPECT_EQ(pipe->WriteTo(&target, 100), 0);  // empty pipe
  Fill(pipe.Get(), 0, 25000);
  EXPECT_EQ(pipe->WriteToStream(nullptr, 100), 0);
  EXPECT_EQ(pipe->WriteTo(&target, 0), 0);
  EXPECT_EQ(pipe->WriteTo(&target, -7), 0);
  // Steps longer than the staging buffer and than a block.
  EXPECT_EQ(pipe->WriteTo(&target, 12345), 12345);
  EXPECT_EQ(pipe->GetSizeToRead(), 25000 - 12345);
  EXPECT_EQ(pipe->WriteTo(&target, 1 << 30), 25000 - 12345);
  EXPECT_EQ(pipe->GetSizeToRead(), 0);
  EXPECT_TRUE(MemoryText(target) == chtest::PatternString(0, 25000));
}

TEST(PipeTransfer, FromFile) {
  kltest::TTempDir dir;
  const std::string file = dir / "source.bin";
  const std::string data = chtest::PatternString(0, 300000);
  ASSERT_TRUE(kltest::WriteFileBytes(file, data));
  auto pipe = NewPipe(0x20000);

  EXPECT_EQ(pipe->ReadFrom(file, 100000, 12345), 100000);
  EXPECT_TRUE(ReadAll(pipe.Get()) == data.substr(12345, 100000));
  // Running into the end of the file gives what is there.
  EXPECT_EQ(pipe->ReadFrom(file, 100000, 250000), 50000);
  EXPECT_TRUE(ReadAll(pipe.Get()) == data.substr(250000));
  EXPECT_EQ(pipe->ReadFrom(file, 100, 299999), 1);
  EXPECT_EQ(pipe->Read(nullptr, 10), 1);

  const size_t mark = chtest::LogMark();
  EXPECT_EQ(pipe->ReadFrom(file, 100, 300000), 0);  // at the end
  EXPECT_EQ(pipe->ReadFrom(file, 100, 400000), 0);  // past the end
  EXPECT_EQ(pipe->ReadFrom(file, 100, -1), 0);
  EXPECT_EQ(pipe->ReadFrom(file, 0, 0), 0);
  EXPECT_EQ(pipe->ReadFrom(file, -5, 0), 0);
  EXPECT_EQ(pipe->ReadFrom(dir / "missing.bin", 100, 0), 0);
  EXPECT_EQ(pipe->ReadFrom(std::string(), 100, 0), 0);
  EXPECT_EQ(pipe->GetSizeToRead(), 0);
  EXPECT_EQ(chtest::LogSince(mark).find("TPipe.ReadFrom"), std::string::npos);

  // The whole file, through the pipe and back out to another file.
  EXPECT_EQ(pipe->ReadFrom(file, 1 << 30, 0), 300000);
  EXPECT_EQ(pipe->WriteTo(dir / "copy.bin", 1 << 30, false), 300000);
  EXPECT_TRUE(kltest::ReadFileBytes(dir / "copy.bin") == data);
}

TEST(PipeTransfer, FromFileHeldByAnotherProcess) {
  kltest::TTempDir dir;
  const std::string file = dir / "held.bin";
  const std::string data = chtest::PatternString(5, 5000);
  ASSERT_TRUE(kltest::WriteFileBytes(file, data));
  auto pipe = NewPipe(4096);
  {
    // Other readers are welcome: the pipe only denies writers.
    TFileHolder reader(file, "r", "read");
    ASSERT_TRUE(reader.Ok);
    EXPECT_EQ(pipe->ReadFrom(file, 5000, 0), 5000);
    EXPECT_TRUE(ReadAll(pipe.Get()) == data);
  }
  {
    // A writer holding the file keeps the pipe out.
    TFileHolder writer(file, "rw", "readwrite");
    ASSERT_TRUE(writer.Ok);
    const size_t mark = chtest::LogMark();
    EXPECT_EQ(pipe->ReadFrom(file, 5000, 0), 0);
    EXPECT_NE(chtest::LogSince(mark).find("  E  TPipe.ReadFrom: Cannot open file"), std::string::npos);
  }
  {
    TFileHolder locker(file, "r", "none");
    ASSERT_TRUE(locker.Ok);
    const size_t mark = chtest::LogMark();
    EXPECT_EQ(pipe->ReadFrom(file, 5000, 0), 0);
    EXPECT_NE(chtest::LogSince(mark).find("TPipe.ReadFrom: "), std::string::npos);
    EXPECT_EQ(pipe->GetSizeToRead(), 0);
  }
}

TEST(PipeTransfer, ToFileReplacesOrAppends) {
  kltest::TTempDir dir;
  const std::string file = dir / "out.bin";
  auto pipe = NewPipe(4096);

  // Nothing to write: no file is made.
  EXPECT_EQ(pipe->WriteTo(file, 100, false), 0);
  EXPECT_FALSE(kl::FileExists(file));

  Fill(pipe.Get(), 0, 20000);
  EXPECT_EQ(pipe->WriteTo(file, 0, false), 0);
  EXPECT_EQ(pipe->WriteTo(file, -1, true), 0);
  EXPECT_EQ(pipe->WriteTo(std::string(), 100, false), 0);
  EXPECT_FALSE(kl::FileExists(file));
  EXPECT_EQ(pipe->GetSizeToRead(), 20000);

  EXPECT_EQ(pipe->WriteTo(file, 15000, false), 15000);  // a new file
  EXPECT_TRUE(kltest::ReadFileBytes(file) == chtest::PatternString(0, 15000));
  EXPECT_EQ(pipe->WriteTo(file, 1000, true), 1000);
  EXPECT_TRUE(kltest::ReadFileBytes(file) == chtest::PatternString(0, 16000));

  // Replacing a longer file leaves exactly what was written.
  EXPECT_EQ(pipe->WriteTo(file, 3000, false), 3000);
  EXPECT_TRUE(kltest::ReadFileBytes(file) == chtest::PatternString(16000, 3000));
  // More asked than the pipe holds.
  EXPECT_EQ(pipe->WriteTo(file, 5000, true), 1000);
  EXPECT_TRUE(kltest::ReadFileBytes(file) == chtest::PatternString(16000, 4000));
}

TEST(PipeTransfer, ToFileHeldByAnotherProcess) {
  kltest::TTempDir dir;
  const std::string file = dir / "held.bin";
  ASSERT_TRUE(kltest::WriteFileBytes(file, std::string("old contents")));
  auto pipe = NewPipe(4096);
  Fill(pipe.Get(), 0, 3000);
  {
    TFileHolder locker(file, "r", "none");
    ASSERT_TRUE(locker.Ok);
    const size_t mark = chtest::LogMark();
    EXPECT_EQ(pipe->WriteTo(file, 3000, false), 0);
    EXPECT_NE(chtest::LogSince(mark).find("  E  TPipe.WriteTo: Cannot open file"), std::string::npos);
  }
  // Nothing was lost from the pipe, nothing changed in the file.
  EXPECT_EQ(pipe->GetSizeToRead(), 3000);
  EXPECT_EQ(kltest::ReadFileBytes(file), "old contents");
  {
    // A file in a folder that does not exist cannot be created.
    const size_t mark = chtest::LogMark();
    EXPECT_EQ(pipe->WriteTo(dir / "no such dir\\x.bin", 3000, false), 0);
    EXPECT_NE(chtest::LogSince(mark).find("TPipe.WriteTo: "), std::string::npos);
  }
  EXPECT_EQ(pipe->WriteTo(file, 3000, false), 3000);
  EXPECT_TRUE(kltest::ReadFileBytes(file) == chtest::PatternString(0, 3000));
}

TEST(PipeTransfer, BetweenPipes) {
  auto a = NewPipe(4096);
  auto b = NewPipe(1000);
  Fill(a.Get(), 0, 10000);
  EXPECT_EQ(b->ReadFrom(a.Get(), 6000), 6000);  // more than one staging step
  EXPECT_EQ(a->GetSizeToRead(), 4000);
  EXPECT_EQ(b->ReadFrom(a.Get(), 6000), 4000);
  EXPECT_EQ(a->WriteTo(b.Get(), 10), 0);  // a is empty now
  EXPECT_TRUE(ReadAll(b.Get()) == chtest::PatternString(0, 10000));

  Fill(b.Get(), 10000, 9000);
  EXPECT_EQ(b->WriteTo(a.Get(), 8193), 8193);
  EXPECT_EQ(b->WriteTo(a.Get(), 100000), 807);
  EXPECT_TRUE(ReadAll(a.Get()) == chtest::PatternString(10000, 9000));

  EXPECT_EQ(a->ReadFromPipe(nullptr, 10), 0);
  EXPECT_EQ(a->WriteToPipe(nullptr, 10), 0);
  EXPECT_EQ(a->ReadFrom(b.Get(), 0), 0);
  EXPECT_EQ(a->WriteTo(b.Get(), -1), 0);
}

TEST(PipeTransfer, EmptyPipeToPipeLogsTheZeroLengthWrite) {
  auto a = NewPipe(4096);
  auto b = NewPipe(4096);
  size_t mark = chtest::LogMark();
  EXPECT_EQ(b->ReadFrom(a.Get(), 100), 0);
  std::string log = chtest::LogSince(mark);
  EXPECT_NE(log.find("  E  TPipe.Write: data: "), std::string::npos) << log;
  EXPECT_NE(log.find(", DataSize: 0\r\n"), std::string::npos) << log;

  mark = chtest::LogMark();
  EXPECT_EQ(a->WriteTo(b.Get(), 100), 0);
  log = chtest::LogSince(mark);
  EXPECT_NE(log.find(", DataSize: 0\r\n"), std::string::npos) << log;
  EXPECT_EQ(a->GetSizeToRead(), 0);
  EXPECT_EQ(b->GetSizeToRead(), 0);
}

TEST(PipeTransfer, PipeIntoItself) {
  auto a = NewPipe(64);
  Fill(a.Get(), 0, 1000);
  // The front moves to the back; the lock is taken again by the same thread.
  EXPECT_EQ(a->ReadFrom(a.Get(), 300), 300);
  EXPECT_TRUE(ReadAll(a.Get()) == chtest::PatternString(300, 700) + chtest::PatternString(0, 300));
}

TEST(PipeStream, FiguresFollowTheUnreadData) {
  TPipeStream s;
  const char ten[10] = {'0', '1', '2', '3', '4', '5', '6', '7', '8', '9'};
  EXPECT_EQ(s.Write(ten, 10), 10);
  EXPECT_EQ(s.Seek(0, TSeekOrigin::soEnd), 10);
  EXPECT_EQ(s.Seek(5, TSeekOrigin::soBeginning), 0);
  EXPECT_EQ(s.Seek(5, TSeekOrigin::soCurrent), 0);
  EXPECT_EQ(s.GetPosition(), 0);
  EXPECT_EQ(s.GetSize(), 10);
  s.SetSize(0);
  EXPECT_EQ(s.GetSize(), 10);
  char buf[100];
  EXPECT_EQ(s.Read(buf, 3), 3);
  EXPECT_EQ(std::string(buf, 3), "012");
  EXPECT_EQ(s.Seek(0, TSeekOrigin::soEnd), 7);
  EXPECT_EQ(s.Read(buf, 100), 7);
  EXPECT_EQ(std::string(buf, 7), "3456789");
  EXPECT_EQ(s.Read(buf, 100), 0);
  EXPECT_EQ(s.Read(buf, -1), 0);

  // Refused writes still report the count; the pipe logs why.
  const size_t mark = chtest::LogMark();
  EXPECT_EQ(s.Write(nullptr, 4), 4);
  EXPECT_EQ(s.Write(ten, -4), 0);
  EXPECT_EQ(s.GetSize(), 0);
  EXPECT_NE(chtest::LogSince(mark).find("TPipe.Write: data: 0, DataSize: 4"), std::string::npos);

  // A null buffer skips.
  s.Write(ten, 10);
  EXPECT_EQ(s.Read(nullptr, 4), 4);
  EXPECT_EQ(s.Read(buf, 100), 6);
  EXPECT_EQ(std::string(buf, 6), "456789");
}

TEST(PipeStream, WorksWithStreamCodeAndCounts) {
  kltest::TTempDir dir;
  const std::string data = chtest::PatternString(11, 70000);
  ASSERT_TRUE(kltest::WriteFileBytes(dir / "in.bin", data));

  ComPtr<IUnknown> holder;
  auto* s = new TPipeStream();
  holder = static_cast<IUnknown*>(s);
  {
    kl::TFileStream in(dir / "in.bin", kl::fmOpenRead | kl::fmShareDenyWrite);
    EXPECT_EQ(s->CopyFrom(in, 0), 70000);
  }
  EXPECT_EQ(s->GetSize(), 70000);
  {
    kl::TFileStream out(dir / "out.bin", kl::fmCreate);
    // CopyFrom with 0 asks the source for its size from position 0: the unread data.
    EXPECT_EQ(out.CopyFrom(*s, 0), 70000);
  }
  EXPECT_TRUE(kltest::ReadFileBytes(dir / "out.bin") == data);
  EXPECT_EQ(s->GetSize(), 0);

  // The facade's own pipe is reachable and shares its data.
  ASSERT_TRUE(s->Pipe()->Write("abc", 3));
  EXPECT_EQ(s->GetSize(), 3);

  void* other = nullptr;
  EXPECT_EQ(holder->QueryInterface(__uuidof(IPipe), &other), E_NOINTERFACE);
  EXPECT_EQ(holder->QueryInterface(IID_IStream, &other), E_NOINTERFACE);
  ComPtr<IUnknown> again;
  EXPECT_EQ(holder.As(&again), S_OK);
  again.Reset();
  EXPECT_EQ(holder.Detach()->Release(), 0u);
}
