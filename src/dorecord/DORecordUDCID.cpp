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
#include "dorecord/DORecordFormat.h"
#include "status/Report.h"

using namespace crrecord;

namespace {

const char kAppendName[] = "AppendBloomAndUniqueDCIDList";
const char kSizeListName[] = "GetUDCIDSizeList";
constexpr uint64_t kLargestRecordSize = 0xFFFFFFFFu;
constexpr uint32_t kNoSegmentSize = 0xFFFFFFFFu;

struct UDCIDEntry {
  uint64_t dcid;
  uint64_t bytes;
};

bool ByDCID(const UDCIDEntry& a, const UDCIDEntry& b) { return a.dcid < b.dcid; }

// Distinct DCIDs with their byte counts: open addressing with linear probing
// in one flat table of 16-byte slots. It starts with room for the list's
// length or kInitialKeys keys, whichever is less, and grows fourfold when it
// fills, so that a short list costs one small allocation, a long list with
// few containers keeps a table that fits the cache, and one with many is
// rehashed only a few times. A table that fits the L2
// cache is kept at most one eighth full, so that nearly every lookup ends at
// its first slot and the probe loop's exit is predicted; a larger one at most
// half full, so that fewer of its lookups miss the cache.
// DCID 0 marks a free slot; only DCIDs of 64 and above are ever added.
class DCIDTable {
 public:
  // The largest table a capped Gather grows to (512 KiB, within the L2
  // cache): beyond it nearly every lookup would miss the cache, and the rest
  // of the list is better gathered by partitions (GatherByPartitions).
  static constexpr size_t kLargestCachedSlots = 32768;

  explicit DCIDTable(uint64_t maxKeys) {
    unsigned int bits = 4;
    const uint64_t keys = maxKeys < kInitialKeys ? maxKeys : kInitialKeys;
    while (Room(size_t{1} << bits) < keys) ++bits;
    Reset(bits);
  }

  size_t size() const { return size_; }

  // Adds entries 0 .. count - 1: DCID dcidOf(i), bytes sizeOf(i). Returns
  // count when all are in, else the index of the entry it stopped at: the
  // first DCID below 64, or, when capped, the first new DCID that would grow
  // the table beyond kLargestCachedSlots. Throws std::bad_alloc when the
  // table cannot grow.
  //
  // The loop keeps the table's state in locals, since its stores into the
  // slots could otherwise alias the members; a table larger than the cache
  // has each entry's slot fetched a few entries ahead.
  template <class DcidOf, class SizeOf>
  uint32_t Gather(uint32_t count, DcidOf dcidOf, SizeOf sizeOf, bool capped) {
    constexpr uint32_t kAhead = 32;
    constexpr size_t kCachedSlots = 8192;  // 128 KiB
    UDCIDEntry* slots = slots_.data();
    uint64_t mask = mask_;
    unsigned int shift = shift_;
    size_t size = size_;
    size_t room = Room(slots_.size());
    bool prefetch = slots_.size() > kCachedSlots;
    uint64_t lastDcid = 0;  // never a valid DCID
    UDCIDEntry* last = nullptr;
    for (uint32_t i = 0; i < count; ++i) {
      if (prefetch && count - i > kAhead) {
        __builtin_prefetch(&slots[Home(dcidOf(i + kAhead), shift)]);
      }
      const uint64_t dcid = dcidOf(i);
      if (dcid < 64) {
        size_ = size;
        return i;
      }
      const uint64_t bytes = sizeOf(i);
      // Consecutive segments mostly lie in one container.
      if (dcid == lastDcid) {
        last->bytes += bytes;
        continue;
      }
      uint64_t h = Home(dcid, shift);
      while (slots[h].dcid != dcid && slots[h].dcid != 0) h = (h + 1) & mask;
      if (slots[h].dcid == 0) {
        if (size == room) {
          size_ = size;
          if (capped && slots_.size() * 4 > kLargestCachedSlots) return i;
          Grow();
          slots = slots_.data();
          mask = mask_;
          shift = shift_;
          room = Room(slots_.size());
          prefetch = slots_.size() > kCachedSlots;
          h = Home(dcid, shift);
          while (slots[h].dcid != 0) h = (h + 1) & mask;
        }
        slots[h].dcid = dcid;
        ++size;
        if (tracking_) used_.push_back(&slots[h]);
      }
      slots[h].bytes += bytes;
      lastDcid = dcid;
      last = &slots[h];
    }
    size_ = size;
    return count;
  }

  // Calls f(entry) for every key in the table, in slot order.
  template <class F>
  void ForEach(F f) const {
    for (const UDCIDEntry& slot : slots_) {
      if (slot.dcid != 0) f(slot);
    }
  }

  // Frees the table's memory; it takes no keys after this.
  void Release() {
    std::vector<UDCIDEntry>().swap(slots_);
    std::vector<UDCIDEntry*>().swap(used_);
    size_ = 0;
  }

  // From now on the table notes the slots it fills, so that DrainInto costs
  // in proportion to the keys rather than to the slots. REQUIRES: empty.
  void TrackSlots() { tracking_ = true; }

  // Appends the keys to *out in no particular order and empties the table,
  // keeping its slots for the next use. REQUIRES: TrackSlots.
  void DrainInto(std::vector<UDCIDEntry>* out) {
    for (UDCIDEntry* slot : used_) {
      out->push_back(*slot);
      *slot = UDCIDEntry{0, 0};
    }
    used_.clear();
    size_ = 0;
  }

  // The occupied slots, packed and in ascending DCID order; empties the table.
  std::vector<UDCIDEntry> TakeSorted() {
    // Packed without a branch per slot: whether a slot is taken is as good
    // as random, and n never passes i.
    size_t n = 0;
    for (size_t i = 0; i < slots_.size(); ++i) {
      slots_[n] = slots_[i];
      n += slots_[i].dcid != 0;
    }
    if (n <= kSmallSort) {
      std::sort(slots_.begin(), slots_.begin() + n, ByDCID);
    } else {
      // The table is at most half full: the slots behind the packed
      // entries are room enough for the sort's second copy.
      RadixSort(slots_.data(), slots_.data() + n, n);
    }
    slots_.resize(n);
    std::vector<UDCIDEntry> out;
    out.swap(slots_);
    return out;
  }

  // Least-significant-byte-first radix sort of the n entries at a by DCID,
  // through the n entries of room at b; the result ends in a. Bytes in
  // which all DCIDs agree take no pass.
  static void RadixSort(UDCIDEntry* a, UDCIDEntry* b, size_t n) {
    uint32_t counts[8][256] = {};  // n < 2^32: there are fewer entries than segments
    for (size_t i = 0; i < n; ++i) {
      for (unsigned int d = 0; d < 8; ++d) ++counts[d][(a[i].dcid >> (8 * d)) & 0xFF];
    }
    UDCIDEntry* from = a;
    UDCIDEntry* to = b;
    for (unsigned int d = 0; d < 8; ++d) {
      if (counts[d][(a[0].dcid >> (8 * d)) & 0xFF] == n) continue;
      uint32_t at = 0;
      for (uint32_t& c : counts[d]) {
        const uint32_t here = c;
        c = at;
        at += here;
      }
      for (size_t i = 0; i < n; ++i) to[counts[d][(from[i].dcid >> (8 * d)) & 0xFF]++] = from[i];
      std::swap(from, to);
    }
    if (from != a) std::memcpy(a, from, n * sizeof *a);
  }

 private:
  static constexpr uint64_t kInitialKeys = 1024;
  static constexpr size_t kSmallSort = 64;

  void Reset(unsigned int bits) {
    slots_.assign(size_t{1} << bits, UDCIDEntry{0, 0});
    shift_ = 64 - bits;
    mask_ = (uint64_t{1} << bits) - 1;
    size_ = 0;
  }

  static constexpr size_t kSparseSlots = 16384;  // 256 KiB

  // Keys a table of `slots` slots takes before it doubles.
  static size_t Room(size_t slots) { return slots <= kSparseSlots ? slots / 8 : slots / 2; }

  static uint64_t Home(uint64_t dcid, unsigned int shift) {
    return (dcid * 0x9E3779B97F4A7C15ull) >> shift;  // Fibonacci hashing
  }

  void Grow() {
    std::vector<UDCIDEntry> old;
    old.swap(slots_);
    try {
      Reset(64 - shift_ + 2);
    } catch (...) {
      old.swap(slots_);
      throw;
    }
    used_.clear();
    for (const UDCIDEntry& slot : old) {
      if (slot.dcid == 0) continue;
      uint64_t i = Home(slot.dcid, shift_);
      while (slots_[i].dcid != 0) i = (i + 1) & mask_;
      slots_[i] = slot;
      ++size_;
      if (tracking_) used_.push_back(&slots_[i]);
    }
  }

  std::vector<UDCIDEntry> slots_;
  std::vector<UDCIDEntry*> used_;  // the filled slots, while tracking_
  bool tracking_ = false;
  uint64_t mask_ = 0;
  unsigned int shift_ = 0;
  size_t size_ = 0;
};

// The rest of a list whose containers outgrew a table that fits the cache:
// entries from..count - 1, and the keys the table already holds. Both are
// scattered by DCID into 256 partitions, in one buffer, and each partition
// is then gathered by a table that fits the cache. The buffer is written in
// 256 sequential streams and read back in order, where one large table
// would miss the cache on nearly every lookup. Returns count, or the index of the first
// DCID below 64 from `from` on; fills *out in ascending DCID order.
template <class DcidOf, class SizeOf>
uint32_t GatherByPartitions(DCIDTable* table, uint32_t from, uint32_t count, DcidOf dcidOf,
                            SizeOf sizeOf, std::vector<UDCIDEntry>* out) {
  constexpr unsigned int kParts = 256;
  // Bits of the product that the tables' own hashing (its top bits) does
  // not use, so that a partition's keys still spread over its table.
  auto part = [](uint64_t dcid) {
    return static_cast<uint32_t>(((dcid * 0x9E3779B97F4A7C15ull) >> 24) & (kParts - 1));
  };
  uint64_t starts[kParts + 1] = {};
  for (uint32_t i = from; i < count; ++i) {
    const uint64_t dcid = dcidOf(i);
    if (dcid < 64) return i;
    ++starts[part(dcid) + 1];
  }
  table->ForEach([&](const UDCIDEntry& e) { ++starts[part(e.dcid) + 1]; });
  for (unsigned int p = 0; p < kParts; ++p) starts[p + 1] += starts[p];

  // Left unfilled by new[]: every entry is written below.
  std::unique_ptr<UDCIDEntry[]> scattered(new UDCIDEntry[starts[kParts]]);
  uint64_t at[kParts];
  std::copy(starts, starts + kParts, at);
  table->ForEach([&](const UDCIDEntry& e) { scattered[at[part(e.dcid)]++] = e; });
  table->Release();
  for (uint32_t i = from; i < count; ++i) {
    const uint64_t dcid = dcidOf(i);
    scattered[at[part(dcid)]++] = UDCIDEntry{dcid, sizeOf(i)};
  }

  DCIDTable small(kParts);
  small.TrackSlots();
  out->clear();
  for (unsigned int p = 0; p < kParts; ++p) {
    const UDCIDEntry* e = scattered.get() + starts[p];
    const uint32_t n = static_cast<uint32_t>(starts[p + 1] - starts[p]);
    small.Gather(n, [e](uint32_t i) { return e[i].dcid; }, [e](uint32_t i) { return e[i].bytes; },
                 false);
    small.DrainInto(out);
  }
  // Every key came in at least one entry: the scattered buffer is room
  // enough for the sort's second copy.
  DCIDTable::RadixSort(out->data(), scattered.get(), out->size());
  return count;
}

// The distinct containers of entries 0..count - 1 with their bytes, in
// ascending DCID order. Returns count, or the index of the first DCID below
// 64 (and then *out is unspecified).
template <class DcidOf, class SizeOf>
uint32_t GatherUnique(uint32_t count, DcidOf dcidOf, SizeOf sizeOf,
                      std::vector<UDCIDEntry>* out) {
  DCIDTable table(count);
  const uint32_t stop = table.Gather(count, dcidOf, sizeOf, true);
  if (stop == count) {
    *out = table.TakeSorted();
    return count;
  }
  if (dcidOf(stop) < 64) return stop;
  return GatherByPartitions(&table, stop, count, dcidOf, sizeOf, out);
}

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
      const bool derivedSizes = dotype == CR_DO_TYPE_ORIGINAL || dotype == CR_DO_TYPE_NO_SIZE;
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
  if (count <= kFewEntries && needed > allocatedSize_ && ownsBuffer_) {
    std::copy(entries.begin(), entries.end(), few);
    std::vector<UDCIDEntry>().swap(entries);
    list = few;
  }

  if (needed > allocatedSize_) {
    // Exactly the size needed, whatever the buffer mode: a borrowed buffer
    // is replaced by an owned copy in the same way. An owned buffer is
    // grown with realloc, which can extend it in place (or remap it) instead
    // of copying the record; on failure it leaves the buffer as it was.
    if (ownsBuffer_) {
      void* grown = std::realloc(header_, needed);
      if (grown == nullptr) return CR_STATUS_NO_MEMORY;
      header_ = static_cast<DORecordHeader*>(grown);
      writeTRefSection();
    } else {
      void* grown = std::malloc(needed);
      if (grown == nullptr) return CR_STATUS_NO_MEMORY;
      writeTRefSection();
      std::memcpy(grown, header_, std::min<uint64_t>(getRecSize(), allocatedSize_));
      header_ = static_cast<DORecordHeader*>(grown);
      ownsBuffer_ = true;
    }
    allocatedSize_ = needed;
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
