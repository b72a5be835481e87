#!/usr/bin/env bash
# Installs the system packages the build, the tests and the demo need, and nothing when they are
# already there. The agent is a 32-bit library, so the i386 architecture must be enabled for the
# 32-bit GoogleTest and C library development files.
set -euo pipefail

packages=(cmake make g++ g++-multilib lib32asan8 lib32ubsan1 libc6-dev-i386 libgtest-dev:i386 libgtest-dev:amd64 microsocks tshark binutils clang libclang-rt-14-dev iproute2 util-linux python3 curl valgrind tzdata jq man-db groff-base python3-jsonschema git)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi

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
