// Helpers shared by the fuzz targets and the seed generator, the table of
// targets and the invariant handler.
#include "fuzz_support.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <sstream>

#include "common/Adler32.h"
#include "crrecord/common/Endian.h"
#include "crrecord/platform/status.h"
#include "crrecord/platform/tref.h"
#include "fuzz_targets.h"

namespace crfuzz {

const Target kTargets[] = {
    {"dorecord_header_deserialize", FuzzHeaderDeserialize},
    {"add_serialized_trefs", FuzzAddSerializedTRefs},
    {"dorecord_header_validate", FuzzHeaderValidate},
    {"segment_record_validate", FuzzSegmentRecordValidate},
    {"tref_new_deserialize", FuzzTRefNewDeserialize},
    {"fp_string_to_digest", FuzzFPStringToDigest},
    {"do_serialize_roundtrip", FuzzSerializeRoundTrip},
    {"byte_order_roundtrip", FuzzByteOrderRoundTrip},
#ifdef CRRECORD_FUZZ_WITH_TOOL
    {"crrec_load", FuzzCrrecLoad},
#endif
};
const size_t kTargetCount = sizeof kTargets / sizeof kTargets[0];

namespace {

InvariantHandler handler = nullptr;

void DropLine(cr_log_level_t, cr_status_t, const char*, void*) {}

}  // namespace

void SetInvariantHandler(InvariantHandler h) { handler = h; }

bool Check(bool ok, const char* what) {
  if (ok) return true;
  if (handler == nullptr) __builtin_trap();
  handler(what);
  return false;
}

void QuietLogging() {
  static const bool done = [] {
    CRLogSetSink(&DropLine, nullptr);
    CRTraceSet(true);
    return true;
  }();
  (void)done;
}

Buffer CopyOf(const void* data, size_t n, size_t slack) {
  // malloc(0) may return null; asking for one byte then keeps it non-null.
  const size_t total = n + slack;
  unsigned char* p = static_cast<unsigned char*>(std::malloc(total == 0 ? 1 : total));
  if (p == nullptr) std::abort();
  if (n != 0) std::memcpy(p, data, n);
  if (slack != 0) std::memset(p + n, 0, slack);
  return Buffer(p);
}

unsigned char DOTypeFrom(uint8_t b) {
  if (b < 0xF0) return static_cast<unsigned char>(b % 6);
  if (b == 0xFF) return CR_DO_TYPE_INVALID;
  return static_cast<unsigned char>(6 + (b - 0xF0));
}

unsigned char FPTypeFrom(uint8_t b) {
  if (b < 0xF0) return static_cast<unsigned char>(1 + b % 3);
  return static_cast<unsigned char>(b - 0xF0);
}

unsigned int FPWidth(unsigned char fptype) { return fptype == 3 ? 32 : 16; }

void RecordParams::Decode(Input& in) {
  dotypeByte = in.U8();
  fptypeByte = in.U8();
  options = in.U8();
  cid = in.U64();
  size = in.U64();
  ssize = in.U64();
  crc = in.U32();
  ctime = in.U32();
  mtime = in.U32();
  const unsigned char dotype = DOTypeFrom(dotypeByte);
  const unsigned int width = FPWidth(FPTypeFrom(fptypeByte));
  // Counts are cut to what the input still holds, so that a few bytes
  // cannot ask for a thousand zero-filled segments (and slow runs).
  auto fits = [&in](size_t count, size_t width) { return std::min(count, in.Left() / width); };
  constexpr size_t kSegmentFields = 4 + 8 + 4 + 8;
  if (dotype == CR_DO_TYPE_BLOOM_FILTER) {
    bitmap = in.Bytes(fits(in.U16() % (kMaxBitmap + 1), 1));
  } else {
    segments.resize(fits(in.U16() % (kMaxSegments + 1), width + kSegmentFields));
    for (SegmentParams& s : segments) {
      s.fp = in.Bytes(width);
      s.size = in.U32();
      s.offset = in.U64();
      s.objectOffset = in.U32();
      s.dcid = in.U64();
    }
  }
  if ((options & kBuildUniqueDcids) != 0) {
    const size_t count = in.U8() % (kMaxUdcids + 1);
    udcidChecksum = in.U32();
    udcids.resize(fits(count, 16));
    for (auto& e : udcids) {
      e.first = in.U64();
      e.second = in.U64();
    }
  }
  refs.resize(fits(in.U8() % (kMaxRefs + 1), 9));
  for (RefParams& r : refs) {
    r.kind = in.U8();
    r.value = in.U64();
  }
}

void RecordParams::Encode(Writer& out) const {
  out.u8(dotypeByte).u8(fptypeByte).u8(options);
  out.le64(cid).le64(size).le64(ssize).le32(crc).le32(ctime).le32(mtime);
  if (DOTypeFrom(dotypeByte) == CR_DO_TYPE_BLOOM_FILTER) {
    out.le16(static_cast<uint16_t>(bitmap.size())).raw(bitmap);
  } else {
    out.le16(static_cast<uint16_t>(segments.size()));
    for (const SegmentParams& s : segments) {
      out.raw(s.fp).le32(s.size).le64(s.offset).le32(s.objectOffset).le64(s.dcid);
    }
  }
  if ((options & kBuildUniqueDcids) != 0) {
    out.u8(static_cast<uint8_t>(udcids.size())).le32(udcidChecksum);
    for (const auto& e : udcids) out.le64(e.first).le64(e.second);
  }
  out.u8(static_cast<uint8_t>(refs.size()));
  for (const RefParams& r : refs) out.u8(r.kind).le64(r.value);
}

namespace {

using crrecord::Store;

// The segment list in the constructor's interleaved host-order layout, with
// DCIDs, sizes and offsets made acceptable when the parameters ask for it;
// the file and segment sizes are adjusted to match.
struct SegmentList {
  std::vector<uint8_t> entries;
  std::vector<unsigned long> dcids;
  uint64_t size, ssize;
};

SegmentList LayOut(const RecordParams& p, unsigned char dotype, unsigned char fptype) {
  const bool fix = (p.options & kBuildConsistent) != 0;
  const unsigned int width = FPWidth(fptype);
  const unsigned int extra =
      dotype == 2 ? 4 : dotype == 3 ? 12 : dotype == 5 ? 8 : 0;
  SegmentList out;
  out.size = p.size;
  out.ssize = p.ssize;
  out.entries.resize(p.segments.size() * (width + extra));
  uint64_t end = 0;
  uint64_t sum = 0;
  unsigned char* e = out.entries.data();
  for (const SegmentParams& s : p.segments) {
    std::memcpy(e, s.fp.data(), width);
    const uint32_t size = fix ? s.size & 0x00FFFFFFu : s.size;
    const uint64_t offset = fix ? end + (s.offset & 0xFFFFu) : s.offset;
    if (extra != 0) Store<uint32_t>(e + width, size);
    if (dotype == 3) Store<uint64_t>(e + width + 4, offset);
    if (dotype == 5) Store<uint32_t>(e + width + 4, s.objectOffset);
    e += width + extra;
    sum += size;
    end = offset + size;
    out.dcids.push_back(fix ? 64 + (s.dcid & 0x7FFFFFFFFFFFFFFFull) : s.dcid);
  }
  if (fix) {
    const uint64_t n = p.segments.size();
    if (dotype == 2 || dotype == 5) out.size = sum;
    if (dotype == 3) out.size = end + (p.size & 0xFFu);
    if (dotype == 0 || dotype == 1) {
      out.ssize = 1 + (p.ssize & 0x00FFFFFFu);
      out.size = n == 0 ? 0 : (n - 1) * out.ssize + 1 + p.size % out.ssize;
    }
  }
  return out;
}

std::vector<uint8_t> UniqueDcidBlock(const RecordParams& p) {
  std::vector<uint8_t> block(8 + 16 * p.udcids.size());
  Store<uint32_t>(block.data() + 4, static_cast<uint32_t>(p.udcids.size()));
  unsigned char* e = block.data() + 8;
  for (const auto& entry : p.udcids) {
    Store<uint64_t>(e, entry.first);
    Store<uint64_t>(e + 8, entry.second);
    e += 16;
  }
  const bool fix = (p.options & kBuildConsistent) != 0;
  Store<uint32_t>(block.data(),
                  fix ? crrecord::Adler32(block.data() + 4, block.size() - 4) : p.udcidChecksum);
  return block;
}

void AddRef(DORecord& r, const RefParams& ref) {
  unsigned char payload[8];
  crrecord::StoreBE64(payload, ref.value);
  switch (ref.kind % 4) {
    case 0:
      r.AddTaskID(ref.value);
      return;
    case 1:
      r.AddDSID(static_cast<unsigned int>(ref.value));
      return;
    default: {
      const cr_reftype_t kind = ref.kind % 4 == 2 ? CR_TREF_TYPE_RETENTION : CR_TREF_TYPE_HOLD;
      const size_t length = 1 + (ref.kind >> 2) % sizeof payload;
      _cr_tref_t* raw = CRTRefNew(kind, payload, length);
      if (raw != nullptr) r.OwnTRef(*raw);
      return;
    }
  }
}

}  // namespace

std::unique_ptr<DORecord> BuildRecord(const RecordParams& p) {
  const unsigned char dotype = DOTypeFrom(p.dotypeByte);
  const unsigned char fptype = FPTypeFrom(p.fptypeByte);
  std::vector<uint8_t> block;
  if ((p.options & kBuildUniqueDcids) != 0) block = UniqueDcidBlock(p);
  const char* uniqueDcids = block.empty() ? nullptr : reinterpret_cast<const char*>(block.data());
  std::unique_ptr<DORecord> r;
  try {
    if (dotype == CR_DO_TYPE_BLOOM_FILTER) {
      r.reset(new DORecord(p.cid, p.size, p.ssize, p.crc, p.ctime, p.mtime,
                           static_cast<unsigned int>(p.bitmap.size()),
                           p.bitmap.empty() ? nullptr : p.bitmap.data(), uniqueDcids, fptype,
                           dotype));
    } else {
      const SegmentList list = LayOut(p, dotype, fptype);
      r.reset(new DORecord(p.cid, list.size, list.ssize, p.crc, p.ctime, p.mtime,
                           list.entries.empty() ? nullptr : list.entries.data(),
                           static_cast<unsigned int>(p.segments.size()),
                           list.dcids.empty() ? nullptr : list.dcids.data(), uniqueDcids, fptype,
                           dotype));
    }
  } catch (const Cr_ErrnoException&) {
    return nullptr;
  }
  return r;
}

bool AddRefs(DORecord& r, const RecordParams& p) {
  try {
    for (const RefParams& ref : p.refs) AddRef(r, ref);
  } catch (const Cr_ErrnoException&) {
    return false;
  }
  return true;
}

namespace {

// Where the values read by ExerciseRecord go, so that no read is dropped.
volatile uint64_t sink;

uint64_t Sum(const unsigned char* p, size_t n) {
  uint64_t s = 0;
  for (size_t i = 0; i < n; ++i) s += p[i];
  return s;
}

}  // namespace

void ExerciseRecord(const DORecord& r) {
  uint64_t s = r.GetFlags() + r.GetCheckTime() + r.GetDCID() + r.GetSize() + r.GetSsize() +
               r.GetCrc() + r.GetCTime() + r.GetMTime() + r.GetFPType() + r.GetDOType() +
               *r.GetPOID() + r.GetNtaskid() + r.GetNds() + r.GetDOSize() + r.calcRecSize();
  const bool bloom = r.GetDOType() == CR_DO_TYPE_BLOOM_FILTER;
  const unsigned int width = FPWidth(r.GetFPType());
  const unsigned int nfp = r.GetNfp();
  for (unsigned int i = 0; i < nfp; ++i) {
    s += r.GetSegmentSize(i) + r.GetSegmentOffset(i) + r.GetSegmentObjectOffset(i) +
         r.GetSegmentDCID(i) + Sum(r.GetSegmentFP(i), width);
  }
  if (nfp != 0) s += Sum(r.GetSegmentDCIDList(), uint64_t{8} * nfp);
  const unsigned int nudcid = r.GetNudcid();
  for (unsigned int i = 0; i < nudcid; ++i) s += r.GetSegmentUDCID(i);
  if (nudcid != 0) s += Sum(r.GetSegmentUDCIDList(), uint64_t{16} * nudcid);
  s += r.GetUDCIDSize();
  if (bloom) s += Sum(r.GetBloomStart(), 4) + Sum(r.GetBloom(), r.GetBSize());

  unsigned long total = 0;
  for (unsigned int kind = 0; kind < CR_TREF_TYPE_END; ++kind) {
    const cr_reftype_t k = static_cast<cr_reftype_t>(kind);
    unsigned long walked = 0;
    for (auto it = r.GetTRefTypeBegin(k); it != r.GetTRefTypeEnd(k); ++it) ++walked;
    Check(walked == r.GetNTRefs(k), "GetNTRefs(kind) counts the kind's set");
    total += r.GetTRefTypeTotalSize(k);
  }
  Check(total == r.calcTRefsSize(), "the kinds' sizes add up to calcTRefsSize");
  Check(r.calcTRefsSize() == r.getTRefsSize(), "the TRef size field counts the sets");
  for (auto it = r.GetTRefBegin(); it != r.GetTRefEnd(); ++it) s += CRTRefGetType((*it)->Get());
  s += Sum(r.GetSerializedTRefs(), r.GetSerializedTRefsSize());

  std::map<unsigned long, unsigned long> sizes;
  s += r.GetUDCIDSizeList(sizes) + sizes.size();
  try {
    cr_tdigest_t* digest = r.GetDigest();
    if (digest != nullptr) s += digest->type;
    CRTDigestDelete(&digest);
  } catch (const Cr_ErrnoException&) {
  }
  try {
    r.checkSegmentList();
  } catch (const Cr_ErrnoException&) {
  }
  s += TextOf(r).size();

  std::ostringstream binary;
  r.ToStream(binary, true);
  const std::string written = binary.str();
  const unsigned char* header = reinterpret_cast<const unsigned char*>(r.GetHeader());
  Check(written.size() == r.GetHeaderSize() &&
            std::memcmp(written.data(), header, written.size()) == 0,
        "the binary stream form is the record buffer");

  for (bool checksum : {false, true}) {
    void* out = nullptr;
    unsigned long size = 0;
    Check(r.Serialize(&out, &size, checksum) == CR_STATUS_SUCCESS,
          "a host-order record serializes");
    s += TakeOutput(&out, size).size();
  }
  Check(r == r, "a record equals itself");
  sink = s;
}

std::vector<uint8_t> TakeOutput(void** out, unsigned long size) {
  std::vector<uint8_t> bytes;
  if (*out != nullptr) {
    const unsigned char* p = static_cast<const unsigned char*>(*out);
    bytes.assign(p, p + size);
  }
  DORecord::SerializedDORecordFree(out);
  return bytes;
}

std::string TextOf(const DORecord& r) {
  std::ostringstream os;
  try {
    r.ToStream(os, false);
  } catch (const Cr_ErrnoException&) {
    return "";
  }
  return os.str();
}

std::string TextWithout(const std::string& text, std::vector<int> blanked) {
  std::vector<std::string> fields;
  size_t start = 0;
  for (int k = 0; k < 12; ++k) {
    const size_t comma = text.find(',', start);
    if (comma == std::string::npos) break;
    fields.push_back(text.substr(start, comma - start));
    start = comma + 1;
  }
  for (int k : blanked) {
    if (k < static_cast<int>(fields.size())) fields[k] = "*";
  }
  std::string out;
  for (const std::string& f : fields) out += f + ",";
  return out + text.substr(start);
}

}  // namespace crfuzz
