// Record set-up shared by the DO record tests: small built records, header
// images written by hand, exact heap copies of stored bytes, and refusals
// caught as (status, message).
#ifndef CRRECORD_TESTS_DO_RECORDS_H
#define CRRECORD_TESTS_DO_RECORDS_H

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "crrecord/DORecord.h"
#include "serialized_form.h"
#include "test_support.h"

namespace crtest {

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

inline uint32_t Now() { return static_cast<uint32_t>(std::time(nullptr)); }

// Bytes after the fingerprint of a segment entry, by DO type.
inline unsigned EntryExtra(uint8_t dotype) {
  return dotype == 2 ? 4 : dotype == 3 ? 12 : dotype == 5 ? 8 : 0;
}

inline std::vector<uint8_t> BytesAt(const void* p, size_t n) {
  const uint8_t* b = static_cast<const uint8_t*>(p);
  return std::vector<uint8_t>(b, b + n);
}

inline std::vector<uint8_t> RecordBytes(const DORecord& r) {
  return BytesAt(r.GetHeader(), r.getRecSize());
}

// A malloc'ed copy of exactly the given bytes, so that ASan sees an
// over-read; freed by the caller, or by a record that takes it over.
inline DORecordHeader* MallocCopy(const std::vector<uint8_t>& bytes) {
  void* p = std::malloc(bytes.empty() ? 1 : bytes.size());
  if (!bytes.empty()) std::memcpy(p, bytes.data(), bytes.size());
  return static_cast<DORecordHeader*>(p);
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

// DO type 2, two 16-byte-fingerprint segments of 300 and 700 bytes in
// containers 64 and 65; CID 100, size 1000, ssize 512, CRC 0xABCD, ctime 10,
// mtime 20, no references.
constexpr unsigned int kSmallSize = 80 + 2 * (16 + 4 + 8);
inline std::unique_ptr<DORecord> SmallRecord() {
  Bytes segs;
  segs.raw(PatternFP(1, 16).data(), 16).le32(300).raw(PatternFP(2, 16).data(), 16).le32(700);
  const unsigned long dcids[] = {64, 65};
  return std::make_unique<DORecord>(100, 1000, 512, 0xABCD, 10, 20, segs.data(), 2, dcids,
                                    nullptr, 1, 2);
}

const std::vector<UEntry> kUdcids = {{100, 4096}, {200, 8192}};

inline std::vector<unsigned long> Dcids(const std::vector<Seg>& segs) {
  std::vector<unsigned long> out;
  for (const Seg& s : segs) out.push_back(s.dcid);
  return out;
}

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

#endif  // CRRECORD_TESTS_DO_RECORDS_H
