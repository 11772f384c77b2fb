// `crrec show`, `verify` and `digest`: printing an opened record for a
// person, running every check there is on it, and its digest.
#ifndef CRREC_EXAMINE_H
#define CRREC_EXAMINE_H

#include <cstdint>
#include <iosfwd>
#include <string>

#include "load.h"

namespace crrec {

struct ShowOptions {
  uint64_t segments = 10;  // segments listed; UINT64_MAX for all
};

// The header table, the segment list (or Bloom bitmap), the unique-DCID
// list, the typed references and the digest; or the segment DB record.
void Show(const Loaded& loaded, const ShowOptions& options, std::ostream& out);

struct VerifyOptions {
  // A serialized form whose head does not hold the Adler-32 of its body is
  // refused, unless the caller says it was written without a checksum (its
  // head then holds the record's CRC, which nothing can check).
  bool noChecksum = false;
};

// Runs the checks that opening did not: the serialized form's checksum, the
// segment list, DCIDs of at least 64, the unique-DCID list against the
// segment list, and the digest. Prints one line per check; throws ToolError
// (unsound) at the first failure.
void Verify(const Loaded& loaded, const VerifyOptions& options, std::ostream& out);

// The record's digest as "<digest type>:<hex>"; throws ToolError (unsound)
// when the record has none (DO type 0 with other than one segment).
std::string DigestText(const DORecord& record, const std::string& name);

// "8-byte offsets" and the like: what a DO type carries, for people.
const char* DOTypeName(unsigned dotype);
const char* FPTypeName(unsigned fptype);

}  // namespace crrec

#endif  // CRREC_EXAMINE_H
