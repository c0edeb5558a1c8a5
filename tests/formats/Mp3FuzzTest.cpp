// Bad input for both MP3 units: a few thousand damaged copies of real ffmpeg-encoded
// files through every parser, in guarded buffers so that a read outside the given
// bytes faults. The run happens in a child process: a fault
// there fails the test with the case that caused it instead of ending the whole run.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <random>
#include <limits>
#include <stdexcept>
#include <type_traits>

#include "KlTest.h"
#include "Mp3TestSupport.h"
#include "Mp3Units.h"
#include "rtl/Classes.h"
#include "rtl/SysUtils.h"

using mp3test::TFramesBlock;
using mp3test::TGuardedBuffer;

namespace {

constexpr int32_t kSearch = 4096;

void Require(bool Condition, const std::string& What) {
  if (!Condition) throw std::runtime_error(What);
}

template <class TUnit>
void CheckInfo(bool Ok, const typename TUnit::TInfo& Info, const uint8_t* Data, int32_t Size) {
  if (!Ok) {
    typename TUnit::TInfo zero;
    std::memset(&zero, 0, sizeof zero);
    Require(std::memcmp(&zero, &Info, sizeof zero) == 0, "false but Info not cleared");
    return;
  }
  // The field values themselves are the header tables' business; here the header has
  // to be a real sync within the data.
  Require(Info.Offset >= 0 && Info.Offset + 4 <= Size && Info.Offset + 4 <= kSearch, "Offset");
  const uint8_t* h = Data + Info.Offset;
  Require(h[0] == 0xFF && (h[1] & 0xE0) == 0xE0, "no sync at Offset");
  Require(TUnit::FrameSize(h) == TUnit::FrameSize(Info, (h[2] & 2) != 0), "frame size of the header");
}

template <class TUnit>
void MemoryForms(const TGuardedBuffer& B, std::mt19937& Rng) {
  typename TUnit::TInfo info;
  const bool ok = TUnit::Info(B.Data(), B.Size(), info);
  CheckInfo<TUnit>(ok, info, B.Data(), B.Size());

  const int32_t count = static_cast<int32_t>(Rng() % 200) - 5;
  const int32_t maxSize = Rng() % 4 == 0 ? std::numeric_limits<int32_t>::max() : static_cast<int32_t>(Rng() % 60000);
  TFramesBlock f;
  const int32_t n = TUnit::Frames(B.Data(), B.Size(), count, maxSize, f.P);
  Require((n == 0) == (f.P == nullptr), "Frames null iff 0");
  Require(n >= 0 && (ok || n == 0), "frames without a header");
  if (n > 0) {
    Require(n <= B.Size() - info.Offset, "frames past the data");
    Require(std::memcmp(f.P, B.Data() + info.Offset, static_cast<size_t>(n)) == 0, "frames not the data's");
  }
  Require(TUnit::Count(B.Data(), B.Size(), true) >= 0, "negative count");
}

template <class TUnit>
void StreamForms(const std::string& Bytes, std::mt19937& Rng) {
  kl::TMemoryStream s;
  if (!Bytes.empty()) s.WriteBuffer(Bytes.data(), static_cast<int32_t>(Bytes.size()));
  const int32_t size = static_cast<int32_t>(Bytes.size());
  const int32_t start = size == 0 || Rng() % 2 == 0 ? 0 : static_cast<int32_t>(Rng() % static_cast<uint32_t>(size));

  s.SetPosition(start);
  typename TUnit::TInfo info;
  const bool ok = TUnit::Info(&s, info);
  const int32_t seen = std::min(size - start, kSearch);
  CheckInfo<TUnit>(ok, info, reinterpret_cast<const uint8_t*>(Bytes.data()) + start, seen);
  Require(s.GetPosition() == start + (ok ? info.Offset : 0), "stream not on the header");
  typename TUnit::TInfo mem;
  Require(TUnit::Info(Bytes.data() + start, seen, mem) == ok && std::memcmp(&mem, &info, sizeof mem) == 0,
          "stream and memory forms disagree");
  if constexpr (std::is_same_v<TUnit, mp3test::TklMp3Unit>) return;  // the rest is forwarded to UMp3

  s.SetPosition(start);
  const int32_t count = static_cast<int32_t>(Rng() % 300) - 5;
  const int32_t maxSize = Rng() % 4 == 0 ? std::numeric_limits<int32_t>::max() : static_cast<int32_t>(Rng() % 60000);
  TFramesBlock f;
  const int32_t n = TUnit::Frames(&s, count, maxSize, f.P);
  Require((n == 0) == (f.P == nullptr), "stream Frames null iff 0");
  Require(n >= 0 && n <= size - start, "stream frames past the end");
  Require(s.GetPosition() == start + n, "stream not after the run");
  if (n > 0) Require(std::memcmp(f.P, Bytes.data() + start, static_cast<size_t>(n)) == 0, "stream frames differ");

  s.SetPosition(start);
  Require(TUnit::Count(&s, static_cast<int32_t>(Rng() % 100000), true) >= 0, "negative stream count");
  Require(s.GetPosition() == start, "count moved the stream");

  kl::TMemoryStream dest;
  const int32_t from = static_cast<int32_t>(Rng() % 50) - 2;
  const bool copied = TUnit::Copy(&s, &dest, from, static_cast<int32_t>(Rng() % 40) - 2);
  Require(copied == (dest.GetSize() > 0), "copy result and output disagree");
  Require(dest.GetSize() <= size, "copy larger than the source");
}

// A good name: a format, or one of the content errors.
void FileInfo(const std::string& Path, const std::string& Bytes) {
  Require(kltest::WriteFileBytes(Path, Bytes), "cannot write " + Path);
  kl::UMp3::TMP3WAVEFORMAT f;
  bool ok = false;
  try {
    ok = kl::UMp3::GetMp3FileInfo(Path, f) && f.wfx.wFormatTag == 85 && f.wfx.nChannels == 1;
  } catch (const kl::Exception& e) {
    const std::string m = e.what();
    ok = m == "GetMp3FileInfo: mp3 format error" || m == "GetMp3FileInfo: version error" ||
         m == "GetMp3FileInfo: BitRate Error";
    Require(ok, "GetMp3FileInfo raised " + m);
  }
  Require(ok, "GetMp3FileInfo refused a good name");
}

std::string Mutate(const std::string& Base, std::mt19937& Rng, std::string& How) {
  std::string s = Base;
  auto at = [&](size_t n) { return n == 0 ? 0 : Rng() % n; };
  const int steps = 1 + static_cast<int>(Rng() % 3);
  for (int k = 0; k < steps; ++k) {
    switch (Rng() % 6) {
      case 0:  // flipped bits
        How += "flip ";
        for (int i = 0, n = 1 + static_cast<int>(Rng() % 16); i < n && !s.empty(); ++i) {
          s[at(s.size())] ^= static_cast<char>(1 << (Rng() % 8));
        }
        break;
      case 1: {  // plausible headers in odd places
        How += "sync ";
        for (int i = 0, n = 1 + static_cast<int>(Rng() % 8); i < n && s.size() >= 2; ++i) {
          const size_t p = at(s.size() - 1);
          s[p] = '\xFF';
          s[p + 1] = static_cast<char>(0xE0 | (Rng() & 0x1F));
          if (p + 2 < s.size()) s[p + 2] = static_cast<char>(Rng());
        }
        break;
      }
      case 2:  // cut anywhere, down to nothing
        How += "cut ";
        s.resize(Rng() % 3 == 0 ? at(16) : at(s.size() + 1));
        break;
      case 3: {  // "ID" in front, then maybe the rest of a tag header with any size
        How += "tag ";
        std::string tag = "ID3";
        for (int i = 0; i < 7; ++i) tag += static_cast<char>(Rng() % 2 ? Rng() & 0x7F : Rng());
        s = tag.substr(0, 2 + at(9)) + s;
        break;
      }
      case 4: {  // a run of garbage
        How += "garbage ";
        if (s.empty()) break;
        const size_t p = at(s.size());
        const size_t n = std::min(s.size() - p, static_cast<size_t>(1 + Rng() % 2000));
        for (size_t i = 0; i < n; ++i) s[p + i] = static_cast<char>(Rng());
        break;
      }
      default: {  // free format, bad bit rates and rate indexes in the first header
        How += "header ";
        if (s.size() >= 3) s[2] = static_cast<char>(Rng());
        break;
      }
    }
  }
  return s;
}

}  // namespace

// Args: seed, number of cases, scratch folder, then the files to damage.
KL_CHILD_ROLE(mp3fuzz) {
  if (Args.size() < 4) return 2;
  std::mt19937 rng(static_cast<uint32_t>(std::stoul(Args[0])));
  const int cases = std::stoi(Args[1]);
  const std::string scratch = Args[2];
  std::vector<std::string> bases;
  for (size_t i = 3; i < Args.size(); ++i) bases.push_back(kltest::ReadFileBytes(Args[i]));
  for (int c = 0; c < cases; ++c) {
    std::string how;
    const size_t base = rng() % bases.size();
    const std::string bytes = Mutate(bases[base], rng, how);
    // Printed before the case runs, so that a fault still names it.
    std::printf("case %d: file %u, %u bytes, %s\n", c, static_cast<unsigned>(base), static_cast<unsigned>(bytes.size()),
                how.c_str());
    std::fflush(stdout);
    try {
      for (bool atEnd : {true, false}) {
        TGuardedBuffer b(bytes, atEnd);
        MemoryForms<mp3test::TMp3Unit>(b, rng);
        MemoryForms<mp3test::TklMp3Unit>(b, rng);
      }
      StreamForms<mp3test::TMp3Unit>(bytes, rng);
      StreamForms<mp3test::TklMp3Unit>(bytes, rng);
      if (c % 8 == 0) FileInfo(scratch + "fuzz.mp3", bytes);
    } catch (const std::exception& e) {
      std::printf("FAILED: %s\n", e.what());
      return 1;
    }
  }
  std::printf("all %d cases passed\n", cases);
  return 0;
}

namespace {

TEST(Mp3BadInput, DamagedFilesThroughEveryParser) {
  std::vector<std::string> args = {"20261121", "3000", mp3test::WorkDir()};
  for (const char* name : mp3test::kSampleNames) args.push_back(mp3test::Sample(name).Path);
  const auto r = kltest::RunChild("mp3fuzz", args, 600000);
  ASSERT_TRUE(r.Started);
  ASSERT_FALSE(r.TimedOut);
  // On failure the tail of the child's output names the case.
  const std::string tail = r.Out.size() > 2000 ? r.Out.substr(r.Out.size() - 2000) : r.Out;
  EXPECT_EQ(r.ExitCode, 0u) << tail << r.Err;
  EXPECT_NE(r.Out.find("all 3000 cases passed"), std::string::npos) << tail;
}

}  // namespace
