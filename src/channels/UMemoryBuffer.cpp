#include "channels/UMemoryBuffer.h"

#include <windows.h>

#include <algorithm>
#include <cstring>
#include <exception>
#include <mutex>

#include "diagnostics/klLog.h"
#include "rtl/SysUtils.h"

namespace kl::UMemoryBuffer {

namespace {

// Guards the two lists of every reader thread.
TCriticalSection& ListsLock() {
  static TCriticalSection lock;
  return lock;
}

using TGuard = std::lock_guard<TCriticalSection>;

// Only two blocks exist per buffer; lists reserved for both never reallocate.
constexpr size_t kBlocksPerBuffer = 2;
constexpr ULONGLONG kReadTimeoutMs = 15000;

}  // namespace

// --- TMemoryBlock -------------------------------------------------------------------

TMemoryBlock::TMemoryBlock(int32_t Size)
    : Size(std::max(Size, 0)), Data(new uint8_t[static_cast<size_t>(std::max(Size, 0))]) {}

void TMemoryBlock::Filled(int32_t Count) {
  ReadPos = 0;
  DataSize = std::clamp(Count, 0, Size);
}

int32_t TMemoryBlock::Read(void* Buffer, int32_t Count) {
  if (Buffer == nullptr || Count < 1) return 0;
  const int32_t n = std::min(Count, GetSizeOfRemaining());
  if (n <= 0) return 0;
  std::memcpy(Buffer, GetStartOfData(), static_cast<size_t>(n));
  ReadPos += n;
  return n;
}

int32_t TMemoryBlock::Write(const void* Buffer, int32_t Count) {
  if (Buffer == nullptr || Count < 1) return 0;
  const int32_t n = std::min(Count, Size - DataSize);
  if (n <= 0) return 0;
  std::memcpy(GetEndOfData(), Buffer, static_cast<size_t>(n));
  DataSize += n;
  return n;
}

void TMemoryBlock::CopyRemainingToBegin() {
  const int32_t n = GetSizeOfRemaining();
  if (n > 0 && ReadPos > 0) std::memmove(Data.get(), GetStartOfData(), static_cast<size_t>(n));
  DataSize = std::max(n, 0);
  ReadPos = 0;
}

// --- TReadStream --------------------------------------------------------------------

TReadStream::TReadStream(TStream* Stream, int64_t Start, int64_t Size)
    : TThread(true), FStream(Stream), FStart(Start), FSize(Size) {
  if (Stream == nullptr || Start < 0 || Size < 0) throw klLog::EklException("TReadStream.Create: invalid params");
  FBlocksToFill.reserve(kBlocksPerBuffer);
  FFilledBlocks.reserve(kBlocksPerBuffer);
  FStream->SetPosition(Start);
  TThread::Start();
}

TReadStream::~TReadStream() { TerminateAndWait(); }

bool TReadStream::FillBlock(TBlockPtr Block) {
  if (!Block) return false;
  Block->Filled(0);
  TGuard guard(ListsLock());
  FBlocksToFill.push_back(std::move(Block));
  return true;
}

TBlockPtr TReadStream::GetFilledBlock() {
  TGuard guard(ListsLock());
  if (FFilledBlocks.empty()) return nullptr;
  TBlockPtr block = std::move(FFilledBlocks.front());
  FFilledBlocks.erase(FFilledBlocks.begin());
  return block;
}

void TReadStream::Fill(TMemoryBlock& Block) {
  if (Block.Position >= 0) {
    FStream->SetPosition(FStart + Block.Position);
    FWarned = false;
  }
  const int64_t pos = FStream->GetPosition();
  int64_t n = 0;
  if (pos >= 0) n = std::max<int64_t>(0, std::min<int64_t>(FStart + FSize - pos, Block.Size));
  if (n > 0) {
    const int32_t asked = static_cast<int32_t>(n);
    const int32_t got = FStream->Read(Block.Data.get(), asked);
    if (got < asked && !FWarned) {
      // A range that runs past the stream's end: said once per position.
      FWarned = true;
      klLog::AddToEventLog(Format("Warning: TReadStream.Execute: the stream gave %d of %d bytes at %s",
                                  std::max(got, 0), asked, IntToStr(pos).c_str()),
                           klLog::lkWarning);
    }
    n = got;
  }
  Block.Filled(static_cast<int32_t>(n));
}

void TReadStream::Execute() {
  while (!Terminated()) {
    TBlockPtr block;
    {
      TGuard guard(ListsLock());
      if (!FBlocksToFill.empty()) {
        block = std::move(FBlocksToFill.front());
        FBlocksToFill.erase(FBlocksToFill.begin());
      }
    }
    if (!block) {
      Sleep(1);
      continue;
    }
    try {
      Fill(*block);
    } catch (const std::exception& e) {
      // An empty block ends the consumer's reading instead of leaving it to time out.
      klLog::AddToEventLog(std::string("TReadStream.Execute error: ") + e.what(), klLog::lkError);
      block->Filled(0);
    } catch (...) {
      klLog::AddToEventLog("TReadStream.Execute error", klLog::lkError);
      block->Filled(0);
    }
    TGuard guard(ListsLock());
    FFilledBlocks.push_back(std::move(block));
  }
  FFinished.store(true);
}

// --- TMemoryBuffer ------------------------------------------------------------------

TMemoryBuffer::TMemoryBuffer(TStream* Stream, int64_t Start, int64_t Size, int32_t BlockSize) {
  if (BlockSize < 1) throw klLog::EklException("TMemoryBuffer.Create: invalid params");
  FBlocks.reserve(kBlocksPerBuffer);
  for (size_t i = 0; i < kBlocksPerBuffer; ++i) FBlocks.push_back(std::make_unique<TMemoryBlock>(BlockSize));
  FThread = std::make_unique<TReadStream>(Stream, Start, Size);
}

TMemoryBuffer::~TMemoryBuffer() {
  FBlocks.clear();
  FThread->Terminate();
  // A reader blocked in its stream (a pipe nobody writes to) may never come back:
  // after 3 s it is left to free itself whenever the stream returns.
  const ULONGLONG start = GetTickCount64();
  while (!FThread->Finished() && !FThread->TThread::Finished()) {
    if (GetTickCount64() - start >= 3000) {
      klLog::AddToEventLog("Warning: TMemoryBuffer.Destroy: the reader thread is still blocked in its stream",
                           klLog::lkWarning);
      if (FThread->FreeOnExit()) (void)FThread.release();
      break;
    }
    Sleep(1);
  }
  FThread.reset();
}

void TMemoryBuffer::SendBlockToThread(TBlockPtr Block) {
  if (!Block) return;
  Block->Generation = FGeneration;
  // Only the first block after a seek moves the stream; the rest follow on from it.
  Block->Position = FPosition;
  FPosition = -1;
  FThread->FillBlock(std::move(Block));
}

void TMemoryBuffer::SendBlocksToThread() {
  for (int32_t i = static_cast<int32_t>(FBlocks.size()) - 1; i >= 0; --i) {
    const TMemoryBlock& block = *FBlocks[static_cast<size_t>(i)];
    if (!block.GetEmpty() && block.Generation == FGeneration) continue;
    SendBlockToThread(DeleteBlock(i));
  }
}

TBlockPtr TMemoryBuffer::DeleteBlock(int32_t Index) {
  if (Index < 0 || static_cast<size_t>(Index) >= FBlocks.size()) return nullptr;
  TBlockPtr block = std::move(FBlocks[static_cast<size_t>(Index)]);
  FBlocks.erase(FBlocks.begin() + Index);
  return block;
}

void TMemoryBuffer::SetPosition(int64_t Pos) {
  if (Pos < 0) return;
  FPosition = Pos;
  ++FGeneration;
  SendBlocksToThread();
}

int32_t TMemoryBuffer::Read(void* Buffer, int32_t Count) {
  if (Buffer == nullptr || Count < 1) return 0;
  SendBlocksToThread();
  uint8_t* dst = static_cast<uint8_t*>(Buffer);
  int32_t total = 0;
  while (total < Count) {
    const ULONGLONG waitStart = GetTickCount64();
    while (FBlocks.empty()) {
      TBlockPtr block = FThread->GetFilledBlock();
      if (!block) {
        Sleep(1);
      } else if (block->Generation != FGeneration) {
        SendBlockToThread(std::move(block));
      } else {
        FBlocks.push_back(std::move(block));
        break;
      }
      if (GetTickCount64() - waitStart > kReadTimeoutMs) throw klLog::EklException("TMemoryBuffer.Read timeout");
    }
    TMemoryBlock& first = *FBlocks.front();
    // Filled with nothing: the end of the range.
    if (first.GetEmpty()) return total;
    const int32_t n = first.Read(dst, Count - total);
    if (first.GetEmpty()) SendBlockToThread(DeleteBlock(0));
    dst += n;
    total += n;
  }
  return total;
}

// --- TPipe --------------------------------------------------------------------------

bool TPipe::Write(const void* Buffer, int32_t Count) {
  if (Count == 0) return true;
  if (Buffer == nullptr || Count < 0) return false;
  return FQueue.Write(Buffer, Count);
}

int32_t TPipe::Read(void* Buffer, int32_t Count) {
  if (Buffer == nullptr || Count < 1) return 0;
  return FQueue.Read(Buffer, Count);
}

}  // namespace kl::UMemoryBuffer
