// crrec build's fingerprinting workers: the record does not depend on the
// thread count, the file's CRC-32 is combined right from the batches', and
// an input that fails midway stops the workers cleanly (no hang, no leak).
#include <gtest/gtest.h>
#include <zlib.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "build.h"
#include "load.h"
#include "util.h"

namespace {

// Random bytes with repeated stretches, so that some segments repeat.
std::vector<unsigned char> Sample(size_t n) {
  std::vector<unsigned char> data(n);
  std::mt19937_64 rng(7);
  for (auto& b : data) b = static_cast<unsigned char>(rng());
  for (size_t at = 1 << 20; at + (1 << 18) < n; at += 3 << 20) {
    std::memcpy(&data[at], &data[0], 1 << 18);
  }
  return data;
}

// Reads like a file, then fails after `failAt` bytes.
class FailingSource : public crrec::ByteSource {
 public:
  FailingSource(const std::vector<unsigned char>& data, size_t failAt)
      : data_(data), failAt_(failAt) {}
  size_t Read(unsigned char* buffer, size_t n) override {
    if (at_ >= failAt_) throw crrec::ToolError(1, "input", "read failed");
    const size_t take = std::min(n, data_.size() - at_);
    std::memcpy(buffer, data_.data() + at_, take);
    at_ += take;
    return take;
  }

 private:
  const std::vector<unsigned char>& data_;
  size_t failAt_;
  size_t at_ = 0;
};

TEST(CrrecPipeline, RecordAndCrcAreTheSameForEveryThreadCount) {
  // 12 MiB: several batches of 4 MiB, fixed and content-defined cuts.
  const std::vector<unsigned char> data = Sample(12u << 20);
  for (crrec::ChunkerKind kind : {crrec::ChunkerKind::kFixed, crrec::ChunkerKind::kContentDefined}) {
    std::vector<unsigned char> first;
    for (unsigned threads : {1u, 3u}) {
      crrec::BuildOptions o;
      o.chunking.kind = kind;
      o.time = 1;
      o.threads = threads;
      crrec::MemorySource source(data.data(), data.size());
      const crrec::Built built = crrec::BuildRecord(source, "input", o);
      // The batches' CRC-32s combined, against one pass over the whole.
      EXPECT_EQ(built.stats.crc, crc32(0, data.data(), static_cast<uInt>(data.size())));
      EXPECT_EQ(built.stats.bytes, data.size());
      if (first.empty()) first = crrec::StoredBytes(*built.record, false);
      EXPECT_EQ(crrec::StoredBytes(*built.record, false), first) << threads << " threads";
    }
  }
}

TEST(CrrecPipeline, AFailedReadStopsTheWorkersAndPassesTheError) {
  const std::vector<unsigned char> data = Sample(12u << 20);
  crrec::BuildOptions o;
  o.threads = 2;
  FailingSource source(data, 9u << 20);
  try {
    crrec::BuildRecord(source, "input", o);
    ADD_FAILURE() << "no error";
  } catch (const crrec::ToolError& e) {
    EXPECT_EQ(e.reason(), "read failed");
  }
}

}  // namespace
