// Status reporting: the record library's exception and reporting patterns.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "crrecord/Status.h"
#include "status/Report.h"
#include "images.h"

namespace {

// "<status> <what()>" of the exception the call throws.
template <typename F>
std::string Thrown(F call) {
  try {
    call();
  } catch (const Cr_ErrnoException& e) {
    return std::to_string(e.GetStatus()) + " " + e.what();
  }
  return "nothing thrown";
}

// Errno 0 reads as 75; the message is cut to the buffer; without a message
// the system's text is given; no buffer gives null.
TEST(ZoErrnoException, ErrnoAndStringFollowTheirRules) {
  EXPECT_EQ(Zo_ErrnoException(0).GetErrno(), 75);
  EXPECT_EQ(Zo_ErrnoException(12).GetErrno(), 12);
  EXPECT_EQ(Zo_ErrnoException(12, "text").GetErrno(), 12);
  Zo_ErrnoException e(5, "disk on fire");
  char buffer[128], small[5];
  EXPECT_EQ(e.GetString(buffer, sizeof buffer), buffer);
  EXPECT_STREQ(buffer, "disk on fire");
  e.GetString(small, sizeof small);
  EXPECT_STREQ(small, "disk");
  Zo_ErrnoException(ENOENT).GetString(buffer, sizeof buffer);
  EXPECT_STREQ(buffer, std::strerror(ENOENT));
  EXPECT_EQ(Zo_ErrnoException(ENOENT).GetString(nullptr, 10), nullptr);
  EXPECT_EQ(Zo_ErrnoException(ENOENT, "x").GetString(nullptr, 10), nullptr);
}

TEST(Report, LoggedThenThrownCarriesExactlyTheLoggedLine) {
  crtest::LogCapture log;
  const std::string text = "The type of reference tref1:01 is unsupported for a DO";
  EXPECT_EQ(Thrown([] {
              ErrorA(9, "The type of reference %s is unsupported for a DO", "tref1:01");
              crrecord::ThrowLastLogged(9);
            }),
            "9 " + text);
  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_EQ(log.lines()[0].level, CR_LOG_ERROR);
  EXPECT_EQ(log.lines()[0].status, 9u);
  EXPECT_EQ(log.lines()[0].text, text);
  EXPECT_EQ(qorLogLastMessageA(), text);
}

TEST(Report, FixedComposedAndStatusOnlyPatternsLogNothing) {
  crtest::LogCapture log;
  EXPECT_EQ(Thrown([] { crrecord::ThrowFixed(22, "Not enough memory to create DORecord."); }),
            "22 Not enough memory to create DORecord.");
  EXPECT_EQ(Thrown([] {
              std::ostringstream text;
              text << "Segment " << 3ul << " of " << 4u;
              crrecord::ThrowComposed(89, text);
            }),
            "89 Segment 3 of 4");
  EXPECT_EQ(Thrown([] { crrecord::ThrowStatus(111); }), "111 ");
  EXPECT_TRUE(log.lines().empty());
}

TEST(Report, AllocationFailureIsMappedLoggedAndReturned) {
  crtest::LogCapture log;
  errno = ENOMEM;
  EXPECT_EQ(crrecord::AllocFailure("Serialize", "DORecord", 1,
                                   "Could not serialize DO: malloc failed for %u bytes (%s)", 29),
            22u);
  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_EQ(log.lines()[0].status, 22u);
  EXPECT_EQ(log.lines()[0].text, std::string("Could not serialize DO: malloc failed for 29 bytes (") +
                                     CRStatusToStringA(22) + ")");
}

}  // namespace
