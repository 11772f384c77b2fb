// Status and logging: exception texts, log and trace lines through the sink,
// per-thread last message and status word, errno mapping, status texts and
// the bounded copy.
#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <string>
#include <thread>

#include "crrecord/platform/status.h"
#include "status/Report.h"
#include "test_support.h"

namespace {

TEST(PlatformStatus, ExceptionCarriesStatusAndExactMessage) {
  EXPECT_EQ(Cr_ErrnoException(9).GetStatus(), 9u);
  EXPECT_STREQ(Cr_ErrnoException(9).what(), "");
  EXPECT_STREQ(Cr_ErrnoException(32, "invalid fptype for DO", nullptr).what(),
               "invalid fptype for DO");
  EXPECT_STREQ(Cr_ErrnoException(32, static_cast<const char*>(nullptr), nullptr).what(), "");

  std::ostringstream os;
  os << "segment " << 3 << " of " << 7;
  Cr_ErrnoException fromOstream(89, os, nullptr);
  EXPECT_EQ(fromOstream.GetStatus(), 89u);
  EXPECT_STREQ(fromOstream.what(), "segment 3 of 7");

  std::stringstream ss;
  ss << "size " << 4096u;
  EXPECT_STREQ(Cr_ErrnoException(22, ss, nullptr).what(), "size 4096");
}

TEST(PlatformStatus, ErrorAndWarningReachTheSinkAndBecomeTheLastMessage) {
  crtest::LogCapture log;
  ErrorA(9, "%s: bad kind %d", "CheckTRef", 12);
  EXPECT_STREQ(qorLogLastMessageA(), "CheckTRef: bad kind 12");
  WarningA(72, "not found %u", 5u);
  EXPECT_STREQ(qorLogLastMessageA(), "not found 5");

  ASSERT_EQ(log.lines().size(), 2u);
  EXPECT_EQ(log.lines()[0].level, CR_LOG_ERROR);
  EXPECT_EQ(log.lines()[0].status, 9u);
  EXPECT_EQ(log.lines()[0].text, "CheckTRef: bad kind 12");
  EXPECT_EQ(log.lines()[1].level, CR_LOG_WARNING);
  EXPECT_EQ(log.lines()[1].status, 72u);
  EXPECT_EQ(log.lines()[1].text, "not found 5");
}

TEST(PlatformStatus, LoggingTheLastMessageItselfIsSafe) {
  crtest::LogCapture log;
  ErrorA(9, "first");
  ErrorA(9, "again: %s", qorLogLastMessageA());
  EXPECT_STREQ(qorLogLastMessageA(), "again: first");
}

TEST(PlatformStatus, LongMessagesAreCutToTheBuffer) {
  crtest::LogCapture log;
  std::string longText(3000, 'x');
  ErrorA(9, "%s", longText.c_str());
  EXPECT_EQ(std::string(qorLogLastMessageA()), std::string(1023, 'x'));
  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_EQ(log.lines()[0].text.size(), 1023u);
}

TEST(PlatformStatus, TraceLinesFollowTheSwitchAndLeaveTheLastMessage) {
  crtest::LogCapture log;  // tracing off
  EXPECT_FALSE(TraceOn());
  ErrorA(9, "kept");
  CR_TRACE("hidden %d", 1);
  __Trace("hidden %d", 2);
  EXPECT_EQ(log.lines().size(), 1u);

  CRTraceSet(true);
  EXPECT_TRUE(TraceOn());
  CR_TRACE("offset %lu: %s", 40ul, "truncated input");
  ASSERT_EQ(log.lines().size(), 2u);
  EXPECT_EQ(log.lines()[1].level, CR_LOG_TRACE);
  EXPECT_EQ(log.lines()[1].status, 0u);
  EXPECT_EQ(log.lines()[1].text, "offset 40: truncated input");
  EXPECT_STREQ(qorLogLastMessageA(), "kept");
}

TEST(PlatformStatus, DefaultSinkWritesOneLineOnStderr) {
  CRLogSetSink(nullptr, nullptr);
  CRTraceSet(true);
  testing::internal::CaptureStderr();
  ErrorA(9, "boom %d", 1);
  WarningA(72, "gone");
  __Trace("step %d", 2);
  std::string out = testing::internal::GetCapturedStderr();
  CRTraceSet(false);
  EXPECT_EQ(out, "crrecord: error 9: boom 1\ncrrecord: warning 72: gone\ncrrecord: trace: step 2\n");
}

TEST(PlatformStatus, ResettingTheSinkStopsDeliveryToTheOldOne) {
  std::string seen;
  {
    crtest::LogCapture log;
    ErrorA(9, "captured");
    ASSERT_EQ(log.texts(), std::vector<std::string>{"captured"});
  }
  testing::internal::CaptureStderr();
  ErrorA(9, "after");
  seen = testing::internal::GetCapturedStderr();
  EXPECT_EQ(seen, "crrecord: error 9: after\n");
}

TEST(PlatformStatus, LastMessageAndStatusWordArePerThread) {
  crtest::LogCapture log;
  ErrorA(9, "main thread");
  *__cr_errno_location() = 9;

  std::string otherBefore, otherAfter;
  cr_status_t otherStatusBefore = 1, otherStatusAfter = 1;
  std::thread other([&] {
    otherBefore = qorLogLastMessageA();
    otherStatusBefore = *__cr_errno_location();
    ErrorA(22, "other thread");
    *__cr_errno_location() = 65;
    otherAfter = qorLogLastMessageA();
    otherStatusAfter = *__cr_errno_location();
  });
  other.join();

  EXPECT_EQ(otherBefore, "");
  EXPECT_EQ(otherStatusBefore, 0u);
  EXPECT_EQ(otherAfter, "other thread");
  EXPECT_EQ(otherStatusAfter, 65u);
  EXPECT_STREQ(qorLogLastMessageA(), "main thread");
  EXPECT_EQ(*__cr_errno_location(), 9u);
  *__cr_errno_location() = 0;
}

TEST(PlatformStatus, MapErrorTranslatesErrnoWithoutLogging) {
  crtest::LogCapture log;
  errno = ENOMEM;
  EXPECT_EQ(_crMapError("Serialize", "DORecord", 10), 22u);
  errno = 0;
  EXPECT_EQ(_crMapError("Serialize", "DORecord", 10), 22u);
  errno = EINVAL;
  EXPECT_EQ(_crMapError("Serialize", "DORecord", 10), 9u);
  errno = EACCES;
  cr_status_t access = _crMapError("SegmentRecordSerialize", "SOmarshall", 20);
  EXPECT_EQ(access, 1000u + EACCES);
  EXPECT_STREQ(CRStatusToStringA(access), "Permission denied");
  EXPECT_TRUE(log.lines().empty());
}

TEST(PlatformStatus, EveryStatusHasItsTextAndOthersAreUnknown) {
  const std::pair<cr_status_t, const char*> known[] = {
      {0, "success"},
      {9, "invalid argument or state"},
      {22, "out of memory"},
      {32, "invalid record"},
      {65, "missing argument"},
      {71, "old references and typed references mixed"},
      {72, "reference not found"},
      {89, "corrupt segment list"},
      {111, "invalid fingerprint type"},
      {113, "invalid DO type"},
      {120, "truncated input"},
      {121, "malformed input"},
      {122, "output buffer too small"},
  };
  for (const auto& k : known) EXPECT_STREQ(CRStatusToStringA(k.first), k.second) << k.first;
  for (cr_status_t s : {1u, 10u, 123u, 999u, 1000u, 1000u + 4096u, 5000u, UINT_MAX}) {
    EXPECT_STREQ(CRStatusToStringA(s), "unknown status") << s;
  }
}

TEST(PlatformStatus, BoundedCopyCutsAndTerminates) {
  char buf[8];
  std::memset(buf, '#', sizeof buf);
  EXPECT_EQ(qorstrcpy(buf, "abcdefghij", 5), buf);
  EXPECT_EQ(std::string(buf, 6), std::string("abcd\0#", 6));

  std::memset(buf, '#', sizeof buf);
  qorstrcpy(buf, "abcdefg", sizeof buf);  // exactly fits
  EXPECT_STREQ(buf, "abcdefg");

  std::memset(buf, '#', sizeof buf);
  EXPECT_EQ(qorstrcpy(buf, "abc", 0), buf);
  EXPECT_EQ(buf[0], '#');

  EXPECT_EQ(qorstrcpy(nullptr, "abc", 4), nullptr);
  qorstrcpy(buf, nullptr, sizeof buf);
  EXPECT_STREQ(buf, "");
}

}  // namespace
