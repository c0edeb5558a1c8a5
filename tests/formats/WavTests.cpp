// WAV files: writing and reading back, chunk search, tagged failures, resampled mono
// copies, ACM conversion checked against ffmpeg.exe, and damaged files.
#include <gtest/gtest.h>

#include <cmath>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <future>
#include <random>

#include "KlTest.h"
#include "formats/UWAV.h"
#include "rtl/SysUtils.h"

using kl::UWAV::TWAVFile;
using kltest::TTempDir;

namespace {

std::string Pattern(size_t Size, uint32_t Seed = 1) {
  std::string s(Size, '\0');
  std::mt19937 rng(Seed);
  for (auto& c : s) c = static_cast<char>(rng());
  return s;
}

std::string Samples16(const std::vector<int16_t>& V) {
  return std::string(reinterpret_cast<const char*>(V.data()), V.size() * 2);
}

std::vector<int16_t> AsSamples16(const std::string& S) {
  std::vector<int16_t> v(S.size() / 2);
  std::memcpy(v.data(), S.data(), v.size() * 2);
  return v;
}

// The message of the exception that opening raises, or "" when it opens.
std::string OpenError(const std::string& FileName) {
  try {
    TWAVFile f(FileName);
    return "";
  } catch (const kl::Exception& e) {
    return e.what();
  }
}

std::string Chunk(const std::string& Id, const std::string& Body) {
  std::string s = Id;
  const uint32_t n = static_cast<uint32_t>(Body.size());
  s.append(reinterpret_cast<const char*>(&n), 4);
  s += Body;
  if (Body.size() % 2) s += '\0';
  return s;
}

std::string Riff(const std::string& Chunks) {
  std::string body = "WAVE" + Chunks;
  const uint32_t n = static_cast<uint32_t>(body.size());
  return "RIFF" + std::string(reinterpret_cast<const char*>(&n), 4) + body;
}

std::string PcmFmt(uint16_t Channels, uint32_t Rate, uint16_t Bits) {
  const std::string wav = kltest::MakeWav(Channels, Rate, Bits, "");
  return wav.substr(20, 16);  // the 16-byte body of its "fmt " chunk
}

std::string DataOf(TWAVFile& F) {
  std::string s(static_cast<size_t>(F.GetDataSize()), '\0');
  if (!s.empty()) s.resize(static_cast<size_t>(F.GetData(0, F.GetDataSize(), s.data())));
  return s;
}

}  // namespace

TEST(WavFile, WrittenFilesReadBackExactly) {
  TTempDir dir;
  struct Case {
    uint16_t bits, channels;
    uint32_t rate;
  } cases[] = {{8, 1, 11025}, {16, 2, 44100}};
  for (const auto& c : cases) {
    SCOPED_TRACE(kl::Format("%u bits, %u channels", c.bits, c.channels));
    const std::string name = dir / kl::Format("rt_%u_%u.wav", c.bits, c.channels);
    const std::string data = Pattern(c.rate * c.channels * c.bits / 8 / 3, c.bits + c.channels);
    {
      TWAVFile w(name, c.bits, c.rate, c.channels);
      // In uneven pieces, as a converter would deliver them.
      for (size_t at = 0; at < data.size();) {
        const size_t n = std::min<size_t>(data.size() - at, 1 + (at * 7) % 5000);
        w.AddData(data.data() + at, static_cast<int32_t>(n));
        at += n;
      }
      w.AddData(nullptr, 100);
      w.AddData(data.data(), 0);
      w.Save();
    }
    // The whole WAVEFORMATEX is written, cbSize included.
    const std::string bytes = kltest::ReadFileBytes(name);
    uint32_t riffSize = 0;
    std::memcpy(&riffSize, bytes.data() + 4, 4);
    EXPECT_EQ(riffSize, bytes.size() - 8);
    EXPECT_EQ(bytes.substr(12, 8), std::string("fmt \x12\0\0\0", 8));

    {  // closed again before ffmpeg.exe reads the file
      TWAVFile r(name);
      ASSERT_NE(r.Format(), nullptr);
      const WAVEFORMATEX& w = *r.Format();
      const uint32_t align = c.channels * c.bits / 8u;
      EXPECT_EQ(std::vector<uint32_t>({w.wFormatTag, w.nChannels, w.nSamplesPerSec, w.nBlockAlign, w.nAvgBytesPerSec,
                                       w.wBitsPerSample, static_cast<uint32_t>(r.GetDataSize())}),
                std::vector<uint32_t>({WAVE_FORMAT_PCM, c.channels, c.rate, align, c.rate * align, c.bits,
                                       static_cast<uint32_t>(data.size())}));
      EXPECT_EQ(r.GetDataOffset(), 46);
      EXPECT_EQ(DataOf(r), data);
    }
    if (c.bits == 16) {
      auto f = kltest::Ffmpeg("-i " + kltest::Quote(name) + " -f null -");
      EXPECT_NE(f.Err.find("Duration: 00:00:00.33"), std::string::npos) << f.Err;
      EXPECT_NE(f.Err.find("pcm_s16le, 44100 Hz, stereo"), std::string::npos) << f.Err;
    }
  }
}

TEST(WavFile, ChunksAroundTheDataAndReadsPastTheEnd) {
  TTempDir dir;
  const std::string data = Pattern(1000);
  const std::string name = dir / "list.wav";
  kltest::WriteFileBytes(name, Riff(Chunk("JUNK", "xyz") + Chunk("fmt ", PcmFmt(2, 44100, 16)) +
                                    Chunk("LIST", "INFOISFT" + Pattern(30)) + Chunk("data", data) +
                                    Chunk("LIST", Pattern(64, 9))));
  TWAVFile f(name);
  EXPECT_EQ(f.Format()->nChannels, 2);
  EXPECT_EQ(f.Format()->cbSize, 0);  // a 16-byte "fmt " has none: read as zero
  EXPECT_EQ(f.GetDataSize(), 1000);
  std::string back(1100, '\x55');
  // The chunk after the data is not sample data.
  EXPECT_EQ(f.GetData(0, 1100, back.data()), 1000);
  EXPECT_EQ(back.substr(0, 1000), data);
  // Nothing to read: zero, and the buffer is cleared.
  back.assign(64, '\x7f');
  EXPECT_EQ(f.GetData(100000, 64, back.data()), 0);
  EXPECT_EQ(back, std::string(64, '\0'));
  EXPECT_EQ(f.GetData(-1, 64, back.data()), 0);
  EXPECT_EQ(f.GetData(0, 64, nullptr), 0);
  // Samples of one channel: the channel count does not enter.
  EXPECT_EQ(f.GetSamples(10, 8, back.data()), 16);
  EXPECT_EQ(back.substr(0, 16), data.substr(20, 16));
}

TEST(WavFile, MissingOrUnwritableFilesDoNothing) {
  TTempDir dir;
  char buf[16];
  TWAVFile f(dir / "absent.wav");
  EXPECT_EQ(f.Format(), nullptr);
  EXPECT_EQ(f.GetData(0, 16, buf), 0);
  f.Save();
  EXPECT_FALSE(kl::FileExists(dir / "absent.wav"));

  TWAVFile w(dir / "no\\such\\folder\\x.wav", 16, 44100, 2);
  EXPECT_FALSE(w.IsOpen());
  w.AddData("abcd", 4);
  w.Save();
  EXPECT_EQ(w.GetData(0, 4, buf), 0);

  kltest::WriteFileBytes(dir / "m.wav", kltest::MakeWav(1, 22050, 16, "abcd"));
  EXPECT_FALSE(TWAVFile(dir / "m.wav").ConvertToPCM(""));
}

TEST(WavFile, DamagedHeadersRaiseTaggedMessages) {
  TTempDir dir;
  const std::string fmt = Chunk("fmt ", PcmFmt(1, 8000, 8));
  struct Case {
    const char* name;
    std::string bytes;
    const char* message;
  } cases[] = {
      {"nodata.wav", Riff(fmt), "UWAV.@137-551@: TWAVFile: DATA not found"},
      {"nofmt.wav", Riff(Chunk("data", "abcd")), "UWAV.@137-551@: TWAVFile: FMT not found"},
      {"notriff.wav", "RIFX" + Riff(fmt).substr(4), "UWAV.@137-551@: TWAVFile: RIFF not found"},
  };
  for (const auto& c : cases) {
    kltest::WriteFileBytes(dir / c.name, c.bytes);
    EXPECT_EQ(OpenError(dir / c.name), c.message) << c.name;
  }
  // Only the complements of 8 and 16 fail the depth check.
  for (const auto& [bits, message] : {std::pair<uint16_t, std::string>{0xFFF7, "UWAV.@137-551@: TWAVFile.Create: "
                                                                               "Invalid BitsPerSample"},
                                      {24, ""}}) {
    std::string odd = PcmFmt(1, 8000, 8);
    std::memcpy(odd.data() + 14, &bits, 2);
    kltest::WriteFileBytes(dir / "bits.wav", Riff(Chunk("fmt ", odd) + Chunk("data", "ab")));
    EXPECT_EQ(OpenError(dir / "bits.wav"), message) << bits;
  }
}

TEST(WavSaveAs, UpsamplingInterpolatesHalfway) {
  TTempDir dir;
  const std::vector<int16_t> src = {0, 1000, -1000, 3001, 32767, -32768, 7};
  kltest::WriteFileBytes(dir / "in.wav", kltest::MakeWav(1, 22050, 16, Samples16(src)));
  TWAVFile in(dir / "in.wav");
  ASSERT_TRUE(in.SaveAs(dir / "out.wav", 44100, 16, true));
  TWAVFile out(dir / "out.wav");
  EXPECT_EQ(out.Format()->nSamplesPerSec, 44100u);
  EXPECT_EQ(out.Format()->nChannels, 1);
  // Each frame, then halfway to the next (halves to even); the last frame is held.
  const std::vector<int16_t> want = {0,     500,   1000,   0,      -1000, 1000, 3001,
                                     17884, 32767, -1,      -32768, -16380, 7,   7};
  EXPECT_EQ(AsSamples16(DataOf(out)), want);
}

TEST(WavSaveAs, DownmixAndDecimate) {
  TTempDir dir;
  // Stereo 16-bit 44100 Hz to mono 8-bit 11025 Hz: every fourth frame, channels averaged.
  std::vector<int16_t> src;
  for (int i = 0; i < 4000; ++i) {
    src.push_back(static_cast<int16_t>(i * 8));
    src.push_back(static_cast<int16_t>(-i * 4));
  }
  kltest::WriteFileBytes(dir / "in.wav", kltest::MakeWav(2, 44100, 16, Samples16(src)));
  ASSERT_TRUE(TWAVFile(dir / "in.wav").SaveAs(dir / "out.wav", 11025, 8, true));
  std::string want;
  for (int k = 0; k < 1000; ++k) want += static_cast<char>(((4 * k * 8 - 4 * k * 4) / 2 >> 8) + 128);
  TWAVFile out(dir / "out.wav");
  EXPECT_EQ(DataOf(out), want);
}

TEST(WavSaveAs, RefusalsAndPlainCopies) {
  TTempDir dir;
  const std::string data = Samples16({1, 2, 3, 4, 5, 6});
  kltest::WriteFileBytes(dir / "m.wav", kltest::MakeWav(1, 22050, 16, data));
  TWAVFile in(dir / "m.wav");
  EXPECT_FALSE(in.SaveAs(dir / "r32.wav", 32000, 16, true));
  EXPECT_FALSE(kl::FileExists(dir / "r32.wav"));
  EXPECT_FALSE(in.SaveAs(dir / "m.wav", 44100, 16, true));  // onto itself
  EXPECT_FALSE(in.SaveAs(dir / "b24.wav", 44100, 24, true));
  try {
    in.SaveAs(dir / "st.wav", 44100, 16, false);
    ADD_FAILURE() << "stereo output must raise";
  } catch (const kl::Exception& e) {
    EXPECT_STREQ(e.what(), "UWAV.@146-403@: TWAVFile.SaveAs: Stereo not released");
  }
  // Same rate, depth and channel count: a plain copy.
  ASSERT_TRUE(in.SaveAs(dir / "same.wav", 22050, 16, true));
  EXPECT_EQ(kltest::ReadFileBytes(dir / "same.wav"), kltest::ReadFileBytes(dir / "m.wav"));
}

TEST(WavConvert, ImaAdpcmThroughAcm) {
  TTempDir dir;
  const std::string adpcm = dir / "ima.wav";
  const std::string reference = dir / "ref.wav";
  const auto ffmpeg = [](const std::string& Args) { return kltest::Ffmpeg(Args).ExitCode; };
  ASSERT_EQ(ffmpeg("-f lavfi -i sine=frequency=440:duration=2:sample_rate=22050 -ac 1 -acodec adpcm_ima_wav " +
                   kltest::Quote(adpcm)), 0u);
  ASSERT_EQ(ffmpeg("-i " + kltest::Quote(adpcm) + " -acodec pcm_s16le " + kltest::Quote(reference)), 0u);
  TWAVFile in(adpcm);
  ASSERT_EQ(in.Format()->wFormatTag, WAVE_FORMAT_IMA_ADPCM);
  ASSERT_TRUE(in.ConvertToPCM(dir / "pcm.wav"));
  TWAVFile pcm(dir / "pcm.wav"), ref(reference);
  EXPECT_EQ(std::vector<uint32_t>({pcm.Format()->wFormatTag, pcm.Format()->nSamplesPerSec}),
            std::vector<uint32_t>({WAVE_FORMAT_PCM, 22050}));
  const auto x = AsSamples16(DataOf(pcm)), y = AsSamples16(DataOf(ref));
  const size_t n = std::min(x.size(), y.size());
  ASSERT_GT(n, 20000u);
  double err = 0;
  for (size_t i = 0; i < n; ++i) err = std::max(err, std::fabs(double(x[i]) - y[i]));
  EXPECT_LT(err, 64) << "ACM's decoding differs from ffmpeg's";
}

// Every damaged file either opens (and then reads within its data) or raises the
// tagged exception; nothing else.
TEST(WavDamaged, CorruptedFilesEndInTaggedExceptionsOrZero) {
  TTempDir dir;
  const std::string good = Riff(Chunk("fmt ", PcmFmt(2, 44100, 16)) + Chunk("LIST", Pattern(20)) +
                                Chunk("data", Pattern(3000)));
  std::vector<std::string> variants;
  for (size_t cut = 0; cut < good.size(); cut += (cut < 100 ? 1 : 97)) variants.push_back(good.substr(0, cut));
  std::mt19937 rng(7);
  const size_t sizeFields[] = {4, 16, 40, 68};  // RIFF, fmt, LIST, data sizes
  const uint32_t absurd[] = {0, 1, 17, 0x7FFFFFFF, 0x80000000u, 0xFFFFFFFFu, 0xFFFFFFF0u, 3001, 65535};
  for (size_t at : sizeFields) {
    for (uint32_t v : absurd) {
      std::string s = good;
      std::memcpy(s.data() + at, &v, 4);
      variants.push_back(s);
    }
  }
  // "fmt " with a cbSize that runs past the chunk and the file.
  variants.push_back(Riff(Chunk("fmt ", PcmFmt(1, 8000, 8) + std::string("\xFF\xFF", 2)) + Chunk("data", "ab")));
  for (int i = 0; i < 150; ++i) {
    std::string s = good;
    const int flips = 1 + static_cast<int>(rng() % 8);
    for (int k = 0; k < flips; ++k) s[rng() % 80] = static_cast<char>(rng());
    variants.push_back(s);
  }
  for (int i = 0; i < 30; ++i) variants.push_back(Pattern(rng() % 2000, static_cast<uint32_t>(i)));

  int opened = 0, raised = 0;
  for (size_t i = 0; i < variants.size(); ++i) {
    const std::string name = dir / kl::Format("bad%zu.wav", i);
    kltest::WriteFileBytes(name, variants[i]);
    try {
      TWAVFile f(name);
      ++opened;
      std::vector<char> buf(8192);
      const int32_t n = f.GetData(0, 8192, buf.data());
      EXPECT_GE(n, 0);
      EXPECT_LE(n, 8192);
      // The caller's buffer holds Count samples of the file's own depth.
      std::vector<char> samples(100 * ((f.Format()->wBitsPerSample + 7) / 8) + 1);
      f.GetSamples(3, 100, samples.data());
      if (f.Format() != nullptr && f.Format()->wFormatTag == WAVE_FORMAT_PCM) {
        f.SaveAs(dir / kl::Format("bad%zu_out.wav", i), 11025, 16, true);
      }
    } catch (const kl::Exception& e) {
      ++raised;
      EXPECT_EQ(std::string(e.what()).rfind("UWAV.@137-551@: TWAVFile", 0), 0u) << e.what();
    }
  }
  EXPECT_GT(raised, 50) << opened << " opened";
}

// Sizes that bring the system's 32-bit chunk search back to the same chunk, data sizes
// past the file (streaming writers leave 0xFFFFFFFF), data beyond 2 GiB in a sparse
// file: each opens with what the file holds or refuses, within a hang bound.
TEST(WavDamaged, ChunkSizesAreCheckedAgainstTheFile) {
  TTempDir dir;
  const std::string fmt = Chunk("fmt ", PcmFmt(1, 8000, 16));
  const auto sized = [](const std::string& Id, uint32_t Size, const std::string& Body) {
    return Id + std::string(reinterpret_cast<const char*>(&Size), 4) + Body;
  };
  struct Case {
    std::string bytes;
    const char* error;
    int32_t dataSize;
  } cases[] = {
      {Riff(fmt + sized("LIST", 0xFFFFFFF8u, "abcd") + Chunk("data", "abcd")), "TWAVFile: DATA not found", 0},
      {Riff(fmt + sized("LIST", 0xFFFFFFF7u, "abcd") + Chunk("data", "abcd")), "TWAVFile: DATA not found", 0},
      {Riff(sized("JUNK", 0xFFFFFFF8u, "") + fmt + Chunk("data", "abcd")), "TWAVFile: FMT not found", 0},
      {Riff(fmt + sized("data", 0xFFFFFFFFu, "abcdef")), "", 6},
      {Riff(fmt + sized("data", 0x80000000u, "abcdefgh")), "", 8},
  };
  for (size_t i = 0; i < std::size(cases); ++i) {
    const std::string name = dir / kl::Format("w%zu.wav", i);
    kltest::WriteFileBytes(name, cases[i].bytes);
    auto opened = std::async(std::launch::async, [&] {
      try {
        TWAVFile f(name);
        return kl::Format("%d", f.GetDataSize());
      } catch (const kl::Exception& e) {
        return std::string(e.what());
      }
    });
    if (opened.wait_for(std::chrono::seconds(60)) != std::future_status::ready) {
      std::printf("opening w%zu.wav hangs\n", i);
      std::fflush(stdout);
      std::_Exit(3);
    }
    const std::string want = *cases[i].error ? std::string("UWAV.@137-551@: ") + cases[i].error
                                             : kl::Format("%d", cases[i].dataSize);
    EXPECT_EQ(opened.get(), want) << i;
  }
  // A sparse file of 2.5 GiB: data that ends below 2 GiB opens, data past it is refused.
  for (const auto& [size, want] : {std::pair<uint32_t, std::string>{0x7FFF0000u, "2147418112"},
                                   {0x9FFF0000u, "UWAV.@137-551@: TWAVFile: DATA too large"}}) {
    const std::string name = dir / "big.wav";
    kltest::WriteFileBytes(name, Riff(fmt + sized("data", size, "")));
    HANDLE h = CreateFileA(name.c_str(), GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    ASSERT_NE(h, INVALID_HANDLE_VALUE);
    LARGE_INTEGER end;
    end.QuadPart = 0xA0000000LL;
    EXPECT_TRUE(SetFilePointerEx(h, end, nullptr, FILE_BEGIN) && SetEndOfFile(h));
    CloseHandle(h);
    try {
      TWAVFile f(name);
      EXPECT_EQ(kl::Format("%d", f.GetDataSize()), want);
      char tail[8];
      EXPECT_EQ(f.GetData(f.GetDataSize() - 4, 8, tail), 4);
    } catch (const kl::Exception& e) {
      EXPECT_EQ(e.what(), want);
    }
    kl::RemoveFile(name);
  }
}

// Header fields that would drive gigabytes are refused before any work.
TEST(WavSaveAs, AbsurdFormatsAreRefused) {
  TTempDir dir;
  for (const auto& [channels, rate] : {std::pair<uint16_t, uint32_t>{32768, 44100}, {65527, 44100}, {1, 1}}) {
    std::string fmt = PcmFmt(1, 8000, 16);
    const uint16_t align = static_cast<uint16_t>(channels * 2);
    std::memcpy(fmt.data() + 2, &channels, 2);
    std::memcpy(fmt.data() + 4, &rate, 4);
    std::memcpy(fmt.data() + 12, &align, 2);
    kltest::WriteFileBytes(dir / "odd.wav", Riff(Chunk("fmt ", fmt) + Chunk("data", Pattern(20000))));
    TWAVFile in(dir / "odd.wav");
    EXPECT_FALSE(in.SaveAs(dir / "out.wav", 44100, 16, true)) << channels << " " << rate;
    EXPECT_FALSE(kl::FileExists(dir / "out.wav"));
  }
}

// A compressed file saved under its own name into another folder: the temporary PCM
// copy must not be the source itself.
TEST(WavSaveAs, CompressedSourceInTheTempFolderSurvives) {
  TTempDir dir;
  const std::string made = dir / "ima.wav";
  ASSERT_EQ(kltest::Ffmpeg("-f lavfi -i sine=frequency=440:duration=1:sample_rate=22050 -ac 1 "
                           "-acodec adpcm_ima_wav " + kltest::Quote(made)).ExitCode, 0u);
  const std::string name = kl::ExtractFileName(dir.Path().substr(0, dir.Path().size() - 1)) + "_src.wav";
  const std::string source = kl::GetTempDir() + name;
  ASSERT_TRUE(CopyFileA(made.c_str(), source.c_str(), FALSE));
  const std::string original = kltest::ReadFileBytes(source);
  {
    TWAVFile in(source);
    EXPECT_TRUE(in.SaveAs(dir / name, 11025, 16, true));
  }
  EXPECT_EQ(kltest::ReadFileBytes(source), original);
  kl::RemoveFile(source);
  TWAVFile out(dir / name);
  EXPECT_NEAR(out.GetDataSize(), 22050, 2048);
}
