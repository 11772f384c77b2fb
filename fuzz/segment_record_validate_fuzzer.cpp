// libFuzzer target: SegmentRecordValidate, then what trusts a record that passed.
#include <cstddef>
#include <cstdint>

#include "fuzz_targets.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  crfuzz::FuzzSegmentRecordValidate(data, size);
  return 0;
}
