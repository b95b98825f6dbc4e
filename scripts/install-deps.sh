#!/usr/bin/env bash
# Installs the Debian packages NimbFoundation needs to build, test and
# benchmark. Idempotent: packages already present are left alone, and
# apt-get is not touched at all when nothing is missing.
#
# Usage: scripts/install-deps.sh            (as root, or with sudo on PATH)
set -euo pipefail

packages=(
  # toolchain
  g++ clang cmake ninja-build pkg-config make git
  # libraries
  libplist-dev libpng-dev libturbojpeg0-dev libicu-dev libcli11-dev libcurl4-openssl-dev
  libssl-dev libcairo2-dev libgif-dev libwebp-dev
  # EXIF orientation of photos
  libexif-dev
  # nimbkit layout reads JSON
  nlohmann-json3-dev
  # tests and benchmarks
  libgtest-dev libgmock-dev libbenchmark-dev libcpp-httplib-dev
  # the AES tests compare with the openssl command
  openssl
  # the linear solver's tests and benchmark compare with kiwisolver
  python3 python3-kiwisolver
  # the photo picker talks to the desktop portal over D-Bus through GIO
  libglib2.0-dev
  # the photo picker's tests run a private session bus with a fake portal
  dbus-daemon python3-dbusmock xdg-user-dirs
  # location fixes from gpsd (libgps), and gpsd with gpsfake for the tests and the demo
  libgps-dev gpsd gpsd-clients
  # the GTK 4 gallery example, and its screenshot test and demo under a private X server
  libgtk-4-dev xvfb xauth
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  echo "install-deps: all ${#packages[@]} packages present"
  exit 0
fi

echo "install-deps: installing ${missing[*]}"
run() { if [ "$(id -u)" -eq 0 ]; then "$@"; else sudo "$@"; fi; }
export DEBIAN_FRONTEND=noninteractive
run apt-get update -qq
run apt-get install -y -qq --no-install-recommends "${missing[@]}"
