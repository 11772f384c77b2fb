// The header operations of the DO record format: sizes, locators,
// validation and byte-order conversion. The layout is drawn in
// <crrecord/DORecord.h>.
#include <cstring>

#include "common/Adler32.h"
#include "crrecord/common/Endian.h"
#include "dorecord/DORecordFormat.h"
#include "status/Report.h"

using namespace crrecord;

namespace {

unsigned char* Base(const DORecordHeader* h) {
  return reinterpret_cast<unsigned char*>(const_cast<DORecordHeader*>(h));
}

// Start of the segment list (or of the Bloom section): behind the old lists.
unsigned char* SectionsStart(const DORecordHeader* h, const HeaderCounts& c) {
  return Base(h) + kDOHeaderSize + uint64_t{8} * c.ntaskid + uint64_t{4} * c.nds;
}

unsigned char* DCIDArray(const DORecordHeader* h, const HeaderCounts& c) {
  return SectionsStart(h, c) + uint64_t{c.nfp} * SegmentEntryWidth(h->fptype, h->dotype);
}

unsigned char* UDCIDStart(const DORecordHeader* h, const HeaderCounts& c) {
  if (h->dotype == CR_DO_TYPE_BLOOM_FILTER) {
    return SectionsStart(h, c) + kBloomLengthWord + c.bsize + kBloomReservedBytes;
  }
  return DCIDArray(h, c) + uint64_t{8} * c.nfp;
}

}  // namespace

unsigned long DORecordHeaderSizeRaw(unsigned int ntaskid, unsigned int count, unsigned int nudcid,
                                    unsigned int nds, unsigned char dotype, unsigned char fptype,
                                    unsigned int trefsize) {
  uint64_t size = kDOHeaderSize + uint64_t{8} * ntaskid + uint64_t{4} * nds +
                  UDCIDSectionSize(nudcid) + trefsize;
  if (dotype == CR_DO_TYPE_BLOOM_FILTER) {
    return size + kBloomLengthWord + count + kBloomReservedBytes;
  }
  return size + uint64_t{count} * (SegmentEntryWidth(fptype, dotype) + 8);
}

unsigned long DORecordHeaderSizeWithBloom(unsigned int ntaskid, unsigned int bsize,
                                          unsigned int nudcid, unsigned int nds,
                                          unsigned char dotype, unsigned int trefsize) {
  (void)dotype;  // every Bloom record has the same layout, whatever its DO type says
  return kDOHeaderSize + uint64_t{8} * ntaskid + uint64_t{4} * nds + kBloomLengthWord + bsize +
         kBloomReservedBytes + UDCIDSectionSize(nudcid) + trefsize;
}

unsigned char* DORecordHeaderIndexOfSegment(const DORecordHeader* h, unsigned int i) {
  return SectionsStart(h, ReadCounts(h)) + uint64_t{i} * SegmentEntryWidth(h->fptype, h->dotype);
}

unsigned char* DORecordHeaderIndexOfSegmentSize(const DORecordHeader* h, unsigned int i) {
  return DORecordHeaderIndexOfSegment(h, i) + FingerprintWidth(h->fptype);
}

unsigned char* DORecordHeaderIndexOfSegmentOffset(const DORecordHeader* h, unsigned int i) {
  return DORecordHeaderIndexOfSegment(h, i) + FingerprintWidth(h->fptype) + 4;
}

unsigned char* DORecordHeaderIndexOfSegmentObjectOffset(const DORecordHeader* h, unsigned int i) {
  return DORecordHeaderIndexOfSegment(h, i) + FingerprintWidth(h->fptype) + 4;
}

unsigned char* DORecordHeaderIndexOfDCID(const DORecordHeader* h, unsigned int i) {
  return DCIDArray(h, ReadCounts(h)) + uint64_t{8} * i;
}

unsigned char* DORecordHeaderStartUDCID(const DORecordHeader* h) {
  return UDCIDStart(h, ReadCounts(h));
}

unsigned char* DORecordHeaderIndexOfUDCID(const DORecordHeader* h, unsigned int i) {
  return DORecordHeaderStartUDCID(h) + kUDCIDHead + uint64_t{kUDCIDEntry} * i;
}

unsigned char* DORecordHeaderStartTRefs(const DORecordHeader* h) {
  HeaderCounts c = ReadCounts(h);
  return UDCIDStart(h, c) + UDCIDSectionSize(c.nudcid);
}

unsigned char* DORecordHeaderIndexOfTaskId(const DORecordHeader* h, unsigned int i) {
  return Base(h) + kDOHeaderSize + uint64_t{8} * i;
}

unsigned char* DORecordHeaderIndexOfDataSelection(const DORecordHeader* h, unsigned int i) {
  return Base(h) + kDOHeaderSize + uint64_t{8} * ReadCounts(h).ntaskid + uint64_t{4} * i;
}

unsigned char* DORecordHeaderGetBloomStart(const DORecordHeader* h) {
  return SectionsStart(h, ReadCounts(h));
}

unsigned char* DORecordHeaderGetBloom(const DORecordHeader* h) {
  return DORecordHeaderGetBloomStart(h) + kBloomLengthWord;
}

unsigned char* DORecordHeaderStartBFBitmap(const DORecordHeader* h) {
  return DORecordHeaderGetBloomStart(h);
}

unsigned char* DORecordHeaderGetPOID(const DORecordHeader* h) {
  return Base(h) + offsetof(DORecordHeader, CID);
}

cr_status_t DORecordHeaderValidate(const DORecordHeader* h, unsigned int length,
                                   unsigned int flags) {
  if (h == nullptr || (flags & ~unsigned{CR_DO_VALIDATE_NETWORK_ORDER}) != 0) {
    return CR_STATUS_INVALID;
  }
  if (length < kDOHeaderSize) {
    CR_TRACE("Invalid DO record: size %u, expected at least %u", length, kDOHeaderSize);
    return CR_STATUS_INVALID_RECORD;
  }
  const bool net = (flags & CR_DO_VALIDATE_NETWORK_ORDER) != 0;
  const unsigned int type = InRecordOrder(h->type, net);
  if (type != kDORecordType) {
    CR_TRACE("Invalid DO record: type %u, expected %u", type, kDORecordType);
    return CR_STATUS_INVALID_RECORD;
  }
  const unsigned int recsize = InRecordOrder(h->recsize, net);
  if (recsize != length) {
    CR_TRACE("Invalid DO record: recsize %u, size %u", recsize, length);
    return CR_STATUS_INVALID_RECORD;
  }
  const unsigned int recordFlags = InRecordOrder(h->flags, net);
  if ((recordFlags & ~unsigned{CR_DO_FLAGS_ALLOWED}) != 0) {
    CR_TRACE("Invalid DO record: flags 0x%x, allowed 0x%x", recordFlags,
             unsigned{CR_DO_FLAGS_ALLOWED});
    return CR_STATUS_INVALID_RECORD;
  }
  if (!CRFPTypeIsValid(h->fptype)) {
    CR_TRACE("Invalid DO record: invalid fp type %u", unsigned{h->fptype});
    return CR_STATUS_INVALID_RECORD;
  }
  if (!CRDOTypeIsValid(h->dotype)) {
    CR_TRACE("Invalid DO record: invalid DO type %u", unsigned{h->dotype});
    return CR_STATUS_INVALID_RECORD;
  }
  HeaderCounts c = ReadCounts(h);
  const bool bloom = h->dotype == CR_DO_TYPE_BLOOM_FILTER;
  if (bloom ? c.nfp != 0 : c.bsize != 0) {
    CR_TRACE("Invalid DO record: DO type %u with %u segments and a bitmap of %u bytes",
             unsigned{h->dotype}, c.nfp, c.bsize);
    return CR_STATUS_INVALID_RECORD;
  }
  const uint64_t calculated = DORecordHeaderSizeRaw(
      c.ntaskid, bloom ? c.bsize : c.nfp, c.nudcid, c.nds, h->dotype, h->fptype, c.trefsize);
  if (calculated != length) {
    CR_TRACE("Invalid DO record: calculated size %lu, size %u",
             static_cast<unsigned long>(calculated), length);
    return CR_STATUS_INVALID_RECORD;
  }
  // From here on every section lies inside the length.
  if (bloom) {
    uint32_t word = Load<uint32_t>(DORecordHeaderGetBloomStart(h));
    if (word != c.bsize && ByteSwap(word) != c.bsize) {
      CR_TRACE("Invalid DO record: Bloom length word %u, bitmap size %u", word, c.bsize);
      return CR_STATUS_INVALID_RECORD;
    }
  }
  if (c.nudcid != 0) {
    const unsigned char* section = UDCIDStart(h, c);
    // A Bloom record rebuilt from its serialized form keeps its list
    // big-endian until it is normalized; every other list is host order.
    const bool bigEndianList =
        bloom && BloomListIsBigEndian(h, c.bsize);
    const uint32_t checksum = InRecordOrder(Load<uint32_t>(section), bigEndianList);
    const uint32_t count = InRecordOrder(Load<uint32_t>(section + 4), bigEndianList);
    const uint32_t computed =
        Adler32(section + 4, 4 + uint64_t{kUDCIDEntry} * c.nudcid);
    if (count != c.nudcid || checksum != computed) {
      CR_TRACE("Invalid DO record: unique DCID list of %u entries with checksum %u, "
               "header says %u entries, computed checksum %u",
               count, checksum, c.nudcid, computed);
      return CR_STATUS_INVALID_RECORD;
    }
  }
  return CR_STATUS_SUCCESS;
}

namespace {

// Swaps every field stored in the record's byte order; `c` holds the counts
// as host values (read before the header is swapped).
void ConvertRecord(DORecordHeader* h, const HeaderCounts& c) {
  h->type = ByteSwap(h->type);
  h->flags = ByteSwap(h->flags);
  h->recsize = ByteSwap(h->recsize);
  h->checktime = ByteSwap(h->checktime);
  h->CID = ByteSwap(h->CID);
  h->size = ByteSwap(h->size);
  h->ssize = ByteSwap(h->ssize);
  h->CRC = ByteSwap(h->CRC);
  h->ctime = ByteSwap(h->ctime);
  h->mtime = ByteSwap(h->mtime);
  h->ntaskid = ByteSwap(h->ntaskid);
  h->nfp = ByteSwap(h->nfp);
  h->nudcid = ByteSwap(h->nudcid);
  h->nds = ByteSwap(h->nds);
  h->trefsize = ByteSwap(h->trefsize);
  h->bsize = ByteSwap(h->bsize);

  unsigned char* p = Base(h) + kDOHeaderSize;
  for (uint32_t i = 0; i < c.ntaskid; ++i, p += 8) SwapInPlace<uint64_t>(p);
  for (uint32_t i = 0; i < c.nds; ++i, p += 4) SwapInPlace<uint32_t>(p);

  const unsigned int width = SegmentEntryWidth(h->fptype, h->dotype);
  unsigned char* fields = p + FingerprintWidth(h->fptype);  // the fields of entry 0
  SwapSegmentFields(fields, width, fields, width, c.nfp, h->dotype);
}

HeaderCounts CountsInOrder(const DORecordHeader* h, bool net) {
  return HeaderCounts{InRecordOrder(h->ntaskid, net), InRecordOrder(h->nfp, net),
                      InRecordOrder(h->nudcid, net),  InRecordOrder(h->nds, net),
                      InRecordOrder(h->trefsize, net), InRecordOrder(h->bsize, net)};
}

}  // namespace

void DORecordHeaderHton(DORecordHeader* h) { ConvertRecord(h, CountsInOrder(h, false)); }

void DORecordHeaderNtoh(DORecordHeader* h) { ConvertRecord(h, CountsInOrder(h, true)); }
