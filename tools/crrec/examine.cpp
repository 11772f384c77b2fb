// Printing records for people, verifying them, and their digest.
#include "examine.h"

#include <cstdio>
#include <cstring>
#include <map>
#include <ostream>

#include <crrecord/platform/fingerprint.h>
#include <crrecord/platform/tref.h>

#include <crrecord/common/Endian.h>
#include "util.h"

namespace crrec {

const char* DOTypeName(unsigned dotype) {
  switch (dotype) {
    case CR_DO_TYPE_ORIGINAL: return "original: fixed-size segments";
    case CR_DO_TYPE_NO_SIZE: return "fixed-size segments";
    case CR_DO_TYPE_NO_OFFSET: return "segment sizes";
    case CR_DO_TYPE_8_BYTE_OFFSET: return "segment sizes and 8-byte offsets";
    case CR_DO_TYPE_BLOOM_FILTER: return "Bloom filter";
    case CR_DO_TYPE_4_BYTE_OFFSET: return "segment sizes and 4-byte object offsets";
    default: return "unknown";
  }
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

std::string FingerprintText(const unsigned char* fp, unsigned char fptype) {
  crfp_digest_t digest{};
  const unsigned width = fptype == CR_FP_TYPE_SHA256 ? 32 : 16;
  std::memcpy(digest.digest, fp, width);
  char text[65];
  if (CRFPDigestToString_r(&digest, fptype, text, sizeof text) == nullptr) {
    return HexEncode(fp, width);
  }
  return text;
}

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

void ShowSegments(const DORecord& r, uint64_t limit, std::ostream& out) {
  const DORecordHeader* h = r.GetHeader();
  const unsigned char dotype = h->dotype;
  const unsigned fpWidth = h->fptype == CR_FP_TYPE_SHA256 ? 64 : 32;
  const uint64_t shown = std::min<uint64_t>(limit, h->nfp);
  out << "\nsegments: " << h->nfp;
  if (shown < h->nfp) out << ", the first " << shown << " shown (--all for every one)";
  out << "\n";
  if (shown == 0) return;
  const bool sizes = dotype != CR_DO_TYPE_ORIGINAL && dotype != CR_DO_TYPE_NO_SIZE;
  out << "  " << PadLeft("#", 8) << "  " << Pad("fingerprint", fpWidth) << "  "
      << PadLeft(sizes ? "size" : "size*", 10);
  if (dotype == CR_DO_TYPE_8_BYTE_OFFSET) out << "  " << PadLeft("offset", 14);
  if (dotype == CR_DO_TYPE_4_BYTE_OFFSET) out << "  " << PadLeft("obj. offset", 11);
  out << "  DCID\n";
  for (uint64_t i = 0; i < shown; ++i) {
    const unsigned int k = static_cast<unsigned int>(i);
    out << "  " << PadLeft(std::to_string(i), 8) << "  "
        << Pad(FingerprintText(r.GetSegmentFP(k), h->fptype), fpWidth) << "  "
        << PadLeft(std::to_string(r.GetSegmentSize(k)), 10);
    if (dotype == CR_DO_TYPE_8_BYTE_OFFSET) {
      out << "  " << PadLeft(std::to_string(r.GetSegmentOffset(k)), 14);
    }
    if (dotype == CR_DO_TYPE_4_BYTE_OFFSET) {
      out << "  " << PadLeft(std::to_string(r.GetSegmentObjectOffset(k)), 11);
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
    const uint32_t head = crrecord::LoadBE32(loaded.serialized.data() + 16);
    out << "head checksum " << Hex32(head)
        << (loaded.serializedChecksum ? " (the Adler-32 of the body)"
                                      : " (not the Adler-32 of the body: the record's CRC)")
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

void Verify(const Loaded& loaded, const VerifyOptions& options, std::ostream& out) {
  const std::string& name = loaded.name;
  out << name << ": " << FormLine(loaded) << "\n";
  for (const std::string& note : loaded.notes) out << "note: " << note << "\n";
  if (!loaded.IsDO()) {
    Row(out, "header", "ok (validated on opening)");
    out << name << ": sound\n";
    return;
  }
  const DORecord& r = *loaded.record;

  if (!loaded.serialized.empty()) {
    const std::vector<unsigned char>& s = loaded.serialized;
    const uint32_t head = crrecord::LoadBE32(s.data() + 16);
    const uint32_t body = DORecordAdler32(s.data() + 28, s.size() - 28);
    if (loaded.serializedChecksum) {
      Row(out, "checksum", "ok (Adler-32 " + Hex32(body) + ")");
    } else if (options.noChecksum && loaded.origin == Form::kSerialized) {
      Row(out, "checksum", "none (the head holds the CRC " + Hex32(head) + ")");
    } else {
      Unsound(name, "the head's checksum " + Hex32(head) + " is not the Adler-32 of the body (" +
                        Hex32(body) + ")" +
                        (loaded.origin == Form::kSerialized
                             ? "; if it was written without a checksum, say --no-checksum"
                             : ""));
    }
  }

  MessageScope scope;
  const DORecordHeader* h = r.GetHeader();
  cr_status_t status = DORecordHeaderValidate(h, h->recsize, 0);
  if (status != CR_STATUS_SUCCESS) Unsound(name, DescribeStatus(status, scope));
  Row(out, "header", "ok (" + std::to_string(h->recsize) + " bytes)");

  if (h->dotype != CR_DO_TYPE_BLOOM_FILTER) {
    try {
      r.checkSegmentList();
    } catch (const Cr_ErrnoException& e) {
      Unsound(name, Describe(e, scope));
    }
    std::map<uint64_t, uint64_t> perContainer;
    for (uint32_t i = 0; i < h->nfp; ++i) {
      const uint64_t dcid = r.GetSegmentDCID(i);
      if (dcid < 64) {
        Unsound(name, "segment " + std::to_string(i) + " has DCID " + std::to_string(dcid) +
                          ", below 64");
      }
      perContainer[dcid] += r.GetSegmentSize(i);
    }
    Row(out, "segments", "ok (" + Count(h->nfp, "segment") + " in " +
                             Count(perContainer.size(), "container") +
                             ", every DCID at least 64)");

    uint32_t checksum = 0;
    std::vector<std::pair<uint64_t, uint64_t>> entries = UniqueEntries(r, &checksum);
    if (!entries.empty()) {
      std::map<uint64_t, uint64_t> listed;
      for (const auto& e : entries) {
        if (!listed.emplace(e.first, e.second).second) {
          Unsound(name, "the unique-DCID list names container " + std::to_string(e.first) +
                            " twice");
        }
      }
      for (const auto& e : listed) {
        auto found = perContainer.find(e.first);
        const uint64_t actual = found == perContainer.end() ? 0 : found->second;
        if (actual != e.second) {
          Unsound(name, "the unique-DCID list gives container " + std::to_string(e.first) + " " +
                            std::to_string(e.second) + " bytes, the segment list " +
                            std::to_string(actual));
        }
      }
      for (const auto& e : perContainer) {
        if (listed.count(e.first) == 0) {
          Unsound(name, "the unique-DCID list misses container " + std::to_string(e.first) +
                            " of the segment list");
        }
      }
      Row(out, "unique", "ok (" + Count(entries.size(), "container") + ", checksum " +
                             Hex32(checksum) + ", agrees with the segment list)");
    } else {
      Row(out, "unique", "none");
    }
  } else {
    uint32_t checksum = 0;
    std::vector<std::pair<uint64_t, uint64_t>> entries = UniqueEntries(r, &checksum);
    Row(out, "bloom", "ok (" + std::to_string(h->bsize) + " bytes of bitmap)");
    Row(out, "unique", entries.empty() ? std::string("none")
                                       : "ok (" + Count(entries.size(), "container") +
                                             ", checksum " + Hex32(checksum) + ")");
  }

  uint64_t trefs = 0;
  for (unsigned kind = CR_TREF_TYPE_NONE; kind < CR_TREF_TYPE_END; ++kind) {
    trefs += r.GetNTRefs(static_cast<cr_reftype_t>(kind));
  }
  Row(out, "references", "ok (" + std::to_string(trefs) + ", " + std::to_string(h->trefsize) +
                             " bytes)");
  std::string digest;
  try {
    digest = DigestText(r, name);
  } catch (const ToolError& e) {
    digest = "none (" + e.reason() + ")";
  }
  Row(out, "digest", digest);
  out << name << ": sound\n";
}

}  // namespace crrec
