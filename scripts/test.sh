#!/usr/bin/env bash
# Installs what is missing, builds and runs every test.
#   scripts/test.sh             GCC build in build/
#   scripts/test.sh --sanitize  Clang build with ASan+UBSan in build-asan/
#   scripts/test.sh --tsan      Clang build with ThreadSanitizer in build-tsan/
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh

if [ "${1:-}" = "--tsan" ]; then
  dir=build-tsan
  opts=(-DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ -DNFSENGINE_TSAN=ON -DNFSENGINE_BENCH=OFF
        -DCMAKE_BUILD_TYPE=RelWithDebInfo)
  export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1
elif [ "${1:-}" = "--sanitize" ]; then
  dir=build-asan
  opts=(-DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ -DNFSENGINE_SANITIZE=ON -DNFSENGINE_BENCH=OFF
        -DCMAKE_BUILD_TYPE=Debug)
  export ASAN_OPTIONS=detect_leaks=1:abort_on_error=0:halt_on_error=1
  export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
else
  dir=build
  opts=(-DCMAKE_BUILD_TYPE=RelWithDebInfo)
fi
cmake -S . -B "$dir" -G Ninja "${opts[@]}"
cmake --build "$dir" -j "$(nproc)"
exclude=()
# The JVM's own threads synchronise in code the sanitizer cannot see: under
# ThreadSanitizer the tests that load a JVM report races inside it.
[ "${1:-}" = "--tsan" ] && exclude=(-E '^(jni[.]|JniNatives[.])')
ctest --test-dir "$dir" -j "$(nproc)" --output-on-failure "${exclude[@]}"
