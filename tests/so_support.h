// Segment DB record images written field by field at the documented offsets,
// and an exactly sized heap buffer so that the sanitizer sees any over-read.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <vector>

#include "test_support.h"

namespace crtest {

inline size_t SoWidth(uint8_t fptype) { return fptype == 3 ? 32 : 16; }

// The fields of one record as the test means them. The bytes carried
// unconverted (reserved words, pad, key index, trailer) hold recognisable
// patterns, or zeros when `blank`, as in a record the library makes new.
struct SoRec {
  uint16_t type = 2, flags = 2;
  std::optional<uint32_t> recsize, ntaskid, ndo;  // default: from the lists
  uint32_t unused = 0x01020304, checktime = 1700000000;
  uint64_t dcid = 1000, fileID = 0, size = 65536;
  uint32_t crc = 7;
  uint8_t fptype = 1, cryptoMode = 4;
  std::vector<uint8_t> key = PatternFP(0x40, 33);
  bool blank = false;
  std::vector<uint64_t> taskIDs;
  std::vector<std::vector<uint8_t>> fps;
};

// Host (little-endian) or network (big-endian) image.
inline Bytes SoImage(const SoRec& r, bool big) {
  Bytes b;
  auto u16 = [&](uint16_t v) { big ? b.be16(v) : b.le16(v); };
  auto u32 = [&](uint32_t v) { big ? b.be32(v) : b.le32(v); };
  auto u64 = [&](uint64_t v) { big ? b.be64(v) : b.le64(v); };
  const bool f = !r.blank;
  u16(r.type);
  u16(r.flags);
  u32(r.recsize.value_or(
      static_cast<uint32_t>(104 + 8 * r.taskIDs.size() + SoWidth(r.fptype) * r.fps.size())));
  u32(r.unused);
  u32(r.ntaskid.value_or(static_cast<uint32_t>(r.taskIDs.size())));
  u32(r.checktime);
  b.be32(f ? 0xA0A1A2A3u : 0);
  u64(r.dcid);
  u64(r.fileID);
  u64(r.size);
  u32(r.crc);
  u32(r.ndo.value_or(static_cast<uint32_t>(r.fps.size())));
  b.raw(r.key.data(), r.key.size()).u8(r.fptype).u8(r.cryptoMode).u8(f ? 0x5A : 0);
  b.be16(f ? 0x0201 : 0).be16(f ? 0xB0B1 : 0);
  for (uint64_t t : r.taskIDs) u64(t);
  for (const std::vector<uint8_t>& fp : r.fps) b.raw(fp.data(), fp.size());
  return b.be64(f ? 0xE0E1E2E3E4E5E6E7ull : 0);
}

struct ExactBuffer {
  explicit ExactBuffer(const Bytes& b) : p(static_cast<unsigned char*>(std::malloc(b.size()))) {
    if (b.size() != 0) std::memcpy(p, b.data(), b.size());
  }
  ~ExactBuffer() { std::free(p); }
  ExactBuffer(const ExactBuffer&) = delete;
  ExactBuffer& operator=(const ExactBuffer&) = delete;
  template <typename T>
  T* as() const { return reinterpret_cast<T*>(p); }
  std::vector<uint8_t> bytes(size_t n) const { return std::vector<uint8_t>(p, p + n); }
  unsigned char* p;
};

}  // namespace crtest
