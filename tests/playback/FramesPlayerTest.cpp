// TFramesPlayer on a source whose frames carry their number in every pixel: what lands
// on the three kinds of target, the schedule on the multimedia timers, pause and stop,
// the end of the source, and players destroyed while their timers are pending.
#include <gtest/gtest.h>

#include <windows.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <string>
#include <vector>

#include "PlaybackTestUtil.h"

using namespace kltest::playback;
using namespace kl::klMediaPlayer;

namespace {

constexpr int kW = 40, kH = 30;

// The BGRA pixel of frame N (1-based) and what GetPixel reads back for it.
uint32_t PixelOf(int N) { return 0x00208000u | static_cast<uint32_t>(N); }
COLORREF ColorOf(int N) { return RGB(0x20, 0x80, N); }

// Frames 1..Count of kW x kH, 32 bits. GetFrame number StallAt (every one for -1)
// first sleeps StallMs.
// After Gone is set, any call counts as a call on behalf of a destroyed player.
class TNumberedStream : public kl::TInterfacedObject<IVideoStream> {
 public:
  TNumberedStream(int Count, float FPS, int StallAt = 0, int StallMs = 0)
      : FCount(Count), FFPS(FPS), FStallAt(StallAt), FStallMs(StallMs) {
    BITMAPINFO bi{};
    bi.bmiHeader = VideoInfo(kW, -kH, 32, FPS).Header;
    FBM = CreateDIBSection(nullptr, &bi, DIB_RGB_COLORS, &FBits, nullptr, 0);
  }
  ~TNumberedStream() override { DeleteObject(FBM); }
  int32_t STDMETHODCALLTYPE GetPosition() override { return 0; }
  void STDMETHODCALLTYPE SetPosition(int32_t) override {}
  int32_t STDMETHODCALLTYPE GetLength() override { return 0; }
  TVideoInfo STDMETHODCALLTYPE GetVideoInfo() override { return VideoInfo(kW, kH, 32, FFPS); }
  int32_t STDMETHODCALLTYPE GetFrameData(void*& Data) override {
    if (Gone) ++Violations;
    Data = FBits;
    return kW * kH * 4;
  }
  bool STDMETHODCALLTYPE GetFrame(uint32_t& Frame) override {
    if (Gone) ++Violations;
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
  int FStallAt, FStallMs;
  int FNumber = 0;
  HBITMAP FBM = nullptr;
  void* FBits = nullptr;
};

ComPtr<TNumberedStream> Numbered(int Count, float FPS, int StallAt = 0, int StallMs = 0) {
  return ComPtr<TNumberedStream>(new TNumberedStream(Count, FPS, StallAt, StallMs));
}

// Frame numbers and timeGetTime of each OnFrame, as the timer thread reports them.
struct TFrameLog {
  std::mutex Lock;
  std::vector<int> Numbers;
  std::vector<DWORD> Times;
  std::atomic<int> Finishes{0};
  void Attach(TFramesPlayer& P) {
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

// Plays Source to its end; the draw times relative to Play.
std::vector<DWORD> PlayToEnd(TNumberedStream* Source, float Speed, std::string* Log = nullptr) {
  TFramesPlayer p;
  TFrameLog frames;
  frames.Attach(p);
  p.SetSource(Source);
  p.SetSpeed(Speed);
  const size_t mark = kl::klLog::GetWholeLog().size();
  const DWORD start = timeGetTime();
  EXPECT_TRUE(p.Play());
  EXPECT_TRUE(WaitUntil([&] { return p.GetFinished(); }, 20000));
  p.Stop();
  EXPECT_EQ(frames.Finishes.load(), 1);
  if (Log != nullptr) *Log = kl::klLog::GetWholeLog().substr(mark);
  std::vector<DWORD> t;
  for (DWORD x : frames.Times) t.push_back(x - start);
  return t;
}

}  // namespace

TEST(FramesPlayer, TargetsHoldExactlyTheFrameJustDrawn) {
  TFramesPlayer p;
  auto src = Numbered(10, 25);
  p.SetSource(src.Get());
  HWND wnd = CreateWindowExA(WS_EX_TOPMOST, "STATIC", "", WS_POPUP | WS_VISIBLE, 0, 0, 120, 90, nullptr, nullptr,
                             nullptr, nullptr);
  ASSERT_NE(wnd, nullptr);
  void* bits = nullptr;
  HBITMAP bm = kl::UDib::CreateDIBSectionEx(120, 90, 32, bits);
  HDC mem = CreateCompatibleDC(nullptr);
  HBITMAP memBM = kl::UDib::CreateDIBSectionEx(120, 90, 32, bits);
  const HGDIOBJ old = SelectObject(mem, memBM);
  int n = 0;
  for (int kind = 1; kind <= 3; ++kind) {
    SCOPED_TRACE(kind);
    if (kind == 1) p.SetTargetBitmap(bm);
    if (kind == 2) p.SetTargetDC(mem);
    if (kind == 3) p.SetTargetWindow(wnd);
    EXPECT_EQ(p.GetTargetKind(), kind);
    EXPECT_EQ((p.GetTargetBitmap() != nullptr) + (p.GetTargetDC() != nullptr) + (p.GetTargetWindow() != nullptr), 1);
    // Reads a pixel of the current target.
    auto pixel = [&](int X, int Y) {
      if (kind == 2) return GetPixel(mem, X, Y);
      HDC dc = kind == 3 ? GetDC(wnd) : CreateCompatibleDC(nullptr);
      const HGDIOBJ o = kind == 3 ? nullptr : SelectObject(dc, bm);
      const COLORREF c = GetPixel(dc, X, Y);
      if (kind == 3) {
        ReleaseDC(wnd, dc);
      } else {
        SelectObject(dc, o);
        DeleteDC(dc);
      }
      return c;
    };
    p.SetTargetRect({0, 0, 0, 0});
    for (int i = 0; i < 2; ++i) {
      ASSERT_TRUE(p.PrepareFrame());
      ASSERT_TRUE(p.DrawFrame());
      ++n;
      EXPECT_EQ(pixel(0, 0), ColorOf(n));
      EXPECT_EQ(pixel(kW - 1, kH - 1), ColorOf(n));
      EXPECT_NE(pixel(kW, kH), ColorOf(n));  // an empty rectangle: the frame's own size
    }
    // Right < left and bottom < top are swapped; the frame goes 1:1 into the rectangle.
    p.SetTargetRect({70, 50, 60, 45});
    EXPECT_EQ(p.GetTargetRect().left, 60);
    EXPECT_EQ(p.GetTargetRect().bottom, 50);
    ASSERT_TRUE(p.PrepareFrame());
    ASSERT_TRUE(p.DrawFrame());
    ++n;
    EXPECT_EQ(pixel(60, 45), ColorOf(n));
    EXPECT_EQ(pixel(69, 49), ColorOf(n));
    EXPECT_NE(pixel(70, 49), ColorOf(n));
    EXPECT_NE(pixel(59, 45), ColorOf(n));
  }
  p.ClearTargets();
  EXPECT_EQ(p.GetTargetKind(), 0);
  EXPECT_FALSE(p.DrawFrameToBitmap(nullptr));
  SelectObject(mem, old);
  DeleteDC(mem);
  DeleteObject(memBM);
  DeleteObject(bm);
  DestroyWindow(wnd);
}

TEST(FramesPlayer, FramesKeepToTheScheduleAndCatchUpAfterAStall) {
  // Play draws frame 1; timer n, due 40 * n ms after Play at 25 fps, draws frame n (so
  // frame 1 twice). Draws run late, never early. Bounds are generous: precise figures
  // are the benchmark's.
  auto check = [](const std::vector<DWORD>& T, double Interval) {
    ASSERT_EQ(T.size(), 26u);
    for (size_t i = 1; i < T.size(); ++i) EXPECT_GE(T[i] + 3, Interval * i) << i;
    EXPECT_LE(T.back(), Interval * 25 + 300);
  };
  check(PlayToEnd(Numbered(25, 25).Get(), 1), 40);
  check(PlayToEnd(Numbered(25, 25).Get(), 2), 20);
  std::string log;
  const auto stalled = PlayToEnd(Numbered(25, 25, 6, 200).Get(), 1, &log);
  check(stalled, 40);
  // The frame after the stall is already late: it goes out at once.
  EXPECT_NE(log.find("TFramesPlayer.NextFrame: 6 Interval: 1\r\n"), std::string::npos) << log;
}

TEST(FramesPlayer, PauseDrawsOneMoreFrameAndPlayResumesFromThere) {
  TFramesPlayer p;
  TFrameLog frames;
  frames.Attach(p);
  auto src = Numbered(1000, 50);
  p.SetSource(src.Get());
  ASSERT_TRUE(p.Play());
  ASSERT_TRUE(WaitUntil([&] { return frames.Count() >= 5; }, 10000));
  p.Pause();
  const size_t atPause = frames.Count();
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
  EXPECT_GT(frames.Numbers.back(), frames.Numbers[settled - 1]);
}

TEST(FramesPlayer, EndsAndFailures) {
  {  // No frame at all.
    TFramesPlayer p;
    TFrameLog frames;
    frames.Attach(p);
    auto src = Numbered(0, 25);
    p.SetSource(src.Get());
    EXPECT_FALSE(p.Play());
    EXPECT_EQ(p.GetMode(), pmFinished);
    EXPECT_EQ(frames.Finishes.load(), 1);
  }
  {  // Neither a target nor OnFrame.
    TFramesPlayer p;
    EXPECT_FALSE(p.Play());
    auto src = Numbered(5, 25);
    p.SetSource(src.Get());
    const size_t mark = kl::klLog::GetWholeLog().size();
    EXPECT_FALSE(p.Play());
    EXPECT_NE(kl::klLog::GetWholeLog().find("TFramesPlayer.DrawFrame: unknown target", mark), std::string::npos);
  }
  {  // OnFrame alone is enough.
    auto src = Numbered(5, 100);
    EXPECT_EQ(PlayToEnd(src.Get(), 1).size(), 6u);
  }
  TFramesPlayer p;
  p.SetSpeed(1000);
  EXPECT_EQ(p.GetSpeed(), 100.0f);
  p.SetSpeed(-1);
  EXPECT_EQ(p.GetSpeed(), 0.0f);
}

TEST(FramesPlayer, NoCallbackRunsOnADestroyedPlayer) {
  // Slow frames (25 ms to fetch at 100 fps) outlast the bounded wait of Stop.
  for (int i = 0; i < 150; ++i) {
    auto src = Numbered(1000, 100, i % 2 ? 0 : -1, 25);
    TNumberedStream* chosen = src.Get();
    {
      TFramesPlayer p;
      std::atomic<int> n{0};
      p.SetOnFrame([&n](void*, int32_t) { ++n; });
      p.SetSource(chosen);
      ASSERT_TRUE(p.Play());
      Sleep(i % 20);
    }
    chosen->Gone = true;
    Sleep(i % 3);
    ASSERT_EQ(chosen->Violations.load(), 0) << i;
  }
  Sleep(100);
}
