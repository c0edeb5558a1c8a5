// Lateness of TFramesPlayer's draws against their due times (n frame intervals after
// Play) at 25 and 60 fps, next to a bare chain of one-shot timeSetEvent timers paced by
// timeGetTime in the same run. Usage: klBench_FrameTiming [seconds per run, default 60].
#include "BenchClock.h"
#include <windows.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <numeric>
#include <vector>

#include "diagnostics/UDib.h"
#include "playback/klMediaPlayer.h"

namespace {

using namespace kl::klMediaPlayer;

// Endless frames of one small bitmap: the source costs nothing, the timing is measured.
class TStillStream : public kl::TInterfacedObject<IVideoStream> {
 public:
  explicit TStillStream(float FPS) : FFPS(FPS) {}
  ~TStillStream() override { DeleteObject(FBM); }
  int32_t STDMETHODCALLTYPE GetPosition() override { return 0; }
  void STDMETHODCALLTYPE SetPosition(int32_t) override {}
  int32_t STDMETHODCALLTYPE GetLength() override { return 0; }
  TVideoInfo STDMETHODCALLTYPE GetVideoInfo() override { return VideoInfo(16, 16, 32, FFPS); }
  int32_t STDMETHODCALLTYPE GetFrameData(void*& Data) override {
    Data = FBits;
    return 16 * 16 * 4;
  }
  bool STDMETHODCALLTYPE GetFrame(uint32_t& Frame) override {
    Frame = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(FBM));
    return true;
  }

 private:
  float FFPS;
  void* FBits = nullptr;
  HBITMAP FBM = kl::UDib::CreateDIBSectionEx(16, -16, 32, FBits);
};

// Draw times (s) of frames 1..Count; Times[0] is the start.
struct TRun {
  std::vector<double> Times;
  std::atomic<size_t> Count{0};
  explicit TRun(size_t Frames) : Times(Frames + 1) {}
  void Mark() {
    const size_t i = Count++;
    if (i < Times.size()) Times[i] = Seconds();
  }
  bool Done() const { return Count.load() >= Times.size(); }
};

// Lateness (ms) of frame n against n * Interval after the start.
struct TFigures {
  double Mean, P99, Max, Drift;
};
TFigures Figures(const TRun& R, double IntervalMs) {
  std::vector<double> late;
  for (size_t n = 1; n < R.Times.size(); ++n) late.push_back((R.Times[n] - R.Times[0]) * 1000 - n * IntervalMs);
  const double drift = late.back();
  std::sort(late.begin(), late.end());
  return {std::accumulate(late.begin(), late.end(), 0.0) / static_cast<double>(late.size()),
          late[late.size() * 99 / 100], late.back(), drift};
}

// The bare chain: each callback records its time and sets the next timer, due against
// the timeGetTime origin.
struct TBareChain {
  TRun* Run;
  double IntervalMs;
  DWORD Start = 0;
  size_t Frame = 0;
  std::atomic<bool> Ended{false};
  void Next() {
    if (Run->Done()) {
      Ended = true;
      return;
    }
    ++Frame;
    const auto elapsed = static_cast<double>(timeGetTime() - Start);
    const int interval = std::max(1, static_cast<int>(Frame * IntervalMs - elapsed + 0.5));
    timeSetEvent(static_cast<UINT>(interval), static_cast<UINT>(std::min(std::max(1, interval / 2), 10)), &Proc,
                 reinterpret_cast<DWORD_PTR>(this), TIME_ONESHOT);
  }
  static void CALLBACK Proc(UINT, UINT, DWORD_PTR User, DWORD_PTR, DWORD_PTR) {
    auto* self = reinterpret_cast<TBareChain*>(User);
    self->Run->Mark();
    self->Next();
  }
};

TFigures Player(float FPS, size_t Frames) {
  TRun run(Frames);
  {
    TFramesPlayer p;
    kl::ComPtr<IVideoStream> src(new TStillStream(FPS));
    p.SetSource(src.Get());
    // Play draws the first frame itself: that draw is the start of the schedule.
    p.SetOnFrame([&](void*, int32_t) { run.Mark(); });
    p.Play();
    while (!run.Done()) Sleep(50);
    p.Stop();
  }
  return Figures(run, 1000.0 / FPS);
}

TFigures Bare(float FPS, size_t Frames) {
  TRun run(Frames);
  TBareChain chain{&run, 1000.0 / FPS};
  chain.Start = timeGetTime();
  run.Mark();
  chain.Next();
  while (!chain.Ended) Sleep(50);
  return Figures(run, 1000.0 / FPS);
}

}  // namespace

int main(int argc, char** argv) {
  const double seconds = argc > 1 ? std::atof(argv[1]) : 60;
  std::printf("Lateness of each frame against its due time, %.0f s per run (ms)\n", seconds);
  std::printf("%4s %-14s %7s %7s %7s %7s\n", "fps", "", "mean", "p99", "max", "drift");
  for (float fps : {25.0f, 60.0f}) {
    const auto frames = static_cast<size_t>(seconds * fps);
    const TFigures b = Bare(fps, frames), p = Player(fps, frames);
    std::printf("%4.0f %-14s %7.2f %7.2f %7.2f %7.2f\n", fps, "bare timers", b.Mean, b.P99, b.Max, b.Drift);
    std::printf("%4s %-14s %7.2f %7.2f %7.2f %7.2f\n", "", "TFramesPlayer", p.Mean, p.P99, p.Max, p.Drift);
    std::printf("%4s %-14s %7.2f %7.2f %7.2f\n", "", "ratio", p.Mean / b.Mean, p.P99 / b.P99, p.Max / b.Max);
  }
  return 0;
}
