// Exchanges DO records all day without an allocation per record: the
// sender serializes into one buffer it keeps (SerializeInto), the receiver
// rebuilds into one buffer it keeps (the buffer constructor with a caller's
// buffer). Each buffer grows only when a record is larger than any before.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <crrecord/DORecordSerialized.h>
#include <crrecord/common/Endian.h>
#include <crrecord/crrecord.h>

namespace {

// A buffer kept across calls; the record buffer must be 8-byte aligned,
// which malloc's memory is.
struct Reused {
  void* data = nullptr;
  unsigned long size = 0;
  int grown = 0;
  ~Reused() { std::free(data); }
  bool Reserve(unsigned long n) {
    if (n <= size) return true;
    void* bigger = std::realloc(data, n);
    if (bigger == nullptr) return false;
    data = bigger;
    size = n;
    ++grown;
    return true;
  }
};

// A record of `n` segments (DO type 0: fingerprints only), MD5-fingerprinted.
DORecord MakeRecord(unsigned int n) {
  std::vector<unsigned char> segments;
  std::vector<unsigned long> dcids;
  for (unsigned int i = 0; i < n; ++i) {
    crfp_digest_t fp;
    CRFPCompute(CR_FP_TYPE_MD5, &i, sizeof i, &fp);
    segments.insert(segments.end(), fp.digest, fp.digest + 16);
    dcids.push_back(64 + i % 3);
  }
  return DORecord(/*dcid=*/100, /*size=*/4096ul * n, /*ssize=*/4096, /*crc=*/0, 0, 0,
                  segments.data(), n, dcids.data(), nullptr, CR_FP_TYPE_MD5,
                  CR_DO_TYPE_ORIGINAL);
}

}  // namespace

int main() {
  Reused wire;      // the sender's serialized form
  Reused received;  // the receiver's record buffer
  const unsigned int counts[] = {40, 10, 25, 40, 3};
  try {
    for (unsigned int n : counts) {
      const DORecord sent = MakeRecord(n);

      // Sender: the exact size first, then the form into the kept buffer.
      if (!wire.Reserve(sent.GetSerializedSize())) return 1;
      unsigned long formSize = 0;
      if (sent.SerializeInto(wire.data, wire.size, &formSize, /*checksum=*/false) != 0) return 1;

      // Receiver: the segment count in the head tells the record's size.
      const unsigned char* form = static_cast<const unsigned char*>(wire.data);
      const uint32_t nfp = crrecord::LoadBE32(form + crrecord::serialized::kNfpAt);
      const unsigned long needed =
          DORecordHeaderSizeRaw(0, nfp, 0, 0, CR_DO_TYPE_ORIGINAL, CR_FP_TYPE_MD5, 0);
      if (!received.Reserve(needed)) return 1;
      const DORecord rebuilt(CR_DO_TYPE_ORIGINAL, CR_DO_FLAGS_NEW, 100, CR_FP_TYPE_MD5,
                             received.data, received.size, wire.data, formSize, false);
      std::printf("%2u segments: %4lu bytes sent, record of %4lu bytes rebuilt, %s\n", n,
                  formSize, needed, rebuilt == sent ? "equal" : "DIFFERENT");
    }

    // A buffer too small is refused before a byte is written.
    const DORecord big = MakeRecord(50);
    unsigned long formSize = 0;
    std::printf("into a buffer of %lu bytes for a form of %lu: status %u\n", wire.size,
                big.GetSerializedSize(),
                big.SerializeInto(wire.data, wire.size, &formSize, false));
  } catch (const Cr_ErrnoException& e) {
    std::fprintf(stderr, "exchange_reuse: %s (status %u)\n", e.what(), e.GetStatus());
    return 1;
  }
  std::printf("buffers grown: sender %d, receiver %d, for %zu records\n", wire.grown,
              received.grown, sizeof counts / sizeof counts[0]);
  return 0;
}
