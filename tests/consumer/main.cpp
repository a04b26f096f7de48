#include <cstdio>

#include "KXHash.h"
#include "KXLog.h"

int main() {
  KXLOG(KXLM_ROOT, KXLL_ERR, "consumer of kx::base " << 1);
  unsigned char hex[33];
  KXHashMD5::hexHashForStr(reinterpret_cast<const unsigned char*>("abc"), hex);
  std::printf("%s\n", reinterpret_cast<char*>(hex));
}
