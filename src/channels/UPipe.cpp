#include "channels/UPipe.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <limits>
#include <mutex>

#include "diagnostics/klLog.h"
#include "rtl/SysUtils.h"

namespace kl::UPipe {

namespace {

// Stream and pipe transfers move data through a staging buffer of this size.
constexpr int32_t kStagingSize = 4096;

using TGuard = std::lock_guard<TCriticalSection>;

std::string ExceptionText(std::exception_ptr E) {
  try {
    std::rethrow_exception(E);
  } catch (const std::exception& e) {
    return e.what();
  } catch (...) {
    return "unknown error";
  }
}

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
