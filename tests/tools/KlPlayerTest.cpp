// klPlayer.exe as a person meets it: started on a film whose pictures carry their frame
// numbers, looked at on the screen, clicked and keyed through window messages, closed.
#include <gtest/gtest.h>

#include <windows.h>

#include <tlhelp32.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "KlTest.h"
#include "rtl/Graphics.h"
#include "rtl/SysUtils.h"

namespace {

// The seek bar's done part as klPlayer paints it ($BBGGRR), and the row of its line.
constexpr COLORREF kDone = RGB(0x40, 0x80, 0xC0);
constexpr int kLineRow = 6;

int FfmpegCount() {
  HANDLE snap = CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
  PROCESSENTRY32 e{};
  e.dwSize = sizeof e;
  int n = 0;
  for (BOOL ok = Process32First(snap, &e); ok; ok = Process32Next(snap, &e)) n += lstrcmpiA(e.szExeFile, "ffmpeg.exe") == 0;
  CloseHandle(snap);
  return n;
}

template <class F>
bool WaitUntil(F&& Cond, DWORD TimeoutMs) {
  for (const ULONGLONG start = GetTickCount64(); !Cond(); Sleep(50))
    if (GetTickCount64() - start > TimeoutMs) return false;
  return true;
}

std::string Text(HWND W) {
  char s[512] = {};
  GetWindowTextA(W, s, sizeof s);
  return s;
}

struct TFind {
  DWORD Pid;
  std::string Prefix;
  bool Exact = false;
  HWND Found = nullptr;
};

BOOL CALLBACK FindTop(HWND W, LPARAM P) {
  auto* f = reinterpret_cast<TFind*>(P);
  DWORD pid = 0;
  GetWindowThreadProcessId(W, &pid);
  if (pid == f->Pid && IsWindowVisible(W) && Text(W).rfind(f->Prefix, 0) == 0) f->Found = W;
  return f->Found == nullptr;
}

BOOL CALLBACK FindChild(HWND W, LPARAM P) {
  auto* f = reinterpret_cast<TFind*>(P);
  const std::string t = Text(W);
  if (f->Exact ? t == f->Prefix : t.find(f->Prefix) != std::string::npos) f->Found = W;
  return f->Found == nullptr;
}

// The child whose text is Name (Exact) or holds it.
HWND Child(HWND Top, const std::string& Name, bool Exact = true) {
  TFind f{0, Name, Exact};
  EnumChildWindows(Top, &FindChild, reinterpret_cast<LPARAM>(&f));
  return f.Found;
}

// What the screen shows of the window; from Top down when given (screen coordinates).
void Shot(HWND W, kl::TBitmap& Into, LONG Top = LONG_MIN) {
  RECT r;
  GetWindowRect(W, &r);
  r.top = std::max(r.top, Top);
  Into.SetSize(r.right - r.left, r.bottom - r.top);
  HDC screen = GetDC(nullptr);
  BitBlt(Into.DC(), 0, 0, Into.Width(), Into.Height(), screen, r.left, r.top, SRCCOPY);
  ReleaseDC(nullptr, screen);
}

// The frame number in the middle of the picture (R = G = n, B = 255 - n), or -1.
int FrameShown(HWND Picture) {
  kl::TBitmap b;
  Shot(Picture, b);
  const COLORREF c = b.Pixel(b.Width() / 2, b.Height() / 2);
  const int r = GetRValue(c), g = GetGValue(c), bl = GetBValue(c);
  return std::abs(r - g) <= 2 && std::abs(r + bl - 255) <= 3 ? r : -1;
}

// Pixels of the seek bar's done part on its line.
int DoneWidth(HWND Seek) {
  kl::TBitmap b;
  Shot(Seek, b);
  int n = 0;
  for (int x = 0; x < b.Width(); ++x) n += b.Pixel(x, kLineRow) == kDone;
  return n;
}

// Position and length in tenths of a second from "mm:ss.t / mm:ss.t  Mode".
bool StatusTimes(HWND Status, int& Pos, int& Len) {
  int pm, ps, pt, lm, ls, lt;
  if (std::sscanf(Text(Status).c_str(), "%d:%d.%d / %d:%d.%d", &pm, &ps, &pt, &lm, &ls, &lt) != 6) return false;
  Pos = (pm * 60 + ps) * 10 + pt;
  Len = (lm * 60 + ls) * 10 + lt;
  return true;
}

// klPlayer.exe started on File, with its window and status line once they are there.
struct TPlayer {
  kltest::TProcess Process;
  HWND Top = nullptr, Status = nullptr;

  bool Start(const std::string& File) {
    std::string cmd = kltest::Quote(kltest::ExeDir() + "klPlayer.exe") + " " + kltest::Quote(File);
    STARTUPINFOA si{};
    si.cb = sizeof si;
    if (!CreateProcessA(nullptr, cmd.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &si, &Process.Info)) return false;
    TFind top{Process.Info.dwProcessId, "klPlayer - " + kl::ExtractFileName(File)};
    return WaitUntil(
        [&] {
          EnumWindows(&FindTop, reinterpret_cast<LPARAM>(&top));
          return (Top = top.Found) != nullptr && (Status = Child(Top, " / ", false)) != nullptr;
        },
        20000);
  }
};

}  // namespace

TEST(KlPlayer, PlaysSeeksOnAClickPausesOnSpaceAndClosesWithItsFfmpeg) {
  kltest::TTempDir dir;
  // 6 s at 25 fps with sound; a flat box in the middle in the frame's colour, a gradient
  // around it.
  const std::string film = dir / "count.mkv";
  const std::string box = "lt(abs(X-W/2),W/4)*lt(abs(Y-H/2),H/4)";
  ASSERT_EQ(kltest::Ffmpeg("-f lavfi -i \"color=c=black:s=320x180:r=25:d=6,geq=r='if(" + box + ",N,255*X/W)':g='if(" +
                           box + ",N,255*Y/H)':b='if(" + box + ",255-N,128)'\" -f lavfi -i sine=f=440:d=6 " +
                           "-c:v ffv1 -c:a pcm_s16le " + kltest::Quote(film))
                .ExitCode,
            0u);
  const int ffmpegBefore = FfmpegCount();

  TPlayer player;
  ASSERT_TRUE(player.Start(film));
  const HWND status = player.Status;
  const HWND picture = Child(player.Top, "Picture"), seek = Child(player.Top, "Seek bar");
  ASSERT_TRUE(picture && seek);

  // Playing: the picture shows a frame of the film, the marker has left 0, the status
  // line counts.
  int frame = -1;
  ASSERT_TRUE(WaitUntil([&] { return (frame = FrameShown(picture)) >= 5; }, 15000)) << Text(status);
  EXPECT_LT(frame, 60);
  EXPECT_TRUE(WaitUntil([&] { return DoneWidth(seek) > 0; }, 2000));
  int pos = 0, len = 0;
  ASSERT_TRUE(StatusTimes(status, pos, len)) << Text(status);
  EXPECT_GT(pos, 0);
  EXPECT_NEAR(len, 60, 1);
  EXPECT_NE(Text(status).find("Playing"), std::string::npos) << Text(status);

  // A click in the middle of the seek bar: the pictures go on from the middle.
  RECT sr;
  GetClientRect(seek, &sr);
  PostMessageA(seek, WM_LBUTTONDOWN, MK_LBUTTON, MAKELPARAM(sr.right / 2, kLineRow));
  PostMessageA(seek, WM_LBUTTONUP, 0, MAKELPARAM(sr.right / 2, kLineRow));
  EXPECT_TRUE(WaitUntil([&] { return (frame = FrameShown(picture)) >= 70; }, 10000)) << frame;
  EXPECT_LT(frame, 140);
  // The window repaints the bar once the seek has returned.
  int done = 0;
  EXPECT_TRUE(WaitUntil([&] { return (done = DoneWidth(seek)) > sr.right * 4 / 10; }, 10000)) << done;
  EXPECT_LT(done, sr.right * 8 / 10);

  // Space pauses: the picture stays.
  PostMessageA(player.Top, WM_KEYDOWN, VK_SPACE, 1);
  EXPECT_TRUE(WaitUntil([&] { return Text(status).find("Paused") != std::string::npos; }, 5000)) << Text(status);
  Sleep(300);
  const int paused = FrameShown(picture);
  Sleep(700);
  EXPECT_EQ(FrameShown(picture), paused);
  EXPECT_GE(paused, 70);

  // The screenshot for the README: the window from its menu bar down (the test screen has
  // no window manager to draw the frame).
  POINT client{0, 0};
  ClientToScreen(player.Top, &client);
  kl::TBitmap window;
  Shot(player.Top, window, client.y - GetSystemMetrics(SM_CYMENU) - 1);
  const std::string shots = kltest::ExeDir() + "..\\screenshots\\";
  CreateDirectoryA(shots.c_str(), nullptr);
  kl::TPngImage::SaveBitmap(window, shots + "klPlayer.png");

  // Closing the window ends the process, and its ffmpeg processes end with it.
  PostMessageA(player.Top, WM_CLOSE, 0, 0);
  ASSERT_TRUE(player.Process.Wait(15000));
  DWORD code = 1;
  GetExitCodeProcess(player.Process.Info.hProcess, &code);
  EXPECT_EQ(code, 0u);
  EXPECT_TRUE(WaitUntil([&] { return FfmpegCount() <= ffmpegBefore; }, 5000)) << FfmpegCount();
}

TEST(KlPlayer, PlaysASoundFileWithTheSeekBarAndNoPicture) {
  kltest::TTempDir dir;
  const std::string wav = dir / "tone.wav";
  ASSERT_EQ(kltest::Ffmpeg("-f lavfi -i sine=f=440:d=4 -c:a pcm_s16le " + kltest::Quote(wav)).ExitCode, 0u);
  TPlayer player;
  ASSERT_TRUE(player.Start(wav));
  int pos = 0, len = 0;
  EXPECT_TRUE(WaitUntil([&] { return StatusTimes(player.Status, pos, len) && pos >= 5; }, 15000)) << Text(player.Status);
  EXPECT_NEAR(len, 40, 1);
  EXPECT_FALSE(IsWindowVisible(Child(player.Top, "Picture")));
  EXPECT_TRUE(WaitUntil([&] { return DoneWidth(Child(player.Top, "Seek bar")) > 0; }, 5000));
  PostMessageA(player.Top, WM_KEYDOWN, VK_ESCAPE, 1);
  EXPECT_TRUE(player.Process.Wait(15000));
}
