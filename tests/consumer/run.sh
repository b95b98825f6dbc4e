#!/bin/sh
# Installs the built tree into a temporary prefix, moves the prefix (an
# installed tree must not depend on where it was installed), then builds
# and runs a small application against it twice: with find_package and with
# pkg-config, neither with flags of its own.
#
# Usage: run.sh BUILD_DIR SOURCE_DIR VERSION
set -eu
build=$1 source=$2 version=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export HOME="$work/home" XDG_CACHE_HOME="$work/cache" XDG_DATA_HOME="$work/data" \
  XDG_CONFIG_HOME="$work/config"
mkdir -p "$HOME"

fail() { echo "FAIL: $*" >&2; exit 1; }

cmake --install "$build" --prefix "$work/staged" >"$work/install.log" || {
  cat "$work/install.log" >&2; fail "cmake --install"; }
mv "$work/staged" "$work/prefix"
prefix="$work/prefix"

expected="version $version $version
md5 900150983CD24FB0D6963F7D28E17F72
base32 MZXW6YTBOI====== foobar"

check() {  # $1: how it was built, $2: its output
  [ "$2" = "$expected" ] || fail "$1 printed:
$2
expected:
$expected"
  echo "$1: ok"
}

# 1. CMake: find_package from the moved prefix, C++20 from the target alone.
cmake -S "$source" -B "$work/cmake-build" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_BUILD_TYPE=Release >"$work/configure.log" 2>&1 || {
  cat "$work/configure.log" >&2; fail "configure with find_package"; }
cmake --build "$work/cmake-build" >"$work/build.log" 2>&1 || {
  cat "$work/build.log" >&2; fail "build with find_package"; }
# CMake's build run path points into the prefix, so it runs as built.
check find_package "$("$work/cmake-build/app")"

# 2. pkg-config: the .pc file found from the moved prefix. It gives -I and
# -L/-l and leaves the language standard to the application.
pcdir=$(dirname "$(find "$prefix" -name NimbFoundation.pc | head -n 1)")
[ -n "$pcdir" ] || fail "no NimbFoundation.pc installed"
cflags=$(PKG_CONFIG_PATH="$pcdir" pkg-config --cflags NimbFoundation)
libs=$(PKG_CONFIG_PATH="$pcdir" pkg-config --libs NimbFoundation)
case "$cflags" in *-std=*) fail "Cflags force a language standard: $cflags" ;; esac
case "$cflags" in *"$prefix"*) ;; *) fail "Cflags do not point into the moved prefix: $cflags" ;; esac
# shellcheck disable=SC2086
c++ -std=c++20 -o "$work/app-pc" "$source/app.cpp" $cflags $libs || fail "build with pkg-config"
# pkg-config gives no run path, as usual; the loader is told at run time.
libdir=$(PKG_CONFIG_PATH="$pcdir" pkg-config --variable=libdir NimbFoundation)
check pkg-config "$(LD_LIBRARY_PATH="$libdir" "$work/app-pc")"

# 3. The installed tool finds the library in its own tree, with no help.
out=$(env -u LD_LIBRARY_PATH "$prefix/bin/nimbkit" md5 abc) || fail "installed nimbkit does not run"
[ "$out" = "900150983CD24FB0D6963F7D28E17F72" ] || fail "installed nimbkit md5 abc printed $out"
echo "installed nimbkit: ok"

# 4. What the package installs beside the library and headers.
for f in "share/man/man1/nimbkit.1" "share/doc/nimbfoundation/LICENSE" \
  "share/doc/nimbfoundation/README.md"; do
  [ -s "$prefix/$f" ] || fail "$f not installed"
done
[ -z "$(find "$prefix/include" -path '*Internal*')" ] || fail "Internal/ headers installed"
echo "installed files: ok"
