// The library's diagnostic channel: one log file per process, the last error text,
// system error texts, the library's exception and the process-wide bool options.
#pragma once

#include <cstdint>
#include <string>

#include "rtl/SysUtils.h"

namespace kl::klLog {

using TLogEntryKind = int8_t;
constexpr TLogEntryKind lkInformation = 0;
constexpr TLogEntryKind lkError = 1;
constexpr TLogEntryKind lkWarning = 2;

// Bool option indexes.
constexpr int boAppendLog = 0;

// Writes one line ("dd.mm.yyyy hh:nn:ss.zzz  K  Msg\r\n"); false when the log cannot
// be opened or the module has shut down. Never raises. The line is in the file when
// this returns.
bool AddToEventLog(const std::string& Msg, TLogEntryKind Kind);
// The whole current log file; empty when nothing was logged yet (does not open it).
std::string GetWholeLog();

void SetMyLastError(const std::string& S);
std::string GetMyLastError();

// Effective only before the first logged line.
void SetLogDir(const std::string& Dir);
std::string GetLogDir();

void SetBoolOption(int Index, bool Value);
bool GetBoolOption(int Index);

// The system's text for an error code, as FormatMessageA gives it (with its CR LF);
// empty when the system has none.
std::string GetErrorStr(uint32_t Code);
std::string GetLastErrorStr();

// The library's exception: its message is logged (as an error) when it is made.
class EklException : public Exception {
 public:
  explicit EklException(const std::string& Msg);

 protected:
  struct NoLog {};
  // Descendants that must not log (the framework's other constructors).
  EklException(const std::string& Msg, NoLog) : Exception(Msg) {}
};

}  // namespace kl::klLog
