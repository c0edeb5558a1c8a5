#!/usr/bin/env bash
# Runs one of this checkout's programs through Wine: tools/klwine.sh PROGRAM.exe [ARGS...].
# Arguments naming an existing file or an absolute Linux path become Windows paths; the rest
# pass as they are (Wine starts in the current directory). Uses $KL_BUILD (default: build/ of
# this checkout); build first with scripts/test.sh.
set -euo pipefail
ROOT=$(cd "$(dirname "$0")/.." && pwd)
EXE="${KL_BUILD:-$ROOT/build}/x86_64/bin/$1"
shift
[ -f "$EXE" ] || { echo "no $EXE: build first (bash scripts/test.sh)" >&2; exit 1; }
args=()
for a in "$@"; do
  case "$a" in
    /*) args+=("$(winepath -w "$a")") ;;
    *) if [ -e "$a" ]; then args+=("$(winepath -w "$a")"); else args+=("$a"); fi ;;
  esac
done
WINEDEBUG=${WINEDEBUG:--all} exec wine "$EXE" "${args[@]}"
