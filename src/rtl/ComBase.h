// Reference-counted interfaces are COM interfaces: IUnknown-derived, with fixed GUIDs,
// held in Microsoft::WRL::ComPtr. TInterfacedObject implements IUnknown once for any
// set of interfaces an object exposes.
#pragma once

#include <unknwn.h>
#include <windows.h>
#include <wrl/client.h>

#include <atomic>
#include <new>

// Attaches a GUID to an interface so that __uuidof works on both compilers. Use at
// global scope, after the interface's namespace is closed.
#ifdef _MSC_VER
#define KL_DECLARE_IID(type, str, l, w1, w2, b1, b2, b3, b4, b5, b6, b7, b8) \
  struct __declspec(uuid(str)) type;
#else
#define KL_DECLARE_IID(type, str, l, w1, w2, b1, b2, b3, b4, b5, b6, b7, b8) \
  __CRT_UUID_DECL(type, l, w1, w2, b1, b2, b3, b4, b5, b6, b7, b8)
#endif

namespace kl {

using Microsoft::WRL::ComPtr;

namespace detail {
// An interface that extends another names it as `using TParent = IBase;`, so that a
// query for any ancestor finds the object too.
template <class I>
bool MatchesInterface(REFIID Riid) {
  if (IsEqualGUID(Riid, __uuidof(I))) return true;
  if constexpr (requires { typename I::TParent; }) {
    return MatchesInterface<typename I::TParent>(Riid);
  } else {
    return false;
  }
}

template <class Self, class First, class... Rest>
void* FindInterface(Self* Obj, REFIID Riid) {
  if (MatchesInterface<First>(Riid)) return static_cast<First*>(Obj);
  if constexpr (sizeof...(Rest) > 0) {
    return FindInterface<Self, Rest...>(Obj, Riid);
  } else {
    return nullptr;
  }
}
}  // namespace detail

template <class... Interfaces>
class TInterfacedObject : public Interfaces... {
 public:
  TInterfacedObject() = default;
  virtual ~TInterfacedObject() = default;
  TInterfacedObject(const TInterfacedObject&) = delete;
  TInterfacedObject& operator=(const TInterfacedObject&) = delete;

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID Riid, void** Object) override {
    if (Object == nullptr) return E_POINTER;
    void* found = detail::FindInterface<TInterfacedObject, Interfaces...>(this, Riid);
    if (found == nullptr && IsEqualGUID(Riid, __uuidof(IUnknown))) {
      found = static_cast<IUnknown*>(static_cast<FirstInterface*>(this));
    }
    *Object = found;
    if (found == nullptr) return E_NOINTERFACE;
    AddRef();
    return S_OK;
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return ++FRefCount; }
  ULONG STDMETHODCALLTYPE Release() override {
    const ULONG n = --FRefCount;
    if (n == 0) delete this;
    return n;
  }
  ULONG RefCount() const { return FRefCount.load(); }

 private:
  template <class F, class...>
  struct First {
    using type = F;
  };
  using FirstInterface = typename First<Interfaces...>::type;
  std::atomic<ULONG> FRefCount{0};
};

// Makes a reference-counted object and returns it held by a ComPtr of interface I.
// Returns an empty pointer when memory runs out.
template <class I, class T, class... Args>
ComPtr<I> MakeInterface(Args&&... A) {
  ComPtr<I> result;
  T* obj = new (std::nothrow) T(std::forward<Args>(A)...);
  if (obj != nullptr) result = static_cast<I*>(obj);
  return result;
}

}  // namespace kl
