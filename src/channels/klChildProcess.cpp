#include "channels/klChildProcess.h"

#include <algorithm>
#include <exception>
#include <memory>
#include <vector>

#include "channels/UPipe.h"
#include "diagnostics/klLog.h"
#include "rtl/SysUtils.h"
#include <utility>

namespace kl::klChildProcess {

namespace {

constexpr DWORD kChunkSize = 4096;
constexpr uint8_t kCR = 13;

// Our own end of a pipe must not reach any child: only the child's end is inheritable.
void MakeNotInheritable(const Handles::THandle& Handle) {
  if (!SetHandleInformation(Handle.Get(), HANDLE_FLAG_INHERIT, 0)) throw Exception("Error on SetHandleInformation");
}

// The list of handles one child may inherit: without it CreateProcess hands the child
// every inheritable handle of the process, including the pipe ends of a child being
// started at the same moment on another thread, whose reader then never sees its pipe
// break.
class THandleList {
 public:
  explicit THandleList(std::vector<HANDLE> AHandles) : FHandles(std::move(AHandles)) {
    SIZE_T size = 0;
    InitializeProcThreadAttributeList(nullptr, 1, 0, &size);
    FBuffer.resize(size);
    auto* list = reinterpret_cast<LPPROC_THREAD_ATTRIBUTE_LIST>(FBuffer.data());
    if (!InitializeProcThreadAttributeList(list, 1, 0, &size)) throw Exception("Error on InitializeProcThreadAttributeList");
    FList = list;
    if (!UpdateProcThreadAttribute(FList, 0, PROC_THREAD_ATTRIBUTE_HANDLE_LIST, FHandles.data(),
                                   FHandles.size() * sizeof(HANDLE), nullptr, nullptr)) {
      throw Exception("Error on UpdateProcThreadAttribute");
    }
  }
  ~THandleList() {
    if (FList != nullptr) DeleteProcThreadAttributeList(FList);
  }
  THandleList(const THandleList&) = delete;
  THandleList& operator=(const THandleList&) = delete;
  LPPROC_THREAD_ATTRIBUTE_LIST Get() const { return FList; }

 private:
  std::vector<HANDLE> FHandles;  // must outlive the list, which points into it
  std::vector<uint8_t> FBuffer;
  LPPROC_THREAD_ATTRIBUTE_LIST FList = nullptr;
};

SECURITY_ATTRIBUTES InheritableAttributes() {
  SECURITY_ATTRIBUTES sa{};
  sa.nLength = sizeof(sa);
  sa.lpSecurityDescriptor = nullptr;
  sa.bInheritHandle = TRUE;
  return sa;
}

}  // namespace

// --- TChildWritableStream -----------------------------------------------------------

TChildWritableStream::~TChildWritableStream() {
  if (FHandle) FlushFileBuffers(FHandle.Get());
}

bool STDMETHODCALLTYPE TChildWritableStream::WriteBuffer(const void* Buffer, int32_t Size, int32_t /*Timeout*/) {
  if (Buffer == nullptr || Size < 1) return false;
  DWORD written = 0;
  return WriteFile(FHandle.Get(), Buffer, static_cast<DWORD>(Size), &written, nullptr) &&
         written == static_cast<DWORD>(Size);
}

bool STDMETHODCALLTYPE TChildWritableStream::WriteString(const std::string& S, int32_t /*Timeout*/) {
  std::string line(S.c_str());  // up to the first zero byte
  line += "\r\n";
  DWORD written = 0;
  return WriteFile(FHandle.Get(), line.data(), static_cast<DWORD>(line.size()), &written, nullptr) &&
         written == static_cast<DWORD>(line.size());
}

// --- TChildReadableStream -----------------------------------------------------------

TChildReadableStream::~TChildReadableStream() = default;  // the handle owner closes it

bool TChildReadableStream::WaitForData(int32_t ATimeout, DWORD& Available) {
  const DWORD start = GetTickCount();
  for (;;) {
    Available = 0;
    const BOOL ok = PeekNamedPipe(FHandle.Get(), nullptr, 0, nullptr, &Available, nullptr);
    // Before the child has written anything a failed peek proves nothing; after
    // that, a broken pipe means it has closed its end and nothing more will come.
    if (!ok && Connected && GetLastError() == ERROR_BROKEN_PIPE) return false;
    if (ok && Available > 0) {
      Connected = true;
      return true;
    }
    Sleep(0);
    if (static_cast<int64_t>(GetTickCount() - start) > ATimeout) return false;
  }
}

int32_t STDMETHODCALLTYPE TChildReadableStream::ReadBuffer(void* Buffer, int32_t Count, int32_t ATimeout) {
  if (Buffer == nullptr || Count < 1) return 0;
  int32_t done = 0;
  try {
    std::vector<uint8_t> scratch;
    DWORD available = 0;
    while (WaitForData(ATimeout, available)) {
      const int32_t n = std::max<int64_t>(0, std::min<int64_t>(available, Count - done));
      if (n == 0) break;
      if (scratch.size() < static_cast<size_t>(n)) scratch.resize(static_cast<size_t>(n));
      DWORD got = 0;
      if (!ReadFile(FHandle.Get(), scratch.data(), static_cast<DWORD>(n), &got, nullptr)) got = 0;
      std::copy(scratch.data(), scratch.data() + got, static_cast<uint8_t*>(Buffer) + done);
      done += static_cast<int32_t>(got);
    }
  } catch (...) {
    klLog::AddToEventLog("TChildReadableStream.Read: Error - " + ExceptionText(std::current_exception()),
                         klLog::lkError);
  }
  return done;
}

std::string TChildReadableStream::ReadAccumulated(int32_t ATimeout, bool ByteWise) {
  ComPtr<UPipe::IPipe> accumulator = MakeInterface<UPipe::IPipe, UPipe::TPipe>(static_cast<int32_t>(kChunkSize));
  if (!accumulator) throw std::bad_alloc();
  uint8_t chunk[kChunkSize];
  DWORD available = 0;
  bool lineDone = false;
  while (!lineDone && WaitForData(ATimeout, available)) {
    while (available > 0) {
      DWORD got = 0;
      const DWORD n = ByteWise ? 1 : std::min(available, kChunkSize);
      if (!ReadFile(FHandle.Get(), chunk, n, &got, nullptr) || got == 0) break;
      accumulator->Write(chunk, static_cast<int32_t>(got));
      available -= got;
      if (ByteWise && chunk[0] == kCR) {
        lineDone = true;
        break;
      }
    }
  }
  std::string result(static_cast<size_t>(accumulator->GetSizeToRead()), '\0');
  if (!result.empty()) result.resize(static_cast<size_t>(accumulator->Read(result.data(), static_cast<int32_t>(result.size()))));
  return result;
}

std::string STDMETHODCALLTYPE TChildReadableStream::ReadString(int32_t ATimeout) {
  try {
    return ReadAccumulated(ATimeout, false);
  } catch (...) {
    klLog::AddToEventLog("TChildReadableStream.Read: Error - " + ExceptionText(std::current_exception()),
                         klLog::lkError);
  }
  return std::string();
}

std::string STDMETHODCALLTYPE TChildReadableStream::ReadLine() {
  try {
    return ReadAccumulated(Timeout, true);
  } catch (...) {
    klLog::AddToEventLog("TChildReadableStream.ReadLine: Error - " + ExceptionText(std::current_exception()),
                         klLog::lkError);
  }
  return std::string();
}

std::string STDMETHODCALLTYPE TChildReadableStream::ReadAvailabeString() {
  try {
    DWORD available = 0;
    if (!PeekNamedPipe(FHandle.Get(), nullptr, 0, nullptr, &available, nullptr) || available == 0) return std::string();
    Connected = true;
    std::string s(available, '\0');
    DWORD got = 0;
    if (!ReadFile(FHandle.Get(), s.data(), available, &got, nullptr)) got = 0;
    s.resize(got);
    return s;
  } catch (...) {
    klLog::AddToEventLog("TChildReadableStream.ReadAvailabe: Error - " + ExceptionText(std::current_exception()),
                         klLog::lkError);
  }
  return std::string();
}

int32_t STDMETHODCALLTYPE TChildReadableStream::ReadAvailabeBuffer(void* Buffer, int32_t Count) {
  if (Buffer == nullptr || Count < 1) return 0;
  DWORD available = 0;
  if (!PeekNamedPipe(FHandle.Get(), nullptr, 0, nullptr, &available, nullptr) || available == 0) return 0;
  Connected = true;
  const DWORD n = std::min(available, static_cast<DWORD>(Count));
  DWORD got = 0;
  if (!ReadFile(FHandle.Get(), Buffer, n, &got, nullptr)) return 0;
  return static_cast<int32_t>(got);
}

bool STDMETHODCALLTYPE TChildReadableStream::SetTimeout(int32_t Value) {
  if (Value < 0) return false;
  Timeout = Value;
  return true;
}

bool STDMETHODCALLTYPE TChildReadableStream::GetConnected() { return Connected; }

// --- TChildProcess ------------------------------------------------------------------

ComPtr<IChildProcess3> TChildProcess::Create(const std::string& CmdLine) {
  ComPtr<IChildProcess3> result(new TChildProcess());
  if (!static_cast<TChildProcess*>(result.Get())->CreateChild(CmdLine)) {
    klLog::AddToEventLog(Format("TChildProcess.Create: Child.CreateChild failed \"%s\"", CmdLine.c_str()),
                         klLog::lkError);
    return nullptr;
  }
  return result;
}

TChildProcess::~TChildProcess() { Close(); }

bool TChildProcess::CreateChild(const std::string& CmdLine) {
  if (CmdLine.empty()) return false;
  SECURITY_ATTRIBUTES sa = InheritableAttributes();

  Handles::THandle outRead, outWrite, inRead, inWrite, errRead, errWrite;
  if (!CreatePipe(outRead.Receive(), outWrite.Receive(), &sa, 0)) throw Exception("CreatePipe for Stdout error");
  if (!CreatePipe(inRead.Receive(), inWrite.Receive(), &sa, 0)) throw Exception("CreatePipe for Stdin error");
  // The standard-error pipe reports with the standard-input text: callers match it.
  if (!CreatePipe(errRead.Receive(), errWrite.Receive(), &sa, 0)) throw Exception("CreatePipe for Stdin error");

  MakeNotInheritable(outRead);
  MakeNotInheritable(inWrite);
  MakeNotInheritable(errRead);

  StdIn = MakeInterface<IWritable, TChildWritableStream>(inWrite.Release());
  StdOut = MakeInterface<IReadable2, TChildReadableStream>(outRead.Release());
  StdErr = MakeInterface<IReadable2, TChildReadableStream>(errRead.Release());

  THandleList inherited({inRead.Get(), outWrite.Get(), errWrite.Get()});
  STARTUPINFOEXA si{};
  si.StartupInfo.cb = sizeof(si);
  si.StartupInfo.hStdInput = inRead.Get();
  si.StartupInfo.hStdOutput = outWrite.Get();
  si.StartupInfo.hStdError = errWrite.Get();
  si.StartupInfo.wShowWindow = SW_HIDE;
  si.StartupInfo.dwFlags = STARTF_USESTDHANDLES | STARTF_USESHOWWINDOW;
  si.lpAttributeList = inherited.Get();
  PROCESS_INFORMATION pi{};
  std::vector<char> cmd(CmdLine.begin(), CmdLine.end());
  cmd.push_back('\0');
  if (CreateProcessA(nullptr, cmd.data(), nullptr, nullptr, TRUE, EXTENDED_STARTUPINFO_PRESENT, nullptr, nullptr,
                     &si.StartupInfo, &pi)) {
    // The thread handle is deliberately neither kept nor closed.
    FProcess = pi.hProcess;
  }
  if (FProcess == nullptr) {
    klLog::AddToEventLog(Format("TChildProcess.CreateChild: Не удалось запустить процесс\r\n\"%s\"", CmdLine.c_str()),
                         klLog::lkError);
    Close();
  }
  // The owners close the child's ends here: only the child holds them from now on,
  // so that its exit breaks the pipes.
  return FProcess != nullptr;
}

bool STDMETHODCALLTYPE TChildProcess::WriteToChildString(const std::string& S) {
  return StdIn ? StdIn->Write(S, 1000) : false;
}

bool STDMETHODCALLTYPE TChildProcess::WriteToChildBuffer(const void* Buffer, int32_t Size) {
  if (Buffer == nullptr || Size < 1 || !StdIn) return false;
  return StdIn->Write(Buffer, Size, 1000);
}

std::string STDMETHODCALLTYPE TChildProcess::ReadFromChildStdoutString(int32_t ATimeout) {
  return StdOut ? StdOut->Read(ATimeout) : std::string();
}

bool STDMETHODCALLTYPE TChildProcess::ReadFromChildStdoutBuffer(void* Buffer, int32_t Size, int32_t ATimeout) {
  return StdOut ? StdOut->Read(Buffer, Size, ATimeout) >= 1 : false;
}

std::string STDMETHODCALLTYPE TChildProcess::ReadFromChildStderr(int32_t ATimeout) {
  return StdErr ? StdErr->Read(ATimeout) : std::string();
}

void STDMETHODCALLTYPE TChildProcess::Close() {
  Sleep(100);
  StdIn.Reset();
  StdOut.Reset();
  StdErr.Reset();
  if (FProcess != nullptr) {
    // A child that does not end in time is left running: never killed.
    WaitForSingleObject(FProcess, 3000);
    CloseHandle(FProcess);
    FProcess = nullptr;
  }
}

void STDMETHODCALLTYPE TChildProcess::ClosePipe(int32_t Index) {
  switch (Index) {
    case 0:
      StdIn.Reset();
      break;
    case 1:
      StdOut.Reset();
      break;
    case 2:
      StdErr.Reset();
      break;
    default:
      break;
  }
}

HANDLE STDMETHODCALLTYPE TChildProcess::GetProc() { return FProcess; }
ComPtr<IWritable> STDMETHODCALLTYPE TChildProcess::GetStdIn() { return StdIn; }
ComPtr<IReadable2> STDMETHODCALLTYPE TChildProcess::GetStdOut() { return StdOut; }
ComPtr<IReadable2> STDMETHODCALLTYPE TChildProcess::GetStdErr() { return StdErr; }

// --- RunAndWait ---------------------------------------------------------------------

bool RunAndWait(const std::string& CmdLine, const std::string& OutputFile, uint32_t* ExitCode) {
  if (CmdLine.empty()) return false;
  STARTUPINFOEXA si{};
  si.StartupInfo.cb = sizeof(si);
  si.StartupInfo.dwFlags = STARTF_USESHOWWINDOW;
  si.StartupInfo.wShowWindow = SW_HIDE;
  Handles::THandle file;
  std::unique_ptr<THandleList> inherited;
  if (!OutputFile.empty()) {
    SECURITY_ATTRIBUTES sa = InheritableAttributes();
    // Not truncated: older bytes beyond the new output's end stay.
    file.Reset(CreateFileA(OutputFile.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, &sa,
                           OPEN_ALWAYS, 0, nullptr));
    si.StartupInfo.dwFlags |= STARTF_USESTDHANDLES;
    si.StartupInfo.hStdOutput = file.Get();
    // Only the output file is handed down, never another child's pipe ends.
    if (file) {
      inherited = std::make_unique<THandleList>(std::vector<HANDLE>{file.Get()});
      si.lpAttributeList = inherited->Get();
    }
  }
  PROCESS_INFORMATION pi{};
  std::vector<char> cmd(CmdLine.begin(), CmdLine.end());
  cmd.push_back('\0');
  if (!CreateProcessA(nullptr, cmd.data(), nullptr, nullptr, inherited ? TRUE : FALSE,
                      CREATE_NO_WINDOW | (inherited ? EXTENDED_STARTUPINFO_PRESENT : 0), nullptr, nullptr,
                      &si.StartupInfo, &pi)) {
    klLog::AddToEventLog("klChildProcess.RunAndWait: create process failed: " + CmdLine + "  LastError: " +
                             klLog::GetLastErrorStr(),
                         klLog::lkError);
    return false;
  }
  WaitForSingleObject(pi.hProcess, INFINITE);
  if (ExitCode != nullptr) {
    DWORD code = 0;
    GetExitCodeProcess(pi.hProcess, &code);
    *ExitCode = code;
  }
  CloseHandle(pi.hProcess);
  return true;
}

}  // namespace kl::klChildProcess
