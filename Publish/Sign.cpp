// kx-publish keygen, and the signed release that layout --sign writes.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <boost/filesystem.hpp>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iostream>
#include <limits>
#include <sstream>
#include <stdexcept>

#include "KXHash.h"
#include "Manifest.h"
#include "Publish.h"
#include "utils.h"

namespace fs = boost::filesystem;

namespace publish {

namespace {

// Created for this key alone: never over an existing file, never readable by
// others.
void writeNew(const std::string& path, const std::string& text, mode_t mode) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
  if (fd < 0) throw std::runtime_error("cannot create " + path + " (it may exist already)");
  const bool written = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  if (close(fd) != 0 || !written) throw std::runtime_error("cannot write " + path);
}

std::string fileSha256(const std::string& path) {
  std::string sum = utils::computeSha256(path);
  if (sum.empty()) throw std::runtime_error("cannot read " + path);
  return sum;
}

// A word as a shell reads it back: quoted unless it is plain.
std::string shellWord(const std::string& word) {
  if (!word.empty() &&
      word.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789+,-./:=@_") ==
          std::string::npos) {
    return word;
  }
  std::string quoted = "'";
  for (const char c : word) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

}  // namespace

std::string readText(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + path);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

release::Verified ownRelease(const std::string& dir, const std::string& pem) {
  const fs::path manifest = fs::path(dir) / "release.json";
  const fs::path signature = fs::path(dir) / "release.json.minisig";
  release::Verified none;
  if (!fs::is_regular_file(manifest) || !fs::is_regular_file(signature)) {
    none.reason = "there is no release.json with its release.json.minisig";
    return none;
  }
  if (fs::file_size(manifest) > release::kMaxManifest || fs::file_size(signature) > release::kMaxSignature) {
    none.reason = "it is larger than any release";
    return none;
  }
  std::vector<release::PublicKey> own;
  release::parsePublicKeys(release::publicKeyFile(pem, ""), own);
  // Expired still counts: the agents that accepted it hold its serial and
  // would refuse a lower one.
  return release::verifyRelease(readText(manifest.string()), readText(signature.string()), own,
                                std::numeric_limits<int64_t>::min(), 0);
}

int keygen(const std::vector<std::string>& args) {
  if (args.size() != 1) return usage("keygen needs the file to write the private key to");
  const std::string pubPath = args[0] + ".pub";
  // Both names free before either is written: half a pair would make the
  // next attempt fail for ever.
  for (const std::string& path : {args[0], pubPath}) {
    struct stat st {};
    if (lstat(path.c_str(), &st) == 0)
      throw std::runtime_error(path + ": it exists already, and keygen replaces no key");
  }
  const std::string pem = release::generatePrivateKeyPem();
  const std::string pub = release::publicKeyFile(pem, "kx-publish public key");
  writeNew(args[0], pem, 0600);
  try {
    writeNew(pubPath, pub, 0644);
  } catch (const std::runtime_error&) {
    unlink(args[0].c_str());  // taken meanwhile: no private key without its public one
    throw;
  }
  std::vector<release::PublicKey> keys;
  release::parsePublicKeys(pub, keys);
  std::cout << "key " << release::keyIdText(keys.at(0).id) << ": private " << args[0] << ", public " << pubPath << "\n";
  return 0;
}

Signer prepareSigning(const std::string& outDir, const std::string& keyPath) {
  struct stat st {};
  if (stat(keyPath.c_str(), &st) != 0) throw std::runtime_error("--sign " + keyPath + ": " + std::strerror(errno));
  if ((st.st_mode & (S_IRGRP | S_IROTH)) != 0) {
    throw std::runtime_error("--sign " + keyPath + ": the private key is readable by others: chmod 600 " +
                             shellWord(keyPath));
  }
  Signer signer;
  try {
    signer.pem = readText(keyPath);
    release::publicKeyFile(signer.pem, "");  // a key that cannot sign is found out here
  } catch (const std::runtime_error& e) {
    throw std::runtime_error("--sign " + keyPath + ": " + e.what());
  }
  signer.now = static_cast<int64_t>(std::time(nullptr));
  // Agents refuse a serial below the last they accepted. The signing time
  // keeps a release laid out in a fresh directory above the one it replaces;
  // one above the release already here keeps a second signing within the
  // same second, or after the clock went back, above the first.
  // Nothing is taken from a release that anyone could have put there.
  const release::Verified own = ownRelease(outDir, signer.pem);
  const int64_t existing = own.ok ? own.release.serial : 0;
  if (existing == std::numeric_limits<int64_t>::max()) {
    throw std::runtime_error((fs::path(outDir) / "release.json").string() + ": serial " + std::to_string(existing) +
                             " is the last there is, no release can follow it");
  }
  signer.serial = std::max(existing + 1, signer.now);
  return signer;
}

void writeRelease(const std::string& outDir, const Signer& signer, release::Release r) {
  r.serial = signer.serial;
  const std::string text = release::writeManifest(r);
  const std::string comment =
      "timestamp:" + std::to_string(signer.now) + "\tfile:release.json\tserial:" + std::to_string(r.serial);
  const std::string signature = release::signFile(text, signer.pem, comment);
  // Both complete before either replaces the served one: a tree being
  // served is re-signed in place by rollout and revoke.
  const std::pair<const char*, std::string> files[] = {{"release.json", text}, {"release.json.minisig", signature}};
  for (const auto& [name, content] : files) {
    std::ofstream out((fs::path(outDir) / (std::string(name) + ".new")).string(), std::ios::binary | std::ios::trunc);
    if (!(out << content) || !out.flush()) throw std::runtime_error(std::string("cannot write ") + name);
  }
  for (const auto& file : files) {
    const fs::path to = fs::path(outDir) / file.first;
    fs::rename(to.string() + ".new", to);
  }
  std::cout << "release: serial " << r.serial << ", expires " << release::utcText(r.expires) << ", "
            << r.packages.size() << " package(s)\n";
}

void signRelease(const std::string& outDir, const Signer& signer, int days, const std::vector<SignedFile>& files,
                 const Policy& policy) {
  release::Release r;
  r.expires = signer.now + int64_t{days} * 86400;
  for (const SignedFile& f : files) {
    release::Entry e;
    e.path = f.path;
    e.version = f.version;
    e.size = fs::file_size(f.source);
    e.sha256 = fileSha256(f.source);
    e.os = f.os;
    e.arch = f.arch;
    e.kind = f.kind;
    e.rollout = policy.rollout;
    e.healthSeconds = policy.healthSeconds;
    r.packages.push_back(e);
  }
  writeRelease(outDir, signer, r);
}

}  // namespace publish
