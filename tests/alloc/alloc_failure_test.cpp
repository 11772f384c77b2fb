// Allocation failures, one row per operation: each row runs once without a
// failure, then once with each of its allocations failing in turn (and, for
// the rows over an empty TRef pool, each pair of allocations, so that the
// pool's retry with half a block fails too). Every failure must come out as
// one of the row's outcomes (std::bad_alloc, or status 22 thrown or
// returned, with its exact text), each of them must be seen, the subject
// (record, caller's buffer, out-pointer) must be as it was, and nothing may
// stay allocated. The allocator is described in failing_allocator.h.
#include <cstdlib>
#include <cstring>
#include <exception>
#include <map>
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
#include "images.h"

namespace {

// The TRef pool as the library declares it: the same arguments name the
// same process-wide pool.
typedef boost::singleton_pool<Cr_TRef_Pool_Tag, 16u, boost::default_user_allocator_new_delete,
                              std::mutex, 32u, 0u>
    TRefPool;

const std::string kBadAlloc = "bad_alloc";
const std::string kExpand = "throw 22: Not enough memory to expand a DO record.";
const std::string kCreate = "throw 22: Not enough memory to create DORecord.";
const std::string kCopy = "throw 22: Not enough memory to copy a DO record.";
const std::string kCorrupt = "throw 22: Received a buffer with corrupt typed references.";
const std::string kDeserialize = "throw 22: Could not deserialize DO: malloc failed for ";
const std::string kSerialize = "return 22: Could not serialize DO: malloc failed for ";
const std::string kOOM = " (out of memory)";
const std::string kReturn22 = "return 22";
const std::string kDone = "return 0";
constexpr uint8_t kFP = CR_FP_TYPE_SHA256_16;
constexpr unsigned int kOldTime = 1000;
const unsigned long kDcids[] = {500, 70, 500};
const uint8_t kHold[] = {4, 1, 2, 3, 4, 5};  // a raw reference's payload

// Enough free chunks for every row but those that empty the pool.
void WarmTRefPool() {
  std::vector<boost::intrusive_ptr<Cr_TRef>> refs;
  for (unsigned long id = 1; id <= 4096; ++id) refs.emplace_back(new Cr_TRef(id));
}

// The last line logged, in fixed storage: a sink must not allocate.
char gLastLog[1024];
void KeepLastLine(cr_log_level_t, cr_status_t, const char* message, void*) {
  std::strncpy(gLastLog, message, sizeof gLastLog - 1);
}

// What a row works on; every run has a fresh one.
struct Subject {
  std::vector<uint8_t> input;        // the bytes the operation reads
  unsigned int mode = 0;             // their DO type, or the stored form's buffer mode
  std::vector<uint64_t> callers;     // a caller's buffer the record lives in
  DORecordHeader* handed = nullptr;  // a malloc'ed copy of input for the stored form
  std::optional<DORecord> rec;       // in place: only the record's own allocations count
  std::optional<SORecord> so;
  _cr_tref_t* raw = CRTRefNew(CR_TREF_TYPE_HOLD, kHold, sizeof kHold);  // the caller's
  boost::intrusive_ptr<Cr_TRef> held;
  void* out = nullptr;  // a failure leaves it null and outSize as it was
  unsigned long outSize = 12345;
  std::map<unsigned long, unsigned long> sizes;
  ~Subject() {
    rec.reset();
    std::free(handed);
    if (raw != nullptr) CRTRefDelete(&raw);
    std::free(out);
  }
};

// What a failure leaves as it was: all, all but the mtime (for operations
// that stamp it first), or the mtime alone (for those that keep what they
// did before the failure, their sizes in step).
enum Keep { kAll, kAllButMTime, kMTimeOnly };

std::string Snapshot(const Subject& s, Keep keep) {
  std::ostringstream o;
  if (s.rec && keep == kMTimeOnly) return std::to_string(s.rec->GetMTime());
  if (s.rec) {
    const DORecord& r = *s.rec;
    std::string bytes(reinterpret_cast<const char*>(r.GetHeader()), r.getRecSize());
    if (keep == kAllButMTime) bytes.replace(offsetof(DORecordHeader, mtime), 4, 4, '\0');
    o << r.GetHeader() << ' ' << r.GetAllocatedSize() << ' ' << r.OwnsBuffer()
      << r.GetBufferMode() << r.IsInNetworkOrder() << bytes;
    for (unsigned int kind = 0; kind < CR_TREF_TYPE_END; ++kind) {
      const cr_reftype_t k = static_cast<cr_reftype_t>(kind);
      for (auto it = r.GetTRefTypeBegin(k); it != r.GetTRefTypeEnd(k); ++it) o << it->get();
    }
  }
  if (s.so) o.write(reinterpret_cast<const char*>(s.so->GetHeader()), s.so->GetHeaderSize());
  o.write(reinterpret_cast<const char*>(s.callers.data()), s.callers.size() * 8);
  if (s.handed != nullptr) o.write(reinterpret_cast<const char*>(s.handed), s.input.size());
  o << s.out << ' ' << s.outSize << ' ' << (s.held ? s.held->UseCount() : 0);
  return o.str();
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

// A DO type 2 record of three segments in containers 500, 70 and 500,
// whose buffer is exactly its size.
void Tight(Subject& s) {
  static const crtest::Bytes list = crtest::SegmentList(2, crtest::ThreeSegments(kFP));
  s.rec.emplace(900, 10000, 4096, 77, kOldTime, kOldTime, list.data(), 3, kDcids, nullptr, kFP,
                CR_DO_TYPE_NO_OFFSET);
}
void Bloom(Subject& s) {
  static const std::vector<uint8_t> bitmap = crtest::PatternBitmap(64);
  static const std::vector<uint8_t> list = crtest::HostUniqueDcids({{500, 20}, {70, 10}});
  s.rec.emplace(900, 10000, 4096, 77, kOldTime, kOldTime, 64, bitmap.data(),
                reinterpret_cast<const char*>(list.data()), kFP, CR_DO_TYPE_BLOOM_FILTER);
}
// The serialized form of a DO type and a caller's buffer of `words` words.
void Serialized(Subject& s, uint8_t dotype, size_t words) {
  const std::vector<uint8_t> bitmap = crtest::PatternBitmap(64);
  s.input = dotype == CR_DO_TYPE_BLOOM_FILTER
                ? crtest::SerializedBloom(10000, 4096, bitmap, {{500, 20}, {70, 10}})
                : crtest::Sealed(crtest::SerializedDO(dotype, 10000, 4096, 77,
                                                      crtest::ThreeSegments(kFP)));
  s.mode = dotype;
  s.callers.resize(words);
}
int Deserialize(Subject& s) {
  s.rec.emplace(s.mode, 2, 900, kFP, s.callers.data(), s.callers.size() * 8, s.input.data(),
                s.input.size(), false);
  return 0;
}
// A task ID, a DSID and a hold whose raw form the caller keeps.
void WithRefs(Subject& s) {
  Tight(s);
  s.rec->AddTaskID(5ul);
  s.rec->AddDSID(6u);
  s.rec->AddTRef(*s.raw);
}
// The stored form, handed over in a buffer mode.
void Stored(Subject& s, std::vector<uint8_t> image, unsigned int mode) {
  s.input = std::move(image);
  s.mode = mode;
  s.handed = static_cast<DORecordHeader*>(std::malloc(s.input.size()));
  std::memcpy(s.handed, s.input.data(), s.input.size());
}
std::vector<uint8_t> WithRefsImage() {
  Subject s;
  WithRefs(s);
  const uint8_t* p = reinterpret_cast<const uint8_t*>(s.rec->GetHeader());
  return std::vector<uint8_t>(p, p + s.rec->getRecSize());
}
// An older stored form: task IDs 31 and 17 and DSID 4 in the old lists
// behind the header, then a DO type 1 list of two segments.
std::vector<uint8_t> OldListsImage() {
  crtest::Bytes b;
  b.le16(3).le16(2).le32(80 + 2 * 8 + 4 + 2 * 16 + 2 * 8).le32(0).le32(0);
  b.le64(900).le64(8000).le64(4096).le32(77).le32(kOldTime).le32(kOldTime);
  b.le32(2).le32(2).le32(0).le32(1).le32(0).le32(0);
  b.u8(CR_FP_TYPE_MD5).u8(CR_DO_TYPE_NO_SIZE).zeros(2).le64(31).le64(17).le32(4);
  b.raw(crtest::PatternFP(1, 16).data(), 16).raw(crtest::PatternFP(2, 16).data(), 16);
  return b.le64(64).le64(65).vec();
}
int Open(Subject& s) {
  s.rec.emplace(s.handed, s.input.size(), s.mode);
  if (s.mode == 2) s.handed = nullptr;  // the record's now
  return 0;
}
void SegmentRecord(Subject& s) { s.so.emplace(2, 64, 4096, 7, QorKey{}, 0, CR_FP_TYPE_MD5); }
int ToStream(Subject& s) {
  std::ostringstream os;
  os.exceptions(std::ios::badbit);
  s.rec->ToStream(os, true);
  return 0;
}
int Digest(Subject& s) {
  cr_tdigest_t* digest = s.rec->GetDigest();
  CRTDigestDelete(&digest);
  return 0;
}
// More containers than the gathering table first has room for.
void ManySegments(Subject& s) {
  const std::vector<uint8_t> list(16 * 5000, 0x5A);
  std::vector<unsigned long> dcids;
  for (unsigned long i = 5000; i > 0; --i) dcids.push_back(64 + 7 * i);  // the list sorts them
  s.rec.emplace(900, 5000ul * 4096, 4096, 0, kOldTime, kOldTime, list.data(), 5000,
                dcids.data(), nullptr, CR_FP_TYPE_MD5, CR_DO_TYPE_NO_SIZE);
}
int AllActive(unsigned long, void*) { return 1; }
int AddSection(Subject& s) {
  static const uint8_t section[] = {CR_TREF_TYPE_TASKID, 8, 0, 0, 0, 0, 0, 0, 0, 11,
                                    CR_TREF_TYPE_DSID, 4, 0, 0, 0, 12, CR_TREF_TYPE_HOLD, 1, 3};
  s.rec->AddSerializedTRefs(reinterpret_cast<const char*>(section), sizeof section);
  return 0;
}
#define ROW(name, setup, op, ...) \
  {#name, []([[maybe_unused]] Subject& s) { setup; }, [](Subject& s) -> int { return op; }, \
   __VA_ARGS__}
const std::vector<Row> kRows = {
    ROW(SegmentList, , (Tight(s), 0), {kCreate}),
    ROW(BloomBitmap, , (Bloom(s), 0), {kCreate}),
    ROW(SerializedType3, Serialized(s, 3, 0), Deserialize(s), {kDeserialize + "188 bytes"}),
    ROW(SerializedBloom, Serialized(s, 4, 0), Deserialize(s), {kDeserialize + "204 bytes"}),
    ROW(SerializedInCallersBuffer, Serialized(s, 1, 512), Deserialize(s), {}),
    ROW(StoredWithRefs, Stored(s, WithRefsImage(), 2), Open(s), {kCorrupt, kBadAlloc}),
    ROW(StoredOldListsMode1, Stored(s, OldListsImage(), 1), Open(s), {kCopy, kBadAlloc, kExpand}),
    ROW(StoredOldListsMode2, Stored(s, OldListsImage(), 2), Open(s), {kCopy, kBadAlloc, kExpand}),
    ROW(SegmentRecord, , (SegmentRecord(s), 0),
        {"throw 22: SORecord: memory allocation of 104 bytes failed!"}),
    ROW(ExpandOwnBuffer, Tight(s), (s.rec->expand(s.rec->getRecSize() + 1), 0), {kExpand}),
    ROW(ExpandCallersBuffer, Serialized(s, 0, 64); Deserialize(s), (s.rec->expand(513), 0),
        {kExpand}),
    ROW(Serialize, Tight(s), s.rec->Serialize(&s.out, &s.outSize, true),
        {kSerialize + "164 bytes" + kOOM}),
    ROW(SerializeBloom, Bloom(s), s.rec->Serialize(&s.out, &s.outSize, false),
        {kSerialize + "152 bytes" + kOOM}),
    ROW(SerializeSegmentRecord, SegmentRecord(s),
        SegmentRecordSerialize(s.so->GetHeader(), &s.out, &s.outSize),
        {"return 22: Could not serialize SO: malloc failed for 33 bytes" + kOOM}),
    ROW(BinaryFormInNetworkOrder, WithRefs(s); s.rec->HostToNetwork(0), ToStream(s), {kBadAlloc}),
    ROW(Digest, Tight(s), Digest(s), {"throw 22: Failed to allocate memeory for DO buffer.",
                                      "throw 22: Couldn't allocate enough memory to store the "
                                      "digest of a DORecord"}),
    ROW(UniqueDCIDList, Tight(s), s.rec->AppendBloomAndUniqueDCIDList(), {kReturn22}),
    ROW(UniqueDCIDListInCallersBuffer, Serialized(s, 2, 21); Deserialize(s),
        s.rec->AppendBloomAndUniqueDCIDList(), {kReturn22}),
    ROW(UniqueDCIDListOfManySegments, ManySegments(s), s.rec->AppendBloomAndUniqueDCIDList(),
        {kReturn22}),
    ROW(BloomList, Bloom(s), s.rec->AppendBloomAndUniqueDCIDList(), {kReturn22, kDone}, kAll,
        [](Subject& s) { EXPECT_EQ(s.rec->GetSegmentUDCID(0), 70u); }),  // sorted in place
    ROW(UDCIDSizeList, Bloom(s), s.rec->GetUDCIDSizeList(s.sizes),
        {"return 22: GetUDCIDSizeList: failed to construct SO info vector, out of memory."}),
    // AppendBloom swaps the Bloom section's length word whatever follows.
    ROW(AppendBloom, Bloom(s), s.rec->AppendBloom(s.sizes), {kBadAlloc}, kMTimeOnly),
    ROW(AddTaskID, Tight(s), s.rec->AddTaskID(7ul), {kBadAlloc, kExpand}),
    // The purge before the addition stamps the mtime.
    ROW(AddTaskIDPurging, Tight(s); s.rec->AddTaskID(3ul),
        s.rec->AddTaskID(9ul, &AllActive, nullptr), {kBadAlloc}, kAllButMTime),
    ROW(OwnTRef, Tight(s); s.held.reset(new Cr_TRef(5ul)), s.rec->OwnTRef(s.held),
        {kBadAlloc, kExpand}),
    ROW(OwnRawTRef, Tight(s), s.rec->OwnTRef(*std::exchange(s.raw, nullptr)),
        {kBadAlloc, kExpand}),
    ROW(AddRawTRef, Tight(s), s.rec->AddTRef(*s.raw), {kBadAlloc, kExpand}),
    // A section keeps the references loaded before the failure.
    ROW(AddSection, Tight(s), AddSection(s), {kExpand, kCorrupt, kBadAlloc}, kMTimeOnly),
    // The pool's own blocks: it retries with half a block, and a reference
    // it has no chunk for is released.
    ROW(AddTaskIDEmptyPool, Tight(s), s.rec->AddTaskID(7ul), {kDone, kBadAlloc, kExpand}, kAll,
        [](Subject& s) { EXPECT_TRUE(s.rec->HasTaskID(7)); }, true),
    ROW(AddRawTRefEmptyPool, Tight(s), s.rec->AddTRef(*s.raw), {kDone, kBadAlloc, kExpand},
        kAll, [](Subject& s) { EXPECT_EQ(s.rec->GetNTRefs(), 1u); }, true),
    ROW(AddSectionEmptyPool, Tight(s); s.rec->expand(s.rec->getRecSize() + 64), AddSection(s),
        {kDone, kCorrupt, kBadAlloc}, kMTimeOnly,
        [](Subject& s) { EXPECT_EQ(s.rec->GetNTRefs(), 3u); }, true),
};
#undef ROW

// "return <status>[: <last line logged>]", "throw <status>: <message, else
// the last line logged>" or "bad_alloc".
std::string Describe(int status, const std::exception_ptr& error) {
  const std::string log = gLastLog;
  try {
    if (error) std::rethrow_exception(error);
  } catch (const Cr_ErrnoException& e) {
    return "throw " + std::to_string(e.GetStatus()) + ": " + (*e.what() != '\0' ? e.what() : log);
  } catch (const std::bad_alloc&) {
    return kBadAlloc;
  }
  return "return " + std::to_string(status) + (status == 0 || log.empty() ? "" : ": " + log);
}

// Runs the row on a fresh subject with allocations k .. k + width - 1
// failing, checks the subject and the live allocations, and returns how the
// injected failure came out ("" when none was reached).
std::string RunOnce(const Row& row, unsigned long k, unsigned long width) {
  if (row.emptyPool) TRefPool::purge_memory();  // no Cr_TRef is alive between runs
  std::string outcome;
  outcome.reserve(1024);  // before the count: the outcome outlives the subject
  const long base = crtest::LiveAllocations();
  {
    Subject s;
    row.setup(s);
    const std::string before = Snapshot(s, row.keep);
    gLastLog[0] = '\0';
    int status = 0;
    std::exception_ptr error;
    crtest::FailAllocationAt(k, width);
    try {
      status = row.op(s);
    } catch (...) {
      error = std::current_exception();
    }
    const bool injected = crtest::StopFailingAllocations();
    outcome = Describe(status, error);
    EXPECT_TRUE(!s.rec || (s.rec->getTRefsSize() == s.rec->calcTRefsSize() &&
                           s.rec->getRecSize() == s.rec->calcRecSize()))
        << "sizes out of step after " << outcome;
    if (outcome == kDone && row.done != nullptr) row.done(s);
    EXPECT_TRUE(outcome == kDone || Snapshot(s, row.keep) == before) << "changed by " << outcome;
    EXPECT_TRUE(injected || outcome == kDone) << outcome;
    if (!injected) outcome.clear();
  }
  if (row.emptyPool) TRefPool::purge_memory();
  EXPECT_EQ(crtest::LiveAllocations(), base) << "left allocated by " << outcome;
  return outcome;
}

class AllocFailureTest : public ::testing::TestWithParam<Row> {};
void PrintTo(const Row& row, std::ostream* os) { *os << row.name; }

TEST_P(AllocFailureTest, EveryFailureComesOutAsDocumentedAndChangesNothing) {
  const Row& row = GetParam();
  CRLogSetSink(&KeepLastLine, nullptr);
  CRTraceSet(true);  // the reader traces the failure it returns
  WarmTRefPool();
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
      SCOPED_TRACE("failing allocation " + std::to_string(k) + ", width " + std::to_string(width));
      const std::string outcome = RunOnce(row, k, width);
      if (!outcome.empty()) seen.insert(outcome);
    }
  }
  EXPECT_EQ(seen, row.failures);
}

INSTANTIATE_TEST_SUITE_P(Rows, AllocFailureTest, ::testing::ValuesIn(kRows),
                         [](const ::testing::TestParamInfo<Row>& info) { return info.param.name; });

}  // namespace
