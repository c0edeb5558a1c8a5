// Test material for the players: recognisable PCM, WAV files of it, a source wrapper
// that reports its end, a reader of what the audio server played, and MP3 made by
// ffmpeg with a way to line a decoding up with ffmpeg's.
#pragma once

#include <gtest/gtest.h>

#include <windows.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "Components.h"
#include "KlTest.h"

// Skips a test that needs the audio server's recording when there is none.
#define REQUIRE_CAPTURE() \
  if (!kltest::TCapture::Available()) GTEST_SKIP() << "no audio capture"

namespace kltest::playback {

using kl::ComPtr;
using kl::klMediaPlayer::IFinishable;
using kl::klMediaPlayer::ISoundStream;

struct TFrame {
  int16_t L, R;
  bool operator==(const TFrame& O) const { return L == O.L && R == O.R; }
  bool Silent() const { return L == 0 && R == 0; }
};

// Stereo frames no window of which repeats: a hash on the left, a ramp that is never
// 0 on the right, so that every frame differs from silence.
inline std::vector<TFrame> Pattern(int32_t Frames) {
  std::vector<TFrame> v(static_cast<size_t>(Frames));
  for (int32_t i = 0; i < Frames; ++i) {
    const uint32_t h = static_cast<uint32_t>(i) * 2654435761u;
    v[i].L = static_cast<int16_t>(static_cast<int32_t>(h >> 16) - 32768);
    v[i].R = static_cast<int16_t>((i & 0x3FFF) + 1);
  }
  return v;
}

// Whole 18-byte format records compared (cbSize included).
inline bool IsCdFormat(const WAVEFORMATEX& F) {
  const WAVEFORMATEX cd{WAVE_FORMAT_PCM, 2, 44100, 176400, 4, 16, 0};
  return std::memcmp(&F, &cd, sizeof cd) == 0;
}

inline std::string Bytes(const std::vector<TFrame>& F) {
  return std::string(reinterpret_cast<const char*>(F.data()), F.size() * sizeof(TFrame));
}

// The pattern after the player's software volume (16-bit, halves to even).
inline std::vector<TFrame> Scaled(const std::vector<TFrame>& F, double Volume) {
  std::vector<TFrame> r(F.size());
  auto s = [Volume](int16_t v) {
    double x = Volume * v;
    x = x < -32768 ? -32768 : (x > 32767 ? 32767 : x);
    return static_cast<int16_t>(kl::Round(x));
  };
  for (size_t i = 0; i < F.size(); ++i) r[i] = {s(F[i].L), s(F[i].R)};
  return r;
}

// Writes a 44.1 kHz 16-bit stereo WAV of the frames.
inline std::string WriteWav(const TTempDir& Dir, const std::string& Name, const std::vector<TFrame>& F) {
  const std::string path = Dir / Name;
  WriteFileBytes(path, MakeWav(2, 44100, 16, Bytes(F)));
  return path;
}

inline std::vector<TFrame> Frames(const std::string& Raw) {
  std::vector<TFrame> r(Raw.size() / sizeof(TFrame));
  if (!r.empty()) std::memcpy(r.data(), Raw.data(), r.size() * sizeof(TFrame));
  return r;
}

// A run of captured frames that equals Expected[Start .. Start + Count).
struct TSegment {
  int64_t Start = 0;
  int64_t Count = 0;
};

// Cuts what was captured into runs of the expected frames, silence dropped. A captured
// frame that continues no run and starts no findable one is counted as foreign.
struct TPlayed {
  std::vector<TSegment> Segments;
  int64_t Foreign = 0;
  int64_t Frames() const {
    int64_t n = 0;
    for (const auto& s : Segments) n += s.Count;
    return n;
  }
};

inline TPlayed Analyse(const std::vector<TFrame>& Captured, const std::vector<TFrame>& Expected) {
  constexpr size_t WINDOW = 8;
  TPlayed r;
  size_t c = 0;
  int64_t next = -1;  // expected index the current run continues with
  while (c < Captured.size()) {
    if (Captured[c].Silent()) {
      ++c;
      continue;
    }
    if (next >= 0 && next < static_cast<int64_t>(Expected.size()) && Captured[c] == Expected[next]) {
      ++r.Segments.back().Count;
      ++next;
      ++c;
      // The last expected frame has been heard: what follows is something else.
      if (next == static_cast<int64_t>(Expected.size())) break;
      continue;
    }
    // Find where this run starts: the first place where WINDOW frames agree, looked
    // for first just around where the last run stopped (faint stretches, such as a
    // decoder's start and its end, recur elsewhere).
    int64_t found = -1;
    const auto search = [&](size_t From, size_t To) {
      for (size_t e = From; e + WINDOW <= std::min(To, Expected.size()) && found < 0; ++e) {
        if (!(Expected[e] == Captured[c])) continue;
        bool all = true;
        for (size_t k = 1; k < WINDOW && all; ++k) all = Expected[e + k] == Captured[c + k];
        if (all) found = static_cast<int64_t>(e);
      }
    };
    if (c + WINDOW <= Captured.size()) {
      if (!r.Segments.empty()) {
        const int64_t end = r.Segments.back().Start + r.Segments.back().Count;
        search(static_cast<size_t>(std::max<int64_t>(0, end - 441)), static_cast<size_t>(end + 4410));
      }
      if (found < 0) search(0, Expected.size());
    }
    if (found < 0) {
      // Past a few thousand the capture is plainly something else; stop searching.
      if (++r.Foreign > 4000) break;
      ++c;
      next = -1;
      continue;
    }
    r.Segments.push_back({found, 0});
    next = found;
  }
  return r;
}

inline std::string Describe(const TPlayed& P) {
  std::string r = "foreign " + std::to_string(P.Foreign) + "; runs";
  for (const auto& s : P.Segments) r += " " + std::to_string(s.Start) + "+" + std::to_string(s.Count);
  return r;
}

// Whether the runs play Expected[From .. To) in order. The audio server on a loaded
// machine may drop a few milliseconds (the recorder or the driver falls behind), and the
// driver replays a few after a pause; anything beyond that is the player's fault.
inline std::string InOrder(const TPlayed& P, size_t First, size_t Last, int64_t From, int64_t To, int Rate) {
  const int64_t startSlack = 20 * Rate / 1000, lossSlack = 90 * Rate / 1000, repeatSlack = 10 * Rate / 1000;
  if (P.Segments.size() <= Last || First > Last) return "too few runs: " + Describe(P);
  if (P.Segments[First].Start < From || P.Segments[First].Start > From + startSlack) return "bad start: " + Describe(P);
  int64_t covered = P.Segments[First].Count;
  for (size_t i = First + 1; i <= Last; ++i) {
    const int64_t end = P.Segments[i - 1].Start + P.Segments[i - 1].Count;
    if (P.Segments[i].Start < end - repeatSlack) return "repeated: " + Describe(P);
    if (P.Segments[i].Start > end + lossSlack) return "lost: " + Describe(P);
    covered += P.Segments[i].Count;
  }
  const auto& last = P.Segments[Last];
  if (last.Start + last.Count != To) return "bad end: " + Describe(P);
  if (covered < (To - From) * 9 / 10) return "too little: " + Describe(P);
  return "";
}

// Everything a stream delivers, read Chunk bytes at a time; bounded, as a stream that
// never ends is a fault of its own.
inline std::string ReadAllBytes(ISoundStream* S, int32_t Chunk) {
  std::string got;
  std::vector<char> buf(static_cast<size_t>(Chunk));
  for (int i = 0; i < 100000; ++i) {
    const int32_t n = S->GetWavData(buf.data(), Chunk);
    if (n <= 0) break;
    got.append(buf.data(), static_cast<size_t>(n));
  }
  return got;
}

inline ComPtr<ISoundStream> WavSource(const std::string& Path, bool Finishing) {
  ComPtr<ISoundStream> wav = new kl::USoundStreams::TWavFileSoundStream(Path);
  if (!Finishing) return wav;
  return ComPtr<ISoundStream>(new kl::USoundStreams::TFinishingSoundStream(wav.Get()));
}

// Collects what a player hands to the device (its OnSendingWavBlock event).
class TSentRecorder {
 public:
  explicit TSentRecorder(kl::klMediaPlayer::TklMediaPlayer& Player) {
    Player.SetOnSendingWavBlock([this](void* Buffer, int32_t Size) {
      std::lock_guard<std::mutex> guard(FLock);
      FBytes.append(static_cast<const char*>(Buffer), static_cast<size_t>(Size));
    });
  }
  std::string Bytes() {
    std::lock_guard<std::mutex> guard(FLock);
    return FBytes;
  }

 private:
  std::mutex FLock;
  std::string FBytes;
};

using kltest::WaitUntil;

// Plays Source (a finishing one) to its end and returns what was recorded meanwhile.
struct TRun {
  std::vector<TFrame> Captured;
  int Finishes = 0;
  kl::klMediaPlayer::TPlayerMode Mode = kl::klMediaPlayer::pmNotReady;
};
inline TRun PlayToEnd(kl::klMediaPlayer::TklMediaPlayer& P, ISoundStream* Source, DWORD TimeoutMs) {
  TRun r;
  std::atomic<int> finishes{0};
  P.SetOnFinish([&finishes](void*) { ++finishes; });
  P.SetSource(Source);
  const int64_t mark = TCapture::Mark();
  EXPECT_TRUE(P.Play());
  EXPECT_TRUE(WaitUntil([&] { return P.GetMode() == kl::klMediaPlayer::pmFinished; }, TimeoutMs));
  Sleep(100);  // a second finish would come with the next returned block
  r.Finishes = finishes;
  r.Mode = P.GetMode();
  r.Captured = Frames(TCapture::Since(mark));
  P.SetOnFinish(nullptr);
  return r;
}

// Rising tones on both channels, Seconds long, as 128 kbit/s MP3 made by ffmpeg: no
// stretch of them repeats, so a decoding lines up with another at exactly one offset.
inline std::string EncodeChirp(const TTempDir& Dir, const std::string& Name, double Seconds,
                               const std::string& Extra = "") {
  const auto r = Ffmpeg(kl::Format("-f lavfi -i \"aevalsrc=0.4*sin(2*PI*(200+300*t)*t)|0.4*sin(2*PI*(500+120*t)*t):"
                                   "s=44100:d=%g\" -c:a libmp3lame -b:a 128k ", Seconds) + Extra + Quote(Dir / Name));
  EXPECT_EQ(0u, r.ExitCode) << r.Err;
  return Dir / Name;
}

inline std::vector<int16_t> Samples(const std::string& Raw) {
  std::vector<int16_t> r(Raw.size() / 2);
  if (!r.empty()) std::memcpy(r.data(), Raw.data(), r.size() * 2);
  return r;
}

// The lag in [MinLag, MaxLag] (Theirs index minus Ours index, in frames of Ch samples)
// at which Ours[From, From + Count) matches Theirs best, and the largest difference there.
struct TMatch {
  int64_t Lag = 0;
  int MaxDiff = 1 << 20;
};
inline TMatch Align(const std::vector<int16_t>& Ours, int64_t From, int64_t Count, const std::vector<int16_t>& Theirs,
                    int Ch, int64_t MinLag, int64_t MaxLag) {
  TMatch best;
  int64_t bestSum = INT64_MAX;
  for (int64_t lag = MinLag; lag <= MaxLag; ++lag) {
    if (From + lag < 0 || (From + lag + Count) * Ch > static_cast<int64_t>(Theirs.size()) ||
        (From + Count) * Ch > static_cast<int64_t>(Ours.size())) {
      continue;
    }
    int64_t sum = 0;
    int maxDiff = 0;
    for (int64_t i = From * Ch; i < (From + Count) * Ch && sum < bestSum; ++i) {
      const int d = std::abs(Ours[static_cast<size_t>(i)] - Theirs[static_cast<size_t>(i + lag * Ch)]);
      sum += d;
      maxDiff = std::max(maxDiff, d);
    }
    if (sum < bestSum) {
      bestSum = sum;
      best = {lag, maxDiff};
    }
  }
  return best;
}

}  // namespace kltest::playback
