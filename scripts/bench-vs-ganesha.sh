#!/usr/bin/env bash
# The engine against nfs-ganesha, side by side: installs what is missing,
# builds the console program and bench/bench_vs_ganesha.cpp (Release, in
# build-bench/), runs it as root and prints the table of medians.
#
#   bash scripts/bench-vs-ganesha.sh            256 MiB files, 5 repetitions
#   bash scripts/bench-vs-ganesha.sh --quick    32 MiB files, 2,000 calls per pass, 1 repetition
#   bash scripts/bench-vs-ganesha.sh --benchmark_filter=Getattr   (other arguments go to the benchmark)
#
# Environment: NFS_VS_GANESHA_DIR (parent of the temporary data folder, a
# disk file system; /var/tmp), NFS_VS_GANESHA_MIB, NFS_VS_GANESHA_CALLS,
# REPETITIONS (5), BUILD_DIR (build-bench). The output is also kept in
# BUILD_DIR/bench-vs-ganesha.txt.
set -euo pipefail
cd "$(dirname "$0")/.."

quick=0
args=()
for a in "$@"; do
  case "$a" in
    --quick) quick=1 ;;
    *) args+=("$a") ;;
  esac
done
build=${BUILD_DIR:-build-bench}
repetitions=${REPETITIONS:-5}
mib=${NFS_VS_GANESHA_MIB:-256}
calls=${NFS_VS_GANESHA_CALLS:-20000}
if [ "$quick" -eq 1 ]; then
  repetitions=${REPETITIONS:-1}
  mib=${NFS_VS_GANESHA_MIB:-32}
  calls=${NFS_VS_GANESHA_CALLS:-2000}
fi

SUDO=""
[ "$(id -u)" -ne 0 ] && SUDO=sudo
packages=(cmake ninja-build g++ pkg-config libtirpc-dev libbenchmark-dev libnfs-dev
          nfs-ganesha nfs-ganesha-vfs rpcbind strace util-linux)
missing=()
for p in "${packages[@]}"; do
  dpkg -s "$p" >/dev/null 2>&1 || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq "${missing[@]}"
fi

cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DNFSENGINE_TESTS=OFF >/dev/null
cmake --build "$build" -j2 --target nfsengine_console bench_vs_ganesha

# The program removes its data folder at exit; this one also goes when it
# crashes.
parent=$($SUDO mktemp -d "${NFS_VS_GANESHA_DIR:-/var/tmp}/nfs-vs-ganesha-run.XXXXXX")
trap '$SUDO rm -rf "$parent"' EXIT
$SUDO env NFS_VS_GANESHA_MIB="$mib" NFS_VS_GANESHA_CALLS="$calls" NFS_VS_GANESHA_DIR="$parent" \
  "$build/bench/bench_vs_ganesha" --benchmark_repetitions="$repetitions" \
  --benchmark_report_aggregates_only=true ${args[@]+"${args[@]}"} 2>&1 | tee "$build/bench-vs-ganesha.txt"
exit "${PIPESTATUS[0]}"
