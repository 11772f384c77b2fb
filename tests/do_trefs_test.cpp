// Typed references of a DO record: which kinds each operation takes, the
// size fields and mtime after every change, the section's bytes, loading a
// section (corrupt, duplicate, kind 0), and the walk over all references.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "crrecord/DORecord.h"
#include "test_support.h"

namespace {

typedef boost::intrusive_ptr<Cr_TRef> TRefPtr;
constexpr unsigned int kRecSize = 80 + 2 * (16 + 4 + 8);  // DO type 2, two segments

// A DO type 2 record of two segments with mtime 20 and no references.
std::unique_ptr<DORecord> SmallRecord() {
  crtest::Bytes segs;
  segs.raw(crtest::PatternFP(1, 16).data(), 16).le32(300);
  segs.raw(crtest::PatternFP(2, 16).data(), 16).le32(700);
  const unsigned long dcids[] = {64, 65};
  return std::make_unique<DORecord>(100, 1000, 512, 0xABCD, 10, 20, segs.data(), 2, dcids,
                                    nullptr, 1, 2);
}

// A raw reference of any kind 0..12. The stand-in makes kinds up to 10; a
// larger kind is written over the kind byte that its representation starts with.
_cr_tref_t* Raw(unsigned int kind, std::vector<uint8_t> payload = {1}) {
  _cr_tref_t* raw = CRTRefNew(kind <= 10 ? static_cast<cr_reftype_t>(kind) : CR_TREF_TYPE_REPLICA,
                              payload.data(), payload.size());
  if (kind > 10) *reinterpret_cast<unsigned char*>(raw) = static_cast<unsigned char>(kind);
  EXPECT_EQ(CRTRefGetType(raw), kind);
  return raw;
}

TRefPtr Ref(unsigned int kind, std::vector<uint8_t> payload = {1}) {
  return TRefPtr(new Cr_TRef(Raw(kind, payload)));
}

void ExpectStatus(std::function<void()> f, cr_status_t status, const std::string& message) {
  try {
    f();
    ADD_FAILURE() << "no exception; expected " << message;
  } catch (const Cr_ErrnoException& e) {
    EXPECT_EQ(e.GetStatus(), status);
    EXPECT_EQ(std::string(e.what()), message);
  }
}

// Whether f stamped the mtime (set to 20 beforehand).
bool Stamps(DORecord& r, std::function<void()> f) {
  r.GetHeader()->mtime = 20;
  f();
  return r.GetMTime() != 20;
}

std::string Unsupported(unsigned int kind, const char* prefix = "") {
  return std::string(prefix) + "The type of reference tref" + std::to_string(kind) +
         ":01 is unsupported for a DO";
}

void ExpectRefusal(std::function<void()> f, const std::string& message) {
  crtest::LogCapture log;
  ExpectStatus(f, 9, message);
  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_EQ(log.lines()[0].level, CR_LOG_ERROR);
  EXPECT_EQ(log.lines()[0].status, 9u);
  EXPECT_EQ(log.lines()[0].text, message);
}

std::vector<uint8_t> Section(const DORecord& r) {
  const unsigned char* p = r.GetSerializedTRefs();
  return std::vector<uint8_t>(p, p + r.GetSerializedTRefsSize());
}

TEST(DORecordTRefs, OwnTRefTakesKinds2_4_6_9Only) {
  auto r = SmallRecord();
  unsigned int trefsize = 0;
  for (unsigned int kind = 0; kind <= 12; ++kind) {
    SCOPED_TRACE(kind);
    const bool accepted = kind == 2 || kind == 4 || kind == 6 || kind == 9;
    if (accepted) {
      EXPECT_TRUE(Stamps(*r, [&] { EXPECT_EQ(r->OwnTRef(Ref(kind)), 0); }));
      trefsize += 3;  // kind, length, one payload byte
    } else {
      EXPECT_FALSE(Stamps(
          *r, [&] { ExpectRefusal([&] { r->OwnTRef(Ref(kind)); }, Unsupported(kind)); }));
    }
    EXPECT_EQ(r->getTRefsSize(), trefsize);
    EXPECT_EQ(r->getRecSize(), kRecSize + trefsize);
  }
  EXPECT_EQ(r->GetNTRefs(), 4u);
}

TEST(DORecordTRefs, DelTRefRemovesKinds2_4_6_8_9Only) {
  auto r = SmallRecord();
  crtest::Bytes section;  // one reference of every kind, as a stored section holds them
  for (unsigned int kind = 0; kind <= 10; ++kind) section.u8(kind).u8(1).u8(1);
  r->AddSerializedTRefs(reinterpret_cast<const char*>(section.data()), 33);
  ASSERT_EQ(r->GetNTRefs(), 11u);
  unsigned int trefsize = 33;
  for (unsigned int kind = 0; kind <= 12; ++kind) {
    SCOPED_TRACE(kind);
    if (kind == 2 || kind == 4 || kind == 6 || kind == 8 || kind == 9) {
      EXPECT_EQ(r->DelTRef(Ref(kind)), 1u);
      trefsize -= 3;
      EXPECT_EQ(r->GetNTRefs(static_cast<cr_reftype_t>(kind)), 0u);
    } else {
      ExpectRefusal([&] { r->DelTRef(Ref(kind)); }, Unsupported(kind));
    }
    EXPECT_EQ(r->getTRefsSize(), trefsize);
    EXPECT_EQ(r->getRecSize(), kRecSize + trefsize);
  }
}

TEST(DORecordTRefs, CheckTRefLooksUpKinds4_6_9AndAnswers7WithoutLooking) {
  auto r = SmallRecord();
  for (unsigned int kind : {4u, 6u, 9u}) r->OwnTRef(Ref(kind));
  r->GetHeader()->mtime = 20;
  for (unsigned int kind = 0; kind <= 12; ++kind) {
    SCOPED_TRACE(kind);
    crtest::LogCapture log;
    if (kind == 4 || kind == 6 || kind == 9) {
      EXPECT_EQ(r->CheckTRef(Ref(kind)), 0u);
      _cr_tref_t* absent = Raw(kind, {2});
      EXPECT_EQ(r->CheckTRef(absent), 72u);
      CRTRefDelete(&absent);
      ASSERT_EQ(log.lines().size(), 1u);
      EXPECT_EQ(log.lines()[0].level, CR_LOG_WARNING);
      EXPECT_EQ(log.lines()[0].status, 72u);
      EXPECT_EQ(log.lines()[0].text, "CheckTRef: The type of reference tref" +
                                         std::to_string(kind) + ":02 is not found");
    } else if (kind == 7 || kind == 12) {
      EXPECT_EQ(r->CheckTRef(Ref(kind)), 0u);  // no such reference in the record
      EXPECT_TRUE(log.lines().empty());
    } else {
      ExpectStatus([&] { r->CheckTRef(Ref(kind)); }, 9, Unsupported(kind, "CheckTRef: "));
      EXPECT_EQ(log.texts(), std::vector<std::string>{Unsupported(kind, "CheckTRef: ")});
    }
  }
  ExpectStatus([&] { r->CheckTRef(static_cast<const _cr_tref_t*>(nullptr)); }, 9, "NULL reference");
  EXPECT_EQ(r->GetMTime(), 20u);
}

TEST(DORecordTRefs, SizeFieldsAndMTimeFollowEveryChange) {
  auto r = SmallRecord();
  auto sizes = [&] { return std::vector<unsigned long>{r->getTRefsSize(), r->getRecSize()}; };
  EXPECT_TRUE(Stamps(*r, [&] { EXPECT_EQ(r->AddTaskID(1), 0); }));
  EXPECT_EQ(sizes(), (std::vector<unsigned long>{10, kRecSize + 10}));
  EXPECT_TRUE(Stamps(*r, [&] { EXPECT_EQ(r->AddDSID(2), 0); }));
  EXPECT_TRUE(Stamps(*r, [&] { EXPECT_EQ(r->OwnTRef(Ref(6, {1, 2, 3})), 0); }));
  EXPECT_EQ(sizes(), (std::vector<unsigned long>{21, kRecSize + 21}));
  EXPECT_TRUE(Stamps(*r, [&] { EXPECT_EQ(r->AddTaskID(1), 1); }));  // already there
  EXPECT_EQ(sizes(), (std::vector<unsigned long>{21, kRecSize + 21}));
  EXPECT_EQ(r->calcTRefsSize(), 21u);
  EXPECT_EQ(r->GetTRefTypeTotalSize(CR_TREF_TYPE_DSID), 6u);

  EXPECT_TRUE(Stamps(*r, [&] { EXPECT_EQ(r->DelTRef(Ref(9)), 0u); }));  // absent
  const _cr_tref_t* none = nullptr;
  EXPECT_FALSE(Stamps(*r, [&] { EXPECT_EQ(r->DelTRef(none), 0u); }));
  EXPECT_FALSE(Stamps(*r, [&] { r->ClearTRefType(CR_TREF_TYPE_RETENTION); }));
  EXPECT_EQ(sizes(), (std::vector<unsigned long>{16, kRecSize + 16}));
  EXPECT_TRUE(Stamps(*r, [&] { r->RemoveAllTRefs(); }));  // task IDs only
  EXPECT_EQ(sizes(), (std::vector<unsigned long>{6, kRecSize + 6}));
  EXPECT_EQ(r->GetNds(), 1u);
  EXPECT_TRUE(Stamps(*r, [&] { r->RemoveAllTRefs(); }));  // none left: still stamps
  EXPECT_TRUE(Stamps(*r, [&] { r->AddSerializedTRefs("", 0); }));
  EXPECT_EQ(sizes(), (std::vector<unsigned long>{6, kRecSize + 6}));
}

TEST(DORecordTRefs, SectionIsWrittenKindByKindInSetOrder) {
  auto r = SmallRecord();
  r->OwnTRef(Ref(9, {0xAA}));
  r->AddDSID(9);
  r->AddTaskID(3);
  r->OwnTRef(Ref(6, {1, 2}));
  r->AddDSID(2);
  r->AddTaskID(1);
  crtest::Bytes expected;
  expected.u8(2).u8(8).be64(1).u8(2).u8(8).be64(3);
  expected.u8(4).u8(4).be32(2).u8(4).u8(4).be32(9);
  expected.u8(6).u8(2).u8(1).u8(2).u8(9).u8(1).u8(0xAA);
  EXPECT_EQ(r->GetSerializedTRefs(), reinterpret_cast<unsigned char*>(r->GetHeader()) + kRecSize);
  EXPECT_EQ(Section(*r), expected.vec());
  EXPECT_EQ(r->getRecSize(), kRecSize + expected.size());
}

TEST(DORecordTRefs, CorruptThirdReferenceKeepsTheFirstTwo) {
  struct Case { std::vector<uint8_t> third; cr_status_t status; const char* text; };
  for (const Case& c : {Case{{6, 0}, 121, "malformed input"},
                        Case{{9, 4, 0xAA}, 120, "truncated input"}}) {
    auto r = SmallRecord();
    crtest::Bytes section;
    section.u8(2).u8(8).be64(1).u8(4).u8(4).be32(2).raw(c.third.data(), c.third.size());
    crtest::LogCapture log(true);
    ExpectStatus([&] { r->AddSerializedTRefs(reinterpret_cast<const char*>(section.data()),
                                             static_cast<unsigned int>(section.size())); },
                 c.status, "Received a buffer with corrupt typed references.");
    EXPECT_EQ(log.texts(), std::vector<std::string>{
        std::string("Invalid DO record: invalid typed reference at offset 16 from start of typed "
                    "reference section: ") + c.text});
    EXPECT_TRUE(r->HasTaskID(1));
    EXPECT_TRUE(r->HasDSID(2));
    EXPECT_EQ(r->GetNTRefs(), 2u);
    EXPECT_EQ(r->getTRefsSize(), 16u);
    EXPECT_EQ(r->getRecSize(), kRecSize + 16);
    EXPECT_EQ(r->GetMTime(), 20u);
  }
}

TEST(DORecordTRefs, DuplicatesInALoadedSectionAreDropped) {
  auto r = SmallRecord();
  r->AddDSID(1);
  crtest::Bytes section;
  section.u8(2).u8(8).be64(5).u8(2).u8(8).be64(5).u8(4).u8(4).be32(1).u8(0).u8(1).u8(0x55);
  r->AddSerializedTRefs(reinterpret_cast<const char*>(section.data()), 29);
  EXPECT_EQ(r->GetNtaskid(), 1u);
  EXPECT_EQ(r->GetNds(), 1u);
  EXPECT_EQ(r->getTRefsSize(), 6u + 10 + 3);
  EXPECT_EQ(r->getRecSize(), kRecSize + 19);
  // Kind 0 is counted and written, but never walked.
  EXPECT_EQ(r->GetNTRefs(CR_TREF_TYPE_NONE), 1u);
  EXPECT_EQ(Section(*r)[0], 0);
  std::vector<unsigned int> kinds;
  for (auto it = r->GetTRefBegin(); it != r->GetTRefEnd(); ++it) {
    kinds.push_back(CRTRefGetType((*it)->Get()));
  }
  EXPECT_EQ(kinds, (std::vector<unsigned int>{2, 4}));
}

TEST(DORecordTRefs, WalkSkipsKindZeroAndEndsAtTheEndKind) {
  auto r = SmallRecord();
  auto other = SmallRecord();
  EXPECT_EQ(r->GetTRefBegin(), r->GetTRefEnd());
  EXPECT_NE(r->GetTRefEnd(), other->GetTRefEnd());
  r->AddSerializedTRefs("\x00\x01\x07", 3);  // kind 0 only
  EXPECT_EQ(r->GetNTRefs(), 1u);
  EXPECT_EQ(r->GetTRefBegin(), r->GetTRefEnd());

  r->OwnTRef(Ref(9));
  r->AddTaskID(30);
  r->AddTaskID(4);
  r->OwnTRef(Ref(6));
  std::vector<unsigned long> seen;
  for (auto it = r->GetTRefBegin(); it != r->GetTRefEnd(); ++it) {
    seen.push_back(CRTRefGetType((*it)->Get()) * 1000 + CRTRefGetTaskID((*it)->Get()));
  }
  EXPECT_EQ(seen, (std::vector<unsigned long>{2004, 2030, 6001, 9001}));

  DORecord::tref_const_iterator_t after3(r.get(), CR_TREF_TYPE_SNAPSHOT,
                                         r->GetTRefTypeEnd(CR_TREF_TYPE_SNAPSHOT));
  ++after3;
  EXPECT_EQ(after3, DORecord::tref_const_iterator_t(r.get(), CR_TREF_TYPE_RETENTION,
                                                    r->GetTRefTypeBegin(CR_TREF_TYPE_RETENTION)));
  DORecord::tref_const_iterator_t end(r.get(), CR_TREF_TYPE_END,
                                      r->GetTRefTypeBegin(CR_TREF_TYPE_TASKID));
  EXPECT_EQ(end, r->GetTRefEnd());  // positions do not count at the end kind
  ++end;
  EXPECT_EQ(end, r->GetTRefEnd());
  EXPECT_EQ(DORecord::tref_const_iterator_t(), DORecord::tref_const_iterator_t());
}

TEST(DORecordTRefs, OwnTRefUndoesItselfWhenTheBufferMayNotGrow) {
  auto built = SmallRecord();
  void* buffer = std::malloc(kRecSize);
  std::memcpy(buffer, built->GetHeader(), kRecSize);
  {
    DORecord r(static_cast<DORecordHeader*>(buffer), kRecSize, 0);
    const char* grow = "Need to expand the buffer of DORecord but I'm not allowed to copy it.";
    ExpectStatus([&] { r.AddTaskID(5); }, 9, grow);
    ExpectStatus([&] { r.AddSerializedTRefs("\x04\x01\x07", 3); }, 9, grow);
    EXPECT_EQ(r.GetNTRefs(), 0u);
    EXPECT_FALSE(r.HasTaskID(5));
    EXPECT_EQ(r.getTRefsSize(), 0u);
    EXPECT_EQ(r.getRecSize(), kRecSize);
    EXPECT_EQ(r.GetMTime(), 20u);
  }
  std::free(buffer);
}

TEST(DORecordTRefs, RawReferencesAreTakenOverOrCopiedAsPromised) {
  auto r = SmallRecord();
  // OwnTRef(raw&) releases the raw reference in every outcome (LeakSanitizer
  // would report it otherwise); AddTRef(const raw&) leaves it ours.
  EXPECT_EQ(r->OwnTRef(*Raw(6, {5})), 0);
  EXPECT_EQ(r->OwnTRef(*Raw(6, {5})), 1);
  ExpectRefusal([&] { r->OwnTRef(*Raw(1)); }, Unsupported(1));
  _cr_tref_t* mine = Raw(9, {5});
  EXPECT_EQ(r->AddTRef(*mine), 0);
  EXPECT_NE(r->GetTRefTypeBegin(CR_TREF_TYPE_HOLD)->get()->Get(), mine);
  CRTRefDelete(&mine);

  TRefPtr shared = Ref(4, {0, 0, 0, 8});
  EXPECT_EQ(r->OwnTRef(shared), 0);
  EXPECT_EQ(shared->UseCount(), 2u);
  TRefPtr copied = Ref(6, {6});
  EXPECT_EQ(r->AddTRef(copied), 0);
  EXPECT_EQ(copied->UseCount(), 1u);
  ExpectStatus([&] { r->AddTRef(TRefPtr()); }, 9, "NULL reference");
  ExpectStatus([&] { r->AddTRef(TRefPtr(new Cr_TRef(static_cast<_cr_tref_t*>(nullptr)))); }, 9,
               "NULL reference");
  EXPECT_EQ(r->GetNTRefs(), 4u);
}

TEST(DORecordTRefs, NetworkOrderRecordKeepsItsSizeFieldsInNetworkOrder) {
  auto r = SmallRecord();
  r->HostToNetwork(0);
  auto field = [&](size_t offset) {  // the buffer moves as the record grows
    return crtest::Hex(reinterpret_cast<const unsigned char*>(r->GetHeader()) + offset, 4);
  };
  r->AddTaskID(0x10);
  r->AddSerializedTRefs("\x06\x01\x07", 3);
  EXPECT_EQ(field(4), "00000095");   // recsize 136 + 13
  EXPECT_EQ(field(68), "0000000d");  // trefsize 13
  r->DelTRef(Ref(6, {7}));
  EXPECT_EQ(field(4), "00000092");
  EXPECT_EQ(r->getTRefsSize(), 10u);
  crtest::Bytes expected;
  expected.u8(2).u8(8).be64(0x10);  // the references' own encoding never swaps
  EXPECT_EQ(Section(*r), expected.vec());
  r->NetworkToHost(0);
  EXPECT_EQ(r->getRecSize(), kRecSize + 10);
}

}  // namespace
