#!/usr/bin/env bash
# Installs what is missing, then builds and runs the whole test suite three
# ways: an optimised build, a build under AddressSanitizer with
# UndefinedBehaviorSanitizer, and the threaded parts under ThreadSanitizer.
# ctest runs each case in its own process; the optimised build's test binary
# also runs once with every case in one process, so that no case depends on
# starting from a fresh process or leaves state behind for the next.
#
# Usage: scripts/test.sh        (NIMB_JOBS sets build/test parallelism, default 2)
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh

jobs=${NIMB_JOBS:-2}
# Groups whose code runs on several threads; they also run under TSan.
threaded='^(Runtime|NimbKitRuntime|RunLoop|OperationQueue|VQCacheTest|VQMemoryCache|URLConnectionTest|VQImageLoadConnectionTest|VQUtilsLog|VQImageLoaderTest|NotificationCenter|Image[A-Za-z]*|[A-Za-z]*Location[A-Za-z]*)\.'

suite() {
  local name=$1 filter=$2
  shift 2
  echo "==> ${name}: configure and build"
  cmake -S . -B "build/${name}" -G Ninja -DNIMB_WERROR=ON -DNIMB_BUILD_TESTS=ON -DNIMB_BUILD_BENCH=OFF "$@" >/dev/null
  cmake --build "build/${name}" -j "${jobs}"
  echo "==> ${name}: test"
  (cd "build/${name}" && ctest --output-on-failure -j "${jobs}" ${filter:+-R "$filter"}) |
    tee "build/${name}/ctest.log"
  # ctest's own summary: "100% tests passed, 0 tests failed out of 55"
  local summary
  summary=$(grep -E 'tests passed, [0-9]+ tests failed out of [0-9]+' "build/${name}/ctest.log" | tail -n 1)
  total=$((total + $(sed -E 's/.*out of ([0-9]+).*/\1/' <<<"$summary")))
  failed=$((failed + $(sed -E 's/.* ([0-9]+) tests failed.*/\1/' <<<"$summary")))
}

# Runs the suite's test binary once, every case in the same process.
single_process() {
  local name=$1
  echo "==> ${name}: every case in one process"
  "build/${name}/tests/NimbFoundationTests" --gtest_brief=1 | tee "build/${name}/single-process.log"
}

total=0
failed=0

export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
export LSAN_OPTIONS="suppressions=$(pwd)/tests/lsan.supp:print_suppressions=0"
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
export TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1:suppressions=$(pwd)/tests/tsan.supp"

suite release '' -DCMAKE_BUILD_TYPE=Release
single_process release
suite asan '' -DCMAKE_BUILD_TYPE=Debug -DNIMB_SANITIZE=address,undefined
suite tsan "$threaded" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DNIMB_SANITIZE=thread
echo "==> all three suites passed"
echo "$((total - failed)) passed, ${failed} failed"
echo "single process: $(grep -E '^\[  PASSED  \]' build/release/single-process.log)"
