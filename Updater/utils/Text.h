#pragma once

#include <cstddef>
#include <map>
#include <string>

// Text from and for the outside: server text made fit for a person or a JSON
// document, URLs and their parts, and the hex address of the command line.
namespace utils {

// Hex text, two digits per byte, to the text it encodes; stops at the first
// NUL byte. Input beyond 8192 digits is ignored; 4096 decoded bytes or more
// throw the converter's KXException.
std::string decodeURL(const std::string& hex);

// Size from the "content-length" or "Content-Length" header (no other
// spelling); -1 when neither is present. A non-numeric value throws.
int getContentLength(const std::map<std::string, std::string>& headers, unsigned long long& size);

// text with A-Z turned into a-z; the sums are compared in lower case.
std::string lowerCase(const std::string& text);

// Server text made fit for a person or a JSON document, the one rule for both:
// at most kLogTextMax bytes of it (then "..."), never cut inside a character,
// with control characters (C0, DEL and C1) and bytes that are not UTF-8
// escaped (\n, \r, \t, \xHH), so that one line can neither outgrow the log,
// be split into forged lines nor drive a terminal, and the result is valid
// UTF-8.
constexpr size_t kLogTextMax = 1024;
std::string logText(const std::string& text);

// logText of a URL, with a user name and password in it replaced by "***".
std::string logUrl(const std::string& url);

// Why a file name from the server cannot be a file of ours in the temporary
// directory, or "" when it can: empty, "." or "..", a "/" (it would land
// elsewhere), NUL or a control character. Blanks, tildes and quotes are
// ordinary: the command lines quote what needs it (ShellCommand).
std::string fileNameProblem(const std::string& name);

// name as one segment of a URL path: every byte but letters, digits and
// - . _ ~ ! $ & ' ( ) * + , ; = : @ percent-encoded, so that a blank, a "#"
// or a "%" in a file name reaches the server as part of the name.
std::string urlSegment(const std::string& name);

// The text a URL path stands for: every %XX decoded.
std::string urlDecoded(const std::string& path);

}  // namespace utils
