// The thread class's life: terminate and wait, a thread never started, a wait from the
// thread itself, and an object handed over to free itself.
#include <gtest/gtest.h>

#include <windows.h>

#include <atomic>
#include <functional>
#include <stdexcept>
#include <string>

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
  bool IsTerminated() const { return Terminated(); }
};

// Waits for Flag without hanging the test for ever.
bool Within(const std::atomic<bool>& Flag, DWORD Ms) {
  for (DWORD t = GetTickCount(); !Flag.load(); Sleep(1)) {
    if (GetTickCount() - t > Ms) return false;
  }
  return true;
}

}  // namespace

TEST(Thread, TerminateWaitSelfJoinAndFreeOnExit) {
  struct TCase {
    const char* Name;
    std::function<std::string()> Run;  // empty when the case holds
  };
  const TCase cases[] = {
      {"terminate ends a polling body and WaitFor gives its result",
       [] {
         TBodyThread t([](TBodyThread& T) {
           while (!T.IsTerminated()) Sleep(1);
           T.ReturnValue = 7;
         });
         t.Start();
         t.Terminate();
         const uint32_t r = t.WaitFor();
         return r == 7 && t.Finished() ? std::string() : "result " + std::to_string(r);
       }},
      {"a thread never started is disposed of without running its body",
       [] {
         std::atomic<bool> ran{false};
         { TBodyThread t([&ran](TBodyThread&) { ran = true; }); }
         return ran ? std::string("body ran") : std::string();
       }},
      {"a thread waiting for itself raises",
       [] {
         std::string what;
         TBodyThread t([&what](TBodyThread& T) {
           try {
             T.WaitFor();
           } catch (const std::logic_error& E) {
             what = E.what();
           }
         });
         t.Start();
         t.WaitFor();
         return what == "TThread.WaitFor: a thread cannot wait for itself" ? std::string() : "got: " + what;
       }},
      {"an object given up while its body is blocked frees itself when the body returns",
       [] {
         HANDLE go = CreateEventA(nullptr, TRUE, FALSE, nullptr);
         std::atomic<bool> destroyed{false};
         auto* t = new TBodyThread([go](TBodyThread&) { WaitForSingleObject(go, 60000); });
         t->Destroyed = &destroyed;
         t->Start();
         const bool handedOver = t->FreeOnExit();
         SetEvent(go);
         const bool freed = Within(destroyed, 20000);
         CloseHandle(go);
         if (!handedOver) return std::string("not handed over");
         return freed ? std::string() : std::string("never freed");
       }},
      {"a finished body cannot be handed over: its owner destroys it",
       [] {
         TBodyThread t([](TBodyThread&) {});
         t.Start();
         t.WaitFor();
         return t.FreeOnExit() ? std::string("handed over after the end") : std::string();
       }},
  };
  for (const auto& c : cases) EXPECT_EQ("", c.Run()) << c.Name;
}
