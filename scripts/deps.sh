#!/usr/bin/env bash
# Installs the Debian packages the project builds and runs with (once).
set -euo pipefail
pkgs=(build-essential cmake ninja-build pkg-config protobuf-c-compiler libprotobuf-c-dev
      libevent-dev libhiredis-dev redis-server nlohmann-json3-dev libgtest-dev
      clang libclang-rt-14-dev graphviz dpkg-dev lintian curl systemd)
missing=()
for p in "${pkgs[@]}"; do
  dpkg -s "$p" >/dev/null 2>&1 || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "== installing: ${missing[*]}"
  SUDO=""; [ "$(id -u)" -eq 0 ] || SUDO=sudo
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq "${missing[@]}" >/dev/null
fi
