// Every message box of the library goes through one process-wide function. It
// defaults to MessageBoxA; a host or a test may replace it (tests record the boxes
// instead of blocking on them). The open-file dialog is replaceable the same way.
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

// Asks for an existing file; true and FileName set when the user picked one. Filter is in
// the system's form ("Films|*.mp4;*.mkv|All files|*.*", with '|' for its NUL bytes);
// FileName comes in as the initial choice. Default: GetOpenFileNameA.
using TOpenDialogFunction = std::function<bool(HWND Owner, const std::string& Filter, std::string& FileName)>;
TOpenDialogFunction SetOpenDialogFunction(TOpenDialogFunction Func);
bool ExecuteOpenDialog(HWND Owner, const std::string& Filter, std::string& FileName);

}  // namespace kl
