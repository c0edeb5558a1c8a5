// Small stand-ins for the host framework's system utilities: the exception base,
// formatting, rounding, the process-wide format settings and a few path helpers.
#pragma once

#include <cstdint>
#include <exception>
#include <string>

namespace kl {

// The framework's exception: carries a message string. Library code raises
// this (or a descendant) and callers catch it by reference.
class Exception : public std::exception {
 public:
  explicit Exception(std::string Msg) : FMessage(std::move(Msg)) {}
  const char* what() const noexcept override { return FMessage.c_str(); }
  const std::string& Message() const noexcept { return FMessage; }

 private:
  std::string FMessage;
};

// Silent exception: aborts an operation without being an error to report.
class EAbort : public Exception {
 public:
  using Exception::Exception;
};

// Raised by the streams when a file cannot be opened or created.
class EStreamError : public Exception {
 public:
  using Exception::Exception;
};
class EFOpenError : public EStreamError {
 public:
  using EStreamError::EStreamError;
};
class EFCreateError : public EStreamError {
 public:
  using EStreamError::EStreamError;
};
class EReadError : public EStreamError {
 public:
  using EStreamError::EStreamError;
};
class EWriteError : public EStreamError {
 public:
  using EStreamError::EStreamError;
};
class EConvertError : public Exception {
 public:
  using Exception::Exception;
};

// A broken internal assumption (a programming error in the caller, not bad data).
class EAssertionFailed : public Exception {
 public:
  using Exception::Exception;
};

// Raises EAssertionFailed("Assertion failed (<Unit>, line <Line>)") when Condition is
// false. Unit and Line name the check for the report, as the host framework's
// assertions do; they need not be this source file's own.
void Assert(bool Condition, const char* Unit, int Line);

// The message of a caught exception (what() for standard ones, "unknown error" else),
// for the log lines of catch-all handlers.
std::string ExceptionText(std::exception_ptr E);

// printf-style formatting into a std::string (pass std::string arguments as .c_str()).
std::string Format(const char* Fmt, ...);

// Round to nearest, halves to even (0.5 -> 0, 1.5 -> 2, -2.5 -> -2).
int64_t Round(double Value);

std::string IntToStr(int64_t Value);

// Process-wide format settings, read from the user's locale at start-up (as the host
// framework keeps them). A host, or a test, may change them at any time.
struct TFormatSettings {
  char DecimalSeparator = '.';
  char ThousandSeparator = ',';
  char TimeSeparator = ':';
  char DateSeparator = '.';
};
TFormatSettings& FormatSettings();
// Reloads FormatSettings() from the current user locale.
void GetLocaleFormatSettings();

// Paths (backslash-separated, 8-bit ANSI).
std::string ExtractFileName(const std::string& Path);
std::string ExtractFilePath(const std::string& Path);  // with the trailing backslash
std::string ExtractFileExt(const std::string& Path);   // with the dot; empty if none
std::string ChangeFileExt(const std::string& Path, const std::string& Ext);
std::string IncludeTrailingPathDelimiter(const std::string& Path);
bool FileExists(const std::string& FileName);
bool DirectoryExists(const std::string& Dir);
bool RemoveFile(const std::string& FileName);  // DeleteFileA
std::string GetTempDir();  // GetTempPathA: ends with a backslash
std::string ExeFileName();  // the host process's executable path

}  // namespace kl
