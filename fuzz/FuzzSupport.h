#pragma once

#include <cstdio>
#include <cstdlib>

#include "KXLog.h"

namespace fuzz {

// Ends the run as a finding when an invariant does not hold; the text says
// which one.
inline void require(bool ok, const char* invariant) {
  if (ok) return;
  std::fprintf(stderr, "broken invariant: %s\n", invariant);
  std::abort();
}

// The logger's default sink prints every line; a target that does not look
// at the lines switches it off once, so fuzzing is not paced by output.
inline void silenceLogger() {
  static const bool silenced = [] {
    KXLog::getLogger()->setLogCb(nullptr);
    return true;
  }();
  (void)silenced;
}

}  // namespace fuzz
