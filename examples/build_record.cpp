// Builds the DO record of a small file cut into three segments and prints
// its text form, then adds a task ID and prints its sizes.
#include <cstring>
#include <iostream>
#include <vector>

#include <crrecord/crrecord.h>

int main() {
  // Three segments of a 10,000-byte file, fixed size 4096, fingerprinted
  // with SHA-256 cut to 16 bytes; the first and last share a container.
  const char* chunks[] = {"first segment", "second segment", "third segment"};
  const unsigned char fptype = CR_FP_TYPE_SHA256_16;
  std::vector<unsigned char> segments;
  for (const char* chunk : chunks) {
    crfp_digest_t fp;
    if (CRFPCompute(fptype, chunk, std::strlen(chunk), &fp) != 0) return 1;
    segments.insert(segments.end(), fp.digest, fp.digest + CRFPDigestSize(fptype));
  }
  const unsigned long dcids[] = {64, 65, 64};

  try {
    DORecord record(/*dcid=*/100, /*size=*/10000, /*ssize=*/4096, /*crc=*/0x1234,
                    /*ctime=*/1700000000, /*mtime=*/1700000000, segments.data(), 3, dcids,
                    /*uniqueDcids=*/nullptr, fptype, CR_DO_TYPE_NO_SIZE);
    // The text form before the reference: adding one stamps mtime with the
    // current time.
    record.ToStream(std::cout, false);
    record.AddTaskID(42ul);
    std::cout << "\nrecord size: " << record.GetHeaderSize() << " bytes, "
              << record.GetNfp() << " segments, " << record.GetNtaskid() << " task ID\n";
  } catch (const Cr_ErrnoException& e) {
    std::cerr << "build_record: " << e.what() << " (status " << e.GetStatus() << ")\n";
    return 1;
  }
  return 0;
}
