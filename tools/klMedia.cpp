// klMedia: the library's ffmpeg jobs from the command line.
//
//   klMedia info FILE                          what the file holds (TVideoFileInfo)
//   klMedia extract VIDEO SOUND [OPTIONS...]   the film's sound into SOUND (ExtractSound)
//   klMedia mux VIDEO SOUND OUTPUT [OPTIONS...] SOUND laid under VIDEO into OUTPUT (AddSound),
//                                              waits for ffmpeg and prints OUTPUT's duration
//   klMedia frames FILE OUTDIR [--size WxH] [--from S] [--to S] [--fps F]
//                                              decoded frames as OUTDIR\frame_000001.bmp ...
//   klMedia encode INDIR OUTPUT --fps F [--bitrate B] [--quality Q]
//                                              a video from INDIR's *.bmp files, in name order
//   klMedia play FILE [--speed S] [--volume V] [--start MS]
//                                              plays the film in a window with its sound
//                                              (TFFmpegPlayer); space pauses, the arrows
//                                              seek 5 s, q or Esc quits
//
// OPTIONS are handed to ffmpeg as they are, joined by blanks. Exit code 0 on success, 1
// on failure (one line on standard error), 2 for a wrong command line.
#include <windows.h>

#include <conio.h>
#include <fcntl.h>
#include <io.h>
#include <tlhelp32.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "Components.h"

using kl::ComPtr;
using namespace kl::UFfmpeg;

namespace {

int Usage() {
  std::fprintf(stderr,
               "usage: klMedia info FILE\n"
               "       klMedia extract VIDEO SOUND [OPTIONS...]\n"
               "       klMedia mux VIDEO SOUND OUTPUT [OPTIONS...]\n"
               "       klMedia frames FILE OUTDIR [--size WxH] [--from S] [--to S] [--fps F]\n"
               "       klMedia encode INDIR OUTPUT --fps F [--bitrate B] [--quality Q]\n"
               "       klMedia play FILE [--speed S] [--volume V] [--start MS]\n");
  return 2;
}

int Fail(const std::string& Message) {
  std::fprintf(stderr, "klMedia: %s\n", Message.c_str());
  return 1;
}

std::string Join(const std::vector<std::string>& Args, size_t From) {
  std::string r;
  for (size_t i = From; i < Args.size(); ++i) r += (r.empty() ? "" : " ") + Args[i];
  return r;
}

bool Exists(const std::string& Name) { return kl::FileExists(Name) || kl::klFiles::IsWebFile(Name); }

std::set<DWORD> FfmpegProcesses() {
  std::set<DWORD> ids;
  HANDLE snap = CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
  if (snap == INVALID_HANDLE_VALUE) return ids;
  PROCESSENTRY32 e{};
  e.dwSize = sizeof e;
  for (BOOL ok = Process32First(snap, &e); ok; ok = Process32Next(snap, &e)) {
    if (lstrcmpiA(e.szExeFile, "ffmpeg.exe") == 0) ids.insert(e.th32ProcessID);
  }
  CloseHandle(snap);
  return ids;
}

std::string Describe(const std::string& File) {
  const ComPtr<IVideoFileInfo2> info = TVideoFileInfo::Create(File);
  return kl::Format("%s: duration %s (%d ms), %s, %d audio track(s)", File.c_str(), info->GetDuration().c_str(),
                    info->GetLength(), info->GetVideoPresent() ? "video" : "no video", info->GetAudioCount());
}

int Info(const std::string& File) {
  if (!Exists(File)) return Fail("file not found: " + File);
  const ComPtr<IVideoFileInfo2> info = TVideoFileInfo::Create(File);
  const std::string text = info->ToString(true);
  std::fwrite(text.data(), 1, text.size(), stdout);
  if (info->GetDuration().empty() && !info->GetVideoPresent() && !info->GetAudioPresent()) {
    return Fail("ffmpeg found nothing in " + File);
  }
  return 0;
}

int Extract(const std::vector<std::string>& A) {
  if (!Exists(A[1])) return Fail("file not found: " + A[1]);
  if (!ExtractSound(A[1], A[2], Join(A, 3))) return Fail("no sound written to " + A[2] + " (see the library's log)");
  std::printf("%s\n", Describe(A[2]).c_str());
  return 0;
}

// Waits for the ffmpeg processes that were not running at the time of Before.
void WaitForNewFfmpeg(const std::set<DWORD>& Before) {
  for (DWORD id : FfmpegProcesses()) {
    if (Before.count(id) != 0) continue;
    if (HANDLE h = OpenProcess(SYNCHRONIZE, FALSE, id)) {
      WaitForSingleObject(h, INFINITE);
      CloseHandle(h);
    }
  }
}

int Mux(const std::vector<std::string>& A) {
  for (const std::string& f : {A[1], A[2]}) {
    if (!kl::FileExists(f)) return Fail("file not found: " + f);
  }
  // AddSound does not wait: the ffmpeg that it starts is the one that was not running
  // before, and the output is complete when that process has ended.
  const std::set<DWORD> before = FfmpegProcesses();
  if (!AddSound(A[1], A[2], A[3], nullptr, Join(A, 4))) return Fail("ffmpeg could not be started");
  WaitForNewFfmpeg(before);
  if (!kl::FileExists(A[3])) return Fail("ffmpeg wrote no " + A[3]);
  std::printf("%s\n", Describe(A[3]).c_str());
  return 0;
}

// --- frames as BMP files ------------------------------------------------------------

// "--name value" pairs after the positional arguments; false for anything else.
bool ReadOptions(const std::vector<std::string>& A, size_t From, const std::vector<std::string>& Names,
                 std::vector<std::string>& Values) {
  Values.assign(Names.size(), std::string());
  for (size_t i = From; i < A.size(); i += 2) {
    const auto it = std::find(Names.begin(), Names.end(), A[i]);
    if (it == Names.end() || i + 1 >= A.size()) return false;
    Values[static_cast<size_t>(it - Names.begin())] = A[i + 1];
  }
  return true;
}

bool ToNumber(const std::string& S, double& Value) {
  if (S.empty()) return true;
  char* end = nullptr;
  Value = std::strtod(S.c_str(), &end);
  return end != S.c_str() && *end == 0;
}

// A 24-bit BMP of top-down rows with Stride bytes each.
bool WriteBmp(const std::string& Name, int32_t Width, int32_t Height, const void* Bits, size_t Stride) {
  BITMAPINFOHEADER bi{};
  bi.biSize = sizeof bi;
  bi.biWidth = Width;
  bi.biHeight = -Height;
  bi.biPlanes = 1;
  bi.biBitCount = 24;
  bi.biSizeImage = static_cast<DWORD>(Stride * static_cast<size_t>(Height));
  BITMAPFILEHEADER bf{};
  bf.bfType = 0x4D42;
  bf.bfOffBits = sizeof bf + sizeof bi;
  bf.bfSize = bf.bfOffBits + bi.biSizeImage;
  FILE* f = std::fopen(Name.c_str(), "wb");
  if (f == nullptr) return false;
  const bool ok = std::fwrite(&bf, sizeof bf, 1, f) == 1 && std::fwrite(&bi, sizeof bi, 1, f) == 1 &&
                  std::fwrite(Bits, 1, bi.biSizeImage, f) == bi.biSizeImage;
  return std::fclose(f) == 0 && ok;
}

// A 24-bit BMP (either row order) as packed top-down rows; false for anything else.
bool ReadBmp(const std::string& Name, int32_t& Width, int32_t& Height, std::vector<uint8_t>& Packed) {
  FILE* f = std::fopen(Name.c_str(), "rb");
  if (f == nullptr) return false;
  BITMAPFILEHEADER bf{};
  BITMAPINFOHEADER bi{};
  bool ok = std::fread(&bf, sizeof bf, 1, f) == 1 && std::fread(&bi, sizeof bi, 1, f) == 1 && bf.bfType == 0x4D42 &&
            bi.biBitCount == 24 && bi.biCompression == BI_RGB && bi.biWidth > 0 && bi.biHeight != 0 &&
            bi.biWidth < 32768 && bi.biHeight < 32768 && bi.biHeight > -32768;
  if (ok) {
    Width = bi.biWidth;
    Height = bi.biHeight < 0 ? -bi.biHeight : bi.biHeight;
    const size_t row = static_cast<size_t>(Width) * 3, stride = (row + 3) / 4 * 4;
    std::vector<uint8_t> raw(stride * static_cast<size_t>(Height));
    ok = std::fseek(f, static_cast<long>(bf.bfOffBits), SEEK_SET) == 0 && std::fread(raw.data(), 1, raw.size(), f) == raw.size();
    Packed.resize(row * static_cast<size_t>(Height));
    for (int32_t y = 0; ok && y < Height; ++y) {
      const int32_t from = bi.biHeight < 0 ? y : Height - 1 - y;
      std::memcpy(Packed.data() + row * static_cast<size_t>(y), raw.data() + stride * static_cast<size_t>(from), row);
    }
  }
  std::fclose(f);
  return ok;
}

int Frames(const std::vector<std::string>& A) {
  std::vector<std::string> v;
  double from = 0, to = 0, fps = 0;
  if (!ReadOptions(A, 3, {"--size", "--from", "--to", "--fps"}, v) || !ToNumber(v[1], from) || !ToNumber(v[2], to) ||
      !ToNumber(v[3], fps)) {
    return Usage();
  }
  TFramesDecoderParams params;
  if (!v[0].empty() && std::sscanf(v[0].c_str(), "%dx%d", &params.Width, &params.Height) != 2) return Usage();
  params.FromSec = static_cast<int32_t>(from);
  params.ToSec = static_cast<int32_t>(to);
  params.FPS = fps;
  if (!kl::FileExists(A[1])) return Fail("file not found: " + A[1]);
  CreateDirectoryA(A[2].c_str(), nullptr);
  const ComPtr<IVideoFramesDecoder2> decoder = TVideoFramesDecoder::Create(A[1], nullptr, &params);
  if (!decoder) return Fail("no frames from " + A[1] + " (see the library's log)");
  // What to expect: the span's length at the output rate.
  const auto info = decoder->GetFileInfo();
  const double rate = fps > 0 ? fps : info->GetFPS();
  double span = info->GetLength() / 1000.0;
  if (to > 0 && to < span) span = to;
  span -= std::min(span, from);
  const int expected = static_cast<int>(kl::Round(rate * span));
  const std::string dir = kl::IncludeTrailingPathDelimiter(A[2]);
  const size_t stride = (static_cast<size_t>(decoder->GetTargetWidth()) * 3 + 3) / 4 * 4;
  int done = 0;
  HBITMAP bitmap = nullptr;
  void* bits = nullptr;
  while (decoder->GetNextFrame(bitmap, bits)) {
    ++done;
    if (!WriteBmp(dir + kl::Format("frame_%06d.bmp", done), decoder->GetTargetWidth(), decoder->GetTargetHeight(),
                  bits, stride)) {
      return Fail("cannot write into " + dir);
    }
    std::fprintf(stderr, "\r%d / %d frames", done, expected);
  }
  std::fprintf(stderr, "\n");
  std::printf("%d frames of %dx%d in %s\n", done, decoder->GetTargetWidth(), decoder->GetTargetHeight(), dir.c_str());
  return done > 0 ? 0 : Fail("ffmpeg delivered no frame");
}

int Encode(const std::vector<std::string>& A) {
  std::vector<std::string> v;
  double fps = 0, quality = 0;
  if (!ReadOptions(A, 3, {"--fps", "--bitrate", "--quality"}, v) || v[0].empty() || !ToNumber(v[0], fps) ||
      !ToNumber(v[2], quality)) {
    return Usage();
  }
  const std::string dir = kl::IncludeTrailingPathDelimiter(A[1]);
  kl::klFiles::TFileList list(dir + "*.bmp");
  std::vector<std::string> names;
  for (int i = 0; i < list.Count(); ++i) names.push_back(list.Items(i).Name);
  std::sort(names.begin(), names.end());
  if (names.empty()) return Fail("no .bmp files in " + A[1]);
  int32_t width = 0, height = 0;
  std::vector<uint8_t> frame;
  if (!ReadBmp(names[0], width, height, frame)) return Fail("not a 24-bit BMP: " + names[0]);
  const ComPtr<IVideoFramesEncoder> encoder = new TVideoFramesEncoder(A[2]);
  if (!encoder->SetSize(width, height) || !encoder->SetFPS(static_cast<float>(fps)) || !encoder->SetBitrate(v[1]) ||
      !encoder->SetQuality(static_cast<int32_t>(quality))) {
    return Fail("refused: --fps " + v[0] + " --bitrate " + v[1] + " --quality " + v[2]);
  }
  kl::RemoveFile(A[2]);
  const std::set<DWORD> before = FfmpegProcesses();
  for (size_t i = 0; i < names.size(); ++i) {
    int32_t w = 0, h = 0;
    if (!ReadBmp(names[i], w, h, frame) || w != width || h != height) return Fail("not a " + kl::Format("%dx%d", width, height) + " 24-bit BMP: " + names[i]);
    if (!encoder->EncodeFrame(static_cast<const void*>(frame.data()))) return Fail("ffmpeg took no frame (see the library's log)");
    std::fprintf(stderr, "\r%d / %d frames", static_cast<int>(i + 1), static_cast<int>(names.size()));
  }
  std::fprintf(stderr, "\n");
  encoder->Finish();
  // ffmpeg completes the file on its own once its input has ended.
  WaitForNewFfmpeg(before);
  if (!kl::FileExists(A[2])) return Fail("ffmpeg wrote no " + A[2]);
  std::printf("%s\n", Describe(A[2]).c_str());
  return 0;
}


// --- playing a film -----------------------------------------------------------------

// What the window and the console asked for: 0 none, else ' ', '<', '>' or 'q'.
std::atomic<char> Command{0};

LRESULT CALLBACK PlayWindowProc(HWND Wnd, UINT Msg, WPARAM W, LPARAM L) {
  if (Msg == WM_KEYDOWN) {
    if (W == VK_SPACE) Command = ' ';
    if (W == VK_LEFT) Command = '<';
    if (W == VK_RIGHT) Command = '>';
    if (W == 'Q' || W == VK_ESCAPE) Command = 'q';
    return 0;
  }
  if (Msg == WM_CLOSE) {
    Command = 'q';
    return 0;
  }
  return DefWindowProcA(Wnd, Msg, W, L);
}

// A key on the console: arrows come as a prefix byte and a scan code.
void ReadConsoleKey() {
  DWORD mode = 0;
  if (!GetConsoleMode(GetStdHandle(STD_INPUT_HANDLE), &mode) || !_kbhit()) return;
  const int c = _getch();
  if (c == 0 || c == 0xE0) {
    const int scan = _getch();
    if (scan == 75) Command = '<';
    if (scan == 77) Command = '>';
  } else if (c == ' ') {
    Command = ' ';
  } else if (c == 'q' || c == 'Q' || c == 27) {
    Command = 'q';
  }
}

std::string Clock(int32_t Ms) {
  if (Ms < 0) Ms = 0;
  return kl::Format("%02d:%02d.%01d", Ms / 60000, Ms / 1000 % 60, Ms / 100 % 10);
}

int Play(const std::vector<std::string>& A) {
  std::vector<std::string> v;
  double speed = 1, volume = 1, start = 0;
  if (!ReadOptions(A, 2, {"--speed", "--volume", "--start"}, v) || !ToNumber(v[0], speed) ||
      !ToNumber(v[1], volume) || !ToNumber(v[2], start)) {
    return Usage();
  }
  if (!Exists(A[1])) return Fail("file not found: " + A[1]);
  using namespace kl::klMediaPlayer;
  kl::UFfmpegPlayer::TFFmpegPlayer player;
  player.SetSpeed(static_cast<float>(speed));
  player.SetVolume(static_cast<float>(volume));
  if (!player.Open(A[1])) return Fail("cannot play " + A[1] + " (see the library's log)");
  const RECT r = player.GetTargetRect();
  WNDCLASSA wc{};
  wc.lpfnWndProc = PlayWindowProc;
  wc.hInstance = GetModuleHandleA(nullptr);
  wc.hCursor = LoadCursor(nullptr, IDC_ARROW);
  wc.hbrBackground = static_cast<HBRUSH>(GetStockObject(BLACK_BRUSH));
  wc.lpszClassName = "klMediaPlay";
  RegisterClassA(&wc);
  RECT frame{0, 0, std::max<LONG>(r.right - r.left, 160), std::max<LONG>(r.bottom - r.top, 90)};
  AdjustWindowRect(&frame, WS_OVERLAPPEDWINDOW, FALSE);
  HWND wnd = CreateWindowExA(0, "klMediaPlay", ("klMedia - " + A[1]).c_str(), WS_OVERLAPPEDWINDOW | WS_VISIBLE,
                             CW_USEDEFAULT, CW_USEDEFAULT, frame.right - frame.left, frame.bottom - frame.top, nullptr,
                             nullptr, wc.hInstance, nullptr);
  if (wnd == nullptr) return Fail("cannot open a window");
  player.SetTargetWindow(wnd);
  if (start > 0) player.SetPosition(static_cast<int32_t>(start));
  player.Play();
  const std::string length = Clock(player.GetLength());
  for (;;) {
    MSG msg;
    while (PeekMessageA(&msg, nullptr, 0, 0, PM_REMOVE)) {
      TranslateMessage(&msg);
      DispatchMessageA(&msg);
    }
    ReadConsoleKey();
    const char c = Command.exchange(0);
    if (c == 'q') break;
    if (c == ' ') {
      if (player.GetMode() == pmPlaying) {
        player.Pause();
      } else {
        player.Play();
      }
    }
    if (c == '<' || c == '>') player.SetPosition(std::max(0, player.GetPosition() + (c == '<' ? -5000 : 5000)));
    const auto mode = player.GetMode();
    std::printf("\r%s / %s  %-10s", Clock(player.GetPosition()).c_str(), length.c_str(),
                PlayerModeToStr(mode).c_str());
    std::fflush(stdout);
    if (mode == pmFinished) break;
    Sleep(50);
  }
  std::printf("\n");
  player.Close();
  DestroyWindow(wnd);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  // ToString's lines end in CR LF already.
  _setmode(_fileno(stdout), _O_BINARY);
  const std::vector<std::string> a(argv + 1, argv + argc);
  if (a.empty()) return Usage();
  if (a[0] == "info" && a.size() == 2) return Info(a[1]);
  if (a[0] == "extract" && a.size() >= 3) return Extract(a);
  if (a[0] == "mux" && a.size() >= 4) return Mux(a);
  try {
    if (a[0] == "frames" && a.size() >= 3) return Frames(a);
    if (a[0] == "encode" && a.size() >= 3) return Encode(a);
    if (a[0] == "play" && a.size() >= 2) return Play(a);
  } catch (const std::exception& e) {
    return Fail(e.what());
  }
  return Usage();
}
