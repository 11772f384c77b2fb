// The segment DB record functions: byte-order conversion (optionally
// dropping the task IDs), validation of records read from outside, the
// serialized SO record and the binary and text stream forms. The layout is
// drawn in <crrecord/SOmarshall.h>.
#include "crrecord/SOmarshall.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ostream>

#include "crrecord/common/Endian.h"
#include "crrecord/common/FingerprintWidth.h"
#include "crrecord/platform/fingerprint.h"
#include "status/Report.h"

using namespace crrecord;

static_assert(sizeof(_SegmentDBRecord) == CR_SO_FIXED_SIZE, "the fixed part is 96 bytes");
static_assert(offsetof(_SegmentDBRecord, flags) == 2, "flags at 2");
static_assert(offsetof(_SegmentDBRecord, recsize) == 4, "recsize at 4");
static_assert(offsetof(_SegmentDBRecord, unused) == 8, "unused at 8");
static_assert(offsetof(_SegmentDBRecord, ntaskid) == 12, "ntaskid at 12");
static_assert(offsetof(_SegmentDBRecord, checktime) == 16, "checktime at 16");
static_assert(offsetof(_SegmentDBRecord, reserved1) == 20, "reserved1 at 20");
static_assert(offsetof(_SegmentDBRecord, DCID) == 24, "DCID at 24");
static_assert(offsetof(_SegmentDBRecord, fileID) == 32, "fileID at 32");
static_assert(offsetof(_SegmentDBRecord, size) == 40, "size at 40");
static_assert(offsetof(_SegmentDBRecord, CRC) == 48, "CRC at 48");
static_assert(offsetof(_SegmentDBRecord, ndo) == 52, "ndo at 52");
static_assert(offsetof(_SegmentDBRecord, key) == 56, "key at 56");
static_assert(offsetof(_SegmentDBRecord, fptype) == 56 + 33, "fptype at 89");
static_assert(offsetof(_SegmentDBRecord, cryptoMode) == 90, "cryptoMode at 90");
static_assert(offsetof(_SegmentDBRecord, pad) == 91, "pad at 91");
static_assert(offsetof(_SegmentDBRecord, keyIndex) == 92, "keyIndex at 92");
static_assert(offsetof(_SegmentDBRecord, reserved2) == 94, "reserved2 at 94");
static_assert(CR_SO_RECORD_MIN_SIZE == CR_SO_FIXED_SIZE + 8, "the trailer is 8 bytes");

namespace {

constexpr unsigned int kTaskIDWidth = 8;
constexpr unsigned int kTrailer = CR_SO_RECORD_MIN_SIZE - CR_SO_FIXED_SIZE;
// The serialized SO record: size, DCID, fileID (u64 each), CRC, m (u32 each),
// then the fingerprint texts and one zero byte.
constexpr unsigned int kSerializedHead = 8 + 8 + 8 + 4 + 4;

unsigned char* Base(_SegmentDBRecord* r) { return reinterpret_cast<unsigned char*>(r); }
const unsigned char* Base(const _SegmentDBRecord* r) {
  return reinterpret_cast<const unsigned char*>(r);
}

uint64_t FingerprintsOffset(uint32_t ntaskid) {
  return CR_SO_FIXED_SIZE + uint64_t{kTaskIDWidth} * ntaskid;
}

uint64_t RecordSize(uint32_t ntaskid, uint32_t ndo, unsigned char fptype) {
  return CR_SO_RECORD_MIN_SIZE + uint64_t{kTaskIDWidth} * ntaskid +
         uint64_t{FingerprintWidth(fptype)} * ndo;
}

// Whether a record stands in network order, told by its type field, which
// reads 2 in host order. A record of another type counts as host order.
bool InNetworkOrder(const _SegmentDBRecord* r) {
  return r->type != CR_SO_RECORD_TYPE && ByteSwap(r->type) == CR_SO_RECORD_TYPE;
}

// Moves the ndo DO fingerprints from behind srcTaskIDs task IDs in src to
// behind dstTaskIDs task IDs in dst; the two places may overlap.
void copyDO(_SegmentDBRecord* dst, const _SegmentDBRecord* src, uint32_t dstTaskIDs,
            uint32_t srcTaskIDs, uint32_t ndo) {
  const unsigned char* from = Base(src) + FingerprintsOffset(srcTaskIDs);
  unsigned char* to = Base(dst) + FingerprintsOffset(dstTaskIDs);
  if (from == to) return;
  std::memmove(to, from, uint64_t{FingerprintWidth(src->fptype)} * ndo);
}

// The 8-byte trailer follows the fingerprints wherever they go.
void copyTrailer(_SegmentDBRecord* dst, const _SegmentDBRecord* src, uint32_t dstTaskIDs,
                 uint32_t srcTaskIDs, uint32_t ndo) {
  const uint64_t fingerprints = uint64_t{FingerprintWidth(src->fptype)} * ndo;
  const unsigned char* from = Base(src) + FingerprintsOffset(srcTaskIDs) + fingerprints;
  unsigned char* to = Base(dst) + FingerprintsOffset(dstTaskIDs) + fingerprints;
  if (from == to) return;
  std::memmove(to, from, kTrailer);
}

// Both directions swap the same fields; they differ only in the order the
// source's counts are read in. dst is src or does not overlap it.
void Convert(_SegmentDBRecord* dst, const _SegmentDBRecord* src, unsigned int flags,
             bool srcNetwork) {
  const uint32_t ntaskid = InRecordOrder(src->ntaskid, srcNetwork);
  const uint32_t ndo = InRecordOrder(src->ndo, srcNetwork);

  dst->type = ByteSwap(src->type);
  dst->flags = ByteSwap(src->flags);
  dst->size = ByteSwap(src->size);
  dst->checktime = ByteSwap(src->checktime);
  dst->unused = ByteSwap(src->unused);
  dst->DCID = ByteSwap(src->DCID);
  dst->fileID = ByteSwap(src->fileID);
  dst->CRC = ByteSwap(src->CRC);
  dst->ndo = ByteSwap(src->ndo);

  if (dst != src) {
    dst->reserved1 = src->reserved1;
    std::memcpy(dst->key, src->key, sizeof dst->key);
    dst->reserved2 = src->reserved2;
    dst->fptype = src->fptype;
    // Carried as well, though the unconverted set above is all a conversion
    // strictly needs: a copy without its crypto mode and key index would
    // describe data that can no longer be decrypted.
    dst->cryptoMode = src->cryptoMode;
    dst->pad = src->pad;
    dst->keyIndex = src->keyIndex;
  }

  if ((flags & CR_SO_CONVERT_DROP_TASKIDS) != 0) {
    dst->ntaskid = 0;
    dst->recsize =
        InRecordOrder(static_cast<uint32_t>(RecordSize(0, ndo, src->fptype)), !srcNetwork);
    copyDO(dst, src, 0, ntaskid, ndo);
    copyTrailer(dst, src, 0, ntaskid, ndo);
    return;
  }
  const unsigned char* from = Base(src) + CR_SO_FIXED_SIZE;
  unsigned char* to = Base(dst) + CR_SO_FIXED_SIZE;
  for (uint32_t i = 0; i < ntaskid; ++i) {
    Store(to + uint64_t{kTaskIDWidth} * i,
          ByteSwap(Load<uint64_t>(from + uint64_t{kTaskIDWidth} * i)));
  }
  dst->recsize = ByteSwap(src->recsize);
  dst->ntaskid = ByteSwap(src->ntaskid);
  copyDO(dst, src, ntaskid, ntaskid, ndo);
  copyTrailer(dst, src, ntaskid, ntaskid, ndo);
}

// Converts a record in place for as long as it lives and back when it goes,
// whether the work in between returned or threw.
class InPlaceConversion {
 public:
  InPlaceConversion(_SegmentDBRecord* record, bool active, bool toNetwork)
      : record_(active ? record : nullptr), toNetwork_(toNetwork) {
    if (record_ != nullptr) convert(toNetwork_);
  }
  ~InPlaceConversion() {
    if (record_ != nullptr) convert(!toNetwork_);
  }
  InPlaceConversion(const InPlaceConversion&) = delete;
  InPlaceConversion& operator=(const InPlaceConversion&) = delete;

 private:
  void convert(bool toNetwork) {
    if (toNetwork) {
      SegmentRecordHton(record_, record_, 0);
    } else {
      SegmentRecordNtoh(record_, record_, 0);
    }
  }
  _SegmentDBRecord* record_;
  bool toNetwork_;
};

// Text of the i-th DO fingerprint of a host-order record, or "" when the
// fingerprint type has no text form.
const char* FingerprintText(const _SegmentDBRecord* r, uint32_t i, char* buffer, size_t length) {
  const unsigned int width = FingerprintWidth(r->fptype);
  crfp_digest_t digest{};
  std::memcpy(digest.digest, Base(r) + FingerprintsOffset(r->ntaskid) + uint64_t{width} * i, width);
  const char* text = CRFPDigestToString_r(&digest, r->fptype, buffer, length);
  return text != nullptr ? text : "";
}

}  // namespace

bool RecordInContainer(unsigned long fileID) { return fileID == 0; }

void SegmentRecordHton(_SegmentDBRecord* dst, const _SegmentDBRecord* src, unsigned int flags) {
  Convert(dst, src, flags, false);
}

void SegmentRecordNtoh(_SegmentDBRecord* dst, const _SegmentDBRecord* src, unsigned int flags) {
  Convert(dst, src, flags, true);
}

cr_status_t SegmentRecordValidate(const _SegmentDBRecord* record, unsigned int size,
                                  unsigned int flags) {
  constexpr unsigned int kKnownFlags = CR_SO_VALIDATE_NETWORK_ORDER | CR_SO_VALIDATE_NO_TASKIDS;
  if (record == nullptr || (flags & ~kKnownFlags) != 0) return CR_STATUS_INVALID;
  if (size < CR_SO_FIXED_SIZE) {
    CR_TRACE("Invalid SO record: size %u, expected at least %u", size, CR_SO_FIXED_SIZE);
    return CR_STATUS_INVALID_RECORD;
  }
  // Every field read below lies in the fixed part, which the size covers.
  const bool net = (flags & CR_SO_VALIDATE_NETWORK_ORDER) != 0;
  const unsigned int type = InRecordOrder(record->type, net);
  const uint32_t recsize = InRecordOrder(record->recsize, net);
  const uint32_t ntaskid = InRecordOrder(record->ntaskid, net);
  const uint32_t ndo = InRecordOrder(record->ndo, net);
  if (type != CR_SO_RECORD_TYPE) {
    CR_TRACE("Invalid SO record: type %u, expected %u", type, unsigned{CR_SO_RECORD_TYPE});
    return CR_STATUS_INVALID_RECORD;
  }
  if (recsize != size) {
    CR_TRACE("Invalid SO record: recsize %u, size %u", recsize, size);
    return CR_STATUS_INVALID_RECORD;
  }
  const uint64_t calculated = RecordSize(ntaskid, ndo, record->fptype);
  if (calculated != size) {
    CR_TRACE("Invalid SO record: calculated size %lu, size %u",
             static_cast<unsigned long>(calculated), size);
    return CR_STATUS_INVALID_RECORD;
  }
  if (ntaskid != 0 && (flags & CR_SO_VALIDATE_NO_TASKIDS) != 0) {
    CR_TRACE("Invalid SO record: %u taskids, expected 0", ntaskid);
    return CR_STATUS_INVALID_RECORD;
  }
  if (!CRFPTypeIsValid(record->fptype)) {
    CR_TRACE("Invalid SO record: invalid fp type %u", unsigned{record->fptype});
    return CR_STATUS_INVALID_RECORD;
  }
  return CR_STATUS_SUCCESS;
}

cr_status_t SegmentRecordSerialize(_SegmentDBRecord* record, void** out, unsigned long* outSize) {
  if (record == nullptr || out == nullptr || outSize == nullptr) {
    return CR_STATUS_MISSING_ARGUMENT;
  }
  // The record must be in host order. A guard of ours beyond the statuses
  // this function is known to return: a network-order record would be read
  // with swapped counts, sized by a count that means nothing and read past
  // its end, so it is refused with 9, the status of a record in the wrong
  // byte order, before anything is allocated.
  if (InNetworkOrder(record)) return CR_STATUS_INVALID;

  const unsigned int textWidth = FingerprintTextWidth(record->fptype);
  const uint64_t total = kSerializedHead + uint64_t{textWidth} * record->ndo + 1;
  unsigned char* buffer = static_cast<unsigned char*>(std::calloc(1, total));
  *out = buffer;
  if (buffer == nullptr) {
    // The message's size is 32 bits wide: a larger size shows as its maximum.
    return AllocFailure("SegmentRecordSerialize", "SOmarshall", __LINE__,
                        "Could not serialize SO: malloc failed for %u bytes (%s)",
                        static_cast<unsigned int>(std::min<uint64_t>(total, UINT32_MAX)));
  }
  StoreBE64(buffer, record->size);
  StoreBE64(buffer + 8, record->DCID);
  StoreBE64(buffer + 16, record->fileID);
  StoreBE32(buffer + 24, record->CRC);
  StoreBE32(buffer + 28, record->ndo);
  unsigned char* field = buffer + kSerializedHead;
  for (uint32_t i = 0; i < record->ndo; ++i, field += textWidth) {
    FingerprintText(record, i, reinterpret_cast<char*>(field), textWidth);
  }
  *outSize = total;
  return CR_STATUS_SUCCESS;
}

std::ostream& SegmentRecordToStream(std::ostream& os, _SegmentDBRecord& record, bool binary) {
  const bool net = InNetworkOrder(&record);
  if (binary) {
    InPlaceConversion inNetworkOrder(&record, !net, true);
    os.write(reinterpret_cast<const char*>(&record), ByteSwap(record.recsize));
    return os;
  }
  InPlaceConversion inHostOrder(&record, net, false);
  const _SegmentDBRecord& r = record;
  os << r.type << ',' << 1 << ',' << r.flags << ',' << r.DCID << ',' << r.fileID << ',' << r.size
     << ',' << r.CRC << ',' << unsigned{r.fptype} << ",," << r.ntaskid << ',' << r.ndo << ",[";
  const unsigned char* taskIDs = Base(&r) + CR_SO_FIXED_SIZE;
  for (uint32_t i = 0; i < r.ntaskid; ++i) {
    if (i != 0) os << ',';
    os << Load<uint64_t>(taskIDs + uint64_t{kTaskIDWidth} * i);
  }
  os << "],[";
  char text[65];
  for (uint32_t i = 0; i < r.ndo; ++i) {
    if (i != 0) os << ',';
    os << FingerprintText(&r, i, text, sizeof text);
  }
  os << ']';
  return os;
}
