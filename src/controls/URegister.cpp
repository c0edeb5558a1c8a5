#include "controls/URegister.h"

#include <algorithm>

#include "controls/UBitButtonEx.h"
#include "controls/UCustomPaintControls.h"
#include "controls/UMyLabel.h"
#include "controls/UTimeLineControl.h"
#include "controls/UVisibleObjectBounder.h"
#include "controls/VistaAltFixUnit.h"
#include "controls/klColorButton.h"
#include "controls/klColorComboBox.h"
#include "diagnostics/UFileVersionInfo.h"
#include "diagnostics/klLog.h"

namespace kl::URegister {

namespace {

std::vector<TRegisteredClass>& Registry() {
  static std::vector<TRegisteredClass> classes;
  return classes;
}

template <class T>
TComponentFactory Factory() {
  return [](TComponent* Owner) -> TComponent* { return new T(Owner); };
}

}  // namespace

void RegisterComponents(const std::string& Page, const std::vector<TRegisteredClass>& Classes) {
  auto& reg = Registry();
  for (const auto& c : Classes) {
    auto it = std::find_if(reg.begin(), reg.end(), [&c](const TRegisteredClass& R) { return R.Name == c.Name; });
    if (it == reg.end()) {
      reg.push_back({c.Name, Page, c.Create});
      continue;
    }
    // A factory registered by the class's own unit stays when the list comes again.
    it->Page = Page;
    if (c.Create) it->Create = c.Create;
  }
}

void Register() {
  // The players are not components: listed in their places, created by their own units.
  RegisterComponents(PalettePage, {
                                      {"TklColorComboBox", "", Factory<klColorComboBox::TklColorComboBox>()},
                                      {"TklBitBtn", "", Factory<UBitButtonEx::TklBitBtn>()},
                                      {"TklBitBtn2", "", Factory<UBitButtonEx::TklBitBtn2>()},
                                      {"TklMediaPlayer", "", nullptr},
                                      {"TFileVersionInfo", "", Factory<UFileVersionInfo::TFileVersionInfo>()},
                                      {"TVistaAltFix", "", Factory<VistaAltFixUnit::TVistaAltFix>()},
                                      {"TVisibleObjectBounder", "",
                                       Factory<UVisibleObjectBounder::TVisibleObjectBounder>()},
                                      {"TklColorButton", "", Factory<klColorButton::TklColorButton>()},
                                      {"TTimeLineControl", "", Factory<UTimeLineControl::TTimeLineControl>()},
                                      {"TTimeLineControlEx", "", Factory<UTimeLineControl::TTimeLineControlEx>()},
                                      {"TFFmpegPlayer", "", nullptr},
                                      {"TMyLabel", "", Factory<UMyLabel::TMyLabel>()},
                                      {"TCustomPaintShape", "", Factory<UCustomPaintControls::TCustomPaintShape>()},
                                  });
}

const std::vector<TRegisteredClass>& RegisteredClasses() { return Registry(); }

TComponent* CreateComponent(const std::string& Name, TComponent* Owner) {
  for (const auto& c : Registry()) {
    if (c.Name != Name) continue;
    if (!c.Create) {
      klLog::AddToEventLog("URegister.CreateComponent: " + Name + ": not part of this build", klLog::lkError);
      return nullptr;
    }
    TComponent* obj = c.Create(Owner);
    if (obj) obj->Name = Name;
    return obj;
  }
  klLog::AddToEventLog("URegister.CreateComponent: " + Name + ": not registered", klLog::lkError);
  return nullptr;
}

}  // namespace kl::URegister
