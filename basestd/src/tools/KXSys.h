#pragma once

#include <cstdint>

class KXTermIntf;

// Static helpers of the base library: time, sleeps and random numbers.
class KXSys {
 public:
  enum SleepResult { SleepDone = 0, SleepInterrupted = 1, SleepFailed = -1 };

  // Milliseconds since the epoch; 0 (logged) when the clock cannot be read.
  static unsigned long long timeMs();

  // Sleeps ms milliseconds in slices of at most one second, asking term (may
  // be null) before each slice, so a termination request is seen within a
  // second. reason is only logged. Returns a SleepResult.
  static int sleepMs(unsigned int ms, KXTermIntf* term, const char* reason);
  // As sleepMs, for s seconds.
  static int sleep(unsigned int s, KXTermIntf* term, const char* reason);

  // Seeds OpenSSL's generator once per process with the current time.
  static void _initRandom();
  // A random number from OpenSSL; 0 (logged) when the generator fails.
  static uint32_t KXRand();
};
