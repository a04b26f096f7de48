// Response headers: how lines become map entries, across redirect chains,
// and what HEAD does and does not transfer.
#include <initializer_list>

#include "HttpTest.h"

namespace {

class HttpHeaders : public HttpTest {};

Headers parse(std::initializer_list<std::string> lines) {
  Headers parsed;
  for (std::string line : lines) {
    EXPECT_EQ(HttpClient::readHeadersCb(&line[0], 1, line.size(), &parsed), line.size()) << line;
  }
  return parsed;
}

TEST(HttpHeaderLines, SplitAtTheFirstColonAndTrimWhiteSpace) {
  EXPECT_EQ(
      parse({"HTTP/1.1 200 OK\r\n", "Content-Length:  1234 \r\n", "X-Empty:\r\n", "no colon here\r\n",
             "Location: http://h:8080/a \r\n", "X-Pad:\t\v\f value \t\r\n", "\r\n"}),
      (Headers{{"Content-Length", "1234"}, {"Location", "http://h:8080/a"}, {"X-Empty", ""}, {"X-Pad", "value"}}));
}

TEST(HttpHeaderLines, KeysKeepTheirCaseAndTheLastValueWins) {
  EXPECT_EQ(parse({"content-length: 1\r\n", "Content-Length: 2\r\n", "Content-Length: 3\r\n"}),
            (Headers{{"Content-Length", "3"}, {"content-length", "1"}}));

  // libcurl may count a line in items of any size; the whole line is consumed.
  Headers parsed;
  std::string line = "Etag: abc\r\n";
  EXPECT_EQ(HttpClient::readHeadersCb(&line[0], line.size(), 1, &parsed), line.size());
  EXPECT_EQ(parsed["Etag"], "abc");
}

TEST_F(HttpHeaders, RedirectChainFillsOneMapAndTheLastResponseWins) {
  Response first = Response::redirect("/b", 301);
  first.headers.push_back("X-Hop: a");
  first.headers.push_back("X-First: yes");
  Response second = Response::redirect("/c");
  second.headers.push_back("X-Hop: b");
  Response last = Response::text("end");
  last.headers.push_back("X-Hop: c");
  server.on("/a", first);
  server.on("/b", second);
  server.on("/c", last);

  EXPECT_EQ(client.get(server.url("/a"), body, headers), 0);
  EXPECT_EQ(body, "end");
  EXPECT_EQ(headers["Location"], "/c");
  EXPECT_EQ(headers["X-Hop"], "c");
  EXPECT_EQ(headers["X-First"], "yes");
  EXPECT_EQ(server.requestLines(), (std::vector<std::string>{"GET /a", "GET /b", "GET /c"}));
}

TEST_F(HttpHeaders, HeadCollectsHeadersAndTransfersNoBody) {
  // Announces 1234 bytes and, being a HEAD answer, sends none: a client that
  // waited for the body would fail or hang here.
  Response pkg;
  pkg.headers = {"Content-Length:  1234 ", "X-Empty:"};
  server.on("/pkg.dmg", pkg);
  server.on("/unsized.dmg", Response::text("abc", 200, Fault::NoLength));
  server.on("/version_long.txt", Response::text("5.1.0.2"));

  EXPECT_EQ(client.head(server.url("/pkg.dmg"), headers), 0);
  EXPECT_EQ(headers["Content-Length"], "1234");
  EXPECT_EQ(headers["X-Empty"], "");
  EXPECT_EQ(client.head(server.url("/unsized.dmg"), headers), 0);
  EXPECT_EQ(headers.count("Content-Length"), 0u);
  // The connection is still in step for an ordinary request afterwards.
  EXPECT_EQ(client.get(server.url("/version_long.txt"), body, headers), 0);
  EXPECT_EQ(body, "5.1.0.2");
  EXPECT_TRUE(log.messages().empty());
  EXPECT_EQ(server.requestLines(),
            (std::vector<std::string>{"HEAD /pkg.dmg", "HEAD /unsized.dmg", "GET /version_long.txt"}));
}

}  // namespace
