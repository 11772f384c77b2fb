// The fingerprinting workers of `crrec build`: the file is cut in order on
// one thread, and batches of consecutive segments are fingerprinted (and
// their CRC-32 taken) on every core, then placed in the file's order, so
// that the record does not depend on how many threads ran.
#ifndef CRREC_PIPELINE_H
#define CRREC_PIPELINE_H

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

#include <crrecord/platform/fingerprint.h>
#include <crrecord/platform/status.h>

namespace crrec {

// A batch aims at this many bytes at least (and twice the largest segment):
// large enough that handing it over costs nothing beside hashing it.
constexpr size_t kMinBatchBytes = size_t{4} << 20;
// Batches queued or being hashed per worker: enough to keep every worker
// busy while the cutting thread places the oldest batch.
constexpr size_t kBatchesPerWorker = 3;

// The CRC-32 of the file, a batch at a time.
uint32_t CrcOf(const unsigned char* data, size_t length);
// The CRC-32 of A then B, from the CRC-32s of A and of B (B of lengthB bytes).
uint32_t CombineCrc(uint32_t crcA, uint32_t crcB, uint64_t lengthB);

// Consecutive segments, their bytes copied out of the read buffer so that
// reading goes on while they are hashed.
struct Batch {
  std::vector<unsigned char> bytes;
  std::vector<uint32_t> lengths;
  // Filled by a worker:
  std::vector<crfp_digest_t> fingerprints;
  uint32_t crc = 0;
  cr_status_t failed = 0;  // the fingerprint layer's status, 0 when every one was made
  size_t failedAt = 0;     // the segment of the batch it failed on
  bool done = false;

  void Add(const unsigned char* data, size_t length) {
    bytes.insert(bytes.end(), data, data + length);
    lengths.push_back(static_cast<uint32_t>(length));
  }
  void Clear() {
    bytes.clear();
    lengths.clear();
    failed = 0;
    failedAt = 0;
    done = false;
  }
};

// Fingerprints batches on `threads` threads; with 1 the caller's thread does
// the work in Submit, and no thread is started.
class FingerprintPool {
 public:
  FingerprintPool(unsigned threads, unsigned char fptype);
  // Stops the workers after the batch each one is hashing; batches still
  // queued are left as they are.
  ~FingerprintPool();
  FingerprintPool(const FingerprintPool&) = delete;
  FingerprintPool& operator=(const FingerprintPool&) = delete;

  // How many batches may be submitted and not yet waited for.
  size_t Capacity() const { return capacity_; }
  void Submit(Batch* batch);
  // Returns once `batch` is fingerprinted.
  void Wait(Batch& batch);

 private:
  void Work();
  void Hash(Batch& batch) const;

  unsigned char fptype_;
  size_t capacity_;
  std::mutex mutex_;
  std::condition_variable queued_;
  std::condition_variable finished_;
  std::deque<Batch*> queue_;
  bool stopping_ = false;
  std::vector<std::thread> workers_;
};

}  // namespace crrec

#endif  // CRREC_PIPELINE_H
