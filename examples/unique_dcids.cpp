// Computes a DO record's unique-DCID list (each container that holds a
// segment of the file, once, with the bytes of the file in it) and the
// bytes the whole object occupies per container, the record itself
// included.
#include <cstdio>
#include <cstring>
#include <map>
#include <vector>

#include <crrecord/crrecord.h>

namespace {

template <typename T>
void Put(std::vector<unsigned char>& out, T value) {
  unsigned char bytes[sizeof(T)];
  std::memcpy(bytes, &value, sizeof(T));
  out.insert(out.end(), bytes, bytes + sizeof(T));
}

void PrintLog(cr_log_level_t, cr_status_t status, const char* message, void*) {
  std::printf("  log (status %u): %s\n", status, message);
}

}  // namespace

int main() {
  CRLogSetSink(&PrintLog, nullptr);

  // Three segments of 100, 200 and 300 bytes; the first and the last lie in
  // container 500, the middle one in container 70.
  const char* chunks[] = {"one", "two", "three"};
  const unsigned int sizes[] = {100, 200, 300};
  const unsigned long dcids[] = {500, 70, 500};
  std::vector<unsigned char> segments;
  for (int i = 0; i < 3; ++i) {
    crfp_digest_t fp;
    if (CRFPCompute(CR_FP_TYPE_MD5, chunks[i], std::strlen(chunks[i]), &fp) != 0) return 1;
    segments.insert(segments.end(), fp.digest, fp.digest + 16);
    Put(segments, sizes[i]);
  }

  try {
    DORecord record(/*dcid=*/900, /*size=*/600, /*ssize=*/0, /*crc=*/0, 1700000000, 1700000000,
                    segments.data(), 3, dcids, nullptr, CR_FP_TYPE_MD5, CR_DO_TYPE_NO_OFFSET);
    std::printf("record size %u, %u unique DCIDs\n", record.GetHeaderSize(), record.GetNudcid());

    // Appended while the record has no typed references: the section goes
    // where the typed-reference section would start.
    cr_status_t status = record.AppendBloomAndUniqueDCIDList();
    std::printf("AppendBloomAndUniqueDCIDList -> %u: record size %u, %u unique DCIDs, "
                "section of %u bytes\n",
                status, record.GetHeaderSize(), record.GetNudcid(), record.GetUDCIDSize());
    for (unsigned int i = 0; i < record.GetNudcid(); ++i) {
      unsigned long bytes;
      std::memcpy(&bytes, record.GetSegmentUDCIDList() + 16 + 16 * i, sizeof bytes);
      std::printf("  container %lu holds %lu bytes of the file\n", record.GetSegmentUDCID(i),
                  bytes);
    }

    // The record itself (its size less the header) is charged to its own
    // container, 900, which holds no segment: it gets an entry of its own.
    std::map<unsigned long, unsigned long> perContainer;
    status = record.GetUDCIDSizeList(perContainer);
    std::printf("GetUDCIDSizeList -> %u, DO body %lu bytes:\n", status, record.GetDOSize());
    for (const auto& entry : perContainer) {
      std::printf("  container %lu: %lu bytes\n", entry.first, entry.second);
    }

    // With its container among the segments' ones, the body is added there.
    record.SetDCID(70);
    status = record.GetUDCIDSizeList(perContainer);
    std::printf("after SetDCID(70), GetUDCIDSizeList -> %u:\n", status);
    for (const auto& entry : perContainer) {
      std::printf("  container %lu: %lu bytes\n", entry.first, entry.second);
    }

    // Once the record has references the list can no longer be appended.
    record.AddTaskID(42ul);
    status = record.AppendBloomAndUniqueDCIDList();
    std::printf("with a reference, AppendBloomAndUniqueDCIDList -> %u\n", status);
  } catch (const Cr_ErrnoException& e) {
    std::fprintf(stderr, "unique_dcids: %s (status %u)\n", e.what(), e.GetStatus());
    return 1;
  }
  return 0;
}
