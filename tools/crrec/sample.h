// Deterministic sample data with repeated regions, for the demo job, the
// tests and `crrec gen`: the same seed and size give the same bytes on every
// machine.
#ifndef CRREC_SAMPLE_H
#define CRREC_SAMPLE_H

#include <cstdint>
#include <iosfwd>
#include <vector>

#include "build.h"

namespace crrec {

// Pseudo-random regions of 4 to 64 KiB, a third of them repeats of earlier
// ones, with short odd-length runs between some of them so that repeats
// fall at every alignment: content-defined chunking finds more of them than
// fixed-size chunking does. Memory stays bounded (a few earlier regions are
// kept to repeat), whatever the size.
class SampleSource : public ByteSource {
 public:
  SampleSource(uint64_t seed, uint64_t size);
  size_t Read(unsigned char* buffer, size_t n) override;
  uint64_t SizeHint() const override { return size_; }

 private:
  uint64_t Next();
  void NextRegion();

  uint64_t state_;
  uint64_t size_;
  uint64_t produced_ = 0;
  std::vector<unsigned char> region_;
  size_t at_ = 0;
  std::vector<std::vector<unsigned char>> kept_;
};

// The embedded default job: generate a sample, build its record, serialize
// it, rebuild it from the serialized form, verify and show it. Returns the
// exit code.
int RunDemo(std::ostream& out);

}  // namespace crrec

#endif  // CRREC_SAMPLE_H
