// TklMediaPlayer against a minimal hand-written waveOut loop (three tenth-of-a-second
// blocks refilled from the file, CALLBACK_EVENT), both playing the same generated 16-bit
// stereo 44.1 kHz WAV in the same run:
//  - start delay: from Play (the first waveOutWrite for the loop) until the file's first
//    loud frame has arrived in the audio server's recording (KL_CAPTURE_FILE, s16le
//    44100 stereo), and until the device position first moves (all there is without a
//    recording);
//  - CPU time (user + kernel of the whole process) per minute played, and per minute of
//    audio at speed 1.5 for TklMediaPlayer (its own tempo corrector) and for the first
//    generation's player of UklMediaPlayer (SoundTouch), next to the hand loop at speed 1.
// Run it inside the test environment, which starts the recorder:
//   bash scripts/test.sh --run wine bin/klBench_Player.exe
#include <windows.h>
#include <mmsystem.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "BenchClock.h"
#include "Components.h"

namespace {

constexpr int RATE = 44100;
constexpr int BYTES_PER_SECOND = RATE * 4;
constexpr int BLOCK_BYTES = BYTES_PER_SECOND / 10;
constexpr int FILE_SECONDS = 32;  // more than the CPU interval at speed 1.5, so it never runs dry
constexpr double CPU_SECONDS = 20;
constexpr int REPEATS = 5;
constexpr int16_t LOUD = 12000;      // a square wave that is never 0...
constexpr int16_t THRESHOLD = 4000;  // ...and nothing quieter counts as it

// The whole file is the marker: a 441 Hz square wave, so the first frame played is loud.
std::string WriteTestWav() {
  char dir[MAX_PATH] = {};
  GetTempPathA(MAX_PATH, dir);
  const std::string path = std::string(dir) + "klBench_Player.wav";
  const uint32_t data = static_cast<uint32_t>(FILE_SECONDS) * BYTES_PER_SECOND;
  std::string bytes = "RIFF";
  auto put32 = [&bytes](uint32_t v) { bytes.append(reinterpret_cast<const char*>(&v), 4); };
  auto put16 = [&bytes](uint16_t v) { bytes.append(reinterpret_cast<const char*>(&v), 2); };
  put32(36 + data);
  bytes += "WAVEfmt ";
  put32(16);
  put16(WAVE_FORMAT_PCM);
  put16(2);
  put32(RATE);
  put32(BYTES_PER_SECOND);
  put16(4);
  put16(16);
  bytes += "data";
  put32(data);
  for (uint32_t i = 0; i < data / 4; ++i) {
    const uint16_t v = static_cast<uint16_t>((i / 50) % 2 ? -LOUD : LOUD);
    put16(v);
    put16(v);
  }
  kl::TFileStream f(path, kl::fmCreate);
  f.WriteBuffer(bytes.data(), static_cast<int32_t>(bytes.size()));
  return path;
}

// The recording the test environment makes of everything the audio server plays.
class TCaptureFile {
 public:
  TCaptureFile() {
    const char* name = std::getenv("KL_CAPTURE_FILE");
    if (name != nullptr) FName = name;
    if (Length() < 0) FName.clear();
  }
  bool Available() const { return !FName.empty(); }

  // Where the next bytes the recorder writes will go.
  int64_t Mark() const {
    const int64_t n = Length();
    return n < 0 ? 0 : n - n % 4;
  }

  // Byte offset of the first loud frame at or after From; -1 when there is none yet.
  int64_t FindLoud(int64_t From) const {
    int64_t result = -1;
    try {
      kl::TFileStream s(FName, kl::fmOpenRead | kl::fmShareDenyNone);
      s.SetPosition(From);
      std::vector<int16_t> buf(16384);
      for (int64_t at = From; result < 0;) {
        const int64_t n = s.Read(buf.data(), static_cast<int32_t>(buf.size() * 2)) / 4;
        if (n <= 0) break;
        for (int64_t i = 0; i < n && result < 0; ++i) {
          if (std::abs(buf[2 * i]) >= THRESHOLD || std::abs(buf[2 * i + 1]) >= THRESHOLD) result = at + 4 * i;
        }
        at += 4 * n;
      }
    } catch (const std::exception&) {
      return -1;  // the recorder's file went away: no finding
    }
    return result;
  }

 private:
  int64_t Length() const {
    WIN32_FILE_ATTRIBUTE_DATA a{};
    if (FName.empty() || !GetFileAttributesExA(FName.c_str(), GetFileExInfoStandard, &a)) return -1;
    return (static_cast<int64_t>(a.nFileSizeHigh) << 32) | a.nFileSizeLow;
  }
  std::string FName;
};

struct THandleCloser {
  void operator()(HANDLE H) const {
    if (H != nullptr) CloseHandle(H);
  }
};

// One way of playing the file from its start.
class TPlayerRun {
 public:
  virtual ~TPlayerRun() = default;
  virtual bool Ready() = 0;
  virtual void Start() = 0;
  // Keeps playing for about Ms milliseconds.
  virtual void Idle(DWORD Ms) = 0;
  // Seconds of audio the device reports as played.
  virtual double Played() = 0;
};

void OpenWav(kl::klMediaPlayer::TklMediaPlayer& Player, const std::string& Path) {
  const kl::ComPtr<kl::klMediaPlayer::ISoundStream> source = new kl::USoundStreams::TWavFileSoundStream(Path);
  Player.SetSource(source.Get());
}

void OpenWav(kl::UklMediaPlayer::TklMediaPlayer& Player, const std::string& Path) { Player.OpenFile(Path); }

// Either generation's player; both number their modes alike.
template <class TPlayer>
class TLibraryRun : public TPlayerRun {
 public:
  TLibraryRun(const std::string& Path, float Speed) {
    OpenWav(FPlayer, Path);
    FPlayer.SetSpeed(Speed);
  }
  ~TLibraryRun() override { FPlayer.Close(); }
  bool Ready() override { return static_cast<int>(FPlayer.GetMode()) == kl::klMediaPlayer::pmStopped; }
  void Start() override { FPlayer.Play(); }
  void Idle(DWORD Ms) override { Sleep(Ms); }
  // Audio seconds: the position counts source time, whatever the speed.
  double Played() override { return FPlayer.GetPosition() / 1000.0; }

 private:
  TPlayer FPlayer;
};

class THandRun : public TPlayerRun {
 public:
  explicit THandRun(const std::string& Path)
      : FEvent(CreateEventA(nullptr, FALSE, FALSE, nullptr)), FFile(Path, kl::fmOpenRead | kl::fmShareDenyWrite) {
    if (!FEvent) return;
    FFile.SetPosition(44);  // past the header WriteTestWav writes
    WAVEFORMATEX f{WAVE_FORMAT_PCM, 2, RATE, BYTES_PER_SECOND, 4, 16, 0};
    if (waveOutOpen(&FWaveOut, WAVE_MAPPER, &f, reinterpret_cast<DWORD_PTR>(FEvent.get()), 0, CALLBACK_EVENT) !=
        MMSYSERR_NOERROR) {
      FWaveOut = nullptr;
      return;
    }
    for (int i = 0; i < 3; ++i) {
      FData[i].resize(BLOCK_BYTES);
      FHeaders[i].lpData = FData[i].data();
      FHeaders[i].dwBufferLength = BLOCK_BYTES;
      waveOutPrepareHeader(FWaveOut, &FHeaders[i], sizeof(WAVEHDR));
    }
  }
  ~THandRun() override {
    if (FWaveOut != nullptr) {
      waveOutReset(FWaveOut);
      for (auto& h : FHeaders) waveOutUnprepareHeader(FWaveOut, &h, sizeof(WAVEHDR));
      waveOutClose(FWaveOut);
    }
  }
  bool Ready() override { return FWaveOut != nullptr; }
  void Start() override {
    for (auto& h : FHeaders) Queue(h);
  }
  void Idle(DWORD Ms) override {
    const double until = Seconds() + Ms / 1000.0;
    for (double now = Seconds(); now < until; now = Seconds()) {
      WaitForSingleObject(FEvent.get(), static_cast<DWORD>((until - now) * 1000) + 1);
      for (auto& h : FHeaders) {
        if (h.dwFlags & WHDR_DONE) Queue(h);
      }
    }
  }
  double Played() override {
    MMTIME t{};
    t.wType = TIME_BYTES;
    waveOutGetPosition(FWaveOut, &t, sizeof t);
    return static_cast<double>(t.u.cb) / BYTES_PER_SECOND;
  }

 private:
  void Queue(WAVEHDR& H) {
    const int32_t n = FFile.Read(H.lpData, BLOCK_BYTES);
    if (n <= 0) return;
    H.dwBufferLength = static_cast<DWORD>(n);
    H.dwFlags &= ~static_cast<DWORD>(WHDR_DONE);
    waveOutWrite(FWaveOut, &H, sizeof(WAVEHDR));
  }
  std::unique_ptr<void, THandleCloser> FEvent;
  kl::TFileStream FFile;
  HWAVEOUT FWaveOut = nullptr;
  std::vector<char> FData[3];
  WAVEHDR FHeaders[3]{};
};

using TFactory = std::function<std::unique_ptr<TPlayerRun>()>;

// Milliseconds from Start until the file's first loud frame is in the server's recording
// and until the device position first moves; negative for what never came.
//
// The wall clock of the recording's arrival is used, not the frame's offset in it: the
// server inserts a new stream's first frames right after the last bytes it delivered to
// the recorder (it rewinds what it had rendered ahead), so the offset always reads "at
// once". The arrival time includes the recorder's own delivery, the same for both.
struct TDelay {
  double Recorded = -1;
  double Moved = -1;
  double Call = 0;  // how long Start itself took
};

TDelay StartDelay(const TFactory& Make, const TCaptureFile& Capture) {
  TDelay r;
  {
    auto run = Make();
    if (!run->Ready()) return r;
    Sleep(300);  // the player's read-ahead fills; both devices are open and idle
    const int64_t mark = Capture.Mark();
    const double start = Seconds();
    run->Start();
    r.Call = (Seconds() - start) * 1000;
    while (Seconds() - start < 3) {
      if (r.Moved < 0 && run->Played() > 0) r.Moved = (Seconds() - start) * 1000;
      if (Capture.Available() && r.Recorded < 0 && Capture.FindLoud(mark) >= 0) r.Recorded = (Seconds() - start) * 1000;
      if (r.Moved >= 0 && (r.Recorded >= 0 || !Capture.Available())) break;
      run->Idle(1);
    }
  }
  Sleep(600);  // the server's tail of this run out of the next one's recording
  return r;
}

struct TCpu {
  double PerMinute = -1;       // of wall-clock playing
  double PerAudioMinute = -1;  // of the source's audio
  double Played = 0;
};

double ProcessCpuSeconds() {
  FILETIME c, e, k, u;
  GetProcessTimes(GetCurrentProcess(), &c, &e, &k, &u);
  auto s = [](const FILETIME& t) {
    return static_cast<double>((static_cast<uint64_t>(t.dwHighDateTime) << 32) | t.dwLowDateTime) / 1e7;
  };
  return s(k) + s(u);
}

TCpu CpuPerMinute(const TFactory& Make) {
  TCpu r;
  auto run = Make();
  if (!run->Ready()) return r;
  Sleep(300);
  const double cpu0 = ProcessCpuSeconds(), start = Seconds();
  run->Start();
  while (Seconds() - start < CPU_SECONDS) run->Idle(20);
  const double cpu = ProcessCpuSeconds() - cpu0, wall = Seconds() - start;
  r.Played = run->Played();
  r.PerMinute = cpu / wall * 60;
  if (r.Played > 0) r.PerAudioMinute = cpu / r.Played * 60;
  return r;
}

double Median(std::vector<double> V) {
  V.erase(std::remove_if(V.begin(), V.end(), [](double x) { return x < 0; }), V.end());
  if (V.empty()) return -1;
  std::sort(V.begin(), V.end());
  const size_t n = V.size();
  return n % 2 ? V[n / 2] : (V[n / 2 - 1] + V[n / 2]) / 2;
}

void PrintRow(const char* Name, double Library, double Hand, const char* Unit) {
  std::printf("%-34s %10.2f %10.2f %8.2f  %s\n", Name, Library, Hand, Hand > 0 ? Library / Hand : 0.0, Unit);
}

int Run(const std::string& Path) {
  const TCaptureFile capture;
  const auto libraryAt = [&Path](float Speed) -> TFactory {
    return [&Path, Speed] { return std::unique_ptr<TPlayerRun>(new TLibraryRun<kl::klMediaPlayer::TklMediaPlayer>(Path, Speed)); };
  };
  const TFactory library = libraryAt(1.0f);
  const TFactory firstGeneration = [&Path] {
    return std::unique_ptr<TPlayerRun>(new TLibraryRun<kl::UklMediaPlayer::TklMediaPlayer>(Path, 1.5f));
  };
  const TFactory hand = [&Path] { return std::unique_ptr<TPlayerRun>(new THandRun(Path)); };

  if (!capture.Available()) std::printf("no recording (KL_CAPTURE_FILE): start delay to the position's move only\n");
  // A run of each first: the audio driver's first start in a process is slower.
  StartDelay(library, capture);
  StartDelay(hand, capture);
  std::vector<double> libRec, ownRec, libMove, ownMove;
  for (int i = 0; i < REPEATS; ++i) {
    const TDelay l = StartDelay(library, capture), o = StartDelay(hand, capture);
    libRec.push_back(l.Recorded);
    ownRec.push_back(o.Recorded);
    libMove.push_back(l.Moved);
    ownMove.push_back(o.Moved);
    std::printf("  start %d: library %6.2f ms recorded, %6.2f moved, %5.2f in Play; hand loop %6.2f, %6.2f, %5.2f\n",
                i + 1, l.Recorded, l.Moved, l.Call, o.Recorded, o.Moved, o.Call);
  }
  std::printf("cpu: %.0f s of playing each\n", CPU_SECONDS);
  const TCpu libCpu = CpuPerMinute(library), ownCpu = CpuPerMinute(hand);
  const TCpu fastCpu = CpuPerMinute(libraryAt(1.5f)), firstCpu = CpuPerMinute(firstGeneration);

  std::printf("\n%-34s %10s %10s %8s\n", "", "library", "hand loop", "ratio");
  if (capture.Available()) PrintRow("start delay to recording, median", Median(libRec), Median(ownRec), "ms");
  PrintRow("start delay to position, median", Median(libMove), Median(ownMove), "ms");
  PrintRow("CPU per minute played", libCpu.PerMinute * 1000, ownCpu.PerMinute * 1000, "ms (user + kernel)");
  std::printf("%-34s %10.1f %10.1f           s (device position)\n", "audio played in the CPU run", libCpu.Played,
              ownCpu.Played);
  PrintRow("CPU per audio minute, speed 1.5", fastCpu.PerAudioMinute * 1000, ownCpu.PerAudioMinute * 1000,
           "ms, klMediaPlayer (own corrector)");
  PrintRow("CPU per audio minute, speed 1.5", firstCpu.PerAudioMinute * 1000, ownCpu.PerAudioMinute * 1000,
           "ms, UklMediaPlayer (SoundTouch)");
  const bool recorded = !capture.Available() || (Median(libRec) >= 0 && Median(ownRec) >= 0);
  const bool measured = Median(libMove) >= 0 && Median(ownMove) >= 0 && libCpu.PerMinute >= 0 && ownCpu.PerMinute >= 0 &&
                        fastCpu.PerAudioMinute >= 0 && firstCpu.PerAudioMinute >= 0;
  return recorded && measured ? 0 : 1;
}

}  // namespace

int main() {
  std::string path;
  int result = 1;
  try {
    path = WriteTestWav();
    result = Run(path);
  } catch (const std::exception& E) {
    std::printf("failed: %s\n", E.what());
  }
  if (!path.empty()) DeleteFileA(path.c_str());
  return result;
}
