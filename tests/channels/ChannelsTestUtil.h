// Helpers for the channel tests: a position-dependent byte pattern whose period (a
// prime) never lines up with block sizes, so a block out of order or a byte lost shows
// up at once; and reading the log written since a mark.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "diagnostics/klLog.h"

namespace chtest {

constexpr uint32_t kPatternPeriod = 65521;

inline const std::vector<uint8_t>& PatternTable() {
  static const std::vector<uint8_t> table = [] {
    // Twice the period, so that any span of up to one period is contiguous.
    std::vector<uint8_t> t(2 * kPatternPeriod);
    uint32_t x = 0x12345678u;
    for (uint32_t i = 0; i < kPatternPeriod; ++i) {
      x = x * 1664525u + 1013904223u;
      t[i] = static_cast<uint8_t>(x >> 24);
    }
    std::memcpy(t.data() + kPatternPeriod, t.data(), kPatternPeriod);
    return t;
  }();
  return table;
}

// Fills Size bytes with the pattern as it runs from absolute offset Offset.
inline void FillPattern(void* Buffer, uint64_t Offset, size_t Size) {
  const auto& t = PatternTable();
  auto* p = static_cast<uint8_t*>(Buffer);
  while (Size > 0) {
    const size_t at = static_cast<size_t>(Offset % kPatternPeriod);
    const size_t n = Size < kPatternPeriod ? Size : kPatternPeriod;
    std::memcpy(p, t.data() + at, n);
    p += n;
    Offset += n;
    Size -= n;
  }
}

// True when Size bytes equal the pattern from absolute offset Offset.
inline bool MatchesPattern(const void* Buffer, uint64_t Offset, size_t Size) {
  const auto& t = PatternTable();
  const auto* p = static_cast<const uint8_t*>(Buffer);
  while (Size > 0) {
    const size_t at = static_cast<size_t>(Offset % kPatternPeriod);
    const size_t n = Size < kPatternPeriod ? Size : kPatternPeriod;
    if (std::memcmp(p, t.data() + at, n) != 0) return false;
    p += n;
    Offset += n;
    Size -= n;
  }
  return true;
}

inline std::string PatternString(uint64_t Offset, size_t Size) {
  std::string s(Size, '\0');
  FillPattern(s.data(), Offset, Size);
  return s;
}

// What the log gained since a mark taken with LogMark().
inline size_t LogMark() { return kl::klLog::GetWholeLog().size(); }
inline std::string LogSince(size_t Mark) {
  const std::string all = kl::klLog::GetWholeLog();
  return Mark < all.size() ? all.substr(Mark) : std::string();
}

// A small deterministic generator (the tests must repeat exactly).
class TRandom {
 public:
  explicit TRandom(uint64_t Seed) : FState(Seed * 2862933555777941757ull + 3037000493ull) {}
  uint32_t Next() {
    FState = FState * 6364136223846793005ull + 1442695040888963407ull;
    return static_cast<uint32_t>(FState >> 33);
  }
  // Uniform in [Lo, Hi].
  int32_t Range(int32_t Lo, int32_t Hi) {
    return Lo + static_cast<int32_t>(Next() % static_cast<uint32_t>(Hi - Lo + 1));
  }

 private:
  uint64_t FState;
};

}  // namespace chtest
