#include "conversion/UAudioConverter.h"

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>

#include "rtl/Dialogs.h"
#include "rtl/SysUtils.h"
#include "rtl/Threads.h"

namespace kl::UAudioConverter {

namespace {

constexpr uint16_t kPcmTag = WAVE_FORMAT_PCM;
constexpr uint16_t kMp3Tag = 85;
constexpr uint32_t kBaseFormatSize = 18;

// Numbers every converter and writer of the process, so that their log lines can be
// told apart.
std::atomic<int32_t> GInstanceCount{0};

std::string MakeName(const char* ClassName) { return Format("%s_%d", ClassName, ++GInstanceCount); }

class TConverterLog {
 public:
  TConverterLog() {
    const std::string dir = ExtractFilePath(ExeFileName());
    // A log held exclusively by someone else: fall back to numbered names.
    for (int i = 0; i < 10 && FHandle == INVALID_HANDLE_VALUE; ++i) {
      const std::string name =
          i == 0 ? dir + "AudioConverter.log" : dir + "AudioConverter" + Format("_%d.log", i);
      FHandle = CreateFileA(name.c_str(), FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                            OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
      if (FHandle != INVALID_HANDLE_VALUE) FFileName = name;
    }
  }
  ~TConverterLog() {
    if (FHandle != INVALID_HANDLE_VALUE) CloseHandle(FHandle);
  }
  TConverterLog(const TConverterLog&) = delete;
  TConverterLog& operator=(const TConverterLog&) = delete;

  void Add(const std::string& Msg) {
    if (Msg.empty()) return;
    std::lock_guard<TCriticalSection> lock(FLock);
    if (FHandle == INVALID_HANDLE_VALUE) return;
    SYSTEMTIME t;
    GetLocalTime(&t);
    const std::string stamp = Format("%04u.%02u.%02u %02u:%02u:%02u.%03u", t.wYear, t.wMonth, t.wDay, t.wHour,
                                     t.wMinute, t.wSecond, t.wMilliseconds);
    const std::string entry = Format("%s\r\n%s\r\n\r\n", stamp.c_str(), Msg.c_str());
    DWORD written = 0;
    WriteFile(FHandle, entry.data(), static_cast<DWORD>(entry.size()), &written, nullptr);
  }
  const std::string& FileName() const { return FFileName; }

 private:
  TCriticalSection FLock;
  HANDLE FHandle = INVALID_HANDLE_VALUE;
  std::string FFileName;
};

TConverterLog& Log() {
  static TConverterLog log;
  return log;
}

bool SameFormat(const std::vector<uint8_t>& A, const std::vector<uint8_t>& B) { return A == B; }

// The same PCM data whether written in an extensible or a plain record.
bool SamePcm(const WAVEFORMATEX* A, const WAVEFORMATEX* B) {
  if (!IsPcmFormat(A) || !IsPcmFormat(B)) return false;
  const WAVEFORMATEX a = PlainPcmFormat(*A), b = PlainPcmFormat(*B);
  return std::memcmp(&a, &b, kBaseFormatSize) == 0;
}

// An 18-byte 16-bit PCM format.
std::vector<uint8_t> Pcm16Format(uint32_t SamplesPerSec, uint16_t Channels) {
  std::vector<uint8_t> block(kBaseFormatSize, 0);
  InitPcmWaveFormat(SamplesPerSec, Channels, 16, reinterpret_cast<WAVEFORMATEX*>(block.data()));
  return block;
}

const WAVEFORMATEX* AsFormatPtr(const std::vector<uint8_t>& Block) {
  return reinterpret_cast<const WAVEFORMATEX*>(Block.data());
}

struct TFormatEntry {
  DWORD SamplesPerSec;
  DWORD AvgBytesPerSec;
};

BOOL CALLBACK FormatEnumCallback(HACMDRIVERID, LPACMFORMATDETAILSA Details, DWORD_PTR Instance, DWORD) {
  auto* list = reinterpret_cast<std::vector<TFormatEntry>*>(Instance);
  if (Details != nullptr && Details->pwfx != nullptr) {
    list->push_back({Details->pwfx->nSamplesPerSec, Details->pwfx->nAvgBytesPerSec});
  }
  return TRUE;
}

// Rates, sizes and channels that a codec can divide by; a PCM record whose block and
// byte rate follow from its channels, depth and rate.
bool PlausibleFormat(const WAVEFORMATEX* F) {
  if (F->nChannels == 0 || F->nSamplesPerSec == 0 || F->nAvgBytesPerSec == 0 || F->nBlockAlign == 0) return false;
  if (!IsPcmFormat(F)) return true;
  const uint16_t bits = F->wBitsPerSample;
  return (bits == 8 || bits == 16 || bits == 24 || bits == 32) && F->nBlockAlign == F->nChannels * bits / 8 &&
         F->nAvgBytesPerSec == static_cast<DWORD>(F->nBlockAlign) * F->nSamplesPerSec;
}

uint32_t Distance(uint32_t A, uint32_t B) { return A > B ? A - B : B - A; }

}  // namespace

// --- the unit log -------------------------------------------------------------------

void AddToConverterLog(const std::string& Msg) { Log().Add(Msg); }

std::string GetConverterLogFileName() { return Log().FileName(); }

// --- wave formats -------------------------------------------------------------------

void InitPcmWaveFormat(uint32_t SamplesPerSec, uint16_t Channels, uint16_t BitsPerSample, WAVEFORMATEX* Format) {
  if (Format == nullptr) return;
  std::memset(Format, 0, kBaseFormatSize);
  Format->wFormatTag = kPcmTag;
  Format->nChannels = Channels;
  Format->nSamplesPerSec = SamplesPerSec;
  Format->wBitsPerSample = BitsPerSample;
  Format->nBlockAlign = static_cast<uint16_t>(Channels * BitsPerSample / 8);
  Format->nAvgBytesPerSec = static_cast<DWORD>(Format->nBlockAlign) * SamplesPerSec;
  Format->cbSize = 0;
}

void CreatePcmWaveFormat(uint32_t SamplesPerSec, uint16_t Channels, uint16_t BitsPerSample,
                         WAVEFORMATEX*& Format) {
  Format = static_cast<WAVEFORMATEX*>(std::malloc(kBaseFormatSize));
  InitPcmWaveFormat(SamplesPerSec, Channels, BitsPerSample, Format);
}

void InitMp3WaveFormat(uint32_t SamplesPerSec, uint16_t Channels, int32_t BitRate, WAVEFORMATEX* Format) {
  if (Format == nullptr) return;
  if (BitRate < 1000) BitRate *= 1000;
  auto* mp3 = reinterpret_cast<MPEGLAYER3WAVEFORMAT*>(Format);
  std::memset(mp3, 0, sizeof(MPEGLAYER3WAVEFORMAT));
  Format->wFormatTag = kMp3Tag;
  Format->nChannels = Channels;
  Format->nSamplesPerSec = SamplesPerSec;
  Format->nAvgBytesPerSec = static_cast<DWORD>(BitRate / 8);
  Format->nBlockAlign = 1;
  Format->wBitsPerSample = 0;
  Format->cbSize = MPEGLAYER3_WFX_EXTRA_BYTES;
  mp3->wID = MPEGLAYER3_ID_MPEG;
  mp3->fdwFlags = 0;
  // A zero rate would divide by zero; such a format is refused by the codec anyway.
  mp3->nBlockSize =
      SamplesPerSec == 0 ? 1 : static_cast<WORD>(144LL * BitRate / static_cast<int64_t>(SamplesPerSec) + 1);
  mp3->nFramesPerBlock = 1;
  mp3->nCodecDelay = 1393;
}

void CreateMp3WaveFormat(uint32_t SamplesPerSec, uint16_t Channels, int32_t BitRate, WAVEFORMATEX*& Format) {
  Format = static_cast<WAVEFORMATEX*>(std::malloc(sizeof(MPEGLAYER3WAVEFORMAT)));
  InitMp3WaveFormat(SamplesPerSec, Channels, BitRate, Format);
}

int32_t GetPreferedSamplePerSec(int32_t BitRate) {
  if (BitRate < 1000) BitRate *= 1000;
  if (BitRate >= 128000) return 44100;
  if (BitRate <= 32000) return 8000;
  return 22050;
}

bool FindMatchFormat(WAVEFORMATEX* Format) {
  if (Format == nullptr) return false;
  DWORD maxSize = 0;
  if (acmMetrics(nullptr, ACM_METRIC_MAX_SIZE_FORMAT, &maxSize) != 0 || maxSize < kBaseFormatSize) return false;
  const uint16_t channels = static_cast<uint16_t>(std::min(2, std::max(1, static_cast<int>(Format->nChannels))));

  std::vector<uint8_t> block(maxSize, 0);
  auto* wfx = reinterpret_cast<WAVEFORMATEX*>(block.data());
  wfx->wFormatTag = Format->wFormatTag;
  wfx->nChannels = channels;
  ACMFORMATDETAILSA details{};
  details.cbStruct = sizeof details;
  details.dwFormatTag = Format->wFormatTag;
  details.pwfx = wfx;
  details.cbwfx = maxSize;

  std::vector<TFormatEntry> list;
  const MMRESULT r = acmFormatEnumA(nullptr, &details, FormatEnumCallback, reinterpret_cast<DWORD_PTR>(&list),
                                    ACM_FORMATENUMF_WFORMATTAG | ACM_FORMATENUMF_NCHANNELS);
  if (r != 0 || list.empty()) return false;

  DWORD byteRate = list[0].AvgBytesPerSec;
  uint32_t best = Distance(Format->nAvgBytesPerSec, byteRate);
  for (size_t i = 1; i < list.size() && best != 0; ++i) {
    const uint32_t d = Distance(Format->nAvgBytesPerSec, list[i].AvgBytesPerSec);
    if (d < best) {
      best = d;
      byteRate = list[i].AvgBytesPerSec;
    }
  }
  DWORD rate = Format->nSamplesPerSec;
  uint32_t bestRate = 1000000;
  for (const TFormatEntry& e : list) {
    if (bestRate == 0) break;
    if (e.AvgBytesPerSec != byteRate) continue;
    const uint32_t d = Distance(Format->nSamplesPerSec, e.SamplesPerSec);
    if (d < bestRate) {
      bestRate = d;
      rate = e.SamplesPerSec;
    }
  }
  Format->nChannels = channels;
  Format->nAvgBytesPerSec = byteRate;
  Format->nSamplesPerSec = rate;
  return true;
}

bool IsFloatFormat(const WAVEFORMATEX* Format) {
  return Format != nullptr &&
         (Format->wFormatTag == WAVE_FORMAT_IEEE_FLOAT ||
          (Format->wFormatTag == WAVE_FORMAT_EXTENSIBLE && !IsPcmFormat(Format))) &&
         Format->wBitsPerSample == 32;
}

bool IsPcmFormat(const WAVEFORMATEX* Format) {
  if (Format == nullptr) return false;
  if (Format->wFormatTag == kPcmTag) return true;
  constexpr size_t kSubFormatAt = offsetof(WAVEFORMATEXTENSIBLE, SubFormat);
  if (Format->wFormatTag != WAVE_FORMAT_EXTENSIBLE || kBaseFormatSize + Format->cbSize < kSubFormatAt + sizeof(GUID)) {
    return false;
  }
  // KSDATAFORMAT_SUBTYPE_PCM, spelt out: its header wants a GUID definition unit.
  static constexpr GUID kPcmSubFormat = {0x00000001, 0x0000, 0x0010, {0x80, 0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71}};
  GUID sub;
  std::memcpy(&sub, reinterpret_cast<const uint8_t*>(Format) + kSubFormatAt, sizeof sub);
  return std::memcmp(&sub, &kPcmSubFormat, sizeof sub) == 0;
}

WAVEFORMATEX PlainPcmFormat(const WAVEFORMATEX& Format) {
  WAVEFORMATEX r{};
  std::memcpy(&r, &Format, kBaseFormatSize);
  if (Format.wFormatTag != kPcmTag && IsPcmFormat(&Format)) {
    r.wFormatTag = kPcmTag;
    r.cbSize = 0;
  }
  return r;
}

std::string AcmErrorText(MMRESULT Code) {
  switch (Code) {
    case 0:
      return std::string();
    case 5:
      return "The specified handle is invalid";
    case 6:
      return "No device driver present";
    case 7:
      return "The system is unable to allocate resources";
    case 10:
      return "At least one flag is invalid";
    case 11:
      return "At least one parameter is invalid";
    case 512:
      return "The requested operation cannot be performed";
    case 513:
      return "The stream header specified in pash is currently in use and cannot be reused";
    case 514:
      return "The stream header specified in pash is currently not prepared";
    default:
      return "Unknown error";
  }
}

// --- TBaseAudioConverter ------------------------------------------------------------

TBaseAudioConverter::TBaseAudioConverter(const char* ClassName)
    : FName(MakeName(ClassName)), FClassName(ClassName) {
  AddToConverterLog("TBaseAudioConverter.Create: " + FName);
}

TBaseAudioConverter::~TBaseAudioConverter() { AddToConverterLog("TBaseAudioConverter.Destroy: " + FName); }

void TBaseAudioConverter::CopyFormat(std::vector<uint8_t>& Block, const WAVEFORMATEX* Format) {
  const auto* p = reinterpret_cast<const uint8_t*>(Format);
  Block.assign(p, p + GetWaveFormatSize(Format));
}

void TBaseAudioConverter::Fail(const std::string& Msg) {
  FLastError = Msg;
  AddToConverterLog(Msg);
}

bool STDMETHODCALLTYPE TBaseAudioConverter::SetInFormat(const WAVEFORMATEX* Format) {
  if (Format == nullptr) return false;
  SetChanged();
  CopyFormat(FInFormat, Format);
  return true;
}

bool STDMETHODCALLTYPE TBaseAudioConverter::SetOutFormat(const WAVEFORMATEX* Format) {
  if (Format == nullptr) return false;
  SetChanged();
  CopyFormat(FOutFormat, Format);
  return true;
}

bool STDMETHODCALLTYPE TBaseAudioConverter::SetOutStream(IWritable* Next) {
  FNext = Next;
  return Next != nullptr;
}

bool STDMETHODCALLTYPE TBaseAudioConverter::Write(const void* Data, int32_t DataSize) {
  AddToConverterLog(Format("TBaseAudioConverter.Write:  %s [%s]  %08llX %d", FName.c_str(), FClassName.c_str(),
                           static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(Data)), DataSize));
  FFinished = false;
  return true;
}

bool STDMETHODCALLTYPE TBaseAudioConverter::Finish() {
  AddToConverterLog("TBaseAudioConverter.Finish: " + FClassName);
  if (FFinished) return false;
  FFinished = true;
  return FNext ? FNext->Finish() : true;
}

// --- TFloatToPcmConverter -----------------------------------------------------------

TFloatToPcmConverter::TFloatToPcmConverter() : TBaseAudioConverter("TFloatToPcmConverter") {}

bool STDMETHODCALLTYPE TFloatToPcmConverter::SetInFormat(const WAVEFORMATEX* Format) {
  // A block shorter than its samples would make Write read past the caller's data.
  if (!IsFloatFormat(Format) || Format->nChannels == 0 || Format->nBlockAlign < Format->nChannels * 4) {
    return false;
  }
  TBaseAudioConverter::SetInFormat(Format);
  FOutFormat = Pcm16Format(Format->nSamplesPerSec, Format->nChannels);
  return true;
}

bool STDMETHODCALLTYPE TFloatToPcmConverter::SetOutFormat(const WAVEFORMATEX*) { return false; }

bool STDMETHODCALLTYPE TFloatToPcmConverter::Write(const void* Data, int32_t DataSize) {
  if (Data == nullptr || DataSize < 0) {
    Fail("TFloatToPcmConverter.Write: Invalid params");
    return false;
  }
  if (DataSize == 0) {
    AddToConverterLog("TFloatToPcmConverter.Write: DataSize = 0");
    return true;
  }
  if (FInFormat.empty() || FOutFormat.empty()) {
    Fail("TFloatToPcmConverter.Write: Format is not set");
    return false;
  }
  TBaseAudioConverter::Write(Data, DataSize);
  const WAVEFORMATEX* in = GetInFormat();
  const int32_t channels = GetOutFormat()->nChannels;
  const int32_t frames = DataSize / in->nBlockAlign;
  std::vector<int16_t> out(static_cast<size_t>(frames) * channels);
  const auto* src = static_cast<const uint8_t*>(Data);
  size_t k = 0;
  for (int32_t f = 0; f < frames; ++f) {
    const uint8_t* frame = src + static_cast<size_t>(f) * in->nBlockAlign;
    for (int32_t c = 0; c < channels; ++c) {
      float s;
      std::memcpy(&s, frame + 4 * c, 4);
      // Halves go to even under the default rounding mode; NaN carries no level.
      double v = std::nearbyint(static_cast<double>(s) * 32767.0);
      if (std::isnan(v)) v = 0;
      v = std::min(32767.0, std::max(-32768.0, v));
      out[k++] = static_cast<int16_t>(v);
    }
  }
  if (FNext && !FNext->Write(out.data(), static_cast<int32_t>(out.size() * 2))) {
    Fail("TFloatToPcmConverter.Write: Next.Write error");
    return false;
  }
  return true;
}

// --- decoding without a backlog ------------------------------------------------------

uint32_t GetMp3DecodedSizeLimit(const WAVEFORMATEX* Mp3Format, uint32_t SrcBytes, uint16_t PcmBlockAlign) {
  if (Mp3Format == nullptr || Mp3Format->nSamplesPerSec == 0) return 0;
  const uint64_t rate = Mp3Format->nSamplesPerSec;
  // MPEG-1 (32000 Hz and up): 32 kbit/s frames of 1152 samples; MPEG-2 and 2.5: 8 kbit/s
  // frames of 576 samples.
  const bool mpeg1 = rate >= 32000;
  const uint64_t smallest = std::max<uint64_t>(1, mpeg1 ? 144 * 32000 / rate : 72 * 8000 / rate);
  const uint64_t frames = SrcBytes / smallest + 2;
  const uint64_t bytes = frames * (mpeg1 ? 1152 : 576) * PcmBlockAlign;
  return static_cast<uint32_t>(std::min<uint64_t>(bytes, 64u << 20));
}

bool AcmConvertAll(HACMSTREAM Stream, ACMSTREAMHEADER& Header, DWORD Flags,
                   const std::function<bool(const uint8_t* Data, DWORD Size)>& Sink, MMRESULT& Result) {
  const DWORD srcLength = Header.cbSrcLength;
  DWORD srcUsed = 0;
  bool ok = true;
  Result = 0;
  // Bounded: a codec that kept giving output for no input would otherwise never stop.
  for (int round = 0; round < 256; ++round) {
    Header.cbDstLengthUsed = 0;
    Result = acmStreamConvert(Stream, &Header, round == 0 ? Flags : Flags & ~ACM_STREAMCONVERTF_START);
    if (Result != 0) {
      ok = false;
      break;
    }
    if (round == 0) srcUsed = Header.cbSrcLengthUsed;
    const DWORD used = std::min(Header.cbDstLengthUsed, Header.cbDstLength);
    if (used == 0) break;
    if (!Sink(Header.pbDst, used)) {
      ok = false;
      break;
    }
    Header.cbSrcLength = 0;
  }
  Header.cbSrcLength = srcLength;
  Header.cbSrcLengthUsed = srcUsed;
  return ok;
}

MMRESULT PrepareAcmHeader(HACMSTREAM Stream, ACMSTREAMHEADER& Header, uint8_t* Src, DWORD SrcSize, uint8_t* Dst,
                          DWORD DstSize) {
  Header = ACMSTREAMHEADER{};
  Header.cbStruct = sizeof Header;
  Header.pbSrc = Src;
  Header.cbSrcLength = SrcSize;
  Header.pbDst = Dst;
  Header.cbDstLength = DstSize;
  return acmStreamPrepareHeader(Stream, &Header, 0);
}

// --- TAcmConverter ------------------------------------------------------------------

TAcmConverter::TAcmConverter() : TBaseAudioConverter("TAcmConverter") {}

TAcmConverter::~TAcmConverter() { Close(); }

void TAcmConverter::Close() {
  if (FStream == nullptr) return;
  if (FPrepared) {
    FHeader.cbSrcLength = FSrcSize;
    FHeader.cbDstLength = FDstSize;
    acmStreamUnprepareHeader(FStream, &FHeader, 0);
    FPrepared = false;
  }
  std::memset(&FHeader, 0, sizeof FHeader);
  acmStreamClose(FStream, 0);
  FStream = nullptr;
}

bool TAcmConverter::Open() {
  // The compression manager takes PCM only as the plain record.
  for (std::vector<uint8_t>* block : {&FInFormat, &FOutFormat}) {
    const auto* f = reinterpret_cast<const WAVEFORMATEX*>(block->data());
    if (f->wFormatTag != kPcmTag && IsPcmFormat(f)) {
      const WAVEFORMATEX plain = PlainPcmFormat(*f);
      const auto* bytes = reinterpret_cast<const uint8_t*>(&plain);
      block->assign(bytes, bytes + kBaseFormatSize);
    }
  }
  WAVEFORMATEX* in = AsFormat(FInFormat);
  WAVEFORMATEX* out = AsFormat(FOutFormat);
  if (!FindMatchFormat(out)) {
    Fail("acmFormatSuggest error");
    ShowMessageBox(nullptr, "acmFormatSuggest error", "", MB_OK);
    return false;
  }
  if (out->wFormatTag == kPcmTag) {
    // The match may take a byte rate of another depth; the stream needs a PCM record
    // that agrees with itself.
    out->nBlockAlign = static_cast<uint16_t>(out->nChannels * out->wBitsPerSample / 8);
    out->nAvgBytesPerSec = static_cast<DWORD>(out->nBlockAlign) * out->nSamplesPerSec;
  }
  // Some codecs assert rather than fail on records like these.
  MMRESULT r = PlausibleFormat(in) && PlausibleFormat(out) ? 0 : ACMERR_NOTPOSSIBLE;
  if (r == 0) r = acmStreamOpen(&FStream, nullptr, in, out, nullptr, 0, 0, ACM_STREAMOPENF_NONREALTIME);
  if (r != 0) {
    FStream = nullptr;
    Fail("acmStreamOpen ERROR: " + AcmErrorText(r));
    ShowMessageBox(nullptr, "acmStreamOpen error", "", MB_OK);
    return false;
  }
  // From here on a failure closes the stream again, so that the next Write starts over.
  DWORD src = 0;
  DWORD dst = 0;
  if (in->wFormatTag != kPcmTag) {
    if (out->wFormatTag != kPcmTag) {
      Fail("TAcmConverter.Write: Both InFormat and OutFormat are not PCM");
      Close();
      return false;
    }
    dst = out->nAvgBytesPerSec / 10;
    r = dst == 0 ? 0 : acmStreamSize(FStream, dst, &src, ACM_STREAMSIZEF_DESTINATION);
    if (r != 0) {
      Fail("acmStreamSize Out ERROR: " + AcmErrorText(r));
      Close();
      return false;
    }
    // The size asked for counts frames of the first frame's bit rate; a block of
    // smaller frames decodes to more, and all of it has to fit.
    if (in->wFormatTag == kMp3Tag && src > 0) dst = std::max<DWORD>(dst, GetMp3DecodedSizeLimit(in, src, out->nBlockAlign));
  } else {
    src = in->nAvgBytesPerSec / 10;
    // Whole frames only: the codec leaves a broken frame unconverted.
    if (in->nBlockAlign > 0) src -= src % in->nBlockAlign;
    r = src == 0 ? 0 : acmStreamSize(FStream, src, &dst, ACM_STREAMSIZEF_SOURCE);
    if (r != 0) {
      Fail("acmStreamSize In ERROR: " + AcmErrorText(r));
      Close();
      return false;
    }
  }
  if (src == 0 || dst == 0) {
    Fail("TAcmConverter.Write: Buffer size is zero");
    Close();
    return false;
  }
  FSrcSize = src;
  FDstSize = dst;
  FPcmToPcm = in->wFormatTag == kPcmTag && out->wFormatTag == kPcmTag;
  FDecoding = in->wFormatTag != kPcmTag;
  FSrc.assign(FSrcSize, 0);
  FDst.assign(FDstSize, 0);
  r = PrepareAcmHeader(FStream, FHeader, FSrc.data(), FSrcSize, FDst.data(), FDstSize);
  if (r != 0) {
    Fail("acmStreamPrepareHeader ERROR: " + AcmErrorText(r));
    Close();
    return false;
  }
  FPrepared = true;
  FFirstConvert = true;
  FCarry = 0;
  return true;
}

bool STDMETHODCALLTYPE TAcmConverter::Write(const void* Data, int32_t DataSize) {
  if (Data == nullptr || DataSize < 0) {
    Fail("TAcmConverter.Write: Invalid params");
    return false;
  }
  if (DataSize == 0) {
    AddToConverterLog("TAcmConverter.Write: DataSize = 0");
    return true;
  }
  if (FInFormat.empty() || FOutFormat.empty()) {
    Fail("TAcmConverter.Write: Format is not set");
    return false;
  }
  TBaseAudioConverter::Write(Data, DataSize);
  if (FStream == nullptr && !Open()) return false;
  bool queued = false;
  try {
    queued = FPipe.Write(Data, DataSize);
  } catch (const std::bad_alloc&) {
    queued = false;
  }
  // These two only log: LastError keeps the reason found further in.
  if (!queued) {
    AddToConverterLog("Pipe.Write ERROR");
    return false;
  }
  if (!Convert(false)) {
    AddToConverterLog("Convert ERROR");
    return false;
  }
  return true;
}

bool TAcmConverter::Convert(bool Flush) {
  for (;;) {
    const uint32_t room = FSrcSize - FCarry;
    const uint32_t queued = static_cast<uint32_t>(FPipe.GetSizeToRead());
    // A decoder takes compressed data as it comes: what a write brought is decoded at
    // once rather than held until a whole block is there, so that all the sound the
    // source has given so far comes out.
    const bool partial = queued < room;
    if (!Flush && partial && !(FDecoding && queued > 0)) return true;
    const int32_t got = room == 0 ? 0 : FPipe.Read(FSrc.data() + FCarry, static_cast<int32_t>(room));
    const int32_t n = static_cast<int32_t>(FCarry) + std::max(0, got);
    DWORD flags = 0;
    if (FFirstConvert) {
      flags |= ACM_STREAMCONVERTF_START;
      FFirstConvert = false;
    }
    const bool last = got < 0 || Flush || (partial && !FDecoding);
    flags |= last ? ACM_STREAMCONVERTF_END : ACM_STREAMCONVERTF_BLOCKALIGN;
    FHeader.cbSrcLength = static_cast<DWORD>(n);
    FHeader.cbDstLengthUsed = 0;
    if (FDecoding) {
      MMRESULT r = 0;
      const bool ok = AcmConvertAll(
          FStream, FHeader, flags,
          [this](const uint8_t* Data, DWORD Size) { return !FNext || FNext->Write(Data, static_cast<int32_t>(Size)); },
          r);
      if (!ok) {
        Fail(r != 0 ? AcmErrorText(r) : std::string("TAcmConverter.Convert: Next.Write error"));
        return false;
      }
      // A codec that takes whole frames only leaves the rest for the next round.
      const DWORD taken = std::min<DWORD>(FHeader.cbSrcLengthUsed, static_cast<DWORD>(n));
      FCarry = !last && taken < static_cast<DWORD>(n) && (taken > 0 || static_cast<uint32_t>(n) < FSrcSize)
                   ? static_cast<uint32_t>(n) - taken
                   : 0;
      if (FCarry > 0) std::memmove(FSrc.data(), FSrc.data() + taken, FCarry);
      if (last || partial) return true;
      continue;
    }
    const MMRESULT r = acmStreamConvert(FStream, &FHeader, flags);
    if (r != 0) {
      Fail(AcmErrorText(r));
      return false;
    }
    const DWORD taken = std::min<DWORD>(FHeader.cbSrcLengthUsed, static_cast<DWORD>(n));
    FCarry = !last && taken > 0 && taken < static_cast<DWORD>(n) ? static_cast<uint32_t>(n) - taken : 0;
    if (FCarry > 0) std::memmove(FSrc.data(), FSrc.data() + taken, FCarry);
    DWORD used = std::min<DWORD>(FHeader.cbDstLengthUsed, FDstSize);
    // A resampler may hold back a few frames of a block; repeating the block's last
    // frames keeps every tenth of a second exactly as long as its input.
    if (FPcmToPcm && (flags & ACM_STREAMCONVERTF_BLOCKALIGN) != 0 && FHeader.cbSrcLengthUsed == FHeader.cbSrcLength &&
        used < FDstSize) {
      if (used == 0) {
        std::memset(FDst.data(), 0, FDstSize);
      } else {
        while (used < FDstSize) {
          const DWORD chunk = std::min(used, FDstSize - used);
          std::memmove(FDst.data() + used, FDst.data() + used - chunk, chunk);
          used += chunk;
        }
      }
      FHeader.cbDstLengthUsed = FDstSize;
    }
    if (FNext && !FNext->Write(FDst.data(), static_cast<int32_t>(used))) {
      Fail("TAcmConverter.Convert: Next.Write error");
      return false;
    }
    if (last) return true;
  }
}

bool STDMETHODCALLTYPE TAcmConverter::Finish() {
  AddToConverterLog("TAcmConverter.Finish");
  const bool result = TBaseAudioConverter::Finish();
  if (!result) return false;
  if (FStream != nullptr) {
    Convert(true);
    Close();
  }
  FPipe.Clear();
  return result;
}

bool TAcmConverter::Flush() {
  bool result = true;
  if (FStream != nullptr) {
    result = Convert(true);
    Close();
  }
  FPipe.Clear();
  return result;
}

// --- TAudioConverter ----------------------------------------------------------------

TAudioConverter::TAudioConverter() : TBaseAudioConverter("TAudioConverter") {}

TAudioConverter::~TAudioConverter() { ClearSubItems(); }

void TAudioConverter::ClearSubItems() { FSubItems.clear(); }

TBaseAudioConverter* TAudioConverter::GetSubConverter(int32_t Index) const {
  if (Index < 0 || Index >= GetSubConverterCount()) return nullptr;
  return FSubItems[static_cast<size_t>(Index)].Get();
}

bool TAudioConverter::BuildChain() {
  ClearSubItems();
  const WAVEFORMATEX* in = GetInFormat();
  const WAVEFORMATEX* out = GetOutFormat();
  std::vector<uint8_t> w;
  auto add = [this](TBaseAudioConverter* Stage) {
    if (Stage != nullptr) FSubItems.emplace_back(Stage);
    return Stage;
  };

  if (IsFloatFormat(in)) {
    TBaseAudioConverter* stage = add(new (std::nothrow) TFloatToPcmConverter());
    if (stage != nullptr && stage->SetInFormat(in)) {
      w.assign(reinterpret_cast<const uint8_t*>(stage->GetOutFormat()),
               reinterpret_cast<const uint8_t*>(stage->GetOutFormat()) + kBaseFormatSize);
    } else {
      // A float format this stage cannot read: let the compression manager try it.
      ClearSubItems();
    }
  }
  if (w.empty()) {
    // An extensible PCM input counts as its plain record: one that is already 16-bit
    // with up to two channels needs no stage.
    const WAVEFORMATEX plainIn = PlainPcmFormat(*in);
    const auto* plainBytes = reinterpret_cast<const uint8_t*>(&plainIn);
    const std::vector<uint8_t> inAsPcm =
        IsPcmFormat(in) ? std::vector<uint8_t>(plainBytes, plainBytes + kBaseFormatSize) : FInFormat;
    w.assign(FInFormat.begin(), FInFormat.begin() + kBaseFormatSize);
    auto* wf = reinterpret_cast<WAVEFORMATEX*>(w.data());
    wf->wFormatTag = kPcmTag;
    wf->wBitsPerSample = 16;
    wf->nChannels = std::min<uint16_t>(2, in->nChannels);
    wf->nBlockAlign = static_cast<uint16_t>(wf->nChannels * 2);
    wf->nAvgBytesPerSec = static_cast<DWORD>(wf->nBlockAlign) * wf->nSamplesPerSec;
    wf->cbSize = 0;
    if (!SameFormat(inAsPcm, w)) {
      TBaseAudioConverter* stage = add(new (std::nothrow) TAcmConverter());
      if (stage != nullptr) {
        stage->SetInFormat(in);
        stage->SetOutFormat(AsFormatPtr(w));
      }
    }
  }
  const WAVEFORMATEX* wf = AsFormatPtr(w);
  if (out->nChannels != wf->nChannels || out->nSamplesPerSec != wf->nSamplesPerSec ||
      out->wBitsPerSample != wf->wBitsPerSample) {
    TBaseAudioConverter* stage = add(new (std::nothrow) TAcmConverter());
    if (stage != nullptr) stage->SetInFormat(wf);
    w = Pcm16Format(out->nSamplesPerSec, out->nChannels);
    wf = AsFormatPtr(w);
    if (stage != nullptr) stage->SetOutFormat(wf);
  }
  // W is PCM here; an extensible PCM output takes the same bytes.
  if (!IsPcmFormat(out)) {
    TBaseAudioConverter* stage = add(new (std::nothrow) TAcmConverter());
    if (stage != nullptr) {
      stage->SetInFormat(wf);
      stage->SetOutFormat(out);
    }
  }
  for (size_t i = 0; i < FSubItems.size(); ++i) {
    IWritable* next = i + 1 < FSubItems.size() ? static_cast<IWritable*>(FSubItems[i + 1].Get()) : FNext.Get();
    FSubItems[i]->SetOutStream(next);
  }
  FChanged = false;
  AddToConverterLog(Format("Subconverter count: %d", GetSubConverterCount()));
  return true;
}

bool STDMETHODCALLTYPE TAudioConverter::Write(const void* Data, int32_t DataSize) {
  if (!FNext) {
    Fail("TAudioConverter.Write: Out Stream is not assigned");
    return false;
  }
  if (Data == nullptr || DataSize < 0) {
    Fail("TAudioConverter.Write: Invalid params");
    return false;
  }
  if (DataSize == 0) {
    AddToConverterLog("TAudioConverter.Write: DataSize = 0");
    return true;
  }
  if (FInFormat.empty() || FOutFormat.empty()) {
    Fail("TAudioConverter.Write: Format is not set");
    return false;
  }
  TBaseAudioConverter::Write(Data, DataSize);
  if (SameFormat(FInFormat, FOutFormat) || SamePcm(GetInFormat(), GetOutFormat())) return FNext->Write(Data, DataSize);
  if (FChanged) BuildChain();
  if (FSubItems.empty()) {
    Fail("TAudioConverter.Write: no converters");
    return false;
  }
  if (!FSubItems.front()->Write(Data, DataSize)) {
    Fail("TAudioConverter.Write: ERROR on write");
    return false;
  }
  return true;
}

bool STDMETHODCALLTYPE TAudioConverter::Finish() {
  AddToConverterLog("TBaseAudioConverter.Finish: " + FClassName);
  if (FFinished) return false;
  FFinished = true;
  if (!FSubItems.empty() && !FChanged) {
    // A stage's Finish finishes the next writer before converting its own tail: that
    // tail would reach a file writer already closed, which starts its file again.
    bool flushed = true;
    for (auto& stage : FSubItems) flushed = stage->Flush() && flushed;
    // The first stage finishes the next one and so on down to the sink.
    return FSubItems.front()->Finish() && flushed;
  }
  return FNext ? FNext->Finish() : true;
}

// --- TBaseAudioFile -----------------------------------------------------------------

TBaseAudioFile::TBaseAudioFile(const char* ClassName) : FName(MakeName(ClassName)) {
  AddToConverterLog("TBaseAudioFile.Create: " + FName);
}

TBaseAudioFile::~TBaseAudioFile() { AddToConverterLog("TBaseAudioFile.Destroy: " + FName); }

void TBaseAudioFile::SetFileName(const std::string& S) {
  if (IsOpen()) Finish();
  FFileName = S;
}

bool TBaseAudioFile::SetFormat(const WAVEFORMATEX* Format) {
  if (Format == nullptr) return false;
  const auto* p = reinterpret_cast<const uint8_t*>(Format);
  FFormat.assign(p, p + GetWaveFormatSize(Format));
  return true;
}

bool STDMETHODCALLTYPE TBaseAudioFile::Write(const void*, int32_t) {
  FFinished = false;
  return true;
}

bool STDMETHODCALLTYPE TBaseAudioFile::Finish() {
  FFinished = true;
  return true;
}

// --- TMp3AudioFile ------------------------------------------------------------------

TMp3AudioFile::TMp3AudioFile() : TBaseAudioFile("TMp3AudioFile") {}

TMp3AudioFile::~TMp3AudioFile() = default;

bool STDMETHODCALLTYPE TMp3AudioFile::Write(const void* Data, int32_t DataSize) {
  if (Data == nullptr || DataSize < 0) return false;
  if (DataSize == 0) {
    AddToConverterLog("TMp3AudioFile.Write: DataSize = 0");
    return true;
  }
  if (!FStream) {
    const std::string prefix = "\\\\.\\pipe\\";
    const bool isPipe = FFileName.size() >= prefix.size() &&
                        CompareStringA(LOCALE_SYSTEM_DEFAULT, NORM_IGNORECASE, FFileName.c_str(),
                                       static_cast<int>(prefix.size()), prefix.c_str(),
                                       static_cast<int>(prefix.size())) == CSTR_EQUAL;
    try {
      FStream = std::make_unique<TFileStream>(FFileName, isPipe ? (fmOpenWrite | fmShareDenyNone) : fmCreate);
    } catch (const Exception&) {
      return false;
    }
  }
  TBaseAudioFile::Write(Data, DataSize);
  return FStream->Write(Data, DataSize) == DataSize;
}

bool STDMETHODCALLTYPE TMp3AudioFile::Finish() {
  AddToConverterLog("TMp3AudioFile.Finish");
  FStream.reset();
  return TBaseAudioFile::Finish();
}

// --- TWavAudioFile ------------------------------------------------------------------

TWavAudioFile::TWavAudioFile() : TBaseAudioFile("TWavAudioFile") {}

TWavAudioFile::~TWavAudioFile() { CloseFile(); }

bool TWavAudioFile::OpenFile() {
  if (FFormat.size() < kBaseFormatSize || FFileName.empty()) return false;
  std::vector<char> name(FFileName.begin(), FFileName.end());
  name.push_back('\0');
  FHandle = mmioOpenA(name.data(), nullptr, MMIO_CREATE | MMIO_WRITE);
  if (FHandle == nullptr) return false;
  std::memset(&FRiff, 0, sizeof FRiff);
  std::memset(&FChunk, 0, sizeof FChunk);
  FRiff.fccType = mmioFOURCC('W', 'A', 'V', 'E');
  bool ok = mmioCreateChunk(FHandle, &FRiff, MMIO_CREATERIFF) == 0;
  if (ok) {
    FChunk.ckid = mmioFOURCC('f', 'm', 't', ' ');
    ok = mmioCreateChunk(FHandle, &FChunk, 0) == 0;
  }
  // Only the common 18 bytes, whatever the codec's extra bytes: readers of these
  // files expect the short header.
  ok = ok && mmioWrite(FHandle, reinterpret_cast<const char*>(FFormat.data()), kBaseFormatSize) ==
                 static_cast<LONG>(kBaseFormatSize);
  ok = ok && mmioAscend(FHandle, &FChunk, 0) == 0;
  if (ok) {
    std::memset(&FChunk, 0, sizeof FChunk);
    FChunk.ckid = mmioFOURCC('d', 'a', 't', 'a');
    ok = mmioCreateChunk(FHandle, &FChunk, 0) == 0;
  }
  if (!ok) {
    mmioClose(FHandle, 0);
    FHandle = nullptr;
  }
  return ok;
}

void TWavAudioFile::CloseFile() {
  if (FHandle == nullptr) return;
  mmioAscend(FHandle, &FChunk, 0);
  mmioAscend(FHandle, &FRiff, 0);
  mmioFlush(FHandle, MMIO_EMPTYBUF);
  mmioClose(FHandle, 0);
  FHandle = nullptr;
}

bool STDMETHODCALLTYPE TWavAudioFile::Write(const void* Data, int32_t DataSize) {
  if (Data == nullptr || DataSize < 0) return false;
  if (DataSize == 0) {
    AddToConverterLog("TWavAudioFile.Write: DataSize = 0");
    return true;
  }
  if (FHandle == nullptr && !OpenFile()) return false;
  TBaseAudioFile::Write(Data, DataSize);
  return mmioWrite(FHandle, static_cast<const char*>(Data), DataSize) == DataSize;
}

bool STDMETHODCALLTYPE TWavAudioFile::Finish() {
  AddToConverterLog("TWavAudioFile.Finish");
  const bool result = TBaseAudioFile::Finish();
  if (FHandle == nullptr) return result;
  CloseFile();
  return true;
}

// --- CreateAudioFile ----------------------------------------------------------------

ComPtr<TBaseAudioFile> CreateAudioFile(const std::string& FileName) {
  ComPtr<TBaseAudioFile> result;
  if (FileName.empty()) return result;
  std::string ext = ExtractFileExt(FileName);
  CharLowerBuffA(ext.data(), static_cast<DWORD>(ext.size()));
  if (ext == ".mp3") {
    result = new (std::nothrow) TMp3AudioFile();
  } else if (ext == ".wav") {
    result = new (std::nothrow) TWavAudioFile();
  }
  if (result) result->SetFileName(FileName);
  return result;
}

}  // namespace kl::UAudioConverter
