// Stand-ins for the host framework's component and control classes: an owner that frees
// what it owns, and windowed controls over real HWNDs whose messages arrive at virtual
// handlers. Events are std::function values.
#pragma once

#include <windows.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "rtl/Graphics.h"

namespace kl {

class TComponent;
using TNotifyEvent = std::function<void(TComponent* Sender)>;

// Modifier keys and mouse buttons held during an input event.
using TShiftState = uint32_t;
constexpr TShiftState ssShift = 1, ssAlt = 2, ssCtrl = 4, ssLeft = 8, ssRight = 16, ssMiddle = 32, ssDouble = 64;
enum class TMouseButton { mbLeft, mbRight, mbMiddle };

using TMouseEvent = std::function<void(TComponent* Sender, TMouseButton Button, TShiftState Shift, int X, int Y)>;
using TMouseMoveEvent = std::function<void(TComponent* Sender, TShiftState Shift, int X, int Y)>;
using TKeyEvent = std::function<void(TComponent* Sender, WORD& Key, TShiftState Shift)>;
using TKeyPressEvent = std::function<void(TComponent* Sender, char& Key)>;

// Shift state from the keyboard state the thread sees now (GetKeyState).
TShiftState KeyboardShiftState();

// Create(Owner): the owner deletes what it owns, last created first, when it is
// deleted; a component deleted earlier leaves its owner's list.
class TComponent {
 public:
  explicit TComponent(TComponent* AOwner);
  virtual ~TComponent();
  TComponent(const TComponent&) = delete;
  TComponent& operator=(const TComponent&) = delete;

  TComponent* Owner() const { return FOwner; }
  int ComponentCount() const { return static_cast<int>(FComponents.size()); }
  TComponent* Components(int Index) const { return FComponents.at(static_cast<size_t>(Index)); }
  std::string Name;
  intptr_t Tag = 0;

 private:
  TComponent* FOwner;
  std::vector<TComponent*> FComponents;
};

// Messages a parent passes back to the child control they are about (WM_DRAWITEM,
// WM_COMMAND), at the same offset the host framework uses.
constexpr UINT CN_BASE = 0xBC00;
constexpr UINT CN_DRAWITEM = CN_BASE + WM_DRAWITEM;
constexpr UINT CN_COMMAND = CN_BASE + WM_COMMAND;

// A control with its own window. The window is made when first needed (Handle(),
// SetParent) with the parent's window as its parent; position, size, visibility and
// enabled state set before that are kept and applied then. The window class is
// "klWinControl" (or a system class named by WindowClass(), subclassed).
class TWinControl : public TComponent {
 public:
  explicit TWinControl(TComponent* AOwner);
  ~TWinControl() override;

  HWND Handle();  // makes the window if needed
  bool HandleAllocated() const { return FHandle != nullptr; }
  // The control the object of a window of this framework, or null.
  static TWinControl* FromHandle(HWND Wnd);

  TWinControl* Parent() const { return FParent; }
  void SetParent(TWinControl* AParent);
  // A parent window outside the framework (a host's window).
  void SetParentWindow(HWND Wnd);

  int Left() const { return FLeft; }
  int Top() const { return FTop; }
  int Width() const { return FWidth; }
  int Height() const { return FHeight; }
  void SetLeft(int V) { SetBounds(V, FTop, FWidth, FHeight); }
  void SetTop(int V) { SetBounds(FLeft, V, FWidth, FHeight); }
  void SetWidth(int V) { SetBounds(FLeft, FTop, V, FHeight); }
  void SetHeight(int V) { SetBounds(FLeft, FTop, FWidth, V); }
  virtual void SetBounds(int ALeft, int ATop, int AWidth, int AHeight);
  RECT ClientRect() const;  // the window's client area; (0, 0, Width, Height) before it exists
  POINT ClientToScreen(POINT P);

  bool Visible() const { return FVisible; }
  void SetVisible(bool V);
  void Show() { SetVisible(true); }
  void Hide() { SetVisible(false); }
  bool Enabled() const { return FEnabled; }
  virtual void SetEnabled(bool V);
  TColor Color() const { return FColor; }
  void SetColor(TColor V);
  std::string Caption() const { return FCaption; }
  void SetCaption(const std::string& V);
  LPCSTR Cursor = IDC_ARROW;  // a system cursor, shown over the client area
  bool TabStop = false;
  std::string Hint;
  bool ShowHint = false;
  enum class TAlign { alNone, alTop, alBottom, alLeft, alRight, alClient } Align = TAlign::alNone;
  uint32_t Anchors = 3;  // akLeft | akTop

  bool Focused();
  bool CanFocus();
  void SetFocus();
  bool MouseInControl() const { return FMouseInControl; }
  void Invalidate();
  void Repaint();  // invalidates and paints now
  void Update();
  // Renders the client area into DC (WM_PRINTCLIENT).
  void PaintTo(HDC DC);

  TNotifyEvent OnClick, OnDblClick, OnEnter, OnExit, OnResize;
  TMouseEvent OnMouseDown, OnMouseUp;
  TMouseMoveEvent OnMouseMove;
  TKeyEvent OnKeyDown, OnKeyUp;
  TKeyPressEvent OnKeyPress;
  std::function<bool(TComponent* Sender, TShiftState Shift, int WheelDelta, POINT MousePos)> OnMouseWheel;

  // The window procedure of the control; the default dispatches to the handlers below.
  virtual LRESULT WndProc(UINT Msg, WPARAM WParam, LPARAM LParam);
  // What the window class or the subclassed system class would do with the message.
  LRESULT DefaultHandler(UINT Msg, WPARAM WParam, LPARAM LParam);

 protected:
  // Window class and styles of the window to make.
  virtual const char* WindowClass() const { return nullptr; }
  virtual DWORD WindowStyle() const;
  virtual DWORD WindowExStyle() const { return 0; }
  virtual HWND ParentHandleForCreate();
  virtual void CreateWnd();
  void DestroyHandle();

  // Handlers; each default fires the matching event.
  virtual void Paint(TCanvas& Canvas);
  virtual void MouseDown(TMouseButton Button, TShiftState Shift, int X, int Y);
  virtual void MouseMove(TShiftState Shift, int X, int Y);
  virtual void MouseUp(TMouseButton Button, TShiftState Shift, int X, int Y);
  virtual void Click();
  virtual void DblClick();
  virtual void KeyDown(WORD& Key, TShiftState Shift);
  virtual void KeyUp(WORD& Key, TShiftState Shift);
  virtual void KeyPress(char& Key);
  virtual void DoEnter();
  virtual void DoExit();
  virtual void MouseEnter() {}
  virtual void MouseLeave() {}
  virtual void Resize();
  // The answer to WM_GETDLGCODE.
  virtual LRESULT GetDlgCode() { return 0; }

  HWND FHandle = nullptr;
  TWinControl* FParent = nullptr;
  HWND FParentWindow = nullptr;
  int FLeft = 0, FTop = 0, FWidth = 0, FHeight = 0;
  bool FVisible = true;
  bool FEnabled = true;
  TColor FColor = clBtnFace;
  std::string FCaption;

 private:
  static LRESULT CALLBACK StaticWndProc(HWND Wnd, UINT Msg, WPARAM WParam, LPARAM LParam);
  void Attach(HWND Wnd);
  LRESULT MouseMessage(UINT Msg, WPARAM WParam, LPARAM LParam);

  WNDPROC FOldProc = nullptr;  // a subclassed system window's own procedure
  bool FMouseInControl = false;
  bool FLeftDown = false;
  std::vector<TWinControl*> FChildren;
};

// A windowed control that paints itself on a canvas.
class TCustomControl : public TWinControl {
 public:
  explicit TCustomControl(TComponent* AOwner) : TWinControl(AOwner) {}
};

// Runs a callback every Interval milliseconds on the thread that made it, while
// Enabled and the thread's messages are dispatched.
class TTimer : public TComponent {
 public:
  explicit TTimer(TComponent* AOwner);
  ~TTimer() override;
  bool Enabled() const { return FEnabled; }
  void SetEnabled(bool V);
  UINT Interval() const { return FInterval; }
  void SetInterval(UINT V);
  TNotifyEvent OnTimer;

 private:
  static LRESULT CALLBACK TimerWndProc(HWND Wnd, UINT Msg, WPARAM WParam, LPARAM LParam);
  void Update();
  HWND FWindow = nullptr;
  bool FEnabled = true;
  UINT FInterval = 1000;
};

}  // namespace kl
