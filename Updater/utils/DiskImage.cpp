// Disk images: attached with hdiutil, the device and the package found in
// its output, detached again.
#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>
#include <boost/algorithm/string/trim.hpp>
#include <exception>

#include "KXLog.h"
#include "utils.h"
#include "utils/ShellCommand.h"

namespace utils {

int parseAttachOutput(const std::vector<std::string>& lines, const std::string& packageName, std::string& device,
                      std::string& pkgPath) {
  for (const std::string& line : lines) {
    std::vector<std::string> fields;
    boost::algorithm::split(fields, line, boost::algorithm::is_any_of("\t"));
    for (const std::string& field : fields) {
      // hdiutil pads its columns with blanks; a volume name may hold blanks
      // too, so fields are split at tabs only.
      if (field.find("/dev/") != std::string::npos) {
        device = boost::algorithm::trim_copy(field);
        KXLOG(KXLM_ROOT, KXLL_DBG, "Mounted device is " << device);
      }
      if (field.find("/Volumes/") != std::string::npos) {
        pkgPath = boost::algorithm::trim_copy(field) + "/" + packageName + ".pkg";
        KXLOG(KXLM_ROOT, KXLL_DBG, "PKG path is " << pkgPath);
      }
    }
  }
  return device.empty() || pkgPath.empty() ? -1 : 0;
}

int mountAndGetPkgPath(const std::string& packageName, const std::string& imagePath, std::string& device,
                       std::string& pkgPath) {
  try {
    std::string cmd = ShellCommand("hdiutil").word("attach").arg(imagePath).word("-nobrowse").text();
    std::vector<std::string> lines;
    const int r = exec(cmd, lines);
    if (r != 0) return r;
    const int found = parseAttachOutput(lines, packageName, device, pkgPath);
    if (found != 0) return found;
    // The device and the volume's name come from inside the served image and
    // go into the detach and installer lines: see that they can, now, while
    // the image can still be detached without a shell.
    try {
      (void)ShellCommand::bare(device);
      (void)ShellCommand::doubleQuoted(pkgPath);
      return 0;
    } catch (const ShellCommand::Refused& e) {
      KXLOG(KXLM_ROOT, KXLL_ERR, "mountAndGetPkgPath Error: " << e.what());
      runProgram({"hdiutil", "detach", device});
      device.clear();
      pkgPath.clear();
      return -1;
    }
  } catch (const std::exception& e) {
    KXLOG(KXLM_ROOT, KXLL_ERR, "mountAndGetPkgPath Error: " << logText(e.what()));
    return -1;
  }
}

int unmount(const std::string& device) {
  try {
    return runShell(ShellCommand("hdiutil").word("detach").arg(device).text());
  } catch (const ShellCommand::Refused&) {
    // Checked when the image was attached; a device that cannot be written
    // into the line is detached without a shell.
    return runProgram({"hdiutil", "detach", device});
  }
}

}  // namespace utils
