// kx_fetch <url> <path>: one HttpClient::download, for measuring the client
// from outside (bench/http_vs_curl.sh). Exits 0 when the result is 0.
#include <iostream>
#include <map>
#include <string>

#include "HttpClient.h"

int main(int argc, char** argv) {
  if (argc != 3) {
    std::cerr << "usage: kx_fetch <url> <path>\n";
    return 2;
  }
  HttpClient client;
  std::map<std::string, std::string> headers;
  const int result = client.download(argv[1], argv[2], headers);
  if (result != 0) std::cerr << "kx_fetch: download returned " << result << '\n';
  return result == 0 ? 0 : 1;
}
