// The DORecord object: buffer growth in each buffer mode, size bookkeeping,
// header accessors with their checks, messages and mtime rules.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "images.h"

namespace {

using namespace crtest;

TEST(DORecordObject, RecordSizeBookkeepingHasTheHeaderAsLowerBound) {
  auto r = SmallRecord();
  EXPECT_EQ(r->GetHeaderSize(), kSmallSize);
  EXPECT_EQ(r->calcRecSize(), kSmallSize);
  EXPECT_EQ(r->GetDOSize(), kSmallSize - 80);
  EXPECT_EQ(Thrown([&] { r->setRecSize(79); }), Failure(9, "invalid record size for DO"));
  EXPECT_EQ(r->getRecSize(), kSmallSize);
  r->setRecSize(80);
  EXPECT_EQ(r->getRecSize(), 80u);
  r->setRecSize(kSmallSize);
  r->setTRefsSize(17);
  EXPECT_EQ(r->getTRefsSize(), 17u);
  EXPECT_EQ(r->calcRecSize(), kSmallSize + 17);
  r->initReferenceSets();
  EXPECT_EQ(r->getTRefsSize(), 0u);
  EXPECT_EQ(r->getRecSize(), kSmallSize);
}

// Growth takes whole pages; a borrowed buffer (mode 1) is copied and left
// as it was, a fixed one (mode 0) refuses, an owned one (mode 2) is resized.
TEST(DORecordObject, ExpandGrowsInWholePagesWhereTheModeAllows) {
  ASSERT_EQ(sysconf(_SC_PAGESIZE), 4096);
  const std::vector<uint8_t> stored = RecordBytes(*SmallRecord());
  for (unsigned int mode = 0; mode <= 2; ++mode) {
    SCOPED_TRACE(mode);
    DORecordHeader* buffer = MallocCopy(stored);
    {
      DORecord r(buffer, kSmallSize, mode);
      EXPECT_EQ(r.OwnsBuffer(), mode == 2);
      r.expand(kSmallSize);  // fits: nothing changes
      r.expand();
      EXPECT_EQ(r.GetHeader(), buffer);
      EXPECT_EQ(r.GetAllocatedSize(), kSmallSize);
      if (mode == 0) {
        EXPECT_EQ(Thrown([&] { r.expand(kSmallSize + 1); }), Failure(9, kCannotGrow));
        EXPECT_EQ(r.GetAllocatedSize(), kSmallSize);
        EXPECT_EQ(r.GetHeader(), buffer);
      } else {
        r.expand(kSmallSize + 1);
        EXPECT_TRUE(r.OwnsBuffer());
        EXPECT_EQ(r.GetBufferMode(), 2u);
        EXPECT_EQ(r.GetAllocatedSize(), 4096u);
        if (mode == 1) {
          EXPECT_NE(r.GetHeader(), buffer);
        }
        r.expand(4097);
        EXPECT_EQ(r.GetAllocatedSize(), 8192u);
        EXPECT_EQ(r.GetSegmentSize(1), 700u);  // content kept
        r.SetDCID(999);                        // changes the copy only
        EXPECT_EQ(r.GetDCID(), 999u);
      }
    }
    if (mode != 2) {
      EXPECT_EQ(BytesAt(buffer, stored.size()), stored);
      std::free(buffer);  // still the caller's
    }
  }
}

TEST(DORecordObject, FlagSettersLogInvalidBits) {
  auto r = SmallRecord();
  ASSERT_EQ(r->GetFlags(), 0x0002);
  {
    LogCapture log;
    r->setFlags(0x0008);  // refused, not stamped
    EXPECT_EQ(r->GetFlags(), 0x0002);
    EXPECT_EQ(r->GetMTime(), 20u);
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_EQ(log.lines()[0].level, CR_LOG_ERROR);
    EXPECT_EQ(log.lines()[0].status, 9u);
    EXPECT_EQ(log.lines()[0].text, "Setting DORecord flags to invalid value 8");
  }
  {
    LogCapture log;
    const uint32_t before = Now();
    r->SetFlags(0x0008);  // logged, yet stored and stamped
    EXPECT_EQ(r->GetFlags(), 0x0008);
    EXPECT_GE(r->GetMTime(), before);
    EXPECT_EQ(log.texts(), std::vector<std::string>{"Setting DORecord flags to invalid value 8"});
  }
  LogCapture log;
  r->setFlags(0x0006);
  EXPECT_EQ(r->GetFlags(), 0x0006);
  EXPECT_TRUE(log.lines().empty());
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
  EXPECT_EQ(Thrown([&] { r->setFPType(9); }), Failure(9, "invalid fptype for DO"));
  EXPECT_EQ(r->GetFPType(), 3);
  EXPECT_EQ(r->GetMTime(), 20u);

  const uint32_t before = Now();
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
  auto checktime = [&] { return Hex(reinterpret_cast<const uint8_t*>(r->GetHeader()) + 12, 4); };
  EXPECT_EQ(checktime(), "01020304");
  r->setCheckTime(5);  // stored in network order
  EXPECT_EQ(checktime(), "00000005");
  r->NetworkToHost(0);
  EXPECT_EQ(r->GetCheckTime(), 5u);
}

TEST(DORecordObject, GetHeaderOfARecordWithoutReferencesWritesNothing) {
  auto r = SmallRecord();
  DORecordHeader* h = r->GetHeader();
  const std::vector<uint8_t> before = BytesAt(h, r->GetAllocatedSize());
  EXPECT_EQ(r->GetHeader(), h);
  EXPECT_EQ(BytesAt(h, r->GetAllocatedSize()), before);
  EXPECT_EQ(DORecord::ValidateHeader(h, r->GetHeaderSize(), 0), 0u);
  EXPECT_EQ(DORecord::ValidateHeader(h, r->GetHeaderSize() - 1, 0), 32u);
  EXPECT_EQ(r->GetPOID(), reinterpret_cast<unsigned char*>(h) + 16);
}

}  // namespace
