// The library's entry: includes every unit.
#pragma once

#include "rtl/Classes.h"
#include "rtl/ComBase.h"
#include "rtl/Dialogs.h"
#include "rtl/SysUtils.h"
#include "rtl/Threads.h"

#include "diagnostics/klLog.h"

#include "formats/UWAV.h"

#include "tempo/USoundTouchDLL.h"

#include "playback/klMediaPlayer.h"
