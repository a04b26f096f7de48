#pragma once

#include <string>
#include <vector>

// The commands a run starts, with a shell or without.
namespace utils {

// Runs cmd through "sh -c" (sh looked up in PATH) and returns its exit code,
// the number of the signal that ended it, or -1 when no process was made.
// Only on exit code 0 are the output lines appended to output. The pipe is
// read after the child has ended, so the command's output must fit in the
// pipe buffer. Launch failures throw the process library's exception.
int exec(std::string& cmd, std::vector<std::string>& output);

// Runs cmd without a shell (split at blanks outside double quotes) and logs
// its standard output at NFY and its standard error at ERR. Never throws;
// returns the exit code as exec does, -1 on failure.
int execlog(std::string& cmd);

// Runs cmd through /bin/sh and returns the raw wait status, as system() does,
// but the command starts clean: /dev/null as standard input (nothing can
// wait for an answer from a terminal), default signal handling, and none of
// this process's descriptors beyond standard output and error. -1 when no
// process was made.
int runShell(const std::string& cmd);

// runShell without a shell: args[0] is looked up in PATH and the words are
// passed as they are, so no character in them means anything.
int runProgram(const std::vector<std::string>& args);

}  // namespace utils
