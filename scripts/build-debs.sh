#!/usr/bin/env bash
# Builds the Debian packages libnimbfoundation1, libnimbfoundation-dev and
# nimbkit from the committed tree, then checks them with lintian.
#
# The checked-out files (tracked, and new ones git does not ignore) are
# copied into build/debs/nimbfoundation-VERSION/ and built there with
# dpkg-buildpackage, so the working tree stays clean and the .deb files
# land in build/debs/.
#
# Usage: scripts/build-debs.sh   (needs debhelper, dpkg-dev, fakeroot and
#                                 lintian, and the Build-Depends of
#                                 debian/control; `apt-get build-dep .`
#                                 or scripts/install-deps.sh installs them)
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
version=$(dpkg-parsechangelog -S Version)
out="$root/build/debs"
src="$out/nimbfoundation-$version"
rm -rf "$out"
mkdir -p "$src"
git ls-files -z --cached --others --exclude-standard | tar --null -T - -c | tar -x -C "$src"

(cd "$src" && dpkg-checkbuilddeps && dpkg-buildpackage -us -uc -b -j"${JOBS:-2}")

ls -1 "$out"/*.deb
# Any lintian error fails the script; warnings and notes are shown.
lintian --info --fail-on error "$out"/*.changes
