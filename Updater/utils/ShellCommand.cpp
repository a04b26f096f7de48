#include "utils/ShellCommand.h"

#include <algorithm>
#include <cstring>

#include "utils.h"

namespace utils {

namespace {

bool isControl(char c) {
  const auto u = static_cast<unsigned char>(c);
  return u < 0x20 || u == 0x7f;
}

void refuseControl(const std::string& text) {
  if (std::any_of(text.begin(), text.end(), isControl)) {
    throw ShellCommand::Refused("Refused command argument " + logText(text) + ": it holds a control character");
  }
}

// Characters sh takes literally anywhere in a word; "~" only after the
// first, where it cannot start a tilde expansion.
bool isBareChar(char c, bool first) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
         (c != '\0' && std::strchr("%+,-./:=@_", c) != nullptr) || (c == '~' && !first);
}

}  // namespace

std::string ShellCommand::bare(const std::string& text) {
  refuseControl(text);
  bool plain = !text.empty();
  for (size_t i = 0; plain && i < text.size(); ++i) plain = isBareChar(text[i], i == 0);
  if (plain) return text;
  std::string out = "'";
  for (const char c : text) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return out + "'";
}

std::string ShellCommand::doubleQuoted(const std::string& text) {
  refuseControl(text);
  std::string out = "\"";
  for (const char c : text) {
    if (std::strchr("$`\"\\", c) != nullptr) out += '\\';
    out += c;
  }
  return out + "\"";
}

ShellCommand& ShellCommand::add(const std::string& word, const std::string& rendered) {
  _words.push_back(word);
  if (!_text.empty()) _text += ' ';
  _text += rendered;
  return *this;
}

ShellCommand& ShellCommand::word(const std::string& fixed) { return add(fixed, fixed); }

ShellCommand& ShellCommand::arg(const std::string& text) { return add(text, bare(text)); }

ShellCommand& ShellCommand::quoted(const std::string& text) { return add(text, doubleQuoted(text)); }

}  // namespace utils
