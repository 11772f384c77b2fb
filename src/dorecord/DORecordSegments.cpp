// Per-segment access to a DO record and the consistency check of its
// segment list against the header's file size.
//
// Getters hand out sizes, offsets and object offsets in host order, in
// either byte order of the record; fingerprints and DCIDs as stored.
// Setters store the caller's value as given, without conversion.
// REQUIRES for every per-segment operation: i < nfp (not checked).
#include <cstring>
#include <sstream>

#include "crrecord/common/Endian.h"
#include "crrecord/DORecord.h"
#include "dorecord/DORecordFormat.h"
#include "dorecord/SegmentScan.h"
#include "status/Report.h"

using namespace crrecord;

namespace {

constexpr uint32_t kNoSegmentSize = 0xFFFFFFFFu;
constexpr uint64_t kNoSegmentOffset = ~uint64_t{0};
constexpr uint32_t kSizeMagnitudeBit = uint32_t{1} << 31;
constexpr uint64_t kOffsetMagnitudeBit = uint64_t{1} << 63;

const char kCorrupt[] = "Segment list of a DORecord is corrupt. ";
const char kWrongOrder[] = "Data is probably in wrong byte order (host vs. network order)";

// The messages are composed only once a test has failed, so that a sound
// list costs no allocation.

[[noreturn]] void ThrowSizeMagnitude(uint64_t i, uint32_t s) {
  std::ostringstream m;
  m << kCorrupt << "Segment " << i << " has size " << s << " (> 2 GiB). " << kWrongOrder;
  ThrowComposed(CR_STATUS_CORRUPT_SEGMENTS, m);
}

[[noreturn]] void ThrowOffsetMagnitude(uint64_t i, uint64_t o) {
  std::ostringstream m;
  m << kCorrupt << "Segment " << i << " has offset " << o << " (> 8192 PetaB). " << kWrongOrder;
  ThrowComposed(CR_STATUS_CORRUPT_SEGMENTS, m);
}

[[noreturn]] void ThrowTotalSize(uint64_t size, uint64_t bound) {
  std::ostringstream m;
  m << "Segment list of DORecord CR_DO_TYPE_ORIGINAL|CR_DO_TYPE_NO_SIZE is corrupt. "
    << "Original file size:" << size << ". " << "Segm. size times segm. count:" << bound << ".";
  ThrowComposed(CR_STATUS_CORRUPT_SEGMENTS, m);
}

[[noreturn]] void ThrowSizeSum(const char* typeName, uint64_t size, uint64_t sum) {
  std::ostringstream m;
  m << "Segment list of DORecord " << typeName << " is corrupt. "
    << "Original file size:" << size << ". " << "Sum of segm. sizes:" << sum << ".";
  ThrowComposed(CR_STATUS_CORRUPT_SEGMENTS, m);
}

[[noreturn]] void ThrowOrder(const char* typeName, uint64_t i, uint64_t o, uint64_t end) {
  std::ostringstream m;
  m << "Segment list of DORecord " << typeName << " is corrupt. "
    << "Offset of segm. " << i << ":" << o << ". " << "Previous segm. end:" << end << ".";
  ThrowComposed(CR_STATUS_CORRUPT_SEGMENTS, m);
}

[[noreturn]] void ThrowEnd(const char* typeName, uint64_t size, uint64_t end) {
  std::ostringstream m;
  m << "Segment list of DORecord " << typeName << " is corrupt. "
    << "Original file size:" << size << ". " << "End offset of last segment:" << end << ". ";
  ThrowComposed(CR_STATUS_CORRUPT_SEGMENTS, m);
}

}  // namespace

// --- Getters -----------------------------------------------------------------------

unsigned int DORecord::GetSegmentSize(unsigned int i) const {
  const unsigned char dotype = header_->dotype;
  if (SizesDerived(dotype)) {
    // Every segment but the last has the nominal size; the last one takes
    // the rest of the file. Computed in 64 bits, handed out as 32.
    const uint64_t ssize = GetSsize();
    const uint64_t nfp = GetNfp();
    if (uint64_t{i} + 1 != nfp) return static_cast<uint32_t>(ssize);
    return static_cast<uint32_t>(GetSize() - (nfp - 1) * ssize);
  }
  if (HasStoredSizes(dotype)) {
    return LoadOrdered<uint32_t>(DORecordHeaderIndexOfSegmentSize(header_, i), networkOrder_);
  }
  return kNoSegmentSize;
}

unsigned long DORecord::GetSegmentOffset(unsigned int i) const {
  if (!FindSegmentField(header_->dotype, SegmentField::kOffset)) return kNoSegmentOffset;
  return LoadOrdered<uint64_t>(DORecordHeaderIndexOfSegmentOffset(header_, i), networkOrder_);
}

unsigned int DORecord::GetSegmentObjectOffset(unsigned int i) const {
  if (!FindSegmentField(header_->dotype, SegmentField::kObjectOffset)) return kNoSegmentSize;
  return LoadOrdered<uint32_t>(DORecordHeaderIndexOfSegmentObjectOffset(header_, i),
                               networkOrder_);
}

unsigned long DORecord::GetSegmentField(unsigned int i, crrecord::SegmentField f) const {
  switch (f) {
    case SegmentField::kSize:
      return GetSegmentSize(i);
    case SegmentField::kOffset:
      return GetSegmentOffset(i);
    case SegmentField::kObjectOffset:
      return GetSegmentObjectOffset(i);
  }
  return kNoSegmentOffset;
}

const unsigned char* DORecord::GetSegmentFP(unsigned int i) const {
  return DORecordHeaderIndexOfSegment(header_, i);
}

unsigned long DORecord::GetSegmentDCID(unsigned int i) const {
  return Load<uint64_t>(DORecordHeaderIndexOfDCID(header_, i));
}

const unsigned char* DORecord::GetSegmentDCIDList() const {
  return DORecordHeaderIndexOfDCID(header_, 0);
}

unsigned long DORecord::GetSegmentUDCID(unsigned int i) const {
  return Load<uint64_t>(DORecordHeaderIndexOfUDCID(header_, i));
}

const unsigned char* DORecord::GetSegmentUDCIDList() const {
  return DORecordHeaderStartUDCID(header_);
}

// --- Setters -----------------------------------------------------------------------
// A value for a field the DO type lacks is dropped, so that nothing outside
// the segment's own fields is ever written; mtime is stamped regardless, as
// for any other change the caller asked for.

void DORecord::SetSegmentSize(unsigned int i, unsigned int size) {
  if (HasStoredSizes(header_->dotype)) {
    Store<uint32_t>(DORecordHeaderIndexOfSegmentSize(header_, i), size);
  }
  handleUpdate();
}

void DORecord::SetSegmentOffset(unsigned int i, unsigned long offset) {
  if (FindSegmentField(header_->dotype, SegmentField::kOffset)) {
    Store<uint64_t>(DORecordHeaderIndexOfSegmentOffset(header_, i), offset);
  }
  handleUpdate();
}

void DORecord::SetSegmentObjectOffset(unsigned int i, unsigned int offset) {
  if (FindSegmentField(header_->dotype, SegmentField::kObjectOffset)) {
    Store<uint32_t>(DORecordHeaderIndexOfSegmentObjectOffset(header_, i), offset);
  }
  handleUpdate();
}

void DORecord::SetSegmentFP(unsigned int i, const crfp_digest_t& fp) {
  std::memcpy(DORecordHeaderIndexOfSegment(header_, i), fp.digest,
              FingerprintWidth(header_->fptype));
}

void DORecord::SetSegmentDCID(unsigned int i, unsigned long dcid) {
  Store<uint64_t>(DORecordHeaderIndexOfDCID(header_, i), dcid);
}

// --- Checks ------------------------------------------------------------------------
// A list read in the wrong byte order shows up as absurd magnitudes: a size
// with bit 31 set, an offset with bit 63 set.

void DORecord::checkSegmentSizeEndiannes() const {
  // A sub-DO's segments may be larger than any segment of a whole file.
  if (subDO_) return;
  const uint32_t nfp = GetNfp();
  for (uint32_t i = 0; i < nfp; ++i) {
    const uint32_t s = GetSegmentSize(i);
    if ((s & kSizeMagnitudeBit) != 0) ThrowSizeMagnitude(i, s);
  }
}

void DORecord::checkSegmentOffsetEndiannes() const {
  const uint32_t nfp = GetNfp();
  for (uint32_t i = 0; i < nfp; ++i) {
    const uint64_t o = GetSegmentOffset(i);
    if ((o & kOffsetMagnitudeBit) != 0) ThrowOffsetMagnitude(i, o);
  }
}

namespace {

// The check pass by pass, each pass over all segments before the next, and
// the first failing test thrown. checkSegmentList comes here only for a
// list that SegmentListScan found unsound.
void CheckByPasses(const DORecord& r) {
  const unsigned char dotype = r.GetDOType();
  const uint32_t nfp = r.GetNfp();
  const uint64_t size = r.GetSize();
  if (dotype == CR_DO_TYPE_INVALID) ThrowFixed(CR_STATUS_INVALID, "invalid DO type");
  switch (CheckOf(dotype)) {
    case SegmentCheck::kBound: {
      // Only an upper bound: the last segment may be shorter than ssize.
      const uint64_t bound = uint64_t{nfp} * r.GetSsize();
      if (size > bound) ThrowTotalSize(size, bound);
      return;
    }

    case SegmentCheck::kSizeSum: {
      r.checkSegmentSizeEndiannes();
      uint64_t sum = 0;
      for (uint32_t i = 0; i < nfp; ++i) sum += r.GetSegmentSize(i);
      if (sum != size) ThrowSizeSum(FindDOTypeLayout(dotype)->symbol, size, sum);
      return;
    }

    case SegmentCheck::kOrdered: {
      r.checkSegmentSizeEndiannes();
      r.checkSegmentOffsetEndiannes();
      // Segments may leave gaps but may not overlap; a zero-size segment may
      // share its offset with the next one.
      const char* typeName = FindDOTypeLayout(dotype)->symbol;
      uint64_t end = 0;
      for (uint32_t i = 0; i < nfp; ++i) {
        const uint64_t o = r.GetSegmentOffset(i);
        if (o < end) ThrowOrder(typeName, i, o, end);
        end = o + r.GetSegmentSize(i);
      }
      if (end > size) ThrowEnd(typeName, size, end);
      return;
    }

    case SegmentCheck::kNone:  // Bloom DO records and DO types without a segment list
      return;
  }
}

// The scan loops, one per layout, with the byte order fixed at compile time.
template <bool kSwap, typename T>
inline T Field(const unsigned char* p) {
  return kSwap ? ByteSwap(Load<T>(p)) : Load<T>(p);
}

template <bool kSwap>
void ScanSizes(const unsigned char* size, unsigned int stride, uint32_t count, uint32_t* bits,
               uint64_t* sum) {
  uint32_t b = *bits;
  uint64_t total = *sum;
  for (uint32_t i = 0; i < count; ++i, size += stride) {
    const uint32_t s = Field<kSwap, uint32_t>(size);
    b |= s;
    total += s;
  }
  *bits = b;
  *sum = total;
}

template <bool kSwap>
void ScanSizesAndOffsets(const unsigned char* size, unsigned int offsetAt, unsigned int stride,
                         uint32_t count, uint32_t* sizeBits, uint64_t* offsetBits, uint64_t* end,
                         bool* ordered) {
  uint32_t sb = *sizeBits;
  uint64_t ob = *offsetBits;
  uint64_t e = *end;
  bool inOrder = *ordered;
  for (uint32_t i = 0; i < count; ++i, size += stride) {
    const uint32_t s = Field<kSwap, uint32_t>(size);
    const uint64_t o = Field<kSwap, uint64_t>(size + offsetAt);
    sb |= s;
    ob |= o;
    inOrder &= o >= e;
    e = o + s;
  }
  *sizeBits = sb;
  *offsetBits = ob;
  *end = e;
  *ordered = inOrder;
}

}  // namespace

namespace crrecord {

SegmentListScan::SegmentListScan(unsigned char dotype, unsigned char fptype, bool networkOrder,
                                 bool subDO)
    : invalid_(dotype == CR_DO_TYPE_INVALID),
      check_(CheckOf(dotype)),
      entryWidth_(SegmentEntryWidth(fptype, dotype)),
      networkOrder_(networkOrder),
      subDO_(subDO) {
  const SegmentFieldLayout* size = FindSegmentField(dotype, SegmentField::kSize);
  const SegmentFieldLayout* offset = FindSegmentField(dotype, SegmentField::kOffset);
  readsEntries_ = size != nullptr;
  sizeAt_ = FingerprintWidth(fptype) + (size != nullptr ? size->at : 0);
  // An ordered list's offsets are u64 fields after the sizes.
  offsetFromSize_ = offset != nullptr && size != nullptr ? offset->at - size->at : 0;
}

void SegmentListScan::Scan(const unsigned char* entries, uint32_t count) {
  if (!readsEntries_ || count == 0) return;
  const unsigned char* size = entries + sizeAt_;
  if (check_ == SegmentCheck::kOrdered) {
    if (networkOrder_) {
      ScanSizesAndOffsets<true>(size, offsetFromSize_, entryWidth_, count, &sizeBits_,
                                &offsetBits_, &end_, &ordered_);
    } else {
      ScanSizesAndOffsets<false>(size, offsetFromSize_, entryWidth_, count, &sizeBits_,
                                 &offsetBits_, &end_, &ordered_);
    }
  } else if (networkOrder_) {
    ScanSizes<true>(size, entryWidth_, count, &sizeBits_, &sizeSum_);
  } else {
    ScanSizes<false>(size, entryWidth_, count, &sizeBits_, &sizeSum_);
  }
}

bool SegmentListScan::Sound(uint64_t size, uint64_t ssize, uint32_t nfp) const {
  const bool sizesSane = subDO_ || (sizeBits_ & kSizeMagnitudeBit) == 0;
  if (invalid_) return false;
  switch (check_) {
    case SegmentCheck::kBound:
      return size <= uint64_t{nfp} * ssize;
    case SegmentCheck::kSizeSum:
      return sizesSane && sizeSum_ == size;
    case SegmentCheck::kOrdered:
      return sizesSane && (offsetBits_ & kOffsetMagnitudeBit) == 0 && ordered_ && end_ <= size;
    case SegmentCheck::kNone:
      return true;
  }
  return true;
}

}  // namespace crrecord

// One pass on the success path; the pass-by-pass check only for a list that
// fails, to find and report the failure its passes meet first.
void DORecord::checkSegmentList() const {
  const unsigned char dotype = header_->dotype;
  const uint32_t nfp = GetNfp();
  SegmentListScan scan(dotype, header_->fptype, networkOrder_, subDO_);
  if (scan.ReadsEntries() && nfp != 0) scan.Scan(DORecordHeaderIndexOfSegment(header_, 0), nfp);
  if (scan.Sound(GetSize(), GetSsize(), nfp)) return;
  CheckByPasses(*this);
}
