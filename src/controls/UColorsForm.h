// The colour selection dialog: preset and custom swatches, the current choice, the
// system colour dialog and a picker that takes a colour from anywhere on the screen.
// The system colour dialog and the picker's screen capture are process-wide replaceable
// functions (like the message box), so that a host or a test can stand in for them.
#pragma once

#include <windows.h>
// Before the undefinition below, so that a later include cannot bring the macro back.
#include <commdlg.h>

#include <functional>
#include <string>
#include <vector>

#include "rtl/Forms.h"
#include "rtl/Graphics.h"

// The system header maps this name to its own dialog function; here it is the picker.
#ifdef ChooseColor
#undef ChooseColor
#endif

namespace kl::UColorsForm {

// Where the custom colours persist (current user): a comma-separated list of decimals.
constexpr char CustomColorsKey[] = "Software\\Kelvarin\\klComponents";
constexpr char CustomColorsValue[] = "CustomColors";
// What an item of the list that is not a number becomes.
constexpr TColor CustomColorFallback = clBlack;
// The custom swatches' colours before anything is read.
constexpr TColor CustomColorDesigned = clWhite;
constexpr int CustomColorCount = 8;
constexpr UINT DoubleClickInterval = 300;

// Runs a colour dialog owned by Owner starting at Color; true and Color set when the user
// confirms. Default: the system's ChooseColorA.
using TColorDialogFunction = std::function<bool(HWND Owner, TColor& Color)>;
// Copies the whole (virtual) screen into Into. Default: BitBlt from the screen DC.
using TScreenCaptureFunction = std::function<bool(TBitmap& Into)>;
// Replace the function; an empty one restores the default. Return the previous one.
TColorDialogFunction SetColorDialogFunction(TColorDialogFunction Func);
TScreenCaptureFunction SetScreenCaptureFunction(TScreenCaptureFunction Func);
bool ExecuteColorDialog(HWND Owner, TColor& Color);
bool CaptureScreen(TBitmap& Into);

// The screen picker: a borderless stay-on-top window showing a capture of the screen;
// the pixel under the pointer when the left button is released is the result. False
// when the capture fails or the picker is closed otherwise (Escape).
bool ChooseColor(TColor& Color);

// A rectangle filled with the brush and outlined with the pen.
class TShape : public TCustomControl {
 public:
  explicit TShape(TComponent* AOwner) : TCustomControl(AOwner) {}
  TPen Pen;
  TBrush Brush;
  void SetBrushColor(TColor C) {
    Brush.Color = C;
    Invalidate();
  }

 protected:
  void Paint(TCanvas& Canvas) override;
};

// A push button of the system class; a click sets its form's modal result when
// ModalResult is not mrNone.
class TButton : public TWinControl {
 public:
  explicit TButton(TComponent* AOwner);
  int ModalResult = mrNone;
  LRESULT WndProc(UINT Msg, WPARAM WParam, LPARAM LParam) override;

 protected:
  const char* WindowClass() const override { return "BUTTON"; }
  DWORD WindowStyle() const override;
  void CreateWnd() override;
};

// A control showing a bitmap at its top left corner.
class TImage : public TCustomControl {
 public:
  explicit TImage(TComponent* AOwner) : TCustomControl(AOwner) {}
  TBitmap Picture;

 protected:
  void Paint(TCanvas& Canvas) override;
};

class TfrmColors : public TForm {
 public:
  explicit TfrmColors(TComponent* AOwner);

  TImage* imgChoose;
  std::vector<TShape*> PresetShapes;
  std::vector<TShape*> CustomShapes;  // shpCustomColor1 ... in order
  TShape* shpSelected;
  TButton* btnOk;
  TButton* btnCancel;
  TButton* btnPallete;
  TTimer* tmrDoubleClick;

  TColor ColorValue() const { return FColor; }
  void SetColorValue(TColor Color);
  // The swatch (preset or custom) whose brush colour is Color, or null.
  TShape* FindShapeByColor(TColor Color) const;
  void SelectShape(TShape* Shape);
  TShape* SelectedShape() const { return FSelected; }
  static TColor GetShapeColor(const TShape* Shape) { return Shape ? Shape->Brush.Color : clNone; }

  // The custom swatches' colours from and to the registry value.
  void LoadCustomColors();
  void SaveCustomColors();

 protected:
  void CreateWnd() override;

 private:
  void shpCustomColorMouseDown(TComponent* Sender, TMouseButton Button, TShiftState Shift, int X, int Y);
  void btnPalleteClick();
  void imgChooseClick();
  TShape* AddSwatch(int X, int Y, TColor Color, const std::string& AName);
  TColor FColor = clWhite;
  TShape* FSelected = nullptr;
  int FNextCustom = 0;
  std::vector<TWinControl*> FChildrenToPlace;
};

}  // namespace kl::UColorsForm
