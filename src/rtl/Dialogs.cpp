#include "rtl/Dialogs.h"

#include <commdlg.h>

#include <mutex>
#include <vector>

namespace kl {

namespace {
std::mutex& FunctionLock() {
  static std::mutex m;
  return m;
}
TMessageBoxFunction& Current() {
  static TMessageBoxFunction f;
  return f;
}
TOpenDialogFunction& CurrentOpen() {
  static TOpenDialogFunction f;
  return f;
}

bool SystemOpenDialog(HWND Owner, const std::string& Filter, std::string& FileName) {
  std::string filter = Filter + "||";
  for (char& c : filter)
    if (c == '|') c = 0;
  std::vector<char> name(32768, 0);
  FileName.copy(name.data(), name.size() - 1);
  OPENFILENAMEA ofn{};
  ofn.lStructSize = sizeof ofn;
  ofn.hwndOwner = Owner;
  ofn.lpstrFilter = filter.c_str();
  ofn.lpstrFile = name.data();
  ofn.nMaxFile = static_cast<DWORD>(name.size());
  ofn.Flags = OFN_FILEMUSTEXIST | OFN_PATHMUSTEXIST | OFN_HIDEREADONLY | OFN_EXPLORER;
  if (!GetOpenFileNameA(&ofn)) return false;
  FileName = name.data();
  return true;
}
}  // namespace

TMessageBoxFunction SetMessageBoxFunction(TMessageBoxFunction Func) {
  std::lock_guard<std::mutex> guard(FunctionLock());
  TMessageBoxFunction old = std::move(Current());
  Current() = std::move(Func);
  return old;
}

int ShowMessageBox(HWND Owner, const std::string& Text, const std::string& Caption, UINT Type) {
  TMessageBoxFunction f;
  {
    std::lock_guard<std::mutex> guard(FunctionLock());
    f = Current();
  }
  if (f) return f(Owner, Text, Caption, Type);
  return MessageBoxA(Owner, Text.c_str(), Caption.c_str(), Type);
}

TOpenDialogFunction SetOpenDialogFunction(TOpenDialogFunction Func) {
  std::lock_guard<std::mutex> guard(FunctionLock());
  TOpenDialogFunction old = std::move(CurrentOpen());
  CurrentOpen() = std::move(Func);
  return old;
}

bool ExecuteOpenDialog(HWND Owner, const std::string& Filter, std::string& FileName) {
  TOpenDialogFunction f;
  {
    std::lock_guard<std::mutex> guard(FunctionLock());
    f = CurrentOpen();
  }
  return f ? f(Owner, Filter, FileName) : SystemOpenDialog(Owner, Filter, FileName);
}

}  // namespace kl
