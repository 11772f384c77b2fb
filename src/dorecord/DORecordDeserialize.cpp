// Reading the serialized forms back: DORecordHeaderDeserialize, which builds
// a host-order record buffer from untrusted bytes, the check of the head's
// checksum, and the DORecord constructor over a serialized record.
//
// The layouts are drawn in <crrecord/DORecordSerialized.h>. Every length is checked
// before the bytes it covers are read; counts are multiplied in 64 bits only
// after they have been found to fit the input, so no product can wrap.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "common/Adler32.h"
#include "crrecord/common/Endian.h"
#include "common/StreamCopy.h"
#include "dorecord/DORecordFormat.h"
#include "dorecord/SegmentScan.h"
#include "status/Report.h"

using namespace crrecord;

namespace {

using namespace crrecord::serialized;

// Statuses of our own choosing, a guard for untrusted bytes: 120 for input
// that ends before what it announces, 121 for input not in the form, 122 for
// a caller's buffer too small for the record. Each refusal is traced, as a
// record failing validation is, and returned.
#define CR_REFUSE(status, ...)                              \
  do {                                                      \
    CR_TRACE("Invalid serialized DO record: " __VA_ARGS__); \
    return (status);                                        \
  } while (0)

// What the checks of the input found out: the size of the record to build
// and the counts it holds.
struct Plan {
  uint64_t recsize;
  uint32_t nfp;    // serialized DO record
  uint32_t bsize;  // serialized Bloom DO record
  uint32_t nudcid;
};

// A form's length against the length its `count` entries take: shorter is
// truncated, longer is not the form.
cr_status_t CheckExactLength(uint64_t length, uint64_t expected, uint32_t count,
                             const char* entries) {
  if (length < expected) {
    CR_REFUSE(CR_STATUS_TRUNCATED, "%lu bytes, %u %s need %lu", static_cast<unsigned long>(length),
              count, entries, static_cast<unsigned long>(expected));
  }
  if (length > expected) {
    CR_REFUSE(CR_STATUS_MALFORMED, "%lu bytes, %u %s take exactly %lu",
              static_cast<unsigned long>(length), count, entries,
              static_cast<unsigned long>(expected));
  }
  return CR_STATUS_SUCCESS;
}

// The checks of a serialized DO record that need no fingerprint conversion.
cr_status_t PlanSegments(const unsigned char* in, uint64_t length, unsigned char dotype,
                         unsigned char fptype, Plan* plan) {
  const uint32_t nfp = LoadBE32(in + kNfpAt);
  const uint64_t entry = FingerprintTextSize(fptype) + EntryFieldsSize(dotype);
  // nfp < 2^32 and a segment takes at most 85 bytes, so this cannot wrap.
  const uint64_t expected = RecordSize(nfp, dotype, fptype);
  const cr_status_t exact = CheckExactLength(length, expected, nfp, "segments");
  if (exact != CR_STATUS_SUCCESS) return exact;
  const uint64_t zeroAt = kHeadSize + uint64_t{nfp} * entry;
  if (in[zeroAt] != 0) {
    CR_REFUSE(CR_STATUS_MALFORMED, "byte %lu after the segment entries is %u, expected 0",
              static_cast<unsigned long>(zeroAt), unsigned{in[zeroAt]});
  }
  plan->nfp = nfp;
  plan->bsize = 0;
  plan->nudcid = 0;
  plan->recsize = DORecordHeaderSizeRaw(0, nfp, 0, 0, dotype, fptype, 0);
  return CR_STATUS_SUCCESS;
}

// The checks of a serialized Bloom DO record; it needs no others.
cr_status_t PlanBloom(const unsigned char* in, uint64_t length, unsigned char fptype, Plan* plan) {
  const uint32_t nfp = LoadBE32(in + kNfpAt);
  if (nfp != 0) CR_REFUSE(CR_STATUS_MALFORMED, "Bloom form with %u segments, expected 0", nfp);
  if (length < kBloomBitmapAt) {
    CR_REFUSE(CR_STATUS_TRUNCATED, "%lu bytes, the Bloom form needs at least %lu",
              static_cast<unsigned long>(length), static_cast<unsigned long>(kBloomBitmapAt));
  }
  const uint32_t bsize = LoadBE32(in + kBloomLengthAt);
  const uint64_t block = kBloomBitmapAt + bsize;
  if (length < block + kBloomListHead) {
    CR_REFUSE(CR_STATUS_TRUNCATED, "%lu bytes, a bitmap of %u bytes needs at least %lu",
              static_cast<unsigned long>(length), bsize,
              static_cast<unsigned long>(block + kBloomListHead + kBloomTrailingZeros));
  }
  const uint32_t checksum = LoadBE32(in + block);
  const uint32_t nudcid = LoadBE32(in + block + 4);
  const uint64_t expected = BloomSize(bsize, nudcid);
  const cr_status_t exact = CheckExactLength(length, expected, nudcid, "unique DCIDs");
  if (exact != CR_STATUS_SUCCESS) return exact;
  // An empty list travels as eight zero bytes; a list is sealed by its own
  // Adler-32 over the count and the entries.
  const uint32_t computed =
      nudcid == 0 ? 0 : Adler32(in + block + 4, 4 + uint64_t{kUDCIDEntry} * nudcid);
  if (checksum != computed) {
    CR_REFUSE(CR_STATUS_MALFORMED, "unique DCID checksum %u, computed %u over %u entries", checksum,
              computed, nudcid);
  }
  for (uint64_t at = expected - kBloomTrailingZeros; at < expected; ++at) {
    if (in[at] != 0) {
      CR_REFUSE(CR_STATUS_MALFORMED, "byte %lu of the trailing zeros is %u",
                static_cast<unsigned long>(at), unsigned{in[at]});
    }
  }
  plan->nfp = 0;
  plan->bsize = bsize;
  plan->nudcid = nudcid;
  plan->recsize = DORecordHeaderSizeRaw(0, bsize, nudcid, 0, CR_DO_TYPE_BLOOM_FILTER, fptype, 0);
  return CR_STATUS_SUCCESS;
}

// Writes the segment list and DCID array; fails only on fingerprint text.
// The fields go a piece at a time, so that each piece of the input is read
// while the previous one is still in the cache.
cr_status_t FillSegments(DORecordHeader* h, const unsigned char* in, unsigned char dotype,
                         unsigned char fptype, uint32_t nfp, SegmentListScan* scan) {
  if (nfp == 0) return CR_STATUS_SUCCESS;
  constexpr uint32_t kPiece = 512;
  const unsigned int width = FingerprintWidth(fptype);
  const unsigned int textWidth = FingerprintTextWidth(fptype);
  const unsigned int extra = SegmentExtraWidth(dotype);
  const unsigned int inWidth = textWidth + extra;
  const unsigned int entryWidth = width + extra;
  const unsigned char* src = in + kHeadSize;
  unsigned char* entries = DORecordHeaderIndexOfSegment(h, 0);
  // A large record is written a piece at a time into a staging area in the
  // cache and streamed out (StreamCopy); a small one in place.
  const bool streaming = uint64_t{nfp} * (entryWidth + 8) >= kStreamingThreshold;
  alignas(64) unsigned char staging[kPiece * (32 + 12)];
  for (uint32_t done = 0; done < nfp; done += kPiece) {
    const uint32_t n = nfp - done < kPiece ? nfp - done : kPiece;
    unsigned char* entry = streaming ? staging : entries + uint64_t{done} * entryWidth;
    // The text must be exactly the hex digits and one NUL, the whole field:
    // the first segment that breaks either rule is the one reported.
    const uint32_t bad = static_cast<uint32_t>(CRFPStringsToDigests(
        reinterpret_cast<const char*>(src), inWidth, fptype, entry, entryWidth, n));
    if (bad != n) {
      if (streaming) StreamFence();  // the pieces streamed so far are in the buffer
      CR_REFUSE(CR_STATUS_MALFORMED,
                "fingerprint text of segment %u is not %u hex digits and a NUL", done + bad,
                textWidth - 1);
    }
    SwapSegmentFields(src + textWidth, inWidth, entry + width, entryWidth, n, dotype);
    if (scan != nullptr) scan->Scan(entry, n);
    if (streaming) {
      StreamCopy(entries + uint64_t{done} * entryWidth, staging, uint64_t{n} * entryWidth);
    }
    src += uint64_t{n} * inWidth;
  }
  src += 1;  // the zero byte
  unsigned char* dcids = DORecordHeaderIndexOfDCID(h, 0);
  for (uint32_t done = 0; done < nfp; done += kPiece) {
    const uint32_t n = nfp - done < kPiece ? nfp - done : kPiece;
    unsigned char* dcid = streaming ? staging : dcids + uint64_t{done} * 8;
    for (uint32_t i = 0; i < n; ++i) Store(dcid + 8 * i, LoadBE64(src + 8 * i));
    if (streaming) StreamCopy(dcids + uint64_t{done} * 8, staging, uint64_t{n} * 8);
    src += uint64_t{n} * 8;
  }
  if (streaming) StreamFence();
  return CR_STATUS_SUCCESS;
}

// The Bloom section. The length word and the unique-DCID block keep the
// big-endian bytes they travelled in, and the reserved bytes say so, until
// AppendBloomAndUniqueDCIDList turns both to host order.
void FillBloom(DORecordHeader* h, const unsigned char* in, const Plan& plan) {
  unsigned char* start = DORecordHeaderGetBloomStart(h);
  std::memcpy(start, in + kBloomLengthAt, 4 + uint64_t{plan.bsize});
  std::memcpy(start + 4 + plan.bsize, kBloomListBigEndianMark, kBloomReservedBytes);
  if (plan.nudcid != 0) {
    std::memcpy(DORecordHeaderStartUDCID(h), in + kBloomBitmapAt + plan.bsize,
                UDCIDSectionSize(plan.nudcid));
  }
}

}  // namespace

namespace {

// DORecordHeaderDeserialize, which also feeds each piece of the segment list
// it writes to `scan` (when given) while the piece is in the cache.
cr_status_t Deserialize(DORecordHeader** header, unsigned long* allocatedSize, const void* data,
                        unsigned long length, unsigned char dotype, unsigned char fptype,
                        SegmentListScan* scan) {
  if (header == nullptr || allocatedSize == nullptr || data == nullptr) {
    CR_REFUSE(CR_STATUS_MISSING_ARGUMENT, "null argument");
  }
  if (!CRDOTypeIsValid(dotype)) {
    CR_REFUSE(CR_STATUS_INVALID_DOTYPE, "DO type %u refused", unsigned{dotype});
  }
  if (!CRFPTypeIsValid(fptype)) {
    CR_REFUSE(CR_STATUS_INVALID_FPTYPE, "fingerprint type %u refused", unsigned{fptype});
  }
  DORecordHeader* const callerBuffer = *header;
  // The header is read and written as a struct with 8-byte fields.
  if (callerBuffer != nullptr && reinterpret_cast<uintptr_t>(callerBuffer) % 8 != 0) {
    CR_REFUSE(CR_STATUS_INVALID, "caller buffer at %p is not aligned to 8 bytes",
              static_cast<void*>(callerBuffer));
  }

  const unsigned char* in = static_cast<const unsigned char*>(data);
  if (length < kHeadSize) {
    CR_REFUSE(CR_STATUS_TRUNCATED, "%lu bytes, shorter than the %lu-byte head", length,
              static_cast<unsigned long>(kHeadSize));
  }
  const uint32_t padding = LoadBE32(in + kZeroAt);
  if (padding != 0) CR_REFUSE(CR_STATUS_MALFORMED, "padding word %u, expected 0", padding);

  const bool bloom = dotype == CR_DO_TYPE_BLOOM_FILTER;
  Plan plan;
  cr_status_t status = bloom ? PlanBloom(in, length, fptype, &plan)
                             : PlanSegments(in, length, dotype, fptype, &plan);
  if (status != CR_STATUS_SUCCESS) return status;
  if (plan.recsize > kLargestRecordSize) {
    CR_REFUSE(CR_STATUS_MALFORMED, "record of %lu bytes exceeds %lu",
              static_cast<unsigned long>(plan.recsize), static_cast<unsigned long>(kLargestRecordSize));
  }
  if (callerBuffer != nullptr && *allocatedSize < plan.recsize) {
    CR_REFUSE(CR_STATUS_NO_ROOM, "caller buffer of %lu bytes, the record needs %lu", *allocatedSize,
              static_cast<unsigned long>(plan.recsize));
  }

  DORecordHeader* h = callerBuffer;
  if (h == nullptr) {
    h = static_cast<DORecordHeader*>(std::malloc(plan.recsize));
    if (h == nullptr) {
      CR_TRACE("Could not deserialize DO: malloc failed for %lu bytes",
               static_cast<unsigned long>(plan.recsize));
      return CR_STATUS_NO_MEMORY;
    }
  }

  // The counts go in first: the locators that place the sections read them.
  std::memset(h, 0, sizeof *h);
  h->type = kDORecordType;
  h->recsize = static_cast<uint32_t>(plan.recsize);
  // ctime is the moment of rebuilding; checktime stays 0, as in a new record.
  // flags stay 0: the form carries none, and the caller supplies them.
  h->ctime = static_cast<uint32_t>(std::time(nullptr));
  h->mtime = h->ctime;
  h->size = LoadBE64(in + kSizeAt);
  h->ssize = LoadBE64(in + kSsizeAt);
  // Stored unverified: the form does not say whether the writer put the CRC
  // or an Adler-32 here (DORecordSerializedHasAdler32 tells the latter).
  h->CRC = LoadBE32(in + kChecksumAt);
  h->nfp = plan.nfp;
  h->nudcid = plan.nudcid;
  h->bsize = plan.bsize;
  h->fptype = fptype;
  h->dotype = dotype;

  if (bloom) {
    FillBloom(h, in, plan);
  } else {
    status = FillSegments(h, in, dotype, fptype, plan.nfp, scan);
    if (status != CR_STATUS_SUCCESS) {
      // A caller's buffer is the caller's, whatever it now holds.
      if (callerBuffer == nullptr) std::free(h);
      return status;
    }
  }

  if (callerBuffer == nullptr) {
    *header = h;
    *allocatedSize = plan.recsize;
  }
  return CR_STATUS_SUCCESS;
}

}  // namespace

cr_status_t DORecordHeaderDeserialize(DORecordHeader** header, unsigned long* allocatedSize,
                                      const void* data, unsigned long length, unsigned char dotype,
                                      unsigned char fptype) {
  return Deserialize(header, allocatedSize, data, length, dotype, fptype, nullptr);
}

bool DORecordSerializedHasAdler32(const void* data, unsigned long length) {
  if (data == nullptr || length < kHeadSize) return false;
  const unsigned char* in = static_cast<const unsigned char*>(data);
  return LoadBE32(in + kChecksumAt) == Adler32(in + kHeadSize, length - kHeadSize);
}

DORecord::DORecord(unsigned int dotype, unsigned short flags, unsigned long dcid,
                   unsigned char fptype, void* buffer, unsigned long bufferSize, const void* data,
                   unsigned long dataLength, bool subDO)
    : header_(static_cast<DORecordHeader*>(buffer), bufferSize, kBufferModeCopy),
      networkOrder_(false),
      subDO_(subDO) {
  // The fingerprint type is checked before the bytes are read, a choice of
  // ours: the reader cannot convert fingerprint text of an unknown type, and
  // the caller is owed "invalid fptype for DO" rather than the reader's
  // refusal.
  if (!CRFPTypeIsValid(fptype)) ThrowFixed(CR_STATUS_INVALID, "invalid fptype for DO");
  // The segment-list check is scanned while the list is written; the
  // steps before the check change neither the list nor what it is judged
  // against, and only an unsound list goes through checkSegmentList.
  SegmentListScan scan(static_cast<unsigned char>(dotype), fptype, false, subDO_);
  DORecordHeader* built = header_.get();
  unsigned long builtSize = header_.size();
  const cr_status_t status = Deserialize(&built, &builtSize, data, dataLength,
                                         static_cast<unsigned char>(dotype), fptype, &scan);
  if (status != CR_STATUS_SUCCESS) ThrowStatus(status);
  if (buffer == nullptr) header_ = RecordBuffer<DORecordHeader>::Adopt(built, builtSize);
  setFlags(flags);    // invalid flags are logged and the header keeps its own
  setFPType(fptype);
  setDCID(dcid);
  initReferenceSets();
  handleUpdate();
  if (!scan.Sound(GetSize(), GetSsize(), GetNfp())) checkSegmentList();
  // A sub-DO lives in the container of its first segment. Without segments
  // there is no such container; the dcid given stays, a choice of ours.
  if (subDO_ && GetNfp() != 0) {
    setDCID(Load<uint64_t>(DORecordHeaderIndexOfDCID(header_, 0)));
  }
}
