// Serialized DO records and host-order records written out by hand from the
// layouts, shared by the serialization, reader and round-trip tests; and the
// few builders and checks those tests share. The byte images never call the
// code under test.
#ifndef CRRECORD_TESTS_SERIALIZED_FORM_H
#define CRRECORD_TESTS_SERIALIZED_FORM_H

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "crrecord/DORecord.h"
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

// Bytes a DO type adds to each fingerprint in a record: size and offsets.
inline size_t TypeFields(uint8_t dotype) {
  return dotype == 2 ? 4 : dotype == 3 ? 12 : dotype == 5 ? 8 : 0;
}

// A record of `n` segments without references or unique-DCID list.
inline size_t PlainRecordSize(uint8_t dotype, uint8_t fptype, size_t n) {
  return 80 + n * (FPWidth(fptype) + TypeFields(dotype) + 8);
}

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

// The header fields of a host-order record that vary between the tests.
struct HostFields {
  uint16_t flags;
  uint64_t cid;
  uint32_t crc, ctime, mtime;
};

// The host-order record of `segs` (file size 10000, segment size 4096):
// header, segment list, DCIDs, then the typed-reference section `trefs`.
inline std::vector<uint8_t> HostRecord(uint8_t dotype, uint8_t fptype, const std::vector<Seg>& segs,
                                       const HostFields& f, const Bytes& trefs = Bytes()) {
  const uint32_t trefsize = static_cast<uint32_t>(trefs.size());
  const uint32_t nfp = static_cast<uint32_t>(segs.size());
  Bytes b;
  const uint32_t recsize = static_cast<uint32_t>(PlainRecordSize(dotype, fptype, nfp)) + trefsize;
  b.le16(3).le16(f.flags).le32(recsize);
  b.le32(0).le32(0).le64(f.cid).le64(10000).le64(4096);  // reserved, checktime, CID, sizes
  b.le32(f.crc).le32(f.ctime).le32(f.mtime);
  b.le32(0).le32(nfp).le32(0).le32(0).le32(trefsize).le32(0);  // ntaskid ... bsize
  b.u8(fptype).u8(dotype).zeros(2);
  const Bytes list = SegmentList(dotype, segs);
  b.raw(list.data(), list.size());
  for (const Seg& s : segs) b.le64(s.dcid);
  b.raw(trefs.data(), trefs.size());
  return b.vec();
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

// --- Shared builders and checks: these do call the code under test ---------

// A record from the segment-list constructor, file size `size`, segment size 4096.
inline std::unique_ptr<DORecord> BuildDO(uint8_t dotype, uint8_t fptype,
                                         const std::vector<Seg>& segs, uint32_t crc = 0,
                                         unsigned long cid = 100, unsigned long size = 10000,
                                         uint32_t ctime = 10, uint32_t mtime = 20) {
  const Bytes list = SegmentList(dotype, segs);
  std::vector<unsigned long> dcids;
  for (const Seg& s : segs) dcids.push_back(s.dcid);
  return std::make_unique<DORecord>(cid, size, 4096, crc, ctime, mtime, list.data(),
                                    static_cast<unsigned int>(segs.size()), dcids.data(), nullptr,
                                    fptype, dotype);
}

// A Bloom record (file size 10000, segment size 4096) with a unique-DCID
// block of `entries`, or none when it is empty.
inline std::unique_ptr<DORecord> BuildBloom(const std::vector<uint8_t>& bitmap,
                                            const std::vector<UEntry>& entries, uint8_t fptype = 1,
                                            uint32_t crc = 0, unsigned long cid = 100) {
  const std::vector<uint8_t> block = HostUniqueDcids(entries);
  return std::make_unique<DORecord>(
      cid, 10000, 4096, crc, 10, 20, static_cast<unsigned int>(bitmap.size()), bitmap.data(),
      entries.empty() ? nullptr : reinterpret_cast<const char*>(block.data()), fptype, 4);
}

// The serialized bytes of `r`, the produced buffer released at once.
inline std::vector<uint8_t> SerializedBytes(const DORecord& r, bool checksum,
                                            bool bloomCall = false) {
  void* out = nullptr;
  unsigned long size = 0;
  EXPECT_EQ(bloomCall ? r.SerializeBloomFilterDO(&out, &size, checksum)
                      : r.Serialize(&out, &size, checksum),
            0u);
  if (out == nullptr) return {};
  std::vector<uint8_t> bytes(static_cast<uint8_t*>(out), static_cast<uint8_t*>(out) + size);
  DORecord::SerializedDORecordFree(&out);
  return bytes;
}

struct FreeDeleter {
  void operator()(void* p) const { std::free(p); }
};
using Malloced = std::unique_ptr<uint8_t, FreeDeleter>;

// A heap block of exactly `n` bytes (the sanitizer reports any read past
// it), holding `data` when given, else filled with 0xEE.
inline Malloced Block(size_t n, const uint8_t* data = nullptr) {
  Malloced m(static_cast<uint8_t*>(std::malloc(n == 0 ? 1 : n)));
  if (data != nullptr && n != 0) std::memcpy(m.get(), data, n);
  if (data == nullptr) std::memset(m.get(), 0xEE, n);
  return m;
}

inline void ExpectThrows(const std::function<void()>& f, cr_status_t status,
                         const std::string& message) {
  try {
    f();
    ADD_FAILURE() << "no exception; expected status " << status;
  } catch (const Cr_ErrnoException& e) {
    EXPECT_EQ(e.GetStatus(), status);
    EXPECT_EQ(std::string(e.what()), message);
  }
}

}  // namespace crtest

#endif  // CRRECORD_TESTS_SERIALIZED_FORM_H
