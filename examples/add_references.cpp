// Builds the DO record of a 10,000-byte file from its segment list and
// gives it references: a task ID, a data-selection ID and a retention
// reference. Shows what each addition does to the record size, the order in
// which the record keeps its references, the typed-reference section that
// GetHeader writes, and how an unsupported kind is refused.
#include <cstdio>
#include <cstring>
#include <vector>

#include <crrecord/crrecord.h>

namespace {

// Appends a value to the segment list in host order, as the builder takes it.
template <typename T>
void Put(std::vector<unsigned char>& out, T value) {
  unsigned char bytes[sizeof(T)];
  std::memcpy(bytes, &value, sizeof(T));
  out.insert(out.end(), bytes, bytes + sizeof(T));
}

// Log lines (the refusal below logs one) go to stdout, next to the rest.
void PrintLog(cr_log_level_t, cr_status_t status, const char* message, void*) {
  std::printf("  log (status %u): %s\n", status, message);
}

void PrintReferences(const DORecord& record) {
  char text[CR_TREF_TEXT_SIZE];
  for (DORecord::tref_const_iterator_t it = record.GetTRefBegin(); it != record.GetTRefEnd();
       ++it) {
    std::printf("  %s\n", CRTRefToString(text, sizeof text, (*it)->Get()));
  }
}

}  // namespace

int main() {
  CRLogSetSink(&PrintLog, nullptr);

  // DO type 3: each entry is the fingerprint (16 bytes for type 2), the
  // segment's size (u32) and its offset in the file (u64).
  const char* chunks[] = {"first segment", "second segment", "third segment"};
  const unsigned int sizes[] = {4096, 4096, 1808};
  const unsigned long offsets[] = {0, 4096, 8192};
  const unsigned long dcids[] = {64, 65, 64};
  std::vector<unsigned char> segments;
  for (int i = 0; i < 3; ++i) {
    crfp_digest_t fp;
    if (CRFPCompute(CR_FP_TYPE_SHA256_16, chunks[i], std::strlen(chunks[i]), &fp) != 0) return 1;
    segments.insert(segments.end(), fp.digest, fp.digest + 16);
    Put(segments, sizes[i]);
    Put(segments, offsets[i]);
  }

  try {
    DORecord record(/*dcid=*/100, /*size=*/10000, /*ssize=*/4096, /*crc=*/0x1234,
                    /*ctime=*/1700000000, /*mtime=*/1700000000, segments.data(), 3, dcids,
                    /*uniqueDcids=*/nullptr, CR_FP_TYPE_SHA256_16, CR_DO_TYPE_8_BYTE_OFFSET);
    std::printf("built: %u segments, record size %u\n", record.GetNfp(), record.GetHeaderSize());

    int added = record.AddTaskID(42ul);
    std::printf("AddTaskID(42) -> %d, record size %u\n", added, record.GetHeaderSize());
    added = record.AddDSID(7u);
    std::printf("AddDSID(7) -> %d, record size %u\n", added, record.GetHeaderSize());
    const char payload[] = "keep-30d";
    _cr_tref_t* retention = CRTRefNew(CR_TREF_TYPE_RETENTION, payload, 8);
    if (retention == nullptr) return 1;
    added = record.AddTRef(*retention);  // stores a copy
    std::printf("AddTRef(retention) -> %d, record size %u\n", added, record.GetHeaderSize());
    added = record.AddTaskID(42ul);
    std::printf("AddTaskID(42) again -> %d, record size %u\n", added, record.GetHeaderSize());

    std::printf("%u references, in the record's order:\n", record.GetNTRefs());
    PrintReferences(record);
    std::printf("CheckTRef(retention) -> %u, HasTaskID(42) -> %d, HasDSID(8) -> %d\n",
                record.CheckTRef(retention), record.HasTaskID(42ul), record.HasDSID(8u));
    CRTRefDelete(&retention);

    // GetHeader writes the sets into the typed-reference section, the last
    // section of the buffer: each reference as [kind][length][payload].
    const DORecordHeader* stored = record.GetHeader();
    const unsigned char* section = DORecordHeaderStartTRefs(stored);
    std::printf("typed-reference section, %u bytes at offset %ld:\n", stored->trefsize,
                static_cast<long>(section - reinterpret_cast<const unsigned char*>(stored)));
    for (unsigned int i = 0; i < stored->trefsize; ++i) {
      std::printf(i % 16 == 0 ? "  %02x" : " %02x", section[i]);
      if (i % 16 == 15 || i + 1 == stored->trefsize) std::printf("\n");
    }

    const unsigned long removed = record.DelDSID(7u);
    std::printf("DelDSID(7) -> %lu, record size %u\n", removed, record.GetHeaderSize());

    // A DO record keeps task IDs, data-selection IDs, retentions and holds
    // on its own account; other kinds are refused and the record stays.
    const unsigned char file[] = {0x01, 0x02};
    _cr_tref_t* other = CRTRefNew(CR_TREF_TYPE_FILE, file, sizeof file);
    if (other == nullptr) return 1;
    try {
      record.AddTRef(*other);
      std::printf("a file reference was accepted\n");
    } catch (const Cr_ErrnoException& e) {
      std::printf("AddTRef(file) refused: status %u, \"%s\"\n", e.GetStatus(), e.what());
    }
    CRTRefDelete(&other);
    std::printf("record size %u, %u references\n", record.GetHeaderSize(), record.GetNTRefs());
  } catch (const Cr_ErrnoException& e) {
    std::fprintf(stderr, "add_references: %s (status %u)\n", e.what(), e.GetStatus());
    return 1;
  }
  return 0;
}
