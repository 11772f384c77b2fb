// Printing records for people, verifying them, and their digest.
#include "examine.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>
#include <vector>
#include <ostream>

#include <crrecord/platform/fingerprint.h>
#include <crrecord/platform/tref.h>
#include <nlohmann/json.hpp>

#include <crrecord/DORecordSerialized.h>
#include <crrecord/common/Checked.h>
#include <crrecord/common/Endian.h>
#include "util.h"

namespace crrec {

const char* DOTypeName(unsigned dotype) {
  const crrecord::DOTypeLayout* l = crrecord::FindDOTypeLayout(dotype);
  return l != nullptr ? l->description : "unknown";
}

const char* FPTypeName(unsigned fptype) {
  switch (fptype) {
    case CR_FP_TYPE_MD5: return "MD5";
    case CR_FP_TYPE_SHA256_16: return "SHA-256, first 16 bytes";
    case CR_FP_TYPE_SHA256: return "SHA-256";
    default: return "unknown";
  }
}

namespace {

std::string Hex32(uint32_t v) {
  char buf[16];
  std::snprintf(buf, sizeof buf, "0x%08x", v);
  return buf;
}

std::string Pad(const std::string& s, size_t width) {
  return s.size() >= width ? s : s + std::string(width - s.size(), ' ');
}

std::string PadLeft(const std::string& s, size_t width) {
  return s.size() >= width ? s : std::string(width - s.size(), ' ') + s;
}

std::string FormLine(const Loaded& loaded) {
  std::string s;
  const bool json = loaded.form == Form::kJson;
  switch (loaded.origin) {
    case Form::kStored:
      s = std::string("stored DO record, ") + (loaded.networkOrder ? "network" : "host") + " order";
      break;
    case Form::kSerialized: s = "serialized DO record"; break;
    case Form::kSerializedBloom: s = "serialized Bloom DO record"; break;
    case Form::kSegmentDb:
      s = std::string("segment DB record, ") + (loaded.networkOrder ? "network" : "host") +
          " order";
      break;
    case Form::kJson: s = "JSON"; break;
  }
  if (json) s = "JSON form of a " + s;
  if (!json && (loaded.origin == Form::kSerialized || loaded.origin == Form::kSerializedBloom)) {
    s += ", " + std::to_string(loaded.serialized.size()) + " bytes, " +
         (loaded.serializedChecksum ? "with checksum" : "head holds no checksum");
  } else if (!json && loaded.IsDO()) {
    s += ", " + std::to_string(loaded.fileHeader.recsize) + " bytes";
  } else if (!json) {
    s += ", " + std::to_string(loaded.soLength) + " bytes";
  }
  if (loaded.IsDO()) {
    const DORecordHeader* h = loaded.record->GetHeader();
    s += "; DO type " + std::to_string(h->dotype) + ", fingerprint type " +
         std::to_string(h->fptype);
  }
  return s;
}

void Row(std::ostream& out, const char* field, const std::string& value) {
  out << "  " << Pad(field, 11) << value << "\n";
}

std::string WithBytes(uint64_t n) { return std::to_string(n) + " (" + HumanBytes(n) + ")"; }
std::string WithTime(uint32_t t) { return std::to_string(t) + " (" + UtcTime(t) + ")"; }

void ShowHeader(const DORecordHeader& h, std::ostream& out) {
  char flags[16];
  std::snprintf(flags, sizeof flags, "0x%04x", h.flags);
  out << "header\n";
  Row(out, "type", std::to_string(h.type));
  Row(out, "flags", flags);
  Row(out, "recsize", std::to_string(h.recsize));
  Row(out, "checktime", std::to_string(h.checktime));
  Row(out, "CID", std::to_string(h.CID));
  Row(out, "size", WithBytes(h.size));
  Row(out, "ssize", std::to_string(h.ssize));
  Row(out, "CRC", Hex32(h.CRC));
  Row(out, "ctime", WithTime(h.ctime));
  Row(out, "mtime", WithTime(h.mtime));
  Row(out, "ntaskid", std::to_string(h.ntaskid));
  Row(out, "nfp", std::to_string(h.nfp));
  Row(out, "nudcid", std::to_string(h.nudcid));
  Row(out, "nds", std::to_string(h.nds));
  Row(out, "trefsize", std::to_string(h.trefsize));
  Row(out, "bsize", std::to_string(h.bsize));
  Row(out, "fptype", std::to_string(h.fptype) + " (" + FPTypeName(h.fptype) + ")");
  Row(out, "dotype", std::to_string(h.dotype) + " (" + DOTypeName(h.dotype) + ")");
}

namespace {

struct Column {
  const char* label;
  unsigned width;
};

Column ColumnOf(crrecord::SegmentField f) {
  switch (f) {
    case crrecord::SegmentField::kOffset: return {"offset", 14};
    case crrecord::SegmentField::kObjectOffset: return {"obj. offset", 11};
    case crrecord::SegmentField::kSize: break;
  }
  return {"size", 10};
}

}  // namespace

void ShowSegments(const DORecord& r, uint64_t limit, std::ostream& out) {
  const DORecordHeader* h = r.GetHeader();
  const unsigned char dotype = h->dotype;
  const unsigned fpWidth = h->fptype == CR_FP_TYPE_SHA256 ? 64 : 32;
  const uint64_t shown = std::min<uint64_t>(limit, h->nfp);
  out << "\nsegments: " << h->nfp;
  if (shown < h->nfp) out << ", the first " << shown << " shown (--all for every one)";
  out << "\n";
  if (shown == 0) return;
  const crrecord::DOTypeLayout* layout = crrecord::FindDOTypeLayout(dotype);
  const bool sizes = layout == nullptr || layout->check != crrecord::SegmentCheck::kBound;
  out << "  " << PadLeft("#", 8) << "  " << Pad("fingerprint", fpWidth) << "  "
      << PadLeft(sizes ? "size" : "size*", 10);
  // The size column stands for every DO type; the other fields follow it.
  std::vector<crrecord::SegmentField> more;
  for (unsigned k = 0; layout != nullptr && k < layout->count; ++k) {
    if (layout->fields[k].field != crrecord::SegmentField::kSize) {
      more.push_back(layout->fields[k].field);
    }
  }
  for (crrecord::SegmentField f : more) out << "  " << PadLeft(ColumnOf(f).label, ColumnOf(f).width);
  out << "  DCID\n";
  for (uint64_t i = 0; i < shown; ++i) {
    const unsigned int k = static_cast<unsigned int>(i);
    out << "  " << PadLeft(std::to_string(i), 8) << "  "
        << Pad(FingerprintText(r.GetSegmentFP(k), h->fptype), fpWidth) << "  "
        << PadLeft(std::to_string(r.GetSegmentSize(k)), 10);
    for (crrecord::SegmentField f : more) {
      out << "  " << PadLeft(std::to_string(r.GetSegmentField(k, f)), ColumnOf(f).width);
    }
    out << "  " << r.GetSegmentDCID(k) << "\n";
  }
  if (!sizes) out << "  (* derived from size and ssize)\n";
}

void ShowBloom(const DORecord& r, std::ostream& out) {
  const DORecordHeader* h = r.GetHeader();
  const unsigned char* bitmap = r.GetBloom();
  uint64_t set = 0;
  for (uint32_t i = 0; i < h->bsize; ++i) set += static_cast<unsigned>(__builtin_popcount(bitmap[i]));
  out << "\nBloom bitmap: " << h->bsize << " bytes, " << set << " of " << uint64_t{h->bsize} * 8
      << " bits set\n";
  const uint32_t shown = std::min<uint32_t>(h->bsize, 32);
  if (shown > 0) {
    out << "  " << HexEncode(bitmap, shown) << (shown < h->bsize ? " ..." : "") << "\n";
  }
}

// The unique-DCID list as the record holds it (host values), or empty.
std::vector<std::pair<uint64_t, uint64_t>> UniqueEntries(const DORecord& r, uint32_t* checksum) {
  std::vector<std::pair<uint64_t, uint64_t>> entries;
  *checksum = r.GetUniqueDCIDChecksum();
  unsigned long dcid = 0, bytes = 0;
  for (unsigned int i = 0; r.GetUniqueDCIDEntry(i, &dcid, &bytes) == CR_STATUS_SUCCESS; ++i) {
    entries.emplace_back(dcid, bytes);
  }
  return entries;
}

// The Adler-32 of a serialized form's body: what its head's checksum field
// holds when the writer asked for a checksum.
uint32_t BodyAdler32(const std::vector<unsigned char>& s) {
  const uint64_t head = crrecord::serialized::kHeadSize;
  return DORecordAdler32(s.data() + head, s.size() - head);
}

// The unique-DCID entries as a serialized Bloom form holds them: opening
// gathers them in a map, which would hide their order and any repetition.
// The reader checked the lengths.
std::vector<std::pair<uint64_t, uint64_t>> SerializedBloomEntries(
    const std::vector<unsigned char>& s, uint32_t* checksum) {
  namespace form = crrecord::serialized;
  const uint64_t count = form::BloomCountAt(crrecord::LoadBE32(s.data() + form::kBloomLengthAt));
  *checksum = crrecord::LoadBE32(s.data() + count - 4);
  const uint32_t n = crrecord::LoadBE32(s.data() + count);
  std::vector<std::pair<uint64_t, uint64_t>> entries;
  for (uint32_t i = 0; i < n; ++i) {
    const unsigned char* e = s.data() + count + 4 + form::kBloomListEntry * i;
    entries.emplace_back(crrecord::LoadBE64(e), crrecord::LoadBE64(e + 8));
  }
  return entries;
}

void ShowUnique(const DORecord& r, std::ostream& out) {
  uint32_t checksum = 0;
  std::vector<std::pair<uint64_t, uint64_t>> entries = UniqueEntries(r, &checksum);
  out << "\nunique DCIDs: " << entries.size();
  if (entries.empty()) {
    out << "\n";
    return;
  }
  out << ", checksum " << Hex32(checksum) << "\n";
  out << "  " << PadLeft("DCID", 20) << "  bytes\n";
  for (const auto& e : entries) {
    out << "  " << PadLeft(std::to_string(e.first), 20) << "  " << WithBytes(e.second) << "\n";
  }
}

void ShowTRefs(const DORecord& r, std::ostream& out) {
  uint64_t count = 0;
  for (unsigned kind = CR_TREF_TYPE_NONE; kind < CR_TREF_TYPE_END; ++kind) {
    count += r.GetNTRefs(static_cast<cr_reftype_t>(kind));
  }
  out << "\ntyped references: " << count << "\n";
  if (count == 0) return;
  out << "  kind  text\n";
  for (unsigned kind = CR_TREF_TYPE_NONE; kind < CR_TREF_TYPE_END; ++kind) {
    const cr_reftype_t k = static_cast<cr_reftype_t>(kind);
    for (auto it = r.GetTRefTypeBegin(k); it != r.GetTRefTypeEnd(k); ++it) {
      char text[CR_TREF_TEXT_SIZE] = "";
      CRTRefToString(text, sizeof text, (*it)->Get());
      out << "  " << PadLeft(std::to_string(kind), 4) << "  " << text << "\n";
    }
  }
}

void ShowSegmentDb(const Loaded& loaded, std::ostream& out) {
  const _SegmentDBRecord* s = loaded.so();
  const unsigned char* base = reinterpret_cast<const unsigned char*>(s);
  const unsigned width = s->fptype == CR_FP_TYPE_SHA256 ? 32 : 16;
  char flags[16];
  std::snprintf(flags, sizeof flags, "0x%04x", s->flags);
  out << "header\n";
  Row(out, "type", std::to_string(s->type));
  Row(out, "flags", flags);
  Row(out, "recsize", std::to_string(s->recsize));
  Row(out, "ntaskid", std::to_string(s->ntaskid));
  Row(out, "checktime", WithTime(s->checktime));
  Row(out, RecordInContainer(s->fileID) ? "DCID" : "path ID", std::to_string(s->DCID));
  Row(out, "fileID", std::to_string(s->fileID) +
                         (RecordInContainer(s->fileID) ? " (in a container)" : " (in a file)"));
  Row(out, "size", WithBytes(s->size));
  Row(out, "CRC", Hex32(s->CRC));
  Row(out, "ndo", std::to_string(s->ndo));
  Row(out, "key", HexEncode(s->key, sizeof s->key));
  Row(out, "fptype", std::to_string(s->fptype) + " (" + FPTypeName(s->fptype) + ")");
  Row(out, "cryptoMode", std::to_string(s->cryptoMode));
  Row(out, "keyIndex", std::to_string(s->keyIndex));
  out << "\ntask IDs: " << s->ntaskid << "\n";
  for (uint32_t i = 0; i < s->ntaskid; ++i) {
    out << "  " << crrecord::Load<uint64_t>(base + 96 + 8 * uint64_t{i}) << "\n";
  }
  out << "\nDO fingerprints: " << s->ndo << "\n";
  const unsigned char* fps = base + 96 + 8 * uint64_t{s->ntaskid};
  for (uint32_t i = 0; i < s->ndo; ++i) {
    out << "  " << FingerprintText(fps + uint64_t{width} * i, s->fptype) << "\n";
  }
}

}  // namespace

std::string DigestText(const DORecord& record, const std::string& name) {
  MessageScope scope;
  cr_tdigest_t* digest = nullptr;
  try {
    digest = record.GetDigest();
  } catch (const Cr_ErrnoException& e) {
    Unsound(name, Describe(e, scope));
  }
  if (digest == nullptr) {
    Unsound(name, "a DO type " + std::to_string(record.GetDOType()) + " record of " +
                      std::to_string(record.GetNfp()) + " segments has no digest");
  }
  const unsigned width = record.GetFPType() == CR_FP_TYPE_SHA256 ? 32 : 16;
  std::string text = std::to_string(digest->type) + ":" + HexEncode(digest->digest.digest, width);
  CRTDigestDelete(&digest);
  return text;
}

void Show(const Loaded& loaded, const ShowOptions& options, std::ostream& out) {
  out << loaded.name << ": " << FormLine(loaded) << "\n";
  for (const std::string& note : loaded.notes) out << "note: " << note << "\n";
  if (!loaded.IsDO()) {
    ShowSegmentDb(loaded, out);
    return;
  }
  const DORecord& r = *loaded.record;
  if (!loaded.serialized.empty()) {
    const uint32_t head = crrecord::LoadBE32(loaded.serialized.data() + crrecord::serialized::kChecksumAt);
    out << "head checksum " << Hex32(head)
        << (loaded.serializedChecksum ? " (the Adler-32 of the body)"
                                      : " (not the Adler-32 of the body)")
        << "\n";
  }
  out << "\n";
  ShowHeader(loaded.origin == Form::kStored ? loaded.fileHeader : *r.GetHeader(), out);
  if (r.GetDOType() == CR_DO_TYPE_BLOOM_FILTER) {
    ShowBloom(r, out);
  } else {
    ShowSegments(r, options.segments, out);
  }
  ShowUnique(r, out);
  ShowTRefs(r, out);
  out << "\ndigest: ";
  try {
    out << DigestText(r, loaded.name) << "\n";
  } catch (const ToolError& e) {
    out << "none (" << e.reason() << ")\n";
  }
}

const char* VerdictKey(Verdict verdict) {
  switch (verdict) {
    case Verdict::kOk: return "ok";
    case Verdict::kFailed: return "failed";
    case Verdict::kNone: return "none";
    case Verdict::kNote: return "note";
  }
  return "?";
}

namespace {

bool IsSerialized(const Loaded& loaded) {
  return loaded.form == Form::kSerialized || loaded.form == Form::kSerializedBloom;
}

// Collects the checks' verdicts in the order they run.
class Checks {
 public:
  void Add(const std::string& name, Verdict verdict, const std::string& reason) {
    list_.push_back(Check{name, verdict, reason});
  }
  void OkOrFailed(const std::string& name, const std::string& problem, const std::string& ok) {
    Add(name, problem.empty() ? Verdict::kOk : Verdict::kFailed, problem.empty() ? ok : problem);
  }
  std::vector<Check> Take() { return std::move(list_); }

 private:
  std::vector<Check> list_;
};

std::string Join(const std::vector<std::string>& parts) {
  std::string s;
  for (const std::string& p : parts) s += (s.empty() ? "" : "; ") + p;
  return s;
}

// Every segment's size that size, ssize and nfp imply for DO types 0 and 1
// must be positive and fit the 32 bits a segment size has.
std::string DerivedSizesProblem(uint64_t size, uint64_t ssize, uint32_t nfp) {
  if (nfp == 0) {
    return size == 0 ? "" : "size " + std::to_string(size) + " without segments";
  }
  if (nfp > 1 && (ssize == 0 || ssize > UINT32_MAX)) {
    return "ssize " + std::to_string(ssize) + " is no segment size (1 to 4294967295 bytes) for " +
           Count(nfp - 1, "segment") + " but the last";
  }
  // ssize < 2^32 and nfp - 1 < 2^32: the product fits 64 bits.
  const uint64_t before = nfp > 1 ? uint64_t{nfp - 1} * ssize : 0;
  if (size <= before) {
    return "size " + std::to_string(size) + " leaves no bytes to the last of " +
           Count(nfp, "segment") + " (" + std::to_string(nfp - 1) + " x ssize " +
           std::to_string(ssize) + " = " + std::to_string(before) + ")";
  }
  if (size - before > UINT32_MAX) {
    return "the last segment would hold " + std::to_string(size - before) +
           " bytes, more than 32 bits hold";
  }
  return "";
}

// The head's size against what the body implies.
void CheckSize(const DORecord& r, const std::vector<std::pair<uint64_t, uint64_t>>& unique,
               Checks* checks) {
  const DORecordHeader* h = r.GetHeader();
  const uint64_t size = h->size;
  const std::string sizeText = "size " + std::to_string(size);
  const crrecord::DOTypeLayout* layout = crrecord::FindDOTypeLayout(h->dotype);
  switch (layout != nullptr ? layout->check : crrecord::SegmentCheck::kNone) {
    case crrecord::SegmentCheck::kBound:
      checks->OkOrFailed("size", DerivedSizesProblem(size, h->ssize, h->nfp),
                         sizeText + " and ssize " + std::to_string(h->ssize) +
                             ": every segment's size positive and within 32 bits");
      return;
    case crrecord::SegmentCheck::kSizeSum:
    case crrecord::SegmentCheck::kOrdered: {
      // The library's own check lets an ordered list end before size; the
      // tool does not: bytes after the last segment would lie in no container.
      const bool offsets = layout->check == crrecord::SegmentCheck::kOrdered;
      uint64_t total = 0;
      bool wraps = false;
      for (uint32_t i = 0; i < h->nfp; ++i) {
        const uint64_t base = offsets ? r.GetSegmentOffset(i) : total;
        const uint64_t length = r.GetSegmentSize(i);
        wraps = !crrecord::CheckedAdd(base, length, &total) || wraps;
      }
      const std::string what = offsets ? "the last segment ends at " : "the segment sizes sum to ";
      checks->OkOrFailed("size",
                         wraps ? "the segments end beyond 2^64 bytes"
                         : total != size ? sizeText + ", but " + what + std::to_string(total)
                                         : "",
                         sizeText + ", " + what + "it");
      return;
    }
    case crrecord::SegmentCheck::kNone: {
      if (h->dotype != CR_DO_TYPE_BLOOM_FILTER) break;
      if (unique.empty()) {
        checks->Add("size", Verdict::kNone, "no unique-DCID list to sum");
        return;
      }
      uint64_t total = 0;
      bool wraps = false;
      for (const auto& e : unique) {
        wraps = !crrecord::CheckedAdd(total, e.second, &total) || wraps;
      }
      checks->OkOrFailed("size",
                         wraps ? "the unique-DCID byte counts sum beyond 2^64"
                         : total != size ? sizeText + ", but the unique-DCID byte counts sum to " +
                                               std::to_string(total)
                                         : "",
                         sizeText + ", the unique-DCID byte counts sum to it");
      return;
    }
  }
  checks->Add("size", Verdict::kNone, "DO type " + std::to_string(h->dotype));
}

// Entries of at least 64, strictly ascending (so no container twice). The
// library stores a list a builder supplies as given; the tool holds every
// list to the order the library itself writes.
std::string UniqueOrderProblem(const std::vector<std::pair<uint64_t, uint64_t>>& entries) {
  for (size_t i = 0; i < entries.size(); ++i) {
    const uint64_t dcid = entries[i].first;
    if (dcid < 64) {
      return "entry " + std::to_string(i) + " names container " + std::to_string(dcid) +
             ", below 64";
    }
    if (i > 0 && dcid == entries[i - 1].first) {
      return "the list names container " + std::to_string(dcid) + " twice";
    }
    if (i > 0 && dcid < entries[i - 1].first) {
      return "entry " + std::to_string(i) + " (container " + std::to_string(dcid) +
             ") follows container " + std::to_string(entries[i - 1].first) + ": not ascending";
    }
  }
  return "";
}

std::string UniqueAgreementProblem(const std::vector<std::pair<uint64_t, uint64_t>>& entries,
                                   const std::map<uint64_t, uint64_t>& perContainer) {
  std::map<uint64_t, uint64_t> listed(entries.begin(), entries.end());
  for (const auto& e : listed) {
    auto found = perContainer.find(e.first);
    const uint64_t actual = found == perContainer.end() ? 0 : found->second;
    if (actual != e.second) {
      return "the list gives container " + std::to_string(e.first) + " " +
             std::to_string(e.second) + " bytes, the segment list " + std::to_string(actual);
    }
  }
  for (const auto& e : perContainer) {
    if (listed.count(e.first) == 0) {
      return "the list misses container " + std::to_string(e.first) + " of the segment list";
    }
  }
  return "";
}

void CheckCanonical(const Loaded& loaded, Checks* checks) {
  const std::string name = "canonical";
  if (loaded.form == Form::kJson) {
    checks->Add(name, Verdict::kNone, "rebuilt from JSON by the library's builders");
  } else if (loaded.form == Form::kStored && loaded.convertedOldLists) {
    checks->Add(name, Verdict::kNote,
                "not compared: opening turned the old task-ID and DSID lists into typed "
                "references");
  } else if (loaded.form == Form::kStored) {
    checks->OkOrFailed(name,
                       loaded.rewritten.empty() ? ""
                                                : loaded.rewritten + " (not in canonical form)",
                       "the bytes the library writes back");
  } else {
    const bool checksum = loaded.serializedChecksum;
    checks->OkOrFailed(
        name,
        FirstDifference(loaded.serialized,
                        SerializedBytes(*loaded.record, checksum, loaded.name)),
        "the bytes the library serializes");
  }
}

std::vector<Check> CheckSegmentDb(const Loaded& loaded) {
  Checks checks;
  const _SegmentDBRecord* s = loaded.so();
  checks.Add("header", Verdict::kOk, "validated on opening, " + std::to_string(s->recsize) +
                                         " bytes");
  char flags[16];
  std::snprintf(flags, sizeof flags, "0x%04x", s->flags);
  checks.OkOrFailed("flags",
                    s->flags == 0 || s->flags == 2
                        ? ""
                        : std::string("flags ") + flags + ", expected 0 or 0x0002",
                    flags);
  if (RecordInContainer(s->fileID)) {
    checks.OkOrFailed("DCID",
                      s->DCID == 1 || s->DCID >= 64
                          ? ""
                          : "DCID " + std::to_string(s->DCID) + ", expected 1 or at least 64",
                      "container " + std::to_string(s->DCID));
  } else {
    checks.Add("DCID", Verdict::kNone,
               "in a file: file ID " + std::to_string(s->fileID) + ", path ID " +
                   std::to_string(s->DCID));
  }
  const unsigned char* base = reinterpret_cast<const unsigned char*>(s);
  std::vector<std::string> found;
  if (s->unused != 0) found.push_back("the unused word is " + std::to_string(s->unused));
  if (s->reserved1 != 0) found.push_back("reserved1 is " + HexEncode(&s->reserved1, 4));
  if (s->pad != 0) found.push_back("pad is " + std::to_string(s->pad));
  if (s->reserved2 != 0) found.push_back("reserved2 is " + HexEncode(&s->reserved2, 2));
  const unsigned char* trailer = base + loaded.soLength - 8;
  if (std::any_of(trailer, trailer + 8, [](unsigned char c) { return c != 0; })) {
    found.push_back("the trailer is " + HexEncode(trailer, 8));
  }
  checks.OkOrFailed("reserved", Join(found), "unused, reserved1, pad, reserved2 and trailer zero");
  return checks.Take();
}

std::vector<Check> CheckDO(const Loaded& loaded, const VerifyOptions& options) {
  Checks checks;
  const DORecord& r = *loaded.record;
  MessageScope scope;

  if (IsSerialized(loaded)) {
    const std::vector<unsigned char>& s = loaded.serialized;
    const std::string problem = ChecksumProblem(loaded, options);
    if (loaded.serializedChecksum) {
      checks.Add("checksum", Verdict::kOk,
                 "Adler-32 " + Hex32(BodyAdler32(s)));
    } else if (problem.empty()) {
      checks.Add("checksum", Verdict::kNone,
                 "the head holds the CRC " + Hex32(crrecord::LoadBE32(s.data() + crrecord::serialized::kChecksumAt)));
    } else {
      checks.Add("checksum", Verdict::kFailed, problem);
    }
  }

  const DORecordHeader* h = r.GetHeader();
  const cr_status_t status = DORecordHeaderValidate(h, h->recsize, 0);
  checks.OkOrFailed("header", status == CR_STATUS_SUCCESS ? "" : DescribeStatus(status, scope),
                    std::to_string(h->recsize) + " bytes");

  // A stored input is judged by its own header; a rebuilt record's header
  // is the library's.
  const DORecordHeader& own = loaded.form == Form::kStored ? loaded.fileHeader : *h;
  const bool bloom = h->dotype == CR_DO_TYPE_BLOOM_FILTER;
  std::vector<std::string> found;
  if (own.reserved != 0) found.push_back("header bytes 8-11 are " + HexEncode(&own.reserved, 4));
  if (own.reserved2[0] != 0 || own.reserved2[1] != 0) {
    found.push_back("header bytes 78-79 are " + HexEncode(own.reserved2, 2));
  }
  if (bloom) {
    // Zero, or the mark of a list that stands big-endian.
    const unsigned char* zeros = r.GetBloomStart() + 4 + uint64_t{h->bsize};
    const bool marked = std::memcmp(zeros, crrecord::kBloomListBigEndianMark, 16) == 0;
    if (!marked && std::any_of(zeros, zeros + 16, [](unsigned char c) { return c != 0; })) {
      found.push_back("the Bloom section's 16 reserved bytes are " + HexEncode(zeros, 16));
    }
  }
  checks.OkOrFailed("reserved", Join(found),
                    bloom ? "header bytes 8-11 and 78-79 zero, the Bloom section's 16 bytes "
                            "zero or the big-endian list's mark"
                          : "header bytes 8-11 and 78-79 zero");

  std::map<uint64_t, uint64_t> perContainer;
  if (bloom) {
    checks.Add("segments", Verdict::kNone, "a Bloom record has no segment list");
  } else {
    std::string problem;
    try {
      r.checkSegmentList();
    } catch (const Cr_ErrnoException& e) {
      problem = Describe(e, scope);
    }
    for (uint32_t i = 0; i < h->nfp; ++i) {
      const uint64_t dcid = r.GetSegmentDCID(i);
      if (dcid < 64 && problem.empty()) {
        problem = "segment " + std::to_string(i) + " has DCID " + std::to_string(dcid) +
                  ", below 64";
      }
      perContainer[dcid] += r.GetSegmentSize(i);
    }
    checks.OkOrFailed("segments", problem,
                      Count(h->nfp, "segment") + " in " + Count(perContainer.size(), "container") +
                          ", every DCID at least 64");
  }

  uint32_t checksum = 0;
  const std::vector<std::pair<uint64_t, uint64_t>> entries =
      loaded.form == Form::kSerializedBloom ? SerializedBloomEntries(loaded.serialized, &checksum)
                                            : UniqueEntries(r, &checksum);
  CheckSize(r, entries, &checks);
  if (entries.empty()) {
    checks.Add("unique", Verdict::kNone, "no unique-DCID list");
  } else {
    std::string problem = UniqueOrderProblem(entries);
    if (problem.empty() && !bloom) problem = UniqueAgreementProblem(entries, perContainer);
    checks.OkOrFailed("unique", problem,
                      Count(entries.size(), "container") + ", checksum " + Hex32(checksum) +
                          ", ascending" + (bloom ? "" : ", agrees with the segment list"));
  }

  uint64_t trefs = 0;
  for (unsigned kind = CR_TREF_TYPE_NONE; kind < CR_TREF_TYPE_END; ++kind) {
    trefs += r.GetNTRefs(static_cast<cr_reftype_t>(kind));
  }
  const std::string refs = Count(trefs, "typed reference") + ", " +
                           std::to_string(h->trefsize) + " bytes";
  if (loaded.convertedOldLists) {
    checks.Add("references", Verdict::kNote,
               refs + "; opening turned " + Count(loaded.fileHeader.ntaskid, "old task ID") +
                   " and " + Count(loaded.fileHeader.nds, "old DSID") + " into them");
  } else {
    checks.Add("references", Verdict::kOk, refs);
  }

  CheckCanonical(loaded, &checks);

  try {
    checks.Add("digest", Verdict::kOk, DigestText(r, loaded.name));
  } catch (const ToolError& e) {
    checks.Add("digest", Verdict::kNone, e.reason());
  }
  return checks.Take();
}

}  // namespace

std::string ChecksumProblem(const Loaded& loaded, const VerifyOptions& options) {
  if (!IsSerialized(loaded) || loaded.serializedChecksum) return "";
  const bool bloom = loaded.form == Form::kSerializedBloom;
  if (options.noChecksum && !bloom) return "";
  const std::vector<unsigned char>& s = loaded.serialized;
  const uint32_t head = crrecord::LoadBE32(s.data() + crrecord::serialized::kChecksumAt);
  const uint32_t body = BodyAdler32(s);
  return "the head's checksum " + Hex32(head) + " is not the Adler-32 of the body (" +
         Hex32(body) + "): " +
         (bloom ? "damaged (the Bloom form always carries it)"
                : "damaged, or written without a checksum (say --no-checksum)");
}

VerifyReport Verify(const Loaded& loaded, const VerifyOptions& options) {
  VerifyReport report;
  report.file = loaded.name;
  report.form = FormKey(loaded.form);
  report.description = FormLine(loaded);
  report.notes = loaded.notes;
  report.checks = loaded.IsDO() ? CheckDO(loaded, options) : CheckSegmentDb(loaded);
  for (const Check& c : report.checks) {
    if (c.verdict == Verdict::kFailed) {
      report.exitCode = kExitUnsound;
      report.error = c.name + ": " + c.reason;
      break;
    }
  }
  return report;
}

VerifyReport FailedReport(const std::string& file, const ToolError& error) {
  VerifyReport report;
  report.file = file;
  report.exitCode = error.exitCode();
  report.error = error.reason();
  return report;
}

void PrintReport(const VerifyReport& report, std::ostream& out) {
  if (report.form.empty()) return;  // nothing opened: the error line says why
  out << report.file << ": " << report.description << "\n";
  for (const std::string& note : report.notes) out << "note: " << note << "\n";
  for (const Check& c : report.checks) {
    std::string text = VerdictKey(c.verdict);
    if (c.verdict == Verdict::kFailed) text = "FAILED";
    if (!c.reason.empty()) {
      text += c.verdict == Verdict::kOk || c.verdict == Verdict::kNone ? " (" + c.reason + ")"
                                                                         : ": " + c.reason;
    }
    Row(out, c.name.c_str(), text);
  }
  if (report.sound()) out << report.file << ": sound\n";
}

std::string ReportJson(const VerifyReport& report) {
  nlohmann::ordered_json j;
  j["file"] = report.file;
  j["form"] = report.form.empty() ? nlohmann::ordered_json() : nlohmann::ordered_json(report.form);
  j["sound"] = report.sound();
  nlohmann::ordered_json checks = nlohmann::ordered_json::array();
  // What recognition assumed is a note like any other.
  for (const std::string& note : report.notes) {
    checks.push_back({{"name", "form"}, {"verdict", "note"}, {"reason", note}});
  }
  for (const Check& c : report.checks) {
    checks.push_back({{"name", c.name}, {"verdict", VerdictKey(c.verdict)}, {"reason", c.reason}});
  }
  j["checks"] = std::move(checks);
  j["error"] = report.error.empty() ? nlohmann::ordered_json() : nlohmann::ordered_json(report.error);
  // Input bytes in file names and reasons are not always UTF-8.
  return j.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

void Verify(const Loaded& loaded, const VerifyOptions& options, std::ostream& out) {
  const VerifyReport report = Verify(loaded, options);
  PrintReport(report, out);
  if (!report.sound()) Unsound(report.file, report.error);
}

}  // namespace crrec
