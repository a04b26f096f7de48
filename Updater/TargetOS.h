#pragma once

// What differs between the platform builds of the updater. Defined once per
// target in TargetOS.cpp, compiled with KX_TARGET_OS_CODE; everything else of
// the updater is the same code for every target.
namespace utils {

// Where the agent keeps its configuration values ("dbdir.cfg", ...): one
// directory per instance, "<root>" or "<root>.<instance>".
const char* configRoot();
// Where a signed install keeps its package when no database directory is
// configured (instance suffix as for the configuration directory).
const char* cacheRoot();

}  // namespace utils
