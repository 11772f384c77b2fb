// The format the library last handed ErrorA, for tests linked with
// crrecord_watch_error_format (tests/CMakeLists.txt): a log sink sees only
// the formatted text, and some messages are known by their format.
#ifndef CRRECORD_TESTS_ERROR_FORMAT_H
#define CRRECORD_TESTS_ERROR_FORMAT_H

namespace crtest {

// Null until the next ErrorA after ClearErrorFormat.
const char* LastErrorFormat();
void ClearErrorFormat();

}  // namespace crtest

#endif  // CRRECORD_TESTS_ERROR_FORMAT_H
