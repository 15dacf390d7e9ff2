#!/usr/bin/env bash
# test_pkg_deb.sh BUILD_DIR: makes the .deb of BUILD_DIR with cpack in a
# temporary folder and checks it: the files and their modes, the control data,
# the units' ExecStart, the default log level, stripped binaries, the man pages
# (rendered without warnings, naming every l3vpn-ctl command), and lintian (no
# error; skipped with a message when lintian is not installed). Needs no root.
set -euo pipefail
build=$(cd "$1" && pwd)
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
fails=0
fail() { echo "FAIL: $*"; fails=$((fails + 1)); }

cpack -G DEB --config "$build/CPackConfig.cmake" -B "$tmp/out" >"$tmp/cpack.log" 2>&1 ||
  { cat "$tmp/cpack.log"; echo "FAIL: cpack"; exit 1; }
deb=$(ls "$tmp"/out/*.deb)
echo "package: $(basename "$deb")"

# Files with mode and owner.
dpkg-deb -c "$deb" | awk '{print $1, $2, $6}' >"$tmp/list"
while read -r mode path; do
  grep -qxF -e "$mode root/root ./$path" "$tmp/list" || fail "no $mode ./$path"
done <<'LIST'
-rwxr-xr-x usr/sbin/ce_mpls_l3vpn
-rwxr-xr-x usr/bin/l3vpn-ctl
-rw-r--r-- lib/systemd/system/ce-mpls-l3vpn.service
-rw-r--r-- lib/systemd/system/redis-l3vpn-mom.service
-rw-r--r-- etc/l3vpn/redis-l3vpn-mom.conf
-rw-r--r-- usr/lib/tmpfiles.d/l3vpn.conf
-rw-r--r-- usr/share/man/man8/ce_mpls_l3vpn.8.gz
-rw-r--r-- usr/share/man/man8/l3vpn-ctl.8.gz
-rw-r--r-- usr/share/doc/l3vpn/copyright
-rw-r--r-- usr/share/doc/l3vpn/changelog.Debian.gz
LIST
grep -v -e '^drwxr-xr-x root/root ' -e '^-rw-r--r-- root/root ' -e '^-rwxr-xr-x root/root ' \
  "$tmp/list" >"$tmp/odd" || true
[ ! -s "$tmp/odd" ] || { sed 's/^/  /' "$tmp/odd"; fail "odd modes or owners"; }

# Control data.
[ "$(dpkg-deb -f "$deb" Package)" = l3vpn ] || fail "package name"
depends=$(dpkg-deb -f "$deb" Depends)
for d in redis-server libc6 libhiredis libevent libprotobuf-c; do
  [[ $depends == *"$d"* ]] || fail "Depends lacks $d: $depends"
done
dpkg-deb -e "$deb" "$tmp/ctl"
grep -qxF /etc/l3vpn/redis-l3vpn-mom.conf "$tmp/ctl/conffiles" || fail "conffile"
for s in postinst prerm postrm; do [ -x "$tmp/ctl/$s" ] || fail "$s not executable"; done

# Contents.
dpkg-deb -x "$deb" "$tmp/root"
r=$tmp/root
for unit in "$r"/lib/systemd/system/*.service; do
  exe=$(sed -n 's/^ExecStart=\([^ ]*\).*/\1/p' "$unit")
  case $exe in
    /usr/bin/redis-server) ;;  # from the redis-server package, a dependency
    *) [ -x "$r$exe" ] || fail "$(basename "$unit"): ExecStart $exe is not in the package" ;;
  esac
done
grep -qx 'ExecStart=/usr/sbin/ce_mpls_l3vpn' "$r/lib/systemd/system/ce-mpls-l3vpn.service" || fail "daemon ExecStart"
grep -qx 'RuntimeDirectory=ssat' "$r/lib/systemd/system/ce-mpls-l3vpn.service" || fail "RuntimeDirectory=ssat"
grep -Eq '^f +/data/sw_mpls/ce_l3vpn_zlog.dbg +0644 +root +root +- +2$' "$r/usr/lib/tmpfiles.d/l3vpn.conf" ||
  fail "tmpfiles: default log level 2"
for b in usr/sbin/ce_mpls_l3vpn usr/bin/l3vpn-ctl; do
  readelf -S "$r/$b" >"$tmp/sections"
  ! grep -qE '\.(symtab|debug_info)' "$tmp/sections" || fail "$b is not stripped"
done

# Man pages: no warnings, and every command of `l3vpn-ctl --help` described.
for page in "$r"/usr/share/man/man8/*.8.gz; do
  zcat "$page" | LC_ALL=C.UTF-8 groff -man -Tutf8 -ww -z 2>"$tmp/groff.err"
  [ ! -s "$tmp/groff.err" ] || { cat "$tmp/groff.err"; fail "$(basename "$page") renders with warnings"; }
done
zcat "$r/usr/share/man/man8/l3vpn-ctl.8.gz" | LC_ALL=C.UTF-8 groff -man -Tutf8 -P-cbou 2>/dev/null >"$tmp/ctl.txt"
"$r/usr/bin/l3vpn-ctl" --help | sed -n '/^commands:/,/^$/s/^  \([a-z][a-z-]*\) .*/\1/p' | sort -u >"$tmp/cmds"
[ -s "$tmp/cmds" ] || fail "l3vpn-ctl --help lists no command"
for c in $(cat "$tmp/cmds") verify graph stats; do
  grep -qE "^ {7}$c( |$)" "$tmp/ctl.txt" || fail "l3vpn-ctl(8) does not describe '$c'"
done

# lintian: no error.
if command -v lintian >/dev/null; then
  lintian --fail-on error "$deb" || fail "lintian reports errors"
else
  echo "SKIP lintian: not installed (scripts/deps.sh installs it)"
fi

[ "$fails" -eq 0 ] || { echo "$fails check(s) failed"; exit 1; }
echo "package checks passed"
