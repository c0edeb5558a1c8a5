// Test tones and a measure of the frequency that dominates a signal.
#pragma once

#include <cmath>
#include <cstdint>
#include <type_traits>
#include <vector>

namespace kltest::tempo {

constexpr double PI = 3.14159265358979323846;

// Frames of a sine tone, Channels values per frame (all channels alike); integer
// samples are rounded.
template <class T>
std::vector<T> Tone(double Freq, int Rate, int Frames, int Channels, double Amplitude) {
  std::vector<T> v(static_cast<size_t>(Frames) * Channels);
  for (size_t i = 0; i < v.size(); ++i) {
    const double s = Amplitude * std::sin(2 * PI * Freq * static_cast<double>(i / Channels) / Rate);
    v[i] = static_cast<T>(std::is_integral_v<T> ? std::round(s) : s);
  }
  return v;
}
inline std::vector<float> ToneFloat(double Freq, int Rate, int Frames, int Channels) {
  return Tone<float>(Freq, Rate, Frames, Channels, 0.5);
}
inline std::vector<int16_t> Tone16(double Freq, int Rate, int Frames, int Channels) {
  return Tone<int16_t>(Freq, Rate, Frames, Channels, 16000);
}

// Power of one frequency in the signal (Goertzel).
inline double PowerAt(const std::vector<double>& X, int Rate, double Freq) {
  const double k = 2 * std::cos(2 * PI * Freq / Rate);
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
