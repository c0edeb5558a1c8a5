#include "rtl/Forms.h"

#include <algorithm>

#include "diagnostics/klLog.h"

namespace kl {

namespace {
// Posted to a form that is to free itself after the message in hand.
constexpr UINT CM_RELEASE = WM_APP + 0x3F00;

BOOL CALLBACK CollectEnabledWindow(HWND W, LPARAM P) {
  auto* list = reinterpret_cast<std::vector<HWND>*>(P);
  if (IsWindowVisible(W) && IsWindowEnabled(W)) list->push_back(W);
  return TRUE;
}
}  // namespace

// --- TApplication -------------------------------------------------------------------

TApplication& Application() {
  static TApplication app;
  return app;
}

TApplication::~TApplication() {
  if (FHandle && IsWindow(FHandle)) DestroyWindow(FHandle);
}

HWND TApplication::Handle() {
  if (!FHandle) {
    // A plain hidden top-level window of a system class: the owner of pop-ups.
    FHandle = CreateWindowExA(WS_EX_TOOLWINDOW, "STATIC", "klApplication", WS_POPUP, 0, 0, 0, 0, nullptr, nullptr,
                              nullptr, nullptr);
    if (!FHandle) klLog::AddToEventLog("TApplication.Handle: " + klLog::GetLastErrorStr(), klLog::lkError);
  }
  return FHandle;
}

bool TApplication::ProcessMessage(MSG& Msg) {
  if (!PeekMessageA(&Msg, nullptr, 0, 0, PM_REMOVE)) return false;
  if (Msg.message == WM_QUIT) {
    PostQuitMessage(static_cast<int>(Msg.wParam));
    return false;
  }
  // Tab and arrow navigation in forms, except where a control asks for the keys.
  HWND top = Msg.hwnd ? GetAncestor(Msg.hwnd, GA_ROOT) : nullptr;
  auto* form = dynamic_cast<TForm*>(TWinControl::FromHandle(top));
  if (form && IsDialogMessageA(top, &Msg)) return true;
  TranslateMessage(&Msg);
  DispatchMessageA(&Msg);
  return true;
}

void TApplication::ProcessMessages() {
  MSG msg;
  while (ProcessMessage(msg)) {
  }
}

void TApplication::HandleMessage() {
  MSG msg;
  if (!ProcessMessage(msg)) {
    Idle();
    WaitMessage();
  }
}

void TApplication::Idle() {
  auto handlers = FIdle;  // a handler may remove itself
  for (auto& h : handlers) {
    bool done = true;
    h.second(done);
  }
}

int TApplication::AddIdleHandler(TIdleHandler Handler) {
  FIdle.emplace_back(FNextIdleId, std::move(Handler));
  return FNextIdleId++;
}

void TApplication::RemoveIdleHandler(int Id) {
  FIdle.erase(std::remove_if(FIdle.begin(), FIdle.end(), [Id](auto& P) { return P.first == Id; }), FIdle.end());
}

TForm* TApplication::ActiveForm() const {
  return dynamic_cast<TForm*>(TWinControl::FromHandle(GetActiveWindow()));
}

// --- TForm --------------------------------------------------------------------------

TForm::TForm(TComponent* AOwner) : TWinControl(AOwner) {
  FVisible = false;
  FWidth = 320;
  FHeight = 240;
  FLeft = FTop = CW_USEDEFAULT;
  Application().FForms.push_back(this);
}

TForm::~TForm() {
  if (OnDestroy) OnDestroy(this);
  auto& forms = Application().FForms;
  forms.erase(std::remove(forms.begin(), forms.end(), this), forms.end());
  DestroyHandle();
}

DWORD TForm::WindowStyle() const {
  if (FParent || FParentWindow) return WS_CHILD | WS_CLIPCHILDREN | WS_CLIPSIBLINGS;
  switch (BorderStyle) {
    case TFormBorderStyle::bsNone: return WS_POPUP | WS_CLIPCHILDREN;
    case TFormBorderStyle::bsSingle: return WS_CAPTION | WS_SYSMENU | WS_MINIMIZEBOX | WS_CLIPCHILDREN;
    case TFormBorderStyle::bsDialog:
    case TFormBorderStyle::bsToolWindow: return WS_CAPTION | WS_SYSMENU | WS_CLIPCHILDREN;
    case TFormBorderStyle::bsSizeable: break;
  }
  return WS_OVERLAPPEDWINDOW | WS_CLIPCHILDREN;
}

DWORD TForm::WindowExStyle() const {
  DWORD s = WS_EX_CONTROLPARENT;
  if (BorderStyle == TFormBorderStyle::bsDialog) s |= WS_EX_DLGMODALFRAME;
  if (BorderStyle == TFormBorderStyle::bsToolWindow) s |= WS_EX_TOOLWINDOW;
  return s;
}

TCloseAction TForm::DoClose() {
  bool canClose = true;
  if (OnCloseQuery) OnCloseQuery(this, canClose);
  if (!canClose) return TCloseAction::caNone;
  TCloseAction action = TCloseAction::caHide;
  if (OnClose) OnClose(this, action);
  return action;
}

void TForm::Close() {
  if (FModal) {
    // The modal loop closes the form once it sees a result.
    if (FModalResult == mrNone) FModalResult = mrCancel;
    return;
  }
  switch (DoClose()) {
    case TCloseAction::caHide: Hide(); break;
    case TCloseAction::caFree: Release(); break;
    case TCloseAction::caMinimize:
      if (FHandle) ShowWindow(FHandle, SW_MINIMIZE);
      break;
    case TCloseAction::caNone: break;
  }
}

void TForm::Release() {
  if (FHandle) PostMessageA(FHandle, CM_RELEASE, 0, 0);
}

int TForm::ShowModal() {
  if (FModal || !Handle()) {
    klLog::AddToEventLog("TForm.ShowModal: " + Name + ": cannot show modally", klLog::lkError);
    return mrNone;
  }
  // The thread's other enabled top-level windows wait while the form is up.
  std::vector<HWND> disabled;
  EnumThreadWindows(GetCurrentThreadId(), &CollectEnabledWindow, reinterpret_cast<LPARAM>(&disabled));
  HWND self = FHandle;
  std::erase(disabled, self);
  for (HWND w : disabled) EnableWindow(w, FALSE);
  FModalResult = mrNone;
  FModal = true;
  Show();
  ShowWindow(self, SW_SHOW);
  SetActiveWindow(self);
  while (IsWindow(self)) {
    if (FModalResult != mrNone) {
      TCloseAction action = DoClose();
      if (action != TCloseAction::caNone) {
        if (action == TCloseAction::caFree) Release();
        break;
      }
      FModalResult = mrNone;
    }
    Application().HandleMessage();
  }
  for (HWND w : disabled)
    if (IsWindow(w)) EnableWindow(w, TRUE);
  int result = FModalResult;
  if (IsWindow(self)) {
    FModal = false;
    Hide();
  }
  return result;
}

LRESULT TForm::WndProc(UINT Msg, WPARAM WParam, LPARAM LParam) {
  if (OnMessage) {
    LRESULT r = 0;
    if (OnMessage(Msg, WParam, LParam, r)) return r;
  }
  switch (Msg) {
    case WM_CLOSE:
      Close();
      return 0;
    case CM_RELEASE:
      delete this;
      return 0;
    case WM_SHOWWINDOW:
      if (WParam && OnShow) OnShow(this);
      if (!WParam && OnHide) OnHide(this);
      break;
    case WM_ACTIVATE:
      if (LOWORD(WParam) != WA_INACTIVE && OnActivate) OnActivate(this);
      if (LOWORD(WParam) == WA_INACTIVE && OnDeactivate) OnDeactivate(this);
      break;
    default:
      break;
  }
  return TWinControl::WndProc(Msg, WParam, LParam);
}

}  // namespace kl
