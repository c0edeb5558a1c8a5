#include "controls/VistaAltFixUnit.h"

#include <algorithm>
#include <exception>

#include "diagnostics/klLog.h"

namespace kl::VistaAltFixUnit {

bool VistaWithTheme() {
  OSVERSIONINFOEXA vi{};
  vi.dwOSVersionInfoSize = sizeof(vi);
  vi.dwMajorVersion = 6;
  DWORDLONG mask = VerSetConditionMask(0, VER_MAJORVERSION, VER_GREATER_EQUAL);
  if (!VerifyVersionInfoA(&vi, VER_MAJORVERSION, mask)) return false;
  // uxtheme is looked up at run time: a system without it has no themes.
  HMODULE ux = GetModuleHandleA("uxtheme.dll");
  if (!ux) ux = LoadLibraryA("uxtheme.dll");
  if (!ux) return false;
  using TIsThemed = BOOL(WINAPI*)();
  auto themed = reinterpret_cast<TIsThemed>(reinterpret_cast<void*>(GetProcAddress(ux, "IsAppThemed")));
  auto active = reinterpret_cast<TIsThemed>(reinterpret_cast<void*>(GetProcAddress(ux, "IsThemeActive")));
  return themed && active && themed() && active();
}

TVistaAltFix::TVistaAltFix(TComponent* AOwner) : TComponent(AOwner) {
  if (VistaWithTheme()) FIdleId = Application().AddIdleHandler([this](bool& Done) { ApplicationEventsIdle(Done); });
}

TVistaAltFix::~TVistaAltFix() {
  if (FIdleId) Application().RemoveIdleHandler(FIdleId);
  Unhook();
}

void TVistaAltFix::Unhook() {
  const auto& forms = Application().Forms();
  for (auto& h : FForms)
    if (std::find(forms.begin(), forms.end(), h.Form) != forms.end()) h.Form->OnMessage = h.Previous;
  FForms.clear();
}

void TVistaAltFix::ApplicationEventsIdle(bool& /*Done*/) {
  const auto& forms = Application().Forms();
  // Forms gone since the last idle time leave the list.
  std::erase_if(FForms, [&forms](const THooked& H) { return std::find(forms.begin(), forms.end(), H.Form) == forms.end(); });
  for (TForm* form : forms) {
    if (std::any_of(FForms.begin(), FForms.end(), [form](const THooked& H) { return H.Form == form; })) continue;
    FForms.push_back({form, form->OnMessage});
    auto previous = form->OnMessage;
    form->OnMessage = [form, previous](UINT Msg, WPARAM WParam, LPARAM LParam, LRESULT& Result) {
      try {
        if (Msg == WM_UPDATEUISTATE && form->HandleAllocated()) {
          // The cues change: the whole form and its controls are drawn again.
          RedrawWindow(form->Handle(), nullptr, nullptr, RDW_INVALIDATE | RDW_ALLCHILDREN);
        }
        return previous ? previous(Msg, WParam, LParam, Result) : false;
      } catch (const std::exception& E) {
        klLog::AddToEventLog(std::string("TFormObj.WndProc: Exception - ") + E.what(), klLog::lkError);
        return false;
      }
    };
  }
}

}  // namespace kl::VistaAltFixUnit
