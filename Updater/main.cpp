// update [-D|-S] <hex url> <version>: one update run of the agent.
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/filesystem/operations.hpp>
#include <boost/filesystem/path.hpp>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iostream>
#include <string>
#include <vector>

#include "FileKXLogCb.h"
#include "KXException.h"
#include "KXLog.h"
#include "KXSys.h"
#include "RunRecord.h"
#include "TargetOS.h"
#include "Updater.h"
#include "osal_conf.h"
#include "osal_file.h"
#include "osal_sysinfo.h"
#include "utils.h"

// The one file sink of the process; deleted by main after the run.
KXLogCb* g_KXLogCb = nullptr;

namespace {

const char* const kLogFileName = "agent_upd.log";

// The instance name becomes the suffix of a directory read as root: it must
// not reach another directory. Anything else a name may hold is fine.
std::string instanceProblem(const std::string& name) {
  if (name == "." || name == "..") return "it is no directory name";
  for (const char c : name) {
    if (c == '/') return "it holds a /";
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) return "it holds a control character";
  }
  return std::string();
}

// The agent's configuration directory ("<root>" or "<root>.<instance>"). An
// instance name that is refused is added to refusals, to be reported once the
// log is there.
std::string configDirectory(std::vector<std::string>& refusals) {
  char instance[1024] = {};
  if (osal_getEnv("KX_AGENT_INSTANCE", instance, sizeof instance) != 0) instance[0] = '\0';
  if (const std::string problem = instanceProblem(instance); !problem.empty()) {
    refusals.push_back("Refused KX_AGENT_INSTANCE " + utils::logText(instance) + ": " + problem);
    instance[0] = '\0';
  }
  char confDir[1056] = {};
  std::snprintf(confDir, sizeof confDir, "%s%s%s", utils::configRoot(), instance[0] != '\0' ? "." : "", instance);
  return confDir;
}

// The agent's database directory as dbdir.cfg names it, or "".
std::string databaseDirectory(const std::string& confDir) {
  char confFile[2048] = {};
  std::snprintf(confFile, sizeof confFile, "%s%s", confDir.c_str(), "/dbdir.cfg");
  char dbDir[1024] = {};
  if (osal_getconfstr(confFile, dbDir, sizeof dbDir) != 0) dbDir[0] = '\0';
  return dbDir;
}

// Where a signed install keeps its package: beside the logs in the database
// directory, else the platform's cache directory with the instance's suffix.
// Made only when a run needs it.
std::string cacheDirectory(const std::string& dbDir, const std::string& confDir) {
  if (!dbDir.empty()) return (boost::filesystem::path(dbDir) / "UpdCache").string();
  return utils::cacheRoot() + confDir.substr(std::strlen(utils::configRoot()));
}

// The log directory for the database directory, or "" for no file log.
// What was refused on the way is added to refusals.
std::string logDirectory(const std::string& dbDir, std::vector<std::string>& refusals) {
  if (!dbDir.empty()) {
    // Root creates the log there and rolls it: a directory on the way that
    // someone else can change could point it anywhere.
    std::string dir = (boost::filesystem::path(dbDir) / "UpdLogs").string();
    std::string problem = utils::directoryProblem(dbDir);
    if (problem.empty()) {
      osal_mkdir(dir.c_str(), nullptr, false);
      problem = utils::directoryProblem(dir);
    }
    if (problem.empty()) return dir;
    refusals.push_back("Refused log directory " + utils::logText(dir) + ": " + utils::logText(problem));
    return std::string();
  }
  // A temporary directory that is refused is reported by the run, which
  // needs it too.
  boost::system::error_code ec;
  std::string dir = boost::filesystem::temp_directory_path(ec).string();
  return !ec && utils::directoryProblem(dir).empty() ? dir : std::string();
}

// Where the agent's configuration and the log (and the run record beside
// it) are; "" for none.
struct Places {
  std::string configDir;
  std::string logDir;
  std::string cacheDir;
};

// An empty log directory (no usable temporary directory) leaves the sink
// without a file rather than writing into whatever the working directory is;
// the echo still works.
Places init_logging(bool echo) {
  KXLog* log = KXLog::getLogger();
  if (log == nullptr) return Places();
  log->setLevels("ROOT:5;");
  std::vector<std::string> refusals;
  Places places;
  places.configDir = configDirectory(refusals);
  const std::string dbDir = databaseDirectory(places.configDir);
  places.logDir = logDirectory(dbDir, refusals);
  places.cacheDir = cacheDirectory(dbDir, places.configDir);
  g_KXLogCb = new FileKXLogCb(
      places.logDir.empty() ? std::string() : (boost::filesystem::path(places.logDir) / kLogFileName).string(), echo);
  log->setLogCb(g_KXLogCb);
  for (const std::string& refusal : refusals) utils::reportRefusal(refusal);
  return places;
}

// The record of a run that ended outside the Updater, beside the log.
void recordRun(const Places& places, const RunEnd& end, const std::string& version, long long start) {
  if (places.logDir.empty()) return;
  RunRecord{start, static_cast<long long>(KXSys::timeMs()), version, end}.keep(places.logDir);
}

// Nothing may log into the sink once it is gone.
void closeLogging() {
  if (g_KXLogCb == nullptr) return;
  if (KXLog* log = KXLog::getLogger()) log->setLogCb(nullptr);
  delete g_KXLogCb;
}

// One run for the decoded address; what escapes it is recorded too.
int runOnce(const Places& places, bool restartOnly, const std::string& url, const std::string& version) {
  const auto start = static_cast<long long>(KXSys::timeMs());
  try {
    std::string decoded = utils::decodeURL(url);
    if (!decoded.empty() && decoded.back() == '/') decoded.pop_back();
    Updater updater(restartOnly, places.configDir, places.logDir, places.cacheDir);
    return updater.checkAndUpdate(decoded, version);
  } catch (const std::exception& e) {
    std::cout << e.what();
    const RunEnd end = RunEnd::escaped(utils::logText(e.what()));
    recordRun(places, end, version, start);
    return end.exitStatus();
  } catch (const KXException& e) {
    // The address decodes to more than the 4095 characters a URL may have:
    // exit status 1, as for a command line that cannot be used.
    std::cerr << "Invalid server address (error " << e.getCode() << ")" << std::endl;
    const RunEnd end = RunEnd::failed(Failure(Result::NotRoot, "server address too long to decode"), Facts());
    recordRun(places, end, version, start);
    return end.exitStatus();
  }
}

// Ends the process once a run is over: its log closed, its lock freed, its
// record written. exit() would run the finalisers of each of the thirty-odd
// libraries libcurl loads, which fault in code the run never used (a third of
// a MiB more at its peak) to free memory the kernel takes back anyway. What
// stdio holds for the terminal is written first. A sanitizer build exits as
// usual, so that its checks at exit still run.
[[noreturn]] void endProcess(int status) {
#ifdef KX_SANITIZED
  std::exit(status);
#else
  std::fflush(nullptr);
  _exit(status);
#endif
}

}  // namespace

int main(int argc, char** argv) {
  setpgrp();
  // A terminal that went away (a dropped SSH session, "| head" on -D) must
  // not end a run half-way; the commands we start get default handling back.
  signal(SIGPIPE, SIG_IGN);
  signal(SIGHUP, SIG_IGN);
  // Whatever the caller's umask, nothing we create (log directory, log, lock,
  // package) is writable by group or others.
  umask(umask(0) | 022);
  if (argc != 3 && argc != 4) {
    std::cout << "Usage : " << std::endl << "update [-D] <url> <version>" << std::endl;
    return 1;
  }
  // Any other four-argument form runs with an empty address and version and
  // no log file; the run's own checks end it.
  const bool echo = argc == 4 && (std::strcmp(argv[1], "-D") == 0 || std::strcmp(argv[1], "-S") == 0);
  const bool restartOnly = echo && argv[1][1] == 'S';
  const Places places = argc == 3 || echo ? init_logging(echo) : Places();
  const std::string url = argc == 3 ? argv[1] : echo ? argv[2] : "";
  const std::string version = argc == 3 ? argv[2] : echo ? argv[3] : "";
  const int result = runOnce(places, restartOnly, url, version);
  closeLogging();
  endProcess(result);
}
