// The text and binary stream forms of a DO record, and record equality.
#include <gtest/gtest.h>

#include <memory>
#include <sstream>
#include <stdexcept>
#include <streambuf>
#include <string>
#include <vector>

#include "crrecord/DORecord.h"
#include "images.h"

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

std::unique_ptr<DORecord> Build(uint8_t dotype, uint32_t crc = 0xABCD, uint32_t ctime = 10,
                                uint32_t mtime = 20) {
  return crtest::BuildDO(dotype, 1, Segments(), crc, 0xABC, 10000, ctime, mtime);
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

// "[fp,size...],..." of Segments() for a DO type.
std::string Entries(uint8_t dotype) {
  std::string entries;
  for (const Seg& s : Segments()) {
    if (!entries.empty()) entries += ",";
    entries += "[" + crtest::Hex(s.fp.data(), s.fp.size());
    if (dotype == 2 || dotype == 3 || dotype == 5) entries += "," + to_string(s.size);
    if (dotype == 3) entries += "," + to_string(s.offset);
    if (dotype == 5) entries += "," + to_string(s.objectOffset);
    entries += "]";
  }
  return "[" + entries + "[64," + to_string(kBigDCID) + ",64]],";
}

TEST(DORecordText, EachDOTypeWritesItsEntriesAndReferences) {
  for (uint8_t dotype : {0, 1, 2, 3, 5}) {
    SCOPED_TRACE("dotype " + to_string(dotype));
    EXPECT_EQ(Form(*Build(dotype), false), Head(20, dotype, 3) + Entries(dotype) + "[]");
  }
  // The list is written through a 16 KiB line buffer: a long one crosses
  // several flushes, and not a byte may be lost or added at them.
  std::vector<Seg> many;
  std::string entries, dcids;
  for (uint32_t i = 0; i < 1000; ++i) {
    many.push_back({crtest::PatternFP(static_cast<uint8_t>(i), 16), 10, 0, 0, 64 + i});
    entries += (i != 0 ? ",[" : "[") + crtest::Hex(many[i].fp.data(), 16) + ",10]";
    dcids += (i != 0 ? "," : "") + to_string(64 + i);
  }
  EXPECT_EQ(Form(*crtest::BuildDO(2, 1, many, 0xABCD, 0xABC, 10000), false),
            Head(20, 2, 1000) + "[" + entries + "[" + dcids + "]],[]");
  auto bloom = crtest::BuildBloom(crtest::PatternBitmap(3), {}, 1, 0xABCD, 0xABC);
  EXPECT_EQ(Form(*bloom, false), Head(20, 4, 0) + "[[]],[]");
  // A stream set to hex writes every number in hex.
  const std::vector<Seg> segs = Segments();
  std::ostringstream hex;
  hex << std::hex;
  Build(2)->ToStream(hex, false);
  EXPECT_EQ(hex.str(), "3,1,2,abc,2710,1000,abcd,a,14,1,2,3,[[" +
                         crtest::Hex(segs[0].fp.data(), 16) + ",1000],[" +
                         crtest::Hex(segs[1].fp.data(), 16) + ",1000],[" +
                         crtest::Hex(segs[2].fp.data(), 16) + ",710][40,123456789,40]],[]");

  // References in kind order without kind 0; in network order nothing is written.
  auto record = Build(1);
  LoadSection(*record, {6, 2, 0xBE, 0xEF, 0, 1, 0xAB});
  record->AddDSID(7u);
  record->AddTaskID(42ul);
  record->AddTaskID(5ul);
  EXPECT_EQ(Form(*record, false), Head(record->GetMTime(), 1, 3) + Entries(1) +
                                      "[taskid:5,taskid:42,dsid:7,tref6:beef]");
  record->HostToNetwork(0);
  std::ostringstream os;
  EXPECT_EQ(crtest::Thrown([&] { record->ToStream(os, false); }),
            crtest::Failure(CR_STATUS_INVALID, "cannot write DO record to stream in text form "
                                               "because it is in network order"));
  EXPECT_EQ(os.str(), "");
  // A fingerprint type without a text form (stored unchecked) leaves each text empty.
  auto noText = crtest::SmallRecord();
  noText->SetFPType(9);
  std::ostringstream empty;
  noText->ToStream(empty, false);
  const std::string text = empty.str();
  EXPECT_EQ(text.substr(text.rfind(",9,")), ",9,2,2,[[,300],[,700][64,65]],[]");
}

// A stream buffer whose every write fails by throwing.
class ThrowingBuf : public std::streambuf {
 protected:
  int_type overflow(int_type) override { throw std::runtime_error("device gone"); }
  std::streamsize xsputn(const char*, std::streamsize) override {
    throw std::runtime_error("device gone");
  }
};

TEST(DORecordBinary, FreshReferenceSectionKindZeroIncludedByteOrderKeptOnThrow) {
  auto record = Build(2);
  LoadSection(*record, {0, 1, 0xAB});
  record->AddTaskID(42ul);
  crtest::Bytes trefs;
  trefs.u8(0).u8(1).u8(0xAB).u8(2).u8(8).be64(42);
  const std::vector<uint8_t> image =
      crtest::HostRecord(2, 1, Segments(), {2, 0xABC, 0xABCD, 10, record->GetMTime()}, trefs);
  const std::string expected = crtest::Hex(image.data(), image.size());
  std::string form = Form(*record, true);
  EXPECT_EQ(crtest::Hex(form.data(), form.size()), expected);

  // In network order: host-order bytes out, network order kept.
  record->HostToNetwork(0);
  form = Form(*record, true);
  EXPECT_EQ(crtest::Hex(form.data(), form.size()), expected);
  EXPECT_TRUE(record->IsInNetworkOrder());
  EXPECT_EQ(record->GetHeader()->type, 0x0300);
  // A stream that throws leaves the record in network order, its bytes as they were.
  const auto raw = [&] { return crtest::Hex(record->GetHeader(), record->GetHeaderSize()); };
  const std::string before = raw();
  ThrowingBuf buf;
  std::ostream os(&buf);
  os.exceptions(std::ios::badbit);
  EXPECT_THROW(record->ToStream(os, true), std::runtime_error);
  EXPECT_TRUE(record->IsInNetworkOrder());
  EXPECT_EQ(raw(), before);
}

// Equality looks at the identity (CRC, fingerprints), the reference sets and
// the byte order; times, check time and containers do not count.
TEST(DORecordEquality, OnlyTheIdentityReferencesAndByteOrderCount) {
  enum Change { kNone, kTimes, kCRC, kFP, kOneNet, kBothNet };
  struct Row {
    Change change;
    std::vector<uint8_t> a, b;  // reference sections loaded into each
    bool equal;
  };
  const Row rows[] = {
      {kTimes, {}, {}, true},  // times, check time and containers do not count
      {kCRC, {}, {}, false},
      {kFP, {}, {}, false},
      {kNone, {3, 1, 0xA1}, {3, 1, 0xA1, 3, 1, 0xA2}, false},
      {kNone, {3, 1, 0xA1, 3, 1, 0xA2}, {3, 1, 0xA1, 3, 1, 0xA2}, true},
      {kNone, {3, 1, 0xA1, 3, 1, 0xA2}, {3, 1, 0xA1, 3, 1, 0xA3}, false},
      {kNone, {0, 1, 0xA1}, {0, 1, 0xA2}, false},
      {kOneNet, {}, {}, false},
      {kBothNet, {}, {}, true},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(testing::Message() << row.change << " " << row.a.size() << " " << row.b.size());
    auto a = Build(3), b = Build(3);
    LoadSection(*a, row.a);
    LoadSection(*b, row.b);
    if (row.change == kTimes) {
      b->GetHeader()->ctime = 11;
      b->SetCheckTime(99);
      b->SetSegmentDCID(1, 4096);
    }
    if (row.change == kCRC) b->GetHeader()->CRC = 0xABCE;
    // Byte 5 of the second fingerprint: entries of 28 bytes behind the header.
    if (row.change == kFP) reinterpret_cast<unsigned char*>(b->GetHeader())[80 + 28 + 5] ^= 1;
    if (row.change >= kOneNet) b->HostToNetwork(0);
    if (row.change == kBothNet) a->HostToNetwork(0);
    EXPECT_EQ(*a == *b, row.equal);
    EXPECT_EQ(*b == *a, row.equal);
    EXPECT_EQ(*a != *b, !row.equal);
  }
}

}  // namespace
