#!/usr/bin/env bash
# Runs the klPlayer window through Wine on this screen: tools/klplayer.sh [FILE].
exec "$(dirname "$0")/klwine.sh" klPlayer.exe "$@"
