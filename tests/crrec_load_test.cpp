// The tool's recognition of what a file holds, and opening each form; the
// byte images are written here by hand.
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "build.h"
#include "examine.h"
#include "json.h"
#include "load.h"
#include "crrec_support.h"
#include "sample.h"
#include "images.h"

namespace {

using crrec::Form;
using crrec::Hints;
using crrec::Recognition;

Recognition Recognise(const crtest::Bytes& b, const Hints& hints = Hints()) {
  return crrec::Recognise(b.data(), b.size(), hints, "f");
}

// The line a refusal prints.
std::string Refusal(const crtest::Bytes& b, const Hints& hints = Hints()) {
  return crtest::ToolLine([&] { crrec::Load("f", b.vec(), hints); });
}

// The segment DB record the tool tests open: one task ID, fingerprints of
// the given type.
crtest::Bytes SoRecord(uint8_t fptype) {
  crtest::SoRec r;
  r.flags = 0;
  r.fptype = fptype;
  r.taskIDs = {42};
  r.fps = {crtest::PatternFP(1, crtest::SoWidth(fptype))};
  return crtest::SoImage(r, false);
}

// A serialized DO record's head: size, ssize, checksum, nfp, zero word.
crtest::Bytes Head(uint64_t size, uint64_t ssize, uint32_t checksum, uint32_t nfp) {
  crtest::Bytes b;
  b.be64(size).be64(ssize).be32(checksum).be32(nfp).be32(0);
  return b;
}

crtest::Bytes SerializedOfEntryWidth(uint32_t nfp, size_t entry) {
  crtest::Bytes b = Head(0, 0, 0, nfp);
  b.zeros(1 + nfp * entry);
  return b;
}

TEST(CrrecRecognise, TypeWordTellsStoredAndSegmentDbRecordsAndTheirByteOrder) {
  for (uint16_t type : {2, 3}) {
    for (bool big : {false, true}) {
      crtest::Bytes b;
      (big ? b.be16(type) : b.le16(type)).zeros(10);
      EXPECT_EQ(Recognise(b).form, type == 3 ? Form::kStored : Form::kSegmentDb) << type;
      EXPECT_EQ(Recognise(b).networkOrder, big) << type;
    }
  }
  EXPECT_EQ(Recognise(crtest::Bytes().str(" \n {\"form\": \"stored\"}")).form, Form::kJson);
}

TEST(CrrecRecognise, SerializedEntryWidthTellsTheTypesUpToTheSharedLayouts) {
  const std::string dotypes = "DO types 0 and 1 fit; assumed 1 (say --dotype)";
  const std::string fptypes = "fingerprint types 1 and 2 fit; assumed 2 (say --fptype)";
  struct Case {
    size_t entry;
    unsigned dotype, fptype;
    std::vector<std::string> notes;
  } cases[] = {{41, 1, 2, {dotypes, fptypes}}, {73, 1, 3, {dotypes}}, {45, 2, 2, {fptypes}},
               {77, 2, 3, {}}, {53, 3, 2, {fptypes}}, {85, 3, 3, {}}, {49, 5, 2, {fptypes}},
               {81, 5, 3, {}}};
  for (const Case& c : cases) {
    Recognition r = Recognise(SerializedOfEntryWidth(3, c.entry));
    EXPECT_EQ(r.form, Form::kSerialized) << c.entry;
    EXPECT_EQ(std::make_tuple(r.dotype, r.fptype, r.notes),
              std::make_tuple(c.dotype, c.fptype, c.notes)) << c.entry;
  }
}

TEST(CrrecRecognise, HintsSettleWhatTheLengthCannot) {
  Hints hints;
  hints.dotype = 0;
  hints.fptype = 1;
  Recognition r = Recognise(SerializedOfEntryWidth(2, 41), hints);
  EXPECT_EQ(r.dotype, 0u);
  EXPECT_EQ(r.fptype, 1u);
  EXPECT_TRUE(r.notes.empty());
  // A record without segments fits every DO type.
  r = Recognise(SerializedOfEntryWidth(0, 0));
  EXPECT_EQ(r.form, Form::kSerialized);
  EXPECT_EQ(r.notes.front(), "DO types 0, 1, 2, 3 and 5 fit; assumed 1 (say --dotype)");
}

TEST(CrrecRecognise, BloomFormIsRecognisedFromItsLengthAndHead) {
  crtest::Bytes b = Head(4096, 4096, 0, 0);
  b.be32(5).zeros(5).be32(0).be32(2).zeros(32).zeros(16);  // 56 + 5 + 2 * 16
  Recognition r = Recognise(b);
  EXPECT_EQ(r.form, Form::kSerializedBloom);
  EXPECT_EQ(r.dotype, CR_DO_TYPE_BLOOM_FILTER);
  EXPECT_EQ(r.fptype, 2u);
  EXPECT_EQ(r.notes, (std::vector<std::string>{
                         "the Bloom form carries no fingerprint type; assumed 2 (say --fptype)"}));
}

TEST(CrrecRecognise, WhatFitsNoFormIsRefusedWithTheSizesExpected) {
  EXPECT_EQ(Refusal(crtest::Bytes()), "1 crrec: f: empty file");
  EXPECT_EQ(Refusal(crtest::Bytes().zeros(20)),
            "1 crrec: f: 20 bytes: too short for any record form (a serialized DO record has "
            "at least 29)");
  EXPECT_EQ(Refusal(SerializedOfEntryWidth(2, 50)),
            "1 crrec: f: 129 bytes do not fit a serialized DO record with 2 segments (29 + 2 x "
            "41, 45, 49, 53, 73, 77, 81 or 85 bytes by type)");
  Hints hints;
  hints.fptype = 3;
  EXPECT_EQ(Refusal(SerializedOfEntryWidth(2, 53), hints),
            "1 crrec: f: 135 bytes do not fit a serialized DO record of fingerprint type 3 with "
            "2 segments (29 + 2 x 41, 45, 49, 53, 73, 77, 81 or 85 bytes by type)");
}

// A stream is read no further than its first bytes allow: each row's bound
// is computed here from the layout, not by the code under test.
TEST(CrrecRecognise, FirstBytesBoundTheLengthOfAStream) {
  const uint64_t unknown = crrec::kMaxInput;
  struct Case {
    crtest::Bytes bytes;
    uint64_t most;
  } cases[] = {
      {crtest::Bytes().le16(3).le16(2).le32(1004), 1004},           // stored, host order
      {crtest::Bytes().be16(3).be16(2).be32(1004), 1004},           // stored, network order
      {crtest::Bytes().le16(2).le16(0).le32(120), 120},             // segment DB record
      {crtest::Bytes().str(" {\"form\""), crrec::kMaxJsonInput + 3},  // JSON
      {Head(0, 0, 0, 2), 29 + 2 * 85},                              // widest entry
      {Head(0, 0, 0, 0).be32(5).zeros(5).be32(0).be32(2), 56 + 5 + 2 * 16},  // Bloom
      {Head(0, 0, 0, 0).be32(5), unknown},                          // Bloom count unread
      {crtest::Bytes().be64(0).be64(0).be32(0).be32(0).be32(1), 28},  // no zero word
      {crtest::Bytes().zeros(7), unknown},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(crrec::LengthBound(c.bytes.data(), c.bytes.size(), Hints()), c.most)
        << crtest::Hex(c.bytes.data(), c.bytes.size());
  }
}

TEST(CrrecLoad, SerializedRecordWrittenByHandOpens) {
  // DO type 2, one segment of 1000 bytes in container 70.
  const std::string fp = "000102030405060708090a0b0c0d0e0f";
  crtest::Bytes body;
  body.str(fp).u8(0).be32(1000).u8(0).be64(70);
  crtest::Bytes b = Head(1000, 4096, crtest::SlowAdler32(body.data(), body.size()), 1);
  b.raw(body.data(), body.size());
  Hints hints;
  hints.fptype = 1;
  hints.cid = 99;
  crrec::Loaded loaded = crrec::Load("f", b.vec(), hints);
  ASSERT_TRUE(loaded.IsDO());
  EXPECT_EQ(loaded.form, Form::kSerialized);
  EXPECT_TRUE(loaded.serializedChecksum);
  const DORecord& r = *loaded.record;
  EXPECT_EQ(r.GetDOType(), CR_DO_TYPE_NO_OFFSET);
  EXPECT_EQ(r.GetFPType(), CR_FP_TYPE_MD5);
  EXPECT_EQ(r.GetDCID(), 99u);
  EXPECT_EQ(r.GetSize(), 1000u);
  EXPECT_EQ(r.GetSegmentSize(0), 1000u);
  EXPECT_EQ(r.GetSegmentDCID(0), 70u);
  EXPECT_EQ(crtest::Hex(r.GetSegmentFP(0), 16), fp);
}

TEST(CrrecLoad, StoredRecordInNetworkOrderOpensInHostOrder) {
  // One DO type 1 segment, no unique-DCID list, written big-endian.
  crtest::Bytes b;
  b.be16(3).be16(2).be32(80 + 24).be32(0).be32(5).be64(64).be64(100).be64(4096)
      .be32(0x01020304).be32(11).be32(12).be32(0).be32(1).be32(0).be32(0).be32(0).be32(0)
      .u8(1).u8(1).zeros(2).raw(crtest::PatternFP(0x10, 16).data(), 16).le64(65);
  crrec::Loaded loaded = crrec::Load("f", b.vec(), Hints());
  ASSERT_TRUE(loaded.IsDO());
  EXPECT_TRUE(loaded.networkOrder);
  EXPECT_EQ(loaded.fileHeader.checktime, 5u);
  EXPECT_EQ(loaded.fileHeader.CRC, 0x01020304u);
  EXPECT_EQ(loaded.record->GetSize(), 100u);
  EXPECT_EQ(loaded.record->GetSegmentDCID(0), 65u);
  // Written back in network order it is the same bytes.
  EXPECT_EQ(crrec::StoredBytes(*loaded.record, true), b.vec());
}

TEST(CrrecLoad, DamagedStoredRecordIsRefusedWithTheLibrarysReason) {
  crtest::Bytes b;
  b.le16(3).le16(2).le32(80 + 24).le32(0).le32(0).le64(64).le64(100).le64(4096)
      .le32(0).le32(1).le32(1).le32(0).le32(1).le32(0).le32(0).le32(0).le32(0)
      .u8(1).u8(1).zeros(2).raw(crtest::PatternFP(0x10, 16).data(), 16).le64(65);
  EXPECT_EQ(Refusal(b), "done");
  EXPECT_EQ(Refusal(crtest::Bytes().raw(b.data(), b.size() - 1)),
            "1 crrec: f: Invalid DO record: recsize 104, size 103 (status 32)");
}

TEST(CrrecLoad, SegmentDbRecordIsValidatedAndOpened) {
  const crtest::Bytes b = SoRecord(1);
  crrec::Loaded loaded = crrec::Load("f", b.vec(), Hints());
  EXPECT_FALSE(loaded.IsDO());
  EXPECT_EQ(loaded.so()->DCID, 1000u);
  EXPECT_EQ(loaded.so()->ntaskid, 1u);
  EXPECT_EQ(Refusal(crtest::Bytes(b).zeros(8)),
            "1 crrec: f: Invalid SO record: recsize 128, size 136 (status 32)");
}

}  // namespace

namespace crrec_mutation {

// Opens, verifies, shows and writes as JSON whatever the bytes are: each
// step either works or throws ToolError; under the sanitizers any read out
// of bounds or leak fails the test.
void Exercise(const std::vector<unsigned char>& bytes, const crrec::Hints& hints) {
  try {
    crrec::Loaded loaded = crrec::Load("m", bytes, hints);
    std::ostringstream sink;
    crrec::Show(loaded, crrec::ShowOptions(), sink);
    crrec::ToJson(loaded).dump();
    crrec::Verify(loaded, crrec::VerifyOptions(), sink);
  } catch (const crrec::ToolError& e) {
    EXPECT_EQ(e.Line().rfind("crrec: m: ", 0), 0u) << e.Line();
    EXPECT_EQ(e.Line().find('\n'), std::string::npos) << e.Line();
  }
}

TEST(CrrecRobustness, EveryDamagedByteOfEachFormIsOpenedOrRefusedInOneLine) {
  std::vector<unsigned char> data(60000);
  crrec::SampleSource(9, data.size()).Read(data.data(), data.size());
  crrec::BuildOptions o;
  o.chunking.minSize = 2048;
  o.chunking.avgSize = 8192;
  o.chunking.maxSize = 16384;
  o.taskIds = {1};
  crrec::MemorySource source(data.data(), data.size());
  crrec::Built built = crrec::BuildRecord(source, "b", o);
  crrec::Loaded stored;
  stored.name = "b";
  stored.record = std::move(built.record);
  const std::string json = crrec::ToJson(stored).dump();
  o.dotype = CR_DO_TYPE_BLOOM_FILTER;
  crrec::MemorySource again(data.data(), data.size());
  crrec::Built bloom = crrec::BuildRecord(again, "b", o);
  const std::vector<std::vector<unsigned char>> forms = {
      SoRecord(3).vec(),
      crrec::StoredBytes(*stored.record, false), crrec::StoredBytes(*stored.record, true),
      crrec::SerializedBytes(*stored.record, true, "b"),
      crrec::SerializedBytes(*bloom.record, true, "b"), crrec::StoredBytes(*bloom.record, false),
      std::vector<unsigned char>(json.begin(), json.end())};
  for (const auto& form : forms) {
    for (size_t at = 0; at < form.size(); at += (at < 200 ? 1 : 7)) {
      for (unsigned char x : {0x01, 0x80, 0xff}) {
        std::vector<unsigned char> damaged(form);
        damaged[at] ^= x;
        Exercise(damaged, crrec::Hints());
      }
      Exercise(std::vector<unsigned char>(form.begin(), form.begin() + at), crrec::Hints());
    }
  }
}

}  // namespace crrec_mutation
