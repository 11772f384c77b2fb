// The two stream forms of a DO record (a one-line text form and the record
// buffer itself) and record equality.
#include <cstring>
#include <ostream>

#include "common/Endian.h"
#include "crrecord/DORecord.h"
#include "dorecord/DORecordFormat.h"
#include "status/Report.h"

using namespace crrecord;

const std::string DORecord::TEXT_STREAM_FORMAT_DESCRIPTION =
    "type,formatversion,flags,CID,size,ssize,CRC,ctime,mtime,fptype,dotype,nfp,"
    "[[segmentFP,{segmentSize{,segmentOffset}?}?]*],[TRefs*]";

namespace {

constexpr unsigned int kTextFormVersion = 1;

// Brings a network-order record to host order for the lifetime of the
// window and puts it back afterwards, also when the stream throws.
class HostOrderWindow {
 public:
  HostOrderWindow(DORecordHeader* header, bool& networkOrder)
      : header_(header), networkOrder_(networkOrder), converted_(networkOrder) {
    if (converted_) {
      networkOrder_ = false;
      DORecordHeaderNtoh(header_);
    }
  }
  ~HostOrderWindow() {
    if (converted_) {
      DORecordHeaderHton(header_);
      networkOrder_ = true;
    }
  }
  HostOrderWindow(const HostOrderWindow&) = delete;
  HostOrderWindow& operator=(const HostOrderWindow&) = delete;

 private:
  DORecordHeader* header_;
  bool& networkOrder_;
  bool converted_;
};

// A routine that fails leaves its buffer cleared, so a failed fingerprint
// or reference prints as an empty text and the line keeps its shape.
void WriteFingerprint(std::ostream& os, const unsigned char* stored, unsigned char fptype) {
  crfp_digest_t fp = {};
  std::memcpy(fp.digest, stored, FingerprintWidth(fptype));
  char text[65] = {};
  if (CRFPDigestToString_r(&fp, fptype, text, sizeof text) == nullptr) text[0] = '\0';
  text[sizeof text - 1] = '\0';
  os << text;
}

void WriteReference(std::ostream& os, const Cr_TRef& ref) {
  char text[CR_TREF_TEXT_SIZE] = {};
  if (CRTRefSerialize(text, sizeof text, ref.Get(), CR_TREF_MODE_TEXT) == 0) text[0] = '\0';
  text[sizeof text - 1] = '\0';
  os << text;
}

}  // namespace

std::ostream& DORecord::ToStream(std::ostream& os, bool binary) const {
  if (binary) {
    HostOrderWindow window(header_, networkOrder_);
    writeTRefSection();
    os.write(reinterpret_cast<const char*>(header_), static_cast<std::streamsize>(getRecSize()));
    return os;
  }

  if (networkOrder_) {
    ThrowFixed(CR_STATUS_INVALID,
               "cannot write DO record to stream in text form because it is in network order");
  }
  const DORecordHeader* h = header_;
  // Single-byte fields go through unsigned so they print as numbers.
  os << h->type << ',' << kTextFormVersion << ',' << h->flags << ',' << h->CID << ',' << h->size
     << ',' << h->ssize << ',' << h->CRC << ',' << h->ctime << ',' << h->mtime << ','
     << unsigned{h->fptype} << ',' << unsigned{h->dotype} << ',' << h->nfp << ',';

  const unsigned char fptype = h->fptype;
  const unsigned char dotype = h->dotype;
  const uint32_t nfp = h->nfp;
  const unsigned int fpWidth = FingerprintWidth(fptype);
  const unsigned int entryWidth = SegmentEntryWidth(fptype, dotype);

  os << '[';
  const unsigned char* entry = DORecordHeaderIndexOfSegment(h, 0);
  for (uint32_t i = 0; i < nfp; ++i, entry += entryWidth) {
    if (i != 0) os << ',';
    os << '[';
    WriteFingerprint(os, entry, fptype);
    const unsigned char* field = entry + fpWidth;
    if (HasStoredSizes(dotype)) os << ',' << Load<uint32_t>(field);
    if (dotype == CR_DO_TYPE_8_BYTE_OFFSET) os << ',' << Load<uint64_t>(field + 4);
    if (dotype == CR_DO_TYPE_4_BYTE_OFFSET) os << ',' << Load<uint32_t>(field + 4);
    os << ']';
  }
  // The DCID list follows the last entry without a comma.
  os << '[';
  const unsigned char* dcid = DORecordHeaderIndexOfDCID(h, 0);
  for (uint32_t i = 0; i < nfp; ++i, dcid += 8) {
    if (i != 0) os << ',';
    os << Load<uint64_t>(dcid);
  }
  os << "]],[";

  bool first = true;
  for (tref_const_iterator_t it = GetTRefBegin(), end = GetTRefEnd(); it != end; ++it) {
    if (!first) os << ',';
    first = false;
    WriteReference(os, **it);
  }
  os << ']';
  return os;
}

bool DORecord::operator==(const DORecord& other) const {
  if (networkOrder_ != other.networkOrder_) return false;

  // Both records stand in the same byte order, so stored values compare.
  const DORecordHeader* a = header_;
  const DORecordHeader* b = other.header_;
  if (a->type != b->type) return false;
  if (a->flags != b->flags) return false;
  if (a->ntaskid != b->ntaskid || a->CID != b->CID) return false;
  if (a->size != b->size || a->ssize != b->ssize) return false;
  if (a->CRC != b->CRC || a->nfp != b->nfp) return false;
  if (a->fptype != b->fptype) return false;
  if (a->dotype != b->dotype) return false;

  for (unsigned int kind = 0; kind < CR_TREF_TYPE_END; ++kind) {
    const tref_set_t& mine = trefs_[kind];
    const tref_set_t& theirs = other.trefs_[kind];
    if (mine.size() != theirs.size()) return false;
    for (auto x = mine.begin(), y = theirs.begin(); x != mine.end(); ++x, ++y) {
      if (CRTRefEqual((*x)->Get(), (*y)->Get()) == 0) return false;
    }
  }

  const uint64_t listSize = uint64_t{GetNfp()} * SegmentEntryWidth(a->fptype, a->dotype);
  return std::memcmp(DORecordHeaderIndexOfSegment(a, 0), DORecordHeaderIndexOfSegment(b, 0),
                     listSize) == 0;
}

bool DORecord::operator!=(const DORecord& other) const { return !(*this == other); }
