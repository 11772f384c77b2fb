// Typed reference objects: the kind each constructor makes, shared
// ownership and the comparator's order. The pool under several threads at
// once is thread_test.cpp's.
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "crrecord/DORecord.h"

namespace {

typedef boost::intrusive_ptr<Cr_TRef> TRefPtr;

// The sanitizer build reports a release too many or a leak.
TEST(TRefObject, KindsOwnershipAndOrder) {
  const unsigned char payload[3] = {1, 2, 3};
  _cr_tref_t* raw = CRTRefNew(CR_TREF_TYPE_HOLD, payload, sizeof payload);
  TRefPtr copy(Cr_TRef::Factory(raw));  // the raw reference stays the caller's
  EXPECT_NE(copy->Get(), raw);  // and equal to it: the set below keeps one of the two
  TRefPtr owner(new Cr_TRef(raw));  // takes it over: released with the object
  TRefPtr shared = owner;
  EXPECT_EQ(owner->UseCount(), 2u);
  owner.reset();
  EXPECT_EQ(shared->UseCount(), 1u);
  EXPECT_EQ(shared->Get(), raw);
  // Equal references are kept once; numbers sort as numbers, kinds by kind.
  std::set<TRefPtr, Cr_TRefComparator> set = {TRefPtr(new Cr_TRef(256ul)), TRefPtr(new Cr_TRef(9u)),
                                              TRefPtr(new Cr_TRef(255ul)), copy, shared,
                                              TRefPtr(new Cr_TRef(256ul))};
  std::vector<std::string> texts;
  char text[CR_TREF_TEXT_SIZE];
  for (const TRefPtr& r : set) texts.push_back(CRTRefToString(text, sizeof text, r->Get()));
  EXPECT_EQ(texts,
            (std::vector<std::string>{"taskid:255", "taskid:256", "dsid:9", "tref9:010203"}));
}

}  // namespace
