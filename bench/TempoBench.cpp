// One minute of 44.1 kHz stereo at tempo 1.5 through the player's own tempo corrector
// and through SoundTouch, in the same run. Prints each as a multiple of real time and
// how many times faster the corrector is.
#include <windows.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <vector>

#include "Components.h"

namespace {

constexpr int RATE = 44100;
constexpr int CHANNELS = 2;
constexpr int SECONDS = 60;
constexpr int FRAMES = RATE * SECONDS;
constexpr int BLOCK_FRAMES = RATE / 10;  // the player's tenth-of-a-second blocks
constexpr float TEMPO = 1.5f;
constexpr int ROUNDS = 3;                // best of, to keep other load out

double Now() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// A tone with a slow vibrato, so that the splice search has something to choose from.
double Signal(int I) {
  const double t = static_cast<double>(I) / RATE;
  return 0.4 * std::sin(2 * 3.14159265358979 * (440 * t + 3 * std::sin(2 * 3.14159265358979 * 0.5 * t)));
}

double RunCorrector(const std::vector<int16_t>& Source, int64_t& OutValues) {
  kl::klMediaPlayer::TTempCorrector corrector;
  WAVEFORMATEX f{};
  f.wFormatTag = WAVE_FORMAT_PCM;
  f.nChannels = CHANNELS;
  f.nSamplesPerSec = RATE;
  f.wBitsPerSample = 16;
  f.nBlockAlign = 2 * CHANNELS;
  f.nAvgBytesPerSec = RATE * f.nBlockAlign;
  corrector.SetFormat(&f);
  corrector.Init(TEMPO);
  std::vector<int16_t> block(static_cast<size_t>(BLOCK_FRAMES) * CHANNELS);
  OutValues = 0;
  const double start = Now();
  for (size_t at = 0; at + block.size() <= Source.size(); at += block.size()) {
    std::memcpy(block.data(), Source.data() + at, block.size() * sizeof(int16_t));
    OutValues += corrector.Correct(block.data(), static_cast<int32_t>(block.size() * sizeof(int16_t))) / 2;
  }
  return Now() - start;
}

double RunSoundTouch(const std::vector<float>& Source, int64_t& OutFrames) {
  kl::USoundTouchDLL::TSoundTouch st;
  st.SetChannels(CHANNELS);
  st.SetSampleRate(RATE);
  st.SetTempo(TEMPO);
  std::vector<float> out(static_cast<size_t>(BLOCK_FRAMES) * CHANNELS);
  OutFrames = 0;
  const double start = Now();
  for (size_t at = 0; at < Source.size(); at += static_cast<size_t>(BLOCK_FRAMES) * CHANNELS) {
    st.PutSamples(Source.data() + at, BLOCK_FRAMES);
    int32_t got;
    while ((got = st.ReceiveSamples(out.data(), BLOCK_FRAMES)) > 0) OutFrames += got;
  }
  st.Flush();
  int32_t got;
  while ((got = st.ReceiveSamples(out.data(), BLOCK_FRAMES)) > 0) OutFrames += got;
  return Now() - start;
}

}  // namespace

int main() {
  if (kl::USoundTouchDLL::SoundTouchCreateInstance == nullptr) {
    std::printf("SoundTouch.DLL not found beside the program\n");
    return 1;
  }
  std::vector<int16_t> pcm(static_cast<size_t>(FRAMES) * CHANNELS);
  std::vector<float> floats(pcm.size());
  for (int i = 0; i < FRAMES; ++i) {
    const double s = Signal(i);
    for (int c = 0; c < CHANNELS; ++c) {
      pcm[static_cast<size_t>(i) * CHANNELS + c] = static_cast<int16_t>(std::lround(s * 32767));
      floats[static_cast<size_t>(i) * CHANNELS + c] = static_cast<float>(s);
    }
  }

  double corrector = 1e30, soundTouch = 1e30;
  int64_t correctorOut = 0, soundTouchOut = 0;
  for (int r = 0; r < ROUNDS; ++r) {
    corrector = std::min(corrector, RunCorrector(pcm, correctorOut));
    soundTouch = std::min(soundTouch, RunSoundTouch(floats, soundTouchOut));
  }
  // The corrector always leaves its debug file behind; it is of no use here.
  kl::RemoveFile("c:\\debug.wav");

  std::printf("%d s of %d Hz stereo at tempo %.1f (best of %d)\n", SECONDS, RATE, TEMPO, ROUNDS);
  std::printf("TTempCorrector: %10.1f x real time (%.3f s, %.2f s of sound out)\n", SECONDS / corrector, corrector,
              static_cast<double>(correctorOut) / CHANNELS / RATE);
  std::printf("SoundTouch:     %10.1f x real time (%.3f s, %.2f s of sound out)\n", SECONDS / soundTouch, soundTouch,
              static_cast<double>(soundTouchOut) / RATE);
  std::printf("TTempCorrector / SoundTouch speed: %.2f\n", soundTouch / corrector);
  return 0;
}
