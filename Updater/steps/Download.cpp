// The package downloaded and verified: size and MD5 (and, for a signed
// release, SHA-256) of what was written, up to three attempts.
#include <map>

#include "KXLog.h"
#include "Steps.h"
#include "TrustedFile.h"

namespace steps {

namespace {

constexpr int kDownloadAttempts = 3;

enum class Verdict { NotTried, WrongSize, WrongHash, Accepted };

// One attempt's verdict on what landed.
Verdict judge(const HttpClient::Landed& landed, uint64_t size, const std::string& md5, const std::string& path) {
  KXLOG(KXLM_ROOT, KXLL_NFY, "Setup downloaded [" << landed.size << " bytes]");
  if (landed.size != size) {
    // Not deleted: the next download overwrites it.
    KXLOG(KXLM_ROOT, KXLL_WRN,
          "Downloaded size is " << landed.size << " bytes. Expected size is " << size << " bytes - try again");
    return Verdict::WrongSize;
  }
  if (md5.empty()) return Verdict::Accepted;
  // Hashed as it was written, from the same descriptor.
  if (landed.md5 == md5) {
    KXLOG(KXLM_ROOT, KXLL_NFY, "Computed md5 is " << landed.md5);
    return Verdict::Accepted;
  }
  KXLOG(KXLM_ROOT, KXLL_WRN,
        "Re-download setup file because current one has a wrong hash: " << landed.md5 << " vs " << utils::logText(md5));
  removeDownload(path, landed);
  return Verdict::WrongHash;
}

Failure rejected(Verdict verdict, uint64_t size) {
  switch (verdict) {
    case Verdict::WrongHash:
      KXLOG(KXLM_ROOT, KXLL_ERR, "Invalid setup md5");
      return Failure(Result::NoSizeOrWrongMd5, "MD5 of the download differs from the published sum");
    case Verdict::WrongSize:
      KXLOG(KXLM_ROOT, KXLL_ERR, "Invalid setup size");
      return Failure(Result::WrongSize,
                     "the download has another size than the " + std::to_string(size) + " bytes announced");
    default:
      KXLOG(KXLM_ROOT, KXLL_ERR, "Fail to download setup");
      return Failure(Result::NoVerifiedFile, "no verified download");
  }
}

}  // namespace

Expected<HttpClient::Landed> downloadVerified(HttpClient& client, const utils::SetuParameter& p, uint64_t size,
                                              const std::string& md5, unsigned sums, const Resumable* resumable,
                                              uint64_t& fetched, const HttpClient::Progress& progress) {
  std::map<std::string, std::string> headers;
  HttpClient::Landed landed;
  HttpClient::Resume resume = resumable != nullptr ? takePartial(*resumable, p.setupPath, size) : HttpClient::Resume();
  Verdict verdict = Verdict::NotTried;
  for (int attempt = 0; attempt < kDownloadAttempts && verdict != Verdict::Accepted; ++attempt) {
    const bool continued = resume.from > 0;
    const HttpClient::Result answer = client.download(p.setupUrl, p.setupPath, headers, size, &landed,
                                                      (md5.empty() ? 0U : HttpClient::kMd5) | sums, progress, &resume);
    fetched += landed.fetched;
    // The kept part has been read, or will not be: what counts is the download's.
    if (resumable != nullptr && !resume.keptAt.empty()) dropPartial(resumable->cacheDir);
    // What a cut transfer left can be continued when the server named it.
    const bool continuable = resumable != nullptr && landed.size > 0 && landed.size < size && !landed.validator.empty();
    resume = continuable ? HttpClient::Resume{landed.size, landed.validator, ""} : HttpClient::Resume();
    // A cut transfer goes on; one whose range was answered amiss starts over.
    if (answer.code < 0 && (continuable || (resumable != nullptr && continued)) && attempt + 1 < kDownloadAttempts) {
      if (continuable) {
        KXLOG(KXLM_ROOT, KXLL_WRN, "Download cut at byte " << landed.size << " of " << size << " - try again");
      } else {
        KXLOG(KXLM_ROOT, KXLL_WRN, "Download starts over - try again");
      }
      continue;
    }
    if (answer.code != 0) {
      continuable ? keepPartial(*resumable, p.setupPath, landed, size) : removeDownload(p.setupPath, landed);
      KXLOG(KXLM_ROOT, KXLL_ERR, "'Fail to download setup file: [" << answer.code << "]");
      return Failure(Result::RequestFailed, "download of " + utils::logUrl(p.setupUrl),
                     answer.code > 0 ? std::to_string(answer.code) : answer.error, answer);
    }
    verdict = judge(landed, size, md5, p.setupPath);
  }
  if (verdict == Verdict::Accepted) return landed;
  if (resumable != nullptr && resume.from > 0) {
    keepPartial(*resumable, p.setupPath, landed, size);
  } else {
    removeDownload(p.setupPath, landed);
  }
  return rejected(verdict, size);
}

std::string landedProblem(const std::string& path, const HttpClient::Landed& landed) {
  const std::optional<trusted::Identity> there = trusted::atPath(path);
  if (!there) return "is gone";
  if (there->device != landed.device || there->inode != landed.inode) return "is another file than the one verified";
  const unsigned rules = trusted::kOneLink | trusted::kOwnedByUs | trusted::kNotWritableByOthers;
  if (const trusted::Flaw flaw = trusted::flawOf(*there, rules); flaw != trusted::Flaw::None) {
    return trusted::said(flaw, true);
  }
  if (there->size != landed.size) return "has changed its size";
  return std::string();
}

void removeDownload(const std::string& path, const HttpClient::Landed& landed) {
  if (landed.inode == 0) return;  // nothing of ours landed there
  trusted::Identity ours;
  ours.device = landed.device;
  ours.inode = landed.inode;
  trusted::removeIfSame(path, ours);
}

}  // namespace steps
