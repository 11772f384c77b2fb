// The SORecord object: building an SO record from its parameters, the field
// accessors in either byte order, in-place conversion and equality.
#include "crrecord/SORecord.h"

#include <cstring>

#include "crrecord/common/Endian.h"
#include "crrecord/common/FingerprintWidth.h"
#include "crrecord/platform/fingerprint.h"
#include "status/Report.h"

using namespace crrecord;

namespace {

constexpr unsigned int kKeyBytes = sizeof(_SegmentDBRecord::key);
static_assert(sizeof(QorKey) >= kKeyBytes, "a key holds the 33 bytes the record keeps");

bool FlagsAllowed(unsigned short flags) {
  return flags == CR_SO_FLAGS_NONE || flags == CR_SO_FLAGS_NEW;
}

// An SO record also accepts DCID 1, besides the container IDs from 64 up.
bool DCIDAllowed(unsigned long dcid) { return dcid == 1 || dcid >= 64; }

}  // namespace

SORecord::SORecord(unsigned short flags, unsigned int dcid, unsigned int size, unsigned int crc,
                   const QorKey& key, unsigned char cryptoMode, unsigned char fptype)
    : header_(RecordBuffer<_SegmentDBRecord>::Allocate(CR_SO_RECORD_MIN_SIZE,
                                                       CR_SO_RECORD_MIN_SIZE)),
      networkOrder_(false) {
  if (header_.get() == nullptr) {
    ErrorA(CR_STATUS_NO_MEMORY, "%s: memory allocation of %u bytes failed!", "SORecord",
           CR_SO_RECORD_MIN_SIZE);
    ThrowLastLogged(CR_STATUS_NO_MEMORY);
  }
  // A setter that refuses its value leaves the buffer to header_'s release.
  header_->type = CR_SO_RECORD_TYPE;
  SetFlags(flags);
  SetDCID(dcid);
  SetSize(size);
  SetCRC(crc);
  SetKey(key);
  SetCryptoMode(cryptoMode);
  SetFPType(fptype);
  const uint32_t ntaskid = header_->ntaskid, ndo = header_->ndo;
  header_->recsize = CR_SO_RECORD_MIN_SIZE + 8 * ntaskid + FingerprintWidth(fptype) * ndo;
}

// The buffer member frees the record.
SORecord::~SORecord() = default;

void SORecord::SetFlags(unsigned short flags) {
  if (!FlagsAllowed(flags)) ThrowStatus(CR_STATUS_INVALID);
  header_->flags = InRecordOrder(flags, networkOrder_);
}

unsigned short SORecord::GetFlags() const { return InRecordOrder(header_->flags, networkOrder_); }

void SORecord::SetDCID(unsigned long dcid) {
  if (!DCIDAllowed(dcid)) ThrowStatus(CR_STATUS_INVALID);
  header_->DCID = InRecordOrder(dcid, networkOrder_);
  header_->fileID = 0;
}

unsigned long SORecord::GetDCID() const { return RecordInContainer(GetFileID()) ? GetPathID() : 0; }

unsigned long SORecord::GetPathID() const { return InRecordOrder(header_->DCID, networkOrder_); }

unsigned long SORecord::GetFileID() const { return InRecordOrder(header_->fileID, networkOrder_); }

void SORecord::SetSize(unsigned long size) { header_->size = InRecordOrder(size, networkOrder_); }

unsigned long SORecord::GetSize() const { return InRecordOrder(header_->size, networkOrder_); }

void SORecord::SetCRC(unsigned int crc) { header_->CRC = InRecordOrder(crc, networkOrder_); }

unsigned int SORecord::GetCRC() const { return InRecordOrder(header_->CRC, networkOrder_); }

void SORecord::SetCheckTime(unsigned int checkTime) {
  header_->checktime = InRecordOrder(checkTime, networkOrder_);
}

unsigned int SORecord::GetCheckTime() const {
  return InRecordOrder(header_->checktime, networkOrder_);
}

void SORecord::SetFPType(unsigned char fptype) {
  if (!CRFPTypeIsValid(fptype)) ThrowStatus(CR_STATUS_INVALID);
  header_->fptype = fptype;
}

unsigned char SORecord::GetFPType() const { return header_->fptype; }

void SORecord::SetCryptoMode(unsigned char cryptoMode) { header_->cryptoMode = cryptoMode; }

unsigned char SORecord::GetCryptoMode() const { return header_->cryptoMode; }

void SORecord::SetKeyIndex(unsigned short keyIndex) { header_->keyIndex = keyIndex; }

unsigned short SORecord::GetKeyIndex() const { return header_->keyIndex; }

void SORecord::SetKey(const QorKey& key) { std::memcpy(header_->key, &key, kKeyBytes); }

const unsigned char* SORecord::GetKey() const { return header_->key; }

void SORecord::HostToNetwork(unsigned int flags) {
  if (networkOrder_) return;
  networkOrder_ = true;
  SegmentRecordHton(header_, header_, flags);
}

void SORecord::NetworkToHost(unsigned int flags) {
  if (!networkOrder_) return;
  networkOrder_ = false;
  SegmentRecordNtoh(header_, header_, flags);
}

bool SORecord::operator==(const SORecord& other) const {
  return header_ == other.header_ ||
         std::memcmp(header_, other.header_, CR_SO_RECORD_MIN_SIZE) == 0;
}
