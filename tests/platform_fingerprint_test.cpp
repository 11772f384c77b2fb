// Fingerprints: known digests of the three types, plain and domain-separated
// for DO records, with their hex texts; and each refusal with its status.
#include <gtest/gtest.h>

#include <cctype>
#include <cstring>
#include <functional>
#include <memory>
#include <string>

#include "crrecord/platform/fingerprint.h"
#include "crrecord/platform/status.h"
#include "images.h"

namespace {

// The digest field holds the hash's first bytes (all 32 for type 3) and
// zeros after them; the DO digest is the hash of "crrecord.dorecord.digest"
// followed by the plain hash. Each is taken in pieces (a plain one also in
// one call), given as text and read back from upper-case text.
TEST(PlatformFingerprint, KnownDigestsAndTheirTexts) {
  const std::string abcSha256 = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";
  const std::string doSha256 = "1226a1c6cf56fb1b81a6110dc5a018af833b3f02c235f617b1805a7256ba3819";
  struct Row { unsigned char type; const char* input; bool forDO; std::string hex; };
  for (const Row& row : {Row{1, "abc", false, "900150983cd24fb0d6963f7d28e17f72"},
                         Row{2, "abc", false, abcSha256.substr(0, 32)},
                         Row{3, "abc", false, abcSha256},
                         Row{1, "segment list bytes", true, "941522c73d519dcd744a09ec8a618733"},
                         Row{3, "segment list bytes", true, doSha256}}) {
    SCOPED_TRACE(testing::Message() << int(row.type) << " " << row.input);
    const std::string field = row.hex + std::string(64 - row.hex.size(), '0');
    const size_t n = std::strlen(row.input);
    crfp_digest_t d;
    std::memset(&d, 0xAA, sizeof d);
    if (!row.forDO) {
      ASSERT_EQ(CRFPCompute(row.type, row.input, n, &d), 0);
      EXPECT_EQ(crtest::Hex(d.digest, 32), field);
    }
    crfp_ctx_t ctx;
    ASSERT_EQ(CRFPInitialize(&ctx, row.type), 0);
    ASSERT_EQ(CRFPAppend(&ctx, row.input, n / 2), 0);
    ASSERT_EQ(CRFPAppend(&ctx, nullptr, 0), 0);
    ASSERT_EQ(CRFPAppend(&ctx, row.input + n / 2, n - n / 2), 0);
    ASSERT_EQ(row.forDO ? CRFPFinalizeDO(&ctx) : CRFPFinalize(&ctx), 0);
    std::memset(&d, 0xAA, sizeof d);
    ASSERT_EQ(CRFPGetDigest_r(&ctx, &d), &d);
    EXPECT_EQ(crtest::Hex(d.digest, 32), field);

    std::unique_ptr<char[]> text(new char[row.hex.size() + 2]);  // no room past the NUL
    text[row.hex.size() + 1] = '#';
    ASSERT_EQ(CRFPDigestToString_r(&d, row.type, text.get(), row.hex.size() + 1), text.get());
    EXPECT_EQ(std::string(text.get(), row.hex.size() + 2), row.hex + std::string("\0#", 2));
    for (size_t i = 0; i < row.hex.size(); ++i) text[i] = static_cast<char>(std::toupper(text[i]));
    std::memset(&d, 0xAA, sizeof d);
    ASSERT_EQ(CRFPStringToDigest_r(text.get(), row.hex.size(), row.type, &d), &d);
    EXPECT_EQ(crtest::Hex(d.digest, 32), field);
  }
}

// Each refused call gives its failure value, leaves its status word, and
// writes nothing to the caller's digest or text.
TEST(PlatformFingerprint, RefusalsAndTheirStatuses) {
  const std::string md5 = "900150983cd24fb0d6963f7d28e17f72";
  crfp_ctx_t ctx;  // the rows take it from state to state
  ASSERT_EQ(CRFPInitialize(&ctx, 3), 0);
  crfp_digest_t d, untouched;
  std::memset(&untouched, 0x5C, sizeof untouched);
  unsigned char fps[32] = {};
  char text[70];
  // A text of n bytes copied to the heap without a NUL, then parsed.
  auto parse = [&](const std::string& s, size_t n, unsigned char type) {
    std::unique_ptr<char[]> exact(new char[n + 1]);
    std::memcpy(exact.get(), s.data(), n);
    return CRFPStringToDigest_r(exact.get(), n, type, &d) == nullptr;
  };
  struct Row { const char* what; std::function<bool()> refused; cr_status_t status; };
  const Row rows[] = {
      {"digest before the end", [&] { return !CRFPGetDigest_r(&ctx, &d); }, 9},
      {"append of null bytes", [&] { return CRFPAppend(&ctx, nullptr, 4) == -1; }, 65},
      {"after the end", [&] { return !CRFPFinalize(&ctx) && CRFPAppend(&ctx, "x", 1) == -1; }, 9},
      {"no such type", [&] { return CRFPInitialize(&ctx, 4) == -1; }, 9},
      {"which ends the context", [&] { return !CRFPGetDigest_r(&ctx, &d); }, 9},
      {"no context", [&] { return CRFPInitialize(nullptr, 1) == -1; }, 65},
      {"no digest", [&] { return CRFPCompute(1, "x", 1, nullptr) == -1; }, 65},
      {"64 bytes for 64 digits", [&] { return !CRFPDigestToString_r(&d, 3, text, 64); }, 122},
      {"text of type 0", [&] { return !CRFPDigestToString_r(&d, 0, text, 70); }, 9},
      {"31 digits", [&] { return parse(md5, 31, 1); }, 121},
      {"32 digits for type 3", [&] { return parse(md5, 32, 3); }, 121},
      {"parse type 0", [&] { return parse(md5, 32, 0); }, 9},
      {"parse no text", [&] { return !CRFPStringToDigest_r(nullptr, 32, 1, &d); }, 65},
      {"a non-digit", [&] { return parse(md5.substr(0, 31) + "g", 32, 2); }, 121},
      {"batch text type 4", [&] { return CRFPDigestsToStrings(fps, 32, 4, text, 65, 1) == -1; }, 9},
      {"null batch", [&] { return CRFPDigestsToStrings(nullptr, 32, 1, text, 65, 1) == -1; }, 65},
  };
  for (const Row& row : rows) {
    d = untouched;
    std::memset(text, '#', sizeof text);
    *__cr_errno_location() = 0;
    EXPECT_TRUE(row.refused()) << row.what;
    EXPECT_EQ(*__cr_errno_location(), row.status) << row.what;
    EXPECT_EQ(std::memcmp(&d, &untouched, sizeof d), 0) << row.what;
    EXPECT_EQ(text[0], '#') << row.what;
  }
}

}  // namespace
