// The text and binary stream forms of a DO record, and record equality.
#include <gtest/gtest.h>

#include <memory>
#include <sstream>
#include <stdexcept>
#include <streambuf>
#include <string>
#include <vector>

#include "crrecord/DORecord.h"
#include "serialized_form.h"
#include "test_support.h"

namespace {

using crtest::Seg;
using std::to_string;

constexpr unsigned long kBigDCID = 0x123456789;

// Three segments of a 10000-byte file; the second lies in a container whose
// number needs more than 32 bits.
std::vector<Seg> Segments() {
  std::vector<Seg> segs = crtest::ThreeSegments(1);
  segs[1].dcid = kBigDCID;
  return segs;
}

std::unique_ptr<DORecord> Build(unsigned char dotype, unsigned int crc = 0xABCD,
                                unsigned int ctime = 10, unsigned int mtime = 20) {
  const std::vector<Seg> segs = Segments();
  crtest::Bytes list = crtest::SegmentList(dotype, segs);
  const unsigned long dcids[] = {segs[0].dcid, segs[1].dcid, segs[2].dcid};
  return std::make_unique<DORecord>(0xABC, 10000, 4096, crc, ctime, mtime, list.data(), 3, dcids,
                                    nullptr, 1, dotype);
}

std::string Form(const DORecord& record, bool binary) {
  std::ostringstream os;
  record.ToStream(os, binary);
  return os.str();
}

void LoadSection(DORecord& record, std::vector<uint8_t> section) {
  record.AddSerializedTRefs(reinterpret_cast<const char*>(section.data()),
                            static_cast<unsigned int>(section.size()));
}

std::string Head(unsigned int mtime, unsigned int dotype, unsigned int nfp) {
  return "3,1,2,2748,10000,4096,43981,10," + to_string(mtime) + ",1," + to_string(dotype) + "," +
         to_string(nfp) + ",";
}

TEST(DORecordText, EachDOTypeWritesItsEntries) {
  for (unsigned char dotype : {0, 1, 2, 3, 5}) {
    SCOPED_TRACE("dotype " + to_string(dotype));
    std::string entries;
    for (const Seg& s : Segments()) {
      if (!entries.empty()) entries += ",";
      entries += "[" + crtest::Hex(s.fp.data(), s.fp.size());
      if (dotype == 2 || dotype == 3 || dotype == 5) entries += "," + to_string(s.size);
      if (dotype == 3) entries += "," + to_string(s.offset);
      if (dotype == 5) entries += "," + to_string(s.objectOffset);
      entries += "]";
    }
    EXPECT_EQ(Form(*Build(dotype), false),
              Head(20, dotype, 3) + "[" + entries + "[64," + to_string(kBigDCID) + ",64]],[]");
  }
  const std::vector<uint8_t> bitmap = crtest::PatternBitmap(3);
  DORecord bloom(0xABC, 10000, 4096, 0xABCD, 10, 20, 3, bitmap.data(), nullptr, 1, 4);
  EXPECT_EQ(Form(bloom, false), Head(20, 4, 0) + "[[]],[]");
}

TEST(DORecordText, NumbersFollowTheStreamsFormatting) {
  const std::vector<Seg> segs = Segments();
  std::ostringstream os;
  os << std::hex;
  Build(2)->ToStream(os, false);
  EXPECT_EQ(os.str(), "3,1,2,abc,2710,1000,abcd,a,14,1,2,3,[[" +
                          crtest::Hex(segs[0].fp.data(), 16) + ",1000],[" +
                          crtest::Hex(segs[1].fp.data(), 16) + ",1000],[" +
                          crtest::Hex(segs[2].fp.data(), 16) + ",710][40,123456789,40]],[]");
}

TEST(DORecordText, ReferencesInKindOrderWithoutKindZero) {
  const std::vector<Seg> segs = Segments();
  const std::string kDO1Entries = "[[" + crtest::Hex(segs[0].fp.data(), 16) + "],[" +
                                  crtest::Hex(segs[1].fp.data(), 16) + "],[" +
                                  crtest::Hex(segs[2].fp.data(), 16) + "][64,4886718345,64]],";
  auto record = Build(1);
  const unsigned char payload[] = {0xBE, 0xEF};
  _cr_tref_t* retention = CRTRefNew(CR_TREF_TYPE_RETENTION, payload, sizeof payload);
  record->AddTRef(*retention);
  CRTRefDelete(&retention);
  record->AddDSID(7u);
  record->AddTaskID(42ul);
  record->AddTaskID(5ul);
  LoadSection(*record, {0, 1, 0xAB});
  EXPECT_EQ(Form(*record, false), Head(record->GetMTime(), 1, 3) + kDO1Entries +
                                      "[taskid:5,taskid:42,dsid:7,tref6:beef]");

  auto kindZeroOnly = Build(1);
  LoadSection(*kindZeroOnly, {0, 1, 0xAB});
  EXPECT_EQ(Form(*kindZeroOnly, false), Head(kindZeroOnly->GetMTime(), 1, 3) + kDO1Entries + "[]");
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

// The stored image of Build(2) with the typed-reference section `trefs`.
std::string Image(unsigned int mtime, const crtest::Bytes& trefs) {
  const uint32_t trefsize = static_cast<uint32_t>(trefs.size());
  crtest::Bytes b;
  b.le16(3).le16(2).le32(80 + 3 * (16 + 4 + 8) + trefsize).le32(0).le32(0);
  b.le64(0xABC).le64(10000).le64(4096).le32(0xABCD).le32(10).le32(mtime);
  b.le32(0).le32(3).le32(0).le32(0).le32(trefsize).le32(0).u8(1).u8(2).zeros(2);
  for (const Seg& s : Segments()) b.raw(s.fp.data(), 16).le32(s.size);
  for (const Seg& s : Segments()) b.le64(s.dcid);
  b.raw(trefs.data(), trefs.size());
  return crtest::Hex(b.data(), b.size());
}

std::string Hex(const std::string& s) { return crtest::Hex(s.data(), s.size()); }

TEST(DORecordBinary, WritesTheRecordWithAFreshReferenceSectionKindZeroIncluded) {
  auto record = Build(2);
  LoadSection(*record, {0, 1, 0xAB});
  record->AddTaskID(42ul);
  crtest::Bytes trefs;
  trefs.u8(0).u8(1).u8(0xAB).u8(2).u8(8).be64(42);
  EXPECT_EQ(Hex(Form(*record, true)), Image(record->GetMTime(), trefs));

  // In network order: host-order bytes out, network order kept.
  record->HostToNetwork(0);
  EXPECT_EQ(Hex(Form(*record, true)), Image(record->GetMTime(), trefs));
  EXPECT_TRUE(record->IsInNetworkOrder());
  EXPECT_EQ(record->GetHeader()->type, 0x0300);
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
  const auto raw = [&] { return crtest::Hex(record->GetHeader(), record->GetHeaderSize()); };
  const std::string before = raw();
  ThrowingBuf buf;
  std::ostream os(&buf);
  os.exceptions(std::ios::badbit);
  EXPECT_THROW(record->ToStream(os, true), std::runtime_error);
  EXPECT_TRUE(record->IsInNetworkOrder());
  EXPECT_EQ(raw(), before);
}

TEST(DORecordEquality, OnlyTheIdentityCounts) {
  auto a = Build(3);
  auto b = Build(3, 0xABCD, /*ctime=*/11, /*mtime=*/21);
  b->setCheckTime(99);
  b->SetSegmentDCID(1, 4096);
  EXPECT_TRUE(*a == *b);
  EXPECT_FALSE(*a != *b);

  EXPECT_TRUE(*a != *Build(3, 0xABCE));
  // Byte 5 of the second fingerprint: entries of 28 bytes behind the header.
  reinterpret_cast<unsigned char*>(b->GetHeader())[80 + 28 + 5] ^= 1;
  EXPECT_FALSE(*a == *b);
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

  LoadSection(*a, {3, 1, 0xA1, 3, 1, 0xA2});
  LoadSection(*b, {3, 1, 0xA1, 3, 1, 0xA3});
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
