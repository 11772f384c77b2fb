// The digest of a DO record: one fingerprint-style value standing for the
// whole stored file, packed with the record's container ID into a digest
// object of the typed-reference library.
#include <cstdlib>
#include <cstring>
#include <memory>

#include "crrecord/common/Endian.h"
#include "crrecord/DORecord.h"
#include "dorecord/DORecordFormat.h"
#include "status/Report.h"

using namespace crrecord;

namespace {

struct FreeDeleter {
  void operator()(unsigned char* p) const { std::free(p); }
};
typedef std::unique_ptr<unsigned char, FreeDeleter> BlockPtr;

// The fingerprint library reports its failures through the CR errno.
void CheckFP(int result) {
  if (result == -1) ThrowStatus(LastOutsideStatus());
}

// CRFPAppend takes a 32-bit length. Every block and span fits one call except
// the digest block of a record with tens of millions of segments, which goes
// in consecutive pieces; the streaming hash sees the same bytes either way.
void AppendAll(crfp_ctx_t* ctx, const unsigned char* data, uint64_t length) {
  constexpr uint64_t kMaxPiece = 0xFFFFFFFFu;
  do {
    const uint64_t piece = length < kMaxPiece ? length : kMaxPiece;
    CheckFP(CRFPAppend(ctx, data, static_cast<unsigned int>(piece)));
    data += piece;
    length -= piece;
  } while (length != 0);
}

void FinishDigest(crfp_ctx_t* ctx, crfp_digest_t* digest) {
  CheckFP(CRFPFinalizeDO(ctx));
  if (CRFPGetDigest_r(ctx, digest) == nullptr) ThrowStatus(LastOutsideStatus());
}

// The digest input of a segment-list record: per segment, the fingerprint's
// text in its full W-byte field (NUL included), then the sizes and offsets
// its DO type carries, big-endian. DO types 6 to 254 (and 255) carry no
// per-segment fields, so their entries are the text alone, as for DO type 1:
// the entry arithmetic of the format gives them X = 0, and digesting what
// they do carry is more useful to a caller than refusing them.
void DigestSegmentList(const DORecordHeader* h, crfp_ctx_t* ctx, crfp_digest_t* digest) {
  const SegmentListShape shape(h->fptype, h->dotype, h->nfp);
  const uint32_t nfp = shape.nfp;
  const uint64_t entryWidth = shape.outWidth();
  const uint64_t blockSize = uint64_t{nfp} * entryWidth;  // at most 2^32 * 77: no overflow

  CheckFP(CRFPInitialize(ctx, shape.fptype));
  // One byte more than is fed, so that an empty list still has a buffer.
  BlockPtr block(static_cast<unsigned char*>(std::malloc(blockSize + 1)));
  if (!block) ThrowFixed(CR_STATUS_NO_MEMORY, "Failed to allocate memeory for DO buffer.");

  const unsigned char* entry = DORecordHeaderIndexOfSegment(h, 0);
  const unsigned int recordEntryWidth = shape.entryWidth();
  // A piece of the block at a time, texts (text and NUL fill the W-byte
  // field exactly) and then fields, so that each piece is written whole
  // while it is in the cache.
  constexpr uint32_t kPiece = 512;
  for (uint32_t done = 0; done < nfp; done += kPiece) {
    const uint32_t n = nfp - done < kPiece ? nfp - done : kPiece;
    unsigned char* out = block.get() + uint64_t{done} * entryWidth;
    const unsigned char* piece = entry + uint64_t{done} * recordEntryWidth;
    if (WriteSerializedEntries(out, piece, n, shape.fptype, shape.dotype) != 0) {
      ThrowStatus(LastOutsideStatus());
    }
  }
  AppendAll(ctx, block.get(), blockSize);
  block.reset();
  FinishDigest(ctx, digest);
}

// The Bloom span: length word, bitmap, the 16 reserved bytes and the
// unique-DCID section, contiguous in the record and fed in place.
void DigestBloomSection(const DORecordHeader* h, crfp_ctx_t* ctx, crfp_digest_t* digest) {
  CheckFP(CRFPInitialize(ctx, h->fptype));
  const uint64_t span =
      uint64_t{kBloomLengthWord} + h->bsize + kBloomReservedBytes + UDCIDSectionSize(h->nudcid);
  AppendAll(ctx, DORecordHeaderGetBloomStart(h), span);
  FinishDigest(ctx, digest);
}

}  // namespace

cr_tdigest_t* DORecord::GetDigest() const {
  if (networkOrder_) {
    ThrowFixed(CR_STATUS_INVALID, "GetDigest called while DO record in network order.");
  }
  const DORecordHeader* h = header_;
  crfp_digest_t digest = {};
  crfp_ctx_t ctx;
  if (h->dotype == CR_DO_TYPE_BLOOM_FILTER) {
    DigestBloomSection(h, &ctx, &digest);
  } else if (h->nfp == 1) {
    // A one-segment file is its segment: the fingerprint stands unhashed.
    const unsigned char* fp = DORecordHeaderIndexOfSegment(h, 0);
    if (fp == nullptr) return nullptr;
    std::memcpy(digest.digest, fp, FingerprintWidth(h->fptype));
  } else if (h->dotype == CR_DO_TYPE_ORIGINAL) {
    return nullptr;
  } else {
    DigestSegmentList(h, &ctx, &digest);
  }
  // Computed in 8 bits: fingerprint type 255 gives digest type 0.
  const unsigned char digestType = static_cast<unsigned char>(h->fptype + 1);
  cr_tdigest_t* result = CRTDigestNewFull(digestType, &digest, h->CID);
  if (result == nullptr) {
    ThrowFixed(CR_STATUS_NO_MEMORY,
               "Couldn't allocate enough memory to store the digest of a DORecord");
  }
  return result;
}
