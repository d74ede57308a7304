#!/usr/bin/env bash
# Builds a fuzz target (clang, libFuzzer, ASan+UBSan) into build-fuzz/ and
# runs it for a bounded time on a copy of its seed corpus. Any finding
# (crash, sanitizer report, leak, timeout, memory limit) ends the run with a
# non-zero exit; the reproducer is left in build-fuzz/run/findings/ (RPC) or
# build-fuzz/run-ipc/findings/ (IPC).
#   scripts/fuzz.sh [SECONDS] [rpc|ipc]   (defaults 60 and rpc; the target
#                                          may also come from NFSENGINE_FUZZ_TARGET)
# Extra libFuzzer options and folders of further inputs (read only, e.g. the
# corpus of an earlier run) may follow: scripts/fuzz.sh 900 -seed=7 /tmp/old.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
shift || true
target=${NFSENGINE_FUZZ_TARGET:-rpc}
if [ "${1:-}" = rpc ] || [ "${1:-}" = ipc ]; then
  target=$1
  shift
fi
bash scripts/install-deps.sh

cmake -S . -B build-fuzz -G Ninja -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
      -DNFSENGINE_FUZZ=ON -DNFSENGINE_TESTS=OFF -DNFSENGINE_BENCH=OFF -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build-fuzz -j "$(nproc)" --target "fuzz_$target"

if [ "$target" = ipc ]; then
  run=$PWD/build-fuzz/run-ipc
  seeds=fuzz/ipc_corpus
  # One record is at most one buffer; the harness cuts longer inputs.
  options=(-max_len=4096)
else
  run=$PWD/build-fuzz/run
  seeds=fuzz/corpus
  options=(-max_len=8192 -dict="$PWD/fuzz/rpc.dict")
fi
rm -rf "$run"
mkdir -p "$run/corpus" "$run/findings" "$run/export"
cp "$seeds"/* "$run/corpus/"

fuzz=("$PWD/build-fuzz/fuzz_$target" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 "${options[@]}"
      -print_final_stats=1 -artifact_prefix="$run/findings/" "$run/corpus" "$@")
export NFSENGINE_FUZZ_DIR="$run/export"
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=0
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
cd "$run"

# Fuzzed NFS calls (and IPC requests) change, create and remove files. As root the target runs
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
