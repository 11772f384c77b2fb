// Serializes a DO record into its big-endian exchange form, "sends" the
// bytes (through a stream, as a socket or a file would carry them), and
// rebuilds the record on the other side. Shows the head of the form, the
// Adler-32 that protects it, that the rebuilt record equals the original,
// and how a damaged form is refused.
#include <cstdio>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include <crrecord/crrecord.h>

namespace {

template <typename T>
void Put(std::vector<unsigned char>& out, T value) {
  unsigned char bytes[sizeof(T)];
  std::memcpy(bytes, &value, sizeof(T));
  out.insert(out.end(), bytes, bytes + sizeof(T));
}

unsigned int LoadBE32(const unsigned char* p) {
  return (unsigned{p[0]} << 24) | (unsigned{p[1]} << 16) | (unsigned{p[2]} << 8) | p[3];
}

// What the wire delivers: the bytes the sender wrote, in a buffer of the
// receiver's own.
std::vector<unsigned char> Transmit(const void* data, unsigned long size) {
  std::stringstream wire;
  wire.write(static_cast<const char*>(data), static_cast<std::streamsize>(size));
  const std::string received = wire.str();
  return std::vector<unsigned char>(received.begin(), received.end());
}

void PrintHex(const char* label, const unsigned char* p, unsigned int n) {
  std::printf("%s", label);
  for (unsigned int i = 0; i < n; ++i) std::printf(" %02x", p[i]);
  std::printf("\n");
}

}  // namespace

int main() {
  // Two segments of a 4,000-byte file (DO type 2: fingerprint, then size),
  // fingerprinted with SHA-256 (32 bytes, 64 hex digits as text).
  const char* chunks[] = {"alpha", "beta"};
  const unsigned int sizes[] = {3000, 1000};
  const unsigned long dcids[] = {64, 70};
  std::vector<unsigned char> segments;
  for (int i = 0; i < 2; ++i) {
    crfp_digest_t fp;
    if (CRFPCompute(CR_FP_TYPE_SHA256, chunks[i], std::strlen(chunks[i]), &fp) != 0) return 1;
    segments.insert(segments.end(), fp.digest, fp.digest + 32);
    Put(segments, sizes[i]);
  }

  try {
    DORecord original(/*dcid=*/100, /*size=*/4000, /*ssize=*/0, /*crc=*/0xCAFE,
                      /*ctime=*/1700000000, /*mtime=*/1700000000, segments.data(), 2, dcids,
                      nullptr, CR_FP_TYPE_SHA256, CR_DO_TYPE_NO_OFFSET);

    // With the checksum: the head carries the Adler-32 of the body.
    void* form = nullptr;
    unsigned long formSize = 0;
    cr_status_t status = original.Serialize(&form, &formSize, /*checksum=*/true);
    if (status != CR_STATUS_SUCCESS) return 1;
    const unsigned char* bytes = static_cast<const unsigned char*>(form);
    std::printf("serialized with checksum: %lu bytes (29 + 2 x (65 + 4 + 8))\n", formSize);
    PrintHex("  head:", bytes, 28);
    std::printf("  fingerprint text of segment 0: %.64s\n", bytes + 28);
    const unsigned int adler = DORecordAdler32(bytes + 28, formSize - 28);
    std::printf("  Adler-32 of the body %08x, in the head %08x: %s\n", adler, LoadBE32(bytes + 16),
                adler == LoadBE32(bytes + 16) ? "match" : "MISMATCH");
    std::printf("  DORecordSerializedHasAdler32: %s\n",
                DORecordSerializedHasAdler32(form, formSize) ? "yes" : "no");
    DORecord::SerializedDORecordFree(&form);

    // Without it the head carries the record's CRC, so the rebuilt record
    // has every field that operator== compares.
    status = original.Serialize(&form, &formSize, /*checksum=*/false);
    if (status != CR_STATUS_SUCCESS) return 1;
    std::vector<unsigned char> received = Transmit(form, formSize);
    DORecord::SerializedDORecordFree(&form);
    std::printf("sent %zu bytes without checksum, CRC in the head %08x\n", received.size(),
                LoadBE32(received.data() + 16));

    // The form carries no DO type, fingerprint type, flags or container ID:
    // the receiver knows them and completes the header.
    DORecord rebuilt(CR_DO_TYPE_NO_OFFSET, CR_DO_FLAGS_NEW, /*dcid=*/100, CR_FP_TYPE_SHA256,
                     /*buffer=*/nullptr, 0, received.data(), received.size(), /*subDO=*/false);
    std::printf("rebuilt: %u segments of %u and %u bytes in containers %lu and %lu, CRC %08x\n",
                rebuilt.GetNfp(), rebuilt.GetSegmentSize(0), rebuilt.GetSegmentSize(1),
                rebuilt.GetSegmentDCID(0), rebuilt.GetSegmentDCID(1), rebuilt.GetCrc());
    std::printf("rebuilt record equals the original: %s\n", rebuilt == original ? "yes" : "no");

    // A fingerprint text that is not hex is refused; nothing is built.
    received[28] = 'g';
    try {
      DORecord damaged(CR_DO_TYPE_NO_OFFSET, CR_DO_FLAGS_NEW, 100, CR_FP_TYPE_SHA256, nullptr, 0,
                       received.data(), received.size(), false);
      std::printf("the damaged form was accepted\n");
    } catch (const Cr_ErrnoException& e) {
      std::printf("damaged form refused: status %u (%s)\n", e.GetStatus(),
                  CRStatusToStringA(e.GetStatus()));
    }
    // So is a form cut short.
    try {
      DORecord cut(CR_DO_TYPE_NO_OFFSET, CR_DO_FLAGS_NEW, 100, CR_FP_TYPE_SHA256, nullptr, 0,
                   received.data(), 100, false);
      std::printf("the short form was accepted\n");
    } catch (const Cr_ErrnoException& e) {
      std::printf("short form refused: status %u (%s)\n", e.GetStatus(),
                  CRStatusToStringA(e.GetStatus()));
    }
  } catch (const Cr_ErrnoException& e) {
    std::fprintf(stderr, "serialize_rebuild: %s (status %u)\n", e.what(), e.GetStatus());
    return 1;
  }
  return 0;
}
