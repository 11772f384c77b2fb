// The reporting patterns of the record library, each in one place so that
// every failure of one kind produces its status and text the same way.
//
//   ThrowStatus      thrown, status only (an outside routine left the status)
//   ThrowFixed       thrown, fixed text, nothing logged
//   ThrowComposed    thrown, text composed in a string stream, nothing logged
//   ThrowLastLogged  thrown with the text of the ErrorA call just before it;
//                    the caller hands ErrorA the format and values itself, so
//                    that a log sink sees the format the message is known by
//   AllocFailure     a failed allocation mapped to a status, logged, returned
//   CR_TRACE         a trace line, written only when tracing is on
#ifndef CRRECORD_SRC_STATUS_REPORT_H
#define CRRECORD_SRC_STATUS_REPORT_H

#include <sstream>

#include "crrecord/platform/status.h"

namespace crrecord {

[[noreturn]] void ThrowStatus(cr_status_t status);
[[noreturn]] void ThrowFixed(cr_status_t status, const char* message);
[[noreturn]] void ThrowComposed(cr_status_t status, const std::ostringstream& message);
[[noreturn]] void ThrowLastLogged(cr_status_t status);

// The status of the CR errno: what an outside routine left there, or 22 when
// it failed without saying why.
cr_status_t LastOutsideStatus();

// For a failed allocation of `size` bytes in `operation` (source unit `unit`,
// line `line`): maps errno to a status, logs `format` (which takes the size
// and the status text) with ErrorA and returns the status.
cr_status_t AllocFailure(const char* operation, const char* unit, int line, const char* format,
                         unsigned int size);

}  // namespace crrecord

#define CR_TRACE(...)         \
  do {                        \
    if (TraceOn()) {          \
      __Trace(__VA_ARGS__);   \
    }                         \
  } while (0)

#endif  // CRRECORD_SRC_STATUS_REPORT_H
