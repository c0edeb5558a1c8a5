// Channel test helpers: a position-dependent byte pattern whose period (a prime) never
// lines up with block sizes, so a lost, doubled or misplaced byte shows at once; the
// process's handle count.
#pragma once

#include <windows.h>

#include <cstdint>
#include <string>

#include "KlTest.h"
#include "diagnostics/klLog.h"

namespace chtest {

inline uint8_t PatternAt(uint64_t I) { return static_cast<uint8_t>((I % 65521) * 2654435761u >> 13); }
inline std::string Pattern(uint64_t Offset, size_t Size) {
  std::string s(Size, '\0');
  for (size_t i = 0; i < Size; ++i) s[i] = static_cast<char>(PatternAt(Offset + i));
  return s;
}
inline bool Matches(const void* Data, uint64_t Offset, size_t Size) {
  const auto* p = static_cast<const uint8_t*>(Data);
  for (size_t i = 0; i < Size; ++i) {
    if (p[i] != PatternAt(Offset + i)) return false;
  }
  return true;
}

using kltest::LogOf;
using kltest::WaitUntil;

// Deterministic sizes: 1 byte to 256 KiB, small ones as likely as large ones.
struct TRandom {
  uint64_t State;
  uint32_t Next() { return static_cast<uint32_t>((State = State * 6364136223846793005ull + 1442695040888963407ull) >> 33); }
  int32_t Range(int32_t Lo, int32_t Hi) { return Lo + static_cast<int32_t>(Next() % static_cast<uint32_t>(Hi - Lo + 1)); }
  int32_t Piece() { return Range(1, 1 << Range(0, 18)); }
};

// The process's open handles, after opening the log file (which stays open). Wine
// reports 0 from GetProcessHandleCount, so the handle table is probed instead (handle
// values are multiples of 4).
inline DWORD HandleCount() {
  kl::klLog::AddToEventLog("handle count", kl::klLog::lkInformation);
  DWORD n = 0;
  if (GetProcessHandleCount(GetCurrentProcess(), &n) && n > 0) return n;
  for (uintptr_t h = 4; h < 0x10000; h += 4) {
    DWORD flags = 0;
    if (GetHandleInformation(reinterpret_cast<HANDLE>(h), &flags)) ++n;
  }
  return n;
}

// Milliseconds since construction.
struct TStopwatch {
  ULONGLONG Start = GetTickCount64();
  ULONGLONG Ms() const { return GetTickCount64() - Start; }
};

}  // namespace chtest
