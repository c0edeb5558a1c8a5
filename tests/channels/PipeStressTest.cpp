// 200 MB of patterned data from a producer thread to a consumer thread in random-sized
// pieces: through one pipe, through a pipe-to-pipe hand-over, and through the stream
// transfers. Every byte is checked; a stalled run fails instead of hanging.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "ChannelsTestUtil.h"
#include "channels/UPipe.h"
#include "rtl/Classes.h"

using kl::ComPtr;
using kl::UPipe::IPipe;
using kl::UPipe::TPipe;
using kl::UPipe::TPipeStream;

namespace {

constexpr int64_t kTotal = 200LL * 1024 * 1024;
// The producer waits while this much is queued, to keep memory use bounded.
constexpr int32_t kBacklog = 16 * 1024 * 1024;
constexpr ULONGLONG kDeadlineMs = 240000;

// A piece size between 1 byte and 256 KiB, small sizes as likely as large ones.
int32_t PieceSize(chtest::TRandom& Rnd) { return Rnd.Range(1, 1 << Rnd.Range(0, 18)); }

struct TRun {
  std::atomic<bool> Stop{false};
  std::atomic<bool> Failed{false};
  std::string Failure;
  ULONGLONG Start = GetTickCount64();

  bool Expired() {
    if (GetTickCount64() - Start > kDeadlineMs) Fail("deadline passed: the transfer stalled");
    return Stop.load();
  }
  void Fail(const std::string& Why) {
    if (!Failed.exchange(true)) Failure = Why;
    Stop = true;
  }
};

// Produce calls Put(piece, size) until kTotal bytes went out; Consume calls
// Take(buffer, max) -> bytes and checks them. Extra threads (movers) run Step until
// the consumer is done.
void RunTransfer(const std::function<int64_t()>& Backlog, const std::function<void(const void*, int32_t)>& Put,
                 const std::function<int32_t(void*, int32_t, int64_t)>& Take,
                 const std::vector<std::function<void(chtest::TRandom&)>>& Movers) {
  TRun run;
  int64_t consumed = 0;
  std::thread producer([&] {
    chtest::TRandom rnd(1);
    std::vector<uint8_t> buf(1 << 18);
    int64_t sent = 0;
    while (sent < kTotal && !run.Expired()) {
      if (Backlog() > kBacklog) {
        SwitchToThread();
        continue;
      }
      const int32_t n = static_cast<int32_t>(std::min<int64_t>(PieceSize(rnd), kTotal - sent));
      chtest::FillPattern(buf.data(), static_cast<uint64_t>(sent), static_cast<size_t>(n));
      Put(buf.data(), n);
      sent += n;
    }
  });
  std::atomic<bool> consumerDone{false};
  std::vector<std::thread> movers;
  for (size_t i = 0; i < Movers.size(); ++i) {
    movers.emplace_back([&, i] {
      chtest::TRandom rnd(100 + i);
      while (!consumerDone.load() && !run.Expired()) Movers[i](rnd);
    });
  }
  std::thread consumer([&] {
    chtest::TRandom rnd(2);
    std::vector<uint8_t> buf(1 << 18);
    while (consumed < kTotal && !run.Expired()) {
      const int32_t got = Take(buf.data(), PieceSize(rnd), consumed);
      if (got < 0) {
        run.Fail("mismatch at byte " + std::to_string(consumed));
        break;
      }
      if (got == 0) {
        SwitchToThread();
        continue;
      }
      consumed += got;
    }
    consumerDone = true;
  });
  producer.join();
  consumer.join();
  for (auto& t : movers) t.join();
  EXPECT_FALSE(run.Failed.load()) << run.Failure;
  EXPECT_EQ(consumed, kTotal);
}

// Reads up to Max bytes from the pipe and checks them against the pattern at Offset;
// -1 on a mismatch.
int32_t TakeChecked(IPipe* Pipe, void* Buffer, int32_t Max, int64_t Offset) {
  const int32_t got = Pipe->Read(Buffer, Max);
  if (got > 0 && !chtest::MatchesPattern(Buffer, static_cast<uint64_t>(Offset), static_cast<size_t>(got))) return -1;
  return got;
}

// A stream that checks everything written to it against the pattern.
class TCheckingStream : public kl::TStream {
 public:
  int32_t Read(void*, int32_t) override { return 0; }
  int32_t Write(const void* Buffer, int32_t Count) override {
    if (Count <= 0) return 0;
    if (!chtest::MatchesPattern(Buffer, static_cast<uint64_t>(Received), static_cast<size_t>(Count))) Bad = true;
    Received += Count;
    return Count;
  }
  int64_t Seek(int64_t, kl::TSeekOrigin) override { return Received; }
  int64_t Received = 0;
  bool Bad = false;
};

}  // namespace

TEST(PipeStress, OnePipe) {
  ComPtr<IPipe> pipe(new TPipe(0x20000));
  RunTransfer([&] { return pipe->GetSizeToRead(); },
              [&](const void* Data, int32_t Size) { pipe->Write(Data, Size); },
              [&](void* Buffer, int32_t Max, int64_t Offset) { return TakeChecked(pipe.Get(), Buffer, Max, Offset); },
              {});
  EXPECT_EQ(pipe->GetSizeToRead(), 0);
}

TEST(PipeStress, PipeToPipe) {
  // Small blocks on the far side: many recycled blocks per second.
  ComPtr<IPipe> a(new TPipe(0x20000));
  ComPtr<IPipe> b(new TPipe(4096));
  // One mover pulls into b, the other pushes from a. Each holds a's lock, so that the
  // size it asks for is still there when it moves it and the pieces keep their order;
  // both take the locks in the same order (a, then b).
  auto pull = [&](chtest::TRandom& Rnd) {
    a->Lock();
    const int32_t n = b->GetSizeToRead() < kBacklog ? std::min(a->GetSizeToRead(), PieceSize(Rnd)) : 0;
    if (n > 0) b->ReadFrom(a.Get(), n);
    a->Unlock();
    if (n <= 0) SwitchToThread();
  };
  auto push = [&](chtest::TRandom& Rnd) {
    a->Lock();
    const int32_t n = b->GetSizeToRead() < kBacklog ? std::min(a->GetSizeToRead(), PieceSize(Rnd)) : 0;
    if (n > 0) a->WriteTo(b.Get(), n);
    a->Unlock();
    if (n <= 0) SwitchToThread();
  };
  RunTransfer([&] { return static_cast<int64_t>(a->GetSizeToRead()); },
              [&](const void* Data, int32_t Size) { a->Write(Data, Size); },
              [&](void* Buffer, int32_t Max, int64_t Offset) { return TakeChecked(b.Get(), Buffer, Max, Offset); },
              {pull, push});
  EXPECT_EQ(a->GetSizeToRead(), 0);
  EXPECT_EQ(b->GetSizeToRead(), 0);
}

TEST(PipeStress, ThroughStreams) {
  // producer -> TPipeStream -> (pipe reads from the stream) -> pipe -> (pipe writes to
  // a stream) -> checking stream.
  TPipeStream source;
  ComPtr<IPipe> pipe(new TPipe(0x20000));
  TCheckingStream sink;
  RunTransfer([&] { return source.GetSize(); }, [&](const void* Data, int32_t Size) { source.Write(Data, Size); },
              [&](void*, int32_t Max, int64_t) {
                const int64_t before = sink.Received;
                pipe->WriteTo(&sink, Max);
                return sink.Bad ? -1 : static_cast<int32_t>(sink.Received - before);
              },
              {[&](chtest::TRandom& Rnd) {
                if (source.GetSize() == 0 || pipe->ReadFrom(&source, PieceSize(Rnd)) == 0) SwitchToThread();
              }});
  EXPECT_EQ(sink.Received, kTotal);
  EXPECT_EQ(pipe->GetSizeToRead(), 0);
}
