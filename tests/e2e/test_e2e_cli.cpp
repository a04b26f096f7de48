// The command line, the server address argument and the log file's layout.
#include <ctime>
#include <string>
#include <vector>

#include "E2eTest.h"

namespace e2e {
namespace {

// A server where the agent is up to date, in the legacy Linux layout.
class E2eCommandLine : public E2eTest {
 protected:
  void SetUp() override {
    E2eTest::SetUp();
    absent("/agent_setup_def.json");
    server.on(hostArch().linuxDir + "/version_long.txt", Response::text("7.3.0.0\n"));
  }

  Lines upToDateRequests() const {
    return {"GET /agent_setup_def.json", "GET " + hostArch().linuxDir + "/version_long.txt"};
  }

  bool logExists() const { return access(box.logFile().c_str(), F_OK) == 0; }
};

TEST_F(E2eCommandLine, WrongArgumentCountsPrintTheUsage) {
  const std::vector<Lines> forms{{}, {address()}, {"-D", address(), "7.3.0.0", "extra"}, {"a", "b", "c", "d", "e"}};
  for (const char* program : {linuxProgram(), macosProgram()}) {
    for (const Lines& args : forms) {
      const RunResult r = box.run(program, args);
      EXPECT_EQ(r.status, 1) << args.size() << " arguments: " << r;
      EXPECT_EQ(r.out, "Usage : \nupdate [-D] <url> <version>\n");
      EXPECT_EQ(r.err, "");
    }
  }
  EXPECT_FALSE(logExists());
  EXPECT_FALSE(lockExists());
  EXPECT_TRUE(server.requestLines().empty());
}

TEST_F(E2eCommandLine, UnknownOptionRunsWithoutLogAndWithEmptyArguments) {
  const RunResult r = box.run(linuxProgram(), {"-X", address(), "7.3.0.0"});
  EXPECT_EQ(r.status, 4) << "the empty version is refused: " << r;
  EXPECT_FALSE(logExists());
  // The logger's own sink on standard output still has the messages.
  EXPECT_NE(r.out.find("Udpate server : \n"), std::string::npos) << r;
  EXPECT_NE(r.out.find("Invalid current version \n"), std::string::npos) << r;
  EXPECT_TRUE(server.requestLines().empty());
  EXPECT_TRUE(lockExists());
}

TEST_F(E2eCommandLine, WithoutOptionTheLogGoesToTheFileOnly) {
  const RunResult r = box.run(linuxProgram(), {address(), "7.3.0.0"});
  ASSERT_EQ(r.status, 0) << r;
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(server.requestLines(), upToDateRequests());
  EXPECT_EQ(box.messages().back(), "Current version is up to date. Nothing to do");
}

TEST_F(E2eCommandLine, DebugOptionEchoesEveryLogLine) {
  const RunResult r = box.run(linuxProgram(), {"-D", address(), "7.3.0.0"});
  ASSERT_EQ(r.status, 0) << r;
  EXPECT_EQ(r.out, readFile(box.logFile()));
  EXPECT_GT(box.log().size(), 5u);
  EXPECT_TRUE(lockExists()) << "-D alone does not free the lock";
}

TEST_F(E2eCommandLine, OptionsAreMatchedExactly) {
  for (const char* option : {"-d", "-s", "--D", "-DS"}) {
    const RunResult r = box.run(linuxProgram(), {option, address(), "7.3.0.0"});
    EXPECT_EQ(r.status, 4) << option << ": " << r;
    std::remove(box.lockFile().c_str());
  }
  EXPECT_FALSE(logExists());
  EXPECT_TRUE(server.requestLines().empty());
}

// ---- log layout ------------------------------------------------------------------

std::string localNow() {
  const std::time_t t = std::time(nullptr);
  std::tm tm{};
  localtime_r(&t, &tm);
  char buffer[32];
  std::strftime(buffer, sizeof buffer, "%Y-%m-%d %H:%M:%S", &tm);
  return buffer;
}

TEST_F(E2eCommandLine, LogLinesHaveTheirFixedLayout) {
  const std::string before = localNow();
  const RunResult r = box.run(linuxProgram(), {address(), "7.3.0.0"});
  const std::string after = localNow();
  ASSERT_EQ(r.status, 0) << r;
  const std::vector<LogLine> log = box.log();
  ASSERT_GE(log.size(), 3u);
  for (const LogLine& l : log) {
    EXPECT_EQ(l.module, "ROOT") << l.raw;
    EXPECT_GE(l.time, before) << l.raw;
    EXPECT_LE(l.time, after) << l.raw;
  }
  const LogLine& first = log[0];
  EXPECT_EQ(first.raw,
            "[" + first.time + "] - ROOT:NFY - [ (UpdaterRun:" + std::to_string(first.line) + ")] - Check Update");
  EXPECT_GT(first.line, 0);
  EXPECT_EQ(log[1].message, "Current version : 7.3.0.0");
  EXPECT_EQ(log[2].message, "Udpate server : " + url(""));
  bool sawWarning = false;
  for (const LogLine& l : log) {
    if (l.message != "Failed to get agent setup definition file - use legacy definition") continue;
    sawWarning = true;
    EXPECT_EQ(l.level, "WRN");
    EXPECT_EQ(l.file, "UpdaterSetup");
  }
  EXPECT_TRUE(sawWarning);
}

TEST_F(E2eCommandLine, LogIsAppendedAcrossRuns) {
  ASSERT_EQ(box.run(linuxProgram(), {address(), "7.3.0.0"}).status, 0);
  const size_t firstRun = box.log().size();
  ASSERT_EQ(box.run(linuxProgram(), {address(), "7.3.0.0"}).status, 0);
  const std::vector<LogLine> log = box.log();
  ASSERT_GT(log.size(), firstRun);
  EXPECT_EQ(log[firstRun].message, "Check Update");
  EXPECT_EQ(messagesStartingWith(box, "Another instance of has been launched").size(), 1u);
}

// ---- server address ----------------------------------------------------------------

struct AddressCase {
  const char* name;
  // The argument, from the plain hex of the server's base address.
  std::string (*argument)(const std::string& hexBase);
};

class ServerAddress : public E2eCommandLine, public ::testing::WithParamInterface<AddressCase> {};

TEST_P(ServerAddress, DecodesToTheServerBase) {
  const RunResult r = box.run(linuxProgram(), {GetParam().argument(address()), "7.3.0.0"});
  ASSERT_EQ(r.status, 0) << r;
  EXPECT_TRUE(box.logged("Udpate server : " + url("")));
  EXPECT_EQ(server.requestLines(), upToDateRequests());
}

INSTANTIATE_TEST_SUITE_P(
    E2e, ServerAddress,
    ::testing::Values(
        AddressCase{"Plain", [](const std::string& h) { return h; }},
        AddressCase{"TrailingSlashRemoved", [](const std::string& h) { return h + hex("/"); }},
        AddressCase{"OddLastDigitIgnored", [](const std::string& h) { return h + "2"; }},
        AddressCase{"UpperCaseDigits",
                    [](const std::string& h) {
                      std::string u = h;
                      for (char& c : u) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
                      return u;
                    }},
        AddressCase{"DecodingStopsAtANonHexPair", [](const std::string& h) { return h + "zz" + hex("/elsewhere"); }},
        AddressCase{"DecodingStopsAtAZeroByte", [](const std::string& h) { return h + "00" + hex("/elsewhere"); }}),
    [](const ::testing::TestParamInfo<AddressCase>& info) { return std::string(info.param.name); });

TEST_F(E2eCommandLine, AnAddressTooLongToDecodeIsRefused) {
  // 4096 bytes or more do not fit the decoder's 4095 characters and its end.
  for (size_t digits : {size_t{8192}, size_t{8194}, size_t{100000}}) {
    std::string argument;
    while (argument.size() < digits) argument += "61";
    const RunResult r = box.run(linuxProgram(), {argument.substr(0, digits), "7.3.0.0"});
    EXPECT_EQ(r.status, 1) << digits << " digits: " << r;
    EXPECT_NE(r.err.find("Invalid server address"), std::string::npos) << r;
  }
  EXPECT_TRUE(server.requestLines().empty());
  EXPECT_FALSE(lockExists());
}

TEST_F(E2eCommandLine, TheLongestAddressThatFitsIsUsed) {
  server.failOnUnexpected(false);
  const std::string base = url("") + "/";
  const std::string path = std::string(4095 - base.size(), 'a');
  // 8190 and 8191 digits both decode to 4095 characters. Result 2 (nothing
  // published there) frees the lock for the second run.
  for (const std::string& argument : {hex(base + path), hex(base + path) + "6"}) {
    const RunResult r = box.run(linuxProgram(), {argument, "7.3.0.0"});
    EXPECT_EQ(r.status, 2) << argument.size() << " digits: " << r;
  }
  EXPECT_EQ(server.requestLines().front(), "GET /" + path + "/agent_setup_def.json");
}

}  // namespace
}  // namespace e2e
