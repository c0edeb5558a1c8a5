// The pipe's block queue: growth, recycling, skipping, clearing, bad arguments, the
// lock and the interface, checked against a plain model queue.
#include <gtest/gtest.h>

#include <atomic>
#include <deque>
#include <string>
#include <thread>

#include "ChannelsTestUtil.h"
#include "channels/UPipe.h"

using kl::ComPtr;
using kl::UPipe::IPipe;
using kl::UPipe::TPipe;

namespace {

ComPtr<TPipe> NewPipe(int32_t BlockSize) { return ComPtr<TPipe>(new TPipe(BlockSize)); }

std::string ReadAll(IPipe* Pipe) {
  std::string s(static_cast<size_t>(Pipe->GetSizeToRead()), '\0');
  if (!s.empty()) s.resize(static_cast<size_t>(Pipe->Read(s.data(), static_cast<int32_t>(s.size()))));
  return s;
}

}  // namespace

TEST(Pipe, SpareBlockWhenDataEndsOnABoundary) {
  auto pipe = NewPipe(4096);
  EXPECT_EQ(pipe->GetBlockCount(), 1);
  const std::string data = chtest::PatternString(0, 4096);
  ASSERT_TRUE(pipe->Write(data.data(), 4096));
  EXPECT_EQ(pipe->GetBlockCount(), 2);
  EXPECT_EQ(pipe->GetSizeToRead(), 4096);

  auto under = NewPipe(4096);
  ASSERT_TRUE(under->Write(data.data(), 4095));
  EXPECT_EQ(under->GetBlockCount(), 1);
  ASSERT_TRUE(under->Write(data.data(), 1));
  EXPECT_EQ(under->GetBlockCount(), 2);
  EXPECT_TRUE(ReadAll(under.Get()) == data.substr(0, 4095) + data.substr(0, 1));
}

TEST(Pipe, UsedUpBlockMovesToTheTail) {
  auto pipe = NewPipe(4096);
  const std::string data = chtest::PatternString(0, 4096 + 100);
  ASSERT_TRUE(pipe->Write(data.data(), static_cast<int32_t>(data.size())));
  ASSERT_EQ(pipe->GetBlockCount(), 2);
  const void* first = pipe->GetBlock(0);
  const void* second = pipe->GetBlock(1);

  std::string got(4096, '\0');
  ASSERT_EQ(pipe->Read(got.data(), 4096), 4096);
  EXPECT_TRUE(got == data.substr(0, 4096));
  EXPECT_EQ(pipe->GetReadPos(), 0);
  EXPECT_EQ(pipe->GetBlockCount(), 2);
  EXPECT_EQ(pipe->GetBlock(0), second);
  EXPECT_EQ(pipe->GetBlock(1), first);
  EXPECT_TRUE(ReadAll(pipe.Get()) == data.substr(4096));

  // A steady producer and consumer keep cycling through the same two blocks.
  for (int i = 0; i < 100; ++i) {
    const std::string piece = chtest::PatternString(static_cast<uint64_t>(i) * 1000, 1000);
    ASSERT_TRUE(pipe->Write(piece.data(), 1000));
    ASSERT_TRUE(ReadAll(pipe.Get()) == piece);
  }
  EXPECT_EQ(pipe->GetBlockCount(), 2);
}

TEST(Pipe, ReadReturnsWhatIsThereAndSkipsWithNullBuffer) {
  auto pipe = NewPipe(16);
  char buf[100];
  EXPECT_EQ(pipe->Read(buf, 100), 0);
  EXPECT_EQ(pipe->Read(buf, 0), 0);
  EXPECT_EQ(pipe->Read(buf, -5), 0);

  const std::string data = chtest::PatternString(7, 25);
  ASSERT_TRUE(pipe->Write(data.data(), 25));
  EXPECT_EQ(pipe->Read(nullptr, -1), 0);
  EXPECT_EQ(pipe->Read(nullptr, 10), 10);
  EXPECT_EQ(pipe->GetSizeToRead(), 15);
  EXPECT_EQ(pipe->Read(buf, 100), 15);
  EXPECT_EQ(std::string(buf, 15), data.substr(10));
  EXPECT_EQ(pipe->Read(nullptr, 10), 0);
}

TEST(Pipe, ClearKeepsTheCapacity) {
  auto pipe = NewPipe(1000);
  const std::string data = chtest::PatternString(0, 6000);
  ASSERT_TRUE(pipe->Write(data.data(), 5500));
  ASSERT_EQ(pipe->Read(nullptr, 1234), 1234);
  const int32_t blocks = pipe->GetBlockCount();
  ASSERT_EQ(blocks, 6);
  pipe->Clear();
  EXPECT_EQ(pipe->GetSizeToRead(), 0);
  EXPECT_EQ(pipe->GetReadPos(), 0);
  // Up to one byte short of the whole capacity fits without a new block.
  ASSERT_TRUE(pipe->Write(data.data(), blocks * 1000 - 1));
  EXPECT_EQ(pipe->GetBlockCount(), blocks);
  EXPECT_TRUE(ReadAll(pipe.Get()) == data.substr(0, static_cast<size_t>(blocks * 1000 - 1)));
}

TEST(Pipe, BadWritesAreLoggedAndRefused) {
  auto pipe = NewPipe(64);
  const char data[8] = {1, 2, 3, 4, 5, 6, 7, 8};
  const size_t mark = chtest::LogMark();
  EXPECT_FALSE(pipe->Write(nullptr, 5));
  EXPECT_FALSE(pipe->Write(data, 0));
  EXPECT_FALSE(pipe->Write(data, -3));
  EXPECT_EQ(pipe->GetSizeToRead(), 0);
  const std::string log = chtest::LogSince(mark);
  EXPECT_NE(log.find("  E  TPipe.Write: data: 0, DataSize: 5\r\n"), std::string::npos) << log;
  const std::string addr = std::to_string(static_cast<int32_t>(reinterpret_cast<intptr_t>(data)));
  EXPECT_NE(log.find("TPipe.Write: data: " + addr + ", DataSize: 0\r\n"), std::string::npos) << log;
  EXPECT_NE(log.find("TPipe.Write: data: " + addr + ", DataSize: -3\r\n"), std::string::npos) << log;
  // The pipe still works afterwards.
  ASSERT_TRUE(pipe->Write(data, 8));
  EXPECT_EQ(ReadAll(pipe.Get()), std::string(data, 8));
}

TEST(Pipe, NonPositiveBlockSizeStillMakesAWorkingPipe) {
  for (int32_t size : {0, -10}) {
    auto pipe = NewPipe(size);
    EXPECT_GT(pipe->GetBlockSize(), 0);
    const std::string data = chtest::PatternString(3, 10000);
    ASSERT_TRUE(pipe->Write(data.data(), 10000));
    EXPECT_TRUE(ReadAll(pipe.Get()) == data);
  }
}

// Random writes, reads, skips and clears on small blocks, so that the ring of blocks
// wraps and grows many times; every byte is compared with a model queue.
TEST(Pipe, MatchesAModelQueueUnderRandomUse) {
  for (int32_t blockSize : {1, 7, 16, 4096}) {
    SCOPED_TRACE(blockSize);
    auto pipe = NewPipe(blockSize);
    std::deque<uint8_t> model;
    chtest::TRandom rnd(static_cast<uint64_t>(blockSize));
    uint64_t written = 0;
    size_t maxData = 0;
    std::string buf;
    for (int step = 0; step < 4000; ++step) {
      const int32_t op = rnd.Range(0, 99);
      const int32_t n = rnd.Range(1, blockSize * 5 + 3);
      if (op < 50) {
        buf = chtest::PatternString(written, static_cast<size_t>(n));
        written += static_cast<uint64_t>(n);
        ASSERT_TRUE(pipe->Write(buf.data(), n));
        model.insert(model.end(), buf.begin(), buf.end());
        maxData = std::max(maxData, model.size());
      } else if (op < 85) {
        buf.assign(static_cast<size_t>(n), '\0');
        const int32_t got = pipe->Read(buf.data(), n);
        ASSERT_EQ(got, std::min<int32_t>(n, static_cast<int32_t>(model.size())));
        for (int32_t i = 0; i < got; ++i) {
          ASSERT_EQ(static_cast<uint8_t>(buf[static_cast<size_t>(i)]), model.front()) << "step " << step;
          model.pop_front();
        }
      } else if (op < 98) {
        const int32_t got = pipe->Read(nullptr, n);
        ASSERT_EQ(got, std::min<int32_t>(n, static_cast<int32_t>(model.size())));
        model.erase(model.begin(), model.begin() + got);
      } else {
        pipe->Clear();
        model.clear();
      }
      ASSERT_EQ(pipe->GetSizeToRead(), static_cast<int32_t>(model.size()));
      ASSERT_GE(pipe->GetReadPos(), 0);
      ASSERT_LT(pipe->GetReadPos(), pipe->GetBlockSize());
      // The list never grew beyond what the most data ever held needed, plus the spare block.
      ASSERT_LE(static_cast<int64_t>(pipe->GetBlockCount()) * blockSize,
                static_cast<int64_t>(maxData) + 2LL * blockSize);
    }
  }
}

TEST(Pipe, LockIsReentrantAndHoldsOtherThreadsOff) {
  auto pipe = NewPipe(128);
  const char data[4] = {'a', 'b', 'c', 'd'};
  pipe->Lock();
  pipe->Lock();
  ASSERT_TRUE(pipe->Write(data, 4));  // enters the lock a third time
  std::atomic<bool> wrote{false};
  std::thread other([&] {
    pipe->Write(data, 4);
    wrote = true;
  });
  Sleep(200);
  EXPECT_FALSE(wrote.load());
  EXPECT_EQ(pipe->GetSizeToRead(), 4);
  pipe->Unlock();
  Sleep(50);
  EXPECT_FALSE(wrote.load());
  pipe->Unlock();
  other.join();
  EXPECT_TRUE(wrote.load());
  EXPECT_EQ(ReadAll(pipe.Get()), "abcdabcd");
}

TEST(Pipe, IsAReferenceCountedComObject) {
  EXPECT_TRUE(IsEqualGUID(__uuidof(IPipe), GUID{0xDB8D9EA8, 0xA7C1, 0x4766, {0xA6, 0xE8, 0xE0, 0x3B, 0xA4, 0x86, 0x0D, 0x42}}));
  ComPtr<IPipe> pipe = kl::MakeInterface<IPipe, TPipe>(4096);
  ASSERT_TRUE(pipe);
  ComPtr<IUnknown> unknown;
  ASSERT_EQ(pipe.As(&unknown), S_OK);
  ComPtr<IPipe> again;
  ASSERT_EQ(unknown.As(&again), S_OK);
  EXPECT_EQ(again.Get(), pipe.Get());
  void* other = reinterpret_cast<void*>(1);
  EXPECT_EQ(pipe->QueryInterface(IID_IStream, &other), E_NOINTERFACE);
  EXPECT_EQ(other, nullptr);
  // The interface slots reach the object: a write through one holder is read through another.
  ASSERT_TRUE(again->Write("xyz", 3));
  EXPECT_EQ(ReadAll(pipe.Get()), "xyz");
  again.Reset();
  unknown.Reset();
  IPipe* raw = pipe.Detach();
  EXPECT_EQ(raw->Release(), 0u);
}
