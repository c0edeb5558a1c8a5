// Helpers of the FFmpeg player tests: a short film whose every frame carries its number
// in its pixels and whose every sound sample carries its own index, and what a player
// delivered of it (OnFrame, OnFinish, the audio server's recording).
#pragma once

#include <gtest/gtest.h>

#include <windows.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "../channels/ChannelsTestUtil.h"
#include "FfmpegTestUtil.h"
#include "KlTest.h"
#include "ffmpeg/UFfmpegPlayer.h"

#define REQUIRE_CAPTURE() \
  if (!kltest::TCapture::Available()) GTEST_SKIP() << "no audio capture"

namespace playertest {

using kl::UFfmpegPlayer::TFFmpegPlayer;

inline constexpr int kRate = 44100;

// Sample i: both channels even, so that half volume keeps every bit of the index.
inline std::string Sound(int32_t Samples) {
  std::string pcm;
  for (int32_t i = 0; i < Samples; ++i) {
    const int16_t v[2] = {static_cast<int16_t>(2 * (i % 32768) - 32768), static_cast<int16_t>(2 * (i / 32768 + 1))};
    pcm.append(reinterpret_cast<const char*>(v), sizeof v);
  }
  return pcm;
}

// The sample indices in a recording at the given volume (1 or 0.5); silence skipped,
// anything else that is no sample of the film gives -1.
inline std::vector<int64_t> Indices(const std::string& Raw, int Scale) {
  std::vector<int64_t> r;
  for (size_t k = 0; k + 4 <= Raw.size(); k += 4) {
    int16_t v[2];
    memcpy(v, Raw.data() + k, 4);
    if (v[0] == 0 && v[1] == 0) continue;
    const int32_t l = v[0] * Scale, h = v[1] * Scale;
    r.push_back(h < 2 || h % 2 != 0 || l % 2 != 0 ? -1 : (h / 2 - 1) * 32768LL + (l + 32768) / 2);
  }
  return r;
}

// "" when the indices run from about From on in order, allowing for what a loaded audio
// server does (up to 90 ms lost or 10 ms repeated at a time), up to To - 1 (To < 0: not
// checked) with at least nine tenths of it heard.
inline std::string InOrder(const std::vector<int64_t>& I, int64_t From, int64_t To) {
  if (I.empty() || I.front() < From || I.front() > From + kRate / 50) {
    return "bad start " + std::to_string(I.empty() ? -1 : I.front());
  }
  for (size_t k = 1; k < I.size(); ++k) {
    const int64_t step = I[k] - I[k - 1] - 1;
    if (step < -kRate / 100 || step > kRate * 9 / 100) return "break at " + std::to_string(I[k - 1]) + " to " + std::to_string(I[k]);
  }
  if (To >= 0 && (I.back() != To - 1 || static_cast<int64_t>(I.size()) < (To - From) * 9 / 10)) {
    return "bad end " + std::to_string(I.back()) + " after " + std::to_string(I.size());
  }
  return "";
}

// Films made once per run: "av.mkv" 4 s of 320x180 at 25 fps with sound, "v.mkv" 1 s
// of pictures only, "a.wav" 2 s of sound only. Pixels B, G, R = 255 - n, n, n for
// frame n, stored losslessly.
inline std::string Film(const std::string& Name) {
  static kltest::TTempDir dir;
  const std::string path = dir / Name;
  if (kl::FileExists(path)) return path;
  const std::string pictures = "-f lavfi -i \"color=c=black:s=320x180:r=25:d=" + std::string(Name == "v.mkv" ? "1" : "4") +
                               ",geq=r='N':g='N':b='255-N'\" ";
  kltest::WriteFileBytes(dir / "s.wav", kltest::MakeWav(2, kRate, 16, Sound(kRate * (Name == "a.wav" ? 2 : 4))));
  std::string args;
  if (Name == "av.mkv") args = pictures + "-i " + kltest::Quote(dir / "s.wav") + " -c:v ffv1 -c:a pcm_s16le ";
  if (Name == "v.mkv") args = pictures + "-c:v ffv1 ";
  if (Name == "a.wav") return ::CopyFileA((dir / "s.wav").c_str(), path.c_str(), FALSE) ? path : "";
  EXPECT_EQ(kltest::Ffmpeg(args + kltest::Quote(path)).ExitCode, 0u);
  return path;
}

// What a player delivered: frame numbers from OnFrame, finishes, the recording.
struct TWatch {
  std::mutex Lock;
  std::vector<int> Frames;
  std::atomic<int> Finishes{0};
  bool Lossless = true;
  int64_t Mark = kltest::TCapture::Mark();

  explicit TWatch(TFFmpegPlayer& P) {
    P.SetOnFinish([this](void*) { ++Finishes; });
    P.SetOnFrame([this](void* Data, int32_t Size) {
      const auto* p = static_cast<const uint8_t*>(Data);
      std::lock_guard<std::mutex> g(Lock);
      if (Size != 320 * 180 * 4 || p[0] != 255 - p[2] || p[1] != p[2] || p[Size / 2 + 2] != p[2]) Lossless = false;
      Frames.push_back(p[2]);
    });
  }
  int Last() {
    std::lock_guard<std::mutex> g(Lock);
    return Frames.empty() ? -1 : Frames.back();
  }
  // Play shows the first frame at once and again at the first tick: that repeat aside,
  // every frame from First on, each once.
  std::string Runs() {
    std::lock_guard<std::mutex> g(Lock);
    std::string s;
    for (size_t k = 0; k < Frames.size(); ++k) {
      if (k == 0 || Frames[k] != Frames[k - 1] + 1) s += (k ? ".." + std::to_string(Frames[k - 1]) + " " : "") +
                                                        std::to_string(Frames[k]);
    }
    return Frames.empty() ? s : s + ".." + std::to_string(Frames.back());
  }
};

inline bool NoFfmpegAfter(int Before) {
  return fftest::WaitUntil([&] { return fftest::FfmpegProcessCount() <= Before; }, 5000);
}

}  // namespace playertest
