// A signed download cut short, kept in the package cache until the next
// run continues it: the bytes in kPartialName, and in kPartialRecord the
// entry they belong to and the validator of the answer that began them.
#include <sys/stat.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "KXLog.h"
#include "Steps.h"
#include "TrustedFile.h"

namespace steps {

namespace {

const char* const kPartialName = "partial-download";
const char* const kPartialRecord = "partial-download.json";

}  // namespace

void dropPartial(const std::string& cacheDir) {
  unlink((cacheDir + "/" + kPartialName).c_str());
  unlink((cacheDir + "/" + kPartialRecord).c_str());
}

namespace {

// The validator the kept bytes were begun with, when they are a file of
// ours alone, shorter than the entry's size and kept for that entry; else
// why they are not to be continued.
struct Kept {
  std::string validator;
  std::string problem;
};
Kept keptFor(const Resumable& r, uint64_t size, const trusted::Identity& kept) {
  const unsigned rules = trusted::kRegular | trusted::kOneLink | trusted::kOwnedByUs | trusted::kNotWritableByOthers;
  if (const trusted::Flaw flaw = trusted::flawOf(kept, rules); flaw != trusted::Flaw::None) {
    return {"", trusted::said(flaw)};
  }
  const std::optional<std::string> text = trusted::readBounded(r.cacheDir + "/" + kPartialRecord, 4096);
  const nlohmann::json j = nlohmann::json::parse(text.value_or(std::string()), nullptr, false);
  const auto textOf = [&j](const char* key) {
    return j.is_object() && j.contains(key) && j[key].is_string() ? j[key].get<std::string>() : std::string();
  };
  const std::string validator = textOf("validator");
  if (validator.empty()) return {"", std::string("its record ") + kPartialRecord + " is missing or unreadable"};
  const bool sized = j.contains("size") && j["size"].is_number_unsigned() && j["size"].get<uint64_t>() == size;
  if (textOf("sha256") != r.sha256 || !sized) return {"", "it was begun for another release entry"};
  if (kept.size == 0 || kept.size >= size) return {"", "it has " + std::to_string(kept.size) + " bytes"};
  return {validator, ""};
}

}  // namespace

HttpClient::Resume takePartial(const Resumable& resumable, const std::string& path, uint64_t size) {
  const std::string kept = resumable.cacheDir + "/" + kPartialName;
  const std::optional<trusted::Identity> id = trusted::atPath(kept);
  if (!id || !cacheProblem(resumable.cacheDir).empty()) return HttpClient::Resume();
  const Kept found = keptFor(resumable, size, *id);
  if (!found.problem.empty()) {
    KXLOG(KXLM_ROOT, KXLL_NFY, "Partial download " << kept << " dropped: " << found.problem);
    dropPartial(resumable.cacheDir);
    return HttpClient::Resume();
  }
  KXLOG(KXLM_ROOT, KXLL_NFY, "Partial download of " << id->size << " bytes taken from " << resumable.cacheDir);
  // Renamed where it can be, free; across file systems it is copied by the
  // download itself as it is hashed, and dropped once that has read it.
  if (rename(kept.c_str(), path.c_str()) == 0) {
    dropPartial(resumable.cacheDir);
    return HttpClient::Resume{id->size, found.validator, ""};
  }
  return HttpClient::Resume{id->size, found.validator, kept};
}

void keepPartial(const Resumable& resumable, const std::string& path, const HttpClient::Landed& landed, uint64_t size) {
  const std::string kept = resumable.cacheDir + "/" + kPartialName;
  const nlohmann::json record = {{"sha256", resumable.sha256}, {"size", size}, {"validator", landed.validator}};
  std::string problem = cacheProblem(resumable.cacheDir);
  const std::optional<trusted::Identity> there = trusted::atPath(path);
  if (problem.empty() && !(there && there->device == landed.device && there->inode == landed.inode)) {
    problem = "the download is no longer there";
  }
  if (problem.empty()) problem = utils::replaceFile(resumable.cacheDir + "/" + kPartialRecord, record.dump() + "\n");
  if (problem.empty() && (!utils::moveFile(path, kept) || chmod(kept.c_str(), 0600) != 0)) {
    problem = "it cannot be moved there";
  }
  if (!problem.empty()) {
    KXLOG(KXLM_ROOT, KXLL_WRN, "Partial download not kept in " << resumable.cacheDir << ": " << problem);
    dropPartial(resumable.cacheDir);
    removeDownload(path, landed);
    return;
  }
  KXLOG(KXLM_ROOT, KXLL_NFY,
        "Partial download of " << landed.size << " of " << size << " bytes kept in " << resumable.cacheDir);
}

}  // namespace steps
