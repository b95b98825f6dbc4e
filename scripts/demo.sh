#!/usr/bin/env bash
# The main job: installs what is missing, builds nimbkit, and runs
# `nimbkit demo`: sample pictures served on loopback, loaded through the image
# loader into views once cold and once warm, with a contact sheet at the end
# (in build/demo-output), and the same in the GTK 4 gallery window under Xvfb
# (build/demo-output/gallery.png). Then it walks through the other services,
# location updates from a gpsd that gpsfake feeds among them. It works
# in a temporary cache directory, so it leaves the user's own cache alone;
# each step is a new process, which shows that entries survive a restart
# through the cache's index file.
#
# Usage: scripts/demo.sh
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh

jobs=${NIMB_JOBS:-2}
cmake -S . -B build/demo -G Ninja -DCMAKE_BUILD_TYPE=Release -DNIMB_BUILD_TESTS=OFF \
  -DNIMB_BUILD_BENCH=OFF >/dev/null
cmake --build build/demo -j "${jobs}" --target nimbkit exif_orientations gallery
nimbkit=build/demo/tools/nimbkit/nimbkit

demo_home=$(mktemp -d)
trap 'rm -rf "$demo_home"' EXIT
# The demo's cache, pasteboards and user defaults live in a scratch folder.
export XDG_CACHE_HOME="$demo_home/cache"
export XDG_DATA_HOME="$demo_home/data"
export XDG_CONFIG_HOME="$demo_home/config"

step() { printf '\n$ %s\n' "$*"; "$@"; }

echo "== The main job: images through the loader into views (VQImageLoader, VQImageView) =="
step "$nimbkit" demo --out build/demo-output

echo
echo "== The same through a GTK 4 window: the gallery, headless under Xvfb =="
# The window's own sample pictures, served on loopback; a screenshot once
# every cell has its picture. GTK draws with Cairo, as Xvfb has no GL.
GDK_BACKEND=x11 GSK_RENDERER=cairo NO_AT_BRIDGE=1 step xvfb-run -a \
  build/demo/examples/gallery/gallery --screenshot build/demo-output/gallery.png --timeout 30
echo "The gallery's screenshot: $(pwd)/build/demo-output/gallery.png"

echo
echo "== Photos upright: the eight EXIF orientations (NimbKit::fixOrientation) =="
step build/demo/examples/exif_orientations build/demo-output/orientations
step "$nimbkit" orient build/demo-output/orientations/orientation-1.jpg
step "$nimbkit" orient build/demo-output/orientations/orientation-6.jpg \
  --out build/demo-output/orientations/orientation-6-upright.png

echo
echo "== The disk cache (VQCache) =="
step "$nimbkit" cache path
printf 'hello from NimbFoundation\n' >"$demo_home/greeting.txt"
step "$nimbkit" cache set greeting --file "$demo_home/greeting.txt"
step "$nimbkit" cache set short-lived --ttl 3 --file "$demo_home/greeting.txt"
step "$nimbkit" cache copy "$demo_home/greeting.txt" copied --ttl 3600
step "$nimbkit" cache get greeting
step "$nimbkit" cache list
echo
echo "(waiting 3.5 s for short-lived to expire)"
sleep 3.5
step "$nimbkit" cache has short-lived || echo "exit status $?: no fresh entry"
step "$nimbkit" cache list
step "$nimbkit" cache remove copied
step "$nimbkit" cache set VQCache.plist --file "$demo_home/greeting.txt" || echo "exit status $?: refused"
step "$nimbkit" cache list
echo
echo "Index file, as written by the cache:"
cat "$("$nimbkit" cache path)/VQCache.plist"

echo
echo "== One raw download over HTTP (VQImageLoadConnection) =="
mkdir -p "$demo_home/www"
head -c 300000 /dev/urandom >"$demo_home/www/photo.bin"
"$nimbkit" serve "$demo_home/www" --port 0 --for 30 >"$demo_home/serve.out" &
server=$!
trap 'kill $server 2>/dev/null || true; rm -rf "$demo_home"' EXIT
for _ in $(seq 50); do grep -q 'serving' "$demo_home/serve.out" 2>/dev/null && break; sleep 0.1; done
base=$(sed -E 's/.* at //' "$demo_home/serve.out")
echo "(a loopback server: $base)"
step "$nimbkit" download "${base}photo.bin" --output "$demo_home/fetched.bin"
cmp -s "$demo_home/www/photo.bin" "$demo_home/fetched.bin" && echo "(the fetched bytes match the served file)"
step "$nimbkit" cache set photo --file "$demo_home/fetched.bin"
step "$nimbkit" cache list
step "$nimbkit" download "${base}missing.bin" --output "$demo_home/missing.html"
step "$nimbkit" download "http://127.0.0.1:1/closed-port" || echo "exit status $?: the transfer failed"
step "$nimbkit" download "${base}photo.bin" --max-size 100K --output "$demo_home/too-big.bin" ||
  echo "exit status $?: over the size limit, nothing written"

echo
echo "== Many processes, one cache =="
printf '\n$ for i in $(seq 8); do nimbkit cache set parallel-$i & done; wait\n'
for i in $(seq 8); do echo "value $i" | "$nimbkit" cache set "parallel-$i" & done
wait
echo "(every one of them is in the index:)"
"$nimbkit" cache list | grep -c '^parallel-' 

echo
echo "== Base-N encoding (VQStringEncoding) =="
printf '\n$ printf foobar | nimbkit encode --encoding base64\n'
printf foobar | "$nimbkit" encode --encoding base64
printf '\n$ printf foobar | nimbkit encode --encoding base32\n'
printf foobar | "$nimbkit" encode --encoding base32
printf '\n$ echo MZXW6YTBOI | nimbkit encode --encoding base32 --decode\n'
echo MZXW6YTBOI | "$nimbkit" encode --encoding base32 --decode
echo
printf '\n$ echo "Zm9v!" | nimbkit encode --encoding base64 --decode\n'
echo "Zm9v!" | "$nimbkit" encode --encoding base64 --decode || echo "exit status $?: not base-64"

echo
echo "== Device report and the shared identifier (VQProtocolData, VQSharedUDID) =="
step "$nimbkit" device
step "$nimbkit" udid --app-id com.example.chat --verbose
step "$nimbkit" udid --app-id org.example.photos --verbose
echo "(nimbkit itself, chat and photos: one identifier, one slot each:)"
ls "$XDG_DATA_HOME/NimbFoundation/Pasteboards"

echo
echo "== Utilities (VQUtils) =="
step "$nimbkit" md5 "https://example.com/avatar.jpg"
step "$nimbkit" aes --secret "0123456789abcdef0123456789abcdef" "uid=42&ts=1700000000"
step "$nimbkit" url-encode "tag=café & more/ok"
step "$nimbkit" url-decode "caf%C3%A9+%26%20more"
step "$nimbkit" url-decode "%C3%28" || echo "exit status $?: not UTF-8"
step "$nimbkit" query-parse "z=last&a=%20x&flag&d=1=2&z=3"
step "$nimbkit" query-build "q=50% off" "lang=中文"

echo
echo "== Text and colours (NimbKit's String and Color extensions) =="
step "$nimbkit" text length $'e\u0301🇫🇷👨‍👩‍👧'
step "$nimbkit" text email "someone@example.co.uk"
step "$nimbkit" text special "user_name 42"
step "$nimbkit" text md5 "https://example.com/avatar.jpg"
step "$nimbkit" text params "app://open?id=42&title=a%20b&flag#top"
step "$nimbkit" color "#FF8000" --out build/demo-output/swatch.png

echo
echo "== Views laid out by constraints, drawn to PNG (View, LayoutConstraint, ViewRenderer) =="
step "$nimbkit" layout examples/layout/profile-card.json --out build/demo-output/layout \
  --hide bio --detach avatar
step "$nimbkit" layout examples/layout/feed-cell.json --out build/demo-output/layout/feed-cell \
  --hide badge --detach thumbnail

echo
echo "== Location updates through gpsd (NimbLocationManager) =="
# A walk east at 10 m/s, one fix a second, played by gpsfake through a real
# gpsd on a port of its own; nimbkit locate hears every fix that lies 50 m
# from the last one it reported.
/usr/bin/python3 scripts/nmea-walk.py --count 30 --lead 40 >"$demo_home/walk.nmea"
gps_port=$(/usr/bin/python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
printf '\n$ gpsfake -1 -c 0.05 -P %s walk.nmea &\n' "$gps_port"
PATH="/usr/sbin:$PATH" gpsfake -1 -q -c 0.05 -P "$gps_port" "$demo_home/walk.nmea" >/dev/null 2>&1 &
gpsfake_pid=$!
trap 'kill $server $gpsfake_pid 2>/dev/null || true; rm -rf "$demo_home"' EXIT
for _ in $(seq 100); do (exec 3<>"/dev/tcp/127.0.0.1/$gps_port") 2>/dev/null && break; sleep 0.1; done
GPSD_PORT=$gps_port step "$nimbkit" locate --source gpsd --count 5 --for 30
kill -INT "$gpsfake_pid" 2>/dev/null || true
wait "$gpsfake_pid" 2>/dev/null || true
GPSD_PORT=$gps_port step "$nimbkit" locate --source gpsd --for 3 ||
  echo "exit status $?: no gpsd answers any more"

echo
echo "The demo's contact sheet: $(pwd)/build/demo-output/contact-sheet.png"
echo "The laid-out views: $(pwd)/build/demo-output/layout/*.png"
echo "The gallery window: $(pwd)/build/demo-output/gallery.png"
