// Typed references: construction, order, the binary and text forms, and the
// decoder's refusals of short and malformed input.
#include <gtest/gtest.h>

#include <cstring>
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

// The status word a refused call leaves, or 0 if the call was not refused;
// the word is cleared before and after.
template <typename F>
cr_status_t Refused(F call) {
  *__cr_errno_location() = 0;
  const bool refused = call();
  const cr_status_t status = *__cr_errno_location();
  *__cr_errno_location() = 0;
  return refused ? status : 0;
}

// A heap copy of exactly n bytes, so that a read past n is an over-read the
// sanitizer reports.
std::unique_ptr<uint8_t[]> Exact(const uint8_t* p, size_t n) {
  std::unique_ptr<uint8_t[]> q(new uint8_t[n ? n : 1]);
  if (n) std::memcpy(q.get(), p, n);
  return q;
}

std::vector<uint8_t> Serialized(const _cr_tref_t* ref, int mode, size_t room = 128) {
  std::vector<uint8_t> out(room, 0xEE);
  size_t n = CRTRefSerialize(out.data(), out.size(), ref, mode);
  out.resize(n);
  return out;
}

std::string Text(const _cr_tref_t* ref) {
  char buf[CR_TREF_TEXT_SIZE];
  return CRTRefToString(buf, sizeof buf, ref);
}

// A task ID read from a payload that is not 8 bytes takes its first bytes.
TEST(PlatformTRef, TaskIDsAndDSIDsAreStoredBigEndian) {
  Ref task(CRTRefNewTaskID(0x0102030405060708ul)), dsid(CRTRefNewDSID(0xDEADBEEFu));
  ASSERT_TRUE(task && dsid);
  EXPECT_EQ(CRTRefGetType(task.get()), CR_TREF_TYPE_TASKID);
  EXPECT_EQ(CRTRefGetType(dsid.get()), CR_TREF_TYPE_DSID);
  EXPECT_EQ(CRTRefGetTaskID(task.get()), 0x0102030405060708ul);
  EXPECT_EQ(Serialized(task.get(), 1), crtest::Bytes().u8(2).u8(8).be64(0x0102030405060708ul).vec());
  EXPECT_EQ(Serialized(dsid.get(), 1), crtest::Bytes().u8(4).u8(4).be32(0xDEADBEEFu).vec());
  EXPECT_EQ(Text(task.get()) + " " + Text(dsid.get()), "taskid:72623859790382856 dsid:3735928559");
  const uint8_t three[] = {1, 2, 3};
  Ref shortTask(CRTRefNew(CR_TREF_TYPE_TASKID, three, sizeof three));
  EXPECT_EQ(CRTRefGetTaskID(shortTask.get()), 0x010203ul);
  EXPECT_EQ(Text(shortTask.get()), "tref2:010203");  // not the task ID 66051's text
  std::vector<uint8_t> wide = crtest::PatternFP(0x10, 32);
  Ref wideRef(CRTRefNew(CR_TREF_TYPE_FILE, wide.data(), wide.size()));
  EXPECT_EQ(CRTRefGetTaskID(wideRef.get()), 0x1011121314151617ul);
}

TEST(PlatformTRef, EveryKindRoundTripsInBothModes) {
  for (unsigned kind = 0; kind < CR_TREF_TYPE_END; ++kind) {
    for (size_t len : {1u, 4u, 8u, 32u}) {
      std::vector<uint8_t> payload = crtest::PatternFP(static_cast<uint8_t>(0xF0 + kind), len);
      Ref ref(CRTRefNew(static_cast<cr_reftype_t>(kind), payload.data(), len));
      ASSERT_TRUE(ref) << kind << "/" << len;
      EXPECT_EQ(CRTRefGetType(ref.get()), kind);

      std::vector<uint8_t> expected =
          crtest::Bytes().u8(static_cast<uint8_t>(kind)).u8(static_cast<uint8_t>(len))
              .raw(payload.data(), len).vec();
      std::vector<uint8_t> bin = Serialized(ref.get(), 1);
      EXPECT_EQ(bin, expected) << kind << "/" << len;
      EXPECT_EQ(CRTRefSerializedSize(ref.get(), 1), expected.size());

      auto exact = Exact(bin.data(), bin.size());
      unsigned long consumed = 99;
      Ref back(CRTRefNewDeserialize(exact.get(), bin.size(), 1, &consumed));
      ASSERT_TRUE(back) << kind << "/" << len;
      EXPECT_EQ(consumed, bin.size());
      EXPECT_TRUE(CRTRefEqual(ref.get(), back.get()));
      EXPECT_EQ(CRTRefCompare(ref.get(), back.get()), 0);

      const std::string text =
          kind == 2 && len == 8   ? "taskid:" + std::to_string(CRTRefGetTaskID(ref.get()))
          : kind == 4 && len == 4 ? "dsid:" + std::to_string(CRTRefGetTaskID(ref.get()))
                                  : "tref" + std::to_string(kind) + ":" + crtest::Hex(payload.data(), len);
      std::vector<uint8_t> txt = Serialized(ref.get(), 0);
      EXPECT_EQ(std::string(txt.begin(), txt.end()), text + std::string(1, '\0'));
      EXPECT_EQ(CRTRefSerializedSize(ref.get(), 0), text.size() + 1);
      EXPECT_LE(txt.size(), size_t{CR_TREF_TEXT_SIZE});
      EXPECT_EQ(Text(ref.get()), text);

      EXPECT_EQ(Refused([&] {
                  return !CRTRefNewDeserialize(txt.data(), txt.size(), 0, &consumed);
                }), 121u);
    }
  }
}

TEST(PlatformTRef, EveryTruncationIsRefusedWithoutReadingPast) {
  std::vector<uint8_t> payload = crtest::PatternFP(0x40, 32);
  std::vector<uint8_t> enc = crtest::Bytes().u8(9).u8(32).raw(payload.data(), 32).vec();
  for (size_t left = 0; left < enc.size(); ++left) {
    auto exact = Exact(enc.data(), left);
    unsigned long consumed = 99;
    EXPECT_EQ(Refused([&] { return !CRTRefNewDeserialize(exact.get(), left, 1, &consumed); }),
              120u) << left;
    EXPECT_EQ(consumed, 0u) << left;
  }
  // Bytes after the reference belong to the next one.
  enc.push_back(0x07);
  unsigned long consumed = 0;
  Ref ref(CRTRefNewDeserialize(enc.data(), enc.size(), 1, &consumed));
  ASSERT_TRUE(ref);
  EXPECT_EQ(consumed, 34u);
}

TEST(PlatformTRef, MalformedHeadersAndMissingArgumentsAreRefused) {
  struct Case { uint8_t kind, length; };
  for (const Case& c : {Case{11, 1}, Case{255, 4}, Case{3, 0}, Case{3, 33}, Case{3, 255}}) {
    std::vector<uint8_t> enc = crtest::Bytes().u8(c.kind).u8(c.length).zeros(40).vec();
    unsigned long consumed = 99;
    EXPECT_EQ(Refused([&] { return !CRTRefNewDeserialize(enc.data(), enc.size(), 1, &consumed); }),
              121u) << int(c.kind) << "/" << int(c.length);
    EXPECT_EQ(consumed, 0u);
  }
  const uint8_t ok[] = {1, 1, 0};
  unsigned long consumed = 0;
  EXPECT_EQ(Refused([&] { return !CRTRefNewDeserialize(nullptr, 3, 1, &consumed); }), 65u);
  EXPECT_EQ(Refused([&] { return !CRTRefNewDeserialize(ok, 3, 1, nullptr); }), 65u);
  EXPECT_EQ(Refused([&] { return !CRTRefNewDeserialize(ok, 3, 2, &consumed); }), 9u);
}

TEST(PlatformTRef, NewRefusesBadKindsAndPayloads) {
  uint8_t payload[33] = {};
  struct Case { unsigned kind; const void* p; size_t len; };
  for (const Case& c : {Case{11, payload, 1}, Case{0xFFFFFFFFu, payload, 1}, Case{1, payload, 0},
                        Case{1, payload, 33}, Case{1, nullptr, 4}}) {
    EXPECT_EQ(Refused([&] { return !CRTRefNew(static_cast<cr_reftype_t>(c.kind), c.p, c.len); }),
              9u) << c.kind << "/" << c.len;
  }
}

// Too little room writes nothing, in both modes; the buffer is cut to with
// a terminator.
TEST(PlatformTRef, SerializeRefusesTooLittleRoomAndWritesNothing) {
  Ref ref(CRTRefNewTaskID(123456789ul));
  for (int mode : {0, 1}) {
    size_t size = CRTRefSerializedSize(ref.get(), mode);
    ASSERT_EQ(size, mode == 1 ? 10u : std::string("taskid:123456789").size() + 1);
    for (size_t room = 0; room < size; ++room) {
      std::vector<uint8_t> out(size, 0xEE);
      EXPECT_EQ(Refused([&] { return CRTRefSerialize(out.data(), room, ref.get(), mode) == 0; }),
                122u);
      EXPECT_EQ(out, std::vector<uint8_t>(size, 0xEE));
    }
  }
  char buf[8];
  EXPECT_EQ(Refused([&] { return CRTRefSerialize(buf, sizeof buf, nullptr, 1) == 0; }), 65u);
  Ref dsid(CRTRefNewDSID(42));
  std::memset(buf, '#', sizeof buf);
  EXPECT_EQ(CRTRefToString(buf, 0, dsid.get()), buf);
  EXPECT_EQ(buf[0], '#');
  EXPECT_EQ(CRTRefToString(buf, 5, dsid.get()), buf);
  EXPECT_EQ(std::string(buf, 6), std::string("dsid\0#", 6));
}

TEST(PlatformTRef, OrderIsKindThenLengthThenBytes) {
  const uint8_t ff32[32] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
  const uint8_t zero2[2] = {0, 0};
  const uint8_t ff1[1] = {0xFF};
  const uint8_t a[2] = {0x01, 0xFF}, b[2] = {0x02, 0x00};
  // Each row orders strictly before the next one.
  std::vector<Ref> ascending;
  ascending.emplace_back(CRTRefNew(CR_TREF_TYPE_FILE, ff32, 32));
  ascending.emplace_back(CRTRefNew(CR_TREF_TYPE_TASKID, ff1, 1));
  ascending.emplace_back(CRTRefNew(CR_TREF_TYPE_TASKID, zero2, 2));
  ascending.emplace_back(CRTRefNew(CR_TREF_TYPE_TASKID, a, 2));
  ascending.emplace_back(CRTRefNew(CR_TREF_TYPE_TASKID, b, 2));
  ascending.emplace_back(CRTRefNewTaskID(255));
  ascending.emplace_back(CRTRefNewTaskID(256));
  ascending.emplace_back(CRTRefNewDSID(1));
  for (size_t i = 0; i < ascending.size(); ++i) {
    for (size_t j = 0; j < ascending.size(); ++j) {
      int c = CRTRefCompare(ascending[i].get(), ascending[j].get());
      int expected = i < j ? -1 : i > j ? 1 : 0;
      EXPECT_EQ((c > 0) - (c < 0), expected) << i << " vs " << j;
      EXPECT_EQ(CRTRefEqual(ascending[i].get(), ascending[j].get()) != 0, i == j);
    }
  }
  EXPECT_LT(CRTRefCompare(nullptr, ascending[0].get()), 0);
  EXPECT_GT(CRTRefCompare(ascending[0].get(), nullptr), 0);
  EXPECT_EQ(CRTRefCompare(nullptr, nullptr), 0);
}

TEST(PlatformTRef, DupIsIndependentAndDeletesNullTheirPointers) {
  _cr_tref_t* original = CRTRefNewTaskID(77);
  _cr_tref_t* copy = CRTRefDup(original);
  ASSERT_NE(copy, nullptr);
  EXPECT_NE(copy, original);
  CRTRefDelete(&original);
  EXPECT_EQ(original, nullptr);
  EXPECT_EQ(CRTRefGetTaskID(copy), 77ul);
  CRTRefDelete(&copy);
  CRTRefDelete(&copy);  // already null
  CRTRefDelete(nullptr);
  EXPECT_EQ(CRTRefGetType(nullptr), CR_TREF_TYPE_END);

  crfp_digest_t d;
  for (int i = 0; i < 32; ++i) d.digest[i] = static_cast<unsigned char>(i);
  cr_tdigest_t* t = CRTDigestNewFull(4, &d, 0x1234567890ul);
  ASSERT_NE(t, nullptr);
  EXPECT_EQ(t->type, 4);
  EXPECT_EQ(std::memcmp(t->digest.digest, d.digest, 32), 0);
  EXPECT_EQ(t->cid, 0x1234567890ul);
  CRTDigestDelete(&t);
  EXPECT_EQ(t, nullptr);
  CRTDigestDelete(&t);
}

}  // namespace
