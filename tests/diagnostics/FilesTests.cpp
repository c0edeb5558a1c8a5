// File and path helpers on a real directory tree in the temp folder, real shortcuts
// resolved by the shell, and whole-tree copies through the shell.
#include <gtest/gtest.h>

#include <windows.h>
#include <objbase.h>
#include <oleauto.h>
#include <shlobj.h>

#include <algorithm>
#include <set>

#include "KlTest.h"
#include "diagnostics/UTextEx.h"
#include "diagnostics/klFiles.h"
#include "diagnostics/klLog.h"

using namespace kl;
using namespace kl::klFiles;

namespace {

using TSet = std::set<std::string>;
using TEnum = void (*)(const std::string&, TEnumFileProc, intptr_t&, bool);  // EnumFiles, EnumDirs
const TSet kAllTxt = {"a.txt", "sub1\\c.txt", "sub1\\d.txt", "sub1\\deep\\e.txt", "sub2\\f.txt"};

TSet AsSet(const std::vector<std::string>& V) { return {V.begin(), V.end()}; }
std::string Lower(const std::string& S) { return UTextEx::AnsiLowerCase(S); }

// What an enumeration hands to EnumFilesProc, in order.
template <class F>
std::vector<std::string> Collect(F&& Enumerate) {
  TStringList list;
  intptr_t data = reinterpret_cast<intptr_t>(&list);
  Enumerate(data);
  return list.Items();
}

// Every file under Dir as "relative name=contents".
TSet Contents(const std::string& Dir) {
  TSet r;
  for (const auto& s : Collect([&](intptr_t& d) { EnumFiles(Dir + "\\*.*", EnumFilesProc, d, true); })) {
    r.insert(s.substr(Dir.size()) + "=" + kltest::ReadFileBytes(s));
  }
  return r;
}

// root\a.txt (5 bytes), root\b.dat (20), root\sub1\c.txt, root\sub1\d.txt,
// root\sub1\deep\e.txt, root\sub2\f.txt
struct TTree {
  kltest::TTempDir Temp;
  std::string Root = Temp / "root";
  TTree() {
    for (const char* d : {"", "\\sub1", "\\sub1\\deep", "\\sub2"}) CreateDirectoryA((Root + d).c_str(), nullptr);
    for (const auto& [name, bytes] : std::vector<std::pair<std::string, std::string>>{
             {"a.txt", "aaaaa"}, {"b.dat", std::string(20, 'b')}, {"sub1\\c.txt", "c"}, {"sub1\\d.txt", "dd"},
             {"sub1\\deep\\e.txt", "eee"}, {"sub2\\f.txt", "ffff"}}) {
      kltest::WriteFileBytes(Root + "\\" + name, bytes);
    }
  }
  // Paths relative to the root, lower-cased.
  std::vector<std::string> Relative(const std::vector<std::string>& Names) const {
    std::vector<std::string> r;
    for (const auto& s : Names) r.push_back(Lower(s.substr(Root.size() + 1)));
    return r;
  }
  std::vector<std::string> Listed(TEnum Fn, const std::string& Mask, bool Recursive) const {
    return Relative(Collect([&](intptr_t& d) { Fn(Root + "\\" + Mask, EnumFilesProc, d, Recursive); }));
  }
};

std::vector<std::string> g_Seen;
// Records every file and refuses to go on inside any subdirectory.
bool StopInSubdirs(const std::string& FileName, intptr_t&) {
  g_Seen.push_back(FileName);
  return FileName.find("\\sub") == std::string::npos;
}

IFileEnumerator* g_Enumerator = nullptr;
bool StopAfterTwo(const std::string&, intptr_t& Data) {
  if (++Data == 2) g_Enumerator->Stop();
  return true;
}

// "target|arguments|description" of a shortcut as the shell reads it, "" if it cannot.
std::string Resolve(const std::string& Link) {
  ComPtr<IShellLinkA> link;
  ComPtr<IPersistFile> file;
  const std::wstring w(Link.begin(), Link.end());
  char path[MAX_PATH * 2] = {}, args[MAX_PATH] = {}, desc[MAX_PATH] = {};
  WIN32_FIND_DATAA fd{};
  if (FAILED(CoCreateInstance(CLSID_ShellLink, nullptr, CLSCTX_INPROC_SERVER, IID_IShellLinkA,
                              reinterpret_cast<void**>(link.GetAddressOf()))) ||
      FAILED(link.As(&file)) || FAILED(file->Load(w.c_str(), STGM_READ)) ||
      FAILED(link->GetPath(path, sizeof path, &fd, 0))) {
    return "";
  }
  link->GetArguments(args, sizeof args);
  link->GetDescription(desc, sizeof desc);
  return std::string(path) + "|" + args + "|" + desc;
}

}  // namespace

TEST(FilesEnum, FilesDirsAndFilters) {
  TTree t;
  const auto rel = t.Listed(EnumFiles, "*.txt", true);
  EXPECT_EQ(AsSet(rel), kAllTxt);
  ASSERT_FALSE(rel.empty());
  EXPECT_EQ(rel[0], "a.txt");
  // A directory's own files come before its subdirectory's.
  EXPECT_LT(std::find(rel.begin(), rel.end(), "sub1\\d.txt"), std::find(rel.begin(), rel.end(), "sub1\\deep\\e.txt"));
  EXPECT_EQ(AsSet(t.Listed(EnumFiles, "*.*", false)), (TSet{"a.txt", "b.dat"}));
  EXPECT_EQ(AsSet(t.Listed(EnumDirs, "*.*", true)), (TSet{"sub1", "sub1\\deep", "sub2"}));

  intptr_t count = 0, present = 0, absent = 0;
  EnumFiles(t.Root + "\\*.*", CountFilesProc, count, true);
  EnumFiles(t.Root + "\\*.dat", FilesPresentProc, present, true);
  EnumFiles(t.Root + "\\*.none", FilesPresentProc, absent, true);
  EXPECT_EQ(std::make_tuple(count, present, absent), std::make_tuple(6, 1, 0));
  count = 0;
  EnumFiles(t.Root + "\\missing\\*.*", CountFilesProc, count, true);
  EXPECT_EQ(count, 0);

  // A bare pattern gives names relative to the current folder.
  char cwd[MAX_PATH] = {};
  GetCurrentDirectoryA(MAX_PATH, cwd);
  SetCurrentDirectoryA(t.Root.c_str());
  const auto bare = Collect([](intptr_t& d) { EnumFiles("*.txt", EnumFilesProc, d, true); });
  SetCurrentDirectoryA(cwd);
  EXPECT_EQ(AsSet(bare), kAllTxt);

  // Size 4 exactly; modified after 2119 (none) or after 1909 (all).
  auto filtered = [&](TDateTime Modified, int64_t Size) {
    return t.Relative(Collect([&](intptr_t& d) { EnumFilesEx(t.Root + "\\*.*", EnumFilesProc, 0, 0, Modified, Size, d, true); }));
  };
  EXPECT_EQ(AsSet(filtered(0, 4)), (TSet{"a.txt", "b.dat", "sub2\\f.txt"}));
  EXPECT_EQ(filtered(80000.0, 0).size(), 0u);
  EXPECT_EQ(filtered(40000.0, 0).size(), 6u);
}

TEST(FilesEnum, FalseStopsOnlyTheCurrentLevel) {
  TTree t;
  g_Seen.clear();
  intptr_t data = 0;
  EnumFiles(t.Root + "\\*.txt", StopInSubdirs, data, true);
  const TSet seen = AsSet(t.Relative(g_Seen));
  // Inside sub1 only the first file is seen and sub1\deep is not entered, but the root
  // level goes on to the other subdirectory, whichever comes first.
  EXPECT_EQ(seen.count("a.txt") + seen.count("sub2\\f.txt"), 2u);
  EXPECT_EQ(seen.count("sub1\\c.txt") + seen.count("sub1\\d.txt"), 1u);
  EXPECT_EQ(seen.count("sub1\\deep\\e.txt"), 0u);
  EXPECT_EQ(g_Seen.size(), 3u);
}

TEST(FilesEnum, FileListAndEnumerator) {
  TTree t;
  TFileList files(t.Root + "\\*.txt");
  EXPECT_EQ(files.Count(), 1);
  EXPECT_EQ(files.IndexOf("A.TXT"), 0);
  EXPECT_EQ(files.Items(0).Size, 5);
  files.SetRecursive(true);
  EXPECT_EQ(files.Count(), 5);
  EXPECT_EQ(files.Items(files.IndexOf("f.txt")).Size, 4);
  kltest::WriteFileBytes(t.Root + "\\g.txt", "g");
  files.Refresh();
  EXPECT_EQ(files.Count(), 6);

  ComPtr<IFileEnumerator> en = CreateFileEnumerator();
  ASSERT_TRUE(en);
  auto listed = [&](const std::string& Dir) {
    return AsSet(t.Relative(Collect([&](intptr_t& d) { en->Enum(Dir, EnumFilesProc, d); })));
  };
  EXPECT_EQ(listed(t.Root), (TSet{"a.txt", "b.dat", "g.txt"}));
  en->SetAttributes(FILE_ATTRIBUTE_DIRECTORY);
  en->SetMask("sub*");
  EXPECT_EQ(listed(t.Root + "\\"), (TSet{"sub1", "sub2"}));

  // Stop ends the enumeration before the next entry, Reset allows a new one.
  en->SetAttributes(0);
  en->SetMask("*.*");
  en->SetRecursive(true);
  g_Enumerator = en.Get();
  intptr_t n = 0;
  en->Enum(t.Root, StopAfterTwo, n);
  EXPECT_EQ(n, 2);
  en->Enum(t.Root, StopAfterTwo, n);
  EXPECT_EQ(n, 2);
  en->Reset();
  n = 10;
  en->Enum(t.Root, StopAfterTwo, n);
  EXPECT_EQ(n, 17);
  g_Enumerator = nullptr;

  kltest::ExpectRaises<klLog::EklException>([&] { en->EnumEx(t.Root, CountFilesProc, 0, 0, 0, 0, n); },
                                            "TFileEnumerator.EnumEx: not released yet");
}

TEST(FilesNames, TempAndUniqueNamesAvoidExistingFiles) {
  kltest::TTempDir dir;
  EXPECT_EQ(Lower(ExtractFilePath(GetTempFileName(""))), Lower(GetTempPath()));
  kltest::WriteFileBytes(dir / "x.wav", "");
  const std::string other = GetTempFileName(dir / "x.wav");
  EXPECT_EQ(ExtractFileExt(other), ".wav");
  EXPECT_EQ(other.substr(0, (dir / "x_").size()), dir / "x_");
  EXPECT_FALSE(FileExists(other));
  EXPECT_EQ(GetTempFileName(dir / "free.wav"), dir / "free.wav");

  EXPECT_EQ(GetUniqueFileName(dir / "clip.wav"), dir / "clip_001.wav");
  kltest::WriteFileBytes(dir / "clip_001.wav", "");
  for (const auto& [name, unique] : std::vector<std::pair<std::string, std::string>>{
           {"clip_007.wav", "clip_002.wav"}, {"clip_x07.wav", "clip_x07_001.wav"}}) {
    EXPECT_EQ(GetUniqueFileName(dir / name), dir / unique);
  }
  for (int i = 1; i <= 999; ++i) kltest::WriteFileBytes(dir / Format("n_%.3d", i), "");
  EXPECT_EQ(GetUniqueFileName(dir / "n"), dir / "n_1000");

  std::string name = dir / "cap.raw";
  auto stream = CreateUniqueFileStream(name);
  ASSERT_TRUE(stream);
  EXPECT_NE(name, dir / "cap.raw");
  EXPECT_EQ(ExtractFileExt(name), ".raw");
  stream->WriteBuffer("abc", 3);
  stream.reset();
  EXPECT_EQ(kltest::ReadFileBytes(name), "abc");
  std::string bad = dir / "no\\such\\folder\\f.bin";
  EXPECT_FALSE(CreateUniqueFileStream(bad));
}

TEST(FilesNames, PathTests) {
  for (const char* s : {"HTTPS://example.com/a.mp4", "ftp://host/x"}) EXPECT_TRUE(IsWebFile(s)) << s;
  for (const char* s : {"example.com/http://a", "http:/x", ""}) EXPECT_FALSE(IsWebFile(s)) << s;
  for (const char* s : {"C:\\x", "\\\\server\\share"}) EXPECT_TRUE(IsFullFileName(s)) << s;
  for (const char* s : {"C:", "dir\\file"}) EXPECT_FALSE(IsFullFileName(s)) << s;
  EXPECT_EQ(CleanStrToPath("\"x\\y:z/\""), "xyz");
  EXPECT_EQ(Lower(GetSpecialFolder(CSIDL_WINDOWS) + "\\"), Lower(GetWindowsPath()));

  kltest::TTempDir dir;
  kltest::WriteFileBytes(dir / "a long file name.text", "x");
  const std::string s = GetShortFileName(dir / "a long file name.text");
  EXPECT_FALSE(s.empty());
  EXPECT_EQ(kltest::ReadFileBytes(s), "x");
  const std::string longName = "C:\\" + std::string(300, 'a');
  EXPECT_EQ(GetShortFileName(longName), "\\\\?\\" + longName);
}

TEST(FilesShell, ShortcutResolvesToItsTarget) {
  kltest::TTempDir dir;
  const std::string target = dir / "target.txt";
  kltest::WriteFileBytes(target, "t");
  ASSERT_TRUE(CreateLink(target, dir / "link.lnk", "-a -b", "my link"));
  ASSERT_TRUE(FileExists(dir / "link.lnk"));
  CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
  const std::string resolved = Resolve(dir / "link.lnk");
  CoUninitialize();
  EXPECT_EQ(Lower(resolved), Lower(target) + "|-a -b|my link");
  EXPECT_FALSE(CreateLink(target, dir / "no\\such\\dir\\link.lnk", "", ""));
}

TEST(FilesShell, CopyAndDeleteWholeTree) {
  TTree t;
  const std::string dest = t.Temp / "copy\\of\\tree";
  ASSERT_TRUE(CopyDirectory(nullptr, t.Root, dest));
  EXPECT_EQ(Contents(dest), Contents(t.Root));

  EXPECT_FALSE(CopyDirectory(nullptr, t.Temp / "missing", dest));
  EXPECT_TRUE(DeleteDirectory(nullptr, dest));
  EXPECT_FALSE(DirectoryExists(dest));
  EXPECT_TRUE(DirectoryExists(t.Temp / "copy\\of"));
  EXPECT_FALSE(DeleteDirectory(nullptr, dest));

  int32_t count = -1;
  CreateDirectoryA((t.Temp / "txt").c_str(), nullptr);
  EXPECT_TRUE(CopyFiles(t.Root + "\\*.txt", t.Temp / "txt", &count));
  EXPECT_EQ(count, 1);
  EXPECT_EQ(kltest::ReadFileBytes(t.Temp / "txt\\a.txt"), "aaaaa");
  EXPECT_FALSE(CopyFiles(t.Root + "\\*.*", t.Temp / "nowhere", &count));
  EXPECT_EQ(count, 0);
}

TEST(FilesInfo, SizesDatesAndStringLists) {
  TTree t;
  EXPECT_EQ(GetFileSize(t.Root + "\\b.dat"), 20);
  EXPECT_EQ(GetFileSize2(t.Root + "\\missing"), -1);

  // The date-time of now, as the host framework counts it (local time).
  SYSTEMTIME st{};
  GetLocalTime(&st);
  double now = 0;
  SystemTimeToVariantTime(&st, &now);
  FILETIME ft{};
  GetSystemTimeAsFileTime(&ft);
  EXPECT_NEAR(FileTimeToDateTime(ft), now, 2.0 / 86400);

  TDateTime c = -1, a = -1, m = -1;
  ASSERT_TRUE(GetFileDates(t.Root + "\\a.txt", c, a, m));
  EXPECT_NEAR(m, now, 600.0 / 86400);
  EXPECT_FALSE(GetFileDates(t.Root + "\\missing", c, a, m));
  // A drive root has no directory entry: its dates come from the opened folder.
  EXPECT_TRUE(GetFileDates("C:\\", c, a, m));
  EXPECT_GT(m, 0);

  TStringList list, more, back;
  list.SetText("a=1\nplain\nb=2");
  const std::string file = t.Temp / "values.txt";
  ASSERT_TRUE(SaveSL(list, file));
  more.SetText("b=3\nc=4\nplain\nnew");
  ASSERT_TRUE(UpdateValues(file, more));
  ASSERT_TRUE(LoadSL(back, file));
  EXPECT_EQ(back.Items(), (std::vector<std::string>{"a=1", "plain", "b=3", "c=4", "new"}));
  ASSERT_TRUE(UpdateValues(t.Temp / "fresh.txt", more));
  EXPECT_EQ(kltest::ReadFileBytes(t.Temp / "fresh.txt"), "b=3\r\nc=4\r\nplain\r\nnew\r\n");
  EXPECT_FALSE(SaveSL(list, t.Temp / "no\\dir\\x.txt"));
}
