#include "transport/agent_interface.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <unistd.h>

#include <string>
#include <thread>

#include "base/time_base.h"
#include "base/variable_names.h"
#include "log_capture.h"
#include "process_runner.h"
#include "recorder_endpoint.h"
#include "recorder_message_parser.h"
#include "startup/agent_startup.h"
#include "transport/recorder_channel_startup.h"

using namespace std::chrono_literals;
using talvex::RecorderEndpoint;
using talvex_test::LogCapture;

namespace {

class Channel : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(endpoint.start("127.0.0.1", 0, nullptr));
    port = std::to_string(endpoint.port());
    agentInterfaceUnplugged = 0;
  }
  void TearDown() override { agentInterfaceUnplugged = 0; }

  RecorderMessage* pending(const char* kind_marker) {
    RecorderMessage* message = createRecorderMessage(RMT_PROCESS, 0);
    message->set(RMA_INFO, kind_marker, 0);
    return message;
  }

  RecorderEndpoint endpoint;
  std::string port;
};

}  // namespace

TEST_F(Channel, DefaultsWithoutVariables) {
  AgentInterface channel(nullptr, nullptr, nullptr);
  EXPECT_STREQ(channel.address(), "127.0.0.1");
  EXPECT_EQ(channel.port(), 1092);
}

TEST_F(Channel, PortIsBaseTenWithoutValidation) {
  EXPECT_EQ(AgentInterface(nullptr, "not-a-port", nullptr).port(), 0);
  EXPECT_EQ(AgentInterface(nullptr, "2000x", nullptr).port(), 2000);
  EXPECT_EQ(AgentInterface(nullptr, "", nullptr).port(), 0);
}

TEST_F(Channel, PendingMessageGoesOnceBeforeTheFirstOther) {
  AgentInterface channel("127.0.0.1", port.c_str(), pending("first"));
  EXPECT_TRUE(channel.hasPendingMessage());
  RecorderMessage one(RMT_EXIT, 1), two(RMT_EXIT, 2);
  channel.sendAMessage(one);
  channel.sendAMessage(two);
  ASSERT_EQ(endpoint.waitForMessages(3, 5s), 3u);
  const auto messages = endpoint.messages();
  EXPECT_EQ(messages[0], "<process info_AS=\"first\"/>\n");
  EXPECT_EQ(messages[1], "<exit/>\n");
  EXPECT_EQ(messages[2], "<exit/>\n");
  EXPECT_EQ(endpoint.connectionCount(), 3u);
  EXPECT_FALSE(channel.hasPendingMessage());
}

TEST_F(Channel, PendingMessageGoesFirstWhateverThreadSends) {
  AgentInterface channel("127.0.0.1", port.c_str(), pending("first"));
  std::vector<std::thread> senders;
  for (int t = 0; t < 8; ++t) {
    senders.emplace_back([&channel, t] {
      RecorderMessage message(RMT_EXIT, t);
      channel.sendAMessage(message);
    });
  }
  for (auto& s : senders) s.join();
  ASSERT_EQ(endpoint.waitForMessages(9, 5s), 9u);
  const auto messages = endpoint.messages();
  EXPECT_EQ(messages[0], "<process info_AS=\"first\"/>\n");
  for (size_t i = 1; i < messages.size(); ++i) EXPECT_EQ(messages[i], "<exit/>\n");
}

TEST_F(Channel, UnpluggedConsumesThePendingMessageAndSendsNothing) {
  agentInterfaceUnplugged = 1;
  AgentInterface channel("127.0.0.1", port.c_str(), pending("first"));
  RecorderMessage message(RMT_EXIT, 1);
  channel.sendAMessage(message);
  EXPECT_FALSE(channel.hasPendingMessage());
  agentInterfaceUnplugged = 0;
  RecorderMessage after(RMT_EXIT, 2);
  channel.sendAMessage(after);
  ASSERT_EQ(endpoint.waitForMessages(1, 5s), 1u);
  endpoint.waitForQuiet(200ms, 2s);
  EXPECT_EQ(endpoint.messages(), std::vector<std::string>{"<exit/>\n"});
}

TEST_F(Channel, RefusedConnectionIsLoggedAndErrnoKept) {
  LogCapture log("1");
  const std::string closed = std::to_string(talvex_test::closedLoopbackPort());
  AgentInterface channel("127.0.0.1", closed.c_str(), pending("lost"));
  RecorderMessage message(RMT_EXIT, 1);
  errno = 4242;
  channel.sendAMessage(message);
  EXPECT_EQ(errno, 4242);
  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), 3u) << log.content();
  EXPECT_EQ(lines[1], "[ERROR]connect() returned SOCKET_ERROR, WSAGetLastError=111 WSAECONNREFUSED : Connection refused");
  EXPECT_EQ(lines[2], lines[1]);
}

TEST_F(Channel, MessagesAreLoggedAsData) {
  LogCapture log("64");
  AgentInterface channel("127.0.0.1", port.c_str(), nullptr);
  RecorderMessage message(RMT_EXIT, 17);
  channel.sendAMessage(message);
  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[1], "[DATA ][17]<exit/>");
}

TEST_F(Channel, OverLongAddressIsRefusedAndLogged) {
  LogCapture log("1");
  const std::string longAddress(250, '1');
  AgentInterface channel(longAddress.c_str(), port.c_str(), nullptr);
  EXPECT_STREQ(channel.address(), "");
  RecorderMessage message(RMT_EXIT, 1);
  channel.sendAMessage(message);
  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), 3u) << log.content();
  EXPECT_EQ(lines[1], "[ERROR]recorder address of 250 characters is too long (at most 199): nothing will be sent");
  EXPECT_EQ(lines[2], "[ERROR]no usable recorder address: message not sent");
  endpoint.waitForQuiet(200ms, 1s);
  EXPECT_EQ(endpoint.connectionCount(), 0u);
}

TEST_F(Channel, AddressOf199CharactersFitsButIsNoAddress) {
  LogCapture log("1");
  const std::string address(199, '9');
  AgentInterface channel(address.c_str(), port.c_str(), nullptr);
  EXPECT_EQ(std::string(channel.address()), address);
  EXPECT_NE(log.content().find("[ERROR]recorder address " + address + " is not an IPv4 address"), std::string::npos);
}

TEST_F(Channel, MessageOfManyMegabytesArrivesWhole) {
  AgentInterface channel("127.0.0.1", port.c_str(), nullptr);
  std::string payload(8 * 1024 * 1024, 'm');
  RecorderMessage message(RMT_SEND, 1);
  message.set(RMA_DATA, payload.data(), static_cast<int>(payload.size()));
  channel.sendAMessage(message);
  ASSERT_EQ(endpoint.waitForMessages(1, 20s), 1u);
  EXPECT_EQ(endpoint.messages()[0], "<send data_AS=\"" + payload + "\"/>\n");
}

TEST_F(Channel, NoticesAndExit) {
  AgentInterface* saved = agentInterface;
  AgentInterface channel("127.0.0.1", port.c_str(), nullptr);
  agentInterface = &channel;
  sendNotHookedInfo(nullptr);
  sendNotHookedInfo("listen");
  sendNotHookedBadArchi(nullptr);
  sendNotHookedBadArchi("ARM");
  EXPECT_EQ(end(), 0);
  agentInterface = saved;
  ASSERT_EQ(endpoint.waitForMessages(5, 5s), 5u);
  const auto messages = endpoint.messages();
  const char* expected[] = {"name", "???", "name", "listen", "info", "???", "info", "ARM"};
  unsigned previousTicket = 0;
  for (int i = 0; i < 4; ++i) {
    talvex::ParsedMessage parsed;
    std::string error;
    ASSERT_TRUE(talvex::parseRecorderMessage(messages[i], &parsed, &error)) << error;
    EXPECT_EQ(parsed.kind, "notrecorded");
    ASSERT_EQ(parsed.attributes.size(), 3u) << messages[i];  // no clock: no timestamp_ns
    EXPECT_EQ(parsed.attributes[0].name, "timestamp");
    EXPECT_EQ(parsed.attributes[0].type, talvex::ValueType::I8);
    EXPECT_NEAR(static_cast<double>(parsed.attributes[0].integer), static_cast<double>(getTimeStamp()), 60000.0);
    EXPECT_EQ(parsed.attributes[1].name, "ticket");
    EXPECT_GT(static_cast<unsigned>(parsed.attributes[1].integer), previousTicket);
    previousTicket = static_cast<unsigned>(parsed.attributes[1].integer);
    EXPECT_EQ(parsed.attributes[2].name, expected[2 * i]);
    EXPECT_EQ(parsed.attributes[2].bytes, expected[2 * i + 1]);
  }
  EXPECT_EQ(messages[4], "<exit/>\n");
}

TEST_F(Channel, NoticeCarriesTheClockWhenThereIsOne) {
  AgentInterface* saved = agentInterface;
  AgentInterface channel("127.0.0.1", port.c_str(), nullptr);
  agentInterface = &channel;
  getCurrentTimePtr = [] { return static_cast<int64_t>(1700000000123456789LL); };
  sendNotHookedInfo("select");
  getCurrentTimePtr = nullptr;
  agentInterface = saved;
  ASSERT_EQ(endpoint.waitForMessages(1, 5s), 1u);
  EXPECT_EQ(endpoint.messages()[0].rfind("<notrecorded timestamp_ns_I8=\"17979cfe3d85cd15\" timestamp_I8=\"", 0), 0u);
}

TEST_F(Channel, EndLogsItsCallNumber) {
  LogCapture log("16");
  AgentInterface* saved = agentInterface;
  agentInterface = nullptr;
  EXPECT_EQ(end(), 0);
  agentInterface = saved;
  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[1].rfind("[RET  ][", 0), 0u);
  EXPECT_NE(lines[1].find("]end called"), std::string::npos);
}

TEST_F(Channel, EmitEndOfProcessSendsOnlyAnExit) {
  EXPECT_EQ(AgentInterface::emitEndOfProcess("127.0.0.1", port.c_str(), 12345), 0);
  ASSERT_EQ(endpoint.waitForMessages(1, 5s), 1u);
  EXPECT_EQ(endpoint.messages()[0], "<exit/>\n");
}

namespace {
// Runs in a child: with no descriptor left, the channel's socket() fails with EMFILE. Exits 0
// when the failure was logged with its code and errno came back unchanged.
void sendWithoutDescriptors() {
  LogCapture log("1");
  AgentInterface channel("127.0.0.1", "1", nullptr);
  rlimit limit;
  getrlimit(RLIMIT_NOFILE, &limit);
  const rlim_t usual = limit.rlim_cur;
  limit.rlim_cur = 0;
  setrlimit(RLIMIT_NOFILE, &limit);
  RecorderMessage message(RMT_EXIT, 1);
  errno = 5;
  channel.sendAMessage(message);
  const bool kept = errno == 5;
  limit.rlim_cur = usual;
  setrlimit(RLIMIT_NOFILE, &limit);
  const auto lines = log.lines();
  const bool logged = lines.size() == 2 &&
                      lines[1] == "[ERROR]socket() returned INVALID_SOCKET, WSAGetLastError=24 ????? : unknown code";
  _exit(kept && logged ? 0 : 1);
}
}  // namespace

TEST(ChannelDeathTest, SocketFailureIsLoggedWithItsCode) {
  EXPECT_EXIT(sendWithoutDescriptors(), ::testing::ExitedWithCode(0), "");
}

TEST(ChannelDeathTest, EmitEndOfProcessWithoutWorkingDirectoryExits255) {
  EXPECT_EXIT(
      {
        char dir[] = "/tmp/talvex-cwd-XXXXXX";
        if (mkdtemp(dir) == nullptr || chdir(dir) != 0 || rmdir(dir) != 0) _exit(3);
        AgentInterface::emitEndOfProcess("127.0.0.1", "1", 0);
        _exit(4);
      },
      ::testing::ExitedWithCode(255), "");
}

TEST(RecorderChannelStartup, ProcessMessageAndUnpluggedBanner) {
  LogCapture log("2");
  RecorderEndpoint endpoint;
  ASSERT_TRUE(endpoint.start("127.0.0.1", 0, nullptr));
  AgentInterface* saved = agentInterface;
  setenv(TALVEX_VAR_UNPLUG_AGENT, "", 1);
  setenv(TALVEX_VAR_IP_ADDRESS, "127.0.0.1", 1);
  setenv(TALVEX_VAR_PORT_NUMBER, std::to_string(endpoint.port()).c_str(), 1);
  getCurrentTimePtr = [] { return static_cast<int64_t>(1700000000123456789LL); };
  startRecorderChannel();
  getCurrentTimePtr = nullptr;
  unsetenv(TALVEX_VAR_UNPLUG_AGENT);
  unsetenv(TALVEX_VAR_IP_ADDRESS);
  unsetenv(TALVEX_VAR_PORT_NUMBER);
  EXPECT_EQ(agentInterfaceUnplugged, 1);
  const auto lines = log.lines();
  ASSERT_GE(lines.size(), 7u) << log.content();
  EXPECT_EQ(lines[1], "[INFO ]************************************************************");
  EXPECT_EQ(lines[2], "[INFO ]* WARNING :                                                *");
  EXPECT_EQ(lines[3], "[INFO ]*    agent interface is unplugged (recording disabled)     *");
  EXPECT_EQ(lines[4], "[INFO ]*    undefine \"TALVEX_SOCKET_AGENT_UNPLUG_AGENT\" *");
  EXPECT_EQ(lines[5], "[INFO ]************************************************************");
  EXPECT_EQ(lines[6], "[INFO ]@@@@ ip : 127.0.0.1\t @@@@ port : " + std::to_string(endpoint.port()));

  // Plugged back in, the pending process message goes out with the first message.
  agentInterfaceUnplugged = 0;
  RecorderMessage first(RMT_EXIT, 1);
  ASSERT_NE(agentInterface, saved);
  agentInterface->sendAMessage(first);
  agentInterface = saved;
  ASSERT_EQ(endpoint.waitForMessages(2, 5s), 2u);
  char* cwd = get_current_dir_name();
  char pidHex[16];
  snprintf(pidHex, sizeof pidHex, "%x", getpid());
  const std::string workingDir = cwd;
  free(cwd);
  const std::string prefix = "<process timestamp_ns_I8=\"17979cfe3d85cd15\" timestamp_I4=\"0\" ticket_I4=\"";
  const std::string message = endpoint.messages()[0];
  ASSERT_EQ(message.rfind(prefix, 0), 0u) << message;
  const size_t ticketEnd = message.find('"', prefix.size());
  EXPECT_EQ(message.substr(ticketEnd), "\" workingdir_AS=\"" + workingDir + "\" pid_I4=\"" + pidHex +
                                           "\" archi_AS=\"LINUX\"/>\n");
  EXPECT_EQ(endpoint.messages()[1], "<exit/>\n");
}


TEST(RecorderChannelStartup, RunAgainAfterCleanBuildsANewInterface) {
  // As in a process whose start-up has already run, so that only the recording start-up runs.
  const int savedDone = globalInitDone;
  globalInitDone = 1;
  AgentInterface* saved = agentInterface;
  cleanSocketPointers();
  initializeSocketPointers();
  AgentInterface* first = agentInterface;
  ASSERT_NE(first, nullptr);
  EXPECT_NE(first, saved);
  EXPECT_TRUE(first->hasPendingMessage());
  EXPECT_EQ(socketInitialized, 1);
  initializeSocketPointers();  // already done: nothing new
  EXPECT_EQ(agentInterface, first);
  cleanSocketPointers();
  initializeSocketPointers();
  EXPECT_NE(agentInterface, first);
  EXPECT_TRUE(agentInterface->hasPendingMessage());
  agentInterface = saved;
  globalInitDone = savedDone;
}

TEST(RecorderChannelStartup, StartUpLineNamesTheWordSize) {
  const int savedDone = globalInitDone;
  globalInitDone = 1;
  AgentInterface* saved = agentInterface;
  talvex_test::LogCapture log("2");
  cleanSocketPointers();
  initializeSocketPointers();
  const auto lines = log.lines();
  agentInterface = saved;
  globalInitDone = savedDone;
  // The first line after the log header: the agent says which of its two builds it is.
  ASSERT_GE(lines.size(), 2u) << log.content();
  EXPECT_EQ(lines[1], sizeof(void*) == 8 ? "[INFO ]initialize library 64" : "[INFO ]initialize library 32") << log.content();
}
