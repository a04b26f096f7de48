// update [-D|-S] <hex url> <version>: one update run of the agent.
#include <unistd.h>

#include <boost/filesystem/operations.hpp>
#include <boost/filesystem/path.hpp>
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

std::string logDirectory() {
  char instance[1024] = {};
  if (osal_getEnv("KX_AGENT_INSTANCE", instance, sizeof instance) != 0) instance[0] = '\0';
  char confDir[1056] = {};
  std::snprintf(confDir, sizeof confDir, "%s%s%s", utils::configRoot(), instance[0] != '\0' ? "." : "", instance);
  char confFile[2048] = {};
  std::snprintf(confFile, sizeof confFile, "%s%s", confDir, "/dbdir.cfg");
  char dbDir[1024] = {};
  osal_getconfstr(confFile, dbDir, sizeof dbDir);
  if (dbDir[0] != '\0') {
    std::string dir = (boost::filesystem::path(dbDir) / "UpdLogs").string();
    osal_mkdir(dir.c_str(), nullptr, false);
    return dir;
  }
  boost::system::error_code ec;
  return boost::filesystem::temp_directory_path(ec).string();
}

// An empty directory (no usable temporary directory) leaves the sink without
// a file rather than writing into whatever the working directory is; the
// echo still works.
std::string logFilePath() {
  const std::string dir = logDirectory();
  return dir.empty() ? std::string() : (boost::filesystem::path(dir) / kLogFileName).string();
}

void init_logging(bool echo) {
  KXLog* log = KXLog::getLogger();
  if (log == nullptr) return;
  log->setLevels("ROOT:5;");
  g_KXLogCb = new FileKXLogCb(logFilePath(), echo);
  log->setLogCb(g_KXLogCb);
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
