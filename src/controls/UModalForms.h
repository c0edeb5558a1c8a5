// Modal forms: showing a form modally with a helper that watches its closing and brings
// the form that was active before back, and setting a form's modal result from outside.
#pragma once

#include <functional>

#include "rtl/Forms.h"

namespace kl::UModalForms {

using TModalResultEvent = std::function<void(int ModalResult)>;

// Hooks Form's OnClose and OnDestroy (the form's own handlers still run first) for as
// long as it lives. On close it passes the modal result to Callback and, if ShowPrev,
// activates PrevForm again.
class TModalShow {
 public:
  TModalShow(TForm* Form, TModalResultEvent Callback, bool ShowPrev, TForm* PrevForm);
  ~TModalShow();
  TModalShow(const TModalShow&) = delete;
  TModalShow& operator=(const TModalShow&) = delete;

  // Runs the form modally; mrNone when there is no form.
  int Execute();
  void ShowPrevForm();
  TForm* Form() const { return FForm; }

 private:
  TForm* FForm;
  TModalResultEvent FCallback;
  bool FShowPrev;
  TForm* FPrevForm;
  TCloseEvent FOldClose;
  TNotifyEvent FOldDestroy;
};

// Shows Form modally, the active form coming back afterwards; returns the modal result.
int ShowFormModal(TForm* Form);
void SetModalResult(TForm* Form, int Result);

}  // namespace kl::UModalForms
