// Helpers for the conversion tests: a sink that records what reaches it, wave formats,
// the layout of written WAV files and MP3 test data made by ffmpeg.exe.
#pragma once

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "../tempo/ToneHelpers.h"
#include "KlTest.h"
#include "conversion/UAudioConverter.h"
#include "rtl/SysUtils.h"

namespace kltest::conv {

using namespace kl::UAudioConverter;
using kltest::TBoxRecorder;

// Records every write, and what came after Finish.
class TMemorySink : public kl::TInterfacedObject<IWritable> {
 public:
  bool STDMETHODCALLTYPE Write(const void* Data, int32_t DataSize) override {
    ++Writes;
    if (FailWrites) return false;
    if (Data != nullptr && DataSize > 0) {
      Bytes.append(static_cast<const char*>(Data), static_cast<size_t>(DataSize));
      if (FinishCount > 0) BytesAfterFinish += DataSize;
    }
    LastData = Data;
    return true;
  }
  bool STDMETHODCALLTYPE Finish() override {
    ++FinishCount;
    return true;
  }
  bool STDMETHODCALLTYPE GetFinished() override { return FinishCount > 0; }

  std::string Bytes;
  int Writes = 0;
  int FinishCount = 0;
  int BytesAfterFinish = 0;
  const void* LastData = nullptr;
  bool FailWrites = false;
};

inline kl::ComPtr<TMemorySink> MakeSink() { return kl::ComPtr<TMemorySink>(new TMemorySink()); }

inline std::vector<uint8_t> Pcm(uint32_t Rate, uint16_t Channels, uint16_t Bits = 16) {
  std::vector<uint8_t> b(18);
  InitPcmWaveFormat(Rate, Channels, Bits, reinterpret_cast<WAVEFORMATEX*>(b.data()));
  return b;
}

inline std::vector<uint8_t> Float32(uint32_t Rate, uint16_t Channels) {
  auto b = Pcm(Rate, Channels, 32);
  reinterpret_cast<WAVEFORMATEX*>(b.data())->wFormatTag = WAVE_FORMAT_IEEE_FLOAT;
  return b;
}

inline std::vector<uint8_t> Mp3(uint32_t Rate, uint16_t Channels, int32_t BitRate) {
  std::vector<uint8_t> b(sizeof(MPEGLAYER3WAVEFORMAT));
  InitMp3WaveFormat(Rate, Channels, BitRate, reinterpret_cast<WAVEFORMATEX*>(b.data()));
  return b;
}

inline const WAVEFORMATEX* W(const std::vector<uint8_t>& B) { return reinterpret_cast<const WAVEFORMATEX*>(B.data()); }

// A converter (of class T) from In to Out that writes into Sink.
template <class T = TAudioConverter>
kl::ComPtr<T> MakeConverter(const std::vector<uint8_t>& In, const std::vector<uint8_t>& Out, IWritable* Sink) {
  kl::ComPtr<T> c(new T());
  c->SetInFormat(W(In));
  c->SetOutFormat(W(Out));
  c->SetOutStream(Sink);
  return c;
}

// Writes Data in pieces of at most Piece bytes, as a reader would deliver it; true when
// every write succeeded.
inline bool WriteInPieces(IWritable* Target, const std::string& Data, size_t Piece) {
  bool ok = true;
  for (size_t at = 0; at < Data.size(); at += Piece) {
    ok = Target->Write(Data.data() + at, static_cast<int32_t>(std::min(Piece, Data.size() - at))) && ok;
  }
  return ok;
}

inline std::string Bytes16(const std::vector<int16_t>& V) {
  return std::string(reinterpret_cast<const char*>(V.data()), V.size() * 2);
}

inline std::vector<int16_t> AsSamples16(const std::string& S) {
  std::vector<int16_t> v(S.size() / 2);
  if (!v.empty()) std::memcpy(v.data(), S.data(), v.size() * 2);
  return v;
}

inline uint32_t U32(const std::string& S, size_t At) {
  uint32_t v = 0;
  std::memcpy(&v, S.data() + At, 4);
  return v;
}

// A WAV file as the writers make it: RIFF size, an 18-byte "fmt " chunk, then the data
// (any data when Data is null).
inline void ExpectWavLayout(const std::string& File, const std::string* Data) {
  ASSERT_GE(File.size(), 46u);
  EXPECT_EQ(File.substr(0, 4), "RIFF");
  EXPECT_EQ(U32(File, 4), File.size() - 8);
  EXPECT_EQ(File.substr(8, 8), "WAVEfmt ");
  EXPECT_EQ(U32(File, 16), 18u);
  EXPECT_EQ(File.substr(38, 4), "data");
  EXPECT_EQ(U32(File, 42), File.size() - 46);
  if (Data != nullptr) {
    EXPECT_EQ(File.substr(46), *Data);
  }
}

// Raw MPEG audio frames (no tag, no info frame) of a two-tone stereo signal, made by
// ffmpeg.exe; empty when ffmpeg failed.
inline std::string MakeMp3Frames(const TTempDir& Dir, const std::string& Name, int Rate, int Seconds,
                                 int KBitRate) {
  const std::string path = Dir / Name;
  const auto r = Ffmpeg(kl::Format("-f lavfi -i \"aevalsrc=0.4*sin(2*PI*440*t)+0.2*sin(2*PI*1250*t)|"
                                   "0.3*sin(2*PI*660*t):s=%d:d=%d\" -c:a libmp3lame -b:a %dk "
                                   "-id3v2_version 0 -write_xing 0 -f mp3 ",
                                   Rate, Seconds, KBitRate) +
                        Quote(path));
  if (r.ExitCode != 0) return std::string();
  return ReadFileBytes(path);
}

// ffmpeg.exe's own decoding of a file to s16le at the given shape.
inline std::string FfmpegDecode(const TTempDir&, const std::string& File, int Rate, int Channels) {
  return kltest::FfmpegDecode(File, kl::Format("-ac %d -ar %d", Channels, Rate));
}

}  // namespace kltest::conv
