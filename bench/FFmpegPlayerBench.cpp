// TFFmpegPlayer on a 30 s film made here (640x360, 25 fps, each frame's number in its
// pixels, each sound sample's index in its value, both lossless), measured against the
// audio server's recording (KL_CAPTURE_FILE, s16le 44100 stereo):
//  - picture-to-sound offset: when frame n was drawn (OnFrame) minus when sample n * 1764
//    was recorded; mean, spread, and drift (last 5 s against the first 5 s), split into
//    how late the pictures and the sound each ran against their own start, with the
//    silences the sound had inside it;
//  - the measurement itself: every frame number must be drawn once and in order, the
//    recorder's clock must not move between the first and the last seconds, and a film
//    whose sound jumps 200 ms late must show that step;
//  - start latency: Open + Play to the first frame drawn and to the first sound recorded,
//    next to ffmpeg alone writing its first frame and first sound into a named pipe;
//  - seek latency: SetPosition while playing to the first frame drawn at the new place;
//  - CPU per minute of film: this process and its ffmpeg processes, next to ffmpeg
//    decoding the same film into NUL.
// Both clocks are the performance counter: OnFrame reads it, and the recording is placed
// on it by watching its file grow. KL_BENCH_DUMP=FILE writes, per frame, when it was
// drawn and when its sound was heard (seconds after Open) to FILE30 and FILE6.
// Run it inside the test environment, which starts the recorder:
//   bash scripts/test.sh --run wine bin/klBench_FFmpegPlayer.exe [sync]
#include <windows.h>

#include <tlhelp32.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "BenchClock.h"
#include "Components.h"

namespace {

constexpr int kRate = 44100;
constexpr int kSeconds = 30;
constexpr int kFps = 25;
constexpr int kW = 640, kH = 360;

std::string Temp(const std::string& Name) {
  char dir[MAX_PATH] = {};
  GetTempPathA(MAX_PATH, dir);
  return std::string(dir) + Name;
}

std::string Ffmpeg() { return kl::UFfmpeg::FFmpegExePath(); }

double FileTimeSeconds(const FILETIME& F) {
  return (static_cast<double>(F.dwHighDateTime) * 4294967296.0 + F.dwLowDateTime) / 1e7;
}

double CpuSeconds(HANDLE Process) {
  FILETIME c, e, k, u;
  if (!GetProcessTimes(Process, &c, &e, &k, &u)) return 0;
  return FileTimeSeconds(k) + FileTimeSeconds(u);
}

// Runs a command hidden and waits; the CPU seconds it used, -1 when it failed.
double RunCpu(const std::string& Cmd) {
  STARTUPINFOA si{};
  si.cb = sizeof si;
  PROCESS_INFORMATION pi{};
  std::string cmd = Cmd;
  if (!CreateProcessA(nullptr, cmd.data(), nullptr, nullptr, FALSE, CREATE_NO_WINDOW, nullptr, nullptr, &si, &pi)) {
    return -1;
  }
  WaitForSingleObject(pi.hProcess, INFINITE);
  DWORD code = 1;
  GetExitCodeProcess(pi.hProcess, &code);
  const double cpu = CpuSeconds(pi.hProcess);
  CloseHandle(pi.hThread);
  CloseHandle(pi.hProcess);
  return code == 0 ? cpu : -1;
}

// Sample i carries index i - Shift from sample ShiftFrom on (i below it), both channels
// even and the right one never 0, so every sample tells its index. Frame n's pixels are
// R = n mod 256, G = n div 256, kept in planar RGB (ffv1 would otherwise store YUV 4:2:0,
// whose rounding turns most frame numbers into others).
std::string MakeFilm(const std::string& Name, int Seconds, int32_t ShiftFrom = 0, int32_t Shift = 0) {
  const std::string wav = Temp(Name + ".wav"), film = Temp(Name + ".mkv");
  std::string pcm;
  for (int32_t s = 0; s < kRate * Seconds; ++s) {
    const int32_t i = s >= ShiftFrom ? s - Shift : s;
    const int16_t v[2] = {static_cast<int16_t>(2 * (i % 32768) - 32768), static_cast<int16_t>(2 * (i / 32768 + 1))};
    pcm.append(reinterpret_cast<const char*>(v), sizeof v);
  }
  WAVEFORMATEX f{};
  kl::UAudioConverter::InitPcmWaveFormat(kRate, 2, 16, &f);
  std::string head = "RIFF";
  auto put32 = [&head](uint32_t v) { head.append(reinterpret_cast<const char*>(&v), 4); };
  put32(static_cast<uint32_t>(36 + pcm.size()));
  head += "WAVEfmt ";
  put32(16);
  head.append(reinterpret_cast<const char*>(&f), 16);
  head += "data";
  put32(static_cast<uint32_t>(pcm.size()));
  {
    // Closed before ffmpeg opens it.
    kl::TFileStream out(wav, kl::fmCreate);
    out.WriteBuffer(head.data(), static_cast<int32_t>(head.size()));
    out.WriteBuffer(pcm.data(), static_cast<int32_t>(pcm.size()));
  }
  // The numbers are drawn small and scaled up without filtering: a plain colour per frame.
  const std::string cmd = "\"" + Ffmpeg() + "\" -hide_banner -loglevel error -y -f lavfi -i \"color=c=black:s=32x18:r=" +
                          std::to_string(kFps) + ":d=" + std::to_string(Seconds) +
                          ",geq=r='mod(N,256)':g='floor(N/256)':b='128',scale=" + std::to_string(kW) + ":" +
                          std::to_string(kH) + ":flags=neighbor,format=gbrp\" -i \"" + wav +
                          "\" -c:v ffv1 -pix_fmt gbrp -c:a pcm_s16le \"" + film + "\"";
  return RunCpu(cmd) < 0 ? std::string() : film;
}

// The recorder's file as a clock: byte b of it was recorded at Origin + b / (4 * 44100)
// s on the performance counter. The origin is estimated while the file grows: every
// byte in the file at time t was recorded before t, so t - size / rate bounds it from
// above, and the smallest such bound (the recorder writes every ~20 ms) is taken.
class TRecording {
 public:
  TRecording() {
    if (const char* n = std::getenv("KL_CAPTURE_FILE")) FName = n;
  }
  bool Available() const { return !FName.empty() && Length() >= 0; }
  int64_t Length() const {
    WIN32_FILE_ATTRIBUTE_DATA a{};
    if (FName.empty() || !GetFileAttributesExA(FName.c_str(), GetFileExInfoStandard, &a)) return -1;
    return (static_cast<int64_t>(a.nFileSizeHigh) << 32) | a.nFileSizeLow;
  }
  void StartClock() {
    FStop = false;
    FBounds.clear();
    FWatch = std::thread([this] {
      while (!FStop) {
        const double t = Seconds();
        const int64_t n = Length();
        if (n > 0) {
          std::lock_guard<std::mutex> g(FLock);
          FBounds.emplace_back(t, t - n / (4.0 * kRate));
        }
        Sleep(2);
      }
    });
  }
  void StopClock() {
    FStop = true;
    if (FWatch.joinable()) FWatch.join();
    FOrigin = Origin(0, 1e300);
  }
  // The origin from the bounds taken between From and To (performance-counter seconds).
  double Origin(double From, double To) const {
    double o = 1e300;
    for (const auto& b : FBounds) {
      if (b.first >= From && b.first <= To) o = std::min(o, b.second);
    }
    return o;
  }
  double FirstBound() const { return FBounds.empty() ? 0 : FBounds.front().first; }
  double LastBound() const { return FBounds.empty() ? 0 : FBounds.back().first; }
  double TimeOf(int64_t Byte) const { return FOrigin + Byte / (4.0 * kRate); }
  // Sample index -> byte offset of its first recording (-1: never heard) for everything
  // after From; Silences gets the runs of zero samples between the first and the last
  // sample of the film (start byte, length in samples), Lost the samples never heard.
  std::vector<int64_t> Samples(int64_t From, int64_t Count, std::vector<std::pair<int64_t, int64_t>>& Silences) const {
    std::vector<int64_t> r(static_cast<size_t>(Count), -1);
    kl::TFileStream s(FName, kl::fmOpenRead | kl::fmShareDenyNone);
    s.SetPosition(From);
    std::vector<int16_t> buf(65536);
    int64_t zeroFrom = -1, lastHeard = -1;
    for (int64_t at = From;;) {
      const int64_t n = s.Read(buf.data(), static_cast<int32_t>(buf.size() * 2)) / 4;
      if (n <= 0) break;
      for (int64_t i = 0; i < n; ++i) {
        const int32_t l = buf[2 * i], h = buf[2 * i + 1];
        const int64_t byte = at + 4 * i;
        if (l == 0 && h == 0) {
          if (zeroFrom < 0) zeroFrom = byte;
          continue;
        }
        if (h < 2 || h % 2 != 0 || l % 2 != 0) continue;
        const int64_t index = (h / 2 - 1) * 32768LL + (l + 32768) / 2;
        if (index >= Count) continue;
        if (zeroFrom >= 0 && lastHeard >= 0) Silences.emplace_back(zeroFrom, (byte - zeroFrom) / 4);
        zeroFrom = -1;
        lastHeard = byte;
        if (r[static_cast<size_t>(index)] < 0) r[static_cast<size_t>(index)] = byte;
      }
      at += 4 * n;
    }
    return r;
  }

 private:
  std::string FName;
  double FOrigin = 0;
  std::mutex FLock;
  std::vector<std::pair<double, double>> FBounds;  // (when, bound)
  std::atomic<bool> FStop{false};
  std::thread FWatch;
};

// The first time each frame number was drawn, and how many frames came out of order.
struct TFrameTimes {
  std::mutex Lock;
  std::map<int, double> First;
  int Calls = 0, OutOfOrder = 0, Last = -1;
  void Attach(kl::UFfmpegPlayer::TFFmpegPlayer& P) {
    P.SetOnFrame([this](void* Data, int32_t) {
      const double t = Seconds();
      const auto* p = static_cast<const uint8_t*>(Data);
      const int n = p[2] + 256 * p[1];
      std::lock_guard<std::mutex> g(Lock);
      ++Calls;
      if (n < Last) ++OutOfOrder;
      Last = n;
      First.emplace(n, t);
    });
  }
  double At(int N) {
    std::lock_guard<std::mutex> g(Lock);
    const auto it = First.find(N);
    return it == First.end() ? -1 : it->second;
  }
  double FirstFrom(int N) {
    std::lock_guard<std::mutex> g(Lock);
    const auto it = First.lower_bound(N);
    return it == First.end() ? -1 : it->second;
  }
};

std::vector<HANDLE> FfmpegProcesses() {
  std::vector<HANDLE> r;
  HANDLE snap = CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
  if (snap == INVALID_HANDLE_VALUE) return r;
  PROCESSENTRY32 e{};
  e.dwSize = sizeof e;
  for (BOOL ok = Process32First(snap, &e); ok; ok = Process32Next(snap, &e)) {
    if (lstrcmpiA(e.szExeFile, "ffmpeg.exe") != 0) continue;
    if (HANDLE h = OpenProcess(PROCESS_QUERY_INFORMATION | SYNCHRONIZE, FALSE, e.th32ProcessID)) r.push_back(h);
  }
  CloseHandle(snap);
  return r;
}

double Mean(const std::vector<double>& V) {
  double s = 0;
  for (double v : V) s += v;
  return V.empty() ? 0 : s / V.size();
}

double Spread(const std::vector<double>& V) {
  const double m = Mean(V);
  double s = 0;
  for (double v : V) s += (v - m) * (v - m);
  return V.size() < 2 ? 0 : std::sqrt(s / (V.size() - 1));
}

// One play of a film to its end, and what the recording says about it.
struct TRun {
  std::vector<double> Offset;         // frame n drawn minus sample n * 1764 heard, ms (NaN: unmatched)
  std::vector<double> PictureLate;    // frame n drawn after its due time (first frame + n / 25 s), ms
  std::vector<double> SoundLate;      // sample n * 1764 heard after its due time from the first one, ms
  int Drawn = 0, Heard = 0, Calls = 0, OutOfOrder = 0, Silences = 0;
  double SilentMs = 0, Start = 0, Opened = 0, Played = 0, FirstFrame = -1, FirstSound = -1, Cpu = 0;
  double OriginStep = 0;  // origin estimated from the last seconds minus from the first, ms
};

TRun PlayAndMatch(const std::string& Film, int Secs, TRecording& Rec) {
  TRun r;
  const double nan = std::nan("");
  kl::UFfmpegPlayer::TFFmpegPlayer p;
  TFrameTimes frames;
  frames.Attach(p);
  const int64_t mark = Rec.Length();
  Rec.StartClock();
  const double cpu0 = CpuSeconds(GetCurrentProcess());
  r.Start = Seconds();
  if (!p.Open(Film)) {
    std::printf("Open failed\n");
    Rec.StopClock();
    return r;
  }
  r.Opened = Seconds();
  std::vector<HANDLE> children = FfmpegProcesses();
  p.Play();
  r.Played = Seconds();
  while (p.GetMode() == kl::klMediaPlayer::pmPlaying) Sleep(50);
  Sleep(500);
  Rec.StopClock();
  r.Cpu = CpuSeconds(GetCurrentProcess()) - cpu0;
  for (HANDLE h : children) {
    WaitForSingleObject(h, 5000);
    r.Cpu += CpuSeconds(h);
    CloseHandle(h);
  }
  p.Close();
  r.OriginStep = (Rec.Origin(Rec.LastBound() - 5, 1e300) - Rec.Origin(0, Rec.FirstBound() + 5)) * 1000;
  std::vector<std::pair<int64_t, int64_t>> silences;
  const auto heard = Rec.Samples(mark, static_cast<int64_t>(kRate) * Secs, silences);
  r.Silences = static_cast<int>(silences.size());
  for (const auto& z : silences) r.SilentMs += z.second * 1000.0 / kRate;
  int64_t first = -1;
  for (size_t k = 0; k < heard.size(); ++k) {
    if (heard[k] < 0) continue;
    ++r.Heard;
    if (first < 0 || heard[k] < heard[static_cast<size_t>(first)]) first = static_cast<int64_t>(k);
  }
  r.Calls = frames.Calls;
  r.OutOfOrder = frames.OutOfOrder;
  r.Drawn = static_cast<int>(frames.First.size());
  r.FirstFrame = frames.At(0);
  if (first >= 0) r.FirstSound = Rec.TimeOf(heard[static_cast<size_t>(first)]);
  for (int n = 0; n < Secs * kFps; ++n) {
    const double drawn = frames.At(n);
    const int64_t byte = heard[static_cast<size_t>(n) * (kRate / kFps)];
    const double sound = byte < 0 ? -1 : Rec.TimeOf(byte);
    r.Offset.push_back(drawn < 0 || sound < 0 ? nan : (drawn - sound) * 1000);
    r.PictureLate.push_back(n == 0 || drawn < 0 || r.FirstFrame < 0 ? nan : (drawn - r.FirstFrame - n / static_cast<double>(kFps) - 0.04) * 1000);
    r.SoundLate.push_back(sound < 0 || first < 0
                              ? nan
                              : (sound - r.FirstSound - (n * (kRate / kFps) - first) / static_cast<double>(kRate)) * 1000);
  }
  if (const char* d = std::getenv("KL_BENCH_DUMP")) {
    const std::string dump = d;
    FILE* f = std::fopen((dump + std::to_string(Secs)).c_str(), "w");
    for (int n = 0; f && n < Secs * kFps; ++n) {
      const int64_t byte = heard[static_cast<size_t>(n) * (kRate / kFps)];
      std::fprintf(f, "%d %.4f %.4f\n", n, frames.At(n) - r.Opened, byte < 0 ? -1 : Rec.TimeOf(byte) - r.Opened);
    }
    if (f) std::fclose(f);
  }
  return r;
}

// Mean of V[From, To) without the unmatched entries.
double MeanOf(const std::vector<double>& V, size_t From, size_t To) {
  std::vector<double> m;
  for (size_t k = From; k < std::min(To, V.size()); ++k) {
    if (!std::isnan(V[k])) m.push_back(V[k]);
  }
  return Mean(m);
}

void SyncAndStart(const std::string& Film, TRecording& Rec) {
  const TRun r = PlayAndMatch(Film, kSeconds, Rec);
  std::vector<double> matched;
  for (double d : r.Offset) {
    if (!std::isnan(d)) matched.push_back(d);
  }
  const size_t n = r.Offset.size(), five = 5 * kFps;
  std::printf("frames: %d of %zu drawn (%d OnFrame calls, %d out of order); sound: %d of %d samples heard, "
              "%d silences inside it (%.0f ms); recorder clock: origin from the last 5 s minus from the first "
              "%.1f ms\n",
              r.Drawn, n, r.Calls, r.OutOfOrder, r.Heard, kRate * kSeconds, r.Silences, r.SilentMs, r.OriginStep);
  std::printf("picture minus sound over %zu frames: mean %.1f ms, spread (sd) %.1f ms, drift %.1f ms "
              "(first 5 s %.1f, last 5 s %.1f)\n",
              matched.size(), Mean(matched), Spread(matched), MeanOf(r.Offset, n - five, n) - MeanOf(r.Offset, 0, five),
              MeanOf(r.Offset, 0, five), MeanOf(r.Offset, n - five, n));
  std::printf("  made of: first frame drawn minus first sound heard %.1f ms; late against their own start, "
              "first 5 s / last 5 s: pictures %.1f / %.1f ms, sound %.1f / %.1f ms\n",
              (r.FirstFrame - r.FirstSound) * 1000, MeanOf(r.PictureLate, 0, five), MeanOf(r.PictureLate, n - five, n),
              MeanOf(r.SoundLate, 0, five), MeanOf(r.SoundLate, n - five, n));
  const double lastDrawn = r.PictureLate.back() + r.FirstFrame * 1000 + (n - 1) * 1000.0 / kFps + 40;
  std::printf("  pictures drawn at %.2fx real time, sound heard at %.3fx\n",
              (n - 1) * 1000.0 / kFps / (lastDrawn - r.FirstFrame * 1000),
              (n - 1) * 1000.0 / kFps / ((n - 1) * 1000.0 / kFps + r.SoundLate[n - 1] - r.SoundLate[1]));
  std::printf("  offset by 2 s of film:");
  for (size_t k = 0; k < n; k += 2 * kFps) std::printf(" %.0f", MeanOf(r.Offset, k, k + 2 * kFps));
  std::printf("\n");
  std::printf("start: Open %.0f ms, Play %.0f ms; Open + Play to first frame %.0f ms, to first sound %.0f ms\n",
              (r.Opened - r.Start) * 1000, (r.Played - r.Opened) * 1000, (r.FirstFrame - r.Start) * 1000,
              (r.FirstSound - r.Start) * 1000);
  std::printf("CPU per minute of film, player and its ffmpeg processes: %.1f s\n", r.Cpu * 60.0 / kSeconds);
}

// The matching checked against a known offset: a 6 s film whose sound from 3 s on is
// 200 ms late (sample i there carries index i - 8820). Frame 75's sound must be heard
// 240 ms after frame 74's, and the offset of frames 75-79 be 200 ms below that of
// frames 70-74 (give or take how regularly those ten frames were drawn).
void KnownShift(TRecording& Rec) {
  const int secs = 6, shiftMs = 200;
  const std::string film = MakeFilm("klBench_FFmpegPlayerShift", secs, 3 * kRate, kRate * shiftMs / 1000);
  if (film.empty()) return;
  const TRun r = PlayAndMatch(film, secs, Rec);
  const size_t at = 3 * kFps;
  const double before = MeanOf(r.Offset, at - 5, at), after = MeanOf(r.Offset, at, at + 5);
  std::printf("known shift: sound made %d ms late from 3 s: frame 75's sound heard %.1f ms after frame 74's "
              "(%d expected); offset of frames 70-74 minus 75-79: %.1f ms\n",
              shiftMs, r.SoundLate[at] - r.SoundLate[at - 1] + 1000.0 / kFps, shiftMs + 1000 / kFps, before - after);
}

// ffmpeg alone: the same two commands into two named pipes, to the first frame and
// the first sound bytes.
void FfmpegAlone(const std::string& Film) {
  using kl::UPipe::INamedPipe2;
  using kl::UPipe::TNamedPipe;
  kl::ComPtr<INamedPipe2> video(new TNamedPipe("BenchVideo", 1)), audio(new TNamedPipe("BenchAudio", 1));
  video->SetBufferLevel(kW * kH * 4);  // the reader stops at 64 KiB queued otherwise
  const double start = Seconds();
  const std::string v = "\"" + Ffmpeg() + "\" -y -ss 0.000 -i \"" + Film + "\" -an -s " + std::to_string(kW) + "x" +
                        std::to_string(kH) + " -map 0:v -f image2pipe -pix_fmt rgb32 -vcodec rawvideo " +
                        video->GetName();
  const std::string a = "\"" + Ffmpeg() + "\" -y -ss 0.000 -i \"" + Film +
                        "\" -vn -map 0:a:0 -f s16le -acodec pcm_s16le -ac 2 -ar 44100 " + audio->GetName();
  WinExec(v.c_str(), SW_HIDE);
  WinExec(a.c_str(), SW_HIDE);
  double frame = -1, sound = -1;
  while ((frame < 0 || sound < 0) && Seconds() - start < 20) {
    if (frame < 0 && video->GetSizeToRead() >= kW * kH * 4) frame = Seconds();
    if (sound < 0 && audio->GetSizeToRead() >= 4) sound = Seconds();
    Sleep(1);
  }
  std::printf("ffmpeg alone: started to first frame in the pipe %.0f ms, to first sound %.0f ms\n",
              (frame - start) * 1000, (sound - start) * 1000);
}

void Seeks(const std::string& Film) {
  kl::UFfmpegPlayer::TFFmpegPlayer p;
  TFrameTimes frames;
  frames.Attach(p);
  if (!p.Open(Film)) return;
  Sleep(1000);
  p.Play();
  Sleep(2000);
  std::vector<double> ms;
  for (int k = 0; k < 5; ++k) {
    const int target = 8000 + 4000 * k;
    const double t = Seconds();
    p.SetPosition(target);
    while (frames.FirstFrom(target * kFps / 1000 - 1) < 0 && Seconds() - t < 10) Sleep(1);
    ms.push_back((frames.FirstFrom(target * kFps / 1000 - 1) - t) * 1000);
    Sleep(1500);
  }
  std::sort(ms.begin(), ms.end());
  std::printf("seek while playing to the first frame at the new place: median %.0f ms (%.0f to %.0f)\n", ms[2],
              ms.front(), ms.back());
}

}  // namespace

// Without arguments everything; "sync" only the offset, the known shift and the start.
int main(int argc, char** argv) {
  const bool all = argc < 2 || std::strcmp(argv[1], "sync") != 0;
  const std::string film = MakeFilm("klBench_FFmpegPlayer", kSeconds);
  if (film.empty()) {
    std::printf("ffmpeg could not make the film\n");
    return 1;
  }
  TRecording rec;
  if (!rec.Available()) std::printf("no recording (KL_CAPTURE_FILE): no sound figures\n");
  FfmpegAlone(film);
  Sleep(1000);
  SyncAndStart(film, rec);
  KnownShift(rec);
  if (!all) return 0;
  Seeks(film);
  const std::string nul = "\"" + Ffmpeg() + "\" -y -i \"" + film + "\" -s " + std::to_string(kW) + "x" +
                          std::to_string(kH) + " -map 0:v -pix_fmt rgb32 -f rawvideo NUL -map 0:a:0 -f s16le -ac 2 -ar 44100 NUL";
  std::printf("CPU per minute of film, ffmpeg decoding it into NUL: %.1f s\n", RunCpu(nul) * 60.0 / kSeconds);
  return 0;
}
