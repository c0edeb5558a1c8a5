// MP3 test material: files encoded by the real ffmpeg.exe (libmp3lame) together with
// what ffmpeg itself reports about them, and buffers that end (or begin) right at an
// inaccessible page so that any read outside them faults.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace mp3test {

struct TPacket {
  int32_t Size = 0;
  uint32_t Adler = 0;  // adler32 seeded with 0, as ffmpeg's framecrc muxer prints it
};

struct TSample {
  std::string Name;
  std::string Path;   // on disk, inside a temporary folder kept for the whole run
  std::string Bytes;  // the whole file
  int32_t Rate = 0;
  int32_t Channels = 0;
  bool Vbr = false;
  bool Id3 = false;
  bool Xing = false;
  int32_t CbrKbits = 0;   // 0 for VBR
  double Duration = 0;    // seconds, as ffmpeg prints it
  std::vector<TPacket> Packets;  // the audio frames ffmpeg's demuxer delivers
};

// Encoded once per run; names: "m1_cbr_stereo", "m1_vbr_stereo_id3", "m2_cbr_mono_id3",
// "m2_vbr_stereo", "m25_cbr_mono", "m25_vbr_stereo_id3".
const TSample& Sample(const std::string& Name);
const std::vector<std::string>& SampleNames();
// A folder that lives until the test executable exits.
const std::string& WorkDir();

// Packets of any MP3 file as ffmpeg's demuxer sees them.
std::vector<TPacket> FfmpegPackets(const std::string& Path, std::string* Log = nullptr);

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

// While alive, a fault the process does not handle is printed and ends the process at
// once with the fault's code, instead of waiting for a debugger to attach.
class TFaultReporter {
 public:
  TFaultReporter();
  ~TFaultReporter();
  TFaultReporter(const TFaultReporter&) = delete;
  TFaultReporter& operator=(const TFaultReporter&) = delete;

 private:
  void* FPrevious;
};

}  // namespace mp3test
