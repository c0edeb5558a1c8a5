#include "controls/klColorComboBox.h"

#include "controls/UColorsForm.h"
#include "diagnostics/klLog.h"

namespace kl::klColorComboBox {

namespace {
struct TNamedColor {
  const char* Text;
  TColor Value;
};
constexpr TNamedColor kItems[] = {
    {"Указать...", ChooseFromScreenValue},
    {"Выбрать...", ChooseInDialogValue},
    {"Черный", 0x000000},
    {"Бордовый", 0x000080},
    {"Темно зеленый", 0x008000},
    {"Оливковый", 0x008080},
    {"Темно синий", 0x800000},
    {"Фиолетовый", 0x800080},
    {"Сине-зеленый", 0x808000},
    {"Темно серый", 0x808080},
    {"Светло серый", 0xC0C0C0},
    {"Красный", 0x0000FF},
    {"Светло зеленый", 0x00FF00},
    {"Желтый", 0x00FFFF},
    {"Синий", 0xFF0000},
    {"Ярко фиолетовый", 0xFF00FF},
    {"Голубой", 0xFFFF00},
    {"Белый", 0xFFFFFF},
};
}  // namespace

TklColorComboBox::TklColorComboBox(TComponent* AOwner) : TWinControl(AOwner) {
  TabStop = true;
  FColor = clWindow;
  FWidth = 145;
  FHeight = 200;  // with the dropped-down list
}

DWORD TklColorComboBox::WindowStyle() const {
  return TWinControl::WindowStyle() | WS_VSCROLL | CBS_DROPDOWNLIST | CBS_OWNERDRAWFIXED | CBS_HASSTRINGS;
}

void TklColorComboBox::CreateWnd() {
  TWinControl::CreateWnd();
  if (!FHandle) return;
  SendMessageA(FHandle, WM_SETFONT, reinterpret_cast<WPARAM>(GetStockObject(DEFAULT_GUI_FONT)), FALSE);
  // The parent's answer to the measuring request came before the control was attached.
  SendMessageA(FHandle, CB_SETITEMHEIGHT, static_cast<WPARAM>(-1), ItemHeight);
  SendMessageA(FHandle, CB_SETITEMHEIGHT, 0, ItemHeight);
  PopulateList();
}

void TklColorComboBox::PopulateList() {
  if (!Handle()) return;
  SendMessageA(FHandle, CB_RESETCONTENT, 0, 0);
  for (const TNamedColor& item : kItems) {
    LRESULT i = SendMessageA(FHandle, CB_ADDSTRING, 0, reinterpret_cast<LPARAM>(item.Text));
    if (i >= 0) SendMessageA(FHandle, CB_SETITEMDATA, static_cast<WPARAM>(i), static_cast<LPARAM>(item.Value));
  }
  FLastIndex = -1;
}

int TklColorComboBox::ItemCount() {
  return Handle() ? static_cast<int>(SendMessageA(FHandle, CB_GETCOUNT, 0, 0)) : 0;
}

std::string TklColorComboBox::ItemText(int Index) {
  if (!Handle()) return {};
  LRESULT n = SendMessageA(FHandle, CB_GETLBTEXTLEN, static_cast<WPARAM>(Index), 0);
  if (n < 0) return {};
  std::string s(static_cast<size_t>(n) + 1, '\0');
  n = SendMessageA(FHandle, CB_GETLBTEXT, static_cast<WPARAM>(Index), reinterpret_cast<LPARAM>(s.data()));
  s.resize(n < 0 ? 0 : static_cast<size_t>(n));
  return s;
}

TColor TklColorComboBox::ItemValue(int Index) {
  if (!Handle()) return 0;
  LRESULT v = SendMessageA(FHandle, CB_GETITEMDATA, static_cast<WPARAM>(Index), 0);
  return v == CB_ERR ? 0 : static_cast<TColor>(v);
}

int TklColorComboBox::ItemIndex() {
  return Handle() ? static_cast<int>(SendMessageA(FHandle, CB_GETCURSEL, 0, 0)) : -1;
}

bool TklColorComboBox::DroppedDown() { return Handle() && SendMessageA(FHandle, CB_GETDROPPEDSTATE, 0, 0); }

void TklColorComboBox::SetDroppedDown(bool V) {
  if (Handle()) SendMessageA(FHandle, CB_SHOWDROPDOWN, V, 0);
}

TColor TklColorComboBox::ColorValue() {
  int i = ItemIndex();
  return i < 0 ? 0 : ItemValue(i);
}

void TklColorComboBox::SelectColor(TColor Color) {
  if (!Handle()) return;
  const int n = ItemCount();
  for (int i = ChooseInDialogIndex; i < n; ++i)
    if (ItemValue(i) == Color) {
      SendMessageA(FHandle, CB_SETCURSEL, static_cast<WPARAM>(i), 0);
      FLastIndex = i;
      return;
    }
  if (n <= ChooseInDialogIndex) return;
  SendMessageA(FHandle, CB_SETITEMDATA, ChooseInDialogIndex, static_cast<LPARAM>(Color));
  SendMessageA(FHandle, CB_SETCURSEL, ChooseInDialogIndex, 0);
  FLastIndex = ChooseInDialogIndex;
  Repaint();
}

void TklColorComboBox::SetColorValue(TColor Color) {
  SelectColor(Color);
  if (OnChange) OnChange(this);
}

void TklColorComboBox::Change() {
  const int i = ItemIndex();
  if (i == ChooseFromScreenIndex || i == ChooseInDialogIndex) {
    // The dialog starts at the custom colour it holds, else at what was shown before.
    TColor c = i == ChooseInDialogIndex ? ItemValue(i) : ChooseInDialogValue;
    if (c == ChooseInDialogValue) c = FLastIndex > ChooseFromScreenIndex ? ItemValue(FLastIndex) : clBlack;
    bool ok = i == ChooseFromScreenIndex ? UColorsForm::ChooseColor(c) : UColorsForm::ExecuteColorDialog(FHandle, c);
    if (ok) {
      SelectColor(c);
    } else {
      // Cancelled: the list goes back to what it showed (a command entry has no colour).
      SendMessageA(FHandle, CB_SETCURSEL, static_cast<WPARAM>(FLastIndex), 0);
    }
  }
  FLastIndex = ItemIndex();
  if (OnChange) OnChange(this);
}

void TklColorComboBox::DrawItem(const DRAWITEMSTRUCT& Item) {
  TCanvas c(Item.hDC);
  const bool selected = (Item.itemState & ODS_SELECTED) != 0;
  c.Brush.Color = selected ? clHighlight : clWindow;
  c.FillRect(Item.rcItem);
  if (static_cast<int>(Item.itemID) < 0) return;
  const int index = static_cast<int>(Item.itemID);
  const TColor value = ItemValue(index);
  RECT box{Item.rcItem.left + 2, Item.rcItem.top + 2, Item.rcItem.left + 26, Item.rcItem.bottom - 2};
  // The screen entry and an unused dialog entry have no colour to show.
  if (index != ChooseFromScreenIndex && value != ChooseInDialogValue) {
    c.Pen.Color = clBlack;
    c.Brush.Color = value;
    c.Rectangle(box);
  }
  c.Brush.Style = TBrushStyle::bsClear;
  c.Font.Color = selected ? clHighlightText : clWindowText;
  RECT text{box.right + 4, Item.rcItem.top, Item.rcItem.right, Item.rcItem.bottom};
  c.DrawText(text, ItemText(index), DT_SINGLELINE | DT_VCENTER | DT_NOPREFIX);
  if ((Item.itemState & ODS_FOCUS) && !(Item.itemState & ODS_COMBOBOXEDIT)) c.DrawFocusRect(Item.rcItem);
}

LRESULT TklColorComboBox::WndProc(UINT Msg, WPARAM WParam, LPARAM LParam) {
  if (Msg == CN_COMMAND) {
    if (HIWORD(WParam) == CBN_SELCHANGE) Change();
    return 0;
  }
  if (Msg == CN_DRAWITEM) {
    if (auto* dis = reinterpret_cast<const DRAWITEMSTRUCT*>(LParam)) DrawItem(*dis);
    return TRUE;
  }
  return TWinControl::WndProc(Msg, WParam, LParam);
}

}  // namespace kl::klColorComboBox
