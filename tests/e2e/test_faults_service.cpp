// The service commands fail: whatever happens to the stop or the install,
// the agent is started again and the run ends as an update.
#include <string>
#include <utility>
#include <vector>

#include "FaultTest.h"

namespace e2e {
namespace {

struct ServiceCase {
  const char* name;
  Target target;
  // Shims to rig, each with its behaviour after recording the call.
  std::vector<std::pair<const char*, const char*>> rig;
  std::vector<const char*> errors;  // the ERR messages after the definition file's 404, in order
};

const char* const kFailStop = "case \"$1\" in stop) exit 3 ;; esac";
const char* const kFailUnload = "case \"$1\" in unload) exit 3 ;; esac";
const char* const kKilled = "kill -9 $$";
// Attaches as the real tool does, and fails to detach.
const char* const kFailDetach =
    "case \"$1\" in detach) exit 1 ;; esac\n"
    "cat \"$(dirname \"$0\")/hdiutil.out\"";

class ServiceFault : public FaultTest, public ::testing::WithParamInterface<ServiceCase> {};

TEST_P(ServiceFault, AgentIsStartedAgain) {
  const ServiceCase& c = GetParam();
  target = c.target;
  publish();
  for (const auto& shim : c.rig) box.scriptShim(shim.first, shim.second);
  const RunResult r = update();
  ASSERT_EQ(r.status, 0) << r;
  EXPECT_EQ(box.calls(), updateCalls());
  EXPECT_TRUE(restartedAfterEveryStop(box.calls()));
  // The client's own errors (the definition file, the probe's misses) are
  // not the service's.
  Lines errors;
  for (const std::string& m : messagesAt(box, "ERR")) {
    if (m.rfind("Request ", 0) != 0) errors.push_back(m);
  }
  ASSERT_EQ(errors.size(), c.errors.size()) << ::testing::PrintToString(errors);
  for (size_t i = 0; i < errors.size(); ++i) {
    const std::string expected = c.errors[i];
    const size_t killed = expected.find("{killed}");
    if (killed == std::string::npos) {
      EXPECT_EQ(errors[i], expected);
      continue;
    }
    const auto with = [&](const char* status) { return std::string(expected).replace(killed, 8, status); };
    EXPECT_TRUE(errors[i] == with("9") || errors[i] == with("35072")) << errors[i];
  }
  EXPECT_EQ(box.messages().back(), "Agent Update done");
  EXPECT_TRUE(lockExists());
}

// system() reports the raw wait status: exit 1 reads 256, exit 3 reads 768.
// A command killed by signal 9 reads 9 when the shell ran it in its own
// process, or 35072 (exit status 128 + 9) when the shell waited for it as a
// child, which is what dash does.
INSTANTIATE_TEST_SUITE_P(
    Fault, ServiceFault,
    ::testing::Values(
        ServiceCase{"LinuxStopFails", Target::Linux, {{"systemctl", kFailStop}}, {"Fail to stop agent: [768]"}},
        ServiceCase{"LinuxStopFailsInstallerKilled",
                    Target::Linux,
                    {{"systemctl", kFailStop}, {"dpkg", kKilled}},
                    {"Fail to stop agent: [768]", "Fail to install agent : [{killed}]"}},
        ServiceCase{"MacStopFails", Target::Mac, {{"launchctl", kFailUnload}}, {"Fail to stop agent: [768]"}},
        ServiceCase{"MacInstallerFails", Target::Mac, {{"installer", "exit 1"}}, {"Fail to install agent : [256]"}},
        ServiceCase{
            "MacInstallerKilled", Target::Mac, {{"installer", kKilled}}, {"Fail to install agent : [{killed}]"}},
        ServiceCase{"MacStopFailsInstallerFails",
                    Target::Mac,
                    {{"launchctl", kFailUnload}, {"installer", "exit 1"}},
                    {"Fail to stop agent: [768]", "Fail to install agent : [256]"}},
        ServiceCase{"MacDetachFails", Target::Mac, {{"hdiutil", kFailDetach}}, {}},
        ServiceCase{"MacStartFails",
                    Target::Mac,
                    {{"launchctl", "case \"$1\" in load) exit 5 ;; esac"}},
                    {"Fail to re-start agent : [1280]"}}),
    caseName<ServiceCase>);

}  // namespace
}  // namespace e2e
