#include <gtest/gtest.h>

#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <csignal>
#include <cstring>

#include "TestSupport.h"
#include "osal_conf.h"
#include "osal_file.h"

using namespace std::string_literals;

// The value read with a 12-byte buffer prefilled with '#', so that a missing
// terminator shows, and "!" when the call failed.
std::string get(const std::string& path) {
  char value[12];
  memset(value, '#', sizeof value);
  const int rc = osal_getconfstr(path.c_str(), value, sizeof value);
  return std::string(value, strnlen(value, sizeof value)) + (rc == 0 ? "" : "!");
}

// Level and message of every line, up to the details in parentheses.
std::string logOf(ScopedLogCapture& cap) {
  std::string out;
  for (const auto& l : cap.lines()) out += l.level + " " + l.message.substr(0, l.message.find(" (")) + ";";
  return out;
}

// A value ends at the first line feed, carriage return, tab or zero byte and
// must leave room for a terminator; a write replaces the whole content.
TEST(ConfStore, ValuesModesAndWhatMustFit) {
  TempDir dir;
  ScopedLogCapture cap("OSAL:9;");
  std::string got = get(dir.file("missing.cfg")) + "|";
  for (const std::string& content :
       {"/data/agent\n"s, "a\r\n"s, "a\tb"s, "a\0b\n"s, "\nsecond"s, "short\n" + std::string(99, 'x'),
        std::string(11, 'v'), std::string(12, 'v'), std::string(12, 'v') + "\n", "v\0vvvvvvvvvv"s}) {
    writeFile(dir.file("v.cfg"), content);
    got += get(dir.file("v.cfg")) + "|";
  }
  EXPECT_EQ(got, "|/data/agent|a|a|a||short|vvvvvvvvvvv|!|!|!|");
  EXPECT_EQ(cap.lines().size(), 3u);
  const mode_t old = umask(022);
  got.clear();
  for (int flags = 0; flags < 4; ++flags) {  // owner only, then everyone read-write
    const std::string file = dir.file(std::to_string(flags));
    struct stat st {};
    EXPECT_EQ(osal_setconfstr(file.c_str(), "/a/long/first/value", flags & 1, flags & 2), 0);
    EXPECT_EQ(osal_setconfstr(file.c_str(), "/data", false, false), 0);  // keeps the mode
    got += readFile(file) + (stat(file.c_str(), &st) == 0 ? std::to_string(st.st_mode & 0777) : "?") + "|";
  }
  umask(old);
  EXPECT_EQ(got, "/data493|/data384|/data438|/data438|");  // 0755 0600 0666 0666: the second flag wins
}

TEST(ConfStore, ReadFailuresAreLoggedByStep) {
  TempDir dir;
  ScopedLogCapture cap("OSAL:9;");
  const std::string loop = dir.file("loop");  // stat itself fails
  ASSERT_EQ(symlink(loop.c_str(), loop.c_str()), 0);
  struct sockaddr_un addr {};  // a socket exists but cannot be opened, even by root
  addr.sun_family = AF_UNIX;
  ASSERT_LT(dir.file("sock").size(), sizeof addr.sun_path);
  strcpy(addr.sun_path, dir.file("sock").c_str());
  const int sock = socket(AF_UNIX, SOCK_STREAM, 0);
  ASSERT_EQ(bind(sock, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr), 0);
  // A directory opens but cannot be read.
  EXPECT_EQ(std::vector<std::string>({get(loop), get(dir.path()), get(addr.sun_path),
                                      std::to_string(osal_setconfstr(dir.file("no/v").c_str(), "v", false, false))}),
            std::vector<std::string>({"!", "!", "!", "-1"}));
  close(sock);
  EXPECT_EQ(logOf(cap),
            "DBG osal_exists -> stat failed;ERR osal_getconfstr -> osal_exists failed;DBG osal_read -> read failed;"
            "ERR osal_getconfstr -> osal_read failed;DBG osal_open -> open failed;ERR osal_getconfstr -> osal_open "
            "failed;DBG osal_open -> open failed;ERR osal_setconfstr -> osal_open failed;");
  // Named by its path in the repository, whatever directory the build ran in.
  EXPECT_EQ(cap.lines().at(1).file, "base/osal/MacOS/UxosalConf");
}

// Anyone can make the directory in /tmp first: root must not write into one
// that is not its own or that others can write to, nor through a link. As
// many bytes as the path has characters are written: a short value drags
// what follows it in memory along, a long one is cut.
TEST(ConfStore, TemporaryValueOnlyInADirectoryOfOurOwn) {
  EXPECT_STREQ(OSAL_CONF_TMP_DIR, "/tmp/.tidelocker\r");
  TempDir dir;
  ScopedLogCapture cap("OSAL:9;");
  const std::string tmpDir = dir.file(".tidelocker\r"), path = tmpDir + "/x",
                    memory = "short\0"s + std::string(99, 'T');
  ASSERT_EQ(osal_setconfstrtmpIn(tmpDir.c_str(), "x", memory.c_str()), 0);
  EXPECT_EQ(readFile(path), memory.substr(0, path.size()));
  std::string got;
  for (mode_t mode : {0777, 0757, 0775})
    got += std::to_string((chmod(tmpDir.c_str(), mode), osal_setconfstrtmpIn(tmpDir.c_str(), "x", "v")));
  ASSERT_EQ(chmod(tmpDir.c_str(), 0755) + symlink(tmpDir.c_str(), dir.file("link").c_str()), 0);
  got += std::to_string(osal_setconfstrtmpIn(dir.file("link").c_str(), "x", "v"));
  if (geteuid() == 0) {  // only root can give it away
    got += std::to_string((chown(tmpDir.c_str(), 65534, 0), osal_setconfstrtmpIn(tmpDir.c_str(), "x", "v")));
    ASSERT_EQ(chown(tmpDir.c_str(), 0, 0), 0);
  } else {
    got += "-1";
  }
  // A path of 1025 characters is refused, a file cannot go under a file or
  // where a directory is.
  std::string deep = dir.path();
  while (deep.size() < 1021) deep += "/" + std::string(std::min<size_t>(200, 1020 - deep.size()), 'd');
  boost::filesystem::create_directories(deep);
  writeFile(dir.file("file"), "");
  const std::vector<int> results = {osal_setconfstrtmpIn(deep.c_str(), "xyz", "v"),
                                    osal_setconfstrtmpIn(dir.file("file/sub").c_str(), "x", "v"),
                                    osal_setconfstrtmpIn(dir.path().c_str(), "file/", "v")};
  EXPECT_EQ(got, "-1-1-1-1-1");
  EXPECT_EQ(results, std::vector<int>({-1, -1, -1}));
  std::string log = "ERR osal_setconfstrtmp -> unsafe directory;";
  for (int i = geteuid() == 0 ? 4 : 3; i > 0; --i) log += "ERR osal_setconfstrtmp -> unsafe directory;";
  EXPECT_EQ(logOf(cap), log +
                            "ERR osal_setconfstrtmp -> snprintf failed;DBG osal_mkdir -> mkdir failed;"
                            "ERR osal_setconfstrtmp -> osal_mkdir failed;DBG osal_openOwned -> open failed;"
                            "ERR osal_setconfstrtmp -> osal_open failed;");
  writeFile(dir.file("victim"), "precious");
  ASSERT_EQ(unlink(path.c_str()), 0);
  ASSERT_EQ(symlink(dir.file("victim").c_str(), path.c_str()), 0);
  ASSERT_EQ(osal_setconfstrtmpIn(tmpDir.c_str(), "x", std::string(200, 'v').c_str()), 0);
  EXPECT_EQ(readFile(dir.file("victim")) + readFile(path), "precious" + std::string(path.size(), 'v'));
}

// Parents made on the way only when asked for; "created" says whether the
// last directory is new.
TEST(ConfStore, DirectoriesWithAndWithoutParents) {
  TempDir dir;
  const std::string deep = dir.file("a/b/c");
  bool created = false;
  EXPECT_EQ(osal_mkdir(deep.c_str(), &created, false), -1);
  EXPECT_EQ(osal_mkdir(deep.c_str(), &created, true), 0);
  EXPECT_TRUE(created && boost::filesystem::is_directory(deep));
  EXPECT_EQ(osal_mkdir(deep.c_str(), &created, true), 0);
  EXPECT_FALSE(created);
}

// The file primitives fail with -1 and a line naming the step: a mode that is
// none of the known ones, a descriptor that is not open (closed, truncated), and a write that
// the file size limit cuts short (a full disk, as the store sees it).
TEST(FilePrimitives, FailuresAreMinusOneAndSayWhichStep) {
  TempDir dir;
  ScopedLogCapture cap("OSAL:9;");
  int fd = -1;
  const int badMode = osal_open(dir.file("f").c_str(), static_cast<KXOpenMode>(99), false, &fd);
  const int badClose = osal_close(1 << 20);
  const int badTruncate = osal_truncate(1 << 20, 0);
  const int badNoCache = osal_noCache(1 << 20);
  struct rlimit limit {};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &limit), 0);
  const struct rlimit small = {4, limit.rlim_max};
  void (*const before)(int) = signal(SIGXFSZ, SIG_IGN);
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
  const int cut = osal_setconfstr(dir.file("v.cfg").c_str(), "/a/long/value", false, false);
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
  signal(SIGXFSZ, before);
  EXPECT_EQ(std::vector<int>({badMode, badClose, badTruncate, badNoCache, cut}),
            std::vector<int>({-1, -1, -1, -1, -1}));
  EXPECT_EQ(logOf(cap), "DBG osal_open -> bad mode KX_OPENMODE_UNKNOWN_99 " + dir.file("f") +
                            ";DBG osal_close -> close failed;DBG osal_truncate -> ftruncate failed;"
                            "DBG osal_writeFix -> write failed;"
                            "ERR osal_setconfstr -> osal_writeFix failed;");
}
