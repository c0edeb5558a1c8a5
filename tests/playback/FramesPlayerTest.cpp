// TFramesPlayer on a source whose frames carry their number in every pixel: what lands
// on each kind of target, the timer schedule, pause, the source's end, and players
// destroyed while their timers are pending.
#include <gtest/gtest.h>

#include <windows.h>

#include <algorithm>
#include <mutex>

#include "PlaybackTestUtil.h"

using namespace kltest::playback;
using namespace kl::klMediaPlayer;

namespace {

constexpr int kW = 40, kH = 30;
// Red = blue = N: the same value as a DIB pixel and as a COLORREF.
uint32_t PixelOf(int N) { return static_cast<uint32_t>(N << 16 | 0x8000 | N); }

// Frames 1..Count, kW x kH, 32 bits. GetFrame number StallAt (each one for -1) sleeps
// StallMs first. Calls made after Gone is set are counted as Violations.
class TNumberedStream : public kl::TInterfacedObject<IVideoStream> {
 public:
  TNumberedStream(int Count, float FPS, int StallAt = 0, int StallMs = 0)
      : FCount(Count), FFPS(FPS), FStallAt(StallAt), FStallMs(StallMs) {
    FBM = kl::UDib::CreateDIBSectionEx(kW, -kH, 32, FBits);
  }
  ~TNumberedStream() override { DeleteObject(FBM); }
  int32_t STDMETHODCALLTYPE GetPosition() override { return 0; }
  void STDMETHODCALLTYPE SetPosition(int32_t) override {}
  int32_t STDMETHODCALLTYPE GetLength() override { return 0; }
  TVideoInfo STDMETHODCALLTYPE GetVideoInfo() override { return VideoInfo(kW, kH, 32, FFPS); }
  int32_t STDMETHODCALLTYPE GetFrameData(void*& Data) override {
    Violations += Gone.load();
    Data = FBits;
    return kW * kH * 4;
  }
  bool STDMETHODCALLTYPE GetFrame(uint32_t& Frame) override {
    Violations += Gone.load();
    if (FNumber >= FCount) return false;
    if (++FNumber == FStallAt || FStallAt < 0) Sleep(FStallMs);
    std::fill_n(static_cast<uint32_t*>(FBits), kW * kH, PixelOf(FNumber));
    Frame = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(FBM));
    return true;
  }
  std::atomic<bool> Gone{false};
  std::atomic<int> Violations{0};

 private:
  int FCount;
  float FFPS;
  int FStallAt, FStallMs, FNumber = 0;
  HBITMAP FBM = nullptr;
  void* FBits = nullptr;
};

ComPtr<TNumberedStream> Numbered(int Count, float FPS, int StallAt = 0, int StallMs = 0) {
  return ComPtr<TNumberedStream>(new TNumberedStream(Count, FPS, StallAt, StallMs));
}

// The frame numbers and times (timeGetTime) that OnFrame saw, and the finishes.
struct TFrameLog {
  std::mutex Lock;
  std::vector<int> Numbers;
  std::vector<DWORD> Times;
  std::atomic<int> Finishes{0};
  explicit TFrameLog(TFramesPlayer& P) {
    P.SetOnFrame([this](void* Data, int32_t) {
      std::lock_guard<std::mutex> g(Lock);
      Numbers.push_back(static_cast<int>(*static_cast<uint32_t*>(Data) & 0xFF));
      Times.push_back(timeGetTime());
    });
    P.SetOnFinish([this](void*) { ++Finishes; });
  }
  size_t Count() {
    std::lock_guard<std::mutex> g(Lock);
    return Numbers.size();
  }
};

// Plays Source to its end with OnFrame only; the draw times relative to Play.
std::vector<DWORD> PlayToEnd(TNumberedStream* Source, float Speed) {
  TFramesPlayer p;
  TFrameLog frames(p);
  p.SetSource(Source);
  p.SetSpeed(Speed);
  const DWORD start = timeGetTime();
  EXPECT_TRUE(p.Play());
  EXPECT_TRUE(WaitUntil([&] { return p.GetFinished(); }, 20000));
  p.Stop();
  EXPECT_EQ(frames.Finishes.load(), 1);
  for (DWORD& t : frames.Times) t -= start;
  return frames.Times;
}

}  // namespace

TEST(FramesPlayer, TargetsHoldExactlyTheFrameJustDrawn) {
  TFramesPlayer p;
  auto src = Numbered(10, 25);
  p.SetSource(src.Get());
  HWND wnd = CreateWindowExA(WS_EX_TOPMOST, "STATIC", "", WS_POPUP | WS_VISIBLE, 0, 0, 120, 90, nullptr, nullptr,
                             nullptr, nullptr);
  void *bmBits = nullptr, *dcBits = nullptr;
  HBITMAP bm = kl::UDib::CreateDIBSectionEx(120, -90, 32, bmBits);
  HBITMAP dcBM = kl::UDib::CreateDIBSectionEx(120, -90, 32, dcBits);
  HDC mem = CreateCompatibleDC(nullptr);
  const HGDIOBJ old = SelectObject(mem, dcBM);
  int n = 0;
  for (int kind = 1; kind <= 3; ++kind) {
    SCOPED_TRACE(kind);
    kind == 1 ? p.SetTargetBitmap(bm) : kind == 2 ? p.SetTargetDC(mem) : p.SetTargetWindow(wnd);
    EXPECT_EQ(p.GetTargetKind(), kind);
    EXPECT_EQ((p.GetTargetBitmap() != nullptr) + (p.GetTargetDC() != nullptr) + (p.GetTargetWindow() != nullptr), 1);
    auto pixel = [&](int X, int Y) -> uint32_t {
      GdiFlush();
      if (kind < 3) return static_cast<uint32_t*>(kind == 1 ? bmBits : dcBits)[Y * 120 + X] & 0xFFFFFF;
      HDC dc = GetDC(wnd);
      const COLORREF c = GetPixel(dc, X, Y);
      ReleaseDC(wnd, dc);
      return c;
    };
    // An empty rectangle takes the frame's own size; right < left and bottom < top are
    // swapped; the frame goes 1:1 into the rectangle, clipped.
    for (const RECT r : {RECT{0, 0, 0, 0}, RECT{0, 0, 0, 0}, RECT{70, 50, 60, 45}}) {
      p.SetTargetRect(r);
      ASSERT_TRUE(p.PrepareFrame() && p.DrawFrame());
      const RECT t = p.GetTargetRect();
      const RECT d = IsRectEmpty(&t) ? RECT{0, 0, kW, kH} : t;
      EXPECT_TRUE(IsRectEmpty(&t) || (t.left == 60 && t.top == 45 && t.right == 70 && t.bottom == 50));
      ++n;
      EXPECT_EQ(pixel(d.left, d.top), PixelOf(n));
      EXPECT_EQ(pixel(d.right - 1, d.bottom - 1), PixelOf(n));
      EXPECT_NE(pixel(d.right, d.bottom - 1), PixelOf(n));
      EXPECT_NE(pixel(d.right - 1, d.bottom), PixelOf(n));
    }
  }
  p.ClearTargets();
  EXPECT_EQ(p.GetTargetKind(), 0);
  EXPECT_FALSE(p.DrawFrameToBitmap(nullptr));
  SelectObject(mem, old);
  DeleteDC(mem);
  DeleteObject(dcBM);
  DeleteObject(bm);
  DestroyWindow(wnd);
}

TEST(FramesPlayer, FramesKeepToTheScheduleAndCatchUpAfterAStall) {
  // Play draws frame 1; timer n, due Interval * n ms after Play, draws frame n (frame 1
  // twice). Never early; generous bounds on lateness: precise figures are the benchmark's.
  auto check = [](const std::vector<DWORD>& T, double Interval) {
    ASSERT_EQ(T.size(), 26u);
    for (size_t i = 1; i < T.size(); ++i) EXPECT_GE(T[i] + 3, Interval * i) << i;
    EXPECT_LE(T.back(), Interval * 25 + 300);
  };
  check(PlayToEnd(Numbered(25, 25).Get(), 1), 40);
  check(PlayToEnd(Numbered(25, 25).Get(), 2), 20);
  const size_t mark = kl::klLog::GetWholeLog().size();
  check(PlayToEnd(Numbered(25, 25, 6, 200).Get(), 1), 40);
  // Fetching frame 6 took 200 ms: its timer, due at 240 ms, is already late.
  EXPECT_NE(kl::klLog::GetWholeLog().find("TFramesPlayer.NextFrame: 6 Interval: 1\r\n", mark), std::string::npos);
}

TEST(FramesPlayer, PauseDrawsAtMostOneMoreFrameAndPlayGoesOn) {
  TFramesPlayer p;
  TFrameLog frames(p);
  auto src = Numbered(1000, 50);
  p.SetSource(src.Get());
  ASSERT_TRUE(p.Play());
  ASSERT_TRUE(WaitUntil([&] { return frames.Count() >= 5; }, 10000));
  const size_t atPause = frames.Count();
  p.Pause();
  EXPECT_EQ(p.GetMode(), pmPaused);
  ASSERT_TRUE(WaitUntil([&] { return p.GetTimers() == 0; }, 2000));
  const size_t settled = frames.Count();
  EXPECT_LE(settled, atPause + 1);
  Sleep(200);
  EXPECT_EQ(frames.Count(), settled);
  ASSERT_TRUE(p.Play());
  ASSERT_TRUE(WaitUntil([&] { return frames.Count() >= settled + 3; }, 10000));
  p.Stop();
  EXPECT_EQ(p.GetTimers(), 0);
  std::lock_guard<std::mutex> g(frames.Lock);
  EXPECT_TRUE(std::is_sorted(frames.Numbers.begin(), frames.Numbers.end()));
}

TEST(FramesPlayer, EndsAndFailures) {
  TFramesPlayer p;
  TFrameLog frames(p);
  EXPECT_FALSE(p.Play());  // no source
  auto empty = Numbered(0, 25);
  p.SetSource(empty.Get());
  EXPECT_FALSE(p.Play());
  EXPECT_EQ(p.GetMode(), pmFinished);
  EXPECT_EQ(frames.Finishes.load(), 1);
  // Neither a target nor OnFrame: nothing to show on.
  TFramesPlayer bare;
  auto src = Numbered(5, 25);
  bare.SetSource(src.Get());
  const size_t mark = kl::klLog::GetWholeLog().size();
  EXPECT_FALSE(bare.Play());
  EXPECT_NE(kl::klLog::GetWholeLog().find("TFramesPlayer.DrawFrame: unknown target", mark), std::string::npos);
  EXPECT_EQ(PlayToEnd(Numbered(5, 100).Get(), 1).size(), 6u);  // OnFrame alone is enough
  p.SetSpeed(1000);
  EXPECT_EQ(p.GetSpeed(), 100.0f);
}

TEST(FramesPlayer, NoCallbackRunsOnADestroyedPlayer) {
  // Every other source takes 25 ms a frame at 100 fps: longer than Stop's bounded wait.
  for (int i = 0; i < 150; ++i) {
    auto src = Numbered(1000, 100, i % 2 ? 0 : -1, 25);
    {
      TFramesPlayer p;
      p.SetOnFrame([](void*, int32_t) {});
      p.SetSource(src.Get());
      ASSERT_TRUE(p.Play());
      Sleep(i % 20);
    }
    src->Gone = true;
    Sleep(i % 3);
    ASSERT_EQ(src->Violations.load(), 0) << i;
  }
}
