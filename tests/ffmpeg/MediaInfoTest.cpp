// TVideoFileInfo on files made by ffmpeg.exe and on stored and mutated ffmpeg texts;
// TimeAsMilliseconds.
#include <gtest/gtest.h>

#include <chrono>
#include <ostream>

#include "FfmpegTestUtil.h"
#include "KlTest.h"
#include "MediaSamples.h"
#include "diagnostics/UTextEx.h"
#include "ffmpeg/UFfmpeg.h"

using kl::ComPtr;
using namespace kl::UFfmpeg;

namespace {

// Every getter at once. A bitrate of kSomeRate stands for any positive value (what an
// encoder chose may change with the machine's thread count).
constexpr int32_t kSomeRate = -1;
struct TSeen {
  std::string Duration;
  int32_t Length, Width, Height;
  float FPS;
  int32_t Frames;
  std::string VideoCodec;
  int32_t VideoBitrate;
  bool Video;
  int32_t AudioCount;
  std::string AudioCodec;
  int32_t Rate, AudioBitrate, Channels;
  bool operator==(const TSeen&) const = default;
};
void PrintTo(const TSeen& S, std::ostream* Os) {
  *Os << "{\"" << S.Duration << "\", " << S.Length << ", " << S.Width << ", " << S.Height << ", " << S.FPS << ", "
      << S.Frames << ", \"" << S.VideoCodec << "\", " << S.VideoBitrate << ", " << S.Video << ", " << S.AudioCount
      << ", \"" << S.AudioCodec << "\", " << S.Rate << ", " << S.AudioBitrate << ", " << S.Channels << "}";
}

TSeen Seen(IVideoFileInfo2* I, const TSeen& Expected) {
  auto rate = [](int32_t Got, int32_t Want) { return Want == kSomeRate && Got > 0 ? kSomeRate : Got; };
  return {I->GetDuration(), I->GetLength(), I->GetWidth(), I->GetHeight(), I->GetFPS(), I->GetFrames(),
          I->GetVideoCodec(), rate(I->GetVideoBitrate(), Expected.VideoBitrate), I->GetVideoPresent(),
          I->GetAudioCount(), I->GetAudioCodec(), I->GetSamplesPerSec(), rate(I->GetAudioBitrate(), Expected.AudioBitrate),
          I->GetAudioChannels()};
}

ComPtr<IVideoFileInfo2> Parsed(const std::string& Text) {
  auto* info = new TVideoFileInfo();
  ComPtr<IVideoFileInfo2> result(info);
  info->ParseText(Text);
  return result;
}

// Banners as ffmpeg prints them (the first two saved from real runs), and hand-made ones
// for the odd cases. Lines end in CR LF as on Windows.
std::string Crlf(std::string S) { return kl::UTextEx::StringReplaceEx(S, "\n", "\r\n", kl::UTextEx::ReplaceAll); }

const std::string kMp4Banner = Crlf(R"(ffmpeg version N-92722-gf22fcd4483 Copyright (c) 2000-2018 the FFmpeg developers
Input #0, mov,mp4,m4a,3gp,3g2,mj2, from 'a.mp4':
  Metadata:
    major_brand     : isom
    encoder         : Lavf58.24.101
  Duration: 00:00:10.02, start: 0.000000, bitrate: 351 kb/s
    Stream #0:0(und): Video: h264 (Constrained Baseline) (avc1 / 0x31637661), yuv420p, 1280x720 [SAR 1:1 DAR 16:9], 273 kb/s, 25 fps, 25 tbr, 12800 tbn, 50 tbc (default)
    Metadata:
      handler_name    : VideoHandler
    Stream #0:1(und): Audio: aac (LC) (mp4a / 0x6134706D), 44100 Hz, mono, fltp, 73 kb/s (default)
At least one output file must be specified
)");
const std::string kMkvBanner = Crlf(R"(Input #0, matroska,webm, from 'two.mkv':
  Duration: 00:00:03.05, start: 0.000000, bitrate: 807 kb/s
    Stream #0:0: Video: mpeg4 (Simple Profile), yuv420p(progressive), 320x240 [SAR 1:1 DAR 4:3], 25 fps, 25 tbr, 1k tbn, 25 tbc (default)
    Stream #0:1: Audio: mp3, 22050 Hz, mono, fltp, 32 kb/s (default)
    Stream #0:2(eng): Audio: ac3, 48000 Hz, 5.1(side), fltp, 448 kb/s (default)
)");
const std::string kTbrOnly = Crlf(R"(  Duration: 00:00:04.00, start: 0.000000, bitrate: 2000 kb/s
    Stream #0:0: Video: mjpeg, yuvj420p(pc, bt470bg/unknown/unknown), 640x480, 25 tbr, 90k tbn, 25 tbc
)");
const std::string kZeroRate = Crlf(R"(  Duration: 00:00:04.00, start: 0.000000, bitrate: 2000 kb/s
    Stream #0:0: Video: h264 (High), yuv420p, 1920x1080, 1500 kb/s, 0 fps, 0 tbr, 90k tbn
    Stream #0:1(eng): Audio: aac, 48000 Hz, STEREO, fltp, 128 kb/s
)");
const std::string kCommaNa = Crlf(R"(  Duration: N/A, bitrate: N/A
    Stream #0:0(rus): Video: vp8, yuv420p, 320x240 640x480, 29,97 fps, 30 tbr, 1k tbn
    Stream #0:1(eng): Audio: vorbis, 44100 Hz, 7.1, fltp
    Stream #0:2(eng): Audio: opus, 48000 Hz, stereo, fltp
)");
// Greedy: the audio line starts after the last "Audio: " of its line, which leaves
// nothing for a second match there.
const std::string kGreedy = "Stream #0:3: Audio: aac, 8000 Hz, Audio: pcm, 16000 Hz, mono, 12 kb/s\r\n";
const std::string kTbcOnly = "Duration: 01:02:03.5,\rStream #0:0: Video: theora, 10x20, 12.5 tbc\n";

TEST(MediaInfoText, StoredBannersGiveEveryValue) {
  const struct {
    const std::string* Text;
    TSeen Want;
  } cases[] = {
      // 25 x 10.02 (a 32-bit float: 10.0200005) = 250.500011 rounds to 251.
      {&kMp4Banner, {"00:00:10.02", 10020, 1280, 720, 25, 251, "h264", 273, true, 1, "aac", 44100, 73, 1}},
      // The codec name is cut at four characters; the first track stands for the audio.
      {&kMkvBanner, {"00:00:03.05", 3050, 320, 240, 25, 76, "mpeg", 0, true, 2, "mp3", 22050, 32, 1}},
      {&kTbrOnly, {"00:00:04.00", 4000, 640, 480, 25, 100, "mjpe", 0, true, 0, "", 0, 0, 0}},
      // A zero rate: no video, although size and codec were read. Channel names ignore case.
      {&kZeroRate, {"00:00:04.00", 4000, 1920, 1080, 0, 0, "h264", 1500, false, 1, "aac", 48000, 128, 2}},
      // A comma is no part of a rate's digits: "29,97 fps" reads as 97. The first size on
      // the line wins; 7.1 is not a known layout.
      {&kCommaNa, {"", 0, 320, 240, 97, 0, "vp8,", 0, true, 2, "vorbis", 44100, 0, 0}},
      // A lone CR ends a line too; the rate from tbc; hours count.
      {&kTbcOnly, {"01:02:03.5", 3723500, 10, 20, 12.5f, 46544, "theo", 0, true, 0, "", 0, 0, 0}},
      {&kGreedy, {"", 0, 0, 0, 0, 0, "", 0, false, 1, "pcm", 16000, 12, 1}},
      {nullptr, {"", 0, 0, 0, 0, 0, "", 0, false, 0, "", 0, 0, 0}},
  };
  for (const auto& c : cases) {
    const ComPtr<IVideoFileInfo2> info = Parsed(c.Text ? *c.Text : "garbage\r\nStream #0:0: Subtitle: ass\r\n");
    EXPECT_EQ(Seen(info.Get(), c.Want), c.Want) << (c.Text ? *c.Text : "garbage");
    EXPECT_EQ(info->GetAudio(0), TAudioInfo());
    EXPECT_EQ(info->GetAudio(3), TAudioInfo());
  }
}

TEST(MediaInfoText, ToStringBothForms) {
  const ComPtr<IVideoFileInfo2> info = Parsed(kMkvBanner);
  const std::string want =
      "File name: \r\nDuration: 00:00:03.05\r\nVideo\r\n  Width: 320\r\n  Height: 240\r\n  FPS: 25\r\n"
      "  Frames: 76\r\n  Video codec: mpeg\r\n  Video bitrate: 0 kb/s\r\nAudio tracks: 2\r\n"
      "Audio 1\r\n  Codec: mp3\r\n  Bitrate: 32 kb/s\r\n  Samples per second: 22050 Hz\r\n  Channels: 1\r\n"
      "Audio 2\r\n  Codec: ac3\r\n  Bitrate: 448 kb/s\r\n  Samples per second: 48000 Hz\r\n  Channels: 5\r\n";
  EXPECT_EQ(info->ToString(true), want);
  EXPECT_EQ(info->ToString(false), kl::UTextEx::StringReplaceEx(want, "\r\n", ", ", kl::UTextEx::ReplaceAll));
  // No video block without video; the rate in the system's decimal form, three decimals.
  EXPECT_EQ(Parsed(kZeroRate)->ToString(false),
            "File name: , Duration: 00:00:04.00, Audio tracks: 1, Audio 1,   Codec: aac,   Bitrate: 128 kb/s, "
            "  Samples per second: 48000 Hz,   Channels: 2, ");
  // The system's decimal separator, read and written; three decimals at most.
  kl::TFormatSettings& fs = kl::FormatSettings();
  const char sep = fs.DecimalSeparator;
  fs.DecimalSeparator = ',';
  const ComPtr<IVideoFileInfo2> rate = Parsed(Crlf("Stream #0:0: Video: x, 8x8, 23.9761 fps\n"));
  const std::string comma = rate->ToString(true);
  fs.DecimalSeparator = sep;
  EXPECT_EQ(rate->GetFPS(), 23.9761f);
  EXPECT_NE(comma.find("  FPS: 23,976\r\n"), std::string::npos) << comma;
}

TEST(MediaInfoText, TimeAsMilliseconds) {
  const struct {
    const char* S;
    int32_t Ms;
  } cases[] = {{"00:01:23.45", 83450}, {"83.5", 83500},   {"1:00", 60000},      {"", 0},
               {"1:2:3:4.5", 7384500}, {"00:00:00.0625", 62}, {"0.1875", 188}, {"x:1:y", 60000},
               {"N/A", 0},            {"10:", 10000}};
  for (const auto& c : cases) EXPECT_EQ(TimeAsMilliseconds(c.S), c.Ms) << c.S;
}

// Mutated banners: no crash, no exception, no hang, and the values stay consistent.
TEST(MediaInfoText, FuzzedBannersAndHugeLines) {
  const std::string* seeds[] = {&kMp4Banner, &kMkvBanner, &kTbrOnly, &kZeroRate, &kCommaNa, &kTbcOnly, &kGreedy};
  const std::string tokens[] = {"0", "9", ".", ",", ":", " ", "x", "\r\n", "\r", " fps", " tbr", " tbc", " kb/s",
                                " Hz", " mono,", " stereo,", " 5.1", "Stream #0:0", ": Video: ", "Audio: ",
                                "Duration: ", "(", ")", "\xFF", std::string(1, '\0')};
  uint64_t state = 12345;
  auto next = [&state](uint32_t N) {
    state = state * 6364136223846793005ull + 1442695040888963407ull;
    return static_cast<uint32_t>(state >> 33) % N;
  };
  for (int round = 0; round < 3000; ++round) {
    std::string s = *seeds[next(7)];
    for (uint32_t k = 0, n = 1 + next(8); k < n && !s.empty(); ++k) {
      const size_t at = next(static_cast<uint32_t>(s.size()));
      switch (next(4)) {
        case 0: s[at] = static_cast<char>(next(256)); break;
        case 1: s.insert(at, tokens[next(sizeof tokens / sizeof *tokens)]); break;
        case 2: s.erase(at, next(40)); break;
        default: s.insert(at, s.substr(at, next(200))); break;
      }
    }
    const ComPtr<IVideoFileInfo2> info = Parsed(s);
    ASSERT_TRUE(info->GetWidth() >= 0 && info->GetHeight() >= 0 && info->GetFrames() >= 0) << s;
    ASSERT_TRUE(!info->GetVideoPresent() || info->GetFPS() > 0) << s;
    ASSERT_LE(info->GetAudioCount(), kl::UTextEx::GetCountOfSubtext(s, "Audio: ")) << s;
    ASSERT_EQ(info->ToString(true).rfind("File name: \r\nDuration: ", 0), 0u) << s;
  }
  // A megabyte on one line, of text every pattern wants to take: the values of the
  // ordinary lines around it still come out, in bounded time and stack.
  const auto start = std::chrono::steady_clock::now();
  for (const std::string fill : {"1", "1.", "Stream #0:0: Audio: 5.1 ", "x"}) {
    std::string huge = "Stream #0:0: Video: 12";
    while (huge.size() < (1u << 20)) huge += fill;
    const ComPtr<IVideoFileInfo2> info = Parsed(huge + " fps\r\n" + kMkvBanner);
    EXPECT_EQ(info->GetDuration(), "00:00:03.05");
    EXPECT_GE(info->GetAudioCount(), 2);
    EXPECT_EQ(Parsed(huge)->GetDuration(), "");
  }
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(60));  // hang bound only
}

// --- live files ---------------------------------------------------------------------

TEST(MediaInfoLive, EveryGetterOnFilesMadeByFfmpeg) {
  const struct {
    const char* Sample;
    TSeen Want;
  } cases[] = {
      {"h264_aac.mp4", {"00:00:10.00", 10000, 1280, 720, 25, 250, "h264", kSomeRate, true, 1, "aac", 44100, kSomeRate, 2}},
      {"two_audio.mkv", {"00:00:03.05", 3050, 320, 240, 25, 76, "mpeg", 0, true, 2, "mp3", 22050, 32, 1}},
      {"surround71.mka", {"00:00:02.00", 2000, 0, 0, 0, 0, "", 0, false, 1, "flac", 44100, 0, 0}},
      {"tone.mp3", {"00:00:02.04", 2040, 0, 0, 0, 0, "", 0, false, 1, "mp3", 44100, 64, 1}},
      {"tone.wav", {"00:00:02.00", 2000, 0, 0, 0, 0, "", 0, false, 1, "pcm_s16le", 44100, 1411, 2}},
      // ffmpeg gives a picture the rate 25 tbr: it counts as video, without a duration.
      {"picture.png", {"", 0, 320, 240, 25, 0, "png,", 0, true, 0, "", 0, 0, 0}},
      // 29.97 x 60 = 1798.2
      {"ntsc_minute.mkv", {"00:01:00.00", 60000, 160, 120, 29.97f, 1798, "mpeg", 0, true, 1, "pcm_s16le", 44100, 705, 1}},
  };
  for (const auto& c : cases) {
    const std::string path = kltest::MediaSample(c.Sample);
    const ComPtr<IVideoFileInfo2> info = TVideoFileInfo::Create(path);
    EXPECT_EQ(Seen(info.Get(), c.Want), c.Want) << c.Sample;
    EXPECT_EQ(info->GetFileName(), path);
    EXPECT_EQ(info->GetAudioPresent(), c.Want.AudioCount > 0);
    EXPECT_EQ(info->GetAudio(0), TAudioInfo());
    const std::string text = info->ToString(true);
    EXPECT_EQ(text.find("\r\nVideo\r\n") != std::string::npos, c.Want.Video) << text;
    EXPECT_EQ(info->ToString(false), kl::UTextEx::StringReplaceEx(text, "\r\n", ", ", kl::UTextEx::ReplaceAll));
  }
}

TEST(MediaInfoLive, MissingFileStartsNoFfmpeg) {
  const int before = fftest::FfmpegProcessCount();
  const std::string name = kltest::ExeDir() + "no such film.mp4";
  ComPtr<IVideoFileInfo2> info;
  const std::string log = fftest::LogOf([&] { info = TVideoFileInfo::Create(name); });
  EXPECT_EQ(fftest::LogMessages(log), std::vector<std::string>{"TVideoFileInfo.SetFileName: file \"" + name + "\" not found"});
  EXPECT_EQ(info->ToString(false), "File name: , Duration: , Audio tracks: 0, ");
  EXPECT_EQ(fftest::FfmpegProcessCount(), before);
  // A file ffmpeg cannot read: the object stays empty but for the name.
  kltest::TTempDir dir;
  kltest::WriteFileBytes(dir / "junk.mp4", std::string(5000, 'j'));
  info = TVideoFileInfo::Create(dir / "junk.mp4");
  EXPECT_EQ(info->GetFileName(), dir / "junk.mp4");
  EXPECT_FALSE(info->GetVideoPresent() || info->GetAudioPresent() || !info->GetDuration().empty());
}

}  // namespace
