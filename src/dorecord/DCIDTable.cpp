#include "dorecord/DCIDTable.h"

#include <cstring>

namespace crrecord {

void DCIDTable::Release() {
  std::vector<UDCIDEntry>().swap(slots_);
  std::vector<UDCIDEntry*>().swap(used_);
  size_ = 0;
}

void DCIDTable::DrainInto(std::vector<UDCIDEntry>* out) {
  for (UDCIDEntry* slot : used_) {
    out->push_back(*slot);
    *slot = UDCIDEntry{0, 0};
  }
  used_.clear();
  size_ = 0;
}

std::vector<UDCIDEntry> DCIDTable::TakeSorted() {
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

void DCIDTable::RadixSort(UDCIDEntry* a, UDCIDEntry* b, size_t n) {
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

void DCIDTable::Reset(unsigned int bits) {
  slots_.assign(size_t{1} << bits, UDCIDEntry{0, 0});
  shift_ = 64 - bits;
  mask_ = (uint64_t{1} << bits) - 1;
  size_ = 0;
}

void DCIDTable::Grow() {
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

}  // namespace crrecord
