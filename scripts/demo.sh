#!/usr/bin/env bash
# Records a real conversation with the bundled tools: a 32-bit server of ours answers on loopback,
# and talvex-record runs a 32-bit client against it with the agent preloaded, then prints the
# transcript and writes the messages and a capture file.
set -euo pipefail
build=${1:-build}
probe="$PWD/$build/tests/recording_probe"
out="$PWD/$build/demo"
mkdir -p "$out"
rm -f "$out/server-port"

"$probe" http-serve "$out/server-port" 2 &
server=$!
trap 'kill "$server" 2>/dev/null || true' EXIT
for _ in $(seq 100); do [ -s "$out/server-port" ] && break; sleep 0.05; done

echo "\$ talvex-record --raw $out/demo.raw --jsonl $out/demo.jsonl --pcap $out/demo.pcap -- recording_probe http-get PORT /hello /status"
"$PWD/$build/talvex-record" --raw "$out/demo.raw" --jsonl "$out/demo.jsonl" --pcap "$out/demo.pcap" \
  -- "$probe" http-get "$(cat "$out/server-port")" /hello /status
wait "$server"
echo
echo "Messages: $out/demo.raw (raw) and $out/demo.jsonl (JSON Lines)"
echo "Capture:  $out/demo.pcap   (tshark -r $out/demo.pcap -q -z follow,tcp,ascii,0)"
