// RIFF WAVE files through the multimedia file (mmio) API: random access to the sample
// data of an existing file, appending to a new one, conversion to PCM through the
// audio compression manager, and mono copies at another rate and depth.
#pragma once

#include <windows.h>
#include <mmsystem.h>
#include <mmreg.h>

#include <cstdint>
#include <string>
#include <vector>

namespace kl::UWAV {

// 0 for a null format, else 18 + cbSize.
uint32_t GetWaveFormatSize(const WAVEFORMATEX* Format);

// Every operation re-raises any failure as kl::Exception with its own checkpoint tag
// in front of the message ("UWAV.@137-551@: TWAVFile: DATA not found").
class TWAVFile {
 public:
  // Opens an existing file. A file that does not exist gives an empty object
  // (FileName() empty, GetData returns 0); a damaged one raises.
  explicit TWAVFile(const std::string& FileName);
  // Creates a new file with the given format (any format tag). A file that cannot be
  // created gives an object that ignores every write.
  TWAVFile(const std::string& FileName, const WAVEFORMATEX* Format);
  // Creates a new PCM file.
  TWAVFile(const std::string& FileName, uint16_t BitsPerSample, uint32_t SamplesPerSec, uint16_t Channels);
  // Closes the file without saving: call Save first after writing.
  ~TWAVFile();
  TWAVFile(const TWAVFile&) = delete;
  TWAVFile& operator=(const TWAVFile&) = delete;

  // Reads Size bytes of sample data from byte Offset of the data chunk; returns the
  // bytes read. At or past the end of the data the buffer is zero-filled and 0 returned.
  int32_t GetData(int32_t Offset, int32_t Size, void* Buffer);
  // GetData in single-channel samples: Start and Count are multiplied by the bytes of
  // one sample of one channel (the channel count does not enter).
  int32_t GetSamples(int32_t Start, int32_t Count, void* Buffer);
  int32_t GetDataOffset();
  int32_t GetDataSize();
  void AddData(const void* Buffer, int32_t Count);
  // Writes the chunk sizes of a file being written.
  void Save();
  bool ConvertToPCM(const std::string& FileName);
  // A mono PCM copy at 11025, 22050, 44100 or 48000 Hz, 8 or 16 bits. Rates that are
  // whole multiples of each other step samples up (linear) or down; any other pair is
  // resampled by the compression manager, keeping duration and pitch. Raises for
  // Mono = false (no stereo output).
  bool SaveAs(const std::string& FileName, int32_t SamplesPerSec, int32_t BitsPerSample, bool Mono);
  void Init();

  const std::string& FileName() const { return FFileName; }
  // The format of the "fmt " chunk (null when nothing is open).
  const WAVEFORMATEX* Format() const {
    return FFormat.empty() ? nullptr : reinterpret_cast<const WAVEFORMATEX*>(FFormat.data());
  }
  bool IsOpen() const { return FHandle != nullptr; }

 private:
  void Open();
  void CreateNew(const WAVEFORMATEX* Format);
  void Close();
  bool SaveAsPcm(const std::string& FileName, int32_t SamplesPerSec, int32_t BitsPerSample);
  // SaveAsPcm for rates that are no whole multiples of each other: through the
  // converter chain's resampler, so that the copy lasts as long and keeps its pitch.
  bool Resample(const std::string& FileName, int32_t SamplesPerSec, int32_t BitsPerSample);

  std::string FFileName;
  std::vector<uint8_t> FFormat;
  MMIOINFO FInfo{};
  MMCKINFO FRiff{};
  MMCKINFO FFmt{};
  MMCKINFO FData{};
  HMMIO FHandle = nullptr;
  bool FSaved = false;
};

}  // namespace kl::UWAV
