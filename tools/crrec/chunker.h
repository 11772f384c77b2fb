// Cutting a byte stream into segments: fixed-size, or content-defined with a
// gear hash (FastCDC-style normalized chunking: a stricter cut condition
// before the average size and a looser one after it, no cut before the
// minimum, a forced cut at the maximum).
//
// A chunker looks only at the bytes of the segment being cut, so the caller
// streams: it hands over at least `MaxSize()` bytes (fewer only at the end
// of the input) and gets back the length of the next segment.
#ifndef CRREC_CHUNKER_H
#define CRREC_CHUNKER_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace crrec {

enum class ChunkerKind { kFixed, kContentDefined };

struct ChunkerParams {
  ChunkerKind kind = ChunkerKind::kContentDefined;
  uint32_t fixedSize = 8192;  // fixed-size segments
  uint32_t minSize = 2048;    // content-defined segments
  uint32_t avgSize = 8192;
  uint32_t maxSize = 65536;
};

// The largest segment either chunker may cut: sizes are stored in 32 bits,
// and one of 2 GiB or more reads as a byte-order mistake to the library.
constexpr uint32_t kMaxSegmentSize = 1u << 30;

// Empty when the parameters are usable; otherwise what is wrong with them.
std::string CheckChunkerParams(const ChunkerParams& p);

class Chunker {
 public:
  explicit Chunker(const ChunkerParams& params);  // REQUIRES: CheckChunkerParams is empty

  // The length of the next segment of `data`, which holds `length` bytes:
  // at least MaxSize() of them unless the input ends there. Returns 0 only
  // when length is 0.
  size_t Cut(const unsigned char* data, size_t length) const;
  uint32_t MaxSize() const;
  // The nominal segment size a record carries as its ssize.
  uint32_t NominalSize() const;
  const ChunkerParams& params() const { return params_; }

 private:
  size_t CutContentDefined(const unsigned char* data, size_t length) const;

  ChunkerParams params_;
  uint64_t maskStrict_;  // before the average size: harder to match
  uint64_t maskLoose_;   // after it: easier to match
};

// The 256 gear values, fixed for all time: changing them moves every cut
// point and so every fingerprint of a content-defined record.
const uint64_t* GearTable();

}  // namespace crrec

#endif  // CRREC_CHUNKER_H
