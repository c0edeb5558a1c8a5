#include "playback/UklMediaPlayer.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <mutex>

#include "conversion/UAudioConverter.h"
#include "diagnostics/klLog.h"
#include "playback/USoundStreams.h"
#include "rtl/SysUtils.h"

namespace kl::UklMediaPlayer {

std::string PlayerModeToStr(TPlayerMode Mode) {
  // The other generation's texts, but for the one word of the first mode.
  return Mode == pmNotReady ? "NotReady" : klMediaPlayer::PlayerModeToStr(static_cast<klMediaPlayer::TPlayerMode>(Mode));
}

// --- TSoundStream ---------------------------------------------------------------------

TSoundStream::TSoundStream(const WAVEFORMATEX& Format) : FWaveFormat(Format) {}

void TSoundStream::AddToLog(const std::string& Msg, int8_t Kind) { klLog::AddToEventLog(Msg, Kind); }

int64_t TSoundStream::MillisecondsToBytes(int64_t Ms) const {
  return Round(static_cast<double>(Ms) / 1000.0 * FWaveFormat.nSamplesPerSec) * FWaveFormat.nBlockAlign;
}

int32_t TSoundStream::GetLength() {
  const int64_t total = GetTotalWavBytes();
  if (total <= 0 || FWaveFormat.nBlockAlign == 0 || FWaveFormat.nSamplesPerSec == 0) return 0;
  return static_cast<int32_t>(
      Round(static_cast<double>(total / FWaveFormat.nBlockAlign) / FWaveFormat.nSamplesPerSec * 1000));
}

// --- TWavSoundStream ------------------------------------------------------------------

TWavSoundStream::TWavSoundStream(const std::string& FileName)
    : TWavSoundStream(new USoundStreams::TWavFileSoundStream(FileName)) {}

TWavSoundStream::TWavSoundStream(klMediaPlayer::ISoundStream* File)
    : TSoundStream(File->GetWaveFormat()), FFile(File) {}

int32_t TWavSoundStream::GetWavData(void* Buffer, int32_t Size) { return FFile->GetWavData(Buffer, Size); }

void TWavSoundStream::SetPosition(int32_t Ms) {
  FFile->SetPosition(Ms);
  FPosition = FFile->GetPosition();
}

int64_t TWavSoundStream::GetTotalWavBytes() { return MillisecondsToBytes(FFile->GetLength()); }

// --- TSilenceSoundStream --------------------------------------------------------------

TSilenceSoundStream::TSilenceSoundStream(const WAVEFORMATEX& Format, int32_t LengthMs)
    : TSoundStream(Format), FTotal(LengthMs < 0 ? -1 : MillisecondsToBytes(LengthMs)) {}

int32_t TSilenceSoundStream::GetWavData(void* Buffer, int32_t Size) {
  if (Buffer == nullptr || Size < 1) return 0;
  int64_t n = Size;
  if (FTotal >= 0) n = std::max<int64_t>(0, std::min<int64_t>(n, FTotal - FDataPos));
  // Unsigned 8-bit samples are silent at their middle value.
  std::memset(Buffer, GetWaveFormat().wBitsPerSample == 8 ? 0x80 : 0, static_cast<size_t>(n));
  FDataPos += n;
  return static_cast<int32_t>(n);
}

void TSilenceSoundStream::SetPosition(int32_t Ms) {
  FPosition = std::max(0, FTotal >= 0 ? std::min(Ms, GetLength()) : Ms);
  FDataPos = MillisecondsToBytes(FPosition);
}

int64_t TSilenceSoundStream::GetTotalWavBytes() { return FTotal; }

// --- TMp3SoundStream ------------------------------------------------------------------

namespace {

const char* const ACM_PREFIX = "TMp3SoundStream.CreateAcmConverter: ";
// MP3 bytes one conversion takes at the most.
constexpr DWORD MP3_BLOCK = 8192;
constexpr int32_t READ_AHEAD_BLOCK = 65536;

std::string WavFormatText(const char* Name, const WAVEFORMATEX& F) {
  return Format("%s:  tag: %d  channels: %d  SamplesPerSec: %d  AvgBytesPerSec: %d  BlockAlign: %d  BitsPerSample: %d  "
                "cbSize: %d",
                Name, F.wFormatTag, F.nChannels, static_cast<int>(F.nSamplesPerSec), static_cast<int>(F.nAvgBytesPerSec),
                F.nBlockAlign, F.wBitsPerSample, F.cbSize);
}

std::string Mp3FormatText(const MPEGLAYER3WAVEFORMAT& M) {
  const WAVEFORMATEX& F = M.wfx;
  return Format("Mp3Format:  tag: %d  channels: %d  SamplesPerSec: %d  AvgBytesPerSec: %d  BlockAlign: %d  "
                "BitsPerSample: %d  BlockSize: %d  Flags: %d  FramesPerBlock: %d  CodecDelay: %d  cbSize: %d",
                F.wFormatTag, F.nChannels, static_cast<int>(F.nSamplesPerSec), static_cast<int>(F.nAvgBytesPerSec),
                F.nBlockAlign, F.wBitsPerSample, M.nBlockSize, static_cast<int>(M.fdwFlags), M.nFramesPerBlock,
                M.nCodecDelay, F.cbSize);
}

std::string LowerText(std::string S) {
  for (char& c : S) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return S;
}

// The ACM's driver details record as its 32-bit callers know it; a larger record of a
// 64-bit build is filled as far as that.
constexpr DWORD DRIVER_DETAILS_SIZE = 920;
static_assert(sizeof(ACMDRIVERDETAILSA) >= DRIVER_DETAILS_SIZE, "the driver details record holds 920 bytes");

BOOL CALLBACK FindLameDriver(HACMDRIVERID Id, DWORD_PTR Instance, DWORD) {
  ACMDRIVERDETAILSA details{};
  details.cbStruct = DRIVER_DETAILS_SIZE;
  if (acmDriverDetailsA(Id, &details, 0) != MMSYSERR_NOERROR) return TRUE;
  if (LowerText(details.szLongName).find("lame") == std::string::npos) return TRUE;
  *reinterpret_cast<HACMDRIVERID*>(Instance) = Id;
  return FALSE;
}

}  // namespace

TMp3SoundStream::TMp3SoundStream(TStream* Stream, int64_t Start, int64_t Len)
    : TSoundStream(WAVEFORMATEX{}), FStream(Stream), FStart(Start), FLen(Len) {
  if (Stream == nullptr) {
    AddToLog("TMp3SoundStream.Create: Stream = nil");
    return;
  }
  if (Len <= 0) {
    AddToLog("TMp3SoundStream.Create: Len <= 0");
    return;
  }
  Stream->Seek(Start, TSeekOrigin::soBeginning);
  UMp3::GetMP3Info(Stream, FMp3Info);
  if (UMp3::GetMP3FrameSize(FMp3Info, false) <= 0 || FMp3Info.Offset >= Len) {
    AddToLog("GetMP3FrameSize = 0");
    AddToLog("TMp3SoundStream.Create: Frame size = 0");
    return;
  }
  FStart = Start + FMp3Info.Offset;
  FLen = Len - FMp3Info.Offset;
  UAudioConverter::InitMp3WaveFormat(static_cast<uint32_t>(FMp3Info.SampleRate), static_cast<uint16_t>(FMp3Info.Channels),
                                     FMp3Info.BitRate, reinterpret_cast<WAVEFORMATEX*>(&FMp3Format));
  WAVEFORMATEX pcm{};
  UAudioConverter::InitPcmWaveFormat(static_cast<uint32_t>(FMp3Info.SampleRate),
                                     static_cast<uint16_t>(FMp3Info.Channels), 16, &pcm);
  SetWaveFormat(pcm);
  CreateAcmConverter();
}

TMp3SoundStream::~TMp3SoundStream() {
  // The read-ahead thread reads the stream: it ends before the stream may go.
  FMemoryBuffer.reset();
  DestroyAcmConverter();
}

bool TMp3SoundStream::CreateAcmConverter() {
  DestroyAcmConverter();
  auto* mp3 = reinterpret_cast<WAVEFORMATEX*>(&FMp3Format);
  WAVEFORMATEX wav = GetWaveFormat();
  const auto failed = [this](const char* What, MMRESULT R) {
    AddToLog(std::string(ACM_PREFIX) + What + UAudioConverter::AcmErrorText(R));
  };
  MMRESULT r = acmStreamOpen(&FAcmStream, nullptr, mp3, &wav, nullptr, 0, 0, ACM_STREAMOPENF_NONREALTIME);
  if (r != MMSYSERR_NOERROR) {
    failed("acmStreamOpen failed - ", r);
    AddToLog(Mp3FormatText(FMp3Format));
    AddToLog(WavFormatText("WavFormat", wav));
    // Without asking for a non-real-time conversion, which some drivers refuse.
    r = acmStreamOpen(&FAcmStream, nullptr, mp3, &wav, nullptr, 0, 0, 0);
  }
  if (r != MMSYSERR_NOERROR) {
    failed("acmStreamOpen 3 failed - ", r);
    WAVEFORMATEX suggested{};
    suggested.wFormatTag = WAVE_FORMAT_PCM;
    r = acmFormatSuggest(nullptr, mp3, &suggested, sizeof suggested, ACM_FORMATSUGGESTF_WFORMATTAG);
    if (r != MMSYSERR_NOERROR) {
      failed("acmFormatSuggest failed - ", r);
      FAcmStream = nullptr;
      return false;
    }
    AddToLog("After acmFormatSuggest");
    AddToLog(WavFormatText("Suggested WavFormat", suggested));
    r = acmStreamOpen(&FAcmStream, nullptr, mp3, &suggested, nullptr, 0, 0, ACM_STREAMOPENF_NONREALTIME);
    if (r == MMSYSERR_NOERROR) {
      wav = suggested;
      SetWaveFormat(wav);
    }
  }
  if (r != MMSYSERR_NOERROR) {
    failed("acmStreamOpen 2 failed - ", r);
    HACMDRIVERID lame = nullptr;
    acmDriverEnum(FindLameDriver, reinterpret_cast<DWORD_PTR>(&lame), 0);
    if (lame == nullptr) {
      AddToLog(std::string(ACM_PREFIX) + "acmDriverEnum: lame not found");
      FAcmStream = nullptr;
      return false;
    }
    if (acmDriverOpen(&FAcmDriver, lame, 0) != MMSYSERR_NOERROR) {
      AddToLog(std::string(ACM_PREFIX) + "acmDriverOpen failed");
      FAcmDriver = nullptr;
      FAcmStream = nullptr;
      return false;
    }
    if (acmStreamOpen(&FAcmStream, FAcmDriver, mp3, &wav, nullptr, 0, 0, ACM_STREAMOPENF_NONREALTIME) !=
        MMSYSERR_NOERROR) {
      AddToLog(std::string(ACM_PREFIX) + "acmStreamOpen with AcmDrv failed");
      FAcmStream = nullptr;
      DestroyAcmConverter();
      return false;
    }
  }

  // Room for all that the largest input block decodes to.
  DWORD wavSize = 0;
  r = acmStreamSize(FAcmStream, MP3_BLOCK, &wavSize, ACM_STREAMSIZEF_SOURCE);
  if (r != MMSYSERR_NOERROR) {
    failed("acmStreamSize failed - ", r);
    DestroyAcmConverter();
    return false;
  }
  if (wavSize == 0) {
    AddToLog(std::string(ACM_PREFIX) + "Mp3BufSize = 0");
    DestroyAcmConverter();
    return false;
  }
  FMp3Buf.assign(MP3_BLOCK, 0);
  FWavBuf.assign(wavSize, 0);
  r = UAudioConverter::PrepareAcmHeader(FAcmStream, FAcmHeader, FMp3Buf.data(), MP3_BLOCK, FWavBuf.data(), wavSize);
  if (r != MMSYSERR_NOERROR) {
    failed("acmStreamPrepareHeader failed - ", r);
    DestroyAcmConverter();
    return false;
  }
  FPrepared = true;
  FFirstConvert = true;
  FCarry = 0;
  return true;
}

void TMp3SoundStream::DestroyAcmConverter() {
  if (FAcmStream != nullptr) {
    if (FPrepared) {
      FAcmHeader.cbSrcLength = static_cast<DWORD>(FMp3Buf.size());
      acmStreamUnprepareHeader(FAcmStream, &FAcmHeader, 0);
    }
    acmStreamClose(FAcmStream, 0);
  }
  if (FAcmDriver != nullptr) acmDriverClose(FAcmDriver, 0);
  FPrepared = false;
  FAcmStream = nullptr;
  FAcmDriver = nullptr;
}

void TMp3SoundStream::SeekData(int64_t Offset, int32_t Ms) {
  if (FMemoryBuffer == nullptr) {
    // The first read starts the read-ahead here: until then the stream is free for a
    // derived class's own scan.
    if (FAcmStream == nullptr) return;
    FMemoryBuffer = std::make_unique<UMemoryBuffer::TMemoryBuffer>(FStream, FStart, FLen, READ_AHEAD_BLOCK);
    FPipe = std::make_unique<UMemoryBuffer::TPipe>(READ_AHEAD_BLOCK);
  }
  FMemoryBuffer->SetPosition(std::clamp<int64_t>(Offset, 0, FLen));
  FPipe->Clear();
  FCarry = 0;
  FFirstConvert = true;
  FEnded = false;
  FPosition = Ms;
}

bool TMp3SoundStream::FillBuffer() {
  if (FAcmStream == nullptr || FPipe == nullptr || FMemoryBuffer == nullptr) {
    AddToLog("TMp3SoundStream.FillBuffer: (Has = nil) or (Pipe = nil) or (FMemoryBuffer = nil)");
    return false;
  }
  if (FEnded) return false;
  const uint32_t room = static_cast<uint32_t>(FMp3Buf.size()) - FCarry;
  const int32_t got = room == 0 ? 0 : FMemoryBuffer->Read(FMp3Buf.data() + FCarry, static_cast<int32_t>(room));
  const uint32_t n = FCarry + static_cast<uint32_t>(std::max(0, got));
  // The end of the data: the decoder gives out what it still holds, once.
  const bool last = got <= 0;
  if (last) FEnded = true;
  if (n == 0) return false;
  DWORD flags = last ? ACM_STREAMCONVERTF_END : ACM_STREAMCONVERTF_BLOCKALIGN;
  if (FFirstConvert) flags |= ACM_STREAMCONVERTF_START;
  FFirstConvert = false;
  FAcmHeader.cbSrcLength = n;
  // Everything the block yields is taken, so the decoder never builds up a backlog of
  // sound that the end of the data would then cut off.
  bool pipeFailed = false;
  MMRESULT r = MMSYSERR_NOERROR;
  const bool ok = UAudioConverter::AcmConvertAll(
      FAcmStream, FAcmHeader, flags,
      [this, &pipeFailed](const uint8_t* Data, DWORD Size) {
        if (FPipe->Write(Data, static_cast<int32_t>(Size))) return true;
        AddToLog(Format("TMp3SoundStream.FillBuffer: Pipe.Write failed, AcmHeader.pbDst: %d, AcmHeader.cbDstLengthUsed: %d",
                        static_cast<int>(reinterpret_cast<intptr_t>(Data)), static_cast<int>(Size)));
        pipeFailed = true;
        return false;
      },
      r);
  if (!ok && !pipeFailed) {
    AddToLog("TMp3SoundStream.FillBuffer: acmStreamConvert failed - " + UAudioConverter::AcmErrorText(r));
    FEnded = true;
    return false;
  }
  if (pipeFailed) return false;
  // What the decoder did not take (its output was full) goes first into the next block.
  const DWORD taken = std::min<DWORD>(FAcmHeader.cbSrcLengthUsed, n);
  FCarry = last ? 0 : n - taken;
  if (FCarry > 0) std::memmove(FMp3Buf.data(), FMp3Buf.data() + taken, FCarry);
  return true;
}

int32_t TMp3SoundStream::GetWavData(void* Buffer, int32_t Size) {
  if (Buffer == nullptr || Size <= 0) {
    AddToLog("TMp3SoundStream.GetWavData: (Buffer = nil) or (BufferSize <= 0)");
    return 0;
  }
  if (FAcmStream == nullptr) return 0;
  if (FMemoryBuffer == nullptr) SeekData(0, 0);
  while (FPipe->GetSizeToRead() < Size && FillBuffer()) {
  }
  return FPipe->Read(Buffer, Size);
}

void TMp3SoundStream::SetPosition(int32_t Ms) {
  Ms = std::max(0, std::min(Ms, GetLength()));
  SeekData(Round(Ms / 1000.0 * FMp3Info.BitRate / 8), Ms);
}

int64_t TMp3SoundStream::GetTotalWavBytes() {
  if (FMp3Info.BitRate <= 0) return 0;
  return MillisecondsToBytes(Round(static_cast<double>(FLen) * 8000.0 / FMp3Info.BitRate));
}

// --- TMp3SoundStream2 -----------------------------------------------------------------

TMp3SoundStream2::TMp3SoundStream2(TStream* Stream, int64_t Start, int64_t Len) : TMp3SoundStream(Stream, Start, Len) {
  if (!GetValid()) return;
  // Offsets from the first frame header, as the read-ahead counts them.
  UMp3::TMP3Info info = FMp3Info;
  info.Offset = 0;
  // An encoder's Xing/Info frame carries no sound: the index, as the other generation's,
  // counts the sound frames behind it.
  UMp3::TMP3Info probe{};
  UMp3::TMP3XingInfo xing;
  FStream->Seek(FStart, TSeekOrigin::soBeginning);
  UMp3::GetMP3Info(FStream, probe, xing);
  FFrames = USoundStreams::IndexMp3Frames(FStream, info, FStart, FLen, xing.Present ? xing.FrameSize : 0, xing.Frames);
  FLengthFrames = xing.Frames > 0 ? xing.Frames : static_cast<int64_t>(FFrames.size());
}

void TMp3SoundStream2::SetPosition(int32_t Ms) {
  const WAVEFORMATEX& f = GetWaveFormat();
  if (FFrames.empty() || FMp3Info.SamplesPerFrame <= 0 || f.nSamplesPerSec == 0) return;
  const int64_t frame = std::min<int64_t>(
      static_cast<int64_t>(FFrames.size()) - 1, Round(std::max(0, Ms) / 1000.0 * f.nSamplesPerSec) / FMp3Info.SamplesPerFrame);
  SeekData(FFrames[static_cast<size_t>(frame)],
           static_cast<int32_t>(Round(static_cast<double>(frame) * FMp3Info.SamplesPerFrame / f.nSamplesPerSec * 1000)));
}

int64_t TMp3SoundStream2::GetTotalWavBytes() {
  return FLengthFrames * FMp3Info.SamplesPerFrame * GetBlockAlign();
}

// --- TklMediaPlayer -------------------------------------------------------------------

namespace {

const klMediaPlayer::TPlayerTexts PLAYER_TEXTS = {
    "TklMediaPlayer.Play: FSoundStream = nil",
    "TklMediaPlayer.Play: Mode = not ready",
    "TklMediaPlayer.Play: QueueNextBuffer failed",
    "QueueNextBuffer: DataSize = 0",
    "TklMediaPlayer.PrepareHeaders: FSoundStream = nil",
    "TklMediaPlayer.PrepareHeaders: waveOutOpen failed",
    "TklMediaPlayer.PrepareHeaders: waveOutPrepareHeader failed ",
    "WaveOutThread.Wnd: %d  FormatTag: %d  Channels: %d  SamplesPerSec: %dAvgBytesPerSec: %d  BlockAlign: %d  "
    "wBitsPerSample: %d  cbSize: %d",
    "TklMediaPlayer.SetPosition: FSoundStream = nil",
    "TklMediaPlayer.AdjustBufferSize: FSoundStream = nil",
};

// A TSoundStream as the interface the wave-out player pulls from.
class TSoundStreamSource : public TInterfacedObject<klMediaPlayer::ISoundStream> {
 public:
  explicit TSoundStreamSource(std::shared_ptr<TSoundStream> Stream) : FStream(std::move(Stream)) {}
  int32_t STDMETHODCALLTYPE GetPosition() override { return FStream->GetPosition(); }
  void STDMETHODCALLTYPE SetPosition(int32_t Value) override { FStream->SetPosition(Value); }
  int32_t STDMETHODCALLTYPE GetLength() override { return FStream->GetLength(); }
  int32_t STDMETHODCALLTYPE GetWavData(void* Buffer, int32_t Size) override { return FStream->GetWavData(Buffer, Size); }
  WAVEFORMATEX STDMETHODCALLTYPE GetWaveFormat() override { return FStream->GetWaveFormat(); }

 private:
  std::shared_ptr<TSoundStream> FStream;
};

}  // namespace

TklMediaPlayer::TklMediaPlayer()
    : TWaveOutPlayer(PLAYER_TEXTS), FTempCorrectedPipe(MakeInterface<UPipe::IPipe, UPipe::TPipe>(131072)) {
  if (!FTempCorrectedPipe) throw std::bad_alloc();
  if (USoundTouchDLL::SoundTouchCreateInstance == nullptr) {
    klLog::AddToEventLog("TklMediaPlayer.Create: SoundTouchCreateInstance not assigned", klLog::lkError);
    return;
  }
  try {
    FSoundTouch = std::make_unique<USoundTouchDLL::TSoundTouch>();
  } catch (const std::exception&) {
    klLog::AddToEventLog("TklMediaPlayer.Create: TSoundTouch.Create failed", klLog::lkError);
  }
}

TklMediaPlayer::~TklMediaPlayer() { Shutdown(); }

void TklMediaPlayer::Close() {
  TWaveOutPlayer::Close();
  FSoundStream.reset();
}

bool TklMediaPlayer::OpenFile(const std::string& FileName) {
  if (!FileExists(FileName)) {
    klLog::AddToEventLog("TklMediaPlayer.OpenFile: file not found " + FileName, klLog::lkError);
    return false;
  }
  const std::string ext = LowerText(ExtractFileExt(FileName));
  try {
    if (ext == ".wav") return OpenSoundStream(std::make_unique<TWavSoundStream>(FileName));
    if (ext == ".mp3") {
      auto file = std::make_unique<TFileStream>(FileName, fmOpenRead | fmShareDenyWrite);
      auto stream = std::make_unique<TMp3SoundStream>(file.get(), 0, file->GetSize());
      stream->OwnStream(std::move(file));
      return OpenMp3(std::move(stream), "TklMediaPlayer.OpenFile");
    }
  } catch (const std::exception& E) {
    // The WAV reader has said why; a file that would not open says it here.
    if (dynamic_cast<const EAbort*>(&E) == nullptr) {
      klLog::AddToEventLog("TklMediaPlayer.OpenFile: " + std::string(E.what()), klLog::lkError);
    }
    return false;
  }
  klLog::AddToEventLog("TklMediaPlayer.OpenFile: unknown file type " + FileName, klLog::lkError);
  return false;
}

bool TklMediaPlayer::OpenMp3Stream(TStream* Stream, int64_t Start, int64_t Len) {
  if (Stream == nullptr || Start < 0 || Len <= 0) {
    klLog::AddToEventLog("TklMediaPlayer.OpenMp3Stream: invalid args", klLog::lkError);
    return false;
  }
  return OpenMp3(std::make_unique<TMp3SoundStream>(Stream, Start, Len), "TklMediaPlayer.OpenMp3Stream");
}

bool TklMediaPlayer::OpenMp3Stream2(TStream* Stream, int64_t Start, int64_t Len) {
  if (Stream == nullptr || Start < 0 || Len <= 0) {
    klLog::AddToEventLog("TklMediaPlayer.OpenMp3Stream2: invalid args", klLog::lkError);
    return false;
  }
  return OpenMp3(std::make_unique<TMp3SoundStream2>(Stream, Start, Len), "TklMediaPlayer.OpenMp3Stream2");
}

bool TklMediaPlayer::OpenMp3(std::unique_ptr<TMp3SoundStream> Stream, const char* Name) {
  // The stream has logged why it cannot decode.
  if (!Stream->GetValid()) return false;
  OpenSoundStream(std::move(Stream));
  if (GetBlockSize() < 1) {
    klLog::AddToEventLog(std::string(Name) + ": AdjustBufferSize failed", klLog::lkError);
    return false;
  }
  if (GetErrorMessage() != "OK") {
    klLog::AddToEventLog(std::string(Name) + ": PrepareHeaders failed", klLog::lkError);
    return false;
  }
  return true;
}

bool TklMediaPlayer::OpenSoundStream(std::unique_ptr<TSoundStream> Stream) {
  SetSource(nullptr);
  FSoundStream = std::move(Stream);
  if (!FSoundStream) return false;
  ComPtr<klMediaPlayer::ISoundStream> source = new TSoundStreamSource(FSoundStream);
  // A file source ends when a read gives nothing.
  ComPtr<klMediaPlayer::ISoundStream> finishing = new USoundStreams::TFinishingSoundStream(source.Get());
  SetSource(finishing.Get());
  std::lock_guard<TCriticalSection> guard(DeviceLock());
  InitTempo(0);
  return GetBlockSize() > 0;
}

void TklMediaPlayer::InitSoundTouch() {
  if (!FSoundTouch || !FSoundStream) return;
  const WAVEFORMATEX f = FSoundStream->GetWaveFormat();
  const auto step = [](const char* Name, auto&& Action) {
    try {
      Action();
    } catch (const std::exception& E) {
      klLog::AddToEventLog(std::string("TklMediaPlayer.InitSoundTouch: ") + Name + " - " + E.what(), klLog::lkWarning);
    }
  };
  step("Channels", [&] { FSoundTouch->SetChannels(f.nChannels); });
  step("SampleRate", [&] { FSoundTouch->SetSampleRate(static_cast<float>(f.nSamplesPerSec)); });
  step("Tempo", [&] { FSoundTouch->SetTempo(GetSpeed()); });
}

void TklMediaPlayer::InitTempo(float) {
  // The speed is the player's; SoundTouch starts afresh with it.
  if (FSoundTouch) {
    FSoundTouch->Clear();
    InitSoundTouch();
  }
  FTempCorrectedPipe->Clear();
}

int32_t TklMediaPlayer::ReadBlock(void* Data, int32_t Size, const WAVEFORMATEX& Format) {
  if (GetSpeed() == 1.0f) return TWaveOutPlayer::ReadBlock(Data, Size, Format);
  std::lock_guard<TCriticalSection> guard(DeviceLock());
  FillTempCorrectedPipe();
  return FTempCorrectedPipe->Read(Data, Size);
}

void TklMediaPlayer::FillTempCorrectedPipe() {
  if (!FSoundStream) return;
  if (!FSoundTouch) {
    klLog::AddToEventLog("FillTempCorrectedPipe: FSoundTouch = nil", klLog::lkError);
    return;
  }
  const int32_t channels = std::max<int32_t>(1, FSoundStream->GetWaveFormat().nChannels);
  const int32_t blockSize = GetBlockSize();
  const int32_t samples = blockSize / 2;
  const int32_t frames = samples / channels;
  std::vector<float> floats(static_cast<size_t>(samples));
  std::vector<int16_t> block(static_cast<size_t>(samples) + 1);
  while (FTempCorrectedPipe->GetSizeToRead() < blockSize) {
    const int32_t n = ReadSource(block.data(), samples * 2);
    if (n <= 0) {
      klLog::AddToEventLog("FillTempCorrectedPipe: FSoundStream.GetWavData = 0", klLog::lkError);
      return;
    }
    const int32_t count = n / 2;
    for (int32_t i = 0; i < count; ++i) floats[i] = block[i];
    FSoundTouch->PutSamples(floats.data(), static_cast<uint32_t>(count / channels));
    bool received = false;
    for (int32_t got; (got = FSoundTouch->ReceiveSamples(floats.data(), frames)) > 0;) {
      received = true;
      // Rounded, halves to even, and deliberately not clamped: an overshoot wraps.
      for (int32_t i = 0; i < got * channels; ++i) block[i] = static_cast<int16_t>(Round(floats[i]));
      FTempCorrectedPipe->Write(block.data(), got * 2 * channels);
    }
    if (!received) {
      klLog::AddToEventLog(Format("FillTempCorrectedPipe: no data from SoundTouch, NumUnprocessedSamples: %d",
                                  static_cast<int>(FSoundTouch->GetNumUnprocessedSamples())),
                           klLog::lkError);
    }
  }
}

}  // namespace kl::UklMediaPlayer
