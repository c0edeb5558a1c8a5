// The read-ahead buffer over a real file: reads across block boundaries, seeks that must
// never let bytes filled for an old position through, the end of the range, and
// streams that fail or stop answering.
#include <gtest/gtest.h>

#include "ChannelsTestUtil.h"
#include "KlTest.h"
#include "channels/UMemoryBuffer.h"

using namespace kl::UMemoryBuffer;
using kl::klLog::EklException;

namespace {
constexpr int64_t kFileSize = 3000007;

struct TPatternFile {
  kltest::TTempDir Dir;
  std::string Name = Dir / "pattern.bin";
  bool Ok = kltest::WriteFileBytes(Name, chtest::Pattern(0, kFileSize));
  kl::TFileStream Open() { return kl::TFileStream(Name, kl::fmOpenRead | kl::fmShareDenyWrite); }
};

// Reads Want bytes and checks them against the file from FileOffset.
int32_t ReadChecked(TMemoryBuffer& B, int32_t Want, int64_t FileOffset) {
  std::string buf(static_cast<size_t>(Want), '\0');
  const int32_t got = B.Read(buf.data(), Want);
  return chtest::Matches(buf.data(), static_cast<uint64_t>(FileOffset), static_cast<size_t>(got)) ? got : -1;
}

// A stream that raises, or blocks until Release is set.
struct TBadStream : kl::TStream {
  HANDLE Release = CreateEventA(nullptr, TRUE, FALSE, nullptr);
  bool Throw = false;
  ~TBadStream() override { CloseHandle(Release); }
  int32_t Read(void*, int32_t) override {
    if (Throw) throw kl::EReadError("device gone");
    WaitForSingleObject(Release, 60000);
    return 0;
  }
  int32_t Write(const void*, int32_t) override { return 0; }
  int64_t Seek(int64_t, kl::TSeekOrigin) override { return 0; }
};

}  // namespace

TEST(MemoryBuffer, ReadsTheRangeAcrossBlocksAndStopsAtItsEnd) {
  TPatternFile file;
  ASSERT_TRUE(file.Ok);
  auto stream = file.Open();
  for (int32_t blockSize : {1, 4096, 65536, 1 << 20}) {
    const int64_t start = 1001, size = blockSize == 1 ? 2000 : 2000000;  // each block costs a polling round trip
    TMemoryBuffer b(&stream, start, size, blockSize);
    chtest::TRandom rnd{static_cast<uint64_t>(blockSize)};
    int64_t pos = 0;
    for (int32_t want = 1, got = 1; got == want;) {
      got = ReadChecked(b, want = rnd.Piece(), start + pos);
      ASSERT_GE(got, 0) << "wrong bytes at " << pos << ", block size " << blockSize;
      pos += got;
    }
    EXPECT_EQ(pos, size);
    const ULONGLONG t0 = GetTickCount64();
    EXPECT_EQ(ReadChecked(b, 1, 0), 0);
    EXPECT_LT(GetTickCount64() - t0, 5000u);  // the end comes at once, not after the 15-second wait
  }
  // A range running past the end of the file; a block larger than the range. (Each
  // buffer's reader thread owns the stream while the buffer lives.)
  {
    TMemoryBuffer tail(&stream, kFileSize - 1000, 100000, 4096);
    EXPECT_EQ(ReadChecked(tail, 5000, kFileSize - 1000), 1000);
  }
  TMemoryBuffer whole(&stream, 123456, 100000, 1 << 20);
  EXPECT_EQ(ReadChecked(whole, 100000, 123456), 100000);
  whole.SetPosition(99990);
  EXPECT_EQ(ReadChecked(whole, 100000, 123456 + 99990), 10);
}

TEST(MemoryBuffer, SeeksNeverReturnStaleBytes) {
  TPatternFile file;
  ASSERT_TRUE(file.Ok);
  auto stream = file.Open();
  const int64_t start = 777, size = 2500000;
  for (int32_t blockSize : {1000, 65536}) {
    TMemoryBuffer b(&stream, start, size, blockSize);
    chtest::TRandom rnd{static_cast<uint64_t>(blockSize)};
    int64_t pos = 0;
    for (int step = 0; step < 600; ++step) {
      const int32_t op = rnd.Range(0, 9);
      // Seeks near the current place (into blocks held or in flight), anywhere (also past
      // the end), twice in a row, or to a negative place (ignored).
      if (op < 2) pos = std::max<int64_t>(0, pos + rnd.Range(-3 * blockSize, 3 * blockSize));
      if (op >= 2 && op < 5) pos = rnd.Range(0, static_cast<int32_t>(size + 1000));
      if (op < 5) b.SetPosition(pos);
      if (op == 4) b.SetPosition(pos = rnd.Range(0, static_cast<int32_t>(size)));
      if (op == 5) b.SetPosition(-1);
      const int32_t want = rnd.Range(1, op == 9 ? 200000 : 3 * blockSize);
      const int32_t got = ReadChecked(b, want, start + pos);
      ASSERT_EQ(got, std::max<int64_t>(0, std::min<int64_t>(want, size - pos))) << "step " << step;
      pos += got;
    }
  }
}

TEST(MemoryBuffer, BadArgumentsAndBadStreams) {
  TPatternFile file;
  ASSERT_TRUE(file.Ok);
  auto stream = file.Open();
  const std::string invalid = "TReadStream.Create: invalid params";
  kltest::ExpectRaises<EklException>([&] { TReadStream t(nullptr, 0, 10); }, invalid);
  kltest::ExpectRaises<EklException>([&] { TMemoryBuffer t(&stream, 0, -1, 4096); }, invalid);
  kltest::ExpectRaises<EklException>([&] { TMemoryBuffer t(&stream, 0, 10, 0); }, "TMemoryBuffer.Create: invalid params");
  TMemoryBuffer b(&stream, 0, 1000, 4096);
  char buf[10];
  EXPECT_EQ(b.Read(nullptr, 10), 0);
  EXPECT_EQ(b.Read(buf, -1), 0);

  TBadStream failing;
  failing.Throw = true;
  const std::string log = chtest::LogOf([&] {
    TMemoryBuffer f(&failing, 0, 1000, 100);
    EXPECT_EQ(f.Read(buf, 10), 0);  // an empty block ends the read
  });
  EXPECT_NE(log.find("TReadStream.Execute error: device gone"), std::string::npos) << log;

  TBadStream stuck;
  TMemoryBuffer s(&stuck, 0, 1000, 100);
  const ULONGLONG t0 = GetTickCount64();
  kltest::ExpectRaises<EklException>([&] { s.Read(buf, 10); }, "TMemoryBuffer.Read timeout");
  EXPECT_GE(GetTickCount64() - t0, 14900u);
  SetEvent(stuck.Release);  // lets the reader thread go, so that the buffer can be destroyed

  // Destroyed while its reader is still blocked: given up after 3 s, not waited for
  // without end. The stream outlives the test, as the abandoned reader still holds it.
  static TBadStream blocked;
  const std::string gaveUp = chtest::LogOf([&] {
    TMemoryBuffer g(&blocked, 0, 1000, 100);
    g.SetPosition(0);  // hands the blocks to the reader
    Sleep(300);        // and lets it take one
  });
  EXPECT_NE(gaveUp.find("Warning: TMemoryBuffer.Destroy: the reader thread is still blocked in its stream"),
            std::string::npos)
      << gaveUp;
  SetEvent(blocked.Release);
}

TEST(MemoryBuffer, UnitPipeHasNoLockAndNoSkipping) {
  TPipe p(16);
  EXPECT_TRUE(p.Write(nullptr, 0));
  EXPECT_FALSE(p.Write(nullptr, 4) || p.Write("x", -1));
  EXPECT_TRUE(p.Write(chtest::Pattern(0, 40).data(), 16));
  EXPECT_EQ(p.GetBlockCount(), 2);  // the same spare block as the locked pipe
  EXPECT_EQ(p.Read(nullptr, 4), 0);
  char buf[16];
  EXPECT_EQ(p.Read(buf, 16), 16);
  EXPECT_TRUE(chtest::Matches(buf, 0, 16));
}
