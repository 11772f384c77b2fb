// Serialization into a caller's buffer: the exact size, the bytes Serialize
// gives, every byte written, nothing past the form, short buffers refused,
// and the record rebuilt from the caller's buffer.
#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "crrecord/DORecord.h"
#include "images.h"

namespace {

TEST(DOSerializeInto, WritesSerializesBytesExactlyAndRebuildsTheRecord) {
  const std::pair<uint8_t, uint8_t> shapes[] = {{0, 1}, {1, 3}, {2, 1}, {3, 1},
                                                {3, 3}, {5, 3}, {4, 1}, {4, 3}};
  for (const auto& [dotype, fptype] : shapes) {
    SCOPED_TRACE(testing::Message() << "DO type " << +dotype << ", fp type " << +fptype);
    const std::unique_ptr<DORecord> r =
        dotype == 4
            ? crtest::BuildBloom(crtest::PatternBitmap(24), {{64, 9000}, {70, 1000}}, fptype)
            : crtest::BuildDO(dotype, fptype, crtest::ThreeSegments(fptype), 0xC0FFEE);
    for (bool checksum : {false, true}) {
      const std::vector<uint8_t> expected = crtest::SerializedBytes(*r, checksum);
      ASSERT_EQ(r->GetSerializedSize(), expected.size());
      // Garbage first: every byte of the form must be written, none after it.
      std::vector<uint8_t> buffer(expected.size() + 16, 0xEE);
      unsigned long written = 0;
      ASSERT_EQ(r->SerializeInto(buffer.data(), buffer.size(), &written, checksum), 0u);
      ASSERT_EQ(written, expected.size());
      EXPECT_EQ(std::vector<uint8_t>(buffer.begin(), buffer.begin() + written), expected);
      EXPECT_EQ(std::vector<uint8_t>(buffer.begin() + written, buffer.end()),
                std::vector<uint8_t>(16, 0xEE));
      // One byte short: refused, nothing written.
      std::vector<uint8_t> shortBuffer(expected.size() - 1, 0xEE);
      EXPECT_EQ(r->SerializeInto(shortBuffer.data(), shortBuffer.size(), &written, checksum), 122u);
      EXPECT_EQ(shortBuffer, std::vector<uint8_t>(expected.size() - 1, 0xEE));
    }
    // Without the checksum the head carries the CRC, so the record rebuilt
    // from the caller's buffer, into a buffer of the caller's, is the
    // original. (A Bloom form always carries its Adler-32, and its list comes
    // back in the byte order it travelled in.)
    if (dotype == 4) continue;
    unsigned long written = 0;
    std::vector<uint8_t> form(r->GetSerializedSize());
    ASSERT_EQ(r->SerializeInto(form.data(), form.size(), &written, false), 0u);
    std::vector<uint64_t> record(r->getRecSize() / 8 + 1);
    const DORecord rebuilt(dotype, r->GetFlags(), r->GetDCID(), fptype, record.data(),
                           record.size() * 8, form.data(), written, false);
    EXPECT_TRUE(rebuilt == *r);
  }
}

TEST(DOSerializeInto, RefusesNetworkOrderAndNullArguments) {
  auto r = crtest::BuildDO(2, 1, crtest::ThreeSegments(1));
  std::vector<uint8_t> buffer(4096);
  unsigned long written = 0;
  EXPECT_EQ(r->SerializeInto(nullptr, buffer.size(), &written, false), 65u);
  EXPECT_EQ(r->SerializeInto(buffer.data(), buffer.size(), nullptr, false), 65u);
  r->HostToNetwork(0);
  EXPECT_EQ(r->GetSerializedSize(), 0u);
  EXPECT_EQ(r->SerializeInto(buffer.data(), buffer.size(), &written, false), 9u);
  EXPECT_EQ(buffer, std::vector<uint8_t>(4096, 0));
}

}  // namespace
