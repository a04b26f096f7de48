#pragma once

namespace utils {

// Operating-system code of the update flow this build follows: 2 (macOS) or
// 3 (Linux). Chosen at configure time by KX_TARGET_OS; the host's own probes
// (uname, thread ids) are independent of it.
constexpr int kTargetOS = KX_TARGET_OS_CODE;

}  // namespace utils
