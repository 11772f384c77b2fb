// The vectorised codecs against the portable ones and against references
// written in the tests (hex) or taken from zlib (Adler-32), on random input
// of many lengths and alignments; the batch fingerprint texts against the
// one-at-a-time calls; and the record operations that work a piece of the
// segment list at a time, on lists long enough to span several pieces.
#include <zlib.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/Adler32.h"
#include "crrecord/DORecord.h"
#include "crrecord/platform/fingerprint.h"
#include "crrecord/platform/status.h"
#include "hex.h"
#include "images.h"

using crrecord::Adler32Path;
using crrecord::HexPath;

namespace {

const HexPath kHexPaths[] = {HexPath::kPortable, HexPath::kSSSE3, HexPath::kAVX2};
const Adler32Path kAdlerPaths[] = {Adler32Path::kPortable, Adler32Path::kSSSE3,
                                   Adler32Path::kAVX2, Adler32Path::kAVX512};

const char* Name(HexPath p) { return crrecord::HexPathName(p); }
const char* Name(Adler32Path p) { return crrecord::Adler32PathName(p); }

// Puts the dispatch back as it was when the test is done.
class HexPathGuard {
 public:
  HexPathGuard() : saved_(crrecord::HexActivePath()) {}
  ~HexPathGuard() { crrecord::HexForcePath(saved_); }

 private:
  HexPath saved_;
};

class AdlerPathGuard {
 public:
  AdlerPathGuard() : saved_(crrecord::Adler32ActivePath()) {}
  ~AdlerPathGuard() { crrecord::Adler32ForcePath(saved_); }

 private:
  Adler32Path saved_;
};

std::vector<unsigned char> RandomBytes(std::mt19937_64& rng, size_t n) {
  std::vector<unsigned char> v(n);
  for (unsigned char& b : v) b = static_cast<unsigned char>(rng());
  return v;
}

// Lengths around every vector width and its multiples, plus a few long ones.
std::vector<size_t> Lengths() {
  std::vector<size_t> lengths;
  for (size_t n = 0; n <= 130; ++n) lengths.push_back(n);
  for (size_t n : {255, 256, 257, 1000, 4095, 4097}) lengths.push_back(n);
  return lengths;
}

bool IsHexDigit(int c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

TEST(FastPathTest, PortableHexPathIsAlwaysThere) {
  EXPECT_TRUE(crrecord::HexPathAvailable(HexPath::kPortable));
  EXPECT_TRUE(crrecord::Adler32PathAvailable(Adler32Path::kPortable));
}

TEST(FastPathTest, EveryHexPathEncodesLikeTheReference) {
  HexPathGuard guard;
  std::mt19937_64 rng(1);
  for (HexPath path : kHexPaths) {
    if (!crrecord::HexForcePath(path)) continue;
    ASSERT_EQ(crrecord::HexActivePath(), path);
    for (size_t n : Lengths()) {
      for (size_t shift : {0, 1, 7, 31}) {
        std::vector<unsigned char> in = RandomBytes(rng, n + shift);
        // One guard byte on each side of the text shows any stray write.
        std::string out(2 * n + 2, '#');
        crrecord::HexEncode(in.data() + shift, n, &out[1]);
        EXPECT_EQ(out, "#" + crtest::Hex(in.data() + shift, n) + "#")
            << Name(path) << " n=" << n << " shift=" << shift;
      }
    }
  }
}

TEST(FastPathTest, EveryHexPathDecodesMixedCaseText) {
  HexPathGuard guard;
  std::mt19937_64 rng(2);
  for (HexPath path : kHexPaths) {
    if (!crrecord::HexForcePath(path)) continue;
    for (size_t n : Lengths()) {
      for (size_t shift : {0, 3, 16}) {
        const std::vector<unsigned char> bytes = RandomBytes(rng, n);
        std::string text(shift, 'x');
        text += crtest::Hex(bytes.data(), n);
        for (size_t i = shift; i < text.size(); ++i) {
          if (rng() % 2 != 0) text[i] = static_cast<char>(std::toupper(text[i]));
        }
        std::vector<unsigned char> out(n + 1, 0xA5);
        ASSERT_TRUE(crrecord::HexDecode(text.data() + shift, 2 * n, out.data()))
            << Name(path) << " n=" << n;
        EXPECT_EQ(crtest::Hex(out.data(), n), crtest::Hex(bytes.data(), n))
            << Name(path) << " n=" << n << " shift=" << shift;
        EXPECT_EQ(out[n], 0xA5) << "wrote past the end, " << Name(path) << " n=" << n;
      }
    }
  }
}

// Each of the 256 character values, placed in the first vector, a later
// vector and the scalar tail, is refused exactly when it is no hex digit.
TEST(FastPathTest, EveryHexPathRefusesExactlyTheNonDigits) {
  HexPathGuard guard;
  for (HexPath path : kHexPaths) {
    if (!crrecord::HexForcePath(path)) continue;
    for (size_t length : {2, 32, 64, 130}) {
      for (size_t at : {size_t{0}, length / 2, length - 1}) {
        for (int c = 0; c < 256; ++c) {
          std::string text(length, '7');
          text[at] = static_cast<char>(c);
          std::vector<unsigned char> out(length / 2);
          EXPECT_EQ(crrecord::HexDecode(text.data(), length, out.data()), IsHexDigit(c))
              << Name(path) << " char " << c << " at " << at << " of " << length;
        }
      }
    }
    unsigned char out[64];
    EXPECT_FALSE(crrecord::HexDecode("0123456789abcdef0123456789abcdef0", 33, out)) << Name(path);
  }
}

TEST(FastPathTest, EveryHexPathHandlesStridedFields) {
  HexPathGuard guard;
  std::mt19937_64 rng(3);
  for (HexPath path : kHexPaths) {
    if (!crrecord::HexForcePath(path)) continue;
    for (size_t width : {16, 32, 5}) {
      const size_t count = 37, inStride = width + 12, outStride = 2 * width + 13;
      const std::vector<unsigned char> in = RandomBytes(rng, count * inStride);
      std::string text(count * outStride, '#');
      crrecord::HexEncodeFields(in.data(), inStride, width, &text[0], outStride, count, false);
      std::string expected(count * outStride, '#');
      for (size_t k = 0; k < count; ++k) {
        expected.replace(k * outStride, 2 * width, crtest::Hex(&in[k * inStride], width));
      }
      ASSERT_EQ(text, expected) << Name(path) << " width " << width;
      // With NULs: one more byte per field, the rest untouched.
      std::string terminated(count * outStride, '#');
      crrecord::HexEncodeFields(in.data(), inStride, width, &terminated[0], outStride, count, true);
      for (size_t k = 0; k < count; ++k) expected[k * outStride + 2 * width] = '\0';
      ASSERT_EQ(terminated, expected) << Name(path) << " width " << width;

      // Field 20 gets a 'g' in its last digit: fields 0..19 come back, 21.. stay untouched.
      text[20 * outStride + 2 * width - 1] = 'g';
      std::vector<unsigned char> back(count * inStride, 0xEE);
      EXPECT_EQ(crrecord::HexDecodeFields(text.data(), outStride, width, back.data(), inStride,
                                          count, false),
                20u)
          << Name(path) << " width " << width;
      for (size_t k = 0; k < 20; ++k) {
        EXPECT_EQ(crtest::Hex(&back[k * inStride], width), crtest::Hex(&in[k * inStride], width))
            << Name(path) << " field " << k;
        EXPECT_EQ(back[k * inStride + width], 0xEE) << "gap written, " << Name(path);
      }
      EXPECT_EQ(crtest::Hex(&back[21 * inStride], inStride), std::string(2 * inStride, 'e'));
      text[20 * outStride + 2 * width - 1] = '0';
      EXPECT_EQ(crrecord::HexDecodeFields(text.data(), outStride, width, back.data(), inStride,
                                          count, false),
                count);
      // Fields that must end in a NUL: the first without one is named.
      EXPECT_EQ(crrecord::HexDecodeFields(terminated.data(), outStride, width, back.data(),
                                          inStride, count, true),
                count)
          << Name(path) << " width " << width;
      terminated[9 * outStride + 2 * width] = '0';
      EXPECT_EQ(crrecord::HexDecodeFields(terminated.data(), outStride, width, back.data(),
                                          inStride, count, true),
                9u)
          << Name(path) << " width " << width;
    }
  }
}

// zlib's adler32 takes 32-bit lengths (every length here fits) and answers
// 1 for a null buffer, where nothing read leaves the checksum as it was.
uint32_t ZlibAdler(uint32_t start, const unsigned char* p, size_t n) {
  if (n == 0) return start;
  return static_cast<uint32_t>(adler32(start, p, static_cast<uInt>(n)));
}

TEST(FastPathTest, EveryAdlerPathMatchesZlib) {
  AdlerPathGuard guard;
  std::mt19937_64 rng(4);
  std::vector<size_t> lengths = Lengths();
  for (size_t n : {5535, 5536, 5551, 5552, 5553, 5568, 11104, 11105, 65539, 1 << 20}) {
    lengths.push_back(n);
  }
  for (Adler32Path path : kAdlerPaths) {
    if (!crrecord::Adler32ForcePath(path)) continue;
    ASSERT_EQ(crrecord::Adler32ActivePath(), path);
    for (size_t n : lengths) {
      for (size_t shift : {0, 1, 13}) {
        const std::vector<unsigned char> in = RandomBytes(rng, n + shift);
        const unsigned char* p = in.data() + shift;
        EXPECT_EQ(crrecord::Adler32(p, n), ZlibAdler(1, p, n))
            << Name(path) << " n=" << n << " shift=" << shift;
        // Continuing from a value other than 1, as a checksum taken in pieces does.
        const uint32_t start = static_cast<uint32_t>(rng() % 65521) << 16 | (rng() % 65521);
        EXPECT_EQ(crrecord::Adler32Update(start, p, n), ZlibAdler(start, p, n))
            << Name(path) << " n=" << n << " from " << start;
      }
    }
  }
}

// All bytes 0xFF and both sums at their largest: the case that the deferred
// reduction must survive without overflow.
TEST(FastPathTest, EveryAdlerPathSurvivesTheLargestSums) {
  AdlerPathGuard guard;
  const std::vector<unsigned char> ones(3 * 5552 + 77, 0xFF);
  const uint32_t start = (65520u << 16) | 65520u;
  for (Adler32Path path : kAdlerPaths) {
    if (!crrecord::Adler32ForcePath(path)) continue;
    for (size_t n : {size_t{5552}, size_t{5553}, ones.size()}) {
      EXPECT_EQ(crrecord::Adler32Update(start, ones.data(), n), ZlibAdler(start, ones.data(), n))
          << Name(path) << " n=" << n;
    }
  }
}

TEST(FastPathTest, AdlerInPiecesEqualsAdlerInOne) {
  std::mt19937_64 rng(5);
  const std::vector<unsigned char> in = RandomBytes(rng, 100000);
  uint32_t pieces = 1;
  size_t at = 0;
  while (at < in.size()) {
    const size_t n = std::min<size_t>(rng() % 9000, in.size() - at);
    pieces = crrecord::Adler32Update(pieces, in.data() + at, n);
    at += n;
  }
  EXPECT_EQ(pieces, ZlibAdler(1, in.data(), in.size()));
  EXPECT_EQ(crrecord::Adler32("\0", 1), 0x00010001u);
}

// Fingerprints as they lie in a DO type 3 segment list (28-byte entries for
// 16-byte fingerprints, 44 for 32), texts in 33- or 65-byte fields with four
// more bytes after each.
TEST(FastPathTest, BatchFingerprintTextsEqualTheSingleCalls) {
  HexPathGuard guard;
  std::mt19937_64 rng(6);
  for (HexPath path : kHexPaths) {
    if (!crrecord::HexForcePath(path)) continue;
    for (unsigned char fptype : {CR_FP_TYPE_MD5, CR_FP_TYPE_SHA256_16, CR_FP_TYPE_SHA256}) {
      const size_t width = CRFPDigestSize(fptype), entry = width + 12, field = 2 * width + 5;
      const size_t count = 50;
      const std::vector<unsigned char> list = RandomBytes(rng, count * entry);
      std::string texts(count * field, '#');
      ASSERT_EQ(CRFPDigestsToStrings(list.data(), entry, fptype, &texts[0], field, count), 0);
      for (size_t k = 0; k < count; ++k) {
        crfp_digest_t fp = {};
        std::memcpy(fp.digest, &list[k * entry], width);
        char one[65];
        ASSERT_NE(CRFPDigestToString_r(&fp, fptype, one, sizeof one), nullptr);
        EXPECT_EQ(texts.substr(k * field, 2 * width + 1), std::string(one, 2 * width + 1))
            << Name(path) << " fptype " << unsigned{fptype} << " field " << k;
        EXPECT_EQ(texts.substr(k * field + 2 * width + 1, 4), "####") << "wrote past the NUL";
      }

      std::vector<unsigned char> back(count * entry, 0);
      EXPECT_EQ(CRFPStringsToDigests(texts.data(), field, fptype, back.data(), entry, count),
                count);
      for (size_t k = 0; k < count; ++k) {
        EXPECT_EQ(crtest::Hex(&back[k * entry], width), crtest::Hex(&list[k * entry], width));
      }
      texts[7 * field + 3] = ' ';
      *__cr_errno_location() = 0;
      EXPECT_EQ(CRFPStringsToDigests(texts.data(), field, fptype, back.data(), entry, count), 7u);
      EXPECT_EQ(*__cr_errno_location(), CR_STATUS_MALFORMED);
      texts[3 * field + 2 * width] = '0';  // digits, but no NUL after them
      EXPECT_EQ(CRFPStringsToDigests(texts.data(), field, fptype, back.data(), entry, count), 3u);
    }
  }
}

TEST(FastPathTest, BatchFingerprintTextsRefuseAnUnknownType) {
  unsigned char fp[32] = {};
  char text[65];
  *__cr_errno_location() = 0;
  EXPECT_EQ(CRFPDigestsToStrings(fp, 32, 4, text, 65, 1), -1);
  EXPECT_EQ(*__cr_errno_location(), CR_STATUS_INVALID);
  *__cr_errno_location() = 0;
  EXPECT_EQ(CRFPStringsToDigests("00", 2, 0, fp, 32, 1), 0u);
  EXPECT_EQ(*__cr_errno_location(), CR_STATUS_INVALID);
  EXPECT_EQ(CRFPDigestsToStrings(nullptr, 32, CR_FP_TYPE_MD5, text, 65, 1), -1);
  EXPECT_EQ(*__cr_errno_location(), CR_STATUS_MISSING_ARGUMENT);
}

// --- Record operations over many pieces ------------------------------------------

// A DO type 3 file of n segments of 1000 to 9000 bytes back to back, in
// containers drawn from `containers` DCIDs (all >= 64).
std::vector<crtest::Seg> ManySegments(size_t n, uint8_t fptype, uint32_t containers,
                                      uint64_t seed) {
  std::mt19937_64 rng(seed);
  std::vector<crtest::Seg> segs(n);
  uint64_t offset = 0;
  for (crtest::Seg& s : segs) {
    s.fp = RandomBytes(rng, crtest::FPWidth(fptype));
    s.size = 1000 + static_cast<uint32_t>(rng() % 8001);
    s.offset = offset;
    s.objectOffset = static_cast<uint32_t>(offset);
    s.dcid = 64 + 1000 * (rng() % containers);
    offset += s.size;
  }
  return segs;
}

uint64_t FileSizeOf(const std::vector<crtest::Seg>& segs) {
  uint64_t total = 0;
  for (const crtest::Seg& s : segs) total += s.size;
  return total;
}

// Every segment is at most this large, so that the list also suits DO type 1.
constexpr uint64_t kSsize = 9001;

std::unique_ptr<DORecord> BuildFromSegs(uint8_t dotype, uint8_t fptype,
                                const std::vector<crtest::Seg>& segs) {
  const crtest::Bytes list = crtest::SegmentList(dotype, segs);
  std::vector<unsigned long> dcids;
  for (const crtest::Seg& s : segs) dcids.push_back(s.dcid);
  return std::unique_ptr<DORecord>(new DORecord(900, FileSizeOf(segs), kSsize, 0x01020304, 7, 7,
                                                list.data(), static_cast<unsigned int>(segs.size()),
                                                dcids.data(), nullptr, fptype, dotype));
}

std::vector<uint8_t> SerializedByRecord(const DORecord& r, bool checksum) {
  void* out = nullptr;
  unsigned long size = 0;
  EXPECT_EQ(r.Serialize(&out, &size, checksum), 0u);
  const uint8_t* p = static_cast<const uint8_t*>(out);
  std::vector<uint8_t> bytes(p, p + size);
  DORecord::SerializedDORecordFree(&out);
  return bytes;
}

// 1500 segments: three pieces of the serializer's and the reader's, twelve of
// the text form's.
constexpr size_t kMany = 1500;

TEST(RecordFastPathTest, SerializeOfManySegmentsMatchesTheLayout) {
  for (uint8_t fptype : {CR_FP_TYPE_MD5, CR_FP_TYPE_SHA256}) {
    for (uint8_t dotype : {CR_DO_TYPE_NO_SIZE, CR_DO_TYPE_8_BYTE_OFFSET, CR_DO_TYPE_4_BYTE_OFFSET}) {
      std::vector<crtest::Seg> segs = ManySegments(kMany, fptype, 50, fptype * 10 + dotype);
      std::unique_ptr<DORecord> r = BuildFromSegs(dotype, fptype, segs);
      const std::vector<uint8_t> plain =
          crtest::SerializedDO(dotype, FileSizeOf(segs), kSsize, 0x01020304, segs);
      EXPECT_EQ(SerializedByRecord(*r, false), plain) << "dotype " << unsigned{dotype};
      EXPECT_EQ(SerializedByRecord(*r, true), crtest::Sealed(plain)) << "dotype " << unsigned{dotype};
    }
  }
}

// The reader reports the first segment whose field breaks a rule, whichever
// rule and whichever piece.
TEST(RecordFastPathTest, ReaderNamesTheFirstBadFingerprintFieldAcrossPieces) {
  const std::vector<crtest::Seg> segs = ManySegments(kMany, CR_FP_TYPE_MD5, 50, 1);
  const std::vector<uint8_t> good =
      crtest::Sealed(crtest::SerializedDO(CR_DO_TYPE_8_BYTE_OFFSET, FileSizeOf(segs), 4096, 0, segs));
  const size_t entry = 33 + 12;
  struct Case {
    size_t badDigit, noNul;  // segment indexes; kMany for none
    size_t reported;
  };
  for (const Case& c : {Case{1100, 1200, 1100}, Case{1100, 700, 700}, Case{kMany, 1499, 1499},
                        Case{511, kMany, 511}, Case{512, kMany, 512}}) {
    std::vector<uint8_t> image = good;
    if (c.badDigit < kMany) image[28 + c.badDigit * entry + 31] = 'g';
    if (c.noNul < kMany) image[28 + c.noNul * entry + 32] = '0';
    crtest::LogCapture log(true);
    DORecordHeader* h = nullptr;
    unsigned long allocated = 0;
    EXPECT_EQ(DORecordHeaderDeserialize(&h, &allocated, image.data(), image.size(),
                                        CR_DO_TYPE_8_BYTE_OFFSET, CR_FP_TYPE_MD5),
              CR_STATUS_MALFORMED);
    EXPECT_EQ(h, nullptr);
    ASSERT_EQ(log.texts().size(), 1u);
    EXPECT_EQ(log.texts()[0], "Invalid serialized DO record: fingerprint text of segment " +
                                  std::to_string(c.reported) + " is not 32 hex digits and a NUL");
  }
}

TEST(RecordFastPathTest, ReaderRebuildsManySegments) {
  const std::vector<crtest::Seg> segs = ManySegments(kMany, CR_FP_TYPE_SHA256, 50, 2);
  const std::vector<uint8_t> image =
      crtest::SerializedDO(CR_DO_TYPE_4_BYTE_OFFSET, FileSizeOf(segs), 4096, 0, segs);
  DORecord r(CR_DO_TYPE_4_BYTE_OFFSET, 2, 900, CR_FP_TYPE_SHA256, nullptr, 0, image.data(),
             image.size(), false);
  const crtest::Bytes list = crtest::SegmentList(CR_DO_TYPE_4_BYTE_OFFSET, segs);
  EXPECT_EQ(crtest::Hex(r.GetSegmentFP(0), list.size()), crtest::Hex(list.data(), list.size()));
  for (size_t i : {size_t{0}, size_t{511}, size_t{512}, kMany - 1}) {
    EXPECT_EQ(r.GetSegmentDCID(static_cast<unsigned int>(i)), segs[i].dcid) << i;
  }
}

// The one-pass check finds a list unsound; the pass-by-pass check then names
// the failure its passes meet first, not the first by position.
TEST(RecordFastPathTest, CheckReportsTheFirstPassThatFails) {
  std::vector<crtest::Seg> segs = ManySegments(kMany, CR_FP_TYPE_MD5, 50, 3);
  const uint64_t total = FileSizeOf(segs);
  segs[1400].offset -= 1;       // overlaps segment 1399: the order pass
  segs[1450].size = 0x80000000;  // > 2 GiB: the size pass, which runs first
  std::vector<unsigned long> dcids;
  for (const crtest::Seg& s : segs) dcids.push_back(s.dcid);
  const crtest::Bytes list = crtest::SegmentList(CR_DO_TYPE_8_BYTE_OFFSET, segs);
  try {
    DORecord r(900, total, 4096, 0, 7, 7, list.data(), kMany, dcids.data(), nullptr,
               CR_FP_TYPE_MD5, CR_DO_TYPE_8_BYTE_OFFSET);
    FAIL() << "the list was accepted";
  } catch (const Cr_ErrnoException& e) {
    EXPECT_EQ(e.GetStatus(), CR_STATUS_CORRUPT_SEGMENTS);
    EXPECT_STREQ(e.what(),
                 "Segment list of a DORecord is corrupt. Segment 1450 has size 2147483648 "
                 "(> 2 GiB). Data is probably in wrong byte order (host vs. network order)");
  }

  // The same list without the huge size, checked again in network order.
  segs[1450].size = 100;
  std::unique_ptr<DORecord> r = BuildFromSegs(CR_DO_TYPE_8_BYTE_OFFSET, CR_FP_TYPE_MD5,
                                      ManySegments(kMany, CR_FP_TYPE_MD5, 50, 3));
  const crtest::Bytes bad = crtest::SegmentList(CR_DO_TYPE_8_BYTE_OFFSET, segs);
  std::memcpy(const_cast<unsigned char*>(r->GetSegmentFP(0)), bad.data(), bad.size());
  r->HostToNetwork(0);
  try {
    r->checkSegmentList();
    FAIL() << "the list was accepted";
  } catch (const Cr_ErrnoException& e) {
    EXPECT_EQ(e.GetStatus(), CR_STATUS_CORRUPT_SEGMENTS);
    EXPECT_STREQ(e.what(), ("Segment list of DORecord CR_DO_TYPE_8_BYTE_OFFSET is corrupt. "
                            "Offset of segm. 1400:" + std::to_string(segs[1400].offset) +
                            ". Previous segm. end:" + std::to_string(segs[1400].offset + 1) + ".")
                               .c_str());
  }
}

// The text form written independently: header numbers, then per segment
// "[" text "," size "," offset "]", the DCIDs, no references.
std::string ExpectedText(const DORecord& r, const std::vector<crtest::Seg>& segs, bool hex) {
  std::ostringstream os;
  if (hex) os << std::hex;
  os << 3 << ',' << 1 << ',' << 2 << ',' << 900 << ',' << FileSizeOf(segs) << ',' << kSsize << ','
     << 0x01020304 << ',' << 7 << ',' << r.GetMTime() << ',' << 1 << ',' << 3 << ','
     << segs.size() << ",[";
  std::string text = os.str();
  for (size_t i = 0; i < segs.size(); ++i) {
    std::ostringstream e;
    if (hex) e << std::hex;
    e << (i == 0 ? "[" : ",[") << crtest::Hex(segs[i].fp.data(), 16) << ',' << segs[i].size << ','
      << segs[i].offset << ']';
    text += e.str();
  }
  std::ostringstream d;
  if (hex) d << std::hex;
  d << '[';
  for (size_t i = 0; i < segs.size(); ++i) d << (i == 0 ? "" : ",") << segs[i].dcid;
  d << "]],[]";
  return text + d.str();
}

TEST(RecordFastPathTest, TextFormOfManySegmentsInDecimalAndInHex) {
  const std::vector<crtest::Seg> segs = ManySegments(kMany, CR_FP_TYPE_MD5, 50, 4);
  std::unique_ptr<DORecord> r = BuildFromSegs(CR_DO_TYPE_8_BYTE_OFFSET, CR_FP_TYPE_MD5, segs);
  std::ostringstream decimal;
  r->ToStream(decimal, false);
  EXPECT_EQ(decimal.str(), ExpectedText(*r, segs, false));
  std::ostringstream hex;
  hex << std::hex;
  r->ToStream(hex, false);
  EXPECT_EQ(hex.str(), ExpectedText(*r, segs, true));
}

// More distinct containers than the table starts with, and enough for the
// radix sort: the entries come out ascending, with the bytes summed.
// 50,000 containers outgrow a table that fits the cache, and the list is
// then gathered by partitions: the result must not tell the two apart.
TEST(RecordFastPathTest, UniqueDCIDListOfThousandsOfContainers) {
  struct Case {
    uint32_t segments, containers;
  };
  for (const Case c : {Case{20000, 3000}, Case{20000, 40}, Case{200000, 50000}}) {
    const std::vector<crtest::Seg> segs =
        ManySegments(c.segments, CR_FP_TYPE_MD5, c.containers, c.containers);
    std::map<uint64_t, uint64_t> expected;
    for (const crtest::Seg& s : segs) expected[s.dcid] += s.size;
    std::unique_ptr<DORecord> r = BuildFromSegs(CR_DO_TYPE_NO_OFFSET, CR_FP_TYPE_MD5, segs);
    ASSERT_EQ(r->AppendBloomAndUniqueDCIDList(), 0u);
    ASSERT_EQ(r->GetNudcid(), expected.size());
    crtest::Bytes body;
    body.le32(static_cast<uint32_t>(expected.size()));
    for (const auto& e : expected) body.le64(e.first).le64(e.second);
    crtest::Bytes section;
    section.le32(crtest::SlowAdler32(body.data(), body.size())).raw(body.data(), body.size());
    EXPECT_EQ(crtest::Hex(r->GetSegmentUDCIDList(), section.size()),
              crtest::Hex(section.data(), section.size()))
        << c.containers << " containers";
    EXPECT_EQ(r->GetHeaderSize(), 80 + uint64_t{c.segments} * (16 + 4 + 8) + section.size());
  }
}

// Invalid DCIDs far behind the point where the gathering turns to
// partitions: the first of them is named, and the record stays as it was.
TEST(RecordFastPathTest, UniqueDCIDListNamesTheFirstInvalidDCIDAmongManyContainers) {
  const std::vector<crtest::Seg> segs = ManySegments(200000, CR_FP_TYPE_MD5, 50000, 7);
  std::unique_ptr<DORecord> r = BuildFromSegs(CR_DO_TYPE_NO_OFFSET, CR_FP_TYPE_MD5, segs);
  r->SetSegmentDCID(150001, 63);
  r->SetSegmentDCID(199999, 0);
  const uint64_t size = r->GetHeaderSize();
  crtest::LogCapture log;
  EXPECT_EQ(r->AppendBloomAndUniqueDCIDList(), CR_STATUS_INVALID);
  EXPECT_EQ(log.texts(), std::vector<std::string>{
                            "AppendBloomAndUniqueDCIDList: Invalid DCID 63 for SO " +
                            crtest::Hex(segs[150001].fp.data(), 16) + " at index 150001."});
  EXPECT_EQ(r->GetNudcid(), 0u);
  EXPECT_EQ(r->GetHeaderSize(), size);
}

// The digest block built independently and hashed through the fingerprint
// layer's own calls.
TEST(RecordFastPathTest, DigestOfManySegmentsHashesTheWholeBlock) {
  const std::vector<crtest::Seg> segs = ManySegments(kMany, CR_FP_TYPE_SHA256, 50, 5);
  std::unique_ptr<DORecord> r = BuildFromSegs(CR_DO_TYPE_8_BYTE_OFFSET, CR_FP_TYPE_SHA256, segs);
  crtest::Bytes block;
  for (const crtest::Seg& s : segs) {
    block.str(crtest::Hex(s.fp.data(), 32)).u8(0).be32(s.size).be64(s.offset);
  }
  crfp_ctx_t ctx;
  crfp_digest_t expected;
  ASSERT_EQ(CRFPInitialize(&ctx, CR_FP_TYPE_SHA256), 0);
  ASSERT_EQ(CRFPAppend(&ctx, block.data(), static_cast<unsigned int>(block.size())), 0);
  ASSERT_EQ(CRFPFinalizeDO(&ctx), 0);
  ASSERT_NE(CRFPGetDigest_r(&ctx, &expected), nullptr);
  cr_tdigest_t* digest = r->GetDigest();
  ASSERT_NE(digest, nullptr);
  EXPECT_EQ(crtest::Hex(digest->digest.digest, 32), crtest::Hex(expected.digest, 32));
  EXPECT_EQ(digest->type, 4);
  EXPECT_EQ(digest->cid, 900u);
  CRTDigestDelete(&digest);
}

// Large enough (a 9 MB segment list, a 17 MB serialized form) for the
// builder and the serializer to stream their output past the cache.
TEST(RecordFastPathTest, LargeRecordIsBuiltAndSerializedByteForByte) {
  const size_t n = 320000;
  const std::vector<crtest::Seg> segs = ManySegments(n, CR_FP_TYPE_MD5, 1000, 6);
  const crtest::Bytes list = crtest::SegmentList(CR_DO_TYPE_8_BYTE_OFFSET, segs);
  std::unique_ptr<DORecord> r = BuildFromSegs(CR_DO_TYPE_8_BYTE_OFFSET, CR_FP_TYPE_MD5, segs);
  ASSERT_EQ(r->GetHeaderSize(), 80 + n * (16 + 12 + 8));
  EXPECT_EQ(std::memcmp(r->GetSegmentFP(0), list.data(), list.size()), 0);
  for (size_t i : {size_t{0}, n / 2, n - 1}) {
    EXPECT_EQ(r->GetSegmentDCID(static_cast<unsigned int>(i)), segs[i].dcid) << i;
  }
  const std::vector<uint8_t> expected = crtest::Sealed(crtest::SerializedDO(
      CR_DO_TYPE_8_BYTE_OFFSET, FileSizeOf(segs), kSsize, 0x01020304, segs));
  const std::vector<uint8_t> serialized = SerializedByRecord(*r, true);
  ASSERT_EQ(serialized.size(), expected.size());
  EXPECT_TRUE(serialized == expected);

  // And rebuilt from it, again through the streaming writer.
  DORecord back(CR_DO_TYPE_8_BYTE_OFFSET, 2, 900, CR_FP_TYPE_MD5, nullptr, 0, serialized.data(),
                serialized.size(), false);
  ASSERT_EQ(back.GetHeaderSize(), r->GetHeaderSize());
  EXPECT_EQ(std::memcmp(back.GetSegmentFP(0), list.data(), list.size()), 0);
  EXPECT_EQ(std::memcmp(back.GetSegmentDCIDList(), r->GetSegmentDCIDList(), 8 * n), 0);
}

}  // namespace
