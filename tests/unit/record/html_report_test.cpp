#include "html_report.h"

#include <gtest/gtest.h>

#include <string>

#include "recorded_conversation.h"

namespace {

using talvex_test::addData;
using talvex_test::clientConversation;

// The JSON the page carries.
std::string dataOf(const std::string& page) {
  const std::string open = "<script type=\"application/json\" id=\"data\">";
  const size_t begin = page.find(open);
  const size_t end = page.find("</script>", begin);
  if (begin == std::string::npos || end == std::string::npos) return "";
  return page.substr(begin + open.size(), end - begin - open.size());
}

TEST(HtmlReport, NoPayloadCanEndTheDataOrOpenMarkup) {
  talvex::Recording r;
  talvex::Conversation c = clientConversation();
  addData(c, "send", "GET / HTTP/1.1\r\nHost: h\r\n\r\n", 1);
  addData(c, "receive", "HTTP/1.1 200 OK\r\nContent-Length: 43\r\n\r\n</script><script>alert(1)</script><!-- x", 2);
  r.conversations.push_back(c);
  const std::string page = talvex::htmlReport(r);
  const std::string data = dataOf(page);
  ASSERT_FALSE(data.empty());
  EXPECT_EQ(data.find("</"), std::string::npos);
  EXPECT_EQ(data.find("<!--"), std::string::npos);
  EXPECT_NE(data.find("<\\/script><script>alert(1)<\\/script>\\u003c!-- x"), std::string::npos);
  // The page loads nothing from elsewhere.
  EXPECT_EQ(page.find("http://"), page.find("http://h/"));
  EXPECT_EQ(page.find("src="), std::string::npos);
  EXPECT_EQ(page.find("<link"), std::string::npos);
}

TEST(HtmlReport, PayloadsAreShortenedToTheLimitsWithTheirLengths) {
  talvex::HtmlReportLimits limits;
  limits.perEvent = 10;
  limits.perConversation = 25;
  limits.perReport = 40;
  talvex::Recording r;
  for (int i = 0; i < 3; ++i) {
    talvex::Conversation c = clientConversation(1000 + i);
    addData(c, "send", std::string(30, static_cast<char>('a' + i)), 1);
    addData(c, "send", std::string(30, static_cast<char>('a' + i)), 2);
    addData(c, "send", std::string(30, static_cast<char>('a' + i)), 3);
    r.conversations.push_back(c);
  }
  const std::string data = dataOf(talvex::htmlReport(r, limits));
  // Ten bytes an event, twenty-five a conversation, forty in all.
  const std::string a10 = "{\"n\":30,\"text\":\"" + std::string(10, 'a') + "\",\"cut\":20}";
  const std::string a5 = "{\"n\":30,\"text\":\"" + std::string(5, 'a') + "\",\"cut\":25}";
  const std::string b10 = "{\"n\":30,\"text\":\"" + std::string(10, 'b') + "\",\"cut\":20}";
  const std::string b5 = "{\"n\":30,\"text\":\"" + std::string(5, 'b') + "\",\"cut\":25}";
  EXPECT_NE(data.find(a10 + "}"), std::string::npos) << data;
  EXPECT_NE(data.find(a5 + "}"), std::string::npos) << data;
  EXPECT_NE(data.find(b10 + "},{\"k\":\"send\",\"t\":0.000,\"p\":" + b5), std::string::npos) << data;
  EXPECT_EQ(data.find(std::string(6, 'c')), std::string::npos);
  EXPECT_NE(data.find("{\"n\":30,\"cut\":30}"), std::string::npos);
}

TEST(HtmlReport, BinaryIsAHexDumpAndCutsKeepTextWhole) {
  talvex::HtmlReportLimits limits;
  limits.perEvent = 5;
  talvex::Recording r;
  talvex::Conversation c = clientConversation();
  addData(c, "send", std::string("\x00\x01\x02", 3), 1);
  addData(c, "send", "ab\xc3\xa9\xc3\xa9", 2);  // the cut falls inside the second é
  r.conversations.push_back(c);
  const std::string data = dataOf(talvex::htmlReport(r, limits));
  EXPECT_NE(data.find("{\"n\":3,\"hex\":\"0000  00 01 02                                         |...|\\n\"}"), std::string::npos) << data;
  EXPECT_NE(data.find("{\"n\":6,\"text\":\"ab\xc3\xa9\",\"cut\":2}"), std::string::npos) << data;
}

}  // namespace
