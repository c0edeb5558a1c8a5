// klPlay: plays a WAV or MP3 file on the wave-out device with TklMediaPlayer, the way to hear
// the library. Shows "position / length  mode" while playing; ends at the end of the
// file or on any key.
//
//   klPlay [--first-generation] [--speed S] [--volume V] [--start MS] file.wav|file.mp3
//
// --first-generation plays with UklMediaPlayer's player (tempo through SoundTouch, its
// own MP3 decoding), so that both generations can be heard and compared.
#include <conio.h>
#include <windows.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "Components.h"

using kl::ComPtr;
using kl::klMediaPlayer::ISoundStream;
using kl::klMediaPlayer::TklMediaPlayer;

namespace {

std::string Clock(int32_t Ms) {
  if (Ms < 0) Ms = 0;
  return kl::Format("%02d:%02d.%01d", Ms / 60000, Ms / 1000 % 60, Ms / 100 % 10);
}

// A key on a console, or anything written to a standard input that is a Windows pipe.
bool KeyPressed() {
  HANDLE in = GetStdHandle(STD_INPUT_HANDLE);
  DWORD mode = 0;
  if (in != nullptr && in != INVALID_HANDLE_VALUE && GetConsoleMode(in, &mode)) {
    if (_kbhit()) {
      (void)_getch();
      return true;
    }
    return false;
  }
  DWORD avail = 0;
  return in != nullptr && GetFileType(in) == FILE_TYPE_PIPE && PeekNamedPipe(in, nullptr, 0, nullptr, &avail, nullptr) &&
         avail > 0;
}

// WAV files by their RIFF header; anything else is taken for MP3.
bool IsRiff(const std::string& FileName) {
  char head[4] = {};
  FILE* f = std::fopen(FileName.c_str(), "rb");
  if (f == nullptr) return true;  // the WAV reader reports the missing file
  const size_t n = std::fread(head, 1, sizeof head, f);
  std::fclose(f);
  return n == 4 && std::memcmp(head, "RIFF", 4) == 0;
}

int Usage() {
  std::fprintf(stderr, "usage: klPlay [--first-generation] [--speed S] [--volume V] [--start MS] file.wav|file.mp3\n");
  return 2;
}

// Sets the player up, plays and shows the position until the end, a failure or a key.
// Both generations' players take the same calls; only their mode types differ.
template <class TPlayer, class TModeText>
int PlayAndShow(TPlayer& player, float speed, float volume, int32_t start, TModeText modeText) {
  std::atomic<bool> finished{false};
  player.SetOnFinish([&finished](void*) { finished = true; });
  player.SetVolume(volume);
  player.SetSpeed(speed);
  if (start != 0) player.SetPosition(start);
  if (speed != player.GetSpeed()) std::fprintf(stderr, "klPlay: speed %g refused (0 < speed < 3)\n", speed);
  if (volume != player.GetVolume()) std::fprintf(stderr, "klPlay: volume %g refused (0 to 5)\n", volume);
  player.Play();

  const std::string length = Clock(player.GetLength());
  int result = 0;
  for (;;) {
    const auto mode = player.GetMode();
    std::printf("\r%s / %s  %-10s", Clock(player.GetPosition()).c_str(), length.c_str(), modeText(mode).c_str());
    std::fflush(stdout);
    if (finished || mode == decltype(mode)::pmFinished) break;
    if (mode != decltype(mode)::pmPlaying) {
      result = 1;  // the device refused to start
      break;
    }
    if (KeyPressed()) break;
    Sleep(100);
  }
  std::printf("\n");
  player.Close();
  return result;
}

}  // namespace

int main(int argc, char** argv) {
  float speed = 1.0f, volume = 1.0f;
  int32_t start = 0;
  std::string file;
  bool firstGeneration = false;
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    if ((a == "--speed" || a == "--volume" || a == "--start") && i + 1 < argc) {
      const char* v = argv[++i];
      char* end = nullptr;
      const double d = std::strtod(v, &end);
      if (end == v || *end != 0) return Usage();
      if (a == "--speed") speed = static_cast<float>(d);
      if (a == "--volume") volume = static_cast<float>(d);
      if (a == "--start") start = static_cast<int32_t>(d);
    } else if (a == "--first-generation") {
      firstGeneration = true;
    } else if (!a.empty() && a[0] != '-' && file.empty()) {
      file = a;
    } else {
      return Usage();
    }
  }
  if (file.empty()) return Usage();
  if (firstGeneration) {
    kl::UklMediaPlayer::TklMediaPlayer player;
    if (!player.OpenFile(file)) {
      std::fprintf(stderr, "klPlay: cannot open %s (the library's log says why)\n", file.c_str());
      return 1;
    }
    return PlayAndShow(player, speed, volume, start,
                       [](kl::UklMediaPlayer::TPlayerMode m) { return kl::UklMediaPlayer::PlayerModeToStr(m); });
  }

  ComPtr<ISoundStream> source;
  try {
    ComPtr<ISoundStream> inner;
    if (IsRiff(file)) {
      inner = new kl::USoundStreams::TWavFileSoundStream(file);
    } else {
      inner = new kl::USoundStreams::TMp3FileSoundStream(file);
      if (inner->GetLength() == 0) throw kl::EAbort("");
    }
    source = new kl::USoundStreams::TFinishingSoundStream(inner.Get());
  } catch (const std::exception&) {
    std::fprintf(stderr, "klPlay: cannot open %s (the library's log says why)\n", file.c_str());
    return 1;
  }

  TklMediaPlayer player;
  player.SetSource(source.Get());
  return PlayAndShow(player, speed, volume, start,
                     [](kl::klMediaPlayer::TPlayerMode m) { return kl::klMediaPlayer::PlayerModeToStr(m); });
}
