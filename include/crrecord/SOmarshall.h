/// @file
/// The segment DB record: the stored form of one SO record (one per stored
/// segment), followed by the task IDs and DO fingerprints that refer to the
/// segment, and the free functions that convert, validate, serialize and
/// print it.
///
/// _SegmentDBRecord. A record stands in host order or in network order
/// (big-endian) as a whole; "conv" fields are swapped by the conversions,
/// the others are carried byte for byte in either order:
///
/// @code{.unparsed}
///   off size field       conv  meaning
///     0   2  type        yes   record type, 2 (CR_SO_RECORD_TYPE)
///     2   2  flags       yes   0 or 2
///     4   4  recsize     yes   bytes of the whole record: 104 + 8*n + D*m
///     8   4  unused      yes   not used by this library; zero when SORecord builds it
///    12   4  ntaskid     yes   n, task IDs after the fixed part
///    16   4  checktime   yes   time of the last check (seconds)
///    20   4  reserved1   no    carried unconverted
///    24   8  DCID        yes   container ID when fileID is 0, else the path ID
///    32   8  fileID      yes   0 for a segment stored in a container
///    40   8  size        yes   segment size in bytes
///    48   4  CRC         yes   CRC of the segment
///    52   4  ndo         yes   m, DO fingerprints after the task IDs
///    56  33  key         no    32-byte key field and one more byte, verbatim
///    89   1  fptype      no    fingerprint type
///    90   1  cryptoMode  no    crypto mode
///    91   1  pad         no    padding
///    92   2  keyIndex    no    key index, in whatever order it was stored
///    94   2  reserved2   no    carried unconverted
/// @endcode
///
/// Sections, with D = 32 for fingerprint type 3, else 16:
///
/// @code{.unparsed}
///   | 96-byte fixed part | task IDs 8*n (u64 each, conv) | DO fingerprints D*m (no) | trailer 8 |
/// @endcode
///
/// The record size counts the 8-byte trailer after the fingerprints, so a
/// record with no task IDs and no fingerprints is 104 bytes, bytes 96 to 103
/// being the (zero) trailer.
///
/// Choices this format makes:
/// - The conversions carry the trailer with the fingerprints (dropping the
///   task IDs moves it up by 8*n as well), so no byte of a record is lost or
///   left undefined by a conversion into another buffer.
/// - Converting into another buffer carries every unconverted byte: besides
///   the reserved words, the key and the fingerprint type, also the crypto
///   mode, the padding byte and the key index, since a record without its
///   crypto mode and key index could not be decrypted.
/// - The conversions and serialization trust the record's counts ("assume a
///   validated record"); SegmentRecordValidate is the gate for bytes from
///   disk or another process and reads nothing past the size it is given.
///
/// Serialized SO record (SegmentRecordSerialize), all integers big-endian,
/// W = 65 for fingerprint type 3, else 33:
///
/// @code{.unparsed}
///   off 0 u64 size | 8 u64 DCID | 16 u64 fileID | 24 u32 CRC | 28 u32 m |
///   32 m fields of W bytes: fingerprint text, NUL, zero-filled | one zero byte
/// @endcode
///
/// Its size is 33 + m*W bytes.
#ifndef CRRECORD_SOMARSHALL_H
#define CRRECORD_SOMARSHALL_H

#include <iosfwd>

#include "crrecord/export.h"
#include "crrecord/platform/status.h"

/// The fixed part of a segment DB record (96 bytes), drawn in SOmarshall.h.
/// The task IDs, DO fingerprints and trailer follow it in the same buffer.
/// Multi-byte fields marked "conv" in the drawing stand in the record's byte
/// order; the owner of the buffer knows which (SegmentRecordToStream tells it
/// by the type field).
struct _SegmentDBRecord {
  unsigned short type;       ///< record type, 2; record order
  unsigned short flags;      ///< 0 or 2; record order
  unsigned int recsize;      ///< bytes of the whole record: 104 + 8*n + D*m; record order
  unsigned int unused;       ///< not used by this library; record order
  unsigned int ntaskid;      ///< n, task IDs after the fixed part; record order
  unsigned int checktime;    ///< time of the last check, seconds; record order
  unsigned int reserved1;    ///< carried unconverted
  unsigned long DCID;        ///< container ID, or path ID when fileID != 0; record order
  unsigned long fileID;      ///< 0 for a segment in a container; record order
  unsigned long size;        ///< segment size in bytes; record order
  unsigned int CRC;          ///< CRC of the segment; record order
  unsigned int ndo;          ///< m, DO fingerprints after the task IDs; record order
  unsigned char key[33];     ///< key bytes (32 and the key type), verbatim
  unsigned char fptype;      ///< fingerprint type of the DO fingerprints
  unsigned char cryptoMode;  ///< crypto mode, uninterpreted
  unsigned char pad;         ///< padding
  unsigned short keyIndex;   ///< key index, never converted
  unsigned short reserved2;  ///< carried unconverted
};

/// The record type of an SO record.
enum : unsigned short {
  CR_SO_RECORD_TYPE = 2  ///< the value of _SegmentDBRecord::type
};

/// Sizes of a segment DB record.
enum : unsigned int {
  CR_SO_FIXED_SIZE = 96,        ///< the fixed part, sizeof(_SegmentDBRecord)
  CR_SO_RECORD_MIN_SIZE = 104,  ///< a record with no task IDs and no fingerprints
};

/// Flags of SegmentRecordHton / SegmentRecordNtoh.
enum : unsigned int {
  CR_SO_CONVERT_DROP_TASKIDS = 1,  ///< the destination gets no task IDs
};

/// Flags of SegmentRecordValidate.
enum : unsigned int {
  CR_SO_VALIDATE_NETWORK_ORDER = 1,  ///< the record is in network order
  CR_SO_VALIDATE_NO_TASKIDS = 2,     ///< the record must have no task IDs
};

/// True when the segment is stored in a container (file ID 0); such a
/// segment is addressed by its DCID, any other by path ID and file ID.
CRRECORD_API bool RecordInContainer(unsigned long fileID);

/// Converts a host-order record to network order, from @p src into @p dst;
/// @p dst may be @p src, or else must not overlap it. With
/// CR_SO_CONVERT_DROP_TASKIDS the destination has no task IDs, its
/// fingerprints start at offset 96 and its record size is 104 + D*m.
/// @p dst must hold the resulting record size. Checks nothing and cannot
/// fail. REQUIRES: @p src is a validated record in host order.
CRRECORD_API void SegmentRecordHton(_SegmentDBRecord* dst, const _SegmentDBRecord* src,
                                    unsigned int flags);
/// Converts a network-order record to host order, from @p src into @p dst,
/// as SegmentRecordHton does the other way (the same flags, the same rules
/// for the buffers). REQUIRES: @p src is a validated record in network
/// order.
CRRECORD_API void SegmentRecordNtoh(_SegmentDBRecord* dst, const _SegmentDBRecord* src,
                                    unsigned int flags);

/// Checks a record of @p size bytes read from outside, in this order: size
/// at least 96, type 2, recsize equal to size, size equal to 104 + 8*n + D*m,
/// no task IDs when CR_SO_VALIDATE_NO_TASKIDS is given, a valid fingerprint
/// type. With CR_SO_VALIDATE_NETWORK_ORDER the fields are read big-endian.
/// Returns 0; 9 for a null record or unknown flag bits; 32 for a failed
/// check, with a trace line naming it when tracing is on ("Invalid SO
/// record: ..."). Reads only the first 96 bytes, and only when @p size
/// allows.
CRRECORD_API cr_status_t SegmentRecordValidate(const _SegmentDBRecord* record, unsigned int size,
                                               unsigned int flags);

/// Writes the serialized SO record into a zero-filled buffer (calloc) of
/// 33 + m*W bytes, stores it in *@p out and its size in *@p outSize; the
/// caller releases it with free. Returns 0; 65 for a null argument; 9 for a
/// record in network order; the mapped status when allocation fails (the
/// output pointer is then null and "Could not serialize SO: malloc failed
/// for %u bytes (%s)" is logged). REQUIRES: a validated host-order record.
CRRECORD_API cr_status_t SegmentRecordSerialize(_SegmentDBRecord* record, void** out,
                                                unsigned long* outSize);

/// Prints the record on @p os and returns @p os.
///
/// Binary: writes the record's recsize bytes in network order; a host-order
/// record is converted in place for the write and back afterwards, also when
/// the stream throws (the exception then passes on). Text:
/// "type,1,flags,DCID,fileID,size,CRC,fptype,,n,m,[taskids],[fingerprints]"
/// without a line end; a network-order record is converted to host order for
/// the print and back afterwards. REQUIRES: a validated record; nobody else
/// reads it during the call.
CRRECORD_API std::ostream& SegmentRecordToStream(std::ostream& os, _SegmentDBRecord& record,
                                                 bool binary);

#endif  // CRRECORD_SOMARSHALL_H
