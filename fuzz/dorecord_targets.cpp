// Fuzz entry functions over the DO record's readers of outside bytes: the
// serialized forms, typed-reference sections, stored records, and raw record
// buffers given to the header validation.
#include <algorithm>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "common/Adler32.h"
#include "crrecord/common/Endian.h"
#include "crrecord/DORecord.h"
#include "fuzz_support.h"
#include "fuzz_targets.h"

namespace crfuzz {
namespace {

using crrecord::LoadBE32;
using crrecord::Store;
using crrecord::StoreBE32;

constexpr size_t kHeader = 80;
constexpr size_t kSerializedHead = 28;
constexpr uint64_t kTimeFields = 44;  // ctime and mtime: 8 bytes that follow the clock

// Seals a serialized record as a careful writer would: the Bloom form's
// unique-DCID block gets its own Adler-32, and the head the Adler-32 of the
// body. Inputs whose counts do not fit are left as they are.
void Seal(std::vector<uint8_t>& b, unsigned char dotype) {
  if (b.size() < kSerializedHead) return;
  if (dotype == CR_DO_TYPE_BLOOM_FILTER && b.size() >= kSerializedHead + 4) {
    const uint64_t block = kSerializedHead + 4 + uint64_t{LoadBE32(b.data() + kSerializedHead)};
    if (block + 8 <= b.size()) {
      const uint64_t n = LoadBE32(b.data() + block + 4);
      if (block + 8 + 16 * n <= b.size()) {
        StoreBE32(b.data() + block,
                  n == 0 ? 0 : crrecord::Adler32(b.data() + block + 4, 4 + 16 * n));
      }
    }
  }
  StoreBE32(b.data() + 16, crrecord::Adler32(b.data() + kSerializedHead,
                                             b.size() - kSerializedHead));
}

bool SameBytesBesideTimes(const unsigned char* a, const unsigned char* b, size_t n) {
  for (size_t i = 0; i < n; ++i) {
    if (i >= kTimeFields && i < kTimeFields + 8) continue;
    if (a[i] != b[i]) return false;
  }
  return true;
}

std::vector<uint8_t> SerializeOf(const DORecord& r, bool checksum) {
  void* out = nullptr;
  unsigned long size = 0;
  Check(r.Serialize(&out, &size, checksum) == CR_STATUS_SUCCESS, "a host-order record serializes");
  return TakeOutput(&out, size);
}

// The rebuilt record serialized again gives the same bytes, and equals the
// record it came from as far as the serialized form carries it.
void CheckRebuilt(const DORecord& r, bool checksum) {
  const std::vector<uint8_t> bytes = SerializeOf(r, checksum);
  try {
    DORecord again(r.GetDOType(), r.GetFlags(), r.GetDCID(), r.GetFPType(), nullptr, 0,
                   bytes.data(), bytes.size(), r.IsSubDO());
    Check(SerializeOf(again, checksum) == bytes, "serialize -> rebuild -> serialize is stable");
    const bool sameCrc = again.GetCrc() == r.GetCrc();
    Check((again == r) == sameCrc, "a rebuilt record equals its source but for the checksum");
    std::vector<int> blanked = {7, 8};  // ctime and mtime
    if (!sameCrc) blanked.push_back(6);
    Check(TextWithout(TextOf(again), blanked) == TextWithout(TextOf(r), blanked),
          "a rebuilt record prints as its source");
  } catch (const Cr_ErrnoException&) {
    Check(false, "a serialized record rebuilds");
  }
}

}  // namespace

// Input: DO type, fingerprint type, options, caller-buffer room, flags,
// DCID, then the serialized bytes.
Outcome FuzzHeaderDeserialize(const uint8_t* data, size_t size) {
  QuietLogging();
  Input in(data, size);
  const unsigned char dotype = DOTypeFrom(in.U8());
  const unsigned char fptype = FPTypeFrom(in.U8());
  const uint8_t options = in.U8();
  const uint8_t room = in.U8();
  const unsigned short flags = in.U16();
  const unsigned long dcid = in.U64();
  std::vector<uint8_t> bytes = in.Rest();
  if ((options & 1) != 0) Seal(bytes, dotype);
  const bool callerBuffer = (options & 2) != 0;
  const bool subDO = (options & 4) != 0;
  const bool checksum = (options & 8) != 0;

  DORecordHeader* own = nullptr;
  unsigned long ownSize = 0;
  const cr_status_t status =
      DORecordHeaderDeserialize(&own, &ownSize, bytes.data(), bytes.size(), dotype, fptype);
  Buffer ownBuffer(reinterpret_cast<unsigned char*>(own));
  uint64_t recsize = 0;
  if (status != CR_STATUS_SUCCESS) {
    Check(own == nullptr && ownSize == 0, "a refused input leaves the outputs as they were");
  } else {
    recsize = own->recsize;
    Check(ownSize == recsize, "the allocated size is the record size");
    Check(DORecordHeaderValidate(own, own->recsize, 0) == CR_STATUS_SUCCESS,
          "a deserialized record validates");
  }

  // The same bytes into a caller's buffer, larger or smaller than needed.
  uint64_t callerSize = room * uint64_t{64};
  if (status == CR_STATUS_SUCCESS) {
    callerSize = room < 0x80 ? recsize + room : recsize - std::min<uint64_t>(recsize, room - 0x7F);
  }
  Buffer caller = CopyOf(nullptr, 0, callerSize);
  DORecordHeader* const given = reinterpret_cast<DORecordHeader*>(caller.get());
  DORecordHeader* into = given;
  unsigned long intoSize = callerSize;
  const cr_status_t callerStatus =
      DORecordHeaderDeserialize(&into, &intoSize, bytes.data(), bytes.size(), dotype, fptype);
  Check(into == given && intoSize == callerSize, "a caller's buffer is never replaced");
  if (status != CR_STATUS_SUCCESS) {
    Check(callerStatus != CR_STATUS_SUCCESS, "a caller's buffer does not make bad input good");
  } else if (callerSize < recsize) {
    Check(callerStatus == CR_STATUS_NO_ROOM, "a small caller buffer gives 122");
  } else if (Check(callerStatus == CR_STATUS_SUCCESS, "a large caller buffer is used")) {
    Check(SameBytesBesideTimes(caller.get(), ownBuffer.get(), recsize),
          "both buffers hold the same record");
  }

  // The constructor over the same bytes: a fresh caller buffer, since the
  // record keeps it.
  const cr_status_t expected = callerBuffer ? callerStatus : status;
  Buffer held = CopyOf(nullptr, 0, callerSize);
  try {
    DORecord r(dotype, flags, dcid, fptype, callerBuffer ? held.get() : nullptr,
               callerBuffer ? callerSize : 0, bytes.data(), bytes.size(), subDO);
    if (!Check(expected == CR_STATUS_SUCCESS, "the constructor refuses what deserialization did")) {
      return Outcome::kAccepted;
    }
    Check(r.OwnsBuffer() == !callerBuffer, "the record owns only a buffer of its own");
    ExerciseRecord(r);
    CheckRebuilt(r, checksum);
    return Outcome::kAccepted;
  } catch (const Cr_ErrnoException& e) {
    if (!CRFPTypeIsValid(fptype)) {
      // Checked before the bytes are read: the type completes the header.
      Check(e.GetStatus() == CR_STATUS_INVALID &&
                std::string(e.what()) == "invalid fptype for DO",
            "an unknown fingerprint type gives 9 \"invalid fptype for DO\"");
    } else if (expected != CR_STATUS_SUCCESS) {
      Check(e.GetStatus() == expected && std::string(e.what()).empty(),
            "the constructor throws the deserialization status without a message");
    } else {
      Check(e.GetStatus() == CR_STATUS_CORRUPT_SEGMENTS,
            "a deserialized record is refused only for its segment list");
    }
  }
  return Outcome::kRefused;
}

namespace {

// A DO type 2 record of one 4096-byte segment: a host for typed references.
std::unique_ptr<DORecord> SmallRecord(unsigned char fptype) {
  unsigned char entry[32 + 4] = {};
  Store<uint32_t>(entry + FPWidth(fptype), 4096);
  const unsigned long dcids[] = {64};
  return std::unique_ptr<DORecord>(
      new DORecord(100, 4096, 4096, 0, 1, 1, entry, 1, dcids, nullptr, fptype, 2));
}

// The distinct references of a section, decoded independently of the
// record, up to the first bad one.
size_t DistinctReferences(const std::vector<uint8_t>& section, std::vector<_cr_tref_t*>& refs) {
  auto less = [](const _cr_tref_t* a, const _cr_tref_t* b) { return CRTRefCompare(a, b) < 0; };
  std::set<const _cr_tref_t*, decltype(less)> distinct(less);
  for (const _cr_tref_t* ref : refs) distinct.insert(ref);
  size_t at = 0;
  while (at < section.size()) {
    unsigned long consumed = 0;
    _cr_tref_t* ref = CRTRefNewDeserialize(section.data() + at, section.size() - at,
                                           CR_TREF_MODE_BINARY, &consumed);
    if (ref == nullptr) break;
    refs.push_back(ref);
    distinct.insert(ref);
    at += consumed;
  }
  return distinct.size();
}

Outcome FuzzSectionIntoRecord(Input& in) {
  const unsigned char fptype = static_cast<unsigned char>(1 + in.U8() % 3);
  std::vector<_cr_tref_t*> refs;
  std::unique_ptr<DORecord> r = SmallRecord(fptype);
  for (unsigned int n = in.U8() % 5; n != 0; --n) {
    const unsigned long taskId = in.U64();
    r->AddTaskID(taskId);
    refs.push_back(CRTRefNewTaskID(taskId));
  }
  const std::vector<uint8_t> section = in.Rest();
  Outcome outcome = Outcome::kAccepted;
  try {
    r->AddSerializedTRefs(reinterpret_cast<const char*>(section.data()),
                          static_cast<unsigned int>(section.size()));
  } catch (const Cr_ErrnoException& e) {
    const std::string message = e.what();
    Check(e.GetStatus() != CR_STATUS_SUCCESS &&
              (message == "Received a buffer with corrupt typed references." ||
               message == "invalid record size for DO"),
          "a refused section gives one of the documented messages");
    outcome = Outcome::kRefused;
  }
  // Accepted or not, what was loaded is counted and written back as read.
  unsigned long held = 0;
  for (unsigned int kind = 0; kind < CR_TREF_TYPE_END; ++kind) {
    held += r->GetNTRefs(static_cast<cr_reftype_t>(kind));
  }
  const size_t distinct = DistinctReferences(section, refs);
  for (_cr_tref_t*& ref : refs) CRTRefDelete(&ref);
  Check(held == distinct, "every distinct reference read is held, duplicates dropped");
  Check(r->getTRefsSize() == r->calcTRefsSize(), "the TRef size field counts the sets");
  Check(r->GetHeaderSize() == r->calcRecSize(), "the record size counts the sets");
  Check(DORecordHeaderValidate(r->GetHeader(), r->GetHeaderSize(), 0) == CR_STATUS_SUCCESS,
        "a record with loaded references validates");

  const std::vector<uint8_t> written(r->GetSerializedTRefs(),
                                     r->GetSerializedTRefs() + r->GetSerializedTRefsSize());
  std::unique_ptr<DORecord> fresh = SmallRecord(fptype);
  try {
    fresh->AddSerializedTRefs(reinterpret_cast<const char*>(written.data()),
                              static_cast<unsigned int>(written.size()));
    Check(std::vector<uint8_t>(fresh->GetSerializedTRefs(),
                               fresh->GetSerializedTRefs() + fresh->GetSerializedTRefsSize()) ==
              written,
          "a written section reads back into the same section");
  } catch (const Cr_ErrnoException&) {
    Check(false, "a written section reads back");
  }
  return outcome;
}

// Sizes of a record laid out by hand, independently of the library.
uint64_t ExtraWidth(unsigned char dotype) {
  return dotype == 2 ? 4 : dotype == 3 ? 12 : dotype == 5 ? 8 : 0;
}

// A stored record laid out from the input: counts, header fields, then the
// section bytes; with option bit 0 the Bloom length word and the
// unique-DCID list's count and checksum are made to agree with the header.
Outcome FuzzStoredRecord(Input& in) {
  const unsigned char dotype = DOTypeFrom(in.U8());
  const unsigned char fptype = FPTypeFrom(in.U8());
  const unsigned int bufferMode = in.U8() % 4;  // 3 is refused
  const uint8_t options = in.U8();
  const bool bloom = dotype == CR_DO_TYPE_BLOOM_FILTER;
  // Counts are cut to what the input still holds, so that runs stay short.
  auto fits = [&in](uint32_t count, size_t width) {
    return static_cast<uint32_t>(std::min<size_t>(count, in.Left() / width));
  };
  const uint32_t ntaskid = fits(in.U8(), 8);
  const uint32_t nds = fits(in.U8(), 4);
  const uint32_t count = fits(in.U16() % 4097, bloom ? 1 : 24);  // nfp, or bsize
  const uint32_t nudcid = in.U8() % 33;
  const uint32_t trefsize = fits(in.U16() % 4097, 1);
  const uint8_t slack = in.U8();

  const uint64_t old = 8 * uint64_t{ntaskid} + 4 * uint64_t{nds};
  const uint64_t body = bloom ? 4 + uint64_t{count} + 16
                              : count * (FPWidth(fptype) + ExtraWidth(dotype) + 8);
  const uint64_t udcid = nudcid == 0 ? 0 : 8 + 16 * uint64_t{nudcid};
  const uint64_t recsize = kHeader + old + body + udcid + trefsize;

  DORecordHeader h = {};
  h.type = 3;
  h.flags = in.U16();
  if ((options & 2) == 0) h.flags &= CR_DO_FLAGS_ALLOWED;
  h.recsize = static_cast<uint32_t>(recsize);
  h.checktime = in.U32();
  h.CID = in.U64();
  h.size = in.U64();
  h.ssize = in.U64();
  h.CRC = in.U32();
  h.ctime = in.U32();
  h.mtime = in.U32();
  h.ntaskid = ntaskid;
  h.nfp = bloom ? 0 : count;
  h.nudcid = nudcid;
  h.nds = nds;
  h.trefsize = trefsize;
  h.bsize = bloom ? count : 0;
  h.fptype = fptype;
  h.dotype = dotype;
  std::vector<uint8_t> image(kHeader);
  std::memcpy(image.data(), &h, kHeader);
  const std::vector<uint8_t> rest = in.Bytes(recsize - kHeader);
  image.insert(image.end(), rest.begin(), rest.end());
  if ((options & 1) != 0) {
    unsigned char* sections = image.data() + kHeader + old;
    if (bloom) Store<uint32_t>(sections, count);
    if (nudcid != 0) {
      unsigned char* list = sections + body;
      Store<uint32_t>(list + 4, nudcid);
      Store<uint32_t>(list, crrecord::Adler32(list + 4, udcid - 4));
    }
  }

  Buffer buffer = CopyOf(image.data(), image.size(), slack);
  DORecordHeader* const given = reinterpret_cast<DORecordHeader*>(buffer.get());
  try {
    DORecord r(given, recsize + slack, bufferMode);
    // In mode 2 the record took the buffer over, or freed it for its copy.
    if (bufferMode == 2) buffer.release();
    Check(r.GetHeader()->ntaskid == 0 && r.GetHeader()->nds == 0, "old lists are cut out");
    for (uint32_t i = 0; i < ntaskid; ++i) {
      Check(r.HasTaskID(crrecord::Load<uint64_t>(image.data() + kHeader + 8 * i)),
            "every old task ID becomes a reference");
    }
    for (uint32_t i = 0; i < nds; ++i) {
      Check(r.HasDSID(crrecord::Load<uint32_t>(image.data() + kHeader + 8 * ntaskid + 4 * i)),
            "every old DSID becomes a reference");
    }
    if (bufferMode == 1 && old != 0) {
      Check(std::memcmp(buffer.get(), image.data(), image.size()) == 0,
            "a caller's buffer stays untouched when the record converts a copy");
    }
    const unsigned int size = r.GetHeaderSize();
    Check(DORecordHeaderValidate(r.GetHeader(), size, 0) == CR_STATUS_SUCCESS,
          "a loaded record validates");
    ExerciseRecord(r);
    // Stored again and reopened, the record is the same bytes.
    Buffer stored = CopyOf(r.GetHeader(), size);
    try {
      DORecord reopened(reinterpret_cast<DORecordHeader*>(stored.get()), size, 1);
      Check(reopened.GetHeaderSize() == size &&
                std::memcmp(reopened.GetHeader(), r.GetHeader(), size) == 0,
            "a stored record reopens as the same bytes");
    } catch (const Cr_ErrnoException&) {
      Check(false, "a record this library stored reopens");
    }
    return Outcome::kAccepted;
  } catch (const Cr_ErrnoException&) {
    Check(std::memcmp(buffer.get(), image.data(), image.size()) == 0,
          "a refused stored record leaves the caller's buffer as it was");
  }
  return Outcome::kRefused;
}

}  // namespace

// Input: a selector byte; bit 0 clear loads the rest as a typed-reference
// section into a built record, set lays a stored record out from it.
Outcome FuzzAddSerializedTRefs(const uint8_t* data, size_t size) {
  QuietLogging();
  Input in(data, size);
  return (in.U8() & 1) == 0 ? FuzzSectionIntoRecord(in) : FuzzStoredRecord(in);
}

// Input: the record buffer itself, raw. Its byte order is told by its type
// field, so both orders are reached without a byte of control.
Outcome FuzzHeaderValidate(const uint8_t* data, size_t size) {
  QuietLogging();
  if (size > UINT32_MAX) return Outcome::kRefused;
  const unsigned int length = static_cast<unsigned int>(size);
  Buffer raw = CopyOf(data, size);
  const DORecordHeader* h = reinterpret_cast<const DORecordHeader*>(raw.get());
  Check(DORecordHeaderValidate(h, length, 2) == CR_STATUS_INVALID, "unknown flags give 9");
  const bool net = size >= 2 && crrecord::LoadBE16(data) == 3;
  DORecordHeaderValidate(h, length, net ? 0u : unsigned{CR_DO_VALIDATE_NETWORK_ORDER});
  const cr_status_t status = DORecordHeaderValidate(h, length, net ? 1 : 0);
  if (status != CR_STATUS_SUCCESS) {
    Check(status == CR_STATUS_INVALID_RECORD, "an invalid record gives 32");
    return Outcome::kRefused;
  }

  // The other byte order validates too, and the conversions undo each other.
  Buffer other = CopyOf(data, size);
  DORecordHeader* o = reinterpret_cast<DORecordHeader*>(other.get());
  net ? DORecordHeaderNtoh(o) : DORecordHeaderHton(o);
  Check(DORecordHeaderValidate(o, length, net ? 0 : 1) == CR_STATUS_SUCCESS,
        "a valid record converted validates in its new order");
  net ? DORecordHeaderHton(o) : DORecordHeaderNtoh(o);
  Check(std::memcmp(o, data, size) == 0, "conversion there and back restores every byte");

  Buffer host = CopyOf(data, size);
  DORecordHeader* hh = reinterpret_cast<DORecordHeader*>(host.get());
  if (net) DORecordHeaderNtoh(hh);
  const std::vector<uint8_t> hostBytes(host.get(), host.get() + size);

  // Every locator points inside the record, at a field that fits.
  const unsigned char* base = host.get();
  auto inside = [&](const unsigned char* p, uint64_t width) {
    return Check(p >= base && uint64_t(p - base) + width <= size, "a locator stays inside");
  };
  const unsigned int width = FPWidth(hh->fptype);
  for (uint32_t i = 0; i < hh->nfp; ++i) {
    inside(DORecordHeaderIndexOfSegment(hh, i), width);
    if (hh->dotype == 2 || hh->dotype == 3 || hh->dotype == 5) {
      inside(DORecordHeaderIndexOfSegmentSize(hh, i), 4);
    }
    if (hh->dotype == 3) inside(DORecordHeaderIndexOfSegmentOffset(hh, i), 8);
    if (hh->dotype == 5) inside(DORecordHeaderIndexOfSegmentObjectOffset(hh, i), 4);
    inside(DORecordHeaderIndexOfDCID(hh, i), 8);
  }
  for (uint32_t i = 0; i < hh->nudcid; ++i) inside(DORecordHeaderIndexOfUDCID(hh, i), 16);
  for (uint32_t i = 0; i < hh->ntaskid; ++i) inside(DORecordHeaderIndexOfTaskId(hh, i), 8);
  for (uint32_t i = 0; i < hh->nds; ++i) inside(DORecordHeaderIndexOfDataSelection(hh, i), 4);
  inside(DORecordHeaderStartTRefs(hh), hh->trefsize);
  Check(DORecordHeaderStartTRefs(hh) + hh->trefsize == base + size,
        "the typed-reference section ends the record");
  if (hh->dotype == CR_DO_TYPE_BLOOM_FILTER) {
    inside(DORecordHeaderGetBloomStart(hh), 4 + uint64_t{hh->bsize} + 16);
    inside(DORecordHeaderGetBloom(hh), hh->bsize);
    inside(DORecordHeaderStartBFBitmap(hh), 4);
  }
  inside(DORecordHeaderGetPOID(hh), 8);

  try {
    DORecord r(hh, length, 1);
    ExerciseRecord(r);
    Check(DORecordHeaderValidate(r.GetHeader(), r.GetHeaderSize(), 0) == CR_STATUS_SUCCESS,
          "an opened record still validates");
    return Outcome::kAccepted;
  } catch (const Cr_ErrnoException&) {
    Check(std::memcmp(host.get(), hostBytes.data(), size) == 0,
          "a refused stored record leaves the caller's buffer as it was");
  }
  return Outcome::kAccepted;
}

}  // namespace crfuzz
