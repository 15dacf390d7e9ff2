#!/usr/bin/env bash
# Builds the Debian package: a Release build with Debian's hardening flags in
# build-pkg/ (no tests, no benchmarks), then cpack. Prints the .deb's path.
# Install it with: sudo apt install ./build-pkg/l3vpn_<version>_<arch>.deb
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh >&2
dir=build-pkg
# Hardening on; no -ffile-prefix-map, which would turn the log lines' source
# paths "app/proc/x.cpp" (the project's own -fmacro-prefix-map) into "./app/...".
export DEB_BUILD_MAINT_OPTIONS="hardening=+all reproducible=-fixfilepath"
cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=Release -DL3VPN_TESTS=OFF -DL3VPN_BENCH=OFF \
  -DCMAKE_C_FLAGS="$(dpkg-buildflags --get CFLAGS) $(dpkg-buildflags --get CPPFLAGS)" \
  -DCMAKE_CXX_FLAGS="$(dpkg-buildflags --get CXXFLAGS) $(dpkg-buildflags --get CPPFLAGS)" \
  -DCMAKE_EXE_LINKER_FLAGS="$(dpkg-buildflags --get LDFLAGS)" >&2
cmake --build "$dir" -j "$(nproc)" >&2
rm -f "$dir"/*.deb
(cd "$dir" && cpack -G DEB >&2)
ls "$PWD/$dir"/*.deb
