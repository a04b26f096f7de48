// The one place that starts child processes: Boost.Process for the command
// whose output is read, fork and exec for the rest.
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/filesystem/path.hpp>
#include <boost/process.hpp>
#include <boost/process/extend.hpp>
#include <boost/process/posix.hpp>
#include <cerrno>
#include <exception>
#include <istream>
#include <string>
#include <vector>

#include "KXLog.h"
#include "osal_file.h"
#include "utils.h"

namespace bp = boost::process;

namespace utils {

namespace {

// In the child, before exec; async-signal-safe only. The updater ignores
// SIGPIPE and SIGHUP and may be holding SIGTERM back, and an installer must
// start with none of that, and with none of our descriptors (the log, the
// server connection) beyond standard output and error.
void startClean() {
  for (const int sig : {SIGPIPE, SIGHUP, SIGINT, SIGTERM, SIGQUIT}) signal(sig, SIG_DFL);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  osal_closeOnExecFrom(3);
}

int spawnAndWait(const std::vector<std::string>& args, bool viaPath) {
  std::vector<char*> argv;
  argv.reserve(args.size() + 1);
  for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  const pid_t pid = fork();
  if (pid < 0) return -1;
  if (pid == 0) {
    startClean();
    const int null = open("/dev/null", O_RDONLY);
    if (null >= 0 && null != STDIN_FILENO) {
      dup2(null, STDIN_FILENO);
      close(null);
    }
    if (viaPath) {
      execvp(argv[0], argv.data());
    } else {
      execv(argv[0], argv.data());
    }
    _exit(127);
  }
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return -1;
  }
  return status;
}

}  // namespace

int runShell(const std::string& cmd) { return spawnAndWait({"/bin/sh", "-c", cmd}, false); }

int runProgram(const std::vector<std::string>& args) { return spawnAndWait(args, true); }

int exec(std::string& cmd, std::vector<std::string>& output) {
  bp::ipstream out;
  const std::vector<std::string> args{"-c", cmd};
  const boost::filesystem::path sh = bp::search_path("sh", boost::this_process::path());
  bp::child child(
      sh, bp::args(args), bp::std_in<bp::null, bp::std_out> out, bp::posix::sig.dfl(),
      bp::extend::on_exec_setup = [](auto& /*executor*/) { startClean(); });
  if (!child.valid()) return -1;
  child.wait();
  const int code = child.exit_code();
  if (code != 0) return code;
  // Read only now that the child has ended: hdiutil's few lines fit in the
  // pipe buffer, and a failed command's partial output is never used.
  std::string line;
  while (std::getline(out, line)) output.push_back(line);
  return 0;
}

int execlog(std::string& cmd) {
  try {
    bp::ipstream out;
    bp::ipstream err;
    bp::child child(
        cmd, bp::std_in<bp::null, bp::std_out> out, bp::std_err > err, bp::posix::sig.dfl(),
        bp::extend::on_exec_setup = [](auto& /*executor*/) { startClean(); });
    int code = -1;
    if (child.valid()) {
      child.wait();
      code = child.exit_code();
    }
    KXLOG(KXLM_ROOT, KXLL_NFY, "exec : " << cmd);
    std::string line;
    while (std::getline(out, line)) KXLOG(KXLM_ROOT, KXLL_NFY, line);
    while (std::getline(err, line)) KXLOG(KXLM_ROOT, KXLL_ERR, line);
    return code;
  } catch (const std::exception& e) {
    KXLOG(KXLM_ROOT, KXLL_ERR, e.what());
    return -1;
  }
}

}  // namespace utils
