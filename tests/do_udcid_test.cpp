// The unique-DCID list: building it from a segment list, normalizing a Bloom
// record's list, and the per-container byte counts.
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "crrecord/DORecord.h"
#include "images.h"

namespace crtest {
bool operator==(const UEntry& a, const UEntry& b) { return a.dcid == b.dcid && a.bytes == b.bytes; }
}  // namespace crtest

namespace {

using crtest::UEntry;
typedef std::map<unsigned long, unsigned long> SizeMap;
typedef std::vector<unsigned long> Longs;

// Behind the header of a DO type 2 record of three 16-byte fingerprints.
constexpr unsigned int kType2Section = 80 + 3 * (16 + 4 + 8);

// DO type 2, sizes 100/200/300 in containers 500/70/500 (or `dcids`).
std::unique_ptr<DORecord> ThreeSizes(unsigned long cid = 100,
                                     std::vector<unsigned long> dcids = {500, 70, 500}) {
  std::vector<crtest::Seg> segs;
  for (uint32_t i = 0; i < 3; ++i) {
    segs.push_back({crtest::PatternFP(static_cast<uint8_t>(0x10 * (i + 1)), 16), 100 * (i + 1), 0,
                    0, dcids[i]});
  }
  return crtest::BuildDO(2, 1, segs, 0, cid, 600);
}

// The section as it must stand in host order: checksum, count, entries.
std::string SectionImage(const std::vector<UEntry>& entries) {
  return crtest::Hex(crtest::UniqueDcidBlock(entries, false).data(), 8 + 16 * entries.size());
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

const std::vector<uint8_t> kBitmap = crtest::PatternBitmap(6);
// Offsets in a Bloom record: length word, bitmap, 16 reserved bytes, section.
const size_t kBloomWord = 80;
const size_t kBloomSection = 80 + 4 + 6 + 16;

std::unique_ptr<DORecord> BloomFromSerialized(const std::vector<UEntry>& entries,
                                              unsigned long cid = 100) {
  const std::vector<uint8_t> form = crtest::SerializedBloom(1, 1, kBitmap, entries);
  return std::make_unique<DORecord>(4u, static_cast<unsigned short>(2), cid,
                                    static_cast<unsigned char>(1), nullptr, 0, form.data(),
                                    form.size(), false);
}

// Built lists hold the distinct containers in ascending order, in host order
// whatever the record's order, right behind the segment list; the buffer
// grows to exactly the size needed. A borrowed buffer is replaced by an owned
// copy and the caller's bytes are left alone. Refusals log their cause,
// change nothing (an invalid DCID is the large-record test's).
TEST(UniqueDCIDList, BuiltFromTheSegmentListOrRefused) {
  enum Change { kNone, kNetwork, kOriginal, kTaskID, kBloomCount, kNoSegments, kBorrowed };
  struct Row {
    Change change;
    std::vector<unsigned long> dcids;
    cr_status_t status;
    std::string message;  // logged; empty: nothing is
    std::vector<UEntry> entries;
  };
  const std::string head = "AppendBloomAndUniqueDCIDList: ";
  const Row rows[] = {
      {kNone, {500, 70, 500}, 0, "", {{70, 200}, {500, 400}}},
      {kNetwork, {500, 70, 500}, 0, "", {{70, 200}, {500, 400}}},
      {kNone, {500, 64, 500}, 0, "", {{64, 200}, {500, 400}}},  // the lowest valid container
      {kOriginal, {64, 64, 64}, 0, "", {{64, 10000}}},  // DO type 0: sizes derived
      {kTaskID, {500, 70, 500}, 9, head + "TRef size should be zero bytes.", {}},
      {kBloomCount, {}, 9, head + "unique DCID count 2 does not match the header's 1.", {}},
      {kNoSegments, {500, 70, 500}, 0, "", {}},  // left alone
      {kBorrowed, {500, 70, 500}, 0, "", {{70, 200}, {500, 400}}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.change);
    crtest::Malloced callers;
    std::unique_ptr<DORecord> record;
    if (row.change == kOriginal) {
      std::vector<crtest::Seg> segs = crtest::ThreeSegments(1);
      for (crtest::Seg& s : segs) s.dcid = 64;
      record = crtest::BuildDO(0, 1, segs, 0, 64);
    } else if (row.change == kBloomCount) {
      record = crtest::BuildBloom(kBitmap, {{500, 1}, {70, 2}});
      record->GetHeader()->nudcid = 1;
    } else {
      record = ThreeSizes(100, row.dcids);
      EXPECT_EQ(record->GetUDCIDSize(), 0u);
    }
    if (row.change == kBorrowed) {  // the same bytes, lent by the caller
      const unsigned int n = record->GetHeaderSize();
      callers = crtest::Block(n, reinterpret_cast<const uint8_t*>(record->GetHeader()));
      record = std::make_unique<DORecord>(reinterpret_cast<DORecordHeader*>(callers.get()), n, 1);
    }
    if (row.change == kNetwork) record->HostToNetwork(0);
    if (row.change == kTaskID) record->AddTaskID(7ul);
    if (row.change == kNoSegments) record->GetHeader()->nfp = 0;
    const std::string before = WholeRecord(*record);
    const unsigned int size = record->GetHeaderSize();
    crtest::LogCapture log;
    EXPECT_EQ(record->AppendBloomAndUniqueDCIDList(), row.status);
    if (row.message.empty()) {
      EXPECT_TRUE(log.lines().empty());
    } else {
      ExpectLogged(log, row.status, row.message);
    }
    if (row.entries.empty()) {
      EXPECT_EQ(WholeRecord(*record), before);
      continue;
    }
    const unsigned int added = 8 + 16 * static_cast<unsigned int>(row.entries.size());
    const char n = static_cast<char>('0' + row.entries.size());
    EXPECT_EQ(RecordHex(*record, 60, 4), row.change == kNetwork ? std::string("0000000") + n
                                                                : std::string("0") + n + "000000");
    EXPECT_EQ(RecordHex(*record, size, added), SectionImage(row.entries));
    EXPECT_EQ((Longs{record->GetNudcid(), record->GetUDCIDSize(), record->GetAllocatedSize(),
                     record->GetHeaderSize(), record->OwnsBuffer(), record->GetBufferMode()}),
              (Longs{row.entries.size(), added, size + added, size + added, 1,
                     row.change == kBorrowed ? 1ul : 2ul}));
    if (callers) {
      EXPECT_EQ(crtest::Hex(callers.get(), size), before);
    }
  }
}

TEST(BloomUniqueDCIDList, ListIsSortedDeduplicatedAndNormalizedOnce) {
  struct Case {
    const char* what;
    std::unique_ptr<DORecord> record;
    const char* word;  // the length word before normalizing
    const char* mark;  // the Bloom section's reserved bytes before normalizing
    SizeMap seen, merged;
    std::vector<UEntry> sorted;
  };
  const std::string zero(32, '0'), big = "4245" + std::string(28, '0');
  Case cases[] = {
      // A later entry of the same container replaces an earlier one.
      {"host order", crtest::BuildBloom(kBitmap, {{500, 1}, {70, 2}, {500, 3}}), "06000000",
       zero.c_str(), {{1, 1}, {70, 9}}, {{1, 1}, {70, 2}, {500, 3}}, {{70, 2}, {500, 3}}},
      {"big-endian from the serialized form", BloomFromSerialized({{900, 7}, {80, 5}}),
       "00000006", big.c_str(), {{1, 1}, {80, 99}}, {{1, 1}, {80, 5}, {900, 7}},
       {{80, 5}, {900, 7}}},
  };
  for (Case& c : cases) {
    SCOPED_TRACE(c.what);
    DORecord& record = *c.record;
    const std::string word = c.word;
    const std::string swapped = word.substr(6, 2) + word.substr(4, 2) + word.substr(2, 2) +
                                word.substr(0, 2);
    ASSERT_EQ(RecordHex(record, kBloomWord, 4), word);
    ASSERT_EQ(RecordHex(record, kBloomWord + 4 + 6, 16), c.mark);
    // AppendBloom swaps the length word, each time, and reads the list in
    // the order the reserved bytes mark, which it leaves alone.
    EXPECT_EQ(record.AppendBloom(c.seen), CR_STATUS_SUCCESS);
    EXPECT_EQ(c.seen, c.merged);
    EXPECT_EQ(RecordHex(record, kBloomWord, 4), swapped);
    EXPECT_EQ(RecordHex(record, kBloomWord + 4 + 6, 16), c.mark);
    EXPECT_EQ(record.UniqueDCIDListIsBigEndian(), c.mark == big);

    ASSERT_EQ(record.AppendBloomAndUniqueDCIDList(), CR_STATUS_SUCCESS);
    EXPECT_EQ(record.GetNudcid(), 2u);
    EXPECT_EQ(record.GetHeaderSize(), kBloomSection + 40);
    EXPECT_EQ(RecordHex(record, kBloomWord, 4), "06000000");
    EXPECT_EQ(RecordHex(record, kBloomWord + 4 + 6, 16), zero);
    EXPECT_EQ(RecordHex(record, kBloomSection, 40), SectionImage(c.sorted));

    const std::string once = WholeRecord(record);
    ASSERT_EQ(record.AppendBloomAndUniqueDCIDList(), CR_STATUS_SUCCESS);
    EXPECT_EQ(WholeRecord(record), once);
  }
}

// The list as host values, read through the accessors, whatever order it
// stands in; the checksum is the one of the list's block built here, in the
// order the list stands in. The per-container byte counts charge the
// record's own bytes (all behind the header) to its container, listed or not.
TEST(UniqueDCIDAccessors, GiveHostValuesInEitherListOrder) {
  const std::vector<UEntry> given = {{900, 7}, {80, 5}};
  const unsigned long bloom = 4 + 6 + 16 + 40, segments = kType2Section - 80 + 40;
  struct Case {
    const char* what;
    std::unique_ptr<DORecord> record;
    bool append, big;  // append: the list built or normalized first
    std::vector<UEntry> entries;
    SizeMap sizes;  // empty: refused
  };
  Case cases[] = {
      {"Bloom, built in host order", crtest::BuildBloom(kBitmap, given), false, false,
       {{900, 7}, {80, 5}}, {{80, 5}, {100, bloom}, {900, 7}}},
      {"Bloom, rebuilt from the serialized form", BloomFromSerialized(given, 80), false, true,
       {{900, 7}, {80, 5}}, {{80, 5 + bloom}, {900, 7}}},
      {"Bloom, rebuilt and normalized", BloomFromSerialized(given), true, false,
       {{80, 5}, {900, 7}}, {{80, 5}, {100, bloom}, {900, 7}}},
      {"segment list", ThreeSizes(), true, false, {{70, 200}, {500, 400}},
       {{70, 200}, {100, segments}, {500, 400}}},
      {"segment list in a listed container", ThreeSizes(500), true, false,
       {{70, 200}, {500, 400}}, {{70, 200}, {500, 400 + segments}}},
      {"no list", ThreeSizes(), false, false, {}, {}},
  };
  for (Case& c : cases) {
    SCOPED_TRACE(c.what);
    if (c.append) {
      ASSERT_EQ(c.record->AppendBloomAndUniqueDCIDList(), CR_STATUS_SUCCESS);
    }
    const DORecord& r = *c.record;
    EXPECT_EQ(r.UniqueDCIDListIsBigEndian(), c.big);
    std::vector<uint8_t> block = crtest::UniqueDcidBlock(c.entries, c.big);
    if (c.entries.empty()) block.assign(4, 0);  // no list, no checksum
    crtest::Bytes sum;
    c.big ? sum.be32(r.GetUniqueDCIDChecksum()) : sum.le32(r.GetUniqueDCIDChecksum());
    EXPECT_EQ(sum.vec(), std::vector<uint8_t>(block.begin(), block.begin() + 4));
    std::vector<UEntry> read;
    unsigned long dcid = 1, bytes = 2;
    for (unsigned int i = 0; r.GetUniqueDCIDEntry(i, &dcid, &bytes) == CR_STATUS_SUCCESS; ++i) {
      read.push_back({dcid, bytes});
    }
    EXPECT_EQ(read, c.entries);
    // Past the end and without outputs: refused, the outputs kept.
    dcid = bytes = 3;
    EXPECT_EQ(r.GetUniqueDCIDEntry(static_cast<unsigned int>(c.entries.size()), &dcid, &bytes),
              CR_STATUS_INVALID);
    EXPECT_EQ(r.GetUniqueDCIDEntry(0, nullptr, &bytes), CR_STATUS_MISSING_ARGUMENT);
    EXPECT_EQ(dcid + bytes, 6u);
    SizeMap sizes = {{1, 1}, {500, 9}};
    crtest::LogCapture log;
    if (c.sizes.empty()) {
      EXPECT_EQ(r.GetUDCIDSizeList(sizes), CR_STATUS_INVALID_RECORD);
      ExpectLogged(log, CR_STATUS_INVALID_RECORD,
                   "GetUDCIDSizeList: number of unique DCID can't be zero!");
      EXPECT_EQ(sizes, (SizeMap{{1, 1}, {500, 9}}));
    } else {
      EXPECT_EQ(r.GetUDCIDSizeList(sizes), CR_STATUS_SUCCESS);
      EXPECT_EQ(sizes, c.sizes);
    }
  }
}

}  // namespace
