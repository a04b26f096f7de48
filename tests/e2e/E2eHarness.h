#pragma once

// Harness for end-to-end runs of the real update programs.
//
// A test builds a Sandbox (its own TMPDIR, a unique KX_AGENT_INSTANCE and
// recording shims first in PATH), publishes files on a TestServer, runs a
// program with Sandbox::run and then looks at three things the program
// leaves behind: its RunResult (exit status, standard output and error), its
// log file (Sandbox::log, parsed into fields) and the commands it ran
// (Sandbox::calls, one "<name> <args>" line per call).
//
//   TestServer server;
//   Sandbox box;
//   server.on("/linux/amd64/version_long.txt", TestServer::Response::text("7.3.0.0"));
//   RunResult r = box.run(linuxProgram(), {hex(server.url("")), "7.2.0.1"});
//   EXPECT_EQ(r.status, 0) << r;
//   EXPECT_EQ(box.messages().back(), "Agent Update done");
//
// Everything the program writes lands inside the sandbox, which is removed
// with the object. The harness relies on Linux process facilities (memfd,
// pidfd, personality).

#include <sys/resource.h>
#include <sys/types.h>

#include <chrono>
#include <map>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "Shims.h"
#include "TempDir.h"

namespace e2e {

// The programs under test: those of this build, unless KX_E2E_UPDATE_MACOS
// or KX_E2E_UPDATE_LINUX name another one (an installed program, a release
// build).
const char* macosProgram();  // follows the macOS flow (disk image, installer, launchctl)
const char* linuxProgram();  // follows the Linux flow (deb here, systemctl)

// Two lower-case hex digits per byte: the form the program takes its server
// address in.
std::string hex(const std::string& text);

// Lower-case MD5 of data, computed without the code under test.
std::string md5Hex(const std::string& data);

// size bytes of reproducible content; different seeds give different bytes.
std::string packageBytes(size_t size, unsigned seed = 1);

// Wall clock in milliseconds since the epoch, the lock file's unit.
long long nowMs();

// Where a server keeps the packages for this machine's processor, as the
// program looks for them. code is 0 on a processor the program does not
// know; tests then skip.
struct HostArch {
  std::string machine;               // as uname names it, "x86_64"
  int code = 0;                      // 1 amd64, 2 arm64
  std::string linuxDir;              // legacy Linux directory, "/linux/amd64"
  std::vector<std::string> macDirs;  // the macOS probe's directories in order, the last one "/macosx"
};
const HostArch& hostArch();

struct RunOptions {
  // Set in the child on top of the inherited environment, then removed.
  std::map<std::string, std::string> env;
  std::vector<std::string> unsetEnv;
  // Run as this user and group (the caller must be root to switch).
  std::optional<std::pair<uid_t, gid_t>> user;
  // 32-bit personality: uname then names a machine the program does not know.
  bool uname32 = false;
  // A run that takes longer is killed and reported as timed out; real runs
  // take well under a second.
  std::chrono::seconds timeout{30};
  // The timeout is the watchdog the test relies on (a run that is meant to
  // hang): reaching it does not fail the test.
  bool timeoutExpected = false;
  // A file size limit in bytes, with SIGXFSZ ignored, so that a write past
  // it fails (EFBIG) the way a write to a full disk does, without a signal.
  std::optional<rlim_t> fileSizeLimit;
  // An empty tmpfs of `second` bytes mounted on the directory `first` in a
  // mount namespace of the child's own: a small disk that nobody else sees
  // and that vanishes with the run. Needs privateMountsAvailable().
  std::optional<std::pair<std::string, size_t>> smallDisk;
};

// Whether this process may give a child a mount namespace of its own (root,
// and a kernel or container that allows it).
bool privateMountsAvailable();

struct RunResult {
  int status = -1;  // exit status, -1 when the program did not exit by itself
  int signal = 0;   // the signal that ended it, 0 when it exited
  bool timedOut = false;
  std::string out;  // standard output
  std::string err;  // standard error
};
// Status and both outputs, for assertion messages.
std::ostream& operator<<(std::ostream& os, const RunResult& r);

// Every directory above path can be entered by any user, as a run with
// RunOptions::user needs to reach its sandbox.
bool reachableByAnyone(const std::string& path);

// Runs program with args in workDir and waits for it (bounded by
// options.timeout). Standard input is /dev/null. Fails the current test when
// the program cannot be started.
RunResult runProgram(const std::string& program, const std::vector<std::string>& args, const std::string& workDir,
                     const RunOptions& options = {});

// One log message: a line of the log file split at its fixed separators.
// A message that spans several lines (a version file with a line break, for
// example) is one entry. Text before the first well-formed line is kept as
// one entry with only `raw` and `message` set.
struct LogLine {
  std::string time;    // "YYYY-mm-dd HH:MM:SS"
  std::string module;  // "ROOT"
  std::string level;   // "NFY", "ERR", "WRN", ...
  std::string file;    // source file name without directory, "UpdaterRun"
  int line = 0;
  std::string message;
  std::string raw;  // the whole line(s) as written
};
std::vector<LogLine> parseLog(const std::string& text);

// Creates <configRoot>.<instance>/dbdir.cfg naming dbDir for the scope and
// removes it again, together with every directory it had to create on the
// way, also when the test fails.
class ScopedConfig {
 public:
  ScopedConfig(const std::string& configRoot, const std::string& instance, const std::string& dbDir);
  ~ScopedConfig();
  ScopedConfig(const ScopedConfig&) = delete;
  ScopedConfig& operator=(const ScopedConfig&) = delete;

  std::string file() const { return _dir + "/dbdir.cfg"; }

 private:
  std::string _dir;
  std::vector<std::string> _created;
};

// A directory of its own for one run or a few runs of the program: TMPDIR of
// this process points at it (and so the program's lock file, download and log
// land there), shims for the system commands are first in PATH, and the
// program gets an instance name no real installation uses, so that it reads
// no real configuration. As it changes this process's TMPDIR and PATH, one
// sandbox at a time per process; not copyable.
class Sandbox {
 public:
  Sandbox();
  Sandbox(const Sandbox&) = delete;
  Sandbox& operator=(const Sandbox&) = delete;

  const std::string& dir() const { return _tmp.path(); }
  std::string file(const std::string& name) const { return _tmp.file(name); }
  const std::string& instance() const { return _instance; }

  // The program's files when no database directory is configured.
  std::string lockFile() const { return file("upgrade_ovk.lock"); }
  std::string logFile() const { return file("agent_upd.log"); }

  // The log as parsed entries, just its messages, and whether one of them is
  // exactly `message`.
  std::vector<LogLine> log() const;
  std::vector<std::string> messages() const;
  bool logged(const std::string& message) const;

  Shims& shims() { return _shims; }
  // Every shim call so far, "<name> <args joined by blanks>".
  std::vector<std::string> calls() const { return _shims.calls(); }
  // Replaces a shim with one that records its call like the others and then
  // runs `script` (sh); the script's exit status is the command's.
  void scriptShim(const std::string& command, const std::string& script);
  // Replaces a shim with one that records each argument in brackets
  // ("installer [-target] [/] [-pkg] [/Volumes/A B/set.pkg]"), so that the
  // shell's quoting shows in the record.
  void argvShim(const std::string& command);

  // Gives the sandbox and everything in it to uid/gid, for a run as that user.
  void handOver(uid_t uid, gid_t gid) const;

  // runProgram in the sandbox with KX_AGENT_INSTANCE set to instance().
  RunResult run(const std::string& program, const std::vector<std::string>& args, RunOptions options = {}) const;

 private:
  TempDir _tmp{true};
  std::string _instance;
  Shims _shims;
};

}  // namespace e2e
