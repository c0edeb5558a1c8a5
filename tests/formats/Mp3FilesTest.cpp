// Both MP3 units on files encoded by the real ffmpeg.exe (libmp3lame), checked against
// what ffmpeg's own demuxer reports for the same files.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <set>

#include "KlTest.h"
#include "Mp3TestSupport.h"
#include "Mp3Units.h"
#include "diagnostics/klLog.h"
#include "rtl/Classes.h"
#include "rtl/SysUtils.h"

using mp3test::Sample;
using mp3test::SampleNames;
using mp3test::TFramesBlock;
using mp3test::TGuardedBuffer;
using mp3test::TPacket;
using mp3test::TSample;

namespace {

constexpr int32_t kAll = std::numeric_limits<int32_t>::max();

struct TWalked {
  int32_t Size;
  uint32_t Adler;
};

// Frame by frame with the stream form, from the stream's position to the end.
template <class TUnit>
std::vector<TWalked> WalkStream(kl::TStream& S) {
  std::vector<TWalked> frames;
  for (;;) {
    TFramesBlock f;
    const int32_t n = TUnit::Frames(&S, 1, kAll, f.P);
    if (n == 0) break;
    frames.push_back({n, mp3test::Adler32(f.P, static_cast<size_t>(n))});
  }
  return frames;
}

int32_t ExpectedVersion(int32_t Rate) { return Rate == 44100 ? 1 : Rate == 22050 ? 2 : 3; }

template <class TUnit>
class Mp3Files : public ::testing::Test {
  // A read outside a guarded buffer ends the run at once, named, rather than hanging.
  mp3test::TFaultReporter FFaults;
};
TYPED_TEST_SUITE(Mp3Files, mp3test::Units, mp3test::UnitNames);

TYPED_TEST(Mp3Files, HeadersAndFramesMatchFfmpeg) {
  for (const auto& name : SampleNames()) {
    const TSample& s = Sample(name);
    SCOPED_TRACE(name);
    const int32_t size = static_cast<int32_t>(s.Bytes.size());
    TGuardedBuffer data(s.Bytes);

    typename TypeParam::TInfo info;
    ASSERT_TRUE(TypeParam::Info(data.Data(), data.Size(), info));
    EXPECT_EQ(info.Version, ExpectedVersion(s.Rate));
    EXPECT_EQ(info.SampleRate, s.Rate);
    EXPECT_EQ(info.Layer, 3);
    EXPECT_EQ(info.SamplesPerFrame, s.Rate == 44100 ? 1152 : 576);
    EXPECT_EQ(TypeParam::Channels(info), s.Channels);
    EXPECT_EQ(info.Stereo, s.Channels == 2);
    if (!s.Vbr) { EXPECT_EQ(info.BitRate, s.CbrKbits * 1000); }
    if (s.Id3) {
      EXPECT_GT(info.Offset, 10);
    } else {
      EXPECT_EQ(info.Offset, 0);
    }

    // The stream form agrees and leaves the file on the header.
    kl::TFileStream file(s.Path, kl::fmOpenRead | kl::fmShareDenyWrite);
    typename TypeParam::TInfo streamInfo;
    ASSERT_TRUE(TypeParam::Info(&file, streamInfo));
    EXPECT_EQ(std::memcmp(&info, &streamInfo, sizeof info), 0);
    EXPECT_EQ(file.GetPosition(), info.Offset);

    // Every frame, each sized by its own header: ffmpeg's packets, behind the encoder's
    // Xing frame where there is one, and nothing left over at the end.
    const auto walked = WalkStream<TypeParam>(file);
    ASSERT_EQ(walked.size(), s.Packets.size() + (s.Xing ? 1 : 0));
    int64_t sum = 0;
    for (const auto& w : walked) sum += w.Size;
    EXPECT_EQ(info.Offset + sum, size);
    const size_t skip = s.Xing ? 1 : 0;
    for (size_t i = 0; i < s.Packets.size(); ++i) {
      ASSERT_EQ(walked[i + skip].Size, s.Packets[i].Size) << "frame " << i;
      ASSERT_EQ(walked[i + skip].Adler, s.Packets[i].Adler) << "frame " << i;
    }
    // Duration x rate / samples per frame, give or take a frame and ffmpeg's rounding.
    const double expected = s.Duration * s.Rate / info.SamplesPerFrame;
    EXPECT_NEAR(static_cast<double>(s.Packets.size()), expected, 1.5);
    if (s.Vbr) {
      std::set<int32_t> sizes;
      for (const auto& p : s.Packets) sizes.insert(p.Size);
      EXPECT_GE(sizes.size(), 3u) << "the encoder made no VBR file";
    }

    // The whole run at once from the header.
    file.SetPosition(info.Offset);
    TFramesBlock all;
    ASSERT_EQ(TypeParam::Frames(&file, kAll, kAll, all.P), size - info.Offset);
    EXPECT_EQ(file.GetPosition(), size);
    EXPECT_EQ(std::memcmp(all.P, s.Bytes.data() + info.Offset, static_cast<size_t>(size - info.Offset)), 0);

    // The memory form sizes every frame by the first header's bit rate: exact for
    // constant bit rate, and never past the data for variable.
    TFramesBlock mem;
    const int32_t n = TypeParam::Frames(data.Data(), data.Size(), kAll, kAll, mem.P);
    if (!s.Vbr) {
      EXPECT_EQ(n, size - info.Offset);
      const int32_t count = TypeParam::Count(data.Data() + info.Offset, size - info.Offset, true);
      EXPECT_NEAR(count, static_cast<double>(s.Packets.size()), 1.0);
      file.SetPosition(info.Offset);
      EXPECT_EQ(TypeParam::Count(&file, size - info.Offset, true), count);
      EXPECT_EQ(file.GetPosition(), info.Offset);
    }
    ASSERT_GT(n, 0);
    ASSERT_LE(n, size - info.Offset);
    EXPECT_EQ(std::memcmp(mem.P, s.Bytes.data() + info.Offset, static_cast<size_t>(n)), 0);
  }
}

TYPED_TEST(Mp3Files, TruncatedFileKeepsOnlyWholeFrames) {
  const TSample& s = Sample("m1_cbr_stereo");
  int32_t whole = 0;
  for (int i = 0; i < 10; ++i) whole += s.Packets[static_cast<size_t>(i)].Size;
  const std::string cut = s.Bytes.substr(0, static_cast<size_t>(whole) + 100);
  TGuardedBuffer data(cut);
  TFramesBlock mem;
  EXPECT_EQ(TypeParam::Frames(data.Data(), data.Size(), kAll, kAll, mem.P), whole);

  const std::string path = mp3test::WorkDir() + std::string(TypeParam::Name) + "_cut.mp3";
  ASSERT_TRUE(kltest::WriteFileBytes(path, cut));
  kl::TFileStream file(path, kl::fmOpenRead | kl::fmShareDenyWrite);
  TFramesBlock f;
  EXPECT_EQ(TypeParam::Frames(&file, kAll, kAll, f.P), whole);
  EXPECT_EQ(file.GetPosition(), whole);
  TFramesBlock g;
  EXPECT_EQ(TypeParam::Frames(&file, kAll, kAll, g.P), 0);
}

TYPED_TEST(Mp3Files, CopyFramesOfARange) {
  for (const char* name : {"m1_cbr_stereo", "m2_vbr_stereo", "m25_cbr_mono"}) {
    const TSample& s = Sample(name);
    SCOPED_TRACE(name);
    // Frame numbers count from position 0, so the Xing frame is frame 0 where it exists.
    const int32_t xing = s.Xing ? 1 : 0;
    const int32_t start = 10, count = 20;
    const std::string out = mp3test::WorkDir() + std::string(TypeParam::Name) + "_" + name + "_copy.mp3";
    {
      kl::TFileStream src(s.Path, kl::fmOpenRead | kl::fmShareDenyWrite);
      kl::TFileStream dst(out, kl::fmCreate);
      ASSERT_TRUE(TypeParam::Copy(&src, &dst, start + xing, count));
    }
    const std::string copy = kltest::ReadFileBytes(out);
    int64_t expectedSize = 0;
    for (int32_t i = start; i < start + count; ++i) expectedSize += s.Packets[static_cast<size_t>(i)].Size;
    EXPECT_EQ(static_cast<int64_t>(copy.size()), expectedSize);

    // Read back: our own walk and ffmpeg see exactly those frames.
    kl::TFileStream back(out, kl::fmOpenRead | kl::fmShareDenyWrite);
    const auto walked = WalkStream<TypeParam>(back);
    EXPECT_EQ(walked.size(), static_cast<size_t>(count));
    const auto packets = mp3test::FfmpegPackets(out);
    ASSERT_EQ(packets.size(), static_cast<size_t>(count));
    for (int32_t i = 0; i < count; ++i) {
      EXPECT_EQ(packets[static_cast<size_t>(i)].Adler, s.Packets[static_cast<size_t>(start + i)].Adler) << i;
    }
  }
}

TYPED_TEST(Mp3Files, CopyFramesRefusals) {
  const TSample& s = Sample("m1_cbr_stereo");
  const int32_t frames = static_cast<int32_t>(s.Packets.size());
  kl::TFileStream src(s.Path, kl::fmOpenRead | kl::fmShareDenyWrite);
  kl::TMemoryStream dst;
  // The last frame can be copied, even when more are asked for.
  ASSERT_TRUE(TypeParam::Copy(&src, &dst, frames - 1, 5));
  EXPECT_EQ(dst.GetSize(), s.Packets.back().Size);
  dst.SetSize(0);
  EXPECT_FALSE(TypeParam::Copy(&src, &dst, frames, 1));
  EXPECT_FALSE(TypeParam::Copy(&src, &dst, kAll, 1));
  EXPECT_FALSE(TypeParam::Copy(&src, &dst, -1, 1));
  EXPECT_FALSE(TypeParam::Copy(&src, &dst, 0, 0));
  EXPECT_FALSE(TypeParam::Copy(&src, nullptr, 0, 1));
  EXPECT_FALSE(TypeParam::Copy(nullptr, &dst, 0, 1));
  EXPECT_EQ(dst.GetSize(), 0);
  // Position 0 of a tagged file is the tag, not a frame.
  kl::TFileStream tagged(Sample("m2_cbr_mono_id3").Path, kl::fmOpenRead | kl::fmShareDenyWrite);
  EXPECT_FALSE(TypeParam::Copy(&tagged, &dst, 0, 1));
  EXPECT_FALSE(TypeParam::Copy(&tagged, &dst, 3, 1));
  // A source of four bytes, even a valid header.
  kl::TMemoryStream tiny;
  tiny.WriteBuffer(s.Bytes.data(), 4);
  EXPECT_FALSE(TypeParam::Copy(&tiny, &dst, 0, 1));
  EXPECT_EQ(dst.GetSize(), 0);
}

TEST(Mp3FileInfo, FromRealFiles) {
  for (const auto& name : SampleNames()) {
    const TSample& s = Sample(name);
    SCOPED_TRACE(name);
    kl::UMp3::TMP3WAVEFORMAT f;
    std::memset(&f, 0xAB, sizeof f);
    ASSERT_TRUE(kl::UMp3::GetMp3FileInfo(s.Path, f));
    const WAVEFORMATEX& w = f.wfx;
    EXPECT_EQ(std::vector<int>({w.wFormatTag, w.nChannels, static_cast<int>(w.nSamplesPerSec), w.nBlockAlign,
                                w.wBitsPerSample, w.cbSize, f.wID, static_cast<int>(f.fdwFlags), f.nFramesPerBlock,
                                f.nCodecDelay}),
              std::vector<int>({85, 1, s.Rate, 1, 0, 12, 1, 2, 1, 1393}));
    // Bit rate and block size of the first frame (the Xing frame of a VBR file).
    kl::UMp3::TMP3Info info;
    ASSERT_TRUE(kl::UMp3::GetMP3Info(s.Bytes.data(), static_cast<int32_t>(s.Bytes.size()), info));
    EXPECT_EQ(f.wfx.nAvgBytesPerSec, static_cast<DWORD>(info.BitRate / 8));
    EXPECT_EQ(f.nBlockSize, kl::Round(info.BitRate * 144.0 / s.Rate));
    if (!s.Vbr) { EXPECT_EQ(f.wfx.nAvgBytesPerSec, static_cast<DWORD>(s.CbrKbits * 125)); }
  }
  // 64 kbit/s at 22050 Hz: 417.96 rounds to 418, with 144 for MPEG-2 as well.
  kl::UMp3::TMP3WAVEFORMAT f;
  ASSERT_TRUE(kl::UMp3::GetMp3FileInfo(Sample("m2_cbr_mono_id3").Path, f));
  EXPECT_EQ(f.nBlockSize, 418);
}

TEST(Mp3FileInfo, BadNamesAreLoggedAndRefused) {
  const TSample& s = Sample("m1_cbr_stereo");
  const std::string upper = mp3test::WorkDir() + "UPPER.MP3";
  ASSERT_TRUE(kltest::WriteFileBytes(upper, s.Bytes));
  kl::UMp3::TMP3WAVEFORMAT f;
  EXPECT_TRUE(kl::UMp3::GetMp3FileInfo(upper, f));

  const std::string wav = mp3test::WorkDir() + "sound.wav";
  ASSERT_TRUE(kltest::WriteFileBytes(wav, s.Bytes));
  const std::string missing = mp3test::WorkDir() + "missing.mp3";
  for (const std::string& bad : {std::string(), missing, wav}) {
    EXPECT_FALSE(kl::UMp3::GetMp3FileInfo(bad, f));
    EXPECT_NE(kl::klLog::GetWholeLog().find("Ump3.GetMp3FileInfo: неверное имя файла \r\n" + bad), std::string::npos)
        << bad;
  }
}

TEST(Mp3FileInfo, BadContentRaises) {
  const auto raises = [](const std::string& Bytes, const char* Message) {
    const std::string path = mp3test::WorkDir() + "bad.mp3";
    ASSERT_TRUE(kltest::WriteFileBytes(path, Bytes));
    kl::UMp3::TMP3WAVEFORMAT f;
    try {
      kl::UMp3::GetMp3FileInfo(path, f);
      ADD_FAILURE() << Message;
    } catch (const kl::Exception& e) {
      EXPECT_STREQ(e.what(), Message);
    }
  };
  raises("", "GetMp3FileInfo: mp3 format error");
  raises("RIFF....WAVEfmt ", "GetMp3FileInfo: mp3 format error");
  raises("ID3" + std::string(5000, '\0'), "GetMp3FileInfo: mp3 format error");
  raises(std::string("\xFF\xEB\x90\x64", 4), "GetMp3FileInfo: version error");
  raises(std::string("\xFF\xFB\xF0\x64", 4), "GetMp3FileInfo: BitRate Error");
  raises(std::string("\xFF\xFB\x90", 3), "GetMp3FileInfo: mp3 format error");
  // Behind a tag the first sync is taken as it is: the layer is not looked at.
  const std::string path = mp3test::WorkDir() + "layer0.mp3";
  ASSERT_TRUE(kltest::WriteFileBytes(path, "ID3" + std::string(20, 'x') + std::string("\xFF\xF9\x90\x64", 4)));
  kl::UMp3::TMP3WAVEFORMAT f;
  ASSERT_TRUE(kl::UMp3::GetMp3FileInfo(path, f));
  EXPECT_EQ(f.wfx.nSamplesPerSec, 44100u);
  EXPECT_EQ(f.wfx.nAvgBytesPerSec, 16000u);
}

}  // namespace
