// Task IDs and data-selection IDs: adding and looking up, the purge of
// inactive tasks with its callback order, and the conversion of records that
// still carry old task-ID and DSID lists.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "crrecord/DORecord.h"
#include "test_support.h"

namespace {

constexpr unsigned int kRecSize = 80 + 2 * (16 + 4 + 8);

std::unique_ptr<DORecord> SmallRecord() {
  crtest::Bytes segs;
  segs.raw(crtest::PatternFP(1, 16).data(), 16).le32(300);
  segs.raw(crtest::PatternFP(2, 16).data(), 16).le32(700);
  const unsigned long dcids[] = {64, 65};
  return std::make_unique<DORecord>(100, 1000, 512, 0xABCD, 10, 20, segs.data(), 2, dcids,
                                    nullptr, 1, 2);
}

void ExpectStatus(std::function<void()> f, cr_status_t status, const char* message) {
  try {
    f();
    ADD_FAILURE() << "no exception; expected " << message;
  } catch (const Cr_ErrnoException& e) {
    EXPECT_EQ(e.GetStatus(), status);
    EXPECT_STREQ(e.what(), message);
  }
}

// Records every task ID it is asked about; calls the ones in `inactive` inactive.
struct Activity {
  std::vector<unsigned long> asked;
  std::vector<unsigned long> inactive;
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

std::vector<unsigned long> TaskIDs(const DORecord& r) {
  std::vector<unsigned long> ids;
  const cr_reftype_t kind = CR_TREF_TYPE_TASKID;
  for (auto it = r.GetTRefTypeBegin(kind); it != r.GetTRefTypeEnd(kind); ++it) {
    ids.push_back(CRTRefGetTaskID((*it)->Get()));
  }
  return ids;
}

TEST(DORecordTaskIDs, AddingAndLookingUpIDs) {
  auto r = SmallRecord();
  EXPECT_EQ(r->AddTaskID(7), 0);
  EXPECT_EQ(r->AddTaskID(7), 1);
  EXPECT_EQ(r->GetNtaskid(), 1u);
  EXPECT_EQ(r->AddDSID(7), 0);
  EXPECT_EQ(r->AddDSID(7), 1);
  EXPECT_EQ(r->GetNds(), 1u);
  EXPECT_TRUE(r->HasTaskID(7));
  EXPECT_TRUE(r->HasDSID(7));
  EXPECT_FALSE(r->HasTaskID(8));
  EXPECT_FALSE(r->HasDSID(8));
  EXPECT_EQ(r->getTRefsSize(), 10u + 6);

  r->GetHeader()->mtime = 20;
  EXPECT_EQ(r->DelDSID(8), 0u);
  EXPECT_NE(r->GetMTime(), 20u);  // stamped although nothing was removed
  EXPECT_EQ(r->DelDSID(7), 1u);
  EXPECT_FALSE(r->HasDSID(7));
  EXPECT_TRUE(r->HasTaskID(7));
  EXPECT_EQ(r->getRecSize(), kRecSize + 10);
}

TEST(DORecordTaskIDs, CallbackSeesTheNewIDFirstThenTheOthersAscending) {
  auto r = SmallRecord();
  for (unsigned long id : {30ul, 10ul, 20ul}) r->AddTaskID(id);
  Activity a;
  a.inactive = {20};
  EXPECT_EQ(r->AddTaskID(25, &Activity::Callback, &a), 0);
  EXPECT_EQ(a.asked, (std::vector<unsigned long>{25, 10, 20, 30}));
  EXPECT_EQ(TaskIDs(*r), (std::vector<unsigned long>{10, 25, 30}));
  EXPECT_EQ(r->getTRefsSize(), 30u);
  EXPECT_EQ(r->getRecSize(), kRecSize + 30);
  a.asked.clear();
  EXPECT_EQ(r->AddTaskID(10, &Activity::Callback, &a), 1);
  EXPECT_EQ(a.asked, (std::vector<unsigned long>{10, 10, 25, 30}));
}

TEST(DORecordTaskIDs, InactiveNewTaskGives9AndPurgesNothing) {
  auto r = SmallRecord();
  r->AddTaskID(10);
  r->GetHeader()->mtime = 20;
  Activity a;
  a.inactive = {5, 10};
  EXPECT_EQ(r->AddTaskID(5, &Activity::Callback, &a), 9);
  EXPECT_EQ(a.asked, std::vector<unsigned long>{5});
  EXPECT_EQ(TaskIDs(*r), std::vector<unsigned long>{10});
  EXPECT_EQ(r->GetMTime(), 20u);
}

TEST(DORecordTaskIDs, PurgeRemovesInactiveTasksOnly) {
  auto r = SmallRecord();
  Activity a;
  r->GetHeader()->mtime = 20;
  EXPECT_EQ(r->RemoveInactiveTaskIDs(&Activity::Callback, &a), 0u);
  EXPECT_TRUE(a.asked.empty());
  EXPECT_NE(r->GetMTime(), 20u);

  for (unsigned long id : {1ul, 2ul, 3ul, 4ul, 5ul}) r->AddTaskID(id);
  r->AddDSID(2);
  a.inactive = {2, 4, 5};
  EXPECT_EQ(r->RemoveInactiveTaskIDs(&Activity::Callback, &a), 3u);
  EXPECT_EQ(TaskIDs(*r), (std::vector<unsigned long>{1, 3}));
  EXPECT_TRUE(r->HasDSID(2));
  EXPECT_EQ(r->getTRefsSize(), 26u);
  EXPECT_EQ(r->getRecSize(), kRecSize + 26);

  // An exception from the callback passes through; what was removed stays removed.
  r->AddTaskID(2);
  Activity b;
  b.inactive = {1};
  b.throwAt = 2;
  EXPECT_THROW(r->RemoveInactiveTaskIDs(&Activity::Callback, &b), std::runtime_error);
  EXPECT_EQ(TaskIDs(*r), (std::vector<unsigned long>{2, 3}));
  EXPECT_EQ(r->getTRefsSize(), 26u);
  ExpectStatus([&] { r->RemoveInactiveTaskIDs(nullptr, nullptr); }, 65,
               "No task activity callback given.");
}

// --- Old task-ID and DSID lists ---------------------------------------------------------

// The segment list (one DO type 2 entry) and DCID array that follow the old lists.
crtest::Bytes Data() {
  crtest::Bytes b;
  return b.raw(crtest::PatternFP(9, 16).data(), 16).le32(1000).le64(64);
}

// A stored record with old lists and an optional typed-reference section, in
// a malloc'ed buffer of exactly its size.
DORecordHeader* OldRecord(std::vector<uint64_t> taskIds, std::vector<uint32_t> dsids,
                          const crtest::Bytes& trefs = crtest::Bytes()) {
  crtest::Bytes body;
  for (uint64_t id : taskIds) body.le64(id);
  for (uint32_t id : dsids) body.le32(id);
  body.raw(Data().data(), Data().size()).raw(trefs.data(), trefs.size());
  crtest::Bytes h;
  h.le16(3).le16(2).le32(static_cast<uint32_t>(80 + body.size())).le32(0).le32(0);
  h.le64(100).le64(1000).le64(1000).le32(0xABCD).le32(10).le32(20);
  h.le32(static_cast<uint32_t>(taskIds.size())).le32(1).le32(0);
  h.le32(static_cast<uint32_t>(dsids.size())).le32(static_cast<uint32_t>(trefs.size())).le32(0);
  h.u8(1).u8(2).zeros(2).raw(body.data(), body.size());
  void* p = std::malloc(h.size());
  std::memcpy(p, h.data(), h.size());
  return static_cast<DORecordHeader*>(p);
}

// The record's bytes behind the header: the data, then the section.
std::vector<uint8_t> Behind(DORecord& r) {
  const uint8_t* p = reinterpret_cast<const uint8_t*>(r.GetHeader());
  return std::vector<uint8_t>(p + 80, p + r.getRecSize());
}

TEST(DORecordTaskIDs, OldTaskIDsBecomeReferencesAndTheListIsCutOut) {
  DORecordHeader* buffer = OldRecord({7, 3, 7}, {});
  DORecord r(buffer, 80 + 24 + 28, 2);
  EXPECT_EQ(TaskIDs(r), (std::vector<unsigned long>{3, 7}));
  EXPECT_EQ(r.GetHeader()->ntaskid, 0u);
  EXPECT_EQ(r.getRecSize(), 80u + 28 + 20);
  EXPECT_NE(r.GetMTime(), 20u);
  crtest::Bytes expected = Data();
  expected.u8(2).u8(8).be64(3).u8(2).u8(8).be64(7);
  EXPECT_EQ(Behind(r), expected.vec());
}

TEST(DORecordTaskIDs, OldDSIDsAreReadInPlace) {
  DORecordHeader* buffer = OldRecord({}, {50, 40});
  DORecord r(buffer, 80 + 8 + 28, 2);
  EXPECT_EQ(r.GetNds(), 2u);
  EXPECT_TRUE(r.HasDSID(40));
  EXPECT_TRUE(r.HasDSID(50));
  EXPECT_EQ(r.GetHeader()->nds, 0u);
  crtest::Bytes expected = Data();
  expected.u8(4).u8(4).be32(40).u8(4).u8(4).be32(50);
  EXPECT_EQ(Behind(r), expected.vec());
}

TEST(DORecordTaskIDs, BothOldListsAreCutOutAndTheDataFollowsTheHeader) {
  DORecordHeader* buffer = OldRecord({9, 4}, {100, 50, 100});
  DORecord r(buffer, 80 + 16 + 12 + 28, 2);
  EXPECT_EQ(TaskIDs(r), (std::vector<unsigned long>{4, 9}));
  EXPECT_EQ(r.GetNds(), 2u);
  EXPECT_EQ(r.GetHeader()->ntaskid + r.GetHeader()->nds, 0u);
  EXPECT_EQ(r.getRecSize(), 80u + 28 + 20 + 12);
  crtest::Bytes expected = Data();
  expected.u8(2).u8(8).be64(4).u8(2).u8(8).be64(9);
  expected.u8(4).u8(4).be32(50).u8(4).u8(4).be32(100);
  EXPECT_EQ(Behind(r), expected.vec());
}

TEST(DORecordTaskIDs, ConversionRefusesFixedBuffersFirstThenMixedReferences) {
  crtest::Bytes section;
  section.u8(2).u8(8).be64(1);
  const size_t size = 80 + 8 + 28 + 10;
  DORecordHeader* buffer = OldRecord({5}, {}, section);
  const std::vector<uint8_t> before(reinterpret_cast<uint8_t*>(buffer),
                                    reinterpret_cast<uint8_t*>(buffer) + size);
  ExpectStatus([&] { DORecord r(buffer, size, 0); }, 9,
               "Cannot construct a DORecord that does not own its internal buffer but has old "
               "task id and dsid references.");
  ExpectStatus([&] { DORecord r(buffer, size, 2); }, 71,  // and the buffer stays ours
               "Record with both old references and new typed references not supported.");
  EXPECT_EQ(std::vector<uint8_t>(reinterpret_cast<uint8_t*>(buffer),
                                 reinterpret_cast<uint8_t*>(buffer) + size),
            before);
  std::free(buffer);
}

}  // namespace
