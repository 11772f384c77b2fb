// Fingerprints: known vectors of the three types, the domain-separated DO
// digest, context states, and the hex text in both directions.
#include <gtest/gtest.h>

#include <openssl/evp.h>

#include <cctype>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "crrecord/platform/fingerprint.h"
#include "crrecord/platform/status.h"
#include "hex.h"
#include "images.h"

namespace {

const char kMD5Abc[] = "900150983cd24fb0d6963f7d28e17f72";
const char kSHA256Abc[] = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";

std::string HexOf(const crfp_digest_t& d) { return crtest::Hex(d.digest, sizeof d.digest); }

// The expected 32-byte digest field: the hash's first `width` bytes, zeros after.
std::string Field(const std::string& hex, size_t width) {
  return hex.substr(0, 2 * width) + std::string(64 - 2 * width, '0');
}

std::vector<unsigned char> Evp(const EVP_MD* md, const void* data, size_t n) {
  std::vector<unsigned char> out(EVP_MAX_MD_SIZE);
  unsigned int len = 0;
  EXPECT_EQ(EVP_Digest(data, n, out.data(), &len, md, nullptr), 1);
  out.resize(len);
  return out;
}

// The status word a refused call leaves, or 0 if the call was not refused;
// the word is cleared before and after.
template <typename F>
cr_status_t Refused(F call) {
  *__cr_errno_location() = 0;
  const bool refused = call();
  const cr_status_t status = *__cr_errno_location();
  *__cr_errno_location() = 0;
  return refused ? status : 0;
}

// A copy on the heap of exactly the text's bytes, no NUL, so that a read past
// the length is an over-read the sanitizer reports.
std::unique_ptr<char[]> Exact(const std::string& s) {
  std::unique_ptr<char[]> p(new char[s.size() ? s.size() : 1]);
  std::memcpy(p.get(), s.data(), s.size());
  return p;
}

TEST(PlatformFingerprint, TypesAndSizes) {
  for (int t = 0; t < 256; ++t) {
    unsigned char u = static_cast<unsigned char>(t);
    EXPECT_EQ(CRFPTypeIsValid(u), t >= 1 && t <= 3) << t;
    EXPECT_EQ(CRDOTypeIsValid(u) != 0, t <= 5) << t;
    EXPECT_EQ(CRFPDigestSize(u), t == 3 ? 32u : (t == 1 || t == 2) ? 16u : 0u) << t;
  }
}

TEST(PlatformFingerprint, KnownVectorsOneShotAndIncremental) {
  struct Case { unsigned char type; const char* hash; size_t width; };
  for (const Case& c : {Case{1, kMD5Abc, 16}, Case{2, kSHA256Abc, 16}, Case{3, kSHA256Abc, 32}}) {
    crfp_digest_t d;
    std::memset(&d, 0xAA, sizeof d);
    ASSERT_EQ(CRFPCompute(c.type, "abc", 3, &d), 0);
    EXPECT_EQ(HexOf(d), Field(c.hash, c.width)) << int(c.type);

    crfp_ctx_t ctx;
    ASSERT_EQ(CRFPInitialize(&ctx, c.type), 0);
    ASSERT_EQ(CRFPAppend(&ctx, "a", 1), 0);
    ASSERT_EQ(CRFPAppend(&ctx, nullptr, 0), 0);
    ASSERT_EQ(CRFPAppend(&ctx, "bc", 2), 0);
    ASSERT_EQ(CRFPFinalize(&ctx), 0);
    std::memset(&d, 0xAA, sizeof d);
    ASSERT_EQ(CRFPGetDigest_r(&ctx, &d), &d);
    EXPECT_EQ(HexOf(d), Field(c.hash, c.width)) << int(c.type);
  }
  crfp_digest_t d;
  ASSERT_EQ(CRFPCompute(1, nullptr, 0, &d), 0);
  EXPECT_EQ(HexOf(d), Field("d41d8cd98f00b204e9800998ecf8427e", 16));
}

TEST(PlatformFingerprint, DODigestIsTheLabelledHashOfTheInnerHash) {
  const std::string data = "segment list bytes";
  const std::string label = "crrecord.dorecord.digest";
  for (unsigned char type : {1, 2, 3}) {
    const EVP_MD* md = type == 1 ? EVP_md5() : EVP_sha256();
    std::vector<unsigned char> inner = Evp(md, data.data(), data.size());
    std::vector<unsigned char> input(label.begin(), label.end());
    input.insert(input.end(), inner.begin(), inner.end());
    std::vector<unsigned char> outer = Evp(md, input.data(), input.size());
    size_t width = CRFPDigestSize(type);

    crfp_ctx_t ctx;
    ASSERT_EQ(CRFPInitialize(&ctx, type), 0);
    ASSERT_EQ(CRFPAppend(&ctx, data.data(), static_cast<unsigned int>(data.size())), 0);
    ASSERT_EQ(CRFPFinalizeDO(&ctx), 0);
    crfp_digest_t doDigest, plain;
    ASSERT_EQ(CRFPGetDigest_r(&ctx, &doDigest), &doDigest);
    EXPECT_EQ(HexOf(doDigest), Field(crtest::Hex(outer.data(), outer.size()), width));

    ASSERT_EQ(CRFPCompute(type, data.data(), data.size(), &plain), 0);
    EXPECT_NE(HexOf(doDigest), HexOf(plain)) << int(type);
  }
}

TEST(PlatformFingerprint, ContextStatesAreChecked) {
  crfp_ctx_t ctx;
  crfp_digest_t d;
  ASSERT_EQ(CRFPInitialize(&ctx, 3), 0);
  EXPECT_EQ(Refused([&] { return CRFPGetDigest_r(&ctx, &d) == nullptr; }), 9u);
  EXPECT_EQ(Refused([&] { return CRFPAppend(&ctx, nullptr, 4) == -1; }), 65u);
  ASSERT_EQ(CRFPFinalize(&ctx), 0);
  EXPECT_EQ(Refused([&] { return CRFPAppend(&ctx, "x", 1) == -1; }), 9u);
  EXPECT_EQ(Refused([&] { return CRFPFinalizeDO(&ctx) == -1; }), 9u);
  for (unsigned char bad : {0, 4, 255}) {
    EXPECT_EQ(Refused([&] { return CRFPInitialize(&ctx, bad) == -1; }), 9u);
    // The earlier finalized state is gone.
    EXPECT_EQ(Refused([&] { return CRFPAppend(&ctx, "x", 1) == -1; }), 9u);
    EXPECT_EQ(Refused([&] { return CRFPGetDigest_r(&ctx, &d) == nullptr; }), 9u);
    EXPECT_EQ(Refused([&] { return CRFPCompute(bad, "x", 1, &d) == -1; }), 9u);
  }
  EXPECT_EQ(Refused([&] { return CRFPInitialize(nullptr, 1) == -1; }), 65u);
  EXPECT_EQ(Refused([&] { return CRFPCompute(1, "x", 1, nullptr) == -1; }), 65u);
}

// Too little room writes nothing; no such type is refused.
TEST(PlatformFingerprint, DigestTextIsLowerCaseHexThatMustFit) {
  crfp_digest_t d;
  for (int i = 0; i < 32; ++i) d.digest[i] = static_cast<unsigned char>(0xA0 + i * 3);
  const std::string hex32 = crtest::Hex(d.digest, 32);
  char buf[70];
  ASSERT_EQ(CRFPDigestToString_r(&d, 3, buf, 65), buf);
  EXPECT_EQ(std::string(buf), hex32);
  std::memset(buf, '#', sizeof buf);
  ASSERT_EQ(CRFPDigestToString_r(&d, 1, buf, 33), buf);
  EXPECT_EQ(std::string(buf, 34), hex32.substr(0, 32) + std::string("\0#", 2));
  std::memset(buf, '#', sizeof buf);
  EXPECT_EQ(Refused([&] { return CRFPDigestToString_r(&d, 3, buf, 64) == nullptr; }), 122u);
  EXPECT_EQ(Refused([&] { return CRFPDigestToString_r(&d, 2, buf, 32) == nullptr; }), 122u);
  EXPECT_EQ(buf[0], '#');
  EXPECT_EQ(Refused([&] { return CRFPDigestToString_r(&d, 0, buf, sizeof buf) == nullptr; }), 9u);
}

TEST(PlatformFingerprint, TextParsesBackInEitherCase) {
  crfp_digest_t d;
  std::string upper = "BA7816BF8F01CFEA414140DE5DAE2223B00361A396177A9CB410FF61F20015AD";
  auto text = Exact(upper);
  std::memset(&d, 0xAA, sizeof d);
  ASSERT_EQ(CRFPStringToDigest_r(text.get(), 64, 3, &d), &d);
  EXPECT_EQ(HexOf(d), kSHA256Abc);

  auto md5 = Exact(kMD5Abc);
  std::memset(&d, 0xAA, sizeof d);
  ASSERT_EQ(CRFPStringToDigest_r(md5.get(), 32, 1, &d), &d);
  EXPECT_EQ(HexOf(d), Field(kMD5Abc, 16));
}

TEST(PlatformFingerprint, BadTextIsRefusedWithoutReadingPastTheLength) {
  crfp_digest_t d, before;
  std::memset(&before, 0x5C, sizeof before);
  const std::string good = kMD5Abc;  // 32 digits for the 16-byte types

  auto refused = [&](const std::string& s, size_t length, unsigned char type, cr_status_t status) {
    auto text = Exact(s);
    d = before;
    EXPECT_EQ(Refused([&] { return CRFPStringToDigest_r(text.get(), length, type, &d) == nullptr; }),
              status) << s;
    EXPECT_EQ(std::memcmp(&d, &before, sizeof d), 0) << s;
  };
  for (size_t n : {0u, 1u, 30u, 31u, 33u, 64u}) refused((good + good).substr(0, n), n, 1, 121);
  refused(good, 32, 3, 121);  // the 32-byte type needs 64 digits
  refused(good, 32, 0, 9);    // no such type
  for (size_t pos = 0; pos < good.size(); ++pos) {
    for (char bad : {'g', 'G', '/', ':', '@', '`', ' ', '\0', '\x80', '\xff'}) {
      std::string s = good;
      s[pos] = bad;
      refused(s, 32, 2, 121);
    }
  }
}

TEST(PlatformFingerprint, HexCodecCoversEveryByteAndCharacter) {
  unsigned char all[256];
  for (int i = 0; i < 256; ++i) all[i] = static_cast<unsigned char>(i);
  std::string text(512, '?');
  crrecord::HexEncode(all, 256, &text[0]);
  EXPECT_EQ(text, crtest::Hex(all, 256));

  unsigned char back[256] = {};
  ASSERT_TRUE(crrecord::HexDecode(text.data(), text.size(), back));
  EXPECT_EQ(std::memcmp(back, all, 256), 0);
  for (char& c : text) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  std::memset(back, 0, sizeof back);
  ASSERT_TRUE(crrecord::HexDecode(text.data(), text.size(), back));
  EXPECT_EQ(std::memcmp(back, all, 256), 0);

  EXPECT_FALSE(crrecord::HexDecode("abc", 3, back));
  for (int c = 0; c < 256; ++c) {
    bool digit = std::strchr("0123456789abcdefABCDEF", c) != nullptr && c != 0;
    char pair[2] = {'0', static_cast<char>(c)};
    EXPECT_EQ(crrecord::HexDecode(pair, 2, back), digit) << c;
    pair[0] = static_cast<char>(c);
    pair[1] = '0';
    EXPECT_EQ(crrecord::HexDecode(pair, 2, back), digit) << c;
  }
}

}  // namespace
