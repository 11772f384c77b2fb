# The fuzz targets and the sources of their entry functions, shared by the
# libFuzzer build (fuzz/CMakeLists.txt) and the replay test (tests/).
set(CRRECORD_FUZZ_TARGET_NAMES
  dorecord_header_deserialize
  add_serialized_trefs
  dorecord_header_validate
  segment_record_validate
  tref_new_deserialize
  fp_string_to_digest
  do_serialize_roundtrip
  byte_order_roundtrip
)
set(CRRECORD_FUZZ_ENTRY_SOURCES
  ${CMAKE_CURRENT_LIST_DIR}/fuzz_support.cpp
  ${CMAKE_CURRENT_LIST_DIR}/dorecord_targets.cpp
  ${CMAKE_CURRENT_LIST_DIR}/sorecord_targets.cpp
  ${CMAKE_CURRENT_LIST_DIR}/platform_targets.cpp
  ${CMAKE_CURRENT_LIST_DIR}/roundtrip_targets.cpp
)

# The tool's target: its entry function needs the tool's objects
# (crrec_objects, crrec_deps), and the entry sources then carry
# CRRECORD_FUZZ_WITH_TOOL.
set(CRRECORD_FUZZ_TOOL_TARGET_NAMES crrec_load)
set(CRRECORD_FUZZ_TOOL_ENTRY_SOURCES ${CMAKE_CURRENT_LIST_DIR}/crrec_targets.cpp)
