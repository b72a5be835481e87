// Where the build put the artefacts the tests run; set by the build system.
#pragma once

#include "base/variable_names.h"

constexpr const char* kAgentPath = TALVEX_AGENT_PATH;

// The ABI of the agent and probes these tests run against, and what shows it.
constexpr int kAbiBits = TALVEX_ABI_BITS;
constexpr const char* kRecorderCoreVariable =
    kAbiBits == 64 ? TALVEX_VAR_RECORDERCORE64_PATH : TALVEX_VAR_RECORDERCORE32_PATH;
constexpr const char* kStartUpLine = kAbiBits == 64 ? "initialize library 64" : "initialize library 32";
// An address in a log line: all the digits of a pointer.
constexpr const char* kAddressPattern = kAbiBits == 64 ? "0x[0-9A-F]{16}" : "0x[0-9A-F]{8}";
constexpr const char* kProbePath = TALVEX_PROBE_PATH;
constexpr const char* kRecorderCoreStandinPath = TALVEX_RECORDER_CORE_STANDIN_PATH;
constexpr const char* kRecorderPath = TALVEX_RECORDER_PATH;
constexpr const char* kRecordingProbePath = TALVEX_RECORDING_PROBE_PATH;
constexpr const char* kHostileProbePath = TALVEX_HOSTILE_PROBE_PATH;
constexpr const char* kCaptureProbePath = TALVEX_CAPTURE_PROBE_PATH;
constexpr const char* kSanitizedHostProbePath = TALVEX_SANITIZED_HOST_PROBE_PATH;
constexpr const char* kDynamicAsanHostProbePath = TALVEX_DYNAMIC_ASAN_HOST_PROBE_PATH;
constexpr const char* kUbsanHostProbePath = TALVEX_UBSAN_HOST_PROBE_PATH;
// Empty where the ABI has no ThreadSanitizer (i386).
constexpr const char* kTsanHostProbePath = TALVEX_TSAN_HOST_PROBE_PATH;
constexpr const char* kClockNameProbePath = TALVEX_CLOCK_NAME_PROBE_PATH;
constexpr const char* kFreshProcessChecksPath = TALVEX_FRESH_PROCESS_CHECKS_PATH;
constexpr const char* kResolverStandinPath = TALVEX_RESOLVER_STANDIN_PATH;
constexpr const char* kConnectShimPath = TALVEX_CONNECT_SHIM_PATH;
constexpr const char* kStrlenStandinPath = TALVEX_STRLEN_STANDIN_PATH;
constexpr const char* kNoPselectStandinPath = TALVEX_NO_PSELECT_STANDIN_PATH;
constexpr const char* kCrashProbePath = TALVEX_CRASH_PROBE_PATH;
constexpr const char* kRecordPath = TALVEX_RECORD_PATH;
constexpr const char* kTlsClientProbePath = TALVEX_TLS_CLIENT_PROBE_PATH;
constexpr const char* kTlsServerPath = TALVEX_TLS_SERVER_PATH;
constexpr const char* kHttpServerPath = TALVEX_HTTP_SERVER_PATH;
constexpr const char* kHttp2ServerPath = TALVEX_HTTP2_SERVER_PATH;
constexpr const char* kNodeToolsPath = TALVEX_NODE_TOOLS_PATH;
constexpr const char* kStaticClientPath = TALVEX_STATIC_CLIENT_PATH;
constexpr const char* kStaticClientMuslPath = TALVEX_STATIC_CLIENT_MUSL_PATH;
constexpr const char* kGoClientPath = TALVEX_GO_CLIENT_PATH;
constexpr const char* kStaticClient32Path = TALVEX_STATIC_CLIENT32_PATH;
constexpr const char* kTracedHostProbePath = TALVEX_TRACED_HOST_PROBE_PATH;
constexpr const char* kTlsCallerAPath = TALVEX_TLS_CALLER_A_PATH;
constexpr const char* kTlsCallerBPath = TALVEX_TLS_CALLER_B_PATH;
constexpr const char* kBuildDir = TALVEX_BUILD_DIR;
constexpr const char* kExpectedTranscriptPath = TALVEX_EXPECTED_TRANSCRIPT_PATH;
constexpr const char* kJsonLinesValidatorPath = TALVEX_JSON_LINES_VALIDATOR_PATH;
