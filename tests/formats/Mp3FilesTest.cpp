// The MP3 units on files encoded by the real ffmpeg.exe (libmp3lame), checked against
// what ffmpeg's own demuxer reports for the same files. UklMP3 forwards all but its
// header search to UMp3.
#include <gtest/gtest.h>

#include <cstring>
#include <limits>

#include "KlTest.h"
#include "Mp3TestSupport.h"
#include "Mp3Units.h"
#include "diagnostics/klLog.h"
#include "rtl/Classes.h"
#include "rtl/SysUtils.h"

using mp3test::Sample;
using mp3test::TFramesBlock;
using mp3test::TGuardedBuffer;
using mp3test::TSample;

namespace {

constexpr int32_t kAll = std::numeric_limits<int32_t>::max();

struct TWalked {
  int32_t Size;
  uint32_t Adler;
};

// Frame by frame with the stream form, from the stream's position to the end.
using U = mp3test::TMp3Unit;

std::vector<TWalked> WalkStream(kl::TStream& S) {
  std::vector<TWalked> frames;
  for (;;) {
    TFramesBlock f;
    const int32_t n = U::Frames(&S, 1, kAll, f.P);
    if (n == 0) break;
    frames.push_back({n, mp3test::Adler32(f.P, static_cast<size_t>(n))});
  }
  return frames;
}

TEST(Mp3Files, HeadersAndFramesMatchFfmpeg) {
  for (const char* name : mp3test::kSampleNames) {
    const TSample& s = Sample(name);
    SCOPED_TRACE(name);
    const int32_t size = static_cast<int32_t>(s.Bytes.size());
    const auto* b = reinterpret_cast<const uint8_t*>(s.Bytes.data());
    // The first header follows the tag (ffmpeg puts no sync inside it).
    const int32_t tag = s.Id3 ? 10 + (b[6] << 21) + (b[7] << 14) + (b[8] << 7) + b[9] : 0;
    TGuardedBuffer data(s.Bytes);

    U::TInfo info;
    ASSERT_TRUE(U::Info(data.Data(), data.Size(), info));
    const int32_t bitRate = s.CbrKbits != 0 ? s.CbrKbits * 1000 : info.BitRate;  // a VBR file starts with Xing
    EXPECT_EQ(U::Fields(info),
              std::vector<int32_t>({s.Rate == 44100 ? 1 : s.Rate == 22050 ? 2 : 3, 3, s.Rate == 44100 ? 1152 : 576,
                                    bitRate, s.Rate, s.Channels, s.Channels == 2, tag}));

    // The stream form agrees and leaves the file on the header.
    kl::TFileStream file(s.Path, kl::fmOpenRead | kl::fmShareDenyWrite);
    U::TInfo streamInfo;
    ASSERT_TRUE(U::Info(&file, streamInfo));
    EXPECT_EQ(std::memcmp(&info, &streamInfo, sizeof info), 0);
    EXPECT_EQ(file.GetPosition(), tag);
    // UklMP3's own search finds the same header.
    mp3test::TklMp3Unit::TInfo kl;
    ASSERT_TRUE(mp3test::TklMp3Unit::Info(data.Data(), data.Size(), kl));
    EXPECT_EQ(mp3test::TklMp3Unit::Fields(kl), U::Fields(info));

    // Every frame, each sized by its own header: ffmpeg's packets, behind the encoder's
    // Xing frame where there is one.
    const auto walked = WalkStream(file);
    const size_t skip = s.CbrKbits != 0 ? 0 : 1;
    ASSERT_EQ(walked.size(), s.Packets.size() + skip);
    for (size_t i = 0; i < s.Packets.size(); ++i) {
      ASSERT_EQ(walked[i + skip].Size, s.Packets[i].Size) << "frame " << i;
      ASSERT_EQ(walked[i + skip].Adler, s.Packets[i].Adler) << "frame " << i;
    }

    // The whole run at once from the header, with nothing left over.
    file.SetPosition(tag);
    TFramesBlock all;
    ASSERT_EQ(U::Frames(&file, kAll, kAll, all.P), size - tag);
    EXPECT_EQ(file.GetPosition(), size);
    EXPECT_EQ(std::memcmp(all.P, s.Bytes.data() + tag, static_cast<size_t>(size - tag)), 0);

    // The memory form sizes every frame by the first header's bit rate: exact for
    // constant bit rate, and never past the data for variable.
    TFramesBlock mem;
    const int32_t n = U::Frames(data.Data(), data.Size(), kAll, kAll, mem.P);
    if (s.CbrKbits != 0) {
      EXPECT_EQ(n, size - tag);
      const int32_t count = U::Count(data.Data() + tag, size - tag, true);
      EXPECT_NEAR(count, static_cast<double>(s.Packets.size()), 1.0);
      file.SetPosition(tag);
      EXPECT_EQ(U::Count(&file, size - tag, true), count);
      EXPECT_EQ(file.GetPosition(), tag);
    }
    ASSERT_GT(n, 0);
    ASSERT_LE(n, size - tag);
    EXPECT_EQ(std::memcmp(mem.P, s.Bytes.data() + tag, static_cast<size_t>(n)), 0);
  }
}

TEST(Mp3Files, CopyFramesOfARange) {
  // Frame numbers count from position 0, so the Xing frame of this VBR file is frame 0.
  const TSample& s = Sample("m25_vbr_stereo");
  const int32_t start = 10, count = 20;
  const std::string out = mp3test::WorkDir() + "copy.mp3";
  {
    kl::TFileStream src(s.Path, kl::fmOpenRead | kl::fmShareDenyWrite);
    kl::TFileStream dst(out, kl::fmCreate);
    ASSERT_TRUE(U::Copy(&src, &dst, start + 1, count));
  }
  // Read back, ffmpeg sees exactly those frames and nothing else.
  const auto packets = mp3test::FfmpegPackets(out);
  ASSERT_EQ(packets.size(), static_cast<size_t>(count));
  int64_t size = 0;
  for (int32_t i = 0; i < count; ++i) {
    const auto& p = packets[static_cast<size_t>(i)];
    EXPECT_EQ(p.Adler, s.Packets[static_cast<size_t>(start + i)].Adler) << i;
    size += p.Size;
  }
  EXPECT_EQ(static_cast<int64_t>(kltest::ReadFileBytes(out).size()), size);
}

TEST(Mp3Files, CopyFramesRefusals) {
  const TSample& s = Sample("m1_cbr_stereo");
  const int32_t frames = static_cast<int32_t>(s.Packets.size());
  kl::TFileStream src(s.Path, kl::fmOpenRead | kl::fmShareDenyWrite);
  kl::TMemoryStream dst;
  // The last frame can be copied, even when more are asked for.
  ASSERT_TRUE(U::Copy(&src, &dst, frames - 1, 5));
  EXPECT_EQ(dst.GetSize(), s.Packets.back().Size);
  dst.SetSize(0);
  EXPECT_FALSE(U::Copy(&src, &dst, frames, 1));
  EXPECT_FALSE(U::Copy(&src, &dst, -1, 1));
  EXPECT_FALSE(U::Copy(&src, &dst, 0, 0));
  EXPECT_FALSE(U::Copy(&src, nullptr, 0, 1));
  EXPECT_FALSE(U::Copy(nullptr, &dst, 0, 1));
  // Position 0 of a tagged file is the tag, not a frame.
  kl::TFileStream tagged(Sample("m2_cbr_mono_id3").Path, kl::fmOpenRead | kl::fmShareDenyWrite);
  EXPECT_FALSE(U::Copy(&tagged, &dst, 0, 1));
  EXPECT_FALSE(U::Copy(&tagged, &dst, 3, 1));
  // A source of four bytes, even a valid header.
  kl::TMemoryStream tiny;
  tiny.WriteBuffer(s.Bytes.data(), 4);
  EXPECT_FALSE(U::Copy(&tiny, &dst, 0, 1));
  EXPECT_EQ(dst.GetSize(), 0);
}

TEST(Mp3FileInfo, FromRealFiles) {
  // One channel even for stereo, and the block size from 144 x bit rate for MPEG-2 too
  // (417.96 rounds to 418 in both files).
  for (const char* name : {"m1_cbr_stereo", "m2_cbr_mono_id3"}) {
    const TSample& s = Sample(name);
    kl::UMp3::TMP3WAVEFORMAT f;
    std::memset(&f, 0xAB, sizeof f);
    ASSERT_TRUE(kl::UMp3::GetMp3FileInfo(s.Path, f));
    const kl::UMp3::TMP3WAVEFORMAT want{
        {WAVE_FORMAT_MPEGLAYER3, 1, static_cast<DWORD>(s.Rate), static_cast<DWORD>(s.CbrKbits * 125), 1, 0, 12},
        1, 2, 418, 1, 1393};
    EXPECT_EQ(std::memcmp(&f, &want, sizeof f), 0) << name;
  }
}

TEST(Mp3FileInfo, BadNamesAreLoggedAndRefused) {
  const TSample& s = Sample("m1_cbr_stereo");
  const std::string upper = mp3test::WorkDir() + "UPPER.MP3";
  ASSERT_TRUE(kltest::WriteFileBytes(upper, s.Bytes));
  kl::UMp3::TMP3WAVEFORMAT f;
  EXPECT_TRUE(kl::UMp3::GetMp3FileInfo(upper, f));

  const std::string wav = mp3test::WorkDir() + "sound.wav";
  ASSERT_TRUE(kltest::WriteFileBytes(wav, s.Bytes));
  for (const std::string& bad : {std::string(), mp3test::WorkDir() + "missing.mp3", wav}) {
    EXPECT_FALSE(kl::UMp3::GetMp3FileInfo(bad, f));
    EXPECT_NE(kl::klLog::GetWholeLog().find("Ump3.GetMp3FileInfo: неверное имя файла \r\n" + bad), std::string::npos)
        << bad;
  }
}

TEST(Mp3FileInfo, BadContentRaises) {
  const std::string path = mp3test::WorkDir() + "bad.mp3";
  kl::UMp3::TMP3WAVEFORMAT f;
  const auto raises = [&](const std::string& Bytes, const char* Message) {
    ASSERT_TRUE(kltest::WriteFileBytes(path, Bytes));
    mp3test::ExpectRaises([&] { kl::UMp3::GetMp3FileInfo(path, f); }, Message);
  };
  raises("", "GetMp3FileInfo: mp3 format error");
  raises("RIFF....WAVEfmt ", "GetMp3FileInfo: mp3 format error");
  raises("ID3" + std::string(5000, '\0'), "GetMp3FileInfo: mp3 format error");
  raises(std::string("\xFF\xEB\x90\x64", 4), "GetMp3FileInfo: version error");
  raises(std::string("\xFF\xFB\xF0\x64", 4), "GetMp3FileInfo: BitRate Error");
  raises(std::string("\xFF\xFB\x90", 3), "GetMp3FileInfo: mp3 format error");
  // Behind a tag the first sync is taken as it is: the layer is not looked at.
  ASSERT_TRUE(kltest::WriteFileBytes(path, "ID3" + std::string(20, 'x') + std::string("\xFF\xF9\x90\x64", 4)));
  ASSERT_TRUE(kl::UMp3::GetMp3FileInfo(path, f));
  EXPECT_EQ(std::vector<DWORD>({f.wfx.nSamplesPerSec, f.wfx.nAvgBytesPerSec}), std::vector<DWORD>({44100, 16000}));
}

}  // namespace
