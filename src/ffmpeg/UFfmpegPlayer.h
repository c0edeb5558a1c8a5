// Playing any film that ffmpeg.exe reads, with picture and sound: two ffmpeg processes
// decode into two named pipes (raw RGB32 pictures, 44.1 kHz 16-bit stereo PCM) that feed
// a frames player and a wave-out player. Seeking restarts both processes.
#pragma once

#include <windows.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "channels/UPipe.h"
#include "ffmpeg/UFfmpeg.h"
#include "playback/klMediaPlayer.h"
#include "rtl/ComBase.h"
#include "rtl/Threads.h"

namespace kl::UFfmpegPlayer {

using klMediaPlayer::IVideoStream;
using klMediaPlayer::ISoundStream;
using klMediaPlayer::TFrameEvent;
using klMediaPlayer::TNotifyEvent;
using klMediaPlayer::TPlayerMode;
using klMediaPlayer::TSendingWavBlockEvent;

// Where the player finds ffmpeg.exe, relative to the running executable's folder:
// <exe folder>\ + FFmpegPath + "ffmpeg.exe". "..\common\" at start; read at every start.
extern std::string FFmpegPath;

// The start time as the player writes it after -ss: Ms as seconds with three decimals
// (1234 -> "1.234"). Numbers of fewer than three digits keep only their zeros (50 ->
// "0.0", 5 -> "0.00", 0 -> "0.000"); ffmpeg reads these as 0, which is what they were
// meant to be within a frame.
std::string StartTimeText(int32_t Ms);

// Call the public operations from one thread; OnFrame, OnSendingWavBlock and OnFinish
// come on the inner players' threads. The ffmpeg processes are never waited for or
// killed: each ends when its pipe goes away (Close, a seek, destruction) or at the end
// of the film.
class TFFmpegPlayer {
 public:
  TFFmpegPlayer();
  ~TFFmpegPlayer();
  TFFmpegPlayer(const TFFmpegPlayer&) = delete;
  TFFmpegPlayer& operator=(const TFFmpegPlayer&) = delete;

  // Closes, reads the file's information and starts both processes at position 0,
  // without playing. False for a missing file (nothing started) or when Restart fails.
  bool Open(const std::string& FileName);
  // Starts the loaded players; false only without file information. A start waits (up
  // to 5 s) until ffmpeg has delivered the first picture and sound, so that the two
  // players start together.
  bool Play();
  void Pause();
  void Stop();
  // Stops, lets go of both sources (the pipes close and ffmpeg ends), pmNotReady. Right
  // after a start it first waits (up to 3 s) until both ffmpeg processes have opened
  // their pipes, so that none of them can take the pipe of a later start.
  void Close();
  // Starts both processes at Position into new pipes and loads the players.
  bool Restart();

  // Close and Restart at Ms, and Play again after 100 ms when it was playing.
  void SetPosition(int32_t Ms);
  // The larger of the two players' values.
  int32_t GetPosition();
  int32_t GetLength();
  void SetSpeed(float Value);
  float GetSpeed() const { return FSpeed; }
  void SetVolume(float Value);
  float GetVolume() const { return FVolume; }
  void SetMute(bool Value);
  bool GetMute() const { return FMute; }
  TPlayerMode GetMode() const { return FMode.load(); }

  // Stored; the pictures are scaled to its size from the next start on.
  void SetTargetRect(const RECT& R) { FTargetRect = R; }
  // The stored rectangle, or (0, 0, film width, film height) when it is empty.
  RECT GetTargetRect();
  void SetTargetWindow(HWND Wnd) { FFramesPlayer->SetTargetWindow(Wnd); }
  HWND GetTargetWindow() const { return FFramesPlayer->GetTargetWindow(); }
  void SetTargetDC(HDC DC) { FFramesPlayer->SetTargetDC(DC); }
  HDC GetTargetDC() const { return FFramesPlayer->GetTargetDC(); }
  void SetTargetBitmap(HBITMAP BM) { FFramesPlayer->SetTargetBitmap(BM); }
  HBITMAP GetTargetBitmap() const { return FFramesPlayer->GetTargetBitmap(); }

  void SetAudioSource(ISoundStream* Stream) { FAudioPlayer->SetSource(Stream); }
  ComPtr<ISoundStream> GetAudioSource() { return FAudioPlayer->GetSource(); }
  void SetVideoSource(IVideoStream* Stream) { FFramesPlayer->SetSource(Stream); }
  ComPtr<IVideoStream> GetVideoSource() const { return FFramesPlayer->GetSource(); }

  const std::string& GetSourcePath() const { return SourcePath; }
  ComPtr<UFfmpeg::IVideoFileInfo2> GetFileInfo() const { return FFileInfo; }

  // Set on the host's thread; each call works on a copy taken under a lock.
  TNotifyEvent GetOnFinish() const;
  void SetOnFinish(TNotifyEvent Value);
  TFrameEvent GetOnFrame() const;
  void SetOnFrame(TFrameEvent Value);
  TSendingWavBlockEvent GetOnSendingWavBlock() const;
  void SetOnSendingWavBlock(TSendingWavBlockEvent Value);

 private:
  void InnerOnFinishAudio(void* Sender);
  void InnerOnFinishVideo(void* Sender);
  void InnerOnFrame(void* Data, int32_t Size);
  void InnerOnSendingWavBlock(void* Buffer, int32_t Size);
  void ProcessOnFinish();
  void ApplyVolume();
  // Until the processes of the last start have opened their pipes (bounded).
  void WaitForClients();
  // Until the pipes hold the first picture and the first sound (bounded).
  void WaitForFirstData();

  std::string SourcePath;
  std::unique_ptr<klMediaPlayer::TklMediaPlayer> FAudioPlayer;
  std::unique_ptr<klMediaPlayer::TFramesPlayer> FFramesPlayer;
  std::atomic<TPlayerMode> FMode{klMediaPlayer::pmNotReady};
  mutable TCriticalSection FEventLock;
  TNotifyEvent FOnFinish;
  TFrameEvent FOnFrame;
  TSendingWavBlockEvent FOnSendingWavBlock;
  float FSpeed = 1.0f;
  ComPtr<UFfmpeg::IVideoFileInfo2> FFileInfo;
  RECT FTargetRect{};
  int32_t Position = 0;
  bool FMute = false;
  float FVolume = 1.0f;
  // The pipes of the last start, and when it was.
  ComPtr<UPipe::INamedPipe2> FVideoPipe, FAudioPipe;
  ULONGLONG FStartedAt = 0;
  // Set while the destructor runs: late events of the inner players are dropped.
  std::atomic<bool> FClosing{false};
};

}  // namespace kl::UFfmpegPlayer
