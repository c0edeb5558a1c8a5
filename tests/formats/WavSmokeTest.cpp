#include <gtest/gtest.h>
#include "Components.h"
TEST(Smoke, Builds) { EXPECT_EQ(kl::UWAV::GetWaveFormatSize(nullptr), 0u); }
