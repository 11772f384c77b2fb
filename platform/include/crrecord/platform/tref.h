// Typed references: the stand-in for the service's typed-reference component.
//
// A raw reference (_cr_tref_t) is a kind (0..10) and a payload of 1 to 32
// bytes. Task IDs (kind 2) and data-selection IDs (kind 4) carry their number
// big-endian, so references of one kind order numerically.
//
// Binary form (mode 1), self-delimiting:
//   +------+--------+-----------------+
//   | kind | length | payload         |
//   | u8   | u8     | length bytes    |
//   +------+--------+-----------------+
// Text form (mode 0): NUL-terminated, at most 98 bytes with the NUL:
//   "taskid:<decimal>", "dsid:<decimal>", or "tref<kind>:<hex payload>".
#ifndef CRRECORD_PLATFORM_TREF_H
#define CRRECORD_PLATFORM_TREF_H

#include <cstddef>

#include "crrecord/platform/export.h"
#include "crrecord/platform/fingerprint.h"

enum cr_reftype_t : unsigned int {
  CR_TREF_TYPE_NONE = 0,
  CR_TREF_TYPE_FILE = 1,
  CR_TREF_TYPE_TASKID = 2,
  CR_TREF_TYPE_SNAPSHOT = 3,
  CR_TREF_TYPE_DSID = 4,
  CR_TREF_TYPE_VOLUME = 5,
  CR_TREF_TYPE_RETENTION = 6,
  CR_TREF_TYPE_SYSTEM = 7,
  CR_TREF_TYPE_LEGACY = 8,
  CR_TREF_TYPE_HOLD = 9,
  CR_TREF_TYPE_REPLICA = 10,
  CR_TREF_TYPE_END = 11
};

enum : int { CR_TREF_MODE_TEXT = 0, CR_TREF_MODE_BINARY = 1 };
enum : size_t { CR_TREF_MAX_PAYLOAD = 32, CR_TREF_TEXT_SIZE = 98 };

struct _cr_tref_t;  // opaque raw reference

// Any kind 0..10, payload 1..32 bytes; null and the CR errno set otherwise.
CRRECORD_PLATFORM_API _cr_tref_t* CRTRefNew(cr_reftype_t kind, const void* payload, size_t length);
CRRECORD_PLATFORM_API _cr_tref_t* CRTRefNewTaskID(unsigned long taskId);  // kind 2
CRRECORD_PLATFORM_API _cr_tref_t* CRTRefNewDSID(unsigned int dsid);       // kind 4
CRRECORD_PLATFORM_API _cr_tref_t* CRTRefDup(const _cr_tref_t* ref);
// Releases *ref and nulls it; no-op on null.
CRRECORD_PLATFORM_API void CRTRefDelete(_cr_tref_t** ref);
CRRECORD_PLATFORM_API cr_reftype_t CRTRefGetType(const _cr_tref_t* ref);
// The payload read as a big-endian number (its first 8 bytes at most).
CRRECORD_PLATFORM_API unsigned long CRTRefGetTaskID(const _cr_tref_t* ref);
// Kind first, then payload length, then payload bytes.
CRRECORD_PLATFORM_API int CRTRefCompare(const _cr_tref_t* a, const _cr_tref_t* b);
CRRECORD_PLATFORM_API int CRTRefEqual(const _cr_tref_t* a, const _cr_tref_t* b);
CRRECORD_PLATFORM_API size_t CRTRefSerializedSize(const _cr_tref_t* ref, int mode);
// Returns the bytes written (mode 0: the text and its NUL), or 0 when the room
// is too small (CR errno set).
CRRECORD_PLATFORM_API size_t CRTRefSerialize(void* dst, size_t room, const _cr_tref_t* ref, int mode);
// Decodes one reference of `left` bytes at most; stores the bytes consumed.
// Null and the CR errno set on truncated or malformed input.
CRRECORD_PLATFORM_API _cr_tref_t* CRTRefNewDeserialize(const void* src, size_t left, int mode,
                                                       unsigned long* consumed);
// The mode-0 text in `buffer` (cut to `size`); returns buffer.
CRRECORD_PLATFORM_API char* CRTRefToString(char* buffer, size_t size, const _cr_tref_t* ref);

// A digest object: the digest of a record, its digest type and container.
struct cr_tdigest_t {
  unsigned char type;
  crfp_digest_t digest;
  unsigned long cid;
};
// Null when memory runs out. Release with CRTDigestDelete.
CRRECORD_PLATFORM_API cr_tdigest_t* CRTDigestNewFull(unsigned char type, const crfp_digest_t* digest,
                                                     unsigned long cid);
CRRECORD_PLATFORM_API void CRTDigestDelete(cr_tdigest_t** digest);

#endif  // CRRECORD_PLATFORM_TREF_H
