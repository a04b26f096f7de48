#pragma once

#include <cstddef>

// The release name from an os-release file: PRETTY_NAME, else NAME and
// VERSION_ID. False, with out untouched, when the file cannot be read or
// names neither.
bool osal_releaseNameFromOsRelease(const char* path, char* out, size_t size);
