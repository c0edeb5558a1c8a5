// In-process byte queues: a list of equal blocks that grows on demand and recycles
// used-up blocks at its tail, used between producer and consumer threads (IPipe /
// TPipe), a stream facade over such a queue (TPipeStream), and the server end of an
// inbound named pipe whose reader thread fills such a queue (TNamedPipe).
#pragma once

#include <windows.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "rtl/Classes.h"
#include "rtl/ComBase.h"
#include "rtl/Handles.h"
#include "rtl/Threads.h"

namespace kl::UPipe {

// --- TBlockQueue --------------------------------------------------------------------
// The storage behind every pipe of the library, without a lock and without logging:
// the unread bytes start at FReadPos of block 0 and run on through blocks 1, 2, ...
// Block 0 is the oldest; a used-up block 0 moves to the tail, so a steady producer and
// consumer cycle through the same memory. The list is a ring of slots (FHead is the
// slot of block 0, FCount blocks follow it) that doubles when full, so that both
// recycling and growth cost O(1) and a warm queue allocates nothing.
class TBlockQueue {
 public:
  // Makes the queue with one block. A non-positive size is taken as 4096.
  explicit TBlockQueue(int32_t BlockSize);
  TBlockQueue(const TBlockQueue&) = delete;
  TBlockQueue& operator=(const TBlockQueue&) = delete;

  // Appends Count bytes (Buffer non-null, Count > 0). Grows to
  // (write position + Count) div BlockSize + 1 blocks: one more than strictly needed
  // when the data ends on a block boundary. False, with nothing changed, when the
  // unread total would pass the 32-bit limit. Out of memory raises std::bad_alloc.
  bool Write(const void* Buffer, int32_t Count);
  // Takes up to Count bytes from the front; a null Buffer discards them.
  int32_t Read(void* Buffer, int32_t Count);
  // Takes up to Count bytes from the front, handing each contiguous span to
  // Sink(const uint8_t* Data, int32_t Size) before it is consumed: a span is gone only
  // once Sink has returned, so a throwing Sink leaves it in the queue.
  template <class TSink>
  int32_t Drain(int32_t Count, TSink&& Sink);
  // Forgets the contents, keeps every block.
  void Clear() {
    FReadPos = 0;
    FDataSize = 0;
  }

  int32_t DataSize() const { return FDataSize; }
  int32_t ReadPos() const { return FReadPos; }
  int32_t BlockSize() const { return FBlockSize; }
  int32_t BlockCount() const { return static_cast<int32_t>(FCount); }
  // Block Index in queue order (0 is the one read from); null when out of range.
  const uint8_t* Block(int32_t Index) const;

 private:
  size_t Slot(size_t Index) const { return (FHead + Index) % FBlocks.size(); }
  uint8_t* At(size_t Index) const { return FBlocks[Slot(Index)].get(); }
  void UsedUpFirst();
  void Append();

  std::vector<std::unique_ptr<uint8_t[]>> FBlocks;  // slots; empty ones are null
  size_t FHead = 0;
  size_t FCount = 0;
  int32_t FReadPos = 0;
  int32_t FDataSize = 0;
  int32_t FBlockSize;
};

template <class TSink>
int32_t TBlockQueue::Drain(int32_t Count, TSink&& Sink) {
  if (Count < 1 || FCount == 0) return 0;
  int32_t n = Count < FDataSize ? Count : FDataSize;
  int32_t total = 0;
  while (n > 0) {
    const int32_t room = FBlockSize - FReadPos;
    const int32_t m = n < room ? n : room;
    Sink(At(0) + FReadPos, m);
    FReadPos = (FReadPos + m) % FBlockSize;
    if (FReadPos == 0) UsedUpFirst();
    n -= m;
    FDataSize -= m;
    total += m;
  }
  return total;
}

// --- IPipe --------------------------------------------------------------------------
struct IPipe;

}  // namespace kl::UPipe

KL_DECLARE_IID(kl::UPipe::IPipe, "DB8D9EA8-A7C1-4766-A6E8-E03BA4860D42", 0xDB8D9EA8, 0xA7C1, 0x4766, 0xA6,
               0xE8, 0xE0, 0x3B, 0xA4, 0x86, 0x0D, 0x42)

namespace kl::UPipe {

// A byte queue shared between threads and objects by reference count.
// The vtable slots carry distinct names: a compiler may group overloaded virtual
// functions in its own order, and other binaries call these slots by position.
// The overloaded ReadFrom / WriteTo below are the names to call.
struct IPipe : public IUnknown {
  // Appends Count bytes; false (and a log line) for a null buffer or Count <= 0.
  virtual bool STDMETHODCALLTYPE Write(const void* Buffer, int32_t Count) = 0;
  // Takes up to Count bytes without waiting; a null Buffer skips them.
  virtual int32_t STDMETHODCALLTYPE Read(void* Buffer, int32_t Count) = 0;
  // Empties the pipe, keeping its memory.
  virtual void STDMETHODCALLTYPE Clear() = 0;
  virtual int32_t STDMETHODCALLTYPE GetSizeToRead() = 0;
  // Brackets several calls that must see the pipe unchanged by other threads.
  virtual void STDMETHODCALLTYPE Lock() = 0;
  virtual void STDMETHODCALLTYPE Unlock() = 0;
  virtual int32_t STDMETHODCALLTYPE ReadFromStream(TStream* Stream, int32_t Count) = 0;
  virtual int32_t STDMETHODCALLTYPE ReadFromFile(const std::string& FileName, int32_t Count, int64_t Position) = 0;
  virtual int32_t STDMETHODCALLTYPE WriteToStream(TStream* Stream, int32_t Count) = 0;
  virtual int32_t STDMETHODCALLTYPE WriteToFile(const std::string& FileName, int32_t Count, bool Append) = 0;
  virtual int32_t STDMETHODCALLTYPE ReadFromPipe(IPipe* Pipe, int32_t Count) = 0;
  virtual int32_t STDMETHODCALLTYPE WriteToPipe(IPipe* Pipe, int32_t Count) = 0;

  // Fills the pipe with up to Count bytes from the stream's current position.
  int32_t ReadFrom(TStream* Stream, int32_t Count) { return ReadFromStream(Stream, Count); }
  // Fills the pipe with up to Count bytes of the file from byte Position.
  int32_t ReadFrom(const std::string& FileName, int32_t Count, int64_t Position) {
    return ReadFromFile(FileName, Count, Position);
  }
  // Moves up to Count bytes into the stream at its current position.
  int32_t WriteTo(TStream* Stream, int32_t Count) { return WriteToStream(Stream, Count); }
  // Moves up to Count bytes into the file: appended, or replacing its contents.
  int32_t WriteTo(const std::string& FileName, int32_t Count, bool Append) {
    return WriteToFile(FileName, Count, Append);
  }
  // Moves up to Count bytes from another pipe into this one.
  int32_t ReadFrom(IPipe* Pipe, int32_t Count) { return ReadFromPipe(Pipe, Count); }
  // Moves up to Count bytes from this pipe into another one.
  int32_t WriteTo(IPipe* Pipe, int32_t Count) { return WriteToPipe(Pipe, Count); }

 protected:
  ~IPipe() = default;
};

// --- TPipe --------------------------------------------------------------------------
// The library's pipe: a TBlockQueue under a re-entrant lock. Capacity is unlimited
// and memory is kept until the object dies. Make it with new and hold it in a
// ComPtr<IPipe> (or MakeInterface<IPipe, TPipe>(BlockSize)).
class TPipe : public TInterfacedObject<IPipe> {
 public:
  explicit TPipe(int32_t BlockSize);

  bool STDMETHODCALLTYPE Write(const void* Buffer, int32_t Count) override;
  int32_t STDMETHODCALLTYPE Read(void* Buffer, int32_t Count) override;
  void STDMETHODCALLTYPE Clear() override;
  int32_t STDMETHODCALLTYPE GetSizeToRead() override;
  void STDMETHODCALLTYPE Lock() override;
  void STDMETHODCALLTYPE Unlock() override;
  int32_t STDMETHODCALLTYPE ReadFromStream(TStream* Stream, int32_t Count) override;
  int32_t STDMETHODCALLTYPE ReadFromFile(const std::string& FileName, int32_t Count, int64_t Position) override;
  int32_t STDMETHODCALLTYPE WriteToStream(TStream* Stream, int32_t Count) override;
  int32_t STDMETHODCALLTYPE WriteToFile(const std::string& FileName, int32_t Count, bool Append) override;
  int32_t STDMETHODCALLTYPE ReadFromPipe(IPipe* Pipe, int32_t Count) override;
  int32_t STDMETHODCALLTYPE WriteToPipe(IPipe* Pipe, int32_t Count) override;

  // Inspection of the storage, for diagnostics.
  int32_t GetBlockSize();
  int32_t GetBlockCount();
  int32_t GetReadPos();
  const void* GetBlock(int32_t Index);

 protected:
  TBlockQueue FQueue;
  TCriticalSection FLock;
};

// --- TPipeStream --------------------------------------------------------------------
// A stream over a private 4096-byte-block pipe, for code written against streams.
// Every position is relative to the unread data: the position always reads 0,
// seeking to the end reports the bytes buffered, and reading takes from the front.
// Reference-counted like the interfaces (QueryInterface knows only IUnknown); it may
// also live on the stack or in a unique_ptr as long as nobody releases it.
class TPipeStream : public TStream, public TInterfacedObject<IUnknown> {
 public:
  TPipeStream();

  // min(Count, buffered) bytes are taken (skipped for a null Buffer) and that figure
  // returned; 0 for a negative Count.
  int32_t Read(void* Buffer, int32_t Count) override;
  // Queues the bytes; returns Count even when the pipe refused them (it logs why),
  // 0 for a negative Count.
  int32_t Write(const void* Buffer, int32_t Count) override;
  // soEnd gives the bytes buffered, any other origin 0; nothing moves.
  int64_t Seek(int64_t Offset, TSeekOrigin Origin) override;
  int64_t GetSize() override;
  // The size follows the data: setting it does nothing.
  void SetSize(int64_t NewSize) override;

  IPipe* Pipe() const { return FPipe.Get(); }

 private:
  ComPtr<IPipe> FPipe;
};

// --- named pipe server ---------------------------------------------------------------
// Events of the named pipe and its reader thread: Sender is the TNamedPipe (for the
// pipe's own events) or the TReadPipeThread that raised them.
using TPipeEvent = std::function<void(void* Sender)>;

struct IReadWrite;
struct INamedPipe;
struct INamedPipe2;

}  // namespace kl::UPipe

KL_DECLARE_IID(kl::UPipe::IReadWrite, "59D57A49-DD6B-40C3-8887-93290586F525", 0x59D57A49, 0xDD6B, 0x40C3, 0x88,
               0x87, 0x93, 0x29, 0x05, 0x86, 0xF5, 0x25)
KL_DECLARE_IID(kl::UPipe::INamedPipe, "E6C6A6AC-51E6-47C2-B896-6F5698C981F0", 0xE6C6A6AC, 0x51E6, 0x47C2, 0xB8,
               0x96, 0x6F, 0x56, 0x98, 0xC9, 0x81, 0xF0)
KL_DECLARE_IID(kl::UPipe::INamedPipe2, "E4146E98-12A1-4F71-9C5E-5BA3778E03FE", 0xE4146E98, 0x12A1, 0x4F71, 0x9C,
               0x5E, 0x5B, 0xA3, 0x77, 0x8E, 0x03, 0xFE)

namespace kl::UPipe {

// The smallest view of a byte channel: what a consumer that only moves bytes needs.
struct IReadWrite : public IUnknown {
  virtual int32_t STDMETHODCALLTYPE Read(void* Buffer, int32_t Count) = 0;
  virtual int32_t STDMETHODCALLTYPE Write(const void* Buffer, int32_t Count) = 0;

 protected:
  ~IReadWrite() = default;
};

// The server end of an inbound named pipe, read as a queue.
struct INamedPipe : public IUnknown {
  // Takes up to Count bytes of what has arrived, without waiting.
  virtual int32_t STDMETHODCALLTYPE Read(void* Buffer, int32_t Count) = 0;
  // The pipe is inbound: does nothing and returns 0.
  virtual int32_t STDMETHODCALLTYPE Write(const void* Buffer, int32_t Count) = 0;
  // The full name ("\\.\pipe\..."), to be handed to the client.
  virtual std::string STDMETHODCALLTYPE GetName() = 0;
  virtual int32_t STDMETHODCALLTYPE GetSizeToRead() = 0;
  // True as soon as Size bytes are queued; false (and a log line) when the client has
  // gone with less queued, or after Timeout ms.
  virtual bool STDMETHODCALLTYPE WaitForData(int32_t Size, uint32_t Timeout) = 0;
  // Takes everything queued now.
  virtual std::string STDMETHODCALLTYPE GetText() = 0;
  virtual TPipeEvent STDMETHODCALLTYPE GetOnConnect() = 0;
  virtual TPipeEvent STDMETHODCALLTYPE GetOnData() = 0;
  virtual TPipeEvent STDMETHODCALLTYPE GetOnDisconnect() = 0;
  // The events run on the reader thread; set them before the client connects.
  virtual void STDMETHODCALLTYPE SetOnConnect(TPipeEvent Value) = 0;
  virtual void STDMETHODCALLTYPE SetOnDisconnect(TPipeEvent Value) = 0;
  virtual void STDMETHODCALLTYPE SetOnData(TPipeEvent Value) = 0;
  virtual bool STDMETHODCALLTYPE GetConnected() = 0;

 protected:
  ~INamedPipe() = default;
};

// What the stream classes hold: the queue view plus the state a reader needs to tell
// "nothing yet" from "nothing more" without an event, and control over how far the
// reader thread runs ahead.
struct INamedPipe2 : public INamedPipe {
  using TParent = INamedPipe;
  // True once the client has closed its end (what it sent may still be queued).
  virtual bool STDMETHODCALLTYPE GetDisconnected() = 0;
  // The reader thread stops taking data while this many bytes are queued.
  virtual int32_t STDMETHODCALLTYPE GetBufferLevel() = 0;
  virtual void STDMETHODCALLTYPE SetBufferLevel(int32_t Level) = 0;

 protected:
  ~INamedPipe2() = default;
};

// Accepts the one client of a named pipe and copies what it sends into a queue.
class TReadPipeThread : public TThread {
 public:
  // Made suspended; Start() runs it.
  TReadPipeThread(HANDLE Handle, int32_t BufferLevel, int32_t Interval, ComPtr<IPipe> Pipe);
  ~TReadPipeThread() override;

  void SetBufferLevel(int32_t Level);
  int32_t GetBufferLevel() const { return BufferLevel.load(); }
  bool GetListening() const { return Listening.load(); }

  TPipeEvent OnDisconnect;
  TPipeEvent OnConnect;
  TPipeEvent OnData;

 protected:
  void Execute() override;
  void ProcessOnConnect();
  void ProcessOnDisconnect();

 private:
  ComPtr<IPipe> Pipe;
  HANDLE FHandle;
  std::atomic<int32_t> BufferLevel{0x10000};
  uint8_t FReserved[20] = {};
  int32_t Interval;
  std::atomic<bool> Listening{false};
};

// The server end of a local inbound named pipe with a reader thread. Make it with new
// and hold it in a ComPtr<INamedPipe2>; the object is ready (its thread waiting for
// the client) when the constructor returns.
class TNamedPipe : public TInterfacedObject<INamedPipe2, IReadWrite> {
 public:
  // Name without the "\\.\pipe\" prefix gets it. When the name is taken, a random
  // number is appended until creation succeeds: take the name from GetName.
  TNamedPipe(const std::string& Name, int32_t Interval);
  ~TNamedPipe() override;

  int32_t STDMETHODCALLTYPE Read(void* Buffer, int32_t Count) override;
  int32_t STDMETHODCALLTYPE Write(const void* Buffer, int32_t Count) override;
  std::string STDMETHODCALLTYPE GetName() override;
  int32_t STDMETHODCALLTYPE GetSizeToRead() override;
  bool STDMETHODCALLTYPE WaitForData(int32_t Size, uint32_t Timeout) override;
  std::string STDMETHODCALLTYPE GetText() override;
  TPipeEvent STDMETHODCALLTYPE GetOnConnect() override;
  TPipeEvent STDMETHODCALLTYPE GetOnData() override;
  TPipeEvent STDMETHODCALLTYPE GetOnDisconnect() override;
  void STDMETHODCALLTYPE SetOnConnect(TPipeEvent Value) override;
  void STDMETHODCALLTYPE SetOnDisconnect(TPipeEvent Value) override;
  void STDMETHODCALLTYPE SetOnData(TPipeEvent Value) override;
  bool STDMETHODCALLTYPE GetConnected() override;
  bool STDMETHODCALLTYPE GetDisconnected() override;
  int32_t STDMETHODCALLTYPE GetBufferLevel() override;
  void STDMETHODCALLTYPE SetBufferLevel(int32_t Level) override;

 private:
  void InnerOnConnect(void* Sender);
  void InnerOnData(void* Sender);
  void InnerOnDisconnect(void* Sender);
  HANDLE CreateInstance(const std::string& PipeName);
  // Wakes a reader thread still blocked waiting for a client, so that it can end.
  void ReleaseListener();

  std::string Name;
  ComPtr<IPipe> Pipe;
  // Declared before the thread so that it outlives it, and closed even when the
  // thread cannot be made.
  Handles::THandle FHandle;
  std::unique_ptr<TReadPipeThread> FThread;
  // Guards the three events against being swapped while the reader thread calls them.
  TCriticalSection FEventLock;
  TPipeEvent OnDisconnect;
  TPipeEvent OnConnect;
  TPipeEvent OnData;
  int32_t Interval;
  std::atomic<bool> Disconnected{false};
  std::atomic<bool> Connected{false};
};

}  // namespace kl::UPipe
