#!/usr/bin/env bash
# Frame server throughput next to nginx, measured side by side in one run.
#
# Starts `zerlan serve --image X.jpg` and an nginx (its own prefix and config, on a free
# loopback port) serving the same 640x480 JPEG as a static file, then drives both with wrk
# opening a new connection per request ("Connection: close", as the injected library does) at
# 1 and at 32 concurrent clients. Rounds alternate between the two servers and the median of
# each is reported, with zerlan's share of nginx's rate.
#
# Usage: bench/serve/run.sh [--duration SECONDS] [--rounds N] [--zerlan PATH]
# Needs: nginx, wrk, curl, python3 (scripts/setup --bench installs them).
set -euo pipefail

here="$(cd "$(dirname "$0")" && pwd)"
root="$(cd "$here/../.." && pwd)"
zerlan="${ZERLAN:-$root/build/bin/zerlan}"
duration=5
rounds=3
target_ratio=1.0

while [ $# -gt 0 ]; do
  case "$1" in
    --duration) duration="$2"; shift 2 ;;
    --rounds) rounds="$2"; shift 2 ;;
    --zerlan) zerlan="$2"; shift 2 ;;
    -h|--help) sed -n '2,12p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
    *) echo "bench/serve: unknown argument $1 (try --help)" >&2; exit 2 ;;
  esac
done

for tool in nginx wrk curl python3; do
  command -v "$tool" >/dev/null || { echo "bench/serve: $tool is missing: run scripts/setup --bench (make bench does)" >&2; exit 1; }
done
[ -x "$zerlan" ] || { echo "bench/serve: $zerlan not found: build first (make build) or pass --zerlan" >&2; exit 1; }

work="$(mktemp -d /tmp/zerlan-bench-serve.XXXXXX)"
pids=()
cleanup() {
  for pid in "${pids[@]}"; do
    kill "$pid" 2>/dev/null || true
  done
  for pid in "${pids[@]}"; do
    wait "$pid" 2>/dev/null || true
  done
  rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

free_port() {
  python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'
}

# Waits until the start line names the port; prints it.
zerlan_port() {
  local log="$1" deadline=$((SECONDS + 10))
  while [ $SECONDS -lt $deadline ]; do
    if grep -q 'listening on' "$log" 2>/dev/null; then
      grep -o 'listening on http://127.0.0.1:[0-9]*' "$log" | grep -o '[0-9]*$'
      return 0
    fi
    sleep 0.05
  done
  echo "bench/serve: zerlan serve did not start:" >&2
  cat "$log" >&2
  return 1
}

wait_http() {
  local url="$1" deadline=$((SECONDS + 10))
  until curl -sf -o /dev/null "$url"; do
    [ $SECONDS -lt $deadline ] || { echo "bench/serve: $url does not answer" >&2; return 1; }
    sleep 0.05
  done
}

# The frame both servers serve: the test pattern's, 640x480.
"$zerlan" serve --port 0 2>"$work/pattern.log" &
pattern_pid=$!
pids+=("$pattern_pid")
port="$(zerlan_port "$work/pattern.log")"
mkdir -p "$work/www"
curl -sf -o "$work/www/frame" "http://127.0.0.1:$port/frame"
kill "$pattern_pid"
wait "$pattern_pid" 2>/dev/null || true
frame_bytes=$(stat -c %s "$work/www/frame")

"$zerlan" serve --port 0 --image "$work/www/frame" 2>"$work/zerlan.log" &
pids+=("$!")
zport="$(zerlan_port "$work/zerlan.log")"

nport="$(free_port)"
mkdir -p "$work/nginx/logs"
# nginx drops privileges to "nobody" when started as root: let it read the files.
chmod 755 "$work" "$work/www"
chmod 644 "$work/www/frame"
cat >"$work/nginx/nginx.conf" <<CONF
worker_processes auto;
daemon off;
pid $work/nginx/nginx.pid;
error_log $work/nginx/logs/error.log;
events { worker_connections 4096; }
http {
  access_log off;
  sendfile on;
  open_file_cache max=16;
  client_body_temp_path $work/nginx/body;
  proxy_temp_path $work/nginx/proxy;
  fastcgi_temp_path $work/nginx/fastcgi;
  uwsgi_temp_path $work/nginx/uwsgi;
  scgi_temp_path $work/nginx/scgi;
  types { image/jpeg frame; }
  default_type image/jpeg;
  server {
    listen 127.0.0.1:$nport;
    root $work/www;
  }
}
CONF
nginx -p "$work/nginx" -c "$work/nginx/nginx.conf" 2>"$work/nginx/stderr.log" &
pids+=("$!")
wait_http "http://127.0.0.1:$nport/frame"

curl -sf -o "$work/from-zerlan" "http://127.0.0.1:$zport/frame"
curl -sf -o "$work/from-nginx" "http://127.0.0.1:$nport/frame"
cmp -s "$work/from-zerlan" "$work/www/frame" || { echo "bench/serve: zerlan served other bytes" >&2; exit 1; }
cmp -s "$work/from-nginx" "$work/www/frame" || { echo "bench/serve: nginx served other bytes" >&2; exit 1; }

# Prints requests/second; fails on socket errors or non-200 answers, which would make the
# rate meaningless.
measure() {
  local port="$1" clients="$2" threads out
  threads=$(( clients < 2 ? 1 : 2 ))
  out="$(wrk -t"$threads" -c"$clients" -d"${duration}s" -H 'Connection: close' \
         "http://127.0.0.1:$port/frame")"
  if grep -q -e 'Non-2xx' -e 'Socket errors' <<<"$out"; then
    echo "bench/serve: errors while measuring port $port with $clients clients:" >&2
    echo "$out" >&2
  fi
  awk '/^Requests\/sec:/ { print $2 }' <<<"$out"
}

median() { sort -g | awk '{ v[NR] = $1 } END { print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'; }

declare -A samples
for clients in 1 32; do
  for ((r = 1; r <= rounds; r++)); do
    samples[zerlan,$clients]+="$(measure "$zport" "$clients") "
    samples[nginx,$clients]+="$(measure "$nport" "$clients") "
  done
done

echo
echo "Frame server: GET /frame, new connection per request, ${frame_bytes}-byte 640x480 JPEG"
echo "wrk ${duration}s x $rounds rounds per cell (median), $(nproc) cores, $(nginx -v 2>&1 | sed 's/.*\///')"
echo
printf '%-10s %16s %16s %10s\n' clients 'zerlan req/s' 'nginx req/s' ratio
status=0
for clients in 1 32; do
  z=$(tr ' ' '\n' <<<"${samples[zerlan,$clients]}" | grep . | median)
  n=$(tr ' ' '\n' <<<"${samples[nginx,$clients]}" | grep . | median)
  ratio=$(awk -v z="$z" -v n="$n" 'BEGIN { printf "%.2f", (n > 0 ? z / n : 0) }')
  printf '%-10s %16.0f %16.0f %10s\n' "$clients" "$z" "$n" "$ratio"
  if [ "$clients" = 32 ] && awk -v r="$ratio" -v t="$target_ratio" 'BEGIN { exit !(r < t) }'; then
    status=1
  fi
done
echo
# The library's own fetch, sequential, a fresh connection each time, alternating between the two
# servers (both still up; the EXIT trap stops them).
fetcher="$(dirname "$zerlan")/bench-fetch-latency"
if [ -x "$fetcher" ]; then
  echo "Library fetch (ZerlanFetchJPEG's transport), 2000 sequential fetches from each server"
  printf '%-10s %12s %12s\n' server 'p50 ms' 'p99 ms'
  while read -r port _frames failures p50 p99 _max; do
    name=zerlan; [ "$port" = "$nport" ] && name=nginx
    printf '%-10s %12s %12s   %s\n' "$name" "${p50#p50_ms=}" "${p99#p99_ms=}" "${failures}"
    if [ "$name" = zerlan ] && awk -v p="${p99#p99_ms=}" 'BEGIN { exit !(p >= 1.0) }'; then
      echo "bench/serve: library fetch p99 is not under 1 ms" >&2
      status=1
    fi
  done < <("$fetcher" 2000 "$zport" "$nport")
else
  echo "bench/serve: $fetcher not built: library fetch latency not measured" >&2
fi
echo
if [ $status -ne 0 ]; then
  echo "bench/serve: below target: zerlan must reach $target_ratio of nginx's rate at 32 clients and the library's fetch p99 must stay under 1 ms" >&2
else
  echo "targets met: zerlan >= $target_ratio x nginx at 32 clients, library fetch p99 < 1 ms"
fi
exit $status
