/// @file
/// Typed references: the stand-in for the service's typed-reference component.
///
/// A raw reference (_cr_tref_t) is a kind (0..10) and a payload of 1 to 32
/// bytes. Task IDs (kind 2) and data-selection IDs (kind 4) carry their number
/// big-endian, so references of one kind order numerically.
///
/// Binary form (mode 1), self-delimiting; this is what a DO record's
/// typed-reference section holds, one reference after another:
/// @code{.unparsed}
///   +------+--------+-----------------+
///   | kind | length | payload         |
///   | u8   | u8     | length bytes    |
///   +------+--------+-----------------+
/// @endcode
/// Text form (mode 0): NUL-terminated, at most 98 bytes with the NUL:
/// "taskid:<decimal>" (kind 2 with an 8-byte payload), "dsid:<decimal>"
/// (kind 4 with a 4-byte payload), or "tref<kind>:<hex payload>".
///
/// Failures return null or 0 and leave their status in the CR errno
/// (__cr_errno_location).
#ifndef CRRECORD_PLATFORM_TREF_H
#define CRRECORD_PLATFORM_TREF_H

#include <cstddef>

#include "crrecord/platform/export.h"
#include "crrecord/platform/fingerprint.h"

/// The kind of a typed reference; a DO record keeps one set per kind.
enum cr_reftype_t : unsigned int {
  CR_TREF_TYPE_NONE = 0,        ///< kind 0 (never visited by DORecord's iterator)
  CR_TREF_TYPE_FILE = 1,        ///< kind 1, a file
  CR_TREF_TYPE_TASKID = 2,      ///< kind 2, a task ID (8-byte big-endian payload)
  CR_TREF_TYPE_SNAPSHOT = 3,    ///< kind 3, a snapshot
  CR_TREF_TYPE_DSID = 4,        ///< kind 4, a data-selection ID (4-byte big-endian payload)
  CR_TREF_TYPE_VOLUME = 5,      ///< kind 5, a volume
  CR_TREF_TYPE_RETENTION = 6,   ///< kind 6, a retention
  CR_TREF_TYPE_SYSTEM = 7,      ///< kind 7, the system
  CR_TREF_TYPE_LEGACY = 8,      ///< kind 8, a legacy reference
  CR_TREF_TYPE_HOLD = 9,        ///< kind 9, a hold
  CR_TREF_TYPE_REPLICA = 10,    ///< kind 10, a replica
  CR_TREF_TYPE_END = 11         ///< end marker: one past the last kind; no reference has it
};

/// The mode argument of the serialization functions.
enum : int {
  CR_TREF_MODE_TEXT = 0,   ///< the NUL-terminated text form
  CR_TREF_MODE_BINARY = 1  ///< the binary form [kind][length][payload]
};
/// Limits of a raw reference.
enum : size_t {
  CR_TREF_MAX_PAYLOAD = 32,  ///< the largest payload, in bytes
  CR_TREF_TEXT_SIZE = 98     ///< a buffer this large holds every text form with its NUL
};

/// An opaque raw reference; made by the CRTRefNew* functions, CRTRefDup and
/// CRTRefNewDeserialize, released with CRTRefDelete.
struct _cr_tref_t;

/// A new reference of any kind 0..10 with a copy of the payload of 1..32
/// bytes; the caller releases it with CRTRefDelete. Null and the CR errno 9
/// for a bad kind, a null payload or a bad length; 22 when memory runs out.
CRRECORD_PLATFORM_API _cr_tref_t* CRTRefNew(cr_reftype_t kind, const void* payload, size_t length);
/// A new task-ID reference (kind 2, the ID as 8 big-endian bytes); null and
/// the CR errno 22 when memory runs out. Release with CRTRefDelete.
CRRECORD_PLATFORM_API _cr_tref_t* CRTRefNewTaskID(unsigned long taskId);
/// A new data-selection-ID reference (kind 4, the ID as 4 big-endian
/// bytes); null and the CR errno 22 when memory runs out.
CRRECORD_PLATFORM_API _cr_tref_t* CRTRefNewDSID(unsigned int dsid);
/// A new copy of @p ref, which stays the caller's; null and the CR errno 65
/// for a null @p ref, 22 when memory runs out.
CRRECORD_PLATFORM_API _cr_tref_t* CRTRefDup(const _cr_tref_t* ref);
/// Releases *@p ref and nulls it; no-op on null.
CRRECORD_PLATFORM_API void CRTRefDelete(_cr_tref_t** ref);
/// The reference's kind; CR_TREF_TYPE_END for a null reference.
CRRECORD_PLATFORM_API cr_reftype_t CRTRefGetType(const _cr_tref_t* ref);
/// The payload read as a big-endian number (its first 8 bytes at most): the
/// task ID of a kind-2 reference; 0 for a null reference.
CRRECORD_PLATFORM_API unsigned long CRTRefGetTaskID(const _cr_tref_t* ref);
/// Orders references: kind first, then payload length, then payload bytes.
/// Returns -1, 0 or 1; a null reference orders before every other.
CRRECORD_PLATFORM_API int CRTRefCompare(const _cr_tref_t* a, const _cr_tref_t* b);
/// Nonzero when CRTRefCompare gives 0.
CRRECORD_PLATFORM_API int CRTRefEqual(const _cr_tref_t* a, const _cr_tref_t* b);
/// Bytes the reference takes in @p mode: 2 + payload length in mode 1, the
/// text and its NUL in mode 0. 0 with the CR errno 65 for a null reference,
/// 9 for an unknown mode.
CRRECORD_PLATFORM_API size_t CRTRefSerializedSize(const _cr_tref_t* ref, int mode);
/// Writes the reference in @p mode into @p dst of @p room bytes. Returns the
/// bytes written (mode 0: the text and its NUL), or 0 with the CR errno set:
/// 65 for a null argument, 9 for an unknown mode, 122 when the room is too
/// small (nothing is written then).
CRRECORD_PLATFORM_API size_t CRTRefSerialize(void* dst, size_t room, const _cr_tref_t* ref, int mode);
/// Decodes one mode-1 reference from @p src, reading @p left bytes at most,
/// and stores the bytes consumed in *@p consumed (0 after a failure). The
/// caller releases the result with CRTRefDelete. Null and the CR errno on
/// failure: 65 for a null argument, 120 for truncated input, 121 for a bad
/// kind or length (and for mode 0, whose text is not read back), 9 for an
/// unknown mode, 22 when memory runs out.
CRRECORD_PLATFORM_API _cr_tref_t* CRTRefNewDeserialize(const void* src, size_t left, int mode,
                                                       unsigned long* consumed);
/// Writes the mode-0 text into @p buffer, cut to @p size bytes with its NUL;
/// a null reference gives "". Returns @p buffer (untouched when null or
/// @p size is 0).
CRRECORD_PLATFORM_API char* CRTRefToString(char* buffer, size_t size, const _cr_tref_t* ref);

/// A digest object: the digest of a record, its digest type and container.
/// Made by CRTDigestNewFull (and DORecord::GetDigest), released with
/// CRTDigestDelete.
struct cr_tdigest_t {
  unsigned char type;    ///< digest type: the record's fingerprint type
  crfp_digest_t digest;  ///< the digest bytes
  unsigned long cid;     ///< container ID of the record the digest is of
};
/// A new digest object holding copies of its arguments; the caller releases
/// it with CRTDigestDelete. Null and the CR errno 65 for a null @p digest,
/// 22 when memory runs out.
CRRECORD_PLATFORM_API cr_tdigest_t* CRTDigestNewFull(unsigned char type, const crfp_digest_t* digest,
                                                     unsigned long cid);
/// Releases *@p digest and nulls it; no-op on null.
CRRECORD_PLATFORM_API void CRTDigestDelete(cr_tdigest_t** digest);

#endif  // CRRECORD_PLATFORM_TREF_H
