#!/usr/bin/env bash
# Plays a WAV or MP3 file through Wine with klPlay: tools/klplay.sh [--speed S] [--volume V] [--start MS] file
exec "$(dirname "$0")/klwine.sh" klPlay.exe "$@"
