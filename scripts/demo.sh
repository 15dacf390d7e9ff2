#!/usr/bin/env bash
# The demo: a private Redis, the daemon under a restart loop, the example
# network loaded, the lower layers' tables shown, one VRF withdrawn.
set -euo pipefail
cd "$(dirname "$0")/.."
top=$PWD

say() { printf '\n\033[1m== %s\033[0m\n' "$*"; }

say "Installing what the build needs (Debian packages), if anything is missing"
scripts/deps.sh

say "Building the daemon and the operator tool (build-demo/)"
cmake -S . -B build-demo -G Ninja -DCMAKE_BUILD_TYPE=Release -DL3VPN_TESTS=OFF >/dev/null
cmake --build build-demo -j "$(nproc)" --target ce_mpls_l3vpn l3vpn-ctl
daemon=$top/build-demo/app/proc/ce_mpls_l3vpn
ctl=$top/build-demo/tools/l3vpn-ctl

work=$(mktemp -d /tmp/l3vpn-demo-XXXXXX)
root=$work/root
sock=$work/redis.sock
export L3VPN_ROOT=$root MOM_REDIS=unix:$sock
redis_pid="" loop_pid=""
cleanup() {
  say "Stopping everything the demo started"
  local pidf=$root/var/run/sw.ce.mpls.l3vpn.pid
  if [ -s "$pidf" ]; then kill "$(tr -d '\0' < "$pidf")" 2>/dev/null || true; fi
  [ -n "$loop_pid" ] && kill "$loop_pid" 2>/dev/null || true
  [ -n "$redis_pid" ] && kill "$redis_pid" 2>/dev/null || true
  wait 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

say "Starting a private Redis on $sock (it is the MOM, the shared record store)"
echo "with the package's settings and accounts (deploy/redis-l3vpn-mom.conf, deploy/l3vpn-mom.acl):"
echo "l3vpn-daemon, l3vpn-ctl and l3vpn-monitor get passwords made for this run, one file each"
echo "holding \"USER PASSWORD\" (the package makes them in /etc/l3vpn); the ACL file gets their hashes"
cp deploy/l3vpn-mom.acl "$work/l3vpn-mom.acl"
for who in daemon ctl monitor; do
  (umask 077; printf 'l3vpn-%s %s\n' "$who" "$(od -An -N16 -tx1 /dev/urandom | tr -d ' \n')" >"$work/mom-$who.auth")
  hash=$(cut -d' ' -f2 "$work/mom-$who.auth" | tr -d '\n' | sha256sum | cut -d' ' -f1)
  sed -i "/^user l3vpn-$who /s/#0\{64\}/#$hash/" "$work/l3vpn-mom.acl"
done
redis-server deploy/redis-l3vpn-mom.conf --unixsocket "$sock" --unixsocketperm 700 \
  --aclfile "$work/l3vpn-mom.acl" --dir "$work" >"$work/redis.log" 2>&1 &
redis_pid=$!
for _ in $(seq 50); do redis-cli -s "$sock" ping 2>&1 | grep -q NOAUTH && break; sleep 0.1; done
# The tool logs in as l3vpn-ctl; the daemon as l3vpn-daemon (below).
export MOM_REDIS_AUTH_FILE=$work/mom-ctl.auth
# redis-cli as l3vpn-ctl: the password goes in on standard input, never on a command line.
rcli() { cut -d' ' -f2 "$MOM_REDIS_AUTH_FILE" | redis-cli -s "$sock" --user l3vpn-ctl --askpass --no-auth-warning "$@"; }

# A free loopback port for the daemon's metrics endpoint: one nothing answers on.
for port in $(shuf -i 20000-60000 -n 50); do
  (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null || break
done
export L3VPN_METRICS=127.0.0.1:$port

say "Starting the daemon under a restart loop (L3VPN_ROOT=$root, log level INFO, metrics on $L3VPN_METRICS)"
mkdir -p "$root/var/run/ssat" "$root/data/sw_mpls" "$root/data/route/tbl_dbg" "$root/var/sw_mpls/ham"
echo 4 > "$root/data/sw_mpls/ce_l3vpn_zlog.dbg"
(
  # Exit status 77 means the MOM connection was lost: start again, as a supervisor would.
  # 78: the MOM did not take its credentials; that needs an operator, not a restart.
  while true; do
    MOM_REDIS_AUTH_FILE=$work/mom-daemon.auth "$daemon" >>"$work/daemon.log" 2>&1 && break
    rc=$?
    [ "$rc" -eq 77 ] || break
    sleep 1
  done
) 2>/dev/null &
loop_pid=$!

say "Waiting until the daemon has subscribed and finished its first data sync"
"$ctl" wait-synced --timeout 30

say "Loading the example network (examples/network.jsonl: 2 VRFs, ECMP, VC-FTNs, ILMs, switches)"
"$ctl" load examples/network.jsonl
# The records reach the daemon as change notices; let it settle.
prev=""
for _ in $(seq 50); do
  now=$("$ctl" dump all --json | md5sum)
  [ "$now" = "$prev" ] && break
  prev=$now; sleep 0.2
done

show_outputs() {
  say "EF (database 6): FTN routes and virtual routes"
  "$ctl" dump s_route.comm_rt
  "$ctl" dump s_route.vir_rt
  say "UC (database 10): inner adjacencies with their MPLS ids"
  "$ctl" dump s_route.in_sub_adj
  say "FE (databases 8 and 10): switches, label switching, ILM in-labels"
  "$ctl" dump u_mpls.udp_mpls_enable
  "$ctl" dump u_mpls.udp_ttl_copy_enable
  "$ctl" dump u_mpls.udp_lab_sw
  "$ctl" dump u_mpls.udp_ilm
}
show_outputs

say "The daemon's own overview (debug command \"show-info\")"
"$ctl" cmd udp-mpls-l3vpn show-info is_clean:0 is_detail:0

say "One scrape of the metrics endpoint (curl http://$L3VPN_METRICS/metrics), a few of its lines"
curl -s "http://$L3VPN_METRICS/metrics" |
  grep -E '^(# TYPE )?l3vpn_(entries|adjacencies|capacity_used|notices_total\{kind="ftn")|^# EOF'

say "The same figures through the operator tool (l3vpn-ctl stats; --json for JSON lines)"
"$ctl" stats

say "Checking the lower layers against the inputs and the daemon (l3vpn-ctl verify, as l3vpn-monitor: it only reads)"
"$ctl" --auth-file "$work/mom-monitor.auth" verify

say "A picture of the forwarding state of VRF 1 (l3vpn-ctl graph --vrf 1), Graphviz DOT"
"$ctl" graph --vrf 1 -o "$work/vrf1.dot"
head -n 12 "$work/vrf1.dot"; echo "... ($(wc -l < "$work/vrf1.dot") lines)"
if command -v dot >/dev/null; then
  "$ctl" graph --all -o "$top/build-demo/network.svg"
  echo "the whole network as SVG: build-demo/network.svg"
fi

say "Deleting VRF 2's entries (examples/vrf2.jsonl) and showing what was withdrawn"
"$ctl" dump all --json | sort > "$work/before.jsonl"
"$ctl" delete examples/vrf2.jsonl
sleep 1
"$ctl" dump all --json | sort > "$work/after.jsonl"
echo "Records the daemon withdrew from the lower layers:"
comm -23 "$work/before.jsonl" "$work/after.jsonl" | grep -v '"table": *"p_mpls.mom_msg_ftn"\|"table": *"p_mpls.mom_msg_ilm"' || true

say "Outputs changed behind the daemon's back are repaired: deleting UC and EF records by hand"
adj=$(rcli -n 10 --scan --pattern 's_route.in_sub_adj|1|*' | head -n 1)
rt=$(rcli -n 6 --scan --pattern 's_route.comm_rt|1|*' | head -n 1)
echo "deleted: $adj"; rcli -n 10 del "$adj" >/dev/null
echo "deleted: $rt";  rcli -n 6 del "$rt" >/dev/null
for _ in $(seq 50); do
  [ "$(rcli -n 10 exists "$adj")$(rcli -n 6 exists "$rt")" = 11 ] && break
  sleep 0.2
done
echo "back after the daemon's repair: $(rcli -n 10 exists "$adj") $(rcli -n 6 exists "$rt") (1 = present)"
grep -m1 'outputs changed by another client' "$work/daemon.log" || true
"$ctl" --auth-file "$work/mom-monitor.auth" verify

say "The MOM's accounts: nobody on the socket may flush it, not even the daemon's"
echo "FLUSHALL without logging in:   $(redis-cli -s "$sock" flushall 2>&1)"
echo "FLUSHALL as l3vpn-ctl:         $(rcli flushall 2>&1)"
echo "FLUSHALL as l3vpn-daemon:      $(cut -d' ' -f2 "$work/mom-daemon.auth" |
  redis-cli -s "$sock" --user l3vpn-daemon --askpass --no-auth-warning flushall 2>&1)"
echo "A second daemon with a wrong password (its own L3VPN_ROOT) stops at once:"
(umask 077; printf 'l3vpn-daemon not-its-password\n' >"$work/wrong.auth")
mkdir -p "$work/root-wrong/var/run"
rc=0
MOM_REDIS_AUTH_FILE=$work/wrong.auth L3VPN_ROOT=$work/root-wrong "$daemon" >"$work/wrong.log" 2>&1 || rc=$?
tail -n 1 "$work/wrong.log"
echo "exit status $rc (78: the MOM did not take its credentials; 77 would ask for a restart)"

say "Done. The daemon's log:"
tail -n 5 "$work/daemon.log"
