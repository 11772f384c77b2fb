// libFuzzer target: host -> network -> host on DO, SO and segment DB records.
#include <cstddef>
#include <cstdint>

#include "fuzz_targets.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  crfuzz::FuzzByteOrderRoundTrip(data, size);
  return 0;
}
