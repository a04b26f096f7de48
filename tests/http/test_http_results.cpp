// What each request returns and logs: success, HTTP statuses, and the ways a
// transfer can fail before a status is known.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "HttpTest.h"
#include "TempDir.h"

namespace {

class HttpResult : public HttpTest {};

TEST_F(HttpResult, Status200IsZeroAndReplacesWhatTheOutputsHeld) {
  server.on("/version_long.txt", Response::text("5.1.0.2"));
  body = "stale";
  headers = {{"Stale", "x"}};

  EXPECT_EQ(client.get(server.url("/version_long.txt"), body, headers), 0);
  EXPECT_EQ(body, "5.1.0.2");
  EXPECT_EQ(headers.count("Stale"), 0u);
  EXPECT_EQ(headers["Content-Length"], "7");
  EXPECT_TRUE(log.messages().empty());
  const auto requests = server.requests();
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0].method, "GET");
  EXPECT_EQ(requests[0].headers.at("User-Agent"), "Updater/1.0.0");
}

TEST_F(HttpResult, OtherStatusesAreReturnedAndLoggedWithTheUrlAsGiven) {
  server.on("/version_long.txt", Response::text("<html>gone</html>", 404));
  server.on("/pkg.dmg", Response::text("oops", 500));
  client.setConfig(server.url("/"));

  EXPECT_EQ(client.get("version_long.txt", body, headers), 404);
  EXPECT_EQ(body, "<html>gone</html>");
  EXPECT_EQ(client.head("pkg.dmg", headers), 500);
  EXPECT_EQ(log.messages(),
            (std::vector<std::string>{"Request version_long.txt failed : [404]", "Request pkg.dmg failed : [500]"}));
  const auto line = log.sink().lines().at(0);
  EXPECT_EQ(line.module, "ROOT");
  EXPECT_EQ(line.level, "ERR");
  EXPECT_EQ(line.file, "Updater/HttpClient");
  EXPECT_EQ(server.requestLines(), (std::vector<std::string>{"GET /version_long.txt", "HEAD /pkg.dmg"}));
}

TEST_F(HttpResult, RefusedConnectionIsMinusOne) {
  // Bound but never listening: connecting is refused, and nothing else can
  // take the port while the test runs.
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof addr;
  ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
  ASSERT_EQ(getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len), 0);
  const std::string url = "http://127.0.0.1:" + std::to_string(ntohs(addr.sin_port)) + "/version_long.txt";

  EXPECT_EQ(client.get(url, body, headers), -1);
  expectTransferFailure(log.messages(), url, 7);
  ::close(fd);
}

TEST_F(HttpResult, UnresolvableHostIsMinusOne) {
  // .invalid never resolves, and a label over 63 bytes cannot be put into a
  // DNS query at all, so the lookup fails before anything leaves the machine.
  const std::string url = "http://" + std::string(64, 'k') + ".invalid/version_long.txt";

  EXPECT_EQ(client.head(url, headers), -1);
  expectTransferFailure(log.messages(), url, 6);
}

TEST_F(HttpResult, RedirectLoopEndsAfterFiftyRedirects) {
  server.on("/loop", Response::redirect("/loop"));

  EXPECT_EQ(client.get(server.url("/loop"), body, headers), -1);
  expectTransferFailure(log.messages(), server.url("/loop"), 47);
  EXPECT_EQ(server.requests().size(), 51u);
}

TEST_F(HttpResult, BodyCutShortOrResetIsMinusOne) {
  server.on("/short", Response::text(std::string(1000, 'a'), 200, Fault::ShortBody));
  server.on("/reset", Response::text(std::string(1000, 'a'), 200, Fault::Reset));

  EXPECT_EQ(client.get(server.url("/short"), body, headers), -1);
  expectTransferFailure(log.messages(), server.url("/short"), 18);
  EXPECT_EQ(body, std::string(500, 'a'));
  log.sink().reset();
  EXPECT_EQ(client.get(server.url("/reset"), body, headers), -1);
  expectTransferFailure(log.messages(), server.url("/reset"), 56);
}

TEST_F(HttpResult, SelfSignedHttpsServerIsAccepted) {
  TestServer https(true);
  https.failOnUnexpected();
  https.on("/version_long.txt", Response::text("5.1.0.2"));
  TempDir dir;

  ASSERT_EQ(https.url("/").substr(0, 8), "https://");
  EXPECT_EQ(client.get(https.url("/version_long.txt"), body, headers), 0);
  EXPECT_EQ(body, "5.1.0.2");
  EXPECT_EQ(client.download(https.url("/version_long.txt"), dir.file("v"), headers), 0);
  EXPECT_EQ(readFile(dir.file("v")), "5.1.0.2");
  EXPECT_EQ(log.messages(), std::vector<std::string>{"Loading 100%"});
}

TEST_F(HttpResult, CleanedUpClientFailsEveryLaterRequest) {
  server.on("/version_long.txt", Response::text("5.1.0.2"));
  ASSERT_EQ(client.get(server.url("/version_long.txt"), body, headers), 0);

  client.cleanup();
  client.cleanup();
  EXPECT_TRUE(client.init());
  EXPECT_EQ(client.get(server.url("/version_long.txt"), body, headers), -1);
  EXPECT_EQ(client.head(server.url("/version_long.txt"), headers), -1);
  ASSERT_EQ(log.messages().size(), 2u);
  EXPECT_EQ(log.messages()[0].rfind("Request " + server.url("/version_long.txt") + " failed : [", 0), 0u);
  EXPECT_EQ(server.requests().size(), 1u);
}

}  // namespace
