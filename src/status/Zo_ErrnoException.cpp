#include <cstring>

#include "crrecord/Status.h"

namespace {
// The number reported for an exception that carries no error number.
constexpr int kNoErrno = 75;
}  // namespace

Zo_ErrnoException::Zo_ErrnoException(int errnum) : errnum_(errnum) {}

Zo_ErrnoException::Zo_ErrnoException(int errnum, const char* message)
    : errnum_(errnum), message_(message != nullptr ? message : "") {}

Zo_ErrnoException::~Zo_ErrnoException() = default;

int Zo_ErrnoException::GetErrno() const { return errnum_ != 0 ? errnum_ : kNoErrno; }

char* Zo_ErrnoException::GetString(char* buffer, unsigned long size) const {
  if (!message_.empty()) {
    return qorstrcpy(buffer, message_.c_str(), size);
  }
  char scratch[64];
  const char* text = strerror_r(errnum_, scratch, sizeof scratch);  // GNU: returns the text
  if (text != nullptr) {
    return qorstrcpy(buffer, text, size);
  }
  if (buffer != nullptr && size != 0) {
    buffer[0] = '\0';
  }
  return buffer;
}
