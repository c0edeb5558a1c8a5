// MP3 test material: files encoded by the real ffmpeg.exe (libmp3lame) together with
// the frames ffmpeg's demuxer finds in them, and buffers that end (or begin) right at an
// inaccessible page so that any read outside them faults. In this executable such a
// fault is printed and ends the process at once with the fault's code, instead of
// waiting for a debugger to attach.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "KlTest.h"

namespace mp3test {

using kltest::FfmpegPackets;
using kltest::TPacket;

struct TSample {
  std::string Path;   // inside WorkDir()
  std::string Bytes;  // the whole file
  int32_t Rate = 0, Channels = 0;
  int32_t CbrKbits = 0;  // 0: variable bit rate, behind the encoder's Xing frame
  bool Id3 = false;
  std::vector<TPacket> Packets;  // the audio frames ffmpeg's demuxer delivers
};

// One of each MPEG version, constant and variable rate, mono and stereo, with and
// without a tag; encoded on first use.
inline const char* const kSampleNames[] = {"m1_cbr_stereo", "m2_cbr_mono_id3", "m25_vbr_stereo"};
const TSample& Sample(const std::string& Name);
// A folder that lives until the test executable exits.
const std::string& WorkDir();

uint32_t Adler32(const void* Data, size_t Size);

// Bytes copied into fresh pages so that the first byte after them (AtEnd) or the byte
// before them (!AtEnd) is an inaccessible page.
class TGuardedBuffer {
 public:
  TGuardedBuffer(const void* Data, size_t Size, bool AtEnd = true);
  explicit TGuardedBuffer(const std::string& Bytes, bool AtEnd = true)
      : TGuardedBuffer(Bytes.data(), Bytes.size(), AtEnd) {}
  ~TGuardedBuffer();
  TGuardedBuffer(const TGuardedBuffer&) = delete;
  TGuardedBuffer& operator=(const TGuardedBuffer&) = delete;
  const uint8_t* Data() const { return FData; }
  int32_t Size() const { return static_cast<int32_t>(FSize); }

 private:
  void* FBase = nullptr;
  uint8_t* FData = nullptr;
  size_t FSize = 0;
};

}  // namespace mp3test
