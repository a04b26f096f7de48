#pragma once

#include <cstdint>
#include <sstream>
#include <string>

#include "KXFileDefs.h"
#include "KXTunableType.h"

// An object that prints itself into a log message.
class KXStreamLoggerImpl {
 public:
  virtual ~KXStreamLoggerImpl() = default;
  virtual void print(std::ostringstream& os) const = 0;
};

// Lets a KXStreamLoggerImpl held by pointer be streamed; does not own it.
struct KXStreamLoggerAdapter {
  const KXStreamLoggerImpl* impl;
};

// A byte buffer to dump: mode 0 prints a hex/ASCII table of 16-byte rows,
// mode 1 one inline "0x..." run. Does not own the bytes.
class KXLogBlob : public KXStreamLoggerImpl {
 public:
  enum Mode { Table = 0, Inline = 1 };
  KXLogBlob(const unsigned char* data, uint64_t len, uint64_t offset = 0, int mode = Table)
      : _data(data), _len(len), _offset(offset), _mode(mode) {}
  void print(std::ostringstream& os) const override;

 private:
  const unsigned char* _data;
  uint64_t _len;
  uint64_t _offset;
  int _mode;
};

// A text shortened to its first `head` and last `tail` characters (both are
// taken modulo 2^16). Does not own the text.
class KXLogHStr : public KXStreamLoggerImpl {
 public:
  KXLogHStr(const char* text, uint32_t head, uint32_t tail) : _text(text), _head(head), _tail(tail) {}
  void print(std::ostringstream& os) const override;

 private:
  const char* _text;
  uint32_t _head;
  uint32_t _tail;
};

// count C strings printed with sep between them. Does not own anything.
template <class T>
struct KXLogTabl {
  const T* items;
  uint32_t count;
  const char* sep;
};

// The logger's one message stream. The operator<< family below fixes how
// every value type is printed; anything not listed does not compile rather
// than silently falling back to std::ostream's rules.
class KXStreamLogger : public std::ostringstream {
 public:
  enum Base { Oct = 0, Dec = 1, Hex = 2 };
  enum Spec { Endl = 0 };

  // Writes go to a buffer of our own, whose text a sink can read in place.
  KXStreamLogger() { std::ios::rdbuf(&_buf); }
  KXStreamLogger(const KXStreamLogger&) = delete;
  KXStreamLogger& operator=(const KXStreamLogger&) = delete;

  // The whole buffer, stale tail of longer earlier messages included.
  std::string str() const { return _buf.str(); }
  // The start of the buffer: a message that the logging statement ended with
  // its NUL reads as a C string from here, without a copy.
  const char* text() const { return _buf.begin(); }

  // Rewinds the write position without emptying the buffer: the text of an
  // earlier, longer message stays behind it. Messages therefore end with a
  // NUL that the sink stops at; the two go together. A buffer grown past
  // kKeptBuffer by the last message is released first.
  void clear();
  static constexpr size_t kKeptBuffer = size_t{64} * 1024;

  KXStreamLogger& operator<<(char c);
  KXStreamLogger& operator<<(unsigned char c);
  KXStreamLogger& operator<<(const char* s);
  KXStreamLogger& operator<<(char* s) { return *this << static_cast<const char*>(s); }
  KXStreamLogger& operator<<(const unsigned char* s) { return *this << reinterpret_cast<const char*>(s); }
  KXStreamLogger& operator<<(unsigned char* s) { return *this << reinterpret_cast<const char*>(s); }
  KXStreamLogger& operator<<(const std::string& s);
  KXStreamLogger& operator<<(bool b);
  KXStreamLogger& operator<<(const void* p);
  KXStreamLogger& operator<<(void* p) { return *this << static_cast<const void*>(p); }
  KXStreamLogger& operator<<(long long v) { return insert(v); }
  KXStreamLogger& operator<<(long v) { return insert(v); }
  KXStreamLogger& operator<<(int v) { return insert(v); }
  KXStreamLogger& operator<<(short v) { return insert(v); }
  KXStreamLogger& operator<<(unsigned long long v) { return insert(v); }
  KXStreamLogger& operator<<(unsigned long v) { return insert(v); }
  KXStreamLogger& operator<<(unsigned int v) { return insert(v); }
  KXStreamLogger& operator<<(unsigned short v) { return insert(v); }
  KXStreamLogger& operator<<(float v) { return insert(v); }
  KXStreamLogger& operator<<(double v) { return insert(v); }
  KXStreamLogger& operator<<(long double v) { return insert(v); }
  KXStreamLogger& operator<<(KXStreamLoggerAdapter a);
  KXStreamLogger& operator<<(const KXStreamLoggerImpl& obj);
  KXStreamLogger& operator<<(Base b);
  KXStreamLogger& operator<<(Spec s);
  KXStreamLogger& operator<<(const KXLogTabl<const unsigned char*>& t);
  KXStreamLogger& operator<<(KXFileType t);
  KXStreamLogger& operator<<(KXOpenMode m);
  KXStreamLogger& operator<<(KXTunableType t);

 private:
  class Buffer : public std::stringbuf {
   public:
    Buffer() : std::stringbuf(std::ios_base::out) {}
    const char* begin() const { return pbase() != nullptr ? pbase() : ""; }
  };

  Buffer _buf;

  template <class T>
  KXStreamLogger& insert(T v) {
    static_cast<std::ostream&>(*this) << v;
    return *this;
  }
};
