// Sequential read of a 256 MB file through TMemoryBuffer (64 KiB reads) against a
// plain ReadFile loop of the same reads, both from a warm file cache, and the number
// of allocations made while the buffer reads.
#include "BenchClock.h"
#include <windows.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "AllocCounter.h"
#include "channels/UMemoryBuffer.h"
#include "rtl/Classes.h"
#include "rtl/SysUtils.h"

namespace {

constexpr int64_t kFileSize = 256LL << 20;
constexpr int32_t kPiece = 64 << 10;
constexpr int kRuns = 3;

bool MakeFile(const std::string& Name) {
  HANDLE h = CreateFileA(Name.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (h == INVALID_HANDLE_VALUE) return false;
  std::vector<uint8_t> chunk(1 << 20);
  bool ok = true;
  for (int64_t done = 0; ok && done < kFileSize; done += static_cast<int64_t>(chunk.size())) {
    for (size_t i = 0; i < chunk.size(); i += 4096) chunk[i] = static_cast<uint8_t>(done >> 12);
    DWORD n = 0;
    ok = WriteFile(h, chunk.data(), static_cast<DWORD>(chunk.size()), &n, nullptr) && n == chunk.size();
  }
  CloseHandle(h);
  return ok;
}

// Bytes read by a ReadFile loop.
int64_t PlainRead(const std::string& Name, std::vector<uint8_t>& Buf) {
  HANDLE h = CreateFileA(Name.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL,
                         nullptr);
  if (h == INVALID_HANDLE_VALUE) return 0;
  int64_t total = 0;
  DWORD n = 0;
  while (ReadFile(h, Buf.data(), kPiece, &n, nullptr) && n > 0) total += n;
  CloseHandle(h);
  return total;
}

}  // namespace

int main() {
  const std::string name = kl::GetTempDir() + "klBench_MemoryBuffer_" + std::to_string(GetCurrentProcessId()) + ".bin";
  if (!MakeFile(name)) {
    std::printf("cannot write %s\n", name.c_str());
    return 1;
  }
  std::vector<uint8_t> buf(kPiece);
  PlainRead(name, buf);  // warms the file cache

  double plainRate = 0;
  for (int r = 0; r < kRuns; ++r) {
    const double t0 = Seconds();
    const int64_t n = PlainRead(name, buf);
    const double dt = Seconds() - t0;
    if (n != kFileSize) {
      std::printf("ReadFile loop read %lld bytes\n", static_cast<long long>(n));
      return 1;
    }
    plainRate = std::max(plainRate, static_cast<double>(n) / dt / 1e6);
  }
  std::printf("TMemoryBuffer sequential read of 256 MB in 64 KiB reads vs a ReadFile loop (best of %d)\n", kRuns);
  std::printf("%14s %12s %8s %24s\n", "block size", "MB/s", "ratio", "allocations (reading)");
  std::printf("%14s %12.0f %8.2f %24s\n", "ReadFile loop", plainRate, 1.0, "-");

  int result = 0;
  for (int32_t blockSize : {64 << 10, 1 << 20, 4 << 20}) {
    double rate = 0;
    uint64_t allocations = 0;
    for (int r = 0; r < kRuns; ++r) {
      kl::TFileStream stream(name, kl::fmOpenRead | kl::fmShareDenyWrite);
      kl::UMemoryBuffer::TMemoryBuffer buffer(&stream, 0, kFileSize, blockSize);
      const uint64_t allocBefore = klbench::AllocationCount();
      const double t0 = Seconds();
      int64_t total = 0;
      for (;;) {
        const int32_t n = buffer.Read(buf.data(), kPiece);
        total += n;
        if (n < kPiece) break;
      }
      const double dt = Seconds() - t0;
      allocations = std::max(allocations, klbench::AllocationCount() - allocBefore);
      if (total != kFileSize) {
        std::printf("TMemoryBuffer read %lld bytes\n", static_cast<long long>(total));
        result = 1;
      }
      rate = std::max(rate, static_cast<double>(total) / dt / 1e6);
    }
    std::printf("%10d KiB %12.0f %8.2f %24llu\n", blockSize >> 10, rate, rate / plainRate,
                static_cast<unsigned long long>(allocations));
  }
  DeleteFileA(name.c_str());
  return result;
}
