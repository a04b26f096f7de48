#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <variant>

#include "HttpClient.h"

// The result codes of an update run, which are its exit status.
enum class Result : int {
  Done = 0,  // nothing to do, update done, or another instance holds the lock
  NotRoot = 1,
  RequestFailed = 2,
  UnknownArch = 3,
  BadCurrentVersion = 4,
  BadPublishedVersion = 5,
  WrongSize = 6,
  NoSizeOrWrongMd5 = 7,
  NotAttached = 9,
  NoVerifiedFile = 11,
  ReleaseRefused = 12,
  Unhealthy = 13,
};

// What a result stands for, in the words of the documentation ("unknown
// result" for a code that is none), and whether a run that ends with it frees
// the lock at once: only for what a retry may cure (no root, a server not
// reached, a refused release, which is the server's fault as much).
const char* resultMeaning(int code);
bool freesLock(Result result);

// Why a step of the run cannot go on: a result that is never Done, the
// reason in words ("<subject>: <problem>", or the problem alone), and the
// answer of the request that failed, when one did (code 0 when no request
// was involved). A Failure made with Done becomes NoVerifiedFile, so that a
// failure can never pass for success.
class Failure {
 public:
  Failure(Result result, std::string problem, HttpClient::Result answer = {});
  Failure(Result result, std::string subject, std::string problem, HttpClient::Result answer = {});
  Result result() const { return _result; }
  std::string reason() const { return _subject.empty() ? _problem : _subject + ": " + _problem; }
  // What is wrong, without what it is wrong with.
  const std::string& problem() const { return _problem; }
  const HttpClient::Result& answer() const { return _answer; }

 private:
  Result _result;
  std::string _subject;
  std::string _problem;
  HttpClient::Result _answer;
};

// The value a step produced, or why it could not (a Failure unless the step
// has finer reasons of its own).
template <class T, class E = Failure>
class Expected {
 public:
  Expected(T value) : _v(std::in_place_index<0>, std::move(value)) {}      // NOLINT: a step returns its value
  Expected(E failure) : _v(std::in_place_index<1>, std::move(failure)) {}  // NOLINT: or why not
  bool ok() const { return _v.index() == 0; }
  const T& operator*() const { return std::get<0>(_v); }
  T& operator*() { return std::get<0>(_v); }
  const T* operator->() const { return &std::get<0>(_v); }
  T* operator->() { return &std::get<0>(_v); }
  const E& failure() const { return std::get<1>(_v); }

 private:
  std::variant<T, E> _v;
};

// A step that produces nothing but may fail.
struct Passed {};
using Status = Expected<Passed>;

// What the run learned on its way, for the record.
struct Facts {
  std::string offeredVersion;  // "" when the server was not asked
  std::string packageUrl;      // "" when no package was resolved
  uint64_t packageSize = 0;    // 0 when not known
  uint64_t bytesFetched = 0;   // of the package, by this run
};

// How a run ended, built once: the exit status, the lock's release and the
// run record all read it.
struct RunEnd {
  enum class Action { Updated, Restarted, UpToDate, Locked, Failed, Waiting, Held, RolledBack };

  Result result = Result::Done;
  Action action = Action::Failed;
  std::string reason;  // why the run did not update; "" when it did
  Facts facts;

  static RunEnd done(bool restartOnly, Facts facts);
  static RunEnd upToDate(const std::string& why, Facts facts);
  // A signed entry not offered to this machine yet, or one whose package
  // failed its health check here: as after nothing to do.
  static RunEnd waiting(const std::string& why, Facts facts);
  static RunEnd held(const std::string& why, Facts facts);
  // The new version failed its health check and the one before is back.
  static RunEnd rolledBack(const std::string& why, Facts facts);
  // Refused by another run's lock: the exit status is 0 and the lock stays.
  static RunEnd locked(const std::string& why);
  static RunEnd failed(const Failure& failure, Facts facts);
  // A standard exception that escaped the run: exit status 0 and the lock
  // kept, as the program has always done, but the record says failed.
  static RunEnd escaped(const std::string& what);

  int exitStatus() const { return static_cast<int>(result); }
  bool freesLock(bool restartOnly) const;
  // The one word of the record: "updated", "restarted", "up to date",
  // "locked", "failed", "waiting", "held" or "rolled back".
  const char* actionWord() const;
};
