// The two MP3 units behind one face, so that one template checks either.
#pragma once

#include "formats/UMp3.h"
#include "formats/UklMP3.h"
#include "KlTest.h"
#include "rtl/SysUtils.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

namespace mp3test {

// The functions both units share, forwarded to namespace NS.
#define KL_MP3_UNIT_FORWARDS(NS)                                                                                 \
  using TInfo = NS::TMP3Info;                                                                                    \
  static bool Info(const void* D, int32_t N, TInfo& I) { return NS::GetMP3Info(D, N, I); }                       \
  static bool Info(kl::TStream* S, TInfo& I) { return NS::GetMP3Info(S, I); }                                    \
  static int32_t FrameSize(const TInfo& I, bool P) { return NS::GetMP3FrameSize(I, P); }                         \
  static int32_t FrameSize(const void* H) { return NS::GetMP3FrameSize(H); }                                     \
  static int32_t FrameDataSize(const TInfo& I, bool P) { return NS::GetMP3FrameDataSize(I, P); }                 \
  static int32_t Frames(const void* D, int32_t N, int32_t C, int32_t M, void*& F) {                              \
    return NS::GetMP3Frames(D, N, C, M, F);                                                                      \
  }                                                                                                              \
  static int32_t Frames(kl::TStream* S, int32_t C, int32_t M, void*& F) { return NS::GetMP3Frames(S, C, M, F); } \
  static int32_t Count(const void* H, int32_t N, bool Fast) { return NS::GetMP3FrameCount(H, N, Fast); }         \
  static int32_t Count(kl::TStream* S, int32_t N, bool Fast) { return NS::GetMP3FrameCount(S, N, Fast); }        \
  static bool Copy(kl::TStream* S, kl::TStream* D, int32_t Start, int32_t C) {                                   \
    return NS::CopyMP3Frames(S, D, Start, C);                                                                    \
  }                                                                                                              \
  static std::vector<int32_t> Fields(const TInfo& I) {                                                           \
    return {I.Version, I.Layer, I.SamplesPerFrame, I.BitRate, I.SampleRate, Channels(I), I.Stereo, I.Offset};    \
  }

struct TMp3Unit {
  static constexpr const char* Name = "UMp3";
  KL_MP3_UNIT_FORWARDS(kl::UMp3)
  static int32_t Channels(const TInfo& I) { return I.Channels; }
};

struct TklMp3Unit {
  static constexpr const char* Name = "UklMP3";
  KL_MP3_UNIT_FORWARDS(kl::UklMP3)
  static int32_t Channels(const TInfo& I) { return I.Stereo ? 2 : 1; }
};

#undef KL_MP3_UNIT_FORWARDS

// Frees a block handed out through Frames.
struct TFramesBlock {
  void* P = nullptr;
  ~TFramesBlock() { std::free(P); }
};

using kltest::ExpectRaises;

}  // namespace mp3test
