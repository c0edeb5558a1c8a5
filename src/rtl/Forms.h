// Stand-ins for the host framework's application object and forms: top-level windows
// with a modal result and a modal message loop.
#pragma once

#include <windows.h>

#include <functional>
#include <vector>

#include "rtl/Controls.h"

namespace kl {

constexpr int mrNone = 0, mrOk = 1, mrCancel = 2, mrAbort = 3, mrRetry = 4, mrIgnore = 5, mrYes = 6, mrNo = 7;

enum class TCloseAction { caNone, caHide, caFree, caMinimize };
using TCloseEvent = std::function<void(TComponent* Sender, TCloseAction& Action)>;

class TForm;

enum class TFormBorderStyle { bsNone, bsSingle, bsSizeable, bsDialog, bsToolWindow };

// The process's application object: a hidden owner window for pop-ups, the list of
// forms, idle handlers and the message loop steps.
class TApplication {
 public:
  TApplication() = default;
  ~TApplication();
  TApplication(const TApplication&) = delete;
  TApplication& operator=(const TApplication&) = delete;

  HWND Handle();  // made on first use
  // Dispatches every message waiting on this thread's queue.
  void ProcessMessages();
  // Dispatches one message, or runs the idle handlers and waits for one.
  void HandleMessage();
  // Runs the idle handlers once.
  void Idle();
  using TIdleHandler = std::function<void(bool& Done)>;
  int AddIdleHandler(TIdleHandler Handler);  // returns an id for RemoveIdleHandler
  void RemoveIdleHandler(int Id);
  const std::vector<TForm*>& Forms() const { return FForms; }
  TForm* ActiveForm() const;

 private:
  friend class TForm;

enum class TFormBorderStyle { bsNone, bsSingle, bsSizeable, bsDialog, bsToolWindow };
  bool ProcessMessage(MSG& Msg);
  HWND FHandle = nullptr;
  std::vector<TForm*> FForms;
  std::vector<std::pair<int, TIdleHandler>> FIdle;
  int FNextIdleId = 1;
};

TApplication& Application();

// A top-level window. Width and Height are the window's outer size; the client area
// is what Paint draws. Hidden until shown.
class TForm : public TWinControl {
 public:
  explicit TForm(TComponent* AOwner);
  ~TForm() override;

  int ModalResult() const { return FModalResult; }
  void SetModalResult(int V) { FModalResult = V; }
  bool Modal() const { return FModal; }
  // Shows the form, disables the thread's other windows and runs messages until the
  // modal result is set (or the form is closed: mrCancel); returns the result.
  int ShowModal();
  // Asks OnCloseQuery, then OnClose: hides (caHide, the default), frees (caFree, after the
  // current message) or keeps the form.
  void Close();
  // Frees the form once the current message has been handled.
  void Release();

  // Read when the window is made.
  TFormBorderStyle BorderStyle = TFormBorderStyle::bsSizeable;

  TNotifyEvent OnShow, OnHide, OnActivate, OnDeactivate, OnDestroy;
  TCloseEvent OnClose;
  std::function<void(TComponent* Sender, bool& CanClose)> OnCloseQuery;
  // Called with every message before the form handles it; true when it was handled.
  std::function<bool(UINT Msg, WPARAM WParam, LPARAM LParam, LRESULT& Result)> OnMessage;

  LRESULT WndProc(UINT Msg, WPARAM WParam, LPARAM LParam) override;

 protected:
  DWORD WindowStyle() const override;
  DWORD WindowExStyle() const override;
  HWND ParentHandleForCreate() override { return FParent ? FParent->Handle() : FParentWindow; }

 private:
  TCloseAction DoClose();
  int FModalResult = mrNone;
  bool FModal = false;
};

}  // namespace kl
