#include "osal_time.h"

#include <errno.h>
#include <sys/time.h>

#include "KXLog.h"

int osal_getMs(unsigned long long* ms) {
  struct timeval tv {};
  if (gettimeofday(&tv, nullptr) != 0) {
    KXLOG(KXLM_OSAL, KXLL_ERR, "Cannot get time of day (" << errno << ")");
    return -1;
  }
  if (tv.tv_sec < 0 || tv.tv_usec < 0 || tv.tv_usec >= 1000000) {
    KXLOG(KXLM_OSAL, KXLL_ERR,
          "Incoherent values (tv_sec = " << static_cast<long long>(tv.tv_sec)
                                         << ", tv_usec = " << static_cast<long long>(tv.tv_usec) << ")");
    return -1;
  }
  *ms = static_cast<unsigned long long>(tv.tv_sec) * 1000ULL + static_cast<unsigned long long>(tv.tv_usec) / 1000ULL;
  return 0;
}
