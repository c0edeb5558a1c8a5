// An MS-ADPCM file whose block align (9) disagrees with its samples per block: the codec
// would promise hundreds of megabytes per read. Converted in a child process, so that
// its peak memory is its own.
#include <gtest/gtest.h>

#include <windows.h>

#include <psapi.h>

#include "KlTest.h"
#include "formats/UWAV.h"

// Args: the WAV file, the output. Exits with the peak commit in MB, + 1000 when SaveAs succeeded.
KL_CHILD_ROLE(wav_saveas_peak) {
  bool saved = false;
  try {
    kl::UWAV::TWAVFile in(Args[0]);
    saved = in.SaveAs(Args[1], 22050, 16, true);
  } catch (const std::exception&) {
  }
  PROCESS_MEMORY_COUNTERS m{};
  GetProcessMemoryInfo(GetCurrentProcess(), &m, sizeof m);
  return static_cast<int>(m.PeakPagefileUsage >> 20) + (saved ? 1000 : 0);
}

TEST(WavConvert, AdpcmWithABlockAlignOf9NeedsNoHugeBuffer) {
  kltest::TTempDir dir;
  const std::string good = dir / "ms.wav", bad = dir / "bad.wav";
  const std::string args = "-f lavfi -i sine=duration=1:sample_rate=22050 -ac 1 -acodec adpcm_ms ";
  ASSERT_EQ(kltest::Ffmpeg(args + kltest::Quote(good)).ExitCode, 0u);
  std::string bytes = kltest::ReadFileBytes(good);
  const size_t fmt = bytes.find("fmt ");
  ASSERT_NE(fmt, std::string::npos);
  ASSERT_EQ(bytes[fmt + 8], 2);  // WAVE_FORMAT_ADPCM
  bytes[fmt + 8 + 12] = 9;       // nBlockAlign
  bytes[fmt + 8 + 13] = 0;
  kltest::WriteFileBytes(bad, bytes);
  const DWORD goodRun = kltest::RunChild("wav_saveas_peak", {good, dir / "good.out.wav"}).ExitCode;
  const DWORD badRun = kltest::RunChild("wav_saveas_peak", {bad, dir / "bad.out.wav"}).ExitCode;
  EXPECT_GE(goodRun, 1000u);  // the undamaged file converts
  // Refused or converted, but with no huge buffer (peak in MB).
  EXPECT_LT(badRun % 1000, goodRun % 1000 + 64) << badRun << " against " << goodRun;
}
