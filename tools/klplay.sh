#!/usr/bin/env bash
# Plays a WAV or MP3 file through Wine with klPlay: tools/klplay.sh [--speed S] [--volume V] [--start MS] file
# Uses $KL_BUILD (default: build/ of this checkout); build first with scripts/test.sh.
set -euo pipefail
ROOT=$(cd "$(dirname "$0")/.." && pwd)
EXE="${KL_BUILD:-$ROOT/build}/x86_64/bin/klPlay.exe"
[ -f "$EXE" ] || { echo "no $EXE: build first (bash scripts/test.sh)" >&2; exit 1; }
args=()
while [ $# -gt 0 ]; do
  case "$1" in
    --speed|--volume|--start) args+=("$1" "$2"); shift 2 ;;
    *) if [ -e "$1" ]; then args+=("$(winepath -w "$1")"); else args+=("$1"); fi; shift ;;
  esac
done
WINEDEBUG=${WINEDEBUG:--all} exec wine "$EXE" "${args[@]}"
