// TFFmpegPlayer with the real ffmpeg.exe on the films of FfmpegPlayerTestUtil.h: what
// OnFrame saw and what the audio server recorded tell where in the film they came from.
#include <gtest/gtest.h>

#include <windows.h>

#include <algorithm>
#include <string>
#include <vector>

#include "FfmpegPlayerTestUtil.h"

using namespace kl::klMediaPlayer;
using kl::UFfmpegPlayer::TFFmpegPlayer;

using namespace playertest;

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
    // A second before the end: pictures that ran late catch up at 1 ms a frame.
    ASSERT_TRUE(fftest::WaitUntil([&] { return w.Last() >= 75; }, 10000));
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
    (k == 0 ? before : after) = chtest::HandleCount();
  }
  // Each Open reads the film's information through a child process whose thread handle
  // is kept by design: five Opens after the first.
  EXPECT_LE(after, before + 5 + 2);
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
