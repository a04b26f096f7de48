#pragma once

#include <string>
#include <utility>

// What a step of an update run, or a whole run, came to: the run's result
// code (0 when it went through) and, when it did not, why, in words. Carried
// up as a value, so that whoever reads it (the run record, kx-publish check)
// needs neither the log nor the texts of exceptions.
struct Outcome {
  int code = 0;
  std::string reason;

  bool ok() const { return code == 0; }
  static Outcome failed(int code, std::string reason) { return Outcome{code, std::move(reason)}; }
};

// What a run's result code stands for, in the words of the documentation.
const char* resultMeaning(int code);
