// The two stream forms of a DO record (a one-line text form and the record
// buffer itself) and record equality.
#include <charconv>
#include <cstring>
#include <locale>
#include <ostream>

#include "crrecord/common/Endian.h"
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

// Whether the stream writes numbers as plain decimal digits, exactly as
// std::to_chars does: decimal base, no field width pending, and the classic
// locale (no digit grouping). showpos and showbase change nothing for the
// unsigned decimal numbers of the text form.
bool WritesPlainDecimal(const std::ostream& os) {
  const std::ios_base::fmtflags base = os.flags() & std::ios_base::basefield;
  return (base == std::ios_base::dec || base == 0) && os.width() == 0 &&
         os.getloc() == std::locale::classic();
}

// The text form's bytes gathered in a local buffer and handed to the stream
// in large writes, numbers written with std::to_chars: for streams that
// format numbers as plain decimal (WritesPlainDecimal).
class LineWriter {
 public:
  explicit LineWriter(std::ostream& os) : os_(os) {}
  ~LineWriter() = default;
  LineWriter(const LineWriter&) = delete;
  LineWriter& operator=(const LineWriter&) = delete;

  void Put(char c) {
    Reserve(1);
    buffer_[used_++] = c;
  }
  void Put(const char* text, size_t n) {
    Reserve(n);
    std::memcpy(buffer_ + used_, text, n);
    used_ += n;
  }
  // One call of std::to_chars in the library: with more, the compiler may
  // leave an instance of its digit writer out of line, which the library
  // would then export.
  __attribute__((noinline)) void Number(uint64_t v) {
    Reserve(20);
    used_ = static_cast<size_t>(std::to_chars(buffer_ + used_, buffer_ + sizeof buffer_, v).ptr -
                                buffer_);
  }
  void Flush() {
    if (used_ != 0) os_.write(buffer_, static_cast<std::streamsize>(used_));
    used_ = 0;
  }

 private:
  void Reserve(size_t n) {
    if (sizeof buffer_ - used_ < n) Flush();
  }

  std::ostream& os_;
  size_t used_ = 0;
  char buffer_[16384];
};

// The segment list and DCID list of the text form, through a LineWriter.
// Fingerprint texts are made a piece at a time by one batch call.
void WriteSegmentsFast(std::ostream& os, const DORecordHeader* h) {
  const SegmentListShape shape(h->fptype, h->dotype, h->nfp);
  const unsigned char fptype = shape.fptype;
  const uint32_t nfp = shape.nfp;
  const unsigned int entryWidth = shape.entryWidth();
  const DOTypeLayout* layout = shape.layout;
  const size_t textLength = 2 * size_t{CRFPDigestSize(fptype)};  // 0 without a text form
  constexpr uint32_t kPiece = 128;
  char texts[kPiece][65];

  LineWriter out(os);
  out.Put('[');
  const unsigned char* entry = DORecordHeaderIndexOfSegment(h, 0);
  for (uint32_t done = 0; done < nfp; done += kPiece) {
    const uint32_t n = nfp - done < kPiece ? nfp - done : kPiece;
    const size_t length =
        CRFPDigestsToStrings(entry, entryWidth, fptype, texts[0], sizeof texts[0], n) == 0
            ? textLength
            : 0;
    for (uint32_t i = 0; i < n; ++i, entry += entryWidth) {
      if (done + i != 0) out.Put(',');
      out.Put('[');
      out.Put(texts[i], length);
      const unsigned char* field = entry + shape.fpWidth;
      for (unsigned int k = 0; k < shape.fieldCount(); ++k) {
        out.Put(',');
        out.Number(LoadSegmentField(field, layout->fields[k]));
      }
      out.Put(']');
    }
  }
  out.Put('[');
  const unsigned char* dcid = DORecordHeaderIndexOfDCID(h, 0);
  for (uint32_t i = 0; i < nfp; ++i, dcid += 8) {
    if (i != 0) out.Put(',');
    out.Number(Load<uint64_t>(dcid));
  }
  out.Put(']');
  out.Flush();
}

// The same through the stream's own formatting, for streams set otherwise.
void WriteSegmentsFormatted(std::ostream& os, const DORecordHeader* h) {
  const SegmentListShape shape(h->fptype, h->dotype, h->nfp);
  const unsigned char fptype = shape.fptype;
  const uint32_t nfp = shape.nfp;
  const unsigned int entryWidth = shape.entryWidth();
  const DOTypeLayout* layout = shape.layout;

  os << '[';
  const unsigned char* entry = DORecordHeaderIndexOfSegment(h, 0);
  for (uint32_t i = 0; i < nfp; ++i, entry += entryWidth) {
    if (i != 0) os << ',';
    os << '[';
    WriteFingerprint(os, entry, fptype);
    const unsigned char* field = entry + shape.fpWidth;
    for (unsigned int k = 0; k < shape.fieldCount(); ++k) {
      os << ',' << LoadSegmentField(field, layout->fields[k]);
    }
    os << ']';
  }
  // The DCID list follows the last entry without a comma.
  os << '[';
  const unsigned char* dcid = DORecordHeaderIndexOfDCID(h, 0);
  for (uint32_t i = 0; i < nfp; ++i, dcid += 8) {
    if (i != 0) os << ',';
    os << Load<uint64_t>(dcid);
  }
  os << ']';
}

}  // namespace

std::ostream& DORecord::ToStream(std::ostream& os, bool binary) const {
  if (binary) {
    HostOrderWindow window(header_, networkOrder_);
    writeTRefSection();
    os.write(reinterpret_cast<const char*>(header_.get()), static_cast<std::streamsize>(getRecSize()));
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
  // The per-segment numbers are most of the line: they skip the stream's
  // number formatting when it would give plain decimal digits anyway.
  if (WritesPlainDecimal(os)) {
    WriteSegmentsFast(os, h);
  } else {
    WriteSegmentsFormatted(os, h);
  }
  os << "],[";

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
