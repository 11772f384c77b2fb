#include "dorecord/SegmentLayout.h"

#include <cstring>
#include <type_traits>

#include "crrecord/common/Endian.h"
#include "crrecord/platform/fingerprint.h"

namespace crrecord {
namespace {

template <typename T>
inline void CopySwapped(const unsigned char* src, unsigned char* dst) {
  Store<T>(dst, ByteSwap(Load<T>(src)));
}

// One loop per shape of fields (widths fixed at compile time, 0 for none),
// so that the inner loop carries no test of the layout.
template <unsigned kFirst, unsigned kSecond>
void SwapLoop(const unsigned char* src, unsigned int srcStride, unsigned char* dst,
              unsigned int dstStride, uint32_t count) {
  using First = std::conditional_t<kFirst == 8, uint64_t, uint32_t>;
  using Second = std::conditional_t<kSecond == 8, uint64_t, uint32_t>;
  for (uint32_t i = 0; i < count; ++i, src += srcStride, dst += dstStride) {
    CopySwapped<First>(src, dst);
    if (kSecond != 0) CopySwapped<Second>(src + kFirst, dst + kFirst);
  }
}

}  // namespace

void SwapSegmentFields(const unsigned char* src, unsigned int srcStride, unsigned char* dst,
                       unsigned int dstStride, uint32_t count, unsigned char dotype) {
  const DOTypeLayout* l = FindDOTypeLayout(dotype);
  if (l == nullptr || l->count == 0) return;
  const unsigned first = l->fields[0].width;
  const unsigned second = l->count > 1 ? l->fields[1].width : 0;
  // The rows' fields are packed in order, so the second starts where the
  // first ends.
  if (first == 4 && second == 0) return SwapLoop<4, 0>(src, srcStride, dst, dstStride, count);
  if (first == 4 && second == 8) return SwapLoop<4, 8>(src, srcStride, dst, dstStride, count);
  if (first == 4 && second == 4) return SwapLoop<4, 4>(src, srcStride, dst, dstStride, count);
  // A shape no row has yet, field by field.
  for (uint32_t i = 0; i < count; ++i, src += srcStride, dst += dstStride) {
    for (unsigned int k = 0; k < l->count; ++k) {
      const SegmentFieldSpec& f = l->fields[k];
      if (f.width == 8) {
        CopySwapped<uint64_t>(src + f.at, dst + f.at);
      } else {
        CopySwapped<uint32_t>(src + f.at, dst + f.at);
      }
    }
  }
}

int WriteSerializedEntries(unsigned char* dst, const unsigned char* entry, uint32_t count,
                           unsigned char fptype, unsigned char dotype) {
  const unsigned int width = FingerprintWidth(fptype);
  const unsigned int textWidth = FingerprintTextWidth(fptype);
  const unsigned int extra = SegmentExtraWidth(dotype);
  const int status = CRFPDigestsToStrings(entry, width + extra, fptype,
                                          reinterpret_cast<char*>(dst), textWidth + extra, count);
  SwapSegmentFields(entry + width, width + extra, dst + textWidth, textWidth + extra, count,
                    dotype);
  return status;
}

}  // namespace crrecord
