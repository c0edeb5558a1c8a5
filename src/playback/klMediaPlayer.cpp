#include "playback/klMediaPlayer.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>

#include <mutex>

#include "conversion/UAudioConverter.h"
#include "diagnostics/klLog.h"
#include "rtl/Dialogs.h"
#include "rtl/SysUtils.h"

namespace kl::klMediaPlayer {

// --- tempo corrector ------------------------------------------------------------------

namespace {
const char* const DEBUG_FILE_NAME = "c:\\debug.wav";
}  // namespace

TTempCorrector::TTempCorrector() {
  Init(1.0f);
  FDebugFile = std::make_unique<UWAV::TWAVFile>(DEBUG_FILE_NAME, 16, 44100, 1);
}

TTempCorrector::~TTempCorrector() {
  try {
    FDebugFile->Save();
  } catch (const Exception& E) {
    klLog::AddToEventLog("TTempCorrector.Destroy: " + E.Message(), klLog::lkError);
  } catch (...) {
  }
}

void TTempCorrector::SetFormat(const WAVEFORMATEX* Value) {
  FFormat = WAVEFORMAT{};
  if (Value != nullptr) std::memcpy(&FFormat, Value, sizeof FFormat);
}

void TTempCorrector::Init(float Tempo) {
  if (Tempo < 0) return;
  if (Tempo != 0) FTempo = Tempo;
  FInCount = 0;
  FOutCount = 0;
}

int32_t TTempCorrector::Correct(void* Buffer, int32_t Size) {
  // Written so that a NaN tempo is out of range too.
  if (Buffer == nullptr || Size < 1 || !(FTempo > 1.0f && FTempo <= MAX_TEMP)) return Size;
  const uint32_t n = FFormat.nSamplesPerSec / 10;  // values per block
  if (n == 0) return Size;
  const int64_t blockSize = n;
  const int64_t blocks = (Size / 2) / blockSize;
  int16_t* const values = static_cast<int16_t*>(Buffer);
  int64_t out = 0;

  for (int64_t b = 0; b < blocks; ++b) {
    int16_t* const block = values + blockSize * b;
    FInCount += blockSize;
    // From the running totals, so that one block's rounding is made up by the next.
    int64_t keep = Round(static_cast<double>(FInCount) / FTempo - static_cast<double>(FOutCount));
    // The totals keep this within the block; the clamp only guards the memory.
    keep = std::clamp<int64_t>(keep, 0, blockSize);
    FOutCount += keep;

    const int64_t half = keep / 2;
    const int64_t rest = keep - half;
    const int64_t span = half / 5;

    // Splice search: the first (most negative) offset wins ties. With nothing kept the
    // search has nothing to choose and would read past the block.
    int64_t best = 0;
    if (keep > 0) {
      int32_t bestDiff = 2147483647;
      for (int64_t d = -span; d <= span; ++d) {
        const int32_t a = block[half + d];
        const int32_t c = block[blockSize - rest + d];
        const int32_t diff = std::abs(c - a);
        if (diff < bestDiff) {
          bestDiff = diff;
          best = d;
        }
      }
    }
    const int64_t cut = half + best;
    const int64_t tail = keep - cut;

    // Output never overtakes input, so both copies may overlap only forwards. The values
    // are 16-bit already, so they need no clamping on the way.
    std::memmove(values + out, block, static_cast<size_t>(cut) * sizeof(int16_t));
    out += cut;
    std::memmove(values + out, block + blockSize - tail, static_cast<size_t>(tail) * sizeof(int16_t));
    out += tail;
  }

  const int32_t result = static_cast<int32_t>(out * 2);
  FDebugFile->AddData(Buffer, result);
  return result;
}

}  // namespace kl::klMediaPlayer

namespace kl::klMediaPlayer {

// --- modes and records ----------------------------------------------------------------

std::string PlayerModeToStr(TPlayerMode Mode) {
  switch (Mode) {
    case pmNotReady:
      return "Not ready";
    case pmStopped:
      return "Stopped";
    case pmPlaying:
      return "Playing";
    case pmPaused:
      return "Paused";
    case pmFinished:
      return "Finished";
  }
  return "Unknown";
}

TVideoInfo VideoInfo(int32_t Width, int32_t Height, int32_t BitCount, float FPS) {
  TVideoInfo r{};
  r.Header.biSize = sizeof(BITMAPINFOHEADER);
  r.Header.biWidth = Width;
  r.Header.biHeight = Height;
  r.Header.biPlanes = 1;
  r.Header.biBitCount = static_cast<WORD>(BitCount);
  r.FPS = FPS;
  return r;
}

// --- the hidden window ----------------------------------------------------------------

namespace {

const char* const WINDOW_CLASS = "WaveOutWindow";

HINSTANCE ThisModule() {
  HMODULE m = nullptr;
  GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                     reinterpret_cast<LPCSTR>(&ThisModule), &m);
  return m;
}

LRESULT CALLBACK WaveOutWindowProc(HWND Wnd, UINT Msg, WPARAM WParam, LPARAM LParam) {
  try {
    if (Msg == MM_WOM_DONE) {
      auto* player = reinterpret_cast<TWaveOutPlayer*>(GetWindowLongPtrA(Wnd, GWLP_USERDATA));
      if (player != nullptr) player->BlockDone(reinterpret_cast<WAVEHDR*>(LParam));
      return 0;
    }
    if (Msg == WM_DESTROY) return 0;
  } catch (const std::exception& E) {
    klLog::AddToEventLog(std::string("klMediaPlayer.WindowProc: ") + E.what(), klLog::lkError);
    return 0;
  } catch (...) {
    klLog::AddToEventLog("klMediaPlayer.WindowProc: unknown exception", klLog::lkError);
    return 0;
  }
  return DefWindowProcA(Wnd, Msg, WParam, LParam);
}

// Registered while the unit is loaded; the class goes with the module.
class TWindowClass {
 public:
  TWindowClass() {
    WNDCLASSA wc{};
    wc.lpfnWndProc = WaveOutWindowProc;
    wc.hInstance = ThisModule();
    wc.lpszClassName = WINDOW_CLASS;
    FRegistered = RegisterClassA(&wc) != 0 || GetLastError() == ERROR_CLASS_ALREADY_EXISTS;
  }
  ~TWindowClass() {
    if (FRegistered) UnregisterClassA(WINDOW_CLASS, ThisModule());
  }
  TWindowClass(const TWindowClass&) = delete;
  TWindowClass& operator=(const TWindowClass&) = delete;

 private:
  bool FRegistered = false;
};

const TWindowClass WindowClass;

// Texts of the waveOut result codes for the message box: the multimedia codes the
// device returns share their texts with the compression manager's, except that success
// reads "OK" and a missing driver has no text of its own here.
std::string WaveOutErrorText(MMRESULT Code) {
  if (Code == MMSYSERR_NOERROR) return "OK";
  if (Code == MMSYSERR_NODRIVER) return "Unknown error";
  return UAudioConverter::AcmErrorText(Code);
}

// The player events running on this thread, innermost first: a player destroyed by a
// handler marks its own, so that the code that called the handler returns without
// touching the freed object.
struct TEventScope {
  const TWaveOutPlayer* Player;
  TEventScope* Outer;
  bool Gone = false;
};
thread_local TEventScope* tlsEvents = nullptr;

// Enters an event scope for Player on this thread; Gone() after the handler returned
// says the player no longer exists.
class TEventGuard {
 public:
  explicit TEventGuard(const TWaveOutPlayer* Player) : FScope{Player, tlsEvents} { tlsEvents = &FScope; }
  ~TEventGuard() { tlsEvents = FScope.Outer; }
  TEventGuard(const TEventGuard&) = delete;
  TEventGuard& operator=(const TEventGuard&) = delete;
  bool Gone() const { return FScope.Gone; }

 private:
  TEventScope FScope;
};

}  // namespace

// --- threads --------------------------------------------------------------------------

TWaveOutThread::TWaveOutThread(TWaveOutPlayer* Player) : TThread(true), FPlayer(Player) {}

TWaveOutThread::~TWaveOutThread() { TerminateAndWait(); }

void TWaveOutThread::Execute() {
  HWND wnd = CreateWindowExA(0, WINDOW_CLASS, "", 0, 0, 0, 0, 0, nullptr, nullptr, ThisModule(), nullptr);
  if (wnd == nullptr) {
    klLog::AddToEventLog("TWaveOutThread.Execute: CreateWindow error", klLog::lkError);
    return;
  }
  SetWindowLongPtrA(wnd, GWLP_USERDATA, reinterpret_cast<LONG_PTR>(FPlayer));
  FWindow.store(wnd);
  bool quit = false;
  while (!Terminated() && !quit) {
    try {
      MSG msg;
      while (PeekMessageA(&msg, wnd, 0, 0, PM_REMOVE)) {
        if (msg.message == WM_QUIT) {
          quit = true;
          break;
        }
        TranslateMessage(&msg);
        DispatchMessageA(&msg);
      }
    } catch (const std::exception& E) {
      klLog::AddToEventLog(std::string("TWaveOutThread.Execute: ") + E.what(), klLog::lkError);
    }
    Sleep(1);
  }
  SetWindowLongPtrA(wnd, GWLP_USERDATA, 0);
  DestroyWindow(wnd);
}

TWavBufferThread::TWavBufferThread(TWaveOutPlayer* Player) : TThread(true), FPlayer(Player) {}

TWavBufferThread::~TWavBufferThread() { TerminateAndWait(); }

void TWavBufferThread::Execute() {
  std::vector<uint8_t> block(TWaveOutPlayer::WAV_BUFFER_LIMIT);
  while (!Terminated()) {
    Sleep(10);
    try {
      FPlayer->FillWavBuffer(block);
    } catch (const std::exception& E) {
      klLog::AddToEventLog(std::string("TWavBufferThread.Execute: ") + E.what(), klLog::lkError);
    }
  }
}

// --- TWaveOutPlayer -------------------------------------------------------------------

TWaveOutPlayer::TWaveOutPlayer(const TPlayerTexts& Texts) : FTexts(Texts) {
  FWavBuffer = MakeInterface<UPipe::IPipe, UPipe::TPipe>(131072);
  if (!FWavBuffer) throw std::bad_alloc();
  FWaveOutThread = std::make_unique<TWaveOutThread>(this);
  FWaveOutThread->Start();
  while (FWaveOutThread->Window() == nullptr && !FWaveOutThread->Finished()) Sleep(1);
  FWavBufferThread = std::make_unique<TWavBufferThread>(this);
  FWavBufferThread->Start();
  PrepareHeaders();
}

TWaveOutPlayer::~TWaveOutPlayer() { Shutdown(); }

void TWaveOutPlayer::Shutdown() {
  for (TEventScope* s = tlsEvents; s != nullptr; s = s->Outer) {
    if (s->Player == this) s->Gone = true;
  }
  if (!FWaveOutThread && !FWavBufferThread) return;
  try {
    // Drained while the window still takes the returned blocks.
    Stop();
  } catch (...) {
  }
  FWavBufferThread.reset();
  if (OnWaveOutThread()) {
    // Released from its own event on the wave-out thread, which cannot wait for itself:
    // its window stops handing blocks to this object, and the thread leaves its loop
    // once the event has returned and then frees itself.
    if (const HWND wnd = FWaveOutThread->Window()) SetWindowLongPtrA(wnd, GWLP_USERDATA, 0);
    FWaveOutThread->Terminate();
    if (FWaveOutThread->FreeOnExit()) (void)FWaveOutThread.release();
  }
  FWaveOutThread.reset();
  try {
    Close();
  } catch (...) {
  }
}

void TWaveOutPlayer::Log(const char* Text, int8_t Kind) {
  if (Text != nullptr) klLog::AddToEventLog(Text, Kind);
}

bool TWaveOutPlayer::OnWaveOutThread() const {
  return FWaveOutThread && GetCurrentThreadId() == FWaveOutThread->ThreadID();
}

ComPtr<ISoundStream> TWaveOutPlayer::GetSource() {
  std::lock_guard<TCriticalSection> guard(FSourceRefLock);
  return FSoundStream;
}

TNotifyEvent TWaveOutPlayer::GetOnFinish() const {
  std::lock_guard<TCriticalSection> guard(FEventLock);
  return FOnFinish;
}

void TWaveOutPlayer::SetOnFinish(TNotifyEvent Value) {
  std::lock_guard<TCriticalSection> guard(FEventLock);
  FOnFinish = std::move(Value);
}

TSendingWavBlockEvent TWaveOutPlayer::GetOnSendingWavBlock() const {
  std::lock_guard<TCriticalSection> guard(FEventLock);
  return FOnSendingWavBlock;
}

void TWaveOutPlayer::SetOnSendingWavBlock(TSendingWavBlockEvent Value) {
  std::lock_guard<TCriticalSection> guard(FEventLock);
  FOnSendingWavBlock = std::move(Value);
}

void TWaveOutPlayer::SetSource(ISoundStream* Value) {
  Stop();
  std::lock_guard<TCriticalSection> guard(FSourceLock);
  if (FSoundStream) UnprepareHeaders();
  {
    std::lock_guard<TCriticalSection> ref(FSourceRefLock);
    FSoundStream = Value;
  }
  FWavBuffer->Clear();
  if (FSoundStream) {
    AdjustBufferSize();
    {
      std::lock_guard<TCriticalSection> device(FLock);
      if (FWaveOut != nullptr) {
        FOldDevices.push_back(FWaveOut);
        FWaveOut = nullptr;
      }
      ResetDeviceBytes();
    }
    PrepareHeaders();
    FMode.store(pmStopped);
  }
}

int32_t TWaveOutPlayer::GetLength() {
  ComPtr<ISoundStream> s = GetSource();
  return s ? s->GetLength() : 0;
}

void TWaveOutPlayer::AdjustBufferSize() {
  ComPtr<ISoundStream> s = GetSource();
  if (!s) {
    Log(FTexts.AdjustNoSource, klLog::lkWarning);
    return;
  }
  const WAVEFORMATEX f = s->GetWaveFormat();
  const int64_t size = static_cast<int64_t>(f.nBlockAlign) * f.nSamplesPerSec / 10;
  // A format that asks for more than a few megabytes a tenth of a second is no audio
  // the device takes; no blocks then, and Play fails.
  FBufferSize = size > 0 && size <= (1 << 24) ? static_cast<int32_t>(size) : 0;
  for (int i = 0; i < 2; ++i) {
    FBuffers[i].assign(static_cast<size_t>(FBufferSize), 0);
    FHeaders[i] = WAVEHDR{};
    FHeaders[i].lpData = FBufferSize > 0 ? reinterpret_cast<LPSTR>(FBuffers[i].data()) : nullptr;
    FHeaders[i].dwBufferLength = static_cast<DWORD>(FBufferSize);
  }
}

bool TWaveOutPlayer::PrepareHeaders() {
  ComPtr<ISoundStream> s = GetSource();
  if (!s || !FWaveOutThread) {
    Log(FTexts.PrepareNoSource);
    return false;
  }
  const WAVEFORMATEX f = s->GetWaveFormat();
  // The source hands over 18 bytes and nothing behind them: a cbSize that promises more
  // (an extensible or compressed record) would have the device read past the copy.
  WAVEFORMATEX device = f;
  device.cbSize = 0;
  HWAVEOUT h = nullptr;
  const HWND wnd = FWaveOutThread->Window();
  MMRESULT r =
      waveOutOpen(&h, WAVE_MAPPER, &device, reinterpret_cast<DWORD_PTR>(wnd), 0, CALLBACK_WINDOW | WAVE_ALLOWSYNC);
  FLastError.store(static_cast<int32_t>(r));
  if (r != MMSYSERR_NOERROR) {
    Log(FTexts.PrepareOpenFailed);
    if (FTexts.PrepareOpenFormat != nullptr) {
      klLog::AddToEventLog(Format(FTexts.PrepareOpenFormat, static_cast<int>(reinterpret_cast<intptr_t>(wnd)),
                                  f.wFormatTag, f.nChannels, static_cast<int>(f.nSamplesPerSec),
                                  static_cast<int>(f.nAvgBytesPerSec), f.nBlockAlign, f.wBitsPerSample, f.cbSize),
                           klLog::lkError);
    }
    return false;
  }
  {
    std::lock_guard<TCriticalSection> guard(FLock);
    FWaveOut = h;
    ResetDeviceBytes();
  }
  for (auto& header : FHeaders) {
    if (header.lpData == nullptr) return false;
    r = waveOutPrepareHeader(FWaveOut, &header, sizeof(WAVEHDR));
    FLastError.store(static_cast<int32_t>(r));
    if (r != MMSYSERR_NOERROR) {
      Log(FTexts.PrepareHeaderFailed);
      return false;
    }
  }
  return true;
}

void TWaveOutPlayer::UnprepareHeaders() {
  if (FWaveOut == nullptr) return;
  for (auto& header : FHeaders) waveOutUnprepareHeader(FWaveOut, &header, sizeof(WAVEHDR));
}

void TWaveOutPlayer::DecStopFlag() {
  int32_t n = FStopFlag.load();
  while (!FStopFlag.compare_exchange_weak(n, n > 0 ? n - 1 : 0)) {
  }
}

void TWaveOutPlayer::BlockDone(WAVEHDR* Header) {
  DecStopFlag();
  const TPlayerMode m = FMode.load();
  if (m == pmPlaying || m == pmPaused) QueueNextBuffer(Header);
}

void TWaveOutPlayer::FillWavBuffer(std::vector<uint8_t>& Block) {
  std::lock_guard<TCriticalSection> guard(FSourceLock);
  if (!FSoundStream) return;
  const int32_t free = std::min<int32_t>(WAV_BUFFER_LIMIT - FWavBuffer->GetSizeToRead(),
                                         static_cast<int32_t>(Block.size()));
  if (free <= 0) return;
  const int32_t n = FSoundStream->GetWavData(Block.data(), free);
  if (n > 0) FWavBuffer->Write(Block.data(), std::min(n, free));
}

bool TWaveOutPlayer::QueueNextBuffer(WAVEHDR* Header) {
  TQueueOutcome outcome;
  const bool result = FillAndWrite(Header, outcome);
  // Only now, with the counter Stop waits for down: a handler or the box may wait for
  // the host's thread, and the host's thread may be waiting in Stop.
  if (outcome.Finished) {
    if (TNotifyEvent handler = GetOnFinish()) {
      const TEventGuard event(this);
      handler(this);
      if (event.Gone()) return result;  // the handler destroyed the player
    }
  }
  if (outcome.Sent) {
    if (TSendingWavBlockEvent handler = GetOnSendingWavBlock()) {
      const TEventGuard event(this);
      handler(outcome.Block.data(), static_cast<int32_t>(outcome.Block.size()));
      if (event.Gone()) return result;
    }
  }
  if (outcome.WriteError != MMSYSERR_NOERROR) {
    ShowMessageBox(nullptr, WaveOutErrorText(outcome.WriteError), "Внимание", MB_ICONEXCLAMATION);
  }
  return result;
}

bool TWaveOutPlayer::FillAndWrite(WAVEHDR* Header, TQueueOutcome& Outcome) {
  // Stop waits for this too: the blocks must not change under a queueing in flight.
  FQueueing.fetch_add(1);
  struct TDone {
    std::atomic<int32_t>& Count;
    ~TDone() { Count.fetch_sub(1); }
  } done{FQueueing};
  ComPtr<ISoundStream> source = GetSource();
  if (Header == nullptr || !source) {
    klLog::AddToEventLog("TklMediaPlayer.QueueNextBuffer: (Header = nil) or (FSoundStream = nil)", klLog::lkError);
    return false;
  }
  const TPlayerMode mode = FMode.load();
  if (mode != pmPlaying && mode != pmPaused) {
    klLog::AddToEventLog("TklMediaPlayer.QueueNextBuffer: Mode in [pmPlaying, pmPaused]", klLog::lkError);
    return false;
  }
  if (FBufferSize < 1 || Header->lpData == nullptr) {
    klLog::AddToEventLog("TklMediaPlayer.QueueNextBuffer: FBufferSize < 1", klLog::lkError);
    return false;
  }

  // Top-up, for when the buffer thread has not caught up (first blocks, end of source).
  uint8_t block[4096];
  while (FWavBuffer->GetSizeToRead() < FBufferSize) {
    std::unique_lock<TCriticalSection> guard(FSourceLock);
    if (FSoundStream.Get() != source.Get()) return false;  // the source changed meanwhile
    // The buffer thread may have filled the read-ahead while this thread waited for the
    // lock: a read of 0 then only means that it took the source's last bytes first.
    if (FWavBuffer->GetSizeToRead() >= FBufferSize) break;
    const int32_t n = source->GetWavData(block, sizeof block);
    if (n > 0) {
      FWavBuffer->Write(block, std::min<int32_t>(n, sizeof block));
      continue;
    }
    guard.unlock();
    ComPtr<IFinishable> finishable;
    if (FAILED(source.As(&finishable)) || !finishable) throw Exception("Interface not supported");
    if (finishable->GetFinished()) break;
    // Not finished: ask again at once, unless the player is being stopped meanwhile.
    const TPlayerMode m = FMode.load();
    if (m != pmPlaying && m != pmPaused) return false;
  }

  const WAVEFORMATEX format = source->GetWaveFormat();
  int32_t size = ReadBlock(Header->lpData, FBufferSize, format);
  if (size == 0) {
    if (FStopFlag.load() == 0) {
      FMode.store(pmFinished);
      Outcome.Finished = true;
    }
    Log(FTexts.QueueEnd);
    return true;
  }

  if (GetOnSendingWavBlock()) {
    Outcome.Sent = true;
    Outcome.Block.assign(Header->lpData, Header->lpData + size);
  }
  if (FVolume.load() != 1.0f) ApplyVolume(Header->lpData, size, format);

  MMRESULT r;
  {
    std::lock_guard<TCriticalSection> guard(FLock);
    // A Stop that came in meanwhile has already reset the device: queue nothing more.
    const TPlayerMode m = FMode.load();
    if (m != pmPlaying && m != pmPaused) return false;
    Header->dwFlags = WHDR_PREPARED;
    Header->dwBufferLength = static_cast<DWORD>(size);
    r = waveOutWrite(FWaveOut, Header, sizeof(WAVEHDR));
    FLastError.store(static_cast<int32_t>(r));
    if (r == MMSYSERR_NOERROR) {
      FStopFlag.fetch_add(1);
      return true;
    }
  }
  Outcome.WriteError = r;
  return false;
}

void TWaveOutPlayer::ApplyVolume(void* Buffer, int32_t Size, const WAVEFORMATEX& Format) {
  const double volume = FVolume.load();
  if (Format.wBitsPerSample == 16) {
    auto* p = static_cast<int16_t*>(Buffer);
    for (int32_t i = 0, n = Size / 2; i < n; ++i) {
      p[i] = static_cast<int16_t>(Round(std::max(-32768.0, std::min(32767.0, volume * p[i]))));
    }
  } else if (Format.wBitsPerSample == 8) {
    // Taken as signed, although 8-bit PCM is unsigned: that is how the player always
    // scaled it, and hosts rely on the result.
    auto* p = static_cast<int8_t*>(Buffer);
    for (int32_t i = 0; i < Size; ++i) {
      p[i] = static_cast<int8_t>(Round(std::max(-128.0, std::min(127.0, volume * p[i]))));
    }
  }
}

bool TWaveOutPlayer::Play() {
  if (!GetSource()) {
    Log(FTexts.PlayNoSource);
    return false;
  }
  const TPlayerMode mode = FMode.load();
  if (mode == pmNotReady || mode == pmPlaying) {
    Log(FTexts.PlayBadMode);
    return false;
  }
  if (mode == pmPaused) {
    const MMRESULT r = waveOutRestart(FWaveOut);
    FLastError.store(static_cast<int32_t>(r));
    if (r == MMSYSERR_NOERROR) {
      FMode.store(pmPlaying);
      return true;
    }
    klLog::AddToEventLog("TklMediaPlayer.Play: " + klLog::GetErrorStr(r), klLog::lkError);
  }
  {
    std::lock_guard<TCriticalSection> guard(FLock);
    InitTempo(0);
  }
  FStopFlag.store(0);
  FMode.store(pmPlaying);
  bool ok = false;
  try {
    // OnFinish may come here already, from a source with less than a block, and its
    // handler may destroy the player.
    const TEventGuard event(this);
    ok = QueueNextBuffer(&FHeaders[0]) && !event.Gone() && QueueNextBuffer(&FHeaders[1]);
    if (event.Gone()) return true;
  } catch (const std::exception& E) {
    klLog::AddToEventLog(std::string("TklMediaPlayer.Play: ") + E.what(), klLog::lkError);
  }
  if (!ok) {
    Log(FTexts.PlayQueueFailed);
    Stop();
  }
  return true;
}

void TWaveOutPlayer::Pause() {
  if (FMode.load() != pmPlaying) return;
  std::lock_guard<TCriticalSection> guard(FLock);
  FLastError.store(static_cast<int32_t>(waveOutPause(FWaveOut)));
  FMode.store(pmPaused);
}

void TWaveOutPlayer::Stop() {
  const TPlayerMode mode = FMode.load();
  if (mode == pmNotReady || mode == pmStopped) return;
  FMode.store(pmStopped);
  {
    std::lock_guard<TCriticalSection> guard(FLock);
    if (FWaveOut != nullptr) waveOutReset(FWaveOut);
    ResetDeviceBytes();
  }
  // The returned blocks arrive as messages to the wave-out thread's window; a Stop
  // from that thread itself (an event handler) cannot wait for them.
  if (OnWaveOutThread()) return;
  while ((FStopFlag.load() >= 1 || FQueueing.load() > 0) && FWaveOutThread && !FWaveOutThread->Terminated() &&
         !FWaveOutThread->Finished()) {
    // Messages sent to this thread are delivered meanwhile: a handler on the wave-out
    // thread that sends one (the usual meter pattern) would otherwise never return.
    MsgWaitForMultipleObjects(0, nullptr, FALSE, 10, QS_SENDMESSAGE);
    MSG msg;
    PeekMessageA(&msg, nullptr, 0, 0, PM_NOREMOVE | PM_QS_SENDMESSAGE);
  }
}

void TWaveOutPlayer::CloseDevices() {
  if (FWaveOut != nullptr) {
    waveOutPause(FWaveOut);
    waveOutReset(FWaveOut);
    UnprepareHeaders();
    waveOutClose(FWaveOut);
    FWaveOut = nullptr;
    ResetDeviceBytes();
  }
  for (HWAVEOUT h : FOldDevices) {
    waveOutReset(h);
    waveOutClose(h);
  }
  FOldDevices.clear();
}

void TWaveOutPlayer::Close() {
  // Drained first: a device still holding blocks refuses to close.
  Stop();
  FMode.store(pmNotReady);
  {
    std::lock_guard<TCriticalSection> guard(FLock);
    CloseDevices();
  }
  SetSource(nullptr);
  FStopFlag.store(0);
  Sleep(100);
}

int32_t TWaveOutPlayer::BytesToMilliseconds(int64_t Bytes) {
  ComPtr<ISoundStream> s = GetSource();
  if (!s) return 0;
  const WAVEFORMATEX f = s->GetWaveFormat();
  if (f.nBlockAlign == 0 || f.nSamplesPerSec == 0) return 0;
  const int64_t ms = Round(static_cast<double>(std::max<int64_t>(0, Bytes)) / f.nBlockAlign / f.nSamplesPerSec * 1000);
  return static_cast<int32_t>(std::min<int64_t>(ms, INT32_MAX));
}

int32_t TWaveOutPlayer::GetPosition() {
  ComPtr<ISoundStream> s = GetSource();
  if (!s) return 0;
  int64_t result = s->GetPosition();
  uint64_t played;
  {
    std::lock_guard<TCriticalSection> guard(FLock);
    played = DeviceBytesPlayed();
  }
  result += Round(BytesToMilliseconds(static_cast<int64_t>(played)) * static_cast<double>(FSpeed.load()));
  return static_cast<int32_t>(std::clamp<int64_t>(result, INT32_MIN, INT32_MAX));
}

uint64_t TWaveOutPlayer::DeviceBytesPlayed() {
  MMTIME t{};
  t.wType = TIME_BYTES;
  if (FWaveOut == nullptr || waveOutGetPosition(FWaveOut, &t, sizeof t) != MMSYSERR_NOERROR || t.wType != TIME_BYTES) {
    return 0;
  }
  return FDeviceBytes.Widen(t.u.cb);
}

uint64_t TWideByteCount::Widen(uint32_t Count) {
  if (Count < FLast) FHigh += uint64_t{1} << 32;
  FLast = Count;
  return FHigh + Count;
}

void TWaveOutPlayer::ResetDeviceBytes() {
  FDeviceBytes = TWideByteCount();
}

void TWaveOutPlayer::SetPosition(int32_t Ms) {
  if (!GetSource()) {
    Log(FTexts.SetPositionNoSource);
    return;
  }
  const bool wasPlaying = FMode.load() == pmPlaying;
  if (FMode.load() != pmStopped) Stop();
  {
    std::lock_guard<TCriticalSection> guard(FSourceLock);
    if (!FSoundStream) return;
    FSoundStream->SetPosition(Ms);
    FWavBuffer->Lock();
    try {
      FWavBuffer->Clear();
      uint8_t block[4096];
      while (FWavBuffer->GetSizeToRead() < WAV_BUFFER_LIMIT) {
        const int32_t n = FSoundStream->GetWavData(block, sizeof block);
        if (n <= 0) break;
        FWavBuffer->Write(block, std::min<int32_t>(n, sizeof block));
      }
    } catch (...) {
      FWavBuffer->Unlock();
      throw;
    }
    FWavBuffer->Unlock();
  }
  if (wasPlaying) Play();
}

void TWaveOutPlayer::SetSpeed(float Value) {
  if (!(Value > 0 && Value < MAX_SPEED) || Value == FSpeed.load()) return;
  FSpeed.store(Value);
  int32_t p;
  {
    // The played part is scaled by the new speed already, as the player always did.
    std::lock_guard<TCriticalSection> guard(FLock);
    p = GetPosition();
    InitTempo(Value);
  }
  // Outside the lock: the seek stops the device and waits for the wave-out thread,
  // which needs the lock to finish the block it may be queueing.
  SetPosition(p);
}

void TWaveOutPlayer::SetVolume(float Value) {
  if (!(Value >= 0 && Value <= MAX_VOLUME) || Value == FVolume.load()) return;
  FVolume.store(Value);
}

std::string TWaveOutPlayer::GetErrorMessage() const { return FLastError.load() < 1 ? "OK" : ""; }

int32_t TWaveOutPlayer::ReadBlock(void* Data, int32_t Size, const WAVEFORMATEX& Format) {
  const int32_t size = FWavBuffer->Read(Data, Size);
  if (size == 0) return 0;
  std::lock_guard<TCriticalSection> guard(FLock);
  return CorrectTempo(Data, size, Format);
}

int32_t TWaveOutPlayer::ReadSource(void* Data, int32_t Size) {
  int32_t n = FWavBuffer->Read(Data, Size);
  if (n < Size) {
    std::lock_guard<TCriticalSection> guard(FSourceLock);
    if (FSoundStream) n += std::max(0, FSoundStream->GetWavData(static_cast<uint8_t*>(Data) + n, Size - n));
  }
  return n;
}

// --- TklMediaPlayer -------------------------------------------------------------------

namespace {
const TPlayerTexts PLAYER_TEXTS = {
    "TklMediaPlayer.Play: FSoundStream = nil",
    "TklMediaPlayer.Play: Mode in [pmPlaying, pmNotReady]",
    "TklMediaPlayer.Play: QueueNextBuffer error",
    "TklMediaPlayer.QueueNextBuffer: WavBuffer.Read(...) = 0",
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
};
}  // namespace

TklMediaPlayer::TklMediaPlayer() : TWaveOutPlayer(PLAYER_TEXTS), FCorrector(std::make_unique<TTempCorrector>()) {}

TklMediaPlayer::~TklMediaPlayer() { Shutdown(); }

int32_t TklMediaPlayer::CorrectTempo(void* Data, int32_t Size, const WAVEFORMATEX& Format) {
  if (FCorrector->GetTempo() == 1.0f) return Size;
  FCorrector->SetFormat(&Format);
  return FCorrector->Correct(Data, Size);
}

void TklMediaPlayer::InitTempo(float Tempo) { FCorrector->Init(Tempo); }

}  // namespace kl::klMediaPlayer
