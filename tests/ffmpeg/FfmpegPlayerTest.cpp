// TFFmpegPlayer with the real ffmpeg.exe on a short film whose every frame carries its
// number in its pixels and whose every sound sample carries its own index, so that what
// OnFrame saw and what the audio server recorded tell where in the film they came from.
#include <gtest/gtest.h>

#include <windows.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "FfmpegTestUtil.h"
#include "KlTest.h"
#include "ffmpeg/UFfmpegPlayer.h"

using namespace kl::klMediaPlayer;
using kl::UFfmpegPlayer::TFFmpegPlayer;

namespace {

constexpr int kRate = 44100;

// Sample i: both channels even, so that half volume keeps every bit of the index.
std::string Sound(int32_t Samples) {
  std::string pcm;
  for (int32_t i = 0; i < Samples; ++i) {
    const int16_t v[2] = {static_cast<int16_t>(2 * (i % 32768) - 32768), static_cast<int16_t>(2 * (i / 32768 + 1))};
    pcm.append(reinterpret_cast<const char*>(v), sizeof v);
  }
  return pcm;
}

// The sample indices in a recording at the given volume (1 or 0.5); silence skipped,
// anything else that is no sample of the film gives -1.
std::vector<int64_t> Indices(const std::string& Raw, int Scale) {
  std::vector<int64_t> r;
  for (size_t k = 0; k + 4 <= Raw.size(); k += 4) {
    int16_t v[2];
    memcpy(v, Raw.data() + k, 4);
    if (v[0] == 0 && v[1] == 0) continue;
    const int32_t l = v[0] * Scale, h = v[1] * Scale;
    r.push_back(h < 2 || h % 2 != 0 || l % 2 != 0 ? -1 : (h / 2 - 1) * 32768LL + (l + 32768) / 2);
  }
  return r;
}

// "" when the indices run from about From on in order, allowing for what a loaded audio
// server does (up to 90 ms lost or 10 ms repeated at a time), up to To - 1 (To < 0: not
// checked) with at least nine tenths of it heard.
std::string InOrder(const std::vector<int64_t>& I, int64_t From, int64_t To) {
  if (I.empty() || I.front() < From || I.front() > From + kRate / 50) {
    return "bad start " + std::to_string(I.empty() ? -1 : I.front());
  }
  for (size_t k = 1; k < I.size(); ++k) {
    const int64_t step = I[k] - I[k - 1] - 1;
    if (step < -kRate / 100 || step > kRate * 9 / 100) return "break at " + std::to_string(I[k - 1]) + " to " + std::to_string(I[k]);
  }
  if (To >= 0 && (I.back() != To - 1 || static_cast<int64_t>(I.size()) < (To - From) * 9 / 10)) {
    return "bad end " + std::to_string(I.back()) + " after " + std::to_string(I.size());
  }
  return "";
}

// Films made once per run: "av.mkv" 4 s of 320x180 at 25 fps with sound, "v.mkv" 1 s
// of pictures only, "a.wav" 2 s of sound only. Pixels B, G, R = 255 - n, n, n for
// frame n, stored losslessly.
std::string Film(const std::string& Name) {
  static kltest::TTempDir dir;
  const std::string path = dir / Name;
  if (kl::FileExists(path)) return path;
  const std::string pictures = "-f lavfi -i \"color=c=black:s=320x180:r=25:d=" + std::string(Name == "v.mkv" ? "1" : "4") +
                               ",geq=r='N':g='N':b='255-N'\" ";
  kltest::WriteFileBytes(dir / "s.wav", kltest::MakeWav(2, kRate, 16, Sound(kRate * (Name == "a.wav" ? 2 : 4))));
  std::string args;
  if (Name == "av.mkv") args = pictures + "-i " + kltest::Quote(dir / "s.wav") + " -c:v ffv1 -c:a pcm_s16le ";
  if (Name == "v.mkv") args = pictures + "-c:v ffv1 ";
  if (Name == "a.wav") return ::CopyFileA((dir / "s.wav").c_str(), path.c_str(), FALSE) ? path : "";
  EXPECT_EQ(kltest::Ffmpeg(args + kltest::Quote(path)).ExitCode, 0u);
  return path;
}

// What a player delivered: frame numbers from OnFrame, finishes, the recording.
struct TWatch {
  std::mutex Lock;
  std::vector<int> Frames;
  std::atomic<int> Finishes{0};
  bool Lossless = true;
  int64_t Mark = kltest::TCapture::Mark();

  explicit TWatch(TFFmpegPlayer& P) {
    P.SetOnFinish([this](void*) { ++Finishes; });
    P.SetOnFrame([this](void* Data, int32_t Size) {
      const auto* p = static_cast<const uint8_t*>(Data);
      std::lock_guard<std::mutex> g(Lock);
      if (Size != 320 * 180 * 4 || p[0] != 255 - p[2] || p[1] != p[2] || p[Size / 2 + 2] != p[2]) Lossless = false;
      Frames.push_back(p[2]);
    });
  }
  int Last() {
    std::lock_guard<std::mutex> g(Lock);
    return Frames.empty() ? -1 : Frames.back();
  }
  // Play shows the first frame at once and again at the first tick: that repeat aside,
  // every frame from First on, each once.
  std::string Runs() {
    std::lock_guard<std::mutex> g(Lock);
    std::string s;
    for (size_t k = 0; k < Frames.size(); ++k) {
      if (k == 0 || Frames[k] != Frames[k - 1] + 1) s += (k ? ".." + std::to_string(Frames[k - 1]) + " " : "") +
                                                        std::to_string(Frames[k]);
    }
    return Frames.empty() ? s : s + ".." + std::to_string(Frames.back());
  }
};

bool NoFfmpegAfter(int Before) {
  return fftest::WaitUntil([&] { return fftest::FfmpegProcessCount() <= Before; }, 5000);
}

#define REQUIRE_CAPTURE() \
  if (!kltest::TCapture::Available()) GTEST_SKIP() << "no audio capture"

}  // namespace

TEST(FFmpegPlayer, PlaysAFilmToItsEndInAWindowWithEveryFrameAndItsSound) {
  REQUIRE_CAPTURE();
  const std::string film = Film("av.mkv");
  const int before = fftest::FfmpegProcessCount();
  HWND wnd = CreateWindowExA(0, "STATIC", "", WS_POPUP | WS_VISIBLE, 0, 0, 320, 180, nullptr, nullptr, nullptr, nullptr);
  TFFmpegPlayer p;
  p.SetTargetWindow(wnd);
  TWatch w(p);
  std::string log = fftest::LogOf([&] { ASSERT_TRUE(p.Open(film)); });
  const std::string exe = kltest::ExeDir() + "..\\common\\ffmpeg.exe";
  auto lines = fftest::LogMessages(log);
  // A pipe name that is taken gets a number: the names are compared without it.
  for (auto& l : lines) l.erase(l.find_last_not_of("0123456789") + 1);
  EXPECT_NE(std::find(lines.begin(), lines.end(),
                      "TFFmpegPlayer.Restart: video cmd: \"" + exe + "\" -y -ss 0.000 -i \"" + film +
                          "\" -an -s 320x180 -map 0:v -f image2pipe -pix_fmt rgb32 -vcodec rawvideo \\\\.\\pipe\\Video"),
            lines.end())
      << log;
  EXPECT_NE(std::find(lines.begin(), lines.end(),
                      "TFFmpegPlayer.Restart: audio cmd: \"" + exe + "\" -y -ss 0.000 -i \"" + film +
                          "\" -vn -map 0:a:0 -f s16le -acodec pcm_s16le -ac 2 -ar 44100 \\\\.\\pipe\\Audio"),
            lines.end())
      << log;
  EXPECT_EQ(p.GetMode(), pmNotReady);
  EXPECT_EQ(p.GetTargetRect().right, 320);
  Sleep(1000);  // ffmpeg's start under Wine: the frames player waits only 2 s for a picture
  ASSERT_TRUE(p.Play());
  EXPECT_EQ(p.GetLength(), 4000);
  ASSERT_TRUE(fftest::WaitUntil([&] { return p.GetMode() == pmFinished; }, 20000));
  Sleep(300);
  EXPECT_EQ(w.Finishes.load(), 1);
  EXPECT_EQ(w.Runs(), "0..0 0..99");
  EXPECT_TRUE(w.Lossless);
  const auto heard = Indices(kltest::TCapture::Since(w.Mark), 1);
  EXPECT_EQ(InOrder(heard, 0, 4 * kRate), "");  // the first milliseconds may be missing
  p.Close();
  EXPECT_TRUE(NoFfmpegAfter(before));
  DestroyWindow(wnd);
}

TEST(FFmpegPlayer, SeeksByRestartingBothProcessesAndIsDestroyedWhilePlaying) {
  REQUIRE_CAPTURE();
  const std::string film = Film("av.mkv");
  const int before = fftest::FfmpegProcessCount();
  std::string heardRaw;
  std::string runs;
  {
    TFFmpegPlayer p;
    TWatch w(p);
    ASSERT_TRUE(p.Open(film));
    // Paused: restarted at the new place, not played ("-ss" text of under three digits).
    Sleep(1000);
    p.Play();
    p.Pause();
    auto log = fftest::LogOf([&] { p.SetPosition(50); });
    EXPECT_NE(log.find("-y -ss 0.0 -i"), std::string::npos) << log;
    EXPECT_EQ(log.find("TFFmpegPlayer.SetPosition Play"), std::string::npos);
    EXPECT_EQ(p.GetMode(), pmNotReady);
    Sleep(1000);
    p.Play();
    ASSERT_TRUE(fftest::WaitUntil([&] { return w.Last() >= 20; }, 10000));
    log = fftest::LogOf([&] { p.SetPosition(2500); });
    const auto lines = fftest::LogMessages(log);
    ASSERT_GE(lines.size(), 4u);
    EXPECT_EQ(lines.front(), "TFFmpegPlayer.SetPosition start, mode = Playing");
    EXPECT_EQ(lines.back(), "TFFmpegPlayer.SetPosition finish");
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                            [](const std::string& L) { return L.find(" -y -ss 2.500 -i ") != std::string::npos; }),
              2);
    EXPECT_EQ(p.GetMode(), pmPlaying);
    EXPECT_GE(p.GetPosition(), 2500);
    ASSERT_TRUE(fftest::WaitUntil([&] { return w.Last() >= 90; }, 10000));
    heardRaw = kltest::TCapture::Since(w.Mark);
    runs = w.Runs();
    EXPECT_EQ(w.Finishes.load(), 0);
  }  // destroyed while playing
  EXPECT_TRUE(NoFfmpegAfter(before));
  // From 0 (the paused seek shows no frame), then from 62.5 on: frame 62 or 63.
  EXPECT_TRUE(runs.rfind(" 62..", std::string::npos) != std::string::npos ||
              runs.rfind(" 63..", std::string::npos) != std::string::npos)
      << runs;
  auto heard = Indices(heardRaw, 1);
  heard.erase(heard.begin(), std::find_if(heard.begin(), heard.end(), [](int64_t I) { return I >= 2 * kRate; }));
  EXPECT_EQ(InOrder(heard, kRate * 5 / 2, -1), "");
  EXPECT_GT(heard.size(), kRate / 10u);  // and played on from there
}

TEST(FFmpegPlayer, SoundOnlyAndPicturesOnlyFilmsPlayToTheirEnd) {
  REQUIRE_CAPTURE();
  const int before = fftest::FfmpegProcessCount();
  {
    // Muted at first, then half volume: silence, then the film's samples halved.
    TFFmpegPlayer p;
    TWatch w(p);
    p.SetMute(true);
    p.SetVolume(0.5f);
    const std::string log = fftest::LogOf([&] { ASSERT_TRUE(p.Open(Film("a.wav"))); });
    EXPECT_NE(log.find("-an -s 0x0\r\n"), std::string::npos) << log;  // no pictures: no output
    Sleep(700);
    p.Play();
    Sleep(700);
    p.SetMute(false);
    EXPECT_EQ(p.GetVolume(), 0.5f);
    ASSERT_TRUE(fftest::WaitUntil([&] { return p.GetMode() == pmFinished; }, 10000));
    Sleep(300);
    EXPECT_EQ(w.Finishes.load(), 1);
    const auto heard = Indices(kltest::TCapture::Since(w.Mark), 2);
    // What was played muted is not in the recording.
    ASSERT_FALSE(heard.empty());
    EXPECT_GT(heard.front(), kRate / 2);
    EXPECT_EQ(InOrder(heard, heard.front(), 2 * kRate), "");
  }
  {
    TFFmpegPlayer p;
    TWatch w(p);
    ASSERT_TRUE(p.Open(Film("v.mkv")));
    Sleep(1000);
    p.Play();
    ASSERT_TRUE(fftest::WaitUntil([&] { return p.GetMode() == pmFinished; }, 10000));
    Sleep(200);
    EXPECT_EQ(w.Finishes.load(), 1);
    EXPECT_EQ(w.Runs(), "0..0 0..24");
  }
  EXPECT_TRUE(NoFfmpegAfter(before));
}

// At 1.5 every picture still comes, in order, and the sound is shortened to about 2/3
// by the tempo corrector; five open/play/close cycles leave no handle behind.
TEST(FFmpegPlayer, FasterSpeedShortensTheSoundAndCyclesLeaveNoHandles) {
  REQUIRE_CAPTURE();
  const std::string film = Film("av.mkv");
  {
    TFFmpegPlayer p;
    TWatch w(p);
    p.SetSpeed(1.5f);
    ASSERT_TRUE(p.Open(film));
    Sleep(1000);
    ASSERT_TRUE(p.Play());
    ASSERT_TRUE(fftest::WaitUntil([&] { return p.GetMode() == pmFinished; }, 20000));
    Sleep(300);
    EXPECT_EQ(w.Runs(), "0..0 0..99");
    const auto heard = Indices(kltest::TCapture::Since(w.Mark), 1);
    EXPECT_GT(heard.size(), 4u * kRate * 55 / 100);
    EXPECT_LT(heard.size(), 4u * kRate * 80 / 100);
  }
  DWORD before = 0, after = 0;
  for (int k = 0; k < 6; ++k) {
    {
      TFFmpegPlayer p;
      ASSERT_TRUE(p.Open(film));
      Sleep(700);
      p.Play();
      Sleep(300);
      p.Close();
    }
    // The first cycle loads what Wine keeps for the rest of the process.
    GetProcessHandleCount(GetCurrentProcess(), k == 0 ? &before : &after);
  }
  EXPECT_LE(after, before + 2);
}

TEST(FFmpegPlayer, MissingFileOrFfmpegStartsNothing) {
  EXPECT_EQ(kl::UFfmpegPlayer::StartTimeText(1234), "1.234");
  EXPECT_EQ(kl::UFfmpegPlayer::StartTimeText(123), "0.123");
  EXPECT_EQ(kl::UFfmpegPlayer::StartTimeText(5), "0.00");
  EXPECT_EQ(kl::UFfmpegPlayer::StartTimeText(0), "0.000");
  const std::string film = Film("v.mkv");
  const int before = fftest::FfmpegProcessCount();
  TFFmpegPlayer p;
  EXPECT_EQ(p.GetTargetRect().right, 0);
  EXPECT_FALSE(p.Open(film + ".missing"));
  EXPECT_FALSE(p.Play());
  const std::string saved = kl::UFfmpegPlayer::FFmpegPath;
  kl::UFfmpegPlayer::FFmpegPath = "..\\nowhere\\";
  const std::string log = fftest::LogOf([&] { EXPECT_FALSE(p.Open(film)); });
  kl::UFfmpegPlayer::FFmpegPath = saved;
  EXPECT_NE(log.find("TFFmpegPlayer.Restart: ffmpeg.exe not found"), std::string::npos) << log;
  EXPECT_EQ(log.find("video cmd"), std::string::npos);
  EXPECT_EQ(p.GetTargetRect().bottom, 180);  // the film's size once its information is read
  EXPECT_EQ(fftest::FfmpegProcessCount(), before);
}
