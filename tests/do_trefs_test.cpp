// Typed references of a DO record: which kinds each operation takes, the
// size fields and mtime after every change, the section's bytes, loading a
// section (corrupt, duplicate, kind 0) and walking it.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "images.h"
#include "error_format.h"

namespace {

using namespace crtest;
typedef boost::intrusive_ptr<Cr_TRef> TRefPtr;

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

std::pair<cr_log_level_t, cr_status_t> LevelAndStatus(const LogCapture& log) {
  return {log.lines()[0].level, log.lines()[0].status};
}

constexpr const char* kUnsupportedFormat = "The type of reference %s is unsupported for a DO";

// A refusal with status 9 that is also logged once as an error, through
// ErrorA with the unsupported-kind format.
void ExpectRefusal(std::function<void()> f, const std::string& message,
                   const char* format = kUnsupportedFormat) {
  LogCapture log;
  ClearErrorFormat();
  EXPECT_EQ(Thrown(f), Failure(9, message));
  EXPECT_STREQ(LastErrorFormat(), format);
  ASSERT_EQ(log.texts(), std::vector<std::string>{message});
  EXPECT_EQ(LevelAndStatus(log), std::make_pair(CR_LOG_ERROR, cr_status_t{9}));
}

std::vector<uint8_t> Section(const DORecord& r) {
  return BytesAt(r.GetSerializedTRefs(), r.GetSerializedTRefsSize());
}

void Load(DORecord& r, const Bytes& section) {
  r.AddSerializedTRefs(reinterpret_cast<const char*>(section.data()),
                       static_cast<unsigned int>(section.size()));
}

// What each kind allows: OwnTRef adds 2, 4, 6, 9; DelTRef removes those and
// 8; CheckTRef looks up 4, 6, 9 (warning 72 when absent), answers 7 and 12
// without looking; every other use is refused with status 9 and an error.
TEST(DORecordTRefs, EachKindIsAddedRemovedAndLookedUpAsItsRowSays) {
  enum Look { kRefused, kLooks, kAnswers };
  struct Row {
    unsigned int kind;
    bool own, del;
    Look check;
  };
  const Row rows[] = {
      {0, false, false, kRefused}, {1, false, false, kRefused}, {2, true, true, kRefused},
      {3, false, false, kRefused}, {4, true, true, kLooks},     {5, false, false, kRefused},
      {6, true, true, kLooks},     {7, false, false, kAnswers}, {8, false, true, kRefused},
      {9, true, true, kLooks},     {10, false, false, kRefused}, {11, false, false, kRefused},
      {12, false, false, kAnswers},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.kind);
    auto r = SmallRecord();
    const unsigned int kind = row.kind;
    unsigned int trefsize = 0;
    if (row.own) {
      EXPECT_TRUE(Stamps(*r, [&] { EXPECT_EQ(r->OwnTRef(Ref(kind)), 0); }));
      trefsize = 3;  // kind, length, one payload byte
    } else {
      EXPECT_FALSE(Stamps(
          *r, [&] { ExpectRefusal([&] { r->OwnTRef(Ref(kind)); }, Unsupported(kind)); }));
      if (kind <= 10) {  // present all the same, as a stored section holds it
        Bytes section;
        Load(*r, section.u8(kind).u8(1).u8(1));
        trefsize = 3;
      }
    }
    EXPECT_EQ(r->getTRefsSize(), trefsize);
    EXPECT_EQ(r->getRecSize(), kSmallSize + trefsize);
    {
      LogCapture log;
      r->GetHeader()->mtime = 20;
      if (row.check == kLooks) {
        EXPECT_EQ(r->CheckTRef(Ref(kind)), 0u);
        _cr_tref_t* absent = Raw(kind, {2});
        EXPECT_EQ(r->CheckTRef(absent), 72u);
        CRTRefDelete(&absent);
        ASSERT_EQ(log.texts(), std::vector<std::string>{"CheckTRef: The type of reference tref" +
                                                        std::to_string(kind) + ":02 is not found"});
        EXPECT_EQ(LevelAndStatus(log), std::make_pair(CR_LOG_WARNING, cr_status_t{72}));
      } else if (row.check == kAnswers) {
        EXPECT_EQ(r->CheckTRef(Ref(kind, {2})), 0u);
        EXPECT_TRUE(log.lines().empty());
      } else {
        ExpectRefusal([&] { r->CheckTRef(Ref(kind)); }, Unsupported(kind, "CheckTRef: "),
                      "%s: The type of reference %s is unsupported for a DO");
      }
      EXPECT_EQ(r->GetMTime(), 20u);
    }
    if (row.del) {
      EXPECT_EQ(r->DelTRef(Ref(kind)), 1u);
      EXPECT_EQ(r->GetNTRefs(static_cast<cr_reftype_t>(kind)), 0u);
      trefsize = 0;
    } else {
      ExpectRefusal([&] { r->DelTRef(Ref(kind)); }, Unsupported(kind));
    }
    EXPECT_EQ(r->getTRefsSize(), trefsize);
    EXPECT_EQ(r->getRecSize(), kSmallSize + trefsize);
  }
  auto r = SmallRecord();
  EXPECT_EQ(Thrown([&] { r->CheckTRef(static_cast<const _cr_tref_t*>(nullptr)); }),
            Failure(9, "NULL reference"));
}

TEST(DORecordTRefs, SizeFieldsAndMTimeFollowEveryChange) {
  auto r = SmallRecord();
  auto sizes = [&] { return std::vector<unsigned long>{r->getTRefsSize(), r->getRecSize()}; };
  auto expect = [](unsigned long trefs) {
    return std::vector<unsigned long>{trefs, kSmallSize + trefs};
  };
  EXPECT_TRUE(Stamps(*r, [&] { EXPECT_EQ(r->AddTaskID(1), 0); }));
  EXPECT_EQ(sizes(), expect(10));
  EXPECT_TRUE(Stamps(*r, [&] { EXPECT_EQ(r->AddDSID(2), 0); }));
  EXPECT_EQ(r->AddDSID(2), 1);
  EXPECT_TRUE(Stamps(*r, [&] { EXPECT_EQ(r->DelDSID(8), 0u); }));  // absent
  EXPECT_TRUE(Stamps(*r, [&] { EXPECT_EQ(r->OwnTRef(Ref(6, {1, 2, 3})), 0); }));
  EXPECT_EQ(sizes(), expect(21));
  EXPECT_TRUE(Stamps(*r, [&] { EXPECT_EQ(r->AddTaskID(1), 1); }));  // already there
  EXPECT_EQ(sizes(), expect(21));
  EXPECT_EQ(r->calcTRefsSize(), 21u);
  EXPECT_EQ(r->GetTRefTypeTotalSize(CR_TREF_TYPE_DSID), 6u);
  EXPECT_EQ(r->GetTRefTypeTotalSize(CR_TREF_TYPE_END), 0u);  // a kind with no set

  EXPECT_TRUE(Stamps(*r, [&] { EXPECT_EQ(r->DelTRef(Ref(9)), 0u); }));  // absent
  const _cr_tref_t* none = nullptr;
  EXPECT_FALSE(Stamps(*r, [&] { EXPECT_EQ(r->DelTRef(none), 0u); }));
  EXPECT_FALSE(Stamps(*r, [&] { EXPECT_EQ(r->DelTRef(TRefPtr()), 0u); }));
  EXPECT_FALSE(Stamps(*r, [&] { r->ClearTRefType(CR_TREF_TYPE_RETENTION); }));
  EXPECT_EQ(sizes(), expect(16));
  EXPECT_TRUE(Stamps(*r, [&] { r->RemoveAllTRefs(); }));  // task IDs only
  EXPECT_EQ(sizes(), expect(6));
  EXPECT_EQ(r->GetNds(), 1u);
  EXPECT_TRUE(Stamps(*r, [&] { r->RemoveAllTRefs(); }));  // none left: still stamps
  EXPECT_TRUE(Stamps(*r, [&] { r->AddSerializedTRefs("", 0); }));
  EXPECT_EQ(sizes(), expect(6));
  EXPECT_EQ(r->DelDSID(2), 1u);
  EXPECT_EQ(sizes(), expect(0));
}

// A loaded section's duplicates, within it or of what the record holds, are
// dropped; kind 0 is kept and leads.
TEST(DORecordTRefs, SectionIsWrittenKindByKindInSetOrderWithoutDuplicates) {
  auto r = SmallRecord();
  r->OwnTRef(Ref(9, {0xAA}));
  r->AddDSID(9);
  r->AddTaskID(3);
  r->OwnTRef(Ref(6, {1, 2}));
  r->AddDSID(2);
  r->AddTaskID(1);
  Bytes loaded;
  Load(*r, loaded.u8(2).u8(8).be64(3).u8(4).u8(4).be32(7).u8(4).u8(4).be32(7).u8(0).u8(1).u8(5));
  Bytes expected;
  expected.u8(0).u8(1).u8(5).u8(2).u8(8).be64(1).u8(2).u8(8).be64(3);
  expected.u8(4).u8(4).be32(2).u8(4).u8(4).be32(7).u8(4).u8(4).be32(9);
  expected.u8(6).u8(2).u8(1).u8(2).u8(9).u8(1).u8(0xAA);
  EXPECT_EQ(r->GetSerializedTRefs(), reinterpret_cast<unsigned char*>(r->GetHeader()) + kSmallSize);
  EXPECT_EQ(Section(*r), expected.vec());
  EXPECT_EQ((std::vector<unsigned long>{r->GetNtaskid(), r->GetNds(), r->getTRefsSize()}),
            (std::vector<unsigned long>{2, 3, expected.size()}));
  EXPECT_EQ(r->getRecSize(), kSmallSize + expected.size());
  // The walk over every reference skips kind 0 and stays at the end once there.
  std::vector<unsigned long> walked;
  for (auto it = r->GetTRefBegin(); it != r->GetTRefEnd(); ++it) {
    walked.push_back(CRTRefGetType((*it)->Get()));
  }
  EXPECT_EQ(walked, (std::vector<unsigned long>{2, 2, 4, 4, 4, 6, 9}));
  DORecord::tref_const_iterator_t end = r->GetTRefEnd();
  EXPECT_EQ(++end, r->GetTRefEnd());
  const auto empty = SmallRecord();
  EXPECT_EQ(empty->GetTRefBegin(), empty->GetTRefEnd());
  EXPECT_NE(empty->GetTRefEnd(), r->GetTRefEnd());
}

TEST(DORecordTRefs, CorruptThirdReferenceKeepsTheFirstTwo) {
  struct Case { std::vector<uint8_t> third; cr_status_t status; const char* text; };
  for (const Case& c : {Case{{6, 0}, 121, "malformed input"},
                        Case{{11, 1, 0xAA}, 121, "malformed input"},  // past the last kind
                        Case{{9, 4, 0xAA}, 120, "truncated input"}}) {
    auto r = SmallRecord();
    Bytes section;
    section.u8(2).u8(8).be64(1).u8(4).u8(4).be32(2).raw(c.third.data(), c.third.size());
    LogCapture log(true);
    EXPECT_EQ(Thrown([&] { Load(*r, section); }),
              Failure(c.status, "Received a buffer with corrupt typed references."));
    EXPECT_EQ(log.texts(), std::vector<std::string>{
        std::string("Invalid DO record: invalid typed reference at offset 16 from start of typed "
                    "reference section: ") + c.text});
    EXPECT_EQ((std::vector<unsigned long>{r->HasTaskID(1), r->HasDSID(2), r->GetNTRefs(),
                                          r->getTRefsSize(), r->getRecSize(), r->GetMTime()}),
              (std::vector<unsigned long>{1, 1, 2, 16, kSmallSize + 16, 20}));
  }
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
  EXPECT_EQ(Thrown([&] { r->AddTRef(TRefPtr()); }), Failure(9, "NULL reference"));
  EXPECT_EQ(Thrown([&] { r->AddTRef(TRefPtr(new Cr_TRef(static_cast<_cr_tref_t*>(nullptr)))); }),
            Failure(9, "NULL reference"));
  EXPECT_EQ(r->GetNTRefs(), 4u);
}

}  // namespace
