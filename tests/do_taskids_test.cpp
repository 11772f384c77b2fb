// Task IDs and data-selection IDs: adding and looking up, the purge of
// inactive tasks with its callback order, and the conversion of records that
// still carry old task-ID and DSID lists.
#include <gtest/gtest.h>

#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

#include "images.h"

namespace {

using namespace crtest;
typedef std::vector<unsigned long> Ids;

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

Ids TaskIDs(const DORecord& r) {
  Ids ids;
  for (auto it = r.GetTRefTypeBegin(CR_TREF_TYPE_TASKID); it != r.GetTRefTypeEnd(CR_TREF_TYPE_TASKID);
       ++it) {
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
  EXPECT_FALSE(r->HasTaskID(8) || r->HasDSID(8));
  EXPECT_EQ(r->getTRefsSize(), 10u + 6);

  r->GetHeader()->mtime = 20;
  EXPECT_EQ(r->DelDSID(8), 0u);
  EXPECT_NE(r->GetMTime(), 20u);  // stamped although nothing was removed
  EXPECT_EQ(r->DelDSID(7), 1u);
  EXPECT_FALSE(r->HasDSID(7));
  EXPECT_TRUE(r->HasTaskID(7));
  EXPECT_EQ(r->getRecSize(), kSmallSize + 10);
}

TEST(DORecordTaskIDs, CallbackSeesTheNewIDFirstThenTheOthersAscending) {
  auto r = SmallRecord();
  for (unsigned long id : {30ul, 10ul, 20ul}) r->AddTaskID(id);
  Activity a;
  a.inactive = {20};
  EXPECT_EQ(r->AddTaskID(25, &Activity::Callback, &a), 0);
  EXPECT_EQ(a.asked, (Ids{25, 10, 20, 30}));
  EXPECT_EQ(TaskIDs(*r), (Ids{10, 25, 30}));
  EXPECT_EQ(r->getRecSize(), kSmallSize + 30);
  a.asked.clear();
  EXPECT_EQ(r->AddTaskID(10, &Activity::Callback, &a), 1);
  EXPECT_EQ(a.asked, (Ids{10, 10, 25, 30}));

  // An inactive new task gives 9 and purges nothing.
  Activity b;
  b.inactive = {5, 10};
  r->GetHeader()->mtime = 20;
  EXPECT_EQ(r->AddTaskID(5, &Activity::Callback, &b), 9);
  EXPECT_EQ(b.asked, Ids{5});
  EXPECT_EQ(TaskIDs(*r), (Ids{10, 25, 30}));
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
  EXPECT_EQ(TaskIDs(*r), (Ids{1, 3}));
  EXPECT_TRUE(r->HasDSID(2));
  EXPECT_EQ(r->getRecSize(), kSmallSize + 26);

  // An exception from the callback passes through; what was removed stays removed.
  r->AddTaskID(2);
  Activity b;
  b.inactive = {1};
  b.throwAt = 2;
  EXPECT_THROW(r->RemoveInactiveTaskIDs(&Activity::Callback, &b), std::runtime_error);
  EXPECT_EQ(TaskIDs(*r), (Ids{2, 3}));
  EXPECT_EQ(r->getTRefsSize(), 26u);
  EXPECT_EQ(Thrown([&] { r->RemoveInactiveTaskIDs(nullptr, nullptr); }),
            Failure(65, "No task activity callback given."));
}

// --- Old task-ID and DSID lists ---------------------------------------------------------

// The segment list (one DO type 2 entry) and DCID array that follow the old lists.
Bytes Data() {
  Bytes b;
  return b.raw(PatternFP(9, 16).data(), 16).le32(1000).le64(64);
}

// The stored bytes of a record with old lists and a typed-reference section.
std::vector<uint8_t> OldRecord(const std::vector<uint64_t>& taskIds,
                               const std::vector<uint32_t>& dsids, const Bytes& trefs = Bytes()) {
  Bytes body;
  for (uint64_t id : taskIds) body.le64(id);
  for (uint32_t id : dsids) body.le32(id);
  body.raw(Data().data(), Data().size()).raw(trefs.data(), trefs.size());
  Bytes h = HeaderImage(static_cast<uint32_t>(80 + body.size()), 0, 100, 1000, 1000, 0xABCD, 10,
                        20, static_cast<uint32_t>(taskIds.size()), 1, 0,
                        static_cast<uint32_t>(dsids.size()), static_cast<uint32_t>(trefs.size()),
                        0, 1, 2);
  return h.raw(body.data(), body.size()).vec();
}

TEST(DORecordTaskIDs, OldListsBecomeReferencesBehindTheData) {
  struct Case {
    std::vector<uint64_t> taskIds;
    std::vector<uint32_t> dsids;
    Ids expectedTasks;
    Bytes section;
  };
  Case cases[] = {{{7, 3, 7}, {}, {3, 7}, {}}, {{}, {50, 40}, {}, {}},
                  {{9, 4}, {100, 50, 100}, {4, 9}, {}}};
  cases[0].section.u8(2).u8(8).be64(3).u8(2).u8(8).be64(7);
  cases[1].section.u8(4).u8(4).be32(40).u8(4).u8(4).be32(50);
  cases[2].section.u8(2).u8(8).be64(4).u8(2).u8(8).be64(9);
  cases[2].section.u8(4).u8(4).be32(50).u8(4).u8(4).be32(100);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.taskIds.size() * 10 + c.dsids.size());
    const std::vector<uint8_t> stored = OldRecord(c.taskIds, c.dsids);
    DORecord r(MallocCopy(stored), stored.size(), 2);
    EXPECT_EQ(TaskIDs(r), c.expectedTasks);
    EXPECT_EQ(r.GetNds(), c.dsids.empty() ? 0u : 2u);
    EXPECT_EQ(r.GetHeader()->ntaskid + r.GetHeader()->nds, 0u);
    EXPECT_NE(r.GetMTime(), 20u);
    Bytes expected = Data();
    expected.raw(c.section.data(), c.section.size());
    EXPECT_EQ(BytesAt(reinterpret_cast<const uint8_t*>(r.GetHeader()) + 80, r.getRecSize() - 80),
              expected.vec());
  }
}

TEST(DORecordTaskIDs, ConversionRefusesFixedBuffersFirstThenMixedReferences) {
  Bytes section;
  section.u8(2).u8(8).be64(1);
  const std::vector<uint8_t> stored = OldRecord({5}, {}, section);
  DORecordHeader* buffer = MallocCopy(stored);
  EXPECT_EQ(Thrown([&] { DORecord r(buffer, stored.size(), 0); }),
            Failure(9, "Cannot construct a DORecord that does not own its internal buffer but "
                       "has old task id and dsid references."));
  EXPECT_EQ(Thrown([&] { DORecord r(buffer, stored.size(), 2); }),
            Failure(71, "Record with both old references and new typed references not "
                        "supported."));
  EXPECT_EQ(BytesAt(buffer, stored.size()), stored);
  std::free(buffer);  // still ours
}

}  // namespace
