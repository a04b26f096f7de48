#include "TestServer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <mutex>
#include <set>
#include <stdexcept>
#include <thread>

namespace {

// A fresh key and certificate per server: nothing secret is ever written to
// disk or committed, and no two test runs share a key.
SSL_CTX* makeSelfSignedContext() {
  EVP_PKEY* key = EVP_EC_gen("P-256");
  X509* cert = X509_new();
  SSL_CTX* ctx = SSL_CTX_new(TLS_server_method());
  bool ok = key != nullptr && cert != nullptr && ctx != nullptr;
  if (ok) {
    X509_set_version(cert, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(cert), 1);
    X509_gmtime_adj(X509_getm_notBefore(cert), -3600);
    X509_gmtime_adj(X509_getm_notAfter(cert), 7 * 24 * 3600);
    X509_set_pubkey(cert, key);
    X509_NAME* name = X509_get_subject_name(cert);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>("127.0.0.1"), -1, -1,
                               0);
    X509_set_issuer_name(cert, name);
    ok = X509_sign(cert, key, EVP_sha256()) > 0 && SSL_CTX_use_certificate(ctx, cert) == 1 &&
         SSL_CTX_use_PrivateKey(ctx, key) == 1;
  }
  X509_free(cert);
  EVP_PKEY_free(key);
  if (!ok) {
    SSL_CTX_free(ctx);
    throw std::runtime_error("TestServer: cannot make a self-signed certificate");
  }
  return ctx;
}

void setCloseOnExec(int fd) { fcntl(fd, F_SETFD, FD_CLOEXEC); }

bool startsWithNoCase(const std::string& text, const std::string& prefix) {
  return text.size() >= prefix.size() && std::equal(prefix.begin(), prefix.end(), text.begin(), [](char a, char b) {
           return std::tolower(static_cast<unsigned char>(a)) == std::tolower(static_cast<unsigned char>(b));
         });
}

std::string trimmed(const std::string& text) {
  const size_t begin = text.find_first_not_of(" \t");
  if (begin == std::string::npos) return "";
  return text.substr(begin, text.find_last_not_of(" \t") + 1 - begin);
}

const char* reasonPhrase(int status) {
  switch (status) {
    case 200:
      return "OK";
    case 301:
      return "Moved Permanently";
    case 302:
      return "Found";
    case 307:
      return "Temporary Redirect";
    case 403:
      return "Forbidden";
    case 404:
      return "Not Found";
    case 500:
      return "Internal Server Error";
    default:
      return "Status";
  }
}

TestServer::Fault faultNamed(const std::string& name) {
  static const std::map<std::string, TestServer::Fault> names = {
      {"none", TestServer::Fault::None},       {"short-body", TestServer::Fault::ShortBody},
      {"reset", TestServer::Fault::Reset},     {"no-length", TestServer::Fault::NoLength},
      {"chunked", TestServer::Fault::Chunked}, {"drip", TestServer::Fault::Drip},
      {"endless", TestServer::Fault::Endless}, {"silent", TestServer::Fault::Silent}};
  const auto it = names.find(name);
  if (it == names.end()) throw std::invalid_argument("TestServer: unknown fault '" + name + "'");
  return it->second;
}

TestServer::Response responseFromJson(const nlohmann::json& entry) {
  TestServer::Response r;
  if (entry.contains("redirect")) r = TestServer::Response::redirect(entry.at("redirect").get<std::string>());
  r.status = entry.value("status", r.status);
  r.body = entry.value("body", "");
  for (const auto& line : entry.value("headers", std::vector<std::string>{})) r.headers.push_back(line);
  r.bodyFile = entry.value("body_file", "");
  r.fault = faultNamed(entry.value("fault", "none"));
  r.cut = entry.value("cut", size_t{0});
  r.pieces = std::max(1, entry.value("pieces", r.pieces));
  r.pause = std::chrono::milliseconds(entry.value("pause_ms", static_cast<int>(r.pause.count())));
  return r;
}

// One accepted connection, plain or TLS underneath.
class Connection {
 public:
  Connection(int fd, SSL_CTX* ctx) : _fd(fd) {
    if (ctx == nullptr) return;
    _ssl = SSL_new(ctx);
    SSL_set_fd(_ssl, fd);
  }
  ~Connection() {
    if (_ssl != nullptr) {
      if (!_reset && _handshaken) SSL_shutdown(_ssl);
      SSL_free(_ssl);
    }
    if (_reset) {
      // A zero linger turns the close into a RST instead of a FIN.
      linger hard{1, 0};
      setsockopt(_fd, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
    }
    ::close(_fd);
  }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  bool handshake() { return _ssl == nullptr || (_handshaken = SSL_accept(_ssl) == 1); }
  long read(char* buf, size_t n) {
    if (_ssl != nullptr) return SSL_read(_ssl, buf, static_cast<int>(n));
    long got;
    do {
      got = ::recv(_fd, buf, n, 0);
    } while (got < 0 && errno == EINTR);
    return got;
  }
  bool write(const char* data, size_t n) {
    while (n > 0) {
      long put = _ssl != nullptr ? SSL_write(_ssl, data, static_cast<int>(n)) : ::send(_fd, data, n, 0);
      if (put <= 0) {
        if (_ssl == nullptr && put < 0 && errno == EINTR) continue;
        return false;
      }
      data += put;
      n -= static_cast<size_t>(put);
    }
    return true;
  }
  bool write(const std::string& text) { return write(text.data(), text.size()); }
  void resetOnClose() { _reset = true; }

 private:
  int _fd;
  SSL* _ssl = nullptr;
  bool _handshaken = false;
  bool _reset = false;
};

// Where a response's body bytes come from: the text in the response, or a
// file read piece by piece.
class BodySource {
 public:
  explicit BodySource(const TestServer::Response& r) : _text(r.body), _bodyFromFile(!r.bodyFile.empty()) {
    if (r.bodyFile.empty()) {
      _length = _text.size();
      return;
    }
    _fd = ::open(r.bodyFile.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat st {};
    if (_fd >= 0 && fstat(_fd, &st) == 0) _length = static_cast<uint64_t>(st.st_size);
    _buffer.resize(1 << 20);
  }
  ~BodySource() {
    if (_fd >= 0) ::close(_fd);
  }
  BodySource(const BodySource&) = delete;
  BodySource& operator=(const BodySource&) = delete;

  // False when the response names a file that cannot be read.
  bool readable() const { return _fd >= 0 || !_bodyFromFile; }
  uint64_t length() const { return _length; }
  // Sends the bytes [from, to) of the body.
  bool send(Connection& conn, uint64_t from, uint64_t to) {
    if (_fd < 0) return conn.write(_text.data() + from, to - from);
    while (from < to) {
      const size_t want = static_cast<size_t>(std::min<uint64_t>(to - from, _buffer.size()));
      const long got = ::pread(_fd, _buffer.data(), want, static_cast<off_t>(from));
      if (got <= 0 || !conn.write(_buffer.data(), static_cast<size_t>(got))) return false;
      from += static_cast<uint64_t>(got);
    }
    return true;
  }

 private:
  const std::string& _text;
  bool _bodyFromFile;
  int _fd = -1;
  uint64_t _length = 0;
  std::vector<char> _buffer;
};

}  // namespace

TestServer::Response TestServer::Response::text(const std::string& body, int status, Fault fault) {
  Response r;
  r.status = status;
  r.body = body;
  r.fault = fault;
  return r;
}

TestServer::Response TestServer::Response::redirect(const std::string& location, int status) {
  Response r;
  r.status = status;
  r.headers.push_back("Location: " + location);
  return r;
}

struct TestServer::State {
  struct Route {
    std::vector<Response> responses;
    size_t next = 0;
  };

  bool tls = false;
  SSL_CTX* ctx = nullptr;
  int listenFd = -1;
  int wake[2] = {-1, -1};
  uint16_t port = 0;

  mutable std::mutex mutex;
  std::condition_variable stopSignal;
  std::atomic<bool> stopping{false};
  std::map<std::string, Route> routes;
  std::string root;
  bool strict = false;
  std::string requestLog;
  std::vector<Request> requests;
  std::set<int> openFds;
  // Connection threads by number; finished ones are joined at the next
  // accept, so a long-running server does not pile them up.
  std::map<int, std::thread> workers;
  std::vector<int> finished;
  int nextWorker = 0;
  std::thread acceptor;

  ~State() {
    for (int fd : {listenFd, wake[0], wake[1]}) {
      if (fd >= 0) ::close(fd);
    }
    SSL_CTX_free(ctx);
  }
  void acceptLoop();
  void serve(int fd, int worker);
  static bool readRequest(Connection& conn, std::string& pending, Request& req);
  Response answerFor(const Request& req);
  bool respond(Connection& conn, const Request& req, const Response& r);
  // Waits `pause` unless the server stops first; true when it stops.
  bool pauseOrStop(std::chrono::milliseconds pause) {
    std::unique_lock<std::mutex> lock(mutex);
    return stopSignal.wait_for(lock, pause, [this] { return stopping.load(); });
  }
};

TestServer::TestServer(bool tls) : _state(new State) {
  State& s = *_state;
  s.tls = tls;
  if (tls) s.ctx = makeSelfSignedContext();
  s.listenFd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof addr;
  if (s.listenFd < 0 || ::bind(s.listenFd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
      ::listen(s.listenFd, 64) != 0 || getsockname(s.listenFd, reinterpret_cast<sockaddr*>(&addr), &len) != 0 ||
      ::pipe(s.wake) != 0) {
    throw std::runtime_error(std::string("TestServer: cannot listen: ") + std::strerror(errno));
  }
  // Programs under test are spawned from the test process; they must not
  // hold the server's sockets open behind its back.
  setCloseOnExec(s.listenFd);
  setCloseOnExec(s.wake[0]);
  setCloseOnExec(s.wake[1]);
  s.port = ntohs(addr.sin_port);
  s.acceptor = std::thread([&s] { s.acceptLoop(); });
}

TestServer::~TestServer() {
  State& s = *_state;
  {
    std::lock_guard<std::mutex> lock(s.mutex);
    s.stopping = true;
    for (int fd : s.openFds) ::shutdown(fd, SHUT_RDWR);
  }
  s.stopSignal.notify_all();
  if (s.acceptor.joinable()) {
    const char wakeByte = 0;
    (void)!::write(s.wake[1], &wakeByte, 1);
    s.acceptor.join();
  }
  for (auto& w : s.workers) w.second.join();
}

uint16_t TestServer::port() const { return _state->port; }

std::string TestServer::url(const std::string& path) const {
  return std::string(_state->tls ? "https" : "http") + "://127.0.0.1:" + std::to_string(_state->port) + path;
}

void TestServer::on(const std::string& path, Response response) {
  on(path, std::vector<Response>{std::move(response)});
}

void TestServer::on(const std::string& path, std::vector<Response> responses) {
  if (responses.empty()) throw std::invalid_argument("TestServer: no response for " + path);
  std::lock_guard<std::mutex> lock(_state->mutex);
  _state->routes[path] = State::Route{std::move(responses), 0};
}

void TestServer::load(const nlohmann::json& scenario) {
  for (const auto& route : scenario.at("routes").items()) {
    std::vector<Response> responses;
    if (route.value().is_array()) {
      for (const auto& entry : route.value()) responses.push_back(responseFromJson(entry));
    } else {
      responses.push_back(responseFromJson(route.value()));
    }
    on(route.key(), std::move(responses));
  }
}

void TestServer::serveDirectory(const std::string& root) {
  std::lock_guard<std::mutex> lock(_state->mutex);
  _state->root = root;
}

void TestServer::failOnUnexpected(bool enabled) {
  std::lock_guard<std::mutex> lock(_state->mutex);
  _state->strict = enabled;
}

void TestServer::logRequestsTo(const std::string& path) {
  std::lock_guard<std::mutex> lock(_state->mutex);
  _state->requestLog = path;
}

std::vector<TestServer::Request> TestServer::requests() const {
  std::lock_guard<std::mutex> lock(_state->mutex);
  return _state->requests;
}

std::vector<std::string> TestServer::requestLines() const {
  std::vector<std::string> lines;
  for (const Request& r : requests()) lines.push_back(r.method + " " + r.target);
  return lines;
}

void TestServer::State::acceptLoop() {
  // Server threads take no signals: a write to a peer that has gone must
  // fail with EPIPE rather than kill the test, and the standalone program
  // waits for its stop signal on the main thread. Workers inherit this mask.
  sigset_t all;
  sigfillset(&all);
  pthread_sigmask(SIG_BLOCK, &all, nullptr);
  for (;;) {
    pollfd fds[2] = {{listenFd, POLLIN, 0}, {wake[0], POLLIN, 0}};
    if (::poll(fds, 2, -1) < 0) {
      if (errno == EINTR) continue;
      return;
    }
    if (fds[1].revents != 0) return;
    const int fd = ::accept(listenFd, nullptr, nullptr);
    if (fd < 0) continue;
    setCloseOnExec(fd);
    std::vector<std::thread> done;
    {
      std::lock_guard<std::mutex> lock(mutex);
      if (stopping) {
        ::close(fd);
        return;
      }
      for (int worker : finished) {
        done.push_back(std::move(workers[worker]));
        workers.erase(worker);
      }
      finished.clear();
      openFds.insert(fd);
      const int worker = nextWorker++;
      workers[worker] = std::thread([this, fd, worker] { serve(fd, worker); });
    }
    for (std::thread& t : done) t.join();
  }
}

void TestServer::State::serve(int fd, int worker) {
  {
    Connection conn(fd, ctx);
    if (conn.handshake()) {
      std::string pending;
      Request req;
      while (!stopping && readRequest(conn, pending, req)) {
        if (!respond(conn, req, answerFor(req))) break;
      }
    }
    // Forget the descriptor before it is closed, so that stopping never
    // shuts down a number the system has already handed out again.
    std::lock_guard<std::mutex> lock(mutex);
    openFds.erase(fd);
    finished.push_back(worker);
  }
}

bool TestServer::State::readRequest(Connection& conn, std::string& pending, Request& req) {
  char buf[8192];
  size_t end;
  while ((end = pending.find("\r\n\r\n")) == std::string::npos) {
    const long got = conn.read(buf, sizeof buf);
    if (got <= 0 || pending.size() > (1 << 16)) return false;
    pending.append(buf, static_cast<size_t>(got));
  }
  const std::string head = pending.substr(0, end);
  pending.erase(0, end + 4);

  req = Request{};
  size_t lineEnd = head.find("\r\n");
  const std::string requestLine = head.substr(0, lineEnd);
  const size_t sp1 = requestLine.find(' ');
  const size_t sp2 = requestLine.find(' ', sp1 + 1);
  if (sp1 == std::string::npos || sp2 == std::string::npos) return false;
  req.method = requestLine.substr(0, sp1);
  req.target = requestLine.substr(sp1 + 1, sp2 - sp1 - 1);
  while (lineEnd != std::string::npos) {
    const size_t start = lineEnd + 2;
    lineEnd = head.find("\r\n", start);
    const std::string line = head.substr(start, lineEnd == std::string::npos ? std::string::npos : lineEnd - start);
    const size_t colon = line.find(':');
    if (colon != std::string::npos) req.headers[trimmed(line.substr(0, colon))] = trimmed(line.substr(colon + 1));
  }
  return true;
}

TestServer::Response TestServer::State::answerFor(const Request& req) {
  const std::string path = req.target.substr(0, req.target.find('?'));
  std::unique_lock<std::mutex> lock(mutex);
  requests.push_back(req);
  if (!requestLog.empty()) std::ofstream(requestLog, std::ios::app) << req.method << ' ' << req.target << '\n';

  const auto route = routes.find(path);
  if (route != routes.end()) {
    Route& r = route->second;
    return r.responses[std::min(r.next++, r.responses.size() - 1)];
  }
  struct stat st {};
  if (!root.empty() && path.find("..") == std::string::npos && ::stat((root + path).c_str(), &st) == 0 &&
      S_ISREG(st.st_mode)) {
    Response file;
    file.bodyFile = root + path;
    return file;
  }
  const bool fail = strict;
  lock.unlock();
  if (fail) ADD_FAILURE() << "TestServer: unexpected request " << req.method << ' ' << req.target;
  Response missing;
  missing.status = 404;
  missing.body = "Not Found";
  return missing;
}

bool TestServer::State::respond(Connection& conn, const Request& req, const Response& r) {
  BodySource body(r);
  if (!body.readable()) {
    ADD_FAILURE() << "TestServer: cannot read " << r.bodyFile << " for " << req.target;
    return conn.write("HTTP/1.1 500 Internal Server Error\r\nContent-Length: 0\r\n\r\n");
  }
  if (r.fault == Fault::Silent) {
    // A peer that accepted and went quiet: only the server's end releases it.
    while (!pauseOrStop(std::chrono::hours(1))) {
    }
    return false;
  }
  const uint64_t length = body.length();
  const bool ownLength = std::any_of(r.headers.begin(), r.headers.end(),
                                     [](const std::string& h) { return startsWithNoCase(h, "content-length:"); });

  std::string out = "HTTP/1.1 " + std::to_string(r.status) + " " + reasonPhrase(r.status) + "\r\n";
  for (const std::string& h : r.headers) out += h + "\r\n";
  switch (r.fault) {
    case Fault::None:
    case Fault::ShortBody:
    case Fault::Reset:
    case Fault::Drip:
      if (!ownLength) out += "Content-Length: " + std::to_string(length) + "\r\n";
      break;
    case Fault::Chunked:
      out += "Transfer-Encoding: chunked\r\n";
      break;
    case Fault::Silent:  // answered above
      break;
    case Fault::NoLength:
    case Fault::Endless:
      // Only the close can end such a body; a HEAD answer has none.
      if (req.method != "HEAD") out += "Connection: close\r\n";
      break;
  }
  out += "\r\n";
  if (!conn.write(out)) return false;
  if (req.method == "HEAD") return true;

  const uint64_t cut = r.cut != 0 ? std::min<uint64_t>(r.cut, length) : length / 2;
  const int pieces = std::max(1, r.pieces);
  const auto pieceEnd = [&](int i) { return length * static_cast<uint64_t>(i) / static_cast<uint64_t>(pieces); };
  switch (r.fault) {
    case Fault::None:
      return body.send(conn, 0, length);
    case Fault::ShortBody:
      body.send(conn, 0, cut);
      return false;
    case Fault::Reset:
      body.send(conn, 0, cut);
      conn.resetOnClose();
      return false;
    case Fault::NoLength:
      body.send(conn, 0, length);
      return false;
    case Fault::Chunked:
      for (int i = 0; i < pieces; ++i) {
        const uint64_t from = pieceEnd(i);
        const uint64_t to = pieceEnd(i + 1);
        if (from == to) continue;  // an empty chunk would end the body early
        char size[32];
        std::snprintf(size, sizeof size, "%llx\r\n", static_cast<unsigned long long>(to - from));
        if (!conn.write(size) || !body.send(conn, from, to) || !conn.write("\r\n")) return false;
      }
      return conn.write("0\r\n\r\n");
    case Fault::Drip:
      for (int i = 0; i < pieces; ++i) {
        if (i > 0 && pauseOrStop(r.pause)) return false;
        if (!body.send(conn, pieceEnd(i), pieceEnd(i + 1))) return false;
      }
      return true;
    case Fault::Endless: {
      const std::string block(16384, 'x');
      while (!stopping && conn.write(block)) {
      }
      return false;
    }
    case Fault::Silent:  // answered above
      return false;
  }
  return false;
}
