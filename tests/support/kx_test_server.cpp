// kx_test_server: the loopback test server as a program of its own, for
// scripts and for tests that want the server outside their process.
//
//   kx_test_server [--tls] [--root DIR] [--scenario FILE.json]
//                  [--requests FILE] [--port-file FILE]
//
// Listens on 127.0.0.1 with an ephemeral port and prints that port as the
// first line of standard output; --port-file gets it too, written whole or not
// at all. Paths are answered from the scenario (format: TestServer::load),
// then from files below --root, else 404. --requests gets one
// "METHOD target" line per request as it arrives. Serves until SIGTERM,
// SIGINT or SIGHUP.
#include <signal.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <string>

#include "TestServer.h"

namespace {

int usage() {
  std::cerr << "usage: kx_test_server [--tls] [--root DIR] [--scenario FILE] [--requests FILE] [--port-file FILE]\n";
  return 2;
}

void writePortFile(const std::string& path, uint16_t port) {
  const std::string partial = path + ".partial";
  std::ofstream(partial) << port << '\n';
  if (std::rename(partial.c_str(), path.c_str()) != 0) throw std::runtime_error("cannot write " + path);
}

}  // namespace

int main(int argc, char** argv) {
  // Blocked before any server thread exists, so that only sigwait sees them.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  for (int sig : {SIGTERM, SIGINT, SIGHUP}) sigaddset(&stopSignals, sig);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

  bool tls = false;
  std::string root, scenario, requests, portFile;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--tls") {
      tls = true;
      continue;
    }
    if (i + 1 >= argc) return usage();
    if (arg == "--root") {
      root = argv[++i];
    } else if (arg == "--scenario") {
      scenario = argv[++i];
    } else if (arg == "--requests") {
      requests = argv[++i];
    } else if (arg == "--port-file") {
      portFile = argv[++i];
    } else {
      return usage();
    }
  }

  try {
    TestServer server(tls);
    if (!root.empty()) server.serveDirectory(root);
    if (!scenario.empty()) {
      std::ifstream in(scenario);
      if (!in) throw std::runtime_error("cannot read " + scenario);
      server.load(nlohmann::json::parse(in));
    }
    if (!requests.empty()) server.logRequestsTo(requests);
    if (!portFile.empty()) writePortFile(portFile, server.port());
    std::cout << server.port() << std::endl;
    int sig = 0;
    sigwait(&stopSignals, &sig);
  } catch (const std::exception& e) {
    std::cerr << "kx_test_server: " << e.what() << '\n';
    return 1;
  }
  return 0;
}
