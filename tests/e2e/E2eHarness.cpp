#include "E2eHarness.h"

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/personality.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <regex>
#include <sstream>

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <boost/filesystem.hpp>

extern char** environ;

namespace e2e {

namespace {

// Exit status of a child that never reached the program; it also writes a
// line starting with kSetupFailure to its standard error.
constexpr int kChildSetupFailed = 127;
const char kSetupFailure[] = "e2e harness: ";

std::string makeDir(const std::string& path) {
  boost::filesystem::create_directory(path);
  return path;
}

std::string uniqueInstance() {
  static std::atomic<int> counter{0};
  return "e2e-" + std::to_string(getpid()) + "-" + std::to_string(counter++);
}

std::string readAll(int fd) {
  std::string text;
  if (lseek(fd, 0, SEEK_SET) != 0) return text;
  char buffer[65536];
  for (;;) {
    const ssize_t n = read(fd, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    text.append(buffer, static_cast<size_t>(n));
  }
  return text;
}

// Only async-signal-safe calls between fork and exec: the test process has
// the server's threads running.
[[noreturn]] void childFailed(const char* step) {
  const size_t prefix = sizeof kSetupFailure - 1;
  if (write(2, kSetupFailure, prefix) < 0 || write(2, step, std::strlen(step)) < 0 || write(2, "\n", 1) < 0) {
    // Nothing left to report it with.
  }
  _exit(kChildSetupFailed);
}

// Waits for pid, killing its process group (the program makes one of its own
// at start) once the timeout has passed. Without pidfd support the wait is
// unbounded.
void waitFor(pid_t pid, std::chrono::seconds timeout, RunResult& result) {
#ifdef SYS_pidfd_open
  const int pidfd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
  if (pidfd >= 0) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    int rc = 0;
    do {
      const auto left =
          std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
      pollfd p{pidfd, POLLIN, 0};
      rc = poll(&p, 1, static_cast<int>(std::max<long long>(0, left.count())));
    } while (rc < 0 && errno == EINTR);
    close(pidfd);
    if (rc == 0) {
      result.timedOut = true;
      kill(-pid, SIGKILL);
      kill(pid, SIGKILL);
    }
  }
#else
  (void)timeout;
#endif
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return;
  }
  if (WIFEXITED(status)) {
    result.status = WEXITSTATUS(status);
  } else if (WIFSIGNALED(status)) {
    result.signal = WTERMSIG(status);
  }
}

}  // namespace

namespace {
const char* overridden(const char* variable, const char* built) {
  const char* path = std::getenv(variable);
  return path != nullptr && *path != '\0' ? path : built;
}
}  // namespace

const char* macosProgram() { return overridden("KX_E2E_UPDATE_MACOS", KX_UPDATE_MACOS); }
const char* linuxProgram() { return overridden("KX_E2E_UPDATE_LINUX", KX_UPDATE_LINUX); }

std::string hex(const std::string& text) {
  static const char digits[] = "0123456789abcdef";
  std::string out;
  out.reserve(text.size() * 2);
  for (unsigned char c : text) {
    out += digits[c >> 4];
    out += digits[c & 0x0F];
  }
  return out;
}

std::string md5Hex(const std::string& data) {
  unsigned char md[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (EVP_Digest(data.data(), data.size(), md, &length, EVP_md5(), nullptr) != 1) {
    ADD_FAILURE() << "EVP_Digest failed";
    return std::string();
  }
  return hex(std::string(reinterpret_cast<const char*>(md), length));
}

std::string packageBytes(size_t size, unsigned seed) {
  std::string out(size, '\0');
  uint32_t x = 2463534242u ^ seed;
  for (char& c : out) {
    x ^= x << 13;
    x ^= x >> 17;
    x ^= x << 5;
    c = static_cast<char>(x & 0xFF);
  }
  return out;
}

long long nowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch())
      .count();
}

const HostArch& hostArch() {
  static const HostArch arch = [] {
    utsname u{};
    HostArch a;
    if (uname(&u) != 0) return a;
    const std::string machine = u.machine;
    if (machine == "x86_64" || machine == "amd64") {
      a = {machine, 1, "/linux/amd64", {"/macosx/amd64", "/macosx"}};
    } else if (machine == "aarch64" || machine == "arm64") {
      a = {machine, 2, "/linux/aarch64", {"/macosx/arm64", "/macosx-arm64", "/macosx"}};
    }
    return a;
  }();
  return arch;
}

std::ostream& operator<<(std::ostream& os, const RunResult& r) {
  if (r.timedOut) os << "timed out, ";
  if (r.signal != 0) {
    os << "killed by signal " << r.signal;
  } else {
    os << "exit status " << r.status;
  }
  return os << "\n--- stdout ---\n" << r.out << "\n--- stderr ---\n" << r.err << "\n---";
}

bool reachableByAnyone(const std::string& path) {
  for (boost::filesystem::path p = boost::filesystem::path(path).parent_path(); !p.empty() && p != p.root_path();
       p = p.parent_path()) {
    struct stat st {};
    if (stat(p.c_str(), &st) != 0 || (st.st_mode & S_IXOTH) == 0) return false;
  }
  return true;
}

RunResult runProgram(const std::string& program, const std::vector<std::string>& args, const std::string& workDir,
                     const RunOptions& options) {
  RunResult result;

  // Everything the child needs is built before the fork.
  std::vector<std::string> argStore{program};
  argStore.insert(argStore.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (std::string& a : argStore) argv.push_back(&a[0]);
  argv.push_back(nullptr);

  std::map<std::string, std::string> env;
  for (char** e = environ; *e != nullptr; ++e) {
    const std::string entry = *e;
    const size_t eq = entry.find('=');
    if (eq != std::string::npos) env[entry.substr(0, eq)] = entry.substr(eq + 1);
  }
  for (const auto& kv : options.env) env[kv.first] = kv.second;
  for (const std::string& name : options.unsetEnv) env.erase(name);
  std::vector<std::string> envStore;
  for (const auto& kv : env) envStore.push_back(kv.first + "=" + kv.second);
  std::vector<char*> envp;
  for (std::string& e : envStore) envp.push_back(&e[0]);
  envp.push_back(nullptr);

  const std::string diskOptions = options.smallDisk ? "size=" + std::to_string(options.smallDisk->second) : "";

  // Anonymous files rather than pipes: nothing to drain while waiting, and
  // no buffer for a chatty program to fill up.
  const int out = memfd_create("e2e-stdout", MFD_CLOEXEC);
  const int err = memfd_create("e2e-stderr", MFD_CLOEXEC);
  const int in = open("/dev/null", O_RDONLY | O_CLOEXEC);
  const pid_t pid = out >= 0 && err >= 0 && in >= 0 ? fork() : -1;
  if (pid == 0) {
    if (options.uname32 && personality(PER_LINUX32) == -1) childFailed("personality");
    if (options.fileSizeLimit) {
      const rlimit limit{*options.fileSizeLimit, *options.fileSizeLimit};
      if (signal(SIGXFSZ, SIG_IGN) == SIG_ERR || setrlimit(RLIMIT_FSIZE, &limit) != 0) childFailed("file size limit");
    }
    if (options.smallDisk) {
      // Private and recursive first, so that the mount never propagates
      // back to the system's namespace.
      if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
          mount("tmpfs", options.smallDisk->first.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, diskOptions.c_str()) != 0) {
        childFailed("small disk");
      }
    }
    if (options.user) {
      if (setgroups(0, nullptr) != 0 || setgid(options.user->second) != 0 || setuid(options.user->first) != 0) {
        childFailed("cannot switch user");
      }
    }
    if (chdir(workDir.c_str()) != 0) childFailed("chdir");
    if (dup2(in, 0) < 0 || dup2(out, 1) < 0 || dup2(err, 2) < 0) childFailed("dup2");
    execve(program.c_str(), argv.data(), envp.data());
    childFailed("execve");
  }
  if (pid < 0) {
    ADD_FAILURE() << "cannot start " << program << ": " << std::strerror(errno);
  } else {
    waitFor(pid, options.timeout, result);
    result.out = readAll(out);
    result.err = readAll(err);
    if (result.status == kChildSetupFailed && result.err.rfind(kSetupFailure, 0) == 0) {
      ADD_FAILURE() << "cannot run " << program << ": " << result.err;
    }
    if (result.timedOut && !options.timeoutExpected) {
      ADD_FAILURE() << program << " still ran after " << options.timeout.count() << " s";
    }
  }
  for (int fd : {in, out, err}) {
    if (fd >= 0) close(fd);
  }
  return result;
}

bool privateMountsAvailable() {
  const pid_t pid = fork();
  if (pid == 0) {
    _exit(unshare(CLONE_NEWNS) == 0 && mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 ? 0 : 1);
  }
  if (pid < 0) return false;
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return false;
  }
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

ScopedConfig::ScopedConfig(const std::string& configRoot, const std::string& instance, const std::string& dbDir)
    : _dir(configRoot + "." + instance) {
  std::vector<boost::filesystem::path> missing;
  for (boost::filesystem::path p = _dir; !p.empty() && !boost::filesystem::exists(p); p = p.parent_path()) {
    missing.push_back(p);
  }
  for (auto it = missing.rbegin(); it != missing.rend(); ++it) {
    boost::filesystem::create_directory(*it);
    _created.push_back(it->string());
  }
  writeFile(file(), dbDir + "\n");
}

ScopedConfig::~ScopedConfig() {
  boost::system::error_code ec;
  boost::filesystem::remove(file(), ec);
  for (auto it = _created.rbegin(); it != _created.rend(); ++it) boost::filesystem::remove(*it, ec);
}

std::vector<LogLine> parseLog(const std::string& text) {
  // Only the fixed prefix goes through the regex: libstdc++ matches
  // recursively, and a long message (a 64 KiB version file) would overflow
  // the stack.
  static const std::regex layout(
      R"(\[(\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2})\] - ([^: ]+):([A-Z0-9]{3}) - \[ \(([^:]*):(\d+)\)\] - )");
  static const std::string prefixEnd = ")] - ";
  std::vector<LogLine> lines;
  std::istringstream in(text);
  std::string physical;
  while (std::getline(in, physical)) {
    std::smatch m;
    const size_t end = physical.find(prefixEnd);
    if (end != std::string::npos &&
        std::regex_match(physical.cbegin(), physical.cbegin() + static_cast<std::ptrdiff_t>(end + prefixEnd.size()), m,
                         layout)) {
      LogLine l;
      l.time = m[1];
      l.module = m[2];
      l.level = m[3];
      l.file = m[4];
      l.line = std::stoi(m[5]);
      l.message = physical.substr(end + prefixEnd.size());
      l.raw = physical;
      lines.push_back(l);
    } else if (!lines.empty()) {
      // The rest of a message that held a line break.
      lines.back().message += "\n" + physical;
      lines.back().raw += "\n" + physical;
    } else {
      LogLine l;
      l.message = l.raw = physical;
      lines.push_back(l);
    }
  }
  return lines;
}

Sandbox::Sandbox() : _instance(uniqueInstance()), _shims(makeDir(_tmp.file("shims"))) {}

std::vector<LogLine> Sandbox::log() const { return parseLog(readFile(logFile())); }

std::vector<std::string> Sandbox::messages() const {
  std::vector<std::string> out;
  for (const LogLine& l : log()) out.push_back(l.message);
  return out;
}

bool Sandbox::logged(const std::string& message) const {
  for (const LogLine& l : log()) {
    if (l.message == message) return true;
  }
  return false;
}

void Sandbox::scriptShim(const std::string& command, const std::string& script) {
  const std::string path = _shims.dir() + "/" + command;
  writeFile(path,
            "#!/bin/sh\n"
            "name=$(basename \"$0\")\n"
            "printf '%s\\n' \"$name${*:+ $*}\" >> \"$KX_SHIM_RECORD\"\n" +
                script + "\n");
  chmod(path.c_str(), 0755);
}

void Sandbox::argvShim(const std::string& command) {
  const std::string path = _shims.dir() + "/" + command;
  writeFile(path,
            "#!/bin/sh\n"
            "name=$(basename \"$0\")\n"
            "line=$name\n"
            "for a in \"$@\"; do line=\"$line [$a]\"; done\n"
            "printf '%s\\n' \"$line\" >> \"$KX_SHIM_RECORD\"\n"
            "dir=$(dirname \"$0\")\n"
            "status=0\n"
            "[ -f \"$dir/$name.status\" ] && status=$(cat \"$dir/$name.status\")\n"
            "exit \"$status\"\n");
  chmod(path.c_str(), 0755);
}

void Sandbox::handOver(uid_t uid, gid_t gid) const {
  namespace fs = boost::filesystem;
  if (lchown(dir().c_str(), uid, gid) != 0) ADD_FAILURE() << "chown " << dir() << ": " << std::strerror(errno);
  for (fs::recursive_directory_iterator it(dir()), end; it != end; ++it) {
    if (lchown(it->path().c_str(), uid, gid) != 0) {
      ADD_FAILURE() << "chown " << it->path() << ": " << std::strerror(errno);
    }
  }
}

RunResult Sandbox::run(const std::string& program, const std::vector<std::string>& args, RunOptions options) const {
  options.env.emplace("KX_AGENT_INSTANCE", _instance);
  return runProgram(program, args, dir(), options);
}

}  // namespace e2e
