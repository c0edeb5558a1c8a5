#include "ffmpeg/UFfmpeg.h"

#include <charconv>
#include <cctype>
#include <cmath>
#include <cstdio>

#include "channels/klChildProcess.h"
#include "diagnostics/klLog.h"
#include "rtl/SysUtils.h"

namespace kl::UFfmpeg {

std::string FFmpegExeDir = "..\\common\\";

const char* const FFmpegLibraryNames[FFmpegLibraryCount] = {
    "avcodec-55.dll",  "avdevice-55.dll", "avfilter-4.dll",   "avformat-55.dll",
    "avutil-52.dll",   "postproc-52.dll", "swresample-0.dll", "swscale-2.dll"};

namespace {

HMODULE LibraryHandles[FFmpegLibraryCount] = {};
bool LibrariesLoaded = false;

// The unit's start and end: the libraries are loaded with the program (or the library
// that links this unit) and freed, and FFmpegExeDir cleared, when it unloads.
struct TUnitLifetime {
  TUnitLifetime() { LoadFFmpegLibraries(); }
  ~TUnitLifetime() {
    FreeFFmpegLibraries();
    FFmpegExeDir.clear();
  }
  TUnitLifetime(const TUnitLifetime&) = delete;
  TUnitLifetime& operator=(const TUnitLifetime&) = delete;
};
// Defined after FFmpegExeDir in this file, so destroyed before it.
TUnitLifetime UnitLifetime;

}  // namespace

std::string FFmpegExePath() {
  std::string folder = ExtractFilePath(ExeFileName());
  if (!folder.empty() && folder.back() == '\\') folder.pop_back();
  return ExtractFilePath(folder) + "common\\ffmpeg.exe";
}

HMODULE FFmpegLibraryHandle(int Index) {
  return Index >= 0 && Index < FFmpegLibraryCount ? LibraryHandles[Index] : nullptr;
}

void LoadFFmpegLibraries() {
  if (LibrariesLoaded) return;
  LibrariesLoaded = true;
  for (int i = 0; i < FFmpegLibraryCount; ++i) {
    // The bare name: a file in the current directory, nowhere else.
    LibraryHandles[i] = FileExists(FFmpegLibraryNames[i]) ? LoadLibraryA(FFmpegLibraryNames[i]) : nullptr;
  }
}

void FreeFFmpegLibraries() {
  for (HMODULE& h : LibraryHandles) {
    if (h != nullptr) FreeLibrary(h);
    h = nullptr;
  }
  LibrariesLoaded = false;
}

// --- one-shot jobs ------------------------------------------------------------------

bool ExtractSound(const std::string& VideoFile, const std::string& SoundFile, const std::string& Options) {
  const std::string cmd = Format("\"%s\" -y -i \"%s\" -vn %s \"%s\"", FFmpegExePath().c_str(), VideoFile.c_str(),
                                 Options.c_str(), SoundFile.c_str());
  ComPtr<klChildProcess::IChildProcess2> child;
  if (ComPtr<klChildProcess::IChildProcess3> started = klChildProcess::TChildProcess::Create(cmd)) {
    started.As(&child);
  }
  if (!child) return false;
  // ffmpeg's progress text is not wanted: with its standard error closed nobody has to
  // read it for ffmpeg to go on.
  child->ClosePipe(2);
  WaitForSingleObject(child->GetProc(), INFINITE);
  child.Reset();
  if (!FileExists(SoundFile)) {
    klLog::AddToEventLog("UFfmpeg.ExtractSound: Не найден итоговый файл: " + SoundFile, klLog::lkError);
    return false;
  }
  return true;
}

bool AddSound(const std::string& VideoFile, const std::string& SoundFile, const std::string& OutputFile,
              const TAddSoundCallback& /*Callback*/, const std::string& Options) {
  if (!FileExists(VideoFile) || !FileExists(SoundFile) || OutputFile.empty()) {
    klLog::AddToEventLog(Format("AddSound: invalid params \"%s\" \"%s\" \"%s\"", VideoFile.c_str(), SoundFile.c_str(),
                                OutputFile.c_str()),
                         klLog::lkError);
    return false;
  }
  const std::string cmd = Format("\"%s\" -y -i \"%s\" -vn -i \"%s\" %s \"%s\"", FFmpegExePath().c_str(),
                                 VideoFile.c_str(), SoundFile.c_str(), Options.c_str(), OutputFile.c_str());
  if (WinExec(cmd.c_str(), SW_SHOW) < 32) {
    klLog::AddToEventLog("AddSound: WinExec failed: " + cmd, klLog::lkError);
    return false;
  }
  return true;
}

// --- number texts -------------------------------------------------------------------

double DecimalStrToFloat(const std::string& S, double Default) {
  const char sep = FormatSettings().DecimalSeparator;
  size_t from = S.find_first_not_of(' ');
  if (from == std::string::npos) return Default;
  size_t to = S.find_last_not_of(' ') + 1;
  std::string t = S.substr(from, to - from);
  if (t[0] == '+') t.erase(0, 1);
  for (char& c : t) {
    if (c == sep) {
      c = '.';
    } else if (c == '.' || !(std::isdigit(static_cast<unsigned char>(c)) || c == '-' || c == 'e' || c == 'E' || c == '+')) {
      return Default;
    }
  }
  double v = 0;
  const auto r = std::from_chars(t.data(), t.data() + t.size(), v);
  return r.ec == std::errc() && r.ptr == t.data() + t.size() ? v : Default;
}

double LenientStrToFloat(const std::string& S) {
  const char sep = FormatSettings().DecimalSeparator;
  std::string t = S;
  for (char& c : t) {
    if (c == ',' || c == '.') c = sep;
  }
  return DecimalStrToFloat(t, 0.0);
}

std::string FormatFloatDecimals(double Value, int MaxDecimals) {
  if (!std::isfinite(Value)) return Value != Value ? "NAN" : (Value > 0 ? "INF" : "-INF");
  if (MaxDecimals < 0) MaxDecimals = 0;
  // A few digits more than asked, then rounded half away from zero on the decimal
  // digits, as the framework's picture formatting does.
  char buf[400];
  std::snprintf(buf, sizeof buf, "%.*f", MaxDecimals + 6, std::fabs(Value));
  std::string digits(buf);
  const size_t dot = digits.find('.');
  std::string kept = digits.substr(0, dot + 1 + static_cast<size_t>(MaxDecimals));
  if (digits[dot + 1 + static_cast<size_t>(MaxDecimals)] >= '5') {
    size_t i = kept.size();
    for (;;) {
      if (i == 0) {
        kept.insert(kept.begin(), '1');
        break;
      }
      --i;
      if (kept[i] == '.') continue;
      if (kept[i] == '9') {
        kept[i] = '0';
      } else {
        ++kept[i];
        break;
      }
    }
  }
  while (!kept.empty() && kept.back() == '0' && kept.find('.') != std::string::npos) kept.pop_back();
  if (!kept.empty() && kept.back() == '.') kept.pop_back();
  if (const size_t p = kept.find('.'); p != std::string::npos) kept[p] = FormatSettings().DecimalSeparator;
  if (Value < 0 && kept.find_first_not_of("0") != std::string::npos) kept.insert(kept.begin(), '-');
  return kept;
}

}  // namespace kl::UFfmpeg
