// Opening stored records: references survive in every buffer mode, growth
// follows the mode, and a refused buffer keeps its bytes and its owner.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "images.h"

namespace {

using namespace crtest;

// The stored bytes of the small record with task ID 5, DSID 6 and a kind-9
// reference, mtime 20.
std::vector<uint8_t> StoredRecord() {
  auto r = SmallRecord();
  r->AddTaskID(5);
  r->AddDSID(6);
  const unsigned char hold = 0xAA;
  r->OwnTRef(*CRTRefNew(CR_TREF_TYPE_HOLD, &hold, 1));
  r->GetHeader()->mtime = 20;
  return RecordBytes(*r);
}

void ExpectReferences(DORecord& r, std::vector<unsigned long> taskIds) {
  Bytes section;
  for (unsigned long id : taskIds) section.u8(2).u8(8).be64(id);
  section.u8(4).u8(4).be32(6).u8(9).u8(1).u8(0xAA);
  EXPECT_EQ(BytesAt(r.GetSerializedTRefs(), r.GetSerializedTRefsSize()), section.vec());
  EXPECT_EQ(r.getRecSize(), kSmallSize + section.size());
  EXPECT_EQ(r.GetNTRefs(), taskIds.size() + 2);
  EXPECT_TRUE(r.HasDSID(6));
}

TEST(DORecordStored, ReopenedRecordsKeepTheirReferencesAndGrowAsTheirModeSays) {
  const std::vector<uint8_t> stored = StoredRecord();
  ASSERT_EQ(stored.size(), kSmallSize + 19);
  for (unsigned int mode = 0; mode <= 2; ++mode) {
    SCOPED_TRACE(mode);
    DORecordHeader* buffer = MallocCopy(stored);
    {
      DORecord r(buffer, stored.size(), mode);
      EXPECT_EQ(r.GetHeader(), buffer);
      EXPECT_EQ(r.OwnsBuffer(), mode == 2);
      EXPECT_EQ(r.GetMTime(), 20u);  // loading is no change
      EXPECT_EQ(BytesAt(buffer, stored.size()), stored);
      ExpectReferences(r, {5});
      if (mode == 0) {
        EXPECT_EQ(Thrown([&] { r.AddTaskID(99); }), Failure(9, kCannotGrow));
        ExpectReferences(r, {5});
      } else {
        EXPECT_EQ(r.AddTaskID(99), 0);
        EXPECT_TRUE(r.OwnsBuffer());
        EXPECT_EQ(r.GetBufferMode(), 2u);
        EXPECT_EQ(r.GetAllocatedSize(), 4096u);
        ExpectReferences(r, {5, 99});
      }
    }
    if (mode != 2) {
      EXPECT_EQ(BytesAt(buffer, stored.size()), stored);  // a copy took the growth
      std::free(buffer);
    }
  }
}

TEST(DORecordStored, RefusedBuffersKeepTheirBytesAndStayTheCallers) {
  const std::vector<uint8_t> stored = StoredRecord();
  const unsigned long size = stored.size();
  struct Case {
    const char* what;
    long changeAt;  // byte overwritten with `to`, or -1
    uint8_t to;
    unsigned long offset, allocated;
    unsigned int mode;
    Failure failure;
  };
  const Case cases[] = {
      {"mode", -1, 0, 0, size, 3,
       {9, "Invalid buffer mode 3 for a DO record; 0, 1 or 2 expected."}},
      {"aligned", -1, 0, 4, size, 2, {9, "DO record buffer is not 8-byte aligned."}},
      {"short", -1, 0, 0, 79, 2,
       {32, "DO record buffer of 79 bytes is smaller than the header (80 bytes)."}},
      {"recsize", -1, 0, 0, size - 1, 2,
       {32, "DO record of " + std::to_string(size) + " bytes exceeds its buffer of " +
                std::to_string(size - 1) + " bytes."}},
      {"type", 0, 2, 0, size, 2, {32, ""}},
      // The kind-9 reference at the end claims 5 payload bytes.
      {"section", static_cast<long>(size) - 2, 5, 0, size, 2,
       {120, "Received a buffer with corrupt typed references."}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    std::vector<uint8_t> image = stored;
    if (c.changeAt >= 0) image[c.changeAt] = c.to;
    unsigned char* block = static_cast<unsigned char*>(std::malloc(size + c.offset));
    std::memcpy(block + c.offset, image.data(), size);
    DORecordHeader* buffer = reinterpret_cast<DORecordHeader*>(block + c.offset);
    EXPECT_EQ(Thrown([&] { DORecord r(buffer, c.allocated, c.mode); }), c.failure);
    EXPECT_EQ(BytesAt(buffer, size), image);
    std::free(block);  // still ours: a double free if the object had taken it
  }
  EXPECT_EQ(Thrown([&] { DORecord r(nullptr, size, 1); }),
            Failure(65, "No DO record buffer given."));
}

TEST(DORecordStored, OldListsInModeOneAreConvertedOnACopy) {
  // A record without segments whose only content is one old task ID.
  const std::vector<uint8_t> stored =
      HeaderImage(88, 0, 100, 0, 0, 0, 10, 20, 1, 0, 0, 0, 0, 0, 1, 2).le64(77).vec();
  DORecordHeader* buffer = MallocCopy(stored);
  {
    DORecord r(buffer, 88, 1);
    EXPECT_NE(r.GetHeader(), buffer);
    EXPECT_TRUE(r.OwnsBuffer());
    EXPECT_TRUE(r.HasTaskID(77));
    EXPECT_EQ(r.getRecSize(), 80u + 10);
  }
  EXPECT_EQ(BytesAt(buffer, 88), stored);
  std::free(buffer);
}

}  // namespace
