/// @file
/// The serialized forms of a DO record: the serialized DO record (DO types
/// 0, 1, 2, 3 and 5) and the serialized Bloom DO record (DO type 4). Both
/// are big-endian throughout and share a 28-byte head.
///
/// @code{.unparsed}
///   head (both forms):
///     off size field
///       0   8  size      file size in bytes
///       8   8  ssize     segment size in bytes
///      16   4  checksum  Adler-32 of bytes 28..end, or the record's CRC
///      20   4  nfp       segments; 0 in the Bloom form
///      24   4  zero
///
///   serialized DO record:
///   | head 28 | nfp entries: fingerprint text T, then the DO type's X bytes |
///   | zero byte 1 | nfp DCIDs of 8 bytes |
///   T = 65 for fingerprint type 3, else 33 (hex text, NUL, zero fill);
///   X = 0 for DO types 0 and 1, 4 (size) for 2, 12 (size, u64 offset) for 3,
///       8 (size, u32 object offset) for 5.
///
///   serialized Bloom DO record:
///   | head 28 | bsize 4 | bitmap bsize |
///   | list checksum 4 (Adler-32 of the next 4 + 16n bytes; 0 when n is 0) |
///   | n 4 | n x (DCID 8, bytes 8) | zero 16 |
///   The head's checksum field always holds the Adler-32 of bytes 28..end.
/// @endcode
///
/// The forms carry neither the DO type nor the fingerprint type: a reader
/// is told them (DORecordHeaderDeserialize). The segment form's head holds
/// the Adler-32 of its body only when the writer asked for a checksum
/// (DORecordSerializedHasAdler32 tells whether it does).
#ifndef CRRECORD_DORECORDSERIALIZED_H
#define CRRECORD_DORECORDSERIALIZED_H

#include <cstdint>

#include "crrecord/DOSegmentLayout.h"

namespace crrecord {

/// Offsets and widths of the serialized forms (see the drawing above).
namespace serialized {

constexpr uint64_t kSizeAt = 0;        ///< u64 file size
constexpr uint64_t kSsizeAt = 8;       ///< u64 segment size
constexpr uint64_t kChecksumAt = 16;   ///< u32 checksum or CRC
constexpr uint64_t kNfpAt = 20;        ///< u32 segment count
constexpr uint64_t kZeroAt = 24;       ///< u32 zero
constexpr uint64_t kHeadSize = 28;     ///< the head; the body follows

/// Serialized DO record: the zero byte between the entries and the DCIDs.
constexpr uint64_t kSeparatorSize = 1;
/// Serialized DO record: one DCID after the entries.
constexpr uint64_t kDCIDSize = 8;

/// Serialized Bloom DO record: the u32 bitmap length at the body's start.
constexpr uint64_t kBloomLengthAt = kHeadSize;
/// Serialized Bloom DO record: the bitmap, bsize bytes from here.
constexpr uint64_t kBloomBitmapAt = kBloomLengthAt + 4;
/// Serialized Bloom DO record: the list's checksum and count words that
/// follow the bitmap.
constexpr uint64_t kBloomListHead = 8;
/// Serialized Bloom DO record: one unique-DCID entry (DCID, bytes).
constexpr uint64_t kBloomListEntry = 16;
/// Serialized Bloom DO record: the zero bytes that end it.
constexpr uint64_t kBloomTrailingZeros = 16;
/// Serialized Bloom DO record: every byte but the bitmap's and the list
/// entries' (head, length word, list head, trailing zeros).
constexpr uint64_t kBloomFixedSize = kBloomBitmapAt + kBloomListHead + kBloomTrailingZeros;

static_assert(kHeadSize == kZeroAt + 4, "the head ends with its zero word");
static_assert(kBloomFixedSize == 56, "a Bloom form without bitmap or list is 56 bytes");

/// Where the count word of a Bloom form's list stands, for a bitmap of
/// @p bsize bytes.
constexpr uint64_t BloomCountAt(uint32_t bsize) {
  return kBloomBitmapAt + bsize + 4;
}

/// Bytes of the serialized Bloom DO record with a bitmap of @p bsize bytes
/// and @p nudcid list entries.
constexpr uint64_t BloomSize(uint32_t bsize, uint32_t nudcid) {
  return kBloomFixedSize + uint64_t{bsize} + kBloomListEntry * nudcid;
}

/// Bytes of one segment's fingerprint text field: 65 for fingerprint type
/// 3, else 33.
constexpr uint64_t FingerprintTextSize(unsigned int fptype) { return fptype == 3 ? 65 : 33; }

/// Bytes after the fingerprint text in one segment entry: 4 for DO type 2,
/// 12 for 3, 8 for 5, else 0 (the fields of DOSegmentLayout.h, big-endian).
constexpr uint64_t EntryFieldsSize(unsigned int dotype) { return SegmentFieldsWidth(dotype); }

/// Bytes that one segment takes in the serialized DO record: its entry and
/// its DCID.
constexpr uint64_t SegmentSize(unsigned int dotype, unsigned int fptype) {
  return FingerprintTextSize(fptype) + EntryFieldsSize(dotype) + kDCIDSize;
}

/// Exact bytes of the serialized DO record with @p nfp segments (DO types
/// 0, 1, 2, 3 and 5); cannot wrap, nfp being 32 bits.
constexpr uint64_t RecordSize(uint32_t nfp, unsigned int dotype, unsigned int fptype) {
  return kHeadSize + kSeparatorSize + uint64_t{nfp} * SegmentSize(dotype, fptype);
}

static_assert(RecordSize(1, 0, 1) == 29 + 41, "DO type 0, fingerprint type 1: 41 per segment");
static_assert(RecordSize(1, 3, 3) == 29 + 85, "DO type 3, fingerprint type 3: 85 per segment");

}  // namespace serialized
}  // namespace crrecord

#endif  // CRRECORD_DORECORDSERIALIZED_H
