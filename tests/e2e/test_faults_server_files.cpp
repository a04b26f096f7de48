// What the server publishes goes wrong: error statuses, error pages served
// as if they were the file, cut connections, and odd contents of the sum and
// version files. A failure before the package is verified never stops the
// agent; the lock is freed only after result 2.
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <string>
#include <utility>
#include <vector>

#include "FaultTest.h"
#include "utils.h"

namespace e2e {
namespace {

const char kErrorPage[] =
    "<!DOCTYPE html>\n<html><head><title>Error</title></head>\n<body>Service unavailable</body></html>\n";

// The package names the macOS probe tries, in order.
Lines macCandidates() {
  const std::string arch = hostArch().code == 1 ? "x64" : "ARM64";
  return {"setup.pkg", "setup.dmg", "Tova_" + arch + ".pkg", "Tova_" + arch + ".dmg", "Quillmap.dmg"};
}

Response errorPage(int status) { return Response::text(kErrorPage, status); }

Response reset() {
  Response r = Response::text(std::string(4000, 'x'), 200, Fault::Reset);
  r.cut = 10;
  return r;
}

// Replaces {base} with the server's address and {dir} with the package's
// server directory.
std::string expand(std::string text, const std::string& base, const std::string& dir) {
  for (const auto& kv : {std::make_pair(std::string("{base}"), base), std::make_pair(std::string("{dir}"), dir)}) {
    for (size_t at; (at = text.find(kv.first)) != std::string::npos;) text.replace(at, kv.first.size(), kv.second);
  }
  return text;
}

// The message that decided the run: the last one, or the one before the
// lock's removal.
std::string decisive(const Lines& messages) {
  if (messages.empty()) return "";
  if (messages.back() == "Remove lock file" && messages.size() > 1) return messages[messages.size() - 2];
  return messages.back();
}

struct Outcome {
  int status;
  std::string last;    // the decisive message, with {base} and {dir}
  std::string logged;  // a message that starts so is logged too; empty: none
  int downloads;       // GETs of the package
  bool installed;      // the whole update ran
};

enum class File { Definition, Version, Hash, Package, PackageAfterItsSize };

struct ServerFileCase {
  const char* name;
  Target target;
  File file;
  Response answer;
  Outcome outcome;
};

class ServerFile : public FaultTest, public ::testing::WithParamInterface<ServerFileCase> {
 protected:
  void SetUp() override {
    FaultTest::SetUp();
    target = GetParam().target;
  }

  // On macOS a missing package sends the probe through every candidate name
  // and the run on to the directory itself.
  void packageAnswers(const Response& answer) {
    onPackage({answer});
    if (target == Target::Linux || answer.status == 200) return;
    Lines names = macCandidates();
    names.push_back("");
    names.push_back(".md5");
    for (const std::string& name : names) server.on(dir() + "/" + name, answer);
  }
};

TEST_P(ServerFile, FailsAsItsResultSays) {
  const ServerFileCase& c = GetParam();
  publish();
  switch (c.file) {
    case File::Definition:
      server.on("/agent_setup_def.json", c.answer);
      break;
    case File::Version:
      onVersion(c.answer);
      break;
    case File::Hash:
      server.on(hashPath(), c.answer);
      break;
    case File::Package:
      packageAnswers(c.answer);
      break;
    case File::PackageAfterItsSize:
      onPackage({Response::text(package), c.answer});
      break;
  }
  const RunResult r = update();
  ASSERT_EQ(r.status, c.outcome.status) << r;
  const Lines messages = box.messages();
  const std::string base = server.url("");
  EXPECT_EQ(decisive(messages), expand(c.outcome.last, base, dir()));
  if (!c.outcome.logged.empty()) {
    EXPECT_FALSE(messagesStartingWith(box, expand(c.outcome.logged, base, dir())).empty()) << c.outcome.logged;
  }
  const Lines lines = server.requestLines();
  EXPECT_EQ(std::count(lines.begin(), lines.end(), "GET " + packagePath()), c.outcome.downloads);
  EXPECT_EQ(box.calls(), c.outcome.installed ? updateCalls() : Lines{});
  EXPECT_TRUE(restartedAfterEveryStop(box.calls()));
  EXPECT_EQ(lockExists(), c.outcome.status != 2) << "only result 2 frees the lock here";
  if (c.file == File::PackageAfterItsSize) {
    EXPECT_EQ(readFile(setupFile()), c.answer.body) << "the error page is left where the package was to be";
  }
  if (c.outcome.status == 7) {
    EXPECT_NE(access(setupFile().c_str(), F_OK), 0) << "a file with the wrong sum is deleted";
  }
}

Outcome done(const std::string& logged) { return {0, "Agent Update done", logged, 1, true}; }
const Outcome kUnparsableDefinition{11, "Exception : Fail to parse agent_setup_def file", "Parsing error : ", 0, false};
const Outcome kProbeFailed{11, "Exception : Failed to get any correct setup paths", "", 0, false};
const Outcome kErrorPageAsVersion{5, "Invalid version_long.txt " + utils::logText(kErrorPage), "", 0, false};
const Outcome kErrorPageAsSum{7, "Invalid setup md5", "Downloaded md5 is <!DOCTYPE", 3, false};
const Outcome kErrorPageAsPackage{7, "Invalid setup md5",
                                  "Re-download setup file because current one has a wrong hash: ", 3, false};
const Outcome kPackageGone{2, "'Fail to download setup file: [404]", "Request {base}{dir}/setup.", 1, false};

std::vector<ServerFileCase> serverFileCases() {
  const char* const legacy = "Failed to get agent setup definition file - use legacy definition";
  std::vector<ServerFileCase> cases;
  for (Target t : {Target::Linux, Target::Mac}) {
    const bool onLinux = t == Target::Linux;
    const auto add = [&](const char* name, File f, Response answer, Outcome o) {
      cases.push_back({name, t, f, std::move(answer), std::move(o)});
    };
    add("DefinitionMissing", File::Definition, errorPage(404), done(legacy));
    add("DefinitionServerError", File::Definition, errorPage(500),
        done("Request {base}/agent_setup_def.json failed : [500]"));
    add("DefinitionErrorPage", File::Definition, errorPage(200), kUnparsableDefinition);
    add("DefinitionReset", File::Definition, reset(), done(legacy));
    add("VersionMissing", File::Version, errorPage(404),
        onLinux ? Outcome{2, "Failed to download version:  [404]", "", 0, false} : kProbeFailed);
    add("VersionServerError", File::Version, errorPage(500),
        onLinux ? Outcome{2, "Failed to download version:  [500]", "", 0, false} : kProbeFailed);
    add("VersionErrorPage", File::Version, errorPage(200), kErrorPageAsVersion);
    add("VersionReset", File::Version, reset(),
        onLinux ? Outcome{2, "Failed to download version:  [-1]", "", 0, false} : kProbeFailed);
    add("HashMissing", File::Hash, errorPage(404), done("No file signature available (skip verification): [404]"));
    add("HashServerError", File::Hash, errorPage(500), done("No file signature available (skip verification): [500]"));
    add("HashErrorPage", File::Hash, errorPage(200), kErrorPageAsSum);
    add("HashReset", File::Hash, reset(), done("No file signature available (skip verification): [-1]"));
    // Without any package the macOS probe still reports its directory, and
    // the run asks for the directory itself.
    add("PackageMissing", File::Package, errorPage(404),
        {2,
         onLinux ? "Fail to get HEAD for {base}{dir}/setup.deb: [404 ]" : "Fail to get HEAD for {base}{dir}/: [404 ]",
         "", 0, false});
    add("PackageServerError", File::Package, errorPage(500),
        {2,
         onLinux ? "Fail to get HEAD for {base}{dir}/setup.deb: [500 ]" : "Fail to get HEAD for {base}{dir}/: [500 ]",
         "", 0, false});
    add("PackageErrorPage", File::Package, errorPage(200), kErrorPageAsPackage);
    add("PackageGoneAfterItsSize", File::PackageAfterItsSize, errorPage(404), kPackageGone);
  }
  return cases;
}

std::string serverFileName(const ::testing::TestParamInfo<ServerFileCase>& info) {
  return std::string(info.param.target == Target::Linux ? "Linux" : "Mac") + info.param.name;
}

INSTANTIATE_TEST_SUITE_P(Fault, ServerFile, ::testing::ValuesIn(serverFileCases()), serverFileName);

// Without a package, a macOS server that answers for the directory itself
// (an index page) gets as far as the download, whose target is then the
// temporary directory: the download cannot open it and the run ends with 2.
class MacProbeFault : public FaultTest {
 protected:
  void SetUp() override {
    FaultTest::SetUp();
    target = Target::Mac;
  }
};

TEST_F(MacProbeFault, DirectoryIndexInsteadOfAPackage) {
  publish();
  for (const std::string& name : macCandidates()) absent(dir() + "/" + name);
  absent(dir() + "/.md5");
  const std::string index = "<html><body>Index of " + dir() + "</body></html>";
  server.on(dir() + "/", Response::text(index));
  const RunResult r = update();
  ASSERT_EQ(r.status, 2) << r;
  EXPECT_TRUE(box.logged("setup path  = " + box.dir()));
  EXPECT_TRUE(box.logged("install cmd = installer -target / -pkg "));
  EXPECT_TRUE(inOrder(box.messages(),
                      {"File size for " + server.url(dir() + "/") + " is " + std::to_string(index.size()) + " bytes",
                       "'Fail to download setup file: [-1]", "Remove lock file"}));
  EXPECT_TRUE(box.calls().empty());
}

// ---- the sum file ------------------------------------------------------------------

// The expected sum is the text before the first blank; without a blank there
// is none and the size alone decides.
struct HashCase {
  const char* name;
  bool linuxToo;  // also on Linux (the others are covered there)
  std::string (*body)(const std::string& md5);
  int status;
  // The sum announced as "Downloaded md5 is " + sum; "-" for no such line.
  std::string (*announced)(const std::string& md5);
  bool verified;  // "Computed md5 is " logged
};

class HashFile : public FaultTest, public ::testing::WithParamInterface<std::pair<HashCase, Target>> {};

TEST_P(HashFile, DecidesWhetherAndHowTheDownloadIsChecked) {
  const HashCase& c = GetParam().first;
  target = GetParam().second;
  publish();
  server.on(hashPath(), Response::text(c.body(packageMd5)));
  const RunResult r = update();
  ASSERT_EQ(r.status, c.status) << r;
  const Lines announced = messagesStartingWith(box, "Downloaded md5 is ");
  const std::string sum = c.announced(packageMd5);
  if (sum == "-") {
    EXPECT_TRUE(announced.empty());
  } else {
    EXPECT_EQ(announced, Lines{"Downloaded md5 is " + sum});
  }
  EXPECT_EQ(box.logged("Computed md5 is " + packageMd5), c.verified);
  const Lines lines = server.requestLines();
  if (c.status == 0) {
    EXPECT_EQ(lines, requests(1));
    EXPECT_EQ(box.calls(), updateCalls());
    EXPECT_TRUE(readFile(setupFile()) == package);
  } else {
    EXPECT_EQ(lines, requests(3));
    EXPECT_EQ(box.messages().back(), "Invalid setup md5");
    EXPECT_TRUE(box.calls().empty());
  }
}

std::string upper(const std::string& m) {
  std::string s = m;
  for (char& ch : s) ch = static_cast<char>(std::toupper(static_cast<unsigned char>(ch)));
  return s;
}

std::string same(const std::string& m) { return m; }
std::string none(const std::string&) { return "-"; }

const HashCase kHashCases[] = {
    {"TwoBlanksBeforeTheName", false, [](const std::string& m) { return m + "  setup.x\n"; }, 0, same, true},
    {"WindowsLineEnd", true, [](const std::string& m) { return m + " setup.x\r\n"; }, 0, same, true},
    {"Empty", false, [](const std::string&) { return std::string(); }, 0, none, false},
    {"SumAlone", true, [](const std::string& m) { return m + "\n"; }, 0, none, false},
    {"TabBeforeTheName", true, [](const std::string& m) { return m + "\tsetup.x\n"; }, 0, none, false},
    // A blank in front gives an empty sum, which switches the check off.
    {"LeadingBlank", true, [](const std::string& m) { return " " + m + "  setup.x\n"; }, 0,
     [](const std::string&) { return std::string(); }, false},
    {"UpperCase", false, [](const std::string& m) { return upper(m) + "  setup.x\n"; }, 7, upper, false},
    {"NotHex", true, [](const std::string&) { return std::string(32, 'z') + "  setup.x\n"; }, 7,
     [](const std::string&) { return std::string(32, 'z'); }, false},
};

std::vector<std::pair<HashCase, Target>> hashCases() {
  std::vector<std::pair<HashCase, Target>> out;
  for (const HashCase& c : kHashCases) {
    if (c.linuxToo) out.emplace_back(c, Target::Linux);
    out.emplace_back(c, Target::Mac);
  }
  return out;
}

std::string hashCaseName(const ::testing::TestParamInfo<std::pair<HashCase, Target>>& info) {
  return std::string(info.param.second == Target::Linux ? "Linux" : "Mac") + info.param.first.name;
}

INSTANTIATE_TEST_SUITE_P(Fault, HashFile, ::testing::ValuesIn(hashCases()), hashCaseName);

// ---- the version file ---------------------------------------------------------------

struct VersionCase {
  const char* name;
  bool linuxToo;
  std::string published;
  int status;
  bool updates;
};

class VersionFile : public FaultTest, public ::testing::WithParamInterface<std::pair<VersionCase, Target>> {};

TEST_P(VersionFile, DecidesWhetherToUpdate) {
  const VersionCase& c = GetParam().first;
  target = GetParam().second;
  publish(c.published);
  const RunResult r = update("7.2.0.1");
  ASSERT_EQ(r.status, c.status) << r;
  if (c.updates) {
    EXPECT_EQ(server.requestLines(), requests(1));
    EXPECT_EQ(box.calls(), updateCalls());
    EXPECT_EQ(box.messages().back(), "Agent Update done");
  } else {
    Lines expected = upToDateRequests();
    // An empty body is no version to the probe: the run asks again.
    if (target == Target::Mac && c.published.empty()) expected.push_back("GET " + versionPath());
    EXPECT_EQ(server.requestLines(), expected);
    EXPECT_TRUE(box.calls().empty());
    EXPECT_EQ(box.messages().back(), c.status == 0 ? "Current version is up to date. Nothing to do"
                                                   : "Invalid version_long.txt " + utils::logText(c.published));
  }
  EXPECT_TRUE(lockExists());
}

const VersionCase kVersionCases[] = {
    {"Older", true, "7.2.0.0\n", 0, false},
    {"Equal", false, "7.2.0.1", 0, false},
    {"FarFuture", false, "2147483647.2147483647.2147483647.2147483647", 0, true},
    {"Empty", false, "", 5, false},
    {"Binary", false, "\x89PNG\x1a\xff\xfe\x01", 5, false},
    {"LongAfterTheVersion", true, "7.3.0.0\n" + std::string(64 * 1024, 'n'), 0, true},
    {"LongWithoutAVersion", true, std::string(64 * 1024, 'n'), 5, false},
};

std::vector<std::pair<VersionCase, Target>> versionCases() {
  std::vector<std::pair<VersionCase, Target>> out;
  for (const VersionCase& c : kVersionCases) {
    if (c.linuxToo) out.emplace_back(c, Target::Linux);
    out.emplace_back(c, Target::Mac);
  }
  return out;
}

std::string versionCaseName(const ::testing::TestParamInfo<std::pair<VersionCase, Target>>& info) {
  return std::string(info.param.second == Target::Linux ? "Linux" : "Mac") + info.param.first.name;
}

INSTANTIATE_TEST_SUITE_P(Fault, VersionFile, ::testing::ValuesIn(versionCases()), versionCaseName);

}  // namespace
}  // namespace e2e
