#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>

// Hands a byte stream from one thread to another in chunks, in order,
// through a fixed number of slots: the producer fills a slot while the
// consumer works on earlier ones, and waits while every slot is taken, so
// memory stays at slots x chunk size however long the stream is.
// One producer thread and one consumer thread.
class KXChunkRing {
 public:
  KXChunkRing(size_t chunkSize, unsigned slots);
  KXChunkRing(const KXChunkRing&) = delete;
  KXChunkRing& operator=(const KXChunkRing&) = delete;

  size_t chunkSize() const { return _chunkSize; }

  // Producer: the slot to fill next (chunkSize bytes), once the consumer
  // has let go of it.
  char* slotToFill();
  // Producer: the slot from slotToFill now holds length bytes.
  void publish(size_t length);
  // Producer: nothing follows what was published.
  void end();

  // Consumer: hands every published chunk to take(data, length), in order,
  // and returns once the producer has ended and all were taken.
  template <typename Take>
  void drain(Take take) {
    const char* data = nullptr;
    size_t length = 0;
    while (next(&data, &length)) {
      take(data, length);
      release();
    }
  }

 private:
  char* slot(uint64_t n) const { return _memory.get() + (n % _slots) * _chunkSize; }
  bool next(const char** data, size_t* length);
  void release();

  const size_t _chunkSize;
  const unsigned _slots;
  const std::unique_ptr<char[]> _memory;
  const std::unique_ptr<size_t[]> _lengths;
  std::mutex _mutex;
  std::condition_variable _changed;
  uint64_t _published = 0;  // chunks the producer has handed over
  uint64_t _released = 0;   // chunks the consumer is done with
  bool _ended = false;
};
