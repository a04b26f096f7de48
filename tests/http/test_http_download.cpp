// Downloads to a file: what ends up on disk, when nothing is requested at
// all, and the progress lines.
#include <unistd.h>

#include <cstdio>

#include "HttpTest.h"
#include "TempDir.h"

namespace {

class HttpDownload : public HttpTest {
 protected:
  TempDir dir;
};

std::string pattern(size_t size) {
  std::string text(size, '\0');
  for (size_t i = 0; i < size; ++i) text[i] = static_cast<char>('a' + (i * 7 + i / 251) % 26);
  return text;
}

TEST_F(HttpDownload, FileHoldsWhateverTheServerSentAndIsNeverRemoved) {
  const std::string content = pattern(3 << 20);
  writeFile(dir.file("served.dmg"), content);
  Response pkg;
  pkg.bodyFile = dir.file("served.dmg");
  server.on("/pkg.dmg", pkg);
  server.on("/missing.dmg", Response::text("no such package", 404));
  server.on("/short.dmg", Response::text(content, 200, Fault::ShortBody));

  writeFile(dir.file("pkg.dmg"), std::string(5 << 20, 'z'));  // truncated, not appended to
  EXPECT_EQ(client.download(server.url("/pkg.dmg"), dir.file("pkg.dmg"), headers), 0);
  EXPECT_TRUE(readFile(dir.file("pkg.dmg")) == content);
  EXPECT_EQ(headers["Content-Length"], std::to_string(content.size()));

  log.sink().reset();
  EXPECT_EQ(client.download(server.url("/missing.dmg"), dir.file("missing.dmg"), headers), 404);
  EXPECT_EQ(readFile(dir.file("missing.dmg")), "no such package");
  // The error page is a download like any other, progress included.
  EXPECT_EQ(log.messages(),
            (std::vector<std::string>{"Loading 100%", "Request " + server.url("/missing.dmg") + " failed : [404]"}));

  EXPECT_EQ(client.download(server.url("/short.dmg"), dir.file("short.dmg"), headers), -1);
  EXPECT_TRUE(readFile(dir.file("short.dmg")) == content.substr(0, content.size() / 2));
}

TEST_F(HttpDownload, UnopenablePathFailsWithoutRequestOrLog) {
  server.on("/pkg.dmg", Response::text("pkg"));
  headers = {{"Stale", "x"}};

  EXPECT_EQ(client.download(server.url("/pkg.dmg"), dir.file("no/such/dir/pkg.dmg"), headers), -1);
  EXPECT_TRUE(log.messages().empty());
  EXPECT_TRUE(server.requests().empty());
  EXPECT_TRUE(headers.empty());
}

TEST_F(HttpDownload, ProgressReportsEachMultipleOfTenOnceOnTheWayUp) {
  int last = 0;
  for (long now : {0, 5, 10, 10, 20, 25, 30}) EXPECT_EQ(HttpClient::progressCb(&last, 100, now, 0, 0), 0);
  EXPECT_EQ(log.messages(), (std::vector<std::string>{"Loading 10%", "Loading 20%", "Loading 30%"}));
  EXPECT_EQ(last, 30);
  EXPECT_EQ(log.sink().lines().at(0).level, "NFY");

  log.sink().reset();
  last = 55;
  HttpClient::progressCb(&last, 0, 80, 0, 0);  // size not known yet: nothing moves
  EXPECT_EQ(last, 55);
  // 38 to 41 jumps over 40; 99 to 100 is reached from below; uploads do not
  // count; 4 GiB stays exact.
  for (long now : {38, 41, 99, 100}) HttpClient::progressCb(&last, 100, now, 100, 50);
  const long big = 4L << 30;
  last = 0;
  HttpClient::progressCb(&last, big, big / 2, 0, 0);
  EXPECT_EQ(log.messages(), (std::vector<std::string>{"Loading 100%", "Loading 50%"}));
}

TEST_F(HttpDownload, RealDownloadReportsTensInIncreasingOrder) {
  server.on("/pkg.dmg", Response::text(pattern(200000), 200, Fault::Drip));

  ASSERT_EQ(client.download(server.url("/pkg.dmg"), dir.file("pkg.dmg"), headers), 0);
  const auto messages = log.messages();
  ASSERT_FALSE(messages.empty());
  EXPECT_EQ(messages.back(), "Loading 100%");
  int previous = 0;
  for (const std::string& m : messages) {
    int percent = -1;
    char tail = 0;
    ASSERT_EQ(std::sscanf(m.c_str(), "Loading %d%c", &percent, &tail), 2) << m;
    EXPECT_EQ(tail, '%');
    EXPECT_EQ(percent % 10, 0) << m;
    EXPECT_GT(percent, previous) << m;
    previous = percent;
  }
}

TEST_F(HttpDownload, ChunkedBodyWithoutLengthCompletesWithoutProgress) {
  const std::string content = pattern(100000);
  server.on("/pkg.dmg", Response::text(content, 200, Fault::Chunked));

  EXPECT_EQ(client.download(server.url("/pkg.dmg"), dir.file("pkg.dmg"), headers), 0);
  EXPECT_TRUE(readFile(dir.file("pkg.dmg")) == content);
  EXPECT_EQ(headers["Transfer-Encoding"], "chunked");
  EXPECT_TRUE(log.messages().empty());
}

TEST_F(HttpDownload, ShortWriteAbortsTheTransfer) {
  writeFile(dir.file("ro"), "x");
  FILE* readOnly = std::fopen(dir.file("ro").c_str(), "rb");
  ASSERT_NE(readOnly, nullptr);
  char data[4] = {'a', 'b', 'c', 'd'};
  EXPECT_EQ(HttpClient::readFileResponseCb(data, 2, 2, readOnly), 0u);
  std::fclose(readOnly);
}

TEST_F(HttpDownload, LaterRequestsOnTheSameClientReportNoProgress) {
  const std::string content = pattern(100000);
  server.on("/half.dmg", Response::text(content, 200, Fault::ShortBody));
  server.on("/version_long.txt", Response::text(content));

  // Stopped halfway, so a counter left behind would still be below 100.
  ASSERT_EQ(client.download(server.url("/half.dmg"), dir.file("half.dmg"), headers), -1);
  log.sink().reset();
  // HEAD leaves the download's write target on the handle; it must not be used.
  EXPECT_EQ(client.head(server.url("/version_long.txt"), headers), 0);
  EXPECT_EQ(client.get(server.url("/version_long.txt"), body, headers), 0);
  EXPECT_TRUE(body == content);
  EXPECT_TRUE(log.messages().empty());
  EXPECT_EQ(readFile(dir.file("half.dmg")).size(), content.size() / 2);
}

}  // namespace
