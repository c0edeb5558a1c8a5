// Stand-ins for the host framework's streams and string list.
#pragma once

#include <windows.h>

#include <cstdint>
#include <string>
#include <vector>

namespace kl {

enum class TSeekOrigin { soBeginning = 0, soCurrent = 1, soEnd = 2 };

// File open modes, combined with a share mode (values as the host framework has them).
constexpr uint16_t fmCreate = 0xFF00;
constexpr uint16_t fmOpenRead = 0x0000;
constexpr uint16_t fmOpenWrite = 0x0001;
constexpr uint16_t fmOpenReadWrite = 0x0002;
constexpr uint16_t fmShareExclusive = 0x0010;
constexpr uint16_t fmShareDenyWrite = 0x0020;
constexpr uint16_t fmShareDenyRead = 0x0030;
constexpr uint16_t fmShareDenyNone = 0x0040;

// The generic stream: virtual read, write, seek; size and position derive from Seek.
class TStream {
 public:
  virtual ~TStream() = default;
  TStream() = default;
  TStream(const TStream&) = delete;
  TStream& operator=(const TStream&) = delete;

  // Reads up to Count bytes; returns how many were read (0 at the end, never negative).
  virtual int32_t Read(void* Buffer, int32_t Count) = 0;
  // Writes up to Count bytes; returns how many were written.
  virtual int32_t Write(const void* Buffer, int32_t Count) = 0;
  virtual int64_t Seek(int64_t Offset, TSeekOrigin Origin) = 0;

  virtual int64_t GetSize();
  virtual void SetSize(int64_t NewSize);
  int64_t GetPosition() { return Seek(0, TSeekOrigin::soCurrent); }
  void SetPosition(int64_t Pos) { Seek(Pos, TSeekOrigin::soBeginning); }

  // Reads until Count bytes are in or the stream gives no more (a pipe or a socket may
  // hand out less per call than it has).
  int32_t ReadFully(void* Buffer, int32_t Count);
  // Whole-or-raise forms.
  void ReadBuffer(void* Buffer, int32_t Count);
  void WriteBuffer(const void* Buffer, int32_t Count);
  // Copies Count bytes from Source (all of it from its start when Count is 0).
  int64_t CopyFrom(TStream& Source, int64_t Count);
};

// A stream over a Win32 file handle; the handle is not owned.
class THandleStream : public TStream {
 public:
  explicit THandleStream(HANDLE Handle) : FHandle(Handle) {}
  int32_t Read(void* Buffer, int32_t Count) override;
  int32_t Write(const void* Buffer, int32_t Count) override;
  int64_t Seek(int64_t Offset, TSeekOrigin Origin) override;
  void SetSize(int64_t NewSize) override;
  HANDLE Handle() const { return FHandle; }

 protected:
  HANDLE FHandle;
};

// A file opened with CreateFileA. Mode is fmCreate or an fmOpen* value, or-ed with an
// fmShare* value. Raises EFCreateError / EFOpenError when the file cannot be had.
class TFileStream : public THandleStream {
 public:
  TFileStream(const std::string& FileName, uint16_t Mode);
  ~TFileStream() override;
  const std::string& FileName() const { return FFileName; }

 private:
  std::string FFileName;
};

// A growable in-memory stream.
class TMemoryStream : public TStream {
 public:
  int32_t Read(void* Buffer, int32_t Count) override;
  int32_t Write(const void* Buffer, int32_t Count) override;
  int64_t Seek(int64_t Offset, TSeekOrigin Origin) override;
  void SetSize(int64_t NewSize) override;
  void Clear();
  void* Memory() { return FData.data(); }
  const void* Memory() const { return FData.data(); }
  void LoadFromFile(const std::string& FileName);
  void SaveToFile(const std::string& FileName);

 private:
  std::vector<uint8_t> FData;
  int64_t FPosition = 0;
};

// A list of strings with the host framework's text form (lines joined by CR LF).
class TStringList {
 public:
  int Count() const { return static_cast<int>(FItems.size()); }
  std::string& operator[](int Index) { return FItems.at(static_cast<size_t>(Index)); }
  const std::string& operator[](int Index) const { return FItems.at(static_cast<size_t>(Index)); }
  int Add(const std::string& S);
  void Insert(int Index, const std::string& S);
  void Delete(int Index);
  void Clear() { FItems.clear(); }
  int IndexOf(const std::string& S) const;  // case-insensitive, as the host framework compares
  std::string GetText() const;               // every line followed by CR LF
  void SetText(const std::string& Text);     // splits on CR LF, LF or CR
  // name=value pairs
  std::string Names(int Index) const;
  std::string ValueFromIndex(int Index) const;
  std::string Values(const std::string& Name) const;
  void SetValue(const std::string& Name, const std::string& Value);
  int IndexOfName(const std::string& Name) const;
  void LoadFromFile(const std::string& FileName);
  void SaveToFile(const std::string& FileName) const;
  void LoadFromStream(TStream& Stream);
  void SaveToStream(TStream& Stream) const;
  std::vector<std::string>& Items() { return FItems; }
  const std::vector<std::string>& Items() const { return FItems; }

 private:
  std::vector<std::string> FItems;
};

}  // namespace kl
