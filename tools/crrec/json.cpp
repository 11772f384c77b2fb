// Writing records as JSON and rebuilding them from it.
#include "json.h"

#include <algorithm>
#include <cstring>
#include <initializer_list>

#include <crrecord/platform/fingerprint.h>
#include <crrecord/platform/tref.h>

#include <crrecord/common/Endian.h>
#include "util.h"

namespace crrec {

namespace {

constexpr unsigned kSOFixed = 96;
constexpr unsigned kSOTrailer = 8;
constexpr size_t kSOKey = 33;

unsigned FingerprintWidth(unsigned fptype) { return fptype == CR_FP_TYPE_SHA256 ? 32 : 16; }

std::string FingerprintText(const unsigned char* fp, unsigned char fptype) {
  crfp_digest_t digest{};
  std::memcpy(digest.digest, fp, FingerprintWidth(fptype));
  char text[65];
  if (CRFPDigestToString_r(&digest, fptype, text, sizeof text) == nullptr) {
    return HexEncode(fp, FingerprintWidth(fptype));
  }
  return text;
}

Json DOToJson(const Loaded& loaded) {
  const DORecord& r = *loaded.record;
  const DORecordHeader* h = r.GetHeader();  // also writes the reference section
  const unsigned char fptype = h->fptype;
  const unsigned char dotype = h->dotype;
  const bool bloom = dotype == CR_DO_TYPE_BLOOM_FILTER;
  const Form form = loaded.origin == Form::kJson ? Form::kStored : loaded.origin;

  Json j;
  j["form"] = FormKey(form);
  if (form == Form::kStored) j["byte_order"] = loaded.networkOrder ? "network" : "host";
  if (form == Form::kSerialized || form == Form::kSerializedBloom) {
    j["checksum"] = loaded.serializedChecksum;
  }
  Json& hj = j["header"];
  hj["type"] = h->type;
  hj["flags"] = h->flags;
  hj["recsize"] = h->recsize;
  hj["checktime"] = h->checktime;
  hj["CID"] = h->CID;
  hj["size"] = h->size;
  hj["ssize"] = h->ssize;
  hj["CRC"] = h->CRC;
  hj["ctime"] = h->ctime;
  hj["mtime"] = h->mtime;
  hj["ntaskid"] = h->ntaskid;
  hj["nfp"] = h->nfp;
  hj["nudcid"] = h->nudcid;
  hj["nds"] = h->nds;
  hj["trefsize"] = h->trefsize;
  hj["bsize"] = h->bsize;
  hj["fptype"] = fptype;
  hj["dotype"] = dotype;

  if (bloom) {
    j["bloom"]["bitmap"] = HexEncode(r.GetBloom(), h->bsize);
  } else {
    Json segments = Json::array();
    const bool sizes = dotype == CR_DO_TYPE_NO_OFFSET || dotype == CR_DO_TYPE_8_BYTE_OFFSET ||
                       dotype == CR_DO_TYPE_4_BYTE_OFFSET;
    for (unsigned int i = 0; i < h->nfp; ++i) {
      Json s;
      s["fp"] = FingerprintText(r.GetSegmentFP(i), fptype);
      if (sizes) s["size"] = r.GetSegmentSize(i);
      if (dotype == CR_DO_TYPE_8_BYTE_OFFSET) s["offset"] = r.GetSegmentOffset(i);
      if (dotype == CR_DO_TYPE_4_BYTE_OFFSET) s["object_offset"] = r.GetSegmentObjectOffset(i);
      s["dcid"] = r.GetSegmentDCID(i);
      segments.push_back(std::move(s));
    }
    j["segments"] = std::move(segments);
  }

  if (h->nudcid > 0) {
    Json entries = Json::array();
    unsigned long dcid = 0, bytes = 0;
    for (unsigned int i = 0; r.GetUniqueDCIDEntry(i, &dcid, &bytes) == CR_STATUS_SUCCESS; ++i) {
      entries.push_back(Json{{"dcid", dcid}, {"bytes", bytes}});
    }
    j["unique_dcids"] = std::move(entries);
  }

  Json trefs = Json::array();
  for (unsigned kind = CR_TREF_TYPE_NONE; kind < CR_TREF_TYPE_END; ++kind) {
    const cr_reftype_t k = static_cast<cr_reftype_t>(kind);
    for (auto it = r.GetTRefTypeBegin(k); it != r.GetTRefTypeEnd(k); ++it) {
      const _cr_tref_t* ref = (*it)->Get();
      std::vector<unsigned char> bytes(CRTRefSerializedSize(ref, CR_TREF_MODE_BINARY));
      size_t written = CRTRefSerialize(bytes.data(), bytes.size(), ref, CR_TREF_MODE_BINARY);
      bytes.resize(written);
      char text[CR_TREF_TEXT_SIZE] = "";
      CRTRefToString(text, sizeof text, ref);
      trefs.push_back(Json{{"kind", kind}, {"text", text}, {"bytes", HexEncode(bytes.data(), bytes.size())}});
    }
  }
  j["trefs"] = std::move(trefs);
  return j;
}

Json SOToJson(const Loaded& loaded) {
  const _SegmentDBRecord* s = loaded.so();
  const unsigned char* base = reinterpret_cast<const unsigned char*>(s);
  const unsigned width = FingerprintWidth(s->fptype);
  Json j;
  j["form"] = FormKey(Form::kSegmentDb);
  j["byte_order"] = loaded.networkOrder ? "network" : "host";
  j["type"] = s->type;
  j["flags"] = s->flags;
  j["recsize"] = s->recsize;
  j["unused"] = s->unused;
  j["ntaskid"] = s->ntaskid;
  j["checktime"] = s->checktime;
  j["reserved1"] = s->reserved1;
  j["DCID"] = s->DCID;
  j["fileID"] = s->fileID;
  j["size"] = s->size;
  j["CRC"] = s->CRC;
  j["ndo"] = s->ndo;
  j["key"] = HexEncode(s->key, kSOKey);
  j["fptype"] = s->fptype;
  j["cryptoMode"] = s->cryptoMode;
  j["pad"] = s->pad;
  j["keyIndex"] = s->keyIndex;
  j["reserved2"] = s->reserved2;
  Json taskids = Json::array();
  for (unsigned int i = 0; i < s->ntaskid; ++i) {
    taskids.push_back(crrecord::Load<uint64_t>(base + kSOFixed + 8 * uint64_t{i}));
  }
  j["taskids"] = std::move(taskids);
  const unsigned char* fps = base + kSOFixed + 8 * uint64_t{s->ntaskid};
  Json fingerprints = Json::array();
  for (unsigned int i = 0; i < s->ndo; ++i) {
    fingerprints.push_back(HexEncode(fps + uint64_t{width} * i, width));
  }
  j["fingerprints"] = std::move(fingerprints);
  j["trailer"] = HexEncode(fps + uint64_t{width} * s->ndo, kSOTrailer);
  return j;
}

// Reads fields of a JSON record, naming the field at fault in every error.
class Reader {
 public:
  explicit Reader(const std::string& name) : name_(name) {}

  [[noreturn]] void Fail(const std::string& path, const std::string& what) const {
    Unsound(name_, path.empty() ? what : path + ": " + what);
  }

  void Keys(const Json& obj, const std::string& path,
            std::initializer_list<const char*> allowed) const {
    if (!obj.is_object()) Fail(path, "expected an object");
    for (auto it = obj.begin(); it != obj.end(); ++it) {
      bool known = std::any_of(allowed.begin(), allowed.end(),
                               [&](const char* k) { return it.key() == k; });
      if (!known) Fail(Join(path, it.key()), "unknown field");
    }
  }

  static std::string Join(const std::string& path, const std::string& key) {
    return path.empty() ? key : path + "." + key;
  }

  const Json& Member(const Json& obj, const std::string& path, const char* key) const {
    auto it = obj.find(key);
    if (it == obj.end()) Fail(Join(path, key), "missing");
    return *it;
  }

  uint64_t Number(const Json& v, const std::string& path, uint64_t max) const {
    if (!v.is_number_unsigned()) {
      Fail(path, "expected a whole number from 0 to " + std::to_string(max));
    }
    uint64_t n = v.get<uint64_t>();
    if (n > max) Fail(path, std::to_string(n) + " is larger than " + std::to_string(max));
    return n;
  }

  uint64_t Field(const Json& obj, const std::string& path, const char* key, uint64_t max) const {
    return Number(Member(obj, path, key), Join(path, key), max);
  }

  std::vector<unsigned char> Hex(const Json& v, const std::string& path, size_t exact) const {
    std::vector<unsigned char> bytes;
    if (!v.is_string() || !HexDecode(v.get<std::string>(), &bytes)) {
      Fail(path, "expected a string of hex digits");
    }
    if (exact != SIZE_MAX && bytes.size() != exact) {
      Fail(path, "expected " + std::to_string(2 * exact) + " hex digits, found " +
                     std::to_string(2 * bytes.size()));
    }
    return bytes;
  }

  std::string String(const Json& obj, const std::string& path, const char* key) const {
    const Json& v = Member(obj, path, key);
    if (!v.is_string()) Fail(Join(path, key), "expected a string");
    return v.get<std::string>();
  }

  bool NetworkOrder(const Json& j) const {
    if (!j.contains("byte_order")) return false;
    const std::string order = String(j, "", "byte_order");
    if (order != "host" && order != "network") Fail("byte_order", "expected \"host\" or \"network\"");
    return order == "network";
  }

  const std::string& name() const { return name_; }

 private:
  std::string name_;
};

// A header field that follows from the rest of the record: when the JSON
// gives it, it must say what the rebuilt record has.
void Agrees(const Reader& in, const Json& obj, const std::string& path, const char* key,
            uint64_t actual) {
  if (!obj.contains(key)) return;
  uint64_t said = in.Field(obj, path, key, UINT64_MAX);
  if (said != actual) {
    in.Fail(Reader::Join(path, key), std::to_string(said) + ", but the rebuilt record has " +
                                         std::to_string(actual));
  }
}

struct DOFields {
  unsigned short flags;
  uint32_t checktime, crc, ctime, mtime;
  uint64_t cid, size, ssize;
  unsigned char fptype, dotype;
};

std::vector<unsigned char> UniqueBlock(const std::vector<std::pair<uint64_t, uint64_t>>& entries) {
  std::vector<unsigned char> block(8 + 16 * entries.size());
  crrecord::Store<uint32_t>(&block[4], static_cast<uint32_t>(entries.size()));
  for (size_t i = 0; i < entries.size(); ++i) {
    crrecord::Store<uint64_t>(&block[8 + 16 * i], entries[i].first);
    crrecord::Store<uint64_t>(&block[16 + 16 * i], entries[i].second);
  }
  crrecord::Store<uint32_t>(&block[0], DORecordAdler32(&block[4], block.size() - 4));
  return block;
}

// The builders refuse a record without segments or without a bitmap; such
// records exist (the serialized forms carry them), so they are rebuilt the
// way they arrive: through the reader of the serialized form.
std::unique_ptr<DORecord> FromSerializedForm(const DOFields& f,
                                             const std::vector<unsigned char>& bitmap,
                                             const std::vector<std::pair<uint64_t, uint64_t>>& entries) {
  std::vector<unsigned char> form(28);
  crrecord::StoreBE64(&form[0], f.size);
  crrecord::StoreBE64(&form[8], f.ssize);
  crrecord::StoreBE32(&form[16], f.crc);
  if (f.dotype != CR_DO_TYPE_BLOOM_FILTER) {
    form.push_back(0);
  } else {
    size_t at = form.size();
    form.resize(at + 4 + bitmap.size() + 8 + 16 * entries.size() + 16);
    crrecord::StoreBE32(&form[at], static_cast<uint32_t>(bitmap.size()));
    if (!bitmap.empty()) std::memcpy(&form[at + 4], bitmap.data(), bitmap.size());
    unsigned char* block = &form[at + 4 + bitmap.size()];
    if (!entries.empty()) {
      crrecord::StoreBE32(block + 4, static_cast<uint32_t>(entries.size()));
      for (size_t i = 0; i < entries.size(); ++i) {
        crrecord::StoreBE64(block + 8 + 16 * i, entries[i].first);
        crrecord::StoreBE64(block + 16 + 16 * i, entries[i].second);
      }
      crrecord::StoreBE32(block, DORecordAdler32(block + 4, 4 + 16 * entries.size()));
    }
  }
  std::unique_ptr<DORecord> record(new DORecord(f.dotype, f.flags, f.cid, f.fptype, nullptr, 0,
                                                form.data(), form.size(), false));
  if (f.dotype == CR_DO_TYPE_BLOOM_FILTER) {
    cr_status_t status = record->AppendBloomAndUniqueDCIDList();
    if (status != CR_STATUS_SUCCESS) throw Cr_ErrnoException(status);
  }
  return record;
}

Loaded DOFromJson(const Reader& in, const Json& j, Form form) {
  in.Keys(j, "", {"form", "byte_order", "checksum", "header", "segments", "bloom", "unique_dcids",
                  "trefs"});
  Loaded loaded;
  loaded.name = in.name();
  loaded.form = Form::kJson;
  loaded.origin = form;
  loaded.networkOrder = in.NetworkOrder(j);
  if (loaded.networkOrder && form != Form::kStored) {
    in.Fail("byte_order", "only a stored record has a byte order");
  }
  loaded.serializedChecksum = true;
  if (j.contains("checksum")) {
    if (form == Form::kStored) in.Fail("checksum", "only a serialized record has a checksum flag");
    if (!j["checksum"].is_boolean()) in.Fail("checksum", "expected true or false");
    loaded.serializedChecksum = j["checksum"].get<bool>();
  }

  const Json& hj = in.Member(j, "", "header");
  const std::string hp = "header";
  in.Keys(hj, hp, {"type", "flags", "recsize", "checktime", "CID", "size", "ssize", "CRC", "ctime",
                   "mtime", "ntaskid", "nfp", "nudcid", "nds", "trefsize", "bsize", "fptype",
                   "dotype"});
  if (hj.contains("type") && in.Field(hj, hp, "type", 0xFFFF) != 3) {
    in.Fail("header.type", "a DO record has type 3");
  }
  DOFields f;
  f.flags = static_cast<unsigned short>(in.Field(hj, hp, "flags", 0xFFFF));
  if ((f.flags & ~unsigned{CR_DO_FLAGS_ALLOWED}) != 0) {
    char text[64];
    std::snprintf(text, sizeof text, "0x%04x sets bits outside 0x0006", f.flags);
    in.Fail("header.flags", text);
  }
  f.checktime = static_cast<uint32_t>(in.Field(hj, hp, "checktime", UINT32_MAX));
  f.cid = in.Field(hj, hp, "CID", UINT64_MAX);
  f.size = in.Field(hj, hp, "size", UINT64_MAX);
  f.ssize = in.Field(hj, hp, "ssize", UINT64_MAX);
  f.crc = static_cast<uint32_t>(in.Field(hj, hp, "CRC", UINT32_MAX));
  f.ctime = static_cast<uint32_t>(in.Field(hj, hp, "ctime", UINT32_MAX));
  f.mtime = static_cast<uint32_t>(in.Field(hj, hp, "mtime", UINT32_MAX));
  f.fptype = static_cast<unsigned char>(in.Field(hj, hp, "fptype", 255));
  f.dotype = static_cast<unsigned char>(in.Field(hj, hp, "dotype", 255));
  if (!CRFPTypeIsValid(f.fptype)) {
    in.Fail("header.fptype", std::to_string(f.fptype) + " is not a fingerprint type (1, 2 or 3)");
  }
  if (!CRDOTypeIsValid(f.dotype)) {
    in.Fail("header.dotype", std::to_string(f.dotype) + " is not a DO type (0 to 5)");
  }
  const bool bloom = f.dotype == CR_DO_TYPE_BLOOM_FILTER;
  if ((form == Form::kSerializedBloom) != bloom && form != Form::kStored) {
    in.Fail("form", std::string(FormKey(form)) + " does not go with DO type " +
                        std::to_string(f.dotype));
  }

  const unsigned width = FingerprintWidth(f.fptype);
  const unsigned extra = f.dotype == CR_DO_TYPE_NO_OFFSET       ? 4
                         : f.dotype == CR_DO_TYPE_8_BYTE_OFFSET ? 12
                         : f.dotype == CR_DO_TYPE_4_BYTE_OFFSET ? 8
                                                                : 0;
  std::vector<unsigned char> segments;
  std::vector<unsigned long> dcids;
  std::vector<unsigned char> bitmap;
  if (bloom) {
    if (j.contains("segments")) in.Fail("segments", "a Bloom DO record (DO type 4) has none");
    const Json& bj = in.Member(j, "", "bloom");
    in.Keys(bj, "bloom", {"bitmap"});
    bitmap = in.Hex(in.Member(bj, "bloom", "bitmap"), "bloom.bitmap", SIZE_MAX);
    if (bitmap.size() > UINT32_MAX / 2) in.Fail("bloom.bitmap", "too large");
  } else {
    if (j.contains("bloom")) in.Fail("bloom", "only a DO type 4 record has a Bloom bitmap");
    const Json& sj = in.Member(j, "", "segments");
    if (!sj.is_array()) in.Fail("segments", "expected an array");
    if (sj.size() > UINT32_MAX) in.Fail("segments", "too many");
    segments.resize(sj.size() * (width + extra));
    dcids.resize(sj.size());
    for (size_t i = 0; i < sj.size(); ++i) {
      const std::string sp = "segments[" + std::to_string(i) + "]";
      const Json& s = sj[i];
      in.Keys(s, sp, {"fp", "size", "offset", "object_offset", "dcid"});
      unsigned char* entry = &segments[i * (width + extra)];
      const Json& fp = in.Member(s, sp, "fp");
      crfp_digest_t digest{};
      if (!fp.is_string() ||
          CRFPStringToDigest_r(fp.get_ref<const std::string&>().data(),
                               fp.get_ref<const std::string&>().size(), f.fptype,
                               &digest) == nullptr) {
        in.Fail(sp + ".fp", "expected " + std::to_string(2 * width) + " hex digits");
      }
      std::memcpy(entry, digest.digest, width);
      if (extra > 0) {
        crrecord::Store<uint32_t>(entry + width,
                                  static_cast<uint32_t>(in.Field(s, sp, "size", UINT32_MAX)));
      } else if (s.contains("size")) {
        in.Fail(sp + ".size", "DO type " + std::to_string(f.dotype) + " carries no segment size");
      }
      if (f.dotype == CR_DO_TYPE_8_BYTE_OFFSET) {
        crrecord::Store<uint64_t>(entry + width + 4, in.Field(s, sp, "offset", UINT64_MAX));
      } else if (s.contains("offset")) {
        in.Fail(sp + ".offset", "DO type " + std::to_string(f.dotype) + " carries no offset");
      }
      if (f.dotype == CR_DO_TYPE_4_BYTE_OFFSET) {
        crrecord::Store<uint32_t>(
            entry + width + 4,
            static_cast<uint32_t>(in.Field(s, sp, "object_offset", UINT32_MAX)));
      } else if (s.contains("object_offset")) {
        in.Fail(sp + ".object_offset",
                "DO type " + std::to_string(f.dotype) + " carries no object offset");
      }
      dcids[i] = in.Field(s, sp, "dcid", UINT64_MAX);
    }
  }

  std::vector<std::pair<uint64_t, uint64_t>> entries;
  if (j.contains("unique_dcids")) {
    const Json& uj = j["unique_dcids"];
    if (!uj.is_array()) in.Fail("unique_dcids", "expected an array");
    for (size_t i = 0; i < uj.size(); ++i) {
      const std::string up = "unique_dcids[" + std::to_string(i) + "]";
      in.Keys(uj[i], up, {"dcid", "bytes"});
      entries.emplace_back(in.Field(uj[i], up, "dcid", UINT64_MAX),
                           in.Field(uj[i], up, "bytes", UINT64_MAX));
    }
    if (entries.size() > UINT32_MAX / 32) in.Fail("unique_dcids", "too many");
  }
  if (!bloom && dcids.empty() && !entries.empty()) {
    in.Fail("unique_dcids", "a record without segments has no unique-DCID list");
  }

  std::vector<unsigned char> trefs;
  if (j.contains("trefs")) {
    const Json& tj = j["trefs"];
    if (!tj.is_array()) in.Fail("trefs", "expected an array");
    for (size_t i = 0; i < tj.size(); ++i) {
      const std::string tp = "trefs[" + std::to_string(i) + "]";
      in.Keys(tj[i], tp, {"kind", "text", "bytes"});
      const uint64_t kind = in.Field(tj[i], tp, "kind", CR_TREF_TYPE_END - 1);
      std::vector<unsigned char> bytes = in.Hex(in.Member(tj[i], tp, "bytes"), tp + ".bytes", SIZE_MAX);
      unsigned long consumed = 0;
      _cr_tref_t* ref = CRTRefNewDeserialize(bytes.data(), bytes.size(), CR_TREF_MODE_BINARY, &consumed);
      const bool whole = ref != nullptr && consumed == bytes.size();
      const uint64_t actual = ref != nullptr ? uint64_t{CRTRefGetType(ref)} : 0;
      CRTRefDelete(&ref);
      if (!whole) in.Fail(tp + ".bytes", "not exactly one typed reference");
      if (actual != kind) {
        in.Fail(tp + ".kind", std::to_string(kind) + ", but its bytes hold a reference of kind " +
                                  std::to_string(actual));
      }
      trefs.insert(trefs.end(), bytes.begin(), bytes.end());
    }
    if (trefs.size() > UINT32_MAX / 2) in.Fail("trefs", "too large");
  }

  MessageScope scope;
  try {
    std::vector<unsigned char> block;
    if (!entries.empty()) block = UniqueBlock(entries);
    const char* blockPtr = block.empty() ? nullptr : reinterpret_cast<const char*>(block.data());
    if (bloom && !bitmap.empty()) {
      loaded.record.reset(new DORecord(f.cid, f.size, f.ssize, f.crc, f.ctime, f.mtime,
                                       static_cast<unsigned int>(bitmap.size()), bitmap.data(),
                                       blockPtr, f.fptype, f.dotype));
    } else if (bloom || dcids.empty()) {
      loaded.record = FromSerializedForm(f, bitmap, entries);
    } else {
      loaded.record.reset(new DORecord(f.cid, f.size, f.ssize, f.crc, f.ctime, f.mtime,
                                       segments.data(), static_cast<unsigned int>(dcids.size()),
                                       dcids.data(), blockPtr, f.fptype, f.dotype));
    }
    DORecord& r = *loaded.record;
    r.setFlags(f.flags);
    r.setCheckTime(f.checktime);
    r.setDCID(f.cid);
    r.GetHeader()->CRC = f.crc;  // the serialized path takes the head's word
    if (!trefs.empty()) {
      r.AddSerializedTRefs(reinterpret_cast<const char*>(trefs.data()),
                           static_cast<unsigned int>(trefs.size()));
    }
    // Last: adding references stamps mtime, and there is no setter for it.
    DORecordHeader* h = r.GetHeader();
    h->ctime = f.ctime;
    h->mtime = f.mtime;
  } catch (const Cr_ErrnoException& e) {
    Unsound(in.name(), Describe(e, scope));
  }

  const DORecordHeader* h = loaded.record->GetHeader();
  Agrees(in, hj, hp, "recsize", h->recsize);
  Agrees(in, hj, hp, "ntaskid", h->ntaskid);
  Agrees(in, hj, hp, "nfp", h->nfp);
  Agrees(in, hj, hp, "nudcid", h->nudcid);
  Agrees(in, hj, hp, "nds", h->nds);
  Agrees(in, hj, hp, "trefsize", h->trefsize);
  Agrees(in, hj, hp, "bsize", h->bsize);
  loaded.fileHeader = *h;
  return loaded;
}

Loaded SOFromJson(const Reader& in, const Json& j) {
  in.Keys(j, "", {"form", "byte_order", "type", "flags", "recsize", "unused", "ntaskid",
                  "checktime", "reserved1", "DCID", "fileID", "size", "CRC", "ndo", "key",
                  "fptype", "cryptoMode", "pad", "keyIndex", "reserved2", "taskids",
                  "fingerprints", "trailer"});
  Loaded loaded;
  loaded.name = in.name();
  loaded.form = Form::kJson;
  loaded.origin = Form::kSegmentDb;
  loaded.networkOrder = in.NetworkOrder(j);

  const unsigned char fptype = static_cast<unsigned char>(in.Field(j, "", "fptype", 255));
  const unsigned width = FingerprintWidth(fptype);
  const Json& tj = in.Member(j, "", "taskids");
  const Json& fj = in.Member(j, "", "fingerprints");
  if (!tj.is_array()) in.Fail("taskids", "expected an array");
  if (!fj.is_array()) in.Fail("fingerprints", "expected an array");
  const uint64_t recsize = CR_SO_RECORD_MIN_SIZE + 8 * uint64_t{tj.size()} +
                           uint64_t{width} * fj.size();
  if (recsize > UINT32_MAX) in.Fail("", "the record would exceed 4 GiB");

  loaded.soStorage.assign(recsize / 8 + 1, 0);
  loaded.soLength = static_cast<uint32_t>(recsize);
  _SegmentDBRecord* s = loaded.so();
  unsigned char* base = reinterpret_cast<unsigned char*>(s);
  s->type = static_cast<unsigned short>(
      j.contains("type") ? in.Field(j, "", "type", 0xFFFF) : uint64_t{CR_SO_RECORD_TYPE});
  s->flags = static_cast<unsigned short>(in.Field(j, "", "flags", 0xFFFF));
  s->recsize = static_cast<uint32_t>(recsize);
  s->unused = static_cast<uint32_t>(in.Field(j, "", "unused", UINT32_MAX));
  s->ntaskid = static_cast<uint32_t>(tj.size());
  s->checktime = static_cast<uint32_t>(in.Field(j, "", "checktime", UINT32_MAX));
  s->reserved1 = static_cast<uint32_t>(in.Field(j, "", "reserved1", UINT32_MAX));
  s->DCID = in.Field(j, "", "DCID", UINT64_MAX);
  s->fileID = in.Field(j, "", "fileID", UINT64_MAX);
  s->size = in.Field(j, "", "size", UINT64_MAX);
  s->CRC = static_cast<uint32_t>(in.Field(j, "", "CRC", UINT32_MAX));
  s->ndo = static_cast<uint32_t>(fj.size());
  std::vector<unsigned char> key = in.Hex(in.Member(j, "", "key"), "key", kSOKey);
  std::memcpy(s->key, key.data(), kSOKey);
  s->fptype = fptype;
  s->cryptoMode = static_cast<unsigned char>(in.Field(j, "", "cryptoMode", 255));
  s->pad = static_cast<unsigned char>(in.Field(j, "", "pad", 255));
  s->keyIndex = static_cast<unsigned short>(in.Field(j, "", "keyIndex", 0xFFFF));
  s->reserved2 = static_cast<unsigned short>(in.Field(j, "", "reserved2", 0xFFFF));
  for (size_t i = 0; i < tj.size(); ++i) {
    crrecord::Store<uint64_t>(base + kSOFixed + 8 * i,
                              in.Number(tj[i], "taskids[" + std::to_string(i) + "]", UINT64_MAX));
  }
  unsigned char* fps = base + kSOFixed + 8 * tj.size();
  for (size_t i = 0; i < fj.size(); ++i) {
    std::vector<unsigned char> fp = in.Hex(fj[i], "fingerprints[" + std::to_string(i) + "]", width);
    std::memcpy(fps + width * i, fp.data(), width);
  }
  if (j.contains("trailer")) {
    std::vector<unsigned char> trailer = in.Hex(j["trailer"], "trailer", kSOTrailer);
    std::memcpy(fps + width * fj.size(), trailer.data(), kSOTrailer);
  }
  Agrees(in, j, "", "recsize", s->recsize);
  Agrees(in, j, "", "ntaskid", s->ntaskid);
  Agrees(in, j, "", "ndo", s->ndo);

  MessageScope scope;
  cr_status_t status = SegmentRecordValidate(s, loaded.soLength, 0);
  if (status != CR_STATUS_SUCCESS) Unsound(in.name(), DescribeStatus(status, scope));
  return loaded;
}

}  // namespace

Json ToJson(const Loaded& loaded) {
  return loaded.IsDO() ? DOToJson(loaded) : SOToJson(loaded);
}

Loaded LoadJson(const std::string& name, const unsigned char* data, size_t length,
                const Hints& hints) {
  (void)hints;  // the JSON form says everything itself
  Json j;
  try {
    j = Json::parse(data, data + length);
  } catch (const Json::parse_error& e) {
    // nlohmann's text starts with its own tag in brackets; the rest says
    // where and what.
    std::string what = e.what();
    size_t tag = what.find("] ");
    Unsound(name, "not valid JSON: " + (tag == std::string::npos ? what : what.substr(tag + 2)));
  }
  Reader in(name);
  if (!j.is_object()) in.Fail("", "expected a JSON object");
  Form form;
  const std::string key = in.String(j, "", "form");
  if (!FormFromKey(key, &form) || form == Form::kJson) {
    in.Fail("form", "\"" + key +
                        "\" is not one of stored, serialized, serialized-bloom, segment-db");
  }
  if (form == Form::kSegmentDb) return SOFromJson(in, j);
  return DOFromJson(in, j, form);
}

}  // namespace crrec
