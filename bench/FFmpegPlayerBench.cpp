// TFFmpegPlayer on a 30 s film made here (640x360, 25 fps, each frame's number in its
// pixels, each sound sample's index in its value, both lossless), measured against the
// audio server's recording (KL_CAPTURE_FILE, s16le 44100 stereo):
//  - picture-to-sound offset: when frame n was drawn (OnFrame) minus when sample n * 1764
//    was recorded; mean, spread, and drift (last 5 s against the first 5 s);
//  - start latency: Open + Play to the first frame drawn and to the first sound recorded,
//    next to ffmpeg alone writing its first frame and first sound into a named pipe;
//  - seek latency: SetPosition while playing to the first frame drawn at the new place;
//  - CPU per minute of film: this process and its ffmpeg processes, next to ffmpeg
//    decoding the same film into NUL.
// Run it inside the test environment, which starts the recorder:
//   bash scripts/test.sh --run wine bin/klBench_FFmpegPlayer.exe
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

// Sample i: both channels even and the right one never 0, so every sample tells its index.
std::string MakeFilm() {
  const std::string wav = Temp("klBench_FFmpegPlayer.wav"), film = Temp("klBench_FFmpegPlayer.mkv");
  std::string pcm;
  for (int32_t i = 0; i < kRate * kSeconds; ++i) {
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
                          std::to_string(kFps) + ":d=" + std::to_string(kSeconds) +
                          ",geq=r='mod(N,256)':g='floor(N/256)':b='128',scale=" + std::to_string(kW) + ":" +
                          std::to_string(kH) + ":flags=neighbor\" -i \"" + wav + "\" -c:v ffv1 -c:a pcm_s16le \"" +
                          film + "\"";
  return RunCpu(cmd) < 0 ? std::string() : film;
}

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
  // Watches the file grow: the earliest estimate of when its byte 0 was recorded.
  void StartClock() {
    FStop = false;
    FWatch = std::thread([this] {
      while (!FStop) {
        const double t = Seconds();
        const int64_t n = Length();
        if (n > 0) FOrigin = std::min(FOrigin.load(), t - n / (4.0 * kRate));
        Sleep(2);
      }
    });
  }
  void StopClock() {
    FStop = true;
    if (FWatch.joinable()) FWatch.join();
  }
  double TimeOf(int64_t Byte) const { return FOrigin + Byte / (4.0 * kRate); }
  // Sample index -> byte offset of its first recording, for everything after From.
  std::map<int64_t, int64_t> Samples(int64_t From) const {
    std::map<int64_t, int64_t> r;
    kl::TFileStream s(FName, kl::fmOpenRead | kl::fmShareDenyNone);
    s.SetPosition(From);
    std::vector<int16_t> buf(65536);
    for (int64_t at = From;;) {
      const int64_t n = s.Read(buf.data(), static_cast<int32_t>(buf.size() * 2)) / 4;
      if (n <= 0) break;
      for (int64_t i = 0; i < n; ++i) {
        const int32_t l = buf[2 * i], h = buf[2 * i + 1];
        if (h < 2 || h % 2 != 0 || l % 2 != 0) continue;
        r.emplace((h / 2 - 1) * 32768LL + (l + 32768) / 2, at + 4 * i);
      }
      at += 4 * n;
    }
    return r;
  }

 private:
  std::string FName;
  std::atomic<double> FOrigin{1e300};
  std::atomic<bool> FStop{false};
  std::thread FWatch;
};

// The first time each frame number was drawn.
struct TFrameTimes {
  std::mutex Lock;
  std::map<int, double> First;
  void Attach(kl::UFfmpegPlayer::TFFmpegPlayer& P) {
    P.SetOnFrame([this](void* Data, int32_t) {
      const double t = Seconds();
      const auto* p = static_cast<const uint8_t*>(Data);
      std::lock_guard<std::mutex> g(Lock);
      First.emplace(p[2] + 256 * p[1], t);
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

void SyncAndStart(const std::string& Film, TRecording& Rec) {
  kl::UFfmpegPlayer::TFFmpegPlayer p;
  TFrameTimes frames;
  frames.Attach(p);
  const int64_t mark = Rec.Length();
  Rec.StartClock();
  const double cpu0 = CpuSeconds(GetCurrentProcess());
  const double start = Seconds();
  if (!p.Open(Film)) {
    std::printf("Open failed\n");
    return;
  }
  const double opened = Seconds();
  std::vector<HANDLE> children = FfmpegProcesses();
  p.Play();
  while (p.GetMode() == kl::klMediaPlayer::pmPlaying) Sleep(50);
  Sleep(500);
  Rec.StopClock();
  double cpu = CpuSeconds(GetCurrentProcess()) - cpu0;
  for (HANDLE h : children) {
    WaitForSingleObject(h, 5000);
    cpu += CpuSeconds(h);
    CloseHandle(h);
  }
  p.Close();
  const auto heard = Rec.Samples(mark);
  std::vector<double> offsets, head, tail;
  for (int n = 0; n < kSeconds * kFps; ++n) {
    const double drawn = frames.At(n);
    const auto it = heard.find(static_cast<int64_t>(n) * (kRate / kFps));
    if (drawn < 0 || it == heard.end()) continue;
    const double d = (drawn - Rec.TimeOf(it->second)) * 1000;
    offsets.push_back(d);
    if (n < 5 * kFps) head.push_back(d);
    if (n >= (kSeconds - 5) * kFps) tail.push_back(d);
  }
  std::printf("picture minus sound over %zu frames: mean %.1f ms, spread (sd) %.1f ms, drift %.1f ms "
              "(first 5 s %.1f, last 5 s %.1f)\n",
              offsets.size(), Mean(offsets), Spread(offsets), Mean(tail) - Mean(head), Mean(head), Mean(tail));
  const double firstSound = heard.empty() ? -1 : Rec.TimeOf(std::min_element(heard.begin(), heard.end(), [](auto& A, auto& B) {
                                                                return A.second < B.second;
                                                              })->second);
  std::printf("start: Open %.0f ms; Open + Play to first frame %.0f ms, to first sound %.0f ms\n",
              (opened - start) * 1000, (frames.FirstFrom(0) - start) * 1000, (firstSound - start) * 1000);
  std::printf("CPU per minute of film, player and its ffmpeg processes: %.1f s\n", cpu * 60.0 / kSeconds);
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

int main() {
  const std::string film = MakeFilm();
  if (film.empty()) {
    std::printf("ffmpeg could not make the film\n");
    return 1;
  }
  TRecording rec;
  if (!rec.Available()) std::printf("no recording (KL_CAPTURE_FILE): no sound figures\n");
  FfmpegAlone(film);
  Sleep(1000);
  SyncAndStart(film, rec);
  Seeks(film);
  const std::string nul = "\"" + Ffmpeg() + "\" -y -i \"" + film + "\" -s " + std::to_string(kW) + "x" +
                          std::to_string(kH) + " -map 0:v -pix_fmt rgb32 -f rawvideo NUL -map 0:a:0 -f s16le -ac 2 -ar 44100 NUL";
  std::printf("CPU per minute of film, ffmpeg decoding it into NUL: %.1f s\n", RunCpu(nul) * 60.0 / kSeconds);
  return 0;
}
