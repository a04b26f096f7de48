#include "TargetOS.h"

#include "utils.h"

#ifndef KX_TARGET_OS_CODE
#error "KX_TARGET_OS_CODE must be set by the build (2: macOS, 3: Linux)"
#endif

namespace utils {

int getOS() { return KX_TARGET_OS_CODE; }

const char* configRoot() {
  return KX_TARGET_OS_CODE == Macosx ? "/Library/Application Support/KX/conf" : "/etc/opt/kx/conf";
}

const char* cacheRoot() { return KX_TARGET_OS_CODE == Macosx ? "/Library/Caches/KX/updater" : "/var/cache/kx-updater"; }

}  // namespace utils
