#!/usr/bin/env bash
# Gallery.ScreenshotUnderXvfbShowsPictures: the gallery, on its own sample
# pictures served over loopback, under a private X server; the screenshot it
# writes once every cell settled must show each picture and no placeholder.
#
# Usage: screenshot_test.sh XVFB_RUN GALLERY CHECKER
set -euo pipefail
xvfb_run=$1 gallery=$2 checker=$3

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
# The loader's cache and GTK's settings live in the scratch folder.
export HOME="$scratch/home" XDG_CACHE_HOME="$scratch/cache" XDG_CONFIG_HOME="$scratch/config"
export XDG_DATA_HOME="$scratch/data" XDG_RUNTIME_DIR="$scratch/runtime"
mkdir -p "$HOME" "$XDG_RUNTIME_DIR" && chmod 700 "$XDG_RUNTIME_DIR"
# Xvfb has no GL: GTK draws with Cairo; no accessibility bus to look for.
export GDK_BACKEND=x11 GSK_RENDERER=cairo NO_AT_BRIDGE=1 GTK_A11Y=none

"$xvfb_run" -a -s "-screen 0 1024x768x24" \
  "$gallery" --screenshot "$scratch/gallery.png" --timeout 15
"$checker" "$scratch/gallery.png"
# Keep the picture for a person to look at when asked.
if [ -n "${GALLERY_SCREENSHOT_COPY:-}" ]; then cp "$scratch/gallery.png" "$GALLERY_SCREENSHOT_COPY"; fi
