// The DORecord object: its buffer, ownership and growth, the size
// bookkeeping and the header field accessors.
#include <unistd.h>

#include <ctime>

#include "common/Adler32.h"
#include "crrecord/common/Endian.h"
#include "crrecord/DORecord.h"
#include "dorecord/DORecordFormat.h"
#include "status/Report.h"

using namespace crrecord;

namespace {

bool FlagsAllowed(unsigned short flags) { return (flags & ~CR_DO_FLAGS_ALLOWED) == 0; }

}  // namespace

// The public name of the one Adler-32 that every checksum of the library uses.
unsigned int DORecordAdler32(const void* data, size_t length) { return Adler32(data, length); }

// The buffer member frees what the object owns.
DORecord::~DORecord() = default;

// --- Buffer and sizes ---------------------------------------------------------

void DORecord::expand(unsigned int needed) {
  if (needed <= header_.size()) return;
  if (header_.mode() == kBufferModeFixed) {
    ThrowFixed(CR_STATUS_INVALID,
               "Need to expand the buffer of DORecord but I'm not allowed to copy it.");
  }
  const uint64_t page = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
  const uint64_t newSize = (uint64_t{needed} + page - 1) & ~(page - 1);
  if (!header_.Grow(newSize, header_.size())) {
    ThrowFixed(CR_STATUS_NO_MEMORY, "Not enough memory to expand a DO record.");
  }
  // A borrowed buffer (mode 1) is now a copy of the object's own.
  header_.SetMode(kBufferModeRealloc);
}

void DORecord::expand() { expand(getRecSize()); }

unsigned int DORecord::headerSize() const {
  return static_cast<unsigned int>(DORecordHeaderSizeRaw(0, 0, 0, 0, 0, header_->fptype, 0));
}

unsigned int DORecord::getRecSize() const { return InRecordOrder(header_->recsize, networkOrder_); }

unsigned int DORecord::GetHeaderSize() const { return getRecSize(); }

void DORecord::setRecSize(unsigned int size) {
  if (size < headerSize()) ThrowFixed(CR_STATUS_INVALID, "invalid record size for DO");
  header_->recsize = InRecordOrder(size, networkOrder_);
}

unsigned int DORecord::calcRecSize() const {
  const unsigned char dotype = header_->dotype;
  const unsigned int count = dotype == CR_DO_TYPE_BLOOM_FILTER ? GetBSize() : GetNfp();
  return static_cast<unsigned int>(DORecordHeaderSizeRaw(0, count, GetNudcid(), 0, dotype,
                                                         header_->fptype, getTRefsSize()));
}

unsigned int DORecord::getTRefsSize() const {
  return InRecordOrder(header_->trefsize, networkOrder_);
}

void DORecord::setTRefsSize(unsigned int size) {
  header_->trefsize = InRecordOrder(size, networkOrder_);
}

unsigned long DORecord::GetDOSize() const { return uint64_t{getRecSize()} - headerSize(); }

void DORecord::initReferenceSets() {
  setTRefsSize(0);
  setRecSize(calcRecSize());
}

void DORecord::handleUpdate() {
  header_->mtime = InRecordOrder(static_cast<uint32_t>(std::time(nullptr)), networkOrder_);
}

// --- Header fields --------------------------------------------------------------

unsigned short DORecord::GetFlags() const { return InRecordOrder(header_->flags, networkOrder_); }
unsigned int DORecord::GetCheckTime() const {
  return InRecordOrder(header_->checktime, networkOrder_);
}
unsigned long DORecord::GetDCID() const { return InRecordOrder(header_->CID, networkOrder_); }
unsigned long DORecord::GetSize() const { return InRecordOrder(header_->size, networkOrder_); }
unsigned long DORecord::GetSsize() const { return InRecordOrder(header_->ssize, networkOrder_); }
unsigned int DORecord::GetCrc() const { return InRecordOrder(header_->CRC, networkOrder_); }
unsigned int DORecord::GetCTime() const { return InRecordOrder(header_->ctime, networkOrder_); }
unsigned int DORecord::GetMTime() const { return InRecordOrder(header_->mtime, networkOrder_); }
unsigned int DORecord::GetNfp() const { return InRecordOrder(header_->nfp, networkOrder_); }
unsigned int DORecord::GetNudcid() const { return InRecordOrder(header_->nudcid, networkOrder_); }
unsigned int DORecord::GetBSize() const { return InRecordOrder(header_->bsize, networkOrder_); }
unsigned char DORecord::GetFPType() const { return header_->fptype; }
unsigned char DORecord::GetDOType() const { return header_->dotype; }
unsigned char* DORecord::GetPOID() const { return DORecordHeaderGetPOID(header_); }

void DORecord::setCheckTime(unsigned int t) {
  header_->checktime = InRecordOrder(t, networkOrder_);
}

void DORecord::SetCheckTime(unsigned int t) { setCheckTime(t); }

void DORecord::setDCID(unsigned long dcid) { header_->CID = InRecordOrder(dcid, networkOrder_); }

void DORecord::SetDCID(unsigned long dcid) {
  setDCID(dcid);
  handleUpdate();
}

void DORecord::setFPType(unsigned char fptype) {
  if (!CRFPTypeIsValid(fptype)) ThrowFixed(CR_STATUS_INVALID, "invalid fptype for DO");
  header_->fptype = fptype;
}

void DORecord::SetFPType(unsigned char fptype) {
  header_->fptype = fptype;
  handleUpdate();
}

void DORecord::setFlags(unsigned short flags) {
  if (!FlagsAllowed(flags)) {
    ErrorA(CR_STATUS_INVALID, "Setting DORecord flags to invalid value %x", unsigned{flags});
    return;
  }
  header_->flags = InRecordOrder(flags, networkOrder_);
}

void DORecord::SetFlags(unsigned short flags) {
  if (!FlagsAllowed(flags)) {
    ErrorA(CR_STATUS_INVALID, "Setting DORecord flags to invalid value %x", unsigned{flags});
  }
  header_->flags = InRecordOrder(flags, networkOrder_);
  handleUpdate();
}

// --- Header and typed-reference section -------------------------------------------

void DORecord::writeTRefSection() const {
  unsigned char* dst = DORecordHeaderStartTRefs(header_);
  size_t room = getTRefsSize();
  for (const tref_set_t& set : trefs_) {
    for (const boost::intrusive_ptr<Cr_TRef>& ref : set) {
      size_t n = CRTRefSerialize(dst, room, ref->Get(), CR_TREF_MODE_BINARY);
      dst += n;
      room -= n;
    }
  }
}

DORecordHeader* DORecord::GetHeader() const {
  writeTRefSection();
  return header_;
}

cr_status_t DORecord::ValidateHeader(const void* h, unsigned int length, unsigned int flags) {
  return DORecordHeaderValidate(static_cast<const DORecordHeader*>(h), length, flags);
}
