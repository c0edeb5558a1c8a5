#include "ffmpeg/UFfmpegPlayer.h"

#include <algorithm>
#include <cmath>
#include <mutex>
#include <utility>

#include "channels/UPipe.h"
#include "conversion/UAudioConverter.h"
#include "diagnostics/klFiles.h"
#include "diagnostics/klLog.h"
#include "ffmpeg/UVideoStreams.h"
#include "playback/USoundStreams.h"
#include "rtl/SysUtils.h"

namespace kl::UFfmpegPlayer {

using klMediaPlayer::pmFinished;
using klMediaPlayer::pmNotReady;
using klMediaPlayer::pmPaused;
using klMediaPlayer::pmPlaying;
using klMediaPlayer::pmStopped;

std::string FFmpegPath = "..\\common\\";

namespace {

// Polling interval of the player's named-pipe readers, in milliseconds.
constexpr int32_t PipeInterval = 1;
// How long after a start Close waits for the ffmpeg processes to open their pipes
// (they do after 0.2 to 2 s under Wine, depending on the load; one that fails before
// opening its pipe costs this much).
constexpr ULONGLONG ClientWaitMs = 3000;
// How long Play waits for the first picture and the first sound of a start, and how much
// sound that is (a tenth of a second, one block of the wave-out player).
constexpr ULONGLONG FirstDataWaitMs = 5000;
constexpr int64_t FirstSoundBytes = 44100 * 4 / 10;

void Log(const std::string& Msg, klLog::TLogEntryKind Kind) { klLog::AddToEventLog(Msg, Kind); }

}  // namespace

std::string StartTimeText(int32_t Ms) {
  const std::string digits = Ms == 0 ? std::string() : std::to_string(Ms);
  if (digits.size() < 3) return "0." + std::string(3 - digits.size(), '0');
  const std::string whole = digits.substr(0, digits.size() - 3);
  return (whole.empty() ? "0" : whole) + "." + digits.substr(digits.size() - 3);
}

TFFmpegPlayer::TFFmpegPlayer()
    : FAudioPlayer(std::make_unique<klMediaPlayer::TklMediaPlayer>()),
      FFramesPlayer(std::make_unique<klMediaPlayer::TFramesPlayer>()) {
  FAudioPlayer->SetOnFinish([this](void* Sender) { InnerOnFinishAudio(Sender); });
  FAudioPlayer->SetOnSendingWavBlock([this](void* Buffer, int32_t Size) { InnerOnSendingWavBlock(Buffer, Size); });
  FFramesPlayer->SetOnFinish([this](void* Sender) { InnerOnFinishVideo(Sender); });
  FFramesPlayer->SetOnFrame([this](void* Data, int32_t Size) { InnerOnFrame(Data, Size); });
}

TFFmpegPlayer::~TFFmpegPlayer() {
  FClosing = true;
  Close();
  // The wave-out player first: its threads end in its destructor, and none of its late
  // events may find the frames player gone.
  FAudioPlayer.reset();
  FFramesPlayer.reset();
}

bool TFFmpegPlayer::Open(const std::string& FileName) {
  Close();
  if (!klFiles::IsWebFile(FileName) && !FileExists(FileName)) return false;
  ComPtr<UFfmpeg::IVideoFileInfo2> info = UFfmpeg::TVideoFileInfo::Create(FileName);
  if (!info) return false;
  FFileInfo = info;
  SourcePath = FileName;
  return Restart();
}

void TFFmpegPlayer::WaitForFirstData() {
  // Each inner player starts its clock when it starts. Without this wait the frames
  // player, started first, would start its clock and then wait in the pipe for the
  // first picture, while the sound started only after that picture: the pictures
  // would run ahead of the sound by however long ffmpeg took to start.
  const RECT target = GetTargetRect();
  const int64_t frame = static_cast<int64_t>(target.right - target.left) * (target.bottom - target.top) * 4;
  const auto ready = [](const ComPtr<UPipe::INamedPipe2>& Pipe, int64_t Need) {
    // The pipe's reader stops at its buffer level: that much queued is as ready as it gets.
    return !Pipe || Pipe->GetDisconnected() ||
           Pipe->GetSizeToRead() >= std::min<int64_t>(Need, std::max(1, Pipe->GetBufferLevel()));
  };
  const ULONGLONG start = GetTickCount64();
  while (!(ready(FVideoPipe, frame) && ready(FAudioPipe, FirstSoundBytes)) && GetTickCount64() - start < FirstDataWaitMs) {
    Sleep(1);
  }
}

bool TFFmpegPlayer::Play() {
  if (!FFileInfo) return false;
  if (FMode.load() != pmPaused) WaitForFirstData();
  if (FFileInfo->GetVideoPresent() && !FFramesPlayer->Play()) {
    Log("FFmpegPlayer.Play: FramesPlayer error", klLog::lkError);
  }
  if (FFileInfo->GetAudioPresent() && !FAudioPlayer->Play()) {
    Log("FFmpegPlayer.Play: AudioPlayer error", klLog::lkError);
  }
  FMode = pmPlaying;
  Log("TFFmpegPlayer.Play: FMode := pmPlaying;", klLog::lkInformation);
  return true;
}

void TFFmpegPlayer::Pause() {
  if (FMode.load() != pmPlaying) return;
  FFramesPlayer->Pause();
  FAudioPlayer->Pause();
  FMode = pmPaused;
}

void TFFmpegPlayer::Stop() {
  FAudioPlayer->Stop();
  FFramesPlayer->Stop();
  FMode = pmStopped;
}

void TFFmpegPlayer::Close() {
  Stop();
  // Stop waits for the frame timers only a frame's time; a timer still waiting in the
  // pipe for a picture must be done before the stream it reads from goes.
  const ULONGLONG start = GetTickCount64();
  while (FFramesPlayer->GetTimers() > 0 && GetTickCount64() - start < 3000) Sleep(5);
  WaitForClients();
  // The wave-out player's own Close also closes its devices: letting go of its source
  // alone keeps every device that a start opened until the player is destroyed.
  if (FAudioPlayer->GetSource()) FAudioPlayer->Close();
  FFramesPlayer->SetSource(nullptr);
  FVideoPipe = nullptr;
  FAudioPipe = nullptr;
  FMode = pmNotReady;
  Position = 0;
  Sleep(100);
}

void TFFmpegPlayer::WaitForClients() {
  // An ffmpeg opens its pipe a few hundred milliseconds after it was started. A pipe let
  // go before that frees its name for the next start, and the late ffmpeg, still on the
  // old position, would take the new pipe in place of the new ffmpeg.
  for (;;) {
    bool waiting = false;
    for (const auto& pipe : {FVideoPipe, FAudioPipe}) {
      waiting = waiting || (pipe && !pipe->GetConnected() && !pipe->GetDisconnected());
    }
    if (!waiting || GetTickCount64() - FStartedAt > ClientWaitMs) return;
    Sleep(5);
  }
}

bool TFFmpegPlayer::Restart() {
  if (!FFileInfo) return false;
  const bool hasVideo = FFileInfo->GetVideoPresent();
  const bool hasAudio = FFileInfo->GetAudioPresent();
  if (!hasVideo && !hasAudio) return false;
  const RECT target = GetTargetRect();
  const int32_t width = target.right - target.left;
  const int32_t height = target.bottom - target.top;

  ComPtr<UPipe::INamedPipe2> videoPipe;
  std::string videoOutput;
  if (hasVideo) {
    videoPipe = new UPipe::TNamedPipe("Video", PipeInterval);
    if (!videoPipe) {
      Log("TFFmpegPlayer.Restart: cannot create named pipe for video", klLog::lkError);
      return false;
    }
    videoOutput = " -map 0:v -f image2pipe -pix_fmt rgb32 -vcodec rawvideo " + videoPipe->GetName();
  }
  ComPtr<UPipe::INamedPipe2> audioPipe;
  std::string audioOutput;
  if (hasAudio) {
    audioPipe = new UPipe::TNamedPipe("Audio", PipeInterval);
    if (!audioPipe) {
      Log("TFFmpegPlayer.Restart: cannot create named pipe for audio", klLog::lkError);
      return false;
    }
    audioOutput = " -map 0:a:0 -f s16le -acodec pcm_s16le -ac 2 -ar 44100 " + audioPipe->GetName();
  }

  const std::string ffmpeg = ExtractFilePath(ExeFileName()) + FFmpegPath + "ffmpeg.exe";
  if (!FileExists(ffmpeg)) {
    Log("TFFmpegPlayer.Restart: ffmpeg.exe not found", klLog::lkError);
    return false;
  }
  const std::string start = StartTimeText(Position);

  // Started even for a film without pictures (then without an output, so ffmpeg only
  // complains and ends): the command is the same for every film.
  const std::string videoCmd = Format("\"%s\" -y -ss %s -i \"%s\" -an -s %dx%d", ffmpeg.c_str(), start.c_str(),
                                      SourcePath.c_str(), width, height) +
                               videoOutput;
  Log("TFFmpegPlayer.Restart: video cmd: " + videoCmd, klLog::lkInformation);
  if (WinExec(videoCmd.c_str(), SW_SHOW) < 32) {
    Log("WinExec( ffmpeg video ) error", klLog::lkError);
    return false;
  }
  const std::string audioCmd =
      Format("\"%s\" -y -ss %s -i \"%s\" -vn", ffmpeg.c_str(), start.c_str(), SourcePath.c_str()) + audioOutput;
  Log("TFFmpegPlayer.Restart: audio cmd: " + audioCmd, klLog::lkInformation);
  if (WinExec(audioCmd.c_str(), SW_SHOW) < 32) {
    Log("WinExec( ffmpeg audio ) error", klLog::lkError);
    return false;
  }

  FVideoPipe = videoPipe;
  FAudioPipe = audioPipe;
  FStartedAt = GetTickCount64();

  if (hasVideo) {
    const float fps = FFileInfo->GetFPS();
    ComPtr<IVideoStream> stream =
        UVideoStreams::TPipeVideoStream::Create(klMediaPlayer::VideoInfo(width, height, 32, fps), videoPipe.Get());
    if (stream) {
      static_cast<UVideoStreams::TPipeVideoStream*>(stream.Get())
          ->SetLength(static_cast<int32_t>(std::nearbyint(FFileInfo->GetFrames() / static_cast<double>(fps) * 1000.0)));
      stream->SetPosition(Position);
    }
    // No stream (a film without a frame size or rate): the frames player stays empty
    // and Play reports it.
    FFramesPlayer->SetSource(stream.Get());
  }
  if (hasAudio) {
    WAVEFORMATEX format{};
    UAudioConverter::InitPcmWaveFormat(44100, 2, 16, &format);
    // A pipe stream's length is always 0: the film's length comes from the pictures.
    ComPtr<ISoundStream> stream = new USoundStreams::TWavPipeSoundStream(format, audioPipe.Get());
    stream->SetPosition(Position);
    FAudioPlayer->SetSource(stream.Get());
  }
  return true;
}

void TFFmpegPlayer::SetPosition(int32_t Ms) {
  Log("TFFmpegPlayer.SetPosition start, mode = " + klMediaPlayer::PlayerModeToStr(FMode.load()),
      klLog::lkInformation);
  const bool wasPlaying = FMode.load() == pmPlaying;
  Close();
  Position = Ms;
  Restart();
  if (wasPlaying) {
    Sleep(100);
    Log("TFFmpegPlayer.SetPosition Play", klLog::lkInformation);
    Play();
  }
  Log("TFFmpegPlayer.SetPosition finish", klLog::lkInformation);
}

int32_t TFFmpegPlayer::GetPosition() { return std::max(FAudioPlayer->GetPosition(), FFramesPlayer->GetPosition()); }

int32_t TFFmpegPlayer::GetLength() { return std::max(FAudioPlayer->GetLength(), FFramesPlayer->GetLength()); }

void TFFmpegPlayer::SetSpeed(float Value) {
  FFramesPlayer->SetSpeed(Value);
  FAudioPlayer->SetSpeed(Value);
  FSpeed = Value;
}

void TFFmpegPlayer::ApplyVolume() { FAudioPlayer->SetVolume(FMute ? 0.0f : FVolume); }

void TFFmpegPlayer::SetVolume(float Value) {
  FVolume = Value;
  ApplyVolume();
}

void TFFmpegPlayer::SetMute(bool Value) {
  FMute = Value;
  ApplyVolume();
}

RECT TFFmpegPlayer::GetTargetRect() {
  if ((FTargetRect.right <= FTargetRect.left || FTargetRect.bottom <= FTargetRect.top) && FFileInfo) {
    return RECT{0, 0, FFileInfo->GetWidth(), FFileInfo->GetHeight()};
  }
  return FTargetRect;
}

// --- events -------------------------------------------------------------------------

TNotifyEvent TFFmpegPlayer::GetOnFinish() const {
  std::lock_guard<TCriticalSection> guard(FEventLock);
  return FOnFinish;
}

void TFFmpegPlayer::SetOnFinish(TNotifyEvent Value) {
  std::lock_guard<TCriticalSection> guard(FEventLock);
  FOnFinish = std::move(Value);
}

TFrameEvent TFFmpegPlayer::GetOnFrame() const {
  std::lock_guard<TCriticalSection> guard(FEventLock);
  return FOnFrame;
}

void TFFmpegPlayer::SetOnFrame(TFrameEvent Value) {
  std::lock_guard<TCriticalSection> guard(FEventLock);
  FOnFrame = std::move(Value);
}

TSendingWavBlockEvent TFFmpegPlayer::GetOnSendingWavBlock() const {
  std::lock_guard<TCriticalSection> guard(FEventLock);
  return FOnSendingWavBlock;
}

void TFFmpegPlayer::SetOnSendingWavBlock(TSendingWavBlockEvent Value) {
  std::lock_guard<TCriticalSection> guard(FEventLock);
  FOnSendingWavBlock = std::move(Value);
}

void TFFmpegPlayer::InnerOnFinishAudio(void* /*Sender*/) { ProcessOnFinish(); }

void TFFmpegPlayer::InnerOnFinishVideo(void* /*Sender*/) { ProcessOnFinish(); }

void TFFmpegPlayer::InnerOnFrame(void* Data, int32_t Size) {
  if (FClosing.load()) return;
  if (TFrameEvent handler = GetOnFrame()) handler(Data, Size);
}

void TFFmpegPlayer::InnerOnSendingWavBlock(void* Buffer, int32_t Size) {
  if (FClosing.load()) return;
  if (TSendingWavBlockEvent handler = GetOnSendingWavBlock()) handler(Buffer, Size);
}

void TFFmpegPlayer::ProcessOnFinish() {
  if (FClosing.load()) return;
  if (FAudioPlayer->GetMode() == pmPlaying || FFramesPlayer->GetMode() == pmPlaying) return;
  // Both inner players may finish at the same moment on their two threads: only one
  // of them makes the change, so OnFinish comes once. A finish that arrives after Stop
  // or Close belongs to the run that was stopped and changes nothing.
  TPlayerMode mode = FMode.load();
  do {
    if (mode != pmPlaying && mode != pmPaused) return;
  } while (!FMode.compare_exchange_weak(mode, pmFinished));
  if (TNotifyEvent handler = GetOnFinish()) handler(this);
}

}  // namespace kl::UFfmpegPlayer
