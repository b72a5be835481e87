#include "recorder_message_parser.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

#include "message/recorder_message.h"
#include "message_json.h"

using talvex::ParsedMessage;
using talvex::parseRecorderMessage;
using talvex::RecorderMessageFormCheck;
using talvex::ValueType;

namespace {
const std::string kWorkedExample =
    "<send timestamp_ns_I8=\"17979cfe3d85cd15\" timestamp_I8=\"18bcfe5687b\" ticket_I4=\"5\" socket_I8=\"7\" "
    "pid_I4=\"1092\" data_AS=\"PING 1\\x0d&#x0a;\" length_U4=\"8\"/>\n";
}

TEST(MessageParser, WorkedExample) {
  ParsedMessage m;
  std::string error;
  ASSERT_TRUE(parseRecorderMessage(kWorkedExample, &m, &error)) << error;
  EXPECT_EQ(m.kind, "send");
  ASSERT_EQ(m.attributes.size(), 7u);
  EXPECT_EQ(m.attributes[0].name, "timestamp_ns");
  EXPECT_EQ(m.attributes[0].type, ValueType::I8);
  EXPECT_EQ(m.attributes[0].integer, 1700000000123456789LL);
  EXPECT_EQ(m.find("timestamp")->integer, 1700000000123LL);
  EXPECT_EQ(m.find("pid")->integer, 4242);
  EXPECT_EQ(m.find("data")->bytes, "PING 1\r\n");
  EXPECT_EQ(m.find("data")->raw, "PING 1\\x0d&#x0a;");
  EXPECT_EQ(m.find("length")->type, ValueType::U4);
  EXPECT_EQ(m.find("length")->integer, 8);
  EXPECT_EQ(m.find("missing"), nullptr);
}

TEST(MessageParser, SignsFollowTheType) {
  ParsedMessage m;
  ASSERT_TRUE(parseRecorderMessage("<close error_I4=\"ffffffff\" length_U4=\"ffffffff\" socket_I8=\"ffffffffffffffff\"/>",
                                   &m, nullptr));
  EXPECT_EQ(m.attributes[0].integer, -1);
  EXPECT_EQ(m.attributes[1].integer, 4294967295LL);
  EXPECT_EQ(m.attributes[2].integer, -1);
}

// Milliseconds beyond what nanoseconds can hold (no clock gives them; a peer's garbage can) read as
// the end of the range, never as an overflow (found by the fuzz target).
TEST(MessageParser, TimesBeyondTheRangeOfNanosecondsAreItsEnds) {
  ParsedMessage m;
  ASSERT_TRUE(parseRecorderMessage("<send timestamp_I8=\"40c397e3c8d15\"/>", &m, nullptr));
  EXPECT_EQ(m.timeNs(), INT64_MAX);
  ASSERT_TRUE(parseRecorderMessage("<send timestamp_I8=\"ffbc7f99c54482eb\"/>", &m, nullptr));
  EXPECT_EQ(m.timeNs(), INT64_MIN);
  ASSERT_TRUE(parseRecorderMessage("<send timestamp_I8=\"19a7afd1f3e\"/>", &m, nullptr));
  EXPECT_EQ(m.timeNs(), 1763000000318LL * 1000000);
}

TEST(MessageParser, WideStringsKeepLowBytes) {
  ParsedMessage m;
  ASSERT_TRUE(parseRecorderMessage("<debug name_UN=\"A\\uac&#x22;\"/>\n", &m, nullptr));
  EXPECT_EQ(m.attributes[0].type, ValueType::UN);
  EXPECT_EQ(m.attributes[0].bytes, std::string("A\xac\""));
}

TEST(MessageParser, RejectsMalformedLinesWithAReason) {
  const struct {
    const char* text;
    const char* reason;
  } cases[] = {
      {"", "message ends where '<' was expected at byte 0"},
      {"send/>", "expected '<' at byte 0"},
      {"</>", "missing message kind at byte 1"},
      {"<send", "message ends where '/' was expected at byte 5"},
      {"<send x_ZZ=\"1\"/>", "unknown type tag 'ZZ' of attribute x at byte 8"},
      {"<send ticket_I4=\"\"/>", "empty number in ticket at byte 17"},
      {"<send ticket_I4=\"123456789\"/>", "too many digits in ticket at byte 26"},
      {"<send ticket_I4=\"AB\"/>", "not a lower-case hexadecimal digit in ticket at byte 17"},
      {"<send data_AS=\"abc", "value of data is not closed at byte 18"},
      {"<send data_AS=\"a&b\"/>", "'&' that does not start an escape at byte 16"},
      {"<send data_AS=\"\\q\"/>", "unknown escape '\\q' at byte 16"},
      {"<send data_AS=\"\\x4\"/>", "bad hexadecimal digit in escape at byte 17"},
      {"<send data_AS=\"a<\"/>", "unescaped byte 60 in data at byte 16"},
      {"<send data_AS=\"\\u41\"/>", "unknown escape '\\u' at byte 16"},
      {"<send/>\nextra", "unexpected bytes after the end of the message at byte 8"},
      {"<send/>\n<exit/>\n", "unexpected bytes after the end of the message at byte 8"},
      {"<send _I4=\"1\"/>", "attribute without a name and type tag at byte 7"},
  };
  for (const auto& c : cases) {
    ParsedMessage m;
    std::string error;
    EXPECT_FALSE(parseRecorderMessage(c.text, &m, &error)) << c.text;
    EXPECT_EQ(error, c.reason) << c.text;
  }
}

// A reader that parses every message into the same ParsedMessage sees only the last one's
// attributes, whatever came before it: longer, shorter, or broken.
TEST(MessageParser, AReusedMessageHoldsOnlyTheLastMessagesAttributes) {
  ParsedMessage reused;
  ASSERT_TRUE(parseRecorderMessage(kWorkedExample, &reused, nullptr));
  ASSERT_TRUE(parseRecorderMessage("<close socket_I8=\"7\"/>\n", &reused, nullptr));
  EXPECT_EQ(reused.kind, "close");
  ASSERT_EQ(reused.attributes.size(), 1u);
  EXPECT_EQ(reused.attributes[0].name, "socket");
  EXPECT_EQ(reused.attributes[0].raw, "7");
  EXPECT_EQ(reused.attributes[0].bytes, "");
  ASSERT_TRUE(parseRecorderMessage(kWorkedExample, &reused, nullptr, false));
  // Stepped over this time: the payload decoded by the first parse is not left behind.
  EXPECT_EQ(reused.find("data")->bytes, "");
  EXPECT_FALSE(parseRecorderMessage("garbage", &reused, nullptr));
  EXPECT_TRUE(reused.attributes.empty());
  ParsedMessage fresh;
  ASSERT_TRUE(parseRecorderMessage(kWorkedExample, &reused, nullptr));
  ASSERT_TRUE(parseRecorderMessage(kWorkedExample, &fresh, nullptr));
  ASSERT_EQ(reused.attributes.size(), fresh.attributes.size());
  for (size_t i = 0; i < fresh.attributes.size(); ++i) {
    EXPECT_EQ(reused.attributes[i].name, fresh.attributes[i].name);
    EXPECT_EQ(reused.attributes[i].raw, fresh.attributes[i].raw);
    EXPECT_EQ(reused.attributes[i].integer, fresh.attributes[i].integer);
    EXPECT_EQ(reused.attributes[i].bytes, fresh.attributes[i].bytes);
  }
}

// The form check says yes exactly where the parser, stepping over payloads, does: for every
// prefix of a real message, for every single byte of it replaced by each of a few others, and for
// a few lines that are no message at all.
TEST(MessageParser, TheFormCheckAgreesWithTheParser) {
  RecorderMessage message(RMT_SEND, 3);
  message.set(RMA_TIMESTAMP_NS, static_cast<int64_t>(1700000000123456789LL));
  message.set(RMA_SOCKET, 7);
  message.set(RMA_DATA, "GET / HTTP/1.1\r\n\"&<\\", 20);
  message.set(RMA_NAME, L"recv", 4);
  message.set(RMA_LENGTH, 20u);
  message.finish();
  const std::string whole(message.toString(), message.length());
  std::vector<std::string> texts = {whole, kWorkedExample, "<exit/>", "<exit/>\n", "garbage", ""};
  for (size_t n = 0; n < whole.size(); ++n) texts.push_back(whole.substr(0, n));
  for (size_t i = 0; i < whole.size(); ++i) {
    for (const char c : {'"', '<', '>', '/', ' ', '=', '_', 'A', 'g', '0', '\\', '&', '\n', '\0'}) {
      std::string changed = whole;
      changed[i] = c;
      texts.push_back(changed);
    }
  }
  int accepted = 0;
  // One check that has seen every text before and one that sees each as its first: the heads
  // it remembers never change its answer.
  RecorderMessageFormCheck seasoned;
  for (const std::string& text : texts) {
    ParsedMessage m;
    const bool parsed = parseRecorderMessage(text, &m, nullptr, false);
    EXPECT_EQ(RecorderMessageFormCheck().wellFormed(text), parsed) << text;
    EXPECT_EQ(seasoned.wellFormed(text), parsed) << text;
    EXPECT_EQ(seasoned.wellFormed(whole), true);
    accepted += parsed;
  }
  // Both answers occur, so the comparison tells something.
  EXPECT_GT(accepted, 10);
  EXPECT_LT(accepted, static_cast<int>(texts.size()) - 100);
}

TEST(MessageParser, RoundTripOfRandomPayloads) {
  std::mt19937 random(20261121);
  std::vector<std::string> payloads = {std::string(), std::string(1, '\0')};
  std::string everyByte;
  for (int b = 0; b < 256; ++b) everyByte.push_back(static_cast<char>(b));
  payloads.push_back(everyByte);
  for (int i = 0; i < 300; ++i) {
    std::string p(random() % 2000, '\0');
    for (char& c : p) c = static_cast<char>(random() & 0xff);
    payloads.push_back(p);
  }
  std::string big(1 << 20, '\0');
  for (char& c : big) c = static_cast<char>(random() & 0xff);
  payloads.push_back(big);

  for (const std::string& payload : payloads) {
    RecorderMessage message(RMT_SEND, 0);
    message.set(RMA_TICKET, static_cast<int>(random()));
    // A count of 0 would mean "up to the NUL", so an empty payload is the empty string.
    message.set(RMA_DATA, payload.empty() ? "" : payload.data(), static_cast<int>(payload.size()));
    message.set(RMA_LENGTH, static_cast<unsigned>(payload.size()));
    message.finish();
    ParsedMessage parsed;
    std::string error;
    ASSERT_TRUE(parseRecorderMessage(std::string(message.toString(), message.length()), &parsed, &error)) << error;
    ASSERT_EQ(parsed.attributes.size(), 3u);
    ASSERT_EQ(parsed.find("data")->bytes, payload);
    ASSERT_EQ(parsed.find("length")->integer, static_cast<int64_t>(payload.size()));
  }
}

TEST(MessageJson, WorkedExample) {
  ParsedMessage m;
  ASSERT_TRUE(parseRecorderMessage(kWorkedExample, &m, nullptr));
  // One flat object: numbers while a double holds them, the nanoseconds as a string.
  EXPECT_EQ(talvex::messageToJson(m),
            "{\"kind\":\"send\",\"timestamp_ns\":\"1700000000123456789\",\"timestamp\":1700000000123,\"ticket\":5,"
            "\"socket\":7,\"pid\":4242,\"data\":\"PING 1\\r\\n\",\"data_b64\":\"UElORyAxDQo=\",\"length\":8}");
  talvex::ConnectionEnds ends;
  ends.family = "AF_INET6";
  ends.remoteIp = "::1";
  ends.remotePort = 8080;
  ends.localPort = 40000;
  talvex::MessageContext context;
  context.ends = &ends;
  EXPECT_EQ(talvex::messageToJson(m, &context),
            "{\"kind\":\"send\",\"timestamp_ns\":\"1700000000123456789\",\"timestamp\":1700000000123,\"ticket\":5,"
            "\"socket\":7,\"pid\":4242,\"data\":\"PING 1\\r\\n\",\"data_b64\":\"UElORyAxDQo=\",\"length\":8,"
            "\"family\":\"AF_INET6\",\"local_port\":40000,\"remote_ip\":\"::1\",\"remote_port\":8080}");
}

TEST(MessageJson, AddressesErrorsAndLargeNumbersAsJqReadsThem) {
  ParsedMessage m;
  ASSERT_TRUE(parseRecorderMessage("<connect timestamp_I8=\"20000000000001\" ticket_I4=\"ffffffff\" "
                                   "family_AS=\"AF_CCITT\" ip_AS=\"0:0:0:0:0:0:0:1\" port_I4=\"50\" error_I4=\"6f\"/>\n",
                                   &m, nullptr));
  EXPECT_EQ(talvex::messageToJson(m),
            "{\"kind\":\"connect\",\"timestamp\":\"9007199254740993\",\"ticket\":-1,\"family\":\"AF_INET6\","
            "\"remote_ip\":\"::1\",\"remote_port\":80,\"error\":111,\"error_name\":\"ECONNREFUSED\"}");
}

TEST(MessageJson, OneNamePerFactAndTheContextOfTheConnection) {
  ParsedMessage m;
  ASSERT_TRUE(parseRecorderMessage("<process timestamp_ns_I8=\"17a40c397e3c8d15\" timestamp_I4=\"0\" ticket_I4=\"1\" "
                                   "workingdir_AS=\"/tmp\" pid_I4=\"10\" archi_AS=\"LINUX\" "
                                   "commandline_AS=\"curl\\x00-s\\x00\"/>\n",
                                   &m, nullptr));
  // The process's own time, not the agent's 0.
  EXPECT_EQ(talvex::messageToJson(m),
            "{\"kind\":\"process\",\"timestamp_ns\":\"1703500000123456789\",\"timestamp\":1703500000123,\"ticket\":1,"
            "\"working_directory\":\"/tmp\",\"pid\":16,\"archi\":\"LINUX\",\"command_line\":[\"curl\",\"-s\"]}");
  ASSERT_TRUE(parseRecorderMessage("<addrinfo ticket_I4=\"2\" family_AS=\"AF_CCITT\" name_AS=\"h\" ip_AS=\"1.2.3.4\" "
                                   "address_AS=\"0:0:0:0:0:0:0:1\"/>\n",
                                   &m, nullptr));
  talvex::MessageContext context;
  context.pid = 77;
  EXPECT_EQ(talvex::messageToJson(m, &context),
            "{\"kind\":\"addrinfo\",\"ticket\":2,\"family\":\"AF_INET6\",\"name\":\"h\",\"address\":\"::1\",\"pid\":77}");
  ASSERT_TRUE(parseRecorderMessage("<addrinfo ticket_I4=\"2\" name_AS=\"x.invalid\" gaierror_I4=\"fffffffe\"/>\n", &m, nullptr));
  EXPECT_EQ(talvex::messageToJson(m),
            "{\"kind\":\"addrinfo\",\"ticket\":2,\"name\":\"x.invalid\",\"resolver_error\":-2,"
            "\"resolver_error_name\":\"EAI_NONAME\"}");
  ASSERT_TRUE(parseRecorderMessage("<notrecorded socket_I8=\"5\" family_AS=\"AF_UNIX\" kind_AS=\"stream\"/>\n", &m, nullptr));
  EXPECT_EQ(talvex::messageToJson(m),
            "{\"kind\":\"notrecorded\",\"socket\":5,\"family\":\"AF_UNIX\",\"socket_kind\":\"stream\"}");
  ASSERT_TRUE(parseRecorderMessage("<connectoutcome socket_I8=\"5\" error_I4=\"6f\"/>\n", &m, nullptr));
  talvex::ConnectionEnds ends;
  ends.family = "AF_INET";
  ends.remoteIp = "127.0.0.1";
  ends.remotePort = 9;
  context.ends = &ends;
  context.connection = 3;
  context.state = "failed";
  context.connectionError = 111;
  EXPECT_EQ(talvex::messageToJson(m, &context),
            "{\"kind\":\"connectoutcome\",\"socket\":5,\"error\":111,\"error_name\":\"ECONNREFUSED\",\"pid\":77,"
            "\"family\":\"AF_INET\",\"remote_ip\":\"127.0.0.1\",\"remote_port\":9,\"connection\":3,"
            "\"connection_state\":\"failed\",\"connection_error\":111,\"connection_error_name\":\"ECONNREFUSED\"}");
}

TEST(MessageJson, BinaryPayloadHasNoTextButBase64) {
  ParsedMessage m;
  ASSERT_TRUE(parseRecorderMessage("<receive data_AS=\"\\x00\\xff\"/>\n", &m, nullptr));
  EXPECT_EQ(talvex::messageToJson(m), "{\"kind\":\"receive\",\"data\":null,\"data_b64\":\"AP8=\"}");
  EXPECT_EQ(talvex::malformedToJson("<x", "why \"so\""),
            "{\"kind\":\"malformed\",\"reason\":\"why \\\"so\\\"\",\"raw_b64\":\"PHg=\"}");
  // UTF-8 text is text; a lone continuation byte or an overlong form is not.
  ASSERT_TRUE(parseRecorderMessage("<receive data_AS=\"caf\\xc3\\xa9\"/>\n", &m, nullptr));
  EXPECT_EQ(talvex::messageToJson(m), "{\"kind\":\"receive\",\"data\":\"caf\xc3\xa9\",\"data_b64\":\"Y2Fmw6k=\"}");
  EXPECT_FALSE(talvex::isUtf8("\x80"));
  EXPECT_FALSE(talvex::isUtf8("\xc0\xaf"));
  EXPECT_FALSE(talvex::isUtf8("\xe2\x82"));
  EXPECT_TRUE(talvex::isUtf8("\xe2\x82\xac"));
  EXPECT_EQ(talvex::base64Encode(""), "");
  EXPECT_EQ(talvex::base64Encode("a"), "YQ==");
  EXPECT_EQ(talvex::base64Encode("ab"), "YWI=");
  EXPECT_EQ(talvex::base64Encode("abc"), "YWJj");
}
