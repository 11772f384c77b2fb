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
  return r.recsize.value_or(
      static_cast<uint32_t>(104 + 8 * r.taskIDs.size() + Width(r.fptype) * r.fps.size()));
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

// An exactly sized heap copy of an image, so that ASan sees any over-read.
struct Buffer {
  explicit Buffer(const Bytes& b) : p(static_cast<unsigned char*>(std::malloc(b.size()))) {
    if (b.size() != 0) std::memcpy(p, b.data(), b.size());
  }
  ~Buffer() { std::free(p); }
  Buffer(const Buffer&) = delete;
  Buffer& operator=(const Buffer&) = delete;
  _SegmentDBRecord* r() const { return reinterpret_cast<_SegmentDBRecord*>(p); }
  std::vector<uint8_t> bytes(size_t n) const { return std::vector<uint8_t>(p, p + n); }
  unsigned char* p;
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

// In place and into another buffer, both fingerprint widths: every byte
// lands where the layout says, the unconverted ones included, and Ntoh
// restores what Hton changed.
TEST(SegmentRecordConvert, HtonWritesTheNetworkImageAndNtohRestoresEveryByte) {
  for (uint8_t fptype : {1, 3}) {
    SCOPED_TRACE(int{fptype});
    Rec rec = TwoTaskIDsOneFingerprint();
    rec.fptype = fptype;
    rec.fps = {crtest::PatternFP(0x80, Width(fptype)), crtest::PatternFP(0x90, Width(fptype))};
    const Bytes host = Image(rec, false), net = Image(rec, true);

    Buffer buf(host);
    SegmentRecordHton(buf.r(), buf.r(), 0);
    EXPECT_EQ(buf.bytes(net.size()), net.vec());
    SegmentRecordNtoh(buf.r(), buf.r(), 0);
    EXPECT_EQ(buf.bytes(host.size()), host.vec());

    Buffer toNet(Bytes().zeros(host.size())), toHost(Bytes().zeros(host.size()));
    SegmentRecordHton(toNet.r(), buf.r(), 0);
    SegmentRecordNtoh(toHost.r(), toNet.r(), 0);
    EXPECT_EQ(toNet.bytes(net.size()), net.vec());
    EXPECT_EQ(toHost.bytes(host.size()), host.vec());
  }
}

// 136 bytes with two task IDs and one fingerprint become 120 bytes with the
// fingerprint at 96, in place and into another buffer, in both directions.
TEST(SegmentRecordConvert, DroppingTaskIDsMovesTheFingerprintToOffset96) {
  const Rec rec = TwoTaskIDsOneFingerprint();
  for (bool toNetwork : {true, false}) {
    for (bool inPlace : {true, false}) {
      SCOPED_TRACE(std::string(toNetwork ? "hton" : "ntoh") + (inPlace ? " in place" : ""));
      const Bytes source = Image(rec, !toNetwork);
      ASSERT_EQ(source.size(), 136u);
      Buffer src(source), other(Bytes().zeros(120));
      _SegmentDBRecord* dst = inPlace ? src.r() : other.r();
      if (toNetwork) {
        SegmentRecordHton(dst, src.r(), CR_SO_CONVERT_DROP_TASKIDS);
      } else {
        SegmentRecordNtoh(dst, src.r(), CR_SO_CONVERT_DROP_TASKIDS);
      }
      const Bytes expected = Image(WithoutTaskIDs(rec), toNetwork);
      ASSERT_EQ(expected.size(), 120u);
      EXPECT_EQ((inPlace ? src : other).bytes(120), expected.vec());
      if (!inPlace) {
        EXPECT_EQ(src.bytes(136), source.vec()) << "the source stays as it was";
      }
    }
  }
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
  cases.push_back(
      {"short", r, -(104 + 8 - 95), 0, "Invalid SO record: size 95, expected at least 96"});
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
    for (bool trace : {true, false}) {
      SCOPED_TRACE(std::string(c.what) + (trace ? "" : " untraced"));
      Bytes image = Image(c.rec, false);
      const unsigned int size =
          static_cast<unsigned int>(static_cast<int>(image.size()) + c.sizeDelta);
      image.zeros(c.sizeDelta > 0 ? c.sizeDelta : 0);
      Buffer buf(image);
      LogCapture log(trace);
      EXPECT_EQ(SegmentRecordValidate(buf.r(), size, c.flags), 32u);
      if (!trace) {
        EXPECT_TRUE(log.lines().empty());
        continue;
      }
      ASSERT_EQ(log.lines().size(), 1u);
      EXPECT_EQ(log.lines()[0].level, CR_LOG_TRACE);
      EXPECT_EQ(log.texts()[0], c.trace);
    }
  }
}

TEST(SegmentRecordValidate, GoodRecordsPassInTheOrderTheFlagsSay) {
  Buffer plain(Image(Rec(), false));
  Buffer host(Image(TwoTaskIDsOneFingerprint(), false));
  Buffer net(Image(TwoTaskIDsOneFingerprint(), true));
  LogCapture log(true);
  EXPECT_EQ(SegmentRecordValidate(plain.r(), 104, CR_SO_VALIDATE_NO_TASKIDS), 0u);
  EXPECT_EQ(SegmentRecordValidate(plain.r(), 96, 0), 32u);
  EXPECT_EQ(SegmentRecordValidate(host.r(), 136, 0), 0u);
  EXPECT_EQ(SegmentRecordValidate(host.r(), 136, CR_SO_VALIDATE_NO_TASKIDS), 32u);
  EXPECT_EQ(SegmentRecordValidate(net.r(), 136, CR_SO_VALIDATE_NETWORK_ORDER), 0u);
  EXPECT_EQ(SegmentRecordValidate(net.r(), 136, 0), 32u);
  EXPECT_EQ(log.texts(), (std::vector<std::string>{"Invalid SO record: recsize 104, size 96",
                                                   "Invalid SO record: 2 taskids, expected 0",
                                                   "Invalid SO record: type 512, expected 2"}));
}

TEST(SegmentRecordValidate, NullRecordAndUnknownFlagBitsGive9WithoutTrace) {
  Buffer buf(Image(Rec(), false));
  LogCapture log(true);
  EXPECT_EQ(SegmentRecordValidate(nullptr, 104, 0), 9u);
  EXPECT_EQ(SegmentRecordValidate(buf.r(), 104, 4), 9u);
  EXPECT_EQ(SegmentRecordValidate(buf.r(), 104, 0x80000000u), 9u);
  EXPECT_TRUE(log.lines().empty());
}

// 104 + 8 * 2^29 and 104 + 32 * 2^27 both wrap to 104 in 32 bits.
TEST(SegmentRecordValidate, CountsThatWrapIn32BitsAreRefused) {
  Rec tasks, fps;
  tasks.ntaskid = 0x20000000u;
  fps.fptype = 3;
  fps.ndo = 0x08000000u;
  for (Rec* r : {&tasks, &fps}) {
    r->recsize = 104;
    Buffer buf(Image(*r, false));
    LogCapture log(true);
    EXPECT_EQ(SegmentRecordValidate(buf.r(), 104, 0), 32u);
    EXPECT_EQ(log.texts(),
              std::vector<std::string>{"Invalid SO record: calculated size 4294967400, size 104"});
  }
}

// Every prefix of a valid record, given with its true size, in a buffer of
// exactly that size: ASan fails the test on any read past it.
TEST(SegmentRecordValidate, NeverReadsPastTheSizeOfAnyPrefix) {
  const Bytes full = Image(TwoTaskIDsOneFingerprint(), false);
  for (size_t n = 0; n <= full.size(); ++n) {
    Buffer buf(Bytes().raw(full.data(), n));
    EXPECT_EQ(SegmentRecordValidate(buf.r(), static_cast<unsigned int>(n), 0),
              n == full.size() ? 0u : 32u)
        << n;
  }
}

// Half the rounds are random bytes of random length; the other half are
// records with random counts, some bytes changed and some cut short, so that
// they reach the later checks. Whatever passes converts within its bytes.
TEST(SegmentRecordValidate, RandomBytesOfAnyLengthAreReadWithinTheirSize) {
  std::mt19937 rng(20240611);
  int passed = 0;
  for (int round = 0; round < 4000; ++round) {
    const unsigned int flags = rng() % 4;
    const bool net = (flags & CR_SO_VALIDATE_NETWORK_ORDER) != 0;
    std::vector<uint8_t> bytes(rng() % 300);
    for (uint8_t& b : bytes) b = static_cast<uint8_t>(rng());
    if (round % 2 == 0) {
      Rec r;
      r.fptype = static_cast<uint8_t>(1 + rng() % 3);
      r.taskIDs.assign(rng() % 4, rng());
      r.fps.assign(rng() % 4, crtest::PatternFP(static_cast<uint8_t>(rng()), Width(r.fptype)));
      bytes = Image(r, net).vec();
      for (unsigned int k = rng() % 3; k > 0; --k) bytes[rng() % bytes.size()] ^= 0x5A;
      if (rng() % 4 == 0) bytes.resize(rng() % bytes.size());
    }
    Buffer buf(Bytes().raw(bytes.data(), bytes.size()));
    const cr_status_t status =
        SegmentRecordValidate(buf.r(), static_cast<unsigned int>(bytes.size()), flags);
    if (status != 0) {
      EXPECT_EQ(status, 32u);
      continue;
    }
    ++passed;
    if (net) {
      SegmentRecordNtoh(buf.r(), buf.r(), CR_SO_CONVERT_DROP_TASKIDS);
    } else {
      SegmentRecordHton(buf.r(), buf.r(), CR_SO_CONVERT_DROP_TASKIDS);
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
  Rec two = TwoTaskIDsOneFingerprint();
  two.fileID = 0x0102030405060708ull;
  two.fps.push_back(crtest::PatternFP(0xF0, 16));
  Rec wide;
  wide.fptype = 3;
  wide.fps = {crtest::PatternFP(0x01, 32), crtest::PatternFP(0xA0, 32)};
  Rec none;
  none.taskIDs = {5};
  for (const Rec& rec : {two, wide, none}) {
    Buffer buf(Image(rec, false));
    Serialized out;
    ASSERT_EQ(SegmentRecordSerialize(buf.r(), &out.data, &out.size), 0u);
    EXPECT_EQ(out.size, 33 + rec.fps.size() * TextWidth(rec.fptype));
    EXPECT_EQ(out.bytes(), SerializedImage(rec).vec());
  }
}

TEST(SegmentRecordSerialize, MissingArgumentsAndNetworkOrderAreRefused) {
  Buffer buf(Image(Rec(), false));
  Buffer net(Image(TwoTaskIDsOneFingerprint(), true));
  void* data = &data;
  unsigned long size = 77;
  EXPECT_EQ(SegmentRecordSerialize(nullptr, &data, &size), 65u);
  EXPECT_EQ(SegmentRecordSerialize(buf.r(), nullptr, &size), 65u);
  EXPECT_EQ(SegmentRecordSerialize(buf.r(), &data, nullptr), 65u);
  EXPECT_EQ(SegmentRecordSerialize(net.r(), &data, &size), 9u);
  EXPECT_EQ(data, &data);
  EXPECT_EQ(size, 77u);
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
  EXPECT_EQ(log.texts()[0],
            std::string("Could not serialize SO: malloc failed for 4294967295 bytes (") +
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
  EXPECT_EQ(os.str(),
            "2,1,0,1000,0,65536,7,1,,0,1,[],[" + crtest::Hex(rec.fps[0].data(), 16) + "]");
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

// A host-order record is written as its network image and left in host
// order; a network-order record is written and left as it stands.
TEST(SegmentRecordToStream, BinaryFormIsTheNetworkImage) {
  const Rec rec = TwoTaskIDsOneFingerprint();
  const Bytes net = Image(rec, true);
  for (bool big : {false, true}) {
    const Bytes image = Image(rec, big);
    Buffer buf(image);
    std::ostringstream os;
    SegmentRecordToStream(os, *buf.r(), true);
    EXPECT_EQ(os.str(), std::string(reinterpret_cast<const char*>(net.data()), net.size()));
    EXPECT_EQ(buf.bytes(image.size()), image.vec());
  }
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
