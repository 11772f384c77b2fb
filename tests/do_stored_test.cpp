// Opening stored records: references survive in every buffer mode, growth
// follows the mode, and a refused buffer keeps its bytes and its owner.
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

constexpr unsigned int kRecSize = 80 + 2 * (16 + 4 + 8);

std::unique_ptr<DORecord> SmallRecord() {
  crtest::Bytes segs;
  segs.raw(crtest::PatternFP(1, 16).data(), 16).le32(300);
  segs.raw(crtest::PatternFP(2, 16).data(), 16).le32(700);
  const unsigned long dcids[] = {64, 65};
  return std::make_unique<DORecord>(100, 1000, 512, 0xABCD, 10, 20, segs.data(), 2, dcids,
                                    nullptr, 1, 2);
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

std::vector<uint8_t> BytesAt(const void* p, size_t n) {
  const uint8_t* b = static_cast<const uint8_t*>(p);
  return std::vector<uint8_t>(b, b + n);
}

// The stored bytes of a record with task ID 5, DSID 6 and a kind-9
// reference, mtime 20, in a malloc'ed buffer of exactly their size.
std::vector<uint8_t> StoredRecord() {
  auto r = SmallRecord();
  r->AddTaskID(5);
  r->AddDSID(6);
  const unsigned char hold = 0xAA;
  _cr_tref_t* raw = CRTRefNew(CR_TREF_TYPE_HOLD, &hold, 1);
  r->OwnTRef(*raw);
  DORecordHeader* h = r->GetHeader();
  h->mtime = 20;
  return BytesAt(h, r->getRecSize());
}

DORecordHeader* Copy(const std::vector<uint8_t>& bytes) {
  void* p = std::malloc(bytes.size());
  std::memcpy(p, bytes.data(), bytes.size());
  return static_cast<DORecordHeader*>(p);
}

void ExpectReferences(DORecord& r, std::vector<unsigned long> taskIds) {
  crtest::Bytes section;
  for (unsigned long id : taskIds) section.u8(2).u8(8).be64(id);
  section.u8(4).u8(4).be32(6).u8(9).u8(1).u8(0xAA);
  EXPECT_EQ(BytesAt(r.GetSerializedTRefs(), r.GetSerializedTRefsSize()), section.vec());
  EXPECT_EQ(r.getRecSize(), kRecSize + section.size());
  EXPECT_EQ(r.GetNTRefs(), taskIds.size() + 2);
  EXPECT_TRUE(r.HasDSID(6));
}

TEST(DORecordStored, ReopenedRecordsKeepTheirReferencesAndGrowAsTheirModeSays) {
  const std::vector<uint8_t> stored = StoredRecord();
  ASSERT_EQ(stored.size(), kRecSize + 19);
  for (unsigned int mode = 0; mode <= 2; ++mode) {
    SCOPED_TRACE(mode);
    DORecordHeader* buffer = Copy(stored);
    {
      DORecord r(buffer, stored.size(), mode);
      EXPECT_EQ(r.GetHeader(), buffer);
      EXPECT_EQ(r.OwnsBuffer(), mode == 2);
      EXPECT_EQ(r.GetMTime(), 20u);  // loading is no change
      EXPECT_EQ(BytesAt(buffer, stored.size()), stored);
      ExpectReferences(r, {5});

      if (mode == 0) {
        ExpectStatus([&] { r.AddTaskID(99); }, 9,
                     "Need to expand the buffer of DORecord but I'm not allowed to copy it.");
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
    std::function<void(std::vector<uint8_t>&)> change;
    unsigned long offset, allocated;
    unsigned int mode;
    cr_status_t status;
    std::string message;
  };
  const std::vector<Case> cases = {
      {"mode", nullptr, 0, size, 3, 9,
       "Invalid buffer mode 3 for a DO record; 0, 1 or 2 expected."},
      {"aligned", nullptr, 4, size, 2, 9, "DO record buffer is not 8-byte aligned."},
      {"short", nullptr, 0, 79, 2, 32,
       "DO record buffer of 79 bytes is smaller than the header (80 bytes)."},
      {"recsize", nullptr, 0, size - 1, 2, 32,
       "DO record of " + std::to_string(size) + " bytes exceeds its buffer of " +
           std::to_string(size - 1) + " bytes."},
      {"type", [](std::vector<uint8_t>& b) { b[0] = 2; }, 0, size, 2, 32, ""},
      // The kind-9 reference at the end claims 5 payload bytes.
      {"section", [](std::vector<uint8_t>& b) { b[b.size() - 2] = 5; }, 0, size, 2, 120,
       "Received a buffer with corrupt typed references."},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    std::vector<uint8_t> image = stored;
    if (c.change) c.change(image);
    unsigned char* block = static_cast<unsigned char*>(std::malloc(size + c.offset));
    std::memcpy(block + c.offset, image.data(), size);
    DORecordHeader* buffer = reinterpret_cast<DORecordHeader*>(block + c.offset);
    ExpectStatus([&] { DORecord r(buffer, c.allocated, c.mode); }, c.status, c.message);
    EXPECT_EQ(BytesAt(buffer, size), image);
    std::free(block);  // still ours: a double free if the object had taken it
  }
  ExpectStatus([&] { DORecord r(nullptr, size, 1); }, 65, "No DO record buffer given.");
}

TEST(DORecordStored, OldListsInModeOneAreConvertedOnACopy) {
  crtest::Bytes h;  // a record without segments whose only content is one old task ID
  h.le16(3).le16(2).le32(88).le32(0).le32(0).le64(100).le64(0).le64(0).le32(0).le32(10).le32(20);
  h.le32(1).le32(0).le32(0).le32(0).le32(0).le32(0).u8(1).u8(2).zeros(2).le64(77);
  DORecordHeader* buffer = Copy(h.vec());
  {
    DORecord r(buffer, 88, 1);
    EXPECT_NE(r.GetHeader(), buffer);
    EXPECT_TRUE(r.OwnsBuffer());
    EXPECT_TRUE(r.HasTaskID(77));
    EXPECT_EQ(r.getRecSize(), 80u + 10);
  }
  EXPECT_EQ(BytesAt(buffer, 88), h.vec());
  std::free(buffer);
}

}  // namespace
