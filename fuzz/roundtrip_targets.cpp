// Round-trip fuzz entry functions: records built from fuzzed parameters are
// serialized and rebuilt, or converted to network order and back, and must
// come back equal.
#include <cstring>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "crrecord/common/Endian.h"
#include "crrecord/DORecord.h"
#include "crrecord/SORecord.h"
#include "crrecord/SOmarshall.h"
#include "fuzz_support.h"
#include "fuzz_targets.h"

namespace crfuzz {
namespace {

std::vector<uint8_t> SerializeOf(const DORecord& r, bool checksum) {
  void* out = nullptr;
  unsigned long size = 0;
  Check(r.Serialize(&out, &size, checksum) == CR_STATUS_SUCCESS, "a host-order record serializes");
  return TakeOutput(&out, size);
}

// The serialized size, from the exchange layout.
uint64_t SerializedSize(const RecordParams& p, const DORecord& r) {
  const unsigned char dotype = r.GetDOType();
  if (dotype == CR_DO_TYPE_BLOOM_FILTER) return 56 + p.bitmap.size() + 16 * p.udcids.size();
  const uint64_t text = 2 * uint64_t{FPWidth(r.GetFPType())} + 1;
  const uint64_t extra = dotype == 2 ? 4 : dotype == 3 ? 12 : dotype == 5 ? 8 : 0;
  return 29 + p.segments.size() * (text + extra + 8);
}

bool SameDigest(const DORecord& a, const DORecord& b) {
  cr_tdigest_t* x = a.GetDigest();
  cr_tdigest_t* y = b.GetDigest();
  const bool same = (x == nullptr) == (y == nullptr) &&
                    (x == nullptr || (x->type == y->type && x->cid == y->cid &&
                                      std::memcmp(&x->digest, &y->digest, sizeof x->digest) == 0));
  CRTDigestDelete(&x);
  CRTDigestDelete(&y);
  return same;
}

}  // namespace

// Input: an options byte (bit 0 checksum, bit 1 rebuild into a caller's
// buffer), then the record's parameters (RecordParams).
Outcome FuzzSerializeRoundTrip(const uint8_t* data, size_t size) {
  QuietLogging();
  Input in(data, size);
  const uint8_t options = in.U8();
  const bool checksum = (options & 1) != 0;
  const bool callerBuffer = (options & 2) != 0;
  RecordParams p;
  p.Decode(in);
  std::unique_ptr<DORecord> original = BuildRecord(p);
  if (original == nullptr) return Outcome::kRefused;
  const bool bloom = original->GetDOType() == CR_DO_TYPE_BLOOM_FILTER;

  const std::vector<uint8_t> bytes = SerializeOf(*original, checksum);
  Check(bytes.size() == SerializedSize(p, *original), "the serialized size follows the layout");
  // The unique-DCID list of a segment-list record does not travel.
  const unsigned long recsize =
      original->GetHeaderSize() - (bloom ? 0 : original->GetUDCIDSize());
  Buffer buffer = CopyOf(nullptr, 0, recsize);
  std::unique_ptr<DORecord> rebuilt;
  try {
    rebuilt.reset(new DORecord(original->GetDOType(), original->GetFlags(), original->GetDCID(),
                               original->GetFPType(), callerBuffer ? buffer.get() : nullptr,
                               callerBuffer ? recsize : 0, bytes.data(), bytes.size(), false));
  } catch (const Cr_ErrnoException&) {
    Check(false, "a serialized record rebuilds");
    return Outcome::kAccepted;
  }
  Check(rebuilt->OwnsBuffer() == !callerBuffer && rebuilt->GetHeaderSize() == recsize,
        "the rebuilt record fills exactly the buffer it was given");

  // The checksum, when asked for (always in the Bloom form), takes the
  // CRC's place; nothing else the form carries may differ.
  const bool sameCrc = rebuilt->GetCrc() == original->GetCrc();
  if (!checksum && !bloom) Check(sameCrc, "without a checksum the CRC travels");
  Check((*rebuilt == *original) == sameCrc, "the rebuilt record equals the original");
  std::vector<int> blanked = {7, 8};  // ctime and mtime
  if (!sameCrc) blanked.push_back(6);
  Check(TextWithout(TextOf(*rebuilt), blanked) == TextWithout(TextOf(*original), blanked),
        "the rebuilt record prints as the original");
  Check(SerializeOf(*rebuilt, checksum) == bytes, "the rebuilt record serializes alike");
  if (!bloom) Check(SameDigest(*original, *rebuilt), "the rebuilt record has the same digest");
  std::map<unsigned long, unsigned long> a, b;
  const cr_status_t sa = original->GetUDCIDSizeList(a);
  const cr_status_t sb = rebuilt->GetUDCIDSizeList(b);
  if (original->GetNudcid() == rebuilt->GetNudcid()) {
    Check(sa == sb && a == b, "both records give the same bytes per container");
  }

  // References do not travel, but the same ones added to both keep them equal.
  if (AddRefs(*original, p) && AddRefs(*rebuilt, p)) {
    Check((*rebuilt == *original) == sameCrc, "the same references keep the records equal");
    Check(TextWithout(TextOf(*rebuilt), blanked) == TextWithout(TextOf(*original), blanked),
          "the same references print alike");
    Check(SerializeOf(*original, checksum) == bytes, "references do not travel");
  }
  ExerciseRecord(*rebuilt);
  if (bloom) rebuilt->AppendBloomAndUniqueDCIDList();
  return Outcome::kAccepted;
}

namespace {

// What the getters of a DO record say, in host values.
std::vector<uint64_t> Values(const DORecord& r) {
  std::vector<uint64_t> v = {r.GetFlags(), r.GetCheckTime(), r.GetDCID(),  r.GetSize(),
                             r.GetSsize(), r.GetCrc(),       r.GetCTime(), r.GetMTime(),
                             r.GetNfp(),   r.GetNudcid(),    r.GetBSize(), r.GetHeaderSize(),
                             r.getTRefsSize()};
  for (unsigned int i = 0; i < r.GetNfp(); ++i) {
    v.push_back(r.GetSegmentSize(i));
    v.push_back(r.GetSegmentOffset(i));
    v.push_back(r.GetSegmentObjectOffset(i));
    v.push_back(r.GetSegmentDCID(i));
  }
  for (unsigned int i = 0; i < r.GetNudcid(); ++i) v.push_back(r.GetSegmentUDCID(i));
  return v;
}

std::vector<uint8_t> BytesOf(const DORecord& r) {
  const unsigned char* h = reinterpret_cast<const unsigned char*>(r.GetHeader());
  return std::vector<uint8_t>(h, h + r.GetHeaderSize());
}

// Input after the selector: RecordParams. Selector bit 2 normalizes the
// unique-DCID list first; bit 3 drops the task IDs on the way.
Outcome DORecordByteOrder(Input& in, uint8_t selector) {
  RecordParams p;
  p.Decode(in);
  std::unique_ptr<DORecord> r = BuildRecord(p);
  if (r == nullptr || !AddRefs(*r, p)) return Outcome::kRefused;
  if ((selector & 4) != 0) r->AppendBloomAndUniqueDCIDList();
  const std::vector<uint8_t> before = BytesOf(*r);
  const std::vector<uint64_t> values = Values(*r);

  r->HostToNetwork(0);
  Check(r->IsInNetworkOrder(), "HostToNetwork marks the record");
  Check(Values(*r) == values, "the getters give host values in network order");
  Buffer manual = CopyOf(before.data(), before.size());
  DORecordHeaderHton(reinterpret_cast<DORecordHeader*>(manual.get()));
  Check(BytesOf(*r) == std::vector<uint8_t>(manual.get(), manual.get() + before.size()),
        "HostToNetwork converts as DORecordHeaderHton does");
  std::ostringstream binary;
  r->ToStream(binary, true);
  Check(binary.str() == std::string(before.begin(), before.end()),
        "the binary stream form of a network-order record is its host-order buffer");
  Check(r->IsInNetworkOrder() &&
            BytesOf(*r) == std::vector<uint8_t>(manual.get(), manual.get() + before.size()),
        "the binary stream form leaves the record in network order");
  try {
    std::ostringstream text;
    r->ToStream(text, false);
    Check(false, "a network-order record has no text form");
  } catch (const Cr_ErrnoException& e) {
    Check(e.GetStatus() == CR_STATUS_INVALID, "the text form of a network-order record gives 9");
  }
  void* out = &manual;
  unsigned long outSize = 7;
  Check(r->Serialize(&out, &outSize, false) == CR_STATUS_INVALID && out == &manual &&
            outSize == 7,
        "a network-order record is not serialized and the outputs stay");

  r->NetworkToHost(0);
  Check(!r->IsInNetworkOrder() && BytesOf(*r) == before,
        "network order and back restores every byte");
  DORecordHeaderNtoh(reinterpret_cast<DORecordHeader*>(manual.get()));
  Check(std::memcmp(manual.get(), before.data(), before.size()) == 0,
        "DORecordHeaderNtoh undoes DORecordHeaderHton");

  if ((selector & 8) != 0) {
    r->HostToNetwork(1);
    r->NetworkToHost(0);
    Check(r->GetNTRefs(CR_TREF_TYPE_TASKID) == 0, "bit 0 of the flags drops the task IDs");
    Check(DORecordHeaderValidate(r->GetHeader(), r->GetHeaderSize(), 0) == CR_STATUS_SUCCESS,
          "a record without its task IDs validates");
  }
  ExerciseRecord(*r);
  return Outcome::kAccepted;
}

std::vector<uint64_t> Values(const SORecord& r) {
  std::vector<uint64_t> v = {r.GetFlags(),     r.GetDCID(),     r.GetPathID(),
                             r.GetFileID(),    r.GetSize(),     r.GetCRC(),
                             r.GetCheckTime(), r.GetFPType(),   r.GetCryptoMode(),
                             r.GetKeyIndex()};
  for (int i = 0; i < 33; ++i) v.push_back(r.GetKey()[i]);
  return v;
}

std::vector<uint8_t> BytesOf(const SORecord& r) {
  const unsigned char* h = reinterpret_cast<const unsigned char*>(r.GetHeader());
  return std::vector<uint8_t>(h, h + r.GetHeaderSize());
}

Outcome SORecordByteOrder(Input& in) {
  const unsigned short flags = in.U16() % 4;
  const unsigned int dcid = in.U32();
  const unsigned int size = in.U32();
  const unsigned int crc = in.U32();
  QorKey key;
  const std::vector<uint8_t> keyBytes = in.Bytes(sizeof key.key + 1);
  std::memcpy(key.key, keyBytes.data(), sizeof key.key);
  key.keyType = keyBytes.back();
  const unsigned char cryptoMode = in.U8();
  const unsigned char fptype = FPTypeFrom(in.U8());
  const unsigned int checkTime = in.U32();
  const unsigned short keyIndex = in.U16();
  std::unique_ptr<SORecord> r;
  try {
    r.reset(new SORecord(flags, dcid, size, crc, key, cryptoMode, fptype));
  } catch (const Cr_ErrnoException& e) {
    Check(e.GetStatus() == CR_STATUS_INVALID, "an SO record is refused with 9");
    return Outcome::kRefused;
  }
  r->SetCheckTime(checkTime);
  r->SetKeyIndex(keyIndex);
  Check(SegmentRecordValidate(r->GetHeader(), r->GetHeaderSize(), CR_SO_VALIDATE_NO_TASKIDS) ==
            CR_STATUS_SUCCESS,
        "a built SO record validates");
  const std::vector<uint8_t> before = BytesOf(*r);
  const std::vector<uint64_t> values = Values(*r);
  r->HostToNetwork(0);
  Check(Values(*r) == values, "the SO getters give host values in network order");
  Buffer manual = CopyOf(before.data(), before.size());
  SegmentRecordHton(reinterpret_cast<_SegmentDBRecord*>(manual.get()),
                    reinterpret_cast<const _SegmentDBRecord*>(manual.get()), 0);
  Check(BytesOf(*r) == std::vector<uint8_t>(manual.get(), manual.get() + before.size()),
        "SORecord converts as SegmentRecordHton does");
  r->HostToNetwork(0);
  Check(BytesOf(*r) == std::vector<uint8_t>(manual.get(), manual.get() + before.size()),
        "a second HostToNetwork changes nothing");
  r->NetworkToHost(0);
  Check(!r->IsInNetworkOrder() && BytesOf(*r) == before,
        "network order and back restores every byte of an SO record");
  return Outcome::kAccepted;
}

// A segment DB record laid out from the input: counts, fixed fields, task
// IDs and fingerprints.
Outcome SegmentRecordByteOrder(Input& in) {
  const uint32_t ntaskid = in.U8();
  const uint32_t ndo = in.U8();
  _SegmentDBRecord f = {};
  f.fptype = FPTypeFrom(in.U8());
  const uint64_t recsize = CR_SO_RECORD_MIN_SIZE + 8 * uint64_t{ntaskid} +
                           uint64_t{FPWidth(f.fptype)} * ndo;
  f.type = CR_SO_RECORD_TYPE;
  f.flags = in.U16();
  f.recsize = static_cast<uint32_t>(recsize);
  f.unused = in.U32();
  f.ntaskid = ntaskid;
  f.checktime = in.U32();
  f.reserved1 = in.U32();
  f.DCID = in.U64();
  f.fileID = in.U64();
  f.size = in.U64();
  f.CRC = in.U32();
  f.ndo = ndo;
  const std::vector<uint8_t> key = in.Bytes(sizeof f.key);
  std::memcpy(f.key, key.data(), sizeof f.key);
  f.cryptoMode = in.U8();
  f.pad = in.U8();
  f.keyIndex = in.U16();
  f.reserved2 = in.U16();
  std::vector<uint8_t> image(reinterpret_cast<const uint8_t*>(&f),
                             reinterpret_cast<const uint8_t*>(&f) + sizeof f);
  const std::vector<uint8_t> rest = in.Bytes(recsize - sizeof f);
  image.insert(image.end(), rest.begin(), rest.end());

  const unsigned int length = static_cast<unsigned int>(recsize);
  Buffer record = CopyOf(image.data(), image.size());
  _SegmentDBRecord* r = reinterpret_cast<_SegmentDBRecord*>(record.get());
  const cr_status_t status = SegmentRecordValidate(r, length, 0);
  if (status != CR_STATUS_SUCCESS) {
    Check(status == CR_STATUS_INVALID_RECORD, "a laid-out record is refused only as invalid");
    return Outcome::kRefused;
  }
  SegmentRecordHton(r, r, 0);
  Check(SegmentRecordValidate(r, length, CR_SO_VALIDATE_NETWORK_ORDER) == CR_STATUS_SUCCESS,
        "a converted segment DB record validates in network order");
  SegmentRecordNtoh(r, r, 0);
  Check(std::memcmp(record.get(), image.data(), image.size()) == 0,
        "network order and back restores every byte of a segment DB record");
  return Outcome::kAccepted;
}

}  // namespace

// Input: a selector byte (mod 3: DO record, SO record, segment DB record),
// then what the chosen record is built from.
Outcome FuzzByteOrderRoundTrip(const uint8_t* data, size_t size) {
  QuietLogging();
  Input in(data, size);
  const uint8_t selector = in.U8();
  switch (selector % 3) {
    case 0:
      return DORecordByteOrder(in, selector);
    case 1:
      return SORecordByteOrder(in);
    default:
      return SegmentRecordByteOrder(in);
  }
}

}  // namespace crfuzz
