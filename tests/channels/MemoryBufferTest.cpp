// The read-ahead buffer over real files: sequential reads across block boundaries,
// seeks that must never let bytes filled for an old position through, the end of the
// range, broken streams, and the unit's own blocks and unlocked pipe.
#include <gtest/gtest.h>

#include <deque>
#include <string>

#include "ChannelsTestUtil.h"
#include "KlTest.h"
#include "channels/UMemoryBuffer.h"
#include "diagnostics/klLog.h"
#include "rtl/Classes.h"

using kl::klLog::EklException;
using kl::UMemoryBuffer::TMemoryBlock;
using kl::UMemoryBuffer::TMemoryBuffer;
using kl::UMemoryBuffer::TReadStream;

namespace {

constexpr int32_t kFileSize = 3 * 1000 * 1000 + 7;

// A patterned file: the byte at offset i is the pattern's byte i.
class TPatternFile {
 public:
  TPatternFile() { Ok = kltest::WriteFileBytes(Name, chtest::PatternString(0, kFileSize)); }
  kltest::TTempDir Dir;
  std::string Name = Dir / "pattern.bin";
  bool Ok = false;
};

// Reads until Read returns less than asked; checks every byte against the file.
int64_t ReadToEnd(TMemoryBuffer& Buffer, int64_t FileOffset, chtest::TRandom& Rnd, bool& Bad) {
  std::string buf(300000, '\0');
  int64_t total = 0;
  for (;;) {
    const int32_t want = Rnd.Range(1, 1 << Rnd.Range(0, 18));
    const int32_t got = Buffer.Read(buf.data(), want);
    if (got > 0 && !chtest::MatchesPattern(buf.data(), static_cast<uint64_t>(FileOffset + total), static_cast<size_t>(got))) {
      Bad = true;
    }
    total += got;
    if (got < want) return total;
  }
}

// A stream whose Read waits for an event (a device that has stopped answering) or
// raises.
class TStuckStream : public kl::TStream {
 public:
  TStuckStream() : Release(CreateEventA(nullptr, TRUE, FALSE, nullptr)) {}
  ~TStuckStream() override { CloseHandle(Release); }
  int32_t Read(void*, int32_t) override {
    if (Throw) throw kl::EReadError("device gone");
    WaitForSingleObject(Release, 60000);
    return 0;
  }
  int32_t Write(const void*, int32_t) override { return 0; }
  int64_t Seek(int64_t, kl::TSeekOrigin) override { return 0; }
  HANDLE Release;
  bool Throw = false;
};

}  // namespace

TEST(MemoryBuffer, SequentialReadsAcrossBlocks) {
  TPatternFile file;
  ASSERT_TRUE(file.Ok);
  kl::TFileStream stream(file.Name, kl::fmOpenRead | kl::fmShareDenyWrite);
  for (int32_t blockSize : {1, 4096, 65536, 1 << 20}) {
    SCOPED_TRACE(blockSize);
    const int64_t start = 1001;
    // Every block costs the reader thread's polling round trip: few of the tiny ones.
    const int64_t size = blockSize == 1 ? 2000 : 2000000;
    TMemoryBuffer buffer(&stream, start, size, blockSize);
    chtest::TRandom rnd(static_cast<uint64_t>(blockSize));
    bool bad = false;
    EXPECT_EQ(ReadToEnd(buffer, start, rnd, bad), size);
    EXPECT_FALSE(bad);
    const ULONGLONG t0 = GetTickCount64();
    char c;
    EXPECT_EQ(buffer.Read(&c, 1), 0);
    EXPECT_EQ(buffer.Read(&c, 1), 0);
    // The end is reported at once, not after the 15-second wait.
    EXPECT_LT(GetTickCount64() - t0, 5000u);
  }
}

TEST(MemoryBuffer, SeeksNeverReturnStaleBytes) {
  TPatternFile file;
  ASSERT_TRUE(file.Ok);
  kl::TFileStream stream(file.Name, kl::fmOpenRead | kl::fmShareDenyWrite);
  const int64_t start = 777;
  const int64_t size = 2500000;
  for (int32_t blockSize : {1000, 65536}) {
    SCOPED_TRACE(blockSize);
    TMemoryBuffer buffer(&stream, start, size, blockSize);
    chtest::TRandom rnd(static_cast<uint64_t>(blockSize) + 5);
    std::string buf(200000, '\0');
    int64_t pos = 0;
    for (int step = 0; step < 600; ++step) {
      const int32_t op = rnd.Range(0, 9);
      if (op < 5) {
        // Near the current place (inside blocks still held or in flight) or anywhere.
        pos = op < 2 ? std::max<int64_t>(0, pos + rnd.Range(-3 * blockSize, 3 * blockSize))
                     : rnd.Range(0, static_cast<int32_t>(size + 1000));
        buffer.SetPosition(pos);
        if (op == 4) {
          pos = rnd.Range(0, static_cast<int32_t>(size));
          buffer.SetPosition(pos);  // two seeks in a row
        }
      } else if (op == 5) {
        buffer.SetPosition(-1);  // ignored
      }
      const int32_t want = rnd.Range(1, op == 9 ? 200000 : 3 * blockSize);
      const int32_t got = buffer.Read(buf.data(), want);
      const int64_t expected = std::max<int64_t>(0, std::min<int64_t>(want, size - pos));
      ASSERT_EQ(got, expected) << "step " << step << " pos " << pos;
      ASSERT_TRUE(chtest::MatchesPattern(buf.data(), static_cast<uint64_t>(start + pos), static_cast<size_t>(got)))
          << "step " << step << " pos " << pos;
      pos += got;
    }
  }
}

TEST(MemoryBuffer, BlockLargerThanTheRange) {
  TPatternFile file;
  ASSERT_TRUE(file.Ok);
  kl::TFileStream stream(file.Name, kl::fmOpenRead | kl::fmShareDenyWrite);
  TMemoryBuffer buffer(&stream, 123456, 100000, 1 << 20);
  std::string buf(200000, '\0');
  EXPECT_EQ(buffer.Read(buf.data(), 100000), 100000);
  EXPECT_TRUE(chtest::MatchesPattern(buf.data(), 123456, 100000));
  EXPECT_EQ(buffer.Read(buf.data(), 100000), 0);
  buffer.SetPosition(99990);
  EXPECT_EQ(buffer.Read(buf.data(), 100000), 10);
  EXPECT_TRUE(chtest::MatchesPattern(buf.data(), 123456 + 99990, 10));
}

TEST(MemoryBuffer, EmptyRangesAndRangesPastTheFile) {
  TPatternFile file;
  ASSERT_TRUE(file.Ok);
  kl::TFileStream stream(file.Name, kl::fmOpenRead | kl::fmShareDenyWrite);
  char buf[5000];
  {
    TMemoryBuffer empty(&stream, 0, 0, 4096);
    EXPECT_EQ(empty.Read(buf, 100), 0);
  }
  {
    const size_t mark = chtest::LogMark();
    const ULONGLONG t0 = GetTickCount64();
    TMemoryBuffer tail(&stream, kFileSize - 1000, 100000, 4096);
    EXPECT_EQ(tail.Read(buf, 5000), 1000);
    EXPECT_TRUE(chtest::MatchesPattern(buf, kFileSize - 1000, 1000));
    EXPECT_EQ(tail.Read(buf, 5000), 0);
    EXPECT_LT(GetTickCount64() - t0, 10000u);
    EXPECT_NE(chtest::LogSince(mark).find("Warning"), std::string::npos);
  }
  {
    TMemoryBuffer beyond(&stream, kFileSize + 5000, 100, 4096);
    EXPECT_EQ(beyond.Read(buf, 100), 0);
  }
}

TEST(MemoryBuffer, BadArguments) {
  TPatternFile file;
  ASSERT_TRUE(file.Ok);
  kl::TFileStream stream(file.Name, kl::fmOpenRead | kl::fmShareDenyWrite);
  auto message = [](auto&& Make) {
    try {
      Make();
    } catch (const EklException& e) {
      return e.Message();
    }
    return std::string("no exception");
  };
  EXPECT_EQ(message([&] { TReadStream t(nullptr, 0, 10); }), "TReadStream.Create: invalid params");
  EXPECT_EQ(message([&] { TReadStream t(&stream, -1, 10); }), "TReadStream.Create: invalid params");
  EXPECT_EQ(message([&] { TReadStream t(&stream, 0, -10); }), "TReadStream.Create: invalid params");
  EXPECT_EQ(message([&] { TMemoryBuffer b(nullptr, 0, 10, 4096); }), "TReadStream.Create: invalid params");
  EXPECT_EQ(message([&] { TMemoryBuffer b(&stream, 0, -1, 4096); }), "TReadStream.Create: invalid params");
  EXPECT_EQ(message([&] { TMemoryBuffer b(&stream, 0, 10, 0); }), "TMemoryBuffer.Create: invalid params");

  TMemoryBuffer buffer(&stream, 0, 1000, 4096);
  char buf[10];
  EXPECT_EQ(buffer.Read(nullptr, 10), 0);
  EXPECT_EQ(buffer.Read(buf, 0), 0);
  EXPECT_EQ(buffer.Read(buf, -1), 0);
  EXPECT_EQ(buffer.Read(buf, 10), 10);
  EXPECT_TRUE(chtest::MatchesPattern(buf, 0, 10));
}

TEST(MemoryBuffer, ReaderThreadStartsFilledBlocksInOrder) {
  TPatternFile file;
  ASSERT_TRUE(file.Ok);
  kl::TFileStream stream(file.Name, kl::fmOpenRead | kl::fmShareDenyWrite);
  TReadStream reader(&stream, 10, 250);
  EXPECT_FALSE(reader.FillBlock(nullptr));
  for (int i = 0; i < 3; ++i) ASSERT_TRUE(reader.FillBlock(std::make_unique<TMemoryBlock>(100)));
  std::vector<int32_t> sizes;
  const ULONGLONG t0 = GetTickCount64();
  std::string got;
  while (sizes.size() < 3 && GetTickCount64() - t0 < 10000) {
    auto block = reader.GetFilledBlock();
    if (!block) {
      Sleep(1);
      continue;
    }
    sizes.push_back(block->DataSize);
    got.append(reinterpret_cast<const char*>(block->GetStartOfData()), static_cast<size_t>(block->DataSize));
  }
  EXPECT_EQ(sizes, (std::vector<int32_t>{100, 100, 50}));
  EXPECT_TRUE(got == chtest::PatternString(10, 250));
}

TEST(MemoryBuffer, FailingStreamEndsTheReadAndIsLogged) {
  TStuckStream stream;
  stream.Throw = true;
  const size_t mark = chtest::LogMark();
  TMemoryBuffer buffer(&stream, 0, 1000, 100);
  char buf[10];
  EXPECT_EQ(buffer.Read(buf, 10), 0);
  EXPECT_NE(chtest::LogSince(mark).find("TReadStream.Execute error: device gone"), std::string::npos);
}

TEST(MemoryBuffer, StuckStreamTimesOutAfter15Seconds) {
  TStuckStream stream;
  TMemoryBuffer buffer(&stream, 0, 1000, 100);
  char buf[10];
  const ULONGLONG t0 = GetTickCount64();
  std::string message;
  try {
    buffer.Read(buf, 10);
  } catch (const EklException& e) {
    message = e.Message();
  }
  const ULONGLONG waited = GetTickCount64() - t0;
  EXPECT_EQ(message, "TMemoryBuffer.Read timeout");
  EXPECT_GE(waited, 14900u);
  EXPECT_LT(waited, 60000u);
  SetEvent(stream.Release);  // lets the reader thread go, so the buffer can be destroyed
}

TEST(MemoryBlock, FillReadWriteAndCompact) {
  TMemoryBlock block(10);
  EXPECT_EQ(block.Size, 10);
  EXPECT_EQ(block.Position, -1);
  EXPECT_EQ(block.Generation, 0);
  EXPECT_TRUE(block.GetEmpty());
  EXPECT_EQ(block.Write("abcdefgh", 8), 8);
  EXPECT_EQ(block.Write("XYZ", 3), 2);  // only what fits
  EXPECT_EQ(block.Write(nullptr, 3), 0);
  EXPECT_EQ(block.Write("a", 0), 0);
  char buf[20] = {};
  EXPECT_EQ(block.Read(buf, 3), 3);
  EXPECT_EQ(std::string(buf, 3), "abc");
  EXPECT_EQ(block.GetSizeOfRemaining(), 7);
  EXPECT_EQ(block.GetEndOfData() - block.GetStartOfData(), 7);
  block.CopyRemainingToBegin();
  EXPECT_EQ(block.ReadPos, 0);
  EXPECT_EQ(block.DataSize, 7);
  EXPECT_EQ(block.Read(buf, 20), 7);
  EXPECT_EQ(std::string(buf, 7), "defghXY");
  EXPECT_TRUE(block.GetEmpty());
  EXPECT_EQ(block.Read(buf, 20), 0);
  EXPECT_EQ(block.Read(nullptr, 20), 0);
  block.Filled(50);
  EXPECT_EQ(block.DataSize, 10);
  block.Filled(-5);
  EXPECT_EQ(block.DataSize, 0);
}

TEST(MemoryBufferPipe, UnlockedQueue) {
  kl::UMemoryBuffer::TPipe pipe(16);
  const char data[4] = {1, 2, 3, 4};
  EXPECT_TRUE(pipe.Write(data, 0));
  EXPECT_TRUE(pipe.Write(nullptr, 0));
  EXPECT_FALSE(pipe.Write(nullptr, 4));
  EXPECT_FALSE(pipe.Write(data, -1));
  EXPECT_EQ(pipe.GetSizeToRead(), 0);
  const std::string s = chtest::PatternString(0, 16);
  EXPECT_TRUE(pipe.Write(s.data(), 16));
  EXPECT_EQ(pipe.GetBlockCount(), 2);  // the spare block
  EXPECT_EQ(pipe.Read(nullptr, 4), 0);  // no skipping here
  EXPECT_EQ(pipe.GetSizeToRead(), 16);
  pipe.Clear();
  EXPECT_EQ(pipe.GetSizeToRead(), 0);

  std::deque<char> model;
  chtest::TRandom rnd(9);
  uint64_t written = 0;
  std::string buf;
  for (int step = 0; step < 3000; ++step) {
    const int32_t n = rnd.Range(0, 50);
    if (rnd.Range(0, 1) == 0) {
      buf = chtest::PatternString(written, static_cast<size_t>(n));
      written += static_cast<uint64_t>(n);
      ASSERT_TRUE(pipe.Write(buf.data(), n));
      model.insert(model.end(), buf.begin(), buf.end());
    } else {
      buf.assign(static_cast<size_t>(n), '\0');
      const int32_t got = pipe.Read(buf.data(), n);
      ASSERT_EQ(got, std::min<int32_t>(n, static_cast<int32_t>(model.size())));
      ASSERT_TRUE(std::equal(buf.begin(), buf.begin() + got, model.begin()));
      model.erase(model.begin(), model.begin() + got);
    }
  }
  EXPECT_EQ(pipe.GetSizeToRead(), static_cast<int32_t>(model.size()));
}
