#!/bin/sh
# Runs one example as a user would and checks what it printed and wrote.
# HOME and the XDG folders point into a scratch folder, which is also the
# working folder, so no example touches the user's files.
#   smoke_test.sh NAME PROGRAM
set -eu
name=$1
program=$2
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
export HOME="$scratch/home" XDG_CACHE_HOME="$scratch/cache" XDG_CONFIG_HOME="$scratch/config" \
  XDG_DATA_HOME="$scratch/data"
mkdir -p "$HOME"
out="$scratch/output.txt"

fail() {
  echo "FAIL: $*"
  exit 1
}
# Every line of the output matching the extended regular expression $1.
lines() { grep -E -- "$1" "$out" || true; }
expect() { [ -n "$(lines "$1")" ] || fail "no line matches: $1"; }
# "W H" of the PNG file $1, from its IHDR chunk; "not a PNG" for anything else.
png_size() {
  if [ "$(od -An -tx1 -N8 "$1" 2>/dev/null | tr -d ' \n')" != 89504e470d0a1a0a ]; then
    echo "not a PNG"
    return
  fi
  set -- $(od -An -tu1 -j16 -N8 "$1")
  echo "$(($1 << 24 | $2 << 16 | $3 << 8 | $4)) $(($5 << 24 | $6 << 16 | $7 << 8 | $8))"
}

run() {
  status=0
  (cd "$scratch" && "$program" "$@") >"$out" || status=$?
  cat "$out"
  [ "$status" -eq 0 ] || fail "$name exited with $status"
}

case $name in
quickstart)
  run
  expect '^hello$'
  # The entry and the index landed in the cache under $XDG_CACHE_HOME.
  [ -f "$XDG_CACHE_HOME/quickstart/VQCache/greeting" ] || fail "no cache entry"
  [ -f "$XDG_CACHE_HOME/quickstart/VQCache/VQCache.plist" ] || fail "no cache index"
  ;;
exif_orientations)
  run sheet
  [ "$(lines 'upright 48x72$' | wc -l)" -eq 8 ] || fail "not eight upright pictures"
  # Tags 5 to 8 turn the picture a quarter: it is stored on its side.
  [ "$(lines '^sheet/orientation-[5-8]\.jpg: stored 72x48,' | wc -l)" -eq 4 ] || fail "sides"
  [ "$(png_size "$scratch/sheet/orientations.png")" = "584 116" ] || fail "no 584x116 sheet"
  ;;
glib_runloop)
  run 2
  for mode in 'GLib source' 'poll 10 ms' 'poll 200 ms'; do
    expect "^$mode +median load [0-9]+\.[0-9] ms$"
  done
  ;;
image_view)
  run "$scratch/view.png"
  expect '^after: +status 1 \(1 = loaded\), picture 120x80 from http://127\.0\.0\.1:[0-9]+/photo\.png$'
  expect "^wrote $scratch/view.png: 240x160 PNG, [0-9]+ bytes$"
  [ "$(png_size "$scratch/view.png")" = "240 160" ] || fail "the drawing is not 240x160"
  # Its loader used a cache of its own, not the user's.
  [ ! -e "$XDG_CACHE_HOME" ] || [ -z "$(ls -A "$XDG_CACHE_HOME")" ] || fail "wrote into the cache"
  ;;
encoder)
  run
  expect '^base64 +Zm9vYmFy  \(ok\)$'
  expect '^base32 +MZXW6YTBOI======  \(ok\)$'
  expect '^  decrypted +foobar  \(ok\)$'
  [ -z "$(lines '\(expected ')" ] || fail "a value differs"
  expect '^all values as expected$'
  ;;
shared_identifier)
  run
  ids=$(lines '^org\.example\.(photos|chat): [0-9a-f]{40}$' | sed 's/.*: //')
  [ "$(echo "$ids" | wc -l)" -eq 2 ] || fail "not two identifiers"
  [ "$(echo "$ids" | sort -u | wc -l)" -eq 1 ] || fail "the applications disagree"
  [ "$(echo "$ids" | head -n 1)" != 0000000000000000000000000000000000000000 ] || fail "opted out"
  expect '^same identifier for both applications: yes$'
  ;;
utilities)
  run
  expect '^query user = "Ann Lee"$'
  expect '^query tag  = "a\+b"$'
  expect '^query string: page=2&tag=a%2Bb&user=Ann%20Lee$'
  expect '^urlEncode\("a b&c/d"\) = a%20b%26c%2Fd$'
  expect '^id as integer: 1024$'
  expect '^missing as string: \(null\)$'
  expect '^profile\.city: Bern$'
  expect '^characters in ".*": 7$'
  expect '^first 4 UTF-8 bytes: "Grü"$'
  expect '^colour #FF8000  = rgba\(255, 128, 0, 1\)$'
  expect '^colour oops     = rgba\(255, 255, 255, 1\)$'
  expect '^\[[0-9]{2}:[0-9]{2}:[0-9]{2}\.[0-9]{3}\( *[0-9]+\)\] - \[tour\] log on, 5 helpers shown $'
  [ -z "$(lines 'not printed')" ] || fail "the log printed while off"
  ;;
*) fail "unknown example $name" ;;
esac
echo "PASS $name"
