// talvex-record's command line.
#pragma once

#include <string>
#include <vector>

#include "traffic_filter.h"

namespace talvex {

struct RecordOptions {
  std::string transcript, raw, jsonl, pcap, har, html, keylog, listen = "127.0.0.1:0", socks, logDir, logLevel = "3";
  bool full = false, doubleLogSocks = false, traceback = false, unplug = false, quiet = false;
  enum class Live { Auto, On, Off } live = Live::Auto;
  // How long the command has after a stop signal is passed on, before what is left is killed.
  int graceSeconds = 5;
  TrafficFilter filter;
  std::vector<std::string> command;
};

enum class ParseOutcome { Run, Help, Version, Error };

// Options first, then the command: after "--", or from the first argument that is not an option.
// On Error, `error` holds one line saying what is wrong.
ParseOutcome parseRecordOptions(int argc, char** argv, RecordOptions* options, std::string* error);

// A level as the agent reads it, from a number or names of kinds ("error,info").
bool parseLevel(const std::string& text, std::string* mask);
// The grace period of --grace: whole seconds from 0 to 86400. False for anything else.
bool parseGraceSeconds(const std::string& text, int* seconds);

}  // namespace talvex
