// Serialized DO records written out by hand from the exchange layout, shared
// by the serialization, reader and round-trip tests. Nothing here calls the
// code under test.
#ifndef CRRECORD_TESTS_SERIALIZED_FORM_H
#define CRRECORD_TESTS_SERIALIZED_FORM_H

#include <cstdint>
#include <vector>

#include "test_support.h"

namespace crtest {

struct Seg {
  std::vector<uint8_t> fp;  // the record's width: 16 or 32 bytes
  uint32_t size;
  uint64_t offset;        // DO type 3
  uint32_t objectOffset;  // DO type 5
  uint64_t dcid;
};

struct UEntry {
  uint64_t dcid;
  uint64_t bytes;
};

inline size_t FPWidth(uint8_t fptype) { return fptype == 3 ? 32 : 16; }

// Three segments of a 10000-byte file cut every 4096 bytes, in containers
// 64, 70 and 64: consistent for every DO type with size 10000, ssize 4096.
inline std::vector<Seg> ThreeSegments(uint8_t fptype) {
  const size_t w = FPWidth(fptype);
  return {{PatternFP(0x10, w), 4096, 0, 0, 64},
          {PatternFP(0xA0, w), 4096, 4096, 4096, 70},
          {PatternFP(0xF0, w), 1808, 8192, 8192, 64}};
}

// The host-order segment list that the segment-list constructor takes.
inline Bytes SegmentList(uint8_t dotype, const std::vector<Seg>& segs) {
  Bytes b;
  for (const Seg& s : segs) {
    b.raw(s.fp.data(), s.fp.size());
    if (dotype == 2) b.le32(s.size);
    if (dotype == 3) b.le32(s.size).le64(s.offset);
    if (dotype == 5) b.le32(s.size).le32(s.objectOffset);
  }
  return b;
}

// The serialized DO record with `checksumField` at bytes 16..19: the lower-
// case hex text of each fingerprint fills its field of 2 * width + 1 bytes
// exactly, the NUL included.
inline std::vector<uint8_t> SerializedDO(uint8_t dotype, uint64_t size, uint64_t ssize,
                                         uint32_t checksumField, const std::vector<Seg>& segs) {
  Bytes b;
  b.be64(size).be64(ssize).be32(checksumField).be32(static_cast<uint32_t>(segs.size())).be32(0);
  for (const Seg& s : segs) {
    b.str(Hex(s.fp.data(), s.fp.size())).u8(0);
    if (dotype == 2) b.be32(s.size);
    if (dotype == 3) b.be32(s.size).be64(s.offset);
    if (dotype == 5) b.be32(s.size).be32(s.objectOffset);
  }
  b.u8(0);
  for (const Seg& s : segs) b.be64(s.dcid);
  return b.vec();
}

// Puts the Adler-32 of bytes 28..end into bytes 16..19.
inline std::vector<uint8_t> Sealed(std::vector<uint8_t> image) {
  const uint32_t sum = SlowAdler32(image.data() + 28, image.size() - 28);
  for (int k = 0; k < 4; ++k) image[16 + k] = static_cast<uint8_t>(sum >> (24 - 8 * k));
  return image;
}

// A unique-DCID block in host order, as the Bloom constructor takes it.
inline std::vector<uint8_t> HostUniqueDcids(const std::vector<UEntry>& entries) {
  Bytes body;
  body.le32(static_cast<uint32_t>(entries.size()));
  for (const UEntry& e : entries) body.le64(e.dcid).le64(e.bytes);
  Bytes block;
  block.le32(SlowAdler32(body.data(), body.size())).raw(body.data(), body.size());
  return block.vec();
}

// The serialized Bloom DO record, sealed. Its unique-DCID block is sealed by
// its own Adler-32 over the big-endian count and entries.
inline std::vector<uint8_t> SerializedBloom(uint64_t size, uint64_t ssize,
                                            const std::vector<uint8_t>& bitmap,
                                            const std::vector<UEntry>& entries) {
  Bytes b;
  b.be64(size).be64(ssize).be32(0).be32(0).be32(0);
  b.be32(static_cast<uint32_t>(bitmap.size())).raw(bitmap.data(), bitmap.size());
  if (entries.empty()) {
    b.zeros(8);
  } else {
    Bytes body;
    body.be32(static_cast<uint32_t>(entries.size()));
    for (const UEntry& e : entries) body.be64(e.dcid).be64(e.bytes);
    b.be32(SlowAdler32(body.data(), body.size())).raw(body.data(), body.size());
  }
  b.zeros(16);
  return Sealed(b.vec());
}

inline std::vector<uint8_t> PatternBitmap(size_t n) {
  std::vector<uint8_t> bitmap(n);
  for (size_t k = 0; k < n; ++k) bitmap[k] = static_cast<uint8_t>(0x5A ^ (k * 7));
  return bitmap;
}

}  // namespace crtest

#endif  // CRRECORD_TESTS_SERIALIZED_FORM_H
