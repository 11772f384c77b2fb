// Rebuilding records from their JSON form. The text is read as a stream of
// events (the JSON library's SAX interface, which does not recurse): each
// element of the long arrays is kept as a small value only until it is
// checked and folded into the record's parts, so that memory stays about the
// record being rebuilt, and time stays linear in the text.
#include "json.h"

#include <algorithm>
#include <cstring>
#include <utility>
#include <vector>

#include <crrecord/DORecordSerialized.h>
#include <crrecord/common/Endian.h>
#include <crrecord/platform/fingerprint.h>
#include <crrecord/platform/tref.h>

#include "util.h"

namespace crrec {

namespace {

using namespace json_layout;  // the segment DB record's widths

// The small values the reader keeps: not insertion-ordered, so that finding
// or adding a member never costs more than a logarithm.
typedef nlohmann::json Value;

typedef std::vector<const char*> KeyList;

bool IsOneOf(const std::string& key, const KeyList& keys) {
  return std::any_of(keys.begin(), keys.end(), [&](const char* k) { return key == k; });
}

const KeyList kDOKeys = {"form",         "byte_order",  "checksum",
                         "header",       "old_taskids", "old_dsids",
                         "segments",     "bloom",       "unique_dcids_byte_order",
                         "unique_dcids", "trefs"};
const KeyList kSOKeys = {"form",    "byte_order",   "type",      "flags",     "recsize",
                         "unused",  "ntaskid",      "checktime", "reserved1", "DCID",
                         "fileID",  "size",         "CRC",       "ndo",       "key",
                         "fptype",  "cryptoMode",   "pad",       "keyIndex",  "reserved2",
                         "taskids", "fingerprints", "trailer"};
const KeyList kHeaderKeys = {"type",   "flags", "recsize",  "checktime", "CID",     "size",
                             "ssize",  "CRC",   "ctime",    "mtime",     "ntaskid", "nfp",
                             "nudcid", "nds",   "trefsize", "bsize",     "fptype",  "dotype"};
const KeyList kBloomKeys = {"bitmap"};
const KeyList kSegmentKeys = {"fp", "size", "offset", "object_offset", "dcid"};
const KeyList kUniqueKeys = {"dcid", "bytes"};
const KeyList kTRefKeys = {"kind", "text", "bytes"};

// What a top-level field holds, as far as reading the text needs to know:
// the members of its object, or of its array's objects; none for a scalar
// or an array of scalars.
struct Shape {
  bool array;
  const KeyList* members;
};

Shape ShapeOf(const std::string& key) {
  if (key == "header") return {false, &kHeaderKeys};
  if (key == "bloom") return {false, &kBloomKeys};
  if (key == "segments") return {true, &kSegmentKeys};
  if (key == "unique_dcids") return {true, &kUniqueKeys};
  if (key == "trefs") return {true, &kTRefKeys};
  const bool list =
      key == "old_taskids" || key == "old_dsids" || key == "taskids" || key == "fingerprints";
  return {list, nullptr};
}

std::string Join(const std::string& path, const std::string& key) {
  return path.empty() ? key : path + "." + key;
}

std::string Indexed(const std::string& key, size_t i) {
  return key + "[" + std::to_string(i) + "]";
}

// Reads fields of small values, naming the field at fault in every error.
class Reader {
 public:
  explicit Reader(const std::string& name) : name_(name) {}

  [[noreturn]] void Fail(const std::string& path, const std::string& what) const {
    Unsound(name_, path.empty() ? what : path + ": " + what);
  }

  void Keys(const Value& obj, const std::string& path, const KeyList& allowed) const {
    if (!obj.is_object()) Fail(path, "expected an object");
    for (auto it = obj.begin(); it != obj.end(); ++it) {
      if (!IsOneOf(it.key(), allowed)) Fail(Join(path, it.key()), "unknown field");
    }
  }

  const Value& Member(const Value& obj, const std::string& path, const char* key) const {
    auto it = obj.find(key);
    if (it == obj.end()) Fail(Join(path, key), "missing");
    return *it;
  }

  uint64_t Number(const Value& v, const std::string& path, uint64_t max) const {
    if (!v.is_number_unsigned()) {
      Fail(path, "expected a whole number from 0 to " + std::to_string(max));
    }
    uint64_t n = v.get<uint64_t>();
    if (n > max) Fail(path, std::to_string(n) + " is larger than " + std::to_string(max));
    return n;
  }

  uint64_t Field(const Value& obj, const std::string& path, const char* key, uint64_t max) const {
    return Number(Member(obj, path, key), Join(path, key), max);
  }

  std::vector<unsigned char> Hex(const Value& v, const std::string& path, size_t exact) const {
    std::vector<unsigned char> bytes;
    if (!v.is_string() || !HexDecode(v.get_ref<const std::string&>(), &bytes)) {
      Fail(path, "expected a string of hex digits");
    }
    if (exact != SIZE_MAX && bytes.size() != exact) {
      Fail(path, "expected " + std::to_string(2 * exact) + " hex digits, found " +
                     std::to_string(2 * bytes.size()));
    }
    return bytes;
  }

  std::string String(const Value& obj, const std::string& path, const char* key) const {
    const Value& v = Member(obj, path, key);
    if (!v.is_string()) Fail(Join(path, key), "expected a string");
    return v.get<std::string>();
  }

  const std::string& name() const { return name_; }

 private:
  std::string name_;
};

// A segment as read, before the header says how wide its fingerprint is and
// which fields its DO type carries.
struct PendingSegment {
  unsigned char fp[32];
  unsigned char fpLength;  // 16 or 32; 0 when the text is no fingerprint of either width
  bool hasSize, hasOffset, hasObjectOffset;
  uint32_t size, objectOffset;
  uint64_t offset, dcid;
};

// The first element of a list of hex strings whose length is not a width.
struct Misfit {
  bool found = false;
  size_t index = 0;
  size_t digits = 0;
  void Note(size_t i, size_t bytes, size_t width) {
    if (!found && bytes != width) found = true, index = i, digits = 2 * bytes;
  }
};

// The document as read: small values as they are, the long arrays folded
// into the parts the record is built from.
class Document {
 public:
  explicit Document(const Reader& in) : in_(in) {}

  // Top-level fields in the order given.
  std::vector<std::string> keys;
  // The top-level values but the long arrays; a long array's field holds a
  // value here only when that value is not an array (refused later).
  Value members = Value::object();

  std::vector<PendingSegment> segments;
  std::vector<std::pair<uint64_t, uint64_t>> entries;
  std::vector<unsigned char> trefs;
  std::vector<uint64_t> oldTaskIds, taskids;
  std::vector<uint32_t> oldDsids;
  std::vector<unsigned char> fingerprints;  // decoded, one after another
  Misfit fpNot16, fpNot32;

  bool Has(const std::string& key) const {
    return std::find(keys.begin(), keys.end(), key) != keys.end();
  }

  void Member(const std::string& key, Value&& v) { members[key] = std::move(v); }

  // One element of a long array, checked as far as it can be without the
  // header.
  void Element(const std::string& key, size_t i, Value&& v) {
    const std::string path = Indexed(key, i);
    if (key == "segments") {
      AddSegment(path, v);
    } else if (key == "unique_dcids") {
      in_.Keys(v, path, kUniqueKeys);
      entries.emplace_back(in_.Field(v, path, "dcid", UINT64_MAX),
                           in_.Field(v, path, "bytes", UINT64_MAX));
      if (entries.size() > UINT32_MAX / 32) in_.Fail("unique_dcids", "too many");
    } else if (key == "trefs") {
      AddTRef(path, v);
    } else if (key == "old_taskids") {
      oldTaskIds.push_back(in_.Number(v, path, UINT64_MAX));
    } else if (key == "old_dsids") {
      oldDsids.push_back(static_cast<uint32_t>(in_.Number(v, path, UINT32_MAX)));
    } else if (key == "taskids") {
      taskids.push_back(in_.Number(v, path, UINT64_MAX));
    } else if (key == "fingerprints") {
      std::vector<unsigned char> fp = in_.Hex(v, path, SIZE_MAX);
      fpNot16.Note(i, fp.size(), 16);
      fpNot32.Note(i, fp.size(), 32);
      fingerprints.insert(fingerprints.end(), fp.begin(), fp.end());
    }
  }

 private:
  void AddSegment(const std::string& path, const Value& s) {
    in_.Keys(s, path, kSegmentKeys);
    PendingSegment p{};
    auto fp = s.find("fp");
    if (fp == s.end()) in_.Fail(path + ".fp", "missing");
    std::vector<unsigned char> bytes;
    if (fp->is_string() && HexDecode(fp->get_ref<const std::string&>(), &bytes) &&
        (bytes.size() == 16 || bytes.size() == 32)) {
      std::memcpy(p.fp, bytes.data(), bytes.size());
      p.fpLength = static_cast<unsigned char>(bytes.size());
    }
    p.hasSize = s.contains("size");
    if (p.hasSize) p.size = static_cast<uint32_t>(in_.Field(s, path, "size", UINT32_MAX));
    p.hasOffset = s.contains("offset");
    if (p.hasOffset) p.offset = in_.Field(s, path, "offset", UINT64_MAX);
    p.hasObjectOffset = s.contains("object_offset");
    if (p.hasObjectOffset) {
      p.objectOffset = static_cast<uint32_t>(in_.Field(s, path, "object_offset", UINT32_MAX));
    }
    p.dcid = in_.Field(s, path, "dcid", UINT64_MAX);
    segments.push_back(p);
  }

  void AddTRef(const std::string& path, const Value& t) {
    in_.Keys(t, path, kTRefKeys);
    const uint64_t kind = in_.Field(t, path, "kind", CR_TREF_TYPE_END - 1);
    std::vector<unsigned char> bytes =
        in_.Hex(in_.Member(t, path, "bytes"), path + ".bytes", SIZE_MAX);
    unsigned long consumed = 0;
    _cr_tref_t* ref =
        CRTRefNewDeserialize(bytes.data(), bytes.size(), CR_TREF_MODE_BINARY, &consumed);
    const bool whole = ref != nullptr && consumed == bytes.size();
    const uint64_t actual = ref != nullptr ? uint64_t{CRTRefGetType(ref)} : 0;
    CRTRefDelete(&ref);
    if (!whole) in_.Fail(path + ".bytes", "not exactly one typed reference");
    if (actual != kind) {
      in_.Fail(path + ".kind", std::to_string(kind) + ", but its bytes hold a reference of kind " +
                                   std::to_string(actual));
    }
    trefs.insert(trefs.end(), bytes.begin(), bytes.end());
    if (trefs.size() > UINT32_MAX / 2) in_.Fail("trefs", "too large");
  }

  const Reader& in_;
};

// Turns the parser's events into the document's calls. Where a value is
// built, it is at most one object of scalars; a value nested where a scalar
// belongs is skipped, its depth counted, and kept as an empty container so
// that the field's own check refuses it by name.
class Events : public nlohmann::json_sax<Value> {
 public:
  Events(const Reader& in, Document* doc) : in_(in), doc_(doc) {}

  bool null() override { return Scalar(Value()); }
  bool boolean(bool v) override { return Scalar(Value(v)); }
  bool number_integer(number_integer_t v) override { return Scalar(Value(v)); }
  bool number_unsigned(number_unsigned_t v) override { return Scalar(Value(v)); }
  bool number_float(number_float_t v, const string_t&) override { return Scalar(Value(v)); }
  bool string(string_t& v) override { return Scalar(Value(v)); }  // the parser reuses v
  bool binary(binary_t&) override { return Scalar(Value()); }     // not produced by JSON text

  bool start_object(std::size_t) override { return Open(true); }
  bool start_array(std::size_t) override { return Open(false); }
  bool end_object() override { return Close(); }
  bool end_array() override { return Close(); }

  bool key(string_t& key) override {
    if (skipped_ > 0) return true;
    if (level_ == kTop) {
      if (!IsOneOf(key, kDOKeys) && !IsOneOf(key, kSOKeys)) in_.Fail(key, "unknown field");
      if (doc_->Has(key)) in_.Fail("", "duplicate field \"" + key + "\"");
      doc_->keys.push_back(key);
      topKey_ = key;
    } else {  // kObject
      if (!IsOneOf(key, *allowed_)) in_.Fail(Join(objectPath_, key), "unknown field");
      if (object_.contains(key)) in_.Fail(objectPath_, "duplicate field \"" + key + "\"");
      objectKey_ = key;
    }
    return true;
  }

  bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception& e) override {
    // The library's text starts with its own tag in brackets; the rest says
    // where and what.
    std::string what = e.what();
    size_t tag = what.find("] ");
    Unsound(in_.name(),
            "not valid JSON: " + (tag == std::string::npos ? what : what.substr(tag + 2)));
  }

 private:
  // Where the next value goes. kObject is an object being built: header,
  // bloom, or an element of segments, unique_dcids or trefs.
  enum Level { kOutside, kTop, kArray, kObject };

  // The path of the value about to start at the current place.
  std::string Here() const {
    switch (level_) {
      case kOutside: return "";
      case kTop: return topKey_;
      case kArray: return Indexed(topKey_, index_);
      case kObject: return Join(objectPath_, objectKey_);
    }
    return "";
  }

  bool Open(bool object) {
    if (++depth_ > kMaxJsonDepth) {
      in_.Fail(skipped_ > 0 ? skipPath_ : Here(),
               "nested deeper than " + std::to_string(kMaxJsonDepth) + " levels");
    }
    if (skipped_ > 0) {
      ++skipped_;
      return true;
    }
    if (level_ == kOutside) {
      if (!object) in_.Fail("", "expected a JSON object");
      level_ = kTop;
      return true;
    }
    if (level_ == kTop) {
      const Shape shape = ShapeOf(topKey_);
      if (!object && shape.array) {
        level_ = kArray;
        index_ = 0;
        return true;
      }
      if (object && !shape.array && shape.members != nullptr) return Build(topKey_, shape.members);
    } else if (level_ == kArray) {
      const Shape shape = ShapeOf(topKey_);
      if (object && shape.members != nullptr) return Build(Indexed(topKey_, index_), shape.members);
    }
    skipPath_ = Here();
    skipped_ = 1;
    skippedObject_ = object;
    return true;
  }

  bool Build(std::string path, const KeyList* allowed) {
    parent_ = level_;
    level_ = kObject;
    object_ = Value::object();
    objectPath_ = std::move(path);
    allowed_ = allowed;
    return true;
  }

  bool Close() {
    --depth_;
    if (skipped_ > 0) {
      if (--skipped_ == 0) Deliver(skippedObject_ ? Value::object() : Value::array());
      return true;
    }
    switch (level_) {
      case kObject: {
        level_ = parent_;
        Value v = std::move(object_);
        object_ = Value();
        Deliver(std::move(v));
        break;
      }
      case kArray: level_ = kTop; break;
      case kTop: level_ = kOutside; break;
      case kOutside: break;
    }
    return true;
  }

  bool Scalar(Value&& v) {
    if (skipped_ == 0) Deliver(std::move(v));
    return true;
  }

  void Deliver(Value&& v) {
    switch (level_) {
      case kOutside: in_.Fail("", "expected a JSON object");
      case kTop: doc_->Member(topKey_, std::move(v)); break;
      case kArray: doc_->Element(topKey_, index_++, std::move(v)); break;
      case kObject: object_[objectKey_] = std::move(v); break;
    }
  }

  const Reader& in_;
  Document* doc_;
  Level level_ = kOutside, parent_ = kOutside;
  unsigned depth_ = 0;
  std::string topKey_;
  size_t index_ = 0;
  Value object_;
  std::string objectPath_, objectKey_;
  const KeyList* allowed_ = nullptr;
  unsigned skipped_ = 0;  // levels open inside a skipped value
  bool skippedObject_ = false;
  std::string skipPath_;
};

// A header field that follows from the rest of the record: when the JSON
// gives it, it must say what the rebuilt record has.
void Agrees(const Reader& in, const Value& obj, const std::string& path, const char* key,
            uint64_t actual) {
  if (!obj.contains(key)) return;
  uint64_t said = in.Field(obj, path, key, UINT64_MAX);
  if (said != actual) {
    in.Fail(Join(path, key),
            std::to_string(said) + ", but the rebuilt record has " + std::to_string(actual));
  }
}

void KnownKeys(const Reader& in, const Document& d, const KeyList& allowed) {
  for (const std::string& key : d.keys) {
    if (!IsOneOf(key, allowed)) in.Fail(key, "unknown field");
  }
}

// A long array's field: whether it was given (as an array).
bool ArrayGiven(const Reader& in, const Document& d, const char* key) {
  if (d.members.contains(key)) in.Fail(key, "expected an array");
  return d.Has(key);
}

bool NetworkOrder(const Reader& in, const Value& members) {
  if (!members.contains("byte_order")) return false;
  const std::string order = in.String(members, "", "byte_order");
  if (order != "host" && order != "network")
    in.Fail("byte_order", "expected \"host\" or \"network\"");
  return order == "network";
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
// way they arrive: through the reader of the serialized form. So is a Bloom
// record whose unique-DCID list stays big-endian (`bigList`), as that reader
// leaves it.
std::unique_ptr<DORecord> FromSerializedForm(
    const DOFields& f, const std::vector<unsigned char>& bitmap,
    const std::vector<std::pair<uint64_t, uint64_t>>& entries, bool bigList) {
  namespace layout = crrecord::serialized;
  std::vector<unsigned char> form(layout::kHeadSize);
  crrecord::StoreBE64(&form[layout::kSizeAt], f.size);
  crrecord::StoreBE64(&form[layout::kSsizeAt], f.ssize);
  crrecord::StoreBE32(&form[layout::kChecksumAt], f.crc);
  if (f.dotype != CR_DO_TYPE_BLOOM_FILTER) {
    form.resize(layout::RecordSize(0, f.dotype, f.fptype));
  } else {
    const uint32_t bsize = static_cast<uint32_t>(bitmap.size());
    const uint32_t n = static_cast<uint32_t>(entries.size());
    form.resize(layout::BloomSize(bsize, n));
    crrecord::StoreBE32(&form[layout::kBloomLengthAt], bsize);
    if (bsize > 0) std::memcpy(&form[layout::kBloomBitmapAt], bitmap.data(), bsize);
    unsigned char* count = &form[layout::BloomCountAt(bsize)];
    if (n > 0) {
      crrecord::StoreBE32(count, n);
      for (uint32_t i = 0; i < n; ++i) {
        unsigned char* e = count + 4 + layout::kBloomListEntry * i;
        crrecord::StoreBE64(e, entries[i].first);
        crrecord::StoreBE64(e + 8, entries[i].second);
      }
      crrecord::StoreBE32(count - 4, DORecordAdler32(count, 4 + layout::kBloomListEntry * n));
    }
  }
  std::unique_ptr<DORecord> record(new DORecord(f.dotype, f.flags, f.cid, f.fptype, nullptr, 0,
                                                form.data(), form.size(), false));
  if (f.dotype == CR_DO_TYPE_BLOOM_FILTER && !bigList) {
    cr_status_t status = record->AppendBloomAndUniqueDCIDList();
    if (status != CR_STATUS_SUCCESS) throw Cr_ErrnoException(status);
  }
  return record;
}

// Lays the old task-ID and DSID lists out behind the header of the record's
// host-order bytes, where the library's locators place them, and opens the
// result as a stored record: every check of opening runs, and the lists
// become references as they do for a file.
void AddOldLists(const Reader& in, const Document& d, uint32_t mtime, Loaded* loaded) {
  const std::vector<unsigned char> flat = StoredBytes(*loaded->record, false);
  const uint64_t total =
      flat.size() + 8 * uint64_t{d.oldTaskIds.size()} + 4 * uint64_t{d.oldDsids.size()};
  if (total > UINT32_MAX) in.Fail("old_taskids", "the record would exceed 4 GiB");
  std::vector<uint64_t> aligned((total + 7) / 8);  // the header is accessed as a struct
  DORecordHeader* h = reinterpret_cast<DORecordHeader*>(aligned.data());
  unsigned char* base = reinterpret_cast<unsigned char*>(h);
  const size_t head = static_cast<size_t>(DORecordHeaderIndexOfTaskId(h, 0) - base);
  std::memcpy(base, flat.data(), head);
  h->ntaskid = static_cast<unsigned int>(d.oldTaskIds.size());
  h->nds = static_cast<unsigned int>(d.oldDsids.size());
  h->recsize = static_cast<unsigned int>(total);
  for (size_t i = 0; i < d.oldTaskIds.size(); ++i) {
    crrecord::Store<uint64_t>(DORecordHeaderIndexOfTaskId(h, static_cast<unsigned>(i)),
                              d.oldTaskIds[i]);
  }
  for (size_t i = 0; i < d.oldDsids.size(); ++i) {
    crrecord::Store<uint32_t>(DORecordHeaderIndexOfDataSelection(h, static_cast<unsigned>(i)),
                              d.oldDsids[i]);
  }
  unsigned char* body = DORecordHeaderIndexOfDataSelection(h, h->nds);
  std::memcpy(body, flat.data() + head, flat.size() - head);
  loaded->record =
      OpenStored(in.name(), base, static_cast<size_t>(total), false, &loaded->fileHeader,
                 &loaded->oldListBytes);
  // Turning the lists into references stamped the time.
  loaded->record->GetHeader()->mtime = mtime;
}

Loaded DOFromJson(const Reader& in, const Document& d, Form form) {
  KnownKeys(in, d, kDOKeys);
  const Value& j = d.members;
  Loaded loaded;
  loaded.name = in.name();
  loaded.form = Form::kJson;
  loaded.origin = form;
  loaded.networkOrder = NetworkOrder(in, j);
  if (loaded.networkOrder && form != Form::kStored) {
    in.Fail("byte_order", "only a stored record has a byte order");
  }
  loaded.serializedChecksum = true;
  if (j.contains("checksum")) {
    if (form == Form::kStored) in.Fail("checksum", "only a serialized record has a checksum flag");
    if (!j["checksum"].is_boolean()) in.Fail("checksum", "expected true or false");
    loaded.serializedChecksum = j["checksum"].get<bool>();
  }

  const Value& hj = in.Member(j, "", "header");
  const std::string hp = "header";
  in.Keys(hj, hp, kHeaderKeys);
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
    in.Fail("form",
            std::string(FormKey(form)) + " does not go with DO type " + std::to_string(f.dotype));
  }

  bool bigList = false;
  if (j.contains("unique_dcids_byte_order")) {
    const std::string order = in.String(j, "", "unique_dcids_byte_order");
    if (order != "host" && order != "big") {
      in.Fail("unique_dcids_byte_order", "expected \"host\" or \"big\"");
    }
    bigList = order == "big";
    if (bigList && (!bloom || form != Form::kStored)) {
      in.Fail("unique_dcids_byte_order",
              "only a stored Bloom DO record (DO type 4) keeps it big-endian");
    }
  }
  ArrayGiven(in, d, "old_taskids");
  ArrayGiven(in, d, "old_dsids");
  const bool oldLists = !d.oldTaskIds.empty() || !d.oldDsids.empty();
  if (oldLists && form != Form::kStored) {
    in.Fail(d.oldTaskIds.empty() ? "old_dsids" : "old_taskids",
            "only a stored record has old lists");
  }

  const unsigned width = FingerprintWidth(f.fptype);
  const unsigned extra = crrecord::SegmentFieldsWidth(f.dotype);
  std::vector<unsigned char> segments;
  std::vector<unsigned long> dcids;
  std::vector<unsigned char> bitmap;
  if (bloom) {
    if (d.Has("segments")) in.Fail("segments", "a Bloom DO record (DO type 4) has none");
    const Value& bj = in.Member(j, "", "bloom");
    in.Keys(bj, "bloom", kBloomKeys);
    bitmap = in.Hex(in.Member(bj, "bloom", "bitmap"), "bloom.bitmap", SIZE_MAX);
    if (bitmap.size() > UINT32_MAX / 2) in.Fail("bloom.bitmap", "too large");
  } else {
    if (d.Has("bloom")) in.Fail("bloom", "only a DO type 4 record has a Bloom bitmap");
    if (!ArrayGiven(in, d, "segments")) in.Fail("segments", "missing");
    // The input's size limit keeps the count far below 2^32.
    segments.resize(d.segments.size() * (width + extra));
    dcids.resize(d.segments.size());
    const std::string type = "DO type " + std::to_string(f.dotype);
    for (size_t i = 0; i < d.segments.size(); ++i) {
      const std::string sp = Indexed("segments", i);
      const PendingSegment& s = d.segments[i];
      unsigned char* entry = &segments[i * (width + extra)];
      if (s.fpLength != width)
        in.Fail(sp + ".fp", "expected " + std::to_string(2 * width) + " hex digits");
      std::memcpy(entry, s.fp, width);
      // Each field the DO type carries is required, and no other is allowed.
      const struct {
        crrecord::SegmentField field;
        bool given;
        uint64_t value;
        const char* key;
        const char* what;
      } fields[] = {
          {crrecord::SegmentField::kSize, s.hasSize, s.size, ".size", "segment size"},
          {crrecord::SegmentField::kOffset, s.hasOffset, s.offset, ".offset", "offset"},
          {crrecord::SegmentField::kObjectOffset, s.hasObjectOffset, s.objectOffset,
           ".object_offset", "object offset"},
      };
      for (const auto& field : fields) {
        const crrecord::SegmentFieldLayout* place = crrecord::FindSegmentField(f.dotype, field.field);
        if (place != nullptr) {
          if (!field.given) in.Fail(sp + field.key, "missing");
          crrecord::StoreSegmentField(entry + width, *place, field.value);
        } else if (field.given) {
          in.Fail(sp + field.key, type + " carries no " + field.what);
        }
      }
      dcids[i] = s.dcid;
    }
  }

  ArrayGiven(in, d, "unique_dcids");
  const std::vector<std::pair<uint64_t, uint64_t>>& entries = d.entries;
  if (!bloom && dcids.empty() && !entries.empty()) {
    in.Fail("unique_dcids", "a record without segments has no unique-DCID list");
  }
  ArrayGiven(in, d, "trefs");
  if (oldLists && !d.trefs.empty()) {
    in.Fail("trefs", "a record with old task-ID or DSID lists has no typed references");
  }

  MessageScope scope;
  try {
    std::vector<unsigned char> block;
    if (!entries.empty()) block = UniqueBlock(entries);
    const char* blockPtr = block.empty() ? nullptr : reinterpret_cast<const char*>(block.data());
    if (bloom && !bitmap.empty() && !bigList) {
      loaded.record.reset(new DORecord(f.cid, f.size, f.ssize, f.crc, f.ctime, f.mtime,
                                       static_cast<unsigned int>(bitmap.size()), bitmap.data(),
                                       blockPtr, f.fptype, f.dotype));
    } else if (bloom || dcids.empty()) {
      loaded.record = FromSerializedForm(f, bitmap, entries, bigList);
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
    if (!d.trefs.empty()) {
      r.AddSerializedTRefs(reinterpret_cast<const char*>(d.trefs.data()),
                           static_cast<unsigned int>(d.trefs.size()));
    }
    // Last: the builders stamp the current time for 0, the serialized path
    // always, and adding references stamps mtime; there is no setter.
    DORecordHeader* h = r.GetHeader();
    h->ctime = f.ctime;
    h->mtime = f.mtime;
  } catch (const Cr_ErrnoException& e) {
    Unsound(in.name(), Describe(e, scope));
  }
  if (oldLists) {
    AddOldLists(in, d, f.mtime, &loaded);
  } else {
    loaded.fileHeader = *loaded.record->GetHeader();
  }

  // As the file would have it: with the old lists, before opening cut them out.
  const DORecordHeader& h = loaded.fileHeader;
  Agrees(in, hj, hp, "recsize", h.recsize);
  Agrees(in, hj, hp, "ntaskid", h.ntaskid);
  Agrees(in, hj, hp, "nfp", h.nfp);
  Agrees(in, hj, hp, "nudcid", h.nudcid);
  Agrees(in, hj, hp, "nds", h.nds);
  Agrees(in, hj, hp, "trefsize", h.trefsize);
  Agrees(in, hj, hp, "bsize", h.bsize);
  return loaded;
}

Loaded SOFromJson(const Reader& in, const Document& d) {
  KnownKeys(in, d, kSOKeys);
  const Value& j = d.members;
  Loaded loaded;
  loaded.name = in.name();
  loaded.form = Form::kJson;
  loaded.origin = Form::kSegmentDb;
  loaded.networkOrder = NetworkOrder(in, j);

  const unsigned char fptype = static_cast<unsigned char>(in.Field(j, "", "fptype", 255));
  const unsigned width = FingerprintWidth(fptype);
  if (!ArrayGiven(in, d, "taskids")) in.Fail("taskids", "missing");
  if (!ArrayGiven(in, d, "fingerprints")) in.Fail("fingerprints", "missing");
  const Misfit& misfit = width == 16 ? d.fpNot16 : d.fpNot32;
  if (misfit.found) {
    in.Fail(Indexed("fingerprints", misfit.index), "expected " + std::to_string(2 * width) +
                                                       " hex digits, found " +
                                                       std::to_string(misfit.digits));
  }
  const uint64_t ntaskid = d.taskids.size();
  const uint64_t ndo = d.fingerprints.size() / width;
  const uint64_t recsize = CR_SO_RECORD_MIN_SIZE + 8 * ntaskid + uint64_t{width} * ndo;
  if (recsize > UINT32_MAX) in.Fail("", "the record would exceed 4 GiB");

  loaded.soStorage.assign(recsize / 8 + 1, 0);
  loaded.soLength = static_cast<uint32_t>(recsize);
  _SegmentDBRecord* s = loaded.so();
  unsigned char* base = reinterpret_cast<unsigned char*>(s);
  s->type = static_cast<unsigned short>(j.contains("type") ? in.Field(j, "", "type", 0xFFFF)
                                                           : uint64_t{CR_SO_RECORD_TYPE});
  s->flags = static_cast<unsigned short>(in.Field(j, "", "flags", 0xFFFF));
  s->recsize = static_cast<uint32_t>(recsize);
  s->unused = static_cast<uint32_t>(in.Field(j, "", "unused", UINT32_MAX));
  s->ntaskid = static_cast<uint32_t>(ntaskid);
  s->checktime = static_cast<uint32_t>(in.Field(j, "", "checktime", UINT32_MAX));
  s->reserved1 = static_cast<uint32_t>(in.Field(j, "", "reserved1", UINT32_MAX));
  s->DCID = in.Field(j, "", "DCID", UINT64_MAX);
  s->fileID = in.Field(j, "", "fileID", UINT64_MAX);
  s->size = in.Field(j, "", "size", UINT64_MAX);
  s->CRC = static_cast<uint32_t>(in.Field(j, "", "CRC", UINT32_MAX));
  s->ndo = static_cast<uint32_t>(ndo);
  std::vector<unsigned char> key = in.Hex(in.Member(j, "", "key"), "key", kSOKey);
  std::memcpy(s->key, key.data(), kSOKey);
  s->fptype = fptype;
  s->cryptoMode = static_cast<unsigned char>(in.Field(j, "", "cryptoMode", 255));
  s->pad = static_cast<unsigned char>(in.Field(j, "", "pad", 255));
  s->keyIndex = static_cast<unsigned short>(in.Field(j, "", "keyIndex", 0xFFFF));
  s->reserved2 = static_cast<unsigned short>(in.Field(j, "", "reserved2", 0xFFFF));
  for (size_t i = 0; i < d.taskids.size(); ++i) {
    crrecord::Store<uint64_t>(base + kSOFixed + 8 * i, d.taskids[i]);
  }
  unsigned char* fps = base + kSOFixed + 8 * ntaskid;
  if (!d.fingerprints.empty()) std::memcpy(fps, d.fingerprints.data(), d.fingerprints.size());
  if (j.contains("trailer")) {
    std::vector<unsigned char> trailer = in.Hex(j["trailer"], "trailer", kSOTrailer);
    std::memcpy(fps + d.fingerprints.size(), trailer.data(), kSOTrailer);
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

Loaded LoadJson(const std::string& name, const unsigned char* data, size_t length,
                const Hints& hints) {
  (void)hints;  // the JSON form says everything itself
  if (length > kMaxJsonInput) {
    Unsound(name, "JSON input larger than " + std::to_string(kMaxJsonInput) + " bytes (" +
                      HumanBytes(kMaxJsonInput) + ")");
  }
  // A UTF-8 byte-order mark: some editors write one; it says nothing here.
  static const unsigned char kBom[] = {0xEF, 0xBB, 0xBF};
  if (length >= sizeof kBom && std::memcmp(data, kBom, sizeof kBom) == 0) {
    data += sizeof kBom;
    length -= sizeof kBom;
  }
  Reader in(name);
  Document d(in);
  Events events(in, &d);
  Value::sax_parse(data, data + length, &events);

  Form form;
  const std::string key = in.String(d.members, "", "form");
  if (!FormFromKey(key, &form) || form == Form::kJson) {
    in.Fail("form",
            "\"" + key + "\" is not one of stored, serialized, serialized-bloom, segment-db");
  }
  if (form == Form::kSegmentDb) return SOFromJson(in, d);
  return DOFromJson(in, d, form);
}

}  // namespace crrec
