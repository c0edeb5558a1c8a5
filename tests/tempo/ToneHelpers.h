// Test tones and a measure of the frequency that dominates a signal.
#pragma once

#include <cmath>
#include <cstdint>
#include <vector>

namespace kltest::tempo {

constexpr double PI = 3.14159265358979323846;

// Frames of a sine tone, Channels values per frame (all channels alike).
inline std::vector<float> ToneFloat(double Freq, int Rate, int Frames, int Channels, double Amplitude = 0.5) {
  std::vector<float> v(static_cast<size_t>(Frames) * Channels);
  for (int i = 0; i < Frames; ++i) {
    const float s = static_cast<float>(Amplitude * std::sin(2 * PI * Freq * i / Rate));
    for (int c = 0; c < Channels; ++c) v[static_cast<size_t>(i) * Channels + c] = s;
  }
  return v;
}

inline std::vector<int16_t> Tone16(double Freq, int Rate, int Frames, int Channels, double Amplitude = 16000) {
  std::vector<int16_t> v(static_cast<size_t>(Frames) * Channels);
  for (int i = 0; i < Frames; ++i) {
    const auto s = static_cast<int16_t>(std::lround(Amplitude * std::sin(2 * PI * Freq * i / Rate)));
    for (int c = 0; c < Channels; ++c) v[static_cast<size_t>(i) * Channels + c] = s;
  }
  return v;
}

// Power of one frequency in the signal (Goertzel).
inline double PowerAt(const std::vector<double>& X, int Rate, double Freq) {
  const double w = 2 * PI * Freq / Rate;
  const double k = 2 * std::cos(w);
  double s1 = 0, s2 = 0;
  for (double x : X) {
    const double s0 = x + k * s1 - s2;
    s2 = s1;
    s1 = s0;
  }
  return s1 * s1 + s2 * s2 - k * s1 * s2;
}

// The frequency in [Low, High] with the most power, searched in 1 Hz steps.
inline double DominantFrequency(const std::vector<double>& X, int Rate, double Low, double High) {
  double best = Low, bestPower = -1;
  for (double f = Low; f <= High; f += 1.0) {
    const double p = PowerAt(X, Rate, f);
    if (p > bestPower) {
      bestPower = p;
      best = f;
    }
  }
  return best;
}

// One channel of interleaved samples, as doubles.
template <class T>
std::vector<double> Channel(const std::vector<T>& Interleaved, int Channels, int Index, size_t MaxFrames = SIZE_MAX) {
  std::vector<double> r;
  for (size_t i = Index; i < Interleaved.size() && r.size() < MaxFrames; i += Channels) r.push_back(Interleaved[i]);
  return r;
}

}  // namespace kltest::tempo
