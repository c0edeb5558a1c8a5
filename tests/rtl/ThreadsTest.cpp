// The thread class: how each way of ending a thread object behaves, as a table.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <stdexcept>

#include "rtl/Threads.h"

namespace {
struct TBodyThread : kl::TThread {
  std::function<void(TBodyThread&)> Body;
  std::atomic<bool>* Destroyed;
  TBodyThread(std::function<void(TBodyThread&)> B, std::atomic<bool>* D)
      : TThread(true), Body(std::move(B)), Destroyed(D) {}
  ~TBodyThread() override {
    TerminateAndWait();
    *Destroyed = true;
  }
  void Execute() override { Body(*this); }
  bool Stopping() const { return Terminated(); }
};

enum TEnd { kWaitFor, kDestroy, kHandOver };
}  // namespace

TEST(Thread, TerminateWaitSelfJoinAndHandOver) {
  HANDLE go = CreateEventA(nullptr, TRUE, FALSE, nullptr);
  const auto poll = [](TBodyThread& T) {
    while (!T.Stopping()) Sleep(1);
    T.ReturnValue = 7;
  };
  const auto selfWait = [](TBodyThread& T) {
    try {
      T.WaitFor();
    } catch (const std::logic_error&) {
      T.ReturnValue = 8;  // a thread waiting for itself raises instead of hanging
    }
  };
  const auto blocked = [go](TBodyThread&) { WaitForSingleObject(go, 60000); };
  const struct {
    const char* Name;
    bool Start;
    TEnd End;
    std::function<void(TBodyThread&)> Body;
    uint32_t Result;
  } cases[] = {
      {"polls, terminated and waited for", true, kWaitFor, poll, 7},
      {"waits for itself", true, kWaitFor, selfWait, 8},
      {"polls, destroyed while running", true, kDestroy, poll, 0},
      {"never started, waited for", false, kWaitFor, poll, 0},
      {"never started, destroyed", false, kDestroy, poll, 0},
      {"blocked, handed over", true, kHandOver, blocked, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.Name);
    std::atomic<bool> destroyed{false};
    auto* t = new TBodyThread(c.Body, &destroyed);
    if (c.Start) t->Start();
    if (c.End == kWaitFor) {
      t->Terminate();
      EXPECT_EQ(t->WaitFor(), c.Result);
      // An ended body: the owner destroys it as usual; one never started is run empty and frees itself.
      EXPECT_EQ(t->FreeOnExit(), !c.Start);
      if (c.Start) delete t;
    } else if (c.End == kDestroy) {
      delete t;
      EXPECT_TRUE(destroyed);
    } else {
      ASSERT_TRUE(t->FreeOnExit());  // the object now frees itself once its body returns
      SetEvent(go);
    }
    for (int i = 0; i < 20000 && !destroyed; ++i) Sleep(1);
    EXPECT_TRUE(destroyed);
  }
  CloseHandle(go);
}
