// Internal arithmetic of the DO record format, shared by the units of
// src/dorecord. The layout itself is drawn in <crrecord/DORecord.h>.
#ifndef CRRECORD_SRC_DORECORD_DORECORDFORMAT_H
#define CRRECORD_SRC_DORECORD_DORECORDFORMAT_H

#include <cstddef>
#include <cstdint>

#include "common/Adler32.h"
#include "crrecord/common/Endian.h"
#include "crrecord/DORecord.h"
#include "crrecord/DORecordSerialized.h"
#include "dorecord/SegmentLayout.h"

namespace crrecord {

constexpr uint16_t kDORecordType = 3;
constexpr unsigned int kDOHeaderSize = sizeof(DORecordHeader);
// The Bloom section: length word, bitmap, then these reserved bytes.
constexpr unsigned int kBloomLengthWord = 4;
constexpr unsigned int kBloomReservedBytes = serialized::kBloomTrailingZeros;
// The unique-DCID section: checksum word, count word, then 16-byte entries,
// as the serialized Bloom form carries it.
constexpr unsigned int kUDCIDHead = serialized::kBloomListHead;
constexpr unsigned int kUDCIDEntry = serialized::kBloomListEntry;

// Length of the unique-DCID section with n entries (0 when there is none).
inline uint64_t UDCIDSectionSize(uint32_t n) {
  return n == 0 ? 0 : kUDCIDHead + uint64_t{kUDCIDEntry} * n;
}

// Whether a header stands in network order, told by its type field, which
// reads 3 in host order. The locators use it so that they find the same
// place in either byte order; a header of another type counts as host order.
inline bool HeaderInNetworkOrder(const DORecordHeader* h) {
  return h->type != kDORecordType && ByteSwap(h->type) == kDORecordType;
}

// Header counts as host values, in whichever order the header stands.
struct HeaderCounts {
  uint32_t ntaskid, nfp, nudcid, nds, trefsize, bsize;
};

inline HeaderCounts ReadCounts(const DORecordHeader* h) {
  bool net = HeaderInNetworkOrder(h);
  return HeaderCounts{InRecordOrder(h->ntaskid, net), InRecordOrder(h->nfp, net),
                      InRecordOrder(h->nudcid, net),  InRecordOrder(h->nds, net),
                      InRecordOrder(h->trefsize, net), InRecordOrder(h->bsize, net)};
}


// Whether a Bloom record's unique-DCID list stands big-endian, as a record
// rebuilt from the serialized Bloom form holds it until it is normalized.
// The length word tells, being bsize in the list's order; when bsize reads
// the same both ways the count word tells, and then the checksum word.
// `section` is the unique-DCID section, which must lie inside the record.
inline bool BloomListIsBigEndian(uint32_t lengthWord, uint32_t bsize, const unsigned char* section,
                                 uint32_t nudcid) {
  auto tell = [](uint32_t stored, uint32_t expected, int* verdict) {
    bool host = stored == expected, big = ByteSwap(stored) == expected;
    if (host != big) *verdict = big ? 1 : 0;
  };
  int verdict = -1;
  tell(lengthWord, bsize, &verdict);
  if (verdict < 0 && nudcid != 0) tell(Load<uint32_t>(section + 4), nudcid, &verdict);
  if (verdict < 0 && nudcid != 0) {
    tell(Load<uint32_t>(section), Adler32(section + 4, 4 + uint64_t{kUDCIDEntry} * nudcid),
         &verdict);
  }
  return verdict == 1;
}

}  // namespace crrecord

#endif  // CRRECORD_SRC_DORECORD_DORECORDFORMAT_H
