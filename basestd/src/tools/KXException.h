#pragma once

// The base library's exception: one integer code and nothing else. It does
// not derive from std::exception on purpose: code that catches standard
// exceptions to turn them into a result must not swallow these.
class KXException {
 public:
  explicit KXException(int code) noexcept : _code(code) {}
  int getCode() const noexcept { return _code; }

 private:
  int _code;
};
