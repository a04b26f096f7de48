#pragma once

// Value types of the base library's tunables.
enum KXTunableType {
  KX_TUNABLE_TYPE_UNDEF = 0,
  KX_TUNABLE_TYPE_BOOL = 1,
  KX_TUNABLE_TYPE_U32 = 2,
  KX_TUNABLE_TYPE_U64 = 3,
  KX_TUNABLE_TYPE_STR = 4,
};
