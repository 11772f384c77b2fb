// The DORecord object: buffer growth in each buffer mode, size bookkeeping,
// header accessors with their checks, messages and mtime rules.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <memory>
#include <vector>

#include "crrecord/DORecord.h"
#include "test_support.h"

namespace {

constexpr unsigned int kHeader = 80;

// A DO type 2 record of two 16-byte-fingerprint segments, ctime 10, mtime 20.
std::unique_ptr<DORecord> SmallRecord() {
  crtest::Bytes segs;
  segs.raw(crtest::PatternFP(1, 16).data(), 16).le32(300);
  segs.raw(crtest::PatternFP(2, 16).data(), 16).le32(700);
  const unsigned long dcids[] = {64, 65};
  return std::make_unique<DORecord>(100, 1000, 512, 0xABCD, 10, 20, segs.data(), 2, dcids,
                                    nullptr, 1, 2);
}

// A malloc'ed copy of a record's stored bytes in a buffer of `capacity`.
DORecordHeader* StoredCopy(DORecord& record, size_t capacity) {
  void* p = std::malloc(capacity);
  std::memset(p, 0xEE, capacity);
  std::memcpy(p, record.GetHeader(), record.GetHeaderSize());
  return static_cast<DORecordHeader*>(p);
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

TEST(DORecordObject, BuiltRecordOwnsAnExactBuffer) {
  auto r = SmallRecord();
  const unsigned int size = kHeader + 2 * (16 + 4 + 8);
  EXPECT_EQ(r->GetHeaderSize(), size);
  EXPECT_EQ(r->getRecSize(), size);
  EXPECT_EQ(r->calcRecSize(), size);
  EXPECT_EQ(r->GetAllocatedSize(), size);
  EXPECT_EQ(r->GetDOSize(), size - kHeader);
  EXPECT_TRUE(r->OwnsBuffer());
  EXPECT_EQ(r->GetBufferMode(), 2u);
  EXPECT_FALSE(r->IsInNetworkOrder());
  EXPECT_FALSE(r->IsSubDO());
}

TEST(DORecordObject, ExpandGrowsInWholePages) {
  ASSERT_EQ(sysconf(_SC_PAGESIZE), 4096);
  auto built = SmallRecord();
  DORecordHeader* buffer = StoredCopy(*built, 4096);
  DORecord r(buffer, 4096, 2);  // takes the buffer over
  r.expand(4096);
  EXPECT_EQ(r.GetAllocatedSize(), 4096u);
  r.expand(4097);
  EXPECT_EQ(r.GetAllocatedSize(), 8192u);
  EXPECT_EQ(r.GetBufferMode(), 2u);
  EXPECT_EQ(r.GetSegmentSize(1), 700u);  // content kept
  r.expand();  // recsize fits: nothing changes
  EXPECT_EQ(r.GetAllocatedSize(), 8192u);
}

TEST(DORecordObject, GrowthCopiesABorrowedBufferAndLeavesItUntouched) {
  auto built = SmallRecord();
  const size_t capacity = built->GetHeaderSize();
  DORecordHeader* buffer = StoredCopy(*built, capacity);
  std::vector<uint8_t> before(reinterpret_cast<uint8_t*>(buffer),
                              reinterpret_cast<uint8_t*>(buffer) + capacity);
  {
    DORecord r(buffer, capacity, 1);
    EXPECT_FALSE(r.OwnsBuffer());
    EXPECT_EQ(r.GetHeader(), buffer);
    r.expand(capacity + 1);
    EXPECT_TRUE(r.OwnsBuffer());
    EXPECT_EQ(r.GetBufferMode(), 2u);
    EXPECT_NE(r.GetHeader(), buffer);
    EXPECT_EQ(r.GetAllocatedSize(), 4096u);
    r.SetDCID(999);  // changes the copy only
    EXPECT_EQ(r.GetDCID(), 999u);
  }
  EXPECT_EQ(std::vector<uint8_t>(reinterpret_cast<uint8_t*>(buffer),
                                 reinterpret_cast<uint8_t*>(buffer) + capacity),
            before);
  std::free(buffer);  // still the caller's
}

TEST(DORecordObject, FixedBufferRefusesToGrow) {
  auto built = SmallRecord();
  const size_t capacity = built->GetHeaderSize();
  DORecordHeader* buffer = StoredCopy(*built, capacity);
  {
    DORecord r(buffer, capacity, 0);
    ExpectStatus([&] { r.expand(capacity + 1); }, 9,
                 "Need to expand the buffer of DORecord but I'm not allowed to copy it.");
    EXPECT_EQ(r.GetAllocatedSize(), capacity);
    EXPECT_EQ(r.GetHeader(), buffer);
    r.expand(capacity);  // no growth needed: fine
  }
  std::free(buffer);
}

TEST(DORecordObject, RecordSizeHasTheHeaderAsLowerBound) {
  auto r = SmallRecord();
  const unsigned int size = r->getRecSize();
  ExpectStatus([&] { r->setRecSize(kHeader - 1); }, 9, "invalid record size for DO");
  EXPECT_EQ(r->getRecSize(), size);
  r->setRecSize(kHeader);
  EXPECT_EQ(r->getRecSize(), kHeader);
  r->setRecSize(size);
  r->setTRefsSize(17);
  EXPECT_EQ(r->getTRefsSize(), 17u);
  EXPECT_EQ(r->calcRecSize(), size + 17);
  r->initReferenceSets();
  EXPECT_EQ(r->getTRefsSize(), 0u);
  EXPECT_EQ(r->getRecSize(), size);
}

TEST(DORecordObject, FlagSettersLogInvalidBits) {
  auto r = SmallRecord();
  ASSERT_EQ(r->GetFlags(), 0x0002);
  {
    crtest::LogCapture log;
    r->setFlags(0x0008);
    EXPECT_EQ(r->GetFlags(), 0x0002);
    EXPECT_EQ(r->GetMTime(), 20u);
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_EQ(log.lines()[0].level, CR_LOG_ERROR);
    EXPECT_EQ(log.lines()[0].status, 9u);
    EXPECT_EQ(log.lines()[0].text, "Setting DORecord flags to invalid value 8");
  }
  {
    crtest::LogCapture log;
    const unsigned int before = static_cast<unsigned int>(std::time(nullptr));
    r->SetFlags(0x0008);
    EXPECT_EQ(r->GetFlags(), 0x0008);
    EXPECT_GE(r->GetMTime(), before);
    EXPECT_EQ(log.texts(), std::vector<std::string>{"Setting DORecord flags to invalid value 8"});
  }
  {
    crtest::LogCapture log;
    r->setFlags(0x0006);
    EXPECT_EQ(r->GetFlags(), 0x0006);
    EXPECT_TRUE(log.lines().empty());
  }
}

TEST(DORecordObject, LowerCaseSettersDoNotStampAndUpperCaseOnesDo) {
  auto r = SmallRecord();
  r->setDCID(555);
  r->setCheckTime(77);
  r->SetCheckTime(78);
  r->setFPType(3);
  EXPECT_EQ(r->GetDCID(), 555u);
  EXPECT_EQ(r->GetCheckTime(), 78u);
  EXPECT_EQ(r->GetFPType(), 3);
  EXPECT_EQ(r->GetMTime(), 20u);
  ExpectStatus([&] { r->setFPType(9); }, 9, "invalid fptype for DO");
  EXPECT_EQ(r->GetFPType(), 3);
  EXPECT_EQ(r->GetMTime(), 20u);

  const unsigned int before = static_cast<unsigned int>(std::time(nullptr));
  r->SetFPType(9);  // no check
  EXPECT_EQ(r->GetFPType(), 9);
  EXPECT_GE(r->GetMTime(), before);
  r->setFPType(1);
  r->handleUpdate();
  r->SetDCID(556);
  EXPECT_EQ(r->GetDCID(), 556u);
  EXPECT_GE(r->GetMTime(), before);
}

TEST(DORecordObject, GettersReadHostValuesInNetworkOrder) {
  auto r = SmallRecord();
  r->setCheckTime(0x01020304);
  const DORecordHeader* h = r->GetHeader();
  const std::vector<uint8_t> host(reinterpret_cast<const uint8_t*>(h),
                                  reinterpret_cast<const uint8_t*>(h) + kHeader);
  auto values = [&] {
    return std::vector<unsigned long>{r->GetFlags(),  r->GetCheckTime(), r->GetDCID(),
                                      r->GetSize(),   r->GetSsize(),     r->GetCrc(),
                                      r->GetCTime(),  r->GetMTime(),     r->GetNfp(),
                                      r->GetNudcid(), r->GetBSize(),     r->GetFPType(),
                                      r->GetDOType(), r->getRecSize(),   r->getTRefsSize()};
  };
  const std::vector<unsigned long> before = values();
  r->HostToNetwork(0);
  EXPECT_TRUE(r->IsInNetworkOrder());
  EXPECT_EQ(values(), before);
  EXPECT_EQ(crtest::Hex(reinterpret_cast<const uint8_t*>(r->GetHeader()) + 12, 4), "01020304");
  EXPECT_NE(std::vector<uint8_t>(reinterpret_cast<const uint8_t*>(r->GetHeader()),
                                 reinterpret_cast<const uint8_t*>(r->GetHeader()) + kHeader),
            host);
  r->setCheckTime(5);  // stored in network order
  EXPECT_EQ(crtest::Hex(reinterpret_cast<const uint8_t*>(r->GetHeader()) + 12, 4), "00000005");
  r->NetworkToHost(0);
  EXPECT_EQ(r->GetCheckTime(), 5u);
}

TEST(DORecordObject, GetHeaderOfARecordWithoutReferencesWritesNothing) {
  auto r = SmallRecord();
  DORecordHeader* h = r->GetHeader();
  const std::vector<uint8_t> before(reinterpret_cast<uint8_t*>(h),
                                    reinterpret_cast<uint8_t*>(h) + r->GetAllocatedSize());
  EXPECT_EQ(r->GetHeader(), h);
  EXPECT_EQ(std::vector<uint8_t>(reinterpret_cast<uint8_t*>(h),
                                 reinterpret_cast<uint8_t*>(h) + r->GetAllocatedSize()),
            before);
  EXPECT_EQ(DORecord::ValidateHeader(h, r->GetHeaderSize(), 0), 0u);
  EXPECT_EQ(DORecord::ValidateHeader(h, r->GetHeaderSize() - 1, 0), 32u);
  EXPECT_EQ(r->GetPOID(), reinterpret_cast<unsigned char*>(h) + 16);
}

}  // namespace
