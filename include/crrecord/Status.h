/// @file
/// Status and error reporting of the record library.
///
/// Operations that build or change a record throw Cr_ErrnoException;
/// serialization, the unique-DCID operations and the segment DB record
/// functions return a cr_status_t. The numbers are those of
/// <crrecord/platform/status.h> (CR_STATUS_*).
#ifndef CRRECORD_STATUS_H
#define CRRECORD_STATUS_H

#include <string>

#include "crrecord/export.h"
#include "crrecord/platform/status.h"

/// An exception carrying a system error number and, optionally, a message.
/// It is not derived from std::exception; catch it by its own type.
class CRRECORD_API Zo_ErrnoException {
 public:
  /// An exception with a system error number (errno value) and no message.
  explicit Zo_ErrnoException(int errnum);
  /// An exception with an error number and a copy of @p message (null
  /// counts as no message). Throws std::bad_alloc when the copy fails.
  Zo_ErrnoException(int errnum, const char* message);
  /// Releases the message.
  virtual ~Zo_ErrnoException();

  /// The stored error number; 75 when it is 0.
  virtual int GetErrno() const;
  /// Writes the message, or the system text of the error number when there is
  /// no message, into @p buffer (bounded by @p size, always NUL-terminated
  /// when @p size > 0) and returns @p buffer. A null buffer is returned
  /// unchanged.
  virtual char* GetString(char* buffer, unsigned long size) const;

 private:
  int errnum_;
  std::string message_;
};

#endif  // CRRECORD_STATUS_H
