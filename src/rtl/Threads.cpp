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
  // Destroying a thread object from its own thread (an object released from its own
  // event) cannot wait for the thread: the error ends the process from the destructor
  // rather than letting the thread run on in freed memory.
  if (FStarted && GetCurrentThreadId() == FThreadID) {
    if (FExitState.load() == 2) return;  // deleted by ThreadProc after the body
    OutputDebugStringA("TThread: an object is being destroyed by its own thread");
  }
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

bool TThread::FreeOnExit() {
  int running = 0;
  if (!FExitState.compare_exchange_strong(running, 2)) return false;
  if (!FStarted && FHandle != nullptr) {
    // Never started: run it through an empty body, after which it deletes itself.
    FStarted = true;
    FFinished.store(true);
    ResumeThread(FHandle);
  }
  return true;
}

uint32_t TThread::WaitFor() {
  if (FHandle == nullptr || !FStarted) return ReturnValue;
  // A thread waiting for itself would wait for ever, and returning instead lets its
  // object be freed under the code still running on it: fail loudly.
  if (GetCurrentThreadId() == FThreadID) throw std::logic_error("TThread.WaitFor: a thread cannot wait for itself");
  // Messages sent to the waiting thread are delivered meanwhile: the body may be
  // inside an event handler that sends one to this thread and waits for the answer.
  // Only a thread with windows can be sent one; others are not made GUI threads here.
  if (!IsGUIThread(FALSE)) {
    WaitForSingleObject(FHandle, INFINITE);
    return ReturnValue;
  }
  while (MsgWaitForMultipleObjects(1, &FHandle, FALSE, INFINITE, QS_SENDMESSAGE) == WAIT_OBJECT_0 + 1) {
    MSG msg;
    PeekMessageA(&msg, nullptr, 0, 0, PM_NOREMOVE | PM_QS_SENDMESSAGE);
  }
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
  const uint32_t result = self->ReturnValue;
  int running = 0;
  if (!self->FExitState.compare_exchange_strong(running, 1)) delete self;  // given up by its owner
  return result;
}

}  // namespace kl
