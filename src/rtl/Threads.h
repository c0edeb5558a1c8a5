// Stand-ins for the host framework's thread and lock classes.
#pragma once

#include <windows.h>

#include <atomic>
#include <cstdint>

namespace kl {

// A re-entrant lock (a thread that holds it may enter it again).
class TCriticalSection {
 public:
  TCriticalSection() { InitializeCriticalSection(&FSection); }
  ~TCriticalSection() { DeleteCriticalSection(&FSection); }
  TCriticalSection(const TCriticalSection&) = delete;
  TCriticalSection& operator=(const TCriticalSection&) = delete;
  void Enter() { EnterCriticalSection(&FSection); }
  void Leave() { LeaveCriticalSection(&FSection); }
  bool TryEnter() { return TryEnterCriticalSection(&FSection) != 0; }
  // Lockable, for std::lock_guard / std::unique_lock.
  void lock() { Enter(); }
  void unlock() { Leave(); }

 private:
  CRITICAL_SECTION FSection;
};

// A thread object: made suspended or running, asked to stop with Terminate (the body
// polls Terminated), waited for with WaitFor. Destroying it terminates and waits, so
// a thread never outlives its object.
class TThread {
 public:
  explicit TThread(bool CreateSuspended);
  virtual ~TThread();
  TThread(const TThread&) = delete;
  TThread& operator=(const TThread&) = delete;

  void Start();  // starts a thread made suspended; no-op otherwise
  void Terminate() { FTerminated.store(true); }
  bool Terminated() const { return FTerminated.load(); }
  bool Finished() const { return FFinished.load(); }
  // Waits for the body to return; returns the exit code. Returns at once when it never
  // started; raises std::logic_error on the thread itself.
  uint32_t WaitFor();
  HANDLE Handle() const { return FHandle; }
  // For an owner that cannot wait for the thread (destroyed by code running on this
  // very thread, or giving up on a body blocked in a system call): the object deletes
  // itself when the body returns. True when the owner must now let go of the object;
  // false when the body has already returned (destroy the object as usual).
  bool FreeOnExit();
  DWORD ThreadID() const { return FThreadID; }
  uint32_t ReturnValue = 0;

 protected:
  virtual void Execute() = 0;
  // Derived destructors must call this first, so that the body never runs on a
  // half-destroyed object.
  void TerminateAndWait();

 private:
  static DWORD WINAPI ThreadProc(LPVOID Param);
  HANDLE FHandle = nullptr;
  DWORD FThreadID = 0;
  bool FStarted = false;
  std::atomic<bool> FTerminated{false};
  std::atomic<bool> FFinished{false};
  // 0 while the body runs, 1 once it has returned, 2 when the object frees itself.
  std::atomic<int> FExitState{0};
};

}  // namespace kl
