// The entry functions of the fuzz targets. Each fuzz/<target>_fuzzer.cpp
// hands libFuzzer's bytes to one of them; the replay test runs the stored
// corpora and crash inputs through the same functions without libFuzzer.
//
// An entry function never aborts on input that the library refuses: refusal
// is the expected answer to most bytes. It reports a broken invariant (a
// round trip that does not restore its bytes, a status other than the one
// documented) through the invariant handler, which traps unless replaced.
#ifndef CRRECORD_FUZZ_FUZZ_TARGETS_H
#define CRRECORD_FUZZ_FUZZ_TARGETS_H

#include <cstddef>
#include <cstdint>

namespace crfuzz {

// How far an input went: refused by the code under test, or accepted and
// taken through every check that follows acceptance.
enum class Outcome { kRefused, kAccepted };

typedef Outcome (*EntryFunction)(const uint8_t* data, size_t size);

// DORecordHeaderDeserialize and the DORecord constructor over a serialized
// record, both on the same bytes.
Outcome FuzzHeaderDeserialize(const uint8_t* data, size_t size);
// AddSerializedTRefs on a built record, or the stored-record constructor
// (and so convertToTRefs) over a record laid out from the input.
Outcome FuzzAddSerializedTRefs(const uint8_t* data, size_t size);
// DORecordHeaderValidate on the raw bytes, then every locator and accessor
// of a record that passed.
Outcome FuzzHeaderValidate(const uint8_t* data, size_t size);
// SegmentRecordValidate, then the conversions, SegmentRecordSerialize and
// SegmentRecordToStream on a record that passed.
Outcome FuzzSegmentRecordValidate(const uint8_t* data, size_t size);
Outcome FuzzTRefNewDeserialize(const uint8_t* data, size_t size);
Outcome FuzzFPStringToDigest(const uint8_t* data, size_t size);
// Build from fuzzed parameters -> Serialize -> rebuild -> compare.
Outcome FuzzSerializeRoundTrip(const uint8_t* data, size_t size);
// Host -> network -> host on DO records, SO records and segment DB records.
Outcome FuzzByteOrderRoundTrip(const uint8_t* data, size_t size);
// crrec's form recognition and loaders, then show, verify, digest and every
// conversion on a record that loads. Only where the tool is built
// (CRRECORD_FUZZ_WITH_TOOL): it links the tool's objects.
Outcome FuzzCrrecLoad(const uint8_t* data, size_t size);

struct Target {
  const char* name;  // the directory of its corpus, crashes and dictionary
  EntryFunction run;
};
extern const Target kTargets[];
extern const size_t kTargetCount;

typedef void (*InvariantHandler)(const char* what);
// Replaces the handler (null restores the trapping default). A handler that
// returns lets the entry function carry on.
void SetInvariantHandler(InvariantHandler handler);

}  // namespace crfuzz

#endif  // CRRECORD_FUZZ_FUZZ_TARGETS_H
