// klPlayer: a media player window made of the library's parts alone. TFFmpegPlayer plays
// into the picture window, a TTimeLineControlEx is the seek bar (its selection is an A-B
// loop), TklBitBtn2 buttons with PNG images from the executable's resources play, stop
// and mute, two TTimeLineControls set the speed and the volume, a TklColorButton the
// colour around the picture, and a status line shows the position and what the file holds.
//
//   klPlayer.exe [FILE]
//
// Keys: space plays and pauses, left and right seek 5 s, up and down change the volume,
// m mutes, a and b put the loop's ends at the position (c clears it; a right-button drag
// on the seek bar marks it too), Ctrl+O opens a file, Esc closes.
#include <windows.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "controls/UBitButtonEx.h"
#include "controls/UMyLabel.h"
#include "controls/UTimeLineControl.h"
#include "controls/klColorButton.h"
#include "ffmpeg/UFfmpeg.h"
#include "ffmpeg/UFfmpegPlayer.h"
#include "rtl/Dialogs.h"
#include "rtl/Forms.h"
#include "rtl/SysUtils.h"

using namespace kl;
using kl::UBitButtonEx::TklBitBtn2;
using kl::UFfmpeg::IVideoFileInfo2;
using kl::UTimeLineControl::TTimeLineControl;
using kl::UTimeLineControl::TTimeLineControlEx;

namespace {

// Menu commands.
enum : UINT { cmOpen = 100, cmExit, cmPlayPause, cmStop, cmBack, cmForward, cmLoopStart, cmLoopEnd, cmLoopClear, cmMute };

constexpr int kGap = 6;
constexpr int kButtonSize = 30;
constexpr int kSeekHeight = 22;
constexpr int kStatusHeight = 20;
constexpr int kSeekStepMs = 5000;
// Speed steps of the speed bar: (step + 5) / 10, so 0.5 to 2.9 (the players take speeds
// below 3).
constexpr int kSpeedSteps = 24;
// The seek bar's colours: a darker done part than the control's own, so that the
// progress reads at a glance.
constexpr TColor kSeekDoneColor = 0xC08040;
constexpr TColor kDefaultBackground = 0x202020;
// Where the background colour is remembered, beside the colour form's custom colours.
constexpr char kBackgroundValue[] = "klPlayerBackground";

std::string Clock(int32_t Ms) {
  Ms = std::max(Ms, 0);
  const int32_t s = Ms / 1000;
  if (s >= 3600) return Format("%d:%02d:%02d.%01d", s / 3600, s / 60 % 60, s % 60, Ms / 100 % 10);
  return Format("%02d:%02d.%01d", s / 60, s % 60, Ms / 100 % 10);
}

// A PNG stored in the executable as an RCDATA resource.
TPngImage ResourcePng(const char* Name) {
  TPngImage png;
  HRSRC res = FindResourceA(nullptr, Name, MAKEINTRESOURCEA(10));  // RT_RCDATA
  HGLOBAL data = res ? LoadResource(nullptr, res) : nullptr;
  const void* bytes = data ? LockResource(data) : nullptr;
  if (bytes) png.LoadFromMemory(bytes, SizeofResource(nullptr, res));
  return png;
}

// The button's three images from the resources Name, Name_OVER and Name_OFF.
void SetGlyphs(TklBitBtn2& Button, const std::string& Name) {
  Button.SetGlyphNormal(ResourcePng(Name.c_str()));
  Button.SetGlyphOver(ResourcePng((Name + "_OVER").c_str()));
  Button.SetGlyphDisabled(ResourcePng((Name + "_OFF").c_str()));
}

TColor ReadBackground() {
  DWORD value = kDefaultBackground, size = sizeof value;
  if (RegGetValueA(HKEY_CURRENT_USER, UColorsForm::CustomColorsKey, kBackgroundValue, RRF_RT_REG_DWORD, nullptr,
                   &value, &size) != ERROR_SUCCESS) {
    return kDefaultBackground;
  }
  return value & 0xFFFFFF;
}

void WriteBackground(TColor Color) {
  HKEY key = nullptr;
  if (RegCreateKeyExA(HKEY_CURRENT_USER, UColorsForm::CustomColorsKey, 0, nullptr, 0, KEY_SET_VALUE, nullptr, &key,
                      nullptr) != ERROR_SUCCESS) {
    return;
  }
  const DWORD value = Color;
  RegSetValueExA(key, kBackgroundValue, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&value), sizeof value);
  RegCloseKey(key);
}

// The player's target window: exactly the pictures' size, since the player draws each
// picture at its top left corner. It keeps the last picture to paint it again when it is
// uncovered while paused.
class TScreen : public TCustomControl {
 public:
  explicit TScreen(TComponent* AOwner) : TCustomControl(AOwner) {}

  // Called on the player's timer thread with one RGB32 picture of the current size.
  void KeepFrame(const void* Data, int32_t Size) {
    std::lock_guard<std::mutex> guard(FLock);
    if (Size != FFrameWidth * FFrameHeight * 4) return;
    const auto* p = static_cast<const uint8_t*>(Data);
    FFrame.assign(p, p + Size);
  }
  void SetFrameSize(int Width, int Height) {
    std::lock_guard<std::mutex> guard(FLock);
    FFrameWidth = Width;
    FFrameHeight = Height;
    FFrame.clear();
  }

 protected:
  void Paint(TCanvas& Canvas) override {
    std::lock_guard<std::mutex> guard(FLock);
    if (FFrame.empty()) {
      Canvas.Brush.Color = clBlack;
      Canvas.FillRect(ClientRect());
      return;
    }
    BITMAPINFO bi{};
    bi.bmiHeader.biSize = sizeof bi.bmiHeader;
    bi.bmiHeader.biWidth = FFrameWidth;
    bi.bmiHeader.biHeight = -FFrameHeight;
    bi.bmiHeader.biPlanes = 1;
    bi.bmiHeader.biBitCount = 32;
    SetDIBitsToDevice(Canvas.Handle(), 0, 0, static_cast<DWORD>(FFrameWidth), static_cast<DWORD>(FFrameHeight), 0, 0,
                      0, static_cast<UINT>(FFrameHeight), FFrame.data(), &bi, DIB_RGB_COLORS);
  }

 private:
  std::mutex FLock;
  std::vector<uint8_t> FFrame;
  int FFrameWidth = 0, FFrameHeight = 0;
};

// The area around the picture, in the background colour; a sound-only file shows its
// name there.
class TVideoArea : public TCustomControl {
 public:
  explicit TVideoArea(TComponent* AOwner) : TCustomControl(AOwner) {}
  std::string Text;

 protected:
  void Paint(TCanvas& Canvas) override {
    RECT r = ClientRect();
    Canvas.Brush.Color = FColor;
    Canvas.FillRect(r);
    if (Text.empty()) return;
    const COLORREF c = ColorToRGB(FColor);
    const bool dark = GetRValue(c) + GetGValue(c) + GetBValue(c) < 384;
    Canvas.Font.Color = dark ? clSilver : clGray;
    Canvas.Font.Height = -16;
    Canvas.Brush.Style = TBrushStyle::bsClear;
    Canvas.DrawText(r, Text, DT_CENTER | DT_VCENTER | DT_SINGLELINE | DT_NOPREFIX | DT_END_ELLIPSIS);
  }
};

class TPlayerWindow {
 public:
  TPlayerWindow();
  ~TPlayerWindow();
  TPlayerWindow(const TPlayerWindow&) = delete;
  TPlayerWindow& operator=(const TPlayerWindow&) = delete;

  bool OpenFile(const std::string& FileName);
  // The message loop until the window closes.
  void Run();

 private:
  template <class T>
  T* Add(const std::string& Caption) {
    T* c = new T(FForm.get());
    c->SetParent(FForm.get());
    c->SetCaption(Caption);
    return c;
  }
  void MakeMenu();
  void Layout();
  // The pictures' size for the current area: the film's shape, at most its own size.
  SIZE FittedSize() const;
  void ApplyPictureSize();
  bool Command(UINT Id);
  bool Shortcut(const MSG& Msg);
  void Tick();
  void PlayPause();
  void Stop();
  void Seek(int32_t Ms);
  void SetMute(bool Value);
  void OpenDialog();
  int32_t SeekValueAt(int X) const;

  // Closed before the form goes: the player draws into one of its windows.
  UFfmpegPlayer::TFFmpegPlayer FPlayer;
  std::unique_ptr<TForm> FForm;
  TVideoArea* FArea;
  TScreen* FScreen;
  TTimeLineControlEx* FSeek;
  TklBitBtn2* FPlay;
  TklBitBtn2* FStop;
  TklBitBtn2* FMute;
  TTimeLineControl* FVolume;
  TTimeLineControl* FSpeed;
  UMyLabel::TMyLabel* FVolumeLabel;
  UMyLabel::TMyLabel* FSpeedLabel;
  klColorButton::TklColorButton* FColor;
  UMyLabel::TMyLabel* FPosition;
  UMyLabel::TMyLabel* FInfo;
  TTimer* FTick;
  TTimer* FResizeTimer;

  ComPtr<IVideoFileInfo2> FFileInfo;
  int32_t FLength = 0;
  SIZE FPictureSize{0, 0};
  bool FPlayingShown = false;
  bool FRunning = true;
  int32_t FLoopAnchor = -1;
};

TPlayerWindow::TPlayerWindow() : FForm(std::make_unique<TForm>(nullptr)) {
  FForm->SetCaption("klPlayer");
  FForm->SetBounds(CW_USEDEFAULT, CW_USEDEFAULT, 660, 500);

  FArea = Add<TVideoArea>("Picture area");
  FArea->SetColor(ReadBackground());
  FScreen = new TScreen(FForm.get());
  FScreen->SetParent(FArea);
  FScreen->SetCaption("Picture");
  FScreen->Hide();

  FSeek = Add<TTimeLineControlEx>("Seek bar");
  FSeek->SetDoneColor(kSeekDoneColor);
  FSeek->SetMaxValue(1);
  FSeek->OnChangeByUser = [this](TComponent*) { Seek(FSeek->Value()); };
  FSeek->OnHintValue = [this](TComponent*, std::string& Text, float P) {
    if (FFileInfo) Text = Clock(SeekValueAt(static_cast<int>(std::lround(P * static_cast<float>(FSeek->Width())))));
  };
  // A right-button drag marks the loop.
  FSeek->OnMouseDown = [this](TComponent*, TMouseButton B, TShiftState, int X, int) {
    if (B != TMouseButton::mbRight || !FFileInfo) return;
    FLoopAnchor = SeekValueAt(X);
    FSeek->SetSelectFinish(FLoopAnchor);
    FSeek->SetSelectStart(FLoopAnchor);
  };
  FSeek->OnMouseMove = [this](TComponent*, TShiftState Shift, int X, int) {
    if (!(Shift & ssRight) || FLoopAnchor < 0) return;
    const int32_t v = SeekValueAt(X);
    FSeek->SetSelectFinish(std::max(v, FLoopAnchor));
    FSeek->SetSelectStart(std::min(v, FLoopAnchor));
  };
  FSeek->OnMouseUp = [this](TComponent*, TMouseButton B, TShiftState, int, int) {
    if (B == TMouseButton::mbRight) FLoopAnchor = -1;
  };

  FPlay = Add<TklBitBtn2>("Play");
  SetGlyphs(*FPlay, "PLAY");
  FPlay->OnClick = [this](TComponent*) { PlayPause(); };
  FStop = Add<TklBitBtn2>("Stop");
  SetGlyphs(*FStop, "STOP");
  FStop->OnClick = [this](TComponent*) { Stop(); };
  FMute = Add<TklBitBtn2>("Mute");
  SetGlyphs(*FMute, "SOUND");
  FMute->OnClick = [this](TComponent*) { SetMute(!FPlayer.GetMute()); };

  FVolume = Add<TTimeLineControl>("Volume");
  FVolume->SetMaxValue(100);
  FVolume->SetValue(100);
  FVolume->OnChangeByUser = [this](TComponent*) {
    FPlayer.SetVolume(static_cast<float>(FVolume->Value()) / 100.0f);
    FVolumeLabel->SetRealText(Format("%d%%", FVolume->Value()));
  };
  FVolume->OnHintValue = [](TComponent*, std::string& Text, float P) { Text = Format("%d%%", static_cast<int>(P * 100)); };
  FVolumeLabel = Add<UMyLabel::TMyLabel>("");
  FVolumeLabel->SetRealText("100%");

  FSpeed = Add<TTimeLineControl>("Speed");
  FSpeed->SetMaxValue(kSpeedSteps);
  FSpeed->SetValue(5);
  FSpeed->OnChangeByUser = [this](TComponent*) {
    const float speed = static_cast<float>(FSpeed->Value() + 5) / 10.0f;
    FPlayer.SetSpeed(speed);
    FSpeedLabel->SetRealText(Format("%.1fx", speed));
  };
  FSpeedLabel = Add<UMyLabel::TMyLabel>("");
  FSpeedLabel->SetRealText("1.0x");

  FColor = Add<klColorButton::TklColorButton>("Background colour");
  FColor->SetColorValue(FArea->Color());
  FColor->Hint = "Colour around the picture";
  FColor->OnChange = [this](TComponent*) {
    FArea->SetColor(FColor->ColorValue());
    FArea->Invalidate();
    WriteBackground(FColor->ColorValue());
  };

  FPosition = Add<UMyLabel::TMyLabel>("");
  FInfo = Add<UMyLabel::TMyLabel>("");

  FTick = new TTimer(FForm.get());
  FTick->SetInterval(100);
  FTick->OnTimer = [this](TComponent*) { Tick(); };
  FResizeTimer = new TTimer(FForm.get());
  FResizeTimer->SetEnabled(false);
  FResizeTimer->SetInterval(300);
  FResizeTimer->OnTimer = [this](TComponent*) {
    FResizeTimer->SetEnabled(false);
    ApplyPictureSize();
  };

  FPlayer.SetOnFrame([this](void* Data, int32_t Size) { FScreen->KeepFrame(Data, Size); });

  FForm->OnResize = [this](TComponent*) { Layout(); };
  FForm->OnClose = [this](TComponent*, TCloseAction& Action) {
    FRunning = false;
    Action = TCloseAction::caNone;
  };
  FForm->OnMessage = [this](UINT Msg, WPARAM W, LPARAM L, LRESULT& Result) {
    if (Msg != WM_COMMAND || L != 0 || HIWORD(W) > 1) return false;
    Result = 0;
    return Command(LOWORD(W));
  };
  MakeMenu();
  FPlayer.SetTargetWindow(FScreen->Handle());
  Layout();
  FForm->Show();
  SetForegroundWindow(FForm->Handle());
  Tick();
}

TPlayerWindow::~TPlayerWindow() {
  FTick->SetEnabled(false);
  FPlayer.SetOnFrame(nullptr);
  FPlayer.Close();
}

void TPlayerWindow::MakeMenu() {
  HMENU file = CreatePopupMenu();
  AppendMenuA(file, MF_STRING, cmOpen, "&Open...\tCtrl+O");
  AppendMenuA(file, MF_SEPARATOR, 0, nullptr);
  AppendMenuA(file, MF_STRING, cmExit, "E&xit\tEsc");
  HMENU play = CreatePopupMenu();
  AppendMenuA(play, MF_STRING, cmPlayPause, "&Play / Pause\tSpace");
  AppendMenuA(play, MF_STRING, cmStop, "&Stop");
  AppendMenuA(play, MF_STRING, cmBack, "&Back 5 s\tLeft");
  AppendMenuA(play, MF_STRING, cmForward, "&Forward 5 s\tRight");
  AppendMenuA(play, MF_SEPARATOR, 0, nullptr);
  AppendMenuA(play, MF_STRING, cmLoopStart, "Loop &start here\tA");
  AppendMenuA(play, MF_STRING, cmLoopEnd, "Loop &end here\tB");
  AppendMenuA(play, MF_STRING, cmLoopClear, "&Clear loop\tC");
  AppendMenuA(play, MF_SEPARATOR, 0, nullptr);
  AppendMenuA(play, MF_STRING, cmMute, "&Mute\tM");
  HMENU bar = CreateMenu();
  AppendMenuA(bar, MF_POPUP, reinterpret_cast<UINT_PTR>(file), "&File");
  AppendMenuA(bar, MF_POPUP, reinterpret_cast<UINT_PTR>(play), "&Play");
  // The window owns the menu from here on and destroys it with itself.
  SetMenu(FForm->Handle(), bar);
}

void TPlayerWindow::Layout() {
  const RECT c = FForm->ClientRect();
  const int w = c.right - c.left, h = c.bottom - c.top;
  const int statusTop = h - kStatusHeight;
  const int rowTop = statusTop - kButtonSize - kGap;
  const int seekTop = rowTop - kSeekHeight - kGap;
  FArea->SetBounds(0, 0, w, std::max(0, seekTop - kGap));
  FSeek->SetBounds(kGap, seekTop, std::max(0, w - 2 * kGap), kSeekHeight);
  int x = kGap;
  for (TklBitBtn2* b : {FPlay, FStop, FMute}) {
    b->SetBounds(x, rowTop, kButtonSize, kButtonSize);
    x += kButtonSize + (b == FStop ? 3 * kGap : kGap);
  }
  const int barTop = rowTop + (kButtonSize - 13) / 2;
  FVolume->SetBounds(x, barTop, 90, 13);
  FVolumeLabel->SetBounds(x + 90 + kGap, rowTop + 6, 42, 18);
  x += 90 + 42 + 3 * kGap;
  FSpeed->SetBounds(x, barTop, 90, 13);
  FSpeedLabel->SetBounds(x + 90 + kGap, rowTop + 6, 36, 18);
  FColor->SetBounds(std::max(x + 140, w - kGap - 40), rowTop + 2, 40, kButtonSize - 4);
  FPosition->SetBounds(kGap, statusTop, 190, kStatusHeight - 2);
  FInfo->SetBounds(kGap + 190, statusTop, std::max(0, w - 2 * kGap - 190), kStatusHeight - 2);
  // The picture keeps its size until the resizing pauses (every new size restarts ffmpeg).
  FScreen->SetBounds((FArea->Width() - FPictureSize.cx) / 2, (FArea->Height() - FPictureSize.cy) / 2, FPictureSize.cx,
                     FPictureSize.cy);
  if (FFileInfo && FFileInfo->GetVideoPresent()) {
    const SIZE s = FittedSize();
    if (s.cx != FPictureSize.cx || s.cy != FPictureSize.cy) {
      FResizeTimer->SetEnabled(false);
      FResizeTimer->SetEnabled(true);
    }
  }
}

SIZE TPlayerWindow::FittedSize() const {
  if (!FFileInfo || FFileInfo->GetWidth() <= 0 || FFileInfo->GetHeight() <= 0) return SIZE{0, 0};
  const double fw = FFileInfo->GetWidth(), fh = FFileInfo->GetHeight();
  // Never enlarged: a larger picture would only cost more bytes per frame through the
  // player's pipe, without more detail.
  const double scale = std::min({1.0, FArea->Width() / fw, FArea->Height() / fh});
  // Even sizes: what ffmpeg's scaler takes for every pixel format.
  const LONG w = static_cast<LONG>(fw * scale) & ~1L, h = static_cast<LONG>(fh * scale) & ~1L;
  return SIZE{std::max(w, 2L), std::max(h, 2L)};
}

void TPlayerWindow::ApplyPictureSize() {
  if (!FFileInfo || !FFileInfo->GetVideoPresent()) return;
  const SIZE s = FittedSize();
  if (s.cx == FPictureSize.cx && s.cy == FPictureSize.cy) return;
  FPictureSize = s;
  FPlayer.SetTargetRect(RECT{0, 0, s.cx, s.cy});
  FScreen->SetFrameSize(s.cx, s.cy);
  Layout();
  FScreen->Invalidate();
  // The new size takes effect from the next start of ffmpeg.
  if (FPlayer.GetMode() != klMediaPlayer::pmFinished) FPlayer.SetPosition(FPlayer.GetPosition());
}

bool TPlayerWindow::OpenFile(const std::string& FileName) {
  if (!FileExists(FileName)) {
    ShowMessageBox(FForm->Handle(), "File not found:\n" + FileName, "klPlayer", MB_ICONERROR);
    return false;
  }
  ComPtr<IVideoFileInfo2> info = UFfmpeg::TVideoFileInfo::Create(FileName);
  if (!info || (!info->GetVideoPresent() && !info->GetAudioPresent())) {
    ShowMessageBox(FForm->Handle(), "ffmpeg finds neither pictures nor sound in\n" + FileName, "klPlayer",
                   MB_ICONERROR);
    return false;
  }
  FPlayer.Close();
  FFileInfo = info;
  FLength = info->GetLength();
  FSeek->SetSelectFinish(0);
  FSeek->SetMaxValue(std::max(FLength, 1));
  FSeek->SetValue(0);
  const bool video = info->GetVideoPresent();
  FPictureSize = video ? FittedSize() : SIZE{0, 0};
  FPlayer.SetTargetRect(RECT{0, 0, FPictureSize.cx, FPictureSize.cy});
  FScreen->SetFrameSize(FPictureSize.cx, FPictureSize.cy);
  FScreen->SetVisible(video);
  FArea->Text = video ? std::string() : ExtractFileName(FileName);
  FArea->Invalidate();
  Layout();
  FScreen->Invalidate();
  FForm->SetCaption("klPlayer - " + ExtractFileName(FileName));
  FInfo->SetRealText(info->ToString(false));
  FInfo->Hint = info->ToString(false);
  if (!FPlayer.Open(FileName)) {
    FFileInfo = nullptr;
    ShowMessageBox(FForm->Handle(), "The player could not start ffmpeg for\n" + FileName, "klPlayer", MB_ICONERROR);
    return false;
  }
  if (FLength <= 0) FLength = FPlayer.GetLength();
  FSeek->SetMaxValue(std::max(FLength, 1));
  FPlayer.Play();
  Tick();
  return true;
}

int32_t TPlayerWindow::SeekValueAt(int X) const {
  const int usable = FSeek->Width() - FSeek->MarkerWidth();
  if (usable <= 0) return 0;
  const double p = std::clamp(static_cast<double>(X - FSeek->MarkerWidth() / 2) / usable, 0.0, 1.0);
  return static_cast<int32_t>(p * FSeek->MaxValue());
}

void TPlayerWindow::Tick() {
  using namespace klMediaPlayer;
  const TPlayerMode mode = FPlayer.GetMode();
  const int32_t pos = FFileInfo ? std::min(FPlayer.GetPosition(), FLength) : 0;
  const int32_t a = FSeek->SelectStart(), b = FSeek->SelectFinish();
  // The A-B loop: back to its start at its end, and at the end of the film when the
  // loop reaches it.
  if (FFileInfo && b > a && ((mode == pmPlaying && pos >= b) || (mode == pmFinished && b >= FLength - 200))) {
    Seek(a);
    if (FPlayer.GetMode() != pmPlaying) FPlayer.Play();
    return;
  }
  if (!FSeek->ProgressDragging() && FFileInfo) FSeek->SetValue(pos);
  const bool playing = mode == pmPlaying;
  if (playing != FPlayingShown) {
    SetGlyphs(*FPlay, playing ? "PAUSE" : "PLAY");
    FPlay->SetCaption(playing ? "Pause" : "Play");
    FPlayingShown = playing;
  }
  std::string text;
  if (FFileInfo) {
    // Between a seek and the next start the player is not ready; it waits at the position.
    text = Clock(pos) + " / " + Clock(FLength) + "  " + (mode == pmNotReady ? "Ready" : PlayerModeToStr(mode));
    if (b > a) text += "  [A-B]";
  } else {
    text = "No file: File > Open";
  }
  if (text != FPosition->GetRealText()) {
    FPosition->SetRealText(text);
    FPosition->SetCaption(text);
  }
}

void TPlayerWindow::PlayPause() {
  using namespace klMediaPlayer;
  if (!FFileInfo) return OpenDialog();
  const TPlayerMode mode = FPlayer.GetMode();
  if (mode == pmPlaying) {
    FPlayer.Pause();
  } else {
    if (mode == pmFinished) FPlayer.SetPosition(FSeek->SelectFinish() > FSeek->SelectStart() ? FSeek->SelectStart() : 0);
    FPlayer.Play();
  }
  Tick();
}

void TPlayerWindow::Stop() {
  if (!FFileInfo) return;
  FPlayer.Stop();
  FPlayer.SetPosition(0);
  Tick();
}

void TPlayerWindow::Seek(int32_t Ms) {
  if (!FFileInfo) return;
  // A seek at the very end would start ffmpeg past the last picture.
  Ms = std::clamp(Ms, 0, std::max(0, FLength - 100));
  if (FPlayer.GetMode() == klMediaPlayer::pmFinished) {
    FPlayer.SetPosition(Ms);
    FPlayer.Play();
  } else {
    FPlayer.SetPosition(Ms);
  }
  Tick();
}

void TPlayerWindow::SetMute(bool Value) {
  FPlayer.SetMute(Value);
  SetGlyphs(*FMute, Value ? "MUTE" : "SOUND");
  FMute->SetCaption(Value ? "Sound" : "Mute");
}

void TPlayerWindow::OpenDialog() {
  std::string name;
  if (ExecuteOpenDialog(FForm->Handle(),
                        "Films and sound|*.mp4;*.mkv;*.avi;*.mov;*.webm;*.mpg;*.wmv;*.flv;*.mp3;*.wav;*.flac;*.ogg;*.m4a;"
                        "*.aac;*.mka|All files|*.*",
                        name)) {
    OpenFile(name);
  }
}

bool TPlayerWindow::Command(UINT Id) {
  switch (Id) {
    case cmOpen: OpenDialog(); break;
    case cmExit: FRunning = false; break;
    case cmPlayPause: PlayPause(); break;
    case cmStop: Stop(); break;
    case cmBack: Seek(FPlayer.GetPosition() - kSeekStepMs); break;
    case cmForward: Seek(FPlayer.GetPosition() + kSeekStepMs); break;
    case cmLoopStart: FSeek->SetSelectStart(FPlayer.GetPosition()); break;
    case cmLoopEnd: FSeek->SetSelectFinish(FPlayer.GetPosition()); break;
    case cmLoopClear: FSeek->SetSelectFinish(0); break;
    case cmMute: SetMute(!FPlayer.GetMute()); break;
    default: return false;
  }
  return true;
}

// Keys for the whole window, whichever control has the focus.
bool TPlayerWindow::Shortcut(const MSG& Msg) {
  if (Msg.message != WM_KEYDOWN || !Msg.hwnd || GetAncestor(Msg.hwnd, GA_ROOT) != FForm->Handle()) return false;
  const bool repeat = (Msg.lParam & (1L << 30)) != 0;
  const bool ctrl = GetKeyState(VK_CONTROL) < 0;
  switch (Msg.wParam) {
    case VK_SPACE: return repeat || Command(cmPlayPause);
    case VK_ESCAPE: return Command(cmExit);
    case VK_LEFT: return Command(cmBack);
    case VK_RIGHT: return Command(cmForward);
    case VK_UP:
    case VK_DOWN:
      FVolume->SetValue(FVolume->Value() + (Msg.wParam == VK_UP ? 10 : -10));
      FVolume->OnChangeByUser(FVolume);
      return true;
    case 'M': return repeat || Command(cmMute);
    case 'A': return Command(cmLoopStart);
    case 'B': return Command(cmLoopEnd);
    case 'C': return Command(cmLoopClear);
    case 'O': return ctrl && Command(cmOpen);
    default: return false;
  }
}

void TPlayerWindow::Run() {
  while (FRunning) {
    MSG msg;
    if (PeekMessageA(&msg, nullptr, 0, 0, PM_NOREMOVE)) {
      if (msg.message == WM_QUIT) break;
      if (Shortcut(msg)) {
        PeekMessageA(&msg, msg.hwnd, msg.message, msg.message, PM_REMOVE);
        continue;
      }
    }
    Application().HandleMessage();
  }
}

}  // namespace

int WINAPI WinMain(HINSTANCE, HINSTANCE, LPSTR, int) {
  TPlayerWindow window;
  if (__argc > 1) window.OpenFile(__argv[1]);
  window.Run();
  return 0;
}
