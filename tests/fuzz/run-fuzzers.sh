#!/usr/bin/env bash
# Builds the fuzz targets with clang's libFuzzer (32-bit, as the agent is, with AddressSanitizer
# and UndefinedBehaviorSanitizer) and runs each for a bounded number of inputs. Usage:
#   run-fuzzers.sh SOURCE_DIR WORK_DIR [RUNS]
set -euo pipefail
source_dir=$1
work_dir=$2
runs=${3:-20000}
mkdir -p "$work_dir"
flags=(-m32 -std=c++17 -O1 -g -fsanitize=fuzzer,address,undefined -fno-sanitize-recover=all -I"$source_dir/src" -I"$source_dir/tests/support")
# The encoder needs only itself; the SOCKS client needs the agent's pure code around it.
core=()
while IFS= read -r file; do
  case "$file" in */interpose/exports.cpp) ;; *) core+=("$file") ;; esac
done < <(find "$source_dir/src" -name '*.cpp' | sort)
build() {
  local target=$1
  shift
  local binary="$work_dir/$target"
  local newest
  newest=$(ls -t "$source_dir/tests/fuzz/$target.cpp" "$@" | head -1)
  if [ ! -x "$binary" ] || [ "$newest" -nt "$binary" ]; then
    clang++ "${flags[@]}" -o "$binary" "$source_dir/tests/fuzz/$target.cpp" "$@" -ldl -lpthread
  fi
}
build encoder_fuzz "$source_dir/src/message/print_buffer.cpp" "$source_dir/src/message/held_payload.cpp" "$source_dir/src/message/payload_escaping.cpp" "$source_dir/src/message/recorder_vocabulary.cpp"
build socks_reply_fuzz "${core[@]}"
for target in encoder_fuzz socks_reply_fuzz; do
  mkdir -p "$work_dir/$target.corpus"
  echo "== $target: $runs inputs"
  "$work_dir/$target" -runs="$runs" -max_len=4096 -seed=1 -print_final_stats=1 "$work_dir/$target.corpus" 2>&1 | tail -4
done
