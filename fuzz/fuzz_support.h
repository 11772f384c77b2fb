// Helpers shared by the entry functions of the fuzz targets and by the seed
// generator: invariant checks, quiet logging, owned aligned copies of input
// bytes, the choice of DO and fingerprint types from a byte, and the
// parameters of a record built from fuzzed values.
#ifndef CRRECORD_FUZZ_FUZZ_SUPPORT_H
#define CRRECORD_FUZZ_FUZZ_SUPPORT_H

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "crrecord/DORecord.h"
#include "fuzz_input.h"

namespace crfuzz {

// Reports `what` through the invariant handler when `ok` is false; returns
// ok, so that a caller whose handler returns can stop before the next step
// relies on the broken fact.
bool Check(bool ok, const char* what);

// Log and trace lines go nowhere, but tracing is on: every trace line's
// format is still filled in, so a format that does not match its arguments
// shows under the sanitizers.
void QuietLogging();

struct FreeDeleter {
  void operator()(void* p) const { std::free(p); }
};
typedef std::unique_ptr<unsigned char, FreeDeleter> Buffer;

// A malloc'ed copy (8-byte aligned, as record buffers must be) of n bytes,
// followed by `slack` zero bytes and nothing more, so that the sanitizer
// sees a read past them. Never null, even for n + slack == 0.
Buffer CopyOf(const void* data, size_t n, size_t slack = 0);

// DO and fingerprint types from one byte: mostly the valid ones, and from
// 0xF0 up some that are refused (255 among the DO types).
unsigned char DOTypeFrom(uint8_t b);
unsigned char FPTypeFrom(uint8_t b);
// The fingerprint width a record of this type uses (16 for invalid types).
unsigned int FPWidth(unsigned char fptype);

// A DO record described by fuzzed values. Decode and Encode lay the values
// out identically, so the seed generator writes what the targets read.
struct SegmentParams {
  std::vector<uint8_t> fp;  // FPWidth bytes
  uint32_t size = 0;
  uint64_t offset = 0;
  uint32_t objectOffset = 0;
  uint64_t dcid = 0;
};

struct RefParams {
  uint8_t kind = 0;  // 0 task ID, 1 DSID, 2 retention, 3 hold (mod 4)
  uint64_t value = 0;
};

enum : uint8_t {
  kBuildConsistent = 1,  // derive sizes, offsets and DCIDs that the checks accept
  kBuildUniqueDcids = 2, // the record carries a unique-DCID block
};

struct RecordParams {
  uint8_t dotypeByte = 0;
  uint8_t fptypeByte = 0;
  uint8_t options = kBuildConsistent;
  uint64_t cid = 0, size = 0, ssize = 0;
  uint32_t crc = 0, ctime = 0, mtime = 0;
  std::vector<uint8_t> bitmap;             // DO type 4
  std::vector<SegmentParams> segments;     // other DO types
  std::vector<std::pair<uint64_t, uint64_t>> udcids;
  uint32_t udcidChecksum = 0;  // used as given unless kBuildConsistent
  std::vector<RefParams> refs;

  static constexpr size_t kMaxSegments = 1024;
  static constexpr size_t kMaxBitmap = 4096;
  static constexpr size_t kMaxUdcids = 32;
  static constexpr size_t kMaxRefs = 8;

  void Decode(Input& in);
  void Encode(Writer& out) const;
};

// Builds the record (without its references); null when the library
// refuses the values (Cr_ErrnoException).
std::unique_ptr<DORecord> BuildRecord(const RecordParams& p);
// Adds the references; false when the library refuses one.
bool AddRefs(DORecord& r, const RecordParams& p);

// The bytes of a calloc'ed output that the caller frees.
std::vector<uint8_t> TakeOutput(void** out, unsigned long size);

// Calls every read-only accessor of a record, reads every byte they point
// at, and checks what the accessors promise of each other.
void ExerciseRecord(const DORecord& r);

// The text form, or "" when the record refuses to print.
std::string TextOf(const DORecord& r);
// The text form with the comma-separated header fields at these positions
// (0 = type ... 11 = nfp) replaced by "*".
std::string TextWithout(const std::string& text, std::vector<int> blanked);

}  // namespace crfuzz

#endif  // CRRECORD_FUZZ_FUZZ_SUPPORT_H
