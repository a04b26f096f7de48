#pragma once

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "CaptureLogCb.h"
#include "HttpClient.h"
#include "TestServer.h"

using Headers = std::map<std::string, std::string>;
using Response = TestServer::Response;
using Fault = TestServer::Fault;

// Per test: a server that fails the test on any request it has no answer
// for, a captured log, and a fresh client with its output arguments.
class HttpTest : public ::testing::Test {
 protected:
  HttpTest() { server.failOnUnexpected(); }

  TestServer server;
  ScopedLogCapture log;
  HttpClient client;
  std::string body;
  Headers headers;
};

// libcurl's error texts change between its versions; the code before them
// does not, so that is matched exactly and the text only for being there.
inline void expectTransferFailure(const std::vector<std::string>& messages, const std::string& url, int code) {
  ASSERT_EQ(messages.size(), 1u);
  const std::string prefix = "Request " + url + " failed : [" + std::to_string(code) + "] -> ";
  EXPECT_EQ(messages[0].substr(0, prefix.size()), prefix);
  EXPECT_GT(messages[0].size(), prefix.size()) << "no libcurl error text";
}
