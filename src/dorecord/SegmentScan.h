// The success path of checkSegmentList as one pass over the segment list
// that can be fed the list in pieces, so that a builder can check each piece
// while it is still in the cache. It only tells whether the list is sound;
// when it is not, checkSegmentList's pass-by-pass check finds the failure
// that the passes meet first and throws it, so both agree by construction.
#ifndef CRRECORD_SRC_DORECORD_SEGMENTSCAN_H
#define CRRECORD_SRC_DORECORD_SEGMENTSCAN_H

#include <cstdint>

#include "crrecord/DOSegmentLayout.h"

namespace crrecord {

class SegmentListScan {
 public:
  // networkOrder: sizes and offsets stand byte-swapped; subDO: sizes are
  // exempt from the magnitude test.
  SegmentListScan(unsigned char dotype, unsigned char fptype, bool networkOrder, bool subDO);

  // Whether the list needs its entries scanned at all (the entries carry sizes).
  bool ReadsEntries() const { return readsEntries_; }

  // The next `count` entries of the list, in segment order. The first call
  // gets entry 0.
  void Scan(const unsigned char* entries, uint32_t count);

  // After the whole list was scanned: true when checkSegmentList would
  // pass. size, ssize and nfp are the header's, as host values.
  bool Sound(uint64_t size, uint64_t ssize, uint32_t nfp) const;

 private:
  bool invalid_;  // CR_DO_TYPE_INVALID: never sound
  SegmentCheck check_;
  unsigned int entryWidth_;
  bool networkOrder_;
  bool subDO_;
  bool readsEntries_;            // the entries carry sizes
  unsigned int sizeAt_;          // the size's place in an entry
  unsigned int offsetFromSize_;  // the u64 offset's place after the size (ordered lists)
  uint32_t sizeBits_ = 0;    // OR of every size
  uint64_t offsetBits_ = 0;  // OR of every offset
  uint64_t sizeSum_ = 0;
  uint64_t end_ = 0;         // end of the last segment scanned (DO type 3)
  bool ordered_ = true;      // no offset below the previous segment's end
};

}  // namespace crrecord

#endif  // CRRECORD_SRC_DORECORD_SEGMENTSCAN_H
