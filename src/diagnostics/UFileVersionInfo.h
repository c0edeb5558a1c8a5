// Reads the version-information block of a file: the fixed file info and the entries of
// its string table, for display.
#pragma once

#include <windows.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "rtl/Controls.h"

namespace kl::UFileVersionInfo {

class TFileVersionInfo : public TComponent {
 public:
  explicit TFileVersionInfo(TComponent* AOwner) : TComponent(AOwner) {}

  // Reads FileName's block; false (logged, everything empty) when it has none.
  bool SetFileName(const std::string& FileName);
  const std::string& FileName() const { return FFileName; }
  bool HasInfo() const { return FHasFixed; }
  const VS_FIXEDFILEINFO& FixedInfo() const { return FFixed; }
  // "major.minor.release.build" from the fixed file info.
  std::string FileVersion() const;
  std::string ProductVersion() const;
  // The string table entries of the first translation, in the order of the standard
  // names (CompanyName, FileDescription, ...), only those the file has.
  const std::vector<std::pair<std::string, std::string>>& Strings() const { return FStrings; }
  // One entry by name, standard or not; empty when absent.
  std::string Value(const std::string& Name) const;
  // The first translation as "LLLLCCCC" (language and code page, hexadecimal).
  const std::string& Translation() const { return FTranslation; }

 private:
  std::string FFileName;
  std::vector<uint8_t> FBlock;
  VS_FIXEDFILEINFO FFixed{};
  bool FHasFixed = false;
  std::string FTranslation;
  std::vector<std::pair<std::string, std::string>> FStrings;
};

}  // namespace kl::UFileVersionInfo
