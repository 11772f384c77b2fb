// The distinct containers of a segment list with the bytes of the file in
// each, gathered whatever the list's length or the containers' number: a
// hash table of DCIDs (DCIDTable), a radix sort of its keys, and, for lists
// whose containers outgrow the cache, a gather by partitions. Nothing here
// knows the record format; the callers read DCIDs and sizes through
// functions of the entry's index.
#ifndef CRRECORD_SRC_DORECORD_DCIDTABLE_H
#define CRRECORD_SRC_DORECORD_DCIDTABLE_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace crrecord {

struct UDCIDEntry {
  uint64_t dcid;
  uint64_t bytes;
};

inline bool ByDCID(const UDCIDEntry& a, const UDCIDEntry& b) { return a.dcid < b.dcid; }

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
  void Release();

  // From now on the table notes the slots it fills, so that DrainInto costs
  // in proportion to the keys rather than to the slots. REQUIRES: empty.
  void TrackSlots() { tracking_ = true; }

  // Appends the keys to *out in no particular order and empties the table,
  // keeping its slots for the next use. REQUIRES: TrackSlots.
  void DrainInto(std::vector<UDCIDEntry>* out);

  // The occupied slots, packed and in ascending DCID order; empties the table.
  std::vector<UDCIDEntry> TakeSorted();

  // Least-significant-byte-first radix sort of the n entries at a by DCID,
  // through the n entries of room at b; the result ends in a. Bytes in
  // which all DCIDs agree take no pass.
  static void RadixSort(UDCIDEntry* a, UDCIDEntry* b, size_t n);

 private:
  static constexpr uint64_t kInitialKeys = 1024;
  static constexpr size_t kSmallSort = 64;

  void Reset(unsigned int bits);

  static constexpr size_t kSparseSlots = 16384;  // 256 KiB

  // Keys a table of `slots` slots takes before it doubles.
  static size_t Room(size_t slots) { return slots <= kSparseSlots ? slots / 8 : slots / 2; }

  static uint64_t Home(uint64_t dcid, unsigned int shift) {
    return (dcid * 0x9E3779B97F4A7C15ull) >> shift;  // Fibonacci hashing
  }

  void Grow();

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

}  // namespace crrecord

#endif  // CRRECORD_SRC_DORECORD_DCIDTABLE_H
