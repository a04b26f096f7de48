#include "Outcome.h"

namespace {

struct Row {
  Result result;
  const char* meaning;
  bool freesLock;
};

const Row kResults[] = {
    {Result::Done, "nothing to do, update done, or another instance holds the lock", false},
    {Result::NotRoot, "not running as root", true},
    {Result::RequestFailed, "version file, HEAD request or setup download failed", true},
    {Result::UnknownArch, "architecture unknown", false},
    {Result::BadCurrentVersion, "current version not parseable", false},
    {Result::BadPublishedVersion, "published version not parseable", false},
    {Result::WrongSize, "wrong size after the last attempt", false},
    {Result::NoSizeOrWrongMd5, "size not determinable, or wrong MD5 after the last attempt", false},
    {Result::NotAttached, "disk image could not be attached", false},
    {Result::NoVerifiedFile, "no temporary directory, no verified file, or an exception in the run", false},
    {Result::ReleaseRefused, "a signed release was required and a check of it failed", true},
    {Result::Unhealthy, "the new version failed its health check", false},
};

const Row* rowOf(int code) {
  for (const Row& r : kResults) {
    if (static_cast<int>(r.result) == code) return &r;
  }
  return nullptr;
}

}  // namespace

const char* resultMeaning(int code) {
  const Row* r = rowOf(code);
  return r != nullptr ? r->meaning : "unknown result";
}

bool freesLock(Result result) {
  const Row* r = rowOf(static_cast<int>(result));
  return r != nullptr && r->freesLock;
}

Failure::Failure(Result result, std::string problem, HttpClient::Result answer)
    : Failure(result, std::string(), std::move(problem), std::move(answer)) {}

Failure::Failure(Result result, std::string subject, std::string problem, HttpClient::Result answer)
    : _result(result), _subject(std::move(subject)), _problem(std::move(problem)), _answer(std::move(answer)) {
  if (_result == Result::Done) {
    _result = Result::NoVerifiedFile;
    _subject = "a failure without a result" + (_subject.empty() ? "" : ", " + _subject);
  }
}

RunEnd RunEnd::done(bool restartOnly, Facts facts) {
  return RunEnd{Result::Done, restartOnly ? Action::Restarted : Action::Updated, std::string(), std::move(facts)};
}

RunEnd RunEnd::upToDate(const std::string& why, Facts facts) {
  return RunEnd{Result::Done, Action::UpToDate, why, std::move(facts)};
}

RunEnd RunEnd::waiting(const std::string& why, Facts facts) {
  return RunEnd{Result::Done, Action::Waiting, why, std::move(facts)};
}

RunEnd RunEnd::held(const std::string& why, Facts facts) {
  return RunEnd{Result::Done, Action::Held, why, std::move(facts)};
}

RunEnd RunEnd::rolledBack(const std::string& why, Facts facts) {
  return RunEnd{Result::Unhealthy, Action::RolledBack, why, std::move(facts)};
}

RunEnd RunEnd::locked(const std::string& why) { return RunEnd{Result::Done, Action::Locked, why, Facts()}; }

RunEnd RunEnd::failed(const Failure& failure, Facts facts) {
  return RunEnd{failure.result(), Action::Failed, failure.reason(), std::move(facts)};
}

RunEnd RunEnd::escaped(const std::string& what) {
  return RunEnd{Result::Done, Action::Failed, "exception: " + what, Facts()};
}

bool RunEnd::freesLock(bool restartOnly) const {
  // The check of another run's lock comes before any removal, -S or not.
  return action != Action::Locked && (restartOnly || ::freesLock(result));
}

const char* RunEnd::actionWord() const {
  static const char* const kWords[] = {"updated", "restarted", "up to date", "locked",
                                       "failed",  "waiting",   "held",       "rolled back"};
  return kWords[static_cast<size_t>(action)];
}
