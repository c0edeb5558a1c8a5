#include "MediaSamples.h"

#include <windows.h>

#include <functional>
#include <map>
#include <mutex>
#include <stdexcept>

#include "KlTest.h"
#include "rtl/SysUtils.h"

namespace kltest {

namespace {

const std::map<std::string, std::string>& Recipes() {
  static const std::map<std::string, std::string> recipes = {
      {"h264_aac.mp4",
       "-f lavfi -i testsrc=duration=10:size=1280x720:rate=25 -f lavfi -i sine=frequency=440:duration=9.9 "
       "-c:v libx264 -preset ultrafast -pix_fmt yuv420p -c:a aac -ac 2"},
      {"two_audio.mkv",
       "-f lavfi -i testsrc=duration=3:size=320x240:rate=25 -f lavfi -i sine=duration=3:sample_rate=22050 "
       "-f lavfi -i sine=frequency=660:duration=3:sample_rate=48000 -map 0 -map 1 -map 2 -c:v mpeg4 "
       "-c:a:0 libmp3lame -ac:a:0 1 -c:a:1 ac3 -ac:a:1 6 -metadata:s:a:1 language=eng"},
      {"hd_1080.mp4", "-f lavfi -i testsrc=duration=0.4:size=1920x1080:rate=25 -c:v libx264 -preset ultrafast -pix_fmt yuv420p"},
      {"odd_718.mkv", "-f lavfi -i testsrc=duration=1:size=1280x718:rate=25 -c:v mpeg4"},
      {"surround71.mka", "-f lavfi -i sine=duration=2 -ac 8 -c:a flac"},
      {"tone.mp3", "-f lavfi -i sine=duration=2 -c:a libmp3lame"},
      {"tone.wav", "-f lavfi -i sine=duration=2 -ac 2"},
      {"picture.png", "-f lavfi -i testsrc=size=320x240:rate=25 -frames:v 1"},
      // 1798 frames end at 59.993 s, the sound at 60 s: the container says 00:01:00.00.
      {"ntsc_minute.mkv",
       "-f lavfi -i testsrc=size=160x120:rate=30000/1001:duration=59.99 -f lavfi -i sine=duration=60 "
       "-c:v mpeg4 -c:a pcm_s16le"},
  };
  return recipes;
}

std::string CacheDir() {
  const std::string dir = kl::GetTempDir() + "klMediaSamples\\";
  CreateDirectoryA(dir.c_str(), nullptr);
  return dir;
}

}  // namespace

std::string MediaSample(const std::string& Name) {
  static std::mutex lock;
  const std::lock_guard<std::mutex> guard(lock);
  const auto it = Recipes().find(Name);
  if (it == Recipes().end()) throw std::runtime_error("no such media sample: " + Name);
  const std::string ext = kl::ExtractFileExt(Name);
  const std::string stem = Name.substr(0, Name.size() - ext.size());
  const std::string path =
      CacheDir() + stem + kl::Format("_%08lx", static_cast<unsigned long>(std::hash<std::string>()(it->second) & 0xFFFFFFFFu)) + ext;
  if (kl::FileExists(path)) return path;
  // Made under a name of this process and moved into place whole, so that a run that
  // stops half-way, or another test executable making the same file, leaves no torn file.
  const std::string part = CacheDir() + kl::Format("part%lu_", GetCurrentProcessId()) + Name;
  const TRunResult r = Ffmpeg(it->second + " " + Quote(part), 300000);
  if (r.ExitCode != 0 || !kl::FileExists(part) ||
      !MoveFileExA(part.c_str(), path.c_str(), MOVEFILE_REPLACE_EXISTING)) {
    DeleteFileA(part.c_str());
    if (!kl::FileExists(path)) throw std::runtime_error("ffmpeg could not make " + Name + ": " + r.Err);
  }
  return path;
}

}  // namespace kltest
