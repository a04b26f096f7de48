// update [-D|-S] <hex url> <version>: one update run of the agent.
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/filesystem/operations.hpp>
#include <boost/filesystem/path.hpp>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <exception>
#include <iostream>
#include <string>

#include "FileKXLogCb.h"
#include "KXException.h"
#include "KXLog.h"
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

// The instance name becomes part of a directory path read as root: only a
// plain name, never one that climbs out of the configuration root.
bool isInstanceName(const char* name) {
  for (const char* c = name; *c != '\0'; ++c) {
    if (std::isalnum(static_cast<unsigned char>(*c)) == 0 && std::strchr("-_.", *c) == nullptr) return false;
  }
  return std::strstr(name, "..") == nullptr;
}

std::string logDirectory(std::string& ignoredInstance) {
  char instance[1024] = {};
  if (osal_getEnv("KX_AGENT_INSTANCE", instance, sizeof instance) != 0) instance[0] = '\0';
  if (!isInstanceName(instance)) {
    ignoredInstance = instance;
    instance[0] = '\0';
  }
  char confDir[1056] = {};
  std::snprintf(confDir, sizeof confDir, "%s%s%s", utils::configRoot(), instance[0] != '\0' ? "." : "", instance);
  char confFile[2048] = {};
  std::snprintf(confFile, sizeof confFile, "%s%s", confDir, "/dbdir.cfg");
  char dbDir[1024] = {};
  if (osal_getconfstr(confFile, dbDir, sizeof dbDir) != 0) dbDir[0] = '\0';
  if (dbDir[0] != '\0') {
    std::string dir = (boost::filesystem::path(dbDir) / "UpdLogs").string();
    osal_mkdir(dir.c_str(), nullptr, false);
    return dir;
  }
  boost::system::error_code ec;
  std::string dir = boost::filesystem::temp_directory_path(ec).string();
  // No log file rather than one that another user could swap.
  return utils::tempDirProblem(dir).empty() ? dir : std::string();
}

// An empty directory (no usable temporary directory) leaves the sink without
// a file rather than writing into whatever the working directory is; the
// echo still works.
std::string logFilePath(std::string& ignoredInstance) {
  const std::string dir = logDirectory(ignoredInstance);
  return dir.empty() ? std::string() : (boost::filesystem::path(dir) / kLogFileName).string();
}

void init_logging(bool echo) {
  KXLog* log = KXLog::getLogger();
  if (log == nullptr) return;
  log->setLevels("ROOT:5;");
  std::string ignoredInstance;
  g_KXLogCb = new FileKXLogCb(logFilePath(ignoredInstance), echo);
  log->setLogCb(g_KXLogCb);
  if (!ignoredInstance.empty()) {
    KXLOG(KXLM_ROOT, KXLL_WRN,
          "Ignored KX_AGENT_INSTANCE that is not a plain name: " << utils::logText(ignoredInstance));
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

  int result = 0;
  try {
    std::string decoded = utils::decodeURL(url);
    if (!decoded.empty() && decoded.back() == '/') decoded.pop_back();
    Updater updater(restartOnly);
    result = updater.checkAndUpdate(decoded, version);
    closeLogging();
  } catch (const std::exception& e) {
    std::cout << e.what();
    closeLogging();
    return 0;
  } catch (const KXException& e) {
    // The address decodes to more than the 4095 characters a URL may have.
    std::cerr << "Invalid server address (error " << e.getCode() << ")" << std::endl;
    closeLogging();
    return 1;
  }
  return result;
}
