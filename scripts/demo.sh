#!/usr/bin/env bash
# Installs what is missing, builds the example host program and runs it.
# Without arguments it serves /tmp/nfsengine-demo as the export "demo" and
# prints how a client reaches it; stop it with Ctrl+C. Arguments go to the
# program (see: bash scripts/demo.sh --help). Needs root for port 111 unless
# a system portmapper (rpcbind) runs.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake -S . -B build -G Ninja >/dev/null
cmake --build build --target nfs_demo -j "$(nproc)"
exec build/nfs_demo "$@"
