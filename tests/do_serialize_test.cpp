// Serialization of DO records into the two exchange forms, the release of
// the produced buffer, and the in-place byte-order conversion.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <vector>

#include "crrecord/DORecord.h"
#include "serialized_form.h"
#include "test_support.h"

namespace {

using crtest::Seg;
using crtest::UEntry;

constexpr uint32_t kCrc = 0xA1B2C3D4;

std::unique_ptr<DORecord> Build(uint8_t dotype, uint8_t fptype) {
  const std::vector<Seg> segs = crtest::ThreeSegments(fptype);
  const crtest::Bytes list = crtest::SegmentList(dotype, segs);
  const unsigned long dcids[] = {segs[0].dcid, segs[1].dcid, segs[2].dcid};
  return std::make_unique<DORecord>(100, 10000, 4096, kCrc, 10, 20, list.data(), 3, dcids, nullptr,
                                    fptype, dotype);
}

std::unique_ptr<DORecord> BuildBloom(const std::vector<uint8_t>& bitmap,
                                     const std::vector<UEntry>& entries) {
  const std::vector<uint8_t> block = crtest::HostUniqueDcids(entries);
  return std::make_unique<DORecord>(
      100, 10000, 4096, kCrc, 10, 20, static_cast<unsigned int>(bitmap.size()), bitmap.data(),
      entries.empty() ? nullptr : reinterpret_cast<const char*>(block.data()), 1, 4);
}

// The serialized bytes, released at once.
std::vector<uint8_t> SerializeToVector(const DORecord& r, bool checksum, bool bloomCall = false) {
  void* out = nullptr;
  unsigned long size = 0;
  const cr_status_t status = bloomCall ? r.SerializeBloomFilterDO(&out, &size, checksum)
                                       : r.Serialize(&out, &size, checksum);
  EXPECT_EQ(status, 0u);
  if (out == nullptr) return {};
  const uint8_t* p = static_cast<const uint8_t*>(out);
  std::vector<uint8_t> bytes(p, p + size);
  DORecord::SerializedDORecordFree(&out);
  return bytes;
}

TEST(DOSerialize, EveryLayoutAndFingerprintWidthIsByteExact) {
  for (uint8_t fptype : {1, 3}) {
    for (uint8_t dotype : {0, 1, 2, 3, 5}) {
      SCOPED_TRACE(testing::Message() << "dotype " << int{dotype} << " fptype " << int{fptype});
      auto r = Build(dotype, fptype);
      const std::vector<uint8_t> plain =
          crtest::SerializedDO(dotype, 10000, 4096, kCrc, crtest::ThreeSegments(fptype));
      const std::vector<uint8_t> sealed = crtest::Sealed(plain);
      const std::vector<uint8_t> got = SerializeToVector(*r, false);
      const std::vector<uint8_t> gotSealed = SerializeToVector(*r, true);
      // 29 + n x (text field + per-type fields + DCID)
      const size_t perSegment[] = {41, 41, 45, 53, 0, 49};
      EXPECT_EQ(got.size(), 29 + 3 * (perSegment[dotype] + (fptype == 3 ? 32 : 0)));
      EXPECT_EQ(crtest::Hex(got.data(), got.size()), crtest::Hex(plain.data(), plain.size()));
      EXPECT_EQ(crtest::Hex(gotSealed.data(), gotSealed.size()),
                crtest::Hex(sealed.data(), sealed.size()));
    }
  }
}

TEST(DOSerialize, EmptyRecordIsTheHeadAndOneZeroByte) {
  crtest::Bytes image;
  image.be64(0).be64(4096).be32(0x1234).be32(0).be32(0).u8(0);
  DORecord r(3, 0x0002, 100, 1, nullptr, 0, image.data(), image.size(), false);

  EXPECT_EQ(SerializeToVector(r, false), image.vec());
  crtest::Bytes sealed;
  sealed.be64(0).be64(4096).be32(0x00010001).be32(0).be32(0).u8(0);
  EXPECT_EQ(SerializeToVector(r, true), sealed.vec());
}

TEST(DOSerialize, BloomFormIsByteExact) {
  const std::vector<uint8_t> bitmap = crtest::PatternBitmap(37);
  const std::vector<UEntry> entries = {{64, 8192}, {0x0102030405060708, 1808}};
  auto r = BuildBloom(bitmap, entries);

  const std::vector<uint8_t> expected = crtest::SerializedBloom(10000, 4096, bitmap, entries);
  ASSERT_EQ(expected.size(), 56u + 37 + 16 * 2);
  EXPECT_EQ(SerializeToVector(*r, false, true), expected);
  // Serialize hands a Bloom record on, whatever the checksum flag says.
  EXPECT_EQ(SerializeToVector(*r, false), expected);
  EXPECT_EQ(SerializeToVector(*r, true), expected);
}

TEST(DOSerialize, BloomWithoutUniqueDcidsLeavesTheBlockZero) {
  const std::vector<uint8_t> bitmap = crtest::PatternBitmap(24);
  auto r = BuildBloom(bitmap, {});
  const std::vector<uint8_t> bytes = SerializeToVector(*r, true);
  ASSERT_EQ(bytes.size(), 56u + 24);
  EXPECT_EQ(bytes, crtest::SerializedBloom(10000, 4096, bitmap, {}));
  EXPECT_EQ(crtest::Hex(bytes.data() + 32 + 24, 8), "0000000000000000");
}

TEST(DOSerialize, WrongTypeOrByteOrderIsRefusedWithOutputsUntouched) {
  int sentinel = 0;
  void* out = &sentinel;
  unsigned long size = 77;

  auto segments = Build(2, 1);
  EXPECT_EQ(segments->SerializeBloomFilterDO(&out, &size, true), 9u);
  segments->HostToNetwork(0);
  EXPECT_EQ(segments->Serialize(&out, &size, false), 9u);

  auto bloom = BuildBloom(crtest::PatternBitmap(8), {});
  bloom->HostToNetwork(0);
  EXPECT_EQ(bloom->SerializeBloomFilterDO(&out, &size, false), 9u);
  EXPECT_EQ(bloom->Serialize(&out, &size, false), 9u);

  EXPECT_EQ(out, &sentinel);
  EXPECT_EQ(size, 77u);
}

TEST(DOSerialize, SerializedDORecordFreeIgnoresNullAndClearsThePointer) {
  DORecord::SerializedDORecordFree(nullptr);
  void* none = nullptr;
  DORecord::SerializedDORecordFree(&none);
  EXPECT_EQ(none, nullptr);

  auto r = Build(0, 1);
  void* out = nullptr;
  unsigned long size = 0;
  ASSERT_EQ(r->Serialize(&out, &size, false), 0u);
  ASSERT_NE(out, nullptr);
  DORecord::SerializedDORecordFree(&out);  // the sanitizer reports a leak otherwise
  EXPECT_EQ(out, nullptr);
}

TEST(DOByteOrder, BitZeroRemovesTaskIDsInTheNewByteOrder) {
  auto r = Build(2, 1);
  const unsigned int bare = r->GetHeaderSize();
  r->AddTaskID(42ul);
  r->AddTaskID(43ul);
  ASSERT_GT(r->GetHeaderSize(), bare);

  r->HostToNetwork(0);  // other bits than bit 0 mean nothing either
  r->NetworkToHost(0xFFFFFFFE);
  EXPECT_EQ(r->GetNtaskid(), 2u);

  r->HostToNetwork(1);
  EXPECT_TRUE(r->IsInNetworkOrder());
  EXPECT_EQ(r->GetNtaskid(), 0u);
  // The sizes were rewritten big-endian, as the record now stands.
  EXPECT_EQ(r->GetHeaderSize(), bare);
  EXPECT_EQ(r->getTRefsSize(), 0u);
  const uint8_t* raw = reinterpret_cast<const uint8_t*>(r->GetHeader());
  EXPECT_EQ(crtest::Hex(raw + 4, 4), crtest::Hex(crtest::Bytes().be32(bare).data(), 4));

  r->NetworkToHost(0);
  r->AddTaskID(44ul);
  r->HostToNetwork(0);
  r->NetworkToHost(1);
  EXPECT_EQ(r->GetNtaskid(), 0u);
  EXPECT_EQ(r->GetHeaderSize(), bare);
  EXPECT_EQ(r->GetHeader()->recsize, bare);
}

}  // namespace
