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
#include "images.h"

namespace {

// Each captured line as "<level>/<status>: <text>".
std::vector<std::string> Lines(const crtest::LogCapture& log) {
  std::vector<std::string> out;
  for (const crtest::LogLine& l : log.lines()) {
    out.push_back(std::to_string(l.level) + "/" + std::to_string(l.status) + ": " + l.text);
  }
  return out;
}

std::string Line(cr_log_level_t level, cr_status_t status, const std::string& text) {
  return std::to_string(level) + "/" + std::to_string(status) + ": " + text;
}

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

// The last message may itself be logged again; long messages are cut to
// the 1024-byte buffer.
TEST(PlatformStatus, ErrorAndWarningReachTheSinkAndBecomeTheLastMessage) {
  crtest::LogCapture log;
  ErrorA(9, "%s: bad kind %d", "CheckTRef", 12);
  EXPECT_STREQ(qorLogLastMessageA(), "CheckTRef: bad kind 12");
  WarningA(72, "not found %u", 5u);
  EXPECT_STREQ(qorLogLastMessageA(), "not found 5");
  ErrorA(9, "again: %s", qorLogLastMessageA());
  EXPECT_STREQ(qorLogLastMessageA(), "again: not found 5");
  ErrorA(9, "%s", std::string(3000, 'x').c_str());
  EXPECT_EQ(std::string(qorLogLastMessageA()), std::string(1023, 'x'));
  EXPECT_EQ(Lines(log), (std::vector<std::string>{
                            Line(CR_LOG_ERROR, 9, "CheckTRef: bad kind 12"),
                            Line(CR_LOG_WARNING, 72, "not found 5"),
                            Line(CR_LOG_ERROR, 9, "again: not found 5"),
                            Line(CR_LOG_ERROR, 9, std::string(1023, 'x'))}));
}

TEST(PlatformStatus, TraceLinesFollowTheSwitchAndLeaveTheLastMessage) {
  crtest::LogCapture log;  // tracing off
  EXPECT_FALSE(TraceOn());
  ErrorA(9, "kept");
  CR_TRACE("hidden %d", 1);
  __Trace("hidden %d", 2);
  CRTraceSet(true);
  EXPECT_TRUE(TraceOn());
  CR_TRACE("offset %lu: %s", 40ul, "truncated input");
  EXPECT_EQ(Lines(log), (std::vector<std::string>{
                            Line(CR_LOG_ERROR, 9, "kept"),
                            Line(CR_LOG_TRACE, 0, "offset 40: truncated input")}));
  EXPECT_STREQ(qorLogLastMessageA(), "kept");
}

// Resetting the sink stops delivery to the old one: lines go to stderr.
TEST(PlatformStatus, DefaultSinkWritesOneLineOnStderr) {
  {
    crtest::LogCapture log;
    ErrorA(9, "captured");
    ASSERT_EQ(log.texts(), std::vector<std::string>{"captured"});
  }
  testing::internal::CaptureStderr();
  ErrorA(9, "after");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "crrecord: error 9: after\n");
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

TEST(PlatformStatus, LastMessageAndStatusWordArePerThread) {
  crtest::LogCapture log;
  ErrorA(9, "main thread");
  *__cr_errno_location() = 9;
  std::string before, after;
  cr_status_t statusBefore = 1, statusAfter = 1;
  std::thread other([&] {
    before = qorLogLastMessageA();
    statusBefore = *__cr_errno_location();
    ErrorA(22, "other thread");
    *__cr_errno_location() = 65;
    after = qorLogLastMessageA();
    statusAfter = *__cr_errno_location();
  });
  other.join();
  EXPECT_EQ(before + "|" + after, "|other thread");
  EXPECT_EQ(statusBefore, 0u);
  EXPECT_EQ(statusAfter, 65u);
  EXPECT_STREQ(qorLogLastMessageA(), "main thread");
  EXPECT_EQ(*__cr_errno_location(), 9u);
  *__cr_errno_location() = 0;
}

TEST(PlatformStatus, MapErrorTranslatesErrnoWithoutLogging) {
  crtest::LogCapture log;
  for (auto c : {std::make_pair(ENOMEM, 22u), std::make_pair(0, 22u), std::make_pair(EINVAL, 9u),
                 std::make_pair(EACCES, 1000u + EACCES)}) {
    errno = c.first;
    EXPECT_EQ(_crMapError("SegmentRecordSerialize", "SOmarshall", 20), c.second) << c.first;
  }
  EXPECT_STREQ(CRStatusToStringA(1000u + EACCES), "Permission denied");
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

// Cut with a terminator, an exact fit, no room (nothing written), and null
// arguments.
TEST(PlatformStatus, BoundedCopyCutsAndTerminates) {
  char buf[8];
  std::memset(buf, '#', sizeof buf);
  EXPECT_EQ(qorstrcpy(buf, "abcdefghij", 5), buf);
  EXPECT_EQ(std::string(buf, 6), std::string("abcd\0#", 6));
  EXPECT_EQ(qorstrcpy(buf, "abc", 0), buf);
  EXPECT_EQ(buf[0], 'a');
  qorstrcpy(buf, "abcdefg", sizeof buf);
  EXPECT_STREQ(buf, "abcdefg");
  EXPECT_EQ(qorstrcpy(nullptr, "abc", 4), nullptr);
  qorstrcpy(buf, nullptr, sizeof buf);
  EXPECT_STREQ(buf, "");
}

}  // namespace
