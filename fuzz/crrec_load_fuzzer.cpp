// libFuzzer target: crrec's form recognition and loaders, then show, verify, digest and the conversions.
#include <cstddef>
#include <cstdint>

#include "fuzz_targets.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  crfuzz::FuzzCrrecLoad(data, size);
  return 0;
}
