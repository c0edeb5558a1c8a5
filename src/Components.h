// The library's entry: includes every unit.
#pragma once

#include "rtl/Classes.h"
#include "rtl/ComBase.h"
#include "rtl/Dialogs.h"
#include "rtl/SysUtils.h"
#include "rtl/Threads.h"

#include "diagnostics/UDib.h"
#include "diagnostics/UTextEx.h"
#include "diagnostics/klFiles.h"
#include "diagnostics/klLog.h"

#include "channels/UMemoryBuffer.h"
#include "channels/UPipe.h"
#include "channels/klChildProcess.h"

#include "conversion/UAudioConverter.h"

#include "formats/UMp3.h"
#include "formats/UWAV.h"
#include "formats/UklMP3.h"

#include "tempo/USoundTouchDLL.h"

#include "playback/klMediaPlayer.h"
#include "playback/USoundStreams.h"
#include "playback/UklMediaPlayer.h"

#include "ffmpeg/UFfmpeg.h"
#include "ffmpeg/UFfmpegPlayer.h"
#include "ffmpeg/UVideoStreams.h"

#include "rtl/Controls.h"
#include "rtl/Forms.h"
#include "rtl/Graphics.h"

#include "controls/UBitButtonEx.h"
#include "controls/UCustomPaintControls.h"
#include "controls/UHint.h"
#include "controls/UModalForms.h"
#include "controls/UMyLabel.h"
#include "controls/URegister.h"
#include "controls/UTimeLineControl.h"
#include "controls/UVisibleObjectBounder.h"
#include "controls/VistaAltFixUnit.h"
#include "diagnostics/UFileVersionInfo.h"
