#!/usr/bin/env bash
# The installed package as a user's project sees it: install each architecture's build into
# a fresh prefix, configure and build this folder's project against it with find_package,
# and run the x86_64 programs under Wine on a WAV made here.
# Usage: check.sh SOURCE_ROOT BUILD_ROOT   (BUILD_ROOT holds x86_64/ and, unless KL_SKIP_I686=1, i686/)
set -euo pipefail
SRC=$1
BUILD=$2
WORK="$BUILD/package"
rm -rf "$WORK"
mkdir -p "$WORK"
archs=(x86_64)
[ "${KL_SKIP_I686:-0}" = 1 ] || archs+=(i686)
fail() { echo "FAIL: $*" >&2; exit 1; }

consumer() {  # arch prefix dir
  cmake -S "$SRC/tests/package" -B "$3" -G Ninja -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_TOOLCHAIN_FILE="$SRC/cmake/toolchain-$1-w64-mingw32.cmake" -DCMAKE_PREFIX_PATH="$2"
}

for arch in "${archs[@]}"; do
  prefix="$WORK/prefix-$arch" dir="$WORK/consumer-$arch"
  cmake --install "$BUILD/$arch" --prefix "$prefix" >/dev/null
  consumer "$arch" "$prefix" "$dir" >/dev/null
  cmake --build "$dir"
  # Users get the definitions, not the library's own warnings-as-errors and charset.
  grep -q -- '-DNOMINMAX' "$dir/build.ninja" || fail "$arch: definitions not carried"
  ! grep -q -- '-Werror\|-fexec-charset' "$dir/build.ninja" || fail "$arch: build-only options leaked"
  want=$([ "$arch" = x86_64 ] && echo pei-x86-64 || echo pei-i386)
  for f in "$dir/wavlength.exe" "$dir/wavlength_dll.exe" "$dir/klComponents.dll"; do
    [[ $("$arch-w64-mingw32-objdump" -f "$f") == *"file format $want"* ]] || fail "$f is not $want"
  done
done

# Only the 64-bit Wine is installed: the i686 programs are built and checked above, not run.
cd "$WORK"
sox -q -n -r 44100 -c 2 -b 16 tone.wav synth 1.5 sine 440
for exe in wavlength wavlength_dll; do
  out=$(wine "consumer-x86_64/$exe.exe" tone.wav | tr -d '\r')
  echo "$exe: $out"
  [ "$out" = "tone.wav: 1500 ms" ] || fail "$exe printed '$out'"
done
out=$(wine consumer-x86_64/wavlength.exe missing.wav 2>&1 | tr -d '\r') && fail "a missing file gave success"
[ "$out" = "missing.wav: not a WAV file" ] || fail "missing file: '$out'"

# The version file refuses a package of the other pointer size.
if [ -d prefix-i686 ]; then
  ! consumer i686 "$WORK/prefix-x86_64" "$WORK/mixed" >"$WORK/mixed.log" 2>&1 || fail "i686 accepted the x86_64 package"
  grep -q '64bit' "$WORK/mixed.log" || fail "unexpected refusal: $(cat "$WORK/mixed.log")"
fi
echo "package: ok (${archs[*]})"
