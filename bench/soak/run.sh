#!/usr/bin/env bash
# zerlan serve under sustained load: 32 and 256 concurrent wrk clients, each with and without
# keep-alive (the server answers one request per connection either way, so keep-alive clients
# reconnect), while 500 slow clients hold connections open sending a byte at a time and the
# library's own fetch keeps polling. Reports failed requests, the server's resident memory before
# and after, and the fetch's latency meanwhile; fails when a well-behaved request failed, memory
# grew by more than 50%, or a fetch failed or took 1 s or more.
#
# Loopback only, on an ephemeral port, in a network namespace of its own where the machine allows
# one (unshare -rn), so that it neither disturbs nor is disturbed by other servers on the host.
#
# Usage: bench/soak/run.sh [--seconds S] [--zerlan PATH] [--fetch PATH]   (default 60 s a phase)
# Needs: wrk and python3 (scripts/setup --bench installs them). `make soak` builds and runs it.
set -euo pipefail

if [ -z "${ZERLAN_SOAK_NETNS:-}" ] && unshare -rn true 2>/dev/null; then
  exec unshare -rn env ZERLAN_SOAK_NETNS=1 bash -c 'ip link set lo up && exec bash "$0" "$@"' "$0" "$@"
fi

root=$(cd "$(dirname "$0")/../.." && pwd)
seconds=60
zerlan="$root/build/bin/zerlan"
fetch="$root/build/bin/bench-fetch-latency"
while [ $# -gt 0 ]; do
  case "$1" in
    --seconds) seconds="$2"; shift 2 ;;
    --zerlan) zerlan="$2"; shift 2 ;;
    --fetch) fetch="$2"; shift 2 ;;
    -h|--help) sed -n '2,15p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
    *) echo "bench/soak: unknown argument $1 (try --help)" >&2; exit 2 ;;
  esac
done
for tool in wrk python3; do
  command -v "$tool" >/dev/null || { echo "bench/soak: $tool is missing: run scripts/setup --bench" >&2; exit 1; }
done
for program in "$zerlan" "$fetch"; do
  [ -x "$program" ] || { echo "bench/soak: $program not found: build first (make build)" >&2; exit 1; }
done

work=$(mktemp -d /tmp/zerlan-soak.XXXXXX)
pids=()
status=0
cleanup() {
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  wait 2>/dev/null || true
  if [ "$status" -eq 0 ]; then rm -rf "$work"; else echo "bench/soak: logs kept in $work"; fi
}
trap cleanup EXIT

port=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
"$zerlan" serve --port "$port" --qr soak 2>"$work/serve.log" &
server=$!
pids+=("$server")
for _ in $(seq 100); do curl -s -o /dev/null "http://127.0.0.1:$port/frame" && break; sleep 0.1; done
rss() { awk '/^VmRSS/ {print $2}' "/proc/$server/status"; }
rss_start=$(rss)

# 500 clients that send their request head a byte every second and never finish it: the server
# drops each after its time-out, and they come back.
python3 - "$port" "$((4 * seconds + 10))" >"$work/slow.log" 2>&1 <<'PY' &
import socket, sys, time
port, lasting = int(sys.argv[1]), float(sys.argv[2])
head = b"GET /frame HTTP/1.1\r\nHost: 127.0.0.1\r\n"
socks, end = {}, time.time() + lasting
while time.time() < end:
    while len(socks) < 500:
        s = socket.socket()
        try:
            s.connect(("127.0.0.1", port)); socks[s] = 0
        except OSError:
            s.close(); break
    for s, sent in list(socks.items()):
        try:
            s.send(head[sent % len(head):sent % len(head) + 1]); socks[s] = sent + 1
        except OSError:
            s.close(); del socks[s]
    time.sleep(1)
PY
pids+=("$!")

# The library's fetch, one after another, for the whole run: rounds of 20 until told to stop.
( while [ ! -e "$work/stop" ]; do
    "$fetch" 20 "$port" || echo "$port frames=0 failures=20 exit=$?"
  done ) >"$work/fetch.txt" 2>&1 &
fetcher=$!
pids+=("$fetcher")

# Connections open at the server right now (slow clients included), from /status.
open_connections() {
  curl -s "http://127.0.0.1:$port/status" | python3 -c 'import json, sys; print(json.load(sys.stdin)["clients"])' 2>/dev/null || echo "?"
}
printf '%-34s %10s %10s %8s %6s\n' "phase (${seconds} s)" "requests" "failed" "req/s" "open"
for clients in 32 256; do
  for mode in close keep-alive; do
    header=()
    [ "$mode" = close ] && header=(-H 'Connection: close')
    ( sleep $((seconds / 2)); open_connections >"$work/open" ) &
    out=$(wrk -t2 -c"$clients" -d"${seconds}s" "${header[@]}" "http://127.0.0.1:$port/frame" 2>&1)
    wait $!
    requests=$(sed -n 's/^ *\([0-9]*\) requests in.*/\1/p' <<<"$out")
    errors=$(sed -n 's/.*Socket errors: connect \([0-9]*\), read \([0-9]*\), write \([0-9]*\), timeout \([0-9]*\).*/\1 \2 \3 \4/p' <<<"$out" | awk '{print $1+$2+$3+$4}')
    non2xx=$(sed -n 's/.*Non-2xx or 3xx responses: *\([0-9]*\).*/\1/p' <<<"$out")
    failed=$(( ${errors:-0} + ${non2xx:-0} ))
    rate=$(sed -n 's/^Requests\/sec: *\([0-9.]*\).*/\1/p' <<<"$out")
    printf '%-34s %10s %10s %8s %6s\n' "$clients clients, $mode" "${requests:-?}" "$failed" "${rate:-?}" "$(cat "$work/open")"
    # A keep-alive client may find its connection closed by the server's one-request rule just as
    # it reuses it; wrk counts that as a read error. Only refused or broken answers count here.
    if [ "$mode" = close ] && [ "$failed" -gt 0 ]; then status=1; fi
    if [ "$mode" = keep-alive ] && [ "${non2xx:-0}" -gt 0 ]; then status=1; fi
  done
done
rss_end=$(rss)
touch "$work/stop"
wait "$fetcher" 2>/dev/null || true
echo
echo "server resident memory: start ${rss_start} KiB, end ${rss_end} KiB"
[ "$rss_end" -le $(( rss_start * 3 / 2 + 8192 )) ] || { echo "memory grew"; status=1; }
# One line per round of 20: the totals, the mean of the rounds' medians and the slowest fetch.
summary=$(awk '{ for (i = 2; i <= NF; i++) { split($i, kv, "="); v[kv[1]] = kv[2] }
                 frames += v["frames"]; failures += v["failures"]; p50 += v["p50_ms"]; rounds++
                 if (v["max_ms"] + 0 > slowest) slowest = v["max_ms"] + 0 }
               END { printf "frames=%d failures=%d mean_p50_ms=%.3f max_ms=%.3f\n", frames, failures,
                            rounds ? p50 / rounds : 0, slowest }' "$work/fetch.txt")
echo "library fetch meanwhile: $summary"
awk '{ for (i = 1; i <= NF; i++) { split($i, kv, "="); v[kv[1]] = kv[2] } }
     END { exit !(v["frames"] > 0 && v["failures"] == 0 && v["max_ms"] < 1000) }' <<<"$summary" ||
  { echo "a fetch failed or took 1 s or more"; status=1; }
exit "$status"
