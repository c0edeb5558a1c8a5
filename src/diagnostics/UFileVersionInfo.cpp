#include "diagnostics/UFileVersionInfo.h"

#include <cstdio>

#include "diagnostics/klLog.h"

namespace kl::UFileVersionInfo {

namespace {
const char* const kStandardNames[] = {"CompanyName",     "FileDescription", "FileVersion",
                                      "InternalName",    "LegalCopyright",  "LegalTrademarks",
                                      "OriginalFilename", "ProductName",    "ProductVersion",
                                      "Comments",        "PrivateBuild",    "SpecialBuild"};

std::string FourPart(DWORD Ms, DWORD Ls) {
  char buf[64];
  std::snprintf(buf, sizeof buf, "%lu.%lu.%lu.%lu", static_cast<unsigned long>(HIWORD(Ms)),
                static_cast<unsigned long>(LOWORD(Ms)), static_cast<unsigned long>(HIWORD(Ls)),
                static_cast<unsigned long>(LOWORD(Ls)));
  return buf;
}
}  // namespace

bool TFileVersionInfo::SetFileName(const std::string& FileName) {
  FFileName = FileName;
  FBlock.clear();
  FFixed = {};
  FHasFixed = false;
  FTranslation.clear();
  FStrings.clear();
  DWORD dummy = 0;
  DWORD size = GetFileVersionInfoSizeA(FileName.c_str(), &dummy);
  if (size == 0) {
    klLog::AddToEventLog("TFileVersionInfo.SetFileName: " + FileName + ": " + klLog::GetLastErrorStr(),
                         klLog::lkError);
    return false;
  }
  FBlock.resize(size);
  if (!GetFileVersionInfoA(FileName.c_str(), 0, size, FBlock.data())) {
    klLog::AddToEventLog("TFileVersionInfo.SetFileName: " + FileName + ": " + klLog::GetLastErrorStr(),
                         klLog::lkError);
    FBlock.clear();
    return false;
  }
  void* p = nullptr;
  UINT len = 0;
  if (VerQueryValueA(FBlock.data(), "\\", &p, &len) && len >= sizeof(VS_FIXEDFILEINFO)) {
    FFixed = *static_cast<VS_FIXEDFILEINFO*>(p);
    FHasFixed = FFixed.dwSignature == 0xFEEF04BD;
  }
  if (VerQueryValueA(FBlock.data(), "\\VarFileInfo\\Translation", &p, &len) && len >= 4) {
    auto* words = static_cast<WORD*>(p);
    char buf[16];
    std::snprintf(buf, sizeof buf, "%04X%04X", words[0], words[1]);
    FTranslation = buf;
  }
  for (const char* name : kStandardNames) {
    std::string v = Value(name);
    if (!v.empty()) FStrings.emplace_back(name, v);
  }
  return FHasFixed || !FStrings.empty();
}

std::string TFileVersionInfo::Value(const std::string& Name) const {
  if (FBlock.empty() || FTranslation.empty()) return {};
  std::string path = "\\StringFileInfo\\" + FTranslation + "\\" + Name;
  void* p = nullptr;
  UINT len = 0;
  // VerQueryValueA takes a non-const block (it may convert the strings in place).
  auto* block = const_cast<uint8_t*>(FBlock.data());
  if (!VerQueryValueA(block, path.c_str(), &p, &len) || len == 0) return {};
  std::string s(static_cast<const char*>(p), len);
  while (!s.empty() && s.back() == '\0') s.pop_back();
  return s;
}

std::string TFileVersionInfo::FileVersion() const {
  return FHasFixed ? FourPart(FFixed.dwFileVersionMS, FFixed.dwFileVersionLS) : std::string();
}

std::string TFileVersionInfo::ProductVersion() const {
  return FHasFixed ? FourPart(FFixed.dwProductVersionMS, FFixed.dwProductVersionLS) : std::string();
}

}  // namespace kl::UFileVersionInfo
