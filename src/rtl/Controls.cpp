#include "rtl/Controls.h"

#include <windowsx.h>

#include <algorithm>

#include "diagnostics/klLog.h"

namespace kl {

namespace {

constexpr char kControlClass[] = "klWinControl";
constexpr char kTimerClass[] = "klTimerWindow";
constexpr char kObjectProp[] = "klWinControl";

// The module this code is linked into (the DLL or the program), so that two copies of
// the library in one process register their classes apart.
HINSTANCE ThisModule() {
  HMODULE m = nullptr;
  GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                     reinterpret_cast<LPCSTR>(&ThisModule), &m);
  return m;
}

bool RegisterOnce(const char* Name, WNDPROC Proc, UINT Style) {
  WNDCLASSA existing{};
  if (GetClassInfoA(ThisModule(), Name, &existing)) return true;
  WNDCLASSA wc{};
  wc.style = Style;
  wc.lpfnWndProc = Proc;
  wc.hInstance = ThisModule();
  wc.lpszClassName = Name;
  return RegisterClassA(&wc) != 0 || GetLastError() == ERROR_CLASS_ALREADY_EXISTS;
}

}  // namespace

TShiftState KeyboardShiftState() {
  TShiftState s = 0;
  if (GetKeyState(VK_SHIFT) < 0) s |= ssShift;
  if (GetKeyState(VK_CONTROL) < 0) s |= ssCtrl;
  if (GetKeyState(VK_MENU) < 0) s |= ssAlt;
  return s;
}

static TShiftState MouseShiftState(WPARAM Keys) {
  TShiftState s = 0;
  if (Keys & MK_SHIFT) s |= ssShift;
  if (Keys & MK_CONTROL) s |= ssCtrl;
  if (Keys & MK_LBUTTON) s |= ssLeft;
  if (Keys & MK_RBUTTON) s |= ssRight;
  if (Keys & MK_MBUTTON) s |= ssMiddle;
  if (GetKeyState(VK_MENU) < 0) s |= ssAlt;
  return s;
}

// --- TComponent ---------------------------------------------------------------------

TComponent::TComponent(TComponent* AOwner) : FOwner(AOwner) {
  if (FOwner) FOwner->FComponents.push_back(this);
}

TComponent::~TComponent() {
  while (!FComponents.empty()) {
    TComponent* c = FComponents.back();
    FComponents.pop_back();
    c->FOwner = nullptr;
    delete c;
  }
  if (FOwner) {
    auto& list = FOwner->FComponents;
    list.erase(std::remove(list.begin(), list.end(), this), list.end());
  }
}

// --- TWinControl --------------------------------------------------------------------

TWinControl::TWinControl(TComponent* AOwner) : TComponent(AOwner) {}

TWinControl::~TWinControl() {
  for (TWinControl* c : FChildren) c->FParent = nullptr;
  FChildren.clear();
  DestroyHandle();
  if (FParent) {
    auto& list = FParent->FChildren;
    list.erase(std::remove(list.begin(), list.end(), this), list.end());
  }
}

TWinControl* TWinControl::FromHandle(HWND Wnd) {
  return Wnd ? static_cast<TWinControl*>(GetPropA(Wnd, kObjectProp)) : nullptr;
}

void TWinControl::Attach(HWND Wnd) {
  FHandle = Wnd;
  SetPropA(Wnd, kObjectProp, this);
}

void TWinControl::DestroyHandle() {
  if (!FHandle) return;
  HWND h = FHandle;
  FHandle = nullptr;
  FMouseInControl = false;
  // Detached first: the messages of the destruction (this object may be half destroyed
  // already) go to the class's own procedure.
  RemovePropA(h, kObjectProp);
  if (FOldProc) SetWindowLongPtrA(h, GWLP_WNDPROC, reinterpret_cast<LONG_PTR>(FOldProc));
  FOldProc = nullptr;
  DestroyWindow(h);
}

DWORD TWinControl::WindowStyle() const {
  DWORD s = WS_CHILD | WS_CLIPSIBLINGS | WS_CLIPCHILDREN;
  if (TabStop) s |= WS_TABSTOP;
  return s;
}

HWND TWinControl::ParentHandleForCreate() {
  if (FParent) return FParent->Handle();
  return FParentWindow;
}

void TWinControl::CreateWnd() {
  HWND parent = ParentHandleForCreate();
  DWORD style = WindowStyle();
  if ((style & WS_CHILD) && !parent) {
    klLog::AddToEventLog("TWinControl.CreateWnd: " + Name + ": no parent window", klLog::lkError);
    return;
  }
  // A top-level window is shown after it is made (Wine waits on a window mapped by
  // CreateWindowEx itself).
  const bool child = (style & WS_CHILD) != 0;
  if (FVisible && child) style |= WS_VISIBLE;
  if (!FEnabled) style |= WS_DISABLED;
  const char* sysClass = WindowClass();
  if (!sysClass && !RegisterOnce(kControlClass, &StaticWndProc, CS_DBLCLKS)) {
    klLog::AddToEventLog("TWinControl.CreateWnd: RegisterClass: " + klLog::GetLastErrorStr(), klLog::lkError);
    return;
  }
  HWND h = CreateWindowExA(WindowExStyle(), sysClass ? sysClass : kControlClass, FCaption.c_str(), style, FLeft, FTop,
                           FWidth, FHeight, parent, nullptr, ThisModule(), this);
  if (!h) {
    klLog::AddToEventLog("TWinControl.CreateWnd: CreateWindowEx: " + klLog::GetLastErrorStr(), klLog::lkError);
    return;
  }
  if (sysClass) {
    Attach(h);
    FOldProc = reinterpret_cast<WNDPROC>(
        SetWindowLongPtrA(h, GWLP_WNDPROC, reinterpret_cast<LONG_PTR>(&StaticWndProc)));
  }
  RECT r;
  GetWindowRect(h, &r);
  FWidth = r.right - r.left;
  FHeight = r.bottom - r.top;
  if (FVisible && !child) ShowWindow(h, SW_SHOWNA);
}

HWND TWinControl::Handle() {
  if (!FHandle) CreateWnd();
  return FHandle;
}

void TWinControl::SetParent(TWinControl* AParent) {
  if (AParent == FParent) return;
  if (FParent) {
    auto& list = FParent->FChildren;
    list.erase(std::remove(list.begin(), list.end(), this), list.end());
  }
  FParent = AParent;
  if (!FParent) {
    DestroyHandle();
    return;
  }
  FParent->FChildren.push_back(this);
  if (FHandle)
    ::SetParent(FHandle, FParent->Handle());
  else
    CreateWnd();
}

void TWinControl::SetParentWindow(HWND Wnd) {
  FParentWindow = Wnd;
  if (FHandle)
    ::SetParent(FHandle, Wnd);
  else if (Wnd)
    CreateWnd();
}

void TWinControl::SetBounds(int ALeft, int ATop, int AWidth, int AHeight) {
  if (FHandle) {
    // WM_WINDOWPOSCHANGED stores the new bounds.
    SetWindowPos(FHandle, nullptr, ALeft, ATop, AWidth, AHeight, SWP_NOZORDER | SWP_NOACTIVATE);
    return;
  }
  bool resized = AWidth != FWidth || AHeight != FHeight;
  FLeft = ALeft;
  FTop = ATop;
  FWidth = AWidth;
  FHeight = AHeight;
  if (resized) Resize();
}

RECT TWinControl::ClientRect() const {
  RECT r{0, 0, FWidth, FHeight};
  if (FHandle) GetClientRect(FHandle, &r);
  return r;
}

POINT TWinControl::ClientToScreen(POINT P) {
  if (FHandle) ::ClientToScreen(FHandle, &P);
  return P;
}

void TWinControl::SetVisible(bool V) {
  FVisible = V;
  if (V && !FHandle && !(WindowStyle() & WS_CHILD)) Handle();
  if (FHandle) ShowWindow(FHandle, V ? SW_SHOWNA : SW_HIDE);
}

void TWinControl::SetEnabled(bool V) {
  FEnabled = V;
  if (FHandle) EnableWindow(FHandle, V);
  Invalidate();
}

void TWinControl::SetColor(TColor V) {
  FColor = V;
  Invalidate();
}

void TWinControl::SetCaption(const std::string& V) {
  FCaption = V;
  if (FHandle) SetWindowTextA(FHandle, V.c_str());
  Invalidate();
}

bool TWinControl::Focused() { return FHandle && GetFocus() == FHandle; }

bool TWinControl::CanFocus() { return FHandle && IsWindowVisible(FHandle) && IsWindowEnabled(FHandle); }

void TWinControl::SetFocus() {
  if (Handle()) ::SetFocus(FHandle);
}

void TWinControl::Invalidate() {
  if (FHandle) InvalidateRect(FHandle, nullptr, FALSE);
}

void TWinControl::Update() {
  if (FHandle) UpdateWindow(FHandle);
}

void TWinControl::Repaint() {
  Invalidate();
  Update();
}

void TWinControl::PaintTo(HDC DC) {
  TCanvas canvas(DC);
  Paint(canvas);
}

void TWinControl::Paint(TCanvas& Canvas) {
  Canvas.Brush.Color = FColor;
  Canvas.Brush.Style = TBrushStyle::bsSolid;
  Canvas.FillRect(ClientRect());
}

void TWinControl::MouseDown(TMouseButton Button, TShiftState Shift, int X, int Y) {
  if (OnMouseDown) OnMouseDown(this, Button, Shift, X, Y);
}
void TWinControl::MouseMove(TShiftState Shift, int X, int Y) {
  if (OnMouseMove) OnMouseMove(this, Shift, X, Y);
}
void TWinControl::MouseUp(TMouseButton Button, TShiftState Shift, int X, int Y) {
  if (OnMouseUp) OnMouseUp(this, Button, Shift, X, Y);
}
void TWinControl::Click() {
  if (OnClick) OnClick(this);
}
void TWinControl::DblClick() {
  if (OnDblClick) OnDblClick(this);
}
void TWinControl::KeyDown(WORD& Key, TShiftState Shift) {
  if (OnKeyDown) OnKeyDown(this, Key, Shift);
}
void TWinControl::KeyUp(WORD& Key, TShiftState Shift) {
  if (OnKeyUp) OnKeyUp(this, Key, Shift);
}
void TWinControl::KeyPress(char& Key) {
  if (OnKeyPress) OnKeyPress(this, Key);
}
void TWinControl::DoEnter() {
  if (OnEnter) OnEnter(this);
}
void TWinControl::DoExit() {
  if (OnExit) OnExit(this);
}
void TWinControl::Resize() {
  if (OnResize) OnResize(this);
}

LRESULT CALLBACK TWinControl::StaticWndProc(HWND Wnd, UINT Msg, WPARAM WParam, LPARAM LParam) {
  if (Msg == WM_NCCREATE) {
    auto* cs = reinterpret_cast<CREATESTRUCTA*>(LParam);
    if (auto* self = static_cast<TWinControl*>(cs->lpCreateParams)) self->Attach(Wnd);
  }
  TWinControl* self = FromHandle(Wnd);
  if (!self) return DefWindowProcA(Wnd, Msg, WParam, LParam);
  LRESULT r = self->WndProc(Msg, WParam, LParam);
  if (Msg == WM_NCDESTROY) {
    // Destroyed with its parent window: the object lives on without a window.
    RemovePropA(Wnd, kObjectProp);
    if (self->FHandle == Wnd) {
      self->FHandle = nullptr;
      self->FOldProc = nullptr;
      self->FMouseInControl = false;
    }
  }
  return r;
}

LRESULT TWinControl::DefaultHandler(UINT Msg, WPARAM WParam, LPARAM LParam) {
  if (FOldProc) return CallWindowProcA(FOldProc, FHandle, Msg, WParam, LParam);
  return DefWindowProcA(FHandle, Msg, WParam, LParam);
}

LRESULT TWinControl::MouseMessage(UINT Msg, WPARAM WParam, LPARAM LParam) {
  const int x = GET_X_LPARAM(LParam), y = GET_Y_LPARAM(LParam);
  TShiftState shift = MouseShiftState(GET_KEYSTATE_WPARAM(WParam));
  const bool own = FOldProc == nullptr;
  auto down = [&](TMouseButton B, bool Dbl) {
    if (own) SetCapture(FHandle);
    if (B == TMouseButton::mbLeft) FLeftDown = true;
    if (Dbl) {
      shift |= ssDouble;
      if (B == TMouseButton::mbLeft) DblClick();
    }
    MouseDown(B, shift, x, y);
  };
  auto up = [&](TMouseButton B) {
    if (own && GetCapture() == FHandle && !(WParam & (MK_LBUTTON | MK_RBUTTON | MK_MBUTTON))) ReleaseCapture();
    bool click = B == TMouseButton::mbLeft && FLeftDown && x >= 0 && y >= 0 && x < FWidth && y < FHeight;
    if (B == TMouseButton::mbLeft) FLeftDown = false;
    if (click && own) Click();
    MouseUp(B, shift, x, y);
  };
  switch (Msg) {
    case WM_MOUSEMOVE:
      if (!FMouseInControl) {
        FMouseInControl = true;
        TRACKMOUSEEVENT tme{sizeof(tme), TME_LEAVE, FHandle, 0};
        TrackMouseEvent(&tme);
        MouseEnter();
      }
      MouseMove(shift, x, y);
      break;
    case WM_LBUTTONDOWN: down(TMouseButton::mbLeft, false); break;
    case WM_LBUTTONDBLCLK: down(TMouseButton::mbLeft, true); break;
    case WM_RBUTTONDOWN: down(TMouseButton::mbRight, false); break;
    case WM_RBUTTONDBLCLK: down(TMouseButton::mbRight, true); break;
    case WM_MBUTTONDOWN: down(TMouseButton::mbMiddle, false); break;
    case WM_MBUTTONDBLCLK: down(TMouseButton::mbMiddle, true); break;
    case WM_LBUTTONUP: up(TMouseButton::mbLeft); break;
    case WM_RBUTTONUP: up(TMouseButton::mbRight); break;
    case WM_MBUTTONUP: up(TMouseButton::mbMiddle); break;
    default: break;
  }
  if (!FHandle) return 0;  // a handler destroyed the window
  return own ? 0 : DefaultHandler(Msg, WParam, LParam);
}

LRESULT TWinControl::WndProc(UINT Msg, WPARAM WParam, LPARAM LParam) {
  const bool own = FOldProc == nullptr;
  switch (Msg) {
    case WM_PAINT:
      if (own) {
        PAINTSTRUCT ps;
        HDC dc = BeginPaint(FHandle, &ps);
        PaintTo(dc);
        EndPaint(FHandle, &ps);
        return 0;
      }
      break;
    case WM_PRINTCLIENT:
      if (own) {
        PaintTo(reinterpret_cast<HDC>(WParam));
        return 0;
      }
      break;
    case WM_ERASEBKGND:
      if (own) return 1;
      break;
    case WM_MOUSEMOVE:
    case WM_LBUTTONDOWN:
    case WM_LBUTTONDBLCLK:
    case WM_LBUTTONUP:
    case WM_RBUTTONDOWN:
    case WM_RBUTTONDBLCLK:
    case WM_RBUTTONUP:
    case WM_MBUTTONDOWN:
    case WM_MBUTTONDBLCLK:
    case WM_MBUTTONUP:
      return MouseMessage(Msg, WParam, LParam);
    case WM_MOUSELEAVE:
      FMouseInControl = false;
      MouseLeave();
      return 0;
    case WM_MOUSEWHEEL:
      if (OnMouseWheel) {
        POINT p{GET_X_LPARAM(LParam), GET_Y_LPARAM(LParam)};
        ScreenToClient(FHandle, &p);
        if (OnMouseWheel(this, MouseShiftState(GET_KEYSTATE_WPARAM(WParam)), GET_WHEEL_DELTA_WPARAM(WParam), p))
          return 0;
      }
      break;
    case WM_KEYDOWN:
    case WM_SYSKEYDOWN:
    case WM_KEYUP:
    case WM_SYSKEYUP: {
      WORD key = static_cast<WORD>(WParam);
      if (Msg == WM_KEYDOWN || Msg == WM_SYSKEYDOWN)
        KeyDown(key, KeyboardShiftState());
      else
        KeyUp(key, KeyboardShiftState());
      if (key == 0 || !FHandle) return 0;
      break;
    }
    case WM_CHAR: {
      char c = static_cast<char>(WParam);
      KeyPress(c);
      if (c == 0 || !FHandle) return 0;
      WParam = static_cast<unsigned char>(c);
      break;
    }
    case WM_SETFOCUS:
      DoEnter();
      break;
    case WM_KILLFOCUS:
      DoExit();
      break;
    case WM_GETDLGCODE:
      if (own) return GetDlgCode();
      return DefaultHandler(Msg, WParam, LParam) | GetDlgCode();
    case WM_SETCURSOR:
      if (reinterpret_cast<HWND>(WParam) == FHandle && LOWORD(LParam) == HTCLIENT && Cursor) {
        SetCursor(LoadCursorA(nullptr, Cursor));
        return TRUE;
      }
      break;
    case WM_WINDOWPOSCHANGED: {
      auto* wp = reinterpret_cast<WINDOWPOS*>(LParam);
      bool resized = false;
      if (!(wp->flags & SWP_NOMOVE)) {
        FLeft = wp->x;
        FTop = wp->y;
      }
      if (!(wp->flags & SWP_NOSIZE)) {
        resized = wp->cx != FWidth || wp->cy != FHeight;
        FWidth = wp->cx;
        FHeight = wp->cy;
      }
      LRESULT r = DefaultHandler(Msg, WParam, LParam);
      if (resized) Resize();
      return r;
    }
    case WM_DRAWITEM: {
      auto* dis = reinterpret_cast<DRAWITEMSTRUCT*>(LParam);
      if (TWinControl* child = dis ? FromHandle(dis->hwndItem) : nullptr)
        return child->WndProc(CN_DRAWITEM, WParam, LParam);
      break;
    }
    case WM_COMMAND:
      if (TWinControl* child = FromHandle(reinterpret_cast<HWND>(LParam)))
        return child->WndProc(CN_COMMAND, WParam, LParam);
      break;
    default:
      break;
  }
  return DefaultHandler(Msg, WParam, LParam);
}

// --- TTimer -------------------------------------------------------------------------

TTimer::TTimer(TComponent* AOwner) : TComponent(AOwner) {
  if (!RegisterOnce(kTimerClass, &TimerWndProc, 0)) return;
  FWindow = CreateWindowExA(0, kTimerClass, "", 0, 0, 0, 0, 0, HWND_MESSAGE, nullptr, ThisModule(), nullptr);
  if (!FWindow) {
    klLog::AddToEventLog("TTimer.Create: " + klLog::GetLastErrorStr(), klLog::lkError);
    return;
  }
  SetWindowLongPtrA(FWindow, GWLP_USERDATA, reinterpret_cast<LONG_PTR>(this));
  Update();
}

TTimer::~TTimer() {
  if (FWindow) {
    KillTimer(FWindow, 1);
    SetWindowLongPtrA(FWindow, GWLP_USERDATA, 0);
    DestroyWindow(FWindow);
  }
}

void TTimer::SetEnabled(bool V) {
  FEnabled = V;
  Update();
}

void TTimer::SetInterval(UINT V) {
  FInterval = V;
  Update();
}

void TTimer::Update() {
  if (!FWindow) return;
  KillTimer(FWindow, 1);
  if (FEnabled && FInterval > 0) SetTimer(FWindow, 1, FInterval, nullptr);
}

LRESULT CALLBACK TTimer::TimerWndProc(HWND Wnd, UINT Msg, WPARAM WParam, LPARAM LParam) {
  if (Msg == WM_TIMER) {
    auto* self = reinterpret_cast<TTimer*>(GetWindowLongPtrA(Wnd, GWLP_USERDATA));
    if (self && self->FEnabled && self->OnTimer) self->OnTimer(self);
    return 0;
  }
  return DefWindowProcA(Wnd, Msg, WParam, LParam);
}

}  // namespace kl
