#include "diagnostics/klFiles.h"

#include <objbase.h>
#include <shellapi.h>
#include <shlobj.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <random>

#include "diagnostics/UTextEx.h"
#include "diagnostics/klLog.h"

namespace kl::klFiles {

namespace {

// One FindFirstFileA search, closed on every way out.
class TFind {
 public:
  explicit TFind(const std::string& Mask) { FHandle = FindFirstFileA(Mask.c_str(), &FData); }
  ~TFind() {
    if (FHandle != INVALID_HANDLE_VALUE) FindClose(FHandle);
  }
  TFind(const TFind&) = delete;
  TFind& operator=(const TFind&) = delete;
  bool Found() const { return FHandle != INVALID_HANDLE_VALUE && !FDone; }
  void Next() {
    if (!FindNextFileA(FHandle, &FData)) FDone = true;
  }
  const WIN32_FIND_DATAA& Data() const { return FData; }
  std::string Name() const { return FData.cFileName; }
  bool IsDir() const { return (FData.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0; }
  bool IsDots() const { return std::strcmp(FData.cFileName, ".") == 0 || std::strcmp(FData.cFileName, "..") == 0; }

 private:
  HANDLE FHandle = INVALID_HANDLE_VALUE;
  WIN32_FIND_DATAA FData{};
  bool FDone = false;
};

// The directory part of a mask as a prefix for names ("C:\dir\", "C:\", or empty for
// a bare pattern), and the pattern.
void SplitMask(const std::string& Mask, std::string& Dir, std::string& Pattern) {
  Dir = ExtractFilePath(Mask);
  Pattern = ExtractFileName(Mask);
}

int64_t SizeOf(const WIN32_FIND_DATAA& D) {
  return static_cast<int64_t>((static_cast<uint64_t>(D.nFileSizeHigh) << 32) | D.nFileSizeLow);
}

struct TFilter {
  bool Active = false;
  TDateTime Created = 0, Accessed = 0, Modified = 0;
  int64_t Size = 0;
  bool Accepts(const WIN32_FIND_DATAA& D) const {
    if (!Active) return true;
    if (Created != 0 && FileTimeToDateTime(D.ftCreationTime) < Created) return false;
    if (Accessed != 0 && FileTimeToDateTime(D.ftLastAccessTime) < Accessed) return false;
    if (Modified != 0 && FileTimeToDateTime(D.ftLastWriteTime) < Modified) return false;
    if (Size != 0 && SizeOf(D) < Size) return false;
    return true;
  }
};

void EnumImpl(const std::string& Mask, TEnumFileProc Callback, intptr_t& Data, bool Recursive, bool Dirs,
              const TFilter& Filter) {
  if (Mask.empty() || Callback == nullptr) return;
  std::string dir, pattern;
  SplitMask(Mask, dir, pattern);
  {
    // A false from the callback ends this level only; the caller's level goes on.
    for (TFind f(Mask); f.Found(); f.Next()) {
      if (f.IsDots() || f.IsDir() != Dirs) continue;
      if (!Filter.Accepts(f.Data())) continue;
      if (!Callback(dir + f.Name(), Data)) return;
    }
  }
  if (!Recursive) return;
  for (TFind f(dir + "*.*"); f.Found(); f.Next()) {
    if (f.IsDots() || !f.IsDir()) continue;
    EnumImpl(Format("%s%s\\%s", dir.c_str(), f.Name().c_str(), pattern.c_str()), Callback, Data, Recursive, Dirs,
             Filter);
  }
}

// Days from 30.12.1899 of a civil date (proleptic Gregorian).
int64_t DaysFromCivil(int64_t Y, unsigned M, unsigned D) {
  Y -= M <= 2;
  const int64_t era = (Y >= 0 ? Y : Y - 399) / 400;
  const auto yoe = static_cast<unsigned>(Y - era * 400);
  const unsigned doy = (153 * (M > 2 ? M - 3 : M + 9) + 2) / 5 + D - 1;
  const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + static_cast<int64_t>(doe) - 719468 + 25569;  // 25569: 1.1.1970 as a date-time
}

std::mt19937& Random() {
  // Seeded from the clock, as the name helpers want fresh numbers each run.
  static std::mt19937 gen(static_cast<unsigned>(std::chrono::high_resolution_clock::now().time_since_epoch().count()) ^
                          GetCurrentProcessId());
  return gen;
}

int RandomNumber() { return std::uniform_int_distribution<int>(0, 999999)(Random()); }

// Keeps COM initialised on this thread for a scope (harmless if it already was).
class TComInit {
 public:
  TComInit() : FResult(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED)) {}
  ~TComInit() {
    if (SUCCEEDED(FResult)) CoUninitialize();
  }
  TComInit(const TComInit&) = delete;
  TComInit& operator=(const TComInit&) = delete;

 private:
  HRESULT FResult;
};

std::wstring ToWide(const std::string& S) {
  if (S.empty()) return std::wstring();
  const int n = MultiByteToWideChar(CP_ACP, 0, S.data(), static_cast<int>(S.size()), nullptr, 0);
  std::wstring w(static_cast<size_t>(std::max(n, 0)), L'\0');
  if (n > 0) MultiByteToWideChar(CP_ACP, 0, S.data(), static_cast<int>(S.size()), w.data(), n);
  return w;
}

std::string WithoutTrailingBackslash(std::string S) {
  while (S.size() > 3 && S.back() == '\\') S.pop_back();
  return S;
}

bool ForceDirectories(const std::string& Dir) {
  const std::string d = WithoutTrailingBackslash(Dir);
  if (d.empty()) return false;
  if (DirectoryExists(d)) return true;
  const std::string parent = ExtractFilePath(d);
  if (!parent.empty() && parent != d && parent.size() < d.size() && !DirectoryExists(parent)) {
    if (!ForceDirectories(parent)) return false;
  }
  return CreateDirectoryA(d.c_str(), nullptr) != 0 || DirectoryExists(d);
}

// Disables the thread's other enabled top-level windows for a modal shell dialog.
class TDisabledWindows {
 public:
  TDisabledWindows() { EnumThreadWindows(GetCurrentThreadId(), &Collect, reinterpret_cast<LPARAM>(this)); }
  ~TDisabledWindows() {
    for (HWND w : FWindows) EnableWindow(w, TRUE);
  }
  TDisabledWindows(const TDisabledWindows&) = delete;
  TDisabledWindows& operator=(const TDisabledWindows&) = delete;

 private:
  static BOOL CALLBACK Collect(HWND Wnd, LPARAM Param) {
    if (IsWindowVisible(Wnd) && IsWindowEnabled(Wnd)) {
      reinterpret_cast<TDisabledWindows*>(Param)->FWindows.push_back(Wnd);
      EnableWindow(Wnd, FALSE);
    }
    return TRUE;
  }
  std::vector<HWND> FWindows;
};

bool ShellFileOperation(HWND Wnd, UINT Func, const std::string& From, const std::string& To) {
  // Both names are lists ending with an empty name.
  std::string from = From + '\0' + '\0';
  std::string to = To + '\0' + '\0';
  SHFILEOPSTRUCTA op{};
  op.hwnd = Wnd;
  op.wFunc = Func;
  op.pFrom = from.c_str();
  op.pTo = To.empty() ? nullptr : to.c_str();
  op.fFlags = FOF_NOCONFIRMATION | FOF_NOCONFIRMMKDIR | FOF_SILENT | FOF_NOERRORUI;
  return SHFileOperationA(&op) == 0 && !op.fAnyOperationsAborted;
}

}  // namespace

// --- TFileList ------------------------------------------------------------------------

TFileList::TFileList(const std::string& Mask, bool Recursive) : FMask(Mask), FRecursive(Recursive) { Refresh(); }

int TFileList::IndexOf(const std::string& Name) const {
  const std::string low = UTextEx::AnsiLowerCase(Name);
  for (int i = 0; i < Count(); ++i) {
    const std::string& n = FItems[static_cast<size_t>(i)].Name;
    if (UTextEx::AnsiLowerCase(n) == low || UTextEx::AnsiLowerCase(ExtractFileName(n)) == low) return i;
  }
  return -1;
}

void TFileList::Refresh() {
  FItems.clear();
  if (FMask.empty()) return;
  std::string dir, pattern;
  SplitMask(FMask, dir, pattern);
  for (TFind f(FMask); f.Found(); f.Next()) {
    if (f.IsDots() || f.IsDir()) continue;
    const auto& d = f.Data();
    FItems.emplace_back(dir + f.Name(), SizeOf(d), static_cast<int32_t>(d.dwFileAttributes),
                        FileTimeToDateTime(d.ftCreationTime), FileTimeToDateTime(d.ftLastAccessTime),
                        FileTimeToDateTime(d.ftLastWriteTime));
  }
  if (!FRecursive) return;
  std::vector<std::string> subdirs;
  for (TFind f(dir + "*.*"); f.Found(); f.Next()) {
    if (!f.IsDots() && f.IsDir()) subdirs.push_back(f.Name());
  }
  for (const auto& s : subdirs) {
    TFileList sub(Format("%s%s\\%s", dir.c_str(), s.c_str(), pattern.c_str()), true);
    for (auto& item : sub.FItems) FItems.push_back(std::move(item));
  }
}

void TFileList::SetDirAndMask(const std::string& Mask) {
  if (Mask == FMask) return;
  FMask = Mask;
  Refresh();
}

void TFileList::SetRecursive(bool Value) {
  if (Value == FRecursive) return;
  FRecursive = Value;
  Refresh();
}

// --- enumeration ----------------------------------------------------------------------

void EnumFiles(const std::string& Mask, TEnumFileProc Callback, intptr_t& Data, bool Recursive) {
  EnumImpl(Mask, Callback, Data, Recursive, false, TFilter());
}

void EnumFilesEx(const std::string& Mask, TEnumFileProc Callback, TDateTime Created, TDateTime Accessed,
                 TDateTime Modified, int64_t Size, intptr_t& Data, bool Recursive) {
  TFilter filter;
  filter.Active = true;
  filter.Created = Created;
  filter.Accessed = Accessed;
  filter.Modified = Modified;
  filter.Size = Size;
  EnumImpl(Mask, Callback, Data, Recursive, false, filter);
}

void EnumDirs(const std::string& Mask, TEnumFileProc Callback, intptr_t& Data, bool Recursive) {
  EnumImpl(Mask, Callback, Data, Recursive, true, TFilter());
}

bool EnumFilesProc(const std::string& FileName, intptr_t& Data) {
  auto* list = reinterpret_cast<TStringList*>(Data);
  if (list == nullptr) return false;
  list->Add(FileName);
  return true;
}

bool CountFilesProc(const std::string&, intptr_t& Data) {
  ++Data;
  return true;
}

bool FilesPresentProc(const std::string&, intptr_t& Data) {
  Data = 1;
  return false;
}

bool CopyFiles(const std::string& Mask, const std::string& DestDir, int32_t* Count) {
  if (Count != nullptr) *Count = 0;
  if (Mask.empty() || DestDir.empty()) return false;
  std::string dir, pattern;
  SplitMask(Mask, dir, pattern);
  const std::string dest = IncludeTrailingPathDelimiter(DestDir);
  bool all = true;
  for (TFind f(Mask); f.Found(); f.Next()) {
    if (f.IsDots() || f.IsDir()) continue;
    const std::string src = dir + f.Name();
    if (CopyFileA(src.c_str(), (dest + f.Name()).c_str(), FALSE)) {
      if (Count != nullptr) ++*Count;
    } else {
      all = false;
      klLog::AddToEventLog(Format("CopyFiles: CopyFileA(%s) failed: %u", src.c_str(), GetLastError()), klLog::lkError);
    }
  }
  return all;
}

// --- TFileEnumerator --------------------------------------------------------------------

void TFileEnumerator::EnumLevel(const std::string& Dir, TEnumFileProc Callback, intptr_t& Data) {
  const std::string dir = IncludeTrailingPathDelimiter(Dir);
  constexpr DWORD special = FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM | FILE_ATTRIBUTE_DIRECTORY;
  {
    for (TFind f(dir + FMask); f.Found() && !FStopRequest; f.Next()) {
      if (f.IsDots()) continue;
      if ((f.Data().dwFileAttributes & special & ~FAttributes) != 0) continue;
      if (!Callback(dir + f.Name(), Data)) break;
    }
  }
  if (!FRecursive) return;
  for (TFind f(dir + "*.*"); f.Found() && !FStopRequest; f.Next()) {
    if (f.IsDots() || !f.IsDir()) continue;
    EnumLevel(dir + f.Name(), Callback, Data);
  }
}

void TFileEnumerator::Enum(const std::string& Dir, TEnumFileProc Callback, intptr_t& Data) {
  if (Dir.empty() || Callback == nullptr) return;
  EnumLevel(Dir, Callback, Data);
}

void TFileEnumerator::EnumEx(const std::string&, TEnumFileProc, TDateTime, TDateTime, TDateTime, int64_t,
                             intptr_t&) {
  throw klLog::EklException("TFileEnumerator.EnumEx: not released yet");
}

ComPtr<IFileEnumerator> CreateFileEnumerator() { return MakeInterface<IFileEnumerator, TFileEnumerator>(); }

// --- names and paths ------------------------------------------------------------------

std::string GetTempFileName(const std::string& Base) {
  const std::string base = Base.empty() ? GetTempPath() + "temp" : Base;
  const std::string ext = ExtractFileExt(base);
  std::string result = base;
  while (FileExists(result)) result = ChangeFileExt(base, Format("_%d%s", RandomNumber(), ext.c_str()));
  return result;
}

std::string GetUniqueFileName(const std::string& FileName) {
  if (FileName.empty()) return std::string();
  const std::string dir = ExtractFilePath(FileName);
  const std::string ext = ExtractFileExt(FileName);
  std::string name = ExtractFileName(FileName);
  name.resize(name.size() - ext.size());
  if (name.size() > 4 && name[name.size() - 4] == '_') {
    const std::string tail = name.substr(name.size() - 3);
    size_t i = (tail[0] == '-' || tail[0] == '+') ? 1 : 0;
    bool digits = i < tail.size();
    for (; i < tail.size(); ++i) digits = digits && tail[i] >= '0' && tail[i] <= '9';
    if (digits) name.resize(name.size() - 4);
  }
  for (int n = 1;; ++n) {
    const std::string candidate = dir + name + Format("_%.3d", n) + ext;
    if (!FileExists(candidate) && !DirectoryExists(candidate)) return candidate;
  }
}

std::unique_ptr<TFileStream> CreateUniqueFileStream(std::string& FileName) {
  if (FileName.empty()) FileName = GetTempFileName("");
  const std::string ext = ExtractFileExt(FileName);
  // Each try draws a new number; a folder that cannot take files would make this
  // endless, so after many failures in a row it gives up.
  for (int attempt = 0; attempt < 10000; ++attempt) {
    const std::string candidate = ChangeFileExt(FileName, Format("_%d%s", RandomNumber(), ext.c_str()));
    try {
      auto stream = std::make_unique<TFileStream>(candidate, fmCreate);
      FileName = candidate;
      return stream;
    } catch (const Exception&) {
    }
  }
  klLog::AddToEventLog(Format("CreateUniqueFileStream: cannot create a file like \"%s\"", FileName.c_str()),
                       klLog::lkError);
  return nullptr;
}

std::string GetTempPath() { return GetTempDir(); }

std::string GetWindowsPath() {
  char buf[MAX_PATH + 1] = {};
  const UINT n = GetWindowsDirectoryA(buf, sizeof buf);
  return n > 0 && n < sizeof buf ? std::string(buf, n) + "\\" : std::string();
}

std::string GetSystemPath() {
  char buf[MAX_PATH + 1] = {};
  const UINT n = GetSystemDirectoryA(buf, sizeof buf);
  return n > 0 && n < sizeof buf ? std::string(buf, n) + "\\" : std::string();
}

std::string CleanStrToPath(const std::string& S) { return UTextEx::ReplaceSymbols(S, ":\"\\/", ""); }

bool IsWebFile(const std::string& S) {
  const std::string low = UTextEx::AnsiLowerCase(S.substr(0, 8));
  return low.rfind("http://", 0) == 0 || low.rfind("https://", 0) == 0 || low.rfind("ftp://", 0) == 0;
}

bool IsFullFileName(const std::string& S) { return S.size() >= 3 && (S[1] == ':' || S[1] == '\\'); }

std::string GetShortFileName(const std::string& Name) {
  if (Name.empty()) return Name;
  std::string name = Name;
  if (name.size() > 260 && name.rfind("\\\\?\\", 0) != 0) name = "\\\\?\\" + name;
  char buf[261] = {};
  const DWORD n = GetShortPathNameA(name.c_str(), buf, sizeof buf);
  if (n > 0 && n < sizeof buf) return std::string(buf, n);
  return name;
}

bool ExploreFile(const std::string& FileName) {
  const std::string params = Format("/select, \"%s\"", FileName.c_str());
  const HINSTANCE r = ShellExecuteA(nullptr, "OPEN", "EXPLORER", params.c_str(), nullptr, SW_SHOWNORMAL);
  return reinterpret_cast<INT_PTR>(r) > 32;
}

bool SelectDirectory(const std::string& Caption, std::string& Dir) {
  TComInit com;
  char display[MAX_PATH + 1] = {};
  BROWSEINFOA bi{};
  bi.hwndOwner = GetActiveWindow();
  bi.pszDisplayName = display;
  bi.lpszTitle = Caption.c_str();
  bi.ulFlags = BIF_RETURNONLYFSDIRS;
  PIDLIST_ABSOLUTE pidl = nullptr;
  {
    TDisabledWindows disabled;
    pidl = SHBrowseForFolderA(&bi);
  }
  if (pidl == nullptr) return false;
  char path[MAX_PATH + 1] = {};
  const bool ok = SHGetPathFromIDListA(pidl, path) != 0;
  CoTaskMemFree(pidl);
  if (ok) Dir = path;
  return ok;
}

std::string GetSpecialFolder(int Id) {
  PIDLIST_ABSOLUTE pidl = nullptr;
  if (FAILED(SHGetSpecialFolderLocation(nullptr, Id, &pidl)) || pidl == nullptr) return std::string();
  char path[MAX_PATH + 1] = {};
  const bool ok = SHGetPathFromIDListA(pidl, path) != 0;
  CoTaskMemFree(pidl);
  return ok ? std::string(path) : std::string();
}

bool CreateLink(const std::string& Target, const std::string& LinkFile, const std::string& Arguments,
                const std::string& Description) {
  TComInit com;
  ComPtr<IShellLinkA> link;
  HRESULT hr = CoCreateInstance(CLSID_ShellLink, nullptr, CLSCTX_INPROC_SERVER, IID_IShellLinkA,
                                reinterpret_cast<void**>(link.GetAddressOf()));
  if (FAILED(hr)) {
    klLog::AddToEventLog(Format("CreateLink: CoCreateInstance failed: 0x%08X", static_cast<unsigned>(hr)),
                         klLog::lkError);
    return false;
  }
  link->SetPath(Target.c_str());
  link->SetArguments(Arguments.c_str());
  link->SetDescription(Description.c_str());
  const std::string workDir = WithoutTrailingBackslash(ExtractFilePath(Target));
  if (!workDir.empty()) link->SetWorkingDirectory(workDir.c_str());
  ComPtr<IPersistFile> file;
  hr = link.As(&file);
  if (SUCCEEDED(hr)) hr = file->Save(ToWide(LinkFile).c_str(), TRUE);
  if (FAILED(hr)) {
    klLog::AddToEventLog(Format("CreateLink: cannot save \"%s\": 0x%08X", LinkFile.c_str(), static_cast<unsigned>(hr)),
                         klLog::lkError);
    return false;
  }
  return true;
}

bool DeleteDirectory(HWND Wnd, const std::string& Dir) {
  const std::string dir = WithoutTrailingBackslash(Dir);
  if (dir.empty() || !DirectoryExists(dir)) return false;
  return ShellFileOperation(Wnd, FO_DELETE, dir, std::string());
}

bool CopyDirectory(HWND Wnd, const std::string& Source, const std::string& Dest) {
  const std::string src = WithoutTrailingBackslash(Source);
  if (src.empty() || !DirectoryExists(src) || Dest.empty()) return false;
  const std::string dest = WithoutTrailingBackslash(Dest);
  if (!ForceDirectories(dest)) {
    klLog::AddToEventLog(Format("CopyDirectory: cannot create \"%s\"", dest.c_str()), klLog::lkError);
    return false;
  }
  return ShellFileOperation(Wnd, FO_COPY, src + "\\*.*", dest);
}

// --- sizes and dates ------------------------------------------------------------------

int64_t GetFileSize(const std::string& FileName) {
  try {
    TFileStream f(FileName, fmOpenRead | fmShareDenyNone);
    return f.GetSize();
  } catch (const Exception&) {
    return -1;
  }
}

int64_t GetFileSize2(const std::string& FileName) {
  TFind f(FileName);
  return f.Found() ? SizeOf(f.Data()) : -1;
}

TDateTime FileTimeToDateTime(const FILETIME& FileTime) {
  FILETIME local{};
  SYSTEMTIME st{};
  if (!FileTimeToLocalFileTime(&FileTime, &local) || !FileTimeToSystemTime(&local, &st)) return 0;
  const int64_t days = DaysFromCivil(st.wYear, st.wMonth, st.wDay);
  const double time = (st.wHour * 3600000.0 + st.wMinute * 60000.0 + st.wSecond * 1000.0 + st.wMilliseconds) / 86400000.0;
  // Before 30.12.1899 the host form counts the time of day away from zero too.
  return days >= 0 ? static_cast<double>(days) + time : static_cast<double>(days) - time;
}

bool GetFileDates(const std::string& FileName, TDateTime& Created, TDateTime& Accessed, TDateTime& Modified) {
  if (FileName.empty()) return false;
  {
    TFind f(FileName);
    if (f.Found()) {
      Created = FileTimeToDateTime(f.Data().ftCreationTime);
      Accessed = FileTimeToDateTime(f.Data().ftLastAccessTime);
      Modified = FileTimeToDateTime(f.Data().ftLastWriteTime);
      return true;
    }
  }
  const HANDLE h = CreateFileA(FileName.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                               nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
  if (h == INVALID_HANDLE_VALUE) return false;
  FILETIME c{}, a{}, m{};
  const bool ok = GetFileTime(h, &c, &a, &m) != 0 && (c.dwLowDateTime != 0 || c.dwHighDateTime != 0);
  CloseHandle(h);
  if (!ok) return false;
  Created = FileTimeToDateTime(c);
  Accessed = FileTimeToDateTime(a);
  Modified = FileTimeToDateTime(m);
  return true;
}

// --- string lists -------------------------------------------------------------------

bool LoadSL(TStringList& List, const std::string& FileName) {
  try {
    List.LoadFromFile(FileName);
    return true;
  } catch (const Exception& e) {
    klLog::AddToEventLog("LoadSL: " + e.Message(), klLog::lkError);
    return false;
  }
}

bool SaveSL(const TStringList& List, const std::string& FileName) {
  try {
    List.SaveToFile(FileName);
    return true;
  } catch (const Exception& e) {
    klLog::AddToEventLog("SaveSL: " + e.Message(), klLog::lkError);
    return false;
  }
}

bool UpdateValues(const std::string& FileName, const TStringList& List) {
  TStringList lines;
  if (FileExists(FileName) && !LoadSL(lines, FileName)) return false;
  for (int i = 0; i < List.Count(); ++i) {
    const std::string name = List.Names(i);
    if (!name.empty()) {
      lines.SetValue(name, List.ValueFromIndex(i));
    } else if (std::find(lines.Items().begin(), lines.Items().end(), List[i]) == lines.Items().end()) {
      lines.Add(List[i]);
    }
  }
  return SaveSL(lines, FileName);
}

}  // namespace kl::klFiles
