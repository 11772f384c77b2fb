// Recognising the form of an input and opening it through the library.
#include "load.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <crrecord/DORecordSerialized.h>
#include <crrecord/platform/fingerprint.h>

#include <crrecord/common/Endian.h>
#include "json.h"
#include "util.h"

namespace crrec {

namespace {

namespace serialized = crrecord::serialized;

struct FreeDeleter {
  void operator()(void* p) const { std::free(p); }
};

// Preference among pairs that fit the same bytes: DO type 1 over 0 (it has
// a digest), fingerprint type 2 over 1 (what `crrec build` makes).
const unsigned kDOTypeOrder[] = {1, 0, 3, 2, 5};
const unsigned kFPTypeOrder[] = {2, 1, 3};

std::string JoinTypes(const std::vector<unsigned>& types) {
  std::vector<unsigned> sorted(types);
  std::sort(sorted.begin(), sorted.end());
  std::string s;
  for (size_t i = 0; i < sorted.size(); ++i) {
    if (i > 0) s += i + 1 == sorted.size() ? " and " : ", ";
    s += std::to_string(sorted[i]);
  }
  return s;
}

bool Contains(const std::vector<unsigned>& v, unsigned x) {
  return std::find(v.begin(), v.end(), x) != v.end();
}

// Chooses the DO type and fingerprint type of a serialized DO record among
// those that fit its length and the hints.
void ChooseSerializedTypes(const unsigned char* data, size_t length, const Hints& hints,
                           const std::string& name, Recognition* r) {
  // DO type 4 has a form of its own; read as this one, the library would
  // take the Bloom form's layout under the wrong name.
  if (hints.dotype == CR_DO_TYPE_BLOOM_FILTER) {
    Unsound(name, "a serialized DO record (DO type 0, 1, 2, 3 or 5), not DO type 4 (say --form "
                  "serialized-bloom)");
  }
  const uint32_t nfp =
      length >= serialized::kHeadSize ? crrecord::LoadBE32(data + serialized::kNfpAt) : 0;
  std::vector<std::pair<unsigned, unsigned>> fits;
  for (unsigned dotype : kDOTypeOrder) {
    if (hints.dotype >= 0 && static_cast<unsigned>(hints.dotype) != dotype) continue;
    for (unsigned fptype : kFPTypeOrder) {
      if (hints.fptype >= 0 && static_cast<unsigned>(hints.fptype) != fptype) continue;
      if (length == serialized::RecordSize(nfp, dotype, fptype)) {
        fits.emplace_back(dotype, fptype);
      }
    }
  }
  if (fits.empty() && (hints.formGiven || (hints.dotype >= 0 && hints.fptype >= 0))) {
    // The caller insists: the library's reader says what is wrong.
    r->dotype = static_cast<unsigned char>(hints.dotype >= 0 ? hints.dotype : kDOTypeOrder[0]);
    r->fptype = static_cast<unsigned char>(hints.fptype >= 0 ? hints.fptype : kFPTypeOrder[0]);
    return;
  }
  if (fits.empty()) {
    std::string said;
    if (hints.dotype >= 0) said += " of DO type " + std::to_string(hints.dotype);
    if (hints.fptype >= 0) {
      said += (said.empty() ? " of" : " and") + std::string(" fingerprint type ") +
              std::to_string(hints.fptype);
    }
    Unsound(name, std::to_string(length) + " bytes do not fit a serialized DO record" + said +
                      " with " + std::to_string(nfp) +
                      " segments (29 + " + std::to_string(nfp) +
                      " x 41, 45, 49, 53, 73, 77, 81 or 85 bytes by type)");
  }
  std::vector<unsigned> dotypes, fptypes;
  for (const auto& f : fits) {
    if (!Contains(dotypes, f.first)) dotypes.push_back(f.first);
    if (!Contains(fptypes, f.second)) fptypes.push_back(f.second);
  }
  // `fits` is in preference order, so its first pair is the assumption.
  r->dotype = static_cast<unsigned char>(fits.front().first);
  r->fptype = static_cast<unsigned char>(fits.front().second);
  if (dotypes.size() > 1) {
    r->notes.push_back("DO types " + JoinTypes(dotypes) + " fit; assumed " +
                       std::to_string(r->dotype) + " (say --dotype)");
  }
  if (fptypes.size() > 1) {
    r->notes.push_back("fingerprint types " + JoinTypes(fptypes) + " fit; assumed " +
                       std::to_string(r->fptype) + " (say --fptype)");
  }
}

void ChooseBloomTypes(const Hints& hints, const std::string& name, Recognition* r) {
  if (hints.dotype >= 0 && hints.dotype != CR_DO_TYPE_BLOOM_FILTER) {
    Unsound(name, "a serialized Bloom DO record (DO type 4), not DO type " +
                      std::to_string(hints.dotype));
  }
  r->dotype = CR_DO_TYPE_BLOOM_FILTER;
  if (hints.fptype >= 0) {
    r->fptype = static_cast<unsigned char>(hints.fptype);
  } else {
    r->fptype = CR_FP_TYPE_SHA256_16;
    r->notes.push_back("the Bloom form carries no fingerprint type; assumed 2 (say --fptype)");
  }
}

// Whether the bytes have the exact length of a serialized Bloom DO record.
bool FitsBloom(const unsigned char* data, size_t length) {
  if (length < serialized::kBloomFixedSize ||
      crrecord::LoadBE32(data + serialized::kNfpAt) != 0) {
    return false;
  }
  const uint32_t bsize = crrecord::LoadBE32(data + serialized::kBloomLengthAt);
  if (length < serialized::BloomSize(bsize, 0)) return false;
  const uint32_t nudcid = crrecord::LoadBE32(data + serialized::BloomCountAt(bsize));
  return length == serialized::BloomSize(bsize, nudcid);
}

// A UTF-8 byte-order mark may open the text: editors write one, and the
// JSON reader skips it.
bool LooksLikeJson(const unsigned char* data, size_t length) {
  static const unsigned char kByteOrderMark[] = {0xEF, 0xBB, 0xBF};
  const bool mark = length >= 3 && std::memcmp(data, kByteOrderMark, 3) == 0;
  for (size_t i = mark ? 3 : 0; i < length; ++i) {
    unsigned char c = data[i];
    if (c == ' ' || c == '\t' || c == '\r' || c == '\n') continue;
    return c == '{';
  }
  return false;
}

}  // namespace

const char* FormKey(Form form) {
  switch (form) {
    case Form::kStored: return "stored";
    case Form::kSerialized: return "serialized";
    case Form::kSerializedBloom: return "serialized-bloom";
    case Form::kSegmentDb: return "segment-db";
    case Form::kJson: return "json";
  }
  return "?";
}

bool FormFromKey(const std::string& key, Form* form) {
  for (Form f : {Form::kStored, Form::kSerialized, Form::kSerializedBloom, Form::kSegmentDb,
                 Form::kJson}) {
    if (key == FormKey(f)) {
      *form = f;
      return true;
    }
  }
  return false;
}

Recognition Recognise(const unsigned char* data, size_t length, const Hints& hints,
                      const std::string& name) {
  if (length == 0) Unsound(name, "empty file");
  Recognition r;
  const uint16_t typeLE = length >= 2 ? crrecord::Load<uint16_t>(data) : 0;
  const uint16_t typeBE = length >= 2 ? crrecord::LoadBE16(data) : 0;

  if (hints.formGiven) {
    r.form = hints.form;
    if (r.form == Form::kStored) r.networkOrder = typeLE != 3 && typeBE == 3;
    if (r.form == Form::kSegmentDb) r.networkOrder = typeLE != CR_SO_RECORD_TYPE &&
                                                      typeBE == CR_SO_RECORD_TYPE;
    if (r.form == Form::kSerialized) ChooseSerializedTypes(data, length, hints, name, &r);
    if (r.form == Form::kSerializedBloom) ChooseBloomTypes(hints, name, &r);
    return r;
  }
  if (typeLE == 3 || typeBE == 3) {
    r.form = Form::kStored;
    r.networkOrder = typeLE != 3;
    return r;
  }
  if (typeLE == CR_SO_RECORD_TYPE || typeBE == CR_SO_RECORD_TYPE) {
    r.form = Form::kSegmentDb;
    r.networkOrder = typeLE != CR_SO_RECORD_TYPE;
    return r;
  }
  if (LooksLikeJson(data, length)) {
    r.form = Form::kJson;
    return r;
  }
  if (length < serialized::RecordSize(0, 0, 0)) {
    Unsound(name, std::to_string(length) +
                      " bytes: too short for any record form (a serialized DO record has at "
                      "least 29)");
  }
  if (crrecord::LoadBE32(data + serialized::kZeroAt) != 0) {
    Unsound(name, "not a record: no DO or segment DB type word, not JSON, and bytes 24-27 of "
                  "a serialized form would be zero");
  }
  if (hints.dotype == CR_DO_TYPE_BLOOM_FILTER || FitsBloom(data, length)) {
    r.form = Form::kSerializedBloom;
    ChooseBloomTypes(hints, name, &r);
    return r;
  }
  r.form = Form::kSerialized;
  ChooseSerializedTypes(data, length, hints, name, &r);
  return r;
}

std::unique_ptr<DORecord> OpenStored(const std::string& name, const unsigned char* data,
                                     size_t length, bool networkOrder, DORecordHeader* header,
                                     std::vector<unsigned char>* oldListBytes) {
  if (length > kMaxInput) Unsound(name, "larger than any DO record");
  MessageScope scope;
  // The library reads the header as a struct: a malloc'ed copy is aligned,
  // and the object takes it over (buffer mode 2) once it opens.
  std::unique_ptr<void, FreeDeleter> copy(std::malloc(std::max<size_t>(length, 1)));
  if (copy == nullptr) Unsound(name, "out of memory");
  std::memcpy(copy.get(), data, length);
  DORecordHeader* h = static_cast<DORecordHeader*>(copy.get());
  cr_status_t status = DORecordHeaderValidate(
      h, static_cast<unsigned int>(length), networkOrder ? unsigned{CR_DO_VALIDATE_NETWORK_ORDER} : 0u);
  if (status != CR_STATUS_SUCCESS) Unsound(name, DescribeStatus(status, scope));
  if (networkOrder) DORecordHeaderNtoh(h);
  if (header != nullptr) *header = *h;
  if (oldListBytes != nullptr && (h->ntaskid != 0 || h->nds != 0)) {
    const unsigned char* host = static_cast<const unsigned char*>(copy.get());
    oldListBytes->assign(host, host + length);
  }
  std::unique_ptr<DORecord> record;
  try {
    record.reset(new DORecord(h, length, 2));
  } catch (const Cr_ErrnoException& e) {
    Unsound(name, Describe(e, scope));
  }
  copy.release();
  return record;
}

Loaded Load(const std::string& name, const std::vector<unsigned char>& bytes, const Hints& hints) {
  const unsigned char* data = bytes.data();
  const size_t length = bytes.size();
  Recognition r = Recognise(data, length, hints, name);
  if (r.form == Form::kJson) return LoadJson(name, data, length, hints);

  Loaded loaded;
  loaded.name = name;
  loaded.form = loaded.origin = r.form;
  loaded.networkOrder = r.networkOrder;
  loaded.notes = r.notes;
  switch (r.form) {
    case Form::kStored: {
      loaded.record = OpenStored(name, data, length, r.networkOrder, &loaded.fileHeader,
                                 &loaded.oldListBytes);
      DORecordHeader* h = loaded.record->GetHeader();
      loaded.convertedOldLists = loaded.fileHeader.ntaskid != 0 || loaded.fileHeader.nds != 0;
      // Turning old lists into references stamps mtime with the clock; the
      // input's times stand, so that a conversion is the same every time.
      h->ctime = loaded.fileHeader.ctime;
      h->mtime = loaded.fileHeader.mtime;
      if (!loaded.convertedOldLists) {
        loaded.rewritten = FirstDifference(bytes, StoredBytes(*loaded.record, r.networkOrder));
      }
      break;
    }
    case Form::kSerialized:
    case Form::kSerializedBloom: {
      loaded.serialized = bytes;
      loaded.serializedChecksum = DORecordSerializedHasAdler32(data, length);
      MessageScope scope;
      try {
        loaded.record.reset(new DORecord(r.dotype, hints.flags, hints.cid, r.fptype, nullptr, 0,
                                         data, length, false));
      } catch (const Cr_ErrnoException& e) {
        Unsound(name, Describe(e, scope));
      }
      if (r.form == Form::kSerializedBloom) {
        // The list travelled big-endian; the record keeps it so until it is
        // turned to host order, which serializing and printing expect.
        cr_status_t status = loaded.record->AppendBloomAndUniqueDCIDList();
        if (status != CR_STATUS_SUCCESS) Unsound(name, DescribeStatus(status, scope));
      }
      // The reader stamps the clock; the form carries no times.
      DORecordHeader* h = loaded.record->GetHeader();
      h->ctime = hints.time;
      h->mtime = hints.time;
      break;
    }
    case Form::kSegmentDb: {
      if (length > kMaxInput) Unsound(name, "larger than any segment DB record");
      MessageScope scope;
      loaded.soStorage.assign((length + 7) / 8 + 1, 0);
      std::memcpy(loaded.soStorage.data(), data, length);
      loaded.soLength = static_cast<uint32_t>(length);
      cr_status_t status =
          SegmentRecordValidate(loaded.so(), loaded.soLength,
                                r.networkOrder ? unsigned{CR_SO_VALIDATE_NETWORK_ORDER} : 0u);
      if (status != CR_STATUS_SUCCESS) Unsound(name, DescribeStatus(status, scope));
      if (r.networkOrder) SegmentRecordNtoh(loaded.so(), loaded.so(), 0);
      break;
    }
    case Form::kJson:
      break;
  }
  return loaded;
}

uint64_t LengthBound(const unsigned char* data, size_t length, const Hints& hints) {
  namespace layout = crrecord::serialized;
  if (length < 8) return kMaxInput;
  const uint16_t typeLE = crrecord::Load<uint16_t>(data), typeBE = crrecord::LoadBE16(data);
  const bool stored = hints.formGiven ? hints.form == Form::kStored
                                      : typeLE == 3 || typeBE == 3;
  const bool segmentDb = hints.formGiven ? hints.form == Form::kSegmentDb
                                         : typeLE == CR_SO_RECORD_TYPE || typeBE == CR_SO_RECORD_TYPE;
  if (stored || segmentDb) {
    // Both records give their size at offset 4, in the order of their type word.
    const uint16_t type = stored ? 3 : CR_SO_RECORD_TYPE;
    return typeLE == type ? crrecord::Load<uint32_t>(data + 4) : crrecord::LoadBE32(data + 4);
  }
  if ((hints.formGiven && hints.form == Form::kJson) || LooksLikeJson(data, length)) {
    return kMaxJsonInput + 3;  // and a byte-order mark
  }
  if (length < layout::kHeadSize) return kMaxInput;
  // Nothing else has a head whose last word is not zero.
  if (crrecord::LoadBE32(data + layout::kZeroAt) != 0) return layout::kHeadSize;
  const uint32_t nfp = crrecord::LoadBE32(data + layout::kNfpAt);
  // The widest entry (DO type 3, fingerprint type 3) bounds every type.
  uint64_t most = layout::RecordSize(nfp, CR_DO_TYPE_8_BYTE_OFFSET, CR_FP_TYPE_SHA256);
  if (nfp == 0) {
    if (length < layout::kBloomBitmapAt) return kMaxInput;
    const uint32_t bsize = crrecord::LoadBE32(data + layout::kBloomLengthAt);
    const uint64_t count = layout::BloomCountAt(bsize);
    if (length < count + 4) return kMaxInput;
    most = std::max(most, layout::BloomSize(bsize, crrecord::LoadBE32(data + count)));
  }
  return most;
}

Loaded LoadFile(const std::string& path, const Hints& hints) {
  return Load(path,
              ReadFile(path, kMaxInput,
                       [&hints](const std::vector<unsigned char>& data) {
                         return LengthBound(data.data(), data.size(), hints);
                       }),
              hints);
}

std::string FirstDifference(const std::vector<unsigned char>& input,
                            const std::vector<unsigned char>& written) {
  const size_t n = std::min(input.size(), written.size());
  const auto at = static_cast<size_t>(
      std::mismatch(input.begin(), input.begin() + static_cast<std::ptrdiff_t>(n), written.begin())
          .first -
      input.begin());
  if (at < n) {
    char text[96];
    std::snprintf(text, sizeof text, "byte %zu is 0x%02x, the library writes 0x%02x", at,
                  unsigned{input[at]}, unsigned{written[at]});
    return text;
  }
  if (input.size() != written.size()) {
    return std::to_string(input.size()) + " bytes, the library writes " +
           std::to_string(written.size());
  }
  return "";
}

namespace {

std::vector<unsigned char> InByteOrder(std::vector<unsigned char> bytes, bool networkOrder) {
  if (networkOrder) {
    // Converted in an aligned copy: the header is accessed as a struct.
    std::vector<uint64_t> aligned((bytes.size() + 7) / 8);
    std::memcpy(aligned.data(), bytes.data(), bytes.size());
    DORecordHeaderHton(reinterpret_cast<DORecordHeader*>(aligned.data()));
    std::memcpy(bytes.data(), aligned.data(), bytes.size());
  }
  return bytes;
}

}  // namespace

std::vector<unsigned char> StoredBytes(const DORecord& record, bool networkOrder) {
  const DORecordHeader* h = record.GetHeader();
  return InByteOrder(std::vector<unsigned char>(reinterpret_cast<const unsigned char*>(h),
                                                reinterpret_cast<const unsigned char*>(h) +
                                                    h->recsize),
                     networkOrder);
}

std::vector<unsigned char> StoredBytes(const Loaded& loaded, bool networkOrder) {
  if (loaded.oldListBytes.empty()) return StoredBytes(*loaded.record, networkOrder);
  return InByteOrder(loaded.oldListBytes, networkOrder);
}

std::vector<unsigned char> SerializedBytes(const DORecord& record, bool checksum,
                                           const std::string& name) {
  MessageScope scope;
  void* out = nullptr;
  unsigned long size = 0;
  cr_status_t status = record.Serialize(&out, &size, checksum);
  if (status != CR_STATUS_SUCCESS) Unsound(name, DescribeStatus(status, scope));
  std::vector<unsigned char> bytes(static_cast<unsigned char*>(out),
                                   static_cast<unsigned char*>(out) + size);
  DORecord::SerializedDORecordFree(&out);
  return bytes;
}

}  // namespace crrec
