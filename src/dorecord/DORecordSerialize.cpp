// The big-endian exchange forms of a DO record (the serialized DO record and
// the serialized Bloom DO record) and the in-place byte-order conversion of
// the record buffer.
//
// Both forms are drawn, with their offsets named, in
// <crrecord/DORecordSerialized.h>. The checksum is the Adler-32 of bytes
// 28..end when asked for, else CRC; the Bloom form's head always holds the
// Adler-32.
#include <cstdlib>
#include <cstring>

#include "common/Adler32.h"
#include "crrecord/common/Endian.h"
#include "common/StreamCopy.h"
#include "dorecord/DORecordFormat.h"
#include "status/Report.h"

using namespace crrecord;

namespace {

using namespace crrecord::serialized;

constexpr const char* kMallocFailed = "Could not serialize DO: malloc failed for %u bytes (%s)";

// The head shared by both forms; the checksum field gets the CRC here.
void WriteHead(unsigned char* out, const DORecordHeader* h) {
  StoreBE64(out + kSizeAt, h->size);
  StoreBE64(out + kSsizeAt, h->ssize);
  StoreBE32(out + kChecksumAt, h->CRC);
  StoreBE32(out + kNfpAt, h->nfp);
  StoreBE32(out + kZeroAt, 0);
}

// Segments per piece: the entries are written, and checksummed, a piece at
// a time while the piece is in the cache.
constexpr uint32_t kPiece = 256;
// The widest serialized entry: a 65-byte text field and 12 bytes of fields.
constexpr unsigned int kMaxOutWidth = 65 + 12;

// The entries of segments [first, first + count): text fields, then the
// DO type's fields, big-endian.
void WriteEntries(unsigned char* dst, const unsigned char* entry, uint32_t count,
                  const SegmentListShape& shape) {
  if (WriteSerializedEntries(dst, entry, count, shape.fptype, shape.dotype) != 0) {
    // A fingerprint type without a text form leaves its fields zero.
    for (uint32_t i = 0; i < count; ++i) {
      std::memset(dst + uint64_t{i} * shape.outWidth(), 0, shape.textWidth);
    }
  }
}

// The serialized DO record of `h` into `buffer` of exactly `total` bytes
// (RecordSize), every byte written.
void WriteSegmentForm(const DORecordHeader* h, unsigned char* buffer, uint64_t total,
                      bool checksum) {
  // A DO type without a serialized form (6 and up) gets no per-segment
  // fields, so the loop below writes exactly what the size counts.
  const SegmentListShape shape(h->fptype, h->dotype, h->nfp);
  const uint32_t nfp = shape.nfp;
  const unsigned int entryWidth = shape.entryWidth();
  const unsigned int outWidth = shape.outWidth();

  WriteHead(buffer, h);
  // A large output is written a piece at a time into a staging area in the
  // cache, checksummed there, and streamed out (StreamCopy); a small one is
  // written in place.
  const bool streaming = total >= kStreamingThreshold;
  alignas(64) unsigned char staging[kPiece * kMaxOutWidth];
  uint32_t adler = 1;
  unsigned char* dst = buffer + kHeadSize;
  if (nfp != 0) {
    const unsigned char* entries = DORecordHeaderIndexOfSegment(h, 0);
    for (uint32_t done = 0; done < nfp; done += kPiece) {
      const uint32_t n = nfp - done < kPiece ? nfp - done : kPiece;
      const uint64_t bytes = uint64_t{n} * outWidth;
      unsigned char* piece = streaming ? staging : dst;
      WriteEntries(piece, entries + uint64_t{done} * entryWidth, n, shape);
      if (checksum) adler = Adler32Update(adler, piece, bytes);
      if (streaming) StreamCopy(dst, staging, bytes);
      dst += bytes;
    }
  }
  *dst++ = 0;  // the zero byte between the entries and the DCIDs
  if (checksum) adler = Adler32Update(adler, dst - 1, 1);
  if (nfp != 0) {
    const unsigned char* dcids = DORecordHeaderIndexOfDCID(h, 0);
    for (uint32_t done = 0; done < nfp; done += kPiece) {
      const uint32_t n = nfp - done < kPiece ? nfp - done : kPiece;
      const unsigned char* src = dcids + uint64_t{done} * 8;
      unsigned char* piece = streaming ? staging : dst;
      for (uint32_t i = 0; i < n; ++i) StoreBE64(piece + 8 * i, Load<uint64_t>(src + 8 * i));
      if (checksum) adler = Adler32Update(adler, piece, uint64_t{n} * 8);
      if (streaming) StreamCopy(dst, staging, uint64_t{n} * 8);
      dst += uint64_t{n} * 8;
    }
  }
  if (streaming) StreamFence();
  // The Adler-32 of bytes 28..end replaces the CRC written with the head.
  if (checksum) StoreBE32(buffer + kChecksumAt, adler);
}

// The serialized Bloom DO record of `h` into `buffer` of exactly `total`
// bytes (BloomSize), every byte written.
void WriteBloomForm(const DORecordHeader* h, unsigned char* buffer, uint64_t total) {
  const uint32_t bsize = h->bsize;
  const uint32_t nudcid = h->nudcid;
  WriteHead(buffer, h);
  StoreBE32(buffer + kBloomLengthAt, bsize);
  if (bsize != 0) std::memcpy(buffer + kBloomBitmapAt, DORecordHeaderGetBloom(h), bsize);

  unsigned char* block = buffer + kBloomBitmapAt + bsize;
  const uint64_t entryBytes = uint64_t{kUDCIDEntry} * nudcid;
  if (nudcid == 0) {
    std::memset(block, 0, kBloomListHead);  // an empty list travels as eight zero bytes
  } else {
    const unsigned char* section = DORecordHeaderStartUDCID(h);
    // A record built from a bitmap holds its list in host order, one rebuilt
    // from this form holds it as it travelled; read it in the order it has,
    // so that a rebuilt record serializes to the bytes it came from.
    const bool bigEndian = BloomListIsBigEndian(h, bsize);
    const unsigned char* src = section + kUDCIDHead;
    unsigned char* dst = block + kBloomListHead;
    if (bigEndian) {
      std::memcpy(dst, src, entryBytes);
    } else {
      for (uint32_t i = 0; i < nudcid; ++i, src += kUDCIDEntry, dst += kUDCIDEntry) {
        StoreBE64(dst, Load<uint64_t>(src));
        StoreBE64(dst + 8, Load<uint64_t>(src + 8));
      }
    }
    StoreBE32(block + 4, nudcid);
    // The record's own checksum word is not carried over: the block is
    // sealed afresh over the bytes written here.
    StoreBE32(block, Adler32(block + 4, 4 + entryBytes));
  }
  std::memset(block + kBloomListHead + entryBytes, 0, kBloomTrailingZeros);
  StoreBE32(buffer + kChecksumAt, Adler32(buffer + kHeadSize, total - kHeadSize));
}

// A fresh zero-filled buffer of `total` bytes in *out, as every buffer handed
// to a caller is; the failure is logged as `function`'s.
cr_status_t AllocateOutput(void** out, uint64_t total, const char* function, int line) {
  *out = std::calloc(1, total);
  if (*out != nullptr) return CR_STATUS_SUCCESS;
  // The size is cut to 32 bits for the message only.
  return AllocFailure(function, "DORecord", line, kMallocFailed, static_cast<unsigned int>(total));
}

}  // namespace

unsigned long DORecord::GetSerializedSize() const {
  if (networkOrder_) return 0;
  const DORecordHeader* h = header_;
  if (h->dotype == CR_DO_TYPE_BLOOM_FILTER) return BloomSize(h->bsize, h->nudcid);
  return RecordSize(h->nfp, h->dotype, h->fptype);
}

cr_status_t DORecord::Serialize(void** out, unsigned long* outSize, bool checksum) const {
  if (header_->dotype == CR_DO_TYPE_BLOOM_FILTER) {
    return SerializeBloomFilterDO(out, outSize, checksum);
  }
  if (networkOrder_) return CR_STATUS_INVALID;
  // A null output pointer or size is refused as a missing argument (65), a
  // guard of ours: there is nowhere to put the record.
  if (out == nullptr || outSize == nullptr) return CR_STATUS_MISSING_ARGUMENT;

  const uint64_t total = GetSerializedSize();
  const cr_status_t status = AllocateOutput(out, total, "Serialize", __LINE__);
  if (status != CR_STATUS_SUCCESS) return status;
  WriteSegmentForm(header_, static_cast<unsigned char*>(*out), total, checksum);
  *outSize = total;
  return CR_STATUS_SUCCESS;
}

cr_status_t DORecord::SerializeBloomFilterDO(void** out, unsigned long* outSize,
                                             bool /*checksum: the head always carries it*/) const {
  if (header_->dotype != CR_DO_TYPE_BLOOM_FILTER || networkOrder_) return CR_STATUS_INVALID;
  if (out == nullptr || outSize == nullptr) return CR_STATUS_MISSING_ARGUMENT;

  const uint64_t total = GetSerializedSize();
  const cr_status_t status = AllocateOutput(out, total, "SerializeBloomFilterDO", __LINE__);
  if (status != CR_STATUS_SUCCESS) return status;
  WriteBloomForm(header_, static_cast<unsigned char*>(*out), total);
  *outSize = total;
  return CR_STATUS_SUCCESS;
}

cr_status_t DORecord::SerializeInto(void* buffer, unsigned long length, unsigned long* written,
                                    bool checksum) const {
  if (networkOrder_) return CR_STATUS_INVALID;
  if (buffer == nullptr || written == nullptr) return CR_STATUS_MISSING_ARGUMENT;
  const uint64_t total = GetSerializedSize();
  // Short is refused as the reader refuses a caller's buffer too small for
  // the record, before a byte is written.
  if (length < total) return CR_STATUS_NO_ROOM;
  unsigned char* out = static_cast<unsigned char*>(buffer);
  if (header_->dotype == CR_DO_TYPE_BLOOM_FILTER) {
    WriteBloomForm(header_, out, total);
  } else {
    WriteSegmentForm(header_, out, total, checksum);
  }
  *written = total;
  return CR_STATUS_SUCCESS;
}

void DORecord::SerializedDORecordFree(void** buffer) {
  if (buffer == nullptr || *buffer == nullptr) return;
  std::free(*buffer);
  *buffer = nullptr;
}

// The flag changes first, so that RemoveAllTRefs reads and writes the header
// in its new byte order.
void DORecord::HostToNetwork(unsigned int flags) {
  networkOrder_ = true;
  DORecordHeaderHton(header_);
  if ((flags & 1) != 0) RemoveAllTRefs();
}

void DORecord::NetworkToHost(unsigned int flags) {
  networkOrder_ = false;
  DORecordHeaderNtoh(header_);
  if ((flags & 1) != 0) RemoveAllTRefs();
}
