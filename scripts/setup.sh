#!/usr/bin/env bash
# Prepares a fresh Debian 12 machine (run as root) to build and test the library:
# the MinGW-w64 cross compilers, Wine, the audio server, Xvfb, GoogleTest built for
# Windows, the Windows ffmpeg.exe and SoundTouch.dll. Idempotent: everything fetched
# or built lands in a cache outside the clone, so a second run takes seconds.
set -euo pipefail

CACHE=${KL_CACHE:-/var/cache/klcomponents}
mkdir -p "$CACHE"
log() { printf '[setup] %s\n' "$*"; }

if [ "$(id -u)" != 0 ]; then
  echo "setup.sh must run as root" >&2
  exit 1
fi
export DEBIAN_FRONTEND=noninteractive

# --- Debian packages -------------------------------------------------------------
SRC_LIST=/etc/apt/sources.list.d/klcomponents-src.sources
if [ ! -f "$SRC_LIST" ]; then
  log "enabling deb-src"
  cat > "$SRC_LIST" <<'SRC'
Types: deb-src
URIs: http://deb.debian.org/debian
Suites: bookworm bookworm-updates
Components: main
Signed-By: /usr/share/keyrings/debian-archive-keyring.gpg
SRC
  rm -f "$CACHE/.apt-done"
fi

PACKAGES="cmake make ninja-build dpkg-dev g++-mingw-w64-x86-64-posix g++-mingw-w64-i686-posix
  wine wine64 xvfb x11-apps pulseaudio pulseaudio-utils googletest sox"
missing=""
for p in $PACKAGES; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing="$missing $p"
done
command -v npm >/dev/null 2>&1 || missing="$missing nodejs npm"
if [ -n "$missing" ] || [ ! -f "$CACHE/.apt-done" ]; then
  log "installing:$missing"
  apt-get update -qq
  # shellcheck disable=SC2086
  apt-get install -y -qq --no-install-recommends $PACKAGES $(command -v npm >/dev/null 2>&1 || echo nodejs npm) >/dev/null
  touch "$CACHE/.apt-done"
fi

# The posix thread model gives std::thread; make it the default for both triplets.
for t in x86_64-w64-mingw32 i686-w64-mingw32; do
  for tool in gcc g++; do
    if [ -x "/usr/bin/$t-$tool-posix" ]; then
      update-alternatives --set "$t-$tool" "/usr/bin/$t-$tool-posix" >/dev/null 2>&1 || true
    fi
  done
done

SCRIPTS=$(cd "$(dirname "$0")" && pwd)

# --- GoogleTest, built with the cross compilers ---------------------------------
for arch in x86_64 i686; do
  prefix="$CACHE/gtest-$arch"
  if [ ! -f "$prefix/.done" ]; then
    log "building GoogleTest for $arch"
    rm -rf "$CACHE/gtest-build-$arch" "$prefix"
    cmake -S /usr/src/googletest -B "$CACHE/gtest-build-$arch" -G Ninja \
      -DCMAKE_TOOLCHAIN_FILE="$SCRIPTS/../cmake/toolchain-$arch-w64-mingw32.cmake" \
      -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX="$prefix" \
      -Dgtest_disable_pthreads=OFF -DBUILD_GMOCK=ON >/dev/null
    cmake --build "$CACHE/gtest-build-$arch" -j2 >/dev/null
    cmake --install "$CACHE/gtest-build-$arch" >/dev/null
    rm -rf "$CACHE/gtest-build-$arch"
    touch "$prefix/.done"
  fi
done

# --- ffmpeg.exe from the npm registry --------------------------------------------
if [ ! -f "$CACHE/ffmpeg/ffmpeg.exe" ]; then
  log "fetching ffmpeg.exe"
  rm -rf "$CACHE/ffmpeg-pack" && mkdir -p "$CACHE/ffmpeg-pack" "$CACHE/ffmpeg"
  (cd "$CACHE/ffmpeg-pack" && npm pack --silent @ffmpeg-installer/win32-x64 >/dev/null && tar xzf ./*.tgz)
  cp "$CACHE/ffmpeg-pack/package/ffmpeg.exe" "$CACHE/ffmpeg/ffmpeg.exe"
  rm -rf "$CACHE/ffmpeg-pack"
fi

# --- SoundTouch.dll from Debian's source package ---------------------------------
for arch in x86_64 i686; do
  out="$CACHE/soundtouch-$arch/SoundTouch.dll"
  if [ ! -f "$out" ]; then
    log "building SoundTouch.dll for $arch"
    if [ ! -d "$CACHE/soundtouch-src" ]; then
      rm -rf "$CACHE/soundtouch-get" && mkdir -p "$CACHE/soundtouch-get"
      (cd "$CACHE/soundtouch-get" && apt-get source -qq soundtouch >/dev/null 2>&1)
      src=$(find "$CACHE/soundtouch-get" -maxdepth 1 -mindepth 1 -type d -name 'soundtouch-*' | head -n 1)
      mv "$src" "$CACHE/soundtouch-src"
      rm -rf "$CACHE/soundtouch-get"
    fi
    b="$CACHE/soundtouch-build-$arch"
    rm -rf "$b"
    # SoundTouch's SSE paths need SSE enabled on 32-bit x86, where it is not the default.
    flags=""
    [ "$arch" = i686 ] && flags="-msse2"
    cmake -S "$CACHE/soundtouch-src" -B "$b" -G Ninja \
      -DCMAKE_TOOLCHAIN_FILE="$SCRIPTS/../cmake/toolchain-$arch-w64-mingw32.cmake" \
      -DCMAKE_BUILD_TYPE=Release -DBUILD_SHARED_LIBS=OFF -DSOUNDTOUCH_DLL=ON -DSOUNDSTRETCH=OFF \
      -DOPENMP=OFF -DINTEGER_SAMPLES=OFF -DCMAKE_CXX_FLAGS="$flags" \
      -DCMAKE_SHARED_LINKER_FLAGS="-static -static-libgcc -static-libstdc++" >/dev/null
    cmake --build "$b" -j2 --target SoundTouchDLL >/dev/null
    mkdir -p "$CACHE/soundtouch-$arch"
    dll=$(find "$b" -iname '*SoundTouchDLL*.dll' | head -n 1)
    cp "$dll" "$out"
    rm -rf "$b"
  fi
done

log "ready (cache: $CACHE)"
