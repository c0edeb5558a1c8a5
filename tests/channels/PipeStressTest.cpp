// 200 MB of patterned data from a producer thread to a consumer thread in random-sized
// pieces, checked byte for byte: through one pipe, pipe to pipe, and through streams.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <thread>
#include <vector>

#include "ChannelsTestUtil.h"
#include "channels/UPipe.h"

using namespace kl::UPipe;
using kl::ComPtr;

namespace {
constexpr int64_t kTotal = 200LL << 20;

// The producer Puts pieces (pausing while 16 MB are on the way), the consumer Takes up
// to a piece into its buffer, a third thread runs Move until the consumer is done. A
// stall fails after 4 minutes.
void Transfer(std::function<void(const void*, int32_t)> Put, std::function<int32_t(void*, int32_t)> Take,
              std::function<void(chtest::TRandom&)> Move = [](chtest::TRandom&) { SwitchToThread(); }) {
  std::atomic<int64_t> taken{0};
  std::atomic<bool> stop{false};
  const ULONGLONG deadline = GetTickCount64() + 240000;
  std::thread producer([&] {
    chtest::TRandom rnd{1};
    for (int64_t sent = 0; sent < kTotal && !stop;) {
      if (sent - taken > (16 << 20)) {
        SwitchToThread();
        continue;
      }
      const int32_t n = static_cast<int32_t>(std::min<int64_t>(rnd.Piece(), kTotal - sent));
      Put(chtest::Pattern(static_cast<uint64_t>(sent), static_cast<size_t>(n)).data(), n);
      sent += n;
    }
  });
  std::thread mover([&] {
    chtest::TRandom rnd{3};
    while (!stop) Move(rnd);
  });
  std::vector<char> buf(1 << 18);
  chtest::TRandom rnd{2};
  bool good = true;
  while (good && taken < kTotal && GetTickCount64() < deadline) {
    const int32_t got = Take(buf.data(), rnd.Piece());
    good = chtest::Matches(buf.data(), static_cast<uint64_t>(taken.load()), static_cast<size_t>(got));
    taken += got;
    if (got == 0) SwitchToThread();
  }
  stop = true;
  producer.join();
  mover.join();
  EXPECT_TRUE(good) << "wrong bytes after " << taken;
  EXPECT_EQ(taken, kTotal);
}

// Copies what is written to it into a buffer.
struct TBufferStream : kl::TStream {
  char* Dst = nullptr;
  int32_t Read(void*, int32_t) override { return 0; }
  int64_t Seek(int64_t, kl::TSeekOrigin) override { return 0; }
  int32_t Write(const void* Buffer, int32_t Count) override {
    std::memcpy(Dst, Buffer, static_cast<size_t>(Count));
    Dst += Count;
    return Count;
  }
};
}  // namespace

TEST(PipeStress, OnePipe) {
  ComPtr<IPipe> p(new TPipe(0x20000));
  Transfer([&](const void* D, int32_t N) { p->Write(D, N); }, [&](void* B, int32_t N) { return p->Read(B, N); });
}

TEST(PipeStress, PipeToPipe) {
  ComPtr<IPipe> a(new TPipe(0x20000)), b(new TPipe(4096));
  // Pulls into b and pushes from a by turns, under a's lock so that the size asked for
  // is still there when it moves (locks taken in the same order: a, then b).
  Transfer([&](const void* D, int32_t N) { a->Write(D, N); }, [&](void* B, int32_t N) { return b->Read(B, N); },
           [&](chtest::TRandom& Rnd) {
             a->Lock();
             const int32_t n = std::min(a->GetSizeToRead(), Rnd.Piece());
             const bool pull = (Rnd.Next() & 1) != 0;
             if (n > 0 && pull) b->ReadFrom(a.Get(), n);
             if (n > 0 && !pull) a->WriteTo(b.Get(), n);
             a->Unlock();
             if (n == 0) SwitchToThread();
           });
  EXPECT_EQ(a->GetSizeToRead(), 0);
  EXPECT_EQ(b->GetSizeToRead(), 0);
}

TEST(PipeStress, ThroughStreams) {
  // producer -> TPipeStream -> TPipe::ReadFrom(stream) -> TPipe::WriteTo(stream) -> consumer
  TPipeStream source;
  ComPtr<IPipe> p(new TPipe(0x20000));
  TBufferStream sink;
  Transfer([&](const void* D, int32_t N) { source.Write(D, N); },
           [&](void* B, int32_t N) {
             sink.Dst = static_cast<char*>(B);
             return p->WriteTo(&sink, N);
           },
           [&](chtest::TRandom& Rnd) {
             if (p->ReadFrom(&source, Rnd.Piece()) == 0) SwitchToThread();
           });
}
