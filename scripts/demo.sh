#!/usr/bin/env bash
# Installs what is missing, builds the example host program and runs it.
# Without arguments it makes a small demo backup in /tmp/nfsengine-demo,
# serves it as the export "demo" with a virtual disk assembled from segments
# of its files, reads the disk once through a real NFS client to compare
# checksums, prints how Linux, ESXi and libnfs clients mount the export, and
# serves until Ctrl+C. Arguments go to the program (see: bash
# scripts/demo.sh --help). Needs root for port 111 unless a system
# portmapper (rpcbind) runs.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake -S . -B build -G Ninja >/dev/null
cmake --build build --target nfs_demo -j "$(nproc)"
exec build/nfs_demo "$@"
