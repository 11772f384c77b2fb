// The two parameter constructors of DORecord: a record built from a caller's
// segment list (init) and a Bloom DO record built from a caller's bitmap
// (initWithBloom). Both check all input before they allocate, build into a
// zero-filled buffer of exactly the record's size, and leave nothing behind
// when they fail.
#include <cstring>
#include <ctime>
#include <sstream>

#include "common/Adler32.h"
#include "crrecord/common/Endian.h"
#include "common/StreamCopy.h"
#include "crrecord/DORecord.h"
#include "dorecord/DORecordFormat.h"
#include "dorecord/SegmentScan.h"
#include "status/Report.h"

using namespace crrecord;

namespace {

// Checks the caller's unique-DCID block (checksum word, count word, entries,
// host order) and returns its entry count; 0 for a null block.
uint32_t CheckUniqueDcids(const char* block) {
  if (block == nullptr) return 0;
  const uint32_t stored = Load<uint32_t>(block);
  const uint32_t n = Load<uint32_t>(block + 4);
  const uint32_t computed = Adler32(block + 4, 4 + uint64_t{kUDCIDEntry} * n);
  if (computed == stored) return n;
  std::ostringstream message;
  message << "Computed CRC (" << computed << ") for unique DCID list doesn't match. "
          << "[crc=" << stored << "]," << "[count=" << n << "]," << "[";
  // The message lists n words from offset 8 on (DCID, bytes, DCID, ...),
  // not the n entries.
  for (uint32_t k = 0; k < n; ++k) {
    message << Load<uint64_t>(block + 8 + uint64_t{8} * k) << ",";
  }
  message << "]";
  ThrowComposed(CR_STATUS_INVALID, message);
}

// recsize is 32 bits wide; a larger record could not say how large it is.
// A guard of our own, shared by both builders: such a record is refused with
// 9 and a message naming its size before anything is allocated, rather than
// built with a record size that wraps.
void CheckRecordSize(uint64_t size) {
  if (size <= kLargestRecordSize) return;
  std::ostringstream message;
  message << "DO record of " << size << " bytes exceeds the largest record size "
          << kLargestRecordSize << ".";
  ThrowComposed(CR_STATUS_INVALID, message);
}

// The first `zeroed` bytes are zero-filled; the caller writes the rest.
RecordBuffer<DORecordHeader> Allocate(uint64_t size, uint64_t zeroed) {
  RecordBuffer<DORecordHeader> buffer = RecordBuffer<DORecordHeader>::Allocate(size, zeroed);
  if (buffer.get() == nullptr) {
    ThrowFixed(CR_STATUS_NO_MEMORY, "Not enough memory to create DORecord.");
  }
  return buffer;
}

// Index of the first DCID below 64, or count when there is none. The test
// runs without an early exit over blocks, so that it streams at memory
// speed; only a block with an invalid DCID is searched.
uint32_t FirstInvalidDcid(const unsigned long* dcids, uint32_t count) {
  constexpr uint32_t kBlock = 1024;
  for (uint32_t base = 0; base < count; base += kBlock) {
    const uint32_t n = count - base < kBlock ? count - base : kBlock;
    bool invalid = false;
    for (uint32_t i = 0; i < n; ++i) invalid |= (dcids[base + i] >> 6) == 0;
    if (!invalid) continue;
    for (uint32_t i = 0; i < n; ++i) {
      if (dcids[base + i] < 64) return base + i;
    }
  }
  return count;
}

// Copies the segment list in pieces small enough to stay in the cache and
// scans each piece for the segment-list check while it is there (the
// caller's bytes, which are the record's once copied). A large list is
// streamed into the record (StreamCopy).
void CopySegments(unsigned char* dst, const unsigned char* src, uint32_t count,
                  unsigned int entryWidth, SegmentListScan* scan) {
  constexpr uint32_t kPiece = 2048;
  const bool streaming = uint64_t{count} * entryWidth >= kStreamingThreshold;
  for (uint32_t done = 0; done < count; done += kPiece) {
    const uint32_t n = count - done < kPiece ? count - done : kPiece;
    const uint64_t at = uint64_t{done} * entryWidth;
    scan->Scan(src + at, n);
    if (streaming) {
      StreamCopy(dst + at, src + at, uint64_t{n} * entryWidth);
    } else {
      std::memcpy(dst + at, src + at, uint64_t{n} * entryWidth);
    }
  }
}

void CopyDcids(unsigned char* dst, const unsigned long* dcids, uint32_t count) {
  const uint64_t bytes = uint64_t{count} * 8;
  if (bytes >= kStreamingThreshold) {
    StreamCopy(dst, dcids, bytes);
  } else {
    std::memcpy(dst, dcids, bytes);
  }
}

// The header fields both builders write the same way, in host order.
void WriteCommonHeader(DORecordHeader* h, uint64_t recsize, unsigned long dcid,
                       unsigned long size, unsigned long ssize, unsigned int crc, uint32_t nudcid,
                       unsigned char fptype, unsigned char dotype) {
  h->type = kDORecordType;
  h->flags = CR_DO_FLAGS_NEW;
  h->recsize = static_cast<uint32_t>(recsize);
  h->ntaskid = 0;
  h->CID = dcid;
  h->size = size;
  h->ssize = ssize;
  h->CRC = crc;
  h->nudcid = nudcid;
  h->nds = 0;
  h->fptype = fptype;
  h->dotype = dotype;
  h->trefsize = 0;
}

void CopyUniqueDcids(DORecordHeader* h, const char* block, uint32_t n) {
  if (block == nullptr || n == 0) return;
  std::memcpy(DORecordHeaderStartUDCID(h), block, UDCIDSectionSize(n));
}

// One clock reading serves both times, so that a record built "now" has
// equal ctime and mtime.
void StampTimes(DORecordHeader* h, unsigned int ctime, unsigned int mtime) {
  const uint32_t now = static_cast<uint32_t>(std::time(nullptr));
  h->ctime = ctime != 0 ? ctime : now;
  h->mtime = mtime != 0 ? mtime : now;
}

}  // namespace

DORecord::DORecord(unsigned long dcid, unsigned long size, unsigned long ssize, unsigned int crc,
                   unsigned int ctime, unsigned int mtime, const void* segments,
                   unsigned int segmentCount, const unsigned long* dcids,
                   const char* uniqueDcids, unsigned char fptype, unsigned char dotype)
    : networkOrder_(false), subDO_(false) {
  if (segments == nullptr && dotype != CR_DO_TYPE_BLOOM_FILTER) {
    ThrowFixed(CR_STATUS_INVALID, "Got empty SO list.");
  }
  init(dcid, size, ssize, crc, ctime, mtime, nullptr, 0, segments, segmentCount, dcids,
       uniqueDcids, fptype, dotype);
}

DORecord::DORecord(unsigned long dcid, unsigned long size, unsigned long ssize, unsigned int crc,
                   unsigned int ctime, unsigned int mtime, unsigned int bitmapSize,
                   const unsigned char* bitmap, const char* uniqueDcids, unsigned char fptype,
                   unsigned char dotype)
    : networkOrder_(false), subDO_(false) {
  if (bitmap == nullptr && dotype != CR_DO_TYPE_BLOOM_FILTER) {
    ThrowFixed(CR_STATUS_INVALID, "Got empty SO list.");
  }
  initWithBloom(dcid, size, ssize, crc, ctime, mtime, nullptr, 0, bitmapSize, bitmap,
                uniqueDcids, fptype, dotype);
}

void DORecord::init(unsigned long dcid, unsigned long size, unsigned long ssize,
                    unsigned int crc, unsigned int ctime, unsigned int mtime,
                    const unsigned long* taskIds, unsigned int taskIdCount,
                    const void* segments, unsigned int segmentCount,
                    const unsigned long* dcids, const char* uniqueDcids, unsigned char fptype,
                    unsigned char dotype) {
  if (CRDOTypeIsValid(dotype) == 0) ThrowFixed(CR_STATUS_INVALID_DOTYPE, "Invalid CR DO type");
  if (!CRFPTypeIsValid(fptype)) {
    ThrowFixed(CR_STATUS_INVALID_FPTYPE, "Invalid CR fingerprint type");
  }
  if (taskIds == nullptr && taskIdCount != 0) {
    ThrowFixed(CR_STATUS_INVALID, "Got empty task ID list that should not be empty.");
  }
  if (segmentCount == 0) {
    if (dotype != CR_DO_TYPE_BLOOM_FILTER) ThrowFixed(CR_STATUS_INVALID, "Got empty SO list.");
  } else {
    // A Bloom DO record is sized for a bitmap, not for segment entries, so
    // a segment list given with DO type 4 has no place to go.
    if (dotype == CR_DO_TYPE_BLOOM_FILTER) {
      ThrowFixed(CR_STATUS_INVALID,
                 "Got a segment list for a CR_DO_TYPE_BLOOM_FILTER DO record, which has none.");
    }
    if (dcids == nullptr) {
      ThrowFixed(CR_STATUS_INVALID, "Got empty DCID list that should not be empty.");
    }
    const uint32_t i = FirstInvalidDcid(dcids, segmentCount);
    if (i != segmentCount) {
      std::ostringstream message;
      message << "Got invalid dcid " << dcids[i] << " at index " << i;
      ThrowComposed(CR_STATUS_INVALID, message);
    }
  }
  const uint32_t nudcid = CheckUniqueDcids(uniqueDcids);

  const uint64_t recsize = DORecordHeaderSizeRaw(0, segmentCount, nudcid, 0, dotype, fptype, 0);
  CheckRecordSize(recsize);
  // With a segment list every byte behind the header is copied from the
  // caller below, so only the header needs the zero fill.
  const bool copiesAll = segments != nullptr && dotype != CR_DO_TYPE_BLOOM_FILTER;
  header_ = Allocate(recsize, copiesAll ? kDOHeaderSize : recsize);

  WriteCommonHeader(header_, recsize, dcid, size, ssize, crc, nudcid, fptype, dotype);
  header_->nfp = segmentCount;
  // The DCIDs first, while the check above has them in the cache.
  if (dcids != nullptr) CopyDcids(DORecordHeaderIndexOfDCID(header_, 0), dcids, segmentCount);
  SegmentListScan scan(dotype, fptype, false, false);
  if (segments != nullptr) {
    CopySegments(DORecordHeaderIndexOfSegment(header_, 0),
                 static_cast<const unsigned char*>(segments), segmentCount,
                 SegmentEntryWidth(fptype, dotype), &scan);
  }
  StreamFence();
  CopyUniqueDcids(header_, uniqueDcids, nudcid);

  initReferenceSets();
  for (unsigned int i = 0; i < taskIdCount; ++i) AddTaskID(taskIds[i]);
  StampTimes(header_, ctime, mtime);
  expand();
  // The scan saw every entry as copied, and nothing since has changed them
  // or the header fields it is judged against; only a list that it finds
  // unsound goes through checkSegmentList, which then throws.
  if (segments != nullptr && !scan.Sound(size, ssize, segmentCount)) checkSegmentList();
}

void DORecord::initWithBloom(unsigned long dcid, unsigned long size, unsigned long ssize,
                             unsigned int crc, unsigned int ctime, unsigned int mtime,
                             const unsigned long* taskIds, unsigned int taskIdCount,
                             unsigned int bitmapSize, const unsigned char* bitmap,
                             const char* uniqueDcids, unsigned char fptype,
                             unsigned char dotype) {
  // Only DO type 4 has the Bloom layout that this builder writes; any other
  // DO type is refused as an unacceptable DO type, with the status and
  // text callers already handle for one.
  if (CRDOTypeIsValid(dotype) == 0 || dotype != CR_DO_TYPE_BLOOM_FILTER) {
    ThrowFixed(CR_STATUS_INVALID_DOTYPE, "Invalid CR DO type");
  }
  if (!CRFPTypeIsValid(fptype)) {
    ThrowFixed(CR_STATUS_INVALID_FPTYPE, "Invalid CR fingerprint type");
  }
  if (bitmapSize == 0) ThrowFixed(CR_STATUS_INVALID, "Got empty bloom filter bitmap.");
  // Nothing could be copied from a missing bitmap; refuse it before it is read.
  if (bitmap == nullptr) {
    std::ostringstream message;
    message << "Got no bloom filter bitmap for a bitmap size of " << bitmapSize << ".";
    ThrowComposed(CR_STATUS_INVALID, message);
  }
  if (taskIds == nullptr && taskIdCount != 0) {
    ThrowFixed(CR_STATUS_INVALID, "Got empty task ID list that should not be empty.");
  }
  const uint32_t nudcid = CheckUniqueDcids(uniqueDcids);

  const uint64_t recsize = DORecordHeaderSizeWithBloom(0, bitmapSize, nudcid, 0, dotype, 0);
  CheckRecordSize(recsize);
  header_ = Allocate(recsize, recsize);

  WriteCommonHeader(header_, recsize, dcid, size, ssize, crc, nudcid, fptype, dotype);
  header_->nfp = 0;
  header_->bsize = bitmapSize;
  unsigned char* bloom = DORecordHeaderGetBloomStart(header_);
  Store<uint32_t>(bloom, bitmapSize);
  std::memcpy(bloom + kBloomLengthWord, bitmap, bitmapSize);
  CopyUniqueDcids(header_, uniqueDcids, nudcid);

  initReferenceSets();
  for (unsigned int i = 0; i < taskIdCount; ++i) AddTaskID(taskIds[i]);
  StampTimes(header_, ctime, mtime);
  expand();
}
