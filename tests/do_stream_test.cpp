// The text and binary stream forms of a DO record, and record equality.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <streambuf>
#include <string>
#include <vector>

#include "crrecord/DORecord.h"
#include "test_support.h"

namespace {

using std::to_string;

constexpr unsigned long kCID = 0xABC;
constexpr unsigned int kCRC = 0xABCD;

struct Segment {
  uint8_t seed;
  uint32_t size;
  uint64_t offset;
  uint32_t objectOffset;
  unsigned long dcid;
};

// Two segments whose fields fit every DO type's checks for a 1000-byte file.
const std::vector<Segment> kSegments = {{0x10, 300, 0, 0x0A0B0C0D, 64},
                                        {0x40, 700, 300, 0x1A1B1C1D, 0x123456789}};

crtest::Bytes SegmentList(unsigned char dotype) {
  crtest::Bytes b;
  for (const Segment& s : kSegments) {
    b.raw(crtest::PatternFP(s.seed, 16).data(), 16);
    if (dotype == 2 || dotype == 3 || dotype == 5) b.le32(s.size);
    if (dotype == 3) b.le64(s.offset);
    if (dotype == 5) b.le32(s.objectOffset);
  }
  return b;
}

std::unique_ptr<DORecord> Build(unsigned char dotype, unsigned int crc = kCRC,
                                unsigned int ctime = 10, unsigned int mtime = 20) {
  crtest::Bytes list = SegmentList(dotype);
  const unsigned long dcids[] = {kSegments[0].dcid, kSegments[1].dcid};
  return std::make_unique<DORecord>(kCID, 1000, 512, crc, ctime, mtime, list.data(), 2, dcids,
                                    nullptr, 1, dotype);
}

std::string Text(const DORecord& record) {
  std::ostringstream os;
  record.ToStream(os, false);
  return os.str();
}

std::string Binary(const DORecord& record) {
  std::ostringstream os;
  record.ToStream(os, true);
  return os.str();
}

std::string AsString(const crtest::Bytes& b) {
  return std::string(reinterpret_cast<const char*>(b.data()), b.size());
}

// The text of the header fields, written out as the text form lays them.
std::string HeaderText(unsigned int mtime, unsigned int dotype, unsigned int nfp) {
  return "3,1,2," + to_string(kCID) + ",1000,512," + to_string(kCRC) + ",10," +
         to_string(mtime) + ",1," + to_string(dotype) + "," + to_string(nfp) + ",";
}

std::string FPText(const Segment& s) { return crtest::Hex(crtest::PatternFP(s.seed, 16).data(), 16); }

TEST(DORecordText, EachDOTypeWritesItsEntries) {
  for (unsigned char dotype : {0, 1, 2, 3, 5}) {
    SCOPED_TRACE("dotype " + to_string(dotype));
    auto record = Build(dotype);
    std::string entries;
    for (const Segment& s : kSegments) {
      if (!entries.empty()) entries += ",";
      entries += "[" + FPText(s);
      if (dotype == 2 || dotype == 3 || dotype == 5) entries += "," + to_string(s.size);
      if (dotype == 3) entries += "," + to_string(s.offset);
      if (dotype == 5) entries += "," + to_string(s.objectOffset);
      entries += "]";
    }
    const std::string dcids = "[64," + to_string(0x123456789ul) + "]";
    EXPECT_EQ(Text(*record), HeaderText(20, dotype, 2) + "[" + entries + dcids + "],[]");
  }
}

TEST(DORecordText, RecordWithoutSegmentsEndsInEmptyLists) {
  const unsigned char bitmap[] = {1, 2, 3};
  DORecord record(kCID, 1000, 512, kCRC, 10, 20, sizeof bitmap, bitmap, nullptr, 1, 4);
  EXPECT_EQ(Text(record), HeaderText(20, 4, 0) + "[[]],[]");
}

TEST(DORecordText, NumbersFollowTheStreamsFormatting) {
  auto record = Build(2);
  std::ostringstream os;
  os << std::hex;
  record->ToStream(os, false);
  EXPECT_EQ(os.str(), "3,1,2,abc,3e8,200,abcd,a,14,1,2,2,[[" + FPText(kSegments[0]) + ",12c],[" +
                          FPText(kSegments[1]) + ",2bc][40,123456789]],[]");
}

TEST(DORecordText, ReferencesAppearInKindOrderWithoutKindZero) {
  auto record = Build(1);
  const unsigned char payload[] = {0xBE, 0xEF};
  _cr_tref_t* retention = CRTRefNew(CR_TREF_TYPE_RETENTION, payload, sizeof payload);
  ASSERT_NE(retention, nullptr);
  record->AddTRef(*retention);
  CRTRefDelete(&retention);
  record->AddDSID(7u);
  record->AddTaskID(42ul);
  record->AddTaskID(5ul);
  const unsigned char kindZero[] = {0, 1, 0xAB};
  record->AddSerializedTRefs(reinterpret_cast<const char*>(kindZero), sizeof kindZero);

  std::string expected = HeaderText(record->GetMTime(), 1, 2) + "[[" + FPText(kSegments[0]) +
                         "],[" + FPText(kSegments[1]) + "][64," + to_string(0x123456789ul) +
                         "]],[taskid:5,taskid:42,dsid:7,tref6:beef]";
  EXPECT_EQ(Text(*record), expected);
}

TEST(DORecordText, NetworkOrderIsRefusedAndNothingIsWritten) {
  auto record = Build(2);
  record->HostToNetwork(0);
  std::ostringstream os;
  try {
    record->ToStream(os, false);
    ADD_FAILURE() << "no exception";
  } catch (const Cr_ErrnoException& e) {
    EXPECT_EQ(e.GetStatus(), CR_STATUS_INVALID);
    EXPECT_STREQ(e.what(),
                 "cannot write DO record to stream in text form because it is in network order");
  }
  EXPECT_EQ(os.str(), "");
}

// The stored image of a DO type 2 record built by Build, with a typed-
// reference section of `trefs`.
crtest::Bytes BinaryImage(unsigned int mtime, const crtest::Bytes& trefs) {
  const uint32_t recsize = 80 + 2 * (16 + 4 + 8) + static_cast<uint32_t>(trefs.size());
  crtest::Bytes b;
  b.le16(3).le16(2).le32(recsize).le32(0).le32(0);
  b.le64(kCID).le64(1000).le64(512);
  b.le32(kCRC).le32(10).le32(mtime);
  b.le32(0).le32(2).le32(0).le32(0).le32(static_cast<uint32_t>(trefs.size())).le32(0);
  b.u8(1).u8(2).zeros(2);
  for (const Segment& s : kSegments) b.raw(crtest::PatternFP(s.seed, 16).data(), 16).le32(s.size);
  for (const Segment& s : kSegments) b.le64(s.dcid);
  b.raw(trefs.data(), trefs.size());
  return b;
}

TEST(DORecordBinary, WritesTheRecordWithAFreshReferenceSection) {
  auto record = Build(2);
  const unsigned char kindZero[] = {0, 1, 0xAB};
  record->AddSerializedTRefs(reinterpret_cast<const char*>(kindZero), sizeof kindZero);
  record->AddTaskID(42ul);

  crtest::Bytes trefs;
  trefs.u8(0).u8(1).u8(0xAB);   // kind 0 is written too
  trefs.u8(2).u8(8).be64(42);   // then kind 2
  const std::string bin = Binary(*record);
  const crtest::Bytes image = BinaryImage(record->GetMTime(), trefs);
  EXPECT_EQ(crtest::Hex(bin.data(), bin.size()), crtest::Hex(image.data(), image.size()));
  // The text form leaves kind 0 out.
  const std::string text = Text(*record);
  EXPECT_EQ(text.substr(text.size() - 13), "],[taskid:42]");
}

TEST(DORecordBinary, KindZeroOnlyRecordTextEndsInEmptyList) {
  auto record = Build(2);
  const unsigned char kindZero[] = {0, 1, 0xAB};
  record->AddSerializedTRefs(reinterpret_cast<const char*>(kindZero), sizeof kindZero);
  const std::string text = Text(*record);
  EXPECT_EQ(text.substr(text.size() - 5), "]],[]");
  const std::string bin = Binary(*record);
  EXPECT_EQ(crtest::Hex(bin.data() + bin.size() - 3, 3), "0001ab");
}

TEST(DORecordBinary, NetworkOrderRecordIsWrittenInHostOrderAndStaysInNetworkOrder) {
  auto record = Build(2);
  record->AddTaskID(42ul);
  record->HostToNetwork(0);
  crtest::Bytes trefs;
  trefs.u8(2).u8(8).be64(42);
  EXPECT_EQ(Binary(*record), AsString(BinaryImage(record->GetMTime(), trefs)));
  EXPECT_TRUE(record->IsInNetworkOrder());
  EXPECT_EQ(record->GetHeader()->type, 0x0300);  // big-endian 3 in the buffer
  EXPECT_EQ(record->GetNfp(), 2u);
}

// A stream buffer whose every write fails by throwing.
class ThrowingBuf : public std::streambuf {
 protected:
  int_type overflow(int_type) override { throw std::runtime_error("device gone"); }
  std::streamsize xsputn(const char*, std::streamsize) override {
    throw std::runtime_error("device gone");
  }
};

TEST(DORecordBinary, ByteOrderIsRestoredWhenTheStreamThrows) {
  auto record = Build(3);
  record->HostToNetwork(0);
  const DORecordHeader* h = record->GetHeader();
  const std::string before(reinterpret_cast<const char*>(h), record->GetHeaderSize());

  ThrowingBuf buf;
  std::ostream os(&buf);
  os.exceptions(std::ios::badbit);
  EXPECT_THROW(record->ToStream(os, true), std::runtime_error);

  EXPECT_TRUE(record->IsInNetworkOrder());
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(record->GetHeader()),
                        record->GetHeaderSize()),
            before);
  EXPECT_EQ(record->GetSegmentOffset(1), 300u);
}

TEST(DORecordEquality, FieldsOutsideTheIdentityDoNotCount) {
  auto a = Build(3);
  auto b = Build(3, kCRC, /*ctime=*/11, /*mtime=*/21);
  b->setCheckTime(99);
  b->SetSegmentDCID(1, 4096);
  EXPECT_TRUE(*a == *b);
  EXPECT_FALSE(*a != *b);
}

TEST(DORecordEquality, CRCAndFingerprintBytesCount) {
  auto a = Build(3);
  EXPECT_TRUE(*a != *Build(3, kCRC + 1));
  auto b = Build(3);
  // Byte 5 of the second fingerprint: the segment list starts behind the
  // 80-byte header, a DO type 3 entry of a 16-byte fingerprint is 28 bytes.
  reinterpret_cast<unsigned char*>(b->GetHeader())[80 + 28 + 5] ^= 1;
  EXPECT_FALSE(*a == *b);
  EXPECT_TRUE(*a != *b);
}

TEST(DORecordEquality, ReferenceSetsMustMatchKindByKind) {
  auto a = Build(2);
  auto b = Build(2);
  a->AddTaskID(1ul);
  b->AddTaskID(1ul);
  b->AddTaskID(2ul);
  EXPECT_FALSE(*a == *b);
  EXPECT_FALSE(*b == *a);
  a->AddTaskID(2ul);
  EXPECT_TRUE(*a == *b);

  const unsigned char first[] = {3, 1, 0xA1, 3, 1, 0xA2};
  const unsigned char second[] = {3, 1, 0xA1, 3, 1, 0xA3};
  a->AddSerializedTRefs(reinterpret_cast<const char*>(first), sizeof first);
  b->AddSerializedTRefs(reinterpret_cast<const char*>(second), sizeof second);
  EXPECT_FALSE(*a == *b);
  EXPECT_TRUE(*a != *b);
}

TEST(DORecordEquality, ByteOrderMustMatch) {
  auto a = Build(5);
  auto b = Build(5);
  b->HostToNetwork(0);
  EXPECT_FALSE(*a == *b);
  EXPECT_TRUE(*a != *b);
  a->HostToNetwork(0);
  EXPECT_TRUE(*a == *b);
}

}  // namespace
