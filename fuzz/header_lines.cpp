// The header callback that libcurl calls once per response header line. The
// input is cut after each line feed into lines, delivered one by one into one
// map (as the responses of a redirect chain are), and then whole as a single
// call into a fresh map. The first byte picks how size and nmemb split each
// length, since only their product may matter.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "FuzzSupport.h"
#include "HttpClient.h"
#include "KXLog.h"

namespace {

using fuzz::require;

using Headers = std::map<std::string, std::string>;

bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r'; }

std::string trim(const std::string& s) {
  size_t b = 0, e = s.size();
  while (b < e && isBlank(s[b])) ++b;
  while (e > b && isBlank(s[e - 1])) --e;
  return s.substr(b, e - b);
}

// Delivers one line and checks what it did to the map against what it held.
void deliver(const std::string& line, bool bytesAsItems, Headers& headers) {
  if (line.empty()) return;  // libcurl never calls with nothing
  const Headers before = headers;
  // A copy of exactly the line's length, so that a read past it is seen.
  std::vector<char> bytes(line.begin(), line.end());
  const size_t size = bytesAsItems ? 1 : bytes.size();
  const size_t nmemb = bytesAsItems ? bytes.size() : 1;
  const size_t taken = HttpClient::readHeadersCb(bytes.data(), size, nmemb, &headers);
  require(taken == bytes.size(), "the whole line is always taken");

  const size_t colon = line.find(':');
  if (colon == std::string::npos) {
    require(headers == before, "a line without ':' adds nothing");
    return;
  }
  const std::string key = trim(line.substr(0, colon));
  const std::string value = trim(line.substr(colon + 1));
  Headers expected = before;
  expected[key] = value;  // the last value for a key wins
  require(headers == expected, "a line sets its trimmed key to its trimmed value, and nothing else");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::silenceLogger();
  if (size < 1) return 0;

  const bool bytesAsItems = (data[0] & 1) != 0;
  const std::string input(reinterpret_cast<const char*>(data) + 1, size - 1);

  Headers chain;
  for (size_t from = 0; from < input.size();) {
    const size_t nl = input.find('\n', from);
    const size_t end = nl == std::string::npos ? input.size() : nl + 1;
    deliver(input.substr(from, end - from), bytesAsItems, chain);
    from = end;
  }

  Headers single;
  deliver(input, !bytesAsItems, single);
  return 0;
}
