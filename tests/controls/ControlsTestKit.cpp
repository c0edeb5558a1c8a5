#include "ControlsTestKit.h"

#include "KlTest.h"

namespace kltest {

std::unique_ptr<kl::TForm> MakeHostForm(int Width, int Height) {
  auto form = std::make_unique<kl::TForm>(nullptr);
  // Without a caption: Wine waits up to 2 s for a window manager to withdraw a captioned
  // window, and the test screen has none.
  form->BorderStyle = kl::TFormBorderStyle::bsNone;
  form->SetBounds(60, 80, Width, Height);
  form->Show();
  kl::Application().ProcessMessages();
  return form;
}

void Render(kl::TWinControl& Control, kl::TBitmap& Into) {
  Into.SetSize(Control.Width(), Control.Height());
  Into.Fill(RGB(1, 2, 3));
  SendMessageA(Control.Handle(), WM_PRINTCLIENT, reinterpret_cast<WPARAM>(Into.DC()), PRF_CLIENT);
}

void SendMouse(kl::TWinControl& Control, UINT Msg, int X, int Y, WPARAM Keys) {
  SendMessageA(Control.Handle(), Msg, Keys, MAKELPARAM(X, Y));
}

void SendKey(kl::TWinControl& Control, WORD Key, bool Shift, bool Ctrl) {
  BYTE state[256];
  GetKeyboardState(state);
  state[VK_SHIFT] = Shift ? 0x80 : 0;
  state[VK_CONTROL] = Ctrl ? 0x80 : 0;
  SetKeyboardState(state);
  SendMessageA(Control.Handle(), WM_KEYDOWN, Key, 1);
  state[VK_SHIFT] = state[VK_CONTROL] = 0;
  SetKeyboardState(state);
}

int GdiObjects() {
  if (DWORD n = GetGuiResources(GetCurrentProcess(), GR_GDIOBJECTS)) return static_cast<int>(n);
  // Wine does not count: probe every slot of its handle table (a handle with a zero
  // high word names a slot whatever its generation).
  int n = 0;
  for (uintptr_t i = 0x20; i < 0x10000; ++i)
    if (GetObjectType(reinterpret_cast<HGDIOBJ>(i)) != 0) ++n;
  return n;
}

static BOOL CALLBACK CountWindow(HWND, LPARAM P) {
  ++*reinterpret_cast<int*>(P);
  return TRUE;
}

static BOOL CALLBACK CountWindowTree(HWND W, LPARAM P) {
  CountWindow(W, P);
  EnumChildWindows(W, &CountWindow, P);
  return TRUE;
}

int UserObjects() {
  if (DWORD n = GetGuiResources(GetCurrentProcess(), GR_USEROBJECTS)) return static_cast<int>(n);
  int n = 0;
  EnumThreadWindows(GetCurrentThreadId(), &CountWindowTree, reinterpret_cast<LPARAM>(&n));
  return n;
}

void SaveScreenshot(const kl::TBitmap& Bitmap, const std::string& Name) {
  std::string dir = ExeDir() + "..\\screenshots\\";
  CreateDirectoryA(dir.c_str(), nullptr);
  kl::TPngImage::SaveBitmap(Bitmap, dir + Name + ".png");
}

}  // namespace kltest
