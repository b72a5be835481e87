#include "message/recorder_message.h"

#include "message/payload_escaping.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "reference_escape.h"

namespace {

std::string finished(RecorderMessage& message) {
  message.finish();
  return std::string(message.toString(), message.length());
}

// The single attribute an encoding produces, without the kind around it.
template <class... Values>
std::string attribute(RecorderMessageAttribute name, Values... values) {
  RecorderMessage message(RMT_DEBUG, 0);
  message.set(name, values...);
  const std::string text = message.toString();
  return text.substr(std::string("<debug").size());
}

std::string asData(const std::string& bytes) { return attribute(RMA_DATA, bytes.data(), static_cast<int>(bytes.size())); }

// A byte of one of four mixes that send the escaper down each of its paths: all plain text, text
// with a few escapes, nothing but escapes, and every byte value.
char drawPayloadByte(std::mt19937& random, int mix) {
  static const std::string plain = "abcdefghijklmnopqrstuvwxyz ABCDEFGHIJKLMNOPQRSTUVWXYZ 0123456789 /:;=?";
  static const std::string special("\t\n\"&<\\\x7f\x80\xff\x00\x1f", 11);
  switch (mix) {
    case 0: return plain[random() % plain.size()];
    case 1: return random() % 40 == 0 ? special[random() % special.size()] : plain[random() % plain.size()];
    case 2: return special[random() % special.size()];
    default: return static_cast<char>(random());
  }
}

}  // namespace

TEST(RecorderMessage, WorkedExampleIsByteForByte) {
  RecorderMessage message(RMT_SEND, 12);
  message.set(RMA_TIMESTAMP_NS, static_cast<int64_t>(1700000000123456789LL));
  message.set(RMA_TIMESTAMP, static_cast<int64_t>(1700000000123LL));
  message.setInt(RMA_TICKET, 5);
  message.setInt64(RMA_SOCKET, 7);
  message.set(RMA_PID, 4242);
  message.set(RMA_DATA, "PING 1\r\n", 8);
  message.set(RMA_LENGTH, 8u);
  message.set(RMA_RETURN, 8);
  message.set(RMA_ERROR, 0);
  const std::string text = finished(message);
  const std::string expected =
      "<send timestamp_ns_I8=\"17979cfe3d85cd15\" timestamp_I8=\"18bcfe5687b\" ticket_I4=\"5\" socket_I8=\"7\" "
      "pid_I4=\"1092\" data_AS=\"PING 1\\x0d&#x0a;\" length_U4=\"8\"/>\n";
  EXPECT_EQ(text, expected);
  EXPECT_EQ(text.size(), 153u);
  EXPECT_EQ(message.length(), 153u);
}

TEST(RecorderMessage, ExitWithoutAttributesIsEightBytes) {
  RecorderMessage message(RMT_EXIT, 0);
  EXPECT_EQ(finished(message), "<exit/>\n");
}

TEST(RecorderMessage, EveryKindName) {
  const char* names[] = {"process", "addrinfo", "connect", "send",  "receive",    "copyfile",
                         "close",   "accept",   "exit",    "debug", "notrecorded"};
  for (int k = RMT_PROCESS; k <= RMT_NOTRECORDED; ++k) {
    RecorderMessage message(static_cast<RecorderMessageKind>(k), 0);
    EXPECT_EQ(finished(message), std::string("<") + names[k] + "/>\n");
  }
}

TEST(RecorderMessage, EveryAttributeName) {
  const char* names[] = {"commandline", "workingdir", "data",     "duration",   "family",      "from",
                         "ip",          "length",     "name",     "pid",        "port",        "return",
                         "socket",      "ticket",     "timestamp", "to",        "error",       "info",
                         "duration_ns", "timestamp_ns", "localport", "sockserror", "loopback", "archi"};
  for (int a = RMA_COMMANDLINE; a <= RMA_ARCHI; ++a) {
    EXPECT_EQ(attribute(static_cast<RecorderMessageAttribute>(a), "v", 1), std::string(" ") + names[a] + "_AS=\"v\"");
  }
}

TEST(RecorderMessage, IntegersInHexadecimalAtFullWidth) {
  EXPECT_EQ(attribute(RMA_PID, 0), " pid_I4=\"0\"");
  EXPECT_EQ(attribute(RMA_PID, -1), " pid_I4=\"ffffffff\"");
  EXPECT_EQ(attribute(RMA_PID, 8080), " pid_I4=\"1f90\"");
  EXPECT_EQ(attribute(RMA_SOCKET, static_cast<int64_t>(-1)), " socket_I8=\"ffffffffffffffff\"");
  EXPECT_EQ(attribute(RMA_SOCKET, static_cast<int64_t>(0)), " socket_I8=\"0\"");
  EXPECT_EQ(attribute(RMA_LENGTH, 4294967295u), " length_U4=\"ffffffff\"");
  EXPECT_EQ(attribute(RMA_LENGTH, 0u), " length_U4=\"0\"");
  EXPECT_EQ(attribute(RMA_TIMESTAMP, static_cast<int64_t>(INT64_MIN)), " timestamp_I8=\"8000000000000000\"");
}

TEST(RecorderMessage, ReturnIsKeptAndErrorWrittenOnlyAfterMinusOne) {
  RecorderMessage before(RMT_CLOSE, 0);
  before.set(RMA_ERROR, 111);
  before.set(RMA_RETURN, -1);
  EXPECT_EQ(finished(before), "<close/>\n");

  RecorderMessage failed(RMT_CLOSE, 0);
  failed.set(RMA_RETURN, -1);
  failed.set(RMA_ERROR, 111);
  EXPECT_EQ(finished(failed), "<close error_I4=\"6f\"/>\n");

  RecorderMessage succeeded(RMT_CLOSE, 0);
  succeeded.set(RMA_RETURN, 0);
  succeeded.set(RMA_ERROR, 111);
  EXPECT_EQ(finished(succeeded), "<close/>\n");

  RecorderMessage wide(RMT_CLOSE, 0);
  wide.setInt64(RMA_RETURN, -1);
  wide.setInt64(RMA_ERROR, 111);
  EXPECT_EQ(finished(wide), "<close error_I8=\"6f\"/>\n");

  // The unsigned setter knows no special attribute.
  RecorderMessage unsignedSetter(RMT_CLOSE, 0);
  unsignedSetter.setSizeT(RMA_RETURN, 3u);
  EXPECT_EQ(finished(unsignedSetter), "<close return_U4=\"3\"/>\n");
}

TEST(RecorderMessage, ByteEscapes) {
  EXPECT_EQ(asData("\""), " data_AS=\"&#x22;\"");
  EXPECT_EQ(asData("\\"), " data_AS=\"\\\\\"");
  EXPECT_EQ(asData("\xe9"), " data_AS=\"\\xe9\"");
  EXPECT_EQ(asData(">'"), " data_AS=\">'\"");
  EXPECT_EQ(asData("\t\n&<"), " data_AS=\"&#x09;&#x0a;&#x26;&#x3c;\"");
  EXPECT_EQ(asData("\r"), " data_AS=\"\\x0d\"");
  EXPECT_EQ(asData(std::string("a\0b", 3)), " data_AS=\"a\\x00b\"");
  EXPECT_EQ(asData("\x7f\x80\xff\x1f"), " data_AS=\"\\x7f\\x80\\xff\\x1f\"");
  EXPECT_EQ(asData(" ~"), " data_AS=\" ~\"");
}

TEST(RecorderMessage, EveryByteValueHasItsEscape) {
  for (int b = 0; b < 256; ++b) {
    const std::string encoded = asData(std::string(1, static_cast<char>(b)));
    EXPECT_EQ(encoded, " data_AS=\"" + referenceEscape(static_cast<unsigned char>(b)) + "\"") << b;
  }
}

TEST(RecorderMessage, StringSetterEdgeCases) {
  EXPECT_EQ(attribute(RMA_NAME, "host", 0), " name_AS=\"host\"");  // 0: up to the NUL
  EXPECT_EQ(attribute(RMA_NAME, "", 0), " name_AS=\"\"");
  EXPECT_EQ(attribute(RMA_NAME, "host", -1), "");
  EXPECT_EQ(attribute(RMA_NAME, static_cast<const char*>(nullptr), 4), "");
  EXPECT_EQ(attribute(RMA_NAME, "hostname", 4), " name_AS=\"host\"");
}

TEST(RecorderMessage, WideStrings) {
  EXPECT_EQ(attribute(RMA_NAME, L"A\x20ac", 0), " name_UN=\"A\\uac\"");
  EXPECT_EQ(attribute(RMA_NAME, L"\"\xe9", 0), " name_UN=\"&#x22;\\xe9\"");
  EXPECT_EQ(attribute(RMA_NAME, L"", 0), " name_UN=\"\"");
  EXPECT_EQ(attribute(RMA_NAME, L"abc", 2), " name_UN=\"ab\"");
  EXPECT_EQ(attribute(RMA_NAME, L"abc", -1), "");
  EXPECT_EQ(attribute(RMA_NAME, static_cast<const wchar_t*>(nullptr), 0), "");
  const wchar_t negative[] = {static_cast<wchar_t>(-1), 0};
  EXPECT_EQ(attribute(RMA_NAME, negative, 0), " name_UN=\"\\xff\"");
}

TEST(RecorderMessage, GatherListUpToTheLimit) {
  char a[] = "abcd", c[] = "wxyz";
  iovec list[3] = {{a, 4}, {nullptr, 0}, {c, 4}};
  RecorderMessage message(RMT_SEND, 0);
  message.setiovect(RMA_DATA, list, 3, 6);
  EXPECT_EQ(finished(message), "<send data_AS=\"abcdwx\"/>\n");

  RecorderMessage all(RMT_SEND, 0);
  all.setiovect(RMA_DATA, list, 3, 8);
  EXPECT_EQ(finished(all), "<send data_AS=\"abcdwxyz\"/>\n");

  RecorderMessage none(RMT_SEND, 0);
  none.setiovect(RMA_DATA, list, 0, 8);
  EXPECT_EQ(finished(none), "<send data_AS=\"\"/>\n");

  RecorderMessage null(RMT_SEND, 0);
  null.setiovect(RMA_DATA, nullptr, 3, 8);
  EXPECT_EQ(finished(null), "<send/>\n");

  // An entry with no storage is skipped, not read.
  iovec broken[2] = {{nullptr, 5}, {a, 2}};
  RecorderMessage skipped(RMT_SEND, 0);
  skipped.setiovect(RMA_DATA, broken, 2, 7);
  EXPECT_EQ(finished(skipped), "<send data_AS=\"ab\"/>\n");
}

TEST(RecorderMessage, LongPayloadGrowsInSteps) {
  const std::string payload(20000, 'p');
  RecorderMessage message(RMT_SEND, 0);
  message.set(RMA_DATA, payload.data(), static_cast<int>(payload.size()));
  EXPECT_EQ(finished(message), "<send data_AS=\"" + payload + "\"/>\n");
}

TEST(RecorderMessage, SeveralMegabytesEncodeWhole) {
  std::string payload(6 * 1024 * 1024, '\0');
  for (size_t i = 0; i < payload.size(); ++i) payload[i] = static_cast<char>(i * 7);
  RecorderMessage message(RMT_SEND, 0);
  message.set(RMA_DATA, payload.data(), static_cast<int>(payload.size()));
  message.finish();
  EXPECT_TRUE(message.complete());
  // Every byte's escape, in order, between the quotes.
  std::string expected;
  for (const char ch : payload) expected += referenceEscape(static_cast<unsigned char>(ch));
  const std::string text(message.toString(), message.length());
  EXPECT_EQ(text, "<send data_AS=\"" + expected + "\"/>\n");
}

// Payloads of every length up to a few blocks and some long ones, drawn from byte mixes that
// send the encoder down each of its paths: all plain text, text with a few escapes, nothing but
// escapes, and every byte value. Each payload ends at the end of its allocation, so that a read
// past it is caught by the sanitizer build; each is encoded at every alignment of a block.
TEST(RecorderMessage, RandomPayloadsEncodeAsTheReferenceEscaper) {
  std::mt19937 random(20261122);
  auto draw = [&](int mix) { return drawPayloadByte(random, mix); };
  for (int round = 0; round < 400; ++round) {
    const int mix = round % 4;
    const size_t n = round < 200 ? static_cast<size_t>(round) + 1 : 1 + random() % 20000;
    for (const size_t offset : {size_t(0), size_t(1), size_t(7), size_t(15)}) {
      std::vector<char> storage(offset + n);
      for (size_t i = 0; i < n; ++i) storage[offset + i] = draw(mix);
      const std::string payload(storage.data() + offset, n);
      std::string expected;
      for (const char ch : payload) expected += referenceEscape(static_cast<unsigned char>(ch));
      // The size reserved before escaping is exactly what escaping writes.
      ASSERT_EQ(escapedSizeOf(reinterpret_cast<const unsigned char*>(storage.data() + offset), n), expected.size())
          << "mix " << mix << " length " << n;
      RecorderMessage message(RMT_SEND, 0);
      message.set(RMA_DATA, storage.data() + offset, static_cast<int>(n));
      ASSERT_EQ(finished(message), "<send data_AS=\"" + expected + "\"/>\n") << "mix " << mix << " length " << n;
      // The same bytes as a gather list cut at random places.
      iovec list[3];
      const size_t cut1 = n == 0 ? 0 : random() % (n + 1), cut2 = cut1 + (n == cut1 ? 0 : random() % (n - cut1 + 1));
      list[0] = {storage.data() + offset, cut1};
      list[1] = {storage.data() + offset + cut1, cut2 - cut1};
      list[2] = {storage.data() + offset + cut2, n - cut2};
      RecorderMessage gathered(RMT_SEND, 0);
      gathered.setiovect(RMA_DATA, list, 3, n);
      ASSERT_EQ(finished(gathered), "<send data_AS=\"" + expected + "\"/>\n") << "mix " << mix << " length " << n;
    }
  }
}

// Each path the processor has, called directly (the tests above take the fastest one only): the
// same escapes and the same size as the reference, and nothing written past the escapes but the
// slack a caller reserves, which the widest path's overshooting stores must respect.
TEST(PayloadEscaping, EveryPathEscapesAsTheReference) {
  std::mt19937 random(20261123);
  auto draw = [&](int mix) { return drawPayloadByte(random, mix); };
  const char kUntouched = 0x5a;
  int pathsTried = 0;
  for (const EscapePath path : {EscapePath::kAvx512, EscapePath::kSse2, EscapePath::kTable}) {
    if (!escapePathAvailable(path)) continue;
    ++pathsTried;
    for (int round = 0; round < 800; ++round) {
      const int mix = round % 4;
      const size_t n = round < 400 ? static_cast<size_t>(round) : 1 + random() % 5000;
      std::vector<unsigned char> payload(n);
      for (auto& byte : payload) byte = static_cast<unsigned char>(draw(mix));
      std::string expected;
      for (const unsigned char byte : payload) expected += referenceEscape(byte);
      ASSERT_EQ(escapedSizeOfBy(path, payload.data(), n), expected.size())
          << "path " << static_cast<int>(path) << " mix " << mix << " length " << n;
      std::vector<char> out(expected.size() + kEscapeSlack + 64, kUntouched);
      const char* end = escapeIntoBy(path, out.data(), payload.data(), n);
      ASSERT_EQ(static_cast<size_t>(end - out.data()), expected.size())
          << "path " << static_cast<int>(path) << " mix " << mix << " length " << n;
      ASSERT_EQ(std::string(out.data(), expected.size()), expected)
          << "path " << static_cast<int>(path) << " mix " << mix << " length " << n;
      for (size_t k = expected.size() + kEscapeSlack; k < out.size(); ++k) {
        ASSERT_EQ(out[k], kUntouched) << "path " << static_cast<int>(path) << " wrote past its slack at length " << n;
      }
    }
  }
  // The table path is always there: at least it was held to the reference.
  EXPECT_GE(pathsTried, 1);
}

// The one table of escape classes, byte by byte, against the rule as the recorder reads it:
// printable ASCII is itself but for tab, line feed, '"', '&' and '<' ("&#xNN;") and the backslash
// ("\\"); every other byte is "\xNN".
TEST(EscapeClasses, EveryByteValueHasTheClassTheRecorderReads) {
  for (int b = 0; b < 256; ++b) {
    EscapeClass expected = kEscapeHex;
    if (b == 0x09 || b == 0x0a || b == '"' || b == '&' || b == '<') {
      expected = kEscapeEntity;
    } else if (b == '\\') {
      expected = kEscapeBackslash;
    } else if (b >= ' ' && b <= '~') {
      expected = kEscapePlain;
    }
    EXPECT_EQ(kEscapeClasses.of[b], expected) << b;
    EXPECT_EQ(referenceEscape(static_cast<unsigned char>(b)).size(), escapeLengthOf(expected)) << b;
  }
}

// Each byte value alone and in a run long enough for the widest path, on every path.
TEST(PayloadEscaping, EveryByteValueOnEveryPath) {
  int pathsTried = 0;
  for (const EscapePath path : {EscapePath::kAvx512, EscapePath::kSse2, EscapePath::kTable}) {
    if (!escapePathAvailable(path)) continue;
    ++pathsTried;
    for (int b = 0; b < 256; ++b) {
      for (const size_t n : {size_t(1), size_t(16), size_t(200)}) {
        const std::vector<unsigned char> payload(n, static_cast<unsigned char>(b));
        const std::string expected = referenceEscape(payload.data(), n);
        ASSERT_EQ(escapedSizeOfBy(path, payload.data(), n), expected.size()) << "path " << static_cast<int>(path) << " byte " << b;
        std::vector<char> out(expected.size() + kEscapeSlack);
        const char* end = escapeIntoBy(path, out.data(), payload.data(), n);
        ASSERT_EQ(std::string(out.data(), static_cast<size_t>(end - out.data())), expected)
            << "path " << static_cast<int>(path) << " byte " << b << " run " << n;
      }
    }
  }
  EXPECT_GE(pathsTried, 1);
}

TEST(PrintBuffer, StartsAt8192AndGrowsByMultiples) {
  PrintBuffer buffer;
  EXPECT_EQ(buffer.capacity(), 8192u);
  EXPECT_STREQ(buffer.toString(), "");
  const std::string chunk(8183, 'a');  // 8183 + 9 reaches the capacity
  buffer.append(chunk.data(), static_cast<unsigned>(chunk.size()));
  EXPECT_EQ(buffer.capacity(), 16384u);
  PrintBuffer fits;
  fits.append(chunk.data(), 8182);
  EXPECT_EQ(fits.capacity(), 8192u);
  fits.expand(100);
  EXPECT_EQ(fits.capacity(), 16384u);
  EXPECT_EQ(fits.length(), 8182u);
}

TEST(PrintBuffer, NumberForms) {
  PrintBuffer buffer;
  buffer.append(static_cast<uint16_t>(0xab));
  buffer.append(" ", 1);
  buffer.append(static_cast<uint8_t>(5));
  buffer.append(" ", 1);
  buffer.append(static_cast<uint32_t>(0));
  buffer.append(" ", 1);
  buffer.append(static_cast<int64_t>(0x123456789abcdefLL));
  EXPECT_STREQ(buffer.toString(), "00ab 05 0 123456789abcdef");
}

TEST(PrintBuffer, AppendIgnoresNullAndEmpty) {
  PrintBuffer buffer;
  buffer.append(nullptr, 3);
  buffer.append("", 0);
  EXPECT_EQ(buffer.length(), 0u);
  buffer.appendEscaped('"');
  buffer.appendUnicode(L"\x20ac", 0);
  EXPECT_STREQ(buffer.toString(), "&#x22;\\uac");
}

TEST(RecorderMessageArrays, AMessageAfterAnotherReusesItsArrayAndTwoAliveNeverShareOne) {
  const char* first = nullptr;
  {
    RecorderMessage a(RMT_SEND, 1);
    first = a.toString();
  }
  RecorderMessage b(RMT_SEND, 2);
  // The array of the message before, kept: no allocation for this one.
  EXPECT_EQ(b.toString(), first);
  RecorderMessage c(RMT_RECEIVE, 3);
  EXPECT_NE(c.toString(), b.toString());
  EXPECT_STREQ(b.toString(), "<send");
  EXPECT_STREQ(c.toString(), "<receive");
}
