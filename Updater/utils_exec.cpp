// The one place that starts child processes through Boost.Process.
#include <boost/filesystem/path.hpp>
#include <boost/process.hpp>
#include <boost/process/posix.hpp>
#include <exception>
#include <istream>
#include <string>
#include <vector>

#include "KXLog.h"
#include "utils.h"

namespace bp = boost::process;

namespace utils {

int exec(std::string& cmd, std::vector<std::string>& output) {
  bp::ipstream out;
  const std::vector<std::string> args{"-c", cmd};
  const boost::filesystem::path sh = bp::search_path("sh", boost::this_process::path());
  bp::child child(sh, bp::args(args), bp::std_out > out, bp::posix::sig.dfl());
  if (!child.valid()) return -1;
  child.wait();
  const int code = child.exit_code();
  if (code != 0) return code;
  // Read only now that the child has ended: hdiutil's few lines fit in the
  // pipe buffer, and a failed command's partial output is never used.
  std::string line;
  while (std::getline(out, line)) output.push_back(line);
  return 0;
}

int execlog(std::string& cmd) {
  try {
    bp::ipstream out;
    bp::ipstream err;
    bp::child child(cmd, bp::std_out > out, bp::std_err > err, bp::posix::sig.dfl());
    int code = -1;
    if (child.valid()) {
      child.wait();
      code = child.exit_code();
    }
    KXLOG(KXLM_ROOT, KXLL_NFY, "exec : " << cmd);
    std::string line;
    while (std::getline(out, line)) KXLOG(KXLM_ROOT, KXLL_NFY, line);
    while (std::getline(err, line)) KXLOG(KXLM_ROOT, KXLL_ERR, line);
    return code;
  } catch (const std::exception& e) {
    KXLOG(KXLM_ROOT, KXLL_ERR, e.what());
    return -1;
  }
}

}  // namespace utils
