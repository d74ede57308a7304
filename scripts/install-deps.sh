#!/usr/bin/env bash
# Installs what a fresh Debian machine lacks to build and test the engine.
set -euo pipefail
packages=(cmake ninja-build g++ clang pkg-config libtirpc-dev libgtest-dev libgmock-dev
          libbenchmark-dev libnfs-dev libnfs-utils rpcbind tshark iproute2 util-linux
          openjdk-17-jdk-headless)
missing=()
for p in "${packages[@]}"; do
  dpkg -s "$p" >/dev/null 2>&1 || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  SUDO=""; [ "$(id -u)" -ne 0 ] && SUDO=sudo
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq "${missing[@]}"
fi
