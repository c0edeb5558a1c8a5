// File-system helpers: enumeration with callbacks, a cached file list, unique and
// temporary names, path tests, file dates and sizes, and shell helpers (reveal a file,
// shortcuts, special folders, choosing, deleting and copying whole directories).
// Paths are 8-bit strings with backslash separators.
//
// Note: <windows.h> maps GetTempFileName and GetTempPath to their -A forms; the
// declarations below go through the same macros, so callers see no difference.
#pragma once

#include <windows.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "rtl/Classes.h"
#include "rtl/ComBase.h"
#include "rtl/SysUtils.h"

namespace kl::klFiles {

// Days since 30.12.1899, the fraction is the time of day (the host framework's form).
using TDateTime = double;

// The data word is pointer-sized so that the stock callbacks can carry an object in it.
// Returning false stops the enumeration of the current directory level only.
using TEnumFileProc = bool (*)(const std::string& FileName, intptr_t& Data);

struct TFileInfo {
  std::string Name;  // full path
  int64_t Size = 0;
  int32_t Attributes = 0;
  TDateTime CreationTime = 0;
  TDateTime LastAccessTime = 0;
  TDateTime LastWriteTime = 0;
  TFileInfo() = default;
  TFileInfo(std::string AName, int64_t ASize, int32_t AAttributes, TDateTime ACreationTime, TDateTime ALastAccessTime,
            TDateTime ALastWriteTime)
      : Name(std::move(AName)),
        Size(ASize),
        Attributes(AAttributes),
        CreationTime(ACreationTime),
        LastAccessTime(ALastAccessTime),
        LastWriteTime(ALastWriteTime) {}
};

// The files matching a mask ("C:\dir\*.wav"), optionally in every subdirectory. The
// list is read when the mask or the recursive flag changes and on Refresh.
class TFileList {
 public:
  TFileList() = default;
  explicit TFileList(const std::string& Mask, bool Recursive = false);
  int Count() const { return static_cast<int>(FItems.size()); }
  const TFileInfo& Items(int Index) const { return FItems.at(static_cast<size_t>(Index)); }
  // By full path or bare file name, ignoring case; -1 if absent.
  int IndexOf(const std::string& Name) const;
  void Refresh();
  void SetDirAndMask(const std::string& Mask);
  void SetRecursive(bool Value);
  const std::string& Mask() const { return FMask; }
  bool Recursive() const { return FRecursive; }

 private:
  std::string FMask;
  bool FRecursive = false;
  std::vector<TFileInfo> FItems;
};

// --- enumeration ----------------------------------------------------------------------
void EnumFiles(const std::string& Mask, TEnumFileProc Callback, intptr_t& Data, bool Recursive);
// Only files whose creation, last access and last write times are at or after Created,
// Accessed and Modified and whose size is at least Size; a zero value is no filter.
void EnumFilesEx(const std::string& Mask, TEnumFileProc Callback, TDateTime Created, TDateTime Accessed,
                 TDateTime Modified, int64_t Size, intptr_t& Data, bool Recursive);
void EnumDirs(const std::string& Mask, TEnumFileProc Callback, intptr_t& Data, bool Recursive);
// Data holds a TStringList*.
bool EnumFilesProc(const std::string& FileName, intptr_t& Data);
// Adds one to Data for each file.
bool CountFilesProc(const std::string& FileName, intptr_t& Data);
// Sets Data to 1 and stops.
bool FilesPresentProc(const std::string& FileName, intptr_t& Data);
// Copies the files matching Mask (not recursive, existing files overwritten) into
// DestDir; Count (if given) receives the number copied. True if every copy succeeded.
bool CopyFiles(const std::string& Mask, const std::string& DestDir, int32_t* Count);

// --- the enumerator object ------------------------------------------------------------
struct IFileEnumerator : public IUnknown {
  virtual void STDMETHODCALLTYPE SetMask(const std::string& Mask) = 0;
  virtual void STDMETHODCALLTYPE SetRecursive(bool Value) = 0;
  // Entries with the hidden, system or directory attribute are reported only if the
  // filter has that attribute; others always. Default: files of every kind, no directories.
  virtual void STDMETHODCALLTYPE SetAttributes(uint32_t Value) = 0;
  virtual void STDMETHODCALLTYPE Enum(const std::string& Dir, TEnumFileProc Callback, intptr_t& Data) = 0;
  // Not available: raises EklException("TFileEnumerator.EnumEx: not released yet").
  virtual void STDMETHODCALLTYPE EnumEx(const std::string& Dir, TEnumFileProc Callback, TDateTime Created,
                                        TDateTime Accessed, TDateTime Modified, int64_t Size, intptr_t& Data) = 0;
  virtual void STDMETHODCALLTYPE Stop() = 0;
  virtual void STDMETHODCALLTYPE Reset() = 0;
};

}  // namespace kl::klFiles

KL_DECLARE_IID(kl::klFiles::IFileEnumerator, "9919C57B-1370-4242-9370-DCFE7458B80A", 0x9919c57b, 0x1370, 0x4242, 0x93,
               0x70, 0xdc, 0xfe, 0x74, 0x58, 0xb8, 0x0a)

namespace kl::klFiles {

class TFileEnumerator : public TInterfacedObject<IFileEnumerator> {
 public:
  void STDMETHODCALLTYPE SetMask(const std::string& Mask) override { FMask = Mask; }
  void STDMETHODCALLTYPE SetRecursive(bool Value) override { FRecursive = Value; }
  void STDMETHODCALLTYPE SetAttributes(uint32_t Value) override { FAttributes = Value; }
  void STDMETHODCALLTYPE Enum(const std::string& Dir, TEnumFileProc Callback, intptr_t& Data) override;
  void STDMETHODCALLTYPE EnumEx(const std::string& Dir, TEnumFileProc Callback, TDateTime Created, TDateTime Accessed,
                                TDateTime Modified, int64_t Size, intptr_t& Data) override;
  void STDMETHODCALLTYPE Stop() override { FStopRequest = true; }
  void STDMETHODCALLTYPE Reset() override { FStopRequest = false; }

 private:
  void EnumLevel(const std::string& Dir, TEnumFileProc Callback, intptr_t& Data);
  std::string FMask = "*.*";
  bool FRecursive = false;
  uint32_t FAttributes = FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM | FILE_ATTRIBUTE_ARCHIVE;
  volatile bool FStopRequest = false;
};

ComPtr<IFileEnumerator> CreateFileEnumerator();

// --- names and paths ------------------------------------------------------------------
// A name that does not exist yet (only tested, not created).
std::string GetTempFileName(const std::string& Base);
// The first free name_001.ext, name_002.ext ...; never the plain name.
std::string GetUniqueFileName(const std::string& FileName);
// Creates a file named after FileName with a random number; FileName receives the name.
// Gives up (logged, empty result) only after many failures in a row.
std::unique_ptr<TFileStream> CreateUniqueFileStream(std::string& FileName);
std::string GetTempPath();
std::string GetWindowsPath();
std::string GetSystemPath();
std::string CleanStrToPath(const std::string& S);
bool IsWebFile(const std::string& S);
bool IsFullFileName(const std::string& S);
std::string GetShortFileName(const std::string& Name);
bool ExploreFile(const std::string& FileName);
bool SelectDirectory(const std::string& Caption, std::string& Dir);
// Id is a CSIDL_ value; empty on failure.
std::string GetSpecialFolder(int Id);
// Creates LinkFile (a .lnk); the working directory is the target's folder.
bool CreateLink(const std::string& Target, const std::string& LinkFile, const std::string& Arguments,
                const std::string& Description);
bool DeleteDirectory(HWND Wnd, const std::string& Dir);
// Copies the contents of Source into Dest (created first with its parents).
bool CopyDirectory(HWND Wnd, const std::string& Source, const std::string& Dest);

// --- sizes and dates ------------------------------------------------------------------
// -1 when the file cannot be opened / found.
int64_t GetFileSize(const std::string& FileName);
int64_t GetFileSize2(const std::string& FileName);
TDateTime FileTimeToDateTime(const FILETIME& FileTime);
bool GetFileDates(const std::string& FileName, TDateTime& Created, TDateTime& Accessed, TDateTime& Modified);

// --- string lists -------------------------------------------------------------------
// Failures are logged and give false.
bool LoadSL(TStringList& List, const std::string& FileName);
bool SaveSL(const TStringList& List, const std::string& FileName);
// Merges List into the file's lines: a name=value item replaces the file's value of that
// name (or is added), any other item is added unless the file has that line already.
// A missing file starts empty.
bool UpdateValues(const std::string& FileName, const TStringList& List);

}  // namespace kl::klFiles
