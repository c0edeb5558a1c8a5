// The registry of the library's component classes: each class by name, with the palette
// page it belongs to and a factory that makes one with an owner. A host lists them and
// creates them by name; the palette bitmap of each class is a BITMAP resource of
// klComponents.dll named after the class.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "rtl/Controls.h"

namespace kl::URegister {

using TComponentFactory = std::function<TComponent*(TComponent* Owner)>;

struct TRegisteredClass {
  std::string Name;
  std::string Page;
  // Empty for a class whose unit is not part of this build: listed, not creatable.
  TComponentFactory Create;
};

constexpr char PalettePage[] = "KL";

// Adds the classes to Page in the given order. A name registered before keeps its
// place and takes the new page and factory.
void RegisterComponents(const std::string& Page, const std::vector<TRegisteredClass>& Classes);
// Registers the library's 13 component classes on the page "KL".
void Register();
const std::vector<TRegisteredClass>& RegisteredClasses();
// A new component of the class Name owned by Owner; null (logged) for a name that is
// not registered or has no factory.
TComponent* CreateComponent(const std::string& Name, TComponent* Owner);

}  // namespace kl::URegister
