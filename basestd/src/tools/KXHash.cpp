#include "KXHash.h"

#include <openssl/evp.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <thread>

#include "KXChunkRing.h"
#include "KXException.h"
#include "KXLog.h"
#include "KXSys.h"

namespace {
constexpr int32_t kClosed = 0;
constexpr int32_t kOpen = 1;
constexpr unsigned int kDigestLen = 16;
constexpr unsigned int kHexLen = 2 * kDigestLen;
// Small enough for the hashing core to find a chunk still in its cache.
constexpr size_t kFileChunk = 128 << 10;
constexpr unsigned kFileSlots = 4;

const EVP_MD* md5Method() { return EVP_get_digestbyname("MD5"); }

void finishHex(EVP_MD_CTX* ctx, unsigned char* out33) {
  unsigned char bin[kDigestLen] = {};
  EVP_DigestFinal_ex(ctx, bin, nullptr);
  KXHashMD5::convertBinToHex(bin, out33);
}

uint64_t bigEndian64(const unsigned char* p) {
  uint64_t v = 0;
  for (int i = 0; i < 8; ++i) v = (v << 8) | p[i];
  return v;
}
}  // namespace

KXHashMD5::KXHashMD5() : _digest{}, _ctx(EVP_MD_CTX_new()), _md(md5Method()), _state(kClosed) {
  if (_md != nullptr) _init();
}

KXHashMD5::~KXHashMD5() { EVP_MD_CTX_free(_ctx); }

void KXHashMD5::_init() {
  EVP_DigestInit_ex(_ctx, _md, nullptr);
  _state = kOpen;
}

void KXHashMD5::update(const void* data, unsigned int len) {
  if (_state != kOpen) {
    KXLOG(KXLM_EXCP, KXLL_ERR,
          "NET: "
              << "Cannot update, bad state");
    throw KXException(1);
  }
  EVP_DigestUpdate(_ctx, data, len);
}

void KXHashMD5::updateWithNum(unsigned long long n) {
  // Least significant digit first; the do/while makes 0 feed one '0'.
  do {
    const unsigned char digit = static_cast<unsigned char>('0' + n % 10);
    update(&digit, 1);
    n /= 10;
  } while (n != 0);
  const unsigned char zero = 0;
  update(&zero, 1);
}

void KXHashMD5::updateWithStr(const unsigned char* s) {
  update(s, static_cast<unsigned int>(std::strlen(reinterpret_cast<const char*>(s)) + 1));
}

void KXHashMD5::_ends() {
  if (_state != kOpen) return;
  EVP_DigestFinal_ex(_ctx, _digest, nullptr);
  _state = kClosed;
}

void KXHashMD5::getBin(unsigned char* out16) {
  _ends();
  std::memcpy(out16, _digest, kDigestLen);
}

void KXHashMD5::getHex(unsigned char* out33) {
  _ends();
  convertBinToHex(_digest, out33);
}

void KXHashMD5::computeHash(const void* data, unsigned int len, unsigned char* out16, unsigned long long* hi,
                            unsigned long long* lo) {
  EVP_MD_CTX* ctx = EVP_MD_CTX_new();
  EVP_DigestInit_ex(ctx, md5Method(), nullptr);
  EVP_DigestUpdate(ctx, data, len);
  EVP_DigestFinal_ex(ctx, out16, nullptr);
  EVP_MD_CTX_free(ctx);
  hashToU64(out16, hi, lo);
}

void KXHashMD5::hashToU64(const unsigned char* bin16, unsigned long long* hi, unsigned long long* lo) {
  if (hi != nullptr) *hi = bigEndian64(bin16);
  if (lo != nullptr) *lo = bigEndian64(bin16 + 8);
}

void KXHashMD5::computeFileHexHash(const unsigned char* path, unsigned char* out33) {
  EVP_MD_CTX* ctx = EVP_MD_CTX_new();
  EVP_DigestInit_ex(ctx, md5Method(), nullptr);
  // A file that cannot be opened hashes as empty input.
  const int fd = ::open(reinterpret_cast<const char*>(path), O_RDONLY | O_CLOEXEC);
  if (fd >= 0) {
    // Copying a file out of the page cache costs about a tenth of what MD5
    // does; read a few chunks ahead on a second thread, the copy overlaps the
    // hashing instead of adding to it.
    KXChunkRing ring(kFileChunk, kFileSlots);
    std::thread reader([&ring, fd] {
      for (;;) {
        char* slot = ring.slotToFill();
        ssize_t got = 0;
        do {
          got = ::read(fd, slot, ring.chunkSize());
        } while (got < 0 && errno == EINTR);
        if (got <= 0) break;
        ring.publish(static_cast<size_t>(got));
      }
      ring.end();
    });
    ring.drain([ctx](const char* data, size_t length) { EVP_DigestUpdate(ctx, data, length); });
    reader.join();
    ::close(fd);
  }
  finishHex(ctx, out33);
  EVP_MD_CTX_free(ctx);
}

void KXHashMD5::hexHashForStr(const unsigned char* s, unsigned char* out33) {
  EVP_MD_CTX* ctx = EVP_MD_CTX_new();
  EVP_DigestInit_ex(ctx, md5Method(), nullptr);
  EVP_DigestUpdate(ctx, s, std::strlen(reinterpret_cast<const char*>(s)));
  finishHex(ctx, out33);
  EVP_MD_CTX_free(ctx);
}

void KXHashMD5::convertBinToHex(const unsigned char* bin16, unsigned char* out33) {
  KXSys::convertBinToHex(bin16, kDigestLen, out33, kHexLen, false);
  out33[kHexLen] = '\0';
}

bool KXHashMD5::convertHexToBin(const unsigned char* hex32, unsigned char* bin16) {
  return KXSys::convertHexToBin(hex32, kHexLen, bin16, kDigestLen) == kDigestLen;
}

KXHashSHA256::KXHashSHA256() : _ctx(EVP_MD_CTX_new()) { EVP_DigestInit_ex(_ctx, EVP_sha256(), nullptr); }

KXHashSHA256::~KXHashSHA256() { EVP_MD_CTX_free(_ctx); }

void KXHashSHA256::update(const void* data, size_t len) {
  if (_hex.empty()) EVP_DigestUpdate(_ctx, data, len);
}

std::string KXHashSHA256::hex() {
  if (!_hex.empty()) return _hex;
  static const char kHex[] = "0123456789abcdef";
  unsigned char bin[32] = {};
  EVP_DigestFinal_ex(_ctx, bin, nullptr);
  for (const unsigned char b : bin) {
    _hex += kHex[b >> 4];
    _hex += kHex[b & 0xf];
  }
  return _hex;
}
