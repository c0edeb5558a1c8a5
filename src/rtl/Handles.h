// One owner for any Win32 handle: the handle type, its "no handle" values and its close
// function are template arguments, so a kernel handle, a file-mapping view or a
// registry key all close the same way and a forgotten CloseHandle on an early return
// or an exception cannot happen. Moveable, not copyable.
#pragma once

#include <windows.h>

#include <utility>

namespace kl::Handles {

struct TKernelTraits {
  static bool Valid(HANDLE H) { return H != nullptr && H != INVALID_HANDLE_VALUE; }
  static void Close(HANDLE H) { CloseHandle(H); }
};

template <class T, class Traits>
class TOwnedHandle {
 public:
  TOwnedHandle() = default;
  explicit TOwnedHandle(T H) : FHandle(H) {}
  ~TOwnedHandle() { Reset(); }
  TOwnedHandle(const TOwnedHandle&) = delete;
  TOwnedHandle& operator=(const TOwnedHandle&) = delete;
  TOwnedHandle(TOwnedHandle&& Other) noexcept : FHandle(Other.Release()) {}
  TOwnedHandle& operator=(TOwnedHandle&& Other) noexcept {
    if (this != &Other) Reset(Other.Release());
    return *this;
  }

  T Get() const { return FHandle; }
  bool Valid() const { return Traits::Valid(FHandle); }
  explicit operator bool() const { return Valid(); }

  // Closes what is held and returns the slot for an API that writes a new handle into
  // it: CreatePipe(Read.Receive(), Write.Receive(), ...).
  T* Receive() {
    Reset();
    return &FHandle;
  }
  // Gives up ownership without closing.
  T Release() {
    T h = FHandle;
    FHandle = T{};
    return h;
  }
  void Reset(T H = T{}) {
    if (Traits::Valid(FHandle)) Traits::Close(FHandle);
    FHandle = H;
  }

 private:
  T FHandle{};
};

using THandle = TOwnedHandle<HANDLE, TKernelTraits>;

}  // namespace kl::Handles
