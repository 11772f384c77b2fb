// Build -> serialize -> rebuild -> compare, for every DO type, both
// fingerprint widths, with and without the checksum, into a caller's buffer
// and into the record's own.
#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "crrecord/DORecord.h"
#include "serialized_form.h"
#include "test_support.h"

namespace {

using crtest::Seg;
using crtest::UEntry;

constexpr uint32_t kCrc = 0x0BADF00D;
const std::vector<UEntry> kEntries = {{64, 8192}, {70, 1808}};

std::unique_ptr<DORecord> Build(uint8_t dotype, uint8_t fptype) {
  if (dotype == 4) {
    const std::vector<uint8_t> bitmap = crtest::PatternBitmap(37);
    const std::vector<uint8_t> block = crtest::HostUniqueDcids(kEntries);
    return std::make_unique<DORecord>(100, 10000, 4096, kCrc, 10, 20, 37, bitmap.data(),
                                      reinterpret_cast<const char*>(block.data()), fptype, 4);
  }
  const std::vector<Seg> segs = crtest::ThreeSegments(fptype);
  const crtest::Bytes list = crtest::SegmentList(dotype, segs);
  const unsigned long dcids[] = {segs[0].dcid, segs[1].dcid, segs[2].dcid};
  return std::make_unique<DORecord>(100, 10000, 4096, kCrc, 10, 20, list.data(), 3, dcids, nullptr,
                                    fptype, dotype);
}

// The record size, from the layout.
size_t RecordSize(uint8_t dotype, uint8_t fptype) {
  if (dotype == 4) return 80 + 4 + 37 + 16 + 8 + 16 * kEntries.size();
  const size_t extra = dotype == 2 ? 4 : dotype == 3 ? 12 : dotype == 5 ? 8 : 0;
  return 80 + 3 * (crtest::FPWidth(fptype) + extra + 8);
}

std::vector<uint8_t> Serialized(const DORecord& r, bool checksum) {
  void* out = nullptr;
  unsigned long size = 0;
  EXPECT_EQ(r.Serialize(&out, &size, checksum), 0u);
  if (out == nullptr) return {};
  std::vector<uint8_t> bytes(static_cast<uint8_t*>(out), static_cast<uint8_t*>(out) + size);
  DORecord::SerializedDORecordFree(&out);
  return bytes;
}

// The text form with the given header fields (0 type ... 11 nfp) blanked.
std::string TextWithout(const DORecord& r, std::vector<int> blanked) {
  std::ostringstream os;
  r.ToStream(os, false);
  const std::string text = os.str();
  std::vector<std::string> fields;
  size_t start = 0;
  for (int k = 0; k < 12; ++k) {
    const size_t comma = text.find(',', start);
    if (comma == std::string::npos) break;
    fields.push_back(text.substr(start, comma - start));
    start = comma + 1;
  }
  for (int k : blanked) {
    if (k < static_cast<int>(fields.size())) fields[k] = "*";
  }
  std::string out;
  for (const std::string& f : fields) out += f + ",";
  return out + text.substr(start);
}

struct FreeDeleter {
  void operator()(void* p) const { std::free(p); }
};

TEST(DORoundTrip, EveryTypeWidthChecksumAndBuffer) {
  for (uint8_t dotype = 0; dotype <= 5; ++dotype) {
    for (uint8_t fptype : {1, 3}) {
      for (bool checksum : {false, true}) {
        for (bool callerBuffer : {false, true}) {
          SCOPED_TRACE(testing::Message()
                       << "dotype " << int{dotype} << " fptype " << int{fptype}
                       << (checksum ? " checksum" : "") << (callerBuffer ? " caller buffer" : ""));
          auto original = Build(dotype, fptype);
          const std::vector<uint8_t> bytes = Serialized(*original, checksum);
          ASSERT_FALSE(bytes.empty());

          const size_t recsize = RecordSize(dotype, fptype);
          std::unique_ptr<uint8_t, FreeDeleter> buffer(
              callerBuffer ? static_cast<uint8_t*>(std::malloc(recsize)) : nullptr);
          DORecord rebuilt(dotype, original->GetFlags(), original->GetDCID(), fptype, buffer.get(),
                           callerBuffer ? recsize : 0, bytes.data(), bytes.size(), false);
          EXPECT_EQ(rebuilt.OwnsBuffer(), !callerBuffer);
          EXPECT_EQ(rebuilt.GetHeaderSize(), recsize);
          EXPECT_EQ(DORecord::ValidateHeader(rebuilt.GetHeader(), rebuilt.GetHeaderSize(), 0), 0u);

          // The head carries the CRC, or in its place the body's Adler-32
          // (always so in the Bloom form).
          const bool sealed = checksum || dotype == 4;
          EXPECT_EQ(DORecordSerializedHasAdler32(bytes.data(), bytes.size()), sealed);
          if (sealed) {
            EXPECT_EQ(rebuilt.GetCrc(), crtest::SlowAdler32(bytes.data() + 28, bytes.size() - 28));
            EXPECT_FALSE(rebuilt == *original);
            EXPECT_EQ(TextWithout(rebuilt, {6, 7, 8}), TextWithout(*original, {6, 7, 8}));
          } else {
            EXPECT_TRUE(rebuilt == *original);
            EXPECT_FALSE(rebuilt != *original);
            EXPECT_EQ(TextWithout(rebuilt, {7, 8}), TextWithout(*original, {7, 8}));
          }

          EXPECT_EQ(Serialized(rebuilt, checksum), bytes);
        }
      }
    }
  }
}

// A rebuilt Bloom record holds its list big-endian; normalizing it turns the
// list to host order, and the serialized form stays the same throughout.
TEST(DORoundTrip, BloomListSerializesAlikeBeforeAndAfterNormalizing) {
  auto original = Build(4, 1);
  const std::vector<uint8_t> bytes = Serialized(*original, false);
  DORecord rebuilt(4, 0x0002, 100, 1, nullptr, 0, bytes.data(), bytes.size(), false);
  ASSERT_EQ(rebuilt.AppendBloomAndUniqueDCIDList(), 0u);
  EXPECT_EQ(Serialized(rebuilt, false), bytes);
  EXPECT_EQ(rebuilt.GetSegmentUDCID(0), 64u);
  EXPECT_EQ(rebuilt.GetSegmentUDCID(1), 70u);
}

}  // namespace
