// The stored-record constructor: a DORecord around a host-order record
// buffer that GetHeader once handed out, with its typed references and any
// old task-ID and DSID lists loaded into the reference sets.
#include <cstdint>
#include <cstring>
#include <sstream>

#include "crrecord/DORecord.h"
#include "dorecord/DORecordFormat.h"
#include "status/Report.h"

using namespace crrecord;

namespace {

// Everything that can be refused before the buffer is touched.
void CheckStoredRecord(const DORecordHeader* record, unsigned long allocatedSize,
                       unsigned int bufferMode) {
  if (record == nullptr) ThrowFixed(CR_STATUS_MISSING_ARGUMENT, "No DO record buffer given.");
  if (bufferMode > kBufferModeRealloc) {
    std::ostringstream message;
    message << "Invalid buffer mode " << bufferMode << " for a DO record; 0, 1 or 2 expected.";
    ThrowComposed(CR_STATUS_INVALID, message);
  }
  // The header is read and written as a struct with 8-byte fields, which
  // needs the alignment that malloc gives.
  if (reinterpret_cast<uintptr_t>(record) % alignof(DORecordHeader) != 0) {
    ThrowFixed(CR_STATUS_INVALID, "DO record buffer is not 8-byte aligned.");
  }
  if (allocatedSize < kDOHeaderSize) {
    std::ostringstream message;
    message << "DO record buffer of " << allocatedSize << " bytes is smaller than the header ("
            << kDOHeaderSize << " bytes).";
    ThrowComposed(CR_STATUS_INVALID_RECORD, message);
  }
  const uint32_t recsize = record->recsize;
  if (recsize > allocatedSize) {
    std::ostringstream message;
    message << "DO record of " << recsize << " bytes exceeds its buffer of " << allocatedSize
            << " bytes.";
    ThrowComposed(CR_STATUS_INVALID_RECORD, message);
  }
  const cr_status_t status = DORecordHeaderValidate(record, recsize, 0);
  if (status != CR_STATUS_SUCCESS) ThrowStatus(status);
}

}  // namespace

// The caller's buffer must survive a failed construction unchanged and stay
// the caller's, so the object takes it over (mode 2) only at the very end:
// - Without old lists the conversion rewrites only header words and never
//   needs to grow the buffer (the section it loads is already counted in
//   recsize). It runs in place with growth forbidden, and the saved header
//   is put back if it fails.
// - With old lists the conversion moves sections and grows the record. In
//   modes 1 and 2 it runs on a private copy; in mode 0 it is refused before
//   anything changes.
DORecord::DORecord(DORecordHeader* record, unsigned long allocatedSize, unsigned int bufferMode)
    : networkOrder_(false), subDO_(false) {
  CheckStoredRecord(record, allocatedSize, bufferMode);
  const bool hasOld = record->ntaskid != 0 || record->nds != 0;

  if (!hasOld || bufferMode == kBufferModeFixed) {
    const DORecordHeader saved = *record;
    header_ = RecordBuffer<DORecordHeader>(record, allocatedSize, kBufferModeFixed);
    try {
      convertToTRefs();
    } catch (...) {
      // The buffer is not the object's yet: only its header words to put back.
      std::memcpy(record, &saved, sizeof saved);
      throw;
    }
    header_.SetMode(bufferMode);
    return;
  }

  const uint32_t recsize = record->recsize;
  header_ = RecordBuffer<DORecordHeader>(record, allocatedSize, kBufferModeCopy);
  if (!header_.Grow(recsize, recsize)) {
    ThrowFixed(CR_STATUS_NO_MEMORY, "Not enough memory to copy a DO record.");
  }
  header_.SetMode(kBufferModeRealloc);
  convertToTRefs();
  // The caller handed the buffer over; the copy replaces it.
  if (bufferMode == kBufferModeRealloc) RecordBuffer<DORecordHeader>::Release(record);
}
