/// @file
/// Status and logging: the stand-in for the service's status and logging
/// component. Every status is a cr_status_t (0 = success); failures of the
/// fingerprint and typed-reference layers leave their status in the calling
/// thread's CR errno (__cr_errno_location).
#ifndef CRRECORD_PLATFORM_STATUS_H
#define CRRECORD_PLATFORM_STATUS_H

#include <cstddef>
#include <exception>
#include <sstream>
#include <string>

#include "crrecord/platform/export.h"

/// A status of the CR libraries: 0 is success, every other value a failure
/// (the CR_STATUS_* numbers; system error numbers map to 1000 + errno).
typedef unsigned int cr_status_t;

/// The status numbers used across the CR libraries. CRStatusToStringA gives
/// the text of each.
enum : cr_status_t {
  CR_STATUS_SUCCESS = 0,             ///< success
  CR_STATUS_INVALID = 9,             ///< argument or state not allowed
  CR_STATUS_NO_MEMORY = 22,          ///< memory exhausted
  CR_STATUS_INVALID_RECORD = 32,     ///< a record that fails validation
  CR_STATUS_MISSING_ARGUMENT = 65,   ///< a required argument is null
  CR_STATUS_MIXED_REFERENCES = 71,   ///< old references and typed references together
  CR_STATUS_NOT_FOUND = 72,          ///< a reference looked for and not found
  CR_STATUS_CORRUPT_SEGMENTS = 89,   ///< a corrupt segment list
  CR_STATUS_INVALID_FPTYPE = 111,    ///< fingerprint type refused
  CR_STATUS_INVALID_DOTYPE = 113,    ///< DO type refused
  CR_STATUS_TRUNCATED = 120,         ///< input ends before the item it announces
  CR_STATUS_MALFORMED = 121,         ///< input that is not in the expected form
  CR_STATUS_NO_ROOM = 122,           ///< an output buffer too small for the result
};

/// The exception the CR libraries throw. It carries a status and a message;
/// the detail text is accepted for compatibility and not kept. Copyable; it
/// owns a copy of its message.
class CRRECORD_PLATFORM_API Cr_ErrnoException : public std::exception {
 public:
  /// An exception with a status and no message (what() gives "").
  explicit Cr_ErrnoException(cr_status_t status);
  /// An exception with a status and a copy of @p message (null counts as
  /// ""); @p detail is ignored. Throws std::bad_alloc when the copy fails.
  Cr_ErrnoException(cr_status_t status, const char* message, const char* detail);
  /// An exception with a status and a copy of what @p message holds;
  /// @p detail is ignored.
  Cr_ErrnoException(cr_status_t status, const std::ostringstream& message, const char* detail);
  /// An exception with a status and a copy of what @p message holds;
  /// @p detail is ignored.
  Cr_ErrnoException(cr_status_t status, const std::stringstream& message, const char* detail);
  /// Releases the message.
  ~Cr_ErrnoException() override;

  /// The status the exception was made with.
  cr_status_t GetStatus() const noexcept;
  /// Exactly the message; "" when the exception carries only a status. The
  /// text lives as long as the exception.
  const char* what() const noexcept override;

 private:
  cr_status_t status_;
  std::string message_;
};

/// Logs an error: formats @p format (printf) with the arguments, remembers
/// the text as the calling thread's last message (qorLogLastMessageA) and
/// hands it to the sink (CRLogSetSink) with level CR_LOG_ERROR and
/// @p status. Texts longer than 1023 characters are cut. Allocates nothing
/// and never fails.
CRRECORD_PLATFORM_API void ErrorA(cr_status_t status, const char* format, ...)
    __attribute__((format(printf, 2, 3)));
/// Logs a warning, as ErrorA does, with level CR_LOG_WARNING.
CRRECORD_PLATFORM_API void WarningA(cr_status_t status, const char* format, ...)
    __attribute__((format(printf, 2, 3)));
/// The calling thread's last ErrorA/WarningA text ("" when there was none).
/// The buffer belongs to the thread and is overwritten by its next log call.
CRRECORD_PLATFORM_API const char* qorLogLastMessageA();
/// Whether trace lines are written (CRTraceSet); off by default.
CRRECORD_PLATFORM_API bool TraceOn();
/// Writes a trace line (printf format) to the sink with level CR_LOG_TRACE
/// and status 0, when TraceOn() is true; does nothing otherwise. Does not
/// change the last message.
CRRECORD_PLATFORM_API void __Trace(const char* format, ...) __attribute__((format(printf, 1, 2)));

/// The calling thread's status word (the CR errno), where the fingerprint
/// and typed-reference functions leave the status of a failure. Never null;
/// valid for the life of the thread.
CRRECORD_PLATFORM_API cr_status_t* __cr_errno_location();
/// Maps the system's errno after a failed call to a status: 0 or ENOMEM give
/// 22, EINVAL gives 9, any other error number 1000 + errno. The operation,
/// file and line name the failed call and are not used otherwise.
CRRECORD_PLATFORM_API cr_status_t _crMapError(const char* operation, const char* file, int line);
/// Printable text of a status; never null; the text is static.
CRRECORD_PLATFORM_API const char* CRStatusToStringA(cr_status_t status);
/// Copies at most @p size - 1 bytes of @p src to @p dst and NUL-terminates
/// when @p size > 0; a null @p src copies "". Returns @p dst (which may be
/// null, and then nothing is written). The areas may overlap.
CRRECORD_PLATFORM_API char* qorstrcpy(char* dst, const char* src, size_t size);

/// The level of a line handed to a log sink.
enum cr_log_level_t {
  CR_LOG_ERROR,    ///< from ErrorA
  CR_LOG_WARNING,  ///< from WarningA
  CR_LOG_TRACE     ///< from __Trace (status 0)
};
/// A log sink: receives every log and trace line. @p message is the formatted
/// text alone, valid only during the call; @p context is the pointer given to
/// CRLogSetSink. Calls are serialized; a sink may log itself.
typedef void (*cr_log_sink_t)(cr_log_level_t level, cr_status_t status, const char* message,
                              void* context);
/// Routes every log and trace line to @p sink with @p context; a null sink
/// restores the default (one line per message on stderr). Once it returns,
/// the old sink is no longer running, so its context may be destroyed. The
/// sink may be called from any thread.
CRRECORD_PLATFORM_API void CRLogSetSink(cr_log_sink_t sink, void* context);
/// Switches trace lines on or off for every thread (what TraceOn answers);
/// off by default.
CRRECORD_PLATFORM_API void CRTraceSet(bool on);

#endif  // CRRECORD_PLATFORM_STATUS_H
