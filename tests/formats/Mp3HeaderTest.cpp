// Frame headers, frame sizes and the small helpers of the MP3 units, on hand-made bytes
// held in guarded buffers (a read past either end faults). UklMP3 forwards everything
// but its tag handling, its frame-size formula and its wave format to UMp3: those
// parts alone are checked for it.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "Mp3TestSupport.h"
#include "Mp3Units.h"
#include "rtl/Classes.h"
#include "rtl/SysUtils.h"

using mp3test::TFramesBlock;
using mp3test::TGuardedBuffer;

namespace {

std::string Bytes(std::initializer_list<int> List) {
  std::string s;
  for (int b : List) s += static_cast<char>(b);
  return s;
}

const std::string kHeader128k = Bytes({0xFF, 0xFB, 0x90, 0x64});  // MPEG-1 Layer III, 44100 Hz, 417 bytes

// An ID3v2 tag header declaring Body bytes, the body itself, then Tail.
std::string Tagged(const std::string& Body, const std::string& Tail) {
  const auto n = static_cast<uint32_t>(Body.size());
  return "ID3" +
         Bytes({3, 0, 0, static_cast<int>((n >> 21) & 0x7F), static_cast<int>((n >> 14) & 0x7F),
                static_cast<int>((n >> 7) & 0x7F), static_cast<int>(n & 0x7F)}) +
         Body + Tail;
}

kl::TMemoryStream& Fill(kl::TMemoryStream& S, const std::string& Data) {
  S.WriteBuffer(Data.data(), static_cast<int32_t>(Data.size()));
  S.SetPosition(0);
  return S;
}

using U = mp3test::TMp3Unit;
using Kl = mp3test::TklMp3Unit;

TEST(Mp3Header, FieldTablesAndFrameSizes) {
  struct TCase {
    int B1, B2, B3;
    int32_t Version, Layer, Spf, BitRate, Rate, Channels, Size;
  };
  // The Layer III bit rates and frame-size formula serve every layer, on purpose.
  const TCase cases[] = {
      {0xFB, 0x90, 0x64, 1, 3, 1152, 128000, 44100, 2, 417},
      {0xFB, 0x92, 0x64, 1, 3, 1152, 128000, 44100, 2, 417},  // the padding bit set
      {0xF3, 0x80, 0xC4, 2, 3, 576, 64000, 22050, 1, 208},    // MPEG-2 mono
      {0xE3, 0x44, 0x00, 3, 3, 576, 32000, 12000, 2, 192},    // MPEG-2.5, rate index 1
      {0xF5, 0xE0, 0x80, 2, 2, 1152, 160000, 22050, 1, 522},  // MPEG-2 Layer II, dual channel counts as one
      {0xFF, 0xE4, 0xC0, 1, 1, 384, 320000, 48000, 1, 960},   // MPEG-1 Layer I
      {0xFB, 0x9C, 0x00, 1, 3, 1152, 128000, 44100, 2, 417},  // rate index 3 keeps 44100
      {0xFB, 0x00, 0x00, 1, 3, 1152, 0, 44100, 2, 0},         // free format
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::Message() << std::hex << c.B1 << " " << c.B2 << " " << c.B3);
    TGuardedBuffer b(Bytes({0xFF, c.B1, c.B2, c.B3}));
    U::TInfo info;
    ASSERT_TRUE(U::Info(b.Data(), b.Size(), info));
    EXPECT_EQ(U::Fields(info),
              std::vector<int32_t>({c.Version, c.Layer, c.Spf, c.BitRate, c.Rate, c.Channels, c.Channels == 2, 0}));
    EXPECT_EQ(std::vector<int32_t>({U::FrameSize(info, false), U::FrameSize(info, true),
                                    U::FrameSize(b.Data()), U::FrameDataSize(info, false)}),
              std::vector<int32_t>({c.Size, c.Size + 1, c.Size + (c.B2 & 2 ? 1 : 0), std::max(c.Size - 4, 0)}));
    // UklMP3's own copy of the frame-size formula agrees.
    Kl::TInfo kl;
    ASSERT_TRUE(Kl::Info(b.Data(), b.Size(), kl));
    EXPECT_EQ(Kl::FrameSize(kl, true), c.Size + 1);
  }
  EXPECT_TRUE(kl::UMp3::IsMP3FramePadding(0x6492FBFF));
  EXPECT_FALSE(kl::UMp3::IsMP3FramePadding(0x6490FBFF));
}

TEST(Mp3Header, InvalidHeadersGiveFalseAndZeroInfo) {
  const std::string bad[] = {
      Bytes({0xFF, 0xEB, 0x90, 0x64}),  // version bits 01
      Bytes({0xFF, 0xF9, 0x90, 0x64}),  // layer bits 00
      Bytes({0xFF, 0xFB, 0xF0, 0x64}),  // bit-rate index 15
      Bytes({0xFE, 0xFB, 0x90, 0x64}),  // no sync
      Bytes({0x49, 0x44, 0xFF, 0xFB}),  // "ID" and a sync too close to the end
      Bytes({0xFF, 0xFB, 0x90}),        // three bytes
  };
  U::TInfo info, zero;
  std::memset(&zero, 0, sizeof zero);
  for (const auto& s : bad) {
    TGuardedBuffer b(s);
    std::memset(&info, 0x5A, sizeof info);
    EXPECT_FALSE(U::Info(b.Data(), b.Size(), info));
    EXPECT_EQ(std::memcmp(&info, &zero, sizeof info), 0);
    if (b.Size() == 4) { EXPECT_EQ(U::FrameSize(b.Data()), 0); }
    Kl::TInfo kl;
    EXPECT_FALSE(Kl::Info(b.Data(), b.Size(), kl));
  }
  EXPECT_FALSE(U::Info(nullptr, 4, info));
  EXPECT_EQ(U::FrameSize(nullptr), 0);
  // An info without a rate has no frame size; data size never goes negative.
  EXPECT_EQ(U::FrameSize(zero, true), 0);
  EXPECT_EQ(U::FrameDataSize(zero, true), 0);
}

// UMp3 takes the first sync within 4096 bytes from the very start; UklMP3 skips the
// tag by its declared size.
template <class TUnit>
void TagCases(bool SkipsTagBySize) {
  SCOPED_TRACE(TUnit::Name);
  typename TUnit::TInfo info;
  // Behind a tag, a sync whose header would run past either end is not taken.
  for (bool atEnd : {true, false}) {
    TGuardedBuffer t(Tagged("", Bytes({0, 0, 0xFF, 0xFB, 0x90})), atEnd);
    EXPECT_FALSE(TUnit::Info(t.Data(), t.Size(), info));
  }
  // Declares 0x0FFFFFFF bytes of tag in a 20-byte buffer.
  TGuardedBuffer huge(Bytes({'I', 'D', '3', 4, 0, 0, 0x7F, 0x7F, 0x7F, 0x7F}) + kHeader128k + std::string(6, '\0'));
  const bool ok = TUnit::Info(huge.Data(), huge.Size(), info);
  EXPECT_EQ(ok, !SkipsTagBySize);
  if (ok) { EXPECT_EQ(info.Offset, 10); }
  // 0xFF in every size byte: UMp3 takes FF FF FF FF inside the size bytes, no valid header.
  TGuardedBuffer c(Bytes({'I', 'D', '3', 4, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF}) + kHeader128k);
  EXPECT_FALSE(TUnit::Info(c.Data(), c.Size(), info));
  TGuardedBuffer d(Bytes({'I', 'D', '3', 4, 0, 0, 0}));  // ends inside its own header
  EXPECT_FALSE(TUnit::Info(d.Data(), d.Size(), info));

  // The tag's body holds a valid-looking header; the real one follows the tag. Frames
  // are collected from the header found, never from the start of the tag: two real
  // frames, or as many 208-byte MPEG-2 frames as fit from offset 30.
  const std::string body = std::string(20, 'x') + Bytes({0xFF, 0xF3, 0x80, 0xC4}) + std::string(20, 'y');
  const std::string frame = kHeader128k + std::string(413, '\0');
  TGuardedBuffer b(Tagged(body, frame + frame));
  ASSERT_TRUE(TUnit::Info(b.Data(), b.Size(), info));
  EXPECT_EQ(info.Offset, SkipsTagBySize ? 10 + static_cast<int32_t>(body.size()) : 30);
  EXPECT_EQ(info.Version, SkipsTagBySize ? 1 : 2);
  TFramesBlock f;
  const int32_t n = TUnit::Frames(b.Data(), b.Size(), 100, 1 << 30, f.P);
  ASSERT_EQ(n, SkipsTagBySize ? 834 : (b.Size() - 30) / 208 * 208);
  EXPECT_EQ(std::memcmp(f.P, b.Data() + info.Offset, static_cast<size_t>(n)), 0);

  // The stream form leaves the stream on the header, or where it was.
  kl::TMemoryStream s;
  Fill(s, "junk" + Tagged(std::string(50, 't'), Bytes({0xFF, 0xF3, 0x80, 0xC4}) + std::string(204, '\0')));
  EXPECT_FALSE(TUnit::Info(&s, info));  // "junk" is not a header
  EXPECT_EQ(s.GetPosition(), 0);
  s.SetPosition(4);
  ASSERT_TRUE(TUnit::Info(&s, info));
  EXPECT_EQ(std::vector<int64_t>({info.Offset, s.GetPosition()}), std::vector<int64_t>({60, 64}));
  EXPECT_FALSE(TUnit::Info(static_cast<kl::TStream*>(nullptr), info));
}

TEST(Mp3Header, TagsAndFalseSyncs) {
  TagCases<mp3test::TMp3Unit>(false);
  TagCases<mp3test::TklMp3Unit>(true);
}

TEST(Mp3Header, FramesHonourCountAndMaxSize) {
  // Five frames: the third one padded.
  std::string data;
  for (int i = 0; i < 5; ++i) {
    const bool pad = i == 2;
    data += Bytes({0xFF, 0xFB, pad ? 0x92 : 0x90, 0x64}) + std::string(pad ? 414 : 413, static_cast<char>(i));
  }
  TGuardedBuffer b(data);
  struct TCase {
    int32_t Size, Count, MaxSize, Expected;
  };
  const TCase cases[] = {
      {b.Size(), 100, 1 << 30, 2086}, {b.Size(), 3, 1 << 30, 1252},
      {b.Size(), 0, 1 << 30, 417},    // at least one frame
      {b.Size(), 100, 418, 834},      // stops once the total reaches MaxSize
      {b.Size() - 1, 100, 1 << 30, 1669},  // the last frame cut short
      {416, 100, 1 << 30, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::Message() << c.Size << " " << c.Count << " " << c.MaxSize);
    TFramesBlock f;
    const int32_t n = U::Frames(b.Data(), c.Size, c.Count, c.MaxSize, f.P);
    EXPECT_EQ(n, c.Expected);
    EXPECT_EQ(n == 0, f.P == nullptr);
    if (n > 0) { EXPECT_EQ(std::memcmp(f.P, b.Data(), static_cast<size_t>(n)), 0); }
  }

  // The stream form takes no frame when none is asked for, sizes each frame by its own
  // header, stays after what it took and leaves out the frame cut short.
  kl::TMemoryStream s;
  Fill(s, data.substr(0, data.size() - 1));
  TFramesBlock f, g, h;
  EXPECT_EQ(U::Frames(&s, 0, 1 << 30, f.P), 0);
  EXPECT_EQ(U::Frames(&s, 100, 418, f.P), 834);
  EXPECT_EQ(s.GetPosition(), 834);
  ASSERT_EQ(U::Frames(&s, 100, 1 << 30, g.P), 835);
  EXPECT_EQ(std::memcmp(g.P, data.data() + 834, 835), 0);
  EXPECT_EQ(s.GetPosition(), 1669);
  EXPECT_EQ(U::Frames(&s, 100, 1 << 30, h.P), 0);
  EXPECT_EQ(h.P, nullptr);

  // A free-format header has no size: the walk stops at once.
  TGuardedBuffer free(Bytes({0xFF, 0xFB, 0x00, 0x64}) + std::string(1000, '\0'));
  TFramesBlock x;
  EXPECT_EQ(U::Frames(free.Data(), free.Size(), 10, 1 << 30, x.P), 0);
  EXPECT_EQ(x.P, nullptr);
  EXPECT_EQ(U::Count(free.Data(), free.Size(), true), 0);
}

TEST(Mp3Header, FrameCounts) {
  // Only the first four bytes are read, whatever Size says; both units' memory forms.
  TGuardedBuffer b(kHeader128k);
  EXPECT_EQ(U::Count(b.Data(), 4, true), 0);  // 4 / 417 rounds to 0
  EXPECT_EQ(Kl::Count(b.Data(), 4, true), 0);
  mp3test::ExpectRaises([&] { U::Count(b.Data(), 41700, false); },
                        "GetMP3FrameCount: Не реализовано (Fast method)");
  mp3test::ExpectRaises([&] { Kl::Count(b.Data(), 41700, false); }, "GetMP3FrameCount: Не реализовано (Fast method)");
  kl::TMemoryStream s;
  Fill(s, kHeader128k);
  EXPECT_EQ(U::Count(&s, 41700, true), 100);
  EXPECT_EQ(s.GetPosition(), 0);
  EXPECT_EQ(U::Count(&s, 4, true), 0);  // Size below 5
  EXPECT_EQ(U::Count(static_cast<kl::TStream*>(nullptr), 41700, true), 0);

  // Data that starts like a tag but is only a few bytes long: the search for the first
  // header stays inside it, in memory and in the 4 bytes the stream form reads.
  for (const std::string& data : {std::string("ID3\x04", 4), std::string("ID\xFF\xFB", 4), std::string("ID\xFF", 3)}) {
    TGuardedBuffer d(data);
    EXPECT_EQ(U::Count(d.Data(), d.Size(), true), 0);
    EXPECT_EQ(Kl::Count(d.Data(), d.Size(), true), 0);
    kl::TMemoryStream t;
    EXPECT_EQ(U::Count(&Fill(t, data), 41700, true), 0);
    EXPECT_EQ(t.GetPosition(), 0);
  }
}

TEST(Mp3Helpers, SoundRatesTypesAndWaveFormat) {
  using namespace kl::UMp3;
  for (int herz : {11025, 22050, 44100}) EXPECT_EQ(SoundRateToHerz(HerzToSoundRate(herz)), herz);
  EXPECT_EQ(SoundRateToHerz(static_cast<TSoundRate>(4)), 0);
  mp3test::ExpectRaises([] { HerzToSoundRate(8000); }, "HerzToSoundRate: Invalid Herz");
  mp3test::ExpectRaises([] { GetSoundType(3); }, "GetSoundType: Invalid channel count");

  // All 30 bytes. UklMP3 takes the block size from a variable that starts at 0.
  for (const auto init : {&kl::UMp3::InitMp3WaveFormat, &kl::UklMP3::InitMp3WaveFormat}) {
    TMP3WAVEFORMAT f;
    std::memset(&f, 0xAB, sizeof f);
    init(&f);
    const WORD block = init == &kl::UMp3::InitMp3WaveFormat ? 522 : 0;
    const TMP3WAVEFORMAT want{{WAVE_FORMAT_MPEGLAYER3, 0, 0, 0, 1, 0, 12}, 1, 2, block, 1, 1393};
    EXPECT_EQ(std::memcmp(&f, &want, sizeof want), 0) << f.fdwFlags << " " << f.nBlockSize << " " << f.nCodecDelay;
    init(nullptr);
  }
  auto* g = kl::UklMP3::GetNewMp3WaveFormat();
  ASSERT_NE(g, nullptr);
  EXPECT_EQ(g->nBlockSize, 0);
  std::free(g);
}

}  // namespace
