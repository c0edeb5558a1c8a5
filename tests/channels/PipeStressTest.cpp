// 200 MB of patterned data from a producer thread to a consumer thread in random-sized
// pieces, checked byte for byte: through one pipe, pipe to pipe, and through streams.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <thread>
#include <vector>

#include "ChannelsTestUtil.h"
#include "channels/UPipe.h"

using namespace kl::UPipe;
using kl::ComPtr;

namespace {
constexpr int64_t kTotal = 200LL << 20;

// Producer: Put(data, size) until kTotal bytes went out, pausing while Backlog() is
// over 16 MB. Consumer: Take(buffer, max, offset) returns the bytes it got, -1 for a
// mismatch. Mover: runs until the consumer is done. A stall fails after 4 minutes.
void Transfer(std::function<int64_t()> Backlog, std::function<void(const void*, int32_t)> Put,
              std::function<int32_t(void*, int32_t, int64_t)> Take, std::function<void(chtest::TRandom&)> Mover = {}) {
  std::atomic<bool> done{false}, failed{false};
  const ULONGLONG deadline = GetTickCount64() + 240000;
  auto alive = [&] { return !done && !failed && GetTickCount64() < deadline; };
  int64_t taken = 0;
  std::thread producer([&] {
    chtest::TRandom rnd{1};
    for (int64_t sent = 0; sent < kTotal && alive();) {
      if (Backlog() > (16 << 20)) {
        SwitchToThread();
        continue;
      }
      const int32_t n = static_cast<int32_t>(std::min<int64_t>(rnd.Piece(), kTotal - sent));
      const std::string piece = chtest::Pattern(static_cast<uint64_t>(sent), static_cast<size_t>(n));
      Put(piece.data(), n);
      sent += n;
    }
  });
  std::thread mover([&] {
    chtest::TRandom rnd{3};
    while (Mover && alive()) Mover(rnd);
  });
  std::vector<char> buf(1 << 18);
  chtest::TRandom rnd{2};
  while (taken < kTotal && alive()) {
    const int32_t got = Take(buf.data(), rnd.Piece(), taken);
    if (got < 0) failed = true;
    if (got == 0) SwitchToThread();
    taken += std::max(got, 0);
  }
  done = true;
  producer.join();
  mover.join();
  EXPECT_FALSE(failed.load()) << "wrong bytes after " << taken;
  EXPECT_EQ(taken, kTotal);
}

int32_t TakeChecked(IPipe* P, void* Buf, int32_t Max, int64_t Offset) {
  const int32_t got = P->Read(Buf, Max);
  return chtest::Matches(Buf, static_cast<uint64_t>(Offset), static_cast<size_t>(got)) ? got : -1;
}

// Checks everything written to it against the pattern.
struct TCheckingStream : kl::TStream {
  int64_t Received = 0;
  bool Bad = false;
  int32_t Read(void*, int32_t) override { return 0; }
  int64_t Seek(int64_t, kl::TSeekOrigin) override { return Received; }
  int32_t Write(const void* Buffer, int32_t Count) override {
    Bad = Bad || !chtest::Matches(Buffer, static_cast<uint64_t>(Received), static_cast<size_t>(Count));
    Received += Count;
    return Count;
  }
};
}  // namespace

TEST(PipeStress, OnePipe) {
  ComPtr<IPipe> p(new TPipe(0x20000));
  Transfer([&] { return p->GetSizeToRead(); }, [&](const void* D, int32_t N) { p->Write(D, N); },
           [&](void* B, int32_t Max, int64_t Off) { return TakeChecked(p.Get(), B, Max, Off); });
}

TEST(PipeStress, PipeToPipe) {
  ComPtr<IPipe> a(new TPipe(0x20000)), b(new TPipe(4096));
  // Pulls into b and pushes from a by turns, under a's lock so that the size asked for
  // is still there when it moves (locks taken in the same order: a, then b).
  Transfer([&] { return a->GetSizeToRead(); }, [&](const void* D, int32_t N) { a->Write(D, N); },
           [&](void* B, int32_t Max, int64_t Off) { return TakeChecked(b.Get(), B, Max, Off); },
           [&](chtest::TRandom& Rnd) {
             a->Lock();
             const int32_t n = b->GetSizeToRead() < (16 << 20) ? std::min(a->GetSizeToRead(), Rnd.Piece()) : 0;
             const bool pull = (Rnd.Next() & 1) != 0;
             if (n > 0 && pull) b->ReadFrom(a.Get(), n);
             if (n > 0 && !pull) a->WriteTo(b.Get(), n);
             a->Unlock();
             if (n == 0) SwitchToThread();
           });
  EXPECT_EQ(a->GetSizeToRead() + b->GetSizeToRead(), 0);
}

TEST(PipeStress, ThroughStreams) {
  // producer -> TPipeStream -> TPipe::ReadFrom(stream) -> TPipe::WriteTo(stream) -> check
  TPipeStream source;
  ComPtr<IPipe> p(new TPipe(0x20000));
  TCheckingStream sink;
  Transfer([&] { return source.GetSize(); }, [&](const void* D, int32_t N) { source.Write(D, N); },
           [&](void*, int32_t Max, int64_t) {
             const int64_t before = sink.Received;
             p->WriteTo(&sink, Max);
             return sink.Bad ? -1 : static_cast<int32_t>(sink.Received - before);
           },
           [&](chtest::TRandom& Rnd) {
             if (p->ReadFrom(&source, Rnd.Piece()) == 0) SwitchToThread();
           });
}
