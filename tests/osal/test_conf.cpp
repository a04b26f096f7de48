#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <cstring>
#include <regex>

#include "CaptureLogCb.h"
#include "TempDir.h"
#include "osal_conf.h"

namespace {

using namespace std::string_literals;

// The value read with a buffer of `size` bytes prefilled with '#', so that a
// missing terminator shows, then "!" when the call failed.
std::string get(const std::string& path, unsigned int size = 12) {
  std::string value(size, '#');
  const int rc = osal_getconfstr(path.c_str(), &value[0], size);
  return value.substr(0, strnlen(value.data(), size)) + (rc == 0 ? "" : "!");
}

// Every line as "LVL message;" with the test's directory as "D" and error
// numbers as "e", which differ between systems.
std::string logOf(ScopedLogCapture& cap, const TempDir& dir) {
  std::string out;
  for (const auto& l : cap.sink().lines()) out += l.level + " " + l.message + ";";
  out = std::regex_replace(out, std::regex("\\(\\d+\\)"), "(e)");
  return std::regex_replace(out, std::regex(dir.path()), "D");
}

// A value ends at the first line feed, carriage return, tab or zero byte,
// and must leave room for a terminator in the buffer.
TEST(ConfStore, ValuesAndWhatMustFit) {
  TempDir dir;
  ScopedLogCapture cap("OSAL:9;");
  const std::string path = dir.file("v.cfg");
  std::string got;
  for (const std::string& content :
       {"/data/agent\n"s, "a\r\n"s, "a\tb"s, "a\0b\n"s, "\nsecond"s, "short\n" + std::string(99, 'x'),
        std::string(11, 'v'), std::string(12, 'v'), std::string(12, 'v') + "\n", "v\0vvvvvvvvvv"s}) {
    writeFile(path, content);
    got += get(path) + "|";
  }
  EXPECT_EQ(got + get(dir.file("missing.cfg")), "/data/agent|a|a|a||short|vvvvvvvvvvv|!|!|!|");
  EXPECT_EQ(logOf(cap, dir),
            "ERR osal_getconfstr -> buffer too short;ERR osal_getconfstr -> buffer too short;"
            "ERR osal_getconfstr -> buffer too short;");

  const mode_t old = umask(022);
  const struct { bool ownerOnly, everyone; } flags[] = {{false, false}, {true, false}, {false, true}, {true, true}};
  std::string modes;
  for (const auto& f : flags) {
    const std::string file = dir.file(std::to_string(f.ownerOnly) + std::to_string(f.everyone));
    struct stat st {};
    EXPECT_EQ(osal_setconfstr(file.c_str(), "/a/long/first/value", f.ownerOnly, f.everyone), 0);
    EXPECT_EQ(osal_setconfstr(file.c_str(), "/data", false, false), 0);  // keeps the mode
    modes += readFile(file) + (stat(file.c_str(), &st) == 0 ? std::to_string(st.st_mode & 0777) : "?") + "|";
  }
  umask(old);
  EXPECT_EQ(modes, "/data493|/data384|/data438|/data438|");  // 0755 0600 0666 0666: the second flag wins
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
  EXPECT_EQ(logOf(cap, dir),
            "DBG osal_exists -> stat failed (e) D/loop;ERR osal_getconfstr -> osal_exists failed;"
            "DBG osal_read -> read failed (e);ERR osal_getconfstr -> osal_read failed;"
            "DBG osal_open -> open failed (e) D/sock;ERR osal_getconfstr -> osal_open failed;"
            "DBG osal_open -> open failed (e) D/no/v;ERR osal_setconfstr -> osal_open failed;");
  // Named by its path in the repository, whatever directory the build ran in.
  EXPECT_EQ(cap.sink().lines().at(1).file, "base/osal/MacOS/UxosalConf");
}

// As many bytes as the path has characters go into the file: a short value
// drags what follows it in memory along, a long one is cut.
TEST(ConfStore, TemporaryValueIsWrittenAtThePathsLength) {
  EXPECT_STREQ(OSAL_CONF_TMP_DIR, "/tmp/.tidelocker\r");
  TempDir dir;
  ScopedLogCapture cap("OSAL:9;");
  const std::string tmpDir = dir.file(".tidelocker\r"), path = tmpDir + "/x";
  const std::string memory = "short\0"s + std::string(path.size(), 'T');
  EXPECT_EQ(osal_setconfstrtmpIn(tmpDir.c_str(), "x", memory.c_str()), 0);
  EXPECT_EQ(readFile(path), memory.substr(0, path.size()));
  EXPECT_EQ(osal_setconfstrtmpIn(tmpDir.c_str(), "x", std::string(path.size() + 9, 'L').c_str()), 0);
  EXPECT_EQ(readFile(path), std::string(path.size(), 'L'));
  // A path of 1025 characters is refused; one directory level below it.
  std::string deep = dir.path();
  while (deep.size() < 1021) deep += "/" + std::string(std::min<size_t>(200, 1020 - deep.size()), 'd');
  boost::filesystem::create_directories(deep);
  writeFile(dir.file("file"), "");
  ASSERT_EQ(mkdir(dir.file("taken").c_str(), 0700), 0);  // a directory where the file should go
  EXPECT_EQ(std::vector<int>({osal_setconfstrtmpIn(deep.c_str(), "xyz", "v"),
                              osal_setconfstrtmpIn(dir.file("file/sub").c_str(), "x", "v"),
                              osal_setconfstrtmpIn(dir.path().c_str(), "taken", "v")}),
            std::vector<int>({-1, -1, -1}));
  EXPECT_EQ(logOf(cap, dir),
            "ERR osal_setconfstrtmp -> snprintf failed (lg=1025);DBG osal_mkdir -> mkdir failed (e) D/file/sub;"
            "ERR osal_setconfstrtmp -> osal_mkdir failed;DBG osal_openOwned -> open failed (e) D/taken;"
            "ERR osal_setconfstrtmp -> osal_open failed;");
}

// Anyone can make the directory in /tmp first: root must not write into one
// that is not its own or that others can write to, nor through a link.
TEST(ConfStore, TemporaryValueOnlyInADirectoryOfOurOwn) {
  TempDir dir;
  ScopedLogCapture cap;
  const std::string tmpDir = dir.file("conf"), path = tmpDir + "/x";
  ASSERT_EQ(mkdir(tmpDir.c_str(), 0700) + symlink(tmpDir.c_str(), dir.file("link").c_str()), 0);
  std::string got;
  for (mode_t mode : {0777, 0757, 0775}) {
    got += std::to_string((chmod(tmpDir.c_str(), mode), osal_setconfstrtmpIn(tmpDir.c_str(), "x", "value")));
  }
  ASSERT_EQ(chmod(tmpDir.c_str(), 0755), 0);
  got += std::to_string(osal_setconfstrtmpIn(dir.file("link").c_str(), "x", "value"));
  if (geteuid() == 0) {  // only root can give it away
    ASSERT_EQ(chown(tmpDir.c_str(), 65534, 65534), 0);
    got += std::to_string(osal_setconfstrtmpIn(tmpDir.c_str(), "x", "value"));
    ASSERT_EQ(chown(tmpDir.c_str(), 0, 0), 0);
  }
  EXPECT_EQ(got, geteuid() == 0 ? "-1-1-1-1-1" : "-1-1-1-1");
  EXPECT_EQ(cap.messages(), std::vector<std::string>(got.size() / 2, "osal_setconfstrtmp -> unsafe directory"));
  writeFile(dir.file("victim"), "precious");
  ASSERT_EQ(symlink(dir.file("victim").c_str(), path.c_str()), 0);
  ASSERT_EQ(osal_setconfstrtmpIn(tmpDir.c_str(), "x", std::string(200, 'v').c_str()), 0);
  EXPECT_EQ(readFile(dir.file("victim")) + readFile(path), "precious" + std::string(path.size(), 'v'));
}

}  // namespace
