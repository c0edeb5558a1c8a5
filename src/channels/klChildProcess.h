// A console program run as a hidden child process with its standard input, output
// and error redirected into anonymous pipes, read by polling so that every read has
// a time-out and a dead child never hangs the caller; and RunAndWait, which runs a
// command line to its end. Everything here runs on the caller's thread.
#pragma once

#include <windows.h>

#include <cstdint>
#include <string>

#include "rtl/ComBase.h"
#include "rtl/Handles.h"

namespace kl::klChildProcess {

struct IWritable;
struct IReadable;
struct IReadable2;
struct IChildProcess;
struct IChildProcess2;
struct IChildProcess3;

}  // namespace kl::klChildProcess

KL_DECLARE_IID(kl::klChildProcess::IWritable, "7325343B-BCEB-45DE-9EA7-FE1D1F058DE4", 0x7325343B, 0xBCEB, 0x45DE,
               0x9E, 0xA7, 0xFE, 0x1D, 0x1F, 0x05, 0x8D, 0xE4)
KL_DECLARE_IID(kl::klChildProcess::IReadable, "7C4AF2AC-0D77-42B8-A183-BDB3A66A6474", 0x7C4AF2AC, 0x0D77, 0x42B8,
               0xA1, 0x83, 0xBD, 0xB3, 0xA6, 0x6A, 0x64, 0x74)
KL_DECLARE_IID(kl::klChildProcess::IReadable2, "46758287-640A-4257-83CA-EF4C1B0CCECA", 0x46758287, 0x640A, 0x4257,
               0x83, 0xCA, 0xEF, 0x4C, 0x1B, 0x0C, 0xCE, 0xCA)
KL_DECLARE_IID(kl::klChildProcess::IChildProcess, "96D18120-9037-4726-92E6-AACF935AE8AA", 0x96D18120, 0x9037,
               0x4726, 0x92, 0xE6, 0xAA, 0xCF, 0x93, 0x5A, 0xE8, 0xAA)
KL_DECLARE_IID(kl::klChildProcess::IChildProcess2, "1162001F-DCC3-4D90-B706-7CFEF3446855", 0x1162001F, 0xDCC3,
               0x4D90, 0xB7, 0x06, 0x7C, 0xFE, 0xF3, 0x44, 0x68, 0x55)
KL_DECLARE_IID(kl::klChildProcess::IChildProcess3, "84FCDBEB-AB8C-4B6F-91F1-7B305A5BE9E4", 0x84FCDBEB, 0xAB8C,
               0x4B6F, 0x91, 0xF1, 0x7B, 0x30, 0x5A, 0x5B, 0xE9, 0xE4)

namespace kl::klChildProcess {

// The vtable slots carry distinct names (a compiler may order overloaded virtual
// functions its own way, and other binaries call the slots by position); the
// overloaded inline forms below them are the names to call.

// The child's standard input. Time-outs are accepted for symmetry and not used: a
// write to an anonymous pipe completes once the pipe has taken the bytes.
struct IWritable : public IUnknown {
  virtual bool STDMETHODCALLTYPE WriteBuffer(const void* Buffer, int32_t Size, int32_t Timeout) = 0;
  // S up to its first zero byte, then CR LF, in one write.
  virtual bool STDMETHODCALLTYPE WriteString(const std::string& S, int32_t Timeout) = 0;

  bool Write(const void* Buffer, int32_t Size, int32_t Timeout) { return WriteBuffer(Buffer, Size, Timeout); }
  bool Write(const std::string& S, int32_t Timeout) { return WriteString(S, Timeout); }

 protected:
  ~IWritable() = default;
};

// A reading end. Each waiting read ends after Timeout ms with nothing arriving (the
// time-out measures silence, not the call), at once when the child has closed its
// end after writing, or when the buffer is full.
struct IReadable : public IUnknown {
  virtual int32_t STDMETHODCALLTYPE ReadBuffer(void* Buffer, int32_t Count, int32_t Timeout) = 0;
  virtual std::string STDMETHODCALLTYPE ReadString(int32_t Timeout) = 0;

  int32_t Read(void* Buffer, int32_t Count, int32_t Timeout) { return ReadBuffer(Buffer, Count, Timeout); }
  std::string Read(int32_t Timeout) { return ReadString(Timeout); }

 protected:
  ~IReadable() = default;
};

struct IReadable2 : public IReadable {
  using TParent = IReadable;
  // Up to and including the next CR; a following LF begins the next line.
  virtual std::string STDMETHODCALLTYPE ReadLine() = 0;
  // What is waiting now, without waiting.
  virtual std::string STDMETHODCALLTYPE ReadAvailabeString() = 0;
  virtual int32_t STDMETHODCALLTYPE ReadAvailabeBuffer(void* Buffer, int32_t Count) = 0;
  // The time-out of ReadLine; a negative value is refused.
  virtual bool STDMETHODCALLTYPE SetTimeout(int32_t Value) = 0;
  // True once anything has been seen waiting on the pipe.
  virtual bool STDMETHODCALLTYPE GetConnected() = 0;

  std::string ReadAvailabe() { return ReadAvailabeString(); }
  int32_t ReadAvailabe(void* Buffer, int32_t Count) { return ReadAvailabeBuffer(Buffer, Count); }

 protected:
  ~IReadable2() = default;
};

struct IChildProcess : public IUnknown {
  virtual bool STDMETHODCALLTYPE WriteToChildString(const std::string& S) = 0;
  virtual bool STDMETHODCALLTYPE WriteToChildBuffer(const void* Buffer, int32_t Size) = 0;
  virtual std::string STDMETHODCALLTYPE ReadFromChildStdoutString(int32_t Timeout) = 0;
  virtual bool STDMETHODCALLTYPE ReadFromChildStdoutBuffer(void* Buffer, int32_t Size, int32_t Timeout) = 0;
  virtual std::string STDMETHODCALLTYPE ReadFromChildStderr(int32_t Timeout) = 0;
  // Releases the channels, waits up to 3 s for the child (never kills it) and lets
  // go of it.
  virtual void STDMETHODCALLTYPE Close() = 0;
  // 0 standard input (the child sees its end), 1 standard output, 2 standard error.
  virtual void STDMETHODCALLTYPE ClosePipe(int32_t Index) = 0;

  bool WriteToChild(const std::string& S) { return WriteToChildString(S); }
  bool WriteToChild(const void* Buffer, int32_t Size) { return WriteToChildBuffer(Buffer, Size); }
  std::string ReadFromChildStdout(int32_t Timeout) { return ReadFromChildStdoutString(Timeout); }
  bool ReadFromChildStdout(void* Buffer, int32_t Size, int32_t Timeout) {
    return ReadFromChildStdoutBuffer(Buffer, Size, Timeout);
  }

 protected:
  ~IChildProcess() = default;
};

struct IChildProcess2 : public IChildProcess {
  using TParent = IChildProcess;
  virtual HANDLE STDMETHODCALLTYPE GetProc() = 0;

 protected:
  ~IChildProcess2() = default;
};

struct IChildProcess3 : public IChildProcess2 {
  using TParent = IChildProcess2;
  virtual ComPtr<IWritable> STDMETHODCALLTYPE GetStdIn() = 0;
  virtual ComPtr<IReadable2> STDMETHODCALLTYPE GetStdOut() = 0;
  virtual ComPtr<IReadable2> STDMETHODCALLTYPE GetStdErr() = 0;

 protected:
  ~IChildProcess3() = default;
};

// --- implementation classes ---------------------------------------------------------

// Owns the write end of the child's standard input; flushes and closes it on death.
class TChildWritableStream : public TInterfacedObject<IWritable> {
 public:
  explicit TChildWritableStream(HANDLE Handle) : FHandle(Handle) {}
  ~TChildWritableStream() override;
  bool STDMETHODCALLTYPE WriteBuffer(const void* Buffer, int32_t Size, int32_t Timeout) override;
  bool STDMETHODCALLTYPE WriteString(const std::string& S, int32_t Timeout) override;

 private:
  Handles::THandle FHandle;
};

// Owns the read end of one of the child's output pipes.
class TChildReadableStream : public TInterfacedObject<IReadable2> {
 public:
  explicit TChildReadableStream(HANDLE Handle) : FHandle(Handle) {}
  ~TChildReadableStream() override;
  int32_t STDMETHODCALLTYPE ReadBuffer(void* Buffer, int32_t Count, int32_t Timeout) override;
  std::string STDMETHODCALLTYPE ReadString(int32_t Timeout) override;
  std::string STDMETHODCALLTYPE ReadLine() override;
  std::string STDMETHODCALLTYPE ReadAvailabeString() override;
  int32_t STDMETHODCALLTYPE ReadAvailabeBuffer(void* Buffer, int32_t Count) override;
  bool STDMETHODCALLTYPE SetTimeout(int32_t Value) override;
  bool STDMETHODCALLTYPE GetConnected() override;

 private:
  // One poll cycle: waits until bytes are waiting (true, Available set), the child
  // has closed its end after writing, or Timeout ms of silence (false).
  bool WaitForData(int32_t Timeout, DWORD& Available);
  std::string ReadAccumulated(int32_t Timeout, bool ByteWise);

  bool Connected = false;
  Handles::THandle FHandle;
  int32_t Timeout = 1000;
};

class TChildProcess : public TInterfacedObject<IChildProcess3> {
 public:
  // Starts CmdLine; no interface (and two log lines) when it cannot be started. Pipe
  // failures raise Exception.
  static ComPtr<IChildProcess3> Create(const std::string& CmdLine);
  ~TChildProcess() override;

  bool CreateChild(const std::string& CmdLine);

  bool STDMETHODCALLTYPE WriteToChildString(const std::string& S) override;
  bool STDMETHODCALLTYPE WriteToChildBuffer(const void* Buffer, int32_t Size) override;
  std::string STDMETHODCALLTYPE ReadFromChildStdoutString(int32_t Timeout) override;
  bool STDMETHODCALLTYPE ReadFromChildStdoutBuffer(void* Buffer, int32_t Size, int32_t Timeout) override;
  std::string STDMETHODCALLTYPE ReadFromChildStderr(int32_t Timeout) override;
  void STDMETHODCALLTYPE Close() override;
  void STDMETHODCALLTYPE ClosePipe(int32_t Index) override;
  HANDLE STDMETHODCALLTYPE GetProc() override;
  ComPtr<IWritable> STDMETHODCALLTYPE GetStdIn() override;
  ComPtr<IReadable2> STDMETHODCALLTYPE GetStdOut() override;
  ComPtr<IReadable2> STDMETHODCALLTYPE GetStdErr() override;

 private:
  TChildProcess() = default;

  HANDLE FProcess = nullptr;
  ComPtr<IWritable> StdIn;
  ComPtr<IReadable2> StdOut;
  ComPtr<IReadable2> StdErr;
};

// Runs CmdLine hidden and waits for its end without limit; its standard output goes
// into OutputFile when one is named (written from the start, not truncated). The exit
// code is stored in *ExitCode when given. False when the command cannot start.
bool RunAndWait(const std::string& CmdLine, const std::string& OutputFile = std::string(), uint32_t* ExitCode = nullptr);

}  // namespace kl::klChildProcess
