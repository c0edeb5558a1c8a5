// MPEG audio frame headers: parsing, frame sizes, walking and copying whole frames out
// of a stream or a memory block, a quick frame-count estimate, and the MPEG Layer-3
// wave-format record the ACM decoder wants. Used by the sound streams and the
// converter chain. The first-generation player has its own copy (UklMP3).
//
// Every memory form takes the number of bytes the caller really has and never reads
// outside them. Blocks handed out (Frames, GetNewMp3WaveFormat) come from std::malloc;
// the caller releases them with std::free.
#pragma once

#include <windows.h>
#include <mmreg.h>

#include <cstdint>
#include <string>

#include "rtl/Classes.h"

namespace kl::UMp3 {

#pragma pack(push, 1)
// A parsed frame header. Packed: hosts exchange it as a 29-byte record.
struct TMP3Info {
  int32_t Version;          // 1 MPEG-1, 2 MPEG-2, 3 MPEG-2.5
  int32_t BitRate;          // bit/s; 0 for the free format
  int32_t SampleRate;       // Hz
  bool Stereo;              // channel modes 0-1
  int32_t Offset;           // of the header from the start of the examined data
  int32_t Layer;            // 1, 2 or 3
  int32_t SamplesPerFrame;  // 384, 1152 or 576
  int32_t Channels;         // 1 or 2 (dual channel counts as one)
};
#pragma pack(pop)
static_assert(sizeof(TMP3Info) == 29, "TMP3Info is a 29-byte packed record");

// The platform's MPEGLAYER3WAVEFORMAT (30 bytes).
using TMP3WAVEFORMAT = MPEGLAYER3WAVEFORMAT;
static_assert(sizeof(TMP3WAVEFORMAT) == 30, "TMP3WAVEFORMAT is 30 bytes");

// What the encoder's Xing ("Xing": variable rate) or Info ("Info": constant rate)
// frame at the start of the data says. That frame is a valid frame header around
// silence-free side information: it carries no sound and is not counted in Frames.
struct TMP3XingInfo {
  bool Present = false;   // the first frame is such a tag frame
  bool Vbr = false;       // "Xing" rather than "Info"
  int32_t Frames = 0;     // sound frames behind it; 0 when the tag does not say
  int32_t Bytes = 0;      // bytes of the data, tag frame included; 0 when not said
  int32_t FrameSize = 0;  // of the tag frame itself
};

enum TSoundRate : int32_t { sr11025 = 1, sr22050 = 2, sr44100 = 3 };

constexpr uint16_t MP3_PADDING = 2;
constexpr uint16_t MP3_BLOCK_SIZE = 522;
constexpr uint16_t MP3_CODEC_DELAY = 1393;

// Bit 17 of the header read as a little-endian word.
bool IsMP3FramePadding(uint32_t Header);

// Parses the header at the start of Data (Size bytes). Data beginning with "ID" is taken
// to carry a tag: the first sync within its first 4096 bytes is parsed and its position
// goes to Info.Offset. False (Info all zero) when no valid header is there.
bool GetMP3Info(const void* Data, int32_t Size, TMP3Info& Info);
// Reads up to 4096 bytes at the stream's position and parses them. On success the
// stream is left on the header (start + Info.Offset), on failure at the start.
bool GetMP3Info(TStream* Stream, TMP3Info& Info);

// The Xing/Info tag of the frame whose header is at Frame (Size bytes from there);
// false (Xing cleared) when that frame carries none.
bool GetMP3XingInfo(const void* Frame, int32_t Size, TMP3XingInfo& Xing);
// GetMP3Info that also reads the first frame's Xing/Info tag, so that a variable-rate
// file's length is known without walking its frames.
bool GetMP3Info(const void* Data, int32_t Size, TMP3Info& Info, TMP3XingInfo& Xing);
bool GetMP3Info(TStream* Stream, TMP3Info& Info, TMP3XingInfo& Xing);

// 0 when SampleRate < 1; else 144 (MPEG-1) or 72 x BitRate div SampleRate, + 1 with
// padding. The Layer III formula serves every layer.
int32_t GetMP3FrameSize(const TMP3Info& Info, bool Padding);
// Size of the frame whose 4 header bytes are at Header (0 for null or a bad header).
int32_t GetMP3FrameSize(const void* Header);
// Frame size - 4, at least 0.
int32_t GetMP3FrameDataSize(const TMP3Info& Info, bool Padding);

// Whole frames from a memory block of Size bytes, starting at its first header. Frame
// sizes come from the first header's rate and each frame's own padding bit. Frames are
// added while the total is below MaxSize and Count is not used up (at least one), and
// only while the frame lies wholly inside the block. Returns the bytes copied into a
// new block in Frames (0 and null when none).
int32_t GetMP3Frames(const void* Data, int32_t Size, int32_t Count, int32_t MaxSize, void*& Frames);
// Whole frames from the stream's position, each sized by its own header, until Count
// frames are taken, the total reaches MaxSize, a header does not parse or the stream
// ends (a frame cut short by the end is left out). The stream is left after the run
// (back at its start when nothing was found).
int32_t GetMP3Frames(TStream* Stream, int32_t Count, int32_t MaxSize, void*& Frames);

// Estimates the frames in the Size bytes at Header from the first header's unpadded
// frame size, as the mean of the counts with no and with all frames padded. Fast = false
// raises: only the estimate exists.
int32_t GetMP3FrameCount(const void* Header, int32_t Size, bool Fast);
// The same from the 4 header bytes at the stream's position (which is kept); Size >= 5.
int32_t GetMP3FrameCount(TStream* Stream, int32_t Size, bool Fast);

// Copies Count frames from frame StartFrame of Source (counted from its position 0) to
// Dest. True when frames were written.
bool CopyMP3Frames(TStream* Source, TStream* Dest, int32_t StartFrame, int32_t Count);

// 11025, 22050, 44100; anything else raises.
TSoundRate HerzToSoundRate(int32_t Herz);
// The inverse; 0 for values outside the enumeration.
int32_t SoundRateToHerz(TSoundRate Rate);

// All 30 bytes cleared, then the fixed MPEG Layer-3 fields; channels, rate and average
// bytes are left 0 for the caller. Null does nothing.
void InitMp3WaveFormat(TMP3WAVEFORMAT* Format);
// A new std::malloc'ed record filled by InitMp3WaveFormat (null if memory is short).
TMP3WAVEFORMAT* GetNewMp3WaveFormat();

// Fills Format from the first header of an .mp3 file (always one channel; nBlockSize
// from 144 x bit rate for every version). A bad name is logged and gives false; a file
// without a usable header raises.
bool GetMp3FileInfo(const std::string& FileName, TMP3WAVEFORMAT& Format);

// 1 -> 0 (mono), 2 -> 1 (stereo); other counts raise.
int32_t GetSoundType(int32_t Channels);

}  // namespace kl::UMp3
