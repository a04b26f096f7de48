#include "RunRecord.h"

#include <ctime>
#include <nlohmann/json.hpp>

#include "utils.h"

namespace {

const char* const kRecordName = "last-run.json";

std::string utcTime(long long ms) {
  const std::time_t seconds = static_cast<std::time_t>(ms / 1000);
  std::tm tm{};
  char text[32] = {};
  if (gmtime_r(&seconds, &tm) != nullptr) std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &tm);
  return text;
}

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
