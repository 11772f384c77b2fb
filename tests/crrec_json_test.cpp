// The tool's JSON form: lossless round trips of every form, and refusals
// that name the field, however hostile the text.
#include <gtest/gtest.h>

#include <sys/mman.h>

#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "crrec_support.h"
#include "examine.h"
#include "json.h"
#include "load.h"
#include "test_support.h"

namespace {

using crrec::Json;
using crtest::Image;

crrec::Loaded Built(unsigned char dotype, unsigned char fptype) {
  crrec::Loaded loaded;
  loaded.name = "built";
  loaded.record = crtest::BuildNoise(dotype, fptype, 400000).record;
  // A stored record carries references of kinds the builders do not add.
  loaded.record->AddSerializedTRefs("\x09\x01\xab", 3);
  loaded.fileHeader = *loaded.record->GetHeader();
  return loaded;
}

crrec::Loaded FromJson(const std::string& text) {
  return crrec::LoadJson("r.json", reinterpret_cast<const unsigned char*>(text.data()),
                         text.size(), crrec::Hints());
}
Image Stored(const crrec::Loaded& l) { return crrec::StoredBytes(*l.record, false); }

TEST(CrrecJson, EveryTypeAndFormComesBackWithTheSameBytes) {
  for (unsigned char dotype : {0, 1, 2, 3, 4, 5}) {
    for (unsigned char fptype : {1, 3}) {
      SCOPED_TRACE(::testing::Message() << "DO type " << int(dotype) << ", fp " << int(fptype));
      crrec::Loaded loaded = Built(dotype, fptype);
      for (bool network : {false, true}) {
        loaded.networkOrder = network;
        crrec::Loaded back = FromJson(crrec::ToJson(loaded).dump(2));
        EXPECT_EQ(back.networkOrder, network);
        EXPECT_EQ(crrec::StoredBytes(*back.record, network),
                  crrec::StoredBytes(*loaded.record, network));
      }
      for (bool checksum : {true, false}) {
        if (dotype == 0) continue;
        const Image form = crrec::SerializedBytes(*loaded.record, checksum, "b");
        crrec::Hints hints;
        hints.fptype = fptype;
        const Json j = crrec::ToJson(crrec::Load("s", form, hints));
        EXPECT_EQ(j["form"], dotype == 4 ? "serialized-bloom" : "serialized");
        crrec::Loaded back = FromJson(j.dump());
        EXPECT_EQ(crrec::SerializedBytes(*back.record, back.serializedChecksum, "b"), form);
      }
    }
  }
}

std::string Repeat(const std::string& s, size_t n) {
  std::string out;
  for (size_t i = 0; i < n; ++i) out += s;
  return out;
}

// An object of n members "k0": 0, "k1": 0, ...
std::string ManyMembers(size_t n) {
  std::string out = "{";
  for (size_t i = 0; i < n; ++i) out += (i ? ",\"k" : "\"k") + std::to_string(i) + "\":0";
  return out + "}";
}

// Each row replaces the value at a place of a sound record's JSON (erases
// it when the value is empty), or gives the whole text (no place). Deep
// nesting and huge objects are refused by name: no recursion, no DOM.
TEST(CrrecJson, EachMistakeIsRefusedInOneLineNamingItsField) {
  const crrec::Loaded loaded = Built(CR_DO_TYPE_8_BYTE_OFFSET, CR_FP_TYPE_MD5);
  const Json good = crrec::ToJson(loaded);
  const std::string seg0 = std::to_string(loaded.record->GetSegmentSize(0));
  const std::string nfp = std::to_string(loaded.record->GetNfp());
  std::string twice = good.dump();
  const std::string seg3 = good["segments"][3].dump();
  twice.replace(twice.find(seg3), seg3.size(), seg3.substr(0, seg3.size() - 1) + ",\"dcid\":64}");
  const std::string deep = Repeat("[", 100000) + Repeat("]", 100000);
  const std::string whole = "whole number from 0 to ";
  struct Row {
    std::string place, value, line;  // after "crrec: r.json: "
  } rows[] = {
      {"/segments/1/fp", "\"abc\"", "segments[1].fp: expected 32 hex digits"},
      {"/segments/0/fp", "{\"a\":1}", "segments[0].fp: expected 32 hex digits"},
      {"/segments/0/offset", "", "segments[0].offset: missing"},
      {"/segments/0/object_offset", "1",
       "segments[0].object_offset: DO type 3 carries no object offset"},
      {"/header/nfpp", "1", "header.nfpp: unknown field"},
      {"/header/nfp", "1", "header.nfp: 1, but the rebuilt record has " + nfp},
      {"/header/flags", "8", "header.flags: 0x0008 sets bits outside 0x0006"},
      {"/header/CRC", "-1", "header.CRC: expected a " + whole + "4294967295"},
      {"/header/CRC", "[{}]", "header.CRC: expected a " + whole + "4294967295"},
      {"/header/ctime", "4294967296", "header.ctime: 4294967296 is larger than 4294967295"},
      {"/unique_dcids/1/bytes", "\"7\"",
       "unique_dcids[1].bytes: expected a " + whole + "18446744073709551615"},
      {"/trefs/0/kind", "4", "trefs[0].kind: 4, but its bytes hold a reference of kind 2"},
      {"/trefs/0/bytes", "\"02\"", "trefs[0].bytes: not exactly one typed reference"},
      {"/form", "\"stored-ish\"",
       "form: \"stored-ish\" is not one of stored, serialized, serialized-bloom, segment-db"},
      {"/header", "", "header: missing"},
      {"/header", "[]", "header: expected an object"},
      {"/segments", "{}", "segments: expected an array"},
      {"/segments/2", "7", "segments[2]: expected an object"},
      {"/old_taskids", "[1]",
       "trefs: a record with old task-ID or DSID lists has no typed references"},
      {"/unique_dcids_byte_order", "\"big\"",
       "unique_dcids_byte_order: only a stored Bloom DO record (DO type 4) keeps it big-endian"},
      // Edits the library's own checks refuse.
      {"/segments/1/offset", "1", "Segment list of DORecord CR_DO_TYPE_8_BYTE_OFFSET is corrupt. "
       "Offset of segm. 1:1. Previous segm. end:" + seg0 + ". (status 89)"},
      {"/segments/0/dcid", "12", "Got invalid dcid 12 at index 0 (status 9)"},
      {"", "{\"header\":" + deep + ",\"form\":\"stored\"}", "header: nested deeper than 8 levels"},
      {"", "{\"segments\":[{\"fp\":" + deep + "}]}", "segments[0].fp: nested deeper than 8 levels"},
      {"", "{\"header\":{\"flags\":" + Repeat("{\"a\":", 100000) + "0" + Repeat("}", 100000) + "}}",
       "header.flags: nested deeper than 8 levels"},
      {"", "{\"form\":\"stored\",\"header\":{\"flags\":" + ManyMembers(800000) + "}}",
       "header.flags: expected a " + whole + "65535"},
      {"", "{\"header\":" + ManyMembers(800000) + "}", "header.k0: unknown field"},
      {"", twice, "segments[3]: duplicate field \"dcid\""},
      {"", "{\"form\":\"stored\",\"form\":\"stored\"}", "duplicate field \"form\""},
      {"", "{\"header\":{\"flags\":2,\"flags\":2}}", "header: duplicate field \"flags\""},
      {"", "{\"segments\":[{\"fp\":\"00\",\"dkid\":1}]}", "segments[0].dkid: unknown field"},
      {"", "[1]", "expected a JSON object"},
      {"", "{\"form\":\"stored\"} x", "not valid JSON: parse error at line 1, column 19: syntax "
       "error while parsing value - invalid literal; last read: '\"stored\"} x'; expected end of "
       "input"},
      {"", "{\"f", "not valid JSON: parse error at line 1, column 4: syntax error while parsing "
       "object key - invalid string: missing closing quote; last read: '\"f'; expected string "
       "literal"},
  };
  for (const Row& row : rows) {
    Json j = good;
    const Json::json_pointer place(row.place.empty() ? "/x" : row.place);
    if (!row.place.empty() && row.value.empty()) j[place.parent_pointer()].erase(place.back());
    if (!row.place.empty() && !row.value.empty()) j[place] = Json::parse(row.value);
    const std::string text = row.place.empty() ? row.value : j.dump();
    EXPECT_EQ(crtest::ToolLine([&] { FromJson(text); }), "1 crrec: r.json: " + row.line)
        << row.place << " " << text.substr(0, 60);
  }
  // A byte-order mark is skipped, by recognition too.
  const std::string marked = "\xEF\xBB\xBF" + good.dump();
  EXPECT_EQ(Stored(crrec::Load("r.json", Image(marked.begin(), marked.end()), crrec::Hints())),
            Stored(loaded));
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

// Moving every segment of container 64 to 90, in both lists: the record is
// rebuilt with a fresh unique-DCID checksum and verifies.
TEST(CrrecJson, EditedRecordIsRebuiltAndVerifies) {
  Json j = crrec::ToJson(Built(CR_DO_TYPE_NO_OFFSET, CR_FP_TYPE_SHA256_16));
  for (Json& s : j["segments"]) {
    if (s["dcid"] == 64u) s["dcid"] = 90u;
  }
  ASSERT_EQ(j["unique_dcids"][0]["dcid"], 64u);
  j["unique_dcids"].push_back(j["unique_dcids"][0]);
  j["unique_dcids"].back()["dcid"] = 90u;
  j["unique_dcids"].erase(0);
  std::ostringstream report;
  crrec::Verify(FromJson(j.dump()), crrec::VerifyOptions(), report);
  EXPECT_NE(report.str().find("r.json: sound"), std::string::npos) << report.str();
}

// A stored record with old task-ID and DSID lists behind the header (task
// IDs first, out of order and repeated), or a Bloom record whose unique-DCID
// list stands big-endian as the serialized Bloom form left it.
Image Unusual(unsigned char dotype, bool oldLists, bool bigList) {
  const crrec::Built built = crtest::BuildNoise(dotype, CR_FP_TYPE_SHA256, 300000, false);
  Image plain = crrec::StoredBytes(*built.record, false);
  if (bigList) {
    Image form = crrec::SerializedBytes(*built.record, true, "b");
    DORecord raw(dotype, 2, 77, CR_FP_TYPE_SHA256, nullptr, 0, form.data(), form.size(), false);
    plain = crrec::StoredBytes(raw, false);
  }
  if (!oldLists) return plain;
  const uint64_t taskids[] = {42, 7, 42};
  const uint32_t dsid = 5, ntaskid = 3, nds = 1;
  const auto* t = reinterpret_cast<const unsigned char*>(taskids);
  Image out(plain.begin(), plain.begin() + 80);
  out.insert(out.end(), t, t + sizeof taskids);
  out.insert(out.end(), reinterpret_cast<const unsigned char*>(&dsid),
             reinterpret_cast<const unsigned char*>(&dsid) + 4);
  out.insert(out.end(), plain.begin() + 80, plain.end());
  const uint32_t recsize = static_cast<uint32_t>(out.size());
  std::memcpy(&out[4], &recsize, 4);
  std::memcpy(&out[52], &ntaskid, 4);
  std::memcpy(&out[64], &nds, 4);
  return out;
}

// Every byte of unusual stored records and of a segment DB record comes back
// through JSON and network order; times of 0 stay 0 on every rebuild.
TEST(CrrecJson, UnusualRecordsKeepEveryByte) {
  const struct {
    unsigned char dotype;
    bool oldLists, bigList;
  } cases[] = {{0, true, false}, {1, true, false}, {2, true, false}, {3, true, false},
               {5, true, false}, {4, true, false}, {4, false, true}, {4, true, true}};
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::Message() << int(c.dotype) << c.oldLists << c.bigList);
    const Image file = Unusual(c.dotype, c.oldLists, c.bigList);
    const crrec::Loaded loaded = crrec::Load("s", file, crrec::Hints());
    Json j = crrec::ToJson(loaded);
    EXPECT_EQ(j.contains("old_taskids"), c.oldLists);
    EXPECT_EQ(j.contains("unique_dcids_byte_order"), c.bigList);
    const crrec::Loaded back = FromJson(j.dump());
    EXPECT_EQ(crtest::Hex(&back.fileHeader, 80), crtest::Hex(file.data(), 80));
    EXPECT_EQ(crrec::StoredBytes(back, false), file);
    const Image net = crrec::StoredBytes(loaded, true);
    EXPECT_EQ(crrec::StoredBytes(crrec::Load("n", net, crrec::Hints()), false), file);
    EXPECT_EQ(crrec::ToJson(back), j);
    j["header"]["ctime"] = 0;
    j["header"]["mtime"] = 0;
    EXPECT_EQ(crtest::Hex(&Stored(FromJson(j.dump()))[44], 8), std::string(16, '0'));
  }
  // No segments, or no bitmap, and the derived fields left out.
  Json none = crrec::ToJson(Built(3, CR_FP_TYPE_MD5)), noBitmap = crrec::ToJson(Built(4, 1));
  none["segments"] = Json::array();
  none["header"]["size"] = 0;
  none.erase("unique_dcids");
  noBitmap["bloom"]["bitmap"] = "";
  for (Json* j : {&none, &noBitmap}) {
    for (const char* derived : {"recsize", "nfp", "nudcid", "bsize"}) (*j)["header"].erase(derived);
    (*j)["header"]["ctime"] = 0;
    (*j)["header"]["mtime"] = 0;
    EXPECT_EQ(crtest::Hex(&Stored(FromJson(j->dump()))[44], 8), std::string(16, '0'));
  }
  const std::string hex =
      "0200020080000000040302010100000000f15365a0a1a2a3e8030000000000000000000000000000"
      "00000100000000000700000001000000404142434445464748494a4b4c4d4e4f5051525354555657"
      "58595a5b5c5d5e5f6001055a0201b0b12a000000000000000102030405060708090a0b0c0d0e0f10"
      "e0e1e2e3e4e5e6e7";
  Image so;
  ASSERT_TRUE(crrec::HexDecode(hex, &so));
  const crrec::Loaded loaded = crrec::Load("so", so, crrec::Hints());
  EXPECT_EQ(crrec::ToJson(loaded)["keyIndex"], 0x0102u);
  const crrec::Loaded back = FromJson(crrec::ToJson(loaded).dump());
  EXPECT_EQ(crtest::Hex(back.so(), back.soLength), hex);
}

}  // namespace
