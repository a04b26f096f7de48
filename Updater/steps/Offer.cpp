// What the server offers: the setup, the published version, the sum and the
// size of the package.
#include <map>

#include "KXLog.h"
#include "Steps.h"

namespace steps {

namespace {

// "404", or libcurl's reason when no answer came.
std::string answerText(const HttpClient::Result& r) { return r.code > 0 ? std::to_string(r.code) : r.error; }

void logSetup(const utils::SetuParameter& p) {
  KXLOG(KXLM_ROOT, KXLL_NFY, "version url = " << utils::logUrl(p.versionUrl));
  KXLOG(KXLM_ROOT, KXLL_NFY, "setup url   = " << utils::logUrl(p.setupUrl));
  KXLOG(KXLM_ROOT, KXLL_NFY, "setup path  = " << p.setupPath);
  KXLOG(KXLM_ROOT, KXLL_NFY, "hash url    = " << utils::logUrl(p.hashUrl));
  KXLOG(KXLM_ROOT, KXLL_NFY, "star cmd    = " << p.startCmd);
  KXLOG(KXLM_ROOT, KXLL_NFY, "stop cmd    = " << p.stopCmd);
  KXLOG(KXLM_ROOT, KXLL_NFY, "install cmd = " << p.installCmd);
}

// A size the download would then be allowed to fill, refused before a byte
// of it is written; "" when it fits.
std::string sizeProblem(unsigned long long size, const std::string& tempDir) {
  const unsigned long long room = utils::freeSpace(tempDir);
  if (size > kMaxPackageSize) {
    return std::to_string(size) + " bytes is above the ceiling of " + std::to_string(kMaxPackageSize) + " bytes";
  }
  if (room < kFreeSpaceMargin || size > room - kFreeSpaceMargin) {
    return std::to_string(size) + " bytes do not fit in " + tempDir + " (" + std::to_string(room) + " bytes free)";
  }
  return std::string();
}

}  // namespace

Expected<Setup> resolveSetup(HttpClient& client, const std::string& serverUrl, const Machine& machine) {
  Expected<Setup, setup::SetupFailure> resolved = setup::resolve(client, serverUrl, machine.tempDir, machine.platform);
  if (!resolved.ok()) {
    KXLOG(KXLM_ROOT, KXLL_ERR, "Exception : " << utils::logText(resolved.failure().text));
    return resolved.failure().failure();
  }
  if (machine.emulated) resolved->params.installCmd = "arch -arch arm64 " + resolved->params.installCmd;
  logSetup(resolved->params);
  return *resolved;
}

Expected<Version> fetchVersion(HttpClient& client, const Setup& setup) {
  const utils::SetuParameter& p = setup.params;
  std::string versionText;
  if (setup.platform.os == utils::Macosx && !p.versionText.empty()) {
    versionText = p.versionText;
  } else {
    std::map<std::string, std::string> headers;
    const HttpClient::Result answer = client.get(p.versionUrl, versionText, headers);
    if (answer.code != 0) {
      KXLOG(KXLM_ROOT, KXLL_ERR, "Failed to download version:  [" << answer.code << "]");
      return Failure(Result::RequestFailed, "version file " + utils::logUrl(p.versionUrl), answerText(answer), answer);
    }
  }
  const Version available = Version::parse(versionText);
  if (available.isInvalid()) {
    KXLOG(KXLM_ROOT, KXLL_ERR, "Invalid version_long.txt " << utils::logText(versionText));
    // The body stays in the log: the record, read by tools, carries none of
    // it (a redirect may have made it an internal service's answer).
    return Failure(Result::BadPublishedVersion, "published version is not four numbers");
  }
  KXLOG(KXLM_ROOT, KXLL_NFY, "Available version is " << available);
  return available;
}

HashFile fetchHashFile(HttpClient& client, const utils::SetuParameter& p) {
  // The hash file holds "<sum> <file name>"; without a blank there is no
  // usable sum and the download is checked on its size alone.
  HashFile file;
  std::map<std::string, std::string> headers;
  file.answer = client.get(p.hashUrl, file.body, headers);
  if (file.answer.code != 0) {
    KXLOG(KXLM_ROOT, KXLL_ERR, "No file signature available (skip verification): [" << file.answer.code << "]");
    return file;
  }
  const size_t blank = file.body.find(' ');
  if (blank == std::string::npos) return file;
  file.sum = file.body.substr(0, blank);
  KXLOG(KXLM_ROOT, KXLL_NFY, "Downloaded md5 is " << utils::logText(file.sum));
  return file;
}

Expected<uint64_t> fetchSize(HttpClient& client, const Setup& setup, const std::string& tempDir) {
  const utils::SetuParameter& p = setup.params;
  const std::string url = utils::logUrl(p.setupUrl);
  unsigned long long size = 0;
  if (setup.platform.os == utils::Macosx && p.setupSize != 0) {
    size = p.setupSize;
  } else {
    std::map<std::string, std::string> headers;
    const HttpClient::Result answer = client.head(p.setupUrl, headers);
    if (answer.code != 0) {
      KXLOG(KXLM_ROOT, KXLL_ERR, "Fail to get HEAD for " << url << ": [" << answer.code << " ]");
      return Failure(Result::RequestFailed, "package " + url, answerText(answer), answer);
    }
    if (utils::getContentLength(headers, size) != 0) {
      KXLOG(KXLM_ROOT, KXLL_ERR, "Fail to determine file size");
      return Failure(Result::NoSizeOrWrongMd5, "package " + url + " has no size");
    }
    KXLOG(KXLM_ROOT, KXLL_NFY, "File size for " << url << " is " << size << " bytes");
  }
  if (const std::string problem = sizeProblem(size, tempDir); !problem.empty()) {
    KXLOG(KXLM_ROOT, KXLL_ERR, "Refused size of " << url << ": " << problem);
    return Failure(Result::NoSizeOrWrongMd5, "package " + url, problem);
  }
  return uint64_t{size};
}

}  // namespace steps
