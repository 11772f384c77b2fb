// Allocation-failure sweeps: every constructor, builder, serializer and
// reference operation is run with its first, second, third ... allocation
// failing until it runs through. Each failure must come out as the status
// or exception named for it (status 22 for record buffers and serialized
// output, std::bad_alloc for a set node, a map node, a raw reference or a
// TRef pool block), must leave the object as it was or leave no object, and
// must keep no allocation. The allocator is described in failing_allocator.h.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include <boost/pool/singleton_pool.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "alloc/failing_allocator.h"
#include "crrecord/DORecord.h"
#include "crrecord/SORecord.h"
#include "crrecord/SOmarshall.h"
#include "error_format.h"
#include "images.h"

namespace {

using crtest::Bytes;
using crtest::Describe;
using crtest::Outcome;
using crtest::SweepAllocationFailures;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;

// The TRef pool as the library declares it: the same template arguments
// name the same process-wide pool.
typedef boost::singleton_pool<Cr_TRef_Pool_Tag, 16u, boost::default_user_allocator_new_delete,
                              std::mutex, 32u, 0u>
    TRefPool;

const char kBadAlloc[] = "bad_alloc";
const char kCreateFailed[] = "throw 22: Not enough memory to create DORecord.";
const char kExpandFailed[] = "throw 22: Not enough memory to expand a DO record.";
const char kCorruptTRefs[] = "throw 22: Received a buffer with corrupt typed references.";
const char kReturned22[] = "return 22";

constexpr unsigned int kOldTime = 1000;  // any stamp of mtime shows
constexpr unsigned long kWarmChunks = 4096;

// Makes the pool take enough blocks for every test here, so that making a
// Cr_TRef allocates nothing more: the sweeps then see the raw references
// and the set nodes alone, and the pool's own failure is tested apart.
void WarmTRefPool() {
  std::vector<boost::intrusive_ptr<Cr_TRef>> refs;
  refs.reserve(kWarmChunks);
  for (unsigned long id = 1; id <= kWarmChunks; ++id) refs.emplace_back(new Cr_TRef(id));
}

class WarmPoolEnvironment : public ::testing::Environment {
 public:
  void SetUp() override { WarmTRefPool(); }
};
::testing::Environment* const kWarmPool =
    ::testing::AddGlobalTestEnvironment(new WarmPoolEnvironment);

// Log lines kept in fixed storage: a sink that allocated would count
// against the operations it watches.
class FixedLog {
 public:
  static constexpr int kLines = 8;
  static void Install() {
    Clear();
    CRLogSetSink(&Sink, nullptr);
  }
  static void Uninstall() { CRLogSetSink(nullptr, nullptr); }
  static void Clear() { count_ = 0; }
  static int Count() { return count_; }
  static std::string Text(int i) { return text_[i]; }
  static cr_status_t Status(int i) { return status_[i]; }

 private:
  static void Sink(cr_log_level_t, cr_status_t status, const char* message, void*) {
    if (count_ == kLines) return;
    std::strncpy(text_[count_], message, sizeof text_[count_] - 1);
    text_[count_][sizeof text_[count_] - 1] = '\0';
    status_[count_] = status;
    ++count_;
  }
  static inline char text_[kLines][1024];
  static inline cr_status_t status_[kLines];
  static inline int count_ = 0;
};

// --- Records for the sweeps ------------------------------------------------

// Three segments of 100, 200 and 300 bytes in containers 500, 70 and 500.
std::vector<crtest::Seg> TypeTwoSegments() {
  return {{crtest::PatternFP(0x10, 16), 100, 0, 0, 500},
          {crtest::PatternFP(0x40, 16), 200, 0, 0, 70},
          {crtest::PatternFP(0x70, 16), 300, 0, 0, 500}};
}

std::vector<unsigned long> Dcids(const std::vector<crtest::Seg>& segs) {
  std::vector<unsigned long> dcids;
  for (const crtest::Seg& s : segs) dcids.push_back(s.dcid);
  return dcids;
}

// A DO type 2 record that owns a buffer of exactly its size, so that its
// first added reference must grow it. Times are fixed and old.
DORecord* NewTightRecord() {
  const std::vector<crtest::Seg> segs = TypeTwoSegments();
  const Bytes list = crtest::SegmentList(CR_DO_TYPE_NO_OFFSET, segs);
  const std::vector<unsigned long> dcids = Dcids(segs);
  return new DORecord(900, 600, 4096, 77, kOldTime, kOldTime, list.data(), 3, dcids.data(),
                      nullptr, CR_FP_TYPE_SHA256_16, CR_DO_TYPE_NO_OFFSET);
}

DORecord* NewBloomRecord(const std::vector<crtest::UEntry>& entries) {
  const std::vector<uint8_t> bitmap = crtest::PatternBitmap(64);
  const std::vector<uint8_t> block = crtest::HostUniqueDcids(entries);
  return new DORecord(900, 600, 4096, 77, kOldTime, kOldTime, 64, bitmap.data(),
                      reinterpret_cast<const char*>(block.data()), CR_FP_TYPE_SHA256_16,
                      CR_DO_TYPE_BLOOM_FILTER);
}

_cr_tref_t* NewRawRef(cr_reftype_t kind, uint8_t seed) {
  const uint8_t payload[6] = {seed, 1, 2, 3, 4, 5};
  return CRTRefNew(kind, payload, sizeof payload);
}

// Everything a failed operation must leave as it was. The typed-reference
// section is written from the sets first, so that its bytes stand for them.
struct RecordImage {
  const DORecordHeader* buffer;
  unsigned long allocated;
  bool owns;
  unsigned int mode;
  bool network;
  std::vector<uint8_t> bytes;
  std::vector<std::vector<const Cr_TRef*>> refs;

  bool operator==(const RecordImage& o) const {
    return buffer == o.buffer && allocated == o.allocated && owns == o.owns && mode == o.mode &&
           network == o.network && bytes == o.bytes && refs == o.refs;
  }
};

RecordImage Image(const DORecord& r) {
  RecordImage image;
  image.buffer = r.GetHeader();
  image.allocated = r.GetAllocatedSize();
  image.owns = r.OwnsBuffer();
  image.mode = r.GetBufferMode();
  image.network = r.IsInNetworkOrder();
  const uint8_t* p = reinterpret_cast<const uint8_t*>(image.buffer);
  image.bytes.assign(p, p + r.getRecSize());
  for (unsigned int kind = 0; kind < CR_TREF_TYPE_END; ++kind) {
    std::vector<const Cr_TRef*> set;
    const cr_reftype_t k = static_cast<cr_reftype_t>(kind);
    for (auto it = r.GetTRefTypeBegin(k); it != r.GetTRefTypeEnd(k); ++it) set.push_back(it->get());
    image.refs.push_back(set);
  }
  return image;
}

// The same with the mtime field left out, for the operations that stamp it
// before they allocate.
RecordImage ImageWithoutMTime(const DORecord& r) {
  RecordImage image = Image(r);
  std::memset(image.bytes.data() + offsetof(DORecordHeader, mtime), 0, 4);
  return image;
}

// The sizes that every change of the sets keeps in step.
void ExpectSizesInStep(const DORecord& r) {
  EXPECT_EQ(r.getTRefsSize(), r.calcTRefsSize());
  EXPECT_EQ(r.getRecSize(), r.calcRecSize());
  EXPECT_GE(r.GetAllocatedSize(), r.getRecSize());
}

// Keeps the compiler from dropping an allocation whose block is not used:
// the self-tests of the allocator must reach it.
void* Escape(void* p) {
  asm volatile("" : : "g"(p) : "memory");
  return p;
}

class AllocFailureTest : public ::testing::Test {
 protected:
  void SetUp() override { FixedLog::Install(); }
  void TearDown() override {
    FixedLog::Uninstall();
    CRTraceSet(false);
  }
};

// --- The allocator itself --------------------------------------------------

// Without this the sweeps below would pass without failing anything.
TEST_F(AllocFailureTest, AllocatorFailsExactlyTheChosenAllocationOfEveryKind) {
  crtest::FailAllocationAt(0);
  void* failed = Escape(std::malloc(8));
  const int error = errno;
  void* second = Escape(std::malloc(8));
  EXPECT_TRUE(crtest::StopFailingAllocations());
  EXPECT_EQ(failed, nullptr);
  EXPECT_EQ(error, ENOMEM);
  EXPECT_NE(second, nullptr);
  std::free(second);

  crtest::FailAllocationAt(1);
  void* first = Escape(std::calloc(1, 8));
  void* grown = Escape(std::realloc(first, 4096));
  EXPECT_TRUE(crtest::StopFailingAllocations());
  EXPECT_NE(first, nullptr);
  EXPECT_EQ(grown, nullptr);
  std::free(grown != nullptr ? grown : first);  // a failed realloc keeps the block

  bool threw = false;
  crtest::FailAllocationAt(0);
  try {
    Escape(new int(5));
  } catch (const std::bad_alloc&) {
    threw = true;
  }
  EXPECT_TRUE(crtest::StopFailingAllocations());
  EXPECT_TRUE(threw);

  crtest::FailAllocationAt(1);
  int* kept = static_cast<int*>(Escape(new int(6)));
  void* none = Escape(new (std::nothrow) char[16]);
  EXPECT_TRUE(crtest::StopFailingAllocations());
  EXPECT_EQ(crtest::AllocationsSinceArmed(), 2u);
  EXPECT_EQ(none, nullptr);
  delete kept;
}

TEST_F(AllocFailureTest, LiveCountFollowsEveryAllocationAndRelease) {
  const long before = crtest::LiveAllocations();
  void* a = Escape(std::malloc(10));
  void* b = Escape(std::calloc(2, 10));
  int* c = static_cast<int*>(Escape(new int(1)));
  const long three = crtest::LiveAllocations() - before;
  a = Escape(std::realloc(a, 100000));  // moves, still one block
  const long stillThree = crtest::LiveAllocations() - before;
  std::free(a);
  std::free(b);
  delete c;
  const long none = crtest::LiveAllocations() - before;
  EXPECT_EQ(three, 3);
  EXPECT_EQ(stillThree, 3);
  EXPECT_EQ(none, 0);
}

// --- Constructors and builders ----------------------------------------------

TEST_F(AllocFailureTest, SegmentListConstructorOfEveryDOTypeFailsWithStatus22AndNoObject) {
  for (uint8_t dotype : {0, 1, 2, 3, 5}) {
    SCOPED_TRACE(int{dotype});
    const std::vector<crtest::Seg> segs = crtest::ThreeSegments(CR_FP_TYPE_SHA256);
    const Bytes list = crtest::SegmentList(dotype, segs);
    const std::vector<unsigned long> dcids = Dcids(segs);
    const std::vector<Outcome> failures = SweepAllocationFailures(
        [&] {
          DORecord r(900, 10000, 4096, 7, 0, 0, list.data(), 3, dcids.data(), nullptr,
                     CR_FP_TYPE_SHA256, dotype);
        },
        [](const Outcome&) {});
    EXPECT_THAT(Describe(failures), ElementsAre(kCreateFailed));
  }
}

TEST_F(AllocFailureTest, BloomConstructorFailsWithStatus22AndNoObject) {
  const std::vector<uint8_t> bitmap = crtest::PatternBitmap(100);
  const std::vector<uint8_t> block = crtest::HostUniqueDcids({{70, 10}, {500, 20}});
  const std::vector<Outcome> failures = SweepAllocationFailures(
      [&] {
        DORecord r(900, 30, 4096, 7, 0, 0, 100, bitmap.data(),
                   reinterpret_cast<const char*>(block.data()), CR_FP_TYPE_MD5,
                   CR_DO_TYPE_BLOOM_FILTER);
      },
      [](const Outcome&) {});
  EXPECT_THAT(Describe(failures), ElementsAre(kCreateFailed));
}

// The reader reports its failed allocation as status 22 (with a trace line
// when tracing is on), which the buffer constructor throws without a
// message.
TEST_F(AllocFailureTest, BufferConstructorWithoutBufferFailsWithStatus22AndNoMessage) {
  const std::vector<uint8_t> serialized = crtest::Sealed(crtest::SerializedDO(
      CR_DO_TYPE_8_BYTE_OFFSET, 10000, 4096, 0, crtest::ThreeSegments(CR_FP_TYPE_MD5)));
  CRTraceSet(true);
  const std::vector<Outcome> failures = SweepAllocationFailures(
      [&] {
        DORecord r(CR_DO_TYPE_8_BYTE_OFFSET, 2, 900, CR_FP_TYPE_MD5, nullptr, 0,
                   serialized.data(), serialized.size(), false);
        EXPECT_EQ(r.GetNfp(), 3u);
      },
      [](const Outcome&) {});
  CRTraceSet(false);
  EXPECT_THAT(Describe(failures), ElementsAre("throw 22: "));
  ASSERT_EQ(FixedLog::Count(), 1);
  // The header and three entries of 16 + 4 + 8 bytes and their DCIDs.
  EXPECT_EQ(FixedLog::Text(0), "Could not deserialize DO: malloc failed for 188 bytes");

  const std::vector<uint8_t> bloom =
      crtest::SerializedBloom(30, 4096, crtest::PatternBitmap(40), {{70, 10}, {500, 20}});
  const std::vector<Outcome> bloomFailures = SweepAllocationFailures(
      [&] {
        DORecord r(CR_DO_TYPE_BLOOM_FILTER, 2, 900, CR_FP_TYPE_MD5, nullptr, 0, bloom.data(),
                   bloom.size(), false);
      },
      [](const Outcome&) {});
  EXPECT_THAT(Describe(bloomFailures), ElementsAre("throw 22: "));
}

TEST_F(AllocFailureTest, BufferConstructorInCallersBufferAllocatesNothing) {
  const std::vector<uint8_t> serialized = crtest::SerializedDO(
      CR_DO_TYPE_NO_SIZE, 10000, 4096, 0, crtest::ThreeSegments(CR_FP_TYPE_SHA256_16));
  std::vector<uint64_t> buffer(512);  // 8-byte aligned, 4096 bytes
  const std::vector<Outcome> failures = SweepAllocationFailures(
      [&] {
        DORecord r(CR_DO_TYPE_NO_SIZE, 2, 900, CR_FP_TYPE_SHA256_16, buffer.data(), 4096,
                   serialized.data(), serialized.size(), false);
      },
      [](const Outcome&) {});
  EXPECT_THAT(failures, IsEmpty());
}

// The caller's buffer, malloc'ed as GetHeader handed it out, for the stored
// constructor, and the record made over it in the given buffer mode; the
// buffer is freed here unless the record took it over (mode 2).
struct StoredRecord {
  StoredRecord(const std::vector<uint8_t>& image, unsigned int bufferMode)
      : size(image.size()), mode(bufferMode), original(image) {
    bytes = static_cast<DORecordHeader*>(std::malloc(size));
    std::memcpy(bytes, image.data(), size);
  }
  ~StoredRecord() {
    record.reset();
    if (!handedOver) std::free(bytes);
  }
  StoredRecord(const StoredRecord&) = delete;
  StoredRecord& operator=(const StoredRecord&) = delete;
  // In place: the sweep counts only the record's own allocations.
  void Open() {
    record.emplace(bytes, size, mode);
    handedOver = mode == 2;
  }
  bool Unchanged() const { return std::memcmp(bytes, original.data(), size) == 0; }

  DORecordHeader* bytes;
  size_t size;
  unsigned int mode;
  std::vector<uint8_t> original;
  bool handedOver = false;
  std::optional<DORecord> record;
};

std::vector<uint8_t> StoredImage(const DORecord& r) {
  const uint8_t* p = reinterpret_cast<const uint8_t*>(r.GetHeader());
  return std::vector<uint8_t>(p, p + r.getRecSize());
}

// The stored record's references are decoded one by one: a failed raw
// reference comes back from the typed-reference library as status 22, a
// failed set node as std::bad_alloc. The caller's buffer keeps its bytes
// and stays the caller's until the record is complete.
TEST_F(AllocFailureTest, StoredConstructorLoadingReferencesLeavesCallersBufferUntouched) {
  std::vector<uint8_t> image;
  {
    std::unique_ptr<DORecord> source(NewTightRecord());
    source->AddTaskID(5ul);
    source->AddTaskID(7ul);
    source->AddDSID(9u);
    image = StoredImage(*source);
  }
  for (unsigned int mode : {1u, 2u}) {
    SCOPED_TRACE(mode);
    const std::vector<Outcome> failures = SweepAllocationFailures(
        [&] { return StoredRecord(image, mode); }, [](StoredRecord& s) { s.Open(); },
        [](StoredRecord& s, const Outcome& o) {
          if (o.injected) {
            EXPECT_FALSE(s.record.has_value());
            EXPECT_TRUE(s.Unchanged());
            return;
          }
          EXPECT_EQ(s.record->GetNtaskid(), 2u);
          EXPECT_TRUE(s.record->HasDSID(9));
          ExpectSizesInStep(*s.record);
        });
    EXPECT_THAT(Describe(failures), ElementsAre(kCorruptTRefs, kBadAlloc, kCorruptTRefs,
                                                kBadAlloc, kCorruptTRefs, kBadAlloc));
  }
}

// A stored record of an older kind: two old task IDs and one old DSID
// behind the header, then a DO type 1 segment list of two segments.
std::vector<uint8_t> OldListsImage() {
  const uint32_t recsize = 80 + 2 * 8 + 4 + 2 * 16 + 2 * 8;
  Bytes b;
  b.le16(3).le16(2).le32(recsize).le32(0).le32(0);       // type, flags, recsize, reserved, checktime
  b.le64(900).le64(8000).le64(4096).le32(77);            // CID, size, ssize, CRC
  b.le32(kOldTime).le32(kOldTime);                       // ctime, mtime
  b.le32(2).le32(2).le32(0).le32(1).le32(0).le32(0);     // ntaskid, nfp, nudcid, nds, trefsize, bsize
  b.u8(CR_FP_TYPE_MD5).u8(CR_DO_TYPE_NO_SIZE).zeros(2);  // fptype, dotype, reserved
  b.le64(31).le64(17).le32(4);                           // old task IDs, old DSID
  b.raw(crtest::PatternFP(1, 16).data(), 16).raw(crtest::PatternFP(2, 16).data(), 16);
  b.le64(64).le64(65);
  return b.vec();
}

// The conversion works on a copy (status 22 when there is none), then adds
// 10 bytes per task ID, which fit the place of the old lists, and 6 for the
// DSID, which do not: the copy must grow.
TEST_F(AllocFailureTest, StoredConstructorConvertingOldListsLeavesCallersBufferUntouched) {
  const std::vector<uint8_t> image = OldListsImage();
  for (unsigned int mode : {1u, 2u}) {
    SCOPED_TRACE(mode);
    const std::vector<Outcome> failures = SweepAllocationFailures(
        [&] { return StoredRecord(image, mode); }, [](StoredRecord& s) { s.Open(); },
        [](StoredRecord& s, const Outcome& o) {
          if (o.injected) {
            EXPECT_FALSE(s.record.has_value());
            EXPECT_TRUE(s.Unchanged());
            return;
          }
          EXPECT_TRUE(s.record->HasTaskID(31));
          EXPECT_TRUE(s.record->HasTaskID(17));
          EXPECT_TRUE(s.record->HasDSID(4));
          ExpectSizesInStep(*s.record);
          if (s.mode == 1) {
            EXPECT_TRUE(s.Unchanged());  // converted on a copy of the record's own
          }
        });
    EXPECT_THAT(Describe(failures),
                ElementsAre("throw 22: Not enough memory to copy a DO record.", kBadAlloc,
                            kBadAlloc, kBadAlloc, kBadAlloc, kBadAlloc, kBadAlloc, kExpandFailed));
  }
}

TEST_F(AllocFailureTest, SORecordConstructorLogsAndThrowsStatus22) {
  const QorKey key = {};
  const std::vector<Outcome> failures = SweepAllocationFailures(
      [&] { SORecord r(2, 64, 4096, 7, key, 0, CR_FP_TYPE_MD5); }, [](const Outcome&) {});
  EXPECT_THAT(Describe(failures),
              ElementsAre("throw 22: SORecord: memory allocation of 104 bytes failed!"));
  ASSERT_EQ(FixedLog::Count(), 1);
  EXPECT_EQ(FixedLog::Status(0), 22u);
  EXPECT_EQ(FixedLog::Text(0), "SORecord: memory allocation of 104 bytes failed!");
  EXPECT_STREQ(crtest::LastErrorFormat(), "%s: memory allocation of %u bytes failed!");
  EXPECT_STREQ(crtest::FailedAllocationCall(), "malloc");
}

// --- Buffer growth -----------------------------------------------------------

TEST_F(AllocFailureTest, ExpandInReallocModeKeepsTheOldBuffer) {
  std::unique_ptr<DORecord> r(NewTightRecord());
  const RecordImage before = Image(*r);
  const unsigned int needed = r->getRecSize() + 1;
  const std::vector<Outcome> failures = SweepAllocationFailures(
      [&] { r->expand(needed); },
      [&](const Outcome& o) {
        if (o.injected) {
          EXPECT_TRUE(Image(*r) == before);
        }
      });
  EXPECT_THAT(Describe(failures), ElementsAre(kExpandFailed));
  EXPECT_EQ(r->GetAllocatedSize(), static_cast<unsigned long>(sysconf(_SC_PAGESIZE)));
}

TEST_F(AllocFailureTest, ExpandInCopyModeKeepsTheCallersBufferAndMode) {
  const std::vector<uint8_t> serialized = crtest::SerializedDO(
      CR_DO_TYPE_ORIGINAL, 10000, 4096, 0, crtest::ThreeSegments(CR_FP_TYPE_SHA256_16));
  std::vector<uint64_t> buffer(64);  // 512 bytes, 8-byte aligned
  DORecord r(CR_DO_TYPE_ORIGINAL, 2, 900, CR_FP_TYPE_SHA256_16, buffer.data(), 512,
             serialized.data(), serialized.size(), false);
  const std::vector<uint64_t> callers = buffer;
  const RecordImage before = Image(r);
  const std::vector<Outcome> failures = SweepAllocationFailures(
      [&] { r.expand(513); },
      [&](const Outcome& o) {
        if (o.injected) {
          EXPECT_TRUE(Image(r) == before);
          EXPECT_EQ(r.GetBufferMode(), 1u);
          EXPECT_FALSE(r.OwnsBuffer());
        }
      });
  EXPECT_THAT(Describe(failures), ElementsAre(kExpandFailed));
  EXPECT_EQ(r.GetBufferMode(), 2u);
  EXPECT_TRUE(r.OwnsBuffer());
  EXPECT_EQ(buffer, callers);
}

// --- Serialization and stream forms --------------------------------------------

TEST_F(AllocFailureTest, SerializeReturnsTheMappedStatusAndLogsTheSize) {
  std::unique_ptr<DORecord> r(NewTightRecord());
  const RecordImage before = Image(*r);
  void* out = reinterpret_cast<void*>(1);
  unsigned long outSize = 12345;
  const std::vector<Outcome> failures = SweepAllocationFailures(
      [&] {
        FixedLog::Clear();
        return r->Serialize(&out, &outSize, true);
      },
      [&](const Outcome& o) {
        if (!o.injected) return;
        EXPECT_EQ(out, nullptr);
        EXPECT_EQ(outSize, 12345u);
        EXPECT_TRUE(Image(*r) == before);
        ASSERT_EQ(FixedLog::Count(), 1);
        EXPECT_EQ(FixedLog::Status(0), 22u);
        // 28-byte head, 3 x (33 text + 4 size + 8 DCID), one zero byte.
        EXPECT_EQ(FixedLog::Text(0),
                  "Could not serialize DO: malloc failed for 164 bytes (out of memory)");
        EXPECT_STREQ(crtest::FailedAllocationCall(), "calloc");
      });
  EXPECT_THAT(Describe(failures), ElementsAre(kReturned22));
  EXPECT_EQ(outSize, 164u);
  DORecord::SerializedDORecordFree(&out);
}

TEST_F(AllocFailureTest, SerializeBloomFilterDOReturnsTheMappedStatusAndLogsTheSize) {
  std::unique_ptr<DORecord> r(NewBloomRecord({{70, 10}, {500, 20}}));
  void* out = nullptr;
  unsigned long outSize = 0;
  const std::vector<Outcome> failures = SweepAllocationFailures(
      [&] {
        FixedLog::Clear();
        return r->Serialize(&out, &outSize, false);
      },
      [&](const Outcome& o) {
        if (!o.injected) return;
        EXPECT_EQ(out, nullptr);
        ASSERT_EQ(FixedLog::Count(), 1);
        // 56 + 64 bitmap bytes + 2 entries of 16.
        EXPECT_EQ(FixedLog::Text(0),
                  "Could not serialize DO: malloc failed for 152 bytes (out of memory)");
        EXPECT_STREQ(crtest::FailedAllocationCall(), "calloc");
      });
  EXPECT_THAT(Describe(failures), ElementsAre(kReturned22));
  DORecord::SerializedDORecordFree(&out);
}

TEST_F(AllocFailureTest, SegmentRecordSerializeReturnsTheMappedStatusAndLogsTheSize) {
  const QorKey key = {};
  SORecord so(2, 64, 4096, 7, key, 0, CR_FP_TYPE_MD5);
  void* out = nullptr;
  unsigned long outSize = 99;
  const std::vector<Outcome> failures = SweepAllocationFailures(
      [&] {
        FixedLog::Clear();
        return SegmentRecordSerialize(so.GetHeader(), &out, &outSize);
      },
      [&](const Outcome& o) {
        if (!o.injected) return;
        EXPECT_EQ(out, nullptr);
        EXPECT_EQ(outSize, 99u);
        ASSERT_EQ(FixedLog::Count(), 1);
        EXPECT_EQ(FixedLog::Status(0), 22u);
        EXPECT_EQ(FixedLog::Text(0),
                  "Could not serialize SO: malloc failed for 33 bytes (out of memory)");
        EXPECT_STREQ(crtest::FailedAllocationCall(), "calloc");
      });
  EXPECT_THAT(Describe(failures), ElementsAre(kReturned22));
  EXPECT_EQ(outSize, 33u);
  std::free(out);
}

// A stream that throws lets the failure of its own buffer through; the
// record must come out as it went in.
TEST_F(AllocFailureTest, TextFormPassesTheStreamsFailureOnAndChangesNothing) {
  std::unique_ptr<DORecord> r(NewTightRecord());
  r->AddTaskID(5ul);
  const RecordImage before = Image(*r);
  const std::vector<Outcome> failures = SweepAllocationFailures(
      [&] {
        std::ostringstream os;
        os.exceptions(std::ios::badbit);
        r->ToStream(os, false);
      },
      [&](const Outcome& o) {
        if (o.injected) {
          EXPECT_TRUE(Image(*r) == before);
        }
      });
  EXPECT_THAT(Describe(failures), Not(IsEmpty()));
  EXPECT_THAT(Describe(failures), Each(kBadAlloc));
}

TEST_F(AllocFailureTest, BinaryFormOfANetworkOrderRecordIsPutBackWhenTheStreamFails) {
  std::unique_ptr<DORecord> r(NewTightRecord());
  r->AddDSID(3u);
  r->HostToNetwork(0);
  const RecordImage before = Image(*r);
  const std::vector<Outcome> failures = SweepAllocationFailures(
      [&] {
        std::ostringstream os;
        os.exceptions(std::ios::badbit);
        r->ToStream(os, true);
      },
      [&](const Outcome& o) {
        if (o.injected) {
          EXPECT_TRUE(Image(*r) == before);
        }
      });
  EXPECT_THAT(Describe(failures), Not(IsEmpty()));
  EXPECT_THAT(Describe(failures), Each(kBadAlloc));
  EXPECT_TRUE(r->IsInNetworkOrder());
}

TEST_F(AllocFailureTest, SegmentRecordStreamFormsPutTheRecordBackWhenTheStreamFails) {
  const QorKey key = {};
  SORecord so(2, 64, 4096, 7, key, 0, CR_FP_TYPE_MD5);
  std::vector<uint8_t> before(104);
  std::memcpy(before.data(), so.GetHeader(), 104);
  for (bool binary : {true, false}) {
    SCOPED_TRACE(binary);
    const std::vector<Outcome> failures = SweepAllocationFailures(
        [&] {
          std::ostringstream os;
          os.exceptions(std::ios::badbit);
          SegmentRecordToStream(os, *so.GetHeader(), binary);
        },
        [&](const Outcome&) { EXPECT_EQ(std::memcmp(so.GetHeader(), before.data(), 104), 0); });
    EXPECT_THAT(Describe(failures), Each(kBadAlloc));
  }
}

// --- Digest ------------------------------------------------------------------------

TEST_F(AllocFailureTest, GetDigestNamesTheBlockAndTheDigestObjectFailures) {
  std::unique_ptr<DORecord> r(NewTightRecord());
  const RecordImage before = Image(*r);
  const std::vector<Outcome> failures = SweepAllocationFailures(
      [&] {
        cr_tdigest_t* digest = r->GetDigest();
        EXPECT_NE(digest, nullptr);
        CRTDigestDelete(&digest);
      },
      [&](const Outcome& o) {
        if (o.injected) {
          EXPECT_TRUE(Image(*r) == before);
        }
      });
  EXPECT_THAT(Describe(failures),
              ElementsAre("throw 22: Failed to allocate memeory for DO buffer.",
                          "throw 22: Couldn't allocate enough memory to store the digest of a "
                          "DORecord"));
}

TEST_F(AllocFailureTest, GetDigestOfABloomRecordAllocatesOnlyTheDigestObject) {
  std::unique_ptr<DORecord> r(NewBloomRecord({{70, 10}}));
  const std::vector<Outcome> failures = SweepAllocationFailures(
      [&] {
        cr_tdigest_t* digest = r->GetDigest();
        CRTDigestDelete(&digest);
      },
      [](const Outcome&) {});
  EXPECT_THAT(Describe(failures),
              ElementsAre("throw 22: Couldn't allocate enough memory to store the digest of a "
                          "DORecord"));
}

// --- Unique-DCID list --------------------------------------------------------------

// Gathering the containers and growing the buffer both report 22 and leave
// the record as it was.
TEST_F(AllocFailureTest, AppendBloomAndUniqueDCIDListReturns22AndChangesNothing) {
  std::unique_ptr<DORecord> r(NewTightRecord());
  const RecordImage before = Image(*r);
  const std::vector<Outcome> failures = SweepAllocationFailures(
      [&] { return r->AppendBloomAndUniqueDCIDList(); },
      [&](const Outcome& o) {
        if (o.injected) {
          EXPECT_TRUE(Image(*r) == before);
        }
      });
  EXPECT_THAT(Describe(failures), ElementsAre(kReturned22, kReturned22));
  ASSERT_EQ(r->GetNudcid(), 2u);
  EXPECT_EQ(r->GetSegmentUDCID(0), 70u);
  EXPECT_EQ(r->GetSegmentUDCID(1), 500u);
}

// A record in the caller's buffer is moved to one of its own when the list
// does not fit: a failure leaves it where it was, the caller's bytes as
// they were.
TEST_F(AllocFailureTest, AppendBloomAndUniqueDCIDListInACallersBufferReturns22AndChangesNothing) {
  const std::vector<crtest::Seg> segs = TypeTwoSegments();
  const std::vector<uint8_t> serialized =
      crtest::SerializedDO(CR_DO_TYPE_NO_OFFSET, 600, 4096, 77, segs);
  std::vector<uint64_t> buffer(21);  // 168 bytes: the record's 164 and no room for a list
  DORecord r(CR_DO_TYPE_NO_OFFSET, 2, 900, CR_FP_TYPE_SHA256_16, buffer.data(), 168,
             serialized.data(), serialized.size(), false);
  const std::vector<uint64_t> callers = buffer;
  const RecordImage before = Image(r);
  const std::vector<Outcome> failures = SweepAllocationFailures(
      [&] { return r.AppendBloomAndUniqueDCIDList(); },
      [&](const Outcome& o) {
        if (o.injected) {
          EXPECT_TRUE(Image(r) == before);
        }
      });
  EXPECT_THAT(Describe(failures), ElementsAre(kReturned22, kReturned22));
  EXPECT_TRUE(r.OwnsBuffer());
  ASSERT_EQ(r.GetNudcid(), 2u);
  EXPECT_EQ(r.GetSegmentUDCID(0), 70u);
  EXPECT_EQ(buffer, callers);
}

// More containers than the gathering table starts with room for: the table
// must grow, and a growth that fails is status 22 like any other.
TEST_F(AllocFailureTest, AppendBloomAndUniqueDCIDListWithATableThatMustGrow) {
  constexpr uint32_t kSegments = 5000;
  Bytes list;
  std::vector<unsigned long> dcids;
  for (uint32_t i = 0; i < kSegments; ++i) {
    list.raw(crtest::PatternFP(static_cast<uint8_t>(i), 16).data(), 16);
    dcids.push_back(64 + 7ul * (kSegments - i));  // descending: the list sorts them
  }
  DORecord r(900, uint64_t{kSegments} * 4096, 4096, 0, kOldTime, kOldTime, list.data(), kSegments,
             dcids.data(), nullptr, CR_FP_TYPE_MD5, CR_DO_TYPE_NO_SIZE);
  const RecordImage before = Image(r);
  const std::vector<Outcome> failures = SweepAllocationFailures(
      [&] { return r.AppendBloomAndUniqueDCIDList(); },
      [&](const Outcome& o) {
        if (o.injected) {
          EXPECT_TRUE(Image(r) == before);
        }
      });
  EXPECT_GE(failures.size(), 3u);  // the table, at least one growth, the buffer
  EXPECT_THAT(Describe(failures), Each(kReturned22));
  ASSERT_EQ(r.GetNudcid(), kSegments);
  EXPECT_EQ(r.GetSegmentUDCID(0), 64u + 7);
  EXPECT_EQ(r.GetSegmentUDCID(kSegments - 1), 64u + 7 * kSegments);
}

// A Bloom record and what it held before the operation.
struct BloomUnderTest {
  explicit BloomUnderTest(DORecord* r) : record(r), before(Image(*r)) {}
  std::unique_ptr<DORecord> record;
  RecordImage before;
};

// The Bloom list is gathered into a vector (22 when it cannot be had, the
// record as it was) and sorted; a sort without its scratch buffer sorts in
// place and succeeds. Both a record built from a bitmap (list in host
// order) and one rebuilt from the serialized form (list big-endian).
TEST_F(AllocFailureTest, AppendBloomAndUniqueDCIDListOfABloomRecord) {
  const std::vector<uint8_t> serialized =
      crtest::SerializedBloom(600, 4096, crtest::PatternBitmap(64), {{500, 20}, {70, 10}});
  const std::vector<std::function<DORecord*()>> makers = {
      [] { return NewBloomRecord({{500, 20}, {70, 10}}); },
      [&] {
        return new DORecord(CR_DO_TYPE_BLOOM_FILTER, 2, 900, CR_FP_TYPE_SHA256_16, nullptr, 0,
                            serialized.data(), serialized.size(), false);
      }};
  for (const std::function<DORecord*()>& make : makers) {
    const std::vector<Outcome> failures = SweepAllocationFailures(
        [&] { return BloomUnderTest(make()); },
        [](BloomUnderTest& s) { return s.record->AppendBloomAndUniqueDCIDList(); },
        [](BloomUnderTest& s, const Outcome& o) {
          if (o.status != 0) {
            EXPECT_TRUE(Image(*s.record) == s.before);
            return;
          }
          ASSERT_EQ(s.record->GetNudcid(), 2u);
          EXPECT_EQ(s.record->GetSegmentUDCID(0), 70u);
          EXPECT_EQ(s.record->GetSegmentUDCID(1), 500u);
        });
    EXPECT_THAT(Describe(failures), ElementsAre(kReturned22, "return 0"));
  }
}

// Three map nodes (two listed containers and the record's own); the map
// keeps what was inserted before the failure.
TEST_F(AllocFailureTest, GetUDCIDSizeListReturns22AndLogsIt) {
  std::unique_ptr<DORecord> r(NewBloomRecord({{70, 10}, {500, 20}}));
  const RecordImage before = Image(*r);
  const unsigned long body = r->GetDOSize();
  typedef std::map<unsigned long, unsigned long> SizeMap;
  const SizeMap listed{{70, 10}, {500, 20}};
  size_t run = 0;  // the run that fails its k-th allocation inserted k entries
  const std::vector<Outcome> failures = SweepAllocationFailures(
      [] {
        FixedLog::Clear();
        return SizeMap{{1, 1}};
      },
      [&](SizeMap& sizes) { return r->GetUDCIDSizeList(sizes); },
      [&](SizeMap& sizes, const Outcome& o) {
        const size_t inserted = run++;
        EXPECT_TRUE(Image(*r) == before);
        if (!o.injected) {
          EXPECT_EQ(sizes, (SizeMap{{70, 10}, {500, 20}, {900, body}}));
          return;
        }
        EXPECT_EQ(*__cr_errno_location(), 22u);
        ASSERT_EQ(FixedLog::Count(), 1);
        EXPECT_EQ(FixedLog::Status(0), 22u);
        EXPECT_EQ(FixedLog::Text(0),
                  "GetUDCIDSizeList: failed to construct SO info vector, out of memory.");
        SizeMap expected;
        for (const auto& e : listed) {
          if (expected.size() == inserted) break;
          expected.insert(e);
        }
        EXPECT_EQ(sizes, expected);
      });
  EXPECT_THAT(Describe(failures), ElementsAre(kReturned22, kReturned22, kReturned22));
}

// AppendBloom returns 0 whatever happens; a map node that cannot be had
// comes out as std::bad_alloc, and the entries added before it stay. The
// word it swaps first is swapped back here, so each attempt starts alike.
TEST_F(AllocFailureTest, AppendBloomPassesAMapNodeFailureOn) {
  std::unique_ptr<DORecord> r(NewBloomRecord({{70, 10}, {500, 20}}));
  const RecordImage before = Image(*r);
  typedef std::map<unsigned long, unsigned long> SizeMap;
  const std::vector<Outcome> failures = SweepAllocationFailures(
      [] { return SizeMap{}; }, [&](SizeMap& dcids) { return r->AppendBloom(dcids); },
      [&](SizeMap& dcids, const Outcome& o) {
        std::reverse(r->GetBloomStart(), r->GetBloomStart() + 4);
        EXPECT_TRUE(Image(*r) == before);
        if (!o.injected) {
          EXPECT_EQ(dcids, (SizeMap{{70, 10}, {500, 20}}));
        }
      });
  EXPECT_THAT(Describe(failures), ElementsAre(kBadAlloc, kBadAlloc));
}

// --- References ----------------------------------------------------------------

// A new reference needs its raw reference and its set node (std::bad_alloc)
// and, in a record without room, a bigger buffer (status 22); each failure
// leaves the record as it was, the mtime included.
TEST_F(AllocFailureTest, AddTaskIDAndAddDSIDLeaveTheRecordAsItWas) {
  std::unique_ptr<DORecord> r(NewTightRecord());
  RecordImage before = Image(*r);
  auto unchanged = [&](const Outcome& o) {
    if (o.injected) {
      EXPECT_TRUE(Image(*r) == before);
    }
  };
  EXPECT_THAT(Describe(SweepAllocationFailures([&] { return r->AddTaskID(7ul); }, unchanged)),
              ElementsAre(kBadAlloc, kBadAlloc, kExpandFailed));
  EXPECT_TRUE(r->HasTaskID(7));
  ExpectSizesInStep(*r);

  // The buffer now has room: no growth is asked for.
  before = Image(*r);
  EXPECT_THAT(Describe(SweepAllocationFailures([&] { return r->AddDSID(3u); }, unchanged)),
              ElementsAre(kBadAlloc, kBadAlloc));
  EXPECT_TRUE(r->HasDSID(3));
  ExpectSizesInStep(*r);
}

int AllActive(unsigned long, void*) { return 1; }

// The purge before the addition stamps the mtime whatever follows.
TEST_F(AllocFailureTest, AddTaskIDWithCallbackLeavesTheReferencesAsTheyWere) {
  std::unique_ptr<DORecord> r(NewTightRecord());
  r->AddTaskID(3ul);
  const RecordImage before = ImageWithoutMTime(*r);
  const std::vector<Outcome> failures = SweepAllocationFailures(
      [&] { return r->AddTaskID(9ul, &AllActive, nullptr); },
      [&](const Outcome& o) {
        if (o.injected) {
          EXPECT_TRUE(ImageWithoutMTime(*r) == before);
        }
      });
  // The temporary, the record's own copy of it, the set node.
  EXPECT_THAT(Describe(failures), ElementsAre(kBadAlloc, kBadAlloc, kBadAlloc));
  EXPECT_TRUE(r->HasTaskID(9));
}

TEST_F(AllocFailureTest, OwnTRefUndoesItsInsertionWhenTheBufferCannotGrow) {
  std::unique_ptr<DORecord> r(NewTightRecord());
  const RecordImage before = Image(*r);
  boost::intrusive_ptr<Cr_TRef> ref(new Cr_TRef(NewRawRef(CR_TREF_TYPE_RETENTION, 1)));
  const std::vector<Outcome> failures = SweepAllocationFailures(
      [&] { return r->OwnTRef(ref); },
      [&](const Outcome& o) {
        if (!o.injected) return;
        EXPECT_TRUE(Image(*r) == before);
        EXPECT_EQ(ref->UseCount(), 1u);  // the caller's count alone
      });
  EXPECT_THAT(Describe(failures), ElementsAre(kBadAlloc, kExpandFailed));
  EXPECT_EQ(ref->UseCount(), 2u);
  ExpectSizesInStep(*r);
}

// A raw reference handed to OwnTRef is the record's, or released, once a
// Cr_TRef holds it, whatever fails afterwards.
struct RecordAndRawRef {
  RecordAndRawRef() : record(NewTightRecord()), raw(NewRawRef(CR_TREF_TYPE_HOLD, 2)) {}
  ~RecordAndRawRef() {
    if (callerOwnsRaw) CRTRefDelete(&raw);
  }
  RecordAndRawRef(RecordAndRawRef&& o) noexcept
      : record(std::move(o.record)), raw(o.raw), callerOwnsRaw(o.callerOwnsRaw) {
    o.callerOwnsRaw = false;
  }
  std::unique_ptr<DORecord> record;
  _cr_tref_t* raw;
  bool callerOwnsRaw = true;
};

TEST_F(AllocFailureTest, OwnTRefOfARawReferenceTakesItOverInEveryOutcome) {
  const std::vector<Outcome> failures = SweepAllocationFailures(
      [] { return RecordAndRawRef(); },
      [](RecordAndRawRef& s) {
        s.callerOwnsRaw = false;
        return s.record->OwnTRef(*s.raw);
      },
      [](RecordAndRawRef& s, const Outcome& o) {
        if (o.injected) {
          EXPECT_EQ(s.record->GetNTRefs(), 0u);
        }
        ExpectSizesInStep(*s.record);
      });
  EXPECT_THAT(Describe(failures), ElementsAre(kBadAlloc, kExpandFailed));
}

TEST_F(AllocFailureTest, AddTRefStoresACopyOrNothing) {
  std::unique_ptr<DORecord> r(NewTightRecord());
  const RecordImage before = Image(*r);
  _cr_tref_t* raw = NewRawRef(CR_TREF_TYPE_HOLD, 4);
  auto unchanged = [&](const Outcome& o) {
    if (o.injected) {
      EXPECT_TRUE(Image(*r) == before);
    }
  };
  // The copy, its set node, the bigger buffer.
  EXPECT_THAT(Describe(SweepAllocationFailures([&] { return r->AddTRef(*raw); }, unchanged)),
              ElementsAre(kBadAlloc, kBadAlloc, kExpandFailed));
  CRTRefDelete(&raw);
  ExpectSizesInStep(*r);

  const RecordImage afterFirst = Image(*r);
  boost::intrusive_ptr<Cr_TRef> held(new Cr_TRef(NewRawRef(CR_TREF_TYPE_RETENTION, 5)));
  EXPECT_THAT(Describe(SweepAllocationFailures(
                  [&] { return r->AddTRef(held); },
                  [&](const Outcome& o) {
                    if (o.injected) {
                      EXPECT_TRUE(Image(*r) == afterFirst);
                    }
                  })),
              ElementsAre(kBadAlloc, kBadAlloc));
  EXPECT_EQ(held->UseCount(), 1u);  // the record holds a copy, not this object
  EXPECT_EQ(r->GetNTRefs(), 2u);
}

// Looking up or removing by raw reference or by ID makes one temporary.
TEST_F(AllocFailureTest, LookupsAndRemovalsByValueFailOnlyOnTheirTemporary) {
  std::unique_ptr<DORecord> r(NewTightRecord());
  r->AddTaskID(5ul);
  r->AddDSID(6u);
  _cr_tref_t* hold = NewRawRef(CR_TREF_TYPE_HOLD, 7);
  r->AddTRef(*hold);
  const RecordImage before = Image(*r);
  auto unchanged = [&](const Outcome& o) {
    if (o.injected) {
      EXPECT_TRUE(Image(*r) == before);
    }
  };
  EXPECT_THAT(Describe(SweepAllocationFailures([&] { return r->CheckTRef(hold); }, unchanged)),
              ElementsAre(kBadAlloc));
  EXPECT_THAT(Describe(SweepAllocationFailures([&] { return r->HasTaskID(5) ? 0 : 1; }, unchanged)),
              ElementsAre(kBadAlloc));
  EXPECT_THAT(Describe(SweepAllocationFailures([&] { return r->HasDSID(6) ? 0 : 1; }, unchanged)),
              ElementsAre(kBadAlloc));
  EXPECT_THAT(Describe(SweepAllocationFailures([&] { return r->DelTRef(hold); }, unchanged)),
              ElementsAre(kBadAlloc));
  EXPECT_EQ(r->GetNTRefs(CR_TREF_TYPE_HOLD), 0u);
  const RecordImage afterDel = Image(*r);
  EXPECT_THAT(Describe(SweepAllocationFailures(
                  [&] { return r->DelDSID(6u); },
                  [&](const Outcome& o) {
                    if (o.injected) {
                      EXPECT_TRUE(Image(*r) == afterDel);
                    }
                  })),
              ElementsAre(kBadAlloc));
  EXPECT_EQ(r->GetNds(), 0u);
  CRTRefDelete(&hold);
  ExpectSizesInStep(*r);
}

// A section of three references: the growth first (status 22, nothing
// changed), then per reference its raw reference (status 22 from the
// typed-reference library) and its set node (std::bad_alloc). What was
// loaded before a failure stays, counted in the sizes, and the mtime is
// not stamped.
TEST_F(AllocFailureTest, AddSerializedTRefsKeepsWhatItLoadedBeforeTheFailure) {
  Bytes section;
  section.u8(CR_TREF_TYPE_TASKID).u8(8).be64(11);
  section.u8(CR_TREF_TYPE_DSID).u8(4).be32(12);
  section.u8(CR_TREF_TYPE_HOLD).u8(3).u8(1).u8(2).u8(3);
  const uint32_t sizes[] = {10, 6, 5};
  size_t run = 0;
  const std::vector<Outcome> failures = SweepAllocationFailures(
      [] { return std::unique_ptr<DORecord>(NewTightRecord()); },
      [&](std::unique_ptr<DORecord>& r) {
        r->AddSerializedTRefs(reinterpret_cast<const char*>(section.data()),
                              static_cast<unsigned int>(section.size()));
      },
      [&](std::unique_ptr<DORecord>& r, const Outcome& o) {
        const size_t k = run++;
        ExpectSizesInStep(*r);
        if (!o.injected) {
          EXPECT_EQ(r->GetNTRefs(), 3u);
          return;
        }
        // Run 0 fails the growth; runs 2i+1 and 2i+2 fail reference i.
        const size_t loaded = k == 0 ? 0 : (k - 1) / 2;
        EXPECT_EQ(r->GetNTRefs(), loaded);
        uint32_t trefs = 0;
        for (size_t i = 0; i < loaded; ++i) trefs += sizes[i];
        EXPECT_EQ(r->getTRefsSize(), trefs);
        EXPECT_EQ(r->GetMTime(), kOldTime);
      });
  EXPECT_THAT(Describe(failures), ElementsAre(kExpandFailed, kCorruptTRefs, kBadAlloc,
                                              kCorruptTRefs, kBadAlloc, kCorruptTRefs, kBadAlloc));
}

// Changes that only remove, convert or read allocate nothing, so they
// cannot fail for want of memory.
TEST_F(AllocFailureTest, RemovingConvertingAndCheckingAllocateNothing) {
  std::unique_ptr<DORecord> r(NewTightRecord());
  r->AddTaskID(5ul);
  r->AddTaskID(6ul);
  r->AddDSID(7u);
  boost::intrusive_ptr<Cr_TRef> dsid(new Cr_TRef(7u));
  boost::intrusive_ptr<Cr_TRef> absent(new Cr_TRef(8u));
  auto none = [](const Outcome&) {};
  std::unique_ptr<DORecord> twin(NewTightRecord());
  const std::vector<std::vector<Outcome>> sweeps = {
      SweepAllocationFailures([&] { r->checkSegmentList(); }, none),
      SweepAllocationFailures([&] { return r->CheckTRef(dsid); }, none),
      SweepAllocationFailures([&] { return r->CheckTRef(absent); }, none),
      SweepAllocationFailures([&] { return *r == *twin ? 0 : 1; }, none),
      SweepAllocationFailures([&] { r->GetHeader(); }, none),
      SweepAllocationFailures([&] { r->HostToNetwork(0); }, none),
      SweepAllocationFailures([&] { r->NetworkToHost(0); }, none),
      SweepAllocationFailures([&] { return r->DelTRef(dsid); }, none),
      SweepAllocationFailures([&] { return r->RemoveInactiveTaskIDs(&AllActive, nullptr); }, none),
      SweepAllocationFailures([&] { r->RemoveAllTRefs(); }, none),
      SweepAllocationFailures([&] { r->ClearTRefType(CR_TREF_TYPE_DSID); }, none),
  };
  for (const std::vector<Outcome>& failures : sweeps) EXPECT_THAT(failures, IsEmpty());
  EXPECT_EQ(r->GetNTRefs(), 0u);
}

// --- The TRef pool's own blocks ------------------------------------------------

// A record without references over an emptied pool: its first Cr_TRef needs
// a new block.
struct EmptyPoolRecord {
  EmptyPoolRecord() : record(NewTightRecord()) {
    TRefPool::purge_memory();  // no Cr_TRef is alive between the tests
  }
  std::unique_ptr<DORecord> record;
};

// The pool asks for half a block when a whole one cannot be had, so one
// failed allocation does not stop it.
TEST_F(AllocFailureTest, TRefPoolFallsBackToASmallerBlock) {
  const std::vector<Outcome> failures = SweepAllocationFailures(
      [] { return EmptyPoolRecord(); },
      [](EmptyPoolRecord& s) { return s.record->AddTaskID(7ul); },
      [](EmptyPoolRecord& s, const Outcome& o) {
        EXPECT_EQ(s.record->GetNTRefs(), o.kind == Outcome::kCompleted ? 1u : 0u);
      });
  EXPECT_THAT(Describe(failures), ElementsAre("return 0", kBadAlloc, kBadAlloc, kExpandFailed));
  WarmTRefPool();
}

// When the pool can have no block at all, a new reference is std::bad_alloc
// and nothing is left behind, no block either.
TEST_F(AllocFailureTest, TRefPoolWithoutABlockGivesBadAllocAndLeavesNothing) {
  {
    EmptyPoolRecord s;
    const RecordImage before = Image(*s.record);
    const long live = crtest::LiveAllocations();
    crtest::FailAllocationAt(0, 2);
    EXPECT_THROW(s.record->AddTaskID(7ul), std::bad_alloc);
    EXPECT_TRUE(crtest::StopFailingAllocations());
    EXPECT_EQ(crtest::LiveAllocations(), live);
    EXPECT_EQ(crtest::PoolBlocks(), 0);
    EXPECT_TRUE(Image(*s.record) == before);
  }
  WarmTRefPool();
}

// When no Cr_TRef can be made for a raw reference, it stays the caller's:
// the caller releases it here, and a second release would show.
TEST_F(AllocFailureTest, OwnTRefLeavesTheRawReferenceToTheCallerWhenNoCrTRefCanBeMade) {
  {
    RecordAndRawRef s;
    TRefPool::purge_memory();
    const long live = crtest::LiveAllocations();
    crtest::FailAllocationAt(0, 2);
    EXPECT_THROW(s.record->OwnTRef(*s.raw), std::bad_alloc);
    EXPECT_TRUE(crtest::StopFailingAllocations());
    EXPECT_EQ(crtest::LiveAllocations(), live);  // the raw reference is still there
    EXPECT_EQ(s.record->GetNTRefs(), 0u);
    EXPECT_EQ(CRTRefGetType(s.raw), CR_TREF_TYPE_HOLD);
  }
  WarmTRefPool();
}

// A copy made for the caller's raw reference goes back when the pool has no
// chunk to wrap it in.
TEST_F(AllocFailureTest, AddTRefReleasesItsCopyWhenThePoolHasNoBlock) {
  {
    EmptyPoolRecord s;
    _cr_tref_t* raw = NewRawRef(CR_TREF_TYPE_HOLD, 8);
    const RecordImage before = Image(*s.record);
    const long live = crtest::LiveAllocations();
    crtest::FailAllocationAt(1, 2);  // 0: the copy; 1 and 2: a whole and a half block
    EXPECT_THROW(s.record->AddTRef(*raw), std::bad_alloc);
    EXPECT_TRUE(crtest::StopFailingAllocations());
    EXPECT_EQ(crtest::LiveAllocations(), live);
    EXPECT_EQ(crtest::PoolBlocks(), 0);
    EXPECT_TRUE(Image(*s.record) == before);
    CRTRefDelete(&raw);
  }
  WarmTRefPool();
}

// A reference decoded from a section goes back when the pool has no chunk
// to wrap it in; nothing is loaded.
TEST_F(AllocFailureTest, AddSerializedTRefsReleasesTheDecodedReferenceWhenThePoolHasNoBlock) {
  {
    EmptyPoolRecord s;
    s.record->expand(s.record->getRecSize() + 64);  // room: no growth below
    Bytes section;
    section.u8(CR_TREF_TYPE_RETENTION).u8(2).u8(9).u8(9);
    const RecordImage before = Image(*s.record);
    const long live = crtest::LiveAllocations();
    crtest::FailAllocationAt(1, 2);  // 0: the decoded reference; 1 and 2: the pool's blocks
    EXPECT_THROW(s.record->AddSerializedTRefs(reinterpret_cast<const char*>(section.data()), 4),
                 std::bad_alloc);
    EXPECT_TRUE(crtest::StopFailingAllocations());
    EXPECT_EQ(crtest::LiveAllocations(), live);
    EXPECT_TRUE(Image(*s.record) == before);
  }
  WarmTRefPool();
}

}  // namespace
