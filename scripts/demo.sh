#!/usr/bin/env bash
# Records a real conversation: a 32-bit client and server of ours talk over loopback with the
# agent preloaded into both, and talvex-recorder receives what the agent sends.
set -euo pipefail
build=${1:-build}
agent="$PWD/$build/libtalvex_socket_agent.so"
probe="$PWD/$build/tests/recording_probe"
recorder="$PWD/$build/talvex-recorder"
work=$(mktemp -d)
cleanup() {
  kill "$recorder_pid" "$server_pid" 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

"$recorder" --listen 127.0.0.1:0 --port-file "$work/recorder-port" --output "$work/recording.raw" 2>"$work/recorder.err" &
recorder_pid=$!
for _ in $(seq 100); do [ -s "$work/recorder-port" ] && break; sleep 0.05; done
recorder_port=$(cat "$work/recorder-port")

export LD_PRELOAD="$agent" TALVEX_SOCKET_AGENT_PORT_NUMBER="$recorder_port"
"$probe" serve "$work/server-port" 2 &
server_pid=$!
for _ in $(seq 100); do [ -s "$work/server-port" ] && break; sleep 0.05; done
mkdir -p "$work/client"
"$probe" conversation "$(cat "$work/server-port")" 2 3 "$work/client"
wait "$server_pid"
unset LD_PRELOAD

sleep 0.3
kill -TERM "$recorder_pid"
wait "$recorder_pid" || true
echo
echo "== what talvex-recorder received (one line per message, bytes escaped) =="
cut -c1-200 "$work/recording.raw"
echo
cat "$work/recorder.err"
