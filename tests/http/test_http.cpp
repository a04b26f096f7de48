// The client's callbacks at edges a transfer through the program does not
// reach, and a client after a hashed download and after cleanup(). Transfers
// themselves (statuses, redirects, resets, HTTPS) are shown by tests/e2e.
#include <gtest/gtest.h>

#include <map>
#include <string>

#include "HttpClient.h"
#include "Manifest.h"
#include "TestSupport.h"
#include "utils.h"

using Headers = std::map<std::string, std::string>;

TEST(HttpCallbacks, HeaderLinesSplitAtTheFirstColonTrimmedLastOneWinning) {
  Headers h;
  for (std::string line :
       {"HTTP/1.1 200 OK\r\n", "Content-Length:  1234 \r\n", "X-Empty:\r\n", "no colon\r\n",
        "Location: http://h:8080/a \r\n", "X-Pad:\t\v\f 1 \t\r\n", "content-length: 1\r\n", "X-Pad: 2\r\n", "\r\n"}) {
    EXPECT_EQ(HttpClient::readHeadersCb(&line[0], 1, line.size(), &h), line.size());
  }
  std::string line = "Etag: abc\r\n";
  EXPECT_EQ(HttpClient::readHeadersCb(&line[0], line.size(), 1, &h), line.size());
  EXPECT_EQ(h, (Headers{{"Content-Length", "1234"},
                        {"Etag", "abc"},
                        {"Location", "http://h:8080/a"},
                        {"X-Empty", ""},
                        {"X-Pad", "2"},
                        {"content-length", "1"}}));
}

TEST(HttpCallbacks, ProgressReportsEachTenOnceOnTheWayUp) {
  ScopedLogCapture cap;
  int last = 0;
  for (long now : {0, 5, 10, 10, 20, 38, 41, 99, 100, 100}) EXPECT_EQ(HttpClient::progressCb(&last, 100, now, 9, 9), 0);
  EXPECT_EQ(last, 100);
  HttpClient::progressCb(&last, 0, 80, 0, 0);  // size not known yet: nothing moves
  EXPECT_EQ(last, 100);
  last = 0;
  HttpClient::progressCb(&last, 4L << 30, 2L << 30, 0, 0);  // exact beyond 32 bits
  EXPECT_EQ(cap.messages(), (std::vector<std::string>{"Loading 10%", "Loading 20%", "Loading 100%", "Loading 50%"}));
}

TEST(HttpCallbacks, TextBodiesStopAtFourMebibytes) {
  std::string body(HttpClient::kMaxTextBody - 3, 'x');
  char data[] = "abcd";
  EXPECT_EQ(HttpClient::readResponsCb(data, 1, 3, &body), 3u);
  EXPECT_EQ(HttpClient::readResponsCb(data, 1, 1, &body), 0u);
  EXPECT_EQ(body.size(), HttpClient::kMaxTextBody);
}

TEST(HttpClientLife, DownloadHashedAsWrittenThenNoProgressAndNoRequestAfterCleanup) {
  const TempDir dir;
  writeFile(dir.file("v"), std::string(300000, 'v') + "w");  // more than one step of the file
  const std::string url = "file://" + dir.file("v");         // a "server" that answers without a status
  HttpClient client;
  Headers headers;
  std::string body;
  HttpClient::Landed landed;
  ASSERT_EQ(client.download(url, dir.file("copy"), headers, HttpClient::kNoLimit, &landed,
                            HttpClient::kMd5 | HttpClient::kSha256),
            0);
  EXPECT_EQ(landed.md5, utils::computeMD5(dir.file("copy")));
  EXPECT_EQ(landed.sha256, release::sha256Hex(readFile(dir.file("copy"))));
  EXPECT_EQ(landed.size, 300001u);
  const ScopedLogCapture cap;
  headers["stale"] = "from an earlier request";
  EXPECT_EQ(client.get(url, body, headers), 0);
  EXPECT_EQ(body, readFile(dir.file("copy")));
  EXPECT_EQ(headers.count("stale"), 0u);
  client.cleanup();
  client.cleanup();
  EXPECT_TRUE(client.init());
  EXPECT_EQ(client.get(url, body, headers) + client.head(url, headers) + client.download(url, dir.file("c"), headers),
            -3);
  EXPECT_EQ(cap.messages().size(), 4u) << "one line a request, none of them progress";
}
