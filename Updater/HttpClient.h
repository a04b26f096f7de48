#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <map>
#include <string>

// libcurl's own declaration of its easy handle, repeated so that users of the
// client do not pull in curl.h.
typedef void CURL;

// The updater's HTTP(S) access: one libcurl easy handle, made on first use and
// reused by every request, so connections stay alive between the requests of
// a run. Synchronous and not thread-safe: one thread at a time.
//
// Every request returns its Result: code 0 for a completed transfer with
// status 200, the status for any other completed transfer, and -1 when the
// handle could not be made, the transfer failed, the status could not be read
// or (download) the file could not be opened, with the reason beside it.
// Failures are logged at ERR for ROOT; nothing throws.
class HttpClient {
 public:
  // A request's outcome as a value; it reads as its code wherever the int
  // the program has always compared is wanted.
  struct Result {
    int code = 0;
    std::string error;                     // why no answer came (code -1), or why a body was cut
    operator int() const { return code; }  // NOLINT(google-explicit-constructor)
  };
  // Told each ten percent of a download that the log reports.
  using Progress = std::function<void(int percent)>;

  HttpClient();
  virtual ~HttpClient();
  HttpClient(const HttpClient&) = delete;
  HttpClient& operator=(const HttpClient&) = delete;

  // Makes the handle once; false only when libcurl could not make it, and the
  // next call tries again.
  bool init();
  // Releases the handle but leaves the client marked initialised, so every
  // later request fails with -1: meant for the end of the client's life.
  void cleanup();
  // Text put in front of every request's url, with nothing between.
  void setConfig(const std::string& prefix);

  // Body into `body`, response headers (of every response of a redirect chain,
  // the last value winning) into `headers`. Both are emptied first.
  Result get(const std::string& url, std::string& body, std::map<std::string, std::string>& headers);
  // get for a body of at most maxBody bytes; a longer one fails the request
  // (-1) before more than that is kept.
  Result get(const std::string& url, std::string& body, std::map<std::string, std::string>& headers, size_t maxBody);
  // Headers only; no body is transferred.
  Result head(const std::string& url, std::map<std::string, std::string>& headers);
  // What a download left at its path, read from the descriptor it wrote
  // rather than from the path, which by then could name another file.
  struct Landed {
    uint64_t size = 0;
    uint64_t device = 0;
    uint64_t inode = 0;
    // Lower-case sums of what the file holds, when asked for; "" when they
    // could not be established.
    std::string md5;
    std::string sha256;
    uint64_t fetched = 0;      // bytes of the body this request received
    uint64_t resumedFrom = 0;  // where the body continued the file; 0: from its start
    // What names the server's file for a later If-Range: the strong ETag, else
    // the Last-Modified, of the answer that began the file; "" when none.
    std::string validator;
  };
  // Where a download continues a file it began before: the file's first
  // `from` bytes are kept when the server answers the Range with them as the
  // validator says (206 from that byte on), and hashed again from the file;
  // any other answer starts the file over. With keptAt, those bytes lie in
  // that file instead (one of ours on another file system) and are copied
  // to the download's path as they are hashed.
  struct Resume {
    uint64_t from = 0;
    std::string validator;
    std::string keptAt;
  };
  enum Sums : unsigned { kMd5 = 1, kSha256 = 2 };

  // Body into the file at `path` (created or truncated), logging progress in
  // steps of ten percent. The file is never removed, even after a failure.
  // A link or hard link at `path`, or a file of another user, is replaced,
  // never written through. With a limit, writing stops one byte past it and
  // the transfer ends there as if complete, so that an endless body cannot
  // fill the disk and the caller's size check sees the difference.
  // With landed, it receives what the file holds once the file was opened,
  // and the sums asked for (Sums), computed while it is written from each
  // step that reached the file (MD5 by a second thread, joined before the
  // call returns). progress, when given, hears each "Loading" step. With a
  // resume (may be null), the file at path is kept rather than truncated, and the limit
  // counts from its first byte (Resume).
  static constexpr uint64_t kNoLimit = ~uint64_t{0};
  Result download(const std::string& url, const std::string& path, std::map<std::string, std::string>& headers,
                  uint64_t limit = kNoLimit, Landed* landed = nullptr, unsigned sums = 0,
                  const Progress& progress = Progress(), const Resume* resume = nullptr);

  // Bounds that keep a slow or silent server from holding a run for ever:
  // every request is abandoned when fewer than kLowSpeedBytes a second
  // arrive for kLowSpeedSeconds, and a text request (get, head) after
  // kTextSeconds in all. The environment may lower the times
  // (KX_HTTP_LOW_SPEED_TIME, KX_HTTP_TEXT_TIMEOUT, in seconds), never raise
  // them.
  static constexpr long kLowSpeedBytes = 1024;
  static constexpr long kLowSpeedSeconds = 60;
  static constexpr long kTextSeconds = 300;

  // Largest body get() keeps; a longer one fails the request (-1).
  static constexpr size_t kMaxTextBody = size_t{4} * 1024 * 1024;

  // libcurl callbacks, public so that their rules can be exercised directly.
  // Appends to the std::string at userp; refuses (returns 0) what would take
  // it past kMaxTextBody.
  static size_t readResponsCb(void* data, size_t size, size_t nmemb, void* userp);
  // Writes to the FILE* at userp; a short write makes libcurl abort.
  static size_t readFileResponseCb(void* data, size_t size, size_t nmemb, void* userp);
  // One header line into the std::map<std::string, std::string> at userp.
  static size_t readHeadersCb(void* data, size_t size, size_t nmemb, void* userp);
  // Logs "Loading N%" when N lands on a multiple of ten above the last
  // percentage, the int at clientp, which it then updates. Never aborts.
  static int progressCb(void* clientp, long dltotal, long dlnow, long ultotal, long ulnow);

 private:
  Result finish(int rc, const std::string& url, const char* statusFailure, FILE* file, bool continued = false);

  CURL* handle;
  std::string config;
  bool initialised;
  long lowSpeedSeconds = kLowSpeedSeconds;
  long textSeconds = kTextSeconds;
};
