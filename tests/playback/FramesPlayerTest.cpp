// TFramesPlayer on a source whose frames carry their number in every pixel.
#include <gtest/gtest.h>

#include <windows.h>

#include <mutex>

#include "PlaybackTestUtil.h"

using namespace kltest::playback;
using namespace kl::klMediaPlayer;

namespace {

constexpr int kW = 40, kH = 30;
uint32_t PixelOf(int N) { return static_cast<uint32_t>(N << 16 | 0x8000 | N); }  // same as DIB pixel and COLORREF

// Frames 1..Count; GetFrame StallAt (every one for -1) sleeps StallMs. Calls after Gone count as Violations.
struct TNumberedStream : kl::TInterfacedObject<IVideoStream> {
  TNumberedStream(int Count, float FPS, int StallAt, int StallMs)
      : FCount(Count), FFPS(FPS), FStallAt(StallAt), FStallMs(StallMs) {}
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
  int FCount;
  float FFPS;
  int FStallAt, FStallMs, FNumber = 0;
  void* FBits = nullptr;
  HBITMAP FBM = kl::UDib::CreateDIBSectionEx(kW, -kH, 32, FBits);
};

ComPtr<TNumberedStream> Numbered(int Count, float FPS, int StallAt = 0, int StallMs = 0) {
  return ComPtr<TNumberedStream>(new TNumberedStream(Count, FPS, StallAt, StallMs));
}

// Plays Source to its end with OnFrame only (one OnFinish); the draw times relative to Play.
std::vector<DWORD> PlayToEnd(TNumberedStream* Source, float Speed) {
  TFramesPlayer p;
  std::vector<DWORD> times;
  std::atomic<int> finishes{0};
  p.SetOnFrame([&](void*, int32_t) { times.push_back(timeGetTime()); });
  p.SetOnFinish([&](void*) { ++finishes; });
  p.SetSource(Source);
  p.SetSpeed(Speed);
  const DWORD start = timeGetTime();
  EXPECT_TRUE(p.Play());
  EXPECT_TRUE(WaitUntil([&] { return p.GetFinished(); }, 20000));
  p.Stop();
  EXPECT_EQ(finishes.load(), 1);
  for (DWORD& t : times) t -= start;
  return times;
}

}  // namespace

TEST(FramesPlayer, EachTargetHoldsTheFrameJustDrawnInItsRectangle) {
  TFramesPlayer p;
  auto src = Numbered(10, 25);
  p.SetSource(src.Get());
  HWND wnd = CreateWindowExA(WS_EX_TOPMOST, "STATIC", "", WS_POPUP | WS_VISIBLE, 0, 0, 120, 90, nullptr, nullptr,
                             nullptr, nullptr);
  void* bits = nullptr;
  HBITMAP bm = kl::UDib::CreateDIBSectionEx(120, -90, 32, bits);
  HDC mem = CreateCompatibleDC(nullptr);
  int n = 0;
  for (int kind = 1; kind <= 3; ++kind) {
    SCOPED_TRACE(kind);
    const HGDIOBJ old = kind == 2 ? SelectObject(mem, bm) : nullptr;
    kind == 1 ? p.SetTargetBitmap(bm) : kind == 2 ? p.SetTargetDC(mem) : p.SetTargetWindow(wnd);
    EXPECT_EQ((p.GetTargetBitmap() != nullptr) + (p.GetTargetDC() != nullptr) + (p.GetTargetWindow() != nullptr), 1);
    auto pixel = [&](int X, int Y) -> uint32_t {
      GdiFlush();
      if (kind < 3) return static_cast<uint32_t*>(bits)[Y * 120 + X] & 0xFFFFFF;
      HDC dc = GetDC(wnd);
      const COLORREF c = GetPixel(dc, X, Y);
      ReleaseDC(wnd, dc);
      return c;
    };
    // Empty: the frame's own size. Reversed corners are swapped; the frame is clipped to the rectangle.
    for (const RECT r : {RECT{0, 0, 0, 0}, RECT{70, 50, 60, 45}}) {
      p.SetTargetRect(r);
      ASSERT_TRUE(p.PrepareFrame() && p.DrawFrame());
      const RECT d = ++n % 2 ? RECT{0, 0, kW, kH} : RECT{60, 45, 70, 50};
      EXPECT_EQ(pixel(d.left, d.top), PixelOf(n));
      EXPECT_EQ(pixel(d.right - 1, d.bottom - 1), PixelOf(n));
      EXPECT_NE(pixel(d.right, d.bottom - 1), PixelOf(n));
      EXPECT_NE(pixel(d.right - 1, d.bottom), PixelOf(n));
    }
    if (kind == 2) SelectObject(mem, old);
  }
  DeleteDC(mem);
  DeleteObject(bm);
  DestroyWindow(wnd);
}

TEST(FramesPlayer, FramesKeepToTheScheduleAndCatchUpAfterAStall) {
  // Timer n, due Interval * n ms after Play, draws frame n (frame 1 twice). Never early; lateness bounds are generous.
  auto check = [](const std::vector<DWORD>& T, double Interval) {
    ASSERT_EQ(T.size(), 26u);
    for (size_t i = 1; i < T.size(); ++i) EXPECT_GE(T[i] + 3, Interval * i) << i;
    EXPECT_LE(T.back(), Interval * 25 + 300);
  };
  check(PlayToEnd(Numbered(25, 25).Get(), 2), 20);
  const size_t mark = kl::klLog::GetWholeLog().size();
  check(PlayToEnd(Numbered(25, 25, 6, 200).Get(), 1), 40);
  EXPECT_NE(kl::klLog::GetWholeLog().find("TFramesPlayer.NextFrame: 6 Interval: 1\r\n", mark), std::string::npos);
}

TEST(FramesPlayer, PauseDrawsAtMostOneMoreFrameAndPlayRightAfterPauseKeepsOneChain) {
  TFramesPlayer p;
  std::atomic<int> frames{0};
  p.SetOnFrame([&](void*, int32_t) { ++frames; });
  auto src = Numbered(100000, 50);
  p.SetSource(src.Get());
  ASSERT_TRUE(p.Play());
  // Each Play lands while the paused chain's timer is still pending.
  for (int i = 0; i < 5; ++i, Sleep(30)) {
    p.Pause();
    ASSERT_TRUE(p.Play());
  }
  const int resumed = frames.load();
  ASSERT_TRUE(WaitUntil([&] { return frames.load() >= resumed + 3; }, 5000));
  const int atPause = frames.load();
  p.Pause();
  EXPECT_EQ(p.GetMode(), pmPaused);
  Sleep(300);
  EXPECT_LE(frames.load(), atPause + 1);
  EXPECT_EQ(p.GetTimers(), 0);
}

TEST(FramesPlayer, NoFrameOrNothingToShowOnFailsPlay) {
  TFramesPlayer p, bare;  // bare: neither a target nor OnFrame
  std::atomic<int> finishes{0};
  p.SetOnFinish([&](void*) { ++finishes; });
  p.SetOnFrame([](void*, int32_t) {});
  EXPECT_FALSE(p.Play());  // no source
  auto empty = Numbered(0, 25), src = Numbered(5, 25);
  p.SetSource(empty.Get());
  EXPECT_FALSE(p.Play());
  EXPECT_EQ(p.GetMode(), pmFinished);
  EXPECT_EQ(finishes.load(), 1);
  bare.SetSource(src.Get());
  const size_t mark = kl::klLog::GetWholeLog().size();
  EXPECT_FALSE(bare.Play());
  EXPECT_NE(kl::klLog::GetWholeLog().find("TFramesPlayer.DrawFrame: unknown target", mark), std::string::npos);
}

TEST(FramesPlayer, NoCallbackRunsOnADestroyedPlayer) {
  // Every other source takes 25 ms a frame at 100 fps: longer than Stop's bounded wait.
  for (int i = 0; i < 100; ++i) {
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
