// A drop-down list of named colours, each drawn as a colour box beside its name, with two
// command entries on top: pick a colour from the screen, or choose one in the colour
// dialog (that entry then keeps the chosen colour when no name matches it).
#pragma once

#include <string>

#include "rtl/Controls.h"

namespace kl::klColorComboBox {

// The command entries' indexes and the values they hold in the list.
constexpr int ChooseFromScreenIndex = 0;
constexpr int ChooseInDialogIndex = 1;
constexpr TColor ChooseFromScreenValue = 0xFFFFFD;
constexpr TColor ChooseInDialogValue = 0xFFFFFE;
constexpr int ItemHeight = 16;

class TklColorComboBox : public TWinControl {
 public:
  explicit TklColorComboBox(TComponent* AOwner);

  // Clears the list and adds the command entries and the named colours.
  void PopulateList();
  int ItemCount();
  std::string ItemText(int Index);
  TColor ItemValue(int Index);
  int ItemIndex();
  bool DroppedDown();
  void SetDroppedDown(bool V);

  // The selected item's value; 0 when nothing is selected.
  TColor ColorValue();
  // Selects the first item from index 1 on that holds Color; otherwise the dialog entry
  // takes Color and is selected. Fires OnChange.
  void SetColorValue(TColor Color);

  TNotifyEvent OnChange;
  LRESULT WndProc(UINT Msg, WPARAM WParam, LPARAM LParam) override;

 protected:
  const char* WindowClass() const override { return "COMBOBOX"; }
  DWORD WindowStyle() const override;
  void CreateWnd() override;
  // The selection changed: runs the command of a command entry, then fires OnChange.
  virtual void Change();
  virtual void DrawItem(const DRAWITEMSTRUCT& Item);

 private:
  void SelectColor(TColor Color);
  int FLastIndex = -1;
};

}  // namespace kl::klColorComboBox
