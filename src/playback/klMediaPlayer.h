// The media player unit. For now it holds the tempo corrector that the player runs over
// every block it plays.
#pragma once

#include <windows.h>
#include <mmsystem.h>
#include <mmreg.h>

#include <cstdint>
#include <memory>

#include "formats/UWAV.h"

namespace kl::klMediaPlayer {

// Highest tempo the corrector handles.
constexpr float MAX_TEMP = 5.0f;

// --- tempo corrector ------------------------------------------------------------------

// Raises the tempo of 16-bit PCM without changing its pitch, in place: every tenth of a
// second of input loses a piece from its middle, cut where the samples on both sides of
// the cut are closest. Only tempos above 1 and up to MAX_TEMP change anything.
// Everything it ever produced also goes to "c:\debug.wav" (16 bits, 44100 Hz, mono,
// whatever the real format), written when the corrector is destroyed.
// Not thread-safe: the owner serialises Correct and Init.
class TTempCorrector {
 public:
  TTempCorrector();
  ~TTempCorrector();
  TTempCorrector(const TTempCorrector&) = delete;
  TTempCorrector& operator=(const TTempCorrector&) = delete;

  // A negative Tempo is ignored. Otherwise the counting restarts, and a Tempo other
  // than 0 becomes the new tempo (Init(0) restarts and keeps it).
  void Init(float Tempo);
  // Shortens the Size bytes at Buffer in place; returns the new size in bytes. Works on
  // whole tenth-of-a-second blocks of 16-bit values (channels are not kept together);
  // values after the last whole block are dropped. Returns Size untouched when the
  // tempo is out of range, or while the format has no sample rate.
  int32_t Correct(void* Buffer, int32_t Size);

  // The format of the data given to Correct; only the sample rate is used. The owner
  // copies its source's format here before correcting.
  WAVEFORMAT& Format() { return FFormat; }
  const WAVEFORMAT& Format() const { return FFormat; }
  // Copies the first 14 bytes of Value (a null Value clears the format).
  void SetFormat(const WAVEFORMATEX* Value);

  float GetTempo() const { return FTempo; }
  // Values (not bytes) consumed and produced since the last Init.
  int64_t GetInCount() const { return FInCount; }
  int64_t GetOutCount() const { return FOutCount; }

 private:
  // 64-bit so that the running totals never wrap, however long a source plays.
  int64_t FInCount = 0;
  int64_t FOutCount = 0;
  WAVEFORMAT FFormat{};
  float FTempo = 1.0f;
  std::unique_ptr<UWAV::TWAVFile> FDebugFile;
};

}  // namespace kl::klMediaPlayer
