// The tool's record forms in process: the JSON form's round trips and
// refusals, verify's verdicts on damaged bytes, the chunkers' cut points and
// the stored bytes build makes, each checked against values computed apart
// from the code under test.
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <algorithm>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "build.h"
#include "chunker.h"
#include "examine.h"
#include "json.h"
#include "load.h"
#include "images.h"

namespace {

using crrec::ChunkerKind;
using crrec::ChunkerParams;
using crrec::Json;
using Image = std::vector<unsigned char>;

// Xorshift bytes: the same for the same seed on every machine.
Image Noise(size_t n, uint64_t seed) {
  Image v(n);
  uint64_t x = seed * 0x9e3779b97f4a7c15ull + 7;
  for (auto& b : v) {
    x ^= x << 13;
    x ^= x >> 7;
    x ^= x << 17;
    b = static_cast<unsigned char>(x >> 32);
  }
  return v;
}

// A segment DB record: one task ID (42), one MD5 fingerprint, DCID 1000.
const char* const kSegmentDbHex =
    "0200020080000000000000000100000000f1536500000000e8030000000000000000000000000000"
    "00000100000000000700000001000000404142434445464748494a4b4c4d4e4f5051525354555657"
    "58595a5b5c5d5e5f60010400000000002a000000000000000102030405060708090a0b0c0d0e0f10"
    "0000000000000000";

// "<exit code> <line>" of the ToolError the call throws, or "done".
template <typename F>
std::string ToolLine(F call) {
  try {
    call();
  } catch (const crrec::ToolError& e) {
    return std::to_string(e.exitCode()) + " " + e.Line();
  }
  return "done";
}

// A record of 400000 noise bytes in containers of 100000, with a task-ID, a
// DSID and a kind-9 reference (a kind the builders do not add); DO types 0
// and 1 cut fixed sizes.
crrec::Loaded Built(unsigned char dotype, unsigned char fptype) {
  static const Image data = Noise(400000, 3);
  crrec::BuildOptions o;
  o.dotype = dotype;
  o.fptype = fptype;
  o.containerSize = 100000;
  o.time = 1600000000;
  o.chunking.kind = dotype <= 1 ? ChunkerKind::kFixed : ChunkerKind::kContentDefined;
  o.taskIds = {42};
  o.dsids = {5};
  crrec::MemorySource source(data.data(), data.size());
  crrec::Loaded loaded;
  loaded.name = "built";
  loaded.record = crrec::BuildRecord(source, "built", o).record;
  loaded.record->AddSerializedTRefs("\x09\x01\xab", 3);
  loaded.fileHeader = *loaded.record->GetHeader();
  return loaded;
}

crrec::Loaded FromJson(const std::string& text) {
  return crrec::LoadJson("r.json", reinterpret_cast<const unsigned char*>(text.data()),
                         text.size(), crrec::Hints());
}
Image Stored(const crrec::Loaded& l) { return crrec::StoredBytes(*l.record, false); }

// With SHA-256 fingerprints the record carries old task-ID and DSID lists
// instead of typed references (behind the header, task IDs first, in the
// file's order, repeats included), and a Bloom record keeps its unique-DCID
// list big-endian as the serialized Bloom form leaves it. Times of 0 stay 0.
TEST(CrrecJson, EveryTypeAndFormComesBackWithTheSameBytes) {
  const std::string lists = "2a00000000000000" "0700000000000000" "2a00000000000000" "05000000";
  for (unsigned char dotype : {0, 1, 2, 3, 4, 5}) {
    for (unsigned char fptype : {1, 3}) {
      SCOPED_TRACE(::testing::Message() << "DO type " << int(dotype) << ", fp " << int(fptype));
      crrec::Loaded loaded = Built(dotype, fptype);
      Json j = crrec::ToJson(loaded);
      if (fptype == 3) {
        j.erase("trefs");
        for (const char* derived : {"trefsize", "recsize", "ntaskid", "nds"}) {
          j["header"].erase(derived);
        }
        j["old_taskids"] = {42, 7, 42};
        j["old_dsids"] = {5};
        if (dotype == 4) j["unique_dcids_byte_order"] = "big";
        loaded = FromJson(j.dump());
        EXPECT_EQ(crtest::Hex(&crrec::StoredBytes(loaded, false)[80], 28), lists);
      }
      const Image file = crrec::StoredBytes(loaded, false);
      for (bool network : {false, true}) {
        loaded.networkOrder = network;
        const crrec::Loaded back = FromJson(crrec::ToJson(loaded).dump(2));
        EXPECT_EQ(back.networkOrder, network);
        const Image bytes = crrec::StoredBytes(back, network);
        EXPECT_EQ(bytes, crrec::StoredBytes(loaded, network));
        EXPECT_EQ(crrec::StoredBytes(crrec::Load("n", bytes, crrec::Hints()), false), file);
      }
      j["header"]["ctime"] = 0;
      j["header"]["mtime"] = 0;
      EXPECT_EQ(crtest::Hex(&Stored(FromJson(j.dump()))[44], 8), std::string(16, '0'));
      for (bool checksum : {true, false}) {
        if (dotype == 0) continue;
        const Image form = crrec::SerializedBytes(*loaded.record, checksum, "b");
        crrec::Hints hints;
        hints.fptype = fptype;
        const Json s = crrec::ToJson(crrec::Load("s", form, hints));
        EXPECT_EQ(s["form"], dotype == 4 ? "serialized-bloom" : "serialized");
        const crrec::Loaded back = FromJson(s.dump());
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
    EXPECT_EQ(ToolLine([&] { FromJson(text); }), "1 crrec: r.json: " + row.line)
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
  EXPECT_EQ(ToolLine([&] {
              crrec::LoadJson("r.json", static_cast<unsigned char*>(pages), over, crrec::Hints());
            }),
            "1 crrec: r.json: JSON input larger than 268435456 bytes (256.0 MiB)");
  munmap(pages, over);
}

// Every byte of a segment DB record comes back through JSON, its unused
// word, reserved word, crypto mode, pad, key index, reserved pair and
// trailer included.
TEST(CrrecJson, SegmentDbRecordKeepsEveryByte) {
  Image so;
  ASSERT_TRUE(crrec::HexDecode(kSegmentDbHex, &so));
  for (size_t at : {8, 20, 90, 91, 92, 93, 94, 95, 120, 127}) so[at] = static_cast<uint8_t>(at);
  const crrec::Loaded loaded = crrec::Load("so", so, crrec::Hints());
  EXPECT_EQ(crrec::ToJson(loaded)["keyIndex"], 92u + 256 * 93u);
  const crrec::Loaded back = FromJson(crrec::ToJson(loaded).dump());
  EXPECT_EQ(crtest::Hex(back.so(), back.soLength), crtest::Hex(so.data(), so.size()));
}

// Little-endian, or big-endian when `big`.
uint64_t Get(const Image& b, size_t at, int n, bool big = false) {
  uint64_t v = 0;
  for (int i = 0; i < n; ++i) v = v << 8 | b[at + static_cast<size_t>(big ? i : n - 1 - i)];
  return v;
}
void Put(Image& b, size_t at, uint64_t v, int n, bool big = false) {
  for (int i = 0; i < n; ++i) b[at + static_cast<size_t>(big ? n - 1 - i : i)] = v >> (8 * i);
}

// "done" when verify finds the bytes sound, else the exit code and line.
std::string Verdict(const Image& bytes) {
  return ToolLine([&] {
    std::ostringstream sink;
    crrec::Verify(crrec::Load("f", bytes, crrec::Hints()), crrec::VerifyOptions(), sink);
  });
}

TEST(CrrecVerify, EachDamageIsNamedByTheCheckItFails) {
  auto stored = [](int t) { return crrec::StoredBytes(*Built(t, 2).record, false); };
  auto ser = [](int t) { return crrec::SerializedBytes(*Built(t, 2).record, 1, "b"); };
  const Image do0 = stored(0), ser1 = ser(1), do3 = stored(3), ser3 = ser(3), do4 = stored(4);
  const Image ser4 = ser(4);
  Image seg;
  ASSERT_TRUE(crrec::HexDecode(kSegmentDbHex, &seg));
  // Stored layout: size at 24, ssize at 32, nfp at 56, bsize at 72; the
  // unique-DCID section behind 36-byte DO type 3 entries and 8-byte DCIDs,
  // or behind a Bloom record's length word, bitmap and 16 reserved bytes.
  const uint64_t size = Get(do3, 24, 8), nfp0 = Get(do0, 56, 4), ssize0 = Get(do0, 32, 8);
  const size_t list3 = 80 + 36 * Get(do3, 56, 4), trefs3 = do3.size() - Get(do3, 68, 4);
  const size_t zeros4 = 84 + Get(do4, 72, 4), list4 = zeros4 + 16;
  const size_t block4 = 32 + Get(ser4, 28, 4, true);  // serialized Bloom: the unique-DCID block
  const uint64_t nfp1 = Get(ser1, 20, 4, true), ssize1 = Get(ser1, 8, 8, true);
  const std::string dcid0 = std::to_string(Get(do3, list3 + 8, 8));
  const std::string dcid1 = std::to_string(Get(do3, list3 + 24, 8));
  const std::string bdcid0 = std::to_string(Get(ser4, block4 + 8, 8, true));
  const std::string bdcid1 = std::to_string(Get(ser4, block4 + 24, 8, true));
  // A list is sealed by an Adler-32: a stored one in host order, a
  // serialized Bloom block big-endian, itself under the head's checksum.
  auto reseal = [](Image& b, size_t list, bool big) {
    const uint64_t n = Get(b, list + 4, 4, big);
    Put(b, list, crtest::SlowAdler32(b.data() + list + 4, 4 + 16 * n), 4, big);
    if (big) Put(b, 16, crtest::SlowAdler32(b.data() + 28, b.size() - 28), 4, true);
  };
  auto lastSeg = [](uint64_t nfp, uint64_t ssize, uint64_t size) {
    return "size: size " + std::to_string(size) + " leaves no bytes to the last of " +
           std::to_string(nfp) + " segments (" + std::to_string(nfp - 1) + " x ssize " +
           std::to_string(ssize) + " = " + std::to_string((nfp - 1) * ssize) + ")";
  };
  const std::string widths = " (29 + 2 x 41, 45, 49, 53, 73, 77, 81 or 85 bytes by type)";
  struct Row {
    const Image& base;
    std::function<void(Image&)> damage;
    std::string line;  // after "crrec: f: ", or "done"
  } rows[] = {
      {do3, [](Image&) {}, "done"},
      {ser4, [](Image&) {}, "done"},
      {seg, [](Image& b) { Put(b, 24, 5, 8), Put(b, 32, 9, 8); }, "done"},  // a path ID
      {do3, [](Image& b) { b.clear(); }, "empty file"},
      {do3, [](Image& b) { b.resize(20); }, "Invalid DO record: size 20, expected at least 80 "
       "(status 32)"},
      {do3, [](Image& b) { b.assign(20, 0); }, "20 bytes: too short for any record form (a "
       "serialized DO record has at least 29)"},
      {ser1, [](Image& b) { b.assign(129, 0), b[23] = 2; },
       "129 bytes do not fit a serialized DO record with 2 segments" + widths},
      {do3, [](Image& b) { b.pop_back(); }, "Invalid DO record: recsize " +
       std::to_string(do3.size()) + ", size " + std::to_string(do3.size() - 1) + " (status 32)"},
      {seg, [](Image& b) { b.resize(136); },
       "Invalid SO record: recsize 128, size 136 (status 32)"},
      {do3, [](Image& b) { b[8] = 1; }, "reserved: header bytes 8-11 are 01000000"},
      {do3, [](Image& b) { b[79] = 1; }, "reserved: header bytes 78-79 are 0001"},
      {do4, [&](Image& b) { b[zeros4] = 7; },
       "reserved: the Bloom section's 16 reserved bytes are 07" + std::string(30, '0')},
      {do4, [&](Image& b) { b[zeros4] = 'B', b[zeros4 + 1] = 'E', b[zeros4 + 15] = 1; },
       "reserved: the Bloom section's 16 reserved bytes are 4245" + std::string(26, '0') + "01"},
      {do0, [](Image& b) { Put(b, 32, uint64_t{1} << 32, 8); },
       "size: ssize 4294967296 is no segment size (1 to 4294967295 bytes) for " +
           std::to_string(nfp0 - 1) + " segments but the last"},
      {do0, [&](Image& b) { Put(b, 24, (nfp0 - 1) * ssize0, 8); },
       lastSeg(nfp0, ssize0, (nfp0 - 1) * ssize0)},
      {ser1, [&](Image& b) { Put(b, 0, (nfp1 - 1) * ssize1 - 5, 8, true); },
       lastSeg(nfp1, ssize1, (nfp1 - 1) * ssize1 - 5)},
      {do3, [&](Image& b) { Put(b, 24, size + 1, 8); }, "size: size " +
       std::to_string(size + 1) + ", but the last segment ends at " + std::to_string(size)},
      {ser3, [&](Image& b) { Put(b, 0, size + 1, 8, true); }, "size: size " +
       std::to_string(size + 1) + ", but the last segment ends at " + std::to_string(size)},
      {do4, [&](Image& b) { Put(b, 24, size - 1, 8); }, "size: size " + std::to_string(size - 1) +
       ", but the unique-DCID byte counts sum to " + std::to_string(size)},
      {do3, [&](Image& b) {
         std::swap_ranges(&b[list3 + 8], &b[list3 + 24], &b[list3 + 24]);
         reseal(b, list3, false);
       }, "unique: entry 1 (container " + dcid0 + ") follows container " + dcid1 +
           ": not ascending"},
      {do3, [&](Image& b) { Put(b, list3 + 24, Get(b, list3 + 8, 8), 8), reseal(b, list3, 0); },
       "unique: the list names container " + dcid0 + " twice"},
      {do4, [&](Image& b) { Put(b, list4 + 8, 5, 8), reseal(b, list4, false); },
       "unique: entry 0 names container 5, below 64"},
      {ser4, [&](Image& b) {
         std::swap_ranges(&b[block4 + 8], &b[block4 + 24], &b[block4 + 24]);
         reseal(b, block4, true);
       }, "unique: entry 1 (container " + bdcid0 + ") follows container " + bdcid1 +
           ": not ascending"},
      {ser4, [&](Image& b) {
         Put(b, block4 + 24, Get(b, block4 + 8, 8, true), 8, true), reseal(b, block4, true);
       }, "unique: the list names container " + bdcid0 + " twice"},
      // The task-ID reference (10 bytes) and the DSID reference (6) swap.
      {do3, [&](Image& b) { std::rotate(&b[trefs3], &b[trefs3 + 10], &b[trefs3 + 16]); },
       "canonical: byte " + std::to_string(trefs3) +
           " is 0x04, the library writes 0x02 (not in canonical form)"},
      {seg, [](Image& b) { Put(b, 2, 4, 2); }, "flags: flags 0x0004, expected 0 or 0x0002"},
      {seg, [](Image& b) { Put(b, 24, 5, 8); }, "DCID: DCID 5, expected 1 or at least 64"},
      {seg, [](Image& b) { Put(b, 8, 3, 4); }, "reserved: the unused word is 3"},
      {seg, [](Image& b) { b[91] = 1, b.back() = 1; },
       "reserved: pad is 1; the trailer is 0000000000000001"},
  };
  for (const Row& row : rows) {
    Image damaged(row.base);
    row.damage(damaged);
    EXPECT_EQ(Verdict(damaged), row.line == "done" ? row.line : "1 crrec: f: " + row.line);
  }
}

ChunkerParams Params(ChunkerKind kind, uint32_t min, uint32_t avg = 0, uint32_t max = 0) {
  ChunkerParams p;
  p.kind = kind;
  p.fixedSize = p.minSize = min;
  p.avgSize = avg;
  p.maxSize = max;
  return p;
}

// Sizes of the segments, handing the chunker what its contract asks: the
// maximum ahead, or the rest at the end. The content-defined rows were
// computed by a separate implementation of the gear hash (a 64-bit hash
// shifted left per byte, table from a SplitMix64 sequence of the fixed seed
// "crrec-cd"; a cut where the top bits are zero, strict below the average
// and loose above it, none inside the minimum).
TEST(CrrecChunker, KnownInputsAreCutAtKnownPoints) {
  const struct {
    ChunkerParams params;
    Image data;
    std::vector<size_t> sizes;
  } rows[] = {
      {Params(ChunkerKind::kFixed, 4096), Noise(10000, 1), {4096, 4096, 1808}},
      {Params(ChunkerKind::kContentDefined, 64, 256, 1024), Noise(6000, 2),
       {138, 407, 118, 244, 268, 322, 264, 305, 260, 263, 329, 262, 267, 448, 385, 266, 111, 98,
        282, 420, 277, 212, 54}},
      // A run of one byte value has no cut point: the maximum ends it.
      {Params(ChunkerKind::kContentDefined, 512, 2048, 8192), Image(20000, 0), {8192, 8192, 3616}},
      {Params(ChunkerKind::kContentDefined, 512, 2048, 8192), Noise(300, 3), {300}},
  };
  for (const auto& row : rows) {
    const crrec::Chunker c(row.params);
    std::vector<size_t> sizes;
    for (size_t at = 0; at < row.data.size(); at += sizes.back()) {
      sizes.push_back(c.Cut(&row.data[at], std::min<size_t>(c.MaxSize(), row.data.size() - at)));
      ASSERT_GT(sizes.back(), 0u);
    }
    EXPECT_EQ(sizes, row.sizes);
    // Bytes past the maximum change nothing.
    EXPECT_EQ(c.Cut(row.data.data(), row.data.size()), row.sizes[0]);
  }
}

// Three 4096-byte segments "a...", "b...", "a..." in containers of 4096
// bytes: 64 and 65, and the repeat back in 64. The fingerprints are the MD5
// sums of the slices, the CRC is the CRC-32 of the input, and the list's
// checksum the Adler-32 of its count and entries.
TEST(CrrecBuild, StoredRecordHasTheBytesWrittenByHand) {
  std::string text = std::string(4096, 'a') + std::string(4096, 'b') + std::string(4096, 'a');
  crrec::BuildOptions o;
  o.chunking = Params(ChunkerKind::kFixed, 4096);
  o.dotype = CR_DO_TYPE_NO_SIZE;
  o.fptype = CR_FP_TYPE_MD5;
  o.containerSize = 4096;
  o.cid = 100;
  o.time = 1700000000;
  crrec::MemorySource source(reinterpret_cast<const unsigned char*>(text.data()), text.size());
  const crrec::Built built = crrec::BuildRecord(source, "input", o);
  Image e;
  auto le = [&e](uint64_t v, int n) {
    for (int i = 0; i < n; ++i) e.push_back(static_cast<unsigned char>(v >> (8 * i)));
  };
  le(3, 2), le(2, 2), le(80 + 3 * 24 + 8 + 32, 4), le(0, 8), le(100, 8), le(12288, 8);
  le(4096, 8), le(0x2916f42e, 4), le(1700000000, 4), le(1700000000, 4);
  le(0, 4), le(3, 4), le(2, 4), le(0, 4), le(0, 8), le(CR_FP_TYPE_MD5, 1), le(1, 1), le(0, 2);
  const std::string a = "21a199c53f422a380e20b162fb6ebe9c", b = "bdb166b6061ee9331efe719dcee62b41";
  Image fps;
  ASSERT_TRUE(crrec::HexDecode(a + b + a, &fps));
  e.insert(e.end(), fps.begin(), fps.end());
  le(64, 8), le(65, 8), le(64, 8), le(0x0fcc00b4, 4), le(2, 4), le(64, 8), le(8192, 8);
  le(65, 8), le(4096, 8);
  const auto* h = reinterpret_cast<const unsigned char*>(built.record->GetHeader());
  EXPECT_EQ(crtest::Hex(h, built.record->GetHeader()->recsize), crtest::Hex(e.data(), e.size()));
}

// 40 segments of 1000 bytes, segment k all bytes k, in containers of 16000.
// Bits h1 + i * h2 (mod 512), i < 7, of each MD5 sum: h1 its first eight
// bytes, h2 its last eight with the lowest bit set, both little-endian.
TEST(CrrecBuild, BloomRecordSetsTheBitsOfEveryFingerprint) {
  Image data;
  for (int k = 0; k < 40; ++k) data.insert(data.end(), 1000, static_cast<unsigned char>(k));
  crrec::BuildOptions o;
  o.chunking = Params(ChunkerKind::kFixed, 1000);
  o.dotype = CR_DO_TYPE_BLOOM_FILTER;
  o.fptype = CR_FP_TYPE_MD5;
  o.containerSize = 16000;
  o.bloomBytes = 64;
  crrec::MemorySource source(data.data(), data.size());
  const crrec::Built built = crrec::BuildRecord(source, "input", o);
  EXPECT_EQ(crtest::Hex(built.record->GetBloom(), built.record->GetBSize()),
            "aef5e96c71180a3f448448c26a570c71c391410c50a9620812c40457e610a3808c9a911a2039240"
            "95d1371068d4ea2b74c2672a4e28e19b16c52618adcba73a6");
  // 16, 16 and 8 segments in containers 64, 65 and 66; then the checksum.
  EXPECT_EQ(crtest::Hex(built.record->GetSegmentUDCIDList(), 4 + 4 + 3 * 16),
            "a202ed4a03000000" "4000000000000000803e000000000000"
            "4100000000000000803e000000000000" "4200000000000000401f000000000000");
}

}  // namespace
