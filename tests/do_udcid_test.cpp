// The unique-DCID list: building it from a segment list, normalizing a Bloom
// record's list, and the per-container byte counts.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "crrecord/DORecord.h"
#include "serialized_form.h"
#include "test_support.h"

namespace {

using crtest::UEntry;
typedef std::map<unsigned long, unsigned long> SizeMap;

constexpr unsigned int kHeader = 80;
// A DO type 2 entry of a 16-byte fingerprint, and its DCID.
constexpr unsigned int kType2Segment = 16 + 4 + 8;

// DO type 2, sizes 100/200/300 in containers 500/70/500 (or `dcids`).
std::unique_ptr<DORecord> ThreeSizes(unsigned long cid = 100,
                                     std::vector<unsigned long> dcids = {500, 70, 500}) {
  crtest::Bytes list;
  const uint32_t sizes[] = {100, 200, 300};
  for (int i = 0; i < 3; ++i) {
    list.raw(crtest::PatternFP(static_cast<uint8_t>(0x10 * (i + 1)), 16).data(), 16);
    list.le32(sizes[i]);
  }
  return std::make_unique<DORecord>(cid, 600, 4096, 0, 10, 20, list.data(), 3, dcids.data(),
                                    nullptr, 1, 2);
}

// The section as it must stand in host order: checksum, count, entries.
std::string SectionImage(const std::vector<UEntry>& entries) {
  return crtest::Hex(crtest::HostUniqueDcids(entries).data(), 8 + 16 * entries.size());
}

std::string RecordHex(DORecord& record, size_t offset, size_t length) {
  return crtest::Hex(reinterpret_cast<const unsigned char*>(record.GetHeader()) + offset, length);
}

std::string WholeRecord(DORecord& record) { return RecordHex(record, 0, record.GetHeaderSize()); }

void ExpectLogged(const crtest::LogCapture& log, cr_status_t status, const std::string& text) {
  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_EQ(log.lines()[0].level, CR_LOG_ERROR);
  EXPECT_EQ(log.lines()[0].status, status);
  EXPECT_EQ(log.lines()[0].text, text);
}

TEST(UniqueDCIDList, DistinctContainersInAscendingOrder) {
  auto record = ThreeSizes();
  const unsigned int before = kHeader + 3 * kType2Segment;
  ASSERT_EQ(record->GetHeaderSize(), before);
  EXPECT_EQ(record->GetUDCIDSize(), 0u);

  ASSERT_EQ(record->AppendBloomAndUniqueDCIDList(), CR_STATUS_SUCCESS);
  EXPECT_EQ(record->GetNudcid(), 2u);
  EXPECT_EQ(record->GetHeaderSize(), before + 40);
  EXPECT_EQ(record->GetUDCIDSize(), 40u);
  EXPECT_EQ(RecordHex(*record, before, 40), SectionImage({{70, 200}, {500, 400}}));
  // Grown to exactly the size needed, owned, the mode as it was.
  EXPECT_EQ(record->GetAllocatedSize(), before + 40);
  EXPECT_TRUE(record->OwnsBuffer());
  EXPECT_EQ(record->GetBufferMode(), 2u);
  record->HostToNetwork(0);
  EXPECT_EQ(record->GetUDCIDSize(), 40u);
}

TEST(UniqueDCIDList, DerivedSizesOfTheOriginalType) {
  crtest::Bytes list;
  for (uint8_t seed : {1, 2, 3}) list.raw(crtest::PatternFP(seed, 16).data(), 16);
  const unsigned long dcids[] = {64, 64, 64};
  DORecord record(64, 10000, 4096, 0, 10, 20, list.data(), 3, dcids, nullptr, 1, 0);
  ASSERT_EQ(record.AppendBloomAndUniqueDCIDList(), CR_STATUS_SUCCESS);
  EXPECT_EQ(record.GetNudcid(), 1u);
  EXPECT_EQ(RecordHex(record, kHeader + 3 * (16 + 8), 24), SectionImage({{64, 10000}}));
}

TEST(UniqueDCIDList, SizesAreReadInTheRecordsByteOrder) {
  auto record = ThreeSizes();
  record->HostToNetwork(0);
  ASSERT_EQ(record->AppendBloomAndUniqueDCIDList(), CR_STATUS_SUCCESS);
  EXPECT_EQ(record->GetNudcid(), 2u);
  EXPECT_EQ(RecordHex(*record, 60, 4), "00000002");  // nudcid big-endian in the header
  EXPECT_EQ(RecordHex(*record, kHeader + 3 * kType2Segment, 40),
            SectionImage({{70, 200}, {500, 400}}));
}

TEST(UniqueDCIDList, ContainerBelow64IsRefusedNaming) {
  auto record = ThreeSizes(100, {500, 64, 500});
  record->SetSegmentDCID(1, 63);
  const std::string before = WholeRecord(*record);
  {
    crtest::LogCapture log;
    EXPECT_EQ(record->AppendBloomAndUniqueDCIDList(), CR_STATUS_INVALID);
    ExpectLogged(log, CR_STATUS_INVALID,
                 "AppendBloomAndUniqueDCIDList: Invalid DCID 63 for SO " +
                     crtest::Hex(crtest::PatternFP(0x20, 16).data(), 16) + " at index 1.");
  }
  EXPECT_EQ(WholeRecord(*record), before);

  record->SetSegmentDCID(1, 64);
  ASSERT_EQ(record->AppendBloomAndUniqueDCIDList(), CR_STATUS_SUCCESS);
  EXPECT_EQ(RecordHex(*record, kHeader + 3 * kType2Segment, 40),
            SectionImage({{64, 200}, {500, 400}}));
}

TEST(UniqueDCIDList, RecordWithoutSegmentsIsLeftAlone) {
  auto record = ThreeSizes();
  record->GetHeader()->nfp = 0;
  const std::string before = WholeRecord(*record);
  crtest::LogCapture log;
  EXPECT_EQ(record->AppendBloomAndUniqueDCIDList(), CR_STATUS_SUCCESS);
  EXPECT_EQ(WholeRecord(*record), before);
  EXPECT_EQ(record->GetNudcid(), 0u);
  EXPECT_TRUE(log.lines().empty());
}

TEST(UniqueDCIDList, RecordWithTypedReferencesIsRefused) {
  auto record = ThreeSizes();
  record->AddTaskID(7ul);
  const unsigned int size = record->GetHeaderSize();
  crtest::LogCapture log;
  EXPECT_EQ(record->AppendBloomAndUniqueDCIDList(), CR_STATUS_INVALID);
  ExpectLogged(log, CR_STATUS_INVALID,
               "AppendBloomAndUniqueDCIDList: TRef size should be zero bytes.");
  EXPECT_EQ(record->GetNudcid(), 0u);
  EXPECT_EQ(record->GetHeaderSize(), size);
}

TEST(UniqueDCIDList, BorrowedBufferIsReplacedByAnOwnedCopy) {
  auto source = ThreeSizes();
  const unsigned int size = source->GetHeaderSize();
  void* callers = std::malloc(size);
  std::memcpy(callers, source->GetHeader(), size);
  const std::string original = crtest::Hex(callers, size);
  {
    DORecord record(static_cast<DORecordHeader*>(callers), size, 1);
    ASSERT_EQ(record.AppendBloomAndUniqueDCIDList(), CR_STATUS_SUCCESS);
    EXPECT_NE(static_cast<void*>(record.GetHeader()), callers);
    EXPECT_TRUE(record.OwnsBuffer());
    EXPECT_EQ(record.GetBufferMode(), 1u);
    EXPECT_EQ(record.GetAllocatedSize(), size + 40);
    EXPECT_EQ(RecordHex(record, size, 40), SectionImage({{70, 200}, {500, 400}}));
  }
  EXPECT_EQ(crtest::Hex(callers, size), original);
  std::free(callers);
}

TEST(UniqueDCIDSizes, RecordsOwnBytesAreChargedToItsContainer) {
  const unsigned long body = 3 * kType2Segment + 40;  // everything behind the header
  auto listed = ThreeSizes(/*cid=*/500);
  ASSERT_EQ(listed->AppendBloomAndUniqueDCIDList(), CR_STATUS_SUCCESS);
  SizeMap sizes = {{1, 1}, {500, 9}};
  EXPECT_EQ(listed->GetUDCIDSizeList(sizes), CR_STATUS_SUCCESS);
  EXPECT_EQ(sizes, (SizeMap{{70, 200}, {500, 400 + body}}));

  auto elsewhere = ThreeSizes(/*cid=*/100);
  ASSERT_EQ(elsewhere->AppendBloomAndUniqueDCIDList(), CR_STATUS_SUCCESS);
  EXPECT_EQ(elsewhere->GetUDCIDSizeList(sizes), CR_STATUS_SUCCESS);
  EXPECT_EQ(sizes, (SizeMap{{70, 200}, {100, body}, {500, 400}}));
}

TEST(UniqueDCIDSizes, RecordWithoutListIsRefused) {
  auto record = ThreeSizes();
  SizeMap sizes = {{1, 1}};
  crtest::LogCapture log;
  EXPECT_EQ(record->GetUDCIDSizeList(sizes), CR_STATUS_INVALID_RECORD);
  ExpectLogged(log, CR_STATUS_INVALID_RECORD,
               "GetUDCIDSizeList: number of unique DCID can't be zero!");
  EXPECT_EQ(sizes, (SizeMap{{1, 1}}));
}

// --- Bloom DO records ----------------------------------------------------------------

const std::vector<uint8_t> kBitmap = crtest::PatternBitmap(6);
// Offsets in a Bloom record: length word, bitmap, 16 reserved bytes, section.
const size_t kBloomWord = kHeader;
const size_t kBloomSection = kHeader + 4 + 6 + 16;

std::unique_ptr<DORecord> BloomFromBitmap(const std::vector<UEntry>& entries,
                                          unsigned long cid = 100) {
  const std::vector<uint8_t> block = crtest::HostUniqueDcids(entries);
  return std::make_unique<DORecord>(cid, 1, 1, 0, 10, 20, static_cast<unsigned int>(kBitmap.size()),
                                    kBitmap.data(), reinterpret_cast<const char*>(block.data()), 1,
                                    4);
}

std::unique_ptr<DORecord> BloomFromSerialized(const std::vector<UEntry>& entries,
                                              unsigned long cid = 100) {
  const std::vector<uint8_t> form = crtest::SerializedBloom(1, 1, kBitmap, entries);
  return std::make_unique<DORecord>(4u, static_cast<unsigned short>(2), cid,
                                    static_cast<unsigned char>(1), nullptr, 0, form.data(),
                                    form.size(), false);
}

TEST(BloomUniqueDCIDList, HostOrderListIsSortedAndDeduplicatedOnce) {
  // A later entry of the same container replaces an earlier one.
  auto record = BloomFromBitmap({{500, 1}, {70, 2}, {500, 3}});
  SizeMap seen = {{1, 1}, {70, 9}};
  EXPECT_EQ(record->AppendBloom(seen), CR_STATUS_SUCCESS);
  EXPECT_EQ(seen, (SizeMap{{1, 1}, {70, 2}, {500, 3}}));

  ASSERT_EQ(record->AppendBloomAndUniqueDCIDList(), CR_STATUS_SUCCESS);
  EXPECT_EQ(record->GetNudcid(), 2u);
  EXPECT_EQ(record->GetHeaderSize(), kBloomSection + 40);
  EXPECT_EQ(RecordHex(*record, kBloomWord, 4), "06000000");
  EXPECT_EQ(RecordHex(*record, kBloomSection, 40), SectionImage({{70, 2}, {500, 3}}));

  const std::string once = WholeRecord(*record);
  ASSERT_EQ(record->AppendBloomAndUniqueDCIDList(), CR_STATUS_SUCCESS);
  EXPECT_EQ(WholeRecord(*record), once);
}

TEST(BloomUniqueDCIDList, BigEndianListFromTheSerializedFormIsNormalizedOnce) {
  auto record = BloomFromSerialized({{900, 7}, {80, 5}});
  ASSERT_EQ(RecordHex(*record, kBloomWord, 4), "00000006");  // as it travelled

  SizeMap seen = {{1, 1}, {80, 99}};
  EXPECT_EQ(record->AppendBloom(seen), CR_STATUS_SUCCESS);
  EXPECT_EQ(seen, (SizeMap{{1, 1}, {80, 5}, {900, 7}}));
  EXPECT_EQ(RecordHex(*record, kBloomWord, 4), "00000006");  // AppendBloom changes nothing

  ASSERT_EQ(record->AppendBloomAndUniqueDCIDList(), CR_STATUS_SUCCESS);
  EXPECT_EQ(RecordHex(*record, kBloomWord, 4), "06000000");
  EXPECT_EQ(RecordHex(*record, kBloomSection, 40), SectionImage({{80, 5}, {900, 7}}));

  const std::string once = WholeRecord(*record);
  ASSERT_EQ(record->AppendBloomAndUniqueDCIDList(), CR_STATUS_SUCCESS);
  EXPECT_EQ(WholeRecord(*record), once);

  SizeMap after;
  EXPECT_EQ(record->AppendBloom(after), CR_STATUS_SUCCESS);
  EXPECT_EQ(after, (SizeMap{{80, 5}, {900, 7}}));
}

TEST(BloomUniqueDCIDList, SizesAreReadInTheListsOrder) {
  const unsigned long body = 4 + 6 + 16 + 40;
  auto big = BloomFromSerialized({{900, 7}, {80, 5}}, /*cid=*/80);
  SizeMap sizes;
  EXPECT_EQ(big->GetUDCIDSizeList(sizes), CR_STATUS_SUCCESS);
  EXPECT_EQ(sizes, (SizeMap{{80, 5 + body}, {900, 7}}));

  auto host = BloomFromBitmap({{900, 7}, {80, 5}}, /*cid=*/80);
  sizes.clear();
  EXPECT_EQ(host->GetUDCIDSizeList(sizes), CR_STATUS_SUCCESS);
  EXPECT_EQ(sizes, (SizeMap{{80, 5 + body}, {900, 7}}));
}

TEST(BloomUniqueDCIDList, CountThatDisagreesWithTheHeaderIsRefused) {
  auto record = BloomFromBitmap({{500, 1}, {70, 2}});
  record->GetHeader()->nudcid = 1;
  const std::string before = WholeRecord(*record);
  crtest::LogCapture log;
  EXPECT_EQ(record->AppendBloomAndUniqueDCIDList(), CR_STATUS_INVALID);
  ExpectLogged(log, CR_STATUS_INVALID,
               "AppendBloomAndUniqueDCIDList: unique DCID count 2 does not match the header's 1.");
  EXPECT_EQ(WholeRecord(*record), before);
}

}  // namespace
