// kx-publish keygen, and the signed release that layout --sign writes.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <ctime>
#include <fstream>
#include <iostream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <stdexcept>

#include "KXHash.h"
#include "Manifest.h"
#include "Publish.h"
#include "utils.h"

namespace fs = boost::filesystem;

namespace publish {

namespace {

constexpr size_t kChunk = 1 << 20;

// Created for this key alone: never over an existing file, never readable by
// others.
void writeNew(const std::string& path, const std::string& text, mode_t mode) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
  if (fd < 0) throw std::runtime_error("cannot create " + path + " (it may exist already)");
  const bool written = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  if (close(fd) != 0 || !written) throw std::runtime_error("cannot write " + path);
}

std::string fileSha256(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  KXHashSHA256 hash;
  std::string chunk(kChunk, '\0');
  while (in.read(&chunk[0], static_cast<std::streamsize>(chunk.size())) || in.gcount() > 0) {
    hash.update(chunk.data(), static_cast<size_t>(in.gcount()));
  }
  if (in.bad()) throw std::runtime_error("cannot read " + path);
  return hash.hex();
}

}  // namespace

std::string readText(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + path);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

int keygen(const std::vector<std::string>& args) {
  if (args.size() != 1) return usage("keygen needs the file to write the private key to");
  const std::string pem = release::generatePrivateKeyPem();
  const std::string pub = release::publicKeyFile(pem, "kx-publish public key");
  writeNew(args[0], pem, 0600);
  writeNew(args[0] + ".pub", pub, 0644);
  std::vector<release::PublicKey> keys;
  release::parsePublicKeys(pub, keys);
  std::cout << "key " << release::keyIdText(keys.at(0).id) << ": private " << args[0] << ", public " << args[0]
            << ".pub\n";
  return 0;
}

void signRelease(const std::string& outDir, const std::string& keyPath, int days,
                 const std::vector<SignedFile>& files) {
  const std::string pem = readText(keyPath);
  release::Release r;
  // The next serial after the one already there, so that agents take it.
  const fs::path manifest = fs::path(outDir) / "release.json";
  if (fs::exists(manifest)) r.serial = nlohmann::json::parse(readText(manifest.string())).at("serial").get<int64_t>();
  ++r.serial;
  const int64_t now = static_cast<int64_t>(std::time(nullptr));
  r.expires = now + int64_t{days} * 86400;
  for (const SignedFile& f : files) {
    r.packages.push_back({f.path, f.version, fs::file_size(f.source), fileSha256(f.source), f.os, f.arch, f.kind});
  }
  const std::string text = release::writeManifest(r);
  const std::string comment =
      "timestamp:" + std::to_string(now) + "\tfile:release.json\tserial:" + std::to_string(r.serial);
  const std::string signature = release::signFile(text, pem, comment);
  for (const auto& [name, content] :
       {std::make_pair("release.json", text), std::make_pair("release.json.minisig", signature)}) {
    std::ofstream out((fs::path(outDir) / name).string(), std::ios::binary | std::ios::trunc);
    if (!(out << content) || !out.flush()) throw std::runtime_error(std::string("cannot write ") + name);
  }
  std::cout << "release: serial " << r.serial << ", expires " << release::utcText(r.expires) << ", "
            << r.packages.size() << " package(s)\n";
}

}  // namespace publish
