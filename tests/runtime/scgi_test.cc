// The SCGI header as lighttpd sends it, and what a peer that is not a web
// server might send instead.
#include "scgi.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

namespace {

using kstxentry::ParseScgiHeaders;
using kstxentry::ReadScgiHeaders;
using kstxentry::ScgiHeaders;
using namespace std::string_literals;

TEST(ScgiTest, HeadersAreTheRequestsVariables) {
  ScgiHeaders headers;
  ASSERT_EQ(ParseScgiHeaders("CONTENT_LENGTH\0"
                             "5\0SCGI\0"
                             "1\0QUERY_STRING\0a=1&b\0EMPTY\0\0"s,
                             headers),
            0);
  const ScgiHeaders expected = {
      {"CONTENT_LENGTH", "5"}, {"SCGI", "1"}, {"QUERY_STRING", "a=1&b"}, {"EMPTY", ""}};
  EXPECT_EQ(headers, expected);

  const struct {
    const char* name;
    std::string content;
  } refused[] = {
      {"nothing", ""},
      {"no SCGI",
       "CONTENT_LENGTH\0"
       "0\0"s},
      {"length not first",
       "SCGI\0"
       "1\0CONTENT_LENGTH\0"
       "0\0"s},
      {"length not a number",
       "CONTENT_LENGTH\0-1\0SCGI\0"
       "1\0"s},
      {"SCGI not 1",
       "CONTENT_LENGTH\0"
       "0\0SCGI\0"
       "2\0"s},
      {"a name twice",
       "CONTENT_LENGTH\0"
       "0\0SCGI\0"
       "1\0A\0x\0A\0y\0"s},
      {"an empty name",
       "CONTENT_LENGTH\0"
       "0\0SCGI\0"
       "1\0\0x\0"s},
      {"a name with =",
       "CONTENT_LENGTH\0"
       "0\0SCGI\0"
       "1\0PATH=/x\0y\0"s},
      {"a value without its end",
       "CONTENT_LENGTH\0"
       "0\0SCGI\0"
       "1\0A\0x"s},
  };
  for (const auto& c : refused) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(ParseScgiHeaders(c.content, headers), -1);
  }
}

// Reading the header takes exactly the netstring: the body stays for the
// request, even when both arrive in one piece.
TEST(ScgiTest, ReadingTheHeaderLeavesTheBody) {
  const std::string content =
      "CONTENT_LENGTH\0"
      "4\0SCGI\0"
      "1\0"s;
  const struct {
    const char* name;
    std::string sent;
    int result;
  } cases[] = {
      {"header and body", std::to_string(content.size()) + ":" + content + ",body", 0},
      {"no comma", std::to_string(content.size()) + ":" + content + ";body", -1},
      {"length too large", "99999999:" + content + ",body", -1},
      {"no length", ":" + content + ",body", -1},
      {"not a netstring", "GET / HTTP/1.0\r\n\r\n", -1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    ASSERT_EQ(write(pair[1], c.sent.data(), c.sent.size()), ssize_t(c.sent.size()));
    shutdown(pair[1], SHUT_WR);
    ScgiHeaders headers;
    EXPECT_EQ(ReadScgiHeaders(pair[0], headers), c.result);
    if (c.result == 0) {
      char rest[16] = {};
      EXPECT_EQ(read(pair[0], rest, sizeof rest), 4);
      EXPECT_EQ(std::string(rest), "body");
    }
    close(pair[0]);
    close(pair[1]);
  }
}

}  // namespace
