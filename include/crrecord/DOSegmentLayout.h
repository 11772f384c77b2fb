/// @file
/// The DO types and, for each, the fields that follow a segment's
/// fingerprint. A stored record and the serialized DO record hold the same
/// fields in the same order (host order in the one, big-endian in the
/// other); the digest block holds them as the serialized record does.
/// Adding a DO type with a segment list is one row of kDOTypeLayouts.
#ifndef CRRECORD_DOSEGMENTLAYOUT_H
#define CRRECORD_DOSEGMENTLAYOUT_H

#include <cstdint>
#include <cstring>

/// DO types (the header's dotype): what a segment entry holds after its
/// fingerprint.
enum : unsigned char {
  CR_DO_TYPE_ORIGINAL = 0,       ///< nothing; sizes derived from size and ssize
  CR_DO_TYPE_NO_SIZE = 1,        ///< as type 0; differs only in how the digest is formed
  CR_DO_TYPE_NO_OFFSET = 2,      ///< u32 segment size
  CR_DO_TYPE_8_BYTE_OFFSET = 3,  ///< u32 segment size, then u64 offset
  CR_DO_TYPE_BLOOM_FILTER = 4,   ///< no segment list: a Bloom section instead
  CR_DO_TYPE_4_BYTE_OFFSET = 5,  ///< u32 segment size, then u32 object offset
  CR_DO_TYPE_INVALID = 255,      ///< marks an invalid record; refused by validation
};

namespace crrecord {

/// One kind of field after a segment's fingerprint.
enum class SegmentField : unsigned char {
  kSize,          ///< u32 bytes of the segment
  kOffset,        ///< u64 offset of the segment in the file
  kObjectOffset,  ///< u32 offset of the segment in its object
};

/// How a segment list is checked against the header's size and ssize.
enum class SegmentCheck : unsigned char {
  kNone,     ///< no segment list (Bloom DO records)
  kBound,    ///< sizes derived: size may not exceed nfp * ssize
  kSizeSum,  ///< the stored sizes sum to size
  kOrdered,  ///< segments by offset neither overlap nor end past size
};

/// One field after the fingerprint.
struct SegmentFieldLayout {
  SegmentField field;   ///< which field
  unsigned char width;  ///< 4 or 8 bytes
  unsigned char at;     ///< bytes after the fingerprint
  const char* name;     ///< the field's name in text forms: size, offset, object_offset
};

/// What one DO type's segment entries hold after the fingerprint, in order.
struct DOTypeLayout {
  unsigned char dotype;  ///< the DO type the row describes
  SegmentCheck check;    ///< how its segment list is checked
  unsigned char count;  ///< fields used of `fields`
  SegmentFieldLayout fields[2];  ///< the fields after the fingerprint, in order
  unsigned char width;  ///< bytes of all fields together
  const char* symbol;   ///< the DO type's constant, as messages name it
  const char* description;  ///< what the entries carry, in words
};

/// Every DO type that has a record form, in DO-type order.
constexpr DOTypeLayout kDOTypeLayouts[] = {
    {CR_DO_TYPE_ORIGINAL, SegmentCheck::kBound, 0, {}, 0, "CR_DO_TYPE_ORIGINAL",
     "original: fixed-size segments"},
    {CR_DO_TYPE_NO_SIZE, SegmentCheck::kBound, 0, {}, 0, "CR_DO_TYPE_NO_SIZE",
     "fixed-size segments"},
    {CR_DO_TYPE_NO_OFFSET, SegmentCheck::kSizeSum, 1, {{SegmentField::kSize, 4, 0, "size"}}, 4,
     "CR_DO_TYPE_NO_OFFSET", "segment sizes"},
    {CR_DO_TYPE_8_BYTE_OFFSET, SegmentCheck::kOrdered, 2,
     {{SegmentField::kSize, 4, 0, "size"}, {SegmentField::kOffset, 8, 4, "offset"}}, 12,
     "CR_DO_TYPE_8_BYTE_OFFSET", "segment sizes and 8-byte offsets"},
    {CR_DO_TYPE_BLOOM_FILTER, SegmentCheck::kNone, 0, {}, 0, "CR_DO_TYPE_BLOOM_FILTER",
     "Bloom filter"},
    {CR_DO_TYPE_4_BYTE_OFFSET, SegmentCheck::kSizeSum, 2,
     {{SegmentField::kSize, 4, 0, "size"}, {SegmentField::kObjectOffset, 4, 4, "object_offset"}},
     8, "CR_DO_TYPE_4_BYTE_OFFSET", "segment sizes and 4-byte object offsets"},
};

/// The layout of DO type @p dotype; null for a DO type without one (6 and
/// up, among them CR_DO_TYPE_INVALID).
constexpr const DOTypeLayout* FindDOTypeLayout(unsigned int dotype) {
  return dotype < sizeof kDOTypeLayouts / sizeof kDOTypeLayouts[0] ? &kDOTypeLayouts[dotype]
                                                                   : nullptr;
}

/// Bytes after the fingerprint in a segment entry of DO type @p dotype; 0
/// for a DO type without a layout.
constexpr unsigned int SegmentFieldsWidth(unsigned int dotype) {
  return FindDOTypeLayout(dotype) ? FindDOTypeLayout(dotype)->width : 0;
}

/// The field @p f of DO type @p dotype, or null when its entries lack it.
constexpr const SegmentFieldLayout* FindSegmentField(unsigned int dotype, SegmentField f) {
  const DOTypeLayout* l = FindDOTypeLayout(dotype);
  for (unsigned int k = 0; l != nullptr && k < l->count; ++k) {
    if (l->fields[k].field == f) return &l->fields[k];
  }
  return nullptr;
}

/// Field @p f of the entry whose fields start at @p fields, in the record's
/// byte order; unaligned.
inline uint64_t LoadSegmentField(const unsigned char* fields, const SegmentFieldLayout& f) {
  if (f.width == 8) {
    uint64_t v;
    std::memcpy(&v, fields + f.at, 8);
    return v;
  }
  uint32_t v;
  std::memcpy(&v, fields + f.at, 4);
  return v;
}

/// Stores @p value, cut to the field's width, as field @p f of the entry
/// whose fields start at @p fields; unaligned.
inline void StoreSegmentField(unsigned char* fields, const SegmentFieldLayout& f, uint64_t value) {
  if (f.width == 8) {
    std::memcpy(fields + f.at, &value, 8);
    return;
  }
  const uint32_t v = static_cast<uint32_t>(value);
  std::memcpy(fields + f.at, &v, 4);
}

/// @cond INTERNAL
namespace detail {
constexpr bool RowsAreSound() {
  for (unsigned int t = 0; t < sizeof kDOTypeLayouts / sizeof kDOTypeLayouts[0]; ++t) {
    const DOTypeLayout& l = kDOTypeLayouts[t];
    unsigned int at = 0;
    for (unsigned int k = 0; k < l.count; ++k) {
      if (l.fields[k].at != at || (l.fields[k].width != 4 && l.fields[k].width != 8)) return false;
      at += l.fields[k].width;
    }
    if (l.dotype != t || l.width != at) return false;
    // The checks read what they check: stored sizes first, a u64 offset.
    const bool sizeFirst = l.count > 0 && l.fields[0].field == SegmentField::kSize;
    if ((l.check == SegmentCheck::kSizeSum || l.check == SegmentCheck::kOrdered) != sizeFirst) {
      return false;
    }
    const SegmentFieldLayout* offset = FindSegmentField(t, SegmentField::kOffset);
    if ((l.check == SegmentCheck::kOrdered) != (offset != nullptr && offset->width == 8)) {
      return false;
    }
  }
  return true;
}
}  // namespace detail
/// @endcond
static_assert(detail::RowsAreSound(),
              "rows in DO-type order, fields packed in order, width their sum; sizes first "
              "where a check sums or orders them, a u64 offset where it orders them");

}  // namespace crrecord

#endif  // CRRECORD_DOSEGMENTLAYOUT_H
