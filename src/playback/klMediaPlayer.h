// The media player unit: the stream interfaces every player and source agree on, the
// player modes, the wave-out player TklMediaPlayer and the tempo corrector it runs over
// every block it plays.
#pragma once

#include <windows.h>
#include <mmsystem.h>
#include <mmreg.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "channels/UPipe.h"
#include "formats/UWAV.h"
#include "rtl/ComBase.h"
#include "rtl/Threads.h"

namespace kl::klMediaPlayer {
struct IMediaStream;
struct ISoundStream;
struct IFinishable;
struct IVideoStream;
}  // namespace kl::klMediaPlayer

KL_DECLARE_IID(kl::klMediaPlayer::IMediaStream, "B7E88FD9-C51F-4D4D-8C96-949F019D5B11", 0xB7E88FD9, 0xC51F, 0x4D4D,
               0x8C, 0x96, 0x94, 0x9F, 0x01, 0x9D, 0x5B, 0x11)
KL_DECLARE_IID(kl::klMediaPlayer::ISoundStream, "D5DAF2A5-EC6C-4347-9388-2D34723F4CFE", 0xD5DAF2A5, 0xEC6C, 0x4347,
               0x93, 0x88, 0x2D, 0x34, 0x72, 0x3F, 0x4C, 0xFE)
KL_DECLARE_IID(kl::klMediaPlayer::IFinishable, "A41CDA6A-F617-45A0-9884-85CB5A1D5451", 0xA41CDA6A, 0xF617, 0x45A0,
               0x98, 0x84, 0x85, 0xCB, 0x5A, 0x1D, 0x54, 0x51)
KL_DECLARE_IID(kl::klMediaPlayer::IVideoStream, "48EEA762-8778-4401-808A-4C4A6A1D5F3F", 0x48EEA762, 0x8778, 0x4401,
               0x80, 0x8A, 0x4C, 0x4A, 0x6A, 0x1D, 0x5F, 0x3F)

namespace kl::klMediaPlayer {

// Highest tempo the corrector handles.
constexpr float MAX_TEMP = 5.0f;
// Speeds are taken strictly below MAX_SPEED; volumes up to and including MAX_VOLUME.
constexpr float MAX_SPEED = 3.0f;
constexpr float MAX_VOLUME = 5.0f;

// --- stream interfaces ----------------------------------------------------------------

// Anything with a position and a length in milliseconds.
struct IMediaStream : public IUnknown {
  virtual int32_t STDMETHODCALLTYPE GetPosition() = 0;
  virtual void STDMETHODCALLTYPE SetPosition(int32_t Value) = 0;
  virtual int32_t STDMETHODCALLTYPE GetLength() = 0;

 protected:
  ~IMediaStream() = default;
};

// A source of PCM that players pull from.
struct ISoundStream : public IMediaStream {
  using TParent = IMediaStream;
  // Copies up to Size bytes of PCM into Buffer; 0 when nothing is (or will be) there.
  virtual int32_t STDMETHODCALLTYPE GetWavData(void* Buffer, int32_t Size) = 0;
  // The PCM format (the 18 bytes of the structure, cbSize included).
  virtual WAVEFORMATEX STDMETHODCALLTYPE GetWaveFormat() = 0;

 protected:
  ~ISoundStream() = default;
};

// A source that can tell "no data yet" from "no data ever again".
struct IFinishable : public IUnknown {
  virtual bool STDMETHODCALLTYPE GetFinished() = 0;

 protected:
  ~IFinishable() = default;
};

// What a video source delivers: the frame layout and the frame rate.
struct TVideoInfo {
  BITMAPINFOHEADER Header;
  float FPS;
};

// A zeroed header with biSize 40, the size, one plane and the bit count, then the rate.
TVideoInfo VideoInfo(int32_t Width, int32_t Height, int32_t BitCount, float FPS);

// A source of video frames.
struct IVideoStream : public IMediaStream {
  using TParent = IMediaStream;
  virtual TVideoInfo STDMETHODCALLTYPE GetVideoInfo() = 0;
  // Points Data at the current frame's pixels; returns their size in bytes.
  virtual int32_t STDMETHODCALLTYPE GetFrameData(void*& Data) = 0;
  // Moves to the next frame and gives the HBITMAP holding it; false when none comes.
  virtual bool STDMETHODCALLTYPE GetFrame(uint32_t& Frame) = 0;

 protected:
  ~IVideoStream() = default;
};

// --- modes ----------------------------------------------------------------------------

enum TPlayerMode : uint8_t { pmNotReady = 0, pmStopped = 1, pmPlaying = 2, pmPaused = 3, pmFinished = 4 };

// "Not ready", "Stopped", "Playing", "Paused", "Finished"; "Unknown" for anything else.
std::string PlayerModeToStr(TPlayerMode Mode);

// --- tempo corrector ------------------------------------------------------------------

// Raises the tempo of 16-bit PCM without changing its pitch, in place: every tenth of a
// second of input loses a piece from its middle, cut where the samples on both sides of
// the cut are closest. Only tempos above 1 and up to MAX_TEMP change anything.
// Everything it ever produced also goes to "c:\debug.wav" (16 bits, 44100 Hz, mono,
// whatever the real format), written when the corrector is destroyed.
// Not thread-safe: the owner serialises Correct and Init.
class TTempCorrector {
 public:
  TTempCorrector();
  ~TTempCorrector();
  TTempCorrector(const TTempCorrector&) = delete;
  TTempCorrector& operator=(const TTempCorrector&) = delete;

  // A negative Tempo is ignored. Otherwise the counting restarts, and a Tempo other
  // than 0 becomes the new tempo (Init(0) restarts and keeps it).
  void Init(float Tempo);
  // Shortens the Size bytes at Buffer in place; returns the new size in bytes. Works on
  // whole tenth-of-a-second blocks of 16-bit values (channels are not kept together);
  // values after the last whole block are dropped. Returns Size untouched when the
  // tempo is out of range, or while the format has no sample rate.
  int32_t Correct(void* Buffer, int32_t Size);

  // The format of the data given to Correct; only the sample rate is used. The owner
  // copies its source's format here before correcting.
  WAVEFORMAT& Format() { return FFormat; }
  const WAVEFORMAT& Format() const { return FFormat; }
  // Copies the first 14 bytes of Value (a null Value clears the format).
  void SetFormat(const WAVEFORMATEX* Value);

  float GetTempo() const { return FTempo; }
  // Values (not bytes) consumed and produced since the last Init.
  int64_t GetInCount() const { return FInCount; }
  int64_t GetOutCount() const { return FOutCount; }

 private:
  // 64-bit so that the running totals never wrap, however long a source plays.
  int64_t FInCount = 0;
  int64_t FOutCount = 0;
  WAVEFORMAT FFormat{};
  float FTempo = 1.0f;
  std::unique_ptr<UWAV::TWAVFile> FDebugFile;
};

// --- media player ---------------------------------------------------------------------

class TWaveOutPlayer;

// Owns the hidden "WaveOutWindow" window that receives the device's block-done
// messages; every block after the first two is queued from this thread.
class TWaveOutThread : public TThread {
 public:
  explicit TWaveOutThread(TWaveOutPlayer* Player);
  ~TWaveOutThread() override;
  HWND Window() const { return FWindow.load(); }

 protected:
  void Execute() override;

 private:
  std::atomic<HWND> FWindow{nullptr};
  TWaveOutPlayer* FPlayer;
};

// Keeps the player's read-ahead pipe topped up from its source every 10 ms.
class TWavBufferThread : public TThread {
 public:
  explicit TWavBufferThread(TWaveOutPlayer* Player);
  ~TWavBufferThread() override;

 protected:
  void Execute() override;

 private:
  TWaveOutPlayer* FPlayer;
};

using TNotifyEvent = std::function<void(void* Sender)>;
using TSendingWavBlockEvent = std::function<void(void* Buffer, int32_t Size)>;

// The device's 32-bit byte count (it wraps after 6 h 45 min of CD audio) widened to 64
// bits: a count that went back since the last one has wrapped (positions are read far
// more often than that). A reset of the device starts a new counter.
class TWideByteCount {
 public:
  uint64_t Widen(uint32_t Count);

 private:
  uint64_t FHigh = 0;
  uint32_t FLast = 0;
};

// What a player generation logs where the two word their messages differently; a null
// text is not logged.
struct TPlayerTexts {
  const char* PlayNoSource;
  const char* PlayBadMode;
  const char* PlayQueueFailed;
  // The read-ahead gave nothing for a block: the end of the source.
  const char* QueueEnd;
  const char* PrepareNoSource;
  const char* PrepareOpenFailed;
  const char* PrepareHeaderFailed;
  // Format of a line describing the device and format of a failed open (the window
  // handle, then the format's fields in order, cbSize last).
  const char* PrepareOpenFormat;
  const char* SetPositionNoSource;
  const char* AdjustNoSource;
};

// Plays any ISoundStream on the wave-out device: two tenth-of-a-second blocks in turn,
// fed from a read-ahead pipe, with a tempo step that the generations fill in and a
// software volume. Call the public operations from one thread; the events come on the
// player's threads. A derived player calls Shutdown first in its destructor, so that no
// thread reaches its part of the object once it is going. A handler of OnFinish or
// OnSendingWavBlock may destroy the player.
class TWaveOutPlayer {
 public:
  virtual ~TWaveOutPlayer();
  TWaveOutPlayer(const TWaveOutPlayer&) = delete;
  TWaveOutPlayer& operator=(const TWaveOutPlayer&) = delete;

  void SetSource(ISoundStream* Value);
  ComPtr<ISoundStream> GetSource();

  // True unless there is no source or the mode forbids it; a failing start shows in
  // the mode (pmStopped), not in the result.
  bool Play();
  void Pause();
  void Stop();
  void Close();

  int32_t GetPosition();
  void SetPosition(int32_t Ms);
  int32_t GetLength();
  TPlayerMode GetMode() const { return FMode.load(); }
  float GetSpeed() const { return FSpeed.load(); }
  // Taken when 0 < Value < MAX_SPEED; restarts the device from the current position.
  void SetSpeed(float Value);
  float GetVolume() const { return FVolume.load(); }
  // Taken when 0 <= Value <= MAX_VOLUME.
  void SetVolume(float Value);
  int32_t BytesToMilliseconds(int64_t Bytes);
  // "OK" while the last device call succeeded, empty after a failure.
  std::string GetErrorMessage() const;
  void SetCallback(uint32_t A, uint32_t B) {
    FCallbackA = A;
    FCallbackB = B;
  }

  // Set on the host's thread, called on the player's threads: each call works on a copy
  // taken under a lock, and never while a lock or counter the host may wait for is held
  // (a handler may SendMessage to the host's thread). OnSendingWavBlock receives a copy
  // of the block, before the volume is applied, just after it was handed to the device.
  TNotifyEvent GetOnFinish() const;
  void SetOnFinish(TNotifyEvent Value);
  TSendingWavBlockEvent GetOnSendingWavBlock() const;
  void SetOnSendingWavBlock(TSendingWavBlockEvent Value);

  // Called by the player's threads.
  bool PrepareHeaders();
  void UnprepareHeaders();
  void AdjustBufferSize();
  bool QueueNextBuffer(WAVEHDR* Header);
  void DecStopFlag();
  // One round of the buffer thread: tops the read-ahead up to its limit.
  void FillWavBuffer(std::vector<uint8_t>& Block);
  // The device sent a block back (MM_WOM_DONE).
  void BlockDone(WAVEHDR* Header);
  int32_t GetBufferSize() const { return FBufferSize; }

  // The read-ahead limit: three seconds of 44.1 kHz 16-bit stereo.
  static constexpr int32_t WAV_BUFFER_LIMIT = 529200;

 protected:
  explicit TWaveOutPlayer(const TPlayerTexts& Texts);
  // Stops, ends both threads and closes the device; safe to call again.
  void Shutdown();
  // The next block of at most Size bytes as it is to be heard (tempo included), or 0
  // at the end. By default the read-ahead as it is, then CorrectTempo over it.
  virtual int32_t ReadBlock(void* Data, int32_t Size, const WAVEFORMATEX& Format);
  // Changes the tempo of a block in place; returns its new size.
  virtual int32_t CorrectTempo(void*, int32_t Size, const WAVEFORMATEX&) { return Size; }
  // Restarts the tempo step, with a new tempo unless Tempo is 0. Runs under the lock.
  virtual void InitTempo(float Tempo) = 0;
  // Source bytes in order for a tempo step: the read-ahead first, then the source itself.
  int32_t ReadSource(void* Data, int32_t Size);
  TCriticalSection& DeviceLock() { return FLock; }

 private:
  // What QueueNextBuffer reports once the queueing counter has dropped.
  struct TQueueOutcome {
    bool Finished = false;
    bool Sent = false;
    std::vector<uint8_t> Block;
    MMRESULT WriteError = MMSYSERR_NOERROR;
  };
  bool FillAndWrite(WAVEHDR* Header, TQueueOutcome& Outcome);
  // The device's byte count, widened to 64 bits across its 32-bit wrap (under FLock).
  uint64_t DeviceBytesPlayed();
  void ResetDeviceBytes();
  bool OnWaveOutThread() const;
  void ApplyVolume(void* Buffer, int32_t Size, const WAVEFORMATEX& Format);
  void CloseDevices();
  void Log(const char* Text, int8_t Kind = 1);

  TPlayerTexts FTexts;
  ComPtr<ISoundStream> FSoundStream;
  std::atomic<TPlayerMode> FMode{pmNotReady};
  std::atomic<float> FSpeed{1.0f};
  std::atomic<float> FVolume{1.0f};
  uint32_t FCallbackA = 0;
  uint32_t FCallbackB = 0;
  HWAVEOUT FWaveOut = nullptr;
  // Devices of earlier sources: kept open until Close, so that none outlives the player.
  std::vector<HWAVEOUT> FOldDevices;
  std::vector<uint8_t> FBuffers[2];
  WAVEHDR FHeaders[2]{};
  TCriticalSection FLock;
  // Serialises every use of the source and the read-ahead refills, so that blocks
  // from different threads never interleave or cross a seek.
  TCriticalSection FSourceLock;
  // Guards only the FSoundStream reference, so that GetSource (and GetPosition) never
  // waits behind a slow read of the source.
  mutable TCriticalSection FSourceRefLock;
  mutable TCriticalSection FEventLock;
  TWideByteCount FDeviceBytes;
  int32_t FBufferSize = 0;
  std::atomic<int32_t> FStopFlag{0};
  std::atomic<int32_t> FLastError{0};
  std::atomic<int32_t> FQueueing{0};
  std::unique_ptr<TWaveOutThread> FWaveOutThread;
  std::unique_ptr<TWavBufferThread> FWavBufferThread;
  ComPtr<UPipe::IPipe> FWavBuffer;
  TSendingWavBlockEvent FOnSendingWavBlock;
  TNotifyEvent FOnFinish;
};

// The player of this generation: tempo through the corrector above.
class TklMediaPlayer : public TWaveOutPlayer {
 public:
  TklMediaPlayer();
  ~TklMediaPlayer() override;

 protected:
  int32_t CorrectTempo(void* Data, int32_t Size, const WAVEFORMATEX& Format) override;
  void InitTempo(float Tempo) override;

 private:
  std::unique_ptr<TTempCorrector> FCorrector;
};

// --- frames player --------------------------------------------------------------------

using TFrameEvent = std::function<void(void* Data, int32_t Size)>;

// Shows an IVideoStream's frames at its frame rate times a speed on one target (a
// window, a device context or a bitmap) and/or hands each frame to OnFrame. Each frame
// sets a one-shot multimedia timer for the next, due at FrameCount / (FPS * Speed)
// seconds after the clock origin, so a late frame never delays the ones after it.
// Call the public operations from one thread; FrameProc, the draws, OnFrame and
// OnFinish run on the system's multimedia timer thread.
class TFramesPlayer {
 public:
  TFramesPlayer();
  // Stops and waits until no timer of this player can still call into it.
  ~TFramesPlayer();
  TFramesPlayer(const TFramesPlayer&) = delete;
  TFramesPlayer& operator=(const TFramesPlayer&) = delete;

  // Stops first.
  void SetSource(IVideoStream* Value);
  ComPtr<IVideoStream> GetSource() const { return FSource; }

  // Each setter clears all targets and keeps its own handle (kind none for 0).
  void SetTargetWindow(HWND Wnd);
  void SetTargetDC(HDC DC);
  void SetTargetBitmap(HBITMAP BM);
  void ClearTargets();
  HWND GetTargetWindow() const { return FTargetWindow; }
  HDC GetTargetDC() const { return FTargetDC; }
  HBITMAP GetTargetBitmap() const { return FTargetBitmap; }
  uint8_t GetTargetKind() const { return FTargetKind; }
  // Stored normalised (left <= right, top <= bottom). Empty: the frame's own size at
  // the origin. The frame is drawn 1:1 from its top left corner, clipped to the rectangle.
  void SetTargetRect(const RECT& R);
  RECT GetTargetRect() const { return FTargetRect; }

  // Shows the first frame at once and schedules the rest; false (mode pmFinished when
  // the source had no frame) when the first frame could not be fetched or drawn. A timer
  // still pending from before (after Pause) fires first: one chain at a time.
  bool Play();
  // The pending timer still draws one more frame, then the chain ends.
  void Pause();
  // Returns once no timer is pending (or the wait timed out).
  void Stop();
  // Restarts the clock: frame count 0, origin now.
  void InitSync();
  // Schedules the timer for the next frame.
  bool NextFrame();
  // Fetches the next frame; at the end: pmFinished and OnFinish.
  bool PrepareFrame();
  // OnFrame, then the prepared frame onto the target.
  bool DrawFrame();
  bool DrawFrameToWindow(HWND Wnd);
  bool DrawFrameToDC(HDC DC);
  bool DrawFrameToBitmap(HBITMAP BM);
  // Sleeps while timers are pending, at most a frame interval + 10 ms (1 s without FPS).
  void WaitForTimers();

  // The source's (0 without one). SetPosition does not restart the clock.
  int32_t GetPosition();
  void SetPosition(int32_t Ms);
  int32_t GetLength();
  TPlayerMode GetMode() const { return FMode.load(); }
  bool GetFinished() const { return FMode.load() == pmFinished; }
  float GetSpeed() const { return FSpeed.load(); }
  // Clamped to 0..100 and restarts the clock when it changes. Keep it above 0.
  void SetSpeed(float Value);
  TNotifyEvent GetOnFinish() const { return FOnFinish; }
  void SetOnFinish(TNotifyEvent Value) { FOnFinish = std::move(Value); }
  TFrameEvent GetOnFrame() const { return FOnFrame; }
  void SetOnFrame(TFrameEvent Value) { FOnFrame = std::move(Value); }
  int32_t GetTimers() const { return FTimers.load(); }

 private:
  static void CALLBACK FrameProc(UINT TimerID, UINT Msg, DWORD_PTR User, DWORD_PTR, DWORD_PTR);
  // Without a time-out: until no timer that exists is pending.
  void WaitForChainEnd();

  ComPtr<IVideoStream> FSource;
  std::atomic<TPlayerMode> FMode{pmNotReady};
  TNotifyEvent FOnFinish;
  TFrameEvent FOnFrame;
  std::atomic<float> FSpeed{1.0f};
  HDC FTargetDC = nullptr;
  HBITMAP FTargetBitmap = nullptr;
  HWND FTargetWindow = nullptr;
  uint8_t FTargetKind = 0;
  RECT FTargetRect{};
  HBITMAP FFrame = nullptr;
  int32_t FFrameCount = 0;
  uint32_t FStartTicks = 0;
  // Timers set and whose callback has not yet returned.
  std::atomic<int32_t> FTimers{0};
  // Timers the system refused: counted in FTimers but never coming.
  std::atomic<int32_t> FLostTimers{0};
};

}  // namespace kl::klMediaPlayer
