#include "rtl/SysUtils.h"

#include <windows.h>

#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <vector>

namespace kl {

std::string Format(const char* Fmt, ...) {
  va_list args;
  va_start(args, Fmt);
  va_list copy;
  va_copy(copy, args);
  char small[256];
  const int n = std::vsnprintf(small, sizeof small, Fmt, args);
  va_end(args);
  std::string result;
  if (n < 0) {
    va_end(copy);
    return result;
  }
  if (static_cast<size_t>(n) < sizeof small) {
    result.assign(small, static_cast<size_t>(n));
  } else {
    result.resize(static_cast<size_t>(n) + 1);
    std::vsnprintf(result.data(), result.size(), Fmt, copy);
    result.resize(static_cast<size_t>(n));
  }
  va_end(copy);
  return result;
}

void Assert(bool Condition, const char* Unit, int Line) {
  if (!Condition) throw EAssertionFailed(Format("Assertion failed (%s, line %d)", Unit, Line));
}

std::string ExceptionText(std::exception_ptr E) {
  try {
    std::rethrow_exception(E);
  } catch (const std::exception& e) {
    return e.what();
  } catch (...) {
    return "unknown error";
  }
}

int64_t Round(double Value) {
  const double lower = std::floor(Value);
  const double diff = Value - lower;
  double r;
  if (diff > 0.5) {
    r = lower + 1;
  } else if (diff < 0.5) {
    r = lower;
  } else {
    r = std::fmod(lower, 2.0) == 0 ? lower : lower + 1;
  }
  return static_cast<int64_t>(r);
}

std::string IntToStr(int64_t Value) { return std::to_string(Value); }

namespace {
char LocaleChar(LCTYPE Type, char Default) {
  char buf[8] = {};
  if (GetLocaleInfoA(LOCALE_USER_DEFAULT, Type, buf, sizeof buf) > 0 && buf[0] != 0) return buf[0];
  return Default;
}

TFormatSettings LoadSettings() {
  TFormatSettings s;
  s.DecimalSeparator = LocaleChar(LOCALE_SDECIMAL, '.');
  s.ThousandSeparator = LocaleChar(LOCALE_STHOUSAND, ',');
  s.TimeSeparator = LocaleChar(LOCALE_STIME, ':');
  s.DateSeparator = LocaleChar(LOCALE_SDATE, '.');
  return s;
}
}  // namespace

TFormatSettings& FormatSettings() {
  static TFormatSettings settings = LoadSettings();
  return settings;
}

void GetLocaleFormatSettings() { FormatSettings() = LoadSettings(); }

namespace {
size_t LastDelimiter(const std::string& Path) { return Path.find_last_of("\\/:"); }
}  // namespace

std::string ExtractFileName(const std::string& Path) {
  const size_t p = LastDelimiter(Path);
  return p == std::string::npos ? Path : Path.substr(p + 1);
}

std::string ExtractFilePath(const std::string& Path) {
  const size_t p = LastDelimiter(Path);
  return p == std::string::npos ? std::string() : Path.substr(0, p + 1);
}

std::string ExtractFileExt(const std::string& Path) {
  const size_t p = Path.find_last_of(".\\/:");
  if (p == std::string::npos || Path[p] != '.') return std::string();
  return Path.substr(p);
}

std::string ChangeFileExt(const std::string& Path, const std::string& Ext) {
  const size_t p = Path.find_last_of(".\\/:");
  if (p == std::string::npos || Path[p] != '.') return Path + Ext;
  return Path.substr(0, p) + Ext;
}

std::string IncludeTrailingPathDelimiter(const std::string& Path) {
  if (!Path.empty() && Path.back() == '\\') return Path;
  return Path + '\\';
}

bool FileExists(const std::string& FileName) {
  const DWORD a = GetFileAttributesA(FileName.c_str());
  return a != INVALID_FILE_ATTRIBUTES && (a & FILE_ATTRIBUTE_DIRECTORY) == 0;
}

bool DirectoryExists(const std::string& Dir) {
  const DWORD a = GetFileAttributesA(Dir.c_str());
  return a != INVALID_FILE_ATTRIBUTES && (a & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

bool RemoveFile(const std::string& FileName) { return DeleteFileA(FileName.c_str()) != 0; }

std::string GetTempDir() {
  char buf[MAX_PATH + 1] = {};
  const DWORD n = GetTempPathA(sizeof buf, buf);
  return n > 0 && n < sizeof buf ? std::string(buf, n) : std::string();
}

std::string ExeFileName() {
  std::vector<char> buf(MAX_PATH);
  for (;;) {
    const DWORD n = GetModuleFileNameA(nullptr, buf.data(), static_cast<DWORD>(buf.size()));
    if (n == 0) return std::string();
    if (n < buf.size()) return std::string(buf.data(), n);
    buf.resize(buf.size() * 2);
  }
}

}  // namespace kl
