// update [-D|-S] <hex url> <version>: one update run of the agent.
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/filesystem/operations.hpp>
#include <boost/filesystem/path.hpp>
#include <cstdio>
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

// The agent's configuration directory, once logging found it.
std::string g_configDir;

// The log directory, or "" for no file log. What was refused on the way is
// added to refusals, to be reported once the log is there.
std::string logDirectory(std::vector<std::string>& refusals) {
  char instance[1024] = {};
  if (osal_getEnv("KX_AGENT_INSTANCE", instance, sizeof instance) != 0) instance[0] = '\0';
  if (const std::string problem = instanceProblem(instance); !problem.empty()) {
    refusals.push_back("Refused KX_AGENT_INSTANCE " + utils::logText(instance) + ": " + problem);
    instance[0] = '\0';
  }
  char confDir[1056] = {};
  std::snprintf(confDir, sizeof confDir, "%s%s%s", utils::configRoot(), instance[0] != '\0' ? "." : "", instance);
  g_configDir = confDir;
  char confFile[2048] = {};
  std::snprintf(confFile, sizeof confFile, "%s%s", confDir, "/dbdir.cfg");
  char dbDir[1024] = {};
  if (osal_getconfstr(confFile, dbDir, sizeof dbDir) != 0) dbDir[0] = '\0';
  if (dbDir[0] != '\0') {
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

// Where the log, and the run record beside it, go; "" for nowhere.
std::string g_logDir;

// An empty directory (no usable temporary directory) leaves the sink without
// a file rather than writing into whatever the working directory is; the
// echo still works.
void init_logging(bool echo) {
  KXLog* log = KXLog::getLogger();
  if (log == nullptr) return;
  log->setLevels("ROOT:5;");
  std::vector<std::string> refusals;
  const std::string dir = g_logDir = logDirectory(refusals);
  g_KXLogCb =
      new FileKXLogCb(dir.empty() ? std::string() : (boost::filesystem::path(dir) / kLogFileName).string(), echo);
  log->setLogCb(g_KXLogCb);
  for (const std::string& refusal : refusals) utils::reportRefusal(refusal);
}

// The record of the run, beside its log. A failure to write it is the
// log's last line.
void recordRun(RunRecord& record, const std::string& version, long long start) {
  if (g_logDir.empty()) return;
  record.installedVersion = version;
  record.startMs = start;
  record.endMs = static_cast<long long>(KXSys::timeMs());
  if (const std::string problem = record.write(g_logDir); !problem.empty()) {
    KXLOG(KXLM_ROOT, KXLL_ERR, "Run record not written: " << problem);
  }
}

// Nothing may log into the sink once it is gone.
void closeLogging() {
  if (g_KXLogCb == nullptr) return;
  if (KXLog* log = KXLog::getLogger()) log->setLogCb(nullptr);
  delete g_KXLogCb;
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

  std::string url;
  std::string version;
  bool restartOnly = false;
  if (argc == 3) {
    init_logging(false);
    url = argv[1];
    version = argv[2];
  } else if (std::strcmp(argv[1], "-D") == 0 || std::strcmp(argv[1], "-S") == 0) {
    restartOnly = argv[1][1] == 'S';
    init_logging(true);
    url = argv[2];
    version = argv[3];
  }
  // Any other four-argument form runs with an empty address and version and
  // no log file; the run's own checks end it.

  const long long start = static_cast<long long>(KXSys::timeMs());
  RunRecord record;
  int result = 0;
  try {
    std::string decoded = utils::decodeURL(url);
    if (!decoded.empty() && decoded.back() == '/') decoded.pop_back();
    Updater updater(restartOnly);
    updater.configDir = g_configDir;
    result = updater.checkAndUpdate(decoded, version);
    recordRun(updater.record, version, start);
  } catch (const std::exception& e) {
    std::cout << e.what();
    record.outcome = Outcome::failed(0, std::string("exception: ") + utils::logText(e.what()));
    record.action = "failed";
    recordRun(record, version, start);
  } catch (const KXException& e) {
    // The address decodes to more than the 4095 characters a URL may have.
    std::cerr << "Invalid server address (error " << e.getCode() << ")" << std::endl;
    record.outcome = Outcome::failed(1, "server address too long to decode");
    record.action = "failed";
    recordRun(record, version, start);
    result = 1;
  }
  closeLogging();
  return result;
}
