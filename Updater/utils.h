#pragma once

// The small stateless helpers of the updater, by concern.
#include "utils/DiskImage.h"
#include "utils/Exec.h"
#include "utils/Files.h"
#include "utils/Platform.h"
#include "utils/Text.h"
