// Status and logging: the stand-in for the service's status and logging
// component. Every status is a cr_status_t (0 = success); failures of the
// fingerprint and typed-reference layers leave their status in the calling
// thread's CR errno (__cr_errno_location).
#ifndef CRRECORD_PLATFORM_STATUS_H
#define CRRECORD_PLATFORM_STATUS_H

#include <cstddef>
#include <exception>
#include <sstream>
#include <string>

#include "crrecord/platform/export.h"

typedef unsigned int cr_status_t;  // 0 = success

// The status numbers used across the CR libraries.
enum : cr_status_t {
  CR_STATUS_SUCCESS = 0,
  CR_STATUS_INVALID = 9,             // argument or state not allowed
  CR_STATUS_NO_MEMORY = 22,          // memory exhausted
  CR_STATUS_INVALID_RECORD = 32,     // a record that fails validation
  CR_STATUS_MISSING_ARGUMENT = 65,   // a required argument is null
  CR_STATUS_MIXED_REFERENCES = 71,   // old references and typed references together
  CR_STATUS_NOT_FOUND = 72,          // a reference looked for and not found
  CR_STATUS_CORRUPT_SEGMENTS = 89,   // a corrupt segment list
  CR_STATUS_INVALID_FPTYPE = 111,    // fingerprint type refused
  CR_STATUS_INVALID_DOTYPE = 113,    // DO type refused
  CR_STATUS_TRUNCATED = 120,         // input ends before the item it announces
  CR_STATUS_MALFORMED = 121,         // input that is not in the expected form
  CR_STATUS_NO_ROOM = 122,           // an output buffer too small for the result
};

// The exception the CR libraries throw. It carries a status and a message;
// the detail text is accepted for compatibility and not kept.
class CRRECORD_PLATFORM_API Cr_ErrnoException : public std::exception {
 public:
  explicit Cr_ErrnoException(cr_status_t status);
  Cr_ErrnoException(cr_status_t status, const char* message, const char* detail);
  Cr_ErrnoException(cr_status_t status, const std::ostringstream& message, const char* detail);
  Cr_ErrnoException(cr_status_t status, const std::stringstream& message, const char* detail);
  ~Cr_ErrnoException() override;

  cr_status_t GetStatus() const noexcept;
  // Exactly the message; "" when the exception carries only a status.
  const char* what() const noexcept override;

 private:
  cr_status_t status_;
  std::string message_;
};

// Logging. Each call formats its message, remembers it as the calling
// thread's last message and hands it to the sink.
CRRECORD_PLATFORM_API void ErrorA(cr_status_t status, const char* format, ...)
    __attribute__((format(printf, 2, 3)));
CRRECORD_PLATFORM_API void WarningA(cr_status_t status, const char* format, ...)
    __attribute__((format(printf, 2, 3)));
// The calling thread's last ErrorA/WarningA text ("" when there was none).
CRRECORD_PLATFORM_API const char* qorLogLastMessageA();
CRRECORD_PLATFORM_API bool TraceOn();
CRRECORD_PLATFORM_API void __Trace(const char* format, ...) __attribute__((format(printf, 1, 2)));

// The calling thread's status word.
CRRECORD_PLATFORM_API cr_status_t* __cr_errno_location();
// Maps the system's errno after a failed call to a status (ENOMEM -> 22).
CRRECORD_PLATFORM_API cr_status_t _crMapError(const char* operation, const char* file, int line);
// Printable text of a status; never null.
CRRECORD_PLATFORM_API const char* CRStatusToStringA(cr_status_t status);
// Bounded copy; always NUL-terminates when size > 0. Returns dst.
CRRECORD_PLATFORM_API char* qorstrcpy(char* dst, const char* src, size_t size);

enum cr_log_level_t { CR_LOG_ERROR, CR_LOG_WARNING, CR_LOG_TRACE };
typedef void (*cr_log_sink_t)(cr_log_level_t level, cr_status_t status, const char* message,
                              void* context);
// Routes every log and trace line to `sink`; a null sink restores the default
// (one line per message on stderr). The sink may be called from any thread.
CRRECORD_PLATFORM_API void CRLogSetSink(cr_log_sink_t sink, void* context);
// What TraceOn answers; off by default.
CRRECORD_PLATFORM_API void CRTraceSet(bool on);

#endif  // CRRECORD_PLATFORM_STATUS_H
