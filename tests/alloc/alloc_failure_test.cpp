// Allocation failures, one row per operation: each row is run once without
// failure, then once with each of its allocations failing in turn (and, for
// the rows over an empty TRef pool, each pair of allocations, so that the
// pool's retry with a smaller block fails too). Every failure must come out
// as one of the row's outcomes (std::bad_alloc, or status 22 thrown or
// returned, with its exact text), all of them must be seen, the subject
// (record, caller's buffer, out-pointer) must be as it was, and nothing may
// be left allocated. The allocator is described in failing_allocator.h.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <boost/pool/singleton_pool.hpp>
#include <gtest/gtest.h>

#include "alloc/failing_allocator.h"
#include "crrecord/DORecord.h"
#include "crrecord/SORecord.h"
#include "crrecord/SOmarshall.h"
#include "serialized_form.h"
#include "test_support.h"

namespace {

// The TRef pool as the library declares it: the same arguments name the
// same process-wide pool.
typedef boost::singleton_pool<Cr_TRef_Pool_Tag, 16u, boost::default_user_allocator_new_delete,
                              std::mutex, 32u, 0u>
    TRefPool;
typedef std::map<unsigned long, unsigned long> SizeMap;
using crtest::Seg;

const std::string kBadAlloc = "bad_alloc";
const std::string kExpand = "throw 22: Not enough memory to expand a DO record.";
const std::string kCreate = "throw 22: Not enough memory to create DORecord.";
const std::string kCorrupt = "throw 22: Received a buffer with corrupt typed references.";
const std::string kDigest =
    "throw 22: Couldn't allocate enough memory to store the digest of a DORecord";
const std::string kReturn22 = "return 22";
const std::string kDone = "return 0";
constexpr unsigned int kOldTime = 1000;

// Enough free chunks for every row, so that a new Cr_TRef takes no block
// except in the rows that empty the pool.
void WarmTRefPool() {
  std::vector<boost::intrusive_ptr<Cr_TRef>> refs;
  for (unsigned long id = 1; id <= 4096; ++id) refs.emplace_back(new Cr_TRef(id));
}

// The last line logged, kept in fixed storage: a sink that allocated would
// count against the operation it watches.
char gLastLog[1024];
void KeepLastLine(cr_log_level_t, cr_status_t, const char* message, void*) {
  std::strncpy(gLastLog, message, sizeof gLastLog - 1);
}

// What a row works on; every run has a fresh one.
struct Subject {
  std::vector<uint8_t> input;        // serialized or stored bytes the operation reads
  std::vector<uint64_t> callers;     // a caller's buffer the record lives in
  DORecordHeader* handed = nullptr;  // a malloc'ed copy of input for the stored form
  unsigned int mode = 0;
  std::optional<DORecord> rec;  // in place: only the record's own allocations count
  std::optional<SORecord> so;
  _cr_tref_t* raw = nullptr;  // the caller's raw reference
  boost::intrusive_ptr<Cr_TRef> held;
  void* out = nullptr;  // a failure leaves it null and outSize as it was
  unsigned long outSize = 12345;
  SizeMap sizes;
  ~Subject() {
    rec.reset();
    std::free(handed);
    if (raw != nullptr) CRTRefDelete(&raw);
    std::free(out);
  }
};

// What a failure must leave as it was: all of it, all but the mtime (for
// the operations that stamp it first), or the mtime alone (for those that
// keep what they did before the failure, their sizes still in step).
enum Keep { kAll, kAllButMTime, kMTimeOnly };

void Put(std::string& to, const void* p, size_t n) { to.append(static_cast<const char*>(p), n); }

std::string Snapshot(const Subject& s, Keep keep) {
  std::string o;
  if (s.rec && keep == kMTimeOnly) return std::to_string(s.rec->GetMTime());
  if (s.rec) {
    const DORecord& r = *s.rec;
    const DORecordHeader* h = r.GetHeader();
    const unsigned long state[] = {r.GetAllocatedSize(), r.OwnsBuffer(), r.GetBufferMode(),
                                   r.IsInNetworkOrder()};
    Put(o, &h, sizeof h);
    Put(o, state, sizeof state);
    std::string bytes(reinterpret_cast<const char*>(h), r.getRecSize());
    if (keep == kAllButMTime) std::memset(&bytes[offsetof(DORecordHeader, mtime)], 0, 4);
    o += bytes;
    for (unsigned int kind = 0; kind < CR_TREF_TYPE_END; ++kind) {
      const cr_reftype_t k = static_cast<cr_reftype_t>(kind);
      for (auto it = r.GetTRefTypeBegin(k); it != r.GetTRefTypeEnd(k); ++it) Put(o, &*it, 8);
      o += '|';
    }
  }
  if (s.so) Put(o, s.so->GetHeader(), s.so->GetHeaderSize());
  Put(o, s.callers.data(), s.callers.size() * 8);
  if (s.handed != nullptr) Put(o, s.handed, s.input.size());
  const unsigned long uses = s.held ? s.held->UseCount() : 0;
  const void* const words[] = {&s.out, &s.outSize, &uses};
  for (const void* p : words) Put(o, p, 8);
  return o;
}

struct Row {
  const char* name;
  void (*setup)(Subject&);
  int (*op)(Subject&);  // 0 when it did what it was asked
  std::set<std::string> failures;
  Keep keep = kAll;
  void (*done)(Subject&) = nullptr;  // checks of a run that completed
  bool emptyPool = false;
};

// A DO type 2 record whose buffer is exactly its size: three segments of
// 100, 200 and 300 bytes in containers 500, 70 and 500, times old.
void Tight(Subject& s) {
  const std::vector<Seg> segs = {{crtest::PatternFP(0x10, 16), 100, 0, 0, 500},
                                 {crtest::PatternFP(0x40, 16), 200, 0, 0, 70},
                                 {crtest::PatternFP(0x70, 16), 300, 0, 0, 500}};
  const crtest::Bytes list = crtest::SegmentList(CR_DO_TYPE_NO_OFFSET, segs);
  const unsigned long dcids[] = {500, 70, 500};
  s.rec.emplace(900, 600, 4096, 77, kOldTime, kOldTime, list.data(), 3, dcids, nullptr,
                CR_FP_TYPE_SHA256_16, CR_DO_TYPE_NO_OFFSET);
}

void Bloom(Subject& s) {
  static const std::vector<uint8_t> bitmap = crtest::PatternBitmap(64);
  static const std::vector<uint8_t> block = crtest::HostUniqueDcids({{500, 20}, {70, 10}});
  s.rec.emplace(900, 600, 4096, 77, kOldTime, kOldTime, 64, bitmap.data(),
                reinterpret_cast<const char*>(block.data()), CR_FP_TYPE_SHA256_16,
                CR_DO_TYPE_BLOOM_FILTER);
}

_cr_tref_t* NewRawRef(cr_reftype_t kind, uint8_t seed) {
  const uint8_t payload[6] = {seed, 1, 2, 3, 4, 5};
  return CRTRefNew(kind, payload, sizeof payload);
}

void TightWithRaw(Subject& s) {
  Tight(s);
  s.raw = NewRawRef(CR_TREF_TYPE_HOLD, 4);
}
void TightWithHeld(Subject& s) {
  Tight(s);
  s.held.reset(new Cr_TRef(NewRawRef(CR_TREF_TYPE_RETENTION, 5)));
}
// A record with a task ID, a DSID and a hold, the hold's raw form kept.
void WithRefs(Subject& s) {
  TightWithRaw(s);
  s.rec->AddTaskID(5ul);
  s.rec->AddDSID(6u);
  s.rec->AddTRef(*s.raw);
}
int SerializedLoaded(Subject& s) {
  s.rec.emplace(s.input[0], 2, 900, s.input[1], s.callers.data(), s.callers.size() * 8,
                s.input.data() + 2, s.input.size() - 2, false);
  return 0;
}
// The serialized form of a DO type (its first byte) and fingerprint type.
void Serialized(Subject& s, uint8_t dotype, uint8_t fptype, size_t callersWords) {
  const std::vector<Seg> segs = dotype == CR_DO_TYPE_NO_OFFSET
                                    ? std::vector<Seg>{{crtest::PatternFP(0x10, 16), 100, 0, 0, 500},
                                                       {crtest::PatternFP(0x40, 16), 200, 0, 0, 70},
                                                       {crtest::PatternFP(0x70, 16), 300, 0, 0, 500}}
                                    : crtest::ThreeSegments(fptype);
  const std::vector<uint8_t> body =
      dotype == CR_DO_TYPE_BLOOM_FILTER
          ? crtest::SerializedBloom(600, 4096, crtest::PatternBitmap(64), {{500, 20}, {70, 10}})
          : crtest::Sealed(crtest::SerializedDO(dotype, dotype == 2 ? 600 : 10000, 4096, 77, segs));
  s.input = {dotype, fptype};
  s.input.insert(s.input.end(), body.begin(), body.end());
  s.callers.resize(callersWords);
}
void Stored(Subject& s, std::vector<uint8_t> image, unsigned int mode) {
  s.input = std::move(image);
  s.mode = mode;
  s.handed = static_cast<DORecordHeader*>(std::malloc(s.input.size()));
  std::memcpy(s.handed, s.input.data(), s.input.size());
}
// The stored form of a record with two task IDs and a DSID.
std::vector<uint8_t> WithRefsImage() {
  Subject s;
  Tight(s);
  s.rec->AddTaskID(5ul);
  s.rec->AddTaskID(7ul);
  s.rec->AddDSID(9u);
  const uint8_t* p = reinterpret_cast<const uint8_t*>(s.rec->GetHeader());
  return std::vector<uint8_t>(p, p + s.rec->getRecSize());
}
// A stored record of an older kind: two task IDs and a DSID in the old
// lists behind the header, then a DO type 1 list of two segments.
std::vector<uint8_t> OldListsImage() {
  crtest::Bytes b;
  b.le16(3).le16(2).le32(80 + 2 * 8 + 4 + 2 * 16 + 2 * 8).le32(0).le32(0);
  b.le64(900).le64(8000).le64(4096).le32(77).le32(kOldTime).le32(kOldTime);
  b.le32(2).le32(2).le32(0).le32(1).le32(0).le32(0);
  b.u8(CR_FP_TYPE_MD5).u8(CR_DO_TYPE_NO_SIZE).zeros(2);
  b.le64(31).le64(17).le32(4);
  b.raw(crtest::PatternFP(1, 16).data(), 16).raw(crtest::PatternFP(2, 16).data(), 16);
  b.le64(64).le64(65);
  return b.vec();
}
int StoredOpen(Subject& s) {
  s.rec.emplace(s.handed, s.input.size(), s.mode);
  if (s.mode == 2) s.handed = nullptr;  // the record's now
  return 0;
}
void HasOldRefs(Subject& s) {
  EXPECT_TRUE(s.rec->HasTaskID(31) && s.rec->HasTaskID(17) && s.rec->HasDSID(4));
}
// A segment list of a DO type, its type kept in mode.
void SegmentListOf(Subject& s, uint8_t dotype) {
  s.input = crtest::SegmentList(dotype, crtest::ThreeSegments(CR_FP_TYPE_SHA256)).vec();
  s.mode = dotype;
}
int FromSegmentList(Subject& s) {
  const unsigned long dcids[] = {64, 70, 64};
  s.rec.emplace(900, 10000, 4096, 7, 0, 0, s.input.data(), 3, dcids, nullptr, CR_FP_TYPE_SHA256,
                s.mode);
  return 0;
}
int ToStream(std::ostream& os, Subject& s, bool binary) {
  os.exceptions(std::ios::badbit);
  if (s.rec) s.rec->ToStream(os, binary);
  if (s.so) SegmentRecordToStream(os, *s.so->GetHeader(), binary);
  return 0;
}
void SegmentRecord(Subject& s) { s.so.emplace(2, 64, 4096, 7, QorKey{}, 0, CR_FP_TYPE_MD5); }
void ManySegments(Subject& s) {
  crtest::Bytes list;
  std::vector<unsigned long> dcids;
  for (uint32_t i = 0; i < 5000; ++i) {
    list.raw(crtest::PatternFP(static_cast<uint8_t>(i), 16).data(), 16);
    dcids.push_back(64 + 7ul * (5000 - i));  // descending: the list sorts them
  }
  s.rec.emplace(900, 5000ul * 4096, 4096, 0, kOldTime, kOldTime, list.data(), 5000, dcids.data(),
                nullptr, CR_FP_TYPE_MD5, CR_DO_TYPE_NO_SIZE);
}
void ListsTwoContainers(Subject& s) {
  ASSERT_EQ(s.rec->GetNudcid(), 2u);
  EXPECT_EQ(s.rec->GetSegmentUDCID(0), 70u);
  EXPECT_EQ(s.rec->GetSegmentUDCID(1), 500u);
}
int AllActive(unsigned long, void*) { return 1; }
const uint8_t kSection[] = {CR_TREF_TYPE_TASKID, 8, 0, 0, 0, 0, 0, 0, 0, 11, CR_TREF_TYPE_DSID,
                            4, 0, 0, 0, 12, CR_TREF_TYPE_HOLD, 3, 1, 2, 3};
int AddSection(Subject& s) {
  s.rec->AddSerializedTRefs(reinterpret_cast<const char*>(kSection), sizeof kSection);
  return 0;
}

#define ROW(name, setup, op, ...) \
  {#name, []([[maybe_unused]] Subject& s) { setup; }, [](Subject& s) -> int op, __VA_ARGS__}
const std::vector<Row> kRows = {
    ROW(SegmentListType0, SegmentListOf(s, 0), { return FromSegmentList(s); }, {kCreate}),
    ROW(SegmentListType1, SegmentListOf(s, 1), { return FromSegmentList(s); }, {kCreate}),
    ROW(SegmentListType2, SegmentListOf(s, 2), { return FromSegmentList(s); }, {kCreate}),
    ROW(SegmentListType3, SegmentListOf(s, 3), { return FromSegmentList(s); }, {kCreate}),
    ROW(SegmentListType5, SegmentListOf(s, 5), { return FromSegmentList(s); }, {kCreate}),
    ROW(BloomBitmap, , { Bloom(s); return 0; }, {kCreate}),
    ROW(SerializedType3, Serialized(s, 3, CR_FP_TYPE_MD5, 0), { return SerializedLoaded(s); },
        {"throw 22: Could not deserialize DO: malloc failed for 188 bytes"}),
    ROW(SerializedBloom, Serialized(s, 4, CR_FP_TYPE_SHA256_16, 0),
        { return SerializedLoaded(s); }, {"throw 22: Could not deserialize DO: malloc failed for 204 bytes"}),
    ROW(SerializedInCallersBuffer, Serialized(s, 1, CR_FP_TYPE_SHA256_16, 512),
        { return SerializedLoaded(s); }, {}),
    ROW(StoredWithRefsMode1, Stored(s, WithRefsImage(), 1), { return StoredOpen(s); },
        {kCorrupt, kBadAlloc}),
    ROW(StoredWithRefsMode2, Stored(s, WithRefsImage(), 2), { return StoredOpen(s); },
        {kCorrupt, kBadAlloc}),
    ROW(StoredOldListsMode1, Stored(s, OldListsImage(), 1), { return StoredOpen(s); },
        {"throw 22: Not enough memory to copy a DO record.", kBadAlloc, kExpand}, kAll,
        HasOldRefs),
    ROW(StoredOldListsMode2, Stored(s, OldListsImage(), 2), { return StoredOpen(s); },
        {"throw 22: Not enough memory to copy a DO record.", kBadAlloc, kExpand}, kAll,
        HasOldRefs),
    ROW(SegmentRecord, , { SegmentRecord(s); return 0; },
        {"throw 22: SORecord: memory allocation of 104 bytes failed!"}),
    ROW(ExpandOwnBuffer, Tight(s), { s.rec->expand(s.rec->getRecSize() + 1); return 0; },
        {kExpand}),
    ROW(ExpandCallersBuffer, Serialized(s, 0, CR_FP_TYPE_SHA256_16, 64); SerializedLoaded(s),
        { s.rec->expand(513); return 0; }, {kExpand}, kAll,
        [](Subject& s) { EXPECT_TRUE(s.rec->OwnsBuffer() && s.rec->GetBufferMode() == 2); }),
    ROW(Serialize, Tight(s), { return s.rec->Serialize(&s.out, &s.outSize, true); },
        {"return 22: Could not serialize DO: malloc failed for 164 bytes (out of memory)"}, kAll,
        [](Subject& s) { EXPECT_EQ(s.outSize, 164u); }),
    ROW(SerializeBloom, Bloom(s), { return s.rec->Serialize(&s.out, &s.outSize, false); },
        {"return 22: Could not serialize DO: malloc failed for 152 bytes (out of memory)"}),
    ROW(SerializeSegmentRecord, SegmentRecord(s),
        { return SegmentRecordSerialize(s.so->GetHeader(), &s.out, &s.outSize); },
        {"return 22: Could not serialize SO: malloc failed for 33 bytes (out of memory)"}, kAll,
        [](Subject& s) { EXPECT_EQ(s.outSize, 33u); }),
    ROW(TextForm, Tight(s); s.rec->AddTaskID(5ul),
        { std::ostringstream os; return ToStream(os, s, false); }, {kBadAlloc}),
    ROW(BinaryFormInNetworkOrder, Tight(s); s.rec->AddDSID(3u); s.rec->HostToNetwork(0),
        { std::ostringstream os; return ToStream(os, s, true); }, {kBadAlloc}),
    ROW(SegmentRecordText, SegmentRecord(s),
        { std::ostringstream os; return ToStream(os, s, false); }, {kBadAlloc}),
    ROW(SegmentRecordBinary, SegmentRecord(s),
        { std::ostringstream os; return ToStream(os, s, true); }, {kBadAlloc}),
    ROW(Digest, Tight(s), { cr_tdigest_t* d = s.rec->GetDigest(); CRTDigestDelete(&d); return 0; },
        {"throw 22: Failed to allocate memeory for DO buffer.", kDigest}),
    ROW(DigestBloom, Bloom(s),
        { cr_tdigest_t* d = s.rec->GetDigest(); CRTDigestDelete(&d); return 0; }, {kDigest}),
    ROW(UniqueDCIDList, Tight(s), { return s.rec->AppendBloomAndUniqueDCIDList(); }, {kReturn22},
        kAll, ListsTwoContainers),
    ROW(UniqueDCIDListInCallersBuffer, Serialized(s, 2, CR_FP_TYPE_SHA256_16, 21);
        SerializedLoaded(s), { return s.rec->AppendBloomAndUniqueDCIDList(); }, {kReturn22},
        kAll, ListsTwoContainers),
    ROW(UniqueDCIDListOfManySegments, ManySegments(s),
        { return s.rec->AppendBloomAndUniqueDCIDList(); }, {kReturn22}, kAll,
        [](Subject& s) { EXPECT_EQ(s.rec->GetSegmentUDCID(4999), 64u + 7 * 5000); }),
    ROW(BloomList, Bloom(s), { return s.rec->AppendBloomAndUniqueDCIDList(); },
        {kReturn22, kDone}, kAll, ListsTwoContainers),
    ROW(SerializedBloomList, Serialized(s, 4, CR_FP_TYPE_SHA256_16, 0); SerializedLoaded(s),
        { return s.rec->AppendBloomAndUniqueDCIDList(); }, {kReturn22, kDone}, kAll,
        ListsTwoContainers),
    ROW(UDCIDSizeList, Bloom(s), { return s.rec->GetUDCIDSizeList(s.sizes); },
        {"return 22: GetUDCIDSizeList: failed to construct SO info vector, out of memory."},
        kAll, [](Subject& s) { EXPECT_EQ(s.sizes, (SizeMap{{70, 10}, {500, 20}, {900, s.rec->GetDOSize()}})); }),
    ROW(AppendBloom, Bloom(s), { return s.rec->AppendBloom(s.sizes); }, {kBadAlloc}, kMTimeOnly,
        [](Subject& s) { EXPECT_EQ(s.sizes, (SizeMap{{70, 10}, {500, 20}})); }),
    ROW(AddTaskID, Tight(s), { return s.rec->AddTaskID(7ul); }, {kBadAlloc, kExpand}, kAll,
        [](Subject& s) { EXPECT_TRUE(s.rec->HasTaskID(7)); }),
    ROW(AddDSIDWithRoom, Tight(s); s.rec->AddTaskID(7ul), { return s.rec->AddDSID(3u); },
        {kBadAlloc}, kAll, [](Subject& s) { EXPECT_TRUE(s.rec->HasDSID(3)); }),
    ROW(AddTaskIDPurging, Tight(s); s.rec->AddTaskID(3ul),
        { return s.rec->AddTaskID(9ul, &AllActive, nullptr); }, {kBadAlloc}, kAllButMTime,
        [](Subject& s) { EXPECT_TRUE(s.rec->HasTaskID(9)); }),
    ROW(OwnTRef, TightWithHeld(s), { return s.rec->OwnTRef(s.held); }, {kBadAlloc, kExpand}, kAll,
        [](Subject& s) { EXPECT_EQ(s.held->UseCount(), 2u); }),
    ROW(OwnRawTRef, TightWithRaw(s), { return s.rec->OwnTRef(*std::exchange(s.raw, nullptr)); },
        {kBadAlloc, kExpand}),
    ROW(AddRawTRef, TightWithRaw(s), { return s.rec->AddTRef(*s.raw); }, {kBadAlloc, kExpand}),
    ROW(AddHeldTRefWithRoom, TightWithHeld(s); s.rec->AddTaskID(1ul),
        { return s.rec->AddTRef(s.held); }, {kBadAlloc}, kAll,
        [](Subject& s) { EXPECT_EQ(s.held->UseCount(), 1u); }),  // the record holds a copy
    ROW(CheckTRef, WithRefs(s), { return s.rec->CheckTRef(s.raw); }, {kBadAlloc}),
    ROW(HasTaskID, WithRefs(s), { return s.rec->HasTaskID(5) ? 0 : 1; }, {kBadAlloc}),
    ROW(HasDSID, WithRefs(s), { return s.rec->HasDSID(6) ? 0 : 1; }, {kBadAlloc}),
    ROW(DelTRef, WithRefs(s), { return s.rec->DelTRef(s.raw) == 1 ? 0 : 1; }, {kBadAlloc}),
    ROW(DelDSID, WithRefs(s), { return s.rec->DelDSID(6u) == 1 ? 0 : 1; }, {kBadAlloc}),
    ROW(AddSection, Tight(s), { return AddSection(s); }, {kExpand, kCorrupt, kBadAlloc},
        kMTimeOnly, [](Subject& s) { EXPECT_EQ(s.rec->GetNTRefs(), 3u); }),
    // Reading, removing and converting allocate nothing.
    ROW(CheckSegmentList, WithRefs(s), { s.rec->checkSegmentList(); return 0; }, {}),
    ROW(CheckHeldTRef, WithRefs(s); s.held.reset(new Cr_TRef(6u)),
        { return s.rec->CheckTRef(s.held); }, {}),
    ROW(Compare, WithRefs(s), { return *s.rec == *s.rec ? 0 : 1; }, {}),
    ROW(ToNetworkAndBack, WithRefs(s),
        { s.rec->HostToNetwork(0); s.rec->NetworkToHost(0); return 0; }, {}),
    ROW(DelHeldTRef, WithRefs(s); s.held.reset(new Cr_TRef(6u)),
        { return s.rec->DelTRef(s.held) == 1 ? 0 : 1; }, {}),
    ROW(RemoveInactive, WithRefs(s),
        { return static_cast<int>(s.rec->RemoveInactiveTaskIDs(&AllActive, nullptr)); }, {}),
    ROW(RemoveAll, WithRefs(s), { s.rec->RemoveAllTRefs(); return 0; }, {}),
    ROW(ClearType, WithRefs(s), { s.rec->ClearTRefType(CR_TREF_TYPE_DSID); return 0; }, {}),
    // The pool's own blocks: it retries with half a block, and a reference
    // it cannot place is released.
    ROW(AddTaskIDEmptyPool, Tight(s), { return s.rec->AddTaskID(7ul); },
        {kDone, kBadAlloc, kExpand}, kAll, nullptr, true),
    ROW(AddRawTRefEmptyPool, TightWithRaw(s), { return s.rec->AddTRef(*s.raw); },
        {kDone, kBadAlloc, kExpand}, kAll, nullptr, true),
    ROW(AddSectionEmptyPool, Tight(s); s.rec->expand(s.rec->getRecSize() + 64),
        { return AddSection(s); }, {kDone, kCorrupt, kBadAlloc}, kMTimeOnly, nullptr, true),
};
#undef ROW

// A run's outcome: "return <status>[: <log>]", "throw <status>: <text>" or
// "bad_alloc"; the text is the exception's message or, without one, the
// last line logged.
std::string RunOp(const Row& row, Subject& s, unsigned long k, unsigned long width,
                  bool* injected) {
  gLastLog[0] = '\0';
  int status = 0;
  std::exception_ptr error;
  crtest::FailAllocationAt(k, width);
  try {
    status = row.op(s);
  } catch (...) {
    error = std::current_exception();
  }
  *injected = crtest::StopFailingAllocations();
  const std::string log = gLastLog;
  if (!error) return "return " + std::to_string(status) + (status == 0 || log.empty() ? "" : ": " + log);
  try {
    std::rethrow_exception(error);
  } catch (const Cr_ErrnoException& e) {
    return "throw " + std::to_string(e.GetStatus()) + ": " + (*e.what() != '\0' ? e.what() : log);
  } catch (const std::bad_alloc&) {
    return kBadAlloc;
  } catch (const std::exception& e) {
    return std::string("other exception: ") + e.what();
  }
}

// One run on a fresh subject with allocations k .. k + width - 1 failing;
// checks the subject and the live allocations, and returns the outcome of
// an injected failure ("" when none was reached).
std::string RunOnce(const Row& row, unsigned long k, unsigned long width) {
  if (row.emptyPool) TRefPool::purge_memory();  // no Cr_TRef is alive between runs
  std::string outcome;
  outcome.reserve(1024);  // before the count: the outcome outlives the subject
  const long base = crtest::LiveAllocations();
  {
    Subject s;
    row.setup(s);
    const std::string before = Snapshot(s, row.keep);
    bool injected = false;
    outcome = RunOp(row, s, k, width, &injected);
    if (s.rec) {
      EXPECT_EQ(s.rec->getTRefsSize(), s.rec->calcTRefsSize()) << outcome;
      EXPECT_EQ(s.rec->getRecSize(), s.rec->calcRecSize()) << outcome;
    }
    if (outcome == kDone && row.done != nullptr) row.done(s);
    if (outcome != kDone) {
      EXPECT_TRUE(Snapshot(s, row.keep) == before) << "changed by " << outcome;
    }
    if (!injected) {
      EXPECT_EQ(outcome, kDone);
      outcome.clear();
    }
  }
  if (row.emptyPool) TRefPool::purge_memory();
  EXPECT_EQ(crtest::LiveAllocations(), base) << "left allocated by " << outcome;
  return outcome;
}

class AllocFailureTest : public ::testing::TestWithParam<Row> {
 protected:
  static void SetUpTestSuite() { WarmTRefPool(); }
  void SetUp() override {
    CRLogSetSink(&KeepLastLine, nullptr);
    CRTraceSet(true);  // the reader traces the failure it returns
  }
  void TearDown() override {
    CRLogSetSink(nullptr, nullptr);
    CRTraceSet(false);
  }
};

TEST_P(AllocFailureTest, EveryFailureComesOutAsDocumentedAndChangesNothing) {
  const Row& row = GetParam();
  {
    Subject s;  // first uses, outside the counts
    row.setup(s);
    row.op(s);
  }
  RunOnce(row, ~0ul, 1);
  const unsigned long count = crtest::AllocationsSinceArmed();
  std::set<std::string> seen;
  for (unsigned long width = 1; width <= (row.emptyPool ? 2 : 1); ++width) {
    for (unsigned long k = 0; k < count; ++k) {
      SCOPED_TRACE("failing allocations " + std::to_string(k) + " to " + std::to_string(k + width - 1));
      const std::string outcome = RunOnce(row, k, width);
      if (!outcome.empty()) seen.insert(outcome);
    }
  }
  EXPECT_EQ(seen, row.failures);
  if (row.emptyPool) WarmTRefPool();
}

INSTANTIATE_TEST_SUITE_P(Rows, AllocFailureTest, ::testing::ValuesIn(kRows),
                         [](const ::testing::TestParamInfo<Row>& info) { return info.param.name; });

}  // namespace
