// Frame headers, frame sizes and the small helpers of both MP3 units, on hand-made
// bytes held in guarded buffers (a read past either end faults).
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "Mp3TestSupport.h"
#include "Mp3Units.h"
#include "rtl/Classes.h"
#include "rtl/SysUtils.h"

using mp3test::TGuardedBuffer;

namespace {

std::string Bytes(std::initializer_list<int> List) {
  std::string s;
  for (int b : List) s += static_cast<char>(b);
  return s;
}

// An ID3v2 tag header declaring Body bytes, the body itself, then Tail.
std::string Tagged(const std::string& Body, const std::string& Tail) {
  const auto n = static_cast<uint32_t>(Body.size());
  std::string s = "ID3";
  s += Bytes({3, 0, 0, static_cast<int>((n >> 21) & 0x7F), static_cast<int>((n >> 14) & 0x7F),
              static_cast<int>((n >> 7) & 0x7F), static_cast<int>(n & 0x7F)});
  return s + Body + Tail;
}

template <class T>
bool AllZero(const T& Info) {
  const auto* p = reinterpret_cast<const uint8_t*>(&Info);
  for (size_t i = 0; i < sizeof Info; ++i) {
    if (p[i] != 0) return false;
  }
  return true;
}

template <class TUnit>
class Mp3Header : public ::testing::Test {
  // A read outside a guarded buffer ends the run at once, named, rather than hanging.
  mp3test::TFaultReporter FFaults;
};
using Units = ::testing::Types<mp3test::TMp3Unit, mp3test::TklMp3Unit>;
struct UnitNames {
  template <class T>
  static std::string GetName(int) { return T::Name; }
};
TYPED_TEST_SUITE(Mp3Header, Units, UnitNames);

TYPED_TEST(Mp3Header, Mpeg1Layer3At128k) {
  TGuardedBuffer b(Bytes({0xFF, 0xFB, 0x90, 0x64}));
  typename TypeParam::TInfo info;
  ASSERT_TRUE(TypeParam::Info(b.Data(), b.Size(), info));
  EXPECT_EQ(info.Version, 1);
  EXPECT_EQ(info.Layer, 3);
  EXPECT_EQ(info.BitRate, 128000);
  EXPECT_EQ(info.SampleRate, 44100);
  EXPECT_TRUE(info.Stereo);
  EXPECT_EQ(TypeParam::Channels(info), 2);
  EXPECT_EQ(info.Offset, 0);
  EXPECT_EQ(info.SamplesPerFrame, 1152);
  EXPECT_EQ(TypeParam::FrameSize(info, false), 417);
  EXPECT_EQ(TypeParam::FrameSize(info, true), 418);
  EXPECT_EQ(TypeParam::FrameDataSize(info, false), 413);
  EXPECT_EQ(TypeParam::FrameSize(b.Data()), 417);

  TGuardedBuffer padded(Bytes({0xFF, 0xFB, 0x92, 0x64}));
  EXPECT_EQ(TypeParam::FrameSize(padded.Data()), 418);
  EXPECT_TRUE(kl::UMp3::IsMP3FramePadding(0x6492FBFF));
  EXPECT_FALSE(kl::UklMP3::IsMP3FramePadding(0x6490FBFF));
}

TYPED_TEST(Mp3Header, Mpeg2Mono64k) {
  TGuardedBuffer b(Bytes({0xFF, 0xF3, 0x80, 0xC4}));
  typename TypeParam::TInfo info;
  ASSERT_TRUE(TypeParam::Info(b.Data(), b.Size(), info));
  EXPECT_EQ(info.Version, 2);
  EXPECT_EQ(info.Layer, 3);
  EXPECT_EQ(info.BitRate, 64000);
  EXPECT_EQ(info.SampleRate, 22050);
  EXPECT_FALSE(info.Stereo);
  EXPECT_EQ(TypeParam::Channels(info), 1);
  EXPECT_EQ(info.SamplesPerFrame, 576);
  EXPECT_EQ(TypeParam::FrameSize(info, false), 208);
  EXPECT_EQ(TypeParam::FrameSize(b.Data()), 208);
}

TYPED_TEST(Mp3Header, FieldTables) {
  struct TCase {
    int B1, B2, B3;
    int Version, Layer, Spf, BitRate, Rate, Channels;
  };
  const TCase cases[] = {
      {0xE3, 0x44, 0x00, 3, 3, 576, 32000, 12000, 2},    // MPEG-2.5, rate index 1
      {0xE3, 0x18, 0x00, 3, 3, 576, 8000, 8000, 2},      // MPEG-2.5, rate index 2
      {0xF5, 0xE0, 0x80, 2, 2, 1152, 160000, 22050, 1},  // MPEG-2 Layer II, dual channel counts as one
      {0xFF, 0xE4, 0xC0, 1, 1, 384, 320000, 48000, 1},   // MPEG-1 Layer I, Layer III table on purpose
      {0xFD, 0x58, 0x40, 1, 2, 1152, 64000, 32000, 2},   // MPEG-1 Layer II, joint stereo
      {0xFB, 0x9C, 0x00, 1, 3, 1152, 128000, 44100, 2},  // rate index 3 keeps 44100
      {0xFB, 0x00, 0x00, 1, 3, 1152, 0, 44100, 2},       // free format
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::Message() << std::hex << c.B1 << " " << c.B2 << " " << c.B3);
    TGuardedBuffer b(Bytes({0xFF, c.B1, c.B2, c.B3}));
    typename TypeParam::TInfo info;
    ASSERT_TRUE(TypeParam::Info(b.Data(), b.Size(), info));
    EXPECT_EQ(info.Version, c.Version);
    EXPECT_EQ(info.Layer, c.Layer);
    EXPECT_EQ(info.SamplesPerFrame, c.Spf);
    EXPECT_EQ(info.BitRate, c.BitRate);
    EXPECT_EQ(info.SampleRate, c.Rate);
    EXPECT_EQ(TypeParam::Channels(info), c.Channels);
  }
}

TYPED_TEST(Mp3Header, InvalidHeadersGiveFalseAndZeroInfo) {
  const std::string bad[] = {
      Bytes({0xFF, 0xEB, 0x90, 0x64}),  // version bits 01
      Bytes({0xFF, 0xF9, 0x90, 0x64}),  // layer bits 00
      Bytes({0xFF, 0xFB, 0xF0, 0x64}),  // bit-rate index 15
      Bytes({0xFF, 0xF3, 0xF0, 0xC4}),  // bit-rate index 15, MPEG-2
      Bytes({0xFF, 0x1B, 0x90, 0x64}),  // no sync
      Bytes({0xFE, 0xFB, 0x90, 0x64}),  // no sync
      Bytes({0x49, 0x44, 0xFF, 0xFB}),  // "ID" and a sync too close to the end
  };
  for (const auto& s : bad) {
    TGuardedBuffer b(s);
    typename TypeParam::TInfo info;
    std::memset(&info, 0x5A, sizeof info);
    EXPECT_FALSE(TypeParam::Info(b.Data(), b.Size(), info));
    EXPECT_TRUE(AllZero(info));
    EXPECT_EQ(TypeParam::FrameSize(b.Data()), 0);
  }
  typename TypeParam::TInfo info;
  EXPECT_FALSE(TypeParam::Info(nullptr, 4, info));
  TGuardedBuffer three(Bytes({0xFF, 0xFB, 0x90}));
  EXPECT_FALSE(TypeParam::Info(three.Data(), three.Size(), info));
  EXPECT_EQ(TypeParam::FrameSize(nullptr), 0);
  // An info without a rate has no frame size; data size never goes negative.
  std::memset(&info, 0, sizeof info);
  EXPECT_EQ(TypeParam::FrameSize(info, true), 0);
  EXPECT_EQ(TypeParam::FrameDataSize(info, true), 0);
}

TYPED_TEST(Mp3Header, HeaderAtTheVeryEndOfTheBuffer) {
  const std::string tail = Bytes({0xFF, 0xFB, 0x90, 0x64});
  TGuardedBuffer b(std::string(100, '\0') + tail);
  typename TypeParam::TInfo info;
  ASSERT_TRUE(TypeParam::Info(b.Data() + 100, 4, info));
  // The header parses, but the 417-byte frame it announces is not there.
  mp3test::TFramesBlock f;
  EXPECT_EQ(TypeParam::Frames(b.Data() + 100, 4, 10, 100000, f.P), 0);
  EXPECT_EQ(f.P, nullptr);
  // Behind a tag, a sync whose header would run past the end is not taken.
  TGuardedBuffer t(Tagged("", Bytes({0, 0, 0xFF, 0xFB, 0x90})));
  EXPECT_FALSE(TypeParam::Info(t.Data(), t.Size(), info));
  TGuardedBuffer t2(Tagged("", Bytes({0, 0, 0xFF, 0xFB, 0x90})), false);
  EXPECT_FALSE(TypeParam::Info(t2.Data(), t2.Size(), info));
}

TYPED_TEST(Mp3Header, TagSizePointingPastTheEnd) {
  // Declares 0x0FFFFFFF bytes of tag in a 20-byte buffer.
  TGuardedBuffer b(Bytes({'I', 'D', '3', 4, 0, 0, 0x7F, 0x7F, 0x7F, 0x7F, 0xFF, 0xFB, 0x90, 0x64, 0, 0, 0, 0, 0, 0}));
  typename TypeParam::TInfo info;
  const bool ok = TypeParam::Info(b.Data(), b.Size(), info);
  // UMp3 does not read the tag size and finds the header at 10; UklMP3 trusts the size.
  EXPECT_EQ(ok, !TypeParam::SkipsTagBySize);
  if (ok) { EXPECT_EQ(info.Offset, 10); }
  // 0xFF in every size byte: UklMP3 skips far past the end; UMp3 takes the first sync,
  // FF FF FF FF inside the size bytes, which is no valid header.
  TGuardedBuffer c(Bytes({'I', 'D', '3', 4, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFB, 0x90, 0x64}));
  EXPECT_FALSE(TypeParam::Info(c.Data(), c.Size(), info));
  // A tag that ends inside its own 10-byte header.
  TGuardedBuffer d(Bytes({'I', 'D', '3', 4, 0, 0, 0}));
  EXPECT_FALSE(TypeParam::Info(d.Data(), d.Size(), info));
}

TYPED_TEST(Mp3Header, TagHidingAFalseSync) {
  // The tag's body holds a valid-looking header; the real one follows the tag.
  const std::string body = std::string(20, 'x') + Bytes({0xFF, 0xF3, 0x80, 0xC4}) + std::string(20, 'y');
  const std::string frame = Bytes({0xFF, 0xFB, 0x90, 0x64}) + std::string(413, '\0');
  TGuardedBuffer b(Tagged(body, frame + frame));
  typename TypeParam::TInfo info;
  ASSERT_TRUE(TypeParam::Info(b.Data(), b.Size(), info));
  if (TypeParam::SkipsTagBySize) {
    EXPECT_EQ(info.Offset, 10 + static_cast<int32_t>(body.size()));
    EXPECT_EQ(info.Version, 1);
  } else {
    EXPECT_EQ(info.Offset, 30);
    EXPECT_EQ(info.Version, 2);
  }
  // Frames are collected from the header found, never from the start of the tag.
  mp3test::TFramesBlock f;
  const int32_t n = TypeParam::Frames(b.Data(), b.Size(), 100, 1 << 30, f.P);
  if (TypeParam::SkipsTagBySize) {
    ASSERT_EQ(n, 834);
    EXPECT_EQ(std::memcmp(f.P, b.Data() + info.Offset, 834), 0);
  } else {
    // 208-byte MPEG-2 frames from offset 30: as many as fit.
    EXPECT_EQ(n, (b.Size() - 30) / 208 * 208);
  }
}

TYPED_TEST(Mp3Header, FramesFromMemoryHonourCountAndMaxSize) {
  // Five frames: the third one padded.
  std::string data;
  for (int i = 0; i < 5; ++i) {
    const bool pad = i == 2;
    data += Bytes({0xFF, 0xFB, pad ? 0x92 : 0x90, 0x64}) + std::string(pad ? 414 : 413, static_cast<char>(i));
  }
  TGuardedBuffer b(data);
  auto frames = [&](int32_t Size, int32_t Count, int32_t MaxSize) {
    mp3test::TFramesBlock f;
    const int32_t n = TypeParam::Frames(b.Data(), Size, Count, MaxSize, f.P);
    EXPECT_EQ(n == 0, f.P == nullptr);
    if (n > 0) { EXPECT_EQ(std::memcmp(f.P, b.Data(), static_cast<size_t>(n)), 0); }
    return n;
  };
  EXPECT_EQ(frames(b.Size(), 100, 1 << 30), 2086);
  EXPECT_EQ(frames(b.Size(), 3, 1 << 30), 1252);
  EXPECT_EQ(frames(b.Size(), 0, 1 << 30), 417);  // at least one frame
  EXPECT_EQ(frames(b.Size(), 100, 418), 834);    // stops once the total reaches MaxSize
  EXPECT_EQ(frames(b.Size(), 100, 0), 417);
  EXPECT_EQ(frames(b.Size() - 1, 100, 1 << 30), 1669);  // the last frame cut short
  EXPECT_EQ(frames(416, 100, 1 << 30), 0);

  // The stream form reads each frame's own header.
  kl::TMemoryStream s;
  s.WriteBuffer(data.data(), static_cast<int32_t>(data.size()));
  s.SetPosition(0);
  mp3test::TFramesBlock f;
  EXPECT_EQ(TypeParam::Frames(&s, 2, 1 << 30, f.P), 834);
  EXPECT_EQ(s.GetPosition(), 834);
  mp3test::TFramesBlock g;
  EXPECT_EQ(TypeParam::Frames(&s, 100, 1 << 30, g.P), 1252);
  EXPECT_EQ(std::memcmp(g.P, data.data() + 834, 1252), 0);
  mp3test::TFramesBlock h;
  EXPECT_EQ(TypeParam::Frames(&s, 100, 1 << 30, h.P), 0);  // at the end
  EXPECT_EQ(h.P, nullptr);
  s.SetPosition(0);
  mp3test::TFramesBlock k;
  EXPECT_EQ(TypeParam::Frames(&s, 0, 1 << 30, k.P), 0);  // no frames asked for
  EXPECT_EQ(TypeParam::Frames(&s, 100, 1, k.P), 417);
  std::free(k.P);
  k.P = nullptr;
  mp3test::TFramesBlock n;
  EXPECT_EQ(TypeParam::Frames(nullptr, 100, 1, n.P), 0);
}

TYPED_TEST(Mp3Header, FreeFormatStopsTheWalk) {
  const std::string data = Bytes({0xFF, 0xFB, 0x00, 0x64}) + std::string(1000, '\0');
  TGuardedBuffer b(data);
  mp3test::TFramesBlock f;
  EXPECT_EQ(TypeParam::Frames(b.Data(), b.Size(), 10, 1 << 30, f.P), 0);
  EXPECT_EQ(f.P, nullptr);
  EXPECT_EQ(TypeParam::Count(b.Data(), b.Size(), true), 0);
}

TYPED_TEST(Mp3Header, FrameCountEstimate) {
  const std::string data = Bytes({0xFF, 0xFB, 0x90, 0x64});
  TGuardedBuffer b(data);
  // Only the first four bytes are read, whatever Size says.
  EXPECT_EQ(TypeParam::Count(b.Data(), 4, true), 0);  // 4 / 417 rounds to 0
  EXPECT_THROW(TypeParam::Count(b.Data(), 41700, false), kl::Exception);
  try {
    TypeParam::Count(b.Data(), 41700, false);
  } catch (const kl::Exception& e) {
    EXPECT_STREQ(e.what(), "GetMP3FrameCount: Не реализовано (Fast method)");
  }
  kl::TMemoryStream s;
  s.WriteBuffer(data.data(), 4);
  s.SetPosition(0);
  EXPECT_EQ(TypeParam::Count(&s, 41700, true), 100);
  EXPECT_EQ(s.GetPosition(), 0);
  EXPECT_EQ(TypeParam::Count(&s, 4, true), 0);  // Size below 5
  EXPECT_THROW(TypeParam::Count(&s, 41700, false), kl::Exception);
  EXPECT_EQ(TypeParam::Count(static_cast<kl::TStream*>(nullptr), 41700, true), 0);
}

TYPED_TEST(Mp3Header, StreamFormLeavesTheStreamOnTheHeader) {
  const std::string frame = Bytes({0xFF, 0xF3, 0x80, 0xC4}) + std::string(204, '\0');
  const std::string data = "junk" + Tagged(std::string(50, 't'), frame);
  kl::TMemoryStream s;
  s.WriteBuffer(data.data(), static_cast<int32_t>(data.size()));
  s.SetPosition(4);
  typename TypeParam::TInfo info;
  ASSERT_TRUE(TypeParam::Info(&s, info));
  EXPECT_EQ(info.Offset, 60);
  EXPECT_EQ(s.GetPosition(), 64);
  s.SetPosition(0);  // "junk" is not a header
  EXPECT_FALSE(TypeParam::Info(&s, info));
  EXPECT_EQ(s.GetPosition(), 0);
  EXPECT_FALSE(TypeParam::Info(static_cast<kl::TStream*>(nullptr), info));
}

TEST(Mp3Helpers, SoundRates) {
  using namespace kl::UMp3;
  EXPECT_EQ(HerzToSoundRate(11025), sr11025);
  EXPECT_EQ(HerzToSoundRate(22050), 2);
  EXPECT_EQ(kl::UklMP3::HerzToSoundRate(44100), 3);
  for (int herz : {48000, 0, -1, 8000}) {
    try {
      kl::UklMP3::HerzToSoundRate(herz);
      ADD_FAILURE() << herz;
    } catch (const kl::Exception& e) {
      EXPECT_STREQ(e.what(), "HerzToSoundRate: Invalid Herz");
    }
  }
  EXPECT_THROW(HerzToSoundRate(48000), kl::Exception);
  EXPECT_EQ(SoundRateToHerz(sr11025), 11025);
  EXPECT_EQ(kl::UklMP3::SoundRateToHerz(sr22050), 22050);
  EXPECT_EQ(SoundRateToHerz(sr44100), 44100);
  EXPECT_EQ(SoundRateToHerz(static_cast<TSoundRate>(0)), 0);
  EXPECT_EQ(SoundRateToHerz(static_cast<TSoundRate>(4)), 0);
}

TEST(Mp3Helpers, SoundType) {
  EXPECT_EQ(kl::UMp3::GetSoundType(1), 0);
  EXPECT_EQ(kl::UMp3::GetSoundType(2), 1);
  for (int c : {0, 3, -1}) {
    try {
      kl::UMp3::GetSoundType(c);
      ADD_FAILURE() << c;
    } catch (const kl::Exception& e) {
      EXPECT_STREQ(e.what(), "GetSoundType: Invalid channel count");
    }
  }
}

TEST(Mp3Helpers, WaveFormats) {
  const auto check = [](const kl::UMp3::TMP3WAVEFORMAT* f, int Flags, int BlockSize, int Delay) {
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(f->wfx.wFormatTag, 85);
    EXPECT_EQ(f->wfx.nChannels, 0);
    EXPECT_EQ(f->wfx.nSamplesPerSec, 0u);
    EXPECT_EQ(f->wfx.nAvgBytesPerSec, 0u);
    EXPECT_EQ(f->wfx.nBlockAlign, 1);
    EXPECT_EQ(f->wfx.wBitsPerSample, 0);
    EXPECT_EQ(f->wfx.cbSize, 12);
    EXPECT_EQ(f->wID, 1);
    EXPECT_EQ(f->fdwFlags, static_cast<DWORD>(Flags));
    EXPECT_EQ(f->nBlockSize, BlockSize);
    EXPECT_EQ(f->nFramesPerBlock, 1);
    EXPECT_EQ(f->nCodecDelay, Delay);
  };
  kl::UMp3::TMP3WAVEFORMAT f;
  std::memset(&f, 0xAB, sizeof f);
  kl::UMp3::InitMp3WaveFormat(&f);
  check(&f, 2, 522, 1393);
  kl::UMp3::InitMp3WaveFormat(nullptr);
  auto* g = kl::UMp3::GetNewMp3WaveFormat();
  check(g, 2, 522, 1393);
  std::free(g);

  // UklMP3 takes its values from variables that start as 2, 0, 1393 and can be changed.
  EXPECT_EQ(kl::UklMP3::MP3_PADDING, 2);
  EXPECT_EQ(kl::UklMP3::MP3_BLOCK_SIZE, 0);
  EXPECT_EQ(kl::UklMP3::MP3_CODEC_DELAY, 1393);
  std::memset(&f, 0xAB, sizeof f);
  kl::UklMP3::InitMp3WaveFormat(&f);
  check(&f, 2, 0, 1393);
  kl::UklMP3::MP3_BLOCK_SIZE = 418;
  kl::UklMP3::MP3_PADDING = 0;
  kl::UklMP3::MP3_CODEC_DELAY = 529;
  g = kl::UklMP3::GetNewMp3WaveFormat();
  check(g, 0, 418, 529);
  std::free(g);
  kl::UklMP3::MP3_BLOCK_SIZE = 0;
  kl::UklMP3::MP3_PADDING = 2;
  kl::UklMP3::MP3_CODEC_DELAY = 1393;
  kl::UklMP3::InitMp3WaveFormat(nullptr);
}

}  // namespace
