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

// Old task-ID and DSID lists (kept in the file's order, repeats included,
// behind the header, task IDs first), or a Bloom record's unique-DCID list
// big-endian as the serialized Bloom form leaves it: every byte comes back
// through JSON and network order, and times of 0 stay 0 on a rebuild.
TEST(CrrecJson, UnusualRecordsKeepEveryByte) {
  const std::string lists = "2a00000000000000" "0700000000000000" "2a00000000000000" "05000000";
  const struct {
    unsigned char dotype;
    bool oldLists, bigList;
  } rows[] = {{0, 1, 0}, {1, 1, 0}, {2, 1, 0}, {3, 1, 0}, {5, 1, 0}, {4, 1, 0}, {4, 0, 1}, {4, 1, 1}};
  for (const auto& [dotype, oldLists, bigList] : rows) {
    SCOPED_TRACE(::testing::Message() << int(dotype) << oldLists << bigList);
    Json j = crrec::ToJson(Built(dotype, CR_FP_TYPE_SHA256));
    j.erase("trefs");
    for (const char* derived : {"trefsize", "recsize", "ntaskid", "nds"}) j["header"].erase(derived);
    if (oldLists) j["old_taskids"] = {42, 7, 42}, j["old_dsids"] = {5};
    if (bigList) j["unique_dcids_byte_order"] = "big";
    const Image file = crrec::StoredBytes(FromJson(j.dump()), false);
    if (oldLists) EXPECT_EQ(crtest::Hex(&file[80], 28), lists);
    const crrec::Loaded loaded = crrec::Load("s", file, crrec::Hints());
    EXPECT_EQ(crtest::Hex(&loaded.fileHeader, 80), crtest::Hex(file.data(), 80));
    const Json again = crrec::ToJson(loaded);
    EXPECT_EQ(crrec::StoredBytes(FromJson(again.dump()), false), file);
    const Image net = crrec::StoredBytes(loaded, true);
    EXPECT_EQ(crrec::StoredBytes(crrec::Load("n", net, crrec::Hints()), false), file);
    j["header"]["ctime"] = 0;
    j["header"]["mtime"] = 0;
    EXPECT_EQ(crtest::Hex(&Stored(FromJson(j.dump()))[44], 8), std::string(16, '0'));
  }
  // A segment DB record with its unused word, reserved word, crypto mode,
  // pad, key index, reserved pair and trailer set.
  Image so;
  ASSERT_TRUE(crrec::HexDecode(crtest::kSegmentDbHex, &so));
  for (size_t at : {8, 20, 90, 91, 92, 93, 94, 95, 120, 127}) so[at] = static_cast<unsigned char>(at);
  const crrec::Loaded loaded = crrec::Load("so", so, crrec::Hints());
  EXPECT_EQ(crrec::ToJson(loaded)["keyIndex"], 92u + 256 * 93u);
  const crrec::Loaded back = FromJson(crrec::ToJson(loaded).dump());
  EXPECT_EQ(crtest::Hex(back.so(), back.soLength), crtest::Hex(so.data(), so.size()));
}

}  // namespace
