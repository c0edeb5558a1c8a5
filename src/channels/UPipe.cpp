#include "channels/UPipe.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <limits>
#include <mutex>
#include <random>
#include <string>

#include "diagnostics/klLog.h"
#include "rtl/SysUtils.h"

namespace kl::UPipe {

namespace {

// Stream and pipe transfers move data through a staging buffer of this size.
constexpr int32_t kStagingSize = 4096;

using TGuard = std::lock_guard<TCriticalSection>;

}  // namespace

// --- TBlockQueue --------------------------------------------------------------------

TBlockQueue::TBlockQueue(int32_t BlockSize) : FBlockSize(BlockSize > 0 ? BlockSize : 4096) {
  Append();
}

void TBlockQueue::Append() {
  // Not value-initialised: every byte is written before it is read.
  std::unique_ptr<uint8_t[]> block(new uint8_t[static_cast<size_t>(FBlockSize)]);
  if (FCount == FBlocks.size()) {
    // Full ring: lay the blocks out again in queue order in twice the slots.
    std::vector<std::unique_ptr<uint8_t[]>> slots(std::max<size_t>(1, FBlocks.size() * 2));
    for (size_t i = 0; i < FCount; ++i) slots[i] = std::move(FBlocks[Slot(i)]);
    FBlocks.swap(slots);
    FHead = 0;
  }
  FBlocks[Slot(FCount)] = std::move(block);
  ++FCount;
}

void TBlockQueue::UsedUpFirst() {
  // Block 0 goes behind the last block.
  const size_t tail = Slot(FCount);
  if (tail != FHead) FBlocks[tail] = std::move(FBlocks[FHead]);
  FHead = (FHead + 1) % FBlocks.size();
}

bool TBlockQueue::Write(const void* Buffer, int32_t Count) {
  if (Buffer == nullptr || Count < 1) return false;
  if (Count > std::numeric_limits<int32_t>::max() - FDataSize) return false;
  int64_t w = static_cast<int64_t>(FReadPos) + FDataSize;
  size_t i = static_cast<size_t>(w / FBlockSize);
  // Deliberately one block more when the data ends exactly on a block boundary.
  const size_t needed = static_cast<size_t>((w + Count) / FBlockSize + 1);
  while (FCount < needed) Append();
  const uint8_t* src = static_cast<const uint8_t*>(Buffer);
  int32_t left = Count;
  while (left > 0) {
    const int32_t offset = static_cast<int32_t>(w % FBlockSize);
    const int32_t n = std::min(FBlockSize - offset, left);
    std::memcpy(At(i) + offset, src, static_cast<size_t>(n));
    FDataSize += n;
    w += n;
    src += n;
    left -= n;
    ++i;
  }
  return true;
}

int32_t TBlockQueue::Read(void* Buffer, int32_t Count) {
  uint8_t* dst = static_cast<uint8_t*>(Buffer);
  if (dst == nullptr) return Drain(Count, [](const uint8_t*, int32_t) {});
  return Drain(Count, [&dst](const uint8_t* Data, int32_t Size) {
    std::memcpy(dst, Data, static_cast<size_t>(Size));
    dst += Size;
  });
}

const uint8_t* TBlockQueue::Block(int32_t Index) const {
  if (Index < 0 || static_cast<size_t>(Index) >= FCount) return nullptr;
  return At(static_cast<size_t>(Index));
}

// --- TPipe --------------------------------------------------------------------------

TPipe::TPipe(int32_t BlockSize) : FQueue(BlockSize) {}

bool STDMETHODCALLTYPE TPipe::Write(const void* Buffer, int32_t Count) {
  if (Buffer == nullptr || Count <= 0) {
    // The address goes out as a 32-bit number, as the log has always shown it.
    klLog::AddToEventLog(Format("TPipe.Write: data: %d, DataSize: %d",
                                static_cast<int32_t>(reinterpret_cast<intptr_t>(Buffer)), Count),
                         klLog::lkError);
    return false;
  }
  TGuard guard(FLock);
  if (!FQueue.Write(Buffer, Count)) {
    klLog::AddToEventLog(Format("TPipe.Write: DataSize + Count > MaxInt, DataSize: %d, Count: %d",
                                FQueue.DataSize(), Count),
                         klLog::lkError);
    return false;
  }
  return true;
}

int32_t STDMETHODCALLTYPE TPipe::Read(void* Buffer, int32_t Count) {
  if (Count < 1) return 0;
  TGuard guard(FLock);
  return FQueue.Read(Buffer, Count);
}

void STDMETHODCALLTYPE TPipe::Clear() {
  TGuard guard(FLock);
  FQueue.Clear();
}

int32_t STDMETHODCALLTYPE TPipe::GetSizeToRead() {
  TGuard guard(FLock);
  return FQueue.DataSize();
}

void STDMETHODCALLTYPE TPipe::Lock() { FLock.Enter(); }

void STDMETHODCALLTYPE TPipe::Unlock() { FLock.Leave(); }

int32_t STDMETHODCALLTYPE TPipe::ReadFromStream(TStream* Stream, int32_t Count) {
  if (Stream == nullptr || Count < 1) return 0;
  TGuard guard(FLock);
  uint8_t buf[kStagingSize];
  int32_t left = Count;
  int32_t total = 0;
  while (left > 0) {
    const int32_t want = std::min(left, kStagingSize);
    // A stream that claims more than it was asked for gets believed only that far.
    const int32_t got = std::min(Stream->Read(buf, want), want);
    if (got < 1) break;
    Write(buf, got);
    left -= got;
    total += got;
  }
  return total;
}

int32_t STDMETHODCALLTYPE TPipe::ReadFromFile(const std::string& FileName, int32_t Count, int64_t Position) {
  if (Count < 1 || Position < 0 || !FileExists(FileName)) return 0;
  int32_t result = 0;
  try {
    TFileStream stream(FileName, fmOpenRead | fmShareDenyWrite);
    if (stream.GetSize() > Position) {
      stream.SetPosition(Position);
      result = ReadFromStream(&stream, Count);
    }
  } catch (...) {
    klLog::AddToEventLog("TPipe.ReadFrom: " + ExceptionText(std::current_exception()), klLog::lkError);
  }
  return result;
}

int32_t STDMETHODCALLTYPE TPipe::WriteToStream(TStream* Stream, int32_t Count) {
  if (Stream == nullptr || Count < 1) return 0;
  TGuard guard(FLock);
  if (FQueue.DataSize() == 0) return 0;
  // Each span goes to the stream straight from the block that holds it; a span is
  // taken from the pipe once the stream has had it, whatever the stream made of it.
  int32_t left = Count;
  int32_t total = 0;
  while (left > 0) {
    const int32_t n = FQueue.Drain(left, [Stream](const uint8_t* Data, int32_t Size) { Stream->Write(Data, Size); });
    if (n < 1) break;
    left -= n;
    total += n;
  }
  return total;
}

int32_t STDMETHODCALLTYPE TPipe::WriteToFile(const std::string& FileName, int32_t Count, bool Append) {
  if (Count <= 0 || GetSizeToRead() == 0 || FileName.empty()) return 0;
  int32_t result = 0;
  try {
    TFileStream stream(FileName, FileExists(FileName) ? static_cast<uint16_t>(fmOpenReadWrite | fmShareDenyWrite)
                                                      : static_cast<uint16_t>(fmCreate | fmShareDenyWrite));
    if (Append) stream.Seek(0, TSeekOrigin::soEnd);
    result = WriteToStream(&stream, Count);
    // Replacing means nothing of a longer old file may remain behind the new data.
    if (!Append) stream.SetSize(stream.GetPosition());
  } catch (...) {
    klLog::AddToEventLog("TPipe.WriteTo: " + ExceptionText(std::current_exception()), klLog::lkError);
  }
  return result;
}

int32_t STDMETHODCALLTYPE TPipe::ReadFromPipe(IPipe* Pipe, int32_t Count) {
  if (Pipe == nullptr || Count < 1) return 0;
  int32_t n = std::min(Count, Pipe->GetSizeToRead());
  TGuard guard(FLock);
  uint8_t buf[kStagingSize];
  int32_t total = 0;
  // Runs once even for an empty source: the zero-length Write that follows logs,
  // which has long been how an empty hand-over shows up in the log.
  do {
    const int32_t m = std::min(kStagingSize, n);
    const int32_t got = Pipe->Read(buf, m);
    // Another reader may have emptied the source meanwhile; the step still counts
    // m bytes, so the missing ones are zeros rather than stale stack contents.
    if (got < m) std::memset(buf + std::max(got, 0), 0, static_cast<size_t>(m - std::max(got, 0)));
    Write(buf, m);
    n -= m;
    total += m;
  } while (n > 0);
  return total;
}

int32_t STDMETHODCALLTYPE TPipe::WriteToPipe(IPipe* Pipe, int32_t Count) {
  if (Pipe == nullptr || Count < 1) return 0;
  int32_t n = std::min(Count, GetSizeToRead());
  TGuard guard(FLock);
  uint8_t buf[kStagingSize];
  int32_t total = 0;
  do {
    const int32_t m = std::min(kStagingSize, n);
    const int32_t got = Read(buf, m);
    if (got < m) std::memset(buf + got, 0, static_cast<size_t>(m - got));
    Pipe->Write(buf, m);
    n -= m;
    total += m;
  } while (n > 0);
  return total;
}

int32_t TPipe::GetBlockSize() { return FQueue.BlockSize(); }

int32_t TPipe::GetBlockCount() {
  TGuard guard(FLock);
  return FQueue.BlockCount();
}

int32_t TPipe::GetReadPos() {
  TGuard guard(FLock);
  return FQueue.ReadPos();
}

const void* TPipe::GetBlock(int32_t Index) {
  TGuard guard(FLock);
  return FQueue.Block(Index);
}

// --- TPipeStream --------------------------------------------------------------------

TPipeStream::TPipeStream() : FPipe(new TPipe(4096)) {}

int32_t TPipeStream::Read(void* Buffer, int32_t Count) {
  if (Count < 0) return 0;
  const int32_t n = static_cast<int32_t>(std::min<int64_t>(Count, GetSize()));
  FPipe->Read(Buffer, n);
  return n;
}

int32_t TPipeStream::Write(const void* Buffer, int32_t Count) {
  FPipe->Write(Buffer, Count);
  return Count < 0 ? 0 : Count;
}

int64_t TPipeStream::Seek(int64_t, TSeekOrigin Origin) {
  return Origin == TSeekOrigin::soEnd ? FPipe->GetSizeToRead() : 0;
}

int64_t TPipeStream::GetSize() { return FPipe->GetSizeToRead(); }

void TPipeStream::SetSize(int64_t) {}

}  // namespace kl::UPipe

// --- TReadPipeThread ----------------------------------------------------------------

namespace kl::UPipe {

namespace {
constexpr int32_t kNamedPipeBlockSize = 131072;
constexpr DWORD kReadPieceSize = 40960;
const char kPipePrefix[] = "\\\\.\\pipe\\";
}  // namespace

TReadPipeThread::TReadPipeThread(HANDLE Handle, int32_t BufferLevel, int32_t Interval, ComPtr<IPipe> Pipe)
    : TThread(true), Pipe(std::move(Pipe)), FHandle(Handle), BufferLevel(BufferLevel), Interval(Interval) {}

TReadPipeThread::~TReadPipeThread() { TerminateAndWait(); }

void TReadPipeThread::SetBufferLevel(int32_t Level) { BufferLevel.store(std::max(1, Level)); }

void TReadPipeThread::ProcessOnConnect() {
  if (OnConnect) OnConnect(this);
}

void TReadPipeThread::ProcessOnDisconnect() {
  if (OnDisconnect) OnDisconnect(this);
}

void TReadPipeThread::Execute() {
  try {
    if (!Pipe) {
      klLog::AddToEventLog("TReadPipeThread.Execute: Не создан буфер для Pipe", klLog::lkError);
      return;
    }
    if (FHandle == INVALID_HANDLE_VALUE || FHandle == nullptr) {
      klLog::AddToEventLog("TReadPipeThread.Execute: Неверный дескриптор Pipe", klLog::lkError);
      return;
    }
    Listening.store(true);
    if (!ConnectNamedPipe(FHandle, nullptr)) {
      klLog::AddToEventLog("TReadPipeThread.Execute: ConnectNamedPipe failed", klLog::lkWarning);
      return;
    }
    ProcessOnConnect();
    std::unique_ptr<uint8_t[]> buffer(new uint8_t[kReadPieceSize]);
    bool peeked = false;
    for (;;) {
      if (Terminated()) return;  // asked to stop: no disconnect event
      Sleep(0);
      if (Pipe->GetSizeToRead() >= BufferLevel.load()) {
        // The consumer is behind: wait for it instead of growing the queue.
        Sleep(static_cast<DWORD>(Interval));
        continue;
      }
      DWORD available = 0;
      if (!PeekNamedPipe(FHandle, nullptr, 0, nullptr, &available, nullptr)) {
        if (peeked && GetLastError() == ERROR_BROKEN_PIPE) break;
        continue;
      }
      peeked = true;
      if (available == 0) continue;
      DWORD got = 0;
      if (!ReadFile(FHandle, buffer.get(), std::min(available, kReadPieceSize), &got, nullptr)) {
        if (GetLastError() == ERROR_BROKEN_PIPE) break;
        continue;
      }
      if (got == 0) continue;
      Pipe->Write(buffer.get(), static_cast<int32_t>(got));
      if (OnData) OnData(this);
    }
    ProcessOnDisconnect();
  } catch (...) {
    klLog::AddToEventLog("TReadPipeThread.Execute: " + ExceptionText(std::current_exception()), klLog::lkError);
  }
}

// --- TNamedPipe ---------------------------------------------------------------------

HANDLE TNamedPipe::CreateInstance(const std::string& PipeName) {
  // Duplex and overlapped as the clients (ffmpeg among them) expect; one instance so
  // that a second server of the same name fails and takes a numbered name instead.
  return CreateNamedPipeA(PipeName.c_str(), PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED, 0, 1, 4096, 4096, 0, nullptr);
}

TNamedPipe::TNamedPipe(const std::string& AName, int32_t AInterval) : Interval(std::max(0, AInterval)) {
  std::string base = AName;
  if (CompareStringA(LOCALE_INVARIANT, NORM_IGNORECASE, base.c_str(), static_cast<int>(std::min(base.size(), sizeof(kPipePrefix) - 1)),
                     kPipePrefix, static_cast<int>(sizeof(kPipePrefix) - 1)) != CSTR_EQUAL) {
    base = kPipePrefix + base;
  }
  Name = base;
  Pipe = MakeInterface<IPipe, TPipe>(kNamedPipeBlockSize);
  if (!Pipe) throw std::bad_alloc();
  FHandle.Reset(CreateInstance(Name));
  if (!FHandle) {
    klLog::AddToEventLog("TNamedPipe.Create: Не удалось создать PIPE " + AName, klLog::lkWarning);
    std::random_device seed;
    std::mt19937 random(seed());
    std::uniform_int_distribution<int> number(0, 99999);
    // A name can be refused for reasons no number cures (a bad character, no
    // resources): give up after many tries rather than spin for ever.
    for (int attempt = 0; attempt < 100000 && !FHandle; ++attempt) {
      Name = base + std::to_string(number(random));
      FHandle.Reset(CreateInstance(Name));
    }
    if (!FHandle) Name = base;
  }
  FThread.reset(new TReadPipeThread(FHandle.Get(), 0x10000, Interval, Pipe));
  FThread->OnConnect = [this](void* Sender) { InnerOnConnect(Sender); };
  FThread->OnData = [this](void* Sender) { InnerOnData(Sender); };
  FThread->OnDisconnect = [this](void* Sender) { InnerOnDisconnect(Sender); };
  FThread->Start();
  const ULONGLONG start = GetTickCount64();
  while (!FThread->Finished() && !FThread->GetListening() && GetTickCount64() - start < 5000) Sleep(1);
}

TNamedPipe::~TNamedPipe() {
  FThread->Terminate();
  if (FHandle) DisconnectNamedPipe(FHandle.Get());
  if (GetCurrentThreadId() == FThread->ThreadID()) {
    // Released from one of its own events: the reader thread cannot wait for itself.
    // Terminated, it returns from the event straight out of its body, touching neither
    // this object nor the pipe handle, and then frees itself.
    if (FThread->FreeOnExit()) (void)FThread.release();
  } else {
    ReleaseListener();
    FThread.reset();
  }
}

void TNamedPipe::ReleaseListener() {
  // A thread still blocked in ConnectNamedPipe would keep the destructor waiting for
  // a client that may never come: cancel its wait, and connect to the pipe ourselves
  // where cancelling is not supported. The thread then sees the termination request.
  if (!FHandle) return;
  const ULONGLONG start = GetTickCount64();
  while (!FThread->Finished() && GetTickCount64() - start < 10000) {
    if (FThread->GetListening()) {
      CancelSynchronousIo(FThread->Handle());
      HANDLE client = CreateFileA(Name.c_str(), GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
      if (client != INVALID_HANDLE_VALUE) CloseHandle(client);
    }
    WaitForSingleObject(FThread->Handle(), 20);
  }
}

int32_t STDMETHODCALLTYPE TNamedPipe::Read(void* Buffer, int32_t Count) {
  const int32_t n = std::min(GetSizeToRead(), Count);
  if (n < 1) return 0;
  return Pipe->Read(Buffer, n);
}

int32_t STDMETHODCALLTYPE TNamedPipe::Write(const void* /*Buffer*/, int32_t /*Count*/) { return 0; }

std::string STDMETHODCALLTYPE TNamedPipe::GetName() { return Name; }

int32_t STDMETHODCALLTYPE TNamedPipe::GetSizeToRead() { return Pipe->GetSizeToRead(); }

bool STDMETHODCALLTYPE TNamedPipe::GetConnected() { return Connected.load(); }

bool STDMETHODCALLTYPE TNamedPipe::GetDisconnected() { return Disconnected.load(); }

int32_t STDMETHODCALLTYPE TNamedPipe::GetBufferLevel() { return FThread->GetBufferLevel(); }

void STDMETHODCALLTYPE TNamedPipe::SetBufferLevel(int32_t Level) { FThread->SetBufferLevel(Level); }

std::string STDMETHODCALLTYPE TNamedPipe::GetText() {
  std::string s;
  Pipe->Lock();
  // Unlocked on every way out: the resize may throw.
  struct TUnlock {
    IPipe* P;
    ~TUnlock() { P->Unlock(); }
  } unlock{Pipe.Get()};
  s.resize(static_cast<size_t>(Pipe->GetSizeToRead()));
  s.resize(static_cast<size_t>(Pipe->Read(s.data(), static_cast<int32_t>(s.size()))));
  return s;
}

bool STDMETHODCALLTYPE TNamedPipe::WaitForData(int32_t Size, uint32_t Timeout) {
  // The reader must not stop short of the amount awaited.
  FThread->SetBufferLevel(std::max(FThread->GetBufferLevel(), Size));
  const DWORD start = GetTickCount();
  for (;;) {
    if (GetSizeToRead() >= Size) return true;
    if (Disconnected.load()) {
      klLog::AddToEventLog("TNamedPipe.WaitForData: Disconnected", klLog::lkWarning);
      return false;
    }
    Sleep(static_cast<DWORD>(Interval));
    if (GetTickCount() - start > Timeout) break;
  }
  klLog::AddToEventLog(Format("TNamedPipe.WaitForData: Timeout - Size: %d  DataSize: %d", GetSizeToRead(), Size),
                       klLog::lkWarning);
  return false;
}

TPipeEvent STDMETHODCALLTYPE TNamedPipe::GetOnConnect() {
  TGuard guard(FEventLock);
  return OnConnect;
}
TPipeEvent STDMETHODCALLTYPE TNamedPipe::GetOnData() {
  TGuard guard(FEventLock);
  return OnData;
}
TPipeEvent STDMETHODCALLTYPE TNamedPipe::GetOnDisconnect() {
  TGuard guard(FEventLock);
  return OnDisconnect;
}
void STDMETHODCALLTYPE TNamedPipe::SetOnConnect(TPipeEvent Value) {
  TGuard guard(FEventLock);
  OnConnect = std::move(Value);
}
void STDMETHODCALLTYPE TNamedPipe::SetOnDisconnect(TPipeEvent Value) {
  TGuard guard(FEventLock);
  OnDisconnect = std::move(Value);
}
void STDMETHODCALLTYPE TNamedPipe::SetOnData(TPipeEvent Value) {
  TGuard guard(FEventLock);
  OnData = std::move(Value);
}

void TNamedPipe::InnerOnConnect(void* /*Sender*/) {
  Connected.store(true);
  TPipeEvent handler = GetOnConnect();
  if (handler) handler(this);
}

void TNamedPipe::InnerOnData(void* /*Sender*/) {
  TPipeEvent handler = GetOnData();
  if (handler) handler(this);
}

void TNamedPipe::InnerOnDisconnect(void* /*Sender*/) {
  Disconnected.store(true);
  TPipeEvent handler = GetOnDisconnect();
  if (handler) handler(this);
}

}  // namespace kl::UPipe
