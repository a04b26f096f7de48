#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

// OpenSSL's context and method types, declared only so that this header
// need not pull in the crypto headers; KXHash.cpp is the one file that uses
// them.
struct evp_md_ctx_st;
struct evp_md_st;

// Incremental MD5. Used by one thread at a time; the static members keep no
// state and may run on any thread.
class KXHashMD5 {
 public:
  // Opens the hash when the crypto library has MD5; otherwise the object
  // stays closed and every update throws.
  KXHashMD5();
  virtual ~KXHashMD5();
  KXHashMD5(const KXHashMD5&) = delete;
  KXHashMD5& operator=(const KXHashMD5&) = delete;

  // Starts a new hash; the only way to hash again after the digest was read.
  void reset() { _init(); }
  void _init();

  // Feeds len bytes. Throws KXException(1), after logging, when the hash is
  // closed or was never opened.
  void update(const void* data, unsigned int len);
  // Feeds the decimal digits of n least significant first, then a zero
  // byte: 120 goes in as "021\0". Stored hashes depend on this order.
  void updateWithNum(unsigned long long n);
  // Feeds s with its terminating zero.
  void updateWithStr(const unsigned char* s);

  // The three readers close the hash if it is open; reading twice gives the
  // same digest.
  void getBin(unsigned char* out16);
  // 32 upper-case hex characters and a zero.
  void getHex(unsigned char* out33);
  void _ends();

  // MD5 of a buffer; hi/lo (each optional) receive bytes 0..7 and 8..15 as
  // big-endian numbers.
  static void computeHash(const void* data, unsigned int len, unsigned char* out16, unsigned long long* hi,
                          unsigned long long* lo);
  static void hashToU64(const unsigned char* bin16, unsigned long long* hi, unsigned long long* lo);
  // MD5 of a whole file as upper-case hex. Reports nothing: a file that
  // cannot be read hashes as empty input, so callers that must tell a
  // missing file from an empty one check existence first.
  static void computeFileHexHash(const unsigned char* path, unsigned char* out33);
  // MD5 of s without its terminating zero, unlike updateWithStr.
  static void hexHashForStr(const unsigned char* s, unsigned char* out33);
  static void convertBinToHex(const unsigned char* bin16, unsigned char* out33);
  // True exactly when the 32 characters decode to 16 bytes.
  static bool convertHexToBin(const unsigned char* hex32, unsigned char* bin16);

 private:
  unsigned char _digest[16];
  evp_md_ctx_st* _ctx;
  const evp_md_st* _md;
  int32_t _state;
};

// Incremental SHA-256, for a download hashed while it lands. Used by one
// thread at a time.
class KXHashSHA256 {
 public:
  KXHashSHA256();
  ~KXHashSHA256();
  KXHashSHA256(const KXHashSHA256&) = delete;
  KXHashSHA256& operator=(const KXHashSHA256&) = delete;

  void update(const void* data, size_t len);
  // 64 lower-case hex digits of everything fed so far; the hash is then
  // closed, and later calls give the same text.
  std::string hex();

 private:
  evp_md_ctx_st* _ctx;
  std::string _hex;
};
