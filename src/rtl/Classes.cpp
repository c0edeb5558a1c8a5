#include "rtl/Classes.h"

#include <algorithm>
#include <cstring>

#include "rtl/SysUtils.h"

namespace kl {

// --- TStream ----------------------------------------------------------------------

int64_t TStream::GetSize() {
  const int64_t pos = Seek(0, TSeekOrigin::soCurrent);
  const int64_t size = Seek(0, TSeekOrigin::soEnd);
  Seek(pos, TSeekOrigin::soBeginning);
  return size;
}

void TStream::SetSize(int64_t) {}

int32_t TStream::ReadFully(void* Buffer, int32_t Count) {
  int32_t done = 0;
  while (done < Count) {
    const int32_t n = Read(static_cast<uint8_t*>(Buffer) + done, Count - done);
    if (n <= 0) break;
    done += n;
  }
  return done;
}

void TStream::ReadBuffer(void* Buffer, int32_t Count) {
  if (Count > 0 && Read(Buffer, Count) != Count) throw EReadError("Stream read error");
}

void TStream::WriteBuffer(const void* Buffer, int32_t Count) {
  if (Count > 0 && Write(Buffer, Count) != Count) throw EWriteError("Stream write error");
}

int64_t TStream::CopyFrom(TStream& Source, int64_t Count) {
  if (Count == 0) {
    Source.SetPosition(0);
    Count = Source.GetSize();
  }
  std::vector<uint8_t> buf(static_cast<size_t>(std::min<int64_t>(Count, 0xF000)) + 1);
  int64_t done = 0;
  while (done < Count) {
    const int32_t n = static_cast<int32_t>(std::min<int64_t>(Count - done, 0xF000));
    Source.ReadBuffer(buf.data(), n);
    WriteBuffer(buf.data(), n);
    done += n;
  }
  return done;
}

// --- THandleStream ----------------------------------------------------------------

int32_t THandleStream::Read(void* Buffer, int32_t Count) {
  DWORD n = 0;
  if (Count <= 0 || !ReadFile(FHandle, Buffer, static_cast<DWORD>(Count), &n, nullptr)) return 0;
  return static_cast<int32_t>(n);
}

int32_t THandleStream::Write(const void* Buffer, int32_t Count) {
  DWORD n = 0;
  if (Count <= 0 || !WriteFile(FHandle, Buffer, static_cast<DWORD>(Count), &n, nullptr)) return 0;
  return static_cast<int32_t>(n);
}

int64_t THandleStream::Seek(int64_t Offset, TSeekOrigin Origin) {
  LARGE_INTEGER dist;
  dist.QuadPart = Offset;
  LARGE_INTEGER result;
  result.QuadPart = -1;
  if (!SetFilePointerEx(FHandle, dist, &result, static_cast<DWORD>(Origin))) return -1;
  return result.QuadPart;
}

void THandleStream::SetSize(int64_t NewSize) {
  Seek(NewSize, TSeekOrigin::soBeginning);
  if (!SetEndOfFile(FHandle)) throw EStreamError("Stream size error");
}

// --- TFileStream ------------------------------------------------------------------

namespace {
DWORD ShareModeOf(uint16_t Mode) {
  switch (Mode & 0xF0) {
    case fmShareExclusive: return 0;
    case fmShareDenyWrite: return FILE_SHARE_READ;
    case fmShareDenyRead: return FILE_SHARE_WRITE;
    case fmShareDenyNone: return FILE_SHARE_READ | FILE_SHARE_WRITE;
    default: return 0;
  }
}
}  // namespace

TFileStream::TFileStream(const std::string& FileName, uint16_t Mode)
    : THandleStream(INVALID_HANDLE_VALUE), FFileName(FileName) {
  if ((Mode & fmCreate) == fmCreate) {
    // The framework's create mode: exclusive unless a share mode is given.
    FHandle = CreateFileA(FileName.c_str(), GENERIC_READ | GENERIC_WRITE, ShareModeOf(Mode), nullptr,
                          CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (FHandle == INVALID_HANDLE_VALUE) {
      throw EFCreateError(Format("Cannot create file \"%s\". %s", FileName.c_str(),
                                 std::to_string(GetLastError()).c_str()));
    }
    return;
  }
  DWORD access = GENERIC_READ;
  if ((Mode & 3) == fmOpenWrite) access = GENERIC_WRITE;
  if ((Mode & 3) == fmOpenReadWrite) access = GENERIC_READ | GENERIC_WRITE;
  FHandle = CreateFileA(FileName.c_str(), access, ShareModeOf(Mode), nullptr, OPEN_EXISTING,
                        FILE_ATTRIBUTE_NORMAL, nullptr);
  if (FHandle == INVALID_HANDLE_VALUE) {
    throw EFOpenError(Format("Cannot open file \"%s\". %s", FileName.c_str(),
                             std::to_string(GetLastError()).c_str()));
  }
}

TFileStream::~TFileStream() {
  if (FHandle != INVALID_HANDLE_VALUE) CloseHandle(FHandle);
}

// --- TMemoryStream ----------------------------------------------------------------

int32_t TMemoryStream::Read(void* Buffer, int32_t Count) {
  const int64_t size = static_cast<int64_t>(FData.size());
  if (Count <= 0 || FPosition < 0 || FPosition >= size) return 0;
  const int32_t n = static_cast<int32_t>(std::min<int64_t>(Count, size - FPosition));
  std::memcpy(Buffer, FData.data() + FPosition, static_cast<size_t>(n));
  FPosition += n;
  return n;
}

int32_t TMemoryStream::Write(const void* Buffer, int32_t Count) {
  if (Count <= 0 || FPosition < 0) return 0;
  const size_t end = static_cast<size_t>(FPosition) + static_cast<size_t>(Count);
  if (end > FData.size()) FData.resize(end);
  std::memcpy(FData.data() + FPosition, Buffer, static_cast<size_t>(Count));
  FPosition = static_cast<int64_t>(end);
  return Count;
}

int64_t TMemoryStream::Seek(int64_t Offset, TSeekOrigin Origin) {
  switch (Origin) {
    case TSeekOrigin::soBeginning: FPosition = Offset; break;
    case TSeekOrigin::soCurrent: FPosition += Offset; break;
    case TSeekOrigin::soEnd: FPosition = static_cast<int64_t>(FData.size()) + Offset; break;
  }
  return FPosition;
}

void TMemoryStream::SetSize(int64_t NewSize) {
  FData.resize(static_cast<size_t>(std::max<int64_t>(NewSize, 0)));
  if (FPosition > NewSize) FPosition = NewSize;
}

void TMemoryStream::Clear() {
  FData.clear();
  FData.shrink_to_fit();
  FPosition = 0;
}

void TMemoryStream::LoadFromFile(const std::string& FileName) {
  TFileStream f(FileName, fmOpenRead | fmShareDenyWrite);
  const int64_t size = f.GetSize();
  FData.resize(static_cast<size_t>(size));
  if (size > 0) f.ReadBuffer(FData.data(), static_cast<int32_t>(size));
  FPosition = 0;
}

void TMemoryStream::SaveToFile(const std::string& FileName) {
  TFileStream f(FileName, fmCreate);
  f.WriteBuffer(FData.data(), static_cast<int32_t>(FData.size()));
}

// --- TStringList ------------------------------------------------------------------

int TStringList::Add(const std::string& S) {
  FItems.push_back(S);
  return Count() - 1;
}

void TStringList::Insert(int Index, const std::string& S) {
  FItems.insert(FItems.begin() + std::clamp(Index, 0, Count()), S);
}

void TStringList::Delete(int Index) {
  if (Index >= 0 && Index < Count()) FItems.erase(FItems.begin() + Index);
}

int TStringList::IndexOf(const std::string& S) const {
  for (int i = 0; i < Count(); ++i) {
    if (CompareStringA(LOCALE_USER_DEFAULT, NORM_IGNORECASE, FItems[static_cast<size_t>(i)].data(),
                       static_cast<int>(FItems[static_cast<size_t>(i)].size()), S.data(),
                       static_cast<int>(S.size())) == CSTR_EQUAL) {
      return i;
    }
  }
  return -1;
}

std::string TStringList::GetText() const {
  std::string r;
  for (const auto& s : FItems) {
    r += s;
    r += "\r\n";
  }
  return r;
}

void TStringList::SetText(const std::string& Text) {
  FItems.clear();
  size_t i = 0;
  const size_t n = Text.size();
  while (i < n) {
    size_t j = i;
    while (j < n && Text[j] != '\r' && Text[j] != '\n') ++j;
    FItems.push_back(Text.substr(i, j - i));
    if (j < n && Text[j] == '\r') ++j;
    if (j < n && Text[j] == '\n') ++j;
    i = j;
  }
}

std::string TStringList::Names(int Index) const {
  const std::string& s = (*this)[Index];
  const size_t p = s.find('=');
  return p == std::string::npos ? std::string() : s.substr(0, p);
}

std::string TStringList::ValueFromIndex(int Index) const {
  const std::string& s = (*this)[Index];
  const size_t p = s.find('=');
  return p == std::string::npos ? std::string() : s.substr(p + 1);
}

int TStringList::IndexOfName(const std::string& Name) const {
  for (int i = 0; i < Count(); ++i) {
    const std::string n = Names(i);
    if (CompareStringA(LOCALE_USER_DEFAULT, NORM_IGNORECASE, n.data(), static_cast<int>(n.size()),
                       Name.data(), static_cast<int>(Name.size())) == CSTR_EQUAL) {
      return i;
    }
  }
  return -1;
}

std::string TStringList::Values(const std::string& Name) const {
  const int i = IndexOfName(Name);
  return i < 0 ? std::string() : ValueFromIndex(i);
}

void TStringList::SetValue(const std::string& Name, const std::string& Value) {
  const int i = IndexOfName(Name);
  if (Value.empty()) {
    Delete(i);
  } else if (i < 0) {
    Add(Name + "=" + Value);
  } else {
    FItems[static_cast<size_t>(i)] = Name + "=" + Value;
  }
}

void TStringList::LoadFromStream(TStream& Stream) {
  const int64_t size = Stream.GetSize() - Stream.GetPosition();
  std::string s(static_cast<size_t>(std::max<int64_t>(size, 0)), '\0');
  if (!s.empty()) s.resize(static_cast<size_t>(Stream.Read(s.data(), static_cast<int32_t>(s.size()))));
  SetText(s);
}

void TStringList::SaveToStream(TStream& Stream) const {
  const std::string s = GetText();
  Stream.WriteBuffer(s.data(), static_cast<int32_t>(s.size()));
}

void TStringList::LoadFromFile(const std::string& FileName) {
  TFileStream f(FileName, fmOpenRead | fmShareDenyWrite);
  LoadFromStream(f);
}

void TStringList::SaveToFile(const std::string& FileName) const {
  TFileStream f(FileName, fmCreate);
  SaveToStream(f);
}

}  // namespace kl
