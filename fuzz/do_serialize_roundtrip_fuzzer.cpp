// libFuzzer target: build -> Serialize -> rebuild -> compare.
#include <cstddef>
#include <cstdint>

#include "fuzz_targets.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  crfuzz::FuzzSerializeRoundTrip(data, size);
  return 0;
}
