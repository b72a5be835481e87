#include "record_options.h"

#include <stdlib.h>

#include <map>

namespace talvex {

bool parseLevel(const std::string& text, std::string* out) {
  if (!text.empty() && text.find_first_not_of("0123456789") == std::string::npos) {
    *out = text;
    return true;
  }
  static const std::map<std::string, int> bits = {{"error", 1},    {"info", 2},  {"call", 8},  {"ret", 16},
                                                  {"warning", 32}, {"data", 64}, {"all", 127}};
  int mask = 0;
  size_t start = 0;
  while (start <= text.size()) {
    const size_t comma = text.find(',', start);
    const std::string name = text.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
    const auto found = bits.find(name);
    if (found == bits.end()) return false;
    mask |= found->second;
    if (comma == std::string::npos) break;
    start = comma + 1;
  }
  *out = std::to_string(mask);
  return true;
}

// A day at most: the bound keeps the arithmetic of the deadline far from overflowing.
bool parseGraceSeconds(const std::string& text, int* seconds) {
  char* end = nullptr;
  const long parsed = strtol(text.c_str(), &end, 10);
  if (text.empty() || *end != '\0' || parsed < 0 || parsed > 86400) return false;
  *seconds = static_cast<int>(parsed);
  return true;
}

ParseOutcome parseRecordOptions(int argc, char** argv, RecordOptions* o, std::string* error) {
  const std::map<std::string, std::string*> valued = {
      {"--transcript", &o->transcript}, {"--raw", &o->raw},       {"--jsonl", &o->jsonl},
      {"--pcap", &o->pcap},             {"--listen", &o->listen}, {"--socks", &o->socks},
      {"--log-dir", &o->logDir},        {"--keylog", &o->keylog}, {"--har", &o->har},
      {"--html", &o->html}};
  std::string levelText;
  int i = 1;
  for (; i < argc; ++i) {
    std::string arg = argv[i];
    if (arg == "--") {
      ++i;
      break;
    }
    if (arg.empty() || arg[0] != '-') break;  // the command
    // --name=value is --name value.
    std::string inlineValue;
    bool hasInline = false;
    const size_t equals = arg.find('=');
    if (arg.rfind("--", 0) == 0 && equals != std::string::npos) {
      inlineValue = arg.substr(equals + 1);
      arg = arg.substr(0, equals);
      hasInline = true;
    }
    auto value = [&](std::string* into) {
      if (hasInline) {
        *into = inlineValue;
        return true;
      }
      // "--" ends the options: an option right before it was given no value.
      if (i + 1 >= argc || std::string(argv[i + 1]) == "--") {
        *error = "option " + arg + " needs a value";
        return false;
      }
      *into = argv[++i];
      return true;
    };
    const auto named = valued.find(arg);
    std::string spec;
    if (arg == "--help" || arg == "-h") {
      return ParseOutcome::Help;
    } else if (arg == "--version" || arg == "-V") {
      return ParseOutcome::Version;
    } else if (named != valued.end()) {
      if (!value(named->second)) return ParseOutcome::Error;
    } else if (arg == "--log-level") {
      if (!value(&levelText)) return ParseOutcome::Error;
    } else if (arg == "--grace") {
      std::string text;
      if (!value(&text)) return ParseOutcome::Error;
      if (!parseGraceSeconds(text, &o->graceSeconds)) {
        *error = "--grace needs a number of seconds from 0 to 86400";
        return ParseOutcome::Error;
      }
    } else if (arg == "--only" || arg == "--exclude") {
      if (!value(&spec)) return ParseOutcome::Error;
      std::string why;
      const bool added = arg == "--only" ? o->filter.addOnly(spec, &why) : o->filter.addExclude(spec, &why);
      if (!added) {
        *error = arg + ": " + why;
        return ParseOutcome::Error;
      }
    } else if (hasInline) {
      *error = "option " + arg + " takes no value";
      return ParseOutcome::Error;
    } else if (arg == "--full") {
      o->full = true;
    } else if (arg == "--double-log-socks") {
      o->doubleLogSocks = true;
    } else if (arg == "--traceback") {
      o->traceback = true;
    } else if (arg == "--unplug") {
      o->unplug = true;
    } else if (arg == "--live") {
      o->live = RecordOptions::Live::On;
    } else if (arg == "--no-live") {
      o->live = RecordOptions::Live::Off;
    } else if (arg == "--quiet" || arg == "-q") {
      o->quiet = true;
    } else {
      *error = "unknown option " + arg;
      return ParseOutcome::Error;
    }
  }
  for (; i < argc; ++i) o->command.push_back(argv[i]);
  if (o->command.empty()) {
    *error = "no command to record";
    return ParseOutcome::Error;
  }
  if (!levelText.empty()) {
    if (o->logDir.empty()) {
      *error = "--log-level needs --log-dir: the log is written only into a directory";
      return ParseOutcome::Error;
    }
    if (!parseLevel(levelText, &o->logLevel)) {
      *error = "unknown log level " + levelText + " (a number, or names among error,info,call,ret,warning,data,all)";
      return ParseOutcome::Error;
    }
  }
  return ParseOutcome::Run;
}

}  // namespace talvex
