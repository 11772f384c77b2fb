// Fixed-size and gear-hash content-defined chunking.
#include "chunker.h"

#include <algorithm>
#include <array>

namespace crrec {

namespace {

// splitmix64: a fixed, well-mixed sequence, so the table needs no storage
// in the source and no random source at run time.
constexpr uint64_t SplitMix(uint64_t* state) {
  uint64_t z = (*state += 0x9e3779b97f4a7c15ull);
  z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ull;
  z = (z ^ (z >> 27)) * 0x94d049bb133111ebull;
  return z ^ (z >> 31);
}

std::array<uint64_t, 256> MakeGearTable() {
  std::array<uint64_t, 256> table{};
  uint64_t state = 0x63727265632d6364ull;  // fixed seed
  for (uint64_t& v : table) v = SplitMix(&state);
  return table;
}

unsigned Log2(uint32_t v) {
  unsigned bits = 0;
  while ((uint64_t{1} << (bits + 1)) <= v) ++bits;
  return bits;
}

// A mask of `ones` set bits at the top of the word. The gear hash shifts
// left once per byte, so its top bits depend on the last 64 bytes only:
// the cut condition is a property of a 64-byte window, which is what lets
// cut points re-synchronise after an insertion.
uint64_t TopMask(unsigned ones) {
  if (ones == 0) return 0;
  if (ones >= 64) return ~uint64_t{0};
  return ~uint64_t{0} << (64 - ones);
}

}  // namespace

const uint64_t* GearTable() {
  static const std::array<uint64_t, 256> table = MakeGearTable();
  return table.data();
}

std::string CheckChunkerParams(const ChunkerParams& p) {
  if (p.kind == ChunkerKind::kFixed) {
    if (p.fixedSize == 0) return "the segment size must be at least 1 byte";
    if (p.fixedSize > kMaxSegmentSize) return "the segment size must be at most 1 GiB";
    return "";
  }
  if (p.minSize < 64) return "the minimum segment size must be at least 64 bytes";
  if (!(p.minSize < p.avgSize && p.avgSize < p.maxSize)) {
    return "segment sizes must grow: minimum " + std::to_string(p.minSize) + " < average " +
           std::to_string(p.avgSize) + " < maximum " + std::to_string(p.maxSize);
  }
  if (p.maxSize > kMaxSegmentSize) return "the maximum segment size must be at most 1 GiB";
  return "";
}

namespace {

// Rolls the gear hash over data[*i, end) and returns the first cut (the
// index after the byte whose hash has no bit of `mask` set), or 0 with *i at
// end. Four bytes a step: their gear sum does not depend on the hash, so the
// chain from one step to the next is one shift and one add, not four; the
// hashes and cuts are those of the byte-at-a-time roll.
size_t GearScan(const unsigned char* data, size_t* i, size_t end, uint64_t mask,
                const uint64_t* gear, uint64_t* hash) {
  uint64_t h = *hash;
  size_t k = *i;
  for (; k + 4 <= end; k += 4) {
    const uint64_t t1 = gear[data[k]];
    const uint64_t t2 = (t1 << 1) + gear[data[k + 1]];
    const uint64_t t3 = (t2 << 1) + gear[data[k + 2]];
    const uint64_t t4 = (t3 << 1) + gear[data[k + 3]];
    const uint64_t h1 = (h << 1) + t1, h2 = (h << 2) + t2, h3 = (h << 3) + t3;
    const uint64_t h4 = (h << 4) + t4;
    if (((h1 & mask) == 0) | ((h2 & mask) == 0) | ((h3 & mask) == 0) | ((h4 & mask) == 0)) {
      if ((h1 & mask) == 0) return k + 1;
      if ((h2 & mask) == 0) return k + 2;
      return (h3 & mask) == 0 ? k + 3 : k + 4;
    }
    h = h4;
  }
  for (; k < end; ++k) {
    h = (h << 1) + gear[data[k]];
    if ((h & mask) == 0) return k + 1;
  }
  *i = k;
  *hash = h;
  return 0;
}

}  // namespace

Chunker::Chunker(const ChunkerParams& params)
    : params_(params), maskStrict_(0), maskLoose_(0) {
  if (params_.kind == ChunkerKind::kContentDefined) {
    // Normalization level 2: two bits more before the average, two fewer
    // after it, which pulls segment sizes towards the average.
    const unsigned bits = Log2(params_.avgSize);
    maskStrict_ = TopMask(bits + 2);
    maskLoose_ = TopMask(bits > 2 ? bits - 2 : 1);
  }
}

uint32_t Chunker::MaxSize() const {
  return params_.kind == ChunkerKind::kFixed ? params_.fixedSize : params_.maxSize;
}

uint32_t Chunker::NominalSize() const {
  return params_.kind == ChunkerKind::kFixed ? params_.fixedSize : params_.avgSize;
}

size_t Chunker::Cut(const unsigned char* data, size_t length) const {
  if (params_.kind == ChunkerKind::kFixed) return std::min<size_t>(length, params_.fixedSize);
  return CutContentDefined(data, length);
}

size_t Chunker::CutContentDefined(const unsigned char* data, size_t length) const {
  if (length <= params_.minSize) return length;
  const size_t end = std::min<size_t>(length, params_.maxSize);
  const size_t normal = std::min<size_t>(end, params_.avgSize);
  const uint64_t* gear = GearTable();
  uint64_t hash = 0;
  // No cut inside the minimum: those bytes are not even hashed. The window
  // is 64 bytes wide, so hashing from here on decides every later cut.
  size_t i = params_.minSize;
  size_t cut = GearScan(data, &i, normal, maskStrict_, gear, &hash);
  if (cut != 0) return cut;
  cut = GearScan(data, &i, end, maskLoose_, gear, &hash);
  return cut != 0 ? cut : end;
}

}  // namespace crrec
