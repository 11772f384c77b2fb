// The segment DB record: byte-order conversion with and without the task
// IDs, validation of records from outside, the serialized SO record and the
// binary and text stream forms.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "crrecord/SOmarshall.h"
#include "test_support.h"

// Lets the allocation-failure test ask for more memory than the machine has
// and get null back, as the system allocator gives it, instead of an abort.
extern "C" __attribute__((visibility("default"))) const char* __asan_default_options() {
  return "allocator_may_return_null=1:max_allocation_size=17179869184";
}

namespace {

using crtest::Bytes;
using crtest::LogCapture;

size_t Width(uint8_t fptype) { return fptype == 3 ? 32 : 16; }
size_t TextWidth(uint8_t fptype) { return 2 * Width(fptype) + 1; }

// The fields of one segment DB record, as the test means them. Fields that
// are carried unconverted are given as the bytes that stand in the record.
struct Rec {
  uint16_t type = 2;
  uint16_t flags = 2;
  std::optional<uint32_t> recsize;  // default: 104 + 8n + Dm
  uint32_t unused = 0x01020304;
  std::optional<uint32_t> ntaskid;  // default: taskIDs.size()
  uint32_t checktime = 1700000000;
  uint64_t dcid = 1000;
  uint64_t fileID = 0;
  uint64_t size = 65536;
  uint32_t crc = 7;
  std::optional<uint32_t> ndo;  // default: fps.size()
  uint8_t fptype = 1;
  uint8_t cryptoMode = 4;
  std::vector<uint64_t> taskIDs;
  std::vector<std::vector<uint8_t>> fps;
};

const uint8_t kReserved1[4] = {0xA0, 0xA1, 0xA2, 0xA3};
const uint8_t kPad = 0x5A;
const uint8_t kKeyIndex[2] = {0x02, 0x01};
const uint8_t kReserved2[2] = {0xB0, 0xB1};
const uint8_t kTrailer[8] = {0xE0, 0xE1, 0xE2, 0xE3, 0xE4, 0xE5, 0xE6, 0xE7};

std::vector<uint8_t> Key() { return crtest::PatternFP(0x40, 33); }

uint32_t RecSize(const Rec& r) {
  return r.recsize.value_or(static_cast<uint32_t>(104 + 8 * r.taskIDs.size() +
                                                  Width(r.fptype) * r.fps.size()));
}

// The record written field by field at the documented offsets, little-endian
// (host) or big-endian (network).
Bytes Image(const Rec& r, bool big) {
  Bytes b;
  auto u16 = [&](uint16_t v) { big ? b.be16(v) : b.le16(v); };
  auto u32 = [&](uint32_t v) { big ? b.be32(v) : b.le32(v); };
  auto u64 = [&](uint64_t v) { big ? b.be64(v) : b.le64(v); };
  u16(r.type);
  u16(r.flags);
  u32(RecSize(r));
  u32(r.unused);
  u32(r.ntaskid.value_or(static_cast<uint32_t>(r.taskIDs.size())));
  u32(r.checktime);
  b.raw(kReserved1, 4);
  u64(r.dcid);
  u64(r.fileID);
  u64(r.size);
  u32(r.crc);
  u32(r.ndo.value_or(static_cast<uint32_t>(r.fps.size())));
  b.raw(Key().data(), 33).u8(r.fptype).u8(r.cryptoMode).u8(kPad).raw(kKeyIndex, 2);
  b.raw(kReserved2, 2);
  for (uint64_t t : r.taskIDs) u64(t);
  for (const std::vector<uint8_t>& fp : r.fps) b.raw(fp.data(), fp.size());
  b.raw(kTrailer, 8);
  return b;
}

// An exactly sized heap copy of an image, so that ASan sees any over-read,
// optionally with room to spare for a conversion into it.
struct Buffer {
  explicit Buffer(const Bytes& b, size_t room = 0) : size(b.size() > room ? b.size() : room) {
    p = static_cast<unsigned char*>(std::malloc(size != 0 ? size : 1));
    std::memset(p, 0xCC, size);
    std::memcpy(p, b.data(), b.size());
  }
  explicit Buffer(size_t n) : size(n) {
    p = static_cast<unsigned char*>(std::malloc(n != 0 ? n : 1));
    std::memset(p, 0xCC, n);
  }
  ~Buffer() { std::free(p); }
  Buffer(const Buffer&) = delete;
  Buffer& operator=(const Buffer&) = delete;
  _SegmentDBRecord* r() const { return reinterpret_cast<_SegmentDBRecord*>(p); }
  std::vector<uint8_t> bytes(size_t n) const { return std::vector<uint8_t>(p, p + n); }
  unsigned char* p;
  size_t size;
};

// Two task IDs and one 16-byte fingerprint: 104 + 16 + 16 = 136 bytes.
Rec TwoTaskIDsOneFingerprint() {
  Rec r;
  r.taskIDs = {0x1112131415161718ull, 42};
  r.fps = {crtest::PatternFP(0x80, 16)};
  return r;
}

Rec WithoutTaskIDs(Rec r) {
  r.taskIDs.clear();
  return r;
}

// --- Conversion -----------------------------------------------------------------

TEST(SegmentRecordConvert, HtonWritesTheNetworkImageAndNtohRestoresEveryByte) {
  Rec rec = TwoTaskIDsOneFingerprint();
  rec.fps.push_back(crtest::PatternFP(0x90, 16));
  const Bytes host = Image(rec, false);
  Buffer buf(host);

  SegmentRecordHton(buf.r(), buf.r(), 0);
  EXPECT_EQ(buf.bytes(host.size()), Image(rec, true).vec());
  SegmentRecordNtoh(buf.r(), buf.r(), 0);
  EXPECT_EQ(buf.bytes(host.size()), host.vec());
}

TEST(SegmentRecordConvert, WideFingerprintsStayBehindTheTaskIDs) {
  Rec rec;
  rec.fptype = 3;
  rec.taskIDs = {7};
  rec.fps = {crtest::PatternFP(0x20, 32), crtest::PatternFP(0x60, 32)};
  const Bytes host = Image(rec, false);
  ASSERT_EQ(host.size(), 104u + 8 + 64);
  Buffer buf(host);
  SegmentRecordHton(buf.r(), buf.r(), 0);
  EXPECT_EQ(buf.bytes(host.size()), Image(rec, true).vec());
}

TEST(SegmentRecordConvert, DroppingTaskIDsInPlaceMovesTheFingerprintToOffset96) {
  const Rec rec = TwoTaskIDsOneFingerprint();
  const Bytes host = Image(rec, false);
  ASSERT_EQ(host.size(), 136u);
  Buffer buf(host);

  SegmentRecordHton(buf.r(), buf.r(), CR_SO_CONVERT_DROP_TASKIDS);

  const Bytes expected = Image(WithoutTaskIDs(rec), true);
  ASSERT_EQ(expected.size(), 120u);
  EXPECT_EQ(buf.bytes(120), expected.vec());
  EXPECT_EQ(crtest::Hex(buf.p + 96, 16), crtest::Hex(rec.fps[0].data(), 16));
}

TEST(SegmentRecordConvert, DroppingTaskIDsInPlaceFromNetworkOrder) {
  const Rec rec = TwoTaskIDsOneFingerprint();
  Buffer buf(Image(rec, true));
  SegmentRecordNtoh(buf.r(), buf.r(), CR_SO_CONVERT_DROP_TASKIDS);
  EXPECT_EQ(buf.bytes(120), Image(WithoutTaskIDs(rec), false).vec());
}

TEST(SegmentRecordConvert, DroppingTaskIDsIntoAnotherBufferInBothDirections) {
  const Rec rec = TwoTaskIDsOneFingerprint();
  const Bytes host = Image(rec, false);
  const Bytes net = Image(rec, true);

  Buffer src(host), dst(120);
  SegmentRecordHton(dst.r(), src.r(), CR_SO_CONVERT_DROP_TASKIDS);
  EXPECT_EQ(dst.bytes(120), Image(WithoutTaskIDs(rec), true).vec());
  EXPECT_EQ(src.bytes(136), host.vec()) << "the source is left as it was";

  Buffer netSrc(net), hostDst(120);
  SegmentRecordNtoh(hostDst.r(), netSrc.r(), CR_SO_CONVERT_DROP_TASKIDS);
  EXPECT_EQ(hostDst.bytes(120), Image(WithoutTaskIDs(rec), false).vec());
  EXPECT_EQ(netSrc.bytes(136), net.vec());
}

// Every byte arrives, the crypto mode, padding and key index included.
TEST(SegmentRecordConvert, ConvertingIntoAnotherBufferCarriesEveryByte) {
  const Rec rec = TwoTaskIDsOneFingerprint();
  Buffer src(Image(rec, false)), dst(136);
  SegmentRecordHton(dst.r(), src.r(), 0);
  EXPECT_EQ(dst.bytes(136), Image(rec, true).vec());

  Buffer back(136);
  SegmentRecordNtoh(back.r(), dst.r(), 0);
  EXPECT_EQ(back.bytes(136), Image(rec, false).vec());
}

// --- Validation -----------------------------------------------------------------

struct ValidateCase {
  const char* what;
  Rec rec;
  int sizeDelta;  // size given = image size + delta
  unsigned int flags;
  std::string trace;
};

// Each case breaks its own check and, where it can, later checks too, so
// that a check made out of order reports the wrong line.
std::vector<ValidateCase> FailingChecks() {
  std::vector<ValidateCase> cases;
  Rec r;
  r.type = 3;
  r.recsize = 4;
  r.fptype = 9;
  r.taskIDs = {1};
  cases.push_back({"short", r, -(104 + 8 - 95), 0, "Invalid SO record: size 95, expected at least 96"});
  cases.push_back({"type", r, 0, 2, "Invalid SO record: type 3, expected 2"});
  r.type = 2;
  cases.push_back({"recsize", r, 0, 2, "Invalid SO record: recsize 4, size 112"});
  r.recsize = 120;
  cases.push_back({"calculated", r, 8, 2, "Invalid SO record: calculated size 112, size 120"});
  r.recsize.reset();
  cases.push_back({"taskids", r, 0, 2, "Invalid SO record: 1 taskids, expected 0"});
  cases.push_back({"fptype", r, 0, 0, "Invalid SO record: invalid fp type 9"});
  return cases;
}

TEST(SegmentRecordValidate, EachCheckFailsWithItsOwnTraceInOrder) {
  for (const ValidateCase& c : FailingChecks()) {
    SCOPED_TRACE(c.what);
    Bytes image = Image(c.rec, false);
    const unsigned int size = static_cast<unsigned int>(static_cast<int>(image.size()) + c.sizeDelta);
    image.zeros(c.sizeDelta > 0 ? c.sizeDelta : 0);
    Buffer buf(image);
    LogCapture log(true);
    EXPECT_EQ(SegmentRecordValidate(buf.r(), size, c.flags), 32u);
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_EQ(log.lines()[0].level, CR_LOG_TRACE);
    EXPECT_EQ(log.texts()[0], c.trace);
  }
}

TEST(SegmentRecordValidate, TracesNothingWhenTracingIsOff) {
  Rec r;
  r.type = 7;
  Buffer buf(Image(r, false));
  LogCapture log(false);
  EXPECT_EQ(SegmentRecordValidate(buf.r(), 104, 0), 32u);
  EXPECT_TRUE(log.lines().empty());
}

TEST(SegmentRecordValidate, PlainRecordPassesAndItsSizeMustMatch) {
  Buffer buf(Image(Rec(), false));
  LogCapture log(true);
  EXPECT_EQ(SegmentRecordValidate(buf.r(), 104, 0), 0u);
  EXPECT_EQ(SegmentRecordValidate(buf.r(), 104, CR_SO_VALIDATE_NO_TASKIDS), 0u);
  EXPECT_EQ(SegmentRecordValidate(buf.r(), 96, 0), 32u);
  EXPECT_EQ(SegmentRecordValidate(buf.r(), 95, 0), 32u);
  EXPECT_EQ(log.texts(), (std::vector<std::string>{
                             "Invalid SO record: recsize 104, size 96",
                             "Invalid SO record: size 95, expected at least 96"}));
}

TEST(SegmentRecordValidate, TaskIDsAreRefusedOnlyWhenAskedFor) {
  const Rec rec = TwoTaskIDsOneFingerprint();
  Buffer buf(Image(rec, false));
  LogCapture log(true);
  EXPECT_EQ(SegmentRecordValidate(buf.r(), 136, 0), 0u);
  EXPECT_EQ(SegmentRecordValidate(buf.r(), 136, CR_SO_VALIDATE_NO_TASKIDS), 32u);
  EXPECT_EQ(log.texts(),
            std::vector<std::string>{"Invalid SO record: 2 taskids, expected 0"});
}

TEST(SegmentRecordValidate, ReadsTheRecordInTheOrderTheFlagsSay) {
  const Rec rec = TwoTaskIDsOneFingerprint();
  Buffer net(Image(rec, true));
  LogCapture log(true);
  EXPECT_EQ(SegmentRecordValidate(net.r(), 136, CR_SO_VALIDATE_NETWORK_ORDER), 0u);
  EXPECT_EQ(SegmentRecordValidate(net.r(), 136, 0), 32u);
  EXPECT_EQ(log.texts(), std::vector<std::string>{"Invalid SO record: type 512, expected 2"});
}

TEST(SegmentRecordValidate, NullRecordAndUnknownFlagBitsGive9WithoutTrace) {
  Buffer buf(Image(Rec(), false));
  LogCapture log(true);
  EXPECT_EQ(SegmentRecordValidate(nullptr, 104, 0), 9u);
  EXPECT_EQ(SegmentRecordValidate(buf.r(), 104, 4), 9u);
  EXPECT_EQ(SegmentRecordValidate(buf.r(), 104, 0x80000000u), 9u);
  EXPECT_TRUE(log.lines().empty());
}

// 104 + 8 * 2^29 wraps to 104 in 32 bits.
TEST(SegmentRecordValidate, CountsThatWrapIn32BitsAreRefused) {
  Rec r;
  r.ntaskid = 0x20000000u;
  r.recsize = 104;
  Buffer buf(Image(r, false));
  LogCapture log(true);
  EXPECT_EQ(SegmentRecordValidate(buf.r(), 104, 0), 32u);
  EXPECT_EQ(log.texts(),
            std::vector<std::string>{"Invalid SO record: calculated size 4294967400, size 104"});

  Rec m;
  m.fptype = 3;
  m.ndo = 0x08000000u;  // 32 * 2^27 = 2^32
  m.recsize = 104;
  Buffer wide(Image(m, false));
  EXPECT_EQ(SegmentRecordValidate(wide.r(), 104, 0), 32u);
}

// Every prefix of a valid record, given with its true size, in a buffer of
// exactly that size: ASan fails the test on any read past it.
TEST(SegmentRecordValidate, NeverReadsPastTheSizeOfAnyPrefix) {
  const Bytes full = Image(TwoTaskIDsOneFingerprint(), false);
  for (size_t n = 0; n <= full.size(); ++n) {
    Buffer buf(n);
    std::memcpy(buf.p, full.data(), n);
    EXPECT_EQ(SegmentRecordValidate(buf.r(), static_cast<unsigned int>(n), 0),
              n == full.size() ? 0u : 32u)
        << n;
  }
}

TEST(SegmentRecordValidate, RandomBytesOfAnyLengthAreReadWithinTheirSize) {
  std::mt19937 rng(20240611);
  int passed = 0;
  for (int round = 0; round < 4000; ++round) {
    const unsigned int flags = rng() % 4;
    const bool net = (flags & CR_SO_VALIDATE_NETWORK_ORDER) != 0;
    const uint32_t ntaskid = rng() % 4, ndo = rng() % 4;
    const uint8_t fptype = static_cast<uint8_t>(1 + rng() % 3);
    size_t n = rng() % 300;
    // A quarter of the rounds have the size their counts call for, so that
    // they reach the later checks and some pass.
    if (round % 4 == 0) n = 104 + 8 * ntaskid + Width(fptype) * ndo;
    Buffer buf(n);
    for (size_t i = 0; i < n; ++i) buf.p[i] = static_cast<unsigned char>(rng());
    auto put16 = [&](size_t off, uint16_t v) {
      Bytes b;
      net ? b.be16(v) : b.le16(v);
      std::memcpy(buf.p + off, b.data(), 2);
    };
    auto put32 = [&](size_t off, uint32_t v) {
      Bytes b;
      net ? b.be32(v) : b.le32(v);
      std::memcpy(buf.p + off, b.data(), 4);
    };
    if (round % 2 == 0 && n >= 96) {
      put16(0, 2);
      put32(4, static_cast<uint32_t>(n));
      buf.p[89] = fptype;
      if (round % 4 == 0) {
        put32(12, ntaskid);
        put32(52, ndo);
      }
    }
    const cr_status_t status = SegmentRecordValidate(buf.r(), static_cast<unsigned int>(n), flags);
    if (status != 0) {
      EXPECT_EQ(status, 32u);
      continue;
    }
    // A record that passes converts within its own bytes.
    ++passed;
    if (net) {
      SegmentRecordNtoh(buf.r(), buf.r(), 0);
      SegmentRecordHton(buf.r(), buf.r(), CR_SO_CONVERT_DROP_TASKIDS);
    } else {
      SegmentRecordHton(buf.r(), buf.r(), 0);
      SegmentRecordNtoh(buf.r(), buf.r(), CR_SO_CONVERT_DROP_TASKIDS);
    }
  }
  EXPECT_GT(passed, 100);
}

// --- Serialized SO record ---------------------------------------------------------

struct Serialized {
  ~Serialized() { std::free(data); }
  void* data = nullptr;
  unsigned long size = 0;
  std::vector<uint8_t> bytes() const {
    const uint8_t* p = static_cast<const uint8_t*>(data);
    return std::vector<uint8_t>(p, p + size);
  }
};

Bytes SerializedImage(const Rec& r) {
  Bytes b;
  b.be64(r.size).be64(r.dcid).be64(r.fileID).be32(r.crc).be32(static_cast<uint32_t>(r.fps.size()));
  for (const std::vector<uint8_t>& fp : r.fps) {
    const std::string text = crtest::Hex(fp.data(), fp.size());
    b.str(text).zeros(TextWidth(r.fptype) - text.size());
  }
  b.u8(0);
  return b;
}

TEST(SegmentRecordSerialize, WritesTheBigEndianHeadAndTheFingerprintTexts) {
  Rec rec = TwoTaskIDsOneFingerprint();
  rec.fileID = 0x0102030405060708ull;
  rec.fps.push_back(crtest::PatternFP(0xF0, 16));
  Buffer buf(Image(rec, false));
  Serialized out;
  ASSERT_EQ(SegmentRecordSerialize(buf.r(), &out.data, &out.size), 0u);
  ASSERT_EQ(out.size, 33u + 2 * 33);
  EXPECT_EQ(out.bytes(), SerializedImage(rec).vec());
}

TEST(SegmentRecordSerialize, WideFingerprintsTakeFieldsOf65Bytes) {
  Rec rec;
  rec.fptype = 3;
  rec.fps = {crtest::PatternFP(0x01, 32), crtest::PatternFP(0xA0, 32)};
  Buffer buf(Image(rec, false));
  Serialized out;
  ASSERT_EQ(SegmentRecordSerialize(buf.r(), &out.data, &out.size), 0u);
  ASSERT_EQ(out.size, 33u + 2 * 65);
  EXPECT_EQ(out.bytes(), SerializedImage(rec).vec());
}

TEST(SegmentRecordSerialize, RecordWithoutFingerprintsIsTheHeadAndOneZeroByte) {
  Rec rec;
  rec.taskIDs = {5};
  Buffer buf(Image(rec, false));
  Serialized out;
  ASSERT_EQ(SegmentRecordSerialize(buf.r(), &out.data, &out.size), 0u);
  EXPECT_EQ(out.bytes(), SerializedImage(rec).vec());
  EXPECT_EQ(out.size, 33u);
}

TEST(SegmentRecordSerialize, MissingArgumentsGive65AndAllocateNothing) {
  Buffer buf(Image(Rec(), false));
  void* data = &data;
  unsigned long size = 77;
  EXPECT_EQ(SegmentRecordSerialize(nullptr, &data, &size), 65u);
  EXPECT_EQ(SegmentRecordSerialize(buf.r(), nullptr, &size), 65u);
  EXPECT_EQ(SegmentRecordSerialize(buf.r(), &data, nullptr), 65u);
  EXPECT_EQ(data, &data);
  EXPECT_EQ(size, 77u);
}

TEST(SegmentRecordSerialize, NetworkOrderRecordIsRefused) {
  Buffer buf(Image(TwoTaskIDsOneFingerprint(), true));
  void* data = nullptr;
  unsigned long size = 0;
  EXPECT_EQ(SegmentRecordSerialize(buf.r(), &data, &size), 9u);
  EXPECT_EQ(data, nullptr);
}

// 33 + 65 * (2^32 - 1) bytes cannot be had; the size is logged at its
// 32-bit maximum.
TEST(SegmentRecordSerialize, FailedAllocationIsLoggedAndReturnsTheMappedStatus) {
  Rec rec;
  rec.fptype = 3;
  rec.ndo = 0xFFFFFFFFu;
  rec.recsize = 104;
  Buffer buf(Image(rec, false));
  void* data = &data;
  unsigned long size = 0;
  LogCapture log;
  EXPECT_EQ(SegmentRecordSerialize(buf.r(), &data, &size), 22u);
  EXPECT_EQ(data, nullptr);
  EXPECT_EQ(size, 0u);
  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_EQ(log.lines()[0].level, CR_LOG_ERROR);
  EXPECT_EQ(log.lines()[0].status, 22u);
  EXPECT_EQ(log.texts()[0], std::string("Could not serialize SO: malloc failed for 4294967295 bytes (") +
                                CRStatusToStringA(22) + ")");
}

// --- Stream forms -----------------------------------------------------------------

TEST(SegmentRecordToStream, TextFormOfTheExampleRecord) {
  Rec rec;
  rec.flags = 0;
  rec.fps = {crtest::PatternFP(0xC0, 16)};
  Buffer buf(Image(rec, false));
  std::ostringstream os;
  SegmentRecordToStream(os, *buf.r(), false);
  EXPECT_EQ(os.str(), "2,1,0,1000,0,65536,7,1,,0,1,[],[" + crtest::Hex(rec.fps[0].data(), 16) + "]");
}

TEST(SegmentRecordToStream, TextFormListsTaskIDsAndFingerprintsOfANetworkRecord) {
  Rec rec;
  rec.fptype = 3;
  rec.dcid = 77;
  rec.fileID = 9;
  rec.taskIDs = {5, 0x100000000ull};
  rec.fps = {crtest::PatternFP(0x10, 32), crtest::PatternFP(0x30, 32)};
  const Bytes net = Image(rec, true);
  Buffer buf(net);
  std::ostringstream os;
  SegmentRecordToStream(os, *buf.r(), false);
  EXPECT_EQ(os.str(), "2,1,2,77,9,65536,7,3,,2,2,[5,4294967296],[" +
                          crtest::Hex(rec.fps[0].data(), 32) + "," +
                          crtest::Hex(rec.fps[1].data(), 32) + "]");
  EXPECT_EQ(buf.bytes(net.size()), net.vec()) << "converted back to network order";
}

TEST(SegmentRecordToStream, BinaryFormIsTheNetworkImageAndTheRecordStaysInHostOrder) {
  const Rec rec = TwoTaskIDsOneFingerprint();
  const Bytes host = Image(rec, false);
  Buffer buf(host);
  std::ostringstream os;
  SegmentRecordToStream(os, *buf.r(), true);
  const Bytes net = Image(rec, true);
  EXPECT_EQ(os.str(), std::string(reinterpret_cast<const char*>(net.data()), net.size()));
  EXPECT_EQ(buf.bytes(host.size()), host.vec());
}

TEST(SegmentRecordToStream, NetworkRecordIsWrittenAsItStands) {
  const Bytes net = Image(TwoTaskIDsOneFingerprint(), true);
  Buffer buf(net);
  std::ostringstream os;
  SegmentRecordToStream(os, *buf.r(), true);
  EXPECT_EQ(os.str(), std::string(reinterpret_cast<const char*>(net.data()), net.size()));
  EXPECT_EQ(buf.bytes(net.size()), net.vec());
}

class ThrowingBuf : public std::streambuf {
 protected:
  int_type overflow(int_type) override { throw std::runtime_error("device full"); }
  std::streamsize xsputn(const char*, std::streamsize) override {
    throw std::runtime_error("device full");
  }
};

TEST(SegmentRecordToStream, RecordIsBackInItsOrderWhenTheStreamThrows) {
  const Rec rec = TwoTaskIDsOneFingerprint();
  for (bool big : {false, true}) {
    for (bool binary : {false, true}) {
      SCOPED_TRACE(std::string(big ? "network" : "host") + (binary ? " binary" : " text"));
      const Bytes image = Image(rec, big);
      Buffer buf(image);
      ThrowingBuf sink;
      std::ostream os(&sink);
      os.exceptions(std::ios::badbit);
      EXPECT_THROW(SegmentRecordToStream(os, *buf.r(), binary), std::runtime_error);
      EXPECT_EQ(buf.bytes(image.size()), image.vec());
    }
  }
}

TEST(RecordInContainer, OnlyFileIDZeroIsInAContainer) {
  EXPECT_TRUE(RecordInContainer(0));
  EXPECT_FALSE(RecordInContainer(1));
  EXPECT_FALSE(RecordInContainer(0x8000000000000000ul));
}

}  // namespace
