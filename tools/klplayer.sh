#!/usr/bin/env bash
# Runs klPlayer through Wine on this screen: tools/klplayer.sh [FILE]. An absolute Linux
# path becomes a Windows path; a relative one works as it is (Wine starts in the current
# directory). Uses $KL_BUILD (default: build/ of this checkout); build first with
# scripts/test.sh.
set -euo pipefail
ROOT=$(cd "$(dirname "$0")/.." && pwd)
EXE="${KL_BUILD:-$ROOT/build}/x86_64/bin/klPlayer.exe"
[ -f "$EXE" ] || { echo "no $EXE: build first (bash scripts/test.sh)" >&2; exit 1; }
args=()
for a in "$@"; do
  case "$a" in
    /*) args+=("$(winepath -w "$a")") ;;
    *) args+=("$a") ;;
  esac
done
WINEDEBUG=${WINEDEBUG:--all} exec wine "$EXE" "${args[@]}"
