// File writers: WAV files read back by ffmpeg.exe, the 18-byte "fmt " chunk, writers
// that got nothing, rewriting after Finish, and the MP3 writer into a file or a pipe.
#include <atomic>
#include <thread>

#include "ConversionTestUtil.h"

using namespace kltest::conv;
using kl::ComPtr;
using kltest::TTempDir;

TEST(AudioFile, CreateByExtension) {
  auto mp3 = CreateAudioFile("C:\\x\\Song.MP3");
  ASSERT_NE(dynamic_cast<TMp3AudioFile*>(mp3.Get()), nullptr);
  EXPECT_NE(dynamic_cast<TWavAudioFile*>(CreateAudioFile("out.Wav").Get()), nullptr);
  EXPECT_FALSE(CreateAudioFile("music.ogg"));
}

// The "fmt " chunk keeps only the common 18 bytes of a format with extra bytes.
TEST(AudioFile, WavWriterMakesAFileFfmpegReads) {
  TTempDir dir;
  const std::string name = dir / "tone.wav";
  auto w = CreateAudioFile(name);
  ASSERT_TRUE(w);
  EXPECT_FALSE(w->SetFormat(nullptr));
  auto fmt = Pcm(44100, 2);
  reinterpret_cast<WAVEFORMATEX*>(fmt.data())->cbSize = 2;
  fmt.insert(fmt.end(), {0x55, 0x66});
  ASSERT_TRUE(w->SetFormat(W(fmt)));
  EXPECT_EQ(GetWaveFormatSize(w->GetFormat()), 20u);
  const std::string data = Bytes16(kltest::tempo::Tone16(440, 44100, 44100 * 2, 2));
  ASSERT_TRUE(WriteInPieces(w.Get(), data, 10000));
  EXPECT_FALSE(w->Write(nullptr, 10));
  EXPECT_FALSE(w->GetFinished());
  ASSERT_TRUE(w->Finish());
  EXPECT_TRUE(w->GetFinished());

  const std::string file = kltest::ReadFileBytes(name);
  ExpectWavLayout(file, &data);
  EXPECT_EQ(file.substr(20, 16), std::string(reinterpret_cast<const char*>(fmt.data()), 16));
  const std::string probe = kltest::Ffmpeg("-i " + kltest::Quote(name) + " -f null -").Err;
  EXPECT_NE(probe.find("pcm_s16le, 44100 Hz, stereo"), std::string::npos) << probe;
  EXPECT_NE(probe.find("Duration: 00:00:02.00"), std::string::npos) << probe;
}

TEST(AudioFile, WritersWithoutDataLeaveNoFile) {
  TTempDir dir;
  for (const char* n : {"none.wav", "none.mp3"}) {
    auto w = CreateAudioFile(dir / n);
    ASSERT_TRUE(w);
    w->SetFormat(W(Pcm(44100, 2)));
    EXPECT_TRUE(w->Write("", 0));
    EXPECT_TRUE(w->Finish());
    EXPECT_TRUE(w->GetFinished());
    EXPECT_FALSE(kl::FileExists(dir / n)) << n;
  }
  // Without a format a WAV writer cannot start a file.
  ComPtr<TWavAudioFile> w(new TWavAudioFile());
  w->SetFileName(dir / "noformat.wav");
  EXPECT_FALSE(w->Write("abcd", 4));
  EXPECT_TRUE(w->Finish());
  EXPECT_FALSE(kl::FileExists(dir / "noformat.wav"));
  // Nor into a folder that does not exist.
  EXPECT_FALSE(CreateAudioFile(dir / "missing\\x.mp3")->Write("abcd", 4));
  auto v = CreateAudioFile(dir / "missing\\x.wav");
  v->SetFormat(W(Pcm(44100, 2)));
  EXPECT_FALSE(v->Write("abcd", 4));
}

TEST(AudioFile, WriteAfterFinishStartsTheFileAgain) {
  TTempDir dir;
  auto w = CreateAudioFile(dir / "again.wav");
  w->SetFormat(W(Pcm(8000, 1)));
  ASSERT_TRUE(w->Write("11111111", 8));
  ASSERT_TRUE(w->Finish());
  ASSERT_TRUE(w->Write("2222", 4));
  ASSERT_TRUE(w->Finish());
  const std::string second = "2222", third = "3333";
  ExpectWavLayout(kltest::ReadFileBytes(dir / "again.wav"), &second);

  // A new name ends the file in progress first.
  ASSERT_TRUE(w->Write("3333", 4));
  w->SetFileName(dir / "next.wav");
  EXPECT_TRUE(w->GetFinished());
  ExpectWavLayout(kltest::ReadFileBytes(dir / "again.wav"), &third);
}

// The MP3 writer stores what it gets as it is: into a file it replaces, or into a named
// pipe that a server created.
TEST(AudioFile, Mp3WriterStoresBytesInAFileOrANamedPipe) {
  TTempDir dir;
  std::string data(40000, '\0');
  for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i * 7 / 3);
  const std::string name = dir / "copy.mp3";
  kltest::WriteFileBytes(name, std::string(100000, 'x'));
  auto w = CreateAudioFile(name);
  ASSERT_TRUE(WriteInPieces(w.Get(), data, 4177));
  ASSERT_TRUE(w->Finish());
  EXPECT_EQ(kltest::ReadFileBytes(name), data);

  // Mixed case: the prefix is recognised without regard to case.
  const std::string pipeName = kl::Format("\\\\.\\PIPE\\klConvTest_%lu", GetCurrentProcessId());
  HANDLE server = CreateNamedPipeA(pipeName.c_str(), PIPE_ACCESS_INBOUND, PIPE_TYPE_BYTE | PIPE_WAIT, 1, 65536,
                                   65536, 0, nullptr);
  ASSERT_NE(server, INVALID_HANDLE_VALUE);
  std::string received;
  std::atomic<bool> done{false};
  std::thread reader([&] {
    ConnectNamedPipe(server, nullptr);
    char buf[8192];
    DWORD n = 0;
    while (ReadFile(server, buf, sizeof buf, &n, nullptr) && n > 0) received.append(buf, n);
    done = true;
  });
  // The pipe's name has no extension: the writer is picked by hand.
  ComPtr<TMp3AudioFile> m(new TMp3AudioFile());
  m->SetFileName(pipeName);
  EXPECT_TRUE(WriteInPieces(m.Get(), data, 3000));
  EXPECT_TRUE(m->Finish());
  for (int i = 0; i < 1000 && !done; ++i) Sleep(10);
  if (!done) {
    // Unblock a reader still waiting for a client: it then reads the end of the pipe.
    HANDLE client = CreateFileA(pipeName.c_str(), GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    if (client != INVALID_HANDLE_VALUE) CloseHandle(client);
  }
  reader.join();
  CloseHandle(server);
  EXPECT_TRUE(done);
  EXPECT_EQ(received, data);
  EXPECT_FALSE(kl::FileExists(pipeName));
}
