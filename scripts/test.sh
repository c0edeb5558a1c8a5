#!/usr/bin/env bash
# Builds the library, tests, tools and benchmarks for x86_64 and i686, then runs every
# test under Wine (x86_64) with a private audio server whose output is recorded.
# Usage: scripts/test.sh [ctest arguments...]
#        scripts/test.sh --run COMMAND...   runs COMMAND in the test environment instead
set -euo pipefail

ROOT=$(cd "$(dirname "$0")/.." && pwd)
CACHE=${KL_CACHE:-/var/cache/klcomponents}
BUILD=${KL_BUILD:-$ROOT/build}
JOBS=${KL_JOBS:-2}
log() { printf '[test] %s\n' "$*"; }

for f in "$CACHE/ffmpeg/ffmpeg.exe" "$CACHE/soundtouch-x86_64/SoundTouch.dll" "$CACHE/gtest-x86_64"; do
  [ -e "$f" ] || { echo "missing $f: run scripts/setup.sh first" >&2; exit 1; }
done

build() {
  local arch=$1 dir="$BUILD/$1"
  log "building $arch"
  if [ ! -f "$dir/build.ninja" ]; then
    cmake -S "$ROOT" -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
      -DCMAKE_TOOLCHAIN_FILE="$ROOT/cmake/toolchain-$arch-w64-mingw32.cmake" -DKL_CACHE="$CACHE" >/dev/null
  fi
  cmake --build "$dir" -j "$JOBS"
  # Layout the library expects at run time: bin\ with the executables and
  # SoundTouch.dll, common\ffmpeg.exe beside it.
  mkdir -p "$dir/common" "$dir/bin"
  ln -sf "$CACHE/ffmpeg/ffmpeg.exe" "$dir/common/ffmpeg.exe"
  cp -f "$CACHE/soundtouch-$arch/SoundTouch.dll" "$dir/bin/SoundTouch.dll"
}

build x86_64
[ "${KL_SKIP_I686:-0}" = 1 ] || build i686

# --- run time for the tests -------------------------------------------------------------
RUN="$BUILD/run"
mkdir -p "$RUN"
PIDS=()
cleanup() {
  for pid in "${PIDS[@]}"; do kill "$pid" 2>/dev/null || true; done
  for pid in "${PIDS[@]}"; do wait "$pid" 2>/dev/null || true; done
  if [ -n "${WINEPREFIX:-}" ]; then wineserver -k 2>/dev/null || true; fi
}
trap cleanup EXIT

# A private X screen for the desktop process and for tests that show windows.
for n in $(seq 90 140); do
  [ -e "/tmp/.X$n-lock" ] || [ -e "/tmp/.X11-unix/X$n" ] || { DISPLAY_NUM=$n; break; }
done
Xvfb ":$DISPLAY_NUM" -screen 0 1024x768x24 -nolisten tcp >"$RUN/xvfb.log" 2>&1 &
PIDS+=($!)
export DISPLAY=":$DISPLAY_NUM"
for _ in $(seq 100); do [ -e "/tmp/.X11-unix/X$DISPLAY_NUM" ] && break; sleep 0.05; done

export WINEDEBUG=-all
export WINEPREFIX="$BUILD/wineprefix"
# No crash debugger: a crashing test must end, not wait for one.
export WINEDLLOVERRIDES="mscoree,mshtml=;winedbg.exe=d"
if [ ! -f "$WINEPREFIX/.kl-ready-2" ]; then
  log "creating the Wine prefix"
  rm -rf "$WINEPREFIX"
  wineboot -i >/dev/null 2>&1 || true
  # The X11 driver on a private Xvfb screen. With the null driver Wine's desktop
  # process fails half-way and is started again by every program that needs a
  # window, each time inheriting that program's pipes and holding them open.
  wine reg add 'HKCU\Software\Wine\Drivers' /v Graphics /d x11 /f >/dev/null 2>&1
  wine reg add 'HKCU\Software\Wine\Drivers' /v Audio /d pulse /f >/dev/null 2>&1
  wineserver -w
  touch "$WINEPREFIX/.kl-ready-2"
fi


# A private PulseAudio server with a null sink; its monitor is recorded for the whole
# run so that tests can compare what was played.
export PULSE_RUNTIME_PATH="$RUN/pulse"
export PULSE_STATE_PATH="$RUN/pulse"
export PULSE_SERVER="unix:$RUN/pulse/native"
export PULSE_SINK=klsink
mkdir -p "$PULSE_RUNTIME_PATH"
rm -f "$PULSE_RUNTIME_PATH/native"
pulseaudio --daemonize=no --exit-idle-time=-1 --disallow-exit --use-pid-file=no --system=false \
  -n --load="module-native-protocol-unix socket=$RUN/pulse/native auth-anonymous=1" \
  --load="module-null-sink sink_name=klsink rate=44100 channels=2" \
  --load="module-always-sink" >"$RUN/pulse.log" 2>&1 &
PIDS+=($!)
for _ in $(seq 100); do [ -S "$RUN/pulse/native" ] && break; sleep 0.05; done
pactl set-default-sink klsink >/dev/null 2>&1 || true
CAPTURE="$RUN/capture.raw"
: >"$CAPTURE"
parec -d klsink.monitor --format=s16le --rate=44100 --channels=2 --latency-msec=20 >"$CAPTURE" 2>"$RUN/parec.log" &
PIDS+=($!)
export KL_CAPTURE_FILE="Z:${CAPTURE//\//\\}"

wineserver -p 2>/dev/null || true  # a server already running for this prefix is kept
# Wine's own services start with the first program and live as long as the server.
# Start them here, away from ctest's output pipes, or ctest waits for them to close.
wine cmd /c exit >/dev/null 2>&1 </dev/null || true
# The same for the desktop process, which the first program with a window starts: started
# from inside a test, it would inherit that test's pipes and keep them open for ever.
first_test=$(ls "$BUILD"/x86_64/bin/klTests_*.exe | head -n 1)
wine "$first_test" --kl-desktop >/dev/null 2>&1 </dev/null || true
# Wine's audio driver is slow and irregular the first time a prefix plays: play a
# second of sound before the tests do.
if [ -x "$(command -v sox)" ] && [ -f "$BUILD/x86_64/bin/klPlay.exe" ]; then
  sox -q -n -r 44100 -c 2 -b 16 "$RUN/warm.wav" synth 1 sine 440 vol 0.1 2>/dev/null &&
    timeout 20 wine "$BUILD/x86_64/bin/klPlay.exe" "Z:${RUN//\//\\}\\warm.wav" >/dev/null 2>&1 </dev/null || true
fi
sleep 2.5  # the null sink's first second is irregular; the recorder needs it behind it

cd "$BUILD/x86_64"
if [ "${1:-}" = "--run" ]; then
  shift
  "$@"
  exit $?
fi
log "running tests"
# Playback is checked against a real-time audio server on a shared machine: a test
# executable that fails is run once more before the failure counts.
ctest --output-on-failure --repeat until-pass:2 "$@"
