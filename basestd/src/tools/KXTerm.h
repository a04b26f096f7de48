#pragma once

// Asked by long waits whether they must give up.
class KXTermIntf {
 public:
  virtual ~KXTermIntf() = default;
  virtual bool chkTerminate() = 0;
};

// Asks to give up once timeoutMs milliseconds have passed since construction
// or the last reset.
class TimeoutTerminator : public KXTermIntf {
 public:
  explicit TimeoutTerminator(unsigned long long timeoutMs);
  void reset(unsigned long long timeoutMs);
  bool chkTerminate() override;

 private:
  unsigned long long _startMs = 0;
  unsigned long long _timeoutMs = 0;
};
