// Every message box of the library goes through one process-wide function. It
// defaults to MessageBoxA; a host or a test may replace it (tests record the boxes
// instead of blocking on them).
#pragma once

#include <windows.h>

#include <functional>
#include <string>

namespace kl {

using TMessageBoxFunction =
    std::function<int(HWND Owner, const std::string& Text, const std::string& Caption, UINT Type)>;

// Replaces the function; an empty one restores MessageBoxA. Returns the previous one.
TMessageBoxFunction SetMessageBoxFunction(TMessageBoxFunction Func);
int ShowMessageBox(HWND Owner, const std::string& Text, const std::string& Caption, UINT Type);

}  // namespace kl
