#include "RunRecord.h"

#include <nlohmann/json.hpp>

#include "KXLog.h"
#include "Manifest.h"
#include "utils.h"

namespace {

const char* const kRecordName = "last-run.json";

// The record's times in the form a release's expiry takes.
std::string utcTime(long long ms) { return release::utcText(ms / 1000); }

}  // namespace

std::string RunRecord::json() const {
  const nlohmann::json j = {{"start", utcTime(startMs)},
                            {"end", utcTime(endMs)},
                            {"result", end.exitStatus()},
                            {"meaning", resultMeaning(end.exitStatus())},
                            {"action", end.actionWord()},
                            {"installed_version", installedVersion},
                            {"offered_version", end.facts.offeredVersion},
                            {"package_url", utils::logUrl(end.facts.packageUrl)},
                            {"package_size", end.facts.packageSize},
                            {"bytes_fetched", end.facts.bytesFetched},
                            {"reason", end.reason.empty() ? nlohmann::json() : nlohmann::json(end.reason)}};
  // Versions and reasons are escaped server text already; a byte that is
  // still no UTF-8 is replaced rather than failing the record.
  return j.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

std::string RunRecord::write(const std::string& dir) const {
  return utils::replaceFile(dir + "/" + kRecordName, json());
}

void RunRecord::keep(const std::string& dir) const {
  if (const std::string problem = write(dir); !problem.empty()) {
    KXLOG(KXLM_ROOT, KXLL_ERR, "Run record not written: " << problem);
  }
}
