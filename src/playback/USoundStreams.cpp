#include "playback/USoundStreams.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <new>

#include "diagnostics/klLog.h"
#include "rtl/SysUtils.h"

namespace kl::USoundStreams {

// --- TWavFileSoundStream --------------------------------------------------------------

TWavFileSoundStream::TWavFileSoundStream(const std::string& FileName) {
  if (!FileExists(FileName)) {
    klLog::AddToEventLog("TWavFileSoundStream.Create: file not found: \r\n" + FileName, klLog::lkError);
    throw EAbort("");
  }
  try {
    FWavFile = std::make_unique<UWAV::TWAVFile>(FileName);
  } catch (const std::exception&) {
    FWavFile.reset();
  }
  // A file that vanished between the check and the open gives an empty reader.
  if (!FWavFile || !FWavFile->IsOpen() || FWavFile->Format() == nullptr) {
    klLog::AddToEventLog("TWavFileSoundStream.Create: cannot open file: \r\n" + FileName, klLog::lkError);
    throw EAbort("");
  }
}

int32_t TWavFileSoundStream::GetLength() {
  const WAVEFORMATEX* f = FWavFile->Format();
  const int32_t blockAlign = f->nBlockAlign;
  const int64_t rate = f->nSamplesPerSec;
  if (blockAlign < 1 || rate < 1) return 0;
  const int32_t frames = FWavFile->GetDataSize() / blockAlign;
  return static_cast<int32_t>(Round(static_cast<double>(frames) / static_cast<double>(rate) * 1000));
}

int32_t TWavFileSoundStream::GetPosition() { return FPosition; }

void TWavFileSoundStream::SetPosition(int32_t Ms) {
  FPosition = std::max(0, std::min(Ms, GetLength()));
  FDataPos = 0;
  const WAVEFORMATEX* f = FWavFile->Format();
  if (f->nBlockAlign >= 1 && f->nSamplesPerSec >= 1) {
    FDataPos = Round(Ms / 1000.0 * f->nSamplesPerSec) * f->nBlockAlign;
  }
}

int32_t TWavFileSoundStream::GetWavData(void* Buffer, int32_t Size) {
  // Offsets beyond what the reader takes read nothing, as offsets past the data do.
  if (FDataPos < 0 || FDataPos > INT32_MAX) return 0;
  const int32_t n = FWavFile->GetData(static_cast<int32_t>(FDataPos), Size, Buffer);
  FDataPos += n;
  return n;
}

WAVEFORMATEX TWavFileSoundStream::GetWaveFormat() {
  // Only 18 bytes leave here: an extensible PCM record becomes the plain one, whose
  // cbSize promises no extra bytes that the receiver would read past the copy.
  return UAudioConverter::PlainPcmFormat(*FWavFile->Format());
}

// --- TMp3Buffer -----------------------------------------------------------------------

TMp3Buffer::TMp3Buffer() : FPipe(MakeInterface<UPipe::IPipe, UPipe::TPipe>(131072)) {
  if (!FPipe) throw std::bad_alloc();
}

bool TMp3Buffer::Write(const void* Buffer, int32_t Count) { return FPipe->Write(Buffer, Count); }
int32_t TMp3Buffer::Read(void* Buffer, int32_t Count) { return FPipe->Read(Buffer, Count); }
void TMp3Buffer::Clear() { FPipe->Clear(); }
int32_t TMp3Buffer::GetSizeToRead() { return FPipe->GetSizeToRead(); }
void TMp3Buffer::Lock() { FPipe->Lock(); }
void TMp3Buffer::Unlock() { FPipe->Unlock(); }
int32_t TMp3Buffer::ReadFromStream(TStream* Stream, int32_t Count) { return FPipe->ReadFromStream(Stream, Count); }
int32_t TMp3Buffer::ReadFromFile(const std::string& FileName, int32_t Count, int64_t Position) {
  return FPipe->ReadFromFile(FileName, Count, Position);
}
int32_t TMp3Buffer::WriteToStream(TStream* Stream, int32_t Count) { return FPipe->WriteToStream(Stream, Count); }
int32_t TMp3Buffer::WriteToFile(const std::string& FileName, int32_t Count, bool Append) {
  return FPipe->WriteToFile(FileName, Count, Append);
}
int32_t TMp3Buffer::ReadFromPipe(UPipe::IPipe* Pipe, int32_t Count) { return FPipe->ReadFromPipe(Pipe, Count); }
int32_t TMp3Buffer::WriteToPipe(UPipe::IPipe* Pipe, int32_t Count) { return FPipe->WriteToPipe(Pipe, Count); }

bool TMp3Buffer::Finish() {
  FFinished = true;
  return true;
}

bool TMp3Buffer::GetFinished() { return FFinished; }

// --- TMp3StreamSoundStream ------------------------------------------------------------

namespace {

// How much of the source one scan step reads.
constexpr int32_t kScanBlock = 40960;
// How much of the source one decoding step takes.
constexpr int32_t kDecodeBlock = 4096;

uint16_t Word16(const uint8_t* P) { return static_cast<uint16_t>(P[0] | P[1] << 8); }

}  // namespace

TMp3StreamSoundStream::TMp3StreamSoundStream(TStream* Stream, int64_t Start, int64_t Len)
    : FStream(Stream), FStart(Start), FLen(Len) {
  if (FLen == 0 && FStream != nullptr) FLen = FStream->GetSize();
  if (FLen == 0 || FStream == nullptr) {
    klLog::AddToEventLog("TMp3StreamSoundStream.Create: wrong Len", klLog::lkError);
    return;
  }
  FConverter = MakeInterface<UAudioConverter::IAudioConverter, UAudioConverter::TAudioConverter>();
  auto* buffer = new TMp3Buffer();
  FBuffer = static_cast<UPipe::IPipe*>(buffer);
  FPosition = 0;
  UMp3::GetMP3Info(FStream, FMp3Info, FXing);
  // An encoder's Xing/Info frame carries no sound: decoding and the index start behind it.
  FFirst = FXing.Present ? FXing.FrameSize : 0;

  // The decoder keeps its own copy of the input format: a record on the stack will do.
  UMp3::TMP3WAVEFORMAT mp3Record{};
  auto* mp3Format = reinterpret_cast<WAVEFORMATEX*>(&mp3Record);
  UAudioConverter::InitMp3WaveFormat(static_cast<uint32_t>(FMp3Info.SampleRate),
                                     static_cast<uint16_t>(FMp3Info.Channels), FMp3Info.BitRate, mp3Format);
  UAudioConverter::InitPcmWaveFormat(static_cast<uint32_t>(FMp3Info.SampleRate),
                                     static_cast<uint16_t>(FMp3Info.Channels), 16, &FWaveFormat);
  if (FConverter) {
    FConverter->SetInFormat(mp3Format);
    FConverter->SetOutFormat(&FWaveFormat);
    FConverter->SetOutStream(static_cast<UAudioConverter::IWritable*>(buffer));
  }
  // A frame count from the tag gives the length at once; the index waits for a seek.
  if (FXing.Frames <= 0) BuildFrameIndex();
  // Ready at the first sound frame.
  FStream->Seek(FMp3Info.Offset + FStart + FFirst, TSeekOrigin::soBeginning);
}

const std::vector<int64_t>& TMp3StreamSoundStream::Frames() {
  if (!FIndexed && FConverter) {
    const int64_t at = FStream->GetPosition();
    BuildFrameIndex();
    FStream->Seek(at, TSeekOrigin::soBeginning);
  }
  return FFrames;
}

std::vector<int64_t> IndexMp3Frames(TStream* Stream, const UMp3::TMP3Info& Info, int64_t Start, int64_t Len,
                                    int64_t First, int64_t Count) {
  std::vector<int64_t> frames;
  int32_t frameSize = UMp3::GetMP3FrameSize(Info, false);
  // Without a first header there is nothing to index (and no size to count frames by).
  if (frameSize < 1) return frames;
  // The index grows with the frames found until the data ends: the first frame's size
  // says nothing about the others' when the bit rate varies.
  Stream->Seek(Info.Offset + Start + First, TSeekOrigin::soBeginning);
  const int64_t end = Start + Len;
  // Two spare zero bytes behind the block, so a header word read at its very end is
  // defined; the scan itself only trusts what was read.
  std::vector<uint8_t> work(kScanBlock + 4, 0);
  uint8_t* const buf = work.data();
  int32_t total = 0;  // bytes held in buf
  int32_t pos = 0;    // where the next frame is looked for in buf
  bool drained = false;
  // Makes at least Need bytes from pos available unless the data ends first: what is
  // left of the block moves to the front and the rest is read behind it. A frame that
  // ends past what was read (variable bit rate) has its unread part stepped over.
  const auto fill = [&](int32_t Need) {
    if (pos > total) {
      Stream->Seek(pos - total, TSeekOrigin::soCurrent);
      pos = total;
    }
    if (total - pos >= Need || drained) return;
    std::memmove(buf, buf + pos, static_cast<size_t>(total - pos));
    total -= pos;
    pos = 0;
    while (total < Need) {
      const int64_t want = std::min<int64_t>(end - Stream->GetPosition(), kScanBlock - total);
      const int32_t read = want > 0 ? Stream->ReadFully(buf + total, static_cast<int32_t>(want)) : 0;
      if (read <= 0) {
        drained = true;
        return;
      }
      total += read;
    }
  };
  int64_t offset = First;
  uint16_t lastHeader = 0;
  for (;;) {
    // A short run of foreign bytes between frames is stepped over by looking for the
    // previous frame's first two header bytes within one frame's length. The whole
    // search window is read first: a run may straddle the end of a scan block.
    fill(std::min(kScanBlock, frameSize + 2));
    // A frame is taken only with more than a frame's length of data behind the last one,
    // so the very last frame of the data, with nothing behind it, is not.
    if (lastHeader != 0 && drained && total - pos < frameSize + 1) break;
    if (lastHeader != 0) {
      for (int32_t i = 0; i <= frameSize && pos + i + 2 <= total; ++i) {
        if (Word16(buf + pos + i) == lastHeader) {
          pos += i;
          offset += i;
          break;
        }
      }
    }
    fill(4);
    frames.push_back(offset);
    frameSize = pos + 4 <= total ? UMp3::GetMP3FrameSize(buf + pos) : 0;
    if (frameSize <= 0) break;
    lastHeader = Word16(buf + pos);
    pos += frameSize;
    offset += frameSize;
  }
  // A tag that counts one frame more vouches for the last one, which the walk leaves out.
  if (Count > 0 && static_cast<int64_t>(frames.size()) + 1 == Count && frames.size() >= 2) {
    const int64_t last = frames.back() + (frames.back() - frames[frames.size() - 2]);
    uint8_t header[4];
    Stream->Seek(Info.Offset + Start + frames.back(), TSeekOrigin::soBeginning);
    const int32_t size = Stream->ReadFully(header, 4) == 4 ? UMp3::GetMP3FrameSize(header) : 0;
    Stream->Seek(Info.Offset + Start + frames.back() + size, TSeekOrigin::soBeginning);
    if (size > 0 && last > 0 && Stream->ReadFully(header, 4) == 4 && UMp3::GetMP3FrameSize(header) > 0) {
      frames.push_back(frames.back() + size);
    }
  }
  return frames;
}

void TMp3StreamSoundStream::BuildFrameIndex() {
  FIndexed = true;
  FFrames = IndexMp3Frames(FStream, FMp3Info, FStart, FLen, FFirst, FXing.Frames);
  if (FFrames.empty()) klLog::AddToEventLog("TMp3StreamSoundStream.Create: no MPEG audio frame found", klLog::lkError);
}

int32_t TMp3StreamSoundStream::FramesToMilliseconds(int32_t Frames) const {
  if (FWaveFormat.nSamplesPerSec == 0) return 0;
  return static_cast<int32_t>(Round(static_cast<double>(FMp3Info.SamplesPerFrame) /
                                    static_cast<double>(FWaveFormat.nSamplesPerSec) * Frames * 1000));
}

int32_t TMp3StreamSoundStream::GetLength() {
  return FramesToMilliseconds(FXing.Frames > 0 ? FXing.Frames : static_cast<int32_t>(FFrames.size()));
}

int32_t TMp3StreamSoundStream::GetPosition() { return FPosition; }

void TMp3StreamSoundStream::SetPosition(int32_t Ms) {
  Ms = std::max(0, Ms);
  if (FMp3Info.SamplesPerFrame == 0 || Frames().empty() || !FBuffer) return;
  int64_t frame = Round(Ms / 1000.0 * FWaveFormat.nSamplesPerSec) / FMp3Info.SamplesPerFrame;
  frame = std::min<int64_t>(static_cast<int64_t>(FFrames.size()) - 1, frame);
  const size_t target = static_cast<size_t>(frame);
  // A frame's sound data may begin in the frames before it (the bit reservoir: up to
  // 511 bytes back, 255 for MPEG-2), and its first samples overlap the previous frame's
  // last: those frames go through the decoder first, their sound is dropped.
  const int64_t reach = FMp3Info.Version == 1 ? 511 : 255;
  const int64_t overhead = 4 + (FMp3Info.Version == 1 ? (FMp3Info.Channels == 2 ? 32 : 17)
                                                      : (FMp3Info.Channels == 2 ? 17 : 9));
  size_t first = target;
  for (int64_t data = 0; first > 0 && target - first < 64 && data < reach;) {
    --first;
    data += std::max<int64_t>(0, FFrames[first + 1] - FFrames[first] - overhead);
  }
  if (first > 0 && first < target) --first;
  FStream->Seek(FFrames[first], TSeekOrigin::soBeginning);
  const int64_t lead = FFrames[target] - FFrames[first];
  if (lead > 0 && lead <= kScanBlock) {
    std::vector<uint8_t> frames(static_cast<size_t>(lead));
    const int32_t read = FStream->ReadFully(frames.data(), static_cast<int32_t>(lead));
    if (read > 0) FConverter->Write(frames.data(), read);
  }
  FBuffer->Clear();
  FStream->Seek(FFrames[target], TSeekOrigin::soBeginning);
  FPosition = FramesToMilliseconds(static_cast<int32_t>(frame));
}

int32_t TMp3StreamSoundStream::BytesForPcm(const uint8_t* Data, int32_t Size, int32_t PcmBytes) const {
  const int32_t perFrame = FMp3Info.SamplesPerFrame * FWaveFormat.nBlockAlign;
  // The first header in the block (the data is read frame by frame, so normally at 0).
  int32_t at = 0;
  while (at + 4 <= Size && UMp3::GetMP3FrameSize(Data + at) <= 0) ++at;
  if (at + 4 > Size || perFrame <= 0) return Size;
  int32_t boundary = 0;
  for (int32_t pcm = 0; pcm < PcmBytes && at + 4 <= Size;) {
    const int32_t frame = UMp3::GetMP3FrameSize(Data + at);
    if (frame <= 0 || at + frame > Size) break;
    at += frame;
    pcm += perFrame;
    boundary = at;
  }
  // Whole frames only, so that the next read starts on a header; a frame larger than
  // what is left of the block goes whole.
  return boundary > 0 ? boundary : Size;
}

int32_t TMp3StreamSoundStream::GetWavData(void* Buffer, int32_t Size) {
  // Without a single frame header there is nothing the decoder could make sense of
  // (and it would complain about the format on every call).
  if (Buffer == nullptr || Size < 1 || !FConverter || !FBuffer || UMp3::GetMP3FrameSize(FMp3Info, false) < 1) return 0;
  int64_t remaining = (FStart + FLen) - FStream->GetPosition();
  if (remaining <= 0) return 0;
  uint8_t block[kDecodeBlock];
  while (Size > FBuffer->GetSizeToRead()) {
    if (remaining <= 0) break;
    const int64_t at = FStream->GetPosition();
    const int32_t read = FStream->ReadFully(block, static_cast<int32_t>(std::min<int64_t>(remaining, kDecodeBlock)));
    // A source shorter than its declared length ends here.
    if (read <= 0) break;
    // No more source than the request needs: what the decoder makes of the last
    // bytes has to fit in the last request.
    const int32_t take = BytesForPcm(block, read, Size - FBuffer->GetSizeToRead());
    if (take < read) FStream->Seek(at + take, TSeekOrigin::soBeginning);
    if (!FConverter->Write(block, take)) break;
    remaining -= take;
  }
  return FBuffer->Read(Buffer, std::min(FBuffer->GetSizeToRead(), Size));
}

WAVEFORMATEX TMp3StreamSoundStream::GetWaveFormat() { return FWaveFormat; }

// --- TMp3FileSoundStream --------------------------------------------------------------

TMp3FileSoundStream::TMp3FileSoundStream(const std::string& FileName)
    : FFileStream(std::make_unique<TFileStream>(FileName, fmOpenRead | fmShareDenyWrite)) {
  FMp3Stream = new TMp3StreamSoundStream(FFileStream.get(), 0, 0);
}

TMp3FileSoundStream::~TMp3FileSoundStream() {
  // The decoder reads the file: it goes first.
  FMp3Stream.Reset();
  FFileStream.reset();
}

int32_t TMp3FileSoundStream::GetPosition() { return FMp3Stream->GetPosition(); }
void TMp3FileSoundStream::SetPosition(int32_t Ms) { FMp3Stream->SetPosition(Ms); }
int32_t TMp3FileSoundStream::GetLength() { return FMp3Stream->GetLength(); }
int32_t TMp3FileSoundStream::GetWavData(void* Buffer, int32_t Size) { return FMp3Stream->GetWavData(Buffer, Size); }
WAVEFORMATEX TMp3FileSoundStream::GetWaveFormat() { return FMp3Stream->GetWaveFormat(); }

// --- TFinishingSoundStream -----------------------------------------------------------

void TFinishingSoundStream::SetPosition(int32_t Ms) {
  FEnded = false;
  FInner->SetPosition(Ms);
}

int32_t TFinishingSoundStream::GetWavData(void* Buffer, int32_t Size) {
  const int32_t n = FInner->GetWavData(Buffer, Size);
  if (n <= 0 && Buffer != nullptr && Size > 0) FEnded = true;
  return n;
}

// --- TWavPipeSoundStream --------------------------------------------------------------

TWavPipeSoundStream::TWavPipeSoundStream(const WAVEFORMATEX& Format, UPipe::INamedPipe2* Pipe)
    : FPipe(Pipe), FWaveFormat(Format), FFinished(std::make_shared<std::atomic<bool>>(false)) {
  // The pipe calls a copy of its handler outside its lock, so the handler may still run
  // after this stream has gone: it holds the flag, not the stream.
  if (FPipe) {
    std::shared_ptr<std::atomic<bool>> finished = FFinished;
    FPipe->SetOnDisconnect([finished](void*) { finished->store(true); });
  }
}

TWavPipeSoundStream::~TWavPipeSoundStream() {
  // The pipe may outlive this stream and be handed to another reader.
  if (FPipe) FPipe->SetOnDisconnect(nullptr);
}

int32_t TWavPipeSoundStream::GetPosition() { return FPosition; }

void TWavPipeSoundStream::SetPosition(int32_t Ms) { FPosition = std::max(0, Ms); }

int32_t TWavPipeSoundStream::GetLength() { return FLength; }

int32_t TWavPipeSoundStream::GetWavData(void* Buffer, int32_t Size) {
  if (!FPipe || Buffer == nullptr || Size < 1) return 0;
  return FPipe->Read(Buffer, Size);
}

WAVEFORMATEX TWavPipeSoundStream::GetWaveFormat() { return FWaveFormat; }

bool TWavPipeSoundStream::GetFinished() {
  if (!FFinished->load()) return false;
  // The last bytes may have been queued between the reader's empty read and this call.
  return !FPipe || FPipe->GetSizeToRead() == 0;
}

void TWavPipeSoundStream::OnDisconnect(void* /*Sender*/) { FFinished->store(true); }

}  // namespace kl::USoundStreams
