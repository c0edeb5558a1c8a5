#include "formats/UklMP3.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "rtl/SysUtils.h"

namespace kl::UklMP3 {

uint16_t MP3_PADDING = 2;
uint16_t MP3_BLOCK_SIZE = 0;
uint16_t MP3_CODEC_DELAY = 1393;

namespace {

// The tag is only searched within this many bytes from the start of the data.
constexpr int64_t kSearchSize = 4096;
constexpr int64_t kTagHeaderSize = 10;

// Where the first frame header of Data lies (-1 when there is none to parse).
int32_t FindFirstHeader(const uint8_t* P, int32_t Size) {
  if (!(P[0] == 'I' && P[1] == 'D')) return 0;
  if (Size < kTagHeaderSize) return -1;
  const int64_t tagSize = (static_cast<int64_t>(P[6]) << 21) + (static_cast<int64_t>(P[7]) << 14) +
                          (static_cast<int64_t>(P[8]) << 7) + P[9] + kTagHeaderSize;
  // The header's four bytes must lie within both the data and the first 4096 bytes.
  const int64_t last = std::min<int64_t>(Size, kSearchSize) - 4;
  for (int64_t i = tagSize; i <= last; ++i) {
    if (P[i] == 0xFF && (P[i + 1] & 0xE0) == 0xE0) return static_cast<int32_t>(i);
  }
  return -1;
}

}  // namespace

bool IsMP3FramePadding(uint32_t Header) { return UMp3::IsMP3FramePadding(Header); }

bool GetMP3Info(const void* Data, int32_t Size, TMP3Info& Info) {
  std::memset(&Info, 0, sizeof Info);
  if (Data == nullptr || Size < 4) return false;
  const auto* p = static_cast<const uint8_t*>(Data);
  const int32_t offset = FindFirstHeader(p, Size);
  if (offset < 0) return false;
  // Four bytes that begin with a sync carry no tag, so this parses exactly them.
  UMp3::TMP3Info info{};
  if (!UMp3::GetMP3Info(p + offset, 4, info)) return false;
  Info.Version = info.Version;
  Info.BitRate = info.BitRate;
  Info.SampleRate = info.SampleRate;
  Info.Stereo = info.Stereo;
  Info.Offset = offset;
  Info.Layer = info.Layer;
  Info.SamplesPerFrame = info.SamplesPerFrame;
  return true;
}

bool GetMP3Info(TStream* Stream, TMP3Info& Info) {
  std::memset(&Info, 0, sizeof Info);
  if (Stream == nullptr) return false;
  const int64_t start = Stream->GetPosition();
  uint8_t buf[kSearchSize];
  int32_t n = 0;
  while (n < kSearchSize) {
    const int32_t got = Stream->Read(buf + n, static_cast<int32_t>(kSearchSize) - n);
    if (got <= 0) break;
    n += got;
  }
  const bool ok = GetMP3Info(buf, n, Info);
  Stream->Seek(start + (ok ? Info.Offset : 0), TSeekOrigin::soBeginning);
  return ok;
}

int32_t GetMP3FrameSize(const TMP3Info& Info, bool Padding) {
  if (Info.SampleRate < 1) return 0;
  const int64_t factor = Info.Version == 1 ? 144 : 72;
  return static_cast<int32_t>(factor * Info.BitRate / Info.SampleRate + (Padding ? 1 : 0));
}

int32_t GetMP3FrameSize(const void* Header) { return UMp3::GetMP3FrameSize(Header); }

int32_t GetMP3FrameDataSize(const TMP3Info& Info, bool Padding) {
  return std::max(GetMP3FrameSize(Info, Padding) - 4, 0);
}

int32_t GetMP3Frames(const void* Data, int32_t Size, int32_t Count, int32_t MaxSize, void*& Frames) {
  Frames = nullptr;
  TMP3Info info{};
  if (!GetMP3Info(Data, Size, info)) return 0;
  // From the first header on the data holds no tag, and both copies walk alike.
  return UMp3::GetMP3Frames(static_cast<const uint8_t*>(Data) + info.Offset, Size - info.Offset, Count, MaxSize,
                            Frames);
}

int32_t GetMP3Frames(TStream* Stream, int32_t Count, int32_t MaxSize, void*& Frames) {
  return UMp3::GetMP3Frames(Stream, Count, MaxSize, Frames);
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
  return UMp3::GetMP3FrameCount(Stream, Size, Fast);
}

bool CopyMP3Frames(TStream* Source, TStream* Dest, int32_t StartFrame, int32_t Count) {
  return UMp3::CopyMP3Frames(Source, Dest, StartFrame, Count);
}

TSoundRate HerzToSoundRate(int32_t Herz) { return UMp3::HerzToSoundRate(Herz); }

int32_t SoundRateToHerz(TSoundRate Rate) { return UMp3::SoundRateToHerz(Rate); }

void InitMp3WaveFormat(TMP3WAVEFORMAT* Format) {
  if (Format == nullptr) return;
  UMp3::InitMp3WaveFormat(Format);
  Format->fdwFlags = MP3_PADDING;
  Format->nBlockSize = MP3_BLOCK_SIZE;
  Format->nCodecDelay = MP3_CODEC_DELAY;
}

TMP3WAVEFORMAT* GetNewMp3WaveFormat() {
  auto* format = static_cast<TMP3WAVEFORMAT*>(std::malloc(sizeof(TMP3WAVEFORMAT)));
  InitMp3WaveFormat(format);
  return format;
}

}  // namespace kl::UklMP3
