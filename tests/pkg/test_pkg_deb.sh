#!/usr/bin/env bash
# test_pkg_deb.sh BUILD_DIR: makes the .deb of BUILD_DIR with cpack in a
# temporary folder and checks it: the files and their modes, the control data,
# the units' ExecStart, the default log level, stripped binaries, the man pages
# (rendered without warnings, naming every l3vpn-ctl command), least privilege
# (the daemon's user, the sandbox's rating by systemd-analyze, the owners and
# modes the sysusers and tmpfiles files give) and lintian (no error; skipped
# with a message when lintian is not installed). Needs no root, but only root
# can apply the tmpfiles file: without root its lines are read instead.
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
-rw-r--r-- usr/lib/sysusers.d/l3vpn.conf
-rw-r--r-- usr/share/l3vpn/l3vpn-mom.acl
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
for d in redis-server adduser libc6 libhiredis libevent libprotobuf-c; do
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

# Least privilege. The units' users: the daemon as l3vpn, its Redis as redis
# with group l3vpn (so that the socket is redis:l3vpn).
while read -r unit want; do
  grep -qx "$want" "$r/lib/systemd/system/$unit" || fail "$unit lacks $want"
done <<'USERS'
ce-mpls-l3vpn.service User=l3vpn
ce-mpls-l3vpn.service Group=l3vpn
redis-l3vpn-mom.service User=redis
redis-l3vpn-mom.service Group=l3vpn
USERS
unit_d=$r/lib/systemd/system/ce-mpls-l3vpn.service
unit_r=$r/lib/systemd/system/redis-l3vpn-mom.service
# The sandbox's rating: at most 2.5 for the daemon, and what the README says.
rating() {
  LC_ALL=C.UTF-8 systemd-analyze security --offline=true --no-pager "$1" 2>/dev/null |
    sed -n 's/.*Overall exposure level for [^:]*: \([0-9.]*\) \([A-Z]*\).*/\1 \2/p'
}
if command -v systemd-analyze >/dev/null; then
  read -r score word <<<"$(rating "$unit_d")"
  echo "ce-mpls-l3vpn.service: ${score:-?} ${word:-?}; redis-l3vpn-mom.service: $(rating "$unit_r")"
  awk -v s="${score:-99}" 'BEGIN { exit !(s <= 2.5) }' || fail "ce-mpls-l3vpn.service rates ${score:-?} ${word:-?}, above 2.5"
  readme=$(dirname "$0")/../../README.md
  grep -qF "systemd-analyze security rates the unit $score $word" "$readme" ||
    fail "README does not say 'systemd-analyze security rates the unit $score $word'"
else
  fail "systemd-analyze not found (package systemd): the unit's rating is not checked"
fi
# The user: systemd-sysusers on a private root makes l3vpn, a system user with
# its own group and no login.
sys=$tmp/sys
mkdir -p "$sys/etc" "$sys/run"
systemd-sysusers --root="$sys" - <"$r/usr/lib/sysusers.d/l3vpn.conf" >/dev/null 2>&1 || fail "systemd-sysusers"
IFS=: read -r _ _ uid gid _ _ shell < <(grep '^l3vpn:' "$sys/etc/passwd" || true)
[ -n "${uid:-}" ] && [ "$uid" -lt 1000 ] && [ "$shell" = /usr/sbin/nologin ] &&
  grep -q "^l3vpn:x:$gid:" "$sys/etc/group" || fail "sysusers: no system user l3vpn with group l3vpn and no login"
# The paths: as root, tmpfiles applied to that root (over a pid file a root
# daemon left, which it must hand over); else its lines. l3vpn owns exactly
# what the unit lets the daemon write; no other path is writable but by root.
tmpf=$r/usr/lib/tmpfiles.d/l3vpn.conf
applied=0
if [ "$(id -u)" -eq 0 ]; then
  install -m 0600 /dev/null "$sys/run/sw.ce.mpls.l3vpn.pid"
  systemd-tmpfiles --root="$sys" --create - <"$tmpf" || fail "systemd-tmpfiles"
  applied=1
else
  echo "SKIP applying tmpfiles: needs root; its lines are checked"
fi
while read -r path mode owner; do
  if [ $applied -eq 1 ]; then
    want="${mode#0} $owner"
    got=$(stat -c '%a %u:%g' "$sys$path" 2>&1 | sed "s/ $uid:$gid$/ l3vpn:l3vpn/;s/ 0:0$/ root:root/")
  else
    want="$mode $owner"
    got=$(awk -v p="$path" '!/^#/ && $2 == p {print $3, $4 ":" $5}' "$tmpf")
  fi
  [ "$got" = "$want" ] || fail "tmpfiles: $path is '$got', not '$want'"
done <<'ROWS'
/run/sw.ce.mpls.l3vpn.pid 0644 l3vpn:l3vpn
/run/ssat 0750 l3vpn:l3vpn
/data/sw_mpls 0755 root:root
/data/sw_mpls/ce_l3vpn_zlog.dbg 0644 root:root
/var/sw_mpls 0755 root:root
/var/sw_mpls/ham 0755 root:root
ROWS
rw=$(sed -n 's/^ReadWritePaths=//p' "$unit_d" | tr ' ' '\n' | sort | xargs)
owned=$(awk '!/^#/ && $4 == "l3vpn" {print $2}' "$tmpf" | sort | xargs)
[ "$rw" = "$owned" ] || fail "ReadWritePaths '$rw' is not what l3vpn owns: '$owned'"
if [ $applied -eq 1 ]; then
  odd=$(find "$sys" -path "$sys/etc" -prune -o \( -perm /022 -o \( ! -user 0 -perm /200 \) \) -print |
    sed "s#^$sys##" | sort | xargs)
  [ "$odd" = "$owned" ] || fail "writable by others than root: '$odd', want only '$owned'"
fi

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
