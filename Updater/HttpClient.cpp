#include "HttpClient.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <locale>
#include <memory>
#include <thread>

#include <curl/curl.h>

#include "KXChunkRing.h"
#include "KXHash.h"
#include "KXLog.h"
#include "osal_file.h"
#include "utils.h"

namespace {

// "wb", but the file usually lands in a shared temporary directory and the
// program runs as root: a link or a hard link planted there is never written
// through (osal_openOwned). Unbuffered: DownloadTarget gathers the bytes.
// keep: the file is not truncated, so that a download may continue it.
FILE* openForDownload(const std::string& path, bool keep) {
  int fd = -1;
  const char* replaced = nullptr;
  if (osal_openOwned(path.c_str(), keep ? 0 : O_TRUNC, &fd, &replaced) != 0) return nullptr;
  if (replaced != nullptr) KXLOG(KXLM_ROOT, KXLL_ERR, "Replaced " << path << ": it was " << replaced);
  FILE* file = fdopen(fd, "wb");
  if (file == nullptr) {
    close(fd);
    return nullptr;
  }
  setvbuf(file, nullptr, _IONBF, 0);
  return file;
}

// A header's value whatever case the server wrote its name in; "" when absent.
std::string headerValue(const std::map<std::string, std::string>& headers, const char* name) {
  for (const auto& [key, value] : headers) {
    if (key.size() == std::strlen(name) && strncasecmp(key.c_str(), name, key.size()) == 0) return value;
  }
  return std::string();
}

// If-Range compares strong validators only: a weak ETag says "equivalent",
// not "the same bytes". The validator is kept on disk and goes back to the
// server in a header of ours: one that is long or holds anything but
// printable ASCII is not taken.
std::string validatorOf(const std::map<std::string, std::string>& headers) {
  std::string etag = headerValue(headers, "ETag");
  std::string v = !etag.empty() && etag.compare(0, 2, "W/") != 0 ? etag : headerValue(headers, "Last-Modified");
  const bool plain = v.size() <= 256 && std::all_of(v.begin(), v.end(), [](char c) { return c >= 0x20 && c < 0x7f; });
  return plain ? v : std::string();
}

// How much of the file at path, open for writing as file, a download may
// continue: up to `from` bytes when it is the same file that path names and
// holds at least that many (cut to them), else none (emptied).
uint64_t keptPart(const std::string& path, FILE* file, uint64_t from) {
  struct stat st {};
  struct stat there {};
  const bool same = fstat(fileno(file), &st) == 0 && lstat(path.c_str(), &there) == 0 && st.st_dev == there.st_dev &&
                    st.st_ino == there.st_ino && static_cast<uint64_t>(st.st_size) >= from;
  const uint64_t kept = same ? from : 0;
  return ftruncate(fileno(file), static_cast<off_t>(kept)) == 0 ? kept : 0;
}

// How much of the regular file open at reader a download may copy: `from`
// bytes when it has them, else none.
uint64_t keptElsewhere(int reader, uint64_t from) {
  struct stat st {};
  const bool enough =
      reader >= 0 && fstat(reader, &st) == 0 && S_ISREG(st.st_mode) && static_cast<uint64_t>(st.st_size) >= from;
  return enough ? from : 0;
}

// libcurl hands over about 16 KiB at a time; written through as they come,
// they would cost a system call each.
constexpr size_t kFileStep = 256 << 10;
constexpr unsigned kHashSlots = 4;

// Where a download writes, and how much more it may take. The bytes gather
// into steps, each written to the file in one call. When the download is
// hashed with MD5, a step that reached the file in full goes on to a thread
// of its own that hashes it while the next ones arrive: the slower of
// receiving and hashing sets the pace, not their sum. SHA-256, three times
// faster than MD5 here, is taken on the receiving thread, so that neither
// hash waits for the other. What is hashed is what the file holds: every
// write is checked, and so is the file's size at the end. A download that
// continues a file decides at the first byte of the body whether the answer
// continues it (then the kept part is read back and hashed first) or starts
// it over.
class DownloadTarget {
 public:
  DownloadTarget(uint64_t room, unsigned sums)
      : DownloadTarget(room, (sums & HttpClient::kMd5) != 0, (sums & HttpClient::kSha256) != 0) {}
  ~DownloadTarget() {
    stopHashing();
    if (_reader >= 0) close(_reader);
  }
  DownloadTarget(const DownloadTarget&) = delete;
  DownloadTarget& operator=(const DownloadTarget&) = delete;

 private:
  DownloadTarget(uint64_t room, bool hashed, bool sha256)
      : _room(room),
        _sha256(sha256 ? std::make_unique<KXHashSHA256>() : nullptr),
        _ring(hashed ? std::make_unique<KXChunkRing>(kFileStep, kHashSlots) : nullptr),
        _own(hashed ? nullptr : new char[kFileStep]),
        _step(hashed ? _ring->slotToFill() : _own.get()) {
    if (hashed) {
      _hasher = std::thread([this] {
        _ring->drain([this](const char* data, size_t length) {
          _hash.update(data, static_cast<unsigned int>(length));
          _hashed += length;
        });
      });
    }
  }

 public:
  // Made before the file is opened: if the memory or the thread cannot be
  // had, no descriptor is left behind by the exception.
  void writeTo(FILE* file) { _file = file; }

  // The file's first `from` bytes, readable at reader (owned from here on),
  // are kept if the answer continues them; headers are the answer's.
  // copy: reader is another file, whose bytes are written to this one.
  void continueAt(uint64_t from, int reader, bool copy, CURL* handle,
                  const std::map<std::string, std::string>* headers) {
    _from = from;
    _reader = reader;
    _copy = copy;
    _handle = handle;
    _headers = headers;
  }

  // libcurl's write callback: takes what fits in the room left, and
  // returns n only when all of it was kept.
  size_t take(const char* data, size_t n) {
    if (!_decided && !decide()) return 0;
    _fetched += n;
    const size_t kept = n <= _room ? n : static_cast<size_t>(_room);
    for (size_t done = 0; done < kept;) {
      const size_t part = std::min(kept - done, kFileStep - _used);
      std::memcpy(_step + _used, data + done, part);
      _used += part;
      done += part;
      if (_used == kFileStep && !writeStep()) return 0;
    }
    _room -= kept;
    if (kept == n) return n;
    _overflowed = true;
    return 0;
  }

  // Writes what is gathered; false when the file would not take it (a full
  // disk).
  bool flush() { return _used == 0 || writeStep(); }

  // Whether the transfer ended because the body ran past the room.
  bool overflowed() const { return _overflowed; }
  uint64_t fetched() const { return _fetched; }
  bool decided() const { return _decided; }
  uint64_t resumedFrom() const { return _resumedFrom; }

  // Whether the answer continues the kept part: a 206 whose range starts
  // where it ends. Then the kept part is hashed; otherwise the file starts
  // over, and a 206 from elsewhere also ends the transfer (false). Taken at
  // the first byte of the body, or after the transfer when none came.
  bool decide() {
    _decided = true;
    if (_from == 0) return true;
    long status = 0;
    curl_easy_getinfo(_handle, CURLINFO_RESPONSE_CODE, &status);
    const std::string range = headerValue(*_headers, "Content-Range");
    const std::string expected = "bytes " + std::to_string(_from) + "-";
    if (status == 206 && range.compare(0, expected.size(), expected) == 0) {
      if (!absorbKept()) return false;
      KXLOG(KXLM_ROOT, KXLL_NFY, "Download resumed at byte " << _from);
      _resumedFrom = _from;
      _room -= std::min(_room, _from);
      return true;
    }
    if (status == 206) {
      KXLOG(KXLM_ROOT, KXLL_WRN,
            "Range from byte " << _from << " answered with " << utils::logText(range) << ": download starts over");
    } else if (status == 200) {
      KXLOG(KXLM_ROOT, KXLL_WRN, "Range from byte " << _from << " answered with the whole file: download starts over");
    }
    _from = 0;
    if (ftruncate(fileno(_file), 0) != 0 || fseeko(_file, 0, SEEK_SET) != 0) return false;
    return status != 206;
  }

  // After flush: the lower-case sums asked for of the whole file, each ""
  // when not all of the file was hashed.
  void sums(uint64_t fileSize, HttpClient::Landed& landed) {
    stopHashing();
    if (_ring != nullptr && fileSize == _hashed) {
      unsigned char hex[33] = {};
      _hash.getHex(hex);
      landed.md5 = utils::lowerCase(reinterpret_cast<const char*>(hex));
    }
    if (_sha256 != nullptr && fileSize == _sha256Bytes) landed.sha256 = _sha256->hex();
  }

 private:
  // The kept part, read back from its start and hashed as if it had just
  // arrived; the file is then written on from its end.
  bool absorbKept() {
    for (uint64_t done = 0; done < _from;) {
      const auto want = static_cast<unsigned int>(std::min<uint64_t>(kFileStep, _from - done));
      unsigned int got = 0;
      if (osal_read(_reader, _step, want, &got) != 0 || got != want) return false;
      _used = got;
      if (_copy && !writeStep()) return false;
      if (!_copy) hashStep();
      done += got;
    }
    return _copy || fseeko(_file, static_cast<off_t>(_from), SEEK_SET) == 0;
  }

  bool writeStep() {
    // A step that fell short is not hashed; any part of it that reached the
    // file makes the file's size differ from what was, and md5() gives "".
    if (HttpClient::readFileResponseCb(_step, 1, _used, _file) != _used) {
      _used = 0;
      return false;
    }
    hashStep();
    return true;
  }

  void hashStep() {
    const size_t length = _used;
    _used = 0;
    if (_sha256 != nullptr) {
      _sha256->update(_step, length);
      _sha256Bytes += length;
    }
    if (_ring != nullptr) {
      _ring->publish(length);
      _step = _ring->slotToFill();
    }
  }

  void stopHashing() {
    if (!_hasher.joinable()) return;
    _ring->end();
    _hasher.join();
  }

  FILE* _file = nullptr;
  uint64_t _from = 0;
  int _reader = -1;
  bool _copy = false;
  CURL* _handle = nullptr;
  const std::map<std::string, std::string>* _headers = nullptr;
  bool _decided = false;
  uint64_t _resumedFrom = 0;
  uint64_t _fetched = 0;
  uint64_t _room;
  const std::unique_ptr<KXHashSHA256> _sha256;
  uint64_t _sha256Bytes = 0;
  const std::unique_ptr<KXChunkRing> _ring;
  const std::unique_ptr<char[]> _own;
  char* _step;
  size_t _used = 0;
  bool _overflowed = false;
  KXHashMD5 _hash;
  uint64_t _hashed = 0;  // the hasher's own until it is joined
  std::thread _hasher;
};

// Kept as the program has always written them, misspelling and double blanks
// included: existing log searches look for these exact texts.
const char kGetStatusFailure[] = "Faild to get  http status code [";
const char kHeadStatusFailure[] = "Failed to get  http status code [";

constexpr long kDownloadBufferSize = 256L * 1024;

const char* const kNoHandle = "no connection could be made";

// A download's progress: the last percentage, who else hears the steps the
// log reports, and the download, whose kept part counts as done.
struct ProgressState {
  int lastPercent;
  const HttpClient::Progress* notify;
  const DownloadTarget* target;
};

// libcurl reports progress in curl_off_t; the client's callback keeps the
// long-based signature the rest of the code base knows.
int xferInfoAdapter(void* clientp, curl_off_t dltotal, curl_off_t dlnow, curl_off_t ultotal, curl_off_t ulnow) {
  auto& state = *static_cast<ProgressState*>(clientp);
  const int before = state.lastPercent;
  const auto kept = static_cast<curl_off_t>(state.target->resumedFrom());
  HttpClient::progressCb(&state.lastPercent, static_cast<long>(dltotal == 0 ? 0 : dltotal + kept),
                         static_cast<long>(dlnow + kept), static_cast<long>(ultotal), static_cast<long>(ulnow));
  if (*state.notify && state.lastPercent > before && state.lastPercent % 10 == 0) (*state.notify)(state.lastPercent);
  return 0;
}

// A text body and the most of it that is kept. Version, sum and definition
// files are a few hundred bytes; a server that sends more is not one to
// trust with memory.
struct TextTarget {
  std::string* body;
  size_t max;
  bool over = false;  // the body went past max: the request was cut
};

size_t appendText(void* data, size_t size, size_t nmemb, void* userp) {
  auto& target = *static_cast<TextTarget*>(userp);
  const size_t n = size * nmemb;
  if (target.body->size() + n > target.max) {
    target.over = true;
    return 0;
  }
  target.body->append(static_cast<const char*>(data), n);
  return n;
}

// Where the download continues its file: the kept part's reader handed to
// target (from path itself, or from resume.keptAt), and its length; 0 when
// the body is to be taken whole.
uint64_t continueFrom(DownloadTarget& target, const HttpClient::Resume& resume, const std::string& path, FILE* file,
                      CURL* handle, const std::map<std::string, std::string>* headers) {
  if (resume.from == 0) return 0;
  const bool elsewhere = !resume.keptAt.empty();
  const int reader = open((elsewhere ? resume.keptAt : path).c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
  const uint64_t from = elsewhere ? keptElsewhere(reader, resume.from) : keptPart(path, file, resume.from);
  if (from > 0) {
    target.continueAt(from, reader, elsewhere, handle, headers);
  } else if (reader >= 0) {
    close(reader);
  }
  return from;
}

// What the download left in file, read from its descriptor, once flushed.
HttpClient::Landed landedOf(FILE* file, DownloadTarget& target, const std::string& validator) {
  HttpClient::Landed landed;
  struct stat st {};
  if (fstat(fileno(file), &st) == 0) {
    landed.size = static_cast<uint64_t>(st.st_size);
    landed.device = static_cast<uint64_t>(st.st_dev);
    landed.inode = static_cast<uint64_t>(st.st_ino);
  }
  target.sums(landed.size, landed);
  landed.fetched = target.fetched();
  landed.resumedFrom = target.resumedFrom();
  landed.validator = validator;
  return landed;
}

size_t writeToTarget(void* data, size_t size, size_t nmemb, void* userp) {
  return static_cast<DownloadTarget*>(userp)->take(static_cast<const char*>(data), size * nmemb);
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

// scheme://host:port of a URL, lower case, without credentials; "" for one
// libcurl cannot read.
std::string origin(const std::string& url) {
  const std::unique_ptr<CURLU, void (*)(CURLU*)> u(curl_url(), curl_url_cleanup);
  if (!u || curl_url_set(u.get(), CURLUPART_URL, url.c_str(), CURLU_NON_SUPPORT_SCHEME) != CURLUE_OK) return "";
  std::string out;
  for (const CURLUPart part : {CURLUPART_SCHEME, CURLUPART_HOST, CURLUPART_PORT}) {
    char* text = nullptr;
    if (curl_url_get(u.get(), part, &text, CURLU_DEFAULT_PORT) == CURLUE_OK) out += std::string(text) + "|";
    curl_free(text);
  }
  std::transform(out.begin(), out.end(), out.begin(), [](unsigned char c) { return std::tolower(c); });
  return out;
}

// A time from the environment that may only lower its default.
long lowered(const char* name, long fallback) {
  const char* text = std::getenv(name);
  const long value = text != nullptr ? std::strtol(text, nullptr, 10) : 0;
  return value > 0 && value < fallback ? value : fallback;
}

}  // namespace

HttpClient::HttpClient() : handle(nullptr), initialised(false) {}

// What every request does once perform has returned. A download's file is
// closed after a failure has been logged, and before the status is judged,
// so that the caller finds it complete on disk whatever the outcome.
HttpClient::Result HttpClient::finish(int code, const std::string& url, const char* statusFailure, FILE* file,
                                      bool continued) {
  const auto rc = static_cast<CURLcode>(code);
  Result last{-1, std::string()};
  // Followed on purpose (mirrors, CDNs), but a server that sends root's
  // requests to another host, an internal service say, is worth a line.
  char* effective = nullptr;
  const std::string asked = origin(config + url);
  if (curl_easy_getinfo(handle, CURLINFO_EFFECTIVE_URL, &effective) == CURLE_OK && effective != nullptr &&
      !asked.empty() && origin(effective) != asked) {
    KXLOG(KXLM_ROOT, KXLL_NFY,
          "Request " << utils::logUrl(url) << " was redirected to another host: " << utils::logUrl(effective));
  }
  if (rc != CURLE_OK) {
    last.error = curl_easy_strerror(rc);
    KXLOG(KXLM_ROOT, KXLL_ERR,
          "Request " << utils::logUrl(url) << " failed : [" << static_cast<int>(rc) << "] -> " << last.error);
    if (file != nullptr) std::fclose(file);
    return last;
  }
  long status = 0;
  const CURLcode info = curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &status);
  if (info != CURLE_OK) {
    last.error = curl_easy_strerror(info);
    KXLOG(KXLM_ROOT, KXLL_ERR, statusFailure << static_cast<int>(info) << "] -> " << last.error);
    if (file != nullptr) std::fclose(file);
    return last;
  }
  if (file != nullptr) std::fclose(file);
  // A range that continued the file is as good as the whole file.
  if (continued && status == 206) status = 200;
  last.code = status == 200 ? 0 : static_cast<int>(status);
  if (status != 200) KXLOG(KXLM_ROOT, KXLL_ERR, "Request " << utils::logUrl(url) << " failed : [" << status << "]");
  return last;
}

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
  // Beyond what the program has always set: a server that drips or stays
  // silent must not hold the run, and its lock, for ever.
  lowSpeedSeconds = lowered("KX_HTTP_LOW_SPEED_TIME", kLowSpeedSeconds);
  textSeconds = lowered("KX_HTTP_TEXT_TIMEOUT", kTextSeconds);
  curl_easy_setopt(handle, CURLOPT_LOW_SPEED_LIMIT, kLowSpeedBytes);
  curl_easy_setopt(handle, CURLOPT_LOW_SPEED_TIME, lowSpeedSeconds);
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

HttpClient::Result HttpClient::get(const std::string& url, std::string& body,
                                   std::map<std::string, std::string>& headers) {
  return get(url, body, headers, kMaxTextBody);
}

HttpClient::Result HttpClient::get(const std::string& url, std::string& body,
                                   std::map<std::string, std::string>& headers, size_t maxBody) {
  if (!init()) return Result{-1, kNoHandle};
  body.clear();
  headers.clear();
  curl_easy_setopt(handle, CURLOPT_URL, (config + url).c_str());
  curl_easy_setopt(handle, CURLOPT_NOBODY, 0L);
  TextTarget target{&body, maxBody};
  curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, &appendText);
  curl_easy_setopt(handle, CURLOPT_WRITEDATA, &target);
  curl_easy_setopt(handle, CURLOPT_HEADERFUNCTION, &HttpClient::readHeadersCb);
  curl_easy_setopt(handle, CURLOPT_HEADERDATA, &headers);
  curl_easy_setopt(handle, CURLOPT_TIMEOUT, textSeconds);
  Result result = finish(curl_easy_perform(handle), url, kGetStatusFailure, nullptr);
  if (target.over) result.error = "the body is larger than " + std::to_string(maxBody) + " bytes";
  return result;
}

HttpClient::Result HttpClient::head(const std::string& url, std::map<std::string, std::string>& headers) {
  if (!init()) return Result{-1, kNoHandle};
  headers.clear();
  curl_easy_setopt(handle, CURLOPT_URL, (config + url).c_str());
  // The write function stays whatever the previous request set: without a
  // body libcurl never calls it.
  curl_easy_setopt(handle, CURLOPT_NOBODY, 1L);
  curl_easy_setopt(handle, CURLOPT_HEADERFUNCTION, &HttpClient::readHeadersCb);
  curl_easy_setopt(handle, CURLOPT_HEADERDATA, &headers);
  curl_easy_setopt(handle, CURLOPT_TIMEOUT, textSeconds);
  return finish(curl_easy_perform(handle), url, kHeadStatusFailure, nullptr);
}

HttpClient::Result HttpClient::download(const std::string& url, const std::string& path,
                                        std::map<std::string, std::string>& headers, uint64_t limit, Landed* landed,
                                        unsigned sums, const Progress& progress, const Resume* resume) {
  if (!init()) return Result{-1, kNoHandle};
  headers.clear();
  curl_easy_setopt(handle, CURLOPT_URL, (config + url).c_str());
  // One byte past the limit is kept, so that the file is of the wrong size
  // rather than a plausible prefix of something longer.
  DownloadTarget target(limit == kNoLimit ? kNoLimit : limit + 1, sums);
  const Resume asked = resume != nullptr && !resume->validator.empty() ? *resume : Resume();
  FILE* file = openForDownload(path, asked.from > 0 && asked.keptAt.empty());
  if (file == nullptr) return Result{-1, "cannot open " + path};
  target.writeTo(file);
  const uint64_t from = continueFrom(target, asked, path, file, handle, &headers);
  const std::string range = std::to_string(from) + "-";
  const std::unique_ptr<curl_slist, void (*)(curl_slist*)> ifRange(
      from > 0 ? curl_slist_append(nullptr, ("If-Range: " + asked.validator).c_str()) : nullptr, curl_slist_free_all);
  curl_easy_setopt(handle, CURLOPT_RANGE, from > 0 ? range.c_str() : nullptr);
  curl_easy_setopt(handle, CURLOPT_HTTPHEADER, ifRange.get());
  ProgressState steps{0, &progress, &target};
  curl_easy_setopt(handle, CURLOPT_NOBODY, 0L);
  curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, &writeToTarget);
  curl_easy_setopt(handle, CURLOPT_WRITEDATA, &target);
  curl_easy_setopt(handle, CURLOPT_HEADERFUNCTION, &HttpClient::readHeadersCb);
  curl_easy_setopt(handle, CURLOPT_HEADERDATA, &headers);
  curl_easy_setopt(handle, CURLOPT_NOPROGRESS, 0L);
  curl_easy_setopt(handle, CURLOPT_XFERINFOFUNCTION, &xferInfoAdapter);
  curl_easy_setopt(handle, CURLOPT_XFERINFODATA, &steps);
  // A package may take long on a slow link: only the low-speed limit applies.
  curl_easy_setopt(handle, CURLOPT_TIMEOUT, 0L);
  // Packages run to hundreds of megabytes. libcurl's 16 KiB default costs a
  // poll, a recv, a progress call and a file write per 16 KiB, which on a
  // fast link makes the client rather than the network the limit. The buffer
  // is allocated once per handle, so memory does not grow with the file.
  // Progress comes at most once per read, so on a fast link a file of a few
  // megabytes may step over a ten; real links deliver far smaller reads.
  curl_easy_setopt(handle, CURLOPT_BUFFERSIZE, kDownloadBufferSize);
  CURLcode rc = curl_easy_perform(handle);
  // The counter and the range live in this frame; a later get or head on the
  // same handle must not report progress into them or ask for a range.
  curl_easy_setopt(handle, CURLOPT_NOPROGRESS, 1L);
  curl_easy_setopt(handle, CURLOPT_XFERINFODATA, nullptr);
  curl_easy_setopt(handle, CURLOPT_RANGE, nullptr);
  curl_easy_setopt(handle, CURLOPT_HTTPHEADER, nullptr);
  // A body that runs past what the server announced is cut rather than
  // allowed to fill the disk; what was kept is a complete (if wrong-sized)
  // download for the caller's size check.
  if (rc == CURLE_WRITE_ERROR && target.overflowed()) rc = CURLE_OK;
  // An answer without a body still says whether the kept part stands.
  if (rc == CURLE_OK && !target.decided() && !target.decide()) rc = CURLE_WRITE_ERROR;
  if (!target.flush() && rc == CURLE_OK) rc = CURLE_WRITE_ERROR;
  if (landed != nullptr)
    *landed = landedOf(file, target, target.resumedFrom() > 0 ? asked.validator : validatorOf(headers));
  return finish(rc, url, kGetStatusFailure, file, target.resumedFrom() > 0);
}

size_t HttpClient::readResponsCb(void* data, size_t size, size_t nmemb, void* userp) {
  TextTarget target{static_cast<std::string*>(userp), kMaxTextBody};
  return appendText(data, size, nmemb, &target);
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
