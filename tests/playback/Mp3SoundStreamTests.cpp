// The MP3 sound streams over files that the real ffmpeg.exe encoded, checked against
// ffmpeg's own view of the same files (frame sizes, decoded samples).
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "PlaybackTestUtil.h"

using namespace kltest::playback;
using kl::USoundStreams::TMp3FileSoundStream;
using kl::USoundStreams::TMp3StreamSoundStream;

namespace {

// The chirp as 128 kbit/s stereo, encoded once; the plain file has no tag and no info
// frame.
struct TChirp {
  kltest::TTempDir Dir;
  std::string Plain = EncodeChirp(Dir, "plain.mp3", 4, "-write_xing 0 -id3v2_version 0 ");
  std::string Tagged = EncodeChirp(Dir, "tagged.mp3", 4, "-write_xing 0 ");
  std::vector<int16_t> Decoded = Samples(kltest::FfmpegDecode(Plain));  // ffmpeg's decoding of the plain file
};
const TChirp& Chirp() {
  static const TChirp chirp;
  return chirp;
}

std::vector<int16_t> ReadAll(ISoundStream* S, int32_t Chunk = 7777) { return Samples(ReadAllBytes(S, Chunk)); }

}  // namespace

TEST(Mp3SoundStream, IndexLengthAndDecodingAgreeWithFfmpeg) {
  const std::string& path = Chirp().Plain;
  // Where ffmpeg's demuxer finds the frames.
  std::vector<int64_t> expected;
  int64_t at = 0;
  for (const auto& packet : kltest::FfmpegPackets(path)) {
    expected.push_back(at);
    at += packet.Size;
  }
  ASSERT_GT(expected.size(), 150u);

  ComPtr<TMp3FileSoundStream> file = new TMp3FileSoundStream(path);
  TMp3StreamSoundStream* s = file->Mp3Stream();
  EXPECT_TRUE(IsCdFormat(file->GetWaveFormat()));

  // Every frame but the very last one, which has no byte behind it to show it whole.
  const auto& frames = s->Frames();
  ASSERT_EQ(expected.size() - 1, frames.size());
  for (size_t i = 0; i < frames.size(); ++i) ASSERT_EQ(expected[i], frames[i]) << "frame " << i;
  EXPECT_EQ(kl::Round(1152.0 / 44100 * static_cast<double>(frames.size()) * 1000), file->GetLength());

  const std::vector<int16_t> ours = ReadAll(file.Get());
  const std::vector<int16_t>& theirs = Chirp().Decoded;
  const int64_t oursFrames = static_cast<int64_t>(ours.size() / 2), theirsFrames = static_cast<int64_t>(theirs.size() / 2);
  EXPECT_EQ(0, file->GetPosition());  // reading does not move it
  // The decoder adds its delay in front; the tail it holds when the source bytes run
  // out is not delivered.
  ASSERT_GT(oursFrames, theirsFrames - 12 * 1152);
  EXPECT_LE(oursFrames, theirsFrames + 1152);
  const TMatch m = Align(ours, 20000, 20000, theirs, 2, -2400, 0);
  EXPECT_LE(m.MaxDiff, 4);
  // Past the delay, the whole delivered run follows ffmpeg's decoding.
  const TMatch whole = Align(ours, -m.Lag + 1152, oursFrames + m.Lag - 1152, theirs, 2, m.Lag, m.Lag);
  EXPECT_LE(whole.MaxDiff, 4);
}

TEST(Mp3SoundStream, SeeksLandOnFrameBoundaries) {
  const std::vector<int16_t>& theirs = Chirp().Decoded;
  kl::TFileStream source(Chirp().Plain, kl::fmOpenRead | kl::fmShareDenyWrite);
  ComPtr<TMp3StreamSoundStream> s = new TMp3StreamSoundStream(&source, 0, 0);
  const auto& frames = s->Frames();
  ASSERT_GT(frames.size(), 150u);

  // 1000 ms = 44100 samples = frame 38 (38.28), which starts at 992.65 ms.
  s->SetPosition(1000);
  EXPECT_EQ(993, s->GetPosition());
  EXPECT_EQ(frames[38], source.GetPosition());
  const std::vector<int16_t> after = ReadAll(s.Get());
  EXPECT_EQ(993, s->GetPosition());
  // The decoder is not reset by a seek: after what it still held, the output continues
  // from frame 38 (the decoder's delay behind it).
  const TMatch m = Align(after, 4 * 1152, 8192, theirs, 2, 38 * 1152 - 2400, 38 * 1152);
  EXPECT_LE(m.MaxDiff, 4);
  EXPECT_GT(m.Lag, 38 * 1152 - 2400);

  s->SetPosition(-20);
  EXPECT_EQ(0, s->GetPosition());
  EXPECT_EQ(0, source.GetPosition());

  // Past the end: the last indexed frame.
  const int32_t last = static_cast<int32_t>(frames.size()) - 1;
  s->SetPosition(1000000);
  EXPECT_EQ(s->FramesToMilliseconds(last), s->GetPosition());
  EXPECT_EQ(frames.back(), source.GetPosition());
  char buf[4096];
  for (int i = 0; i < 100 && s->GetWavData(buf, sizeof buf) > 0; ++i) {
  }
  EXPECT_EQ(0, s->GetWavData(buf, sizeof buf));
}

TEST(Mp3SoundStream, SeekTakesTheIndexEntryAsAnAbsoluteOffsetBehindATag) {
  kl::TFileStream source(Chirp().Tagged, kl::fmOpenRead | kl::fmShareDenyWrite);
  ComPtr<TMp3StreamSoundStream> s = new TMp3StreamSoundStream(&source, 0, 0);
  const int32_t tag = s->Mp3Info().Offset;
  ASSERT_GT(tag, 10);
  EXPECT_EQ(tag, source.GetPosition());  // ready at the first frame
  ASSERT_GT(s->Frames().size(), 100u);
  EXPECT_EQ(0, s->Frames()[0]);
  s->SetPosition(2000);  // frame 76
  EXPECT_EQ(s->Frames()[76], source.GetPosition());
}

TEST(Mp3SoundStream, ShortGarbageBetweenFramesIsSteppedOverAndLongGarbageEndsTheIndex) {
  kltest::TTempDir dir;
  const std::string plain = kltest::ReadFileBytes(Chirp().Plain);
  ComPtr<TMp3FileSoundStream> original = new TMp3FileSoundStream(Chirp().Plain);
  const std::vector<int64_t> frames = original->Mp3Stream()->Frames();
  ASSERT_GT(frames.size(), 100u);

  const size_t cut = static_cast<size_t>(frames[10]);
  const std::string shortRun(100, '\x55'), longRun(1000, '\x55');
  kltest::WriteFileBytes(dir / "short.mp3", plain.substr(0, cut) + shortRun + plain.substr(cut));
  kltest::WriteFileBytes(dir / "long.mp3", plain.substr(0, cut) + longRun + plain.substr(cut));

  ComPtr<TMp3FileSoundStream> s = new TMp3FileSoundStream(dir / "short.mp3");
  const auto& shifted = s->Mp3Stream()->Frames();
  ASSERT_EQ(frames.size(), shifted.size());
  for (size_t i = 0; i < frames.size(); ++i) {
    ASSERT_EQ(frames[i] + (i >= 10 ? 100 : 0), shifted[i]) << "frame " << i;
  }
  EXPECT_EQ(original->GetLength(), s->GetLength());
  // The garbage reaches the decoder, which gets over it.
  EXPECT_GT(ReadAll(s.Get()).size(), static_cast<size_t>(frames.size() - 12) * 1152 * 2);

  // A run longer than a frame: the frame is recorded where the garbage starts, which
  // has no header, and the index ends there.
  ComPtr<TMp3FileSoundStream> l = new TMp3FileSoundStream(dir / "long.mp3");
  ASSERT_EQ(11u, l->Mp3Stream()->Frames().size());
  EXPECT_EQ(frames[10], l->Mp3Stream()->Frames()[10]);
  EXPECT_EQ(l->Mp3Stream()->FramesToMilliseconds(11), l->GetLength());
}

// A run of foreign bytes as long as a frame in front of every 40960-byte mark, so that
// the next header straddles the mark: the index still holds every frame.
TEST(Mp3SoundStream, GarbageAcrossScanBlockEndsKeepsTheWholeIndex) {
  kltest::TTempDir dir;
  const std::string path = dir / "long.mp3";
  ASSERT_EQ(0u, kltest::Ffmpeg("-f lavfi -i sine=frequency=440:duration=60 -ac 2 -c:a libmp3lame -b:a 128k "
                               "-write_xing 0 -id3v2_version 0 " + kltest::Quote(path)).ExitCode);
  const std::string plain = kltest::ReadFileBytes(path);
  ComPtr<TMp3FileSoundStream> original = new TMp3FileSoundStream(path);
  const std::vector<int64_t> frames = original->Mp3Stream()->Frames();
  ASSERT_GT(frames.size(), 2000u);
  std::string damaged;
  std::vector<int64_t> want;
  int64_t mark = 40960;
  int straddles = 0;
  for (size_t k = 0; k + 1 < frames.size(); ++k) {
    const std::string frame =
        plain.substr(static_cast<size_t>(frames[k]), static_cast<size_t>(frames[k + 1] - frames[k]));
    const int64_t size = static_cast<int64_t>(frame.size());
    // This frame ends size + 1 bytes before the mark; size bytes of garbage follow.
    const int64_t lead = mark - (size + 1) - size - static_cast<int64_t>(damaged.size());
    const bool straddle = lead >= 0 && lead <= 417 && k + 2 < frames.size();
    damaged += std::string(straddle ? static_cast<size_t>(lead) : 0, '\x55');
    want.push_back(static_cast<int64_t>(damaged.size()));
    damaged += frame;
    if (straddle) {
      damaged += std::string(frame.size(), '\x55');
      ++straddles;
    }
    while (mark < static_cast<int64_t>(damaged.size()) + size) mark += 40960;
  }
  // The last frame, which the index leaves out.
  want.push_back(static_cast<int64_t>(damaged.size()));
  damaged += plain.substr(static_cast<size_t>(frames.back()));
  ASSERT_GT(straddles, 10);
  kltest::WriteFileBytes(dir / "damaged.mp3", damaged);
  ComPtr<TMp3FileSoundStream> s = new TMp3FileSoundStream(dir / "damaged.mp3");
  EXPECT_EQ(s->Mp3Stream()->Frames(), want);
  EXPECT_EQ(s->GetLength(), original->GetLength());
}

TEST(Mp3SoundStream, BadSourcesDeliverLittleOrNothingAndNeverHang) {
  kltest::TTempDir dir;
  const std::string plain = kltest::ReadFileBytes(Chirp().Plain);

  kltest::TBoxRecorder boxes;  // a decoder that cannot open would say so in a message box
  // No file: the file stream's exception.
  EXPECT_THROW(TMp3FileSoundStream(dir / "missing.mp3"), kl::EFOpenError);

  // Empty: logged, and an object that delivers nothing and ignores seeks.
  kltest::WriteFileBytes(dir / "empty.mp3", "");
  ComPtr<TMp3FileSoundStream> empty = new TMp3FileSoundStream(dir / "empty.mp3");
  EXPECT_NE(std::string::npos, kl::klLog::GetWholeLog().find("TMp3StreamSoundStream.Create: wrong Len"));
  char buf[4096];
  empty->SetPosition(500);
  EXPECT_EQ(0, empty->GetPosition());
  EXPECT_EQ(0, empty->GetWavData(buf, sizeof buf));

  // Cut in the middle of a frame, cut inside the first header, damaged throughout, not
  // MP3 at all, and a declared length far beyond the data.
  std::string damaged = plain;
  srand(7);
  for (size_t i = 2000; i < damaged.size(); i += 997) damaged[i] = static_cast<char>(rand());
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"cut.mp3", plain.substr(0, plain.size() / 2 + 200)},
      {"header.mp3", plain.substr(0, 3)},
      {"damaged.mp3", damaged},
      {"text.mp3", std::string(50000, 'x')},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.first);
    kltest::WriteFileBytes(dir / c.first, c.second);
    ComPtr<TMp3FileSoundStream> s = new TMp3FileSoundStream(dir / c.first);
    const size_t delivered = ReadAll(s.Get(), 17640).size() / 2;
    EXPECT_LE(delivered, static_cast<size_t>(s->Mp3Stream()->Frames().size() + 4) * 1152);
    s->SetPosition(1000000);
    ReadAll(s.Get());
    EXPECT_EQ(0, s->GetWavData(buf, sizeof buf));
  }
  ComPtr<TMp3FileSoundStream> cut = new TMp3FileSoundStream(dir / "cut.mp3");
  EXPECT_GT(cut->GetLength(), 1800);

  kl::TFileStream source(Chirp().Plain, kl::fmOpenRead | kl::fmShareDenyWrite);
  ComPtr<TMp3StreamSoundStream> longer = new TMp3StreamSoundStream(&source, 0, int64_t{1} << 40);
  EXPECT_GT(longer->Frames().size(), 150u);
  EXPECT_GT(ReadAll(longer.Get()).size() / 2, longer->Frames().size() * 1152 - 2400);
  EXPECT_TRUE(boxes.Boxes.empty());
}
