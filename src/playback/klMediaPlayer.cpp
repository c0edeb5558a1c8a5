#include "playback/klMediaPlayer.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "diagnostics/klLog.h"
#include "rtl/SysUtils.h"

namespace kl::klMediaPlayer {

// --- tempo corrector ------------------------------------------------------------------

namespace {
const char* const DEBUG_FILE_NAME = "c:\\debug.wav";
}  // namespace

TTempCorrector::TTempCorrector() {
  Init(1.0f);
  FDebugFile = std::make_unique<UWAV::TWAVFile>(DEBUG_FILE_NAME, 16, 44100, 1);
}

TTempCorrector::~TTempCorrector() {
  try {
    FDebugFile->Save();
  } catch (const Exception& E) {
    klLog::AddToEventLog("TTempCorrector.Destroy: " + E.Message(), klLog::lkError);
  } catch (...) {
  }
}

void TTempCorrector::SetFormat(const WAVEFORMATEX* Value) {
  FFormat = WAVEFORMAT{};
  if (Value != nullptr) std::memcpy(&FFormat, Value, sizeof FFormat);
}

void TTempCorrector::Init(float Tempo) {
  if (Tempo < 0) return;
  if (Tempo != 0) FTempo = Tempo;
  FInCount = 0;
  FOutCount = 0;
}

int32_t TTempCorrector::Correct(void* Buffer, int32_t Size) {
  // Written so that a NaN tempo is out of range too.
  if (Buffer == nullptr || Size < 1 || !(FTempo > 1.0f && FTempo <= MAX_TEMP)) return Size;
  const uint32_t n = FFormat.nSamplesPerSec / 10;  // values per block
  if (n == 0) return Size;
  const int64_t blockSize = n;
  const int64_t blocks = (Size / 2) / blockSize;
  int16_t* const values = static_cast<int16_t*>(Buffer);
  int64_t out = 0;

  for (int64_t b = 0; b < blocks; ++b) {
    int16_t* const block = values + blockSize * b;
    FInCount += blockSize;
    // From the running totals, so that one block's rounding is made up by the next.
    int64_t keep = Round(static_cast<double>(FInCount) / FTempo - static_cast<double>(FOutCount));
    // The totals keep this within the block; the clamp only guards the memory.
    keep = std::clamp<int64_t>(keep, 0, blockSize);
    FOutCount += keep;

    const int64_t half = keep / 2;
    const int64_t rest = keep - half;
    const int64_t span = half / 5;

    // Splice search: the first (most negative) offset wins ties. With nothing kept the
    // search has nothing to choose and would read past the block.
    int64_t best = 0;
    if (keep > 0) {
      int32_t bestDiff = 2147483647;
      for (int64_t d = -span; d <= span; ++d) {
        const int32_t a = block[half + d];
        const int32_t c = block[blockSize - rest + d];
        const int32_t diff = std::abs(c - a);
        if (diff < bestDiff) {
          bestDiff = diff;
          best = d;
        }
      }
    }
    const int64_t cut = half + best;
    const int64_t tail = keep - cut;

    // Output never overtakes input, so both copies may overlap only forwards. The values
    // are 16-bit already, so they need no clamping on the way.
    std::memmove(values + out, block, static_cast<size_t>(cut) * sizeof(int16_t));
    out += cut;
    std::memmove(values + out, block + blockSize - tail, static_cast<size_t>(tail) * sizeof(int16_t));
    out += tail;
  }

  const int32_t result = static_cast<int32_t>(out * 2);
  FDebugFile->AddData(Buffer, result);
  return result;
}

}  // namespace kl::klMediaPlayer
