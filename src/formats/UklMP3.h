// MPEG audio frame headers for the first-generation player: the same helpers as UMp3
// with this player's own differences. A leading ID3 tag is skipped by its declared size
// before the first header is looked for; TMP3Info has no Channels field; the
// wave-format values come from public variables that the host may change.
//
// Every memory form takes the number of bytes the caller really has and never reads
// outside them. Blocks handed out (Frames, GetNewMp3WaveFormat) come from std::malloc;
// the caller releases them with std::free.
#pragma once

#include <cstdint>

#include "formats/UMp3.h"
#include "rtl/Classes.h"

namespace kl::UklMP3 {

#pragma pack(push, 1)
// A parsed frame header. Packed: hosts exchange it as a 25-byte record.
struct TMP3Info {
  int32_t Version;          // 1 MPEG-1, 2 MPEG-2, 3 MPEG-2.5
  int32_t BitRate;          // bit/s; 0 for the free format
  int32_t SampleRate;       // Hz
  bool Stereo;              // channel modes 0-1 (dual channel counts as mono)
  int32_t Offset;           // of the header from the start of the examined data
  int32_t Layer;            // 1, 2 or 3
  int32_t SamplesPerFrame;  // 384, 1152 or 576
};
#pragma pack(pop)
static_assert(sizeof(TMP3Info) == 25, "TMP3Info is a 25-byte packed record");

using TMP3WAVEFORMAT = UMp3::TMP3WAVEFORMAT;
using TSoundRate = UMp3::TSoundRate;
// The encoder's Xing/Info frame (frame count without a walk over the frames): shared.
using UMp3::GetMP3XingInfo;
using UMp3::TMP3XingInfo;

// Wave-format values used by InitMp3WaveFormat. MP3_BLOCK_SIZE starts at 0: set it to
// the frame size of the data before the record goes to a decoder.
extern uint16_t MP3_PADDING;      // 2
extern uint16_t MP3_BLOCK_SIZE;   // 0
extern uint16_t MP3_CODEC_DELAY;  // 1393

bool IsMP3FramePadding(uint32_t Header);

// Parses the header at the start of Data (Size bytes). Data beginning with "ID" carries
// a tag: its size is taken from bytes 6-9 (four 7-bit groups, + 10 for the tag header)
// and the first sync after it, within the first 4096 bytes, is parsed; its position goes
// to Info.Offset. False (Info all zero) when no valid header is there.
bool GetMP3Info(const void* Data, int32_t Size, TMP3Info& Info);
// Reads up to 4096 bytes at the stream's position and parses them. On success the
// stream is left on the header (start + Info.Offset), on failure at the start.
bool GetMP3Info(TStream* Stream, TMP3Info& Info);

int32_t GetMP3FrameSize(const TMP3Info& Info, bool Padding);
int32_t GetMP3FrameSize(const void* Header);
int32_t GetMP3FrameDataSize(const TMP3Info& Info, bool Padding);

// As UMp3::GetMP3Frames: whole frames only, starting at the first header.
int32_t GetMP3Frames(const void* Data, int32_t Size, int32_t Count, int32_t MaxSize, void*& Frames);
int32_t GetMP3Frames(TStream* Stream, int32_t Count, int32_t MaxSize, void*& Frames);

// Fast = false raises: only the estimate exists.
int32_t GetMP3FrameCount(const void* Header, int32_t Size, bool Fast);
int32_t GetMP3FrameCount(TStream* Stream, int32_t Size, bool Fast);

bool CopyMP3Frames(TStream* Source, TStream* Dest, int32_t StartFrame, int32_t Count);

TSoundRate HerzToSoundRate(int32_t Herz);
int32_t SoundRateToHerz(TSoundRate Rate);

// As UMp3's, with fdwFlags, nBlockSize and nCodecDelay from the variables above.
void InitMp3WaveFormat(TMP3WAVEFORMAT* Format);
TMP3WAVEFORMAT* GetNewMp3WaveFormat();

}  // namespace kl::UklMP3
