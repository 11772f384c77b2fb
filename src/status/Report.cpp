#include "status/Report.h"

namespace crrecord {

void ThrowStatus(cr_status_t status) { throw Cr_ErrnoException(status); }

void ThrowFixed(cr_status_t status, const char* message) {
  throw Cr_ErrnoException(status, message, nullptr);
}

void ThrowComposed(cr_status_t status, const std::ostringstream& message) {
  throw Cr_ErrnoException(status, message, nullptr);
}

void ThrowLastLogged(cr_status_t status) {
  throw Cr_ErrnoException(status, qorLogLastMessageA(), nullptr);
}

cr_status_t LastOutsideStatus() {
  cr_status_t status = *__cr_errno_location();
  return status != CR_STATUS_SUCCESS ? status : CR_STATUS_NO_MEMORY;
}

cr_status_t AllocFailure(const char* operation, const char* unit, int line, const char* format,
                         unsigned int size) {
  cr_status_t status = _crMapError(operation, unit, line);
  ErrorA(status, format, size, CRStatusToStringA(status));
  return status;
}

}  // namespace crrecord
