#include "diagnostics/klLog.h"

#include <windows.h>

#include <atomic>
#include <iterator>
#include <memory>
#include <mutex>

#include "rtl/Classes.h"
#include "rtl/Dialogs.h"
#include "rtl/Threads.h"

namespace kl::klLog {

namespace {

// Module state. The lock lives from module start to module end; once it is gone,
// AddToEventLog does nothing.
struct TLogModule {
  TCriticalSection Lock;
  std::unique_ptr<TFileStream> Stream;
  std::string BaseName;
};

std::string g_LogDir;
std::string g_LastError;
bool g_BoolOptions[1] = {false};
std::atomic<bool> g_ShutDown{false};

TLogModule* Module() {
  // Made on first use, so that objects of other units may log from their own static
  // initialisers; torn down by the finaliser below.
  static TLogModule* module = new TLogModule();
  return g_ShutDown.load() ? nullptr : module;
}

struct TFinaliser {
  TFinaliser() { Module(); }
  ~TFinaliser() {
    TLogModule* m = Module();
    if (m == nullptr) return;
    m->Lock.Enter();
    g_ShutDown.store(true);
    m->Stream.reset();
    m->Lock.Leave();
    // The lock itself is left in place: a thread still inside AddToEventLog may be
    // waiting on it. It is freed with the process.
    g_LastError.clear();
    g_LogDir.clear();
    m->BaseName.clear();
  }
} g_Finaliser;


std::string LineTime() {
  SYSTEMTIME t;
  GetLocalTime(&t);
  const char sep = FormatSettings().TimeSeparator;
  return Format("%02u.%02u.%04u %02u%c%02u%c%02u.%03u", t.wDay, t.wMonth, t.wYear, t.wHour, sep,
                t.wMinute, sep, t.wSecond, t.wMilliseconds);
}

const char* KindLetter(TLogEntryKind Kind) {
  switch (Kind) {
    case lkInformation: return "i";
    case lkError: return "E";
    case lkWarning: return "w";
    default: return "";
  }
}

void WriteText(TFileStream& Stream, const std::string& S) {
  Stream.WriteBuffer(S.data(), static_cast<int32_t>(S.size()));
}

std::unique_ptr<TFileStream> TryOpen(const std::string& Candidate, const std::string& BaseName) {
  std::unique_ptr<TFileStream> stream;
  if (g_BoolOptions[boAppendLog] && FileExists(Candidate)) {
    stream = std::make_unique<TFileStream>(Candidate, fmOpenReadWrite | fmShareDenyWrite);
    stream->Seek(0, TSeekOrigin::soEnd);
  } else {
    // Created, closed and opened again, so that others may read it while we write.
    std::make_unique<TFileStream>(Candidate, fmCreate).reset();
    stream = std::make_unique<TFileStream>(Candidate, fmOpenReadWrite | fmShareDenyWrite);
  }
  if (stream->GetSize() == 0) WriteText(*stream, BaseName + "\r\n");
  WriteText(*stream, "\r\n");
  return stream;
}

std::unique_ptr<TFileStream> OpenLog(TLogModule& M) {
  M.BaseName = ExtractFileName(ExeFileName());
  if (M.BaseName.empty()) {
    SYSTEMTIME t;
    GetLocalTime(&t);
    M.BaseName = Format("%02u%02u%02u_%02u%02u%02u%03u", t.wYear % 100, t.wMonth, t.wDay, t.wHour,
                        t.wMinute, t.wSecond, t.wMilliseconds);
  }
  const std::string dir = g_LogDir.empty() ? GetTempDir() : IncludeTrailingPathDelimiter(g_LogDir);
  const std::string basePath = dir + ChangeFileExt(M.BaseName, ".log");
  std::string candidate = basePath;
  for (int counter = 0;;) {
    try {
      return TryOpen(candidate, M.BaseName);
    } catch (...) {
      ++counter;
      if (counter > 100) {
        ShowMessageBox(nullptr,
                       "Не удалось создать файл лога. Возможно не хватает прав для записи в эту папку.",
                       M.BaseName, MB_ICONEXCLAMATION | MB_OK);
        return nullptr;
      }
      candidate = ChangeFileExt(basePath, Format("_%d.log", counter));
    }
  }
}

}  // namespace

bool AddToEventLog(const std::string& Msg, TLogEntryKind Kind) {
  TLogModule* m = Module();
  if (m == nullptr) return false;
  std::lock_guard<TCriticalSection> guard(m->Lock);
  if (g_ShutDown.load()) return false;
  try {
    if (!m->Stream) m->Stream = OpenLog(*m);
    if (!m->Stream) return false;
    WriteText(*m->Stream, Format("%s  %s  %s\r\n", LineTime().c_str(), KindLetter(Kind), Msg.c_str()));
    return true;
  } catch (...) {
    return false;
  }
}

std::string GetWholeLog() {
  std::string result;
  TLogModule* m = Module();
  if (m == nullptr) return result;
  std::lock_guard<TCriticalSection> guard(m->Lock);
  if (m->Stream) {
    const int64_t size = m->Stream->GetSize();
    if (size > 0) {
      result.resize(static_cast<size_t>(size));
      m->Stream->SetPosition(0);
      const int32_t n = m->Stream->Read(result.data(), static_cast<int32_t>(size));
      result.resize(static_cast<size_t>(n > 0 ? n : 0));
    }
  }
  return result;
}

void SetMyLastError(const std::string& S) {
  g_LastError = S;
  AddToEventLog("ERROR: " + S, lkError);
}

std::string GetMyLastError() { return g_LastError; }

void SetLogDir(const std::string& Dir) { g_LogDir = Dir; }
std::string GetLogDir() { return g_LogDir; }

void SetBoolOption(int Index, bool Value) {
  if (Index >= 0 && Index < static_cast<int>(std::size(g_BoolOptions))) g_BoolOptions[Index] = Value;
}

bool GetBoolOption(int Index) {
  return Index >= 0 && Index < static_cast<int>(std::size(g_BoolOptions)) && g_BoolOptions[Index];
}

std::string GetErrorStr(uint32_t Code) {
  char buf[4096];
  const DWORD n = FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM, nullptr, Code, 0, buf, sizeof buf, nullptr);
  return std::string(buf, n);
}

std::string GetLastErrorStr() { return GetErrorStr(GetLastError()); }

EklException::EklException(const std::string& Msg) : Exception(Msg) { AddToEventLog(Msg, lkError); }

}  // namespace kl::klLog
