// The DO record format: header layout, sizes, locators, validation, byte
// order conversion.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "images.h"

namespace {

using namespace crtest;

// A header image with fixed values in the fields the counts leave alone.
Bytes Image(uint32_t recsize, uint32_t ntaskid, uint32_t nfp, uint32_t nudcid, uint32_t nds,
            uint32_t trefsize, uint32_t bsize, uint8_t fptype, uint8_t dotype) {
  return HeaderImage(recsize, 77, 1000, 123456, 4096, 0xC0FFEE, 1111, 2222, ntaskid, nfp, nudcid,
                     nds, trefsize, bsize, fptype, dotype);
}

// An exactly sized heap copy, so that ASan sees any over-read.
struct Buffer {
  explicit Buffer(const Bytes& b) : m(Block(b.size(), b.data())), size(b.size()) {}
  DORecordHeader* h() const { return reinterpret_cast<DORecordHeader*>(m.get()); }
  std::vector<uint8_t> bytes() const { return BytesAt(m.get(), size); }
  Malloced m;
  size_t size;
};

// Sizes from the counts (ntaskid, nfp or bitmap bytes, nudcid, nds, DO type,
// fp type, trefsize), written out by hand (the plain size of each DO type and
// width is checked by the round-trip test): a unique-DCID list adds an 8-byte
// head and 16 bytes an entry, none when empty; Bloom: length word, bitmap, 16.
TEST(DORecordFormat, SizesFollowTheCounts) {
  struct Row {
    unsigned ntaskid, nfp, nudcid, nds;
    unsigned char dotype, fptype;
    unsigned trefsize;
    uint64_t size;
  };
  const Row rows[] = {
      {0, 0, 0, 0, 0, 1, 0, 80},
      {2, 7, 3, 5, 2, 1, 11, 80 + 16 + 7 * 28 + 56 + 20 + 11},
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
}

// A DO type 3 record with old lists, two segments and a unique-DCID list.
Bytes Type3Record() {
  Bytes udcid;
  udcid.le32(1).le64(64).le64(4196);
  Bytes b = Image(80 + 8 + 4 + 2 * 36 + 24, 1, 2, 1, 1, 0, 0, 1, 3);
  b.le64(0x0102030405060708ull)                                    // old task ID
      .le32(0x0A0B0C0D)                                            // old DSID
      .raw(PatternFP(0x10, 16).data(), 16).le32(4096).le64(0)      // segment 0
      .raw(PatternFP(0x30, 16).data(), 16).le32(100).le64(4096)    // segment 1
      .le64(64).le64(65)                                           // DCIDs
      .le32(SlowAdler32(udcid.data(), udcid.size()))
      .raw(udcid.data(), udcid.size());
  return b;
}

// Hton converts numbers and leaves bytes and containers alone; the record
// validates in either order, and the unique DCIDs' checksum is checked.
TEST(DORecordFormat, HtonAndValidateOfASoundRecord) {
  Bytes host = Type3Record(), net;
  net.be16(3).be16(2).be32(uint32_t(host.size())).le32(0).be32(77)
      .be64(1000).be64(123456).be64(4096).be32(0xC0FFEE).be32(1111).be32(2222)
      .be32(1).be32(2).be32(1).be32(1).be32(0).be32(0).u8(1).u8(3).zeros(2)
      .be64(0x0102030405060708ull).be32(0x0A0B0C0D)
      .raw(PatternFP(0x10, 16).data(), 16).be32(4096).be64(0)
      .raw(PatternFP(0x30, 16).data(), 16).be32(100).be64(4096)
      .le64(64).le64(65).raw(host.data() + host.size() - 20 - 4, 4).le32(1).le64(64).le64(4196);
  ASSERT_EQ(net.size(), host.size());
  Buffer buf(host);
  const uint32_t n = uint32_t(buf.size);
  EXPECT_EQ(DORecordHeaderValidate(buf.h(), n, 0), 0u);
  DORecordHeaderHton(buf.h());
  EXPECT_EQ(buf.bytes(), net.vec());
  EXPECT_EQ(DORecordHeaderValidate(buf.h(), n, CR_DO_VALIDATE_NETWORK_ORDER), 0u);
  EXPECT_EQ(DORecordHeaderValidate(buf.h(), n, 0), 32u);
  DORecordHeaderNtoh(buf.h());
  EXPECT_EQ(buf.bytes(), host.vec());
  buf.m.get()[n - 8] ^= 1;  // one bit of the byte count
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

// The texts of the short-buffer and record-size faults are the tool's tests'.
TEST(DORecordFormat, ValidateRefusesEachFaultWithItsTraceLine) {
  Bytes good = Image(80 + 24, 0, 1, 0, 0, 0, 0, 1, 0);
  good.zeros(16).le64(64);
  struct Case {
    size_t offset;  // byte overwritten
    std::vector<uint8_t> bytes;
    const char* trace;
  } cases[] = {
      {0, {2, 0}, "Invalid DO record: type 2, expected 3"},
      {2, {8, 0}, "Invalid DO record: flags 0x8, allowed 0x6"},
      {76, {9}, "Invalid DO record: invalid fp type 9"},
      {77, {6}, "Invalid DO record: invalid DO type 6"},
      {72, {1, 0, 0, 0}, "Invalid DO record: DO type 0 with 1 segments and a bitmap of 1 bytes"},
      {56, {2, 0, 0, 0}, "Invalid DO record: calculated size 128, size 104"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.trace);
    std::vector<uint8_t> v = good.vec();
    std::memcpy(&v[c.offset], c.bytes.data(), c.bytes.size());
    Buffer buf(Bytes().raw(v.data(), v.size()));
    LogCapture log(/*trace=*/true);
    EXPECT_EQ(DORecordHeaderValidate(buf.h(), 104, 0), 32u);
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_EQ(log.lines()[0].level, CR_LOG_TRACE);
    EXPECT_EQ(log.lines()[0].text, c.trace);
  }
  Buffer buf(good);
  LogCapture quiet(/*trace=*/false);
  EXPECT_EQ(DORecordHeaderValidate(buf.h(), 104, 0), 0u);
  EXPECT_EQ(DORecordHeaderValidate(buf.h(), 79, 0), 32u);  // one byte short of the header
  EXPECT_EQ(DORecordHeaderValidate(nullptr, 104, 0), 9u);
  EXPECT_EQ(DORecordHeaderValidate(buf.h(), 104, 2), 9u);
  EXPECT_TRUE(quiet.lines().empty());
}

}  // namespace
