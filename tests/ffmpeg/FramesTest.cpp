// TVideoFramesDecoder against ffmpeg's own raw output, TVideoFramesEncoder round trips
// through real files, and both with ffmpeg killed under them.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "../channels/ChannelsTestUtil.h"
#include "FfmpegTestUtil.h"
#include "KlTest.h"
#include "MediaSamples.h"
#include "diagnostics/klLog.h"
#include "ffmpeg/UFfmpeg.h"
#include "rtl/SysUtils.h"

using kl::ComPtr;
using namespace kl::UFfmpeg;

namespace {

using TFrames = std::vector<std::string>;  // packed rows, top first

// Every frame of the decoder, with the row padding checked untouched: it is marked after
// each frame and must still hold the mark after the next.
TFrames DecodeAll(IVideoFramesDecoder2* D, bool& PaddingKept) {
  TFrames frames;
  const size_t row = static_cast<size_t>(D->GetTargetWidth()) * 3, stride = (row + 3) / 4 * 4;
  HBITMAP bmp = nullptr;
  void* bits = nullptr;
  PaddingKept = true;
  while (D->GetNextFrame(bmp, bits)) {
    auto* p = static_cast<uint8_t*>(bits);
    std::string f;
    for (int32_t y = 0; y < D->GetTargetHeight(); ++y) {
      f.append(reinterpret_cast<char*>(p + stride * y), row);
      for (size_t x = row; x < stride; ++x) {
        if (p[stride * y + x] != (frames.empty() ? 0 : 0xAB)) PaddingKept = false;
        p[stride * y + x] = 0xAB;
      }
    }
    frames.push_back(f);
  }
  const ULONGLONG t = GetTickCount64();
  EXPECT_FALSE(D->GetNextFrame(bmp, bits));  // and stays ended, at once
  EXPECT_LT(GetTickCount64() - t, 1000u);
  return frames;
}

// ffmpeg's own frames for the same options.
TFrames Reference(const std::string& File, const std::string& Before, const std::string& After, size_t FrameSize) {
  const std::string out =
      kltest::Ffmpeg(Before + " -i " + kltest::Quote(File) + " " + After + " -an -f image2pipe -pix_fmt bgr24 -vcodec rawvideo -")
          .Out;
  TFrames frames;
  for (size_t at = 0; at < out.size(); at += FrameSize) frames.push_back(out.substr(at, FrameSize));
  return frames;
}

TEST(FramesDecoder, FramesEqualFfmpegsOwn) {
  const struct {
    const char* Sample;
    TFramesDecoderParams Params;
    bool NoParams;
    int32_t W, H;
    const char *Before, *After;
  } cases[] = {
      {"two_audio.mkv", {}, true, 320, 240, "", ""},
      {"two_audio.mkv", {0, 0, 0, 0, 0}, false, 320, 240, "", ""},
      {"hd_1080.mp4", {640, 0}, false, 640, 360, "", "-s 640x360"},
      {"hd_1080.mp4", {0, 180}, false, 320, 180, "", "-s 320x180"},
      {"hd_1080.mp4", {401, 301}, false, 401, 301, "", "-s 401x301"},  // both given: not made even
      {"odd_718.mkv", {640, 0}, false, 640, 358, "", "-s 640x358"},    // 359 made even
      {"hd_1080.mp4", {642, 362}, false, 642, 362, "", "-s 642x362"},  // 1926-byte rows, 1928 stride
      {"two_audio.mkv", {0, 0, 1, 2}, false, 320, 240, "-ss 1", "-to 2"},
      {"two_audio.mkv", {0, 0, 0, 0, 10}, false, 320, 240, "", "-r:v 10"},
  };
  for (const auto& c : cases) {
    const std::string file = kltest::MediaSample(c.Sample);
    const ComPtr<IVideoFramesDecoder2> d = TVideoFramesDecoder::Create(file, nullptr, c.NoParams ? nullptr : &c.Params);
    ASSERT_TRUE(d) << c.After;
    EXPECT_EQ(d->GetTargetWidth(), c.W);
    EXPECT_EQ(d->GetTargetHeight(), c.H);
    bool padding = false;
    const TFrames got = DecodeAll(d.Get(), padding);
    const TFrames want = Reference(file, c.Before, c.After, static_cast<size_t>(c.W) * c.H * 3);
    EXPECT_TRUE(padding) << c.After;
    EXPECT_GT(got.size(), 5u);
    EXPECT_TRUE(got == want) << c.Sample << " " << c.Before << " " << c.After << ": " << got.size() << " frames, ffmpeg "
                             << want.size();
  }
}

TEST(FramesDecoder, RefusedFilesAndParams) {
  const std::string mp3 = kltest::MediaSample("tone.mp3"), film = kltest::MediaSample("two_audio.mkv");
  const std::string missing = kltest::ExeDir() + "missing.mp4";
  const TFramesDecoderParams before{0, 0, -1, 0, 0};
  const struct {
    std::string File;
    const TFramesDecoderParams* Params;
    std::string Log;
  } cases[] = {
      {missing, nullptr, "TVideoFramesDecoder.Create: Не найден файл: \r\n" + missing},
      {mp3, nullptr, "TVideoFramesDecoder.Create: Ошибочные параметры файла: " + mp3 + "\r\nW:0 x H:0"},
      {film, &before, "TVideoFramesDecoder.Create: Ошибочные параметры: FromSec:-1 x ToSec:0"},
  };
  for (const auto& c : cases) {
    ComPtr<IVideoFramesDecoder2> d;
    const std::string log = fftest::LogOf([&] { d = TVideoFramesDecoder::Create(c.File, nullptr, c.Params); });
    EXPECT_FALSE(d);
    EXPECT_EQ(fftest::LogMessages(log).back(), c.Log);
  }
  // A given file information is used as it is.
  const ComPtr<IVideoFileInfo2> info = TVideoFileInfo::Create(film);
  EXPECT_EQ(TVideoFramesDecoder::Create(film, info.Get())->GetFileInfo().Get(), info.Get());
}

// Ends every ffmpeg.exe that was not running at the time of Before.
void KillNewFfmpeg(int Before) {
  ASSERT_TRUE(fftest::WaitUntil([&] { return fftest::FfmpegProcessCount() > Before; }, 20000));
  HANDLE snap = CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
  PROCESSENTRY32 e{};
  e.dwSize = sizeof e;
  for (BOOL ok = Process32First(snap, &e); ok; ok = Process32Next(snap, &e)) {
    if (lstrcmpiA(e.szExeFile, "ffmpeg.exe") != 0) continue;
    if (HANDLE h = OpenProcess(PROCESS_TERMINATE | SYNCHRONIZE, FALSE, e.th32ProcessID)) {
      TerminateProcess(h, 1);
      WaitForSingleObject(h, 5000);
      CloseHandle(h);
    }
  }
  CloseHandle(snap);
}

TEST(FramesDecoder, FfmpegKilledWhileDecoding) {
  const std::string file = kltest::MediaSample("hd_1080.mp4");
  const int processes = fftest::FfmpegProcessCount();
  const DWORD handles = chtest::HandleCount();
  {
    const ComPtr<IVideoFramesDecoder2> d = TVideoFramesDecoder::Create(file);
    HBITMAP bmp = nullptr;
    void* bits = nullptr;
    ASSERT_TRUE(d->GetNextFrame(bmp, bits));
    KillNewFfmpeg(processes);
    int more = 0;
    while (d->GetNextFrame(bmp, bits)) ++more;
    EXPECT_LT(more, 25);
    EXPECT_FALSE(d->GetNextFrame(bmp, bits));
  }
  EXPECT_EQ(fftest::FfmpegProcessCount(), processes);
  // The child-process unit keeps each child's thread handle on purpose: one for the file
  // information's ffmpeg, one for the decoder's.
  EXPECT_LE(chtest::HandleCount(), handles + 2);
}

// --- encoder ------------------------------------------------------------------------

// A moving gradient with the frame number as a grey level in the top left block.
std::string SourceFrame(int N, int W, int H, int Bytes) {
  std::string f(static_cast<size_t>(W) * H * Bytes, '\0');
  for (int y = 0; y < H; ++y) {
    for (int x = 0; x < W; ++x) {
      uint8_t* p = reinterpret_cast<uint8_t*>(f.data()) + (static_cast<size_t>(y) * W + x) * Bytes;
      const bool block = x < 32 && y < 32;
      p[0] = static_cast<uint8_t>(block ? N * 8 : (x + N * 4) & 0xFF);
      p[1] = static_cast<uint8_t>(block ? N * 8 : (y * 2) & 0xFF);
      p[2] = static_cast<uint8_t>(block ? N * 8 : (x + y + N * 2) & 0xFF);
      if (Bytes == 4) p[3] = 0xFF;
    }
  }
  return f;
}

// What the decoder gives back for a source frame. ffmpeg reads 32-bit frames as "bgr32",
// which on a little-endian machine is the byte order R, G, B, A: the first and third
// bytes come back exchanged.
std::string Expected(const std::string& Frame, int Bytes) {
  if (Bytes == 3) return Frame;
  std::string r;
  for (size_t i = 0; i < Frame.size(); i += 4) r += {Frame[i + 2], Frame[i + 1], Frame[i]};
  return r;
}

double Psnr(const std::string& A, const std::string& B) {
  double se = 0;
  for (size_t i = 0; i < A.size() && i < B.size(); ++i) {
    const double d = static_cast<uint8_t>(A[i]) - static_cast<uint8_t>(B[i]);
    se += d * d;
  }
  return se == 0 ? 99 : 10 * std::log10(255.0 * 255.0 / (se / static_cast<double>(A.size())));
}

// Waits for the encoders' ffmpeg to finish the file, then decodes it.
TFrames Encoded(const std::string& File, int Before) {
  EXPECT_TRUE(fftest::WaitUntil([&] { return fftest::FfmpegProcessCount() <= Before; }, 60000)) << File;
  const ComPtr<IVideoFramesDecoder2> d = TVideoFramesDecoder::Create(File);
  if (!d) return {};
  bool padding = false;
  return DecodeAll(d.Get(), padding);
}

TEST(FramesEncoder, RoundTrips) {
  constexpr int kW = 160, kH = 120, kFrames = 20;
  kltest::TTempDir dir;
  // Lossless APNG comes back byte for byte. The lossy codecs measured 36.5-37.2 dB
  // (libx264, default CRF 23, 4:4:4) and 32.8-33.3 dB (MPEG-4 at its finest quantiser,
  // 4:2:0 chroma on a colour gradient that changes every pixel); the bounds leave 4 dB
  // for other machines' encoder threading. A shifted, swapped or wrong frame scores
  // below 15 dB.
  const struct {
    const char* Name;
    int32_t Quality;
    double MinPsnr;
  } cases[] = {{"f.apng", 0, 99}, {"f.mp4", 0, 32.5}, {"f.avi", 3, 29}};
  for (int bits : {24, 32}) {
    for (const auto& c : cases) {
      const std::string file = dir / (std::to_string(bits) + c.Name);
      const int before = fftest::FfmpegProcessCount();
      {
        const ComPtr<IVideoFramesEncoder> e = new TVideoFramesEncoder(file);
        ASSERT_TRUE(e->SetSize(kW, kH) && e->SetFPS(25) && e->SetBitsPerPixel(bits) && e->SetQuality(c.Quality));
        for (int n = 0; n < kFrames; ++n) ASSERT_TRUE(e->EncodeFrame(SourceFrame(n, kW, kH, bits / 8).data()));
        EXPECT_EQ(e->GetFrameCount(), 0);
      }  // destroyed: the pipe is closed, ffmpeg completes the file
      const TFrames got = Encoded(file, before);
      ASSERT_EQ(got.size(), static_cast<size_t>(kFrames)) << file;
      double worst = 99;
      for (int n = 0; n < kFrames; ++n) worst = std::min(worst, Psnr(got[n], Expected(SourceFrame(n, kW, kH, bits / 8), bits / 8)));
      EXPECT_GE(worst, c.MinPsnr) << file;
    }
  }
}

TEST(FramesEncoder, SettersAndRefusals) {
  const ComPtr<IVideoFramesEncoder> e = new TVideoFramesEncoder("x.mp4");
  const struct {
    std::function<bool()> Call;
    bool Ok;
    const char* Log;
  } cases[] = {
      {[&] { return e->SetSize(1, 1); }, true, ""},
      {[&] { return e->SetSize(0, 5); }, false, "TVideoFramesEncoder.SetSize: invalid params: 0, 5"},
      {[&] { return e->SetSize(5, 0); }, false, "TVideoFramesEncoder.SetSize: invalid params: 5, 0"},
      {[&] { return e->SetFPS(29.97f); }, true, ""},
      {[&] { return e->SetFPS(0); }, false, "TVideoFramesEncoder.SetFPS: invalid fps 0.00"},
      {[&] { return e->SetFPS(-1234.5f); }, false, "TVideoFramesEncoder.SetFPS: invalid fps -1,234.50"},
      {[&] { return e->SetBitrate("2500k") && e->SetBitrate("2M") && e->SetBitrate("800K") && e->SetBitrate(""); },
       true, ""},
      {[&] { return e->SetBitrate("2m"); }, false, "TVideoFramesEncoder.SetBitrate: invalid value 2m"},
      {[&] { return e->SetBitrate("2.5M"); }, false, "TVideoFramesEncoder.SetBitrate: invalid value 2.5M"},
      {[&] { return e->SetQuality(5) && e->SetQuality(0); }, true, ""},
      {[&] { return e->SetQuality(-1); }, false, "TVideoFramesEncoder.SetQuality: invalid value -1"},
      {[&] { return e->SetBitsPerPixel(32) && e->SetBitsPerPixel(24); }, true, ""},
      {[&] { return e->SetBitsPerPixel(16); }, false, "TVideoFramesEncoder.SetBitsPerPixel: Invalid value 16"},
      {[&] { return e->EncodeFrame(static_cast<const void*>(nullptr)); }, false,
       "TVideoFramesEncoder.EncodeFrame: AFrameBits = nil"},
      {[&] { return e->EncodeFrame(static_cast<HBITMAP>(nullptr)); }, false,
       "TVideoFramesEncoder.EncodeFrame: AFrame = 0"},
  };
  for (const auto& c : cases) {
    bool ok = !c.Ok;
    const auto messages = fftest::LogMessages(fftest::LogOf([&] { ok = c.Call(); }));
    EXPECT_EQ(ok, c.Ok) << c.Log;
    EXPECT_EQ(messages, *c.Log ? std::vector<std::string>{c.Log} : std::vector<std::string>{});
  }
  const auto bitmap = reinterpret_cast<HBITMAP>(static_cast<intptr_t>(1));
  kltest::ExpectRaises<kl::klLog::EklException>([&] { e->EncodeFrame(bitmap); },
                                                "TVideoFramesEncoder.EncodeFrame( AFrame: HBITMAP ) not released yet");
  EXPECT_THROW(TVideoFramesEncoder(""), kl::klLog::EklException);
}

TEST(FramesEncoder, TwoAtOnceAndAgainAfterFinish) {
  constexpr int kW = 64, kH = 48;
  kltest::TTempDir dir;
  const int before = fftest::FfmpegProcessCount();
  const ComPtr<TVideoFramesEncoder> a = new TVideoFramesEncoder(dir / "a.apng"), b = new TVideoFramesEncoder(dir / "b.apng");
  for (TVideoFramesEncoder* e : {a.Get(), b.Get()}) ASSERT_TRUE(e->SetSize(kW, kH) && e->SetFPS(10));
  ASSERT_TRUE(a->EncodeFrame(SourceFrame(0, kW, kH, 3).data()));
  std::string log = fftest::LogOf([&] { ASSERT_TRUE(b->EncodeFrame(SourceFrame(0, kW, kH, 3).data())); });
  EXPECT_EQ(a->GetPipeName(), "\\\\.\\pipe\\FramesEncoder");
  EXPECT_EQ(b->GetPipeName().rfind("\\\\.\\pipe\\FramesEncoder", 0), 0u);
  EXPECT_GT(b->GetPipeName().size(), a->GetPipeName().size());
  EXPECT_EQ(fftest::LogMessages(log),
            std::vector<std::string>{"TVideoFramesEncoder.PrepareWriting: CreateNamedPipe \"\\\\.\\pipe\\FramesEncoder\" failed "});
  for (int n = 1; n < 12; ++n) {
    ASSERT_TRUE(a->EncodeFrame(SourceFrame(n, kW, kH, 3).data()));
    ASSERT_TRUE(b->EncodeFrame(SourceFrame(n + 1, kW, kH, 3).data()));
  }
  a->Finish();
  b->Finish();
  EXPECT_EQ(Encoded(dir / "a.apng", before).size(), 12u);
  const TFrames bFrames = Encoded(dir / "b.apng", before);
  ASSERT_EQ(bFrames.size(), 12u);
  EXPECT_EQ(bFrames[11], SourceFrame(12, kW, kH, 3));
  // After Finish the next frame starts a new ffmpeg on the same file.
  for (int n = 0; n < 3; ++n) ASSERT_TRUE(a->EncodeFrame(SourceFrame(20 + n, kW, kH, 3).data()));
  a->Finish();
  const TFrames again = Encoded(dir / "a.apng", before);
  ASSERT_EQ(again.size(), 3u);
  EXPECT_EQ(again[0], SourceFrame(20, kW, kH, 3));
}

// Frames into a file that cannot be written: ffmpeg gives up and the writes fail.
KL_CHILD_ROLE(encode_unwritable) {
  const ComPtr<IVideoFramesEncoder> e = new TVideoFramesEncoder(Args.at(0));
  e->SetSize(64, 48);
  e->SetFPS(25);
  const std::string frame = SourceFrame(0, 64, 48, 3);
  for (int n = 0; n < 100; ++n) {
    if (!e->EncodeFrame(frame.data())) {
      return kl::klLog::GetWholeLog().find("TVideoFramesEncoder.WriteToPipe: WriteFile failed - ") == std::string::npos;
    }
  }
  return 2;
}

TEST(FramesEncoder, FfmpegKilledOrOutputUnwritable) {
  kltest::TTempDir dir;
  const int before = fftest::FfmpegProcessCount();
  const ComPtr<IVideoFramesEncoder> e = new TVideoFramesEncoder(dir / "k.mp4");
  ASSERT_TRUE(e->SetSize(160, 120) && e->SetFPS(25));
  const std::string frame = SourceFrame(0, 160, 120, 3);
  ASSERT_TRUE(e->EncodeFrame(frame.data()));
  KillNewFfmpeg(before);
  bool failed = false;
  std::string log = fftest::LogOf([&] {
    for (int n = 0; n < 50 && !failed; ++n) failed = !e->EncodeFrame(frame.data());
  });
  EXPECT_TRUE(failed);
  const auto messages = fftest::LogMessages(log);
  ASSERT_EQ(messages.size(), 2u) << log;
  EXPECT_EQ(messages[0].rfind("TVideoFramesEncoder.WriteToPipe: WriteFile failed - ", 0), 0u);
  EXPECT_EQ(messages[1], "TVideoFramesEncoder.EncodeFrame: WriteToPipe failed");

  const kltest::TRunResult r = kltest::RunChild("encode_unwritable", {dir / "no folder\\x.mp4"}, 60000);
  EXPECT_FALSE(r.TimedOut);
  EXPECT_EQ(r.ExitCode, 0u) << r.Err;
}

}  // namespace
