// The JSON form of a record: complete and lossless, so that converting a
// record to JSON and back through the library's own builders gives the same
// bytes, and an operator can repair a record by editing its JSON.
//
// A DO record:
//   { "form": "stored" | "serialized" | "serialized-bloom",
//     "byte_order": "host" | "network",        stored form only
//     "checksum": true | false,                serialized forms only
//     "header": { "type", "flags", "recsize", "checktime", "CID", "size",
//                 "ssize", "CRC", "ctime", "mtime", "ntaskid", "nfp",
//                 "nudcid", "nds", "trefsize", "bsize", "fptype", "dotype" },
//     "old_taskids": [ n ], "old_dsids": [ n ],  stored form with old lists
//     "segments": [ { "fp": hex, "size", "offset" | "object_offset", "dcid" } ],
//     "bloom": { "bitmap": hex },              DO type 4 instead of segments
//     "unique_dcids_byte_order": "big",        see below
//     "unique_dcids": [ { "dcid", "bytes" } ],
//     "trefs": [ { "kind", "text", "bytes": hex of the mode-1 form } ] }
// A segment gives "size" for DO types 2, 3 and 5, "offset" for 3 and
// "object_offset" for 5, and nothing a DO type does not carry.
//
// Old task-ID and DSID lists: opening a stored record turns them into typed
// references (kinds 2 and 4) and cuts them out. The JSON of such a record
// gives them back as "old_taskids" and "old_dsids", with the header as the
// file had it, and no "trefs" (a record holds old lists or references, never
// both). The lists come from the references, which keep each value once in
// ascending order: a list with a value twice is refused on reading back
// (its header count disagrees), and one out of order comes back sorted.
//
// A Bloom DO record rebuilt from the serialized Bloom form holds its
// unique-DCID list big-endian, as it travelled, until it is normalized; a
// stored record may keep it so. "unique_dcids_byte_order": "big" says that
// (the values in "unique_dcids" are numbers either way); "host" is the
// default.
//
// Reserved bytes (the header's two reserved words, the Bloom section's 16
// bytes) are not carried: `verify` refuses a record where they are not zero,
// and a record rebuilt from JSON has them zero.
//
// Reading it back: the header fields that follow from the rest (recsize,
// nfp, nudcid, trefsize, bsize, ntaskid, nds) may be left out, and when given
// must agree with the rebuilt record; checksums are never read, always
// computed afresh; a reference's "text" is for people and not read. ctime and
// mtime are kept as given, 0 included, although the builders stamp the
// current time for 0: converting the same JSON twice gives the same bytes.
//
// A segment DB record:
//   { "form": "segment-db", "byte_order", "type", "flags", "recsize",
//     "unused", "ntaskid", "checktime", "reserved1", "DCID", "fileID", "size",
//     "CRC", "ndo", "key": hex (33 bytes), "fptype", "cryptoMode", "pad",
//     "keyIndex", "reserved2", "taskids": [..], "fingerprints": [hex],
//     "trailer": hex (8 bytes) }
// with the same rule for recsize, ntaskid and ndo.
//
// The reader is bounded, whatever the text: it takes at most kMaxJsonInput
// bytes, reads them as a stream of events (never a tree of the whole
// document), keeps one small element at a time besides the record being
// rebuilt, refuses nesting deeper than kMaxJsonDepth, an unknown field as
// soon as its name arrives and a field given twice. A UTF-8 byte-order mark
// at the start is skipped.
#ifndef CRREC_JSON_H
#define CRREC_JSON_H

#include <cstddef>
#include <cstdint>
#include <string>

#include <nlohmann/json.hpp>

#include "load.h"

namespace crrec {

// The written form keeps its fields in the order above, for people.
typedef nlohmann::ordered_json Json;

// The largest JSON input read: the JSON of a record of several million
// segments, and a bound on the memory a hostile document can claim.
constexpr uint64_t kMaxJsonInput = uint64_t{256} << 20;
// A record's JSON needs three levels (the document, an array, its
// elements); deeper nesting is refused.
constexpr unsigned kMaxJsonDepth = 8;

Json ToJson(const Loaded& loaded);

// Rebuilds the record that the JSON text describes. Throws ToolError
// (unsound) naming the field at fault, or with the library's refusal.
Loaded LoadJson(const std::string& name, const unsigned char* data, size_t length,
                const Hints& hints);

// Shared by the writer and the reader.
namespace json_layout {
constexpr unsigned kSOFixed = 96;   // a segment DB record's fixed part
constexpr unsigned kSOTrailer = 8;  // the bytes after its fingerprints
constexpr size_t kSOKey = 33;
inline unsigned FingerprintWidth(unsigned fptype) { return fptype == CR_FP_TYPE_SHA256 ? 32 : 16; }
}  // namespace json_layout

}  // namespace crrec

#endif  // CRREC_JSON_H
