// `crrec show`, `verify` and `digest`: printing an opened record for a
// person, running every check there is on it, and its digest.
#ifndef CRREC_EXAMINE_H
#define CRREC_EXAMINE_H

#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

#include "load.h"
#include "util.h"

namespace crrec {

struct ShowOptions {
  uint64_t segments = 10;  // segments listed; UINT64_MAX for all
};

// The header table, the segment list (or Bloom bitmap), the unique-DCID
// list, the typed references and the digest; or the segment DB record.
void Show(const Loaded& loaded, const ShowOptions& options, std::ostream& out);

struct VerifyOptions {
  // The serialized form was written without a checksum: its head then holds
  // the record's CRC, which nothing can check. Without it, a head that does
  // not hold the Adler-32 of the body is refused (a Bloom form always
  // carries the checksum, so it is refused there in any case).
  bool noChecksum = false;
};

// A check's outcome: passed, failed, not applicable to this record (none),
// or something the user should know that is not a fault (note).
enum class Verdict { kOk, kFailed, kNone, kNote };
const char* VerdictKey(Verdict verdict);  // "ok", "failed", "none", "note"

struct Check {
  std::string name;  // "checksum", "header", "reserved", ...
  Verdict verdict;
  std::string reason;
};

// What `crrec verify` found about one input.
struct VerifyReport {
  std::string file;
  std::string form;         // FormKey of the bytes; empty when they did not open
  std::string description;  // "serialized DO record, 95747 bytes, ..."
  std::vector<std::string> notes;
  std::vector<Check> checks;
  int exitCode = 0;   // 0 sound, 1 unsound, 2 unusable input (usage)
  std::string error;  // "CHECK: reason" of the first failed check, or why it did not open
  bool sound() const { return exitCode == 0; }
};

// Runs every check there is on an opened record, in this order, each
// independently of the others' verdicts:
// - checksum:   a serialized form's head holds the Adler-32 of its body
//               (none under noChecksum: the head holds the CRC);
// - header:     the library's header validation;
// - reserved:   bytes the format writes as zero are zero. Team decision:
//               verify refuses any that are not (the stored header's bytes
//               8-11 and 78-79, the Bloom section's 16 bytes; a segment DB
//               record's unused word, reserved1, pad, reserved2 and
//               trailer), so that no form needs to carry them;
// - segments:   the library's segment-list check and DCIDs of at least 64;
// - size:       the head's size and ssize against what the body implies:
//               DO types 0 and 1 derive every segment's size, each of which
//               must be positive and fit 32 bits; DO types 2 and 5 sum to
//               size; in DO type 3 the last segment ends at size; in a
//               Bloom record the unique-DCID byte counts sum to size;
// - unique:     unique-DCID entries of at least 64, strictly ascending, and
//               (but for Bloom records) agreeing with the segment list;
// - references: typed references; old task-ID and DSID lists give a note;
// - canonical:  the input is the exact bytes the library writes back for
//               the record it opened (typed references in the library's
//               order, among others); a note for records with old lists,
//               which opening converts;
// - digest:     the record's digest, or none (not a fault).
// A segment DB record gets header, flags (0 or 2), DCID (1 or at least 64
// for a segment in a container; a file ID makes the field a path ID) and
// reserved.
VerifyReport Verify(const Loaded& loaded, const VerifyOptions& options);
// Verify, then PrintReport; throws ToolError (unsound) naming the first
// failed check.
void Verify(const Loaded& loaded, const VerifyOptions& options, std::ostream& out);
// The report of an input that could not be opened.
VerifyReport FailedReport(const std::string& file, const ToolError& error);

// One line per check, then "FILE: sound" when it is.
void PrintReport(const VerifyReport& report, std::ostream& out);
// One line of JSON: {"file", "form", "sound", "checks": [{"name",
// "verdict", "reason"}], "error"}; "form" and "error" are null when they do
// not apply, and what recognition assumed comes first as checks named
// "form" with the verdict "note".
std::string ReportJson(const VerifyReport& report);

// Why a serialized form's head is not trusted: it does not hold the
// Adler-32 of the body, and noChecksum does not say why. Every reader owes
// its user this warning. Empty when there is nothing to say.
std::string ChecksumProblem(const Loaded& loaded, const VerifyOptions& options);

// The record's digest as "<digest type>:<hex>"; throws ToolError (unsound)
// when the record has none (DO type 0 with other than one segment).
std::string DigestText(const DORecord& record, const std::string& name);

// "8-byte offsets" and the like: what a DO type carries, for people.
const char* DOTypeName(unsigned dotype);
const char* FPTypeName(unsigned fptype);

}  // namespace crrec

#endif  // CRREC_EXAMINE_H
