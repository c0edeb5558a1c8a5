#include "controls/UModalForms.h"

#include <algorithm>

#include "diagnostics/klLog.h"

namespace kl::UModalForms {

TModalShow::TModalShow(TForm* Form, TModalResultEvent Callback, bool ShowPrev, TForm* PrevForm)
    : FForm(Form), FCallback(std::move(Callback)), FShowPrev(ShowPrev), FPrevForm(PrevForm) {
  if (!FForm) return;
  FOldClose = FForm->OnClose;
  FOldDestroy = FForm->OnDestroy;
  FForm->OnClose = [this](TComponent* Sender, TCloseAction& Action) {
    if (FOldClose) FOldClose(Sender, Action);
    if (Action == TCloseAction::caNone) return;
    if (FCallback && FForm) FCallback(FForm->ModalResult());
    if (FShowPrev) ShowPrevForm();
  };
  FForm->OnDestroy = [this](TComponent* Sender) {
    if (FOldDestroy) FOldDestroy(Sender);
    FForm = nullptr;
  };
}

TModalShow::~TModalShow() {
  if (!FForm) return;
  FForm->OnClose = FOldClose;
  FForm->OnDestroy = FOldDestroy;
}

int TModalShow::Execute() {
  if (!FForm) {
    klLog::AddToEventLog("TModalShow.Execute: Form = nil", klLog::lkError);
    return mrNone;
  }
  return FForm->ShowModal();
}

void TModalShow::ShowPrevForm() {
  // Only a form that still exists and can take the activation.
  const auto& forms = Application().Forms();
  if (!FPrevForm || std::find(forms.begin(), forms.end(), FPrevForm) == forms.end()) return;
  if (!FPrevForm->HandleAllocated() || !FPrevForm->Visible()) return;
  EnableWindow(FPrevForm->Handle(), TRUE);
  SetActiveWindow(FPrevForm->Handle());
}

int ShowFormModal(TForm* Form) {
  int result = mrNone;
  TModalShow show(Form, [&result](int R) { result = R; }, true, Application().ActiveForm());
  int r = show.Execute();
  return result != mrNone ? result : r;
}

void SetModalResult(TForm* Form, int Result) {
  if (Form) Form->SetModalResult(Result);
}

}  // namespace kl::UModalForms
