// Prints the length of a WAV file in milliseconds: "<name>: <ms> ms".
#include "Components.h"

#include <cstdio>

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: wavlength FILE.wav\n");
    return 2;
  }
  try {
    kl::UWAV::TWAVFile wav(argv[1]);
    const WAVEFORMATEX* format = wav.Format();
    if (format == nullptr || format->nAvgBytesPerSec == 0) {
      std::fprintf(stderr, "%s: not a WAV file\n", argv[1]);
      return 1;
    }
    long long ms = static_cast<long long>(wav.GetDataSize()) * 1000 / format->nAvgBytesPerSec;
    std::printf("%s: %lld ms\n", argv[1], ms);
    return 0;
  } catch (const kl::Exception& e) {
    std::fprintf(stderr, "%s\n", e.what());
    return 1;
  }
}
