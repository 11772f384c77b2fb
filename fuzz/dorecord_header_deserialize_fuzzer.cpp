// libFuzzer target: DORecordHeaderDeserialize and the DORecord constructor over a serialized record.
#include <cstddef>
#include <cstdint>

#include "fuzz_targets.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  crfuzz::FuzzHeaderDeserialize(data, size);
  return 0;
}
