#!/usr/bin/env bash
# Shows the agent at work inside a real 32-bit program: it is preloaded into the probe, which
# makes a real loopback conversation, and the agent's diagnostic log is printed.
set -euo pipefail
build=${1:-build}
agent="$build/libtalvex_socket_agent.so"
probe="$build/tests/socket_probe"
logs=$(mktemp -d)
trap 'rm -rf "$logs"; kill "$server" 2>/dev/null || true' EXIT

# A loopback echo server for the probe to talk to, on a port the system picks.
port_file="$logs/port"
python3 - "$port_file" <<'PY' &
import socket, sys
s = socket.socket(); s.bind(("127.0.0.1", 0)); s.listen(8)
open(sys.argv[1], "w").write(str(s.getsockname()[1]))
while True:
    c, _ = s.accept()
    while (d := c.recv(65536)):
        c.sendall(d)
    c.close()
PY
server=$!
for _ in $(seq 50); do [ -s "$port_file" ] && break; sleep 0.1; done
port=$(cat "$port_file")

echo "== the probe, with the agent preloaded (LD_PRELOAD=$agent) =="
LD_PRELOAD="$agent" TALVEX_SOCKET_AGENT_DEBUG_LVL=127 TALVEX_SOCKET_AGENT_DEBUG_DIR="$logs/log" \
  "$probe" calls "$port" 1 "$logs/data.txt"
echo
echo "== the agent's diagnostic log =="
cat "$logs"/log/*.txt
echo
echo "Recording to a recorder endpoint is not built yet: the agent starts, resolves the C library's"
echo "functions and passes every call through unchanged."
