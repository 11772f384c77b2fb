// Serialization of DO records into the two exchange forms, the refusals of
// Serialize and SerializeInto, the release of the produced buffer, and the
// in-place byte-order conversion.
#include <gtest/gtest.h>

#include <vector>

#include "crrecord/DORecord.h"
#include "images.h"

namespace {

using crtest::SerializedBytes;

constexpr uint32_t kCrc = 0xA1B2C3D4;

// Every DO type with segments and the Bloom form with unique DCIDs are
// checked byte for byte by the round-trip test.
TEST(DOSerialize, EmptyFormsAreByteExact) {
  // An empty record is the head and one zero byte.
  crtest::Bytes image;
  image.be64(0).be64(4096).be32(kCrc).be32(0).be32(0).u8(0);
  DORecord r(3, 0x0002, 100, 1, nullptr, 0, image.data(), image.size(), false);
  EXPECT_EQ(SerializedBytes(r, false), image.vec());
  crtest::Bytes sealed;
  sealed.be64(0).be64(4096).be32(0x00010001).be32(0).be32(0).u8(0);
  EXPECT_EQ(SerializedBytes(r, true), sealed.vec());

  // A Bloom record without unique DCIDs leaves the block zero.
  const std::vector<uint8_t> bitmap = crtest::PatternBitmap(24);
  auto bloom = crtest::BuildBloom(bitmap, {}, 1, kCrc);
  const std::vector<uint8_t> expected = crtest::SerializedBloom(10000, 4096, bitmap, {});
  EXPECT_EQ(SerializedBytes(*bloom, true, true), expected);
  EXPECT_EQ(SerializedBytes(*bloom, true), expected);
}

// Refusals leave the outputs and the caller's buffer untouched.
TEST(DOSerialize, WrongTypeOrByteOrderOrNullArgumentsAreRefused) {
  int sentinel = 0;
  void* out = &sentinel;
  unsigned long size = 77;
  std::vector<uint8_t> buffer(4096);

  auto segments = crtest::BuildDO(2, 1, crtest::ThreeSegments(1));
  EXPECT_EQ(segments->SerializeBloomFilterDO(&out, &size, true), 9u);
  EXPECT_EQ(segments->SerializeInto(nullptr, buffer.size(), &size, false), 65u);
  EXPECT_EQ(segments->SerializeInto(buffer.data(), buffer.size(), nullptr, false), 65u);
  segments->HostToNetwork(0);
  EXPECT_EQ(segments->Serialize(&out, &size, false), 9u);
  EXPECT_EQ(segments->GetSerializedSize(), 0u);
  EXPECT_EQ(segments->SerializeInto(buffer.data(), buffer.size(), &size, false), 9u);

  auto bloom = crtest::BuildBloom(crtest::PatternBitmap(8), {});
  bloom->HostToNetwork(0);
  EXPECT_EQ(bloom->SerializeBloomFilterDO(&out, &size, false), 9u);
  EXPECT_EQ(bloom->Serialize(&out, &size, false), 9u);

  EXPECT_EQ(out, &sentinel);
  EXPECT_EQ(size, 77u);
  EXPECT_EQ(buffer, std::vector<uint8_t>(4096, 0));
  // Releasing nothing, or a pointer to nothing, is no fault.
  DORecord::SerializedDORecordFree(nullptr);
  out = nullptr;
  DORecord::SerializedDORecordFree(&out);
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
