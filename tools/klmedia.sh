#!/usr/bin/env bash
# Runs klMedia through Wine: tools/klmedia.sh info FILE | play FILE [--speed S] ... |
# extract VIDEO SOUND [OPTIONS...] | mux VIDEO SOUND OUTPUT [OPTIONS...] | frames ... | encode ...
exec "$(dirname "$0")/klwine.sh" klMedia.exe "$@"
