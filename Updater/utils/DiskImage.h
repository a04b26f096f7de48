#pragma once

#include <string>
#include <vector>

// Disk images: attached, searched for their package, detached.
namespace utils {

// Attaches the disk image and finds the device and the package path
// ("<volume>/<packageName>.pkg") in hdiutil's output. Returns 0, hdiutil's
// non-zero exit code, or -1 (no device or volume found, or an exception).
// The image stays attached when -1 follows a successful attach, except when
// the device or the volume's path cannot go into a command line at all (a
// control character: they come from inside the served image): the image is
// then detached again, without a shell, and -1 returned.
int mountAndGetPkgPath(const std::string& packageName, const std::string& imagePath, std::string& device,
                       std::string& pkgPath);

// The device ("/dev/" field) and package path ("/Volumes/" field) in
// hdiutil attach's output: fields are split at tabs only and trimmed, and the
// last match of each wins. 0 when both were found, else -1.
int parseAttachOutput(const std::vector<std::string>& lines, const std::string& packageName, std::string& device,
                      std::string& pkgPath);

// Detaches; returns system()'s raw status.
int unmount(const std::string& device);

}  // namespace utils
