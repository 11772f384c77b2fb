// Reads a stored segment DB record back and validates it before use: the
// SO record of one segment, followed by the task IDs and the DO
// fingerprints that refer to the segment. The "database" here is a byte
// stream that a writer filled with the record in network order.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include <crrecord/crrecord.h>

namespace {

void PrintLog(cr_log_level_t level, cr_status_t, const char* message, void*) {
  std::printf("  %s: %s\n", level == CR_LOG_TRACE ? "trace" : "log", message);
}

// The writer's side: an SO record with two task IDs and the fingerprint of
// one DO that uses the segment, stored in network order.
std::string WriteStoredRecord() {
  QorKey key = {};
  std::memset(key.key, 0xAB, sizeof key.key);
  key.keyType = 1;
  SORecord so(CR_SO_FLAGS_NEW, /*dcid=*/1000, /*size=*/65536, /*crc=*/7, key, /*cryptoMode=*/1,
              CR_FP_TYPE_MD5);
  so.SetCheckTime(1700000000);
  so.SetKeyIndex(258);

  // 96-byte fixed part, 2 task IDs, 1 fingerprint of 16 bytes, 8-byte trailer.
  const unsigned int size = CR_SO_RECORD_MIN_SIZE + 2 * 8 + 16;
  std::vector<unsigned long> buffer(size / 8, 0);  // 8-byte aligned
  _SegmentDBRecord* record = reinterpret_cast<_SegmentDBRecord*>(buffer.data());
  std::memcpy(record, so.GetHeader(), CR_SO_FIXED_SIZE);
  record->ntaskid = 2;
  record->ndo = 1;
  record->recsize = size;
  unsigned char* tail = reinterpret_cast<unsigned char*>(record) + CR_SO_FIXED_SIZE;
  const unsigned long taskIds[] = {42, 43};
  std::memcpy(tail, taskIds, sizeof taskIds);
  crfp_digest_t doFingerprint;
  CRFPCompute(CR_FP_TYPE_MD5, "a file", 6, &doFingerprint);
  std::memcpy(tail + sizeof taskIds, doFingerprint.digest, 16);

  std::ostringstream stored;
  SegmentRecordToStream(stored, *record, /*binary=*/true);  // network order
  return stored.str();
}

}  // namespace

int main() {
  CRLogSetSink(&PrintLog, nullptr);
  CRTraceSet(true);  // validation says why it refuses a record

  std::string stored;
  try {
    stored = WriteStoredRecord();
  } catch (const Cr_ErrnoException& e) {
    std::fprintf(stderr, "read_segment_db: %s (status %u)\n", e.what(), e.GetStatus());
    return 1;
  }
  std::printf("stored record: %zu bytes, type field %02x %02x (network order)\n", stored.size(),
              static_cast<unsigned char>(stored[0]), static_cast<unsigned char>(stored[1]));

  // The reader's side: bytes from outside go through SegmentRecordValidate
  // before anything trusts their counts.
  std::vector<unsigned long> buffer((stored.size() + 7) / 8, 0);
  std::memcpy(buffer.data(), stored.data(), stored.size());
  _SegmentDBRecord* record = reinterpret_cast<_SegmentDBRecord*>(buffer.data());
  const unsigned int size = static_cast<unsigned int>(stored.size());

  std::printf("validate as read, %u bytes: %u\n", size,
              SegmentRecordValidate(record, size, CR_SO_VALIDATE_NETWORK_ORDER));
  std::printf("validate as if host order:\n");
  std::printf("  -> %u\n", SegmentRecordValidate(record, size, 0));
  std::printf("validate 8 bytes short:\n");
  std::printf("  -> %u\n", SegmentRecordValidate(record, size - 8, CR_SO_VALIDATE_NETWORK_ORDER));
  std::printf("validate requiring no task IDs:\n");
  std::printf("  -> %u\n", SegmentRecordValidate(record, size,
                                                  CR_SO_VALIDATE_NETWORK_ORDER |
                                                      CR_SO_VALIDATE_NO_TASKIDS));

  // Sound: convert in place and read it.
  SegmentRecordNtoh(record, record, 0);
  std::printf("segment of %lu bytes, CRC %u, %s %lu, check time %u, key index %u\n",
              record->size, record->CRC,
              RecordInContainer(record->fileID) ? "in container" : "in file", record->DCID,
              record->checktime, record->keyIndex);
  const unsigned char* tail = reinterpret_cast<const unsigned char*>(record) + CR_SO_FIXED_SIZE;
  for (unsigned int i = 0; i < record->ntaskid; ++i) {
    unsigned long taskId;
    std::memcpy(&taskId, tail + 8 * i, sizeof taskId);
    std::printf("  task ID %lu\n", taskId);
  }
  std::ostringstream text;
  SegmentRecordToStream(text, *record, /*binary=*/false);
  std::printf("text form: %s\n", text.str().c_str());

  // The same record without its task IDs, as kept for a segment that no
  // task refers to any more: 16 bytes shorter, the fingerprint moved up.
  std::vector<unsigned long> copy(buffer.size(), 0);
  _SegmentDBRecord* dropped = reinterpret_cast<_SegmentDBRecord*>(copy.data());
  SegmentRecordHton(dropped, record, CR_SO_CONVERT_DROP_TASKIDS);
  SegmentRecordNtoh(dropped, dropped, 0);
  std::printf("without task IDs: %u bytes, validates with no task IDs required: %u\n",
              dropped->recsize,
              SegmentRecordValidate(dropped, dropped->recsize, CR_SO_VALIDATE_NO_TASKIDS));

  // The serialized form for exchange: big-endian, fingerprints as text.
  void* serialized = nullptr;
  unsigned long serializedSize = 0;
  const cr_status_t status = SegmentRecordSerialize(record, &serialized, &serializedSize);
  std::printf("serialized: status %u, %lu bytes (33 + 1 x 33)\n", status, serializedSize);
  std::free(serialized);
  return 0;
}
