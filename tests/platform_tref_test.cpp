// Typed references: known binary and text forms of each kind, their order,
// and each refusal with its status.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "crrecord/platform/status.h"
#include "crrecord/platform/tref.h"
#include "images.h"

namespace {

struct RefDeleter {
  void operator()(_cr_tref_t* r) const { CRTRefDelete(&r); }
};
using Ref = std::unique_ptr<_cr_tref_t, RefDeleter>;

Ref Make(unsigned kind, const std::vector<uint8_t>& payload) {
  return Ref(CRTRefNew(static_cast<cr_reftype_t>(kind), payload.data(), payload.size()));
}

// The binary form is kind, length, payload; task IDs (8 bytes) and DSIDs
// (4 bytes) read as big-endian numbers, and a task ID from another length
// takes its first bytes. Each form is read back with one more byte after
// it, which belongs to the next reference.
// The rows are in ascending order: kind, then length, then bytes.
TEST(PlatformTRef, KnownFormsAndOrder) {
  const std::vector<uint8_t> wide = crtest::PatternFP(0x10, 32), eight = crtest::PatternFP(1, 8);
  const std::string wideHex = crtest::Hex(wide.data(), 32);
  struct Row { Ref ref; std::string binary, text; unsigned long taskID; };
  const Row rows[] = {
      {Make(0, {0xF0}), "0001f0", "tref0:f0", 0xF0},
      {Make(1, wide), "0120" + wideHex, "tref1:" + wideHex, 0x1011121314151617ul},
      {Make(2, {0xFF}), "0201ff", "tref2:ff", 0xFF},
      {Make(2, {1, 2, 3}), "0203010203", "tref2:010203", 0x010203},
      {Make(2, {1, 3, 0}), "0203010300", "tref2:010300", 0x010300},
      {Ref(CRTRefNewTaskID(0x0102030405060708ul)), "0208" "0102030405060708",
       "taskid:72623859790382856", 0x0102030405060708ul},
      {Ref(CRTRefNewDSID(0xDEADBEEFu)), "0404deadbeef", "dsid:3735928559", 0xDEADBEEFu},
      {Make(4, eight), "0408" "0102030405060708", "tref4:0102030405060708", 0x0102030405060708ul},
      {Make(10, {0xF0, 0xF1, 0xF2, 0xF3}), "0a04f0f1f2f3", "tref10:f0f1f2f3", 0xF0F1F2F3},
  };
  const size_t count = sizeof rows / sizeof rows[0];
  for (size_t i = 0; i < count; ++i) {
    const Row& row = rows[i];
    SCOPED_TRACE(row.text);
    EXPECT_EQ(CRTRefGetTaskID(row.ref.get()), row.taskID);
    std::vector<uint8_t> out(128, 0xEE);
    const size_t n = CRTRefSerialize(out.data(), out.size(), row.ref.get(), 1);
    EXPECT_EQ(crtest::Hex(out.data(), n + 1), row.binary + "ee");
    unsigned long consumed = 99;
    Ref back(CRTRefNewDeserialize(out.data(), n + 1, 1, &consumed));
    EXPECT_EQ(consumed, n);
    EXPECT_TRUE(CRTRefEqual(row.ref.get(), back.get()));

    const size_t t = CRTRefSerialize(out.data(), out.size(), row.ref.get(), 0);
    EXPECT_EQ(std::string(out.begin(), out.begin() + t + 1), row.text + std::string("\0\xEE", 2));
    char text[CR_TREF_TEXT_SIZE] = "#";
    EXPECT_STREQ(CRTRefToString(text, 1, row.ref.get()), "");  // room for the NUL alone
    EXPECT_EQ(std::string(CRTRefToString(text, sizeof text, row.ref.get())), row.text);
    EXPECT_EQ(std::string(CRTRefToString(text, 5, row.ref.get()), 5), row.text.substr(0, 4) + '\0');
    for (size_t j = 0; j < count; ++j) {
      const int c = CRTRefCompare(row.ref.get(), rows[j].ref.get());
      EXPECT_EQ((c > 0) - (c < 0), i < j ? -1 : i > j ? 1 : 0) << rows[j].text;
      EXPECT_EQ(CRTRefEqual(row.ref.get(), rows[j].ref.get()) != 0, i == j) << rows[j].text;
    }
    EXPECT_LT(CRTRefCompare(nullptr, row.ref.get()), 0);  // null before all
  }
}

// Each refused call gives null or 0, leaves its status word, consumes
// nothing and writes nothing; the decoder reads no byte past the length.
TEST(PlatformTRef, RefusalsAndTheirStatuses) {
  const std::vector<uint8_t> full = crtest::Bytes().u8(9).u8(32).zeros(32).vec();
  Ref task(CRTRefNewTaskID(123456789ul));
  std::vector<uint8_t> out(20, 0xEE);
  unsigned long consumed = 99;
  auto decode = [&](std::vector<uint8_t> bytes, size_t n, int mode = 1) {
    std::unique_ptr<uint8_t[]> exact(new uint8_t[n + 1]);
    std::memcpy(exact.get(), bytes.data(), n);
    return !CRTRefNewDeserialize(exact.get(), n, mode, &consumed);
  };
  const uint8_t payload[33] = {1, 1, 0};
  struct Row { std::string what; std::function<bool()> refused; cr_status_t status; };
  const Row rows[] = {
      {"kind 11", [&] { return decode(crtest::Bytes().u8(11).u8(1).zeros(40).vec(), 42); }, 121},
      {"len 0", [&] { return decode(crtest::Bytes().u8(3).u8(0).zeros(40).vec(), 42); }, 121},
      {"no length", [&] { return decode(full, 1); }, 120},
      {"one byte short", [&] { return decode(full, 33); }, 120},
      {"len 33", [&] { return decode(crtest::Bytes().u8(3).u8(33).zeros(40).vec(), 42); }, 121},
      {"no bytes", [&] { return !CRTRefNewDeserialize(nullptr, 3, 1, &consumed); }, 65},
      {"nowhere to count", [&] { return !CRTRefNewDeserialize(payload, 3, 1, nullptr); }, 65},
      {"mode 2", [&] { return decode(full, full.size(), 2); }, 9},
      {"new of kind 11", [&] { return !CRTRefNew(CR_TREF_TYPE_END, payload, 1); }, 9},
      {"new of 0 bytes", [&] { return !CRTRefNew(CR_TREF_TYPE_FILE, payload, 0); }, 9},
      {"new of null", [&] { return !CRTRefNew(CR_TREF_TYPE_FILE, nullptr, 4); }, 9},
      {"serialize null", [&] { return !CRTRefSerialize(out.data(), 20, nullptr, 1); }, 65},
      {"nowhere to write", [&] { return !CRTRefSerialize(nullptr, 20, task.get(), 1); }, 65},
      // One byte too few: 10 bytes, and "taskid:123456789" with its NUL.
      {"9 bytes", [&] { return !CRTRefSerialize(out.data(), 9, task.get(), 1); }, 122},
      {"16 bytes", [&] { return !CRTRefSerialize(out.data(), 16, task.get(), 0); }, 122},
  };
  for (const Row& row : rows) {
    consumed = 99;
    *__cr_errno_location() = 0;
    EXPECT_TRUE(row.refused()) << row.what;
    EXPECT_EQ(*__cr_errno_location(), row.status) << row.what;
    EXPECT_TRUE(consumed == 99 || consumed == 0) << row.what;
    EXPECT_EQ(out, std::vector<uint8_t>(20, 0xEE)) << row.what;
  }
}

}  // namespace
