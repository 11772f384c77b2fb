// The DO record format: header layout, sizes, locators, validation, byte
// order conversion.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "images.h"

namespace {

using namespace crtest;

constexpr size_t kHeader = 80;

// A header image with fixed values in the fields the counts leave alone.
Bytes Image(uint32_t recsize, uint32_t ntaskid, uint32_t nfp, uint32_t nudcid, uint32_t nds,
            uint32_t trefsize, uint32_t bsize, uint8_t fptype, uint8_t dotype) {
  return HeaderImage(recsize, 77, 1000, 123456, 4096, 0xC0FFEE, 1111, 2222, ntaskid, nfp, nudcid,
                     nds, trefsize, bsize, fptype, dotype);
}

// An exactly sized heap copy, so that ASan sees any over-read.
struct Buffer {
  explicit Buffer(const Bytes& b)
      : p(reinterpret_cast<unsigned char*>(MallocCopy(b.vec()))), size(b.size()) {}
  ~Buffer() { std::free(p); }
  DORecordHeader* h() const { return reinterpret_cast<DORecordHeader*>(p); }
  size_t off(const unsigned char* q) const { return static_cast<size_t>(q - p); }
  std::vector<uint8_t> bytes() const { return BytesAt(p, size); }
  unsigned char* p;
  size_t size;
};

// Sizes from the counts (ntaskid, nfp or bitmap bytes, nudcid, nds, DO type,
// fp type, trefsize), written out by hand: an entry is the fingerprint, the
// type's fields and an 8-byte DCID; a unique-DCID list adds an 8-byte head
// and 16 bytes an entry, none when empty; Bloom: length word, bitmap, 16.
TEST(DORecordFormat, SizesFollowTheCounts) {
  struct Row {
    unsigned ntaskid, nfp, nudcid, nds;
    unsigned char dotype, fptype;
    unsigned trefsize;
    uint64_t size;
  };
  const Row rows[] = {
      {0, 0, 0, 0, 0, 1, 0, 80},
      {0, 7, 0, 0, 0, 1, 0, 80 + 7 * 24},
      {0, 7, 0, 0, 1, 3, 0, 80 + 7 * 40},
      {2, 7, 3, 5, 2, 1, 11, 80 + 16 + 7 * 28 + 56 + 20 + 11},
      {0, 7, 0, 0, 3, 3, 0, 80 + 7 * 52},
      {0, 7, 0, 0, 5, 1, 0, 80 + 7 * 32},
      {0, 1, 0, 0, 2, 1, 0, 80 + 28},
      {0, 0xFFFFFFFFu, 0, 0, 3, 3, 0, 80 + uint64_t{0xFFFFFFFFu} * 52},  // no wrap at 2^32
      {0, 0, 0, 0, 4, 1, 9, 80 + 4 + 16 + 9},
      {0, 1024, 3, 0, 4, 3, 9, 80 + 4 + 1024 + 16 + 56 + 9},
      {1, 10, 1, 0, 4, 1, 3, 80 + 8 + 4 + 10 + 16 + 24 + 3},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(testing::Message() << "dotype " << int(r.dotype) << " nfp " << r.nfp);
    EXPECT_EQ(DORecordHeaderSizeRaw(r.ntaskid, r.nfp, r.nudcid, r.nds, r.dotype, r.fptype,
                                    r.trefsize),
              r.size);
    if (r.dotype == 4) {
      EXPECT_EQ(DORecordHeaderSizeWithBloom(r.ntaskid, r.nfp, r.nudcid, r.nds, 4, r.trefsize),
                r.size);
    }
  }
  EXPECT_EQ(DORecordAdler32("Wikipedia", 9), 0x11E60398u);
}

// Every locator for every DO type and both widths, with old lists present,
// in host order and after the header has been converted to network order.
TEST(DORecordFormat, LocatorsFindTheSamePlacesInEitherByteOrder) {
  const uint32_t ntaskid = 2, nds = 3, nfp = 3, nudcid = 2, trefsize = 5;
  for (unsigned char fptype : {1, 3}) {
    for (unsigned char dotype : {0, 1, 2, 3, 5}) {
      SCOPED_TRACE(testing::Message() << "fptype " << int(fptype) << " dotype " << int(dotype));
      const size_t w = FPWidth(fptype), e = w + EntryExtra(dotype);
      const size_t total =
          kHeader + 8 * ntaskid + 4 * nds + nfp * (e + 8) + 8 + 16 * nudcid + trefsize;
      Bytes image = Image(uint32_t(total), ntaskid, nfp, nudcid, nds, trefsize, 0, fptype, dotype);
      image.zeros(total - kHeader);
      Buffer buf(image);
      const size_t segs = kHeader + 8 * ntaskid + 4 * nds;
      for (int pass = 0; pass < 2; ++pass) {
        const DORecordHeader* h = buf.h();
        EXPECT_EQ(buf.off(DORecordHeaderIndexOfTaskId(h, 1)), kHeader + 8);
        EXPECT_EQ(buf.off(DORecordHeaderIndexOfDataSelection(h, 2)), kHeader + 16 + 8);
        EXPECT_EQ(buf.off(DORecordHeaderIndexOfSegment(h, 0)), segs);
        EXPECT_EQ(buf.off(DORecordHeaderIndexOfSegment(h, 2)), segs + 2 * e);
        EXPECT_EQ(buf.off(DORecordHeaderIndexOfSegmentSize(h, 1)), segs + e + w);
        EXPECT_EQ(buf.off(DORecordHeaderIndexOfSegmentOffset(h, 1)), segs + e + w + 4);
        EXPECT_EQ(buf.off(DORecordHeaderIndexOfSegmentObjectOffset(h, 1)), segs + e + w + 4);
        EXPECT_EQ(buf.off(DORecordHeaderIndexOfDCID(h, 0)), segs + nfp * e);
        EXPECT_EQ(buf.off(DORecordHeaderIndexOfDCID(h, nfp)), segs + nfp * e + 8 * nfp);
        EXPECT_EQ(DORecordHeaderStartUDCID(h), DORecordHeaderIndexOfDCID(h, nfp));
        EXPECT_EQ(buf.off(DORecordHeaderIndexOfUDCID(h, 1)), segs + nfp * (e + 8) + 8 + 16);
        EXPECT_EQ(buf.off(DORecordHeaderStartTRefs(h)), total - trefsize);
        EXPECT_EQ(buf.off(DORecordHeaderGetPOID(h)), 16u);
        if (pass == 0) DORecordHeaderHton(buf.h());
      }
    }
  }
}

TEST(DORecordFormat, BloomSectionLayout) {
  // header | old task ID | length word | bitmap (10) | 16 reserved | unique DCIDs (1) | trefs
  Bytes image = Image(0, 1, 0, 1, 0, 3, 10, 1, 4);
  image.zeros(8 + 4 + 10 + 16 + 24 + 3);
  Buffer buf(image);
  const DORecordHeader* h = buf.h();
  EXPECT_EQ(buf.off(DORecordHeaderGetBloomStart(h)), kHeader + 8);
  EXPECT_EQ(buf.off(DORecordHeaderStartBFBitmap(h)), kHeader + 8);
  EXPECT_EQ(buf.off(DORecordHeaderGetBloom(h)), kHeader + 12);
  EXPECT_EQ(buf.off(DORecordHeaderStartUDCID(h)), kHeader + 8 + 4 + 10 + 16);
  EXPECT_EQ(buf.off(DORecordHeaderStartTRefs(h)), kHeader + 8 + 4 + 10 + 16 + 24);
}

// A DO type 3 record with old lists, two segments and a unique-DCID list
// whose checksum is sealed when `sealed`, else left as 0x11111111.
Bytes Type3Record(bool sealed) {
  Bytes udcid;
  udcid.le32(1).le64(64).le64(4196);
  Bytes b = Image(80 + 8 + 4 + 2 * 36 + 24, 1, 2, 1, 1, 0, 0, 1, 3);
  b.le64(0x0102030405060708ull)                                    // old task ID
      .le32(0x0A0B0C0D)                                            // old DSID
      .raw(PatternFP(0x10, 16).data(), 16).le32(4096).le64(0)      // segment 0
      .raw(PatternFP(0x30, 16).data(), 16).le32(100).le64(4096)    // segment 1
      .le64(64).le64(65)                                           // DCIDs
      .le32(sealed ? SlowAdler32(udcid.data(), udcid.size()) : 0x11111111)
      .raw(udcid.data(), udcid.size());
  return b;
}

TEST(DORecordFormat, HtonConvertsNumbersAndLeavesBytesAndContainersAlone) {
  Bytes host = Type3Record(false), net;
  net.be16(3).be16(2).be32(uint32_t(host.size())).le32(0).be32(77)
      .be64(1000).be64(123456).be64(4096).be32(0xC0FFEE).be32(1111).be32(2222)
      .be32(1).be32(2).be32(1).be32(1).be32(0).be32(0).u8(1).u8(3).zeros(2)
      .be64(0x0102030405060708ull).be32(0x0A0B0C0D)
      .raw(PatternFP(0x10, 16).data(), 16).be32(4096).be64(0)
      .raw(PatternFP(0x30, 16).data(), 16).be32(100).be64(4096)
      .le64(64).le64(65).le32(0x11111111).le32(1).le64(64).le64(4196);
  ASSERT_EQ(net.size(), host.size());
  Buffer buf(host);
  DORecordHeaderHton(buf.h());
  EXPECT_EQ(buf.bytes(), net.vec());
  DORecordHeaderNtoh(buf.h());
  EXPECT_EQ(buf.bytes(), host.vec());
}

TEST(DORecordFormat, ValidateAcceptsASoundRecordInEitherOrderAndChecksTheUniqueDCIDs) {
  Buffer buf(Type3Record(true));
  const uint32_t n = uint32_t(buf.size);
  EXPECT_EQ(DORecordHeaderValidate(buf.h(), n, 0), 0u);
  DORecordHeaderHton(buf.h());
  EXPECT_EQ(DORecordHeaderValidate(buf.h(), n, CR_DO_VALIDATE_NETWORK_ORDER), 0u);
  EXPECT_EQ(DORecordHeaderValidate(buf.h(), n, 0), 32u);
  DORecordHeaderNtoh(buf.h());
  buf.p[n - 8] ^= 1;  // one bit of the byte count
  EXPECT_EQ(DORecordHeaderValidate(buf.h(), n, 0), 32u);

  // A Bloom record's length word tells the bitmap size in either byte order.
  for (uint32_t word : {0x00000002u, 0x02000000u, 0x00000003u}) {
    Buffer bloom(Image(80 + 4 + 2 + 16, 0, 0, 0, 0, 0, 2, 1, 4).le32(word).zeros(2 + 16));
    LogCapture log(/*trace=*/true);
    EXPECT_EQ(DORecordHeaderValidate(bloom.h(), 80 + 4 + 2 + 16, 0), word == 3 ? 32u : 0u);
    EXPECT_EQ(log.texts(), word == 3 ? std::vector<std::string>{"Invalid DO record: Bloom "
                                                                "length word 3, bitmap size 2"}
                                     : std::vector<std::string>{});
  }
}

TEST(DORecordFormat, ValidateRefusesEachFaultWithItsTraceLine) {
  Bytes good = Image(80 + 24, 0, 1, 0, 0, 0, 0, 1, 0);
  good.zeros(16).le64(64);
  struct Case {
    size_t offset;  // byte to overwrite (SIZE_MAX: none)
    std::vector<uint8_t> bytes;
    unsigned int length;
    const char* trace;
  } cases[] = {
      {SIZE_MAX, {}, 79, "Invalid DO record: size 79, expected at least 80"},
      {0, {2, 0}, 104, "Invalid DO record: type 2, expected 3"},
      {4, {105, 0, 0, 0}, 104, "Invalid DO record: recsize 105, size 104"},
      {2, {8, 0}, 104, "Invalid DO record: flags 0x8, allowed 0x6"},
      {76, {9}, 104, "Invalid DO record: invalid fp type 9"},
      {77, {6}, 104, "Invalid DO record: invalid DO type 6"},
      {72, {1, 0, 0, 0}, 104,
       "Invalid DO record: DO type 0 with 1 segments and a bitmap of 1 bytes"},
      {56, {2, 0, 0, 0}, 104, "Invalid DO record: calculated size 128, size 104"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.trace);
    std::vector<uint8_t> v = good.vec();
    if (c.offset != SIZE_MAX) std::memcpy(&v[c.offset], c.bytes.data(), c.bytes.size());
    Bytes image;
    Buffer buf(image.raw(v.data(), c.length));
    LogCapture log(/*trace=*/true);
    EXPECT_EQ(DORecordHeaderValidate(buf.h(), c.length, 0), 32u);
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_EQ(log.lines()[0].level, CR_LOG_TRACE);
    EXPECT_EQ(log.lines()[0].text, c.trace);
  }
  Buffer buf(good);
  LogCapture quiet(/*trace=*/false);
  EXPECT_EQ(DORecordHeaderValidate(buf.h(), 104, 0), 0u);
  EXPECT_EQ(DORecordHeaderValidate(nullptr, 104, 0), 9u);
  EXPECT_EQ(DORecordHeaderValidate(buf.h(), 104, 2), 9u);
  EXPECT_TRUE(quiet.lines().empty());
}

}  // namespace
