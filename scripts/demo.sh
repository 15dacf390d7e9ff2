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
redis-server --port 0 --unixsocket "$sock" --save "" --appendonly no \
  --notify-keyspace-events K\$hgxlszt >"$work/redis.log" 2>&1 &
redis_pid=$!
for _ in $(seq 50); do redis-cli -s "$sock" ping >/dev/null 2>&1 && break; sleep 0.1; done

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
  while true; do
    "$daemon" >>"$work/daemon.log" 2>&1 && break
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

say "Checking the lower layers against the inputs and the daemon (l3vpn-ctl verify)"
"$ctl" verify

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
adj=$(redis-cli -s "$sock" -n 10 --scan --pattern 's_route.in_sub_adj|1|*' | head -n 1)
rt=$(redis-cli -s "$sock" -n 6 --scan --pattern 's_route.comm_rt|1|*' | head -n 1)
echo "deleted: $adj"; redis-cli -s "$sock" -n 10 del "$adj" >/dev/null
echo "deleted: $rt";  redis-cli -s "$sock" -n 6 del "$rt" >/dev/null
for _ in $(seq 50); do
  [ "$(redis-cli -s "$sock" -n 10 exists "$adj")$(redis-cli -s "$sock" -n 6 exists "$rt")" = 11 ] && break
  sleep 0.2
done
echo "back after the daemon's repair: $(redis-cli -s "$sock" -n 10 exists "$adj") $(redis-cli -s "$sock" -n 6 exists "$rt") (1 = present)"
grep -m1 'outputs changed by another client' "$work/daemon.log" || true
"$ctl" verify

say "Done. The daemon's log:"
tail -n 5 "$work/daemon.log"
