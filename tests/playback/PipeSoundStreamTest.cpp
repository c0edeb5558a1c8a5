// TWavPipeSoundStream fed through a real named pipe: by ffmpeg.exe, and by a writer
// that is killed half way.
#include <gtest/gtest.h>

#include <windows.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "PlaybackTestUtil.h"

using namespace kltest::playback;
using kl::klMediaPlayer::TklMediaPlayer;
using kl::UPipe::INamedPipe2;
using kl::UPipe::TNamedPipe;
using kl::USoundStreams::TWavPipeSoundStream;
using namespace kl::klMediaPlayer;
using kltest::UniqueName;

namespace {

WAVEFORMATEX Pcm16Stereo() { return {WAVE_FORMAT_PCM, 2, 44100, 176400, 4, 16, 0}; }

const char* const kSine = "-f lavfi -i sine=frequency=440:sample_rate=44100:duration=2 -f s16le -ar 44100 -ac 2 ";

// Everything the stream delivers until it reports its end (or TimeoutMs passes).
std::string ReadToEnd(ISoundStream* S, IFinishable* F, DWORD TimeoutMs, bool* Ended) {
  std::string got;
  std::vector<char> buf(17640);  // a tenth of a second, as the player asks
  const DWORD start = GetTickCount();
  *Ended = false;
  while (GetTickCount() - start < TimeoutMs) {
    const int32_t n = S->GetWavData(buf.data(), static_cast<int32_t>(buf.size()));
    if (n > 0) {
      got.append(buf.data(), static_cast<size_t>(n));
    } else if (F->GetFinished()) {
      *Ended = true;
      break;
    } else {
      Sleep(5);
    }
  }
  return got;
}

}  // namespace

// Connects to pipe Args[0], writes Args[1] bytes of a ramp, then stays until killed.
KL_CHILD_ROLE(pcm_writer_hangs) {
  HANDLE h = kltest::OpenPipeForWriting(Args[0]);
  if (h == INVALID_HANDLE_VALUE) return 3;
  const auto frames = Pattern(std::stoi(Args[1]) / 4);
  const std::string data = Bytes(frames);
  DWORD written = 0;
  if (!WriteFile(h, data.data(), static_cast<DWORD>(data.size()), &written, nullptr)) return 4;
  Sleep(60000);
  return 0;
}

TEST(PipeSoundStream, FfmpegOutputArrivesWholeAndThenTheStreamEnds) {
  kltest::TTempDir dir;
  ASSERT_EQ(kltest::Ffmpeg(std::string(kSine) + kltest::Quote(dir / "sine.raw")).ExitCode, 0u);
  const std::string expected = kltest::ReadFileBytes(dir / "sine.raw");
  ASSERT_EQ(expected.size(), 2u * 44100 * 4);

  ComPtr<INamedPipe2> pipe(new TNamedPipe(UniqueName("klpss"), 1));
  ComPtr<ISoundStream> stream(new TWavPipeSoundStream(Pcm16Stereo(), pipe.Get()));
  ComPtr<IFinishable> fin;
  ASSERT_TRUE(SUCCEEDED(stream.As(&fin)));

  EXPECT_TRUE(IsCdFormat(stream->GetWaveFormat()));
  EXPECT_EQ(stream->GetLength(), 0);
  stream->SetPosition(700);
  EXPECT_FALSE(fin->GetFinished());
  char b[16];
  EXPECT_EQ(stream->GetWavData(b, sizeof b), 0);  // nobody has written yet

  // ffmpeg writes while this thread reads: the default read-ahead makes it wait for us.
  kltest::TRunResult r;
  std::thread writer([&] { r = kltest::Ffmpeg(kSine + pipe->GetName(), 60000); });
  bool ended = false;
  const std::string got = ReadToEnd(stream.Get(), fin.Get(), 60000, &ended);
  writer.join();
  EXPECT_EQ(r.ExitCode, 0u) << r.Err;
  EXPECT_TRUE(ended);
  EXPECT_TRUE(got == expected) << got.size() << " of " << expected.size();
  EXPECT_EQ(stream->GetWavData(b, sizeof b), 0);
  EXPECT_EQ(stream->GetPosition(), 700);  // reading does not move it
}

TEST(PipeSoundStream, AWriterKilledMidStreamEndsTheStream) {
  constexpr int kBytes = 44100 * 4 / 2;  // half a second
  ComPtr<INamedPipe2> pipe(new TNamedPipe(UniqueName("klpssKill"), 1));
  ComPtr<ISoundStream> stream(new TWavPipeSoundStream(Pcm16Stereo(), pipe.Get()));
  ComPtr<IFinishable> fin;
  ASSERT_TRUE(SUCCEEDED(stream.As(&fin)));
  {
    // Read directly: what was sent arrives, then the stream waits without ending.
    kltest::TProcess child;
    ASSERT_TRUE(kltest::StartChild(child, "pcm_writer_hangs", {pipe->GetName(), std::to_string(kBytes)}));
    bool ended = false;
    std::string got;
    const DWORD start = GetTickCount();
    while (got.size() < static_cast<size_t>(kBytes) && GetTickCount() - start < 20000) {
      got += ReadToEnd(stream.Get(), fin.Get(), 200, &ended);
    }
    EXPECT_EQ(got, Bytes(Pattern(kBytes / 4)));
    EXPECT_FALSE(fin->GetFinished());
    child.Kill();
    const std::string rest = ReadToEnd(stream.Get(), fin.Get(), 20000, &ended);
    EXPECT_TRUE(ended);
    EXPECT_TRUE(rest.empty());
  }
  // The same through the player: the kill ends playback with one finish.
  ComPtr<INamedPipe2> pipe2(new TNamedPipe(UniqueName("klpssKillPlay"), 1));
  ComPtr<ISoundStream> stream2(new TWavPipeSoundStream(Pcm16Stereo(), pipe2.Get()));
  kltest::TProcess child;
  ASSERT_TRUE(kltest::StartChild(child, "pcm_writer_hangs", {pipe2->GetName(), std::to_string(kBytes)}));
  TklMediaPlayer p;
  std::atomic<int> finishes{0};
  p.SetOnFinish([&finishes](void*) { ++finishes; });
  p.SetSource(stream2.Get());
  EXPECT_TRUE(p.Play());
  EXPECT_TRUE(WaitUntil([&] { return pipe2->GetConnected(); }, 20000));
  Sleep(1000);  // the half second is played; the player now waits for more
  EXPECT_EQ(finishes.load(), 0);
  child.Kill();
  EXPECT_TRUE(WaitUntil([&] { return p.GetMode() == pmFinished; }, 20000));
  Sleep(300);
  EXPECT_EQ(finishes.load(), 1);
  p.SetOnFinish(nullptr);
  p.Close();
  // The stream goes before its pipe: the pipe must not call back into it.
  stream2.Reset();
  pipe2.Reset();
}
