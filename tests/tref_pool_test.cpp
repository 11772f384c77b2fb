// Typed reference objects: counting, shared ownership, ordering and the pool.
#include <gtest/gtest.h>

#include <set>
#include <vector>

#include "crrecord/DORecord.h"

namespace {

typedef boost::intrusive_ptr<Cr_TRef> TRefPtr;

// A freed chunk is handed out again; more than the first block of 32 chunks
// makes the pool take further blocks. The sanitizer reports a double release
// or a leak.
TEST(TRefObject, SharedOwnershipReleasesOnceWithTheLastHolder) {
  TRefPtr a(new Cr_TRef(42ul));
  EXPECT_EQ(a->UseCount(), 1u);
  {
    TRefPtr b = a;
    EXPECT_EQ(a->UseCount(), 2u);
    a.reset();
    EXPECT_EQ(b->UseCount(), 1u);
    EXPECT_EQ(CRTRefGetTaskID(b->Get()), 42u);  // still alive
  }
  std::vector<TRefPtr> refs;
  for (unsigned long i = 0; i < 1000; ++i) refs.emplace_back(new Cr_TRef(i));
  for (unsigned long i = 0; i < 1000; ++i) EXPECT_EQ(CRTRefGetTaskID(refs[i]->Get()), i);
}

TEST(TRefObject, ConstructorsMakeTheirKinds) {
  TRefPtr task(new Cr_TRef(1ul << 40));
  TRefPtr dsid(new Cr_TRef(9u));
  EXPECT_EQ(CRTRefGetType(task->Get()), CR_TREF_TYPE_TASKID);
  EXPECT_EQ(CRTRefGetTaskID(task->Get()), 1ul << 40);
  EXPECT_EQ(CRTRefGetType(dsid->Get()), CR_TREF_TYPE_DSID);

  const unsigned char payload[3] = {1, 2, 3};
  _cr_tref_t* raw = CRTRefNew(CR_TREF_TYPE_HOLD, payload, sizeof payload);
  ASSERT_NE(raw, nullptr);
  {
    TRefPtr copy(Cr_TRef::Factory(raw));  // the raw reference stays ours
    EXPECT_NE(copy->Get(), raw);
    EXPECT_TRUE(CRTRefEqual(copy->Get(), raw));
    EXPECT_EQ(copy->UseCount(), 1u);
  }
  TRefPtr owner(new Cr_TRef(raw));  // takes it over: released with the object
  EXPECT_EQ(owner->Get(), raw);
}

TEST(TRefObject, ComparatorOrdersBySetAndDropsEquals) {
  std::set<TRefPtr, Cr_TRefComparator> set;
  for (unsigned long id : {30ul, 10ul, 20ul, 10ul}) set.insert(TRefPtr(new Cr_TRef(id)));
  ASSERT_EQ(set.size(), 3u);
  std::vector<unsigned long> ids;
  for (const TRefPtr& r : set) ids.push_back(CRTRefGetTaskID(r->Get()));
  EXPECT_EQ(ids, (std::vector<unsigned long>{10, 20, 30}));
  // Larger numbers sort after smaller ones whatever their byte patterns.
  EXPECT_TRUE(Cr_TRefComparator()(TRefPtr(new Cr_TRef(255ul)), TRefPtr(new Cr_TRef(256ul))));
  EXPECT_FALSE(Cr_TRefComparator()(TRefPtr(new Cr_TRef(256ul)), TRefPtr(new Cr_TRef(256ul))));
}

}  // namespace
