#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

// A scripted HTTP/1.1 server on 127.0.0.1 for tests, plain or TLS (with a
// self-signed certificate made at start-up). It answers each path from a
// scenario, records every request in arrival order, and can break the
// protocol on purpose. Keep-alive is supported; request bodies are not (the
// clients under test never send one).
//
//   TestServer server;                       // listening on an ephemeral port
//   server.failOnUnexpected();               // unknown paths fail the test
//   server.on("/version_long.txt", TestServer::Response::text("5.1.0.2"));
//   server.on("/pkg", TestServer::Response::redirect("/pkg2"));
//   server.on("/loop", TestServer::Response::redirect("/loop"));  // a loop
//   client.get(server.url("/version_long.txt"), body, headers);
//   EXPECT_EQ(server.requestLines(), (std::vector<std::string>{"GET /version_long.txt"}));
//
// Requests are served on the server's own threads, so the code under test may
// run in this process or in a child process. kx_test_server wraps the same
// class as a program for scripts (see kx_test_server.cpp).
class TestServer {
 public:
  // Deliberate protocol breakage of a response's body.
  enum class Fault {
    None,
    ShortBody,  // announces the whole length, sends `cut` bytes, closes
    Reset,      // announces the whole length, sends `cut` bytes, resets the connection
    NoLength,   // no Content-Length: a HEAD says nothing of the size, a body ends at close
    Chunked,    // chunked coding in `pieces` chunks, no Content-Length
    Drip,       // announces the length, sends the body in `pieces` writes `pause` apart
    Endless,    // no Content-Length and body bytes until the client goes away
    Silent,     // reads the request, then answers nothing until the server stops
  };

  struct Response {
    int status = 200;
    // Raw header lines ("Key: value"), sent as they are and in this order. A
    // Content-Length among them replaces the one the server would add.
    std::vector<std::string> headers;
    std::string body;
    // When set, the body is streamed from this file instead (never held whole
    // in memory, so it can be large).
    std::string bodyFile;
    Fault fault = Fault::None;
    size_t cut = 0;                      // ShortBody, Reset: bytes sent before failing; 0 means half
    int pieces = 10;                     // Chunked, Drip
    std::chrono::milliseconds pause{5};  // Drip

    static Response text(const std::string& body, int status = 200, Fault fault = Fault::None);
    static Response redirect(const std::string& location, int status = 302);
  };

  struct Request {
    std::string method;
    std::string target;                          // as sent: path and query
    std::map<std::string, std::string> headers;  // keys as sent
  };

  // Starts listening on 127.0.0.1 with an ephemeral port and serving at once.
  explicit TestServer(bool tls = false);
  // Stops serving, cutting open connections, and joins every thread.
  ~TestServer();
  TestServer(const TestServer&) = delete;
  TestServer& operator=(const TestServer&) = delete;

  uint16_t port() const;
  // "http://127.0.0.1:<port>" (or https) followed by `path`.
  std::string url(const std::string& path = "/") const;

  // Every method on `path` (the query is ignored for matching) gets `response`;
  // replaces what the path had.
  void on(const std::string& path, Response response);
  // Successive requests on `path` get successive responses; the last repeats.
  void on(const std::string& path, std::vector<Response> responses);
  // Adds the routes of a scenario:
  //   {"routes": {"/a": {"status": 404, "body": "...", "headers": ["K: v"],
  //                      "body_file": "/x", "redirect": "/b", "fault": "short-body",
  //                      "cut": 10, "pieces": 4, "pause_ms": 5},
  //               "/b": [ {...}, {...} ]}}
  // Faults: "none", "short-body", "reset", "no-length", "chunked", "drip",
  // "endless", "silent". Throws std::invalid_argument on anything else.
  void load(const nlohmann::json& scenario);
  // Paths without a route are looked up as files below `root`.
  void serveDirectory(const std::string& root);
  // A request that matches neither a route nor a file is answered 404 and,
  // from now on, also fails the running test.
  void failOnUnexpected(bool enabled = true);
  // Appends "METHOD target" per request to `path` as it arrives, for readers
  // in other processes.
  void logRequestsTo(const std::string& path);

  std::vector<Request> requests() const;
  // "METHOD target" per request, in arrival order.
  std::vector<std::string> requestLines() const;

 private:
  struct State;
  std::unique_ptr<State> _state;
};
