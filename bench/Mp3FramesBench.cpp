// Walks every frame header of a 100 MB MP3 held in memory and reports MB/s next to a
// plain memchr scan of the same buffer, in the same run.
//   BenchMp3Frames [megabytes]
#include "BenchClock.h"
#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <limits>
#include <random>
#include <vector>

#include "formats/UMp3.h"
#include "formats/UklMP3.h"
#include "rtl/Classes.h"

namespace {

// MPEG-1 Layer III, 44100 Hz, joint stereo at 128 kbit/s, padded where the encoder
// would pad (the running remainder of 144 x 128000 / 44100), so the memory walk that
// sizes every frame by the first header stays on the frames. No zero byte anywhere:
// memchr for 0 reads the whole buffer.
std::vector<uint8_t> MakeMp3(size_t Bytes, size_t& Frames) {
  std::vector<uint8_t> data;
  data.reserve(Bytes + 512);
  std::mt19937 rng(1);
  int64_t remainder = 0;
  Frames = 0;
  while (data.size() + 418 <= Bytes) {
    remainder += 144 * 128000 % 44100;
    const bool pad = remainder >= 44100;
    if (pad) remainder -= 44100;
    const size_t size = pad ? 418 : 417;
    data.push_back(0xFF);
    data.push_back(0xFB);
    data.push_back(pad ? 0x92 : 0x90);
    data.push_back(0x64);
    for (size_t i = 4; i < size; ++i) data.push_back(static_cast<uint8_t>(1 + rng() % 255));
    ++Frames;
  }
  return data;
}

// Best of Runs, in MB/s over Bytes.
double Rate(size_t Bytes, int Runs, const std::function<void()>& Body) {
  double best = 1e30;
  for (int i = 0; i < Runs; ++i) {
    const double t0 = Seconds();
    Body();
    best = std::min(best, Seconds() - t0);
  }
  return static_cast<double>(Bytes) / (1024.0 * 1024.0) / best;
}

volatile size_t gSink;

}  // namespace

int main(int argc, char** argv) {
  const size_t mb = argc > 1 ? static_cast<size_t>(std::atoi(argv[1])) : 100;
  size_t frames = 0;
  const std::vector<uint8_t> data = MakeMp3(mb * 1024 * 1024, frames);
  const auto* p = data.data();
  const size_t size = data.size();
  const int32_t size32 = static_cast<int32_t>(size);
  constexpr int32_t kAll = std::numeric_limits<int32_t>::max();
  std::printf("%zu bytes, %zu frames\n", size, frames);

  const double baseline = Rate(size, 5, [&] { gSink = reinterpret_cast<size_t>(std::memchr(p, 0, size)); });

  bool ok = true;
  // Every header parsed: each frame sized by its own header, as a decoder feeding loop does.
  const double headers = Rate(size, 5, [&] {
    size_t pos = 0, n = 0;
    while (pos + 4 <= size) {
      const int32_t s = kl::UMp3::GetMP3FrameSize(p + pos);
      if (s <= 0) break;
      pos += static_cast<size_t>(s);
      ++n;
    }
    ok = ok && n == frames;
    gSink = n;
  });
  const double klHeaders = Rate(size, 5, [&] {
    size_t pos = 0, n = 0;
    while (pos + 4 <= size) {
      const int32_t s = kl::UklMP3::GetMP3FrameSize(p + pos);
      if (s <= 0) break;
      pos += static_cast<size_t>(s);
      ++n;
    }
    ok = ok && n == frames;
    gSink = n;
  });
  // The bounded memory walk, which also allocates and copies the run it found.
  const double memoryWalk = Rate(size, 3, [&] {
    void* f = nullptr;
    const int32_t n = kl::UMp3::GetMP3Frames(p, size32, kAll, kAll, f);
    ok = ok && n == size32;
    std::free(f);
  });
  const double memcpyRate = Rate(size, 3, [&] {
    void* f = std::malloc(size);
    std::memcpy(f, p, size);
    gSink = static_cast<const uint8_t*>(f)[size / 2];
    std::free(f);
  });
  // The stream form over a memory stream: a 4-byte read and a seek per frame, then one read.
  kl::TMemoryStream stream;
  stream.WriteBuffer(p, size32);
  const double streamWalk = Rate(size, 3, [&] {
    stream.SetPosition(0);
    void* f = nullptr;
    const int32_t n = kl::UMp3::GetMP3Frames(&stream, kAll, kAll, f);
    ok = ok && n == size32;
    std::free(f);
  });

  std::printf("memchr scan (baseline)            %9.0f MB/s\n", baseline);
  std::printf("UMp3 header walk                  %9.0f MB/s  %6.2f x memchr\n", headers, headers / baseline);
  std::printf("UklMP3 header walk                %9.0f MB/s  %6.2f x memchr\n", klHeaders, klHeaders / baseline);
  std::printf("malloc + memcpy (copy baseline)   %9.0f MB/s  %6.2f x memchr\n", memcpyRate, memcpyRate / baseline);
  std::printf("GetMP3Frames, memory (+copy)      %9.0f MB/s  %6.2f x memchr  %6.2f x memcpy\n", memoryWalk,
              memoryWalk / baseline, memoryWalk / memcpyRate);
  std::printf("GetMP3Frames, memory stream       %9.0f MB/s  %6.2f x memchr  %6.2f x memcpy\n", streamWalk,
              streamWalk / baseline, streamWalk / memcpyRate);
  if (!ok) {
    std::printf("MISMATCH: a walk did not cover every frame\n");
    return 1;
  }
  return 0;
}
