// The frames player of the klMediaPlayer unit (declared in klMediaPlayer.h).
#include <algorithm>
#include <cmath>
#include <cstdint>

#include "diagnostics/UDib.h"
#include "diagnostics/klLog.h"
#include "playback/klMediaPlayer.h"
#include "rtl/SysUtils.h"

namespace kl::klMediaPlayer {

namespace {

// The clock of the frame schedule. timeGetTime counts milliseconds in 1 ms steps with
// the same units and wrap-around as GetTickCount, but GetTickCount moves in ~15.6 ms
// steps on Windows, which would make every frame up to a whole frame late at 60 fps.
uint32_t Ticks() { return timeGetTime(); }

// The player whose FrameProc runs on this thread (Play called from its own OnFrame or
// OnFinish must not wait for the callback it is called from).
thread_local const TFramesPlayer* tlsInCallback = nullptr;

// The interface hands bitmaps over as 32-bit values; GDI handles are sign-extended.
HBITMAP ToBitmap(uint32_t Handle) {
  return reinterpret_cast<HBITMAP>(static_cast<intptr_t>(static_cast<int32_t>(Handle)));
}

}  // namespace

TFramesPlayer::TFramesPlayer() = default;

TFramesPlayer::~TFramesPlayer() {
  FMode = pmStopped;
  WaitForTimers();
  // The bounded wait may end while a callback is still inside (a source can block for
  // seconds in GetFrame): no callback may outlive the player.
  WaitForChainEnd();
}

void TFramesPlayer::WaitForChainEnd() {
  // Only the timers that really exist; with the mode not pmPlaying each ends its chain.
  while (FTimers.load() > FLostTimers.load()) Sleep(1);
}

void TFramesPlayer::SetSource(IVideoStream* Value) {
  Stop();
  FSource = Value;
}

void TFramesPlayer::ClearTargets() {
  FTargetDC = nullptr;
  FTargetBitmap = nullptr;
  FTargetWindow = nullptr;
  FTargetKind = 0;
}

void TFramesPlayer::SetTargetWindow(HWND Wnd) {
  ClearTargets();
  FTargetWindow = Wnd;
  if (Wnd != nullptr) FTargetKind = 3;
}

void TFramesPlayer::SetTargetDC(HDC DC) {
  ClearTargets();
  FTargetDC = DC;
  if (DC != nullptr) FTargetKind = 2;
}

void TFramesPlayer::SetTargetBitmap(HBITMAP BM) {
  ClearTargets();
  FTargetBitmap = BM;
  if (BM != nullptr) FTargetKind = 1;
}

void TFramesPlayer::SetTargetRect(const RECT& R) {
  FTargetRect = {std::min(R.left, R.right), std::min(R.top, R.bottom), std::max(R.left, R.right),
                 std::max(R.top, R.bottom)};
}

void TFramesPlayer::InitSync() {
  FFrameCount = 0;
  FStartTicks = Ticks();
}

bool TFramesPlayer::Play() {
  klLog::AddToEventLog("TFramesPlayer.Play", klLog::lkInformation);
  if (!FSource) {
    klLog::AddToEventLog("TFramesPlayer.Play: FSource = nil", klLog::lkWarning);
    return false;
  }
  // A timer of the previous chain may still be pending (Play right after Pause, or Play
  // while playing): it would go on beside the new chain, fetching and drawing at the same
  // time as this thread. End that chain and wait until its last callback has returned.
  // From this player's own callback, that callback goes on with the new chain itself.
  const bool nested = tlsInCallback == this;
  if (!nested) {
    TPlayerMode playing = pmPlaying;
    FMode.compare_exchange_strong(playing, pmPaused);
    WaitForChainEnd();
  }
  InitSync();
  const bool ok = PrepareFrame() && DrawFrame();
  if (ok) {
    FMode = pmPlaying;
  } else {
    klLog::AddToEventLog("TFramesPlayer.Play: PrepareFrame or DrawFrame failed", klLog::lkWarning);
  }
  klLog::AddToEventLog("TFramesPlayer.Play: before NextFrame", klLog::lkInformation);
  if (!nested) NextFrame();
  return ok;
}

void TFramesPlayer::Pause() {
  TPlayerMode playing = pmPlaying;
  FMode.compare_exchange_strong(playing, pmPaused);
}

void TFramesPlayer::Stop() {
  FMode = pmStopped;
  WaitForTimers();
}

bool TFramesPlayer::NextFrame() {
  if (FMode.load() != pmPlaying || !FSource) {
    klLog::AddToEventLog("TFramesPlayer.NextFrame: (FMode <> pmPlaying) or (FSource = nil)", klLog::lkWarning);
    return false;
  }
  ++FFrameCount;
  const float fps = FSource->GetVideoInfo().FPS;
  if (fps <= 0) {
    klLog::AddToEventLog("TFramesPlayer.NextFrame: FPS <= 0", klLog::lkWarning);
    return false;
  }
  // Due time of frame FFrameCount against the origin, minus the time already gone
  // (unsigned difference: correct across the 49.7-day wrap).
  // A speed of 0 makes the due time infinite: the timer is then refused, not a crash.
  const double dueMs = FFrameCount / static_cast<double>(fps) / FSpeed.load() * 1000;
  const int64_t due = std::isfinite(dueMs) ? Round(std::min(dueMs, 4e9)) : INT32_MAX;
  const int64_t elapsed = static_cast<uint32_t>(Ticks() - FStartTicks);
  const int32_t interval = static_cast<int32_t>(std::clamp<int64_t>(due - elapsed, 1, INT32_MAX));
  klLog::AddToEventLog(Format("TFramesPlayer.NextFrame: %d Interval: %d", FFrameCount, interval),
                       klLog::lkInformation);
  const int32_t resolution = std::min(std::max(1, interval / 2), 10);
  ++FTimers;
  if (timeSetEvent(static_cast<UINT>(interval), static_cast<UINT>(resolution), &FrameProc,
                   reinterpret_cast<DWORD_PTR>(this), TIME_ONESHOT) == 0) {
    // Left counted on purpose: a later WaitForTimers then waits its whole time-out.
    ++FLostTimers;
    klLog::AddToEventLog(
        Format("TFramesPlayer.NextFrame: Interval: %d, Resolution: %d", interval, resolution), klLog::lkWarning);
    return false;
  }
  return true;
}

void CALLBACK TFramesPlayer::FrameProc(UINT, UINT, DWORD_PTR User, DWORD_PTR, DWORD_PTR) {
  auto* player = reinterpret_cast<TFramesPlayer*>(User);
  if (player == nullptr) {
    klLog::AddToEventLog("FrameProc: Player = nil", klLog::lkWarning);
    return;
  }
  const TFramesPlayer* const outer = tlsInCallback;
  tlsInCallback = player;
  player->DrawFrame();
  player->PrepareFrame();
  const TPlayerMode mode = player->FMode.load();
  if (mode != pmPlaying) {
    klLog::AddToEventLog("FrameProc: Player.Mode = " + PlayerModeToStr(mode), klLog::lkInformation);
  } else {
    player->NextFrame();
  }
  // Counted down last, after the next timer (if any) is counted: a waiting Stop or
  // destructor then never sees 0 while this callback still uses the player.
  tlsInCallback = outer;
  --player->FTimers;
}

bool TFramesPlayer::PrepareFrame() {
  if (!FSource) return false;
  uint32_t frame = 0;
  if (!FSource->GetFrame(frame)) {
    FMode = pmFinished;
    if (FOnFinish) FOnFinish(this);
    klLog::AddToEventLog("TFramesPlayer.PrepareFrame: FSource.GetFrame failed", klLog::lkWarning);
    return false;
  }
  FFrame = ToBitmap(frame);
  return true;
}

bool TFramesPlayer::DrawFrame() {
  if (FSource) {
    void* data = nullptr;
    const int32_t size = FSource->GetFrameData(data);
    if (FOnFrame) FOnFrame(data, size);
  }
  switch (FTargetKind) {
    case 1:
      return DrawFrameToBitmap(FTargetBitmap);
    case 2:
      return DrawFrameToDC(FTargetDC);
    case 3:
      return DrawFrameToWindow(FTargetWindow);
    default:
      klLog::AddToEventLog("TFramesPlayer.DrawFrame: unknown target", klLog::lkError);
      return static_cast<bool>(FOnFrame);
  }
}

bool TFramesPlayer::DrawFrameToWindow(HWND Wnd) {
  if (Wnd == nullptr) return false;
  const HDC dc = GetDC(Wnd);
  const bool ok = DrawFrameToDC(dc);
  if (dc != nullptr) ReleaseDC(Wnd, dc);
  return ok;
}

bool TFramesPlayer::DrawFrameToBitmap(HBITMAP BM) {
  if (BM == nullptr) {
    klLog::AddToEventLog("TFramesPlayer.DrawFrameToBitmap: BM = 0", klLog::lkWarning);
    return false;
  }
  const HDC dc = CreateCompatibleDC(nullptr);
  if (dc == nullptr) return false;
  const HGDIOBJ old = SelectObject(dc, BM);
  const bool ok = DrawFrameToDC(dc);
  SelectObject(dc, old);
  DeleteDC(dc);
  return ok;
}

bool TFramesPlayer::DrawFrameToDC(HDC DC) {
  if (DC == nullptr || FFrame == nullptr || !FSource) return false;
  RECT r = FTargetRect;
  if (IsRectEmpty(&r)) {
    const BITMAPINFOHEADER h = FSource->GetVideoInfo().Header;
    r = {0, 0, h.biWidth, h.biHeight};
  }
  // 1:1 from the frame's top left corner, clipped to the rectangle.
  UDib::BitBltExDCBM(DC, r.left, r.top, r.right - r.left, r.bottom - r.top, FFrame, 0, 0, 255, false, 0);
  return true;
}

void TFramesPlayer::WaitForTimers() {
  uint32_t timeout = 1000;
  if (FSource) {
    const float fps = FSource->GetVideoInfo().FPS;
    if (fps != 0) timeout = static_cast<uint32_t>(Round(1000 / static_cast<double>(fps)) + 10);
  }
  const DWORD start = GetTickCount();
  while (FTimers.load() > 0 && GetTickCount() - start < timeout) Sleep(10);
}

int32_t TFramesPlayer::GetPosition() { return FSource ? FSource->GetPosition() : 0; }
void TFramesPlayer::SetPosition(int32_t Ms) {
  if (FSource) FSource->SetPosition(Ms);
}
int32_t TFramesPlayer::GetLength() { return FSource ? FSource->GetLength() : 0; }

void TFramesPlayer::SetSpeed(float Value) {
  if (Value == FSpeed.load()) return;
  FSpeed = std::max(0.0f, std::min(Value, 100.0f));
  InitSync();
}

}  // namespace kl::klMediaPlayer
