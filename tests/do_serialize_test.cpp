// Serialization of DO records into the two exchange forms, the release of
// the produced buffer, and the in-place byte-order conversion.
#include <gtest/gtest.h>

#include <vector>

#include "crrecord/DORecord.h"
#include "serialized_form.h"
#include "test_support.h"

namespace {

using crtest::SerializedBytes;
using crtest::UEntry;

constexpr uint32_t kCrc = 0xA1B2C3D4;

TEST(DOSerialize, EveryLayoutAndFingerprintWidthIsByteExact) {
  for (uint8_t fptype : {1, 3}) {
    for (uint8_t dotype : {0, 1, 2, 3, 5}) {
      SCOPED_TRACE(testing::Message() << "dotype " << int{dotype} << " fptype " << int{fptype});
      auto r = crtest::BuildDO(dotype, fptype, crtest::ThreeSegments(fptype), kCrc);
      const std::vector<uint8_t> plain =
          crtest::SerializedDO(dotype, 10000, 4096, kCrc, crtest::ThreeSegments(fptype));
      const std::vector<uint8_t> got = SerializedBytes(*r, false);
      // 29 + n x (text field + per-type fields + DCID)
      const size_t perSegment[] = {41, 41, 45, 53, 0, 49};
      EXPECT_EQ(got.size(), 29 + 3 * (perSegment[dotype] + (fptype == 3 ? 32 : 0)));
      EXPECT_EQ(crtest::Hex(got.data(), got.size()), crtest::Hex(plain.data(), plain.size()));
      EXPECT_EQ(SerializedBytes(*r, true), crtest::Sealed(plain));
    }
  }
  // An empty record is the head and one zero byte.
  crtest::Bytes image;
  image.be64(0).be64(4096).be32(0x1234).be32(0).be32(0).u8(0);
  DORecord r(3, 0x0002, 100, 1, nullptr, 0, image.data(), image.size(), false);
  EXPECT_EQ(SerializedBytes(r, false), image.vec());
  crtest::Bytes sealed;
  sealed.be64(0).be64(4096).be32(0x00010001).be32(0).be32(0).u8(0);
  EXPECT_EQ(SerializedBytes(r, true), sealed.vec());
}

TEST(DOSerialize, BloomFormIsByteExactWithAndWithoutUniqueDcids) {
  const std::vector<UEntry> entries = {{64, 8192}, {0x0102030405060708, 1808}};
  for (const std::vector<UEntry>& list : {entries, std::vector<UEntry>{}}) {
    const std::vector<uint8_t> bitmap = crtest::PatternBitmap(list.empty() ? 24 : 37);
    auto r = crtest::BuildBloom(bitmap, list, 1, kCrc);
    const std::vector<uint8_t> expected = crtest::SerializedBloom(10000, 4096, bitmap, list);
    ASSERT_EQ(expected.size(), 56u + bitmap.size() + 16 * list.size());
    EXPECT_EQ(SerializedBytes(*r, false, true), expected);
    // Serialize hands a Bloom record on, whatever the checksum flag says.
    EXPECT_EQ(SerializedBytes(*r, false), expected);
    EXPECT_EQ(SerializedBytes(*r, true), expected);
  }
}

TEST(DOSerialize, WrongTypeOrByteOrderIsRefusedWithOutputsUntouched) {
  int sentinel = 0;
  void* out = &sentinel;
  unsigned long size = 77;

  auto segments = crtest::BuildDO(2, 1, crtest::ThreeSegments(1));
  EXPECT_EQ(segments->SerializeBloomFilterDO(&out, &size, true), 9u);
  segments->HostToNetwork(0);
  EXPECT_EQ(segments->Serialize(&out, &size, false), 9u);

  auto bloom = crtest::BuildBloom(crtest::PatternBitmap(8), {});
  bloom->HostToNetwork(0);
  EXPECT_EQ(bloom->SerializeBloomFilterDO(&out, &size, false), 9u);
  EXPECT_EQ(bloom->Serialize(&out, &size, false), 9u);

  EXPECT_EQ(out, &sentinel);
  EXPECT_EQ(size, 77u);
}

TEST(DOSerialize, SerializedDORecordFreeIgnoresNullAndClearsThePointer) {
  DORecord::SerializedDORecordFree(nullptr);
  void* out = nullptr;
  DORecord::SerializedDORecordFree(&out);
  EXPECT_EQ(out, nullptr);

  unsigned long size = 0;
  ASSERT_EQ(crtest::BuildDO(0, 1, crtest::ThreeSegments(1))->Serialize(&out, &size, false), 0u);
  ASSERT_NE(out, nullptr);
  DORecord::SerializedDORecordFree(&out);  // the sanitizer reports a leak otherwise
  EXPECT_EQ(out, nullptr);
}

TEST(DOByteOrder, BitZeroRemovesTaskIDsInTheNewByteOrder) {
  auto r = crtest::BuildDO(2, 1, crtest::ThreeSegments(1));
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
