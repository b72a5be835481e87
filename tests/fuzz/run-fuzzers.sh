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
  case "$file" in */interpose/exports.cpp | */interpose/tls_exports.cpp) ;; *) core+=("$file") ;; esac
done < <(find "$source_dir/src" -name '*.cpp' | sort)
build() {
  local target=$1
  shift
  local binary="$work_dir/$target"
  local newest
  local sources=()
  for argument in "$@"; do
    case "$argument" in -*) ;; *) sources+=("$argument") ;; esac
  done
  newest=$(ls -t "$source_dir/tests/fuzz/$target.cpp" "${sources[@]}" | head -1)
  if [ ! -x "$binary" ] || [ "$newest" -nt "$binary" ]; then
    clang++ "${flags[@]}" -o "$binary" "$source_dir/tests/fuzz/$target.cpp" "$@" -ldl -lpthread
  fi
}
build encoder_fuzz "$source_dir/src/message/print_buffer.cpp" "$source_dir/src/message/held_payload.cpp" "$source_dir/src/message/payload_escaping.cpp" "$source_dir/src/message/recorder_vocabulary.cpp"
build socks_reply_fuzz "${core[@]}"
# talvex-record's reading of messages: the tools' shared code and the outputs, built as the tools
# are (64-bit), with the agent's headers they share.
tools=("$source_dir"/tools/common/*.cpp "$source_dir"/tools/record/conversations.cpp "$source_dir"/tools/record/encrypted_connections.cpp "$source_dir"/tools/record/transcript.cpp
       "$source_dir"/tools/record/recording_totals.cpp "$source_dir"/tools/record/unrecorded_sockets.cpp
       "$source_dir"/tools/record/capture_writer.cpp "$source_dir"/tools/record/capture_output.cpp
       "$source_dir"/tools/record/tls_decryption.cpp "$source_dir"/tools/record/payload_text.cpp
       "$source_dir"/tools/record/timed_stream.cpp "$source_dir"/tools/record/http_exchange.cpp
       "$source_dir"/tools/record/http1_parser.cpp "$source_dir"/tools/record/http2_parser.cpp
       "$source_dir"/tools/record/http_conversations.cpp "$source_dir"/tools/record/content_decoding.cpp
       "$source_dir"/tools/record/har_document.cpp "$source_dir"/tools/record/html_report.cpp
       "$source_dir"/tools/record/html_report_page.cpp -lcrypto -lz -lbrotlidec -lnghttp2)
flags=("${flags[@]/-m32/-m64}" -I"$source_dir/tools/common" -I"$source_dir/tools/record")
build recording_outputs_fuzz "${tools[@]}"
# Its seeds: a conversation in every kind of message the outputs read, so that the fuzzer starts
# from lines that parse.
seeds="$work_dir/recording_outputs_fuzz.corpus"
if [ ! -d "$seeds" ]; then
  mkdir -p "$seeds"
  cat > "$seeds/conversation" <<'MESSAGES'
<process timestamp_ns_I8="17a40c397e3c8d15" timestamp_I4="0" ticket_I4="1" workingdir_AS="/tmp" pid_I4="64" archi_AS="LINUX" commandline_AS="curl\x00-s\x00"/>
<addrinfo timestamp_I8="1" ticket_I4="2" pid_I4="64" family_AS="AF_CCITT" name_AS="h" address_AS="0:0:0:0:0:0:0:1"/>
<addrinfo ticket_I4="3" pid_I4="64" name_AS="x.invalid" gaierror_I4="fffffffe"/>
<connect localport_I4="9c40" pid_I4="64" timestamp_I8="1" ticket_I4="4" socket_I8="5" cookie_I8="77" localip_AS="127.0.0.1" duration_I4="0" family_AS="AF_INET" ip_AS="127.0.0.1" port_I4="50" error_I4="73"/>
<connectoutcome pid_I4="64" timestamp_I8="2" ticket_I4="5" socket_I8="5"/>
<send timestamp_I8="3" ticket_I4="6" socket_I8="5" pid_I4="64" data_AS="GET / HTTP/1.0\r\n\r\n" length_U4="12"/>
<accept pid_I4="65" ticket_I4="1" socket_I8="0" info_AS="ADOPTED" cookie_I8="77" localport_I4="9c40" family_AS="AF_INET" ip_AS="127.0.0.1" port_I4="50"/>
<receive pid_I4="65" timestamp_I8="4" ticket_I4="2" socket_I8="0" data_AS="\x00\xff" length_I4="2"/>
<notrecorded pid_I4="64" ticket_I4="7" socket_I8="9" family_AS="AF_UNIX" kind_AS="stream"/>
<notrecorded ticket_I4="8" name_AS="select"/>
<close pid_I4="64" timestamp_I8="5" ticket_I4="9" socket_I8="5"/>
<close pid_I4="65" timestamp_I8="5" ticket_I4="3" socket_I8="0"/>
<exit/>
MESSAGES
fi
# A TLS 1.3 conversation whose client random the fuzz target's key log knows: its hellos, then a
# record under encryption, so that the fuzzer starts inside the key schedule and the decryption.
if [ ! -e "$seeds/tls" ]; then
  cat > "$seeds/tls" <<'MESSAGES'
<connect pid_I4="64" timestamp_I8="1" ticket_I4="1" socket_I8="5" duration_I4="0" family_AS="AF_INET" ip_AS="127.0.0.1" port_I4="50"/>
<send timestamp_I8="2" ticket_I4="2" socket_I8="5" pid_I4="64" data_AS="\x16\x03\x01\x00\x26\x01\x00\x00\x22\x03\x03AAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA" length_U4="43"/>
<receive timestamp_I8="3" ticket_I4="3" socket_I8="5" pid_I4="64" data_AS="\x16\x03\x03\x00\x29\x02\x00\x00\x25\x03\x03BBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBB\x00\x13\x01\x17\x03\x03\x00\x11\x01\x02\x03\x04\x05\x06\x07\x08\x09\x0a\x0b\x0c\x0d\x0e\x0f\x10\x11" length_I4="68"/>
<send timestamp_I8="4" ticket_I4="4" socket_I8="5" pid_I4="64" data_AS="\x17\x03\x03\x00\x11\x01\x02\x03\x04\x05\x06\x07\x08\x09\x0a\x0b\x0c\x0d\x0e\x0f\x10\x11" length_U4="22"/>
MESSAGES
fi
# Recordings of real HTTP/1.1 and HTTP/2 conversations (curl against the suite's servers), so that
# the fuzzer starts inside the HTTP readers.
for seed in "$source_dir"/tests/fuzz/seeds/*; do
  [ -e "$seeds/$(basename "$seed")" ] || cp "$seed" "$seeds/"
done
for target in encoder_fuzz socks_reply_fuzz recording_outputs_fuzz; do
  mkdir -p "$work_dir/$target.corpus"
  echo "== $target: $runs inputs"
  # A crash or an out-of-memory input is kept in the work folder, not wherever the run started.
  "$work_dir/$target" -runs="$runs" -max_len=4096 -seed=1 -print_final_stats=1 -artifact_prefix="$work_dir/" \
    "$work_dir/$target.corpus" 2>&1 | tail -4
done
