// A payload held by reference reads the same bytes an escaped one would, and reaches the recorder
// as the same text, whether a shared ring takes it or the connection does.
#include "message/held_payload.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <unistd.h>

#include <random>
#include <string>
#include <vector>

#include "local_recorder.h"
#include "log_capture.h"
#include "message/print_buffer.h"
#include "message/recorder_message.h"
#include "process_runner.h"
#include "recorder_endpoint.h"
#include "reference_escape.h"
#include "startup/agent_startup.h"
#include "transport/agent_interface.h"
#include "transport/persistent_channel.h"
#include "transport/recorder_socket.h"
#include "transport/shared_ring.h"
#include "transport/transport_choice.h"

using namespace std::chrono_literals;

namespace {

std::vector<std::string> piecesOf(const HeldPayload& payload, size_t most) {
  std::vector<std::string> pieces;
  PayloadPieces walk(payload);
  const unsigned char* bytes;
  size_t n;
  while (walk.next(most, &bytes, &n)) pieces.emplace_back(reinterpret_cast<const char*>(bytes), n);
  return pieces;
}

// A payload of `size` random bytes, cut into vectors at random places, with an empty vector and
// one without storage among them.
struct RandomPayload {
  RandomPayload(std::mt19937& random, size_t size) : bytes(size, '\0') {
    for (char& c : bytes) c = static_cast<char>(random());
    const size_t cut = size == 0 ? 0 : random() % size;
    char* base = &bytes[0];
    vectors = {{base, cut}, {nullptr, 77}, {base + cut, 0}, {base + cut, size - cut}};
  }
  std::string bytes;
  std::vector<iovec> vectors;
};

// The same send message, its payload escaped at once or held.
void buildSend(PrintBuffer& buffer, const RandomPayload& payload, bool held) {
  buffer.append("<send", 5);
  buffer.appendAttr(RMA_TICKET, 7);
  const auto count = static_cast<unsigned>(payload.vectors.size());
  if (held) {
    buffer.appendHeldAttr(RMA_DATA, payload.vectors.data(), count, payload.bytes.size());
  } else {
    buffer.appendAttr(RMA_DATA, payload.vectors.data(), count, payload.bytes.size());
  }
  buffer.appendAttr(RMA_LENGTH, static_cast<unsigned>(payload.bytes.size()));
  buffer.append("/>\n", 3);
}

sockaddr_in loopback(int port) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

// Sends a message holding `size` random bytes on the persistent channel to the recorder at
// `port`, and returns the text it must arrive as.
std::string sendHeldPayload(std::mt19937& random, size_t size, int port) {
  const RandomPayload payload(random, size);
  PrintBuffer escaped, held;
  buildSend(escaped, payload, false);
  buildSend(held, payload, true);
  sendOnPersistentChannel(loopback(port), held.outgoing());
  return std::string(escaped.toString(), escaped.length());
}

// The channel's switches as the environment sets them, for one test, and the channel closed after.
class ChannelSwitches {
 public:
  explicit ChannelSwitches(const std::string& localSocket) {
    setenv(kPersistentChannelVariable, "1", 1);
    if (!localSocket.empty()) {
      setenv(kRecorderSocketVariable, localSocket.c_str(), 1);
      setenv(kSharedRingVariable, "1", 1);
    }
    readSwitches();
  }
  ~ChannelSwitches() {
    leavePersistentChannelAfterFork();
    unsetenv(kPersistentChannelVariable);
    unsetenv(kRecorderSocketVariable);
    unsetenv(kSharedRingVariable);
    readSwitches();
  }

 private:
  static void readSwitches() {
    readPersistentChannel();
    readRecorderSocket();
    readSharedRing();
    chooseTransport();
  }
};

}  // namespace

TEST(HeldPayload, PiecesAreTheVectorsBytesInOrderUpToTheLimit) {
  char first[] = "abcdefgh", second[] = "ijklmnop";
  const iovec vectors[4] = {{first, 8}, {nullptr, 5}, {second, 0}, {second, 8}};
  HeldPayload payload = {vectors, 4, 13, {nullptr, 0}};
  EXPECT_EQ(piecesOf(payload, 3), (std::vector<std::string>{"abc", "def", "gh", "ijk", "lm"}));
  payload.limit = 100;
  EXPECT_EQ(piecesOf(payload, 100), (std::vector<std::string>{"abcdefgh", "ijklmnop"}));
  payload.limit = 0;
  EXPECT_TRUE(piecesOf(payload, 3).empty());
  payload.limit = 8;
  payload.count = 0;
  EXPECT_TRUE(piecesOf(payload, 3).empty());
}

// Held, the text lacks the escape at its hole; released, it is the text the payload escaped at
// once would have made, whatever follows the hole.
TEST(HeldPayload, AReleasedPayloadIsItsEscapeInItsPlace) {
  std::mt19937 random(20261122);
  for (int round = 0; round < 200; ++round) {
    const RandomPayload payload(random, round < 100 ? static_cast<size_t>(round) : random() % 70000);
    PrintBuffer escaped, held;
    buildSend(escaped, payload, false);
    buildSend(held, payload, true);
    const std::string whole(escaped.toString(), escaped.length());
    const OutgoingText out = held.outgoing();
    ASSERT_EQ(out.payload != nullptr, true);
    const std::string head(out.text, out.holeAt), tail(out.text + out.holeAt, out.length - out.holeAt);
    ASSERT_EQ(head + referenceEscape(payload.bytes) + tail, whole) << "length " << payload.bytes.size();
    held.releasePayload();
    EXPECT_FALSE(held.holdsPayload());
    ASSERT_EQ(std::string(held.toString(), held.length()), whole) << "length " << payload.bytes.size();
    EXPECT_EQ(held.outgoing().payload, nullptr);
  }
}

TEST(HeldPayload, ASecondPayloadIsEscapedAtOnce) {
  char first[] = "first\n", second[] = "second\n";
  PrintBuffer buffer;
  buffer.appendHeldAttr(RMA_DATA, first, 6);
  buffer.appendHeldAttr(RMA_INFO, second, 7);
  const OutgoingText out = buffer.outgoing();
  EXPECT_EQ(std::string(out.text, out.length), " data_AS=\"\" info_AS=\"second&#x0a;\"");
  EXPECT_EQ(out.holeAt, 10u);
  buffer.releasePayload();
  EXPECT_EQ(std::string(buffer.toString()), " data_AS=\"first&#x0a;\" info_AS=\"second&#x0a;\"");
}

// Over TCP, with no ring, a held payload is escaped a piece at a time on its way.
TEST(HeldPayload, TheConnectionCarriesAHeldPayloadAsItsEscape) {
  talvex::RecorderEndpoint endpoint;
  ASSERT_TRUE(endpoint.start("127.0.0.1", 0, nullptr));
  ChannelSwitches switches("");
  std::mt19937 random(7);
  std::vector<std::string> expected;
  for (const size_t size : {size_t(5000), size_t(16384), size_t(16385), size_t(300000)}) {
    expected.push_back(sendHeldPayload(random, size, endpoint.port()));
  }
  EXPECT_FALSE(sharedRingActive());
  ASSERT_EQ(endpoint.waitForMessages(expected.size(), 10s), expected.size());
  EXPECT_EQ(endpoint.messages(), expected);
  EXPECT_EQ(endpoint.connectionCount(), 1u);
}

// Through a shared ring, a held payload is escaped into the ring: messages larger than the ring,
// and many that wrap around its end, arrive as the same text.
TEST(HeldPayload, ASharedRingTakesAHeldPayloadAsItsEscape) {
  talvex_test::LocalRecorder recorder(talvex_test::localSocketName("held-payload-test"));
  ASSERT_TRUE(recorder.listening());
  talvex::RecorderEndpoint& endpoint = recorder.endpoint();
  ChannelSwitches switches(recorder.name());
  std::mt19937 random(11);
  std::vector<std::string> expected;
  std::vector<size_t> sizes = {1, 4096, 6000000};
  for (int i = 0; i < 60; ++i) sizes.push_back(1 + random() % 400000);
  for (const size_t size : sizes) {
    expected.push_back(sendHeldPayload(random, size, endpoint.port()));
    ASSERT_TRUE(sharedRingActive());
  }
  ASSERT_EQ(endpoint.waitForMessages(expected.size(), 20s), expected.size());
  const auto received = endpoint.messages();
  ASSERT_EQ(received.size(), expected.size());
  for (size_t i = 0; i < expected.size(); ++i) EXPECT_TRUE(received[i] == expected[i]) << "message " << i;
  EXPECT_EQ(endpoint.sharedRingCount(), 1u);
}

// A message holds a payload only when a ring will take it, only its data, and only a large one;
// the log line it makes shows it whole.
TEST(HeldPayload, AMessageHoldsALargeDataPayloadOnlyForARing) {
  talvex_test::LocalRecorder recorder(talvex_test::localSocketName("held-message-test"));
  ASSERT_TRUE(recorder.listening());
  talvex::RecorderEndpoint& endpoint = recorder.endpoint();
  const std::string large(kHeldPayloadBytes, 'L'), small(kHeldPayloadBytes - 1, 's');
  auto holds = [&](RecorderMessageAttribute attribute, const std::string& payload) {
    RecorderMessage message(RMT_SEND, 1);
    message.set(attribute, payload.data(), static_cast<int>(payload.size()));
    return message.holdsPayload();
  };
  EXPECT_FALSE(holds(RMA_DATA, large));
  ChannelSwitches switches(recorder.name());
  EXPECT_FALSE(holds(RMA_DATA, large));
  agentInterfaceUnplugged = 0;
  AgentInterface channel("127.0.0.1", std::to_string(endpoint.port()).c_str(), nullptr);
  RecorderMessage first(RMT_EXIT, 1);
  channel.sendAMessage(first);
  ASSERT_TRUE(sharedRingActive());
  EXPECT_TRUE(holds(RMA_DATA, large));
  EXPECT_FALSE(holds(RMA_DATA, small));
  EXPECT_FALSE(holds(RMA_INFO, large));

  talvex_test::LogCapture log("64");
  RecorderMessage logged(RMT_SEND, 2);
  logged.set(RMA_DATA, large.data(), static_cast<int>(large.size()));
  ASSERT_TRUE(logged.holdsPayload());
  channel.sendAMessage(logged);
  ASSERT_EQ(endpoint.waitForMessages(2, 10s), 2u);
  EXPECT_EQ(endpoint.messages()[1], "<send data_AS=\"" + large + "\"/>\n");
  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), 2u) << log.content();
  EXPECT_EQ(lines[1], "[DATA ][2]<send data_AS=\"" + large + "\"/>");
}
