// The named pipe server released from its own OnData and OnDisconnect events.
#include <gtest/gtest.h>

#include "ChannelsTestUtil.h"
#include "KlTest.h"
#include "channels/UPipe.h"
#include "rtl/SysUtils.h"

using namespace kl::UPipe;

TEST(NamedPipe, ReleasedFromItsOwnEvents) {
  static int n = 0;
  for (const bool onData : {true, false}) {
    SCOPED_TRACE(onData);
    const std::string name = kl::Format("\\\\.\\pipe\\klnpSelf%lu_%d", GetCurrentProcessId(), ++n);
    kl::ComPtr<INamedPipe2> p(new TNamedPipe(name, 1));
    ASSERT_EQ(p->GetName(), name);
    HANDLE gone = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    auto release = [&p, gone](void*) {
      if (WaitForSingleObject(gone, 0) == WAIT_OBJECT_0) return;
      p.Reset();  // the last reference
      SetEvent(gone);
    };
    onData ? p->SetOnData(release) : p->SetOnDisconnect(release);
    kltest::TProcess client;
    ASSERT_TRUE(kltest::StartChild(client, "pipe_client", {name, "20000", onData ? "hold" : "close", "2000"}));
    EXPECT_EQ(WaitForSingleObject(gone, 20000), WAIT_OBJECT_0);
    EXPECT_TRUE(client.Wait(20000));
    CloseHandle(gone);
    // The handle went with the object: the name is free again.
    auto nameIsFree = [&] { return kl::ComPtr<INamedPipe2>(new TNamedPipe(name, 1))->GetName() == name; };
    EXPECT_TRUE(chtest::WaitUntil(nameIsFree, 5000));
  }
}
