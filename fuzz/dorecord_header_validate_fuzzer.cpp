// libFuzzer target: DORecordHeaderValidate, then the accessors of a record that passed.
#include <cstddef>
#include <cstdint>

#include "fuzz_targets.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  crfuzz::FuzzHeaderValidate(data, size);
  return 0;
}
