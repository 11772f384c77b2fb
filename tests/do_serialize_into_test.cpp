// Serialization into a caller's buffer: the exact size, the bytes Serialize
// gives, every byte written, nothing past the form, short buffers refused.
#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "crrecord/DORecord.h"
#include "images.h"

namespace {

struct Shape {
  uint8_t dotype;  // 4: a Bloom record
  uint8_t fptype;
};

std::unique_ptr<DORecord> Build(const Shape& s) {
  if (s.dotype == 4) {
    return crtest::BuildBloom(crtest::PatternBitmap(24), {{64, 9000}, {70, 1000}}, s.fptype);
  }
  return crtest::BuildDO(s.dotype, s.fptype, crtest::ThreeSegments(s.fptype), 0xC0FFEE);
}

TEST(DOSerializeInto, WritesSerializesBytesExactlyIntoAReusedBuffer) {
  for (const Shape s : {Shape{0, 1}, Shape{1, 3}, Shape{2, 1}, Shape{3, 1}, Shape{3, 3},
                        Shape{5, 3}, Shape{4, 1}, Shape{4, 3}}) {
    SCOPED_TRACE(testing::Message() << "DO type " << +s.dotype << ", fp type " << +s.fptype);
    const auto r = Build(s);
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
      written = 7;
      EXPECT_EQ(r->SerializeInto(shortBuffer.data(), shortBuffer.size(), &written, checksum),
                122u);
      EXPECT_EQ(shortBuffer, std::vector<uint8_t>(expected.size() - 1, 0xEE));
      EXPECT_EQ(written, 7u);
    }
  }
}

TEST(DOSerializeInto, RecordRebuiltFromTheCallersBufferEqualsTheOriginal) {
  const auto original = Build({3, 1});
  std::vector<uint8_t> form(original->GetSerializedSize());
  unsigned long written = 0;
  ASSERT_EQ(original->SerializeInto(form.data(), form.size(), &written, false), 0u);
  std::vector<uint64_t> recordBuffer(original->getRecSize() / 8 + 1);
  const DORecord rebuilt(3, original->GetFlags(), original->GetDCID(), 1, recordBuffer.data(),
                         recordBuffer.size() * 8, form.data(), written, false);
  EXPECT_TRUE(rebuilt == *original);
}

TEST(DOSerializeInto, RefusesNetworkOrderAndNullArguments) {
  auto r = Build({2, 1});
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
