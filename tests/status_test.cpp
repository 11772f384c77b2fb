// Status and logging: the platform's status texts, log lines and per-thread
// last message and status word; the record library's exception and its
// reporting patterns, each with its status, text and log lines.
#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "crrecord/Status.h"
#include "crrecord/platform/status.h"
#include "status/Report.h"
#include "test_support.h"

namespace {

TEST(PlatformStatus, KnownTexts) {
  const std::pair<cr_status_t, const char*> rows[] = {
      {0, "success"}, {9, "invalid argument or state"}, {22, "out of memory"},
      {32, "invalid record"}, {65, "missing argument"}, {72, "reference not found"},
      {71, "old references and typed references mixed"}, {89, "corrupt segment list"},
      {111, "invalid fingerprint type"}, {113, "invalid DO type"}, {120, "truncated input"},
      {121, "malformed input"}, {122, "output buffer too small"},
      {1000 + EACCES, "Permission denied"}, {1, "unknown status"}, {123, "unknown status"},
      {1000, "unknown status"}, {1000 + 4096, "unknown status"}, {UINT_MAX, "unknown status"}};
  for (const auto& row : rows) EXPECT_STREQ(CRStatusToStringA(row.first), row.second) << row.first;
  // errno to status, logging nothing
  crtest::LogCapture log;
  for (auto c : {std::make_pair(ENOMEM, 22u), std::make_pair(0, 22u), std::make_pair(EINVAL, 9u),
                 std::make_pair(EACCES, 1000u + EACCES)}) {
    errno = c.first;
    EXPECT_EQ(_crMapError("SegmentRecordSerialize", "SOmarshall", 20), c.second) << c.first;
  }
  EXPECT_TRUE(log.lines().empty());
  EXPECT_STREQ(Cr_ErrnoException(32, static_cast<const char*>(nullptr), nullptr).what(), "");
  // The bounded copy: nothing to copy from, or nowhere to copy to.
  char buf[4] = "abc";
  EXPECT_STREQ(qorstrcpy(buf, nullptr, sizeof buf), "");
  EXPECT_EQ(qorstrcpy(nullptr, "abc", 4), nullptr);
}

// Lines reach the sink as they are made, trace lines only while tracing is
// on; the last message (itself loggable again) is cut to 1023 bytes; with
// no sink, each line goes to stderr in its own format.
TEST(PlatformStatus, LogLinesAndTheLastMessage) {
  {
    crtest::LogCapture log;
    ErrorA(9, "%s: bad kind %d", "CheckTRef", 12);
    CR_TRACE("hidden %d", 1);
    WarningA(72, "not found %u", 5u);
    ErrorA(9, "again: %s", qorLogLastMessageA());
    CRTraceSet(true);
    CR_TRACE("offset %lu: %s", 40ul, "truncated input");
    EXPECT_STREQ(qorLogLastMessageA(), "again: not found 5");
    ErrorA(9, "%s", std::string(3000, 'x').c_str());
    EXPECT_EQ(std::string(qorLogLastMessageA()), std::string(1023, 'x'));
    std::string lines;
    for (const crtest::LogLine& l : log.lines()) {
      lines += std::to_string(l.level) + "/" + std::to_string(l.status) + " " + l.text + "\n";
    }
    EXPECT_EQ(lines, std::to_string(CR_LOG_ERROR) + "/9 CheckTRef: bad kind 12\n" +
                         std::to_string(CR_LOG_WARNING) + "/72 not found 5\n" +
                         std::to_string(CR_LOG_ERROR) + "/9 again: not found 5\n" +
                         std::to_string(CR_LOG_TRACE) + "/0 offset 40: truncated input\n" +
                         std::to_string(CR_LOG_ERROR) + "/9 " + std::string(1023, 'x') + "\n");
  }
  EXPECT_FALSE(TraceOn());
  CRTraceSet(true);
  testing::internal::CaptureStderr();
  ErrorA(9, "boom %d", 1);
  WarningA(72, "gone");
  __Trace("step %d", 2);
  const std::string out = testing::internal::GetCapturedStderr();
  CRTraceSet(false);
  EXPECT_EQ(out, "crrecord: error 9: boom 1\ncrrecord: warning 72: gone\ncrrecord: trace: step 2\n");
}

TEST(PlatformStatus, LastMessageAndStatusWordArePerThread) {
  crtest::LogCapture log;
  ErrorA(9, "main thread");
  *__cr_errno_location() = 9;
  std::string seen;
  std::thread other([&] {
    seen = qorLogLastMessageA() + std::to_string(*__cr_errno_location());
    ErrorA(22, "other thread");
    *__cr_errno_location() = 65;
    seen += qorLogLastMessageA() + std::to_string(*__cr_errno_location());
  });
  other.join();
  EXPECT_EQ(seen, "0other thread65");
  EXPECT_STREQ(qorLogLastMessageA(), "main thread");
  EXPECT_EQ(*__cr_errno_location(), 9u);
  *__cr_errno_location() = 0;
}

// Errno 0 reads as 75; the message is cut to the buffer; without a message
// the system's text is given; no buffer gives null.
TEST(ZoErrnoException, ErrnoAndStringFollowTheirRules) {
  EXPECT_EQ(Zo_ErrnoException(0).GetErrno(), 75);
  EXPECT_EQ(Zo_ErrnoException(12, "text").GetErrno(), 12);
  char buffer[128], small[5];
  EXPECT_EQ(Zo_ErrnoException(5, "disk on fire").GetString(buffer, sizeof buffer), buffer);
  EXPECT_STREQ(buffer, "disk on fire");
  EXPECT_STREQ(Zo_ErrnoException(5, "disk on fire").GetString(small, sizeof small), "disk");
  EXPECT_STREQ(Zo_ErrnoException(ENOENT).GetString(buffer, sizeof buffer), std::strerror(ENOENT));
  EXPECT_EQ(Zo_ErrnoException(ENOENT).GetString(nullptr, 10), nullptr);
  EXPECT_EQ(Zo_ErrnoException(ENOENT, "x").GetString(nullptr, 10), nullptr);
}

// Each pattern's "<status> <text>" (thrown, or returned by AllocFailure)
// and the lines it logs as "<status> <text>".
TEST(Report, EveryPatternGivesItsStatusTextAndLogLines) {
  const std::string unsupported = "The type of reference tref1:01 is unsupported for a DO";
  const std::string alloc = "Could not serialize DO: malloc failed for 29 bytes (out of memory)";
  struct Row { std::function<void()> call; std::string result; std::vector<std::string> logged; };
  const Row rows[] = {
      {[] {
         ErrorA(9, "The type of reference %s is unsupported for a DO", "tref1:01");
         crrecord::ThrowLastLogged(9);
       }, "9 " + unsupported, {"9 " + unsupported}},
      {[] { crrecord::ThrowFixed(22, "Not enough memory to create DORecord."); },
       "22 Not enough memory to create DORecord.", {}},
      {[] { crrecord::ThrowStatus(111); }, "111 ", {}},
      {[] {
         errno = ENOMEM;
         const char* format = "Could not serialize DO: malloc failed for %u bytes (%s)";
         throw Cr_ErrnoException(crrecord::AllocFailure("Serialize", "DORecord", 1, format, 29));
       }, "22 ", {"22 " + alloc}},
  };
  for (const Row& row : rows) {
    crtest::LogCapture log;
    std::string result = "nothing thrown";
    try {
      row.call();
    } catch (const Cr_ErrnoException& e) {
      result = std::to_string(e.GetStatus()) + " " + e.what();
    }
    EXPECT_EQ(result, row.result);
    std::vector<std::string> logged;
    for (const crtest::LogLine& l : log.lines()) {
      logged.push_back(std::to_string(l.status) + " " + l.text);
    }
    EXPECT_EQ(logged, row.logged) << row.result;
  }
}

}  // namespace
