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

// Every row's fields have one of the shapes SwapSegmentFields has a loop
// for: a u32, a u32 and a u64, or two u32s.
constexpr bool ShapesHaveLoops() {
  for (const DOTypeLayout& l : kDOTypeLayouts) {
    if (l.count == 0) continue;
    if (l.fields[0].width != 4) return false;
    if (l.count == 2 && l.fields[1].width != 4 && l.fields[1].width != 8) return false;
  }
  return true;
}
static_assert(ShapesHaveLoops(), "a new shape of segment fields needs its loop here");

}  // namespace

void SwapSegmentFields(const unsigned char* src, unsigned int srcStride, unsigned char* dst,
                       unsigned int dstStride, uint32_t count, unsigned char dotype) {
  const DOTypeLayout* l = FindDOTypeLayout(dotype);
  if (l == nullptr || l->count == 0) return;
  // The rows' fields are packed in order, the first a u32 (ShapesHaveLoops),
  // so the second starts 4 bytes in.
  const unsigned second = l->count > 1 ? l->fields[1].width : 0;
  if (second == 0) return SwapLoop<4, 0>(src, srcStride, dst, dstStride, count);
  if (second == 8) return SwapLoop<4, 8>(src, srcStride, dst, dstStride, count);
  SwapLoop<4, 4>(src, srcStride, dst, dstStride, count);
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
