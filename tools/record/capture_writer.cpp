#include "capture_writer.h"

#include <arpa/inet.h>
#include <errno.h>
#include <string.h>

#include <vector>

namespace talvex {

namespace {

const uint8_t kFin = 0x01, kSyn = 0x02, kReset = 0x04, kPush = 0x08, kAck = 0x10;
// The file's header: microsecond time stamps, the writer's byte order (the magic number says
// which), packets of raw IP (link type 101) of up to 65535 bytes.
const uint32_t kMagic = 0xa1b2c3d4;
const uint16_t kVersionMajor = 2, kVersionMinor = 4;
const uint32_t kSnapshotLength = 65535;
const uint32_t kLinkTypeRaw = 101;
const size_t kLargestSegment = 32000;

uint16_t foldChecksum(uint32_t sum) {
  while (sum >> 16) sum = (sum & 0xffff) + (sum >> 16);
  return static_cast<uint16_t>(~sum);
}

uint32_t addWords(const uint8_t* bytes, size_t n, uint32_t sum = 0) {
  for (size_t i = 0; i + 1 < n; i += 2) sum += static_cast<uint32_t>(bytes[i] << 8 | bytes[i + 1]);
  if (n & 1) sum += static_cast<uint32_t>(bytes[n - 1] << 8);
  return sum;
}

struct Side {
  bool v6 = false;
  uint8_t address[16] = {0};
  uint16_t port = 0;
};

bool sideOf(const Peer& peer, Side* side) {
  side->port = static_cast<uint16_t>(peer.port);
  if (peer.family == 10) {
    side->v6 = true;
    return inet_pton(AF_INET6, peer.ip.c_str(), side->address) == 1;
  }
  return inet_pton(AF_INET, peer.ip.c_str(), side->address) == 1;
}

}  // namespace

class CaptureStream {
 public:
  CaptureStream(FILE* file, const Side& client, const Side& server) : file_(file), client_(client), server_(server) {}

  void handshake(int64_t timeNs) {
    packet(timeNs, true, kSyn, "");
    ++clientSeq_;
    packet(timeNs, false, kSyn | kAck, "");
    ++serverSeq_;
    packet(timeNs, true, kAck, "");
  }

  void attempt(int64_t timeNs, bool refused) {
    packet(timeNs, true, kSyn, "");
    ++clientSeq_;
    if (refused) packet(timeNs, false, kReset | kAck, "");
  }

  void data(int64_t timeNs, bool fromClient, const std::string& bytes) {
    for (size_t offset = 0; offset < bytes.size(); offset += kLargestSegment) {
      const std::string segment = bytes.substr(offset, kLargestSegment);
      packet(timeNs, fromClient, kPush | kAck, segment);
      (fromClient ? clientSeq_ : serverSeq_) += static_cast<uint32_t>(segment.size());
    }
  }

  void close(int64_t timeNs) {
    packet(timeNs, true, kFin | kAck, "");
    ++clientSeq_;
    packet(timeNs, false, kFin | kAck, "");
    ++serverSeq_;
    packet(timeNs, true, kAck, "");
  }

 private:
  void packet(int64_t timeNs, bool fromClient, uint8_t flags, const std::string& payload) {
    const Side& from = fromClient ? client_ : server_;
    const Side& to = fromClient ? server_ : client_;
    const size_t ipLength = from.v6 ? 40 : 20;
    std::vector<uint8_t> p(ipLength + 20 + payload.size(), 0);
    uint8_t* tcp = p.data() + ipLength;
    const uint16_t tcpLength = static_cast<uint16_t>(20 + payload.size());
    if (from.v6) {
      p[0] = 0x60;
      p[4] = static_cast<uint8_t>(tcpLength >> 8);
      p[5] = static_cast<uint8_t>(tcpLength);
      p[6] = IPPROTO_TCP;
      p[7] = 64;
      memcpy(&p[8], from.address, 16);
      memcpy(&p[24], to.address, 16);
    } else {
      const uint16_t total = static_cast<uint16_t>(20 + tcpLength);
      p[0] = 0x45;
      p[2] = static_cast<uint8_t>(total >> 8);
      p[3] = static_cast<uint8_t>(total);
      p[4] = static_cast<uint8_t>(ipId_ >> 8);
      p[5] = static_cast<uint8_t>(ipId_++);
      p[6] = 0x40;  // don't fragment
      p[8] = 64;
      p[9] = IPPROTO_TCP;
      memcpy(&p[12], from.address, 4);
      memcpy(&p[16], to.address, 4);
      const uint16_t check = foldChecksum(addWords(p.data(), 20));
      p[10] = static_cast<uint8_t>(check >> 8);
      p[11] = static_cast<uint8_t>(check);
    }
    const uint32_t seq = fromClient ? clientSeq_ : serverSeq_;
    const uint32_t ack = (flags & kAck) ? (fromClient ? serverSeq_ : clientSeq_) : 0;
    tcp[0] = static_cast<uint8_t>(from.port >> 8);
    tcp[1] = static_cast<uint8_t>(from.port);
    tcp[2] = static_cast<uint8_t>(to.port >> 8);
    tcp[3] = static_cast<uint8_t>(to.port);
    for (int i = 0; i < 4; ++i) {
      tcp[4 + i] = static_cast<uint8_t>(seq >> (24 - 8 * i));
      tcp[8 + i] = static_cast<uint8_t>(ack >> (24 - 8 * i));
    }
    tcp[12] = 5 << 4;
    tcp[13] = flags;
    tcp[14] = 0xff;  // window 65535
    tcp[15] = 0xff;
    memcpy(tcp + 20, payload.data(), payload.size());
    // Pseudo-header: addresses, protocol, TCP length.
    const size_t addressBytes = from.v6 ? 16 : 4;
    uint32_t sum = addWords(from.address, addressBytes);
    sum = addWords(to.address, addressBytes, sum);
    sum += IPPROTO_TCP + tcpLength;
    sum = addWords(tcp, tcpLength, sum);
    const uint16_t check = foldChecksum(sum);
    tcp[16] = static_cast<uint8_t>(check >> 8);
    tcp[17] = static_cast<uint8_t>(check);

    // Seconds, microseconds, the bytes captured and the packet's length.
    const uint32_t header[4] = {static_cast<uint32_t>(timeNs / 1000000000),
                                static_cast<uint32_t>((timeNs / 1000) % 1000000), static_cast<uint32_t>(p.size()),
                                static_cast<uint32_t>(p.size())};
    fwrite(header, sizeof header, 1, file_);
    fwrite(p.data(), 1, p.size(), file_);
  }

  FILE* file_;
  Side client_, server_;
  uint32_t clientSeq_ = 1000;
  uint32_t serverSeq_ = 500000;
  uint16_t ipId_ = 1;
};

CaptureFile::~CaptureFile() {
  for (auto& entry : streams_) delete entry.second;
  if (file_ != nullptr) fclose(file_);
}

bool CaptureFile::open(const std::string& path, std::string* error) {
  FILE* file = fopen(path.c_str(), "wb");
  if (file == nullptr) {
    *error = strerror(errno);
    return false;
  }
  struct {
    uint32_t magic;
    uint16_t major, minor;
    int32_t zone;
    uint32_t accuracy, snapshot, link;
  } header = {kMagic, kVersionMajor, kVersionMinor, 0, 0, kSnapshotLength, kLinkTypeRaw};
  static_assert(sizeof header == 24, "the header as the format lays it out");
  if (fwrite(&header, sizeof header, 1, file) != 1) {
    *error = strerror(errno);
    fclose(file);
    return false;
  }
  file_ = file;
  return true;
}

void CaptureFile::opened(uint64_t id, const Peer& client, const Peer& server, int64_t timeNs) {
  Side clientSide, serverSide;
  if (file_ == nullptr || !sideOf(client, &clientSide) || !sideOf(server, &serverSide)) return;
  CaptureStream* stream = new CaptureStream(file_, clientSide, serverSide);
  streams_[id] = stream;
  stream->handshake(timeNs);
  flush();
}

void CaptureFile::attempted(const Peer& client, const Peer& server, bool refused, int64_t timeNs) {
  Side clientSide, serverSide;
  if (file_ == nullptr || !sideOf(client, &clientSide) || !sideOf(server, &serverSide)) return;
  CaptureStream(file_, clientSide, serverSide).attempt(timeNs, refused);
  flush();
}

void CaptureFile::data(uint64_t id, bool fromClient, const std::string& bytes, int64_t timeNs) {
  const auto found = streams_.find(id);
  if (found == streams_.end() || bytes.empty()) return;
  found->second->data(timeNs, fromClient, bytes);
  flush();
}

void CaptureFile::closed(uint64_t id, int64_t timeNs) {
  const auto found = streams_.find(id);
  if (found == streams_.end()) return;
  CaptureStream* stream = found->second;
  stream->close(timeNs);
  delete stream;
  streams_.erase(found);
  flush();
}

bool CaptureFile::flush() { return file_ != nullptr && fflush(file_) == 0 && ferror(file_) == 0; }

}  // namespace talvex
