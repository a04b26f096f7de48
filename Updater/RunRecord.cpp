#include "RunRecord.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <nlohmann/json.hpp>

#include "osal_file.h"
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
  const std::string path = dir + "/" + kRecordName;
  const std::string fresh = path + "." + std::to_string(getpid());
  int fd = -1;
  const char* replaced = nullptr;
  if (osal_openOwned(fresh.c_str(), O_TRUNC, &fd, &replaced) != 0) return "cannot create " + fresh;
  const std::string text = json();
  const bool written = osal_writeFix(fd, text.data(), static_cast<unsigned int>(text.size())) == 0;
  const bool closed = osal_close(fd) == 0;
  // rename replaces whatever is at path, a link included, without following it.
  if (!written || !closed || rename(fresh.c_str(), path.c_str()) != 0) {
    const std::string why = std::strerror(errno);
    unlink(fresh.c_str());
    return "cannot write " + path + " (" + why + ")";
  }
  return std::string();
}
