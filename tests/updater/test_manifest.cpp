// The primitives under signed releases, by known answers; what a release
// refuses is shown end to end in tests/e2e/release.cases.
#include <gtest/gtest.h>

#include "KXHash.h"
#include "Manifest.h"

namespace {

std::string unhex(const std::string& hex) {
  std::string out;
  for (size_t i = 0; i + 1 < hex.size(); i += 2) out += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
  return out;
}

const auto* bytes(const std::string& s) { return reinterpret_cast<const unsigned char*>(s.data()); }

// RFC 8032, section 7.1: tests 1 to 3 (seed, public key, message, signature).
TEST(Release, Ed25519MatchesRfc8032) {
  const struct {
    const char *seed, *pub, *msg, *sig;
  } kVectors[] = {
      {"9d61b19deffd5a60ba844af492ec2cc44449c5697b326919703bac031cae7f60",
       "d75a980182b10ab7d54bfed3c964073a0ee172f3daa62325af021a68f707511a", "",
       "e5564300c360ac729086e2cc806e828a84877f1eb8e5d974d873e065224901555fb8821590a33bacc61e39701cf9b46bd25bf5f0595bbe2"
       "4655141438e7a100b"},
      {"4ccd089b28ff96da9db6c346ec114e0f5b8a319f35aba624da8cf6ed4fb8a6fb",
       "3d4017c3e843895a92b70aa74d1b7ebc9c982ccf2ec4968cc0cd55f12af4660c", "72",
       "92a009a9f0d4cab8720e820b5f642540a2b27b5416503f8fb3762223ebdb69da085ac1e43e15996e458f3613d0f11d8c387b2eaeb4302ae"
       "eb00d291612bb0c00"},
      {"c5aa8df43f9f837bedb7442f31dcb7b166d38535076f094b85ce3a2e0b4458f7",
       "fc51cd8e6218a1a38da47ed00230f0580816ed13ba3303ac5deb911548908025", "af82",
       "6291d657deec24024827e69c3abe01a30ce548a284743a445e3680d7db5ac3ac18ff9b538d16f290ae67f760984dc6594a7c15e9716ed28"
       "dc027beceea1ec40a"},
  };
  for (const auto& v : kVectors) {
    const std::string seed = unhex(v.seed), pub = unhex(v.pub), msg = unhex(v.msg), sig = unhex(v.sig);
    const auto made = release::ed25519Sign(bytes(seed), msg);
    EXPECT_EQ(std::string(made.begin(), made.end()), sig) << v.seed;
    EXPECT_TRUE(release::ed25519Verify(bytes(pub), msg, bytes(sig))) << v.seed;
    std::string flipped = sig;
    flipped[5] = static_cast<char>(flipped[5] ^ 1);
    EXPECT_FALSE(release::ed25519Verify(bytes(pub), msg, bytes(flipped))) << v.seed;
    EXPECT_FALSE(release::ed25519Verify(bytes(pub), msg + "x", bytes(sig))) << v.seed;
  }
}

TEST(Release, DigestsAndTimesByKnownAnswers) {
  EXPECT_EQ(release::sha256Hex("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  EXPECT_EQ(release::blake2b512Hex("abc"),
            "ba80a53f981c4d0d6a2797b69f12f6e94c212f14685ac4b74b12bb6fdbffa2d1"
            "7d87c5392aab792dc252d5de4533cc9518d38aa8dbf1925ab92386edd4009923");
  // A key id as people see it: the 8 stored bytes read as a little-endian number.
  EXPECT_EQ(release::keyIdText({0x01, 0x23, 0x45, 0x67, 0x89, 0xab, 0xcd, 0xef}), "EFCDAB8967452301");
  KXHashSHA256 pieces;  // as a download feeds it, chunk by chunk
  pieces.update("a", 1), pieces.update("bc", 2);
  EXPECT_EQ(pieces.hex(), release::sha256Hex("abc"));

  const struct {
    const char* text;
    int64_t seconds;  // -1: refused
  } kTimes[] = {{"2026-01-01T00:00:00Z", 1767225600},
                {"2026-02-28T23:59:59.250Z", 1772323199},
                {"1970-01-01T00:00:00Z", 0},
                {"2026-01-01T00:00:00+01:00", -1},
                {"2026-13-01T00:00:00Z", -1},
                {"2026-01-01 00:00:00Z", -1},
                {"2026-01-01T24:00:00Z", -1},
                {"2026-01-01T00:00:00", -1},
                {"2026-01-01T00:60:00Z", -1},
                {"2026-01-01T00:00:61Z", -1},
                // Fractions up to a text of 40 characters, no longer.
                {"2026-01-01T00:00:00.0000000000000000000Z", 1767225600},
                {"2026-01-01T00:00:00.00000000000000000000Z", -1}};
  for (const auto& t : kTimes) {
    int64_t got = -1;
    EXPECT_EQ(release::parseUtc(t.text, got), t.seconds >= 0) << t.text;
    if (t.seconds < 0) continue;
    EXPECT_EQ(got, t.seconds) << t.text;
    EXPECT_EQ(release::utcText(t.seconds), std::string(t.text).substr(0, 19) + "Z");
  }
}

// Buckets computed apart (python3 hashlib); the share and next stage at and
// around each stage's time, and paused.
TEST(Release, RolloutSharesAndBuckets) {
  EXPECT_EQ(release::bucketOf("0123456789abcdef0123456789abcdef", "7.3.0.0"), 5319);
  EXPECT_EQ(release::bucketOf("0123456789abcdef0123456789abcdef", "7.4.0.0"), 7463);
  EXPECT_EQ(release::bucketOf("ffffffffffffffffffffffffffffffff", "7.3.0.0"), 3697);
  EXPECT_EQ(release::bucketOf("00000000000000000000000000000000", "10.0.0.1"), 9564);
  release::Rollout r{{{100, 500}, {200, 2500}, {300, 10000}}, false};
  const struct {
    int64_t now;
    int share;
    int64_t next;  // -1: none
  } kTimes[] = {{99, 0, 100}, {100, 500, 200}, {199, 500, 200}, {200, 2500, 300}, {300, 10000, -1}};
  for (const auto& t : kTimes) {
    EXPECT_EQ(release::shareInForce(r, t.now), t.share) << t.now;
    EXPECT_EQ(release::nextStageAt(r, t.now).value_or(-1), t.next) << t.now;
  }
  r.paused = true;
  EXPECT_EQ(release::shareInForce(r, 300), 0);
  EXPECT_EQ(release::nextStageAt(r, 150).value_or(-1), 200);
}

// A stage's percent as the manifest spells it: two decimals that doubles
// cannot hold exactly still land on their hundredth; more decimals, anything
// outside 0 to 100 and numbers too large for an int are refused.
TEST(Release, RolloutPercentsToTheHundredth) {
  const std::string pem = release::generatePrivateKeyPem();
  std::vector<release::PublicKey> keys;
  ASSERT_EQ(release::parsePublicKeys(release::publicKeyFile(pem, "k"), keys), "");
  release::Release r;
  r.serial = 1, r.expires = 4102444800;
  r.packages.push_back({"linux/amd64/setup.deb", "7.3.0.0", 1, std::string(64, 'a'), "linux", "amd64", "deb",
                        release::Rollout{{{0, 1234}}, false}, 0});
  const std::string manifest = release::writeManifest(r);
  const size_t at = manifest.find("12.34");
  ASSERT_NE(at, std::string::npos);
  const struct {
    const char* percent;
    int basisPoints;  // -1: refused
  } kPercents[] = {{"0", 0},      {"0.29", 29},   {"33.33", 3333}, {"99.99", 9999}, {"100", 10000}, {"0.001", -1},
                   {"-0.01", -1}, {"100.01", -1}, {"100.004", -1}, {"1e300", -1},   {"-1e300", -1}};
  for (const auto& p : kPercents) {
    const std::string text = std::string(manifest).replace(at, 5, p.percent);
    const release::Verified v = release::verifyRelease(text, release::signFile(text, pem, "serial:1"), keys, 0, 0);
    ASSERT_EQ(v.ok, p.basisPoints >= 0) << p.percent << ": " << v.reason;
    if (v.ok) {
      EXPECT_EQ(v.release.packages[0].rollout->stages[0].basisPoints, p.basisPoints) << p.percent;
    }
  }
}

// A key id is 8 bytes anyone can copy: a pinned key that shares it with the
// signer's, listed first, must not hide the signer's.
// An entry names one file under the server's address: nothing absolute,
// nothing that ends in a directory, no empty, "." or ".." part. Its twin, a
// plain relative path, verifies.
TEST(Release, EntryPathsNameOneFileUnderTheServer) {
  const std::string signer = release::generatePrivateKeyPem();
  std::vector<release::PublicKey> keys;
  ASSERT_EQ(release::parsePublicKeys(release::publicKeyFile(signer, "s"), keys), "");
  std::string got;
  for (const char* path : {"linux/amd64/setup.deb", "/linux/amd64/setup.deb", "linux/amd64/", "", "linux//setup.deb",
                           "linux/./setup.deb", "linux/../setup.deb"}) {
    release::Release r;
    r.serial = 3, r.expires = 4102444800;
    release::Entry e;
    e.path = path, e.version = "7.3.0.0", e.size = 1, e.sha256 = std::string(64, 'a');
    r.packages.push_back(e);
    const std::string manifest = release::writeManifest(r);
    const release::Verified v =
        release::verifyRelease(manifest, release::signFile(manifest, signer, "serial:3"), keys, 0, 0);
    got += (v.ok ? "ok" : v.reason) + "|";
  }
  const std::string refused = "manifest is not valid: package path ";
  EXPECT_EQ(got, "ok|" + refused + "/linux/amd64/setup.deb is not one file under the server|" + refused +
                     "linux/amd64/ is not one file under the server|" + refused + " is not one file under the server|" +
                     refused + "linux//setup.deb is not one file under the server|" + refused +
                     "linux/./setup.deb is not one file under the server|" + refused +
                     "linux/../setup.deb is not one file under the server|");
}

TEST(Release, EveryPinnedKeyWithTheSignaturesIdIsTried) {
  const std::string signer = release::generatePrivateKeyPem(), other = release::generatePrivateKeyPem();
  release::Release r;
  r.serial = 3, r.expires = 4102444800;
  const std::string manifest = release::writeManifest(r);
  const std::string signature = release::signFile(manifest, signer, "serial:3");
  std::vector<release::PublicKey> keys;
  ASSERT_EQ(release::parsePublicKeys(release::publicKeyFile(other, "o") + release::publicKeyFile(signer, "s"), keys),
            "");
  keys[0].id = keys[1].id;
  EXPECT_TRUE(release::verifyRelease(manifest, signature, keys, 0, 0).ok);
  keys.pop_back();
  EXPECT_EQ(release::verifyRelease(manifest, signature, keys, 0, 0).reason, "signature does not verify");
}

}  // namespace
