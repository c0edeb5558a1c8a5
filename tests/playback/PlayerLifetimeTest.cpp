// The player destroyed by its own OnFinish, and positions past the device count's 32 bits.
#include <gtest/gtest.h>

#include "PlaybackTestUtil.h"

using namespace kltest::playback;
using namespace kl::klMediaPlayer;

TEST(MediaPlayer, DestroyedFromItsOwnOnFinish) {
  kltest::TTempDir dir;
  // A source shorter than a block finishes inside Play, a longer one on the wave-out thread.
  for (const int frames : {441, 22050}) {
    SCOPED_TRACE(frames);
    auto* p = new TklMediaPlayer;
    HANDLE gone = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    p->SetOnFinish([&p, gone](void*) {
      delete p;
      SetEvent(gone);
    });
    p->SetSource(WavSource(WriteWav(dir, "short.wav", Pattern(frames)), true).Get());
    EXPECT_TRUE(p->Play());
    EXPECT_EQ(WaitForSingleObject(gone, 20000), WAIT_OBJECT_0);
    CloseHandle(gone);
    Sleep(300);  // the wave-out thread leaves and frees itself meanwhile
  }
  // The device and the window class are still usable.
  TklMediaPlayer next;
  std::atomic<int> finishes{0};
  next.SetOnFinish([&](void*) { ++finishes; });
  next.SetSource(WavSource(WriteWav(dir, "next.wav", Pattern(4410)), true).Get());
  EXPECT_TRUE(next.Play());
  EXPECT_TRUE(WaitUntil([&] { return finishes.load() == 1; }, 20000));
}

TEST(MediaPlayer, PositionsGoOnPastTheDeviceCountsWrap) {
  // 2^31 bytes of CD audio is 3 h 22 min, 2^32 is 6 h 45 min; the device is read every 10 min.
  TWideByteCount count;
  constexpr uint64_t kTenMinutes = 600 * 176400;
  for (uint64_t bytes = 0; bytes < 10 * 3600 * 176400ull; bytes += kTenMinutes) {
    ASSERT_EQ(count.Widen(static_cast<uint32_t>(bytes)), bytes);
  }
  kltest::TTempDir dir;
  TklMediaPlayer p;
  p.SetSource(WavSource(WriteWav(dir, "cd.wav", Pattern(441)), false).Get());
  EXPECT_EQ(p.BytesToMilliseconds(4 * 3600 * 176400ll), 4 * 3600 * 1000);
  EXPECT_EQ(p.BytesToMilliseconds(7 * 3600 * 176400ll), 7 * 3600 * 1000);
}
