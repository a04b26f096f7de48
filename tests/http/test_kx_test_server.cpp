// The standalone server program, as scripts and other processes use it: the
// port on standard output, a scenario file, a directory, a request log.
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include <gtest/gtest-spi.h>

#include "HttpClient.h"
#include "TempDir.h"
#include "TestServer.h"

extern char** environ;

namespace {

using Headers = std::map<std::string, std::string>;

// kx_test_server running for the object's lifetime; the port is read from
// its first line of output, which it writes once it is listening.
class ServerProcess {
 public:
  explicit ServerProcess(std::vector<std::string> args) {
    args.insert(args.begin(), KX_TEST_SERVER_PROGRAM);
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(&a[0]);
    argv.push_back(nullptr);
    int out[2];
    if (::pipe(out) != 0) throw std::runtime_error("pipe");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    posix_spawn_file_actions_addclose(&actions, out[0]);
    const int rc = posix_spawn(&_pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(out[1]);
    std::string line;
    char c;
    while (rc == 0 && ::read(out[0], &c, 1) == 1 && c != '\n') line += c;
    ::close(out[0]);
    if (rc != 0 || line.empty()) throw std::runtime_error("kx_test_server did not start");
    _port = line;
  }
  ~ServerProcess() {
    if (_pid > 0) stop();
  }
  std::string url(const std::string& path) const { return "http://127.0.0.1:" + _port + path; }
  // SIGTERM, then the exit status.
  int stop() {
    ::kill(_pid, SIGTERM);
    int status = 0;
    ::waitpid(_pid, &status, 0);
    _pid = 0;
    return status;
  }

 private:
  pid_t _pid = 0;
  std::string _port;
};

TEST(KxTestServer, ServesScenarioAndDirectoryAndLogsRequests) {
  TempDir dir;
  ::mkdir(dir.file("root").c_str(), 0700);
  ::mkdir(dir.file("root/mac").c_str(), 0700);
  writeFile(dir.file("root/mac/agent.dmg"), std::string(4096, 'p'));
  writeFile(dir.file("scenario.json"), R"({"routes": {
    "/mac/version_long.txt": {"body": "5.1.0.2"},
    "/old": {"redirect": "/mac/version_long.txt", "status": 301},
    "/flaky": [{"body": "abcdef", "fault": "short-body"}, {"body": "abcdef"}]}})");
  ServerProcess server({"--scenario", dir.file("scenario.json"), "--root", dir.file("root"), "--requests",
                        dir.file("requests.log"), "--port-file", dir.file("port")});
  HttpClient client;
  std::string body;
  Headers headers;

  EXPECT_EQ(client.get(server.url("/flaky"), body, headers), -1);
  EXPECT_EQ(client.get(server.url("/flaky"), body, headers), 0);
  EXPECT_EQ(body, "abcdef");
  EXPECT_EQ(client.get(server.url("/old"), body, headers), 0);
  EXPECT_EQ(body, "5.1.0.2");
  EXPECT_EQ(client.head(server.url("/mac/agent.dmg?x=1"), headers), 0);
  EXPECT_EQ(headers["Content-Length"], "4096");
  EXPECT_EQ(client.get(server.url("/nothing"), body, headers), 404);

  EXPECT_EQ(readFile(dir.file("requests.log")),
            "GET /flaky\nGET /flaky\nGET /old\nGET /mac/version_long.txt\nHEAD /mac/agent.dmg?x=1\n"
            "GET /nothing\n");
  EXPECT_EQ("http://127.0.0.1:" + readFile(dir.file("port")), server.url("\n"));
  const int status = server.stop();
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

TEST(KxTestServer, UnexpectedRequestFailsTheTestOnlyWhenAsked) {
  TestServer server;
  HttpClient client;
  std::string body;
  Headers headers;
  server.on("/known", TestServer::Response::text("ok"));

  EXPECT_EQ(client.get(server.url("/known"), body, headers), 0);
  EXPECT_EQ(client.get(server.url("/tolerated"), body, headers), 404);
  server.failOnUnexpected();
  EXPECT_NONFATAL_FAILURE_ON_ALL_THREADS(client.get(server.url("/stray?q=1"), body, headers),
                                         "unexpected request GET /stray?q=1");
  EXPECT_EQ(server.requestLines(), (std::vector<std::string>{"GET /known", "GET /tolerated", "GET /stray?q=1"}));
}

}  // namespace
