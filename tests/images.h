// The one builder of byte images for the tests and the fuzz seeds: a byte
// writer, stored, serialized and Bloom DO images, SO and segment DB record
// images, all written from the layouts without calling the code under test;
// then the few helpers the tests share that do call it. The fuzz code defines
// CRTEST_NO_GTEST and gets the images only.
#ifndef CRRECORD_TESTS_IMAGES_H
#define CRRECORD_TESTS_IMAGES_H

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "crrecord/DORecord.h"
#include "crrecord/platform/status.h"

namespace crtest {

// --- Byte writing and reference sums ------------------------------------------

// A byte image written field by field, in either byte order.
class Bytes {
 public:
  Bytes& u8(uint8_t v) { b_.push_back(v); return *this; }
  Bytes& le16(uint16_t v) { return le(v, 2); }
  Bytes& le32(uint32_t v) { return le(v, 4); }
  Bytes& le64(uint64_t v) { return le(v, 8); }
  Bytes& be16(uint16_t v) { return be(v, 2); }
  Bytes& be32(uint32_t v) { return be(v, 4); }
  Bytes& be64(uint64_t v) { return be(v, 8); }
  Bytes& raw(const void* p, size_t n) {
    const uint8_t* q = static_cast<const uint8_t*>(p);
    b_.insert(b_.end(), q, q + n);
    return *this;
  }
  Bytes& raw(const std::vector<uint8_t>& v) { return raw(v.data(), v.size()); }
  Bytes& str(const std::string& s) { return raw(s.data(), s.size()); }
  Bytes& zeros(size_t n) { b_.insert(b_.end(), n, 0); return *this; }
  const std::vector<uint8_t>& vec() const { return b_; }
  size_t size() const { return b_.size(); }
  const uint8_t* data() const { return b_.data(); }

 private:
  Bytes& le(uint64_t v, int n) {
    for (int i = 0; i < n; ++i) b_.push_back(static_cast<uint8_t>(v >> (8 * i)));
    return *this;
  }
  Bytes& be(uint64_t v, int n) {
    for (int i = n - 1; i >= 0; --i) b_.push_back(static_cast<uint8_t>(v >> (8 * i)));
    return *this;
  }
  std::vector<uint8_t> b_;
};

// A recognisable fingerprint: byte k is seed + k.
inline std::vector<uint8_t> PatternFP(uint8_t seed, size_t width) {
  std::vector<uint8_t> fp(width);
  for (size_t k = 0; k < width; ++k) fp[k] = static_cast<uint8_t>(seed + k);
  return fp;
}

inline std::vector<uint8_t> PatternBitmap(size_t n) {
  std::vector<uint8_t> bitmap(n);
  for (size_t k = 0; k < n; ++k) bitmap[k] = static_cast<uint8_t>(0x5A ^ (k * 7));
  return bitmap;
}

// Reference Adler-32, written the slow way for checking the library.
inline uint32_t SlowAdler32(const void* data, size_t n) {
  const uint8_t* p = static_cast<const uint8_t*>(data);
  uint32_t a = 1, b = 0;
  for (size_t i = 0; i < n; ++i) {
    a = (a + p[i]) % 65521;
    b = (b + a) % 65521;
  }
  return (b << 16) | a;
}

inline std::string Hex(const void* data, size_t n) {
  static const char* digits = "0123456789abcdef";
  const uint8_t* p = static_cast<const uint8_t*>(data);
  std::string s;
  for (size_t i = 0; i < n; ++i) {
    s.push_back(digits[p[i] >> 4]);
    s.push_back(digits[p[i] & 15]);
  }
  return s;
}

// --- DO record images ---------------------------------------------------------

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
inline unsigned TypeFields(uint8_t dotype) {
  return dotype == 2 ? 4 : dotype == 3 ? 12 : dotype == 5 ? 8 : 0;
}
inline unsigned EntryExtra(uint8_t dotype) { return TypeFields(dotype); }

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
    b.raw(s.fp);
    if (dotype == 2) b.le32(s.size);
    if (dotype == 3) b.le32(s.size).le64(s.offset);
    if (dotype == 5) b.le32(s.size).le32(s.objectOffset);
  }
  return b;
}

// A template, so that a file's own Dcids(segs) is chosen before it.
template <typename Segs>
std::vector<unsigned long> Dcids(const Segs& segs) {
  std::vector<unsigned long> out;
  for (const Seg& s : segs) out.push_back(s.dcid);
  return out;
}

// The fixed header in host order, every field in its stored order; type 3,
// flags 0x0002, reserved words zero.
inline Bytes HeaderImage(uint32_t recsize, uint32_t checktime, uint64_t cid, uint64_t size,
                         uint64_t ssize, uint32_t crc, uint32_t ctime, uint32_t mtime,
                         uint32_t ntaskid, uint32_t nfp, uint32_t nudcid, uint32_t nds,
                         uint32_t trefsize, uint32_t bsize, uint8_t fptype, uint8_t dotype) {
  Bytes b;
  b.le16(3).le16(0x0002).le32(recsize).le32(0).le32(checktime).le64(cid).le64(size).le64(ssize);
  b.le32(crc).le32(ctime).le32(mtime).le32(ntaskid).le32(nfp).le32(nudcid).le32(nds);
  b.le32(trefsize).le32(bsize).u8(fptype).u8(dotype).zeros(2);
  return b;
}

// The host-order record of `segs` (file size 10000, segment size 4096, flags
// `flags`): header, segment list, DCIDs, then the typed-reference section.
struct HostFields {
  uint16_t flags;
  uint64_t cid;
  uint32_t crc, ctime, mtime;
};
inline std::vector<uint8_t> HostRecord(uint8_t dotype, uint8_t fptype, const std::vector<Seg>& segs,
                                       const HostFields& f, const Bytes& trefs = Bytes()) {
  const uint32_t nfp = static_cast<uint32_t>(segs.size());
  const uint32_t tsize = static_cast<uint32_t>(trefs.size());
  const uint32_t recsize = static_cast<uint32_t>(PlainRecordSize(dotype, fptype, nfp)) + tsize;
  Bytes b;
  b.le16(3).le16(f.flags).le32(recsize).le32(0).le32(0).le64(f.cid).le64(10000).le64(4096);
  b.le32(f.crc).le32(f.ctime).le32(f.mtime).le32(0).le32(nfp).le32(0).le32(0).le32(tsize);
  b.le32(0).u8(fptype).u8(dotype).zeros(2).raw(SegmentList(dotype, segs).vec());
  for (const Seg& s : segs) b.le64(s.dcid);
  return b.raw(trefs.vec()).vec();
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

// A unique-DCID block, sealed by the Adler-32 of its count and entries: in
// host order as the Bloom constructor takes it, or big-endian as serialized.
inline std::vector<uint8_t> UniqueDcidBlock(const std::vector<UEntry>& entries, bool big) {
  Bytes body;
  big ? body.be32(static_cast<uint32_t>(entries.size()))
      : body.le32(static_cast<uint32_t>(entries.size()));
  for (const UEntry& e : entries) big ? body.be64(e.dcid).be64(e.bytes)
                                      : body.le64(e.dcid).le64(e.bytes);
  const uint32_t sum = SlowAdler32(body.data(), body.size());
  Bytes block;
  big ? block.be32(sum) : block.le32(sum);
  return block.raw(body.vec()).vec();
}
inline std::vector<uint8_t> HostUniqueDcids(const std::vector<UEntry>& entries) {
  return UniqueDcidBlock(entries, false);
}

// The serialized Bloom DO record, sealed; eight zero bytes stand for an
// absent unique-DCID block.
inline std::vector<uint8_t> SerializedBloom(uint64_t size, uint64_t ssize,
                                            const std::vector<uint8_t>& bitmap,
                                            const std::vector<UEntry>& entries) {
  Bytes b;
  b.be64(size).be64(ssize).be32(0).be32(0).be32(0);
  b.be32(static_cast<uint32_t>(bitmap.size())).raw(bitmap);
  entries.empty() ? b.zeros(8) : b.raw(UniqueDcidBlock(entries, true));
  return Sealed(b.zeros(16).vec());
}

// --- SO and segment DB record images ------------------------------------------

inline size_t SoWidth(uint8_t fptype) { return FPWidth(fptype); }

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
  std::optional<uint16_t> keyIndex;  // host value, stored as the host holds it
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
  b.raw(r.key).u8(r.fptype).u8(r.cryptoMode).u8(f ? 0x5A : 0);
  r.keyIndex ? b.le16(*r.keyIndex) : b.be16(f ? 0x0201 : 0);
  b.be16(f ? 0xB0B1 : 0);
  for (uint64_t t : r.taskIDs) u64(t);
  for (const std::vector<uint8_t>& fp : r.fps) b.raw(fp);
  return b.be64(f ? 0xE0E1E2E3E4E5E6E7ull : 0);
}

// --- Exactly sized heap copies: the sanitizer reports any read past them -------

struct FreeDeleter {
  void operator()(void* p) const { std::free(p); }
};
using Malloced = std::unique_ptr<uint8_t, FreeDeleter>;

// A heap block of exactly `n` bytes holding `data` when given, else 0xEE.
inline Malloced Block(size_t n, const uint8_t* data = nullptr) {
  Malloced m(static_cast<uint8_t*>(std::malloc(n == 0 ? 1 : n)));
  if (data != nullptr && n != 0) std::memcpy(m.get(), data, n);
  if (data == nullptr) std::memset(m.get(), 0xEE, n);
  return m;
}

// A malloc'ed copy of exactly the given bytes, freed by the caller or by a
// record that takes it over.
inline DORecordHeader* MallocCopy(const std::vector<uint8_t>& bytes) {
  return reinterpret_cast<DORecordHeader*>(Block(bytes.size(), bytes.data()).release());
}

inline std::vector<uint8_t> BytesAt(const void* p, size_t n) {
  const uint8_t* b = static_cast<const uint8_t*>(p);
  return std::vector<uint8_t>(b, b + n);
}

// --- Log capture ----------------------------------------------------------------

struct LogLine {
  cr_log_level_t level;
  cr_status_t status;
  std::string text;
};

// Captures every log and trace line while it lives; restores the default
// sink and switches tracing off when it goes.
class LogCapture {
 public:
  explicit LogCapture(bool trace = false) {
    CRLogSetSink(&LogCapture::Sink, this);
    CRTraceSet(trace);
  }
  ~LogCapture() {
    CRLogSetSink(nullptr, nullptr);
    CRTraceSet(false);
  }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  const std::vector<LogLine>& lines() const { return lines_; }
  std::vector<std::string> texts() const {
    std::vector<std::string> out;
    for (const LogLine& l : lines_) out.push_back(l.text);
    return out;
  }

 private:
  static void Sink(cr_log_level_t level, cr_status_t status, const char* message, void* ctx) {
    static_cast<LogCapture*>(ctx)->lines_.push_back(LogLine{level, status, message});
  }
  std::vector<LogLine> lines_;
};

// --- Records built by the code under test -------------------------------------

inline uint32_t Now() { return static_cast<uint32_t>(std::time(nullptr)); }

inline std::vector<uint8_t> RecordBytes(const DORecord& r) {
  return BytesAt(r.GetHeader(), r.getRecSize());
}

// A record from the segment-list constructor, segment size 4096.
inline std::unique_ptr<DORecord> BuildDO(uint8_t dotype, uint8_t fptype,
                                         const std::vector<Seg>& segs, uint32_t crc = 0,
                                         unsigned long cid = 100, unsigned long size = 10000,
                                         uint32_t ctime = 10, uint32_t mtime = 20) {
  const Bytes list = SegmentList(dotype, segs);
  const std::vector<unsigned long> dcids = Dcids(segs);
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

// DO type 2, two 16-byte-fingerprint segments of 300 and 700 bytes in
// containers 64 and 65; CID 100, size 1000, ssize 512, CRC 0xABCD, ctime 10,
// mtime 20, no references.
constexpr unsigned int kSmallSize = 80 + 2 * (16 + 4 + 8);
inline std::unique_ptr<DORecord> SmallRecord() {
  Bytes segs;
  segs.raw(PatternFP(1, 16)).le32(300).raw(PatternFP(2, 16)).le32(700);
  const unsigned long dcids[] = {64, 65};
  return std::make_unique<DORecord>(100, 1000, 512, 0xABCD, 10, 20, segs.data(), 2, dcids,
                                    nullptr, 1, 2);
}

const std::vector<UEntry> kUdcids = {{100, 4096}, {200, 8192}};

// A record built from `segs` with the unique DCIDs kUdcids, ctime = mtime = 1.
inline std::unique_ptr<DORecord> Make(uint8_t dotype, uint8_t fptype, uint64_t size,
                                      uint64_t ssize, const std::vector<Seg>& segs) {
  const Bytes list = SegmentList(dotype, segs);
  const std::vector<unsigned long> dcids = Dcids(segs);
  const std::vector<uint8_t> udcid = HostUniqueDcids(kUdcids);
  return std::make_unique<DORecord>(70, size, ssize, 0, 1, 1, list.data(),
                                    static_cast<unsigned>(segs.size()), dcids.data(),
                                    reinterpret_cast<const char*>(udcid.data()), fptype, dotype);
}

// Refusals caught as (status, message).
typedef std::pair<cr_status_t, std::string> Failure;
const Failure kPass(0, "no exception");
const char kCannotGrow[] = "Need to expand the buffer of DORecord but I'm not allowed to copy it.";

template <typename F>
Failure Thrown(F f) {
  try {
    f();
  } catch (const Cr_ErrnoException& e) {
    return Failure(e.GetStatus(), e.what());
  }
  return kPass;
}

}  // namespace crtest

#endif  // CRRECORD_TESTS_IMAGES_H

// The helpers that report through the test framework; outside the guard
// above, so that a file that includes the images first gets them later.
#if !defined(CRTEST_NO_GTEST) && !defined(CRRECORD_TESTS_IMAGES_GTEST_H)
#define CRRECORD_TESTS_IMAGES_GTEST_H
#include <gtest/gtest.h>

namespace crtest {

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

inline void ExpectThrows(const std::function<void()>& f, cr_status_t status,
                         const std::string& message) {
  EXPECT_EQ(Thrown(f), Failure(status, message));
}

// Parameters for every DO type that has a segment list, in both widths.
typedef std::pair<uint8_t, uint8_t> TypeAndWidth;  // (DO type, fingerprint type)
inline auto EveryTypeAndWidth() {
  std::vector<TypeAndWidth> all;
  for (uint8_t dotype : {0, 1, 2, 3, 5}) {
    for (uint8_t fptype : {1, 3}) all.emplace_back(dotype, fptype);
  }
  return ::testing::ValuesIn(all);
}
inline std::string TypeAndWidthName(const ::testing::TestParamInfo<TypeAndWidth>& info) {
  return "DoType" + std::to_string(info.param.first) + "FpType" +
         std::to_string(info.param.second);
}

}  // namespace crtest

#endif  // CRTEST_NO_GTEST
