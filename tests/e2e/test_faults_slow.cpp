// A server that stays connected but (nearly) silent. The client has no
// overall time-out by design (only a 60 s connect time-out), so such a run
// waits for as long as the server keeps the connection: these tests show it
// still waiting when a short watchdog kills it, with the agent never
// stopped. A run killed this way keeps its lock, so the next start within
// the hour is refused.
#include <chrono>
#include <string>
#include <vector>

#include "FaultTest.h"

namespace e2e {
namespace {

class SlowServerFault : public FaultTest {
 protected:
  // Runs under a watchdog, which must be what ends the run.
  RunResult updateUnderWatchdog() {
    RunOptions options;
    options.timeout = std::chrono::seconds(2);
    options.timeoutExpected = true;
    const RunResult r = update("7.2.0.1", {}, options);
    EXPECT_TRUE(r.timedOut) << r;
    EXPECT_EQ(r.signal, 9) << r;
    EXPECT_TRUE(box.calls().empty()) << "the agent was touched by a run that never got its package";
    EXPECT_TRUE(lockExists());
    return r;
  }

  static Response silent() { return Response::text("", 200, Fault::Silent); }
};

TEST_F(SlowServerFault, SilenceAfterAcceptHoldsTheFirstRequest) {
  publish();
  server.on("/agent_setup_def.json", silent());
  updateUnderWatchdog();
  EXPECT_EQ(server.requestLines(), Lines{"GET /agent_setup_def.json"});
  EXPECT_EQ(box.messages().back(), "arch  is [" + hostArch().machine + "]");
}

TEST_F(SlowServerFault, SilenceInsteadOfThePackageHoldsTheDownload) {
  publish();
  onPackage({Response::text(package), silent()});
  updateUnderWatchdog();
  EXPECT_EQ(server.requestLines(), requests(1));
  EXPECT_EQ(box.messages().back(), "File size for " + server.url(packagePath()) + " is 200000 bytes");
  EXPECT_EQ(readFile(setupFile()), "");
}

TEST_F(SlowServerFault, OneByteDripHoldsTheDownload) {
  publish();
  // 200000 pieces of one byte, a tenth of a second apart: more than five
  // hours for the whole package.
  Response drip = Response::text(package, 200, Fault::Drip);
  drip.pieces = static_cast<int>(package.size());
  drip.pause = std::chrono::milliseconds(100);
  onPackage({Response::text(package), drip});
  updateUnderWatchdog();
  EXPECT_EQ(server.requestLines(), requests(1));
  EXPECT_EQ(box.messages().back(), "File size for " + server.url(packagePath()) + " is 200000 bytes");
  const std::string partial = readFile(setupFile());
  EXPECT_LT(partial.size(), package.size());
  EXPECT_TRUE(partial == package.substr(0, partial.size())) << "not a prefix of the package";
}

}  // namespace
}  // namespace e2e
