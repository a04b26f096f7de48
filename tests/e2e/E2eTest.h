#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <ostream>
#include <string>
#include <vector>

#include "E2eHarness.h"
#include "TestServer.h"

namespace e2e {

using Response = TestServer::Response;
using Fault = TestServer::Fault;
using Lines = std::vector<std::string>;

// Base of the end-to-end tests: a sandbox and a strict loopback server (a
// request the test did not publish an answer for fails the test).
class E2eTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "the update run needs root: run the end-to-end tests as root";
    if (hostArch().code == 0) GTEST_SKIP() << "the program knows no package layout for this processor";
    server.failOnUnexpected();
  }

  // The server's base address as the program takes it.
  std::string address(const std::string& suffix = "") const { return hex(server.url("") + suffix); }
  std::string url(const std::string& path) const { return server.url(path); }

  // A path the server answers with 404, as a missing file.
  void absent(const std::string& path) { server.on(path, Response::text("Not Found", 404)); }

  // A complete answer whose body is `body` whatever the size the test
  // announced elsewhere (HEAD), so that the transfer itself succeeds.
  static Response file(const std::string& body) { return Response::text(body); }

  bool lockExists() const { return access(box.lockFile().c_str(), F_OK) == 0; }
  std::string lockContent() const { return readFile(box.lockFile()); }
  void writeLock(const std::string& content) const { writeFile(box.lockFile(), content); }

  TestServer server;
  Sandbox box;
};

// expected occurs in actual in this order, with anything in between.
inline ::testing::AssertionResult inOrder(const Lines& actual, const Lines& expected) {
  size_t found = 0;
  for (const std::string& a : actual) {
    if (found < expected.size() && a == expected[found]) ++found;
  }
  if (found == expected.size()) return ::testing::AssertionSuccess();
  ::testing::AssertionResult failure = ::testing::AssertionFailure();
  failure << "\"" << expected[found] << "\" missing or out of order in:";
  for (const std::string& a : actual) failure << "\n  " << a;
  return failure;
}

// Messages of the log that start with prefix.
inline Lines messagesStartingWith(const Sandbox& box, const std::string& prefix) {
  Lines out;
  for (const std::string& m : box.messages()) {
    if (m.rfind(prefix, 0) == 0) out.push_back(m);
  }
  return out;
}

// The parameter records of the table tests all start with a `name`; gtest
// prints that instead of their bytes. In the unnamed namespace, where the
// test files keep their records, so that lookup through them finds it.
namespace {
template <typename Case>
auto operator<<(std::ostream& os, const Case& c) -> decltype(static_cast<const char*>(c.name), os) {
  return os << c.name;
}
}  // namespace

// Messages of the log at one level ("WRN", "ERR", ...).
inline Lines messagesAt(const Sandbox& box, const std::string& level) {
  Lines out;
  for (const LogLine& l : box.log()) {
    if (l.level == level) out.push_back(l.message);
  }
  return out;
}

}  // namespace e2e
