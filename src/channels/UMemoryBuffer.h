// Read-ahead over a byte range of a stream: a background thread fills two blocks that
// circulate between it and the consumer, so that the consumer rarely waits for the
// disk. A seek bumps a generation number; blocks filled for an older position are
// recognised by it and sent back to be filled again.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "channels/UPipe.h"
#include "rtl/Classes.h"
#include "rtl/Threads.h"

namespace kl::UMemoryBuffer {

// One block of memory with its fill level and read position, stamped with the range
// offset it is to be filled from and the generation it was sent out in.
class TMemoryBlock {
 public:
  explicit TMemoryBlock(int32_t Size);
  TMemoryBlock(const TMemoryBlock&) = delete;
  TMemoryBlock& operator=(const TMemoryBlock&) = delete;

  // Marks the block as holding Count bytes (clamped to 0..Size), none of them read.
  void Filled(int32_t Count);
  bool GetEmpty() const { return ReadPos >= DataSize; }
  int32_t GetSizeOfRemaining() const { return DataSize - ReadPos; }
  uint8_t* GetStartOfData() { return Data.get() + ReadPos; }
  uint8_t* GetEndOfData() { return Data.get() + DataSize; }
  // Copies up to Count unread bytes out; 0 for a null buffer or Count < 1.
  int32_t Read(void* Buffer, int32_t Count);
  // Appends up to Count bytes, as many as fit; 0 for a null buffer or Count < 1.
  int32_t Write(const void* Buffer, int32_t Count);
  // Moves the unread bytes to the start of the block.
  void CopyRemainingToBegin();

  int32_t Size;
  int32_t DataSize = 0;
  int32_t ReadPos = 0;
  std::unique_ptr<uint8_t[]> Data;
  // Offset in the range to fill from; -1: go on from where the stream stands.
  int64_t Position = -1;
  int32_t Generation = 0;
};

using TBlockPtr = std::unique_ptr<TMemoryBlock>;

// The reader thread. It owns the stream's position while it runs: blocks handed to
// FillBlock come back, in the same order, from GetFilledBlock. A block filled with
// nothing marks the end of the range.
class TReadStream : public TThread {
 public:
  // Raises EklException "TReadStream.Create: invalid params" for a null stream or a
  // negative Start or Size; starts at once otherwise.
  TReadStream(TStream* Stream, int64_t Start, int64_t Size);
  ~TReadStream() override;

  // Queues the block to be filled; false for a null block.
  bool FillBlock(TBlockPtr Block);
  // The oldest filled block, or null.
  TBlockPtr GetFilledBlock();
  // True once the body has left its loop.
  bool Finished() const { return FFinished.load(); }

 protected:
  void Execute() override;

 private:
  void Fill(TMemoryBlock& Block);

  std::atomic<bool> FFinished{false};
  std::vector<TBlockPtr> FBlocksToFill;
  std::vector<TBlockPtr> FFilledBlocks;
  TStream* FStream;
  int64_t FStart;
  int64_t FSize;
  bool FWarned = false;
};

// The consumer's side: reads the range [Start, Start + Size) of Stream from a
// position that SetPosition may move. One thread calls Read and SetPosition; the
// stream belongs to the reader thread until the buffer is destroyed.
class TMemoryBuffer {
 public:
  // Raises EklException for a null stream, a negative Start or Size, or BlockSize < 1.
  TMemoryBuffer(TStream* Stream, int64_t Start, int64_t Size, int32_t BlockSize);
  ~TMemoryBuffer();
  TMemoryBuffer(const TMemoryBuffer&) = delete;
  TMemoryBuffer& operator=(const TMemoryBuffer&) = delete;

  // Copies up to Count bytes from the current position; fewer (0 at the end) past the
  // end of the range. Raises EklException "TMemoryBuffer.Read timeout" when the
  // reader thread has delivered nothing for 15 seconds.
  int32_t Read(void* Buffer, int32_t Count);
  // Moves the position to Pos bytes after the range start; negative values are ignored.
  void SetPosition(int64_t Pos);

  void SendBlockToThread(TBlockPtr Block);
  // Returns every held block except those with unread data of the current generation.
  void SendBlocksToThread();
  // Takes the entry at Index out of the consumer's list (null when out of range).
  TBlockPtr DeleteBlock(int32_t Index);

 private:
  std::vector<TBlockPtr> FBlocks;
  int64_t FPosition = -1;
  std::unique_ptr<TReadStream> FThread;
  int32_t FGeneration = 1;
};

// A block queue for a single thread: no lock, no interface, no logging.
class TPipe {
 public:
  explicit TPipe(int32_t BlockSize) : FQueue(BlockSize) {}
  // True for Count 0 (nothing to do); false for a null buffer or a negative count.
  bool Write(const void* Buffer, int32_t Count);
  // 0 for a null buffer or Count < 1.
  int32_t Read(void* Buffer, int32_t Count);
  void Clear() { FQueue.Clear(); }
  int32_t GetSizeToRead() const { return FQueue.DataSize(); }
  int32_t GetBlockCount() const { return FQueue.BlockCount(); }

 private:
  UPipe::TBlockQueue FQueue;
};

}  // namespace kl::UMemoryBuffer
