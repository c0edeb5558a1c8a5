// Themed Windows Vista and later leave parts of a form unpainted after the Alt key shows
// the keyboard cues. TVistaAltFix hooks every form's window procedure from the
// application's idle handler and repaints a form when its cues change. Elsewhere it
// does nothing.
#pragma once

#include <vector>

#include "rtl/Forms.h"

namespace kl::VistaAltFixUnit {

// Windows 6.0 or later with visual styles in use.
bool VistaWithTheme();

class TVistaAltFix : public TComponent {
 public:
  explicit TVistaAltFix(TComponent* AOwner);
  ~TVistaAltFix() override;
  bool Active() const { return FIdleId != 0; }
  // Hooks the forms not hooked yet.
  void ApplicationEventsIdle(bool& Done);

 private:
  struct THooked {
    TForm* Form;
    decltype(TForm::OnMessage) Previous;
  };
  void Unhook();
  int FIdleId = 0;
  std::vector<THooked> FForms;
};

}  // namespace kl::VistaAltFixUnit
