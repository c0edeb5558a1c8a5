// The frame counter on data that starts like a tag but is only a few bytes long: the
// search for the first header must stay inside what it was given.
#include <gtest/gtest.h>

#include "Mp3TestSupport.h"
#include "Mp3Units.h"
#include "rtl/Classes.h"

TEST(Mp3FrameCount, ShortDataStartingWithIDStaysInside) {
  // In a guarded buffer (a read past its end faults) and as the 4 bytes the stream form reads.
  for (const std::string& data : {std::string("ID3\x04", 4), std::string("ID\xFF\xFB", 4), std::string("ID\xFF", 3)}) {
    mp3test::TGuardedBuffer b(data);
    EXPECT_EQ(mp3test::TMp3Unit::Count(b.Data(), b.Size(), true), 0);
    EXPECT_EQ(mp3test::TklMp3Unit::Count(b.Data(), b.Size(), true), 0);
    kl::TMemoryStream s;
    s.WriteBuffer(data.data(), static_cast<int32_t>(data.size()));
    s.SetPosition(0);
    EXPECT_EQ(mp3test::TMp3Unit::Count(&s, 41700, true), 0);
    EXPECT_EQ(s.GetPosition(), 0);
  }
}
