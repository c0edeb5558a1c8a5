#include "formats/UWAV.h"

#include <msacm.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <utility>

#include "conversion/UAudioConverter.h"
#include "diagnostics/klFiles.h"
#include "rtl/ComBase.h"
#include "rtl/SysUtils.h"

namespace kl::UWAV {

namespace {

// Runs Body; any failure inside comes out as an Exception whose message is Tag
// followed by the inner message, so a deep failure carries its path outermost first.
template <class F>
auto Checkpoint(const char* Tag, F&& Body) -> decltype(Body()) {
  try {
    return Body();
  } catch (const std::exception& e) {
    throw Exception(std::string(Tag) + e.what());
  } catch (...) {
    throw Exception(std::string(Tag) + "unknown error");
  }
}

FOURCC FourCC(const char* S) {
  return Checkpoint("UWAV.@134-296@: ", [&] { return mmioFOURCC(S[0], S[1], S[2], S[3]); });
}

std::string SystemText(DWORD Code) {
  char buf[256] = {};
  const DWORD n = FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, Code,
                                 0, buf, sizeof buf, nullptr);
  return std::string(buf, std::min<DWORD>(n, sizeof buf));
}

// Bits-per-sample check: only the complements of 8 and 16 (65527, 65519) fail.
bool BitsPass(uint16_t Bits) {
  const uint16_t c = static_cast<uint16_t>(~Bits);
  return c != 8 && c != 16;
}

uint16_t BytesPerSample(uint16_t Bits) { return static_cast<uint16_t>((Bits + 7) / 8); }

// Sample readers give the mono value of one frame, on the 16-bit scale: the mean of
// its channels (8-bit data is unsigned, centred on 128).
int ReadSample8(const uint8_t* Frame, int Channels) {
  return Checkpoint("UWAV.@132-318@: ", [&] {
    int sum = 0;
    for (int c = 0; c < Channels; ++c) sum += (Frame[c] - 128) * 256;
    return sum / Channels;
  });
}

int ReadSample16(const uint8_t* Frame, int Channels) {
  return Checkpoint("UWAV.@133-478@: ", [&] {
    int sum = 0;
    for (int c = 0; c < Channels; ++c) {
      int16_t v;
      std::memcpy(&v, Frame + 2 * c, 2);
      sum += v;
    }
    return sum / Channels;
  });
}

void WriteSample8(uint8_t* Out, int Value) {
  Checkpoint("UWAV.@130-692@: ", [&] {
    *Out = static_cast<uint8_t>(std::clamp((Value >> 8) + 128, 0, 255));
  });
}

void WriteSample16(uint8_t* Out, int Value) {
  Checkpoint("UWAV.@131-902@: ", [&] {
    const int16_t v = static_cast<int16_t>(std::clamp(Value, -32768, 32767));
    std::memcpy(Out, &v, 2);
  });
}

// The end of the resampling chain: its 16-bit mono output goes into the target file at
// the target's depth.
class TDepthWriter : public TInterfacedObject<UAudioConverter::IWritable> {
 public:
  TDepthWriter(TWAVFile& Dest, int Bits) : FDest(Dest), FBits(Bits) {}
  bool STDMETHODCALLTYPE Write(const void* Data, int32_t Size) override {
    const int32_t n = Size / 2;
    if (Data == nullptr || n < 1) return Data != nullptr;
    if (FBits == 16) {
      FDest.AddData(Data, n * 2);
      return true;
    }
    FBuf.resize(static_cast<size_t>(n));
    for (int32_t i = 0; i < n; ++i) {
      int16_t v;
      std::memcpy(&v, static_cast<const uint8_t*>(Data) + 2 * i, 2);
      WriteSample8(&FBuf[static_cast<size_t>(i)], v);
    }
    FDest.AddData(FBuf.data(), n);
    return true;
  }
  bool STDMETHODCALLTYPE Finish() override { return FFinished = true; }
  bool STDMETHODCALLTYPE GetFinished() override { return FFinished; }

 private:
  TWAVFile& FDest;
  int FBits;
  bool FFinished = false;
  std::vector<uint8_t> FBuf;
};

// Seeks back after mmioFlush: Wine's MMIO_EMPTYBUF moves the position to the start
// of the buffer after buffered writes (harmless on Windows).
void FlushKeepingPosition(HMMIO Handle) {
  const LONG pos = mmioSeek(Handle, 0, SEEK_CUR);
  mmioFlush(Handle, MMIO_EMPTYBUF);
  if (pos >= 0) mmioSeek(Handle, pos, SEEK_SET);
}

// The largest "fmt " chunk a format record can need: 18 bytes and a 16-bit cbSize.
constexpr uint32_t kMaxFormatSize = 18u + 0xFFFFu;

struct TChunkSpot {
  bool Found = false;
  int64_t At = 0;    // file offset of the chunk's body
  uint32_t Size = 0;  // as the header says
  int64_t Held = 0;  // what the file really holds of it
};

struct TChunkWalk {
  TChunkSpot Fmt;
  TChunkSpot Data;
};

// Finds the first "fmt " and "data" chunks behind the RIFF header by walking the chunk
// headers in 64 bits against the file's size. The system's chunk search adds sizes in
// 32 bits: a size of 0xFFFFFFF8 brings it back to the same chunk for ever. Here such a
// size ends the walk at the end of the file.
TChunkWalk WalkChunks(HMMIO Handle, int64_t FileSize) {
  TChunkWalk walk;
  int64_t pos = 12;
  while (!(walk.Fmt.Found && walk.Data.Found) && pos + 8 <= FileSize &&
         pos + 8 <= std::numeric_limits<LONG>::max()) {
    char header[8];
    if (mmioSeek(Handle, static_cast<LONG>(pos), SEEK_SET) != static_cast<LONG>(pos) ||
        mmioRead(Handle, header, 8) != 8) {
      break;
    }
    uint32_t size = 0;
    std::memcpy(&size, header + 4, 4);
    const int64_t body = pos + 8;
    const TChunkSpot spot{true, body, size, std::min<int64_t>(size, FileSize - body)};
    if (std::memcmp(header, "fmt ", 4) == 0 && !walk.Fmt.Found) walk.Fmt = spot;
    if (std::memcmp(header, "data", 4) == 0 && !walk.Data.Found) walk.Data = spot;
    pos = body + size + (size & 1);
  }
  return walk;
}

// A header field must not drive gigabytes: a source rate of 1 Hz would turn every frame
// into tens of thousands of output samples, 32768 channels would overflow the read size.
// Real files stay far inside these bounds.
constexpr uint32_t kMinRate = 1000;
constexpr uint32_t kMaxRate = 768000;
constexpr uint16_t kMaxChannels = 64;
bool PlausibleSource(const WAVEFORMATEX& F) {
  return F.nChannels >= 1 && F.nChannels <= kMaxChannels && F.nSamplesPerSec >= kMinRate &&
         F.nSamplesPerSec <= kMaxRate && F.nBlockAlign > 0;
}

struct TAcmStream {
  HACMSTREAM Handle = nullptr;
  ~TAcmStream() {
    if (Handle != nullptr) acmStreamClose(Handle, 0);
  }
};

}  // namespace

uint32_t GetWaveFormatSize(const WAVEFORMATEX* Format) {
  return Format == nullptr ? 0 : 18u + Format->cbSize;
}

// --- construction -----------------------------------------------------------------

TWAVFile::TWAVFile(const std::string& FileName) {
  Checkpoint("UWAV.@137-551@: ", [&] {
    Init();
    FFileName = FileName;
    try {
      Open();
    } catch (...) {
      Close();
      throw;
    }
  });
}

TWAVFile::TWAVFile(const std::string& FileName, const WAVEFORMATEX* Format) {
  Checkpoint("UWAV.@138-724@: ", [&] {
    Init();
    FFileName = FileName;
    try {
      CreateNew(Format);
    } catch (...) {
      Close();
      throw;
    }
  });
}

TWAVFile::TWAVFile(const std::string& FileName, uint16_t BitsPerSample, uint32_t SamplesPerSec,
                   uint16_t Channels) {
  Checkpoint("UWAV.@138-723@: ", [&] {
    WAVEFORMATEX f{};
    f.wFormatTag = WAVE_FORMAT_PCM;
    f.nChannels = Channels;
    f.nSamplesPerSec = SamplesPerSec;
    f.wBitsPerSample = BitsPerSample;
    f.nBlockAlign = static_cast<WORD>(BytesPerSample(BitsPerSample) * Channels);
    f.nAvgBytesPerSec = f.nBlockAlign * SamplesPerSec;
    f.cbSize = 0;
    Init();
    FFileName = FileName;
    try {
      CreateNew(&f);
    } catch (...) {
      Close();
      throw;
    }
  });
}

TWAVFile::~TWAVFile() {
  // A destructor may not raise: the tagged failure has nowhere to go, so closing is
  // all that is done.
  try {
    Checkpoint("UWAV.@139-411@: ", [&] { Close(); });
  } catch (...) {
  }
}

void TWAVFile::Init() {
  Checkpoint("UWAV.@144-112@: ", [&] {
    FHandle = nullptr;
    FFormat.clear();
    FInfo = MMIOINFO{};
    FRiff = MMCKINFO{};
    FFmt = MMCKINFO{};
    FData = MMCKINFO{};
    FSaved = false;
  });
}

void TWAVFile::Close() {
  if (FHandle != nullptr) {
    mmioClose(FHandle, 0);
    FHandle = nullptr;
  }
}

void TWAVFile::Open() {
  if (!FileExists(FFileName)) {
    FFileName.clear();
    return;
  }
  FHandle = mmioOpenA(const_cast<char*>(FFileName.c_str()), &FInfo, MMIO_READWRITE);
  if (FHandle == nullptr) {
    throw Exception("TWAVFile: cannot open file " + FFileName + "\r\n" + SystemText(GetLastError()));
  }
  WIN32_FILE_ATTRIBUTE_DATA attributes{};
  if (!GetFileAttributesExA(FFileName.c_str(), GetFileExInfoStandard, &attributes)) {
    throw Exception("TWAVFile: cannot open file " + FFileName + "\r\n" + SystemText(GetLastError()));
  }
  const int64_t fileSize =
      static_cast<int64_t>((static_cast<uint64_t>(attributes.nFileSizeHigh) << 32) | attributes.nFileSizeLow);
  char head[12] = {};
  if (mmioRead(FHandle, head, 12) != 12 || std::memcmp(head, "RIFF", 4) != 0 || std::memcmp(head + 8, "WAVE", 4) != 0) {
    throw Exception("TWAVFile: RIFF not found");
  }
  FRiff.ckid = FourCC("RIFF");
  std::memcpy(&FRiff.cksize, head + 4, 4);
  FRiff.fccType = FourCC("WAVE");
  FRiff.dwDataOffset = 8;
  const TChunkWalk walk = WalkChunks(FHandle, fileSize);
  // A "fmt " chunk that runs past the end of the file is damaged, not a format to load;
  // nor is one larger than the biggest record a cbSize can describe.
  if (!walk.Fmt.Found || walk.Fmt.Held < walk.Fmt.Size || walk.Fmt.Size > kMaxFormatSize) {
    throw Exception("TWAVFile: FMT not found");
  }
  FFmt.ckid = FourCC("fmt ");
  FFmt.cksize = walk.Fmt.Size;
  FFmt.dwDataOffset = static_cast<DWORD>(walk.Fmt.At);
  // At least a whole WAVEFORMATEX, zero-filled: 16-byte PCM chunks have no cbSize.
  FFormat.assign(std::max<size_t>(FFmt.cksize, sizeof(WAVEFORMATEX)), 0);
  if (FFmt.cksize > 0 &&
      (mmioSeek(FHandle, static_cast<LONG>(walk.Fmt.At), SEEK_SET) < 0 ||
       mmioRead(FHandle, reinterpret_cast<HPSTR>(FFormat.data()), static_cast<LONG>(FFmt.cksize)) !=
           static_cast<LONG>(FFmt.cksize))) {
    throw Exception("TWAVFile: FMT not found");
  }
  // Whoever copies GetWaveFormatSize bytes of the format must find them all.
  const size_t whole = GetWaveFormatSize(Format());
  if (FFormat.size() < whole) FFormat.resize(whole, 0);
  if (!BitsPass(Format()->wBitsPerSample)) throw Exception("TWAVFile.Create: Invalid BitsPerSample");
  if (!walk.Data.Found) throw Exception("TWAVFile: DATA not found");
  // Streaming writers leave 0xFFFFFFFF, a cut file claims more than it holds: the data
  // is what the file really holds. Offsets and sizes are 32-bit signed: data that
  // reaches past 2 GiB cannot be addressed and is refused.
  if (walk.Data.At + walk.Data.Held > std::numeric_limits<int32_t>::max()) {
    throw Exception("TWAVFile: DATA too large");
  }
  FData.ckid = FourCC("data");
  FData.cksize = static_cast<DWORD>(walk.Data.Held);
  FData.dwDataOffset = static_cast<DWORD>(walk.Data.At);
  mmioSeek(FHandle, static_cast<LONG>(walk.Data.At), SEEK_SET);
}

void TWAVFile::CreateNew(const WAVEFORMATEX* Format) {
  FHandle = mmioOpenA(const_cast<char*>(FFileName.c_str()), &FInfo, MMIO_CREATE | MMIO_WRITE);
  if (FHandle == nullptr) return;
  FRiff.fccType = FourCC("WAVE");
  mmioCreateChunk(FHandle, &FRiff, MMIO_CREATERIFF);
  FFmt.ckid = FourCC("fmt ");
  mmioCreateChunk(FHandle, &FFmt, 0);
  const uint32_t size = GetWaveFormatSize(Format);
  if (size > 0) {
    FFormat.assign(reinterpret_cast<const uint8_t*>(Format), reinterpret_cast<const uint8_t*>(Format) + size);
    mmioWrite(FHandle, reinterpret_cast<const char*>(FFormat.data()), static_cast<LONG>(size));
  }
  mmioAscend(FHandle, &FFmt, 0);
  FData = MMCKINFO{};
  FData.ckid = FourCC("data");
  mmioCreateChunk(FHandle, &FData, 0);
}

// --- data access ------------------------------------------------------------------

int32_t TWAVFile::GetDataOffset() {
  return Checkpoint("UWAV.@141-595@: ", [&] {
    return FHandle == nullptr ? 0 : static_cast<int32_t>(FData.dwDataOffset);
  });
}

int32_t TWAVFile::GetDataSize() {
  return Checkpoint("UWAV.@142-880@: ", [&] {
    return FHandle == nullptr ? 0 : static_cast<int32_t>(FData.cksize);
  });
}

int32_t TWAVFile::GetData(int32_t Offset, int32_t Size, void* Buffer) {
  return Checkpoint("UWAV.@140-542@: ", [&]() -> int32_t {
    if (FHandle == nullptr || Offset < 0 || Size < 1 || Buffer == nullptr) return 0;
    const int64_t dataSize = static_cast<uint32_t>(FData.cksize);
    if (Offset >= dataSize) {
      std::memset(Buffer, 0, static_cast<size_t>(Size));
      return 0;
    }
    // Never past the data chunk: chunks after it (LIST, cue) are not samples.
    const LONG want = static_cast<LONG>(std::min<int64_t>(Size, dataSize - Offset));
    const int64_t at = static_cast<int64_t>(FData.dwDataOffset) + Offset;
    if (at > std::numeric_limits<LONG>::max() || mmioSeek(FHandle, static_cast<LONG>(at), SEEK_SET) < 0) {
      return 0;
    }
    const LONG n = mmioRead(FHandle, static_cast<HPSTR>(Buffer), want);
    return n > 0 ? n : 0;
  });
}

int32_t TWAVFile::GetSamples(int32_t Start, int32_t Count, void* Buffer) {
  return Checkpoint("UWAV.@143-668@: ", [&]() -> int32_t {
    if (Format() == nullptr) return GetData(Start, Count, Buffer);
    const int64_t b = BytesPerSample(Format()->wBitsPerSample);
    const int64_t offset = Start * b;
    const int64_t size = Count * b;
    if (offset > std::numeric_limits<int32_t>::max() || size > std::numeric_limits<int32_t>::max()) return 0;
    return GetData(static_cast<int32_t>(offset), static_cast<int32_t>(size), Buffer);
  });
}

void TWAVFile::AddData(const void* Buffer, int32_t Count) {
  Checkpoint("UWAV.@136-740@: ", [&] {
    if (Buffer == nullptr || Count < 1 || FHandle == nullptr || FSaved) return;
    FData.dwFlags |= MMIO_DIRTY;
    mmioSeek(FHandle, 0, SEEK_END);
    mmioWrite(FHandle, static_cast<const char*>(Buffer), Count);
  });
}

void TWAVFile::Save() {
  Checkpoint("UWAV.@145-471@: ", [&] {
    // Once only: a second ascent would rewrite the sizes from a wrong position.
    if (FHandle == nullptr || FFileName.empty() || FSaved || !FileExists(FFileName)) return;
    mmioAscend(FHandle, &FData, 0);
    mmioAscend(FHandle, &FRiff, 0);
    FlushKeepingPosition(FHandle);
    FSaved = true;
  });
}

// --- conversion -------------------------------------------------------------------

bool TWAVFile::ConvertToPCM(const std::string& FileName) {
  return Checkpoint("UWAV.@007-500@: ", [&]() -> bool {
    if (FileName.empty() || Format() == nullptr || !PlausibleSource(*Format())) return false;
    // The whole source format, extra bytes included: the ADPCM and GSM drivers refuse
    // a format cut to 18 bytes (they need wSamplesPerBlock and the like).
    std::vector<uint8_t> srcBlock(FFormat);
    // The compression manager refuses PCM in an extensible record: give it the plain one.
    if (UAudioConverter::IsPcmFormat(Format())) {
      const WAVEFORMATEX plain = UAudioConverter::PlainPcmFormat(*Format());
      const auto* bytes = reinterpret_cast<const uint8_t*>(&plain);
      srcBlock.assign(bytes, bytes + sizeof plain);
    }
    WAVEFORMATEX& src = *reinterpret_cast<WAVEFORMATEX*>(srcBlock.data());
    WAVEFORMATEX dst{};
    dst.wFormatTag = WAVE_FORMAT_PCM;
    if (acmFormatSuggest(nullptr, &src, &dst, sizeof dst, ACM_FORMATSUGGESTF_WFORMATTAG) != 0) return false;
    TAcmStream stream;
    if (acmStreamOpen(&stream.Handle, nullptr, &src, &dst, nullptr, 0, 0, ACM_STREAMOPENF_NONREALTIME) != 0) {
      return false;
    }
    DWORD s = 0;
    if (acmStreamSize(stream.Handle, 4410, &s, ACM_STREAMSIZEF_SOURCE) != 0 || s == 0 ||
        src.nBlockAlign == 0) {
      return false;
    }
    // The read size is what 4410 source bytes decode to; the destination must take
    // what a whole read decodes to, which the block-align ratio alone underestimates
    // for block codecs (ADPCM blocks of 1024 bytes, GSM's 65).
    DWORD whole = 0;
    if (acmStreamSize(stream.Handle, s, &whole, ACM_STREAMSIZEF_SOURCE) != 0) whole = 0;
    const int64_t d64 = std::max<int64_t>(whole, Round(static_cast<double>(s) * dst.nBlockAlign / src.nBlockAlign));
    // A damaged record (an ADPCM block align that disagrees with its samples per block)
    // makes the driver promise hundreds of megabytes per read: no real codec needs more
    // than a few megabytes for the 4410 bytes read here.
    constexpr int64_t kMaxBuffer = 16 << 20;
    if (d64 <= 0 || d64 > kMaxBuffer || s > kMaxBuffer) return false;
    const DWORD d = static_cast<DWORD>(d64);
    std::vector<uint8_t> srcBuf(s), dstBuf(d, 0);
    ACMSTREAMHEADER header{};
    if (UAudioConverter::PrepareAcmHeader(stream.Handle, header, srcBuf.data(), s, dstBuf.data(), d) != 0) return false;
    bool ok = true;
    {
      TWAVFile out(FileName, dst.wBitsPerSample, dst.nSamplesPerSec, dst.nChannels);
      int32_t p = 0;
      for (;;) {
        const int32_t n = GetData(p, static_cast<int32_t>(s), srcBuf.data());
        if (n == 0) break;
        const bool full = n == static_cast<int32_t>(s);
        DWORD flags = full ? ACM_STREAMCONVERTF_BLOCKALIGN : ACM_STREAMCONVERTF_END;
        if (p == 0) flags |= ACM_STREAMCONVERTF_START;
        header.cbSrcLength = static_cast<DWORD>(n);
        if (acmStreamConvert(stream.Handle, &header, flags) != 0) {
          ok = false;
          break;
        }
        out.AddData(dstBuf.data(), static_cast<int32_t>(header.cbDstLengthUsed));
        // Block codecs leave a partial block behind: start the next read with it.
        p += header.cbSrcLengthUsed > 0 ? static_cast<int32_t>(header.cbSrcLengthUsed) : n;
        if (!full) break;
      }
      if (ok) out.Save();
    }
    header.cbSrcLength = s;
    acmStreamUnprepareHeader(stream.Handle, &header, 0);
    return ok;
  });
}

bool TWAVFile::SaveAs(const std::string& FileName, int32_t SamplesPerSec, int32_t BitsPerSample, bool Mono) {
  return Checkpoint("UWAV.@146-403@: ", [&]() -> bool {
    if (!Mono) throw Exception("TWAVFile.SaveAs: Stereo not released");
    if (Format() == nullptr) return false;
    // PCM in an extensible record (ffmpeg's choice above 48000 Hz, two channels or 16
    // bits) is read as it is; only compressed data goes through ConvertToPCM.
    if (!UAudioConverter::IsPcmFormat(Format())) {
      if (!PlausibleSource(*Format())) return false;
      // A name of its own, made on the spot: the target's name in the temp folder can be
      // this very file (or another caller's temporary file).
      static const std::string tempDir = GetTempDir();
      std::string temp = tempDir + ExtractFileName(FileName);
      if (!klFiles::CreateUniqueFileStream(temp)) return false;
      bool result = false;
      if (ConvertToPCM(temp) && FileExists(temp)) {
        TWAVFile pcm(temp);
        result = pcm.SaveAs(FileName, SamplesPerSec, BitsPerSample, Mono);
      }
      RemoveFile(temp);
      return result;
    }
    return SaveAsPcm(FileName, SamplesPerSec, BitsPerSample);
  });
}

bool TWAVFile::SaveAsPcm(const std::string& FileName, int32_t SamplesPerSec, int32_t BitsPerSample) {
  const WAVEFORMATEX& f = *Format();
  const bool rateOk = SamplesPerSec == 11025 || SamplesPerSec == 22050 || SamplesPerSec == 44100 ||
                      SamplesPerSec == 48000;
  if (FFileName.empty() || !rateOk || !BitsPass(static_cast<uint16_t>(BitsPerSample)) || FileName == FFileName) {
    return false;
  }
  if (static_cast<int32_t>(f.nSamplesPerSec) == SamplesPerSec && f.wBitsPerSample == BitsPerSample &&
      f.nChannels == 1) {
    return CopyFileA(FFileName.c_str(), FileName.c_str(), FALSE) != 0;
  }
  // Only 8- and 16-bit samples have a reader and a writer.
  if ((f.wBitsPerSample != 8 && f.wBitsPerSample != 16) || (BitsPerSample != 8 && BitsPerSample != 16) ||
      !PlausibleSource(f)) {
    return false;
  }
  const int channels = f.nChannels;
  const int frameSize = channels * (f.wBitsPerSample == 8 ? 1 : 2);
  const int readMul = f.nSamplesPerSec == 22050 ? 2 : f.nSamplesPerSec == 44100 ? 4 : 1;
  // At most 64 channels of 2 bytes: under 6 MB, far from the 32-bit limit.
  const int readSize = frameSize * 11025 * readMul;
  const int outSample = BitsPerSample == 8 ? 1 : 2;
  const int up = std::max<int>(1, SamplesPerSec / static_cast<int>(f.nSamplesPerSec));
  const int down = std::max<int>(1, static_cast<int>(f.nSamplesPerSec) / SamplesPerSec);
  const int outMul = SamplesPerSec == 22050 ? 2 : SamplesPerSec == 44100 ? 4 : 1;
  // Room for everything one read can produce, whatever the pair of rates.
  const size_t outSize =
      std::max<size_t>(static_cast<size_t>(outSample) * 11025 * outMul,
                       static_cast<size_t>(readSize / frameSize / down + 1) * up * outSample);
  auto reader = f.wBitsPerSample == 8 ? &ReadSample8 : &ReadSample16;
  auto writer = BitsPerSample == 8 ? &WriteSample8 : &WriteSample16;
  const int32_t srcRate = static_cast<int32_t>(f.nSamplesPerSec);
  // Repeating or skipping samples keeps time only when one rate is a whole multiple of
  // the other; any other pair goes through the converter chain's resampler.
  if (srcRate % SamplesPerSec != 0 && SamplesPerSec % srcRate != 0) {
    return Resample(FileName, SamplesPerSec, BitsPerSample);
  }

  std::vector<uint8_t> in(static_cast<size_t>(readSize)), out(outSize);
  TWAVFile dest(FileName, static_cast<uint16_t>(BitsPerSample), static_cast<uint32_t>(SamplesPerSec), 1);
  for (int32_t offset = 0;;) {
    const int32_t n = GetData(offset, readSize, in.data());
    if (n <= 0) break;
    offset += n;
    const int frames = n / frameSize;
    const int steps = frames / down;
    uint8_t* o = out.data();
    for (int i = 0; i < steps; ++i) {
      const int frame = i * down;
      const uint8_t* place = in.data() + static_cast<size_t>(frame) * frameSize;
      const int a = reader(place, channels);
      if (up == 1) {
        writer(o, a);
        o += outSample;
        continue;
      }
      // At the last frame of a read there is nothing ahead: hold the value.
      const int b = frame + 1 < frames ? reader(place + frameSize, channels) : a;
      for (int k = 0; k < up; ++k) {
        writer(o, a + static_cast<int>(Round(static_cast<double>(b - a) * k / up)));
        o += outSample;
      }
    }
    dest.AddData(out.data(), steps * up * outSample);
  }
  dest.Save();
  return true;
}

bool TWAVFile::Resample(const std::string& FileName, int32_t SamplesPerSec, int32_t BitsPerSample) {
  const WAVEFORMATEX& f = *Format();
  const int channels = f.nChannels;
  const int frameSize = channels * (f.wBitsPerSample == 8 ? 1 : 2);
  auto reader = f.wBitsPerSample == 8 ? &ReadSample8 : &ReadSample16;
  // A tenth of a second a read, mixed to mono 16-bit at the source rate.
  const int32_t frames = std::max<int32_t>(1, static_cast<int32_t>(f.nSamplesPerSec / 10));
  std::vector<uint8_t> in(static_cast<size_t>(frames) * frameSize);
  std::vector<int16_t> mono(static_cast<size_t>(frames));
  WAVEFORMATEX from{}, to{};
  UAudioConverter::InitPcmWaveFormat(f.nSamplesPerSec, 1, 16, &from);
  UAudioConverter::InitPcmWaveFormat(static_cast<uint32_t>(SamplesPerSec), 1, 16, &to);
  TWAVFile dest(FileName, static_cast<uint16_t>(BitsPerSample), static_cast<uint32_t>(SamplesPerSec), 1);
  ComPtr<UAudioConverter::IWritable> sink(new TDepthWriter(dest, BitsPerSample));
  ComPtr<UAudioConverter::TAudioConverter> chain(new UAudioConverter::TAudioConverter());
  chain->SetInFormat(&from);
  chain->SetOutFormat(&to);
  chain->SetOutStream(sink.Get());
  for (int32_t offset = 0;;) {
    const int32_t n = GetData(offset, static_cast<int32_t>(in.size()), in.data());
    if (n <= 0) break;
    offset += n;
    const int32_t got = n / frameSize;
    for (int32_t i = 0; i < got; ++i) {
      mono[static_cast<size_t>(i)] = static_cast<int16_t>(reader(in.data() + static_cast<size_t>(i) * frameSize, channels));
    }
    if (got > 0 && !chain->Write(mono.data(), got * 2)) return false;
  }
  if (!chain->Finish()) return false;
  dest.Save();
  return true;
}

}  // namespace kl::UWAV
