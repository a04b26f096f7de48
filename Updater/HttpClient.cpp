#include "HttpClient.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <locale>
#include <memory>
#include <mutex>
#include <thread>

#include <curl/curl.h>

#include "KXHash.h"
#include "KXLog.h"
#include "osal_file.h"
#include "utils.h"

namespace {

// "wb", but the file usually lands in a shared temporary directory and the
// program runs as root: a link or a hard link planted there is never written
// through (osal_openOwned). Readable, for the Follower, which is told what
// reached the file at each flush of a step.
constexpr size_t kFileStep = size_t{1} << 20;

FILE* openForDownload(const std::string& path) {
  int fd = -1;
  if (osal_openOwned(path.c_str(), O_TRUNC | O_RDWR, &fd) != 0) return nullptr;
  FILE* file = fdopen(fd, "wb");
  if (file == nullptr) {
    close(fd);
    return nullptr;
  }
  // libcurl hands over 16 KiB at a time; written through as they come, they
  // cost a system call each and wake the Follower each time.
  setvbuf(file, nullptr, _IOFBF, kFileStep);
  return file;
}

// Hashes a download while it lands: a thread reads the file back behind the
// writer, through the same descriptor, so that receiving and hashing overlap
// (the slower of the two sets the pace, not their sum) and what is hashed is
// what the file holds, not what was received.
class Follower {
 public:
  explicit Follower(int fd) : _fd(fd), _thread(&Follower::run, this) {}
  ~Follower() { stop(); }
  Follower(const Follower&) = delete;
  Follower& operator=(const Follower&) = delete;

  // The file now holds `bytes` bytes.
  void wrote(uint64_t bytes) {
    {
      const std::lock_guard<std::mutex> lock(_mutex);
      _written = bytes;
    }
    _wake.notify_one();
  }

  // Lower-case MD5 of the whole file, or "" when it could not all be read
  // back (the caller then reads it again from the start).
  std::string finish() {
    stop();
    struct stat st {};
    if (_failed || fstat(_fd, &st) != 0 || static_cast<uint64_t>(st.st_size) != _hashed) return std::string();
    unsigned char hex[33] = {};
    _hash.getHex(hex);
    return utils::lowerCase(reinterpret_cast<const char*>(hex));
  }

 private:
  static constexpr size_t kChunk = 256 << 10;

  void stop() {
    {
      const std::lock_guard<std::mutex> lock(_mutex);
      _stopping = true;
    }
    _wake.notify_one();
    if (_thread.joinable()) _thread.join();
  }

  void run() {
    const std::unique_ptr<char[]> buffer(new char[kChunk]);
    for (;;) {
      uint64_t target = 0;
      bool last = false;
      {
        std::unique_lock<std::mutex> lock(_mutex);
        _wake.wait(lock, [this] { return _written > _hashed || _stopping; });
        target = _written;
        last = _stopping;
      }
      while (_hashed < target) {
        const ssize_t n = pread(_fd, buffer.get(), static_cast<size_t>(std::min<uint64_t>(kChunk, target - _hashed)),
                                static_cast<off_t>(_hashed));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
          _failed = true;
          return;
        }
        _hash.update(buffer.get(), static_cast<unsigned int>(n));
        _hashed += static_cast<uint64_t>(n);
      }
      if (last) return;
    }
  }

  const int _fd;
  KXHashMD5 _hash;
  uint64_t _hashed = 0;  // the thread's own until it is joined
  bool _failed = false;
  std::mutex _mutex;
  std::condition_variable _wake;
  uint64_t _written = 0;
  bool _stopping = false;
  std::thread _thread;  // last: starts once everything it uses exists
};

// Where a download writes: the file, how much more it may take, and who
// follows it.
struct DownloadTarget {
  FILE* file;
  uint64_t room;
  Follower* follower;
  uint64_t written = 0;
  uint64_t flushed = 0;  // what the file holds, for the Follower
  bool overflowed = false;

  // Hands the Follower what reached the file; false when the file would not
  // take it (a full disk).
  bool flush() {
    if (std::fflush(file) != 0) return false;
    flushed = written;
    if (follower != nullptr) follower->wrote(flushed);
    return true;
  }
};

// Kept as the program has always written them, misspelling and double blanks
// included: existing log searches look for these exact texts.
const char kGetStatusFailure[] = "Faild to get  http status code [";
const char kHeadStatusFailure[] = "Failed to get  http status code [";

constexpr long kDownloadBufferSize = 256L * 1024;

// libcurl reports progress in curl_off_t; the client's callback keeps the
// long-based signature the rest of the code base knows.
int xferInfoAdapter(void* clientp, curl_off_t dltotal, curl_off_t dlnow, curl_off_t ultotal, curl_off_t ulnow) {
  return HttpClient::progressCb(clientp, static_cast<long>(dltotal), static_cast<long>(dlnow),
                                static_cast<long>(ultotal), static_cast<long>(ulnow));
}

// readFileResponseCb within the room the download has left.
size_t writeLimited(void* data, size_t size, size_t nmemb, void* userp) {
  auto& target = *static_cast<DownloadTarget*>(userp);
  const size_t n = size * nmemb;
  const size_t kept = n <= target.room ? n : static_cast<size_t>(target.room);
  const size_t written = HttpClient::readFileResponseCb(data, 1, kept, target.file);
  target.room -= written;
  target.written += written;
  if (target.written - target.flushed >= kFileStep && !target.flush()) return 0;
  if (written == n) return n;
  target.overflowed = written == kept;
  return 0;
}

// Header lines arrive with their CR LF and whatever padding the server chose.
std::string trimmed(const std::string& text) {
  const std::locale& classic = std::locale::classic();
  size_t begin = 0;
  size_t end = text.size();
  while (begin < end && std::isspace(text[begin], classic)) ++begin;
  while (end > begin && std::isspace(text[end - 1], classic)) --end;
  return text.substr(begin, end - begin);
}

// What every request does once perform has returned. A download's file is
// closed after a failure has been logged, and before the status is judged,
// so that the caller finds it complete on disk whatever the outcome.
int finishRequest(CURL* handle, CURLcode rc, const std::string& url, const char* statusFailure, FILE* file) {
  if (rc != CURLE_OK) {
    KXLOG(
        KXLM_ROOT, KXLL_ERR,
        "Request " << utils::logUrl(url) << " failed : [" << static_cast<int>(rc) << "] -> " << curl_easy_strerror(rc));
    if (file != nullptr) std::fclose(file);
    return -1;
  }
  long status = 0;
  const CURLcode info = curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &status);
  if (info != CURLE_OK) {
    KXLOG(KXLM_ROOT, KXLL_ERR, statusFailure << static_cast<int>(info) << "] -> " << curl_easy_strerror(info));
    if (file != nullptr) std::fclose(file);
    return -1;
  }
  if (file != nullptr) std::fclose(file);
  if (status == 200) return 0;
  KXLOG(KXLM_ROOT, KXLL_ERR, "Request " << utils::logUrl(url) << " failed : [" << status << "]");
  return static_cast<int>(status);
}

}  // namespace

HttpClient::HttpClient() : handle(nullptr), initialised(false) {}

HttpClient::~HttpClient() {
  if (handle != nullptr) curl_easy_cleanup(handle);
}

bool HttpClient::init() {
  if (initialised) return true;
  // No curl_global_init: the first easy handle triggers it, and the updater
  // makes that handle on its only thread.
  CURL* made = curl_easy_init();
  if (made == nullptr) return false;
  handle = made;
  // Update servers are commonly reached by address or through self-signed
  // certificates; the package is verified by size and MD5 instead.
  curl_easy_setopt(handle, CURLOPT_SSL_VERIFYPEER, 0L);
  curl_easy_setopt(handle, CURLOPT_SSL_VERIFYHOST, 0L);
  curl_easy_setopt(handle, CURLOPT_TCP_KEEPALIVE, 1L);
  curl_easy_setopt(handle, CURLOPT_USERAGENT, "Updater/1.0.0");
  curl_easy_setopt(handle, CURLOPT_FOLLOWLOCATION, 1L);
  curl_easy_setopt(handle, CURLOPT_MAXREDIRS, 50L);
  curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(handle, CURLOPT_TCP_NODELAY, 1L);
  curl_easy_setopt(handle, CURLOPT_CONNECTTIMEOUT, 60L);
  curl_easy_setopt(handle, CURLOPT_NOPROGRESS, 1L);
  initialised = true;
  return true;
}

void HttpClient::cleanup() {
  if (handle == nullptr) return;
  curl_easy_cleanup(handle);
  handle = nullptr;
  // `initialised` stays set on purpose: a client cleaned up is finished, and
  // a request on it must fail rather than quietly open a new connection.
}

void HttpClient::setConfig(const std::string& prefix) { config = prefix; }

int HttpClient::get(const std::string& url, std::string& body, std::map<std::string, std::string>& headers) {
  if (!init()) return -1;
  body.clear();
  headers.clear();
  curl_easy_setopt(handle, CURLOPT_URL, (config + url).c_str());
  curl_easy_setopt(handle, CURLOPT_NOBODY, 0L);
  curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, &HttpClient::readResponsCb);
  curl_easy_setopt(handle, CURLOPT_WRITEDATA, &body);
  curl_easy_setopt(handle, CURLOPT_HEADERFUNCTION, &HttpClient::readHeadersCb);
  curl_easy_setopt(handle, CURLOPT_HEADERDATA, &headers);
  return finishRequest(handle, curl_easy_perform(handle), url, kGetStatusFailure, nullptr);
}

int HttpClient::head(const std::string& url, std::map<std::string, std::string>& headers) {
  if (!init()) return -1;
  headers.clear();
  curl_easy_setopt(handle, CURLOPT_URL, (config + url).c_str());
  // The write function stays whatever the previous request set: without a
  // body libcurl never calls it.
  curl_easy_setopt(handle, CURLOPT_NOBODY, 1L);
  curl_easy_setopt(handle, CURLOPT_HEADERFUNCTION, &HttpClient::readHeadersCb);
  curl_easy_setopt(handle, CURLOPT_HEADERDATA, &headers);
  return finishRequest(handle, curl_easy_perform(handle), url, kHeadStatusFailure, nullptr);
}

int HttpClient::download(const std::string& url, const std::string& path, std::map<std::string, std::string>& headers,
                         uint64_t limit, std::string* md5) {
  if (!init()) return -1;
  headers.clear();
  curl_easy_setopt(handle, CURLOPT_URL, (config + url).c_str());
  FILE* file = openForDownload(path);
  if (file == nullptr) return -1;
  int lastPercent = 0;
  // One byte past the limit is kept, so that the file is of the wrong size
  // rather than a plausible prefix of something longer.
  const std::unique_ptr<Follower> follower = md5 != nullptr ? std::make_unique<Follower>(fileno(file)) : nullptr;
  DownloadTarget target{file, limit == kNoLimit ? kNoLimit : limit + 1, follower.get()};
  curl_easy_setopt(handle, CURLOPT_NOBODY, 0L);
  curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, &writeLimited);
  curl_easy_setopt(handle, CURLOPT_WRITEDATA, &target);
  curl_easy_setopt(handle, CURLOPT_HEADERFUNCTION, &HttpClient::readHeadersCb);
  curl_easy_setopt(handle, CURLOPT_HEADERDATA, &headers);
  curl_easy_setopt(handle, CURLOPT_NOPROGRESS, 0L);
  curl_easy_setopt(handle, CURLOPT_XFERINFOFUNCTION, &xferInfoAdapter);
  curl_easy_setopt(handle, CURLOPT_XFERINFODATA, &lastPercent);
  // Packages run to hundreds of megabytes. libcurl's 16 KiB default costs a
  // poll, a recv, a progress call and a file write per 16 KiB, which on a
  // fast link makes the client rather than the network the limit. The buffer
  // is allocated once per handle, so memory does not grow with the file.
  // Progress comes at most once per read, so on a fast link a file of a few
  // megabytes may step over a ten; real links deliver far smaller reads.
  curl_easy_setopt(handle, CURLOPT_BUFFERSIZE, kDownloadBufferSize);
  CURLcode rc = curl_easy_perform(handle);
  // The counter lives in this frame; a later get or head on the same handle
  // must not report progress into it.
  curl_easy_setopt(handle, CURLOPT_NOPROGRESS, 1L);
  curl_easy_setopt(handle, CURLOPT_XFERINFODATA, nullptr);
  // A body that runs past what the server announced is cut rather than
  // allowed to fill the disk; what was kept is a complete (if wrong-sized)
  // download for the caller's size check.
  if (rc == CURLE_WRITE_ERROR && target.overflowed) rc = CURLE_OK;
  if (!target.flush() && rc == CURLE_OK) rc = CURLE_WRITE_ERROR;
  if (follower != nullptr) *md5 = follower->finish();
  return finishRequest(handle, rc, url, kGetStatusFailure, file);
}

size_t HttpClient::readResponsCb(void* data, size_t size, size_t nmemb, void* userp) {
  auto& body = *static_cast<std::string*>(userp);
  const size_t n = size * nmemb;
  // Version, sum and definition files are a few hundred bytes; a server that
  // sends more is not one to trust with memory.
  if (body.size() + n > kMaxTextBody) return 0;
  body.append(static_cast<const char*>(data), n);
  return n;
}

size_t HttpClient::readFileResponseCb(void* data, size_t size, size_t nmemb, void* userp) {
  return std::fwrite(data, size, nmemb, static_cast<FILE*>(userp));
}

size_t HttpClient::readHeadersCb(void* data, size_t size, size_t nmemb, void* userp) {
  const std::string line(static_cast<const char*>(data), size * nmemb);
  // Status lines and the blank line closing a block carry no colon.
  const size_t colon = line.find(':');
  if (colon != std::string::npos) {
    auto& headers = *static_cast<std::map<std::string, std::string>*>(userp);
    headers[trimmed(line.substr(0, colon))] = trimmed(line.substr(colon + 1));
  }
  return size * nmemb;
}

int HttpClient::progressCb(void* clientp, long dltotal, long dlnow, long /*ultotal*/, long /*ulnow*/) {
  if (dltotal == 0) return 0;
  int& lastPercent = *static_cast<int*>(clientp);
  const int percent = static_cast<int>((static_cast<int64_t>(dlnow) * 100) / dltotal);
  // Only exact multiples of ten are reported, so a step that jumps over one
  // (38 to 41) stays silent; the log is a heartbeat, not a gauge.
  if (lastPercent < percent && percent % 10 == 0) KXLOG(KXLM_ROOT, KXLL_NFY, "Loading " << percent << "%");
  lastPercent = percent;
  return 0;
}
