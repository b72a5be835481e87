#!/usr/bin/env bash
# Writes bench/RESULTS.md from one run of every bench (their output on standard input), with the
# commit and the machine they ran on, so that the figures in the tree always name their run.
set -euo pipefail
out=${1:?usage: write-bench-results.sh OUTPUT.md < bench-output}
figures=$(cat)
{
  echo "# Measured figures"
  echo
  echo "Written by \`make bench\`; what the figures mean is in [doc/performance.md](../doc/performance.md)."
  echo
  echo "- run: $(date -u '+%Y-%m-%d %H:%M UTC'), commit $(git rev-parse --short HEAD 2>/dev/null || echo unknown)$(git diff --quiet HEAD -- src tools bench 2>/dev/null || echo ' with local changes')"
  echo "- machine: $(nproc) cores, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ *//')"
  echo
  echo '```'
  printf '%s\n' "$figures"
  echo '```'
} > "$out.tmp"
mv "$out.tmp" "$out"
echo "figures written to $out"
