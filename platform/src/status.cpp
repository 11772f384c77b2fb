// Status and logging: the exception of the CR libraries, the log and trace
// calls with their per-thread last message and replaceable sink, the
// per-thread status word and the status texts.
//
// The logging path allocates nothing: it runs on out-of-memory paths, so each
// thread formats into fixed buffers of its own and messages longer than
// kLogTextSize - 1 characters are cut.
#include "crrecord/platform/status.h"

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>

// ---------------------------------------------------------------------------
// Cr_ErrnoException

Cr_ErrnoException::Cr_ErrnoException(cr_status_t status) : status_(status) {}

Cr_ErrnoException::Cr_ErrnoException(cr_status_t status, const char* message, const char*)
    : status_(status), message_(message != nullptr ? message : "") {}

Cr_ErrnoException::Cr_ErrnoException(cr_status_t status, const std::ostringstream& message,
                                     const char*)
    : status_(status), message_(message.str()) {}

Cr_ErrnoException::Cr_ErrnoException(cr_status_t status, const std::stringstream& message,
                                     const char*)
    : status_(status), message_(message.str()) {}

Cr_ErrnoException::~Cr_ErrnoException() = default;

cr_status_t Cr_ErrnoException::GetStatus() const noexcept { return status_; }

const char* Cr_ErrnoException::what() const noexcept { return message_.c_str(); }

// ---------------------------------------------------------------------------
// Logging

namespace crrecord {
namespace {

constexpr size_t kLogTextSize = 1024;

// The thread's last ErrorA/WarningA text, and a scratch buffer to format
// into: formatting straight into the last message would break a call such as
// ErrorA(s, "%s", qorLogLastMessageA()).
thread_local char tLastMessage[kLogTextSize];
thread_local char tScratch[kLogTextSize];
thread_local cr_status_t tErrno;

std::atomic<bool> gTraceOn{false};

void DefaultSink(cr_log_level_t level, cr_status_t status, const char* message, void*) {
  switch (level) {
    case CR_LOG_ERROR:
      std::fprintf(stderr, "crrecord: error %u: %s\n", status, message);
      break;
    case CR_LOG_WARNING:
      std::fprintf(stderr, "crrecord: warning %u: %s\n", status, message);
      break;
    case CR_LOG_TRACE:
      std::fprintf(stderr, "crrecord: trace: %s\n", message);
      break;
  }
}

// The sink and its context change together, and a sink is called with the
// lock held, so that once CRLogSetSink returns the old sink is no longer
// running and its context may be destroyed. The mutex is recursive so that a
// sink may itself log (its own text then replaces the one it was given).
std::recursive_mutex gSinkMutex;
cr_log_sink_t gSink = &DefaultSink;
void* gSinkContext = nullptr;

void Deliver(cr_log_level_t level, cr_status_t status, const char* text) {
  std::lock_guard<std::recursive_mutex> lock(gSinkMutex);
  gSink(level, status, text, gSinkContext);
}

void Log(cr_log_level_t level, cr_status_t status, const char* format, va_list args) {
  std::vsnprintf(tScratch, kLogTextSize, format, args);
  std::memcpy(tLastMessage, tScratch, kLogTextSize);
  Deliver(level, status, tLastMessage);
}

}  // namespace
}  // namespace crrecord

void ErrorA(cr_status_t status, const char* format, ...) {
  va_list args;
  va_start(args, format);
  crrecord::Log(CR_LOG_ERROR, status, format, args);
  va_end(args);
}

void WarningA(cr_status_t status, const char* format, ...) {
  va_list args;
  va_start(args, format);
  crrecord::Log(CR_LOG_WARNING, status, format, args);
  va_end(args);
}

const char* qorLogLastMessageA() { return crrecord::tLastMessage; }

bool TraceOn() { return crrecord::gTraceOn.load(std::memory_order_relaxed); }

void CRTraceSet(bool on) { crrecord::gTraceOn.store(on, std::memory_order_relaxed); }

// Callers ask TraceOn first (CR_TRACE) to skip formatting their arguments;
// the switch is asked again here so that tracing off means no trace lines.
void __Trace(const char* format, ...) {
  if (!TraceOn()) return;
  va_list args;
  va_start(args, format);
  std::vsnprintf(crrecord::tScratch, crrecord::kLogTextSize, format, args);
  va_end(args);
  crrecord::Deliver(CR_LOG_TRACE, CR_STATUS_SUCCESS, crrecord::tScratch);
}

void CRLogSetSink(cr_log_sink_t sink, void* context) {
  std::lock_guard<std::recursive_mutex> lock(crrecord::gSinkMutex);
  crrecord::gSink = sink != nullptr ? sink : &crrecord::DefaultSink;
  crrecord::gSinkContext = sink != nullptr ? context : nullptr;
}

// ---------------------------------------------------------------------------
// Statuses

cr_status_t* __cr_errno_location() { return &crrecord::tErrno; }

namespace {
// System error numbers other than ENOMEM and EINVAL keep their identity as
// 1000 + errno, above every status of the CR libraries, so that
// CRStatusToStringA can still name them.
constexpr cr_status_t kSystemErrorBase = 1000;
}  // namespace

// An allocation that failed without setting errno is taken as out of memory.
cr_status_t _crMapError(const char*, const char*, int) {
  int err = errno;
  if (err == 0 || err == ENOMEM) return CR_STATUS_NO_MEMORY;
  if (err == EINVAL) return CR_STATUS_INVALID;
  return kSystemErrorBase + static_cast<cr_status_t>(err);
}

const char* CRStatusToStringA(cr_status_t status) {
  switch (status) {
    case CR_STATUS_SUCCESS: return "success";
    case CR_STATUS_INVALID: return "invalid argument or state";
    case CR_STATUS_NO_MEMORY: return "out of memory";
    case CR_STATUS_INVALID_RECORD: return "invalid record";
    case CR_STATUS_MISSING_ARGUMENT: return "missing argument";
    case CR_STATUS_MIXED_REFERENCES: return "old references and typed references mixed";
    case CR_STATUS_NOT_FOUND: return "reference not found";
    case CR_STATUS_CORRUPT_SEGMENTS: return "corrupt segment list";
    case CR_STATUS_INVALID_FPTYPE: return "invalid fingerprint type";
    case CR_STATUS_INVALID_DOTYPE: return "invalid DO type";
    case CR_STATUS_TRUNCATED: return "truncated input";
    case CR_STATUS_MALFORMED: return "malformed input";
    case CR_STATUS_NO_ROOM: return "output buffer too small";
    default: break;
  }
  if (status > kSystemErrorBase && status - kSystemErrorBase < 4096) {
    // A static text per error number, safe from any thread.
    const char* text = strerrordesc_np(static_cast<int>(status - kSystemErrorBase));
    if (text != nullptr) return text;
  }
  return "unknown status";
}

char* qorstrcpy(char* dst, const char* src, size_t size) {
  if (dst == nullptr || size == 0) return dst;
  if (src == nullptr) src = "";
  size_t n = strnlen(src, size - 1);
  std::memmove(dst, src, n);
  dst[n] = '\0';
  return dst;
}
