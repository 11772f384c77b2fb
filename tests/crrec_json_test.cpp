// The tool's JSON form: lossless round trips through the library's
// builders, repairs by editing, and refusals that name the field.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "build.h"
#include "examine.h"
#include "json.h"
#include "load.h"
#include "crrec_support.h"
#include "sample.h"
#include "so_support.h"

namespace {

using crrec::Json;

crrec::Loaded Built(unsigned char dotype, unsigned char fptype) {
  static const std::vector<unsigned char> data = crtest::Noise(400000, 3);
  crrec::BuildOptions o;
  o.dotype = dotype;
  o.fptype = fptype;
  o.containerSize = 100000;
  o.time = 1600000000;
  o.chunking.kind = dotype <= 1 ? crrec::ChunkerKind::kFixed : crrec::ChunkerKind::kContentDefined;
  o.taskIds = {42};
  o.dsids = {5};
  crrec::MemorySource source(data.data(), data.size());
  crrec::Loaded loaded;
  loaded.name = "built";
  loaded.record = crrec::BuildRecord(source, "built", o).record;
  // A stored record carries references of kinds the builders do not add.
  const unsigned char hold[] = {9, 1, 0xab};
  loaded.record->AddSerializedTRefs(reinterpret_cast<const char*>(hold), sizeof hold);
  loaded.fileHeader = *loaded.record->GetHeader();
  return loaded;
}

crrec::Loaded FromJson(const std::string& text) {
  return crrec::LoadJson("r.json", reinterpret_cast<const unsigned char*>(text.data()),
                         text.size(), crrec::Hints());
}
crrec::Loaded FromJson(const Json& j) { return FromJson(j.dump(2)); }

std::string Refusal(const Json& j) {
  return crtest::ToolLine([&] { FromJson(j); });
}

TEST(CrrecJson, StoredToJsonAndBackGivesTheSameBytesForEveryType) {
  for (unsigned char dotype : {0, 1, 2, 3, 4, 5}) {
    for (unsigned char fptype : {1, 3}) {
      crrec::Loaded loaded = Built(dotype, fptype);
      for (bool network : {false, true}) {
        loaded.networkOrder = network;
        std::vector<unsigned char> stored = crrec::StoredBytes(*loaded.record, network);
        crrec::Loaded back = FromJson(crrec::ToJson(loaded));
        EXPECT_EQ(back.networkOrder, network);
        EXPECT_EQ(crrec::StoredBytes(*back.record, network), stored)
            << "DO type " << int(dotype) << " fingerprint type " << int(fptype);
      }
    }
  }
}

TEST(CrrecJson, SerializedToJsonAndBackGivesTheSameBytes) {
  for (unsigned char dotype : {1, 2, 3, 4, 5}) {
    for (bool checksum : {true, false}) {
      crrec::Loaded built = Built(dotype, 3);
      std::vector<unsigned char> serialized = crrec::SerializedBytes(*built.record, checksum, "b");
      crrec::Hints hints;
      hints.fptype = 3;
      crrec::Loaded loaded = crrec::Load("s", serialized, hints);
      Json j = crrec::ToJson(loaded);
      EXPECT_EQ(j["form"], dotype == 4 ? "serialized-bloom" : "serialized");
      EXPECT_EQ(j["checksum"], checksum || dotype == 4);
      crrec::Loaded back = FromJson(j);
      EXPECT_EQ(crrec::SerializedBytes(*back.record, back.serializedChecksum, "b"), serialized)
          << int(dotype) << " " << checksum;
    }
  }
}

TEST(CrrecJson, JsonCarriesEveryFieldAsWritten) {
  crrec::Loaded loaded = Built(CR_DO_TYPE_8_BYTE_OFFSET, CR_FP_TYPE_MD5);
  const DORecord& r = *loaded.record;
  Json j = crrec::ToJson(loaded);
  EXPECT_EQ(j["form"], "stored");
  EXPECT_EQ(j["byte_order"], "host");
  EXPECT_EQ(j["header"]["ctime"], 1600000000u);
  EXPECT_EQ(j["header"]["dotype"], 3u);
  EXPECT_EQ(j["segments"].size(), r.GetNfp());
  const Json& s1 = j["segments"][1];
  EXPECT_EQ(s1["fp"], crtest::Hex(r.GetSegmentFP(1), 16));
  EXPECT_EQ(s1["size"], r.GetSegmentSize(1));
  EXPECT_EQ(s1["offset"], r.GetSegmentSize(0));
  EXPECT_FALSE(s1.contains("object_offset"));
  // Kind 2 (task ID 42), kind 4 (DSID 5), kind 9 as given: mode-1 bytes.
  ASSERT_EQ(j["trefs"].size(), 3u);
  EXPECT_EQ(j["trefs"][0]["kind"], 2u);
  EXPECT_EQ(j["trefs"][0]["text"], "taskid:42");
  EXPECT_EQ(j["trefs"][0]["bytes"], "0208000000000000002a");
  EXPECT_EQ(j["trefs"][1]["bytes"], "040400000005");
  EXPECT_EQ(j["trefs"][2]["bytes"], "0901ab");
}

TEST(CrrecJson, EditedRecordIsRebuiltWithFreshChecksumsAndVerifies) {
  crrec::Loaded loaded = Built(CR_DO_TYPE_NO_OFFSET, CR_FP_TYPE_SHA256_16);
  Json j = crrec::ToJson(loaded);
  // Move every segment of container 64 to container 90, in the list of
  // segments and in the unique-DCID list alike.
  for (Json& s : j["segments"]) {
    if (s["dcid"] == 64u) s["dcid"] = 90u;
  }
  Json& entries = j["unique_dcids"];
  ASSERT_EQ(entries[0]["dcid"], 64u);
  Json moved = entries[0];
  moved["dcid"] = 90u;
  entries.erase(0);
  entries.push_back(moved);
  crrec::Loaded back = FromJson(j);
  std::ostringstream report;
  crrec::Verify(back, crrec::VerifyOptions(), report);
  EXPECT_NE(report.str().find("r.json: sound"), std::string::npos) << report.str();
  // The section holds the entries as edited, sealed by a new Adler-32.
  const unsigned char* section = back.record->GetSegmentUDCIDList();
  const uint32_t count = back.record->GetNudcid();
  uint32_t stored;
  std::memcpy(&stored, section, 4);
  EXPECT_EQ(stored, crtest::SlowAdler32(section + 4, 4 + 16 * count));
}

TEST(CrrecJson, EditThatBreaksTheRecordIsRefusedByTheLibrarysChecks) {
  crrec::Loaded loaded = Built(CR_DO_TYPE_NO_OFFSET, CR_FP_TYPE_MD5);
  Json j = crrec::ToJson(loaded);
  const uint64_t size = j["header"]["size"].get<uint64_t>();
  j["header"]["size"] = size + 1;
  const uint64_t sum = size;
  EXPECT_EQ(Refusal(j), "1 crrec: r.json: Segment list of DORecord CR_DO_TYPE_NO_OFFSET is "
                        "corrupt. Original file size:" + std::to_string(size + 1) +
                            ". Sum of segm. sizes:" + std::to_string(sum) + ". (status 89)");
  j = crrec::ToJson(loaded);
  j["segments"][0]["dcid"] = 12u;
  EXPECT_EQ(Refusal(j), "1 crrec: r.json: Got invalid dcid 12 at index 0 (status 9)");
}

TEST(CrrecJson, MistakesAreNamedByTheirField) {
  crrec::Loaded loaded = Built(CR_DO_TYPE_8_BYTE_OFFSET, CR_FP_TYPE_MD5);
  const Json good = crrec::ToJson(loaded);
  struct Case {
    std::function<void(Json&)> edit;
    std::string line;
  } cases[] = {
      {[](Json& j) { j["segments"][1]["fp"] = "abc"; },
       "crrec: r.json: segments[1].fp: expected 32 hex digits"},
      {[](Json& j) { j["segments"][0].erase("offset"); },
       "crrec: r.json: segments[0].offset: missing"},
      {[](Json& j) { j["segments"][0]["object_offset"] = 1; },
       "crrec: r.json: segments[0].object_offset: DO type 3 carries no object offset"},
      {[](Json& j) { j["header"]["nfpp"] = 1; }, "crrec: r.json: header.nfpp: unknown field"},
      {[](Json& j) { j["header"]["nfp"] = 1; },
       "crrec: r.json: header.nfp: 1, but the rebuilt record has " +
           std::to_string(loaded.record->GetNfp())},
      {[](Json& j) { j["header"]["flags"] = 8; },
       "crrec: r.json: header.flags: 0x0008 sets bits outside 0x0006"},
      {[](Json& j) { j["header"]["CRC"] = -1; },
       "crrec: r.json: header.CRC: expected a whole number from 0 to 4294967295"},
      {[](Json& j) { j["header"]["ctime"] = 1ull << 32; },
       "crrec: r.json: header.ctime: 4294967296 is larger than 4294967295"},
      {[](Json& j) { j["trefs"][0]["kind"] = 4; },
       "crrec: r.json: trefs[0].kind: 4, but its bytes hold a reference of kind 2"},
      {[](Json& j) { j["trefs"][0]["bytes"] = "02"; },
       "crrec: r.json: trefs[0].bytes: not exactly one typed reference"},
      {[](Json& j) { j["form"] = "stored-ish"; },
       "crrec: r.json: form: \"stored-ish\" is not one of stored, serialized, serialized-bloom, "
       "segment-db"},
      {[](Json& j) { j.erase("header"); }, "crrec: r.json: header: missing"},
  };
  for (const Case& c : cases) {
    Json j = good;
    c.edit(j);
    EXPECT_EQ(Refusal(j), "1 " + c.line);
  }
  EXPECT_EQ(crtest::ToolLine([] { FromJson(std::string("{\"f")); }),
            "1 crrec: r.json: not valid JSON: parse error at line 1, column 4: syntax error "
            "while parsing object key - invalid string: missing closing quote; last read: "
            "'\"f'; expected string literal");
}

// Every byte comes back, the reserved ones and the trailer included.
TEST(CrrecJson, SegmentDbRecordRoundTripsThroughJson) {
  crtest::SoRec r;
  r.fptype = 3;
  r.cryptoMode = 5;
  r.taskIDs = {42, 43};
  r.fps = {crtest::PatternFP(1, 32), crtest::PatternFP(2, 32)};
  const crtest::Bytes b = crtest::SoImage(r, false);
  crrec::Loaded loaded = crrec::Load("so", b.vec(), crrec::Hints());
  Json j = crrec::ToJson(loaded);
  EXPECT_EQ(j["taskids"], Json::array({42, 43}));
  EXPECT_EQ(j["keyIndex"], 0x0102u);
  crrec::Loaded back = FromJson(j);
  ASSERT_EQ(back.soLength, b.size());
  EXPECT_EQ(crtest::Hex(back.so(), back.soLength), crtest::Hex(b.data(), b.size()));
}

}  // namespace
