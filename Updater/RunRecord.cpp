#include "RunRecord.h"

#include <nlohmann/json.hpp>

#include "Manifest.h"
#include "utils.h"

namespace {

const char* const kRecordName = "last-run.json";

// The record's times in the form a release's expiry takes.
std::string utcTime(long long ms) { return release::utcText(ms / 1000); }

}  // namespace

std::string RunRecord::json() const {
  nlohmann::json j = {{"start", utcTime(startMs)},
                      {"end", utcTime(endMs)},
                      {"result", outcome.code},
                      {"meaning", resultMeaning(outcome.code)},
                      {"action", action},
                      {"installed_version", installedVersion},
                      {"offered_version", offeredVersion},
                      {"package_url", utils::logUrl(packageUrl)},
                      {"package_size", packageSize},
                      {"reason", outcome.ok() ? nlohmann::json() : nlohmann::json(outcome.reason)}};
  // Versions and reasons hold server text: invalid UTF-8 is replaced rather
  // than failing the record.
  return j.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

std::string RunRecord::write(const std::string& dir) const {
  return utils::replaceFile(dir + "/" + kRecordName, json());
}
