#include "message/address_attributes.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/un.h>

#include <string>

#include "log_capture.h"
#include "message/recorder_message.h"
#include "real/real_functions.h"

namespace {

std::string attributesOf(const sockaddr* address) {
  RecorderMessage message(RMT_CONNECT, 0);
  fillMsgWithName(&message, address);
  return std::string(message.toString()).substr(std::string("<connect").size());
}

std::string ipv6(const char* text, int port) {
  sockaddr_in6 address;
  memset(&address, 0, sizeof address);
  address.sin6_family = AF_INET6;
  address.sin6_port = htons(static_cast<uint16_t>(port));
  EXPECT_EQ(inet_pton(AF_INET6, text, &address.sin6_addr), 1);
  return attributesOf(reinterpret_cast<sockaddr*>(&address));
}

}  // namespace

TEST(AddressAttributes, Ipv4) {
  sockaddr_in address;
  memset(&address, 0, sizeof address);
  address.sin_family = AF_INET;
  address.sin_port = htons(8080);
  inet_pton(AF_INET, "192.168.1.10", &address.sin_addr);
  EXPECT_EQ(attributesOf(reinterpret_cast<sockaddr*>(&address)),
            " family_AS=\"AF_INET\" ip_AS=\"192.168.1.10\" port_I4=\"1f90\"");
}

TEST(AddressAttributes, Ipv6AllEightGroupsWithoutShortening) {
  // The classic family table names Linux's AF_INET6 (10) AF_CCITT.
  EXPECT_EQ(ipv6("2001:db8::1", 443), " family_AS=\"AF_CCITT\" ip_AS=\"2001:db8:0:0:0:0:0:1\" port_I4=\"1bb\"");
  EXPECT_EQ(ipv6("::1", 1), " family_AS=\"AF_CCITT\" ip_AS=\"0:0:0:0:0:0:0:1\" port_I4=\"1\"");
  EXPECT_EQ(ipv6("::ffff:127.0.0.1", 0), " family_AS=\"AF_CCITT\" ip_AS=\"0:0:0:0:0:ffff:7f00:1\" port_I4=\"0\"");
  EXPECT_EQ(ipv6("ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff", 65535),
            " family_AS=\"AF_CCITT\" ip_AS=\"ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff\" port_I4=\"ffff\"");
}

TEST(AddressAttributes, OtherFamiliesGiveTheFamilyAlone) {
  sockaddr_un local;
  memset(&local, 0, sizeof local);
  local.sun_family = AF_UNIX;
  EXPECT_EQ(attributesOf(reinterpret_cast<sockaddr*>(&local)), " family_AS=\"AF_UNIX\"");
  // A family with no name in the table writes nothing at all.
  sockaddr odd;
  memset(&odd, 0, sizeof odd);
  odd.sa_family = 30;
  EXPECT_EQ(attributesOf(&odd), "");
}

TEST(AddressAttributes, NullAddressIsLoggedAndAddsNothing) {
  // The real conversion functions are known, so the address attributes need no start-up.
  initializeRealFunctionPointers();
  talvex_test::LogCapture log("1");
  EXPECT_EQ(attributesOf(nullptr), "");
  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[1], "[ERROR]name is null => can't fill message");
}

TEST(AddressAttributes, WideToNarrowKeepsLowBytes) {
  char out[8];
  EXPECT_EQ(wtoc(out, L"ab\x20ac"), 3u);
  EXPECT_EQ(std::string(out), std::string("ab\xac"));
  EXPECT_EQ(wtoc(out, L""), 0u);
  EXPECT_EQ(out[0], '\0');
}
