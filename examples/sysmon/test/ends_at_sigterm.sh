#!/bin/sh
# ends_at_sigterm.sh PROGRAM...: starts sysmon, waits until it tells its port, stops it and expects a clean end with
# its summary as the last line.
set -eu
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
mkfifo "$folder/out"
"$@" --port 0 --rate 50 --seconds 30 >"$folder/out" &
pid=$!
exec 3<"$folder/out"
read -r configuration <&3
read -r port <&3
kill -TERM "$pid"
read -r summary <&3
wait "$pid"
printf '%s\n%s\n%s\n' "$configuration" "$port" "$summary"
case "$configuration|$port|$summary" in
"configuration: 0,"*"|port: "*"|"*" frames, 0 failures, "*) ;;
*) exit 1 ;;
esac
