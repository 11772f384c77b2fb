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
//     "segments": [ { "fp": hex, "size", "offset" | "object_offset", "dcid" } ],
//     "bloom": { "bitmap": hex },              DO type 4 instead of segments
//     "unique_dcids": [ { "dcid", "bytes" } ],
//     "trefs": [ { "kind", "text", "bytes": hex of the mode-1 form } ] }
// A segment gives "size" for DO types 2, 3 and 5, "offset" for 3 and
// "object_offset" for 5, and nothing a DO type does not carry.
//
// Reading it back: the header fields that follow from the rest (recsize,
// nfp, nudcid, trefsize, bsize, ntaskid, nds) may be left out, and when given
// must agree with the rebuilt record; checksums are never read, always
// computed afresh; a reference's "text" is for people and not read.
//
// A segment DB record:
//   { "form": "segment-db", "byte_order", "type", "flags", "recsize",
//     "unused", "ntaskid", "checktime", "reserved1", "DCID", "fileID", "size",
//     "CRC", "ndo", "key": hex (33 bytes), "fptype", "cryptoMode", "pad",
//     "keyIndex", "reserved2", "taskids": [..], "fingerprints": [hex],
//     "trailer": hex (8 bytes) }
// with the same rule for recsize, ntaskid and ndo.
#ifndef CRREC_JSON_H
#define CRREC_JSON_H

#include <cstddef>
#include <memory>
#include <string>

#include <nlohmann/json.hpp>

#include "load.h"

namespace crrec {

typedef nlohmann::ordered_json Json;

Json ToJson(const Loaded& loaded);

// Rebuilds the record that the JSON text describes. Throws ToolError
// (unsound) naming the field at fault, or with the library's refusal.
Loaded LoadJson(const std::string& name, const unsigned char* data, size_t length,
                const Hints& hints);

}  // namespace crrec

#endif  // CRREC_JSON_H
