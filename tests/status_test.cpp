// Status reporting: the record library's exception and reporting patterns.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "crrecord/Status.h"
#include "status/Report.h"
#include "test_support.h"

namespace {

TEST(ZoErrnoException, ErrnoZeroReadsAs75) {
  EXPECT_EQ(Zo_ErrnoException(0).GetErrno(), 75);
  EXPECT_EQ(Zo_ErrnoException(12).GetErrno(), 12);
  EXPECT_EQ(Zo_ErrnoException(12, "text").GetErrno(), 12);
}

TEST(ZoErrnoException, GetStringGivesTheMessageCutToTheBuffer) {
  Zo_ErrnoException e(5, "disk on fire");
  char buffer[32];
  EXPECT_EQ(e.GetString(buffer, sizeof buffer), buffer);
  EXPECT_STREQ(buffer, "disk on fire");
  char small[5];
  e.GetString(small, sizeof small);
  EXPECT_STREQ(small, "disk");
}

TEST(ZoErrnoException, GetStringWithoutMessageGivesTheSystemText) {
  char buffer[128];
  Zo_ErrnoException(ENOENT).GetString(buffer, sizeof buffer);
  EXPECT_STREQ(buffer, std::strerror(ENOENT));
  EXPECT_EQ(Zo_ErrnoException(ENOENT).GetString(nullptr, 10), nullptr);
  EXPECT_EQ(Zo_ErrnoException(ENOENT, "x").GetString(nullptr, 10), nullptr);
}

TEST(Report, LoggedThenThrownCarriesExactlyTheLoggedLine) {
  crtest::LogCapture log;
  try {
    crrecord::ThrowLogged(9, "The type of reference %s is unsupported for a DO", "tref1:01");
    FAIL();
  } catch (const Cr_ErrnoException& e) {
    EXPECT_EQ(e.GetStatus(), 9u);
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_EQ(log.lines()[0].level, CR_LOG_ERROR);
    EXPECT_EQ(log.lines()[0].status, 9u);
    EXPECT_EQ(log.lines()[0].text, "The type of reference tref1:01 is unsupported for a DO");
    EXPECT_EQ(std::string(e.what()), log.lines()[0].text);
    EXPECT_STREQ(qorLogLastMessageA(), e.what());
  }
}

TEST(Report, FixedComposedAndStatusOnlyPatternsLogNothing) {
  crtest::LogCapture log;
  try {
    crrecord::ThrowFixed(22, "Not enough memory to create DORecord.");
  } catch (const Cr_ErrnoException& e) {
    EXPECT_EQ(e.GetStatus(), 22u);
    EXPECT_STREQ(e.what(), "Not enough memory to create DORecord.");
  }
  std::ostringstream text;
  text << "Segment " << 3ul << " of " << 4u;
  try {
    crrecord::ThrowComposed(89, text);
  } catch (const Cr_ErrnoException& e) {
    EXPECT_EQ(e.GetStatus(), 89u);
    EXPECT_STREQ(e.what(), "Segment 3 of 4");
  }
  try {
    crrecord::ThrowStatus(111);
  } catch (const Cr_ErrnoException& e) {
    EXPECT_EQ(e.GetStatus(), 111u);
    EXPECT_STREQ(e.what(), "");
  }
  EXPECT_TRUE(log.lines().empty());
}

TEST(Report, AllocationFailureIsMappedLoggedAndReturned) {
  crtest::LogCapture log;
  errno = ENOMEM;
  cr_status_t status = crrecord::AllocFailure(
      "Serialize", "DORecord", 1, "Could not serialize DO: malloc failed for %u bytes (%s)", 29);
  EXPECT_EQ(status, 22u);
  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_EQ(log.lines()[0].status, 22u);
  EXPECT_EQ(log.lines()[0].text, std::string("Could not serialize DO: malloc failed for 29 bytes (") +
                                     CRStatusToStringA(22) + ")");
}

TEST(Report, TraceLinesOnlyWhenTracingIsOn) {
  {
    crtest::LogCapture log(/*trace=*/false);
    CR_TRACE("invisible %d", 1);
    EXPECT_TRUE(log.lines().empty());
  }
  crtest::LogCapture log(/*trace=*/true);
  CR_TRACE("visible %d", 2);
  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_EQ(log.lines()[0].level, CR_LOG_TRACE);
  EXPECT_EQ(log.lines()[0].status, 0u);
  EXPECT_EQ(log.lines()[0].text, "visible 2");
}

}  // namespace
