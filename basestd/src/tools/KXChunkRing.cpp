#include "KXChunkRing.h"

KXChunkRing::KXChunkRing(size_t chunkSize, unsigned slots)
    : _chunkSize(chunkSize), _slots(slots), _memory(new char[chunkSize * slots]), _lengths(new size_t[slots]) {}

char* KXChunkRing::slotToFill() {
  std::unique_lock<std::mutex> lock(_mutex);
  _changed.wait(lock, [this] { return _published - _released < _slots; });
  return slot(_published);
}

void KXChunkRing::publish(size_t length) {
  {
    const std::lock_guard<std::mutex> lock(_mutex);
    _lengths[_published % _slots] = length;
    ++_published;
  }
  // Two parties, never both waiting: one would need every slot taken, the
  // other none.
  _changed.notify_one();
}

void KXChunkRing::end() {
  {
    const std::lock_guard<std::mutex> lock(_mutex);
    _ended = true;
  }
  _changed.notify_one();
}

bool KXChunkRing::next(const char** data, size_t* length) {
  std::unique_lock<std::mutex> lock(_mutex);
  _changed.wait(lock, [this] { return _published > _released || _ended; });
  if (_published == _released) return false;
  *data = slot(_released);
  *length = _lengths[_released % _slots];
  return true;
}

void KXChunkRing::release() {
  {
    const std::lock_guard<std::mutex> lock(_mutex);
    ++_released;
  }
  _changed.notify_one();
}
