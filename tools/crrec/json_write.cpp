// Writing records as JSON.
#include "json.h"

#include <cstring>
#include <vector>

#include <crrecord/common/Endian.h>
#include <crrecord/platform/fingerprint.h>
#include <crrecord/platform/tref.h>

#include "util.h"

namespace crrec {

namespace {

using namespace json_layout;  // the segment DB record's widths

Json DOToJson(const Loaded& loaded) {
  const DORecord& r = *loaded.record;
  const DORecordHeader* h = r.GetHeader();  // also writes the reference section
  const unsigned char fptype = h->fptype;
  const unsigned char dotype = h->dotype;
  const bool bloom = dotype == CR_DO_TYPE_BLOOM_FILTER;
  const Form form = loaded.origin == Form::kJson ? Form::kStored : loaded.origin;
  // Opening turned the file's old lists into references (and stamped mtime):
  // the header is told as the file had it, and those references as the lists.
  const bool oldLists = form == Form::kStored && !loaded.oldListBytes.empty();
  const DORecordHeader& told = oldLists ? loaded.fileHeader : *h;

  Json j;
  j["form"] = FormKey(form);
  if (form == Form::kStored) j["byte_order"] = loaded.networkOrder ? "network" : "host";
  if (form == Form::kSerialized || form == Form::kSerializedBloom) {
    j["checksum"] = loaded.serializedChecksum;
  }
  Json& hj = j["header"];
  hj["type"] = told.type;
  hj["flags"] = told.flags;
  hj["recsize"] = told.recsize;
  hj["checktime"] = told.checktime;
  hj["CID"] = told.CID;
  hj["size"] = told.size;
  hj["ssize"] = told.ssize;
  hj["CRC"] = told.CRC;
  hj["ctime"] = told.ctime;
  hj["mtime"] = told.mtime;
  hj["ntaskid"] = told.ntaskid;
  hj["nfp"] = told.nfp;
  hj["nudcid"] = told.nudcid;
  hj["nds"] = told.nds;
  hj["trefsize"] = told.trefsize;
  hj["bsize"] = told.bsize;
  hj["fptype"] = fptype;
  hj["dotype"] = dotype;

  if (oldLists) {
    // In the file's order, repeats included: the bytes as the file holds them.
    const DORecordHeader* file =
        reinterpret_cast<const DORecordHeader*>(loaded.oldListBytes.data());
    Json taskids = Json::array(), dsids = Json::array();
    for (unsigned int i = 0; i < file->ntaskid; ++i) {
      taskids.push_back(crrecord::Load<uint64_t>(DORecordHeaderIndexOfTaskId(file, i)));
    }
    for (unsigned int i = 0; i < file->nds; ++i) {
      dsids.push_back(crrecord::Load<uint32_t>(DORecordHeaderIndexOfDataSelection(file, i)));
    }
    j["old_taskids"] = std::move(taskids);
    j["old_dsids"] = std::move(dsids);
  }

  if (bloom) {
    j["bloom"]["bitmap"] = HexEncode(r.GetBloom(), h->bsize);
  } else {
    Json segments = Json::array();
    const crrecord::DOTypeLayout* layout = crrecord::FindDOTypeLayout(dotype);
    const unsigned nfields = layout != nullptr ? layout->count : 0;
    for (unsigned int i = 0; i < h->nfp; ++i) {
      Json s;
      s["fp"] = FingerprintText(r.GetSegmentFP(i), fptype);
      for (unsigned k = 0; k < nfields; ++k) {
        s[layout->fields[k].name] = r.GetSegmentField(i, layout->fields[k].field);
      }
      s["dcid"] = r.GetSegmentDCID(i);
      segments.push_back(std::move(s));
    }
    j["segments"] = std::move(segments);
  }

  if (bloom && r.UniqueDCIDListIsBigEndian()) j["unique_dcids_byte_order"] = "big";
  if (h->nudcid > 0) {
    Json entries = Json::array();
    for (unsigned int i = 0; i < h->nudcid; ++i) {
      unsigned long dcid = 0, bytes = 0;
      r.GetUniqueDCIDEntry(i, &dcid, &bytes);
      entries.push_back(Json{{"dcid", dcid}, {"bytes", bytes}});
    }
    j["unique_dcids"] = std::move(entries);
  }

  // A file with old lists has no reference section: every reference came
  // from the lists.
  Json trefs = Json::array();
  for (unsigned kind = CR_TREF_TYPE_NONE; !oldLists && kind < CR_TREF_TYPE_END; ++kind) {
    const cr_reftype_t k = static_cast<cr_reftype_t>(kind);
    for (auto it = r.GetTRefTypeBegin(k); it != r.GetTRefTypeEnd(k); ++it) {
      const _cr_tref_t* ref = (*it)->Get();
      std::vector<unsigned char> bytes(CRTRefSerializedSize(ref, CR_TREF_MODE_BINARY));
      size_t written = CRTRefSerialize(bytes.data(), bytes.size(), ref, CR_TREF_MODE_BINARY);
      bytes.resize(written);
      char text[CR_TREF_TEXT_SIZE] = "";
      CRTRefToString(text, sizeof text, ref);
      trefs.push_back(
          Json{{"kind", kind}, {"text", text}, {"bytes", HexEncode(bytes.data(), bytes.size())}});
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

}  // namespace

Json ToJson(const Loaded& loaded) { return loaded.IsDO() ? DOToJson(loaded) : SOToJson(loaded); }

}  // namespace crrec
