// Build -> serialize -> rebuild -> compare, for every DO type, both
// fingerprint widths, with and without the checksum, into a caller's buffer
// (SerializeInto, then the reader) and into the record's own (Serialize);
// the serialized bytes checked against the form written out by hand.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "crrecord/DORecord.h"
#include "images.h"

namespace {

using crtest::SerializedBytes;
using crtest::UEntry;

constexpr uint32_t kCrc = 0x0BADF00D;
const std::vector<UEntry> kEntries = {{64, 8192}, {0x0102030405060708, 1808}};

// The three segments of a 10000-byte file, or, for a large row, n segments
// of 1000 to 9000 bytes back to back in 50 containers: more than one piece
// of 512 for the batch paths.
std::vector<crtest::Seg> Segments(uint8_t fptype, size_t n) {
  if (n == 3) return crtest::ThreeSegments(fptype);
  std::vector<crtest::Seg> segs;
  uint64_t at = 0;
  for (size_t k = 0; k < n; ++k) {
    const uint32_t size = 1000 + static_cast<uint32_t>(k * 7919 % 8001);
    segs.push_back({crtest::PatternFP(static_cast<uint8_t>(k * 13), crtest::FPWidth(fptype)),
                    size, at, static_cast<uint32_t>(at), 64 + 1000 * (k % 50)});
    at += size;
  }
  return segs;
}
uint64_t FileSize(const std::vector<crtest::Seg>& segs) {
  return segs.back().offset + segs.back().size;
}

std::unique_ptr<DORecord> Build(uint8_t dotype, uint8_t fptype, size_t n = 3) {
  if (dotype == 4) return crtest::BuildBloom(crtest::PatternBitmap(37), kEntries, fptype, kCrc);
  const std::vector<crtest::Seg> segs = Segments(fptype, n);
  return crtest::BuildDO(dotype, fptype, segs, kCrc, 100, FileSize(segs));
}

struct Row {
  uint8_t dotype, fptype;
  size_t segments;
};
// The large rows, then every DO type in both widths.
const Row kRows[] = {{3, 3, 1500}, {2, 1, 1500}, {0, 1, 3}, {0, 3, 3}, {1, 1, 3}, {1, 3, 3},
                     {2, 1, 3},    {2, 3, 3},    {3, 1, 3}, {3, 3, 3}, {4, 1, 3}, {4, 3, 3},
                     {5, 1, 3},    {5, 3, 3}};

TEST(DORoundTrip, EveryTypeWidthChecksumAndBuffer) {
  for (const Row& row : kRows) {
    const uint8_t dotype = row.dotype, fptype = row.fptype;
    const std::vector<crtest::Seg> segs = Segments(fptype, row.segments);
    for (bool checksum : {false, true}) {
      for (bool callerBuffer : {false, true}) {
        SCOPED_TRACE(testing::Message()
                     << "dotype " << int{dotype} << " fptype " << int{fptype} << " segments "
                     << row.segments
                     << (checksum ? " checksum" : "") << (callerBuffer ? " caller buffer" : ""));
        auto original = Build(dotype, fptype, row.segments);
        std::vector<uint8_t> bytes = SerializedBytes(*original, checksum);
        // Into a caller's buffer the bytes come from SerializeInto instead: a
        // byte short is refused untouched, and nothing is written past the form.
        if (callerBuffer) {
          std::vector<uint8_t> into(original->GetSerializedSize() + 16, 0xEE);
          unsigned long written = 0;
          EXPECT_EQ(original->SerializeInto(into.data(), into.size() - 17, &written, checksum),
                    122u);
          EXPECT_EQ(into, std::vector<uint8_t>(into.size(), 0xEE));
          ASSERT_EQ(original->SerializeInto(into.data(), into.size() - 16, &written, checksum), 0u);
          ASSERT_EQ(written, into.size() - 16);
          EXPECT_EQ(std::vector<uint8_t>(into.begin() + written, into.end()),
                    std::vector<uint8_t>(16, 0xEE));
          bytes.assign(into.begin(), into.begin() + written);
        }
        if (dotype == 4) {
          // Serialize hands a Bloom record on, whatever the checksum flag says.
          EXPECT_EQ(bytes,
                    crtest::SerializedBloom(10000, 4096, crtest::PatternBitmap(37), kEntries));
          EXPECT_EQ(SerializedBytes(*original, checksum, true), bytes);
        } else {
          const std::vector<uint8_t> plain =
              crtest::SerializedDO(dotype, FileSize(segs), 4096, kCrc, segs);
          const std::vector<uint8_t> expected = checksum ? crtest::Sealed(plain) : plain;
          EXPECT_EQ(crtest::Hex(bytes.data(), bytes.size()),
                    crtest::Hex(expected.data(), expected.size()));
        }
        ASSERT_FALSE(bytes.empty());

        const size_t recsize = dotype == 4 ? 80 + 4 + 37 + 16 + 8 + 16 * kEntries.size()
                                           : crtest::PlainRecordSize(dotype, fptype, segs.size());
        crtest::Malloced buffer = callerBuffer ? crtest::Block(recsize) : nullptr;
        DORecord rebuilt(dotype, original->GetFlags(), original->GetDCID(), fptype, buffer.get(),
                         callerBuffer ? recsize : 0, bytes.data(), bytes.size(), false);
        // A caller's buffer is borrowed (mode 1) and the record built in it.
        EXPECT_EQ(rebuilt.OwnsBuffer(), !callerBuffer);
        EXPECT_EQ(rebuilt.GetBufferMode(), callerBuffer ? 1u : 2u);
        EXPECT_EQ(reinterpret_cast<uint8_t*>(rebuilt.GetHeader()) == buffer.get(), callerBuffer);
        EXPECT_EQ(rebuilt.GetHeaderSize(), recsize);
        EXPECT_EQ(DORecord::ValidateHeader(rebuilt.GetHeader(), rebuilt.GetHeaderSize(), 0), 0u);

        // The head carries the CRC, or in its place the body's Adler-32
        // (always so in the Bloom form).
        const bool sealed = checksum || dotype == 4;
        EXPECT_EQ(DORecordSerializedHasAdler32(bytes.data(), bytes.size()), sealed);
        if (sealed) {
          EXPECT_EQ(rebuilt.GetCrc(), crtest::SlowAdler32(bytes.data() + 28, bytes.size() - 28));
          EXPECT_FALSE(rebuilt == *original);
        } else {
          EXPECT_TRUE(rebuilt == *original);
          EXPECT_FALSE(rebuilt != *original);
        }
        EXPECT_EQ(SerializedBytes(rebuilt, checksum), bytes);
      }
    }
  }
}

// A rebuilt Bloom record holds its list big-endian; normalizing it turns the
// list to host order, and the serialized form stays the same throughout.
TEST(DORoundTrip, BloomListSerializesAlikeBeforeAndAfterNormalizing) {
  const std::vector<uint8_t> bytes = SerializedBytes(*Build(4, 1), false);
  DORecord rebuilt(4, 0x0002, 100, 1, nullptr, 0, bytes.data(), bytes.size(), false);
  ASSERT_EQ(rebuilt.AppendBloomAndUniqueDCIDList(), 0u);
  EXPECT_EQ(SerializedBytes(rebuilt, false), bytes);
  EXPECT_EQ(rebuilt.GetSegmentUDCID(0), 64u);
  EXPECT_EQ(rebuilt.GetSegmentUDCID(1), 0x0102030405060708u);
}

}  // namespace
