#include <gtest/gtest.h>

#include <sys/utsname.h>
#include <unistd.h>

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "osal_sysinfo.h"
#include "osalnet.h"

namespace {

std::string releaseName(const char* productVersion) {
  int major = -1, minor = -1, patch = -1;
  EXPECT_TRUE(osal_parseProductVersion(productVersion, strlen(productVersion) + 1, &major, &minor, &patch));
  char out[OSAL_SYSINFO_TEXT_SIZE];
  osal_formatMacOSRelease(major, minor, patch, out, sizeof out);
  return out;
}

TEST(ReleaseName, ProductVersionsMapToMarketingNames) {
  const struct {
    const char* version;
    const char* name;
  } cases[] = {
      {"10.0.4", "Mac OS X 10.0.4 (Cheetah)"},
      {"10.7.5", "Mac OS X 10.7.5 (Lion)"},
      {"10.8.0", "OS X 10.8.0 (Mountain Lion)"},
      {"10.11.6", "OS X 10.11.6 (El Capitan)"},
      {"10.12", "macOS 10.12.0 (Sierra)"},
      {"10.15.7", "macOS 10.15.7 (Catalina)"},
      {"10.16.1", "macOS 11.1 (Big Sur)"},
      {"10.20.3", "macOS 15.3 (Sequoia)"},
      {"10.22.4", "macOS 17.4"},
      {"11.7.10", "macOS 11.7 (Big Sur)"},
      {"12.0", "macOS 12.0 (Monterey)"},
      {"13.6.1", "macOS 13.6 (Ventura)"},
      {"14.5", "macOS 14.5 (Sonoma)"},
      {"15.3.2", "macOS 15.3 (Sequoia)"},
      {"26.0.1", "macOS 26.0 (Tahoe)"},
      {"16.0", "macOS 16.0.0"},
  };
  for (const auto& c : cases) EXPECT_EQ(releaseName(c.version), c.name) << c.version;

  int major = 0, minor = 0, patch = 0;  // lengths outside 5..9 send the caller to its fallback
  EXPECT_FALSE(osal_parseProductVersion("9.9", 4, &major, &minor, &patch));
  EXPECT_FALSE(osal_parseProductVersion("10.15.7.1", 10, &major, &minor, &patch));
  char small[10];
  osal_formatMacOSRelease(10, 14, 6, small, sizeof small);
  EXPECT_STREQ(small, "macOS 10.");
}

TEST(SysInfo, MachineAndUnameComeFromUnameAndKindFromTheNasFlag) {
  struct utsname u {};
  ASSERT_EQ(uname(&u), 0);
  char osName[OSAL_SYSINFO_TEXT_SIZE], machine[OSAL_SYSINFO_TEXT_SIZE];
  unsigned int kind = 0;
  getsysinfo(osName, machine, &kind);
  EXPECT_STREQ(machine, u.machine);
  EXPECT_GT(strlen(osName), 0u);
  EXPECT_EQ(kind, 0x300u);
  _KX_AGENT_NAS = true;
  getsysinfo(osName, machine, &kind);
  _KX_AGENT_NAS = false;
  EXPECT_EQ(kind, 0x340u);
  EXPECT_FALSE(isEmulation());

  OSAL_uname names;
  ASSERT_EQ(osal_GetUname(names), 0);
  EXPECT_EQ(names.sysname + names.nodename + names.release + names.version + names.machine,
            std::string(u.sysname) + u.nodename + u.release + u.version + u.machine);
}

TEST(SysInfo, MemoryFiguresFollowAnAllocation) {
  unsigned int priv = 0, resident = 0, priv2 = 0, resident2 = 0;
  unsigned long long physical = 0;
  ASSERT_EQ(osal_getRAMInfos(priv, resident, physical), 0);
  EXPECT_GE(physical, resident);
  std::vector<char> block(64u << 20);
  volatile char* page = block.data();  // volatile: the writes cannot be optimised away
  for (size_t i = 0; i < block.size(); i += 4096) page[i] = 'x';
  ASSERT_EQ(osal_getRAMInfos(priv2, resident2, physical), 0);
  EXPECT_GE(priv2, priv + 48);
  EXPECT_GE(resident2, resident + 48);
}

TEST(SysInfo, EnvironmentCopiesOnlyWhatFits) {
  char buf[8];
  setenv("KX_TEST_SYSINFO_VAR", "1234567", 1);
  EXPECT_EQ(osal_getEnv("KX_TEST_SYSINFO_VAR", buf, sizeof buf), 0);
  EXPECT_STREQ(buf, "1234567");
  setenv("KX_TEST_SYSINFO_VAR", "12345678", 1);
  EXPECT_EQ(osal_getEnv("KX_TEST_SYSINFO_VAR", buf, sizeof buf), -1);
  EXPECT_STREQ(buf, "");
  unsetenv("KX_TEST_SYSINFO_VAR");
  EXPECT_EQ(osal_getEnv("KX_TEST_SYSINFO_VAR", buf, sizeof buf), -1);
}

TEST(HostLocal, LoopbackNamesAndOwnNameInAnyCase) {
  for (const char* name : {"127.0.0.5", "::1", "LOCALHOST", "LocalHost"}) EXPECT_TRUE(isHostLocal(name)) << name;
  char self[128] = {};
  ASSERT_EQ(gethostname(self, sizeof self - 1), 0);
  std::string shortName(self, strcspn(self, "."));
  EXPECT_TRUE(isHostLocal(self));
  EXPECT_TRUE(isHostLocal((shortName + ".other.domain").c_str()));
  for (char& ch : shortName) ch = static_cast<char>(std::toupper(static_cast<unsigned char>(ch)));
  EXPECT_TRUE(isHostLocal(shortName.c_str()));
  for (const char* name : {"128.0.0.1", "::2", "localhost2", "update.example.invalid", ""}) {
    EXPECT_FALSE(isHostLocal(name)) << name;
  }
}

}  // namespace
