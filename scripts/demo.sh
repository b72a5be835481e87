#!/usr/bin/env bash
# Records real conversations with the bundled tools: a 32-bit server of ours answers on loopback;
# talvex-record runs a 32-bit client against it with the agent preloaded, then prints the
# transcript and writes the messages, a capture file, a HAR and an HTML report; then it records
# the system's 64-bit python3 asking the same server.
set -euo pipefail
build=${1:-build}
probe="$PWD/$build/tests/recording_probe"
out="$PWD/$build/demo"
mkdir -p "$out"
rm -f "$out/server-port"

"$probe" http-serve "$out/server-port" 3 &
server=$!
trap 'kill "$server" 2>/dev/null || true' EXIT
for _ in $(seq 100); do [ -s "$out/server-port" ] && break; sleep 0.05; done

echo "\$ talvex-record --raw $out/demo.raw --jsonl $out/demo.jsonl --pcap $out/demo.pcap --har $out/demo.har --html $out/demo.html -- recording_probe http-get PORT /hello /status"
"$PWD/$build/talvex-record" --raw "$out/demo.raw" --jsonl "$out/demo.jsonl" --pcap "$out/demo.pcap" \
  --har "$out/demo.har" --html "$out/demo.html" \
  -- "$probe" http-get "$(cat "$out/server-port")" /hello /status
echo
echo "\$ talvex-record --raw $out/demo64.raw -- python3 -c '<an HTTP GET with http.client>'"
"$PWD/$build/talvex-record" --raw "$out/demo64.raw" -- /usr/bin/python3 -c \
  "import http.client; c = http.client.HTTPConnection('127.0.0.1', $(cat "$out/server-port")); c.request('GET', '/from-python'); print(c.getresponse().status)"
wait "$server"
echo
echo "Messages: $out/demo.raw (raw) and $out/demo.jsonl (JSON Lines); python3's: $out/demo64.raw"
echo "Capture:  $out/demo.pcap   (tshark -r $out/demo.pcap -q -z follow,tcp,ascii,0)"
echo "HAR:      $out/demo.har    (for tools that import HAR)"
echo "Report:   $out/demo.html   (open it in a browser)"
