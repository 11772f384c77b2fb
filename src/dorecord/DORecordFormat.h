// Internal arithmetic of the DO record format, shared by the units of
// src/dorecord. The layout itself is drawn in <crrecord/DORecord.h>.
#ifndef CRRECORD_SRC_DORECORD_DORECORDFORMAT_H
#define CRRECORD_SRC_DORECORD_DORECORDFORMAT_H

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "common/Adler32.h"
#include "crrecord/common/Endian.h"
#include "crrecord/common/FingerprintWidth.h"
#include "crrecord/DORecord.h"
#include "crrecord/DORecordSerialized.h"
#include "dorecord/SegmentLayout.h"

namespace crrecord {

constexpr uint16_t kDORecordType = 3;
constexpr unsigned int kDOHeaderSize = sizeof(DORecordHeader);
// The Bloom section: length word, bitmap, then these reserved bytes.
constexpr unsigned int kBloomLengthWord = 4;
constexpr unsigned int kBloomReservedBytes = sizeof kBloomListBigEndianMark;
// The unique-DCID section: checksum word, count word, then 16-byte entries,
// as the serialized Bloom form carries it.
constexpr unsigned int kUDCIDHead = serialized::kBloomListHead;
constexpr unsigned int kUDCIDEntry = serialized::kBloomListEntry;

static_assert(serialized::FingerprintTextSize(3) == FingerprintTextWidth(3) &&
                  serialized::FingerprintTextSize(1) == FingerprintTextWidth(1),
              "the serialized forms hold fingerprint text in fields of the text width");

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
// rebuilt from the serialized Bloom form holds it until it is normalized:
// its section's reserved bytes hold the mark (see DORecord.h). The length
// word cannot tell, AppendBloom swapping it whatever the list's order.
// `bsize` is the header's, as a host value.
inline bool BloomListIsBigEndian(const DORecordHeader* h, uint32_t bsize) {
  return std::memcmp(DORecordHeaderGetBloom(h) + bsize, kBloomListBigEndianMark,
                     kBloomReservedBytes) == 0;
}

}  // namespace crrecord

#endif  // CRRECORD_SRC_DORECORD_DORECORDFORMAT_H
