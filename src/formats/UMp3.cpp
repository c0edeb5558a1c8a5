#include "formats/UMp3.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>

#include "diagnostics/klLog.h"
#include "rtl/SysUtils.h"

namespace kl::UMp3 {

namespace {

// The Layer III bit-rate tables (kbit/s), used for Layers I and II as well on purpose:
// the frame-size formula below is the Layer III one too.
constexpr int32_t kBitRatesV1[16] = {0, 32, 40, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, -1};
constexpr int32_t kBitRatesV2[16] = {0, 8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160, -1};
// By version value (1, 2, 3) and sample-rate index 0-2.
constexpr int32_t kSampleRates[4][3] = {{0, 0, 0}, {44100, 48000, 32000}, {22050, 24000, 16000}, {11025, 12000, 8000}};
// Version value by the header's two version bits (0 = invalid).
constexpr int32_t kVersions[4] = {3, 0, 2, 1};
// Layer by the header's two layer bits (0 = invalid).
constexpr int32_t kLayers[4] = {0, 3, 2, 1};

// How far a leading tag is searched for the first header.
constexpr int32_t kSearchSize = 4096;

struct TFree {
  void operator()(void* P) const { std::free(P); }
};
using TBlock = std::unique_ptr<void, TFree>;

bool IsSync(const uint8_t* P) { return P[0] == 0xFF && (P[1] & 0xE0) == 0xE0; }

uint32_t ReadWord32(const uint8_t* P) {
  return static_cast<uint32_t>(P[0]) | static_cast<uint32_t>(P[1]) << 8 | static_cast<uint32_t>(P[2]) << 16 |
         static_cast<uint32_t>(P[3]) << 24;
}

// The four header bytes at P into Info (every field but Offset). Info is untouched on
// failure.
bool ParseHeader(const uint8_t* P, TMP3Info& Info) {
  if (!IsSync(P)) return false;
  const int32_t version = kVersions[(P[1] >> 3) & 3];
  const int32_t layer = kLayers[(P[1] >> 1) & 3];
  if (version == 0 || layer == 0) return false;
  const int32_t kbits = (version == 1 ? kBitRatesV1 : kBitRatesV2)[P[2] >> 4];
  if (kbits < 0) return false;
  const int32_t rateIndex = (P[2] >> 2) & 3;
  const bool stereo = (P[3] >> 6) < 2;

  Info.Version = version;
  Info.Layer = layer;
  Info.SamplesPerFrame = layer == 1 ? 384 : (layer == 2 || version == 1) ? 1152 : 576;
  Info.BitRate = kbits * 1000;
  Info.SampleRate = rateIndex == 3 ? 44100 : kSampleRates[version][rateIndex];
  Info.Stereo = stereo;
  Info.Channels = stereo ? 2 : 1;
  return true;
}

std::string LowerAscii(std::string S) {
  for (char& c : S) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return S;
}

}  // namespace

bool IsMP3FramePadding(uint32_t Header) { return (Header & (1u << 17)) != 0; }

bool GetMP3Info(const void* Data, int32_t Size, TMP3Info& Info) {
  std::memset(&Info, 0, sizeof Info);
  if (Data == nullptr || Size < 4) return false;
  const auto* p = static_cast<const uint8_t*>(Data);
  int32_t offset = 0;
  if (p[0] == 'I' && p[1] == 'D') {
    // A leading tag: take the first sync in the first 4096 bytes whose four header
    // bytes are all within the data; the tag's own size is not read.
    const int32_t limit = std::min(Size, kSearchSize) - 4;
    offset = -1;
    for (int32_t i = 0; i <= limit; ++i) {
      if (IsSync(p + i)) {
        offset = i;
        break;
      }
    }
    if (offset < 0) return false;
  }
  TMP3Info info{};
  if (!ParseHeader(p + offset, info)) return false;
  info.Offset = offset;
  Info = info;
  return true;
}

bool GetMP3Info(TStream* Stream, TMP3Info& Info) {
  TMP3XingInfo xing;
  return GetMP3Info(Stream, Info, xing);
}

bool GetMP3XingInfo(const void* Frame, int32_t Size, TMP3XingInfo& Xing) {
  Xing = TMP3XingInfo{};
  TMP3Info info{};
  if (Frame == nullptr || Size < 4) return false;
  const auto* p = static_cast<const uint8_t*>(Frame);
  if (!ParseHeader(p, info)) return false;
  // The tag stands right behind the side information, whose length depends on the
  // version and the channel count.
  const int32_t at = 4 + (info.Version == 1 ? (info.Channels == 2 ? 32 : 17) : (info.Channels == 2 ? 17 : 9));
  const int32_t frameSize = GetMP3FrameSize(p);
  if (Size < at + 8 || frameSize < at + 8) return false;
  const auto be32 = [p](int32_t At) {
    return static_cast<int32_t>(static_cast<uint32_t>(p[At]) << 24 | static_cast<uint32_t>(p[At + 1]) << 16 |
                                static_cast<uint32_t>(p[At + 2]) << 8 | p[At + 3]);
  };
  const bool vbr = std::memcmp(p + at, "Xing", 4) == 0;
  if (!vbr && std::memcmp(p + at, "Info", 4) != 0) return false;
  Xing.Present = true;
  Xing.Vbr = vbr;
  Xing.FrameSize = frameSize;
  const uint32_t flags = static_cast<uint32_t>(be32(at + 4));
  int32_t field = at + 8;
  if ((flags & 1) != 0 && field + 4 <= Size) {
    Xing.Frames = std::max(0, be32(field));
    field += 4;
  }
  if ((flags & 2) != 0 && field + 4 <= Size) Xing.Bytes = std::max(0, be32(field));
  return true;
}

bool GetMP3Info(const void* Data, int32_t Size, TMP3Info& Info, TMP3XingInfo& Xing) {
  Xing = TMP3XingInfo{};
  if (!GetMP3Info(Data, Size, Info)) return false;
  GetMP3XingInfo(static_cast<const uint8_t*>(Data) + Info.Offset, Size - Info.Offset, Xing);
  return true;
}

bool GetMP3Info(TStream* Stream, TMP3Info& Info, TMP3XingInfo& Xing) {
  std::memset(&Info, 0, sizeof Info);
  Xing = TMP3XingInfo{};
  if (Stream == nullptr) return false;
  const int64_t start = Stream->GetPosition();
  uint8_t buf[kSearchSize];
  const int32_t n = Stream->ReadFully(buf, kSearchSize);
  const bool ok = GetMP3Info(buf, n, Info, Xing);
  // A tag frame is read whole even when it begins near the end of the first block.
  if (ok && !Xing.Present && Info.Offset > kSearchSize - 200) {
    Stream->Seek(start + Info.Offset, TSeekOrigin::soBeginning);
    const int32_t m = Stream->ReadFully(buf, 200);
    GetMP3XingInfo(buf, m, Xing);
  }
  Stream->Seek(start + (ok ? Info.Offset : 0), TSeekOrigin::soBeginning);
  return ok;
}

int32_t GetMP3FrameSize(const TMP3Info& Info, bool Padding) {
  if (Info.SampleRate < 1) return 0;
  const int64_t factor = Info.Version == 1 ? 144 : 72;
  return static_cast<int32_t>(factor * Info.BitRate / Info.SampleRate + (Padding ? 1 : 0));
}

int32_t GetMP3FrameSize(const void* Header) {
  if (Header == nullptr) return 0;
  const auto* p = static_cast<const uint8_t*>(Header);
  TMP3Info info{};
  if (!ParseHeader(p, info)) return 0;
  return GetMP3FrameSize(info, IsMP3FramePadding(ReadWord32(p)));
}

int32_t GetMP3FrameDataSize(const TMP3Info& Info, bool Padding) {
  return std::max(GetMP3FrameSize(Info, Padding) - 4, 0);
}

int32_t GetMP3Frames(const void* Data, int32_t Size, int32_t Count, int32_t MaxSize, void*& Frames) {
  Frames = nullptr;
  TMP3Info info{};
  if (!GetMP3Info(Data, Size, info)) return 0;
  const uint8_t* first = static_cast<const uint8_t*>(Data) + info.Offset;
  const int64_t avail = static_cast<int64_t>(Size) - info.Offset;
  int64_t total = 0;
  int32_t left = Count;
  // Every frame is sized by the first header's rate and its own padding bit; the walk
  // stops at the first frame that does not lie wholly within the data.
  do {
    if (total + 4 > avail) break;
    const int32_t size = GetMP3FrameSize(info, IsMP3FramePadding(ReadWord32(first + total)));
    if (size <= 0 || total + size > avail) break;
    total += size;
    --left;
  } while (total < MaxSize && left > 0);
  if (total <= 0) return 0;
  Frames = std::malloc(static_cast<size_t>(total));
  if (Frames == nullptr) return 0;
  std::memcpy(Frames, first, static_cast<size_t>(total));
  return static_cast<int32_t>(total);
}

int32_t GetMP3Frames(TStream* Stream, int32_t Count, int32_t MaxSize, void*& Frames) {
  Frames = nullptr;
  if (Stream == nullptr) return 0;
  const int64_t start = Stream->GetPosition();
  if (start < 0) return 0;
  const int64_t end = Stream->GetSize();
  int64_t pos = start;
  int64_t total = 0;
  for (int32_t left = Count; left > 0; --left) {
    uint8_t header[4];
    if (Stream->ReadFully(header, 4) != 4) break;
    const int32_t size = GetMP3FrameSize(header);
    if (size <= 0) break;
    // A frame cut short by the end of the stream is not a whole frame.
    if (end >= 0 && pos + size > end) break;
    if (total + size > std::numeric_limits<int32_t>::max()) break;
    total += size;
    pos += size;
    Stream->Seek(pos, TSeekOrigin::soBeginning);
    if (total >= MaxSize) break;
  }
  Stream->Seek(start, TSeekOrigin::soBeginning);
  if (total <= 0) return 0;
  TBlock block(std::malloc(static_cast<size_t>(total)));
  if (!block) return 0;
  const int32_t got = Stream->ReadFully(block.get(), static_cast<int32_t>(total));
  if (got <= 0) return 0;
  Frames = block.release();
  return got;
}

int32_t GetMP3FrameCount(const void* Header, int32_t Size, bool Fast) {
  if (!Fast) throw Exception("GetMP3FrameCount: Не реализовано (Fast method)");
  TMP3Info info{};
  if (!GetMP3Info(Header, Size, info)) return 0;
  const int32_t s = GetMP3FrameSize(info, false);
  if (s <= 0) return 0;
  return static_cast<int32_t>(Round((static_cast<double>(Size) / s + static_cast<double>(Size) / (s + 1)) / 2));
}

int32_t GetMP3FrameCount(TStream* Stream, int32_t Size, bool Fast) {
  if (!Fast) throw Exception("GetMP3FrameCount: Не реализовано (Fast method)");
  if (Stream == nullptr || Size < 5) return 0;
  const int64_t start = Stream->GetPosition();
  uint8_t header[4];
  const int32_t n = Stream->ReadFully(header, 4);
  Stream->Seek(start, TSeekOrigin::soBeginning);
  TMP3Info info{};
  if (!GetMP3Info(header, n, info)) return 0;
  const int32_t s = GetMP3FrameSize(info, false);
  if (s <= 0) return 0;
  return static_cast<int32_t>(Round((static_cast<double>(Size) / s + static_cast<double>(Size) / (s + 1)) / 2));
}

bool CopyMP3Frames(TStream* Source, TStream* Dest, int32_t StartFrame, int32_t Count) {
  if (Source == nullptr || Dest == nullptr || StartFrame < 0 || Count < 1) return false;
  const int64_t size = Source->GetSize();
  if (size < 5) return false;
  int64_t pos = 0;
  Source->Seek(0, TSeekOrigin::soBeginning);
  for (int32_t i = 0; i < StartFrame; ++i) {
    uint8_t header[4];
    if (Source->ReadFully(header, 4) != 4) return false;
    const int32_t frame = GetMP3FrameSize(header);
    if (frame <= 0 || pos + frame >= size) return false;
    pos += frame;
    Source->Seek(pos, TSeekOrigin::soBeginning);
  }
  void* frames = nullptr;
  const int32_t total = GetMP3Frames(Source, Count, std::numeric_limits<int32_t>::max(), frames);
  TBlock block(frames);
  if (total <= 0) return false;
  return Dest->Write(block.get(), total) == total;
}

TSoundRate HerzToSoundRate(int32_t Herz) {
  switch (Herz) {
    case 11025: return sr11025;
    case 22050: return sr22050;
    case 44100: return sr44100;
    default: throw Exception("HerzToSoundRate: Invalid Herz");
  }
}

int32_t SoundRateToHerz(TSoundRate Rate) {
  switch (Rate) {
    case sr11025: return 11025;
    case sr22050: return 22050;
    case sr44100: return 44100;
    default: return 0;
  }
}

void InitMp3WaveFormat(TMP3WAVEFORMAT* Format) {
  if (Format == nullptr) return;
  std::memset(Format, 0, sizeof *Format);
  Format->wfx.wFormatTag = WAVE_FORMAT_MPEGLAYER3;
  Format->wfx.nBlockAlign = 1;
  Format->wfx.cbSize = MPEGLAYER3_WFX_EXTRA_BYTES;
  Format->wID = MPEGLAYER3_ID_MPEG;
  Format->fdwFlags = MP3_PADDING;
  Format->nBlockSize = MP3_BLOCK_SIZE;
  Format->nFramesPerBlock = 1;
  Format->nCodecDelay = MP3_CODEC_DELAY;
}

TMP3WAVEFORMAT* GetNewMp3WaveFormat() {
  auto* format = static_cast<TMP3WAVEFORMAT*>(std::malloc(sizeof(TMP3WAVEFORMAT)));
  InitMp3WaveFormat(format);
  return format;
}

bool GetMp3FileInfo(const std::string& FileName, TMP3WAVEFORMAT& Format) {
  if (FileName.empty() || !FileExists(FileName) || LowerAscii(ExtractFileExt(FileName)) != ".mp3") {
    klLog::AddToEventLog("Ump3.GetMp3FileInfo: неверное имя файла \r\n" + FileName, klLog::lkError);
    return false;
  }
  uint8_t buf[kSearchSize];
  int32_t n = 0;
  {
    TFileStream file(FileName, fmOpenRead | fmShareDenyNone);
    n = file.ReadFully(buf, kSearchSize);
  }
  int32_t pos = -1;
  if (n >= 4 && IsSync(buf)) {
    pos = 0;
  } else if (n >= 2 && buf[0] == 'I' && buf[1] == 'D') {
    for (int32_t i = 0; i + 4 <= n; ++i) {
      if (IsSync(buf + i)) {
        pos = i;
        break;
      }
    }
  }
  if (pos < 0) throw Exception("GetMp3FileInfo: mp3 format error");
  const uint8_t* h = buf + pos;
  const int32_t version = kVersions[(h[1] >> 3) & 3];
  if (version == 0) throw Exception("GetMp3FileInfo: version error");
  const int32_t bitRate = (version == 1 ? kBitRatesV1 : kBitRatesV2)[h[2] >> 4] * 1000;
  if (bitRate < 0) throw Exception("GetMp3FileInfo: BitRate Error");
  const int32_t rateIndex = (h[2] >> 2) & 3;
  const int32_t sampleRate = rateIndex == 3 ? 44100 : kSampleRates[version][rateIndex];

  std::memset(&Format, 0, sizeof Format);
  Format.wfx.wFormatTag = WAVE_FORMAT_MPEGLAYER3;
  // Always one channel: the channel mode is not looked at here.
  Format.wfx.nChannels = 1;
  Format.wfx.nSamplesPerSec = static_cast<DWORD>(sampleRate);
  Format.wfx.nAvgBytesPerSec = static_cast<DWORD>(bitRate / 8);
  Format.wfx.nBlockAlign = 1;
  Format.wfx.wBitsPerSample = 0;
  Format.wfx.cbSize = MPEGLAYER3_WFX_EXTRA_BYTES;
  Format.wID = MPEGLAYER3_ID_MPEG;
  Format.fdwFlags = MP3_PADDING;
  // 144 for every version, unlike GetMP3FrameSize (72 for MPEG-2 and 2.5): kept so.
  Format.nBlockSize = static_cast<WORD>(Round(static_cast<double>(bitRate) * 144 / sampleRate));
  Format.nFramesPerBlock = 1;
  Format.nCodecDelay = MP3_CODEC_DELAY;
  return true;
}

int32_t GetSoundType(int32_t Channels) {
  switch (Channels) {
    case 1: return 0;
    case 2: return 1;
    default: throw Exception("GetSoundType: Invalid channel count");
  }
}

}  // namespace kl::UMp3
