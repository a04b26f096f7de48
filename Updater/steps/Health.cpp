// After a signed install: the agent watched for the seconds its entry asks,
// the package kept as this machine's installed one when it stays healthy,
// and when it does not, the package before it installed again and the
// failed one held back from later runs.
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <ctime>
#include <nlohmann/json.hpp>
#include <thread>
#include <vector>

#include "KXLog.h"
#include "Steps.h"
#include "TrustedFile.h"
#include "osal_file.h"

namespace steps {

namespace {

const char* const kCacheRecord = "installed.json";
const char* const kHeldName = "update-held";

}  // namespace

std::string cacheProblem(const std::string& cacheDir) {
  if (cacheDir.empty()) return "there is no cache directory";
  bool created = false;
  osal_mkdir(cacheDir.c_str(), &created, true);
  if (created) chmod(cacheDir.c_str(), 0700);
  return utils::directoryProblem(cacheDir);
}

const char* healthCommand(const Platform& platform) {
  switch (platform.os) {
    case utils::Macosx:
      return "launchctl list com.kxagent";
    case utils::Windows:
      return "sc query kxagent";
    default:
      return platform.distrib == utils::Spk ? "synopkg is_onoff tova" : "systemctl is-active --quiet kxagent";
  }
}

bool watchHealth(const Platform& platform, int seconds) {
  const char* check = healthCommand(platform);
  for (int i = 0; i < seconds; ++i) {
    std::this_thread::sleep_for(std::chrono::seconds(1));
    if (const int status = utils::runShell(check); status != 0) {
      KXLOG(KXLM_ROOT, KXLL_ERR, "Agent unhealthy after " << i + 1 << " s: " << check << " [" << status << "]");
      return false;
    }
  }
  KXLOG(KXLM_ROOT, KXLL_NFY, "Agent healthy for " << seconds << " s");
  return true;
}

std::optional<Cached> cachedPackage(const std::string& cacheDir) {
  if (!cacheProblem(cacheDir).empty()) return std::nullopt;
  const std::optional<std::string> text = trusted::readBounded(cacheDir + "/" + kCacheRecord, 4096);
  try {
    const nlohmann::json j = nlohmann::json::parse(text.value_or(std::string()));
    const std::string name = j.at("name").get<std::string>();
    Cached c{name, cacheDir + "/" + name, j.at("version").get<std::string>(), j.at("sha256").get<std::string>()};
    // Checked again before any reuse: it is what was kept, or nothing.
    if (utils::fileNameProblem(name).empty() && utils::computeSha256(c.path) == c.sha256) {
      return c;
    }
  } catch (const std::exception&) {
  }
  return std::nullopt;
}

void keepInCache(const std::string& cacheDir, const utils::SetuParameter& p, const std::string& version,
                 const std::string& sha256) {
  std::string problem = cacheProblem(cacheDir);
  const std::optional<Cached> before = problem.empty() ? cachedPackage(cacheDir) : std::nullopt;
  if (problem.empty() && !utils::copyFile(p.setupPath, cacheDir + "/" + p.setupName)) problem = "the copy failed";
  const nlohmann::json record = {{"name", p.setupName}, {"version", version}, {"sha256", sha256}};
  if (problem.empty()) problem = utils::replaceFile(cacheDir + "/" + kCacheRecord, record.dump() + "\n");
  if (!problem.empty()) {
    KXLOG(KXLM_ROOT, KXLL_WRN, "Package not kept in " << cacheDir << ": " << problem);
    return;
  }
  if (before && before->path != cacheDir + "/" + p.setupName) unlink(before->path.c_str());
  KXLOG(KXLM_ROOT, KXLL_NFY, "Package of " << version << " kept in " << cacheDir);
}

void holdPackage(const std::string& configDir, const std::string& sha256) {
  const std::string text = sha256 + " " + release::utcText(static_cast<int64_t>(std::time(nullptr))) + "\n";
  if (const std::string problem = utils::replaceFile(configDir + "/" + kHeldName, text); !problem.empty()) {
    KXLOG(KXLM_ROOT, KXLL_ERR, "Failed package not remembered: " << problem);
  }
}

std::string heldSince(const std::string& configDir, const std::string& sha256) {
  const std::string path = configDir + "/" + kHeldName;
  const std::optional<trusted::Identity> id = configDir.empty() ? std::nullopt : trusted::atPath(path);
  if (!id || !guardProblem(configDir, *id).empty()) return std::string();
  const std::optional<std::string> text = trusted::readBounded(path, 128);
  if (!text || text->compare(0, sha256.size() + 1, sha256 + " ") != 0) return std::string();
  return utils::logText(text->substr(sha256.size() + 1, text->find('\n') - sha256.size() - 1));
}

}  // namespace steps
