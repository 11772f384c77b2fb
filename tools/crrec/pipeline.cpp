#include "pipeline.h"

#include <zlib.h>

#include <algorithm>

namespace crrec {

uint32_t CrcOf(const unsigned char* data, size_t length) {
  uLong crc = crc32(0L, Z_NULL, 0);
  // zlib takes at most 4 GiB - 1 a call.
  while (length > 0) {
    const uInt piece = static_cast<uInt>(std::min<size_t>(length, uInt{1} << 30));
    crc = crc32(crc, data, piece);
    data += piece;
    length -= piece;
  }
  return static_cast<uint32_t>(crc);
}

uint32_t CombineCrc(uint32_t crcA, uint32_t crcB, uint64_t lengthB) {
  return static_cast<uint32_t>(crc32_combine64(crcA, crcB, static_cast<z_off64_t>(lengthB)));
}

FingerprintPool::FingerprintPool(unsigned threads, unsigned char fptype)
    : fptype_(fptype), capacity_(threads <= 1 ? 1 : kBatchesPerWorker * threads) {
  if (threads <= 1) return;
  workers_.reserve(threads);
  for (unsigned i = 0; i < threads; ++i) workers_.emplace_back([this] { Work(); });
}

FingerprintPool::~FingerprintPool() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
  }
  queued_.notify_all();
  for (std::thread& t : workers_) t.join();
}

void FingerprintPool::Submit(Batch* batch) {
  if (workers_.empty()) {
    Hash(*batch);
    batch->done = true;
    return;
  }
  {
    std::lock_guard<std::mutex> lock(mutex_);
    queue_.push_back(batch);
  }
  queued_.notify_one();
}

void FingerprintPool::Wait(Batch& batch) {
  std::unique_lock<std::mutex> lock(mutex_);
  finished_.wait(lock, [&] { return batch.done; });
}

void FingerprintPool::Work() {
  for (;;) {
    Batch* batch = nullptr;
    {
      std::unique_lock<std::mutex> lock(mutex_);
      queued_.wait(lock, [this] { return stopping_ || !queue_.empty(); });
      if (stopping_) return;
      batch = queue_.front();
      queue_.pop_front();
    }
    Hash(*batch);
    {
      std::lock_guard<std::mutex> lock(mutex_);
      batch->done = true;
    }
    finished_.notify_all();
  }
}

void FingerprintPool::Hash(Batch& batch) const {
  batch.fingerprints.resize(batch.lengths.size());
  const unsigned char* at = batch.bytes.data();
  for (size_t k = 0; k < batch.lengths.size(); ++k) {
    if (CRFPCompute(fptype_, at, batch.lengths[k], &batch.fingerprints[k]) != 0) {
      batch.failed = *__cr_errno_location();
      batch.failedAt = k;
      return;
    }
    at += batch.lengths[k];
  }
  batch.crc = CrcOf(batch.bytes.data(), batch.bytes.size());
}

}  // namespace crrec
