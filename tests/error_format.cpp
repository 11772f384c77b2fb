// ErrorA is wrapped at link time (--wrap with its mangled name, as it has
// C++ linkage): the wrapper keeps the format, formats the text on the stack
// (allocating nothing, for the allocation sweeps) and hands it to the real
// ErrorA, so sinks and qorLogLastMessageA see what they always see.
#include "error_format.h"

#include <cstdarg>
#include <cstdio>

#include "crrecord/platform/status.h"

extern "C" void __real__Z6ErrorAjPKcz(cr_status_t status, const char* format, ...);
extern "C" void __wrap__Z6ErrorAjPKcz(cr_status_t status, const char* format, ...);

static const char* gLastFormat = nullptr;

void __wrap__Z6ErrorAjPKcz(cr_status_t status, const char* format, ...) {
  gLastFormat = format;
  char text[1024];
  va_list args;
  va_start(args, format);
  std::vsnprintf(text, sizeof text, format, args);
  va_end(args);
  __real__Z6ErrorAjPKcz(status, "%s", text);
}

const char* crtest::LastErrorFormat() { return gLastFormat; }
void crtest::ClearErrorFormat() { gLastFormat = nullptr; }
