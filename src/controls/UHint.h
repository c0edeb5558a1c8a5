// The floating hint: one process-wide white pop-up window with a short text, placed by
// its caller (the timeline shows the position under the pointer in it).
#pragma once

#include <windows.h>

#include <string>

namespace kl::UHint {

// The widest the hint window gets; longer texts wrap.
constexpr int HintMaxWidth = 100;

// Shows Text with the window centred horizontally on screen X and its top at screen Y.
// The window is made on first use (owned by the application window) and reused.
// Handle: the caller's window, kept for the caller's own bookkeeping only.
void ShowHint(int X, int Y, const std::string& Text, HWND Handle);
// Releases the hint's system window (the hint object stays); nothing when there is none.
void HideHint();

bool HintVisible();
// The hint's current system window; null while released or before the first ShowHint.
HWND HintHandle();

}  // namespace kl::UHint
