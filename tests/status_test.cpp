// Status and logging: the platform's status texts and log lines, and the
// record library's errno exception. The last message per thread is
// thread_test.cpp's; the reporting patterns' statuses and texts are checked
// exactly by every refusal the record tests make.
#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <string>

#include "crrecord/Status.h"
#include "crrecord/platform/status.h"
#include "status/Report.h"
#include "images.h"

namespace {

TEST(PlatformStatus, KnownTextsTheBoundedCopyAndTheErrnoException) {
  const std::pair<cr_status_t, const char*> rows[] = {
      {0, "success"}, {9, "invalid argument or state"}, {22, "out of memory"},
      {32, "invalid record"}, {65, "missing argument"}, {72, "reference not found"},
      {71, "old references and typed references mixed"}, {89, "corrupt segment list"},
      {111, "invalid fingerprint type"}, {113, "invalid DO type"}, {120, "truncated input"},
      {121, "malformed input"}, {122, "output buffer too small"},
      {1000 + EACCES, "Permission denied"}, {1, "unknown status"}, {123, "unknown status"},
      {1000, "unknown status"}, {1000 + 4096, "unknown status"}, {UINT_MAX, "unknown status"}};
  for (const auto& row : rows) EXPECT_STREQ(CRStatusToStringA(row.first), row.second) << row.first;
  errno = EINVAL;  // errno to status
  EXPECT_EQ(_crMapError("Serialize", "DORecord", 1), 9u);
  // The bounded copy: nothing to copy from, or nowhere to copy to.
  char buf[4] = "abc";
  EXPECT_STREQ(qorstrcpy(buf, nullptr, sizeof buf), "");
  EXPECT_EQ(qorstrcpy(nullptr, "abc", 4), nullptr);
  // The errno exception: errno 0 reads as 75; the message is cut to the
  // buffer; without a message the system's text is given; no buffer gives null.
  EXPECT_EQ(Zo_ErrnoException(0).GetErrno(), 75);
  char buffer[128], small[5];
  EXPECT_EQ(Zo_ErrnoException(5, "disk on fire").GetString(buffer, sizeof buffer), buffer);
  EXPECT_STREQ(buffer, "disk on fire");
  EXPECT_STREQ(Zo_ErrnoException(5, "disk on fire").GetString(small, sizeof small), "disk");
  EXPECT_STREQ(Zo_ErrnoException(ENOENT).GetString(buffer, sizeof buffer), std::strerror(ENOENT));
  EXPECT_EQ(Zo_ErrnoException(ENOENT).GetString(nullptr, 10), nullptr);
}

// Trace lines only while tracing is on; the last message (itself loggable
// again) is cut to 1023 bytes; with no sink, each line goes to stderr in
// its own format. Where a sink is set instead, every test's LogCapture
// shows.
TEST(PlatformStatus, LogLinesAndTheLastMessage) {
  testing::internal::CaptureStderr();
  ErrorA(9, "%s: bad kind %d", "CheckTRef", 12);
  CR_TRACE("hidden %d", 1);
  WarningA(72, "not found %u", 5u);
  ErrorA(9, "again: %s", qorLogLastMessageA());
  CRTraceSet(true);
  __Trace("offset %lu: %s", 40ul, "truncated input");
  EXPECT_STREQ(qorLogLastMessageA(), "again: not found 5");
  ErrorA(9, "%s", std::string(3000, 'x').c_str());
  CRTraceSet(false);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "crrecord: error 9: CheckTRef: bad kind 12\ncrrecord: warning 72: not found 5\n"
            "crrecord: error 9: again: not found 5\ncrrecord: trace: offset 40: truncated input\n"
            "crrecord: error 9: " + std::string(1023, 'x') + "\n");
  EXPECT_EQ(std::string(qorLogLastMessageA()), std::string(1023, 'x'));
}

}  // namespace
