#include "rtl/Dialogs.h"

#include <mutex>

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

}  // namespace kl
