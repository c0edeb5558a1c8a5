// The thread class: terminate and wait, a wait from the thread itself, and an object
// handed over to free itself.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <stdexcept>

#include "rtl/Threads.h"

namespace {
struct TBodyThread : kl::TThread {
  std::function<void(TBodyThread&)> Body;
  std::atomic<bool>* Destroyed = nullptr;
  explicit TBodyThread(std::function<void(TBodyThread&)> B) : TThread(true), Body(std::move(B)) {}
  ~TBodyThread() override {
    TerminateAndWait();
    if (Destroyed != nullptr) *Destroyed = true;
  }
  void Execute() override { Body(*this); }
  bool Stopping() const { return Terminated(); }
};
}  // namespace

TEST(Thread, TerminateWaitSelfJoinAndFreeOnExit) {
  TBodyThread poll([](TBodyThread& T) {
    while (!T.Stopping()) Sleep(1);
    T.ReturnValue = 7;
    try {
      T.WaitFor();
    } catch (const std::logic_error&) {
      T.ReturnValue = 8;  // waiting for itself raised
    }
  });
  poll.Start();
  poll.Terminate();
  EXPECT_EQ(8u, poll.WaitFor());
  EXPECT_FALSE(poll.FreeOnExit());  // ended: its owner destroys it as usual

  // Given up while blocked: it frees itself once its body returns.
  HANDLE go = CreateEventA(nullptr, TRUE, FALSE, nullptr);
  std::atomic<bool> destroyed{false};
  auto* blocked = new TBodyThread([go](TBodyThread&) { WaitForSingleObject(go, 60000); });
  blocked->Destroyed = &destroyed;
  blocked->Start();
  ASSERT_TRUE(blocked->FreeOnExit());
  SetEvent(go);
  for (int i = 0; i < 20000 && !destroyed; ++i) Sleep(1);
  EXPECT_TRUE(destroyed);
  CloseHandle(go);
}
