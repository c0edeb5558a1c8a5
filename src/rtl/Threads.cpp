#include "rtl/Threads.h"

#include <stdexcept>

namespace kl {

TThread::TThread(bool CreateSuspended) {
  FHandle = CreateThread(nullptr, 0, &TThread::ThreadProc, this, CREATE_SUSPENDED, &FThreadID);
  if (FHandle == nullptr) throw std::runtime_error("Thread creation error");
  // A derived object is not constructed yet at this point: a thread "made running"
  // is started by the first Start or by the derived constructor. Callers that want
  // it running call Start() at the end of their constructor.
  (void)CreateSuspended;
}

TThread::~TThread() {
  TerminateAndWait();
  if (FHandle != nullptr) CloseHandle(FHandle);
}

void TThread::Start() {
  if (FStarted || FHandle == nullptr) return;
  FStarted = true;
  ResumeThread(FHandle);
}

void TThread::TerminateAndWait() {
  Terminate();
  if (FStarted) {
    WaitFor();
  } else if (FHandle != nullptr) {
    // Never started: let it run to the end of an empty body.
    FStarted = true;
    FFinished.store(true);
    ResumeThread(FHandle);
    WaitForSingleObject(FHandle, INFINITE);
  }
}

uint32_t TThread::WaitFor() {
  if (FHandle == nullptr || !FStarted || GetCurrentThreadId() == FThreadID) return ReturnValue;
  WaitForSingleObject(FHandle, INFINITE);
  return ReturnValue;
}

DWORD WINAPI TThread::ThreadProc(LPVOID Param) {
  auto* self = static_cast<TThread*>(Param);
  // A thread that was never started is resumed only to be disposed of.
  if (!self->FFinished.load()) {
    try {
      self->Execute();
    } catch (...) {
      // The body's own handlers report; nothing may escape a thread.
    }
  }
  self->FFinished.store(true);
  return self->ReturnValue;
}

}  // namespace kl
