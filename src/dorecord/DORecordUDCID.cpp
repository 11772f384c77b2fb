// The unique-DCID list of a DO record: the distinct containers of its
// segments with the bytes of the file that lie in each, built from the
// segment list (or normalized in a Bloom DO record) and reported per
// container.
//
// Byte order of a Bloom record's list. A Bloom record built from a bitmap
// holds its list in host order; one rebuilt from the serialized Bloom form
// holds it big-endian, as it travelled, and says so with the mark in the
// Bloom section's reserved bytes (BloomListIsBigEndian). Every reader here
// takes the list in the order the mark says; AppendBloomAndUniqueDCIDList
// turns a big-endian list into host order with a fresh checksum and clears
// the mark, so a second application finds host order and rewrites the same
// bytes. The length word is no mark: AppendBloom swaps it, and
// AppendBloomAndUniqueDCIDList turns it back to host order when it reads
// swapped. Lists of other records are always host order.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

#include "common/Adler32.h"
#include "crrecord/common/Endian.h"
#include "crrecord/DORecord.h"
#include "dorecord/DCIDTable.h"
#include "dorecord/DORecordFormat.h"
#include "status/Report.h"

using namespace crrecord;

namespace {

const char kAppendName[] = "AppendBloomAndUniqueDCIDList";
const char kSizeListName[] = "GetUDCIDSizeList";
constexpr uint32_t kNoSegmentSize = 0xFFFFFFFFu;

// Whether the record's unique-DCID list stands big-endian (see the file
// comment). REQUIRES: the section, when nudcid > 0, lies inside the record.
bool ListIsBigEndian(const DORecordHeader* h, uint32_t bsize) {
  if (h->dotype != CR_DO_TYPE_BLOOM_FILTER) return false;
  return BloomListIsBigEndian(h, bsize);
}

// The entries of a list section, each read in the given byte order.
UDCIDEntry ReadEntry(const unsigned char* section, uint32_t i, bool bigEndian) {
  const unsigned char* p = section + kUDCIDHead + uint64_t{kUDCIDEntry} * i;
  return UDCIDEntry{InRecordOrder(Load<uint64_t>(p), bigEndian),
                    InRecordOrder(Load<uint64_t>(p + 8), bigEndian)};
}

// Host-order section: checksum, count, then the entries.
void WriteSection(unsigned char* section, const UDCIDEntry* entries, uint32_t count) {
  unsigned char* p = section + kUDCIDHead;
  for (uint32_t i = 0; i < count; ++i, p += kUDCIDEntry) {
    Store<uint64_t>(p, entries[i].dcid);
    Store<uint64_t>(p + 8, entries[i].bytes);
  }
  Store<uint32_t>(section + 4, count);
  Store<uint32_t>(section, Adler32(section + 4, 4 + uint64_t{kUDCIDEntry} * count));
}

// The length word back in host order, and the mark cleared: the list is
// written, or stands, in host order.
void NormalizeBloomSection(DORecordHeader* h, uint32_t bsize, bool swapLengthWord) {
  if (swapLengthWord) SwapInPlace<uint32_t>(DORecordHeaderStartBFBitmap(h));
  std::memset(DORecordHeaderGetBloom(h) + bsize, 0, kBloomReservedBytes);
}

}  // namespace

cr_status_t DORecord::AppendBloomAndUniqueDCIDList() {
  if (getTRefsSize() != 0) {
    ErrorA(CR_STATUS_INVALID, "%s: TRef size should be zero bytes.", kAppendName);
    return CR_STATUS_INVALID;
  }
  const unsigned char dotype = header_->dotype;
  const unsigned char fptype = header_->fptype;
  const bool bloom = dotype == CR_DO_TYPE_BLOOM_FILTER;
  const uint32_t nfp = GetNfp();
  const uint32_t bsize = GetBSize();

  std::vector<UDCIDEntry> entries;
  bool swapLengthWord = false;
  try {
    if (bloom) {
      const uint32_t nudcid = GetNudcid();
      const bool bigEndian = ListIsBigEndian(header_, bsize);
      const uint32_t lengthWord = Load<uint32_t>(DORecordHeaderStartBFBitmap(header_));
      swapLengthWord = lengthWord != bsize && ByteSwap(lengthWord) == bsize;
      if (nudcid != 0) {
        // The section is as long as the header says; a list that claims
        // another length is not read, so nothing beyond the section is.
        const unsigned char* section = DORecordHeaderStartUDCID(header_);
        const uint32_t stored = InRecordOrder(Load<uint32_t>(section + 4), bigEndian);
        if (stored != nudcid) {
          ErrorA(CR_STATUS_INVALID, "%s: unique DCID count %u does not match the header's %u.",
                 kAppendName, stored, nudcid);
          return CR_STATUS_INVALID;
        }
        entries.reserve(nudcid);
        for (uint32_t i = 0; i < nudcid; ++i) entries.push_back(ReadEntry(section, i, bigEndian));
        // A later entry of the same DCID replaces an earlier one.
        std::stable_sort(entries.begin(), entries.end(), ByDCID);
        size_t kept = 0;
        for (const UDCIDEntry& e : entries) {
          if (kept != 0 && entries[kept - 1].dcid == e.dcid) {
            entries[kept - 1] = e;
          } else {
            entries[kept++] = e;
          }
        }
        entries.resize(kept);
      }
    } else {
      if (nfp == 0) return CR_STATUS_SUCCESS;
      const unsigned int fpWidth = FingerprintWidth(fptype);
      const unsigned int entryWidth = SegmentEntryWidth(fptype, dotype);
      const bool storedSizes = HasStoredSizes(dotype);
      const bool derivedSizes = SizesDerived(dotype);
      const uint64_t ssize = GetSsize();
      const uint32_t lastDerived = static_cast<uint32_t>(GetSize() - uint64_t{nfp - 1} * ssize);
      const unsigned char* sizeField = DORecordHeaderIndexOfSegment(header_, 0) + fpWidth;

      const unsigned char* dcids = DORecordHeaderIndexOfDCID(header_, 0);
      auto dcidOf = [dcids](uint32_t i) { return Load<uint64_t>(dcids + 8 * uint64_t{i}); };
      uint32_t invalid;
      if (storedSizes && networkOrder_) {
        invalid = GatherUnique(nfp, dcidOf, [=](uint32_t i) {
          return ByteSwap(Load<uint32_t>(sizeField + uint64_t{i} * entryWidth));
        }, &entries);
      } else if (storedSizes) {
        invalid = GatherUnique(nfp, dcidOf, [=](uint32_t i) {
          return Load<uint32_t>(sizeField + uint64_t{i} * entryWidth);
        }, &entries);
      } else if (derivedSizes) {
        const uint32_t nominal = static_cast<uint32_t>(ssize);
        invalid = GatherUnique(nfp, dcidOf, [=](uint32_t i) {
          return i + 1 == nfp ? lastDerived : nominal;
        }, &entries);
      } else {
        invalid = GatherUnique(nfp, dcidOf, [](uint32_t) { return kNoSegmentSize; }, &entries);
      }
      if (invalid != nfp) {
        const uint32_t i = invalid;
        const uint64_t dcid = Load<uint64_t>(dcids + 8 * uint64_t{i});
        crfp_digest_t fp = {};
        std::memcpy(fp.digest, DORecordHeaderIndexOfSegment(header_, i), fpWidth);
        char text[65] = {};
        if (CRFPDigestToString_r(&fp, fptype, text, sizeof text) == nullptr) text[0] = '\0';
        text[sizeof text - 1] = '\0';
        ErrorA(CR_STATUS_INVALID, "%s: Invalid DCID %lu for SO %s at index %u.", kAppendName,
               static_cast<unsigned long>(dcid), text, i);
        return CR_STATUS_INVALID;
      }
    }
  } catch (const std::bad_alloc&) {
    // Gathering needs memory in proportion to the list; without it the
    // record is left as it was, as when its buffer cannot grow.
    return CR_STATUS_NO_MEMORY;
  }

  const uint32_t count = static_cast<uint32_t>(entries.size());
  if (count == 0) {
    if (bloom) NormalizeBloomSection(header_, bsize, swapLengthWord);
    return CR_STATUS_SUCCESS;
  }

  // The old task-ID and DSID lists, which a record here should not have,
  // are counted all the same, so that the section can never land outside
  // the buffer.
  const HeaderCounts counts = ReadCounts(header_);
  const uint64_t needed =
      DORecordHeaderSizeRaw(counts.ntaskid, bloom ? bsize : nfp, 0, counts.nds, dotype, fptype, 0) +
      UDCIDSectionSize(count);
  if (needed > kLargestRecordSize) {
    ErrorA(CR_STATUS_INVALID, "%s: record of %lu bytes with its unique DCID list is too large.",
           kAppendName, static_cast<unsigned long>(needed));
    return CR_STATUS_INVALID;
  }

  // A short list moves to the stack and its memory is released before the
  // record grows, so that an allocator that placed it behind the record can
  // extend the record in place rather than copy it.
  constexpr uint32_t kFewEntries = 1024;
  UDCIDEntry few[kFewEntries];
  const UDCIDEntry* list = entries.data();
  if (count <= kFewEntries && needed > header_.size() && header_.owned()) {
    std::copy(entries.begin(), entries.end(), few);
    std::vector<UDCIDEntry>().swap(entries);
    list = few;
  }

  if (needed > header_.size()) {
    // Exactly the size needed, whatever the buffer mode: a borrowed buffer
    // is replaced by an owned copy in the same way. An owned buffer is
    // grown with realloc, which can extend it in place (or remap it) instead
    // of copying the record; on failure it leaves the buffer as it was.
    const uint64_t keep = std::min<uint64_t>(getRecSize(), header_.size());
    if (!header_.Grow(needed, keep)) return CR_STATUS_NO_MEMORY;
    writeTRefSection();
  }

  setRecSize(static_cast<unsigned int>(needed));
  header_->nudcid = InRecordOrder(count, networkOrder_);
  if (bloom) NormalizeBloomSection(header_, bsize, swapLengthWord);
  unsigned char* section =
      bloom ? DORecordHeaderStartUDCID(header_) : DORecordHeaderIndexOfDCID(header_, nfp);
  WriteSection(section, list, GetNudcid());
  return CR_STATUS_SUCCESS;
}

cr_status_t DORecord::AppendBloom(std::map<unsigned long, unsigned long>& dcids) {
  // The list is read in the order its mark says, which the swap of the
  // length word leaves alone, and at most the header's count of entries, so
  // never beyond the section, whatever count the list itself claims.
  // Only a Bloom record has the word: in another the place lies in its
  // segment list, which a swap would corrupt.
  if (header_->dotype == CR_DO_TYPE_BLOOM_FILTER) {
    SwapInPlace<uint32_t>(DORecordHeaderStartBFBitmap(header_));
  }
  const uint32_t nudcid = GetNudcid();
  if (nudcid == 0) return CR_STATUS_SUCCESS;
  const bool bigEndian = ListIsBigEndian(header_, GetBSize());
  const unsigned char* section = DORecordHeaderStartUDCID(header_);
  const uint32_t stored = InRecordOrder(Load<uint32_t>(section + 4), bigEndian);
  const uint32_t n = std::min(stored, nudcid);
  for (uint32_t i = 0; i < n; ++i) {
    const UDCIDEntry e = ReadEntry(section, i, bigEndian);
    dcids[e.dcid] = e.bytes;
  }
  return CR_STATUS_SUCCESS;
}

cr_status_t DORecord::GetUDCIDSizeList(std::map<unsigned long, unsigned long>& sizes) const {
  const uint32_t nudcid = GetNudcid();
  if (nudcid == 0) {
    ErrorA(CR_STATUS_INVALID_RECORD, "%s: number of unique DCID can't be zero!", kSizeListName);
    return CR_STATUS_INVALID_RECORD;
  }
  const uint64_t cid = GetDCID();
  const uint64_t body = GetDOSize();
  const bool bigEndian = ListIsBigEndian(header_, GetBSize());
  const unsigned char* section = DORecordHeaderStartUDCID(header_);
  try {
    sizes.clear();
    bool ownContainerListed = false;
    for (uint32_t i = 0; i < nudcid; ++i) {
      UDCIDEntry e = ReadEntry(section, i, bigEndian);
      if (e.dcid == cid) {
        e.bytes += body;
        ownContainerListed = true;
      }
      sizes[e.dcid] = e.bytes;
    }
    if (!ownContainerListed) sizes[cid] = body;
  } catch (const std::bad_alloc&) {
    *__cr_errno_location() = CR_STATUS_NO_MEMORY;
    ErrorA(CR_STATUS_NO_MEMORY, "%s: failed to construct SO info vector, out of memory.",
           kSizeListName);
    return CR_STATUS_NO_MEMORY;
  }
  return CR_STATUS_SUCCESS;
}

unsigned int DORecord::GetUDCIDSize() const {
  return static_cast<unsigned int>(UDCIDSectionSize(GetNudcid()));
}

bool DORecord::UniqueDCIDListIsBigEndian() const {
  const uint32_t nudcid = GetNudcid();
  return nudcid != 0 && ListIsBigEndian(header_, GetBSize());
}

cr_status_t DORecord::GetUniqueDCIDEntry(unsigned int i, unsigned long* dcid,
                                         unsigned long* bytes) const {
  if (dcid == nullptr || bytes == nullptr) return CR_STATUS_MISSING_ARGUMENT;
  const uint32_t nudcid = GetNudcid();
  if (i >= nudcid) return CR_STATUS_INVALID;
  const UDCIDEntry e = ReadEntry(DORecordHeaderStartUDCID(header_), i,
                                 ListIsBigEndian(header_, GetBSize()));
  *dcid = e.dcid;
  *bytes = e.bytes;
  return CR_STATUS_SUCCESS;
}

unsigned int DORecord::GetUniqueDCIDChecksum() const {
  const uint32_t nudcid = GetNudcid();
  if (nudcid == 0) return 0;
  return InRecordOrder(Load<uint32_t>(DORecordHeaderStartUDCID(header_)),
                       ListIsBigEndian(header_, GetBSize()));
}

unsigned char* DORecord::GetBloom() const { return DORecordHeaderGetBloom(header_); }

unsigned char* DORecord::GetBloomStart() const { return DORecordHeaderGetBloomStart(header_); }
