#!/usr/bin/env bash
# Builds the RPC fuzz target (clang, libFuzzer, ASan+UBSan) into build-fuzz/
# and runs it for a bounded time on a copy of the seed corpus. Any finding
# (crash, sanitizer report, leak, timeout, memory limit) ends the run with a
# non-zero exit; the reproducer is left in build-fuzz/run/findings/.
#   scripts/fuzz.sh [SECONDS]          (default 60)
# Extra libFuzzer options and folders of further inputs (read only, e.g. the
# corpus of an earlier run) may follow: scripts/fuzz.sh 900 -seed=7 /tmp/old.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
shift || true
bash scripts/install-deps.sh

cmake -S . -B build-fuzz -G Ninja -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
      -DNFSENGINE_FUZZ=ON -DNFSENGINE_TESTS=OFF -DNFSENGINE_BENCH=OFF -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build-fuzz -j "$(nproc)" --target fuzz_rpc

run=$PWD/build-fuzz/run
rm -rf "$run"
mkdir -p "$run/corpus" "$run/findings" "$run/export"
cp fuzz/corpus/* "$run/corpus/"

fuzz=("$PWD/build-fuzz/fuzz_rpc" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -max_len=8192
      -dict="$PWD/fuzz/rpc.dict" -print_final_stats=1 -artifact_prefix="$run/findings/" "$run/corpus" "$@")
export NFSENGINE_FUZZ_DIR="$run/export"
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=0
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
cd "$run"

# Fuzzed NFS calls change, create and remove files. As root the target runs
# in a private mount namespace where its export is a small tmpfs and the
# rest of the system is read-only, except this run's folder.
if [ "$(id -u)" -eq 0 ] && unshare --mount --propagation private true 2>/dev/null; then
  exec unshare --mount --propagation private bash -c '
    set -e
    run=$1; shift
    mount --bind "$run" "$run"
    mount -t tmpfs -o size=256m,mode=0755 fuzz-export "$run/export"
    mount -o remount,bind,ro /
    exec "$@"' sandbox "$run" "${fuzz[@]}"
fi
exec "${fuzz[@]}"
