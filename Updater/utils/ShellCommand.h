#pragma once

#include <stdexcept>
#include <string>
#include <vector>

namespace utils {

// A command line for /bin/sh kept as its words until it is written out, so
// that the one text it renders is both what the log shows and what the shell
// runs. Each word carries the quoting of its position:
//  - fixed words of our own (programs, options) are written as they are;
//  - a text from outside in a bare position (the package path after
//    "dpkg -i", a device after "hdiutil detach") stays bare when the shell
//    would read it as one plain word, and is single-quoted otherwise, so the
//    ordinary lines keep their exact text while a blank or a "$" cannot
//    split or expand anything;
//  - a text in double quotes (the installer's package path) gets "$", "`",
//    "\"" and "\\" escaped with a backslash, the only characters that keep a
//    meaning there.
// Control characters and NUL have no place in any of them (they would split
// the log line or the command), and are refused.
class ShellCommand {
 public:
  // What the words cannot hold; the message names the text and the reason.
  class Refused : public std::runtime_error {
   public:
    using std::runtime_error::runtime_error;
  };

  ShellCommand() = default;
  explicit ShellCommand(const std::string& program) { word(program); }

  ShellCommand& word(const std::string& fixed);
  // Throw Refused for a text with a control character or NUL.
  ShellCommand& arg(const std::string& text);
  ShellCommand& quoted(const std::string& text);

  // The line, words joined by one blank.
  const std::string& text() const { return _text; }
  // The words as given, unquoted: the same command run without a shell.
  const std::vector<std::string>& words() const { return _words; }

  // The quoting of one position, for a line that is completed later (the
  // installer line of a disk image gets its package path once the image is
  // attached). Throw Refused as arg and quoted do.
  static std::string bare(const std::string& text);
  static std::string doubleQuoted(const std::string& text);

 private:
  ShellCommand& add(const std::string& word, const std::string& rendered);

  std::vector<std::string> _words;
  std::string _text;
};

}  // namespace utils
