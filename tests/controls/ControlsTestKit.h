// What the control tests share: a shown host form, rendering a control into a memory
// bitmap through WM_PRINTCLIENT, input as window messages, GDI/USER object counts and
// screenshots into the build folder.
#pragma once

#include <windows.h>

#include <memory>
#include <string>

#include "rtl/Forms.h"
#include "rtl/Graphics.h"

namespace kltest {

// A visible form at a fixed place on the test screen.
std::unique_ptr<kl::TForm> MakeHostForm(int Width = 320, int Height = 160);
// The control's client area as the control paints it.
void Render(kl::TWinControl& Control, kl::TBitmap& Into);
void SendMouse(kl::TWinControl& Control, UINT Msg, int X, int Y, WPARAM Keys = 0);
// Sets the thread's key state for Shift and Ctrl (what the key handlers read) and sends
// a key-down.
void SendKey(kl::TWinControl& Control, WORD Key, bool Shift = false, bool Ctrl = false);
// GDI objects and windows of this process (GetGuiResources where the system counts them;
// otherwise a walk of the GDI handle table and of the thread's windows).
int GdiObjects();
int UserObjects();
// <build>\screenshots\Name.png
void SaveScreenshot(const kl::TBitmap& Bitmap, const std::string& Name);

}  // namespace kltest
