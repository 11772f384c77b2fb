// The unique-DCID list: building it from a segment list, normalizing a Bloom
// record's list, and the per-container byte counts.
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "crrecord/DORecord.h"
#include "images.h"

namespace {

using crtest::UEntry;
typedef std::map<unsigned long, unsigned long> SizeMap;

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
// grows to exactly the size needed. Refusals log their cause, change nothing.
TEST(UniqueDCIDList, BuiltFromTheSegmentListOrRefused) {
  enum Change { kNone, kNetwork, kOriginal, kDcid63, kTaskID, kBloomCount, kNoSegments };
  struct Row {
    Change change;
    std::vector<unsigned long> dcids;
    cr_status_t status;
    std::string message;  // logged; empty: nothing is
    std::vector<UEntry> entries;
  };
  const std::string head = "AppendBloomAndUniqueDCIDList: ";
  const std::string fp2 = crtest::Hex(crtest::PatternFP(0x20, 16).data(), 16);
  const Row rows[] = {
      {kNone, {500, 70, 500}, 0, "", {{70, 200}, {500, 400}}},
      {kNetwork, {500, 70, 500}, 0, "", {{70, 200}, {500, 400}}},
      {kNone, {500, 64, 500}, 0, "", {{64, 200}, {500, 400}}},  // the lowest valid container
      {kOriginal, {64, 64, 64}, 0, "", {{64, 10000}}},  // DO type 0: sizes derived
      {kDcid63, {500, 64, 500}, 9, head + "Invalid DCID 63 for SO " + fp2 + " at index 1.", {}},
      {kTaskID, {500, 70, 500}, 9, head + "TRef size should be zero bytes.", {}},
      {kBloomCount, {}, 9, head + "unique DCID count 2 does not match the header's 1.", {}},
      {kNoSegments, {500, 70, 500}, 0, "", {}},  // left alone
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.change);
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
    if (row.change == kNetwork) record->HostToNetwork(0);
    if (row.change == kDcid63) record->SetSegmentDCID(1, 63);
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
    EXPECT_EQ(record->GetNudcid(), row.entries.size());
    EXPECT_EQ(record->GetUDCIDSize(), added);
    EXPECT_EQ(record->GetAllocatedSize(), size + added);
    EXPECT_EQ(record->GetHeaderSize(), size + added);
    EXPECT_TRUE(record->OwnsBuffer());
    EXPECT_EQ(record->GetBufferMode(), 2u);
  }
}

TEST(UniqueDCIDList, BorrowedBufferIsReplacedByAnOwnedCopy) {
  auto source = ThreeSizes();
  const unsigned int size = source->GetHeaderSize();
  crtest::Malloced callers =
      crtest::Block(size, reinterpret_cast<const uint8_t*>(source->GetHeader()));
  const std::string original = crtest::Hex(callers.get(), size);
  {
    DORecord record(reinterpret_cast<DORecordHeader*>(callers.get()), size, 1);
    ASSERT_EQ(record.AppendBloomAndUniqueDCIDList(), CR_STATUS_SUCCESS);
    EXPECT_NE(reinterpret_cast<uint8_t*>(record.GetHeader()), callers.get());
    EXPECT_TRUE(record.OwnsBuffer());
    EXPECT_EQ(record.GetBufferMode(), 1u);
    EXPECT_EQ(record.GetAllocatedSize(), size + 40);
    EXPECT_EQ(RecordHex(record, size, 40), SectionImage({{70, 200}, {500, 400}}));
  }
  EXPECT_EQ(crtest::Hex(callers.get(), size), original);
}

TEST(UniqueDCIDSizes, RecordsOwnBytesAreChargedToItsContainer) {
  const unsigned long body = kType2Section - 80 + 40;  // everything behind the header
  auto listed = ThreeSizes(/*cid=*/500);
  ASSERT_EQ(listed->AppendBloomAndUniqueDCIDList(), CR_STATUS_SUCCESS);
  SizeMap sizes = {{1, 1}, {500, 9}};
  EXPECT_EQ(listed->GetUDCIDSizeList(sizes), CR_STATUS_SUCCESS);
  EXPECT_EQ(sizes, (SizeMap{{70, 200}, {500, 400 + body}}));

  auto elsewhere = ThreeSizes(/*cid=*/100);
  ASSERT_EQ(elsewhere->AppendBloomAndUniqueDCIDList(), CR_STATUS_SUCCESS);
  EXPECT_EQ(elsewhere->GetUDCIDSizeList(sizes), CR_STATUS_SUCCESS);
  EXPECT_EQ(sizes, (SizeMap{{70, 200}, {100, body}, {500, 400}}));

  auto unlisted = ThreeSizes();
  sizes = {{1, 1}};
  crtest::LogCapture log;
  EXPECT_EQ(unlisted->GetUDCIDSizeList(sizes), CR_STATUS_INVALID_RECORD);
  ExpectLogged(log, CR_STATUS_INVALID_RECORD,
               "GetUDCIDSizeList: number of unique DCID can't be zero!");
  EXPECT_EQ(sizes, (SizeMap{{1, 1}}));
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
    SizeMap after;
    EXPECT_EQ(record.AppendBloom(after), CR_STATUS_SUCCESS);
    EXPECT_EQ(after, (SizeMap{{c.sorted[0].dcid, c.sorted[0].bytes},
                              {c.sorted[1].dcid, c.sorted[1].bytes}}));
  }
}

TEST(BloomUniqueDCIDList, SizesAreReadInTheListsOrder) {
  const unsigned long body = 4 + 6 + 16 + 40;
  auto big = BloomFromSerialized({{900, 7}, {80, 5}}, /*cid=*/80);
  auto host = crtest::BuildBloom(kBitmap, {{900, 7}, {80, 5}}, 1, 0, /*cid=*/80);
  for (DORecord* record : {big.get(), host.get()}) {
    SizeMap sizes;
    EXPECT_EQ(record->GetUDCIDSizeList(sizes), CR_STATUS_SUCCESS);
    EXPECT_EQ(sizes, (SizeMap{{80, 5 + body}, {900, 7}}));
  }
}

// The list as host values, read through the accessors, whatever order it
// stands in; the checksums are computed here over the bytes as they stand.
TEST(UniqueDCIDAccessors, GiveHostValuesInEitherListOrder) {
  typedef std::vector<std::pair<unsigned long, unsigned long>> Pairs;
  auto adler = [](const Pairs& entries, bool big) {
    crtest::Bytes body;
    if (big) {
      body.be32(static_cast<uint32_t>(entries.size()));
      for (const auto& e : entries) body.be64(e.first).be64(e.second);
    } else {
      body.le32(static_cast<uint32_t>(entries.size()));
      for (const auto& e : entries) body.le64(e.first).le64(e.second);
    }
    return crtest::SlowAdler32(body.data(), body.size());
  };
  const std::vector<UEntry> given = {{900, 7}, {80, 5}};
  auto normalized = BloomFromSerialized(given);
  ASSERT_EQ(normalized->AppendBloomAndUniqueDCIDList(), CR_STATUS_SUCCESS);
  auto segments = ThreeSizes();
  ASSERT_EQ(segments->AppendBloomAndUniqueDCIDList(), CR_STATUS_SUCCESS);
  struct Case {
    const char* what;
    std::unique_ptr<DORecord> record;
    bool big;
    Pairs entries;
  };
  Case cases[] = {
      {"Bloom, built in host order", crtest::BuildBloom(kBitmap, given), false,
       {{900, 7}, {80, 5}}},
      {"Bloom, rebuilt from the serialized form", BloomFromSerialized(given), true,
       {{900, 7}, {80, 5}}},
      {"Bloom, rebuilt and normalized", std::move(normalized), false, {{80, 5}, {900, 7}}},
      {"segment list", std::move(segments), false, {{70, 200}, {500, 400}}},
      {"no list", ThreeSizes(), false, {}},
  };
  for (Case& c : cases) {
    SCOPED_TRACE(c.what);
    const DORecord& r = *c.record;
    EXPECT_EQ(r.UniqueDCIDListIsBigEndian(), c.big);
    EXPECT_EQ(r.GetUniqueDCIDChecksum(), c.entries.empty() ? 0u : adler(c.entries, c.big));
    Pairs read;
    unsigned long dcid = 1, bytes = 2;
    for (unsigned int i = 0; r.GetUniqueDCIDEntry(i, &dcid, &bytes) == CR_STATUS_SUCCESS; ++i) {
      read.emplace_back(dcid, bytes);
    }
    EXPECT_EQ(read, c.entries);
    // Past the end and without outputs: refused, the outputs kept.
    dcid = bytes = 3;
    EXPECT_EQ(r.GetUniqueDCIDEntry(static_cast<unsigned int>(c.entries.size()), &dcid, &bytes),
              CR_STATUS_INVALID);
    EXPECT_EQ(r.GetUniqueDCIDEntry(0, nullptr, &bytes), CR_STATUS_MISSING_ARGUMENT);
    EXPECT_EQ(dcid + bytes, 6u);
  }
}

}  // namespace
