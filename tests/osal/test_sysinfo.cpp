#include <gtest/gtest.h>

#include <sys/utsname.h>
#include <unistd.h>

#include <cstring>
#include <fstream>

#include "osal_sysinfo.h"
#include "osalnet.h"

using namespace std::string_literals;

std::string releaseName(const char* productVersion) {
  int major = -1, minor = -1, patch = -1;
  char out[OSAL_SYSINFO_TEXT_SIZE] = "";  // lengths outside 5..9 send the caller to its fallback
  if (osal_parseProductVersion(productVersion, strlen(productVersion) + 1, &major, &minor, &patch)) {
    osal_formatMacOSRelease(major, minor, patch, out, sizeof out);
  }
  return out;
}

TEST(SysInfo, ProductVersionsMapToMarketingNames) {
  std::string names;
  for (const char* version :
       {"10.0.4", "10.7.5", "10.8.0", "10.11.6", "10.12", "10.15.7", "10.16.1", "10.20.3", "10.22.4", "11.7.10", "12.0",
        "13.6.1", "14.5", "15.3.2", "26.0.1", "16.0", "9.9", "10.15.7.1"}) {
    names += releaseName(version) + "|";
  }
  EXPECT_EQ(names,
            "Mac OS X 10.0.4 (Cheetah)|Mac OS X 10.7.5 (Lion)|OS X 10.8.0 (Mountain Lion)|OS X 10.11.6 (El Capitan)|"
            "macOS 10.12.0 (Sierra)|macOS 10.15.7 (Catalina)|macOS 11.1 (Big Sur)|macOS 15.3 (Sequoia)|macOS 17.4|"
            "macOS 11.7 (Big Sur)|macOS 12.0 (Monterey)|macOS 13.6 (Ventura)|macOS 14.5 (Sonoma)|"
            "macOS 15.3 (Sequoia)|macOS 26.0 (Tahoe)|macOS 16.0.0|||");
  char small[10];
  osal_formatMacOSRelease(10, 14, 6, small, sizeof small);
  EXPECT_STREQ(small, "macOS 10.");
}

TEST(SysInfo, MachineKindEnvironmentMemoryAndLocalHosts) {
  struct utsname u {};
  char osName[OSAL_SYSINFO_TEXT_SIZE], machine[OSAL_SYSINFO_TEXT_SIZE], buf[8], self[128] = {};
  unsigned int kind = 0, nasKind = 0, priv = 0, resident = 0, priv2 = 0, resident2 = 0;
  unsigned long long physical = 0;
  OSAL_uname names;
  ASSERT_EQ(uname(&u) + osal_GetUname(names) + gethostname(self, sizeof self - 1), 0);
  getsysinfo(osName, machine, &kind);
  _KX_AGENT_NAS = true;
  getsysinfo(osName, machine, &nasKind);
  _KX_AGENT_NAS = false;
  EXPECT_TRUE(strlen(osName) > 0 && kind == 0x300u && nasKind == 0x340u && !isEmulation());
  EXPECT_EQ(machine + names.sysname + names.nodename + names.release + names.version + names.machine,
            std::string(u.machine) + u.sysname + u.nodename + u.release + u.version + u.machine);

  setenv("KX_TEST_VAR", "1234567", 1);
  std::string env = std::to_string(osal_getEnv("KX_TEST_VAR", buf, sizeof buf)) + buf;
  setenv("KX_TEST_VAR", "12345678", 1);  // no room for the terminator
  env += std::to_string(osal_getEnv("KX_TEST_VAR", buf, sizeof buf)) + buf;
  unsetenv("KX_TEST_VAR");
  env += std::to_string(osal_getEnv("KX_TEST_VAR", buf, sizeof buf)) + std::to_string(osal_getEnv("HOME", buf, 0));
  EXPECT_EQ(env, "01234567-1-1-1");

  ASSERT_EQ(osal_getRAMInfos(priv, resident, physical), 0);
  std::vector<char> block(64u << 20);
  volatile char* page = block.data();  // volatile: the writes cannot be optimised away
  for (size_t i = 0; i < block.size(); i += 4096) page[i] = 'x';
  ASSERT_EQ(osal_getRAMInfos(priv2, resident2, physical), 0);
  EXPECT_TRUE(priv2 >= priv + 48 && resident2 >= resident + 48 && physical >= resident2) << priv << " " << priv2;
  std::ifstream meminfo("/proc/meminfo");  // Linux: the machine's whole memory, to the MiB
  unsigned long long totalKiB = 0;
  if (meminfo.ignore(9) >> totalKiB) {
    EXPECT_EQ(physical, totalKiB >> 10);
  }

  // Loopback names, and this machine's name or its first label, in any case.
  std::string local, first(self, strcspn(self, "."));
  for (char& c : first) c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
  for (const std::string& name : {"127.0.0.5"s, "::1"s, "LocalHost"s, std::string(self), first, first + ".other.domain",
                                  "128.0.0.1"s, "::2"s, "localhost2"s, "update.example.invalid"s, ""s}) {
    local += std::to_string(isHostLocal(name.c_str()));
  }
  EXPECT_EQ(local + std::to_string(isHostLocal(nullptr)), "111111000000");
}
