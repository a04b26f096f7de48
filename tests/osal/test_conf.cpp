#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "CaptureLogCb.h"
#include "TempDir.h"
#include "osal_conf.h"

namespace {

class ConfStore : public ::testing::Test {
 protected:
  // Reads path with a buffer of size bytes prefilled with '#', so that a
  // missing terminator shows.
  int get(const std::string& path, unsigned int size) {
    value.assign(size, '#');
    const int rc = osal_getconfstr(path.c_str(), &value[0], size);
    value.resize(strnlen(value.data(), size));
    return rc;
  }

  mode_t modeOf(const std::string& name) {
    struct stat st {};
    EXPECT_EQ(stat(dir.file(name).c_str(), &st), 0) << name;
    return st.st_mode & 07777;
  }

  TempDir dir;
  ScopedLogCapture cap;
  std::string value;
};

TEST_F(ConfStore, ValueEndsAtTheFirstLineBreakTabOrZero) {
  EXPECT_EQ(get(dir.file("missing.cfg"), 16), 0);
  EXPECT_EQ(value, "");
  const std::string path = dir.file("v.cfg");
  const struct {
    std::string content;
    const char* value;
  } cases[] = {
      {"/data/agent\n", "/data/agent"},
      {"/data/agent", "/data/agent"},
      {"a\r\n", "a"},
      {"a\tb", "a"},
      {std::string("a\0b\n", 4), "a"},
      {"\nsecond line", ""},
      {"short\n" + std::string(100, 'x'), "short"},  // only the first line has to fit
  };
  for (const auto& c : cases) {
    writeFile(path, c.content);
    EXPECT_EQ(get(path, 12), 0) << c.value;
    EXPECT_EQ(value, c.value);
  }
  EXPECT_TRUE(cap.messages().empty());
}

TEST_F(ConfStore, ValueFillingTheBufferIsRefused) {
  const std::string path = dir.file("v.cfg");
  for (const std::string& content : {std::string(8, 'v'), std::string(8, 'v') + "\n", std::string("v\0vvvvvv", 8)}) {
    writeFile(path, content);
    EXPECT_EQ(get(path, 8), -1);  // a line feed at position 8 lies beyond the bytes read
  }
  EXPECT_EQ(cap.messages(), std::vector<std::string>(3, "osal_getconfstr -> buffer too short"));
  writeFile(path, std::string(7, 'v'));
  EXPECT_EQ(get(path, 8), 0);
  EXPECT_EQ(value, std::string(7, 'v'));
}

TEST_F(ConfStore, ReadFailuresAreLoggedByStep) {
  const std::string loop = dir.file("loop");  // stat itself fails
  ASSERT_EQ(symlink(loop.c_str(), loop.c_str()), 0);
  EXPECT_EQ(get(loop, 16), -1);
  EXPECT_TRUE(cap.contains("osal_getconfstr -> osal_exists failed"));
  // Named by its path in the repository, whatever directory the build ran in.
  EXPECT_EQ(cap.sink().lines().at(0).file, "base/osal/MacOS/UxosalConf");

  EXPECT_EQ(get(dir.path(), 16), -1);  // a directory opens but cannot be read
  EXPECT_TRUE(cap.contains("osal_getconfstr -> osal_read failed"));
  EXPECT_EQ(value, "");

  // A socket exists but cannot be opened, even by root.
  struct sockaddr_un addr {};
  addr.sun_family = AF_UNIX;
  if (dir.file("sock").size() >= sizeof addr.sun_path) GTEST_SKIP() << "temporary directory path too long for a socket";
  snprintf(addr.sun_path, sizeof addr.sun_path, "%s", dir.file("sock").c_str());
  const int sock = socket(AF_UNIX, SOCK_STREAM, 0);
  ASSERT_EQ(bind(sock, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr), 0);
  EXPECT_EQ(get(addr.sun_path, 16), -1);
  EXPECT_TRUE(cap.contains("osal_getconfstr -> osal_open failed"));
  close(sock);
}

TEST_F(ConfStore, WriteReplacesTheValueAndAppliesPermissionFlags) {
  const std::string path = dir.file("dbdir.cfg");
  ASSERT_EQ(osal_setconfstr(path.c_str(), "/a/long/first/value", false, false), 0);
  ASSERT_EQ(osal_setconfstr(path.c_str(), "/data", false, false), 0);
  EXPECT_EQ(readFile(path), "/data");  // no terminator, no newline

  const mode_t old = umask(022);
  EXPECT_EQ(osal_setconfstr(dir.file("neither").c_str(), "v", false, false), 0);
  EXPECT_EQ(osal_setconfstr(dir.file("owner").c_str(), "v", true, false), 0);
  EXPECT_EQ(osal_setconfstr(dir.file("everyone").c_str(), "v", false, true), 0);
  EXPECT_EQ(osal_setconfstr(dir.file("both").c_str(), "v", true, true), 0);
  EXPECT_EQ(osal_setconfstr(dir.file("owner").c_str(), "w", false, false), 0);
  umask(old);
  EXPECT_EQ(modeOf("neither"), 0755u);  // 0777 under the umask
  EXPECT_EQ(modeOf("owner"), 0600u);    // rewriting without flags keeps it
  EXPECT_EQ(modeOf("everyone"), 0666u);
  EXPECT_EQ(modeOf("both"), 0666u);  // applied second, so it wins
  EXPECT_TRUE(cap.messages().empty());

  EXPECT_EQ(osal_setconfstr(dir.file("missing/dbdir.cfg").c_str(), "v", false, false), -1);
  EXPECT_EQ(cap.messages(), std::vector<std::string>{"osal_setconfstr -> osal_open failed"});  // once
}

TEST_F(ConfStore, TemporaryValueIsWrittenAtThePathsLength) {
  EXPECT_STREQ(OSAL_CONF_TMP_DIR, "/tmp/.tidelocker\r");  // the carriage return belongs to the name
  const std::string tmpDir = dir.file(".tidelocker\r");
  const std::string path = tmpDir + "/x";
  // A short value drags what follows it in memory into the file.
  const std::string memory = std::string("short") + '\0' + std::string(path.size(), 'T');
  ASSERT_EQ(osal_setconfstrtmpIn(tmpDir.c_str(), "x", memory.c_str()), 0);
  EXPECT_EQ(readFile(path), memory.substr(0, path.size()));
  // A long one is cut; the directory existing already is fine.
  ASSERT_EQ(osal_setconfstrtmpIn(tmpDir.c_str(), "x", std::string(200, 'L').c_str()), 0);
  EXPECT_EQ(readFile(path), std::string(path.size(), 'L'));
  EXPECT_TRUE(cap.messages().empty());
}

// Anyone can make the directory in /tmp first: root must not write into one
// that is not its own, or through a link planted at the file.
TEST_F(ConfStore, TemporaryValueOnlyInADirectoryOfOurOwn) {
  const std::string tmpDir = dir.file("conf");
  ASSERT_EQ(mkdir(tmpDir.c_str(), 0777), 0);
  ASSERT_EQ(chmod(tmpDir.c_str(), 0777), 0);
  EXPECT_EQ(osal_setconfstrtmpIn(tmpDir.c_str(), "x", "value"), -1);
  EXPECT_TRUE(cap.contains("osal_setconfstrtmp -> unsafe directory"));
  ASSERT_EQ(chmod(tmpDir.c_str(), 0755), 0);
  if (geteuid() == 0) {  // only root can give it away
    ASSERT_EQ(chown(tmpDir.c_str(), 65534, 65534), 0);
    EXPECT_EQ(osal_setconfstrtmpIn(tmpDir.c_str(), "x", "value"), -1);
    ASSERT_EQ(chown(tmpDir.c_str(), 0, 0), 0);
  }

  writeFile(dir.file("victim"), "precious");
  ASSERT_EQ(symlink(dir.file("victim").c_str(), (tmpDir + "/x").c_str()), 0);
  ASSERT_EQ(osal_setconfstrtmpIn(tmpDir.c_str(), "x", std::string(200, 'v').c_str()), 0);
  EXPECT_EQ(readFile(dir.file("victim")), "precious");
  EXPECT_EQ(readFile(tmpDir + "/x"), std::string(tmpDir.size() + 2, 'v'));
}

TEST_F(ConfStore, TemporaryValueFailuresAreLoggedByStep) {
  writeFile(dir.file("file"), "");
  EXPECT_EQ(osal_setconfstrtmpIn(dir.file("file/sub").c_str(), "x", "value"), -1);
  EXPECT_TRUE(cap.contains("osal_setconfstrtmp -> osal_mkdir failed"));

  const std::string longName(1100, 'n');
  EXPECT_EQ(osal_setconfstrtmpIn(dir.path().c_str(), longName.c_str(), "value"), -1);
  EXPECT_TRUE(cap.contains(
      "osal_setconfstrtmp -> snprintf failed (lg=" + std::to_string(dir.path().size() + 1 + longName.size()) + ")"));

  ASSERT_EQ(mkdir(dir.file("taken").c_str(), 0700), 0);  // a directory where the file should go
  EXPECT_EQ(osal_setconfstrtmpIn(dir.path().c_str(), "taken", "value"), -1);
  EXPECT_TRUE(cap.contains("osal_setconfstrtmp -> osal_open failed"));
}

}  // namespace
