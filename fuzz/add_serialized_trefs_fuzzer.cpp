// libFuzzer target: AddSerializedTRefs, and convertToTRefs through the stored-record constructor.
#include <cstddef>
#include <cstdint>

#include "fuzz_targets.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  crfuzz::FuzzAddSerializedTRefs(data, size);
  return 0;
}
