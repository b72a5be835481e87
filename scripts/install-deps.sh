#!/usr/bin/env bash
# Installs the system packages the build, the tests and the demo need, and nothing when they are
# already there. The agent is a 32-bit library, so the i386 architecture must be enabled for the
# 32-bit GoogleTest and C library development files.
set -euo pipefail

packages=(cmake make g++ g++-multilib lib32asan8 lib32ubsan1 libc6-dev-i386 libgtest-dev:i386 libgtest-dev:amd64 microsocks tshark binutils clang libclang-rt-14-dev iproute2 util-linux python3 curl valgrind tzdata jq man-db groff-base python3-jsonschema git wget openssl ca-certificates libgnutls30:i386 libssl-dev zlib1g-dev libbrotli-dev libnghttp2-dev chromium golang-go hey musl-tools strace)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done
# The TLS tests' own 32-bit client opens Debian's i386 OpenSSL by path. The i386 and amd64
# libssl3 packages can only be installed side by side at the same version, which the mirror does
# not always offer at once; so the i386 one is unpacked into a folder of its own, not installed.
i386_openssl=/var/lib/talvex-test/libssl3-i386
i386_openssl_ready() { [ -e "$i386_openssl/usr/lib/i386-linux-gnu/libssl.so.3" ]; }
# The HAR and report tests check talvex-record's documents with tools from the npm registry (a
# HAR validator, a HAR importer, a driver for Debian's Chromium), at the versions
# tests/support/node-tools/package-lock.json names, installed into a folder of their own (the
# checkout stays clean). Node and npm come with the machine; where they do not, from Debian.
node_tools_source=$(cd "$(dirname "$0")/.." && pwd)/tests/support/node-tools
node_tools=/var/lib/talvex-test/node-tools
node_tools_ready() {
  cmp -s "$node_tools_source/package-lock.json" "$node_tools/package-lock.json" && [ -d "$node_tools/node_modules/playwright-core" ]
}
if ! command -v npm >/dev/null; then missing+=(nodejs npm); fi

[ ${#missing[@]} -eq 0 ] && i386_openssl_ready && node_tools_ready && exit 0

SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi

unpack_i386_openssl() {
  local work
  work=$(mktemp -d)
  chmod 755 "$work"  # apt downloads as its own user
  (cd "$work" && apt-get download -qq libssl3:i386 && $SUDO mkdir -p "$i386_openssl" &&
     $SUDO dpkg-deb -x libssl3_*_i386.deb "$i386_openssl")
  local status=$?
  rm -rf "$work"
  return $status
}

install_node_tools() {
  echo "installing the test tools from npm into $node_tools"
  $SUDO mkdir -p "$node_tools"
  $SUDO cp "$node_tools_source/package.json" "$node_tools_source/package-lock.json" "$node_tools/"
  (cd "$node_tools" && $SUDO npm ci --no-audit --no-fund --loglevel=error)
}

if [ ${#missing[@]} -eq 0 ]; then
  if ! i386_openssl_ready; then
    echo "unpacking libssl3:i386 into $i386_openssl"
    unpack_i386_openssl || { $SUDO apt-get update -qq && unpack_i386_openssl; }
  fi
  node_tools_ready || install_node_tools
  exit $?
fi

if ! dpkg --print-foreign-architectures | grep -qx i386; then
  $SUDO dpkg --add-architecture i386
fi
echo "installing: ${missing[*]}"
# A mirror that is mid-sync can fail one index (seen with the security suite's i386 list); what
# matters is that the install below finds the packages, so the refresh is retried, not fatal.
for attempt in 1 2 3; do
  if $SUDO apt-get update -qq; then break; fi
  echo "apt-get update failed (attempt $attempt); retrying" >&2
  sleep $((attempt * 5))
done
DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
i386_openssl_ready || { echo "unpacking libssl3:i386 into $i386_openssl"; unpack_i386_openssl; }
node_tools_ready || install_node_tools
