// Locating ffmpeg.exe, the preloaded FFmpeg libraries, ExtractSound, AddSound and the
// klMedia console tool, with the real ffmpeg.exe.
#include <gtest/gtest.h>

#include "FfmpegTestUtil.h"
#include "KlTest.h"
#include "MediaSamples.h"
#include "ffmpeg/UFfmpeg.h"
#include "diagnostics/klFiles.h"
#include "rtl/SysUtils.h"

using kl::ComPtr;
using namespace kl::UFfmpeg;

namespace {

// Started with the library file in its current directory: the unit loaded it at start.
KL_CHILD_ROLE(ffmpeg_libraries) {
  (void)Args;
  for (int i = 0; i < FFmpegLibraryCount; ++i) {
    const bool present = i == 4;  // avutil-52.dll
    if ((FFmpegLibraryHandle(i) != nullptr) != present) return 10 + i;
  }
  if (FFmpegLibraryHandle(4) != GetModuleHandleA("avutil-52.dll")) return 2;
  FreeFFmpegLibraries();
  if (FFmpegLibraryHandle(4) != nullptr || GetModuleHandleA("avutil-52.dll") != nullptr) return 3;
  return 0;
}

// A copy of the test executable in a folder without ..\common\ffmpeg.exe.
KL_CHILD_ROLE(ffmpeg_absent) {
  const std::string bin = kl::ExtractFilePath(kl::ExeFileName());
  if (FFmpegExePath() != kl::ExtractFilePath(bin.substr(0, bin.size() - 1)) + "common\\ffmpeg.exe") return 2;
  const std::string log = fftest::LogOf([&] {
    const ComPtr<IVideoFileInfo2> info = TVideoFileInfo::Create(Args.at(0));
    if (info->GetFileName() != Args.at(0) || !info->GetDuration().empty()) std::exit(3);
  });
  if (log.find("TVideoFileInfo.SetFileName: TChildProccess.Create failed") == std::string::npos) return 4;
  if (ExtractSound(Args.at(0), Args.at(0) + ".wav", "")) return 5;
  return 0;
}

// Runs this executable in Role with Dir as its current directory; the exit code.
DWORD RunIn(const std::string& Dir, const std::string& Role, const std::vector<std::string>& Args = {},
            const std::string& Exe = kltest::SelfExe()) {
  std::string cmd = kltest::Quote(Exe) + " --kl-child " + Role;
  for (const auto& a : Args) cmd += " " + kltest::Quote(a);
  STARTUPINFOA si{};
  si.cb = sizeof si;
  PROCESS_INFORMATION pi{};
  if (!CreateProcessA(nullptr, cmd.data(), nullptr, nullptr, FALSE, CREATE_NO_WINDOW, nullptr, Dir.c_str(), &si, &pi)) {
    return 1000;
  }
  DWORD code = 1001;
  if (WaitForSingleObject(pi.hProcess, 60000) == WAIT_OBJECT_0) GetExitCodeProcess(pi.hProcess, &code);
  TerminateProcess(pi.hProcess, 1001);
  CloseHandle(pi.hThread);
  CloseHandle(pi.hProcess);
  return code;
}

TEST(FfmpegLocation, PathAndPreloadedLibraries) {
  // bin\<test>.exe -> <build>\common\ffmpeg.exe, the file the test script put there.
  const std::string bin = kltest::ExeDir();
  EXPECT_EQ(FFmpegExePath(), kl::ExtractFilePath(bin.substr(0, bin.size() - 1)) + "common\\ffmpeg.exe");
  EXPECT_TRUE(kl::FileExists(FFmpegExePath()));
  EXPECT_EQ(FFmpegExeDir, "..\\common\\");
  for (int i = -1; i <= FFmpegLibraryCount; ++i) EXPECT_EQ(FFmpegLibraryHandle(i), nullptr) << i;

  kltest::TTempDir dir;
  // Any real library serves: it is only loaded, never called.
  ASSERT_TRUE(CopyFileA((bin + "SoundTouch.dll").c_str(), (dir / "avutil-52.dll").c_str(), FALSE));
  EXPECT_EQ(RunIn(dir.Path(), "ffmpeg_libraries"), 0u);

  // Without ffmpeg.exe where the rule looks: the failure is logged, nothing hangs.
  CreateDirectoryA((dir / "bin").c_str(), nullptr);
  ASSERT_TRUE(CopyFileA(kltest::SelfExe().c_str(), (dir / "bin\\t.exe").c_str(), FALSE));
  EXPECT_EQ(RunIn(dir.Path(), "ffmpeg_absent", {kltest::MediaSample("tone.wav")}, dir / "bin\\t.exe"), 0u);
}

TEST(FfmpegJobs, ExtractSound) {
  kltest::TTempDir dir;
  const std::string film = kltest::MediaSample("h264_aac.mp4");
  const struct {
    const char* Name;
    const char* Options;
    const char* Codec;
  } cases[] = {{"sound.wav", "", "pcm_s16le"}, {"sound.mp3", "-c:a libmp3lame -b:a 96k", "mp3"}};
  for (const auto& c : cases) {
    std::string log = fftest::LogOf([&] { EXPECT_TRUE(ExtractSound(film, dir / c.Name, c.Options)) << c.Name; });
    EXPECT_EQ(log, "");
    const ComPtr<IVideoFileInfo2> info = TVideoFileInfo::Create(dir / c.Name);
    EXPECT_EQ(info->GetAudioCodec(), c.Codec);
    EXPECT_EQ(info->GetAudioChannels(), 2);
    EXPECT_FALSE(info->GetVideoPresent());
    EXPECT_NEAR(info->GetLength(), 9900, 100) << c.Name;
  }
  const std::string lost = dir / "no folder\\sound.wav";
  const std::string log = fftest::LogOf([&] { EXPECT_FALSE(ExtractSound(film, lost, "")); });
  EXPECT_EQ(fftest::LogMessages(log), std::vector<std::string>{"UFfmpeg.ExtractSound: Не найден итоговый файл: " + lost});
}

TEST(FfmpegJobs, AddSound) {
  kltest::TTempDir dir;
  const std::string film = kltest::MediaSample("h264_aac.mp4"), sound = kltest::MediaSample("tone.mp3");
  const int before = fftest::FfmpegProcessCount();
  const std::string missing = dir / "missing.wav", out = dir / "out.mkv";
  const std::string log = fftest::LogOf([&] { EXPECT_FALSE(AddSound(film, missing, out, nullptr, "")); });
  EXPECT_EQ(fftest::LogMessages(log),
            std::vector<std::string>{"AddSound: invalid params \"" + film + "\" \"" + missing + "\" \"" + out + "\""});
  EXPECT_FALSE(AddSound(film, sound, "", nullptr, ""));
  EXPECT_EQ(fftest::FfmpegProcessCount(), before);

  bool called = false;
  // The film's own sound is left out, so the output's audio can only be the MP3.
  ASSERT_TRUE(AddSound(film, sound, out, [&](IUnknown*, int32_t) { called = true; },
                       "-map 0:v -map 1:a -c copy -loglevel error"));
  EXPECT_FALSE(kl::FileExists(out));  // ffmpeg has only been started
  ComPtr<IVideoFileInfo2> info;
  EXPECT_TRUE(fftest::WaitUntil(
      [&] {
        if (fftest::FfmpegProcessCount() > before || !kl::FileExists(out)) return false;
        info = TVideoFileInfo::Create(out);
        return true;
      },
      60000));
  ASSERT_TRUE(info);
  EXPECT_TRUE(info->GetVideoPresent());
  EXPECT_EQ(info->GetWidth(), 1280);
  EXPECT_EQ(info->GetAudioCodec(), "mp3");
  EXPECT_FALSE(called);
}

// --- the console tool ---------------------------------------------------------------

TEST(KlMediaTool, InfoExtractMux) {
  const std::string tool = kltest::Quote(kltest::ExeDir() + "klMedia.exe");
  const std::string film = kltest::MediaSample("h264_aac.mp4");
  kltest::TRunResult r = kltest::Run(tool + " info " + kltest::Quote(film));
  EXPECT_EQ(r.ExitCode, 0u);
  EXPECT_EQ(r.Out, TVideoFileInfo::Create(film)->ToString(true));

  kltest::TTempDir dir;
  for (const std::string& args : {"info " + kltest::Quote(dir / "none.mp4"),
                                  "extract " + kltest::Quote(dir / "none.mp4") + " x.wav",
                                  "mux " + kltest::Quote(film) + " " + kltest::Quote(dir / "none.wav") + " o.mkv"}) {
    r = kltest::Run(tool + " " + args);
    EXPECT_EQ(r.ExitCode, 1u) << args;
    EXPECT_EQ(std::count(r.Err.begin(), r.Err.end(), '\n'), 1) << r.Err;
    EXPECT_NE(r.Err.find("none."), std::string::npos) << r.Err;
  }

  r = kltest::Run(tool + " extract " + kltest::Quote(film) + " " + kltest::Quote(dir / "s.wav") + " -ac 1");
  EXPECT_EQ(r.ExitCode, 0u) << r.Err;
  EXPECT_EQ(TVideoFileInfo::Create(dir / "s.wav")->GetAudioChannels(), 1);
  r = kltest::Run(tool + " mux " + kltest::Quote(film) + " " + kltest::Quote(dir / "s.wav") + " " +
                  kltest::Quote(dir / "m.mkv") + " -map 0:v -map 1:a -c:v copy -loglevel error");
  EXPECT_EQ(r.ExitCode, 0u) << r.Err;
  EXPECT_NE(r.Out.find("00:00:10.00"), std::string::npos) << r.Out;
  EXPECT_EQ(TVideoFileInfo::Create(dir / "m.mkv")->GetAudioChannels(), 1);

  // Frames out as BMP files and back into a (lossless) video.
  r = kltest::Run(tool + " frames " + kltest::Quote(kltest::MediaSample("two_audio.mkv")) + " " +
                  kltest::Quote(dir / "bmp") + " --size 162x120 --to 1");
  EXPECT_EQ(r.ExitCode, 0u) << r.Err;
  EXPECT_NE(r.Err.find("25 / 25 frames"), std::string::npos) << r.Err;
  EXPECT_EQ(kl::klFiles::TFileList(dir / "bmp\\*.bmp").Count(), 25);
  r = kltest::Run(tool + " encode " + kltest::Quote(dir / "bmp") + " " + kltest::Quote(dir / "v.apng") + " --fps 25");
  EXPECT_EQ(r.ExitCode, 0u) << r.Err;
  const ComPtr<IVideoFramesDecoder2> d = TVideoFramesDecoder::Create(dir / "v.apng");
  ASSERT_TRUE(d);
  EXPECT_EQ(d->GetTargetWidth(), 162);
  int frames = 0;
  HBITMAP bmp = nullptr;
  void* bits = nullptr;
  while (d->GetNextFrame(bmp, bits)) ++frames;
  EXPECT_EQ(frames, 25);
}

}  // namespace
