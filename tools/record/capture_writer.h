// Recorded TCP conversations as a capture file that Wireshark and tshark open, written as the
// messages arrive: each connection the program made or accepted becomes one TCP stream between
// the addresses its messages name, with a made-up handshake and close around the recorded payloads,
// a connect that failed a SYN alone (answered by a reset when it was refused),
// sequence numbers consistent, time stamps from the messages. The file is the classic pcap
// format of raw IP packets, written here rather than through libpcap, whose dependencies cost
// every run of talvex-record a dozen more libraries to load at its start.
#pragma once

#include <stdint.h>
#include <stdio.h>

#include <map>
#include <string>

#include "conversations.h"

namespace talvex {

class CaptureStream;

class CaptureFile {
 public:
  CaptureFile() = default;
  ~CaptureFile();
  CaptureFile(const CaptureFile&) = delete;
  CaptureFile& operator=(const CaptureFile&) = delete;

  // Creates the file with its header. Returns false with `error` filled in when it cannot.
  bool open(const std::string& path, std::string* error);
  // A connection `id` opened: its handshake.
  void opened(uint64_t id, const Peer& client, const Peer& server, int64_t timeNs);
  // A connect that never opened: its SYN, and the reset that answered it when `refused`.
  void attempted(const Peer& client, const Peer& server, bool refused, int64_t timeNs);
  // Bytes one side sent on it.
  void data(uint64_t id, bool fromClient, const std::string& bytes, int64_t timeNs);
  // Its close.
  void closed(uint64_t id, int64_t timeNs);
  // Everything written so far on disk. False when it could not be written.
  bool flush();

 private:
  FILE* file_ = nullptr;
  std::map<uint64_t, CaptureStream*> streams_;
};

}  // namespace talvex
