#include "playback/USoundStreams.h"

#include <algorithm>
#include <climits>
#include <cstring>

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
  WAVEFORMATEX r{};
  std::memcpy(&r, FWavFile->Format(), sizeof r);
  return r;
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
