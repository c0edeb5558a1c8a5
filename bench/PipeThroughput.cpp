// Steady-state Write+Read throughput of a TPipe (block size 0x20000, as the library's
// sound queues use) in 4 KiB, 64 KiB and 1 MiB pieces, against memcpy of the same
// pieces, and the number of allocations made while the pipe runs warm.
#include "BenchClock.h"
#include <windows.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

#include "AllocCounter.h"
#include "channels/UPipe.h"

namespace {

// The machine may be shared: the two loops take turns, run after run, so that a busy
// moment hits both, and the fastest run of each counts.
constexpr int64_t kBytesPerRun = 256LL << 20;
constexpr int kRuns = 12;

// MB/s of one run of Body over kBytesPerRun bytes.
template <class F>
double Rate(F&& Body) {
  const double t0 = Seconds();
  Body();
  return static_cast<double>(kBytesPerRun) / (Seconds() - t0) / 1e6;
}

}  // namespace

int main() {
  using kl::ComPtr;
  using kl::UPipe::IPipe;
  using kl::UPipe::TPipe;

  std::printf("TPipe Write+Read vs memcpy, %lld MB per run, best of %d\n", kBytesPerRun >> 20, kRuns);
  std::printf("%10s %14s %14s %8s %22s\n", "piece", "memcpy MB/s", "pipe MB/s", "ratio", "allocations (steady)");
  volatile uint8_t sink = 0;
  for (int32_t piece : {4 << 10, 64 << 10, 1 << 20}) {
    std::vector<uint8_t> src(static_cast<size_t>(piece));
    std::vector<uint8_t> dst(static_cast<size_t>(piece));
    for (size_t i = 0; i < src.size(); ++i) src[i] = static_cast<uint8_t>(i * 131 + 7);
    const int64_t steps = kBytesPerRun / piece;
    uint64_t pipeAllocations = 0;

    auto copyLoop = [&] {
      for (int64_t i = 0; i < steps; ++i) {
        std::memcpy(dst.data(), src.data(), static_cast<size_t>(piece));
        sink = sink + dst[static_cast<size_t>(i) % dst.size()];
      }
    };

    ComPtr<IPipe> pipe(new TPipe(0x20000));
    bool ok = true;
    auto pipeLoop = [&] {
      for (int64_t i = 0; i < steps; ++i) {
        pipe->Write(src.data(), piece);
        if (pipe->Read(dst.data(), piece) != piece) ok = false;
        sink = sink + dst[static_cast<size_t>(i) % dst.size()];
      }
    };
    // Warm up: the pipe grows to its steady size while the write position makes its
    // first pass over the blocks (the list and its spare block get allocated here).
    const int warmUp = std::max(4, 3 * 0x20000 / piece + 2);
    for (int i = 0; i < warmUp; ++i) {
      pipe->Write(src.data(), piece);
      pipe->Read(dst.data(), piece);
    }
    double copyRate = 0;
    double pipeRate = 0;
    for (int r = 0; r < kRuns; ++r) {
      copyRate = std::max(copyRate, Rate(copyLoop));
      const uint64_t beforePipe = klbench::AllocationCount();
      pipeRate = std::max(pipeRate, Rate(pipeLoop));
      pipeAllocations += klbench::AllocationCount() - beforePipe;
    }
    if (!ok || std::memcmp(src.data(), dst.data(), src.size()) != 0) {
      std::printf("pipe returned wrong data\n");
      return 1;
    }
    std::printf("%7d KiB %14.0f %14.0f %8.2f %22llu\n", piece >> 10, copyRate, pipeRate, pipeRate / copyRate,
                static_cast<unsigned long long>(pipeAllocations));
  }
  (void)sink;
  return 0;
}
