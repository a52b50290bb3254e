#!/usr/bin/env bash
# Builds drover and drover-sink, forwards a sample log to a local ingest endpoint over TLS and
# shows what arrived.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
build=build/demo
scripts/setup.sh "$build" -DDROVER_TESTS=OFF -DDROVER_BENCHMARKS=OFF

work=$(mktemp -d /tmp/drover-demo.XXXXXX)
sink_pid=
cleanup() {
  if [ -n "$sink_pid" ]; then kill "$sink_pid" 2>/dev/null || true; fi
  rm -rf "$work"
}
trap cleanup EXIT
cd "$work"

# A sample log: 10,000 request lines, each with its own ISO time.
awk 'BEGIN { for (i = 1; i <= 10000; i++)
  printf "2026-11-23T08:%02d:%02d.%03d web-1 GET /item/%d 200 %dms\n", int(i / 60) % 60, i % 60, i % 1000, i, i % 250 }' > sample.log

"$root/$build/drover-sink" --listen 127.0.0.1:0 --print-port --out received.jsonl 2> sink.log &
sink_pid=$!
port=
for _ in $(seq 100); do
  port=$(grep -m1 -xE '[0-9]+' sink.log || true)
  [ -n "$port" ] && break
  sleep 0.1
done
[ -n "$port" ] || { echo "drover-sink did not start:"; cat sink.log; exit 1; }

echo "== drover-sink (a local ingest endpoint) listens on 127.0.0.1:$port"
echo "== drover forward stream sample.log demo-token timestamps first-iso to 127.0.0.1:$port"
"$root/$build/drover" forward stream sample.log demo-token timestamps first-iso to "127.0.0.1:$port" > drover.log
echo "   exit status $?; drover's own report, one JSON object per line:"
grep -v 'Event coding speed' drover.log | head -n 6 | sed 's/^/   /'

for _ in $(seq 50); do
  [ "$(wc -l < received.jsonl)" -ge 10000 ] && break
  sleep 0.1
done
echo "== the first events drover-sink received (token, context, time in ns, connection, batch, event):"
head -n 3 received.jsonl | sed 's/^/   /'
echo "== $(wc -l < received.jsonl) of $(wc -l < sample.log) lines arrived"
kill -INT "$sink_pid"
wait "$sink_pid" || true
sink_pid=
echo "== drover-sink's totals:"
grep 'Intake total' sink.log | sed 's/^/   /'
