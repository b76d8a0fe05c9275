#!/usr/bin/env bash
# `./dev demo`: starts the sysmon host on a free port, shows its stream with lodestone-tap, stops both.
set -euo pipefail
build="${1:?usage: tools/demo.sh BUILD_FOLDER}"
seconds="${LODESTONE_DEMO_SECONDS:-6}"

log="$(mktemp)"
host=""
finish() {
  if [ -n "$host" ] && kill -0 "$host" 2>/dev/null; then
    kill -INT "$host" 2>/dev/null || true
    wait "$host" || true
  fi
  rm -f "$log"
}
trap finish EXIT

# The host says its port first; it ends by itself if this script is killed in the middle.
"$build/examples/sysmon/sysmon" --port 0 --seconds $((seconds + 30)) >"$log" &
host=$!
port=""
for _ in $(seq 100); do
  port="$(sed -n 's/.*[Pp]ort[^0-9]*\([0-9][0-9]*\).*/\1/p' "$log" | head -n 1)"
  [ -n "$port" ] && break
  kill -0 "$host" 2>/dev/null || break
  sleep 0.1
done
if [ -z "$port" ]; then
  echo "demo: the host didn't start:" >&2
  cat "$log" >&2
  exit 1
fi
cat "$log"
echo
echo "Watching it for $seconds seconds with: $build/client/lodestone-tap watch 127.0.0.1:$port"
echo
"$build/client/lodestone-tap" watch "127.0.0.1:$port" --seconds "$seconds" --interval 2

kill -INT "$host"
wait "$host"
host=""
echo
echo "The host's last words:"
tail -n 2 "$log"
