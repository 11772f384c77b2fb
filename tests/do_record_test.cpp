// The DORecord object: opening stored buffers in each mode and growing them,
// the refusals that leave a buffer its caller's, header setters and their
// mtime rules, task IDs with the activity callback, and old ID lists.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "images.h"

namespace {

using namespace crtest;
typedef std::vector<unsigned long> Ids;

// The stored bytes of the small record with task ID 5, DSID 6 and a kind-9
// reference, mtime 20.
std::vector<uint8_t> StoredRecord() {
  auto r = SmallRecord();
  r->AddTaskID(5);
  r->AddDSID(6);
  const unsigned char hold = 0xAA;
  r->OwnTRef(*CRTRefNew(CR_TREF_TYPE_HOLD, &hold, 1));
  r->GetHeader()->mtime = 20;
  return BytesAt(r->GetHeader(), r->getRecSize());
}

std::vector<uint8_t> Section(const DORecord& r) {
  return BytesAt(r.GetSerializedTRefs(), r.GetSerializedTRefsSize());
}

Ids TaskIDs(const DORecord& r) {
  Ids ids;
  for (auto it = r.GetTRefTypeBegin(CR_TREF_TYPE_TASKID);
       it != r.GetTRefTypeEnd(CR_TREF_TYPE_TASKID); ++it) {
    ids.push_back(CRTRefGetTaskID((*it)->Get()));
  }
  return ids;
}

// Growth takes whole pages; a borrowed buffer (mode 1) is copied and left as
// it was, a fixed one (mode 0) refuses, an owned one (mode 2) is resized.
TEST(DORecordStored, ReopenedRecordsKeepReferencesGrowByModeAndRefusedOnesStayTheCallers) {
  ASSERT_EQ(sysconf(_SC_PAGESIZE), 4096);
  const std::vector<uint8_t> stored = StoredRecord();
  const size_t size = stored.size();
  Bytes refs, grown;
  refs.u8(2).u8(8).be64(5).u8(4).u8(4).be32(6).u8(9).u8(1).u8(0xAA);
  grown.u8(2).u8(8).be64(5).u8(2).u8(8).be64(99).u8(4).u8(4).be32(6).u8(9).u8(1).u8(0xAA);
  ASSERT_EQ(size, kSmallSize + refs.size());
  for (unsigned int mode = 0; mode <= 2; ++mode) {
    SCOPED_TRACE(mode);
    auto* buffer = reinterpret_cast<DORecordHeader*>(Block(stored.size(), stored.data()).release());
    {
      DORecord r(buffer, size, mode);
      EXPECT_EQ(r.OwnsBuffer(), mode == 2);
      EXPECT_EQ(r.GetMTime(), 20u);  // loading is no change
      EXPECT_EQ(Section(r), refs.vec());
      r.expand(size);  // fits: nothing changes
      EXPECT_EQ(r.GetHeader(), buffer);
      EXPECT_EQ(r.GetAllocatedSize(), size);
      if (mode == 0) {
        // Changes undo themselves when the buffer may not grow.
        EXPECT_EQ(Thrown([&] { r.AddTaskID(99); }), Failure(9, kCannotGrow));
        EXPECT_EQ(Thrown([&] { r.AddSerializedTRefs("\x06\x01\x07", 3); }),
                  Failure(9, kCannotGrow));
        EXPECT_EQ(Thrown([&] { r.expand(size + 1); }), Failure(9, kCannotGrow));
        EXPECT_EQ(Section(r), refs.vec());
        EXPECT_EQ((std::vector<unsigned long>{r.GetNTRefs(), r.getTRefsSize(), r.getRecSize(),
                                              r.GetAllocatedSize(), r.GetMTime()}),
                  (std::vector<unsigned long>{3, refs.size(), size, size, 20}));
      } else {
        EXPECT_EQ(r.AddTaskID(99), 0);
        EXPECT_EQ(Section(r), grown.vec());
        const unsigned long grownSize = r.GetAllocatedSize();
        r.expand(4097);
        EXPECT_EQ((Ids{r.GetBufferMode(), grownSize, r.GetAllocatedSize(), r.GetSegmentSize(1)}),
                  (Ids{2, 4096, 8192, 700}));  // content kept
      }
      EXPECT_EQ(r.OwnsBuffer(), mode != 0);
    }
    if (mode != 2) {
      EXPECT_EQ(BytesAt(buffer, size), stored);  // a copy took the growth
      std::free(buffer);
    }
  }

  // Refused buffers keep their bytes and stay the caller's. A record with one
  // old task ID and one reference: a fixed buffer cannot convert it, and old
  // lists cannot mix with references.
  const std::vector<uint8_t> mixed =
      HeaderImage(98, 0, 100, 0, 0, 0, 10, 20, 1, 0, 0, 0, 10, 0, 1, 2).le64(5).u8(2).u8(8)
          .be64(1).vec();
  struct Row {
    const std::vector<uint8_t>* image;
    long changeAt;  // byte overwritten with `to`, or -1
    uint8_t to;
    unsigned long offset, allocated;
    unsigned int mode;
    Failure failure;
  };
  const std::string exceeds = "DO record of " + std::to_string(size) +
                              " bytes exceeds its buffer of " + std::to_string(size - 1) +
                              " bytes.";
  const Row rows[] = {
      {&stored, -1, 0, 0, size, 3,
       {9, "Invalid buffer mode 3 for a DO record; 0, 1 or 2 expected."}},
      {&stored, -1, 0, 4, size, 2, {9, "DO record buffer is not 8-byte aligned."}},
      {&stored, -1, 0, 0, 79, 2,
       {32, "DO record buffer of 79 bytes is smaller than the header (80 bytes)."}},
      {&stored, -1, 0, 0, size - 1, 2, {32, exceeds}},
      {&stored, -1, 0, 0, 80, 2, {32, "DO record of " + std::to_string(size) +
                                          " bytes exceeds its buffer of 80 bytes."}},
      {&stored, 0, 2, 0, size, 2, {32, ""}},
      // The kind-9 reference at the end claims 5 payload bytes.
      {&stored, long(size) - 2, 5, 0, size, 2,
       {120, "Received a buffer with corrupt typed references."}},
      {&mixed, -1, 0, 0, 98, 0, {9, "Cannot construct a DORecord that does not own its internal "
                                    "buffer but has old task id and dsid references."}},
      {&mixed, -1, 0, 0, 98, 2,
       {71, "Record with both old references and new typed references not supported."}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.failure.second);
    std::vector<uint8_t> image = *row.image;
    if (row.changeAt >= 0) image[row.changeAt] = row.to;
    unsigned char* block = static_cast<unsigned char*>(std::malloc(image.size() + row.offset));
    std::memcpy(block + row.offset, image.data(), image.size());
    DORecordHeader* buffer = reinterpret_cast<DORecordHeader*>(block + row.offset);
    EXPECT_EQ(Thrown([&] { DORecord r(buffer, row.allocated, row.mode); }), row.failure);
    EXPECT_EQ(BytesAt(buffer, image.size()), image);
    std::free(block);  // still ours: a double free if the object had taken it
  }
  EXPECT_EQ(Thrown([&] { DORecord r(nullptr, size, 1); }),
            Failure(65, "No DO record buffer given."));
}

// Old task IDs (8 bytes each) and DSIDs (4) sit between the header and the
// segment list; opening the record turns them into references behind the data.
TEST(DORecordStored, OldListsBecomeReferencesBehindTheData) {
  Bytes data;  // one DO type 2 entry and its DCID
  data.raw(PatternFP(9, 16).data(), 16).le32(1000).le64(64);
  struct Row {
    std::vector<uint64_t> taskIds;
    std::vector<uint32_t> dsids;
    unsigned int mode;
    Bytes section;
  };
  Row rows[] = {{{7, 3, 7}, {}, 2, {}}, {{}, {50, 40}, 2, {}}, {{9}, {100, 50, 100}, 1, {}}};
  rows[0].section.u8(2).u8(8).be64(3).u8(2).u8(8).be64(7);
  rows[1].section.u8(4).u8(4).be32(40).u8(4).u8(4).be32(50);
  rows[2].section.u8(2).u8(8).be64(9);
  rows[2].section.u8(4).u8(4).be32(50).u8(4).u8(4).be32(100);
  for (const Row& row : rows) {
    Bytes body;
    for (uint64_t id : row.taskIds) body.le64(id);
    for (uint32_t id : row.dsids) body.le32(id);
    body.raw(data.data(), data.size());
    const std::vector<uint8_t> stored =
        HeaderImage(uint32_t(80 + body.size()), 0, 100, 1000, 1000, 0xABCD, 10, 20,
                    uint32_t(row.taskIds.size()), 1, 0, uint32_t(row.dsids.size()), 0, 0, 1, 2)
            .raw(body.data(), body.size()).vec();
    auto* buffer = reinterpret_cast<DORecordHeader*>(Block(stored.size(), stored.data()).release());
    DORecord r(buffer, stored.size(), row.mode);
    EXPECT_EQ(r.GetHeader()->ntaskid + r.GetHeader()->nds, 0u);
    EXPECT_NE(r.GetMTime(), 20u);
    Bytes expected = data;
    expected.raw(row.section.data(), row.section.size());
    EXPECT_EQ(BytesAt(reinterpret_cast<const uint8_t*>(r.GetHeader()) + 80, r.getRecSize() - 80),
              expected.vec());
    if (row.mode == 1) {  // converted on a copy, the caller's bytes kept
      EXPECT_NE(r.GetHeader(), buffer);
      EXPECT_EQ(BytesAt(buffer, stored.size()), stored);
      std::free(buffer);
    }
  }
}

TEST(DORecordObject, SizeBookkeepingFlagsAndSetters) {
  auto r = SmallRecord();
  EXPECT_EQ(r->GetDOSize(), kSmallSize - 80);
  EXPECT_EQ(Thrown([&] { r->setRecSize(79); }), Failure(9, "invalid record size for DO"));
  EXPECT_EQ(r->getRecSize(), kSmallSize);
  r->setRecSize(80);
  EXPECT_EQ(r->getRecSize(), 80u);
  r->setRecSize(kSmallSize);
  r->setTRefsSize(17);
  EXPECT_EQ(r->calcRecSize(), kSmallSize + 17);
  r->initReferenceSets();
  EXPECT_EQ(r->getTRefsSize(), 0u);
  EXPECT_EQ(r->getRecSize(), kSmallSize);
  EXPECT_EQ(r->GetPOID(), reinterpret_cast<unsigned char*>(r->GetHeader()) + 16);

  // Lower-case setters check and do not stamp; upper-case ones stamp but for
  // the check time, and do not check: SetFlags(8) is logged yet stored.
  LogCapture log;
  r->setFlags(0x0008);  // refused and logged
  r->setDCID(555);
  r->setCheckTime(77);
  r->SetCheckTime(78);
  EXPECT_EQ(Thrown([&] { r->setFPType(9); }), Failure(9, "invalid fptype for DO"));
  r->setFPType(3);
  EXPECT_EQ((Ids{r->GetFlags(), r->GetDCID(), r->GetCheckTime(), r->GetFPType(), r->GetMTime()}),
            (Ids{2, 555, 78, 3, 20}));
  for (const auto& set : {std::function<void()>([&] { r->SetFlags(0x0008); }),
                          std::function<void()>([&] { r->SetFPType(9); }),
                          std::function<void()>([&] { r->SetDCID(556); })}) {
    r->GetHeader()->mtime = 20;
    set();
    EXPECT_NE(r->GetMTime(), 20u);
  }
  EXPECT_EQ((Ids{r->GetFlags(), r->GetDCID(), r->GetFPType()}), (Ids{8, 556, 9}));
  r->setFlags(0x0006);
  EXPECT_EQ(r->GetFlags(), 0x0006);
  const std::string invalid = "Setting DORecord flags to invalid value 8";
  EXPECT_EQ(log.texts(), (std::vector<std::string>{invalid, invalid}));
  EXPECT_EQ(log.lines()[0].level, CR_LOG_ERROR);
  EXPECT_EQ(log.lines()[0].status, 9u);
}

// In network order the getters still give host values, and the stored
// fields, sizes included as references change, stand in network order.
TEST(DORecordObject, NetworkOrderRecordReadsHostValuesAndStoresNetworkOrder) {
  auto r = SmallRecord();
  r->setCheckTime(0x01020304);
  auto values = [&] {
    return Ids{r->GetFlags(),  r->GetCheckTime(), r->GetDCID(),    r->GetSize(),
               r->GetSsize(),  r->GetCrc(),       r->GetCTime(),   r->GetMTime(),
               r->GetNfp(),    r->GetNudcid(),    r->GetBSize(),   r->GetFPType(),
               r->GetDOType(), r->getRecSize(),   r->getTRefsSize()};
  };
  // Without references GetHeader rebuilds nothing.
  EXPECT_EQ(BytesAt(r->GetHeader(), kSmallSize), BytesAt(r->GetHeader(), r->getRecSize()));
  const Ids before = values();
  r->HostToNetwork(0);
  EXPECT_EQ(values(), before);
  auto field = [&](size_t offset) {  // the buffer moves as the record grows
    return Hex(reinterpret_cast<const uint8_t*>(r->GetHeader()) + offset, 4);
  };
  EXPECT_EQ(field(12), "01020304");
  r->setCheckTime(5);
  EXPECT_EQ(field(12), "00000005");
  r->AddTaskID(0x10);
  r->AddSerializedTRefs("\x06\x01\x07", 3);
  EXPECT_EQ(field(4), "00000095");   // recsize 136 + 13
  EXPECT_EQ(field(68), "0000000d");  // trefsize 13
  r->ClearTRefType(CR_TREF_TYPE_RETENTION);
  EXPECT_EQ(field(4), "00000092");
  EXPECT_EQ(Section(*r), Bytes().u8(2).u8(8).be64(0x10).vec());  // never swapped
  r->NetworkToHost(0);
  EXPECT_EQ((Ids{r->GetCheckTime(), r->getTRefsSize(), r->getRecSize()}),
            (Ids{5, 10, kSmallSize + 10}));
}

// --- Task IDs and the activity callback ---------------------------------------------

// Records every task ID it is asked about; calls the ones in `inactive` inactive.
struct Activity {
  Ids asked, inactive;
  unsigned long throwAt = 0;
  static int Callback(unsigned long id, void* context) {
    Activity* a = static_cast<Activity*>(context);
    a->asked.push_back(id);
    if (id == a->throwAt) throw std::runtime_error("activity lookup failed");
    for (unsigned long x : a->inactive) {
      if (x == id) return 0;
    }
    return 1;
  }
};

// The callback sees the new ID first, then the others ascending, and the
// inactive ones go; an inactive new task gives 9 and purges nothing.
TEST(DORecordTaskIDs, CallbackDecidesWhatIsAddedAndWhatIsPurged) {
  auto r = SmallRecord();
  Activity a;
  r->GetHeader()->mtime = 20;
  EXPECT_EQ(r->RemoveInactiveTaskIDs(&Activity::Callback, &a), 0u);
  EXPECT_TRUE(a.asked.empty());
  EXPECT_NE(r->GetMTime(), 20u);
  for (unsigned long id : {30ul, 10ul, 20ul}) r->AddTaskID(id);
  a.inactive = {20};
  EXPECT_EQ(r->AddTaskID(25, &Activity::Callback, &a), 0);
  EXPECT_EQ(a.asked, (Ids{25, 10, 20, 30}));
  EXPECT_EQ(TaskIDs(*r), (Ids{10, 25, 30}));
  EXPECT_EQ(r->getRecSize(), kSmallSize + 30);
  a.asked.clear();
  EXPECT_EQ(r->AddTaskID(10, &Activity::Callback, &a), 1);
  EXPECT_EQ(a.asked, (Ids{10, 10, 25, 30}));
  a = Activity{{}, {5, 10}};
  r->GetHeader()->mtime = 20;
  EXPECT_EQ(r->AddTaskID(5, &Activity::Callback, &a), 9);
  EXPECT_EQ(a.asked, Ids{5});
  EXPECT_EQ(TaskIDs(*r), (Ids{10, 25, 30}));
  EXPECT_EQ(r->GetMTime(), 20u);

  for (unsigned long id : {1ul, 2ul, 4ul}) r->AddTaskID(id);
  r->AddDSID(2);
  a = Activity{{}, {2, 4, 25}};
  EXPECT_EQ(r->RemoveInactiveTaskIDs(&Activity::Callback, &a), 3u);
  EXPECT_EQ(TaskIDs(*r), (Ids{1, 10, 30}));
  EXPECT_TRUE(r->HasDSID(2));
  EXPECT_EQ(r->getRecSize(), kSmallSize + 36);
  // An exception from the callback passes through; what was removed stays removed.
  r->AddTaskID(2);
  a = Activity{{}, {1}, 2};
  EXPECT_THROW(r->RemoveInactiveTaskIDs(&Activity::Callback, &a), std::runtime_error);
  EXPECT_EQ(TaskIDs(*r), (Ids{2, 10, 30}));
  EXPECT_EQ(r->getTRefsSize(), 36u);
  EXPECT_EQ(Thrown([&] { r->RemoveInactiveTaskIDs(nullptr, nullptr); }),
            Failure(65, "No task activity callback given."));
}

}  // namespace
