// The tool's JSON form: lossless round trips through the library's
// builders, repairs by editing, and refusals that name the field.
#include <gtest/gtest.h>

#include <sys/mman.h>

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
#include "images.h"

namespace {

using crrec::Json;

crrec::Loaded Built(unsigned char dotype, unsigned char fptype, bool refs = true) {
  static const std::vector<unsigned char> data = crtest::Noise(400000, 3);
  crrec::BuildOptions o;
  o.dotype = dotype;
  o.fptype = fptype;
  o.containerSize = 100000;
  o.time = 1600000000;
  o.chunking.kind = dotype <= 1 ? crrec::ChunkerKind::kFixed : crrec::ChunkerKind::kContentDefined;
  if (refs) {
    o.taskIds = {42};
    o.dsids = {5};
  }
  crrec::MemorySource source(data.data(), data.size());
  crrec::Loaded loaded;
  loaded.name = "built";
  loaded.record = crrec::BuildRecord(source, "built", o).record;
  // A stored record carries references of kinds the builders do not add.
  const unsigned char hold[] = {9, 1, 0xab};
  if (refs) loaded.record->AddSerializedTRefs(reinterpret_cast<const char*>(hold), sizeof hold);
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
      {[](Json& j) { j["header"] = Json::array(); }, "crrec: r.json: header: expected an object"},
      {[](Json& j) { j["segments"] = Json::object(); },
       "crrec: r.json: segments: expected an array"},
      {[](Json& j) { j["segments"][2] = 7; }, "crrec: r.json: segments[2]: expected an object"},
      {[](Json& j) { j["header"]["CRC"] = Json::array({Json::object()}); },
       "crrec: r.json: header.CRC: expected a whole number from 0 to 4294967295"},
      {[](Json& j) { j["unique_dcids"][1]["bytes"] = "7"; },
       "crrec: r.json: unique_dcids[1].bytes: expected a whole number from 0 to "
       "18446744073709551615"},
      {[](Json& j) { j["segments"][0]["fp"] = Json::object({{"a", 1}}); },
       "crrec: r.json: segments[0].fp: expected 32 hex digits"},
      {[](Json& j) { j["old_taskids"] = Json::array({1}); },
       "crrec: r.json: trefs: a record with old task-ID or DSID lists has no typed references"},
      {[](Json& j) { j["unique_dcids_byte_order"] = "big"; },
       "crrec: r.json: unique_dcids_byte_order: only a stored Bloom DO record (DO type 4) keeps "
       "it big-endian"},
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

std::string Repeat(const std::string& s, size_t n) {
  std::string out;
  out.reserve(s.size() * n);
  for (size_t i = 0; i < n; ++i) out += s;
  return out;
}

// An object of n members "k0": 0, "k1": 0, ...
std::string ManyMembers(size_t n) {
  std::string out = "{";
  for (size_t i = 0; i < n; ++i) out += (i ? ",\"k" : "\"k") + std::to_string(i) + "\":0";
  return out + "}";
}

// Whatever the text, reading it ends in a named refusal: no recursion, no
// DOM of the document, no time beyond linear. The largest cases would take
// minutes with per-member insertion in order, and crash with recursion.
TEST(CrrecJson, HostileTextIsRefusedByName) {
  const std::string good = crrec::ToJson(Built(CR_DO_TYPE_8_BYTE_OFFSET, CR_FP_TYPE_MD5)).dump();
  const std::string seg3 = Json::parse(good)["segments"][3].dump();
  std::string twice = good;
  twice.replace(twice.find(seg3), seg3.size(),
                seg3.substr(0, seg3.size() - 1) + ",\"dcid\":64}");
  const std::string deep = Repeat("[", 100000) + Repeat("]", 100000);
  struct Case {
    std::string text, line;
  } cases[] = {
      {"{\"header\":" + deep + ",\"form\":\"stored\"}",
       "header: nested deeper than 8 levels"},
      {"{\"segments\":[{\"fp\":" + deep + "}]}", "segments[0].fp: nested deeper than 8 levels"},
      {"{\"header\":{\"flags\":" + Repeat("{\"a\":", 100000) + "0" + Repeat("}", 100000) + "}}",
       "header.flags: nested deeper than 8 levels"},
      {"{\"form\":\"stored\",\"header\":{\"flags\":" + ManyMembers(200000) + "}}",
       "header.flags: expected a whole number from 0 to 65535"},
      {"{\"form\":\"stored\",\"header\":{\"flags\":" + ManyMembers(800000) + "}}",
       "header.flags: expected a whole number from 0 to 65535"},
      {"{\"header\":" + ManyMembers(800000) + "}", "header.k0: unknown field"},
      {twice, "segments[3]: duplicate field \"dcid\""},
      {"{\"form\":\"stored\",\"form\":\"stored\"}", "duplicate field \"form\""},
      {"{\"header\":{\"flags\":2,\"flags\":2}}", "header: duplicate field \"flags\""},
      {"{\"segments\":[{\"fp\":\"00\",\"dkid\":1}]}", "segments[0].dkid: unknown field"},
      {"[1]", "expected a JSON object"},
      {"{\"form\":\"stored\"} x",
       "not valid JSON: parse error at line 1, column 19: syntax error while parsing value - "
       "invalid literal; last read: '\"stored\"} x'; expected end of input"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(crtest::ToolLine([&] { FromJson(c.text); }), "1 crrec: r.json: " + c.line)
        << c.text.substr(0, 60);
  }
  // A byte-order mark is skipped, by recognition too.
  const std::vector<unsigned char> bytes = crrec::StoredBytes(*FromJson(good).record, false);
  const std::string marked = "\xEF\xBB\xBF" + good;
  EXPECT_EQ(crrec::StoredBytes(
                *crrec::Load("r.json", std::vector<unsigned char>(marked.begin(), marked.end()),
                             crrec::Hints()).record, false),
            bytes);
  // A text over the limit is refused before a byte of it is read: the pages
  // are mapped but never touched.
  const size_t over = crrec::kMaxJsonInput + 1;
  void* pages = mmap(nullptr, over, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  ASSERT_NE(pages, MAP_FAILED);
  EXPECT_EQ(crtest::ToolLine([&] {
              crrec::LoadJson("r.json", static_cast<unsigned char*>(pages), over, crrec::Hints());
            }),
            "1 crrec: r.json: JSON input larger than 268435456 bytes (256.0 MiB)");
  munmap(pages, over);
}

// A stored record with old task-ID and DSID lists (the layout puts them
// behind the header, task IDs first), or a Bloom record whose unique-DCID
// list stands big-endian, as the serialized Bloom form left it.
std::vector<unsigned char> Unusual(unsigned char dotype, bool oldLists, bool bigList) {
  crrec::Loaded built = Built(dotype, CR_FP_TYPE_SHA256, false);
  std::vector<unsigned char> plain = crrec::StoredBytes(*built.record, false);
  if (bigList) {
    std::vector<unsigned char> form = crrec::SerializedBytes(*built.record, true, "b");
    DORecord raw(dotype, 2, 77, CR_FP_TYPE_SHA256, nullptr, 0, form.data(), form.size(), false);
    plain = crrec::StoredBytes(raw, false);
  }
  if (!oldLists) return plain;
  // Out of order and repeated: the lists are kept as the file has them.
  const uint64_t taskids[] = {42, 7, 42};
  const uint32_t dsid = 5;
  std::vector<unsigned char> out(plain.begin(), plain.begin() + 80);
  out.insert(out.end(), reinterpret_cast<const unsigned char*>(taskids),
             reinterpret_cast<const unsigned char*>(taskids) + sizeof taskids);
  out.insert(out.end(), reinterpret_cast<const unsigned char*>(&dsid),
             reinterpret_cast<const unsigned char*>(&dsid) + 4);
  out.insert(out.end(), plain.begin() + 80, plain.end());
  const uint32_t recsize = static_cast<uint32_t>(out.size()), ntaskid = 3, nds = 1;
  std::memcpy(&out[4], &recsize, 4);
  std::memcpy(&out[52], &ntaskid, 4);
  std::memcpy(&out[64], &nds, 4);
  return out;
}

TEST(CrrecJson, UnusualStoredRecordsKeepEveryByteThroughJson) {
  struct Case {
    unsigned char dotype;
    bool oldLists, bigList;
  } cases[] = {{0, true, false}, {1, true, false}, {2, true, false}, {3, true, false},
               {5, true, false}, {4, true, false}, {4, false, true}, {4, true, true}};
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::Message() << "DO type " << int(c.dotype) << " old lists " << c.oldLists
                                      << " big-endian list " << c.bigList);
    const std::vector<unsigned char> file = Unusual(c.dotype, c.oldLists, c.bigList);
    crrec::Loaded loaded = crrec::Load("s", file, crrec::Hints());
    const Json j = crrec::ToJson(loaded);
    EXPECT_EQ(j.contains("old_taskids"), c.oldLists);
    EXPECT_EQ(j.contains("unique_dcids_byte_order"), c.bigList);
    crrec::Loaded back = FromJson(j);
    // The header as the file has it, lists and all.
    EXPECT_EQ(crtest::Hex(&back.fileHeader, 80), crtest::Hex(file.data(), 80));
    EXPECT_EQ(crrec::StoredBytes(back, false), file);
    EXPECT_EQ(crrec::StoredBytes(loaded, false), file);
    // Through network order and back.
    EXPECT_EQ(crrec::StoredBytes(crrec::Load("n", crrec::StoredBytes(loaded, true), crrec::Hints()),
                                 false),
              file);
    EXPECT_EQ(crrec::ToJson(back), j);
  }
}

// Converting the same JSON twice gives the same bytes: a time of 0 stays 0
// on every way a record is rebuilt, though the builders stamp "now" for it.
TEST(CrrecJson, TimesOfZeroStayZero) {
  std::vector<Json> docs;
  for (unsigned char dotype : {3, 4}) docs.push_back(crrec::ToJson(Built(dotype, CR_FP_TYPE_MD5)));
  Json none = docs[0];
  none["segments"] = Json::array();
  none["header"]["size"] = 0;
  none.erase("unique_dcids");
  Json noBitmap = docs[1];
  noBitmap["bloom"]["bitmap"] = "";
  for (Json* j : {&none, &noBitmap}) {
    for (const char* derived : {"recsize", "nfp", "nudcid", "bsize"}) (*j)["header"].erase(derived);
    docs.push_back(*j);
  }
  for (bool bigList : {false, true}) {
    docs.push_back(crrec::ToJson(crrec::Load("s", Unusual(4, true, bigList), crrec::Hints())));
  }
  for (Json& j : docs) {
    j["header"]["ctime"] = 0;
    j["header"]["mtime"] = 0;
    const std::vector<unsigned char> first = crrec::StoredBytes(*FromJson(j).record, false);
    const uint32_t zero[2] = {0, 0};
    EXPECT_EQ(crtest::Hex(&first[44], 8), crtest::Hex(zero, 8)) << j.dump().substr(0, 200);
    EXPECT_EQ(crrec::StoredBytes(*FromJson(j).record, false), first);
  }
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
