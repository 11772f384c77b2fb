// The widths of a segment entry and the conversions of its fields, for
// every unit that walks a segment list. Which fields a DO type has, their
// widths and order are the rows of <crrecord/DOSegmentLayout.h>; nothing
// here names a DO type.
#ifndef CRRECORD_SRC_DORECORD_SEGMENTLAYOUT_H
#define CRRECORD_SRC_DORECORD_SEGMENTLAYOUT_H

#include <cstdint>

#include "crrecord/DOSegmentLayout.h"
#include "crrecord/common/FingerprintWidth.h"
#include "crrecord/DORecordSerialized.h"

namespace crrecord {

// Bytes after the fingerprint in one segment entry, the same in a record
// and its serialized form. A DO type without a layout has none, so a loop
// over its entries writes exactly what a size computed from this counts.
inline unsigned int SegmentExtraWidth(unsigned char dotype) { return SegmentFieldsWidth(dotype); }

inline unsigned int SegmentEntryWidth(unsigned char fptype, unsigned char dotype) {
  return FingerprintWidth(fptype) + SegmentExtraWidth(dotype);
}

// The widths of one record's segment list, read once from its header by
// every unit that walks the list (serializer, digest, text form).
struct SegmentListShape {
  SegmentListShape(unsigned char fp, unsigned char dt, uint32_t count)
      : fptype(fp),
        dotype(dt),
        nfp(count),
        fpWidth(FingerprintWidth(fp)),
        textWidth(FingerprintTextWidth(fp)),
        extra(SegmentExtraWidth(dt)),
        layout(FindDOTypeLayout(dt)) {}

  // Bytes of one entry in the record and in the serialized form.
  unsigned int entryWidth() const { return fpWidth + extra; }
  unsigned int outWidth() const { return textWidth + extra; }
  // The fields after the fingerprint (none for a DO type without a layout).
  unsigned int fieldCount() const { return layout != nullptr ? layout->count : 0; }

  unsigned char fptype;
  unsigned char dotype;
  uint32_t nfp;
  unsigned int fpWidth;
  unsigned int textWidth;
  unsigned int extra;
  const DOTypeLayout* layout;
};

// Whether the entries carry the segment sizes.
inline bool HasStoredSizes(unsigned char dotype) {
  return FindSegmentField(dotype, SegmentField::kSize) != nullptr;
}

// How a DO type's list is checked; CR_DO_TYPE_INVALID is refused before.
inline SegmentCheck CheckOf(unsigned char dotype) {
  const DOTypeLayout* l = FindDOTypeLayout(dotype);
  return l != nullptr ? l->check : SegmentCheck::kNone;
}

// Whether the segment sizes follow from size and ssize rather than being
// stored.
inline bool SizesDerived(unsigned char dotype) { return CheckOf(dotype) == SegmentCheck::kBound; }

// Copies the fields of `count` entries from `src` (one entry every
// srcStride bytes, starting at the first entry's fields) to `dst` (every
// dstStride), byte-swapping each field: host order to big-endian and back,
// or a record to and from network order (in place when src == dst).
void SwapSegmentFields(const unsigned char* src, unsigned int srcStride, unsigned char* dst,
                       unsigned int dstStride, uint32_t count, unsigned char dotype);

// The serialized entries (fingerprint text, then the fields big-endian) of
// `count` record entries starting at `entry`: the serialized DO record and
// the digest block hold them byte for byte alike. Returns the status of the
// fingerprints' text conversion; when that is not 0 the text fields hold
// whatever it left and the caller decides.
int WriteSerializedEntries(unsigned char* dst, const unsigned char* entry, uint32_t count,
                           unsigned char fptype, unsigned char dotype);

}  // namespace crrecord

#endif  // CRRECORD_SRC_DORECORD_SEGMENTLAYOUT_H
