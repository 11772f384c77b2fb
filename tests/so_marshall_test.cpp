// The segment DB record: byte-order conversion with and without the task
// IDs, validation of records from outside, the serialized SO record and the
// binary and text stream forms.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "crrecord/SOmarshall.h"
#include "images.h"

// Lets the allocation-failure test ask for more memory than the machine has
// and get null back, as the system allocator gives it, instead of an abort.
extern "C" __attribute__((visibility("default"))) const char* __asan_default_options() {
  return "allocator_may_return_null=1:max_allocation_size=17179869184";
}

namespace {

using crtest::Bytes;
using crtest::LogCapture;
using crtest::SoImage;
using Rec = crtest::SoRec;

struct Buffer {
  explicit Buffer(const Bytes& b) : m(crtest::Block(b.size(), b.data())) {}
  _SegmentDBRecord* r() const { return reinterpret_cast<_SegmentDBRecord*>(m.get()); }
  std::vector<uint8_t> bytes(size_t n) const { return crtest::BytesAt(m.get(), n); }
  crtest::Malloced m;
};

// Two task IDs and one 16-byte fingerprint: 104 + 16 + 16 = 136 bytes.
Rec TwoTaskIDsOneFingerprint() {
  Rec r;
  r.taskIDs = {0x1112131415161718ull, 42};
  r.fps = {crtest::PatternFP(0x80, 16)};
  return r;
}

std::vector<uint8_t> Vec(const std::string& s) { return std::vector<uint8_t>(s.begin(), s.end()); }

// In place and into another buffer, both fingerprint widths: every byte
// lands where the layout says, the unconverted ones included, and Ntoh
// restores what Hton changed.
TEST(SegmentRecordConvert, HtonWritesTheNetworkImageAndNtohRestoresEveryByte) {
  for (uint8_t fptype : {1, 3}) {
    SCOPED_TRACE(int{fptype});
    Rec rec = TwoTaskIDsOneFingerprint();
    rec.fptype = fptype;
    rec.fps = {crtest::PatternFP(0x80, crtest::SoWidth(fptype)),
               crtest::PatternFP(0x90, crtest::SoWidth(fptype))};
    const Bytes host = SoImage(rec, false), net = SoImage(rec, true);
    Buffer buf(host), toNet(Bytes().zeros(host.size())), toHost(Bytes().zeros(host.size()));
    SegmentRecordHton(buf.r(), buf.r(), 0);
    EXPECT_EQ(buf.bytes(net.size()), net.vec());
    SegmentRecordNtoh(buf.r(), buf.r(), 0);
    EXPECT_EQ(buf.bytes(host.size()), host.vec());
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
  Rec dropped = rec;
  dropped.taskIDs.clear();
  for (bool toNetwork : {true, false}) {
    for (bool inPlace : {true, false}) {
      SCOPED_TRACE(std::string(toNetwork ? "hton" : "ntoh") + (inPlace ? " in place" : ""));
      const Bytes source = SoImage(rec, !toNetwork), expected = SoImage(dropped, toNetwork);
      ASSERT_EQ(source.size(), 136u);
      ASSERT_EQ(expected.size(), 120u);
      Buffer src(source), other(Bytes().zeros(120));
      _SegmentDBRecord* dst = inPlace ? src.r() : other.r();
      (toNetwork ? SegmentRecordHton : SegmentRecordNtoh)(dst, src.r(),
                                                          CR_SO_CONVERT_DROP_TASKIDS);
      EXPECT_EQ((inPlace ? src : other).bytes(120), expected.vec());
      if (!inPlace) {
        EXPECT_EQ(src.bytes(136), source.vec()) << "the source stays as it was";
      }
    }
  }
}

// Each case breaks its own check and, where it can, later checks too, so
// that a check made out of order reports the wrong line.
TEST(SegmentRecordValidate, EachCheckFailsWithItsOwnTraceInOrder) {
  struct Case {
    void (*repair)(Rec&);  // mends the check the case before broke
    int sizeDelta;         // size given = image size + delta
    unsigned int flags;
    std::string trace;
  };
  const Case cases[] = {
      {nullptr, 95 - 112, 0, "Invalid SO record: size 95, expected at least 96"},
      {nullptr, 0, 2, "Invalid SO record: type 3, expected 2"},
      {[](Rec& r) { r.type = 2; }, 0, 2, "Invalid SO record: recsize 4, size 112"},
      {[](Rec& r) { r.recsize = 120; }, 8, 2, "Invalid SO record: calculated size 112, size 120"},
      {[](Rec& r) { r.recsize.reset(); }, 0, 2, "Invalid SO record: 1 taskids, expected 0"},
      {nullptr, 0, 0, "Invalid SO record: invalid fp type 9"},
  };
  Rec r;
  r.type = 3;
  r.recsize = 4;
  r.fptype = 9;
  r.taskIDs = {1};
  for (const Case& c : cases) {
    if (c.repair) c.repair(r);
    for (bool trace : {true, false}) {
      SCOPED_TRACE(c.trace + (trace ? "" : " untraced"));
      Bytes image = SoImage(r, false);
      const auto size = static_cast<unsigned int>(static_cast<int>(image.size()) + c.sizeDelta);
      Buffer buf(image.zeros(c.sizeDelta > 0 ? c.sizeDelta : 0));
      LogCapture log(trace);
      EXPECT_EQ(SegmentRecordValidate(buf.r(), size, c.flags), 32u);
      ASSERT_EQ(log.lines().size(), trace ? 1u : 0u);
      if (trace) {
        EXPECT_EQ(log.lines()[0].level, CR_LOG_TRACE);
        EXPECT_EQ(log.texts()[0], c.trace);
      }
    }
  }
}

Rec Wrapping(uint32_t ntaskid, uint8_t fptype, uint32_t ndo) {
  Rec r;
  r.ntaskid = ntaskid;
  r.fptype = fptype;
  r.ndo = ndo;
  r.recsize = 104;
  return r;
}

// Records pass in the order the flags say; unknown flags give 9 without a
// trace line. 104 + 8 * 2^29 and 104 + 32 * 2^27 both wrap to 104 in 32 bits.
TEST(SegmentRecordValidate, FlagsChooseTheOrderAndCountsThatWrapAreRefused) {
  const Bytes plain = SoImage(Rec(), false), host = SoImage(TwoTaskIDsOneFingerprint(), false);
  const Bytes net = SoImage(TwoTaskIDsOneFingerprint(), true);
  const std::string wraps = "calculated size 4294967400, size 104";
  struct Row {
    Bytes image;
    unsigned int size, flags;
    cr_status_t status;
    std::string trace;  // after "Invalid SO record: "; none for status 0 and 9
  };
  const Row rows[] = {
      {plain, 104, CR_SO_VALIDATE_NO_TASKIDS, 0, ""},
      {plain, 96, 0, 32, "recsize 104, size 96"},
      {host, 136, 0, 0, ""},
      {host, 136, CR_SO_VALIDATE_NO_TASKIDS, 32, "2 taskids, expected 0"},
      {net, 136, CR_SO_VALIDATE_NETWORK_ORDER, 0, ""},
      {net, 136, 0, 32, "type 512, expected 2"},
      {plain, 104, 4, 9, ""},
      {plain, 104, 0x80000000u, 9, ""},
      {SoImage(Wrapping(0x20000000u, 1, 0), false), 104, 0, 32, wraps},
      {SoImage(Wrapping(0, 3, 0x08000000u), false), 104, 0, 32, wraps},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(testing::Message() << "row " << &r - rows);
    Buffer buf(r.image);
    LogCapture log(true);
    EXPECT_EQ(SegmentRecordValidate(buf.r(), r.size, r.flags), r.status);
    EXPECT_EQ(log.texts(), r.trace.empty() ? std::vector<std::string>()
                                           : std::vector<std::string>{"Invalid SO record: " +
                                                                      r.trace});
  }
  EXPECT_EQ(SegmentRecordValidate(nullptr, 104, 0), 9u);
}

// Every prefix of a valid record, given with its true size, in a buffer of
// exactly that size: ASan fails the test on any read past it.
TEST(SegmentRecordValidate, NeverReadsPastTheSizeOfAnyPrefix) {
  const Bytes full = SoImage(TwoTaskIDsOneFingerprint(), false);
  for (size_t n = 0; n <= full.size(); ++n) {
    Buffer buf(Bytes().raw(full.data(), n));
    EXPECT_EQ(SegmentRecordValidate(buf.r(), static_cast<unsigned int>(n), 0),
              n == full.size() ? 0u : 32u)
        << n;
  }
}

struct Serialized {
  ~Serialized() { std::free(data); }
  void* data = nullptr;
  unsigned long size = 0;
};

TEST(SegmentRecordSerialize, WritesTheBigEndianHeadAndTheFingerprintTexts) {
  Rec two = TwoTaskIDsOneFingerprint(), wide, none;
  two.fileID = 0x0102030405060708ull;
  two.fps.push_back(crtest::PatternFP(0xF0, 16));
  wide.fptype = 3;
  wide.fps = {crtest::PatternFP(0x01, 32), crtest::PatternFP(0xA0, 32)};
  none.taskIDs = {5};
  for (const Rec& rec : {two, wide, none}) {
    Bytes expected;
    expected.be64(rec.size).be64(rec.dcid).be64(rec.fileID).be32(rec.crc);
    expected.be32(static_cast<uint32_t>(rec.fps.size()));
    for (const std::vector<uint8_t>& fp : rec.fps) {
      expected.str(crtest::Hex(fp.data(), fp.size())).u8(0);
    }
    Buffer buf(SoImage(rec, false));
    Serialized out;
    ASSERT_EQ(SegmentRecordSerialize(buf.r(), &out.data, &out.size), 0u);
    const uint8_t* p = static_cast<const uint8_t*>(out.data);
    EXPECT_EQ(std::vector<uint8_t>(p, p + out.size), expected.u8(0).vec());
  }
}

TEST(SegmentRecordSerialize, MissingArgumentsAndNetworkOrderAreRefused) {
  Buffer buf(SoImage(Rec(), false));
  Buffer net(SoImage(TwoTaskIDsOneFingerprint(), true));
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
  Buffer buf(SoImage(rec, false));
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

// The example record, and a network-order record with task IDs and wide
// fingerprints, which is converted back to network order afterwards.
TEST(SegmentRecordToStream, TextFormListsTheFieldsTaskIDsAndFingerprints) {
  Rec example, net;
  example.flags = 0;
  example.fps = {crtest::PatternFP(0xC0, 16)};
  net.fptype = 3;
  net.dcid = 77;
  net.fileID = 9;
  net.taskIDs = {5, 0x100000000ull};
  net.fps = {crtest::PatternFP(0x10, 32), crtest::PatternFP(0x30, 32)};
  const auto hex = [](const std::vector<uint8_t>& fp) { return crtest::Hex(fp.data(), fp.size()); };
  const std::pair<Bytes, std::string> cases[] = {
      {SoImage(example, false), "2,1,0,1000,0,65536,7,1,,0,1,[],[" + hex(example.fps[0]) + "]"},
      {SoImage(net, true), "2,1,2,77,9,65536,7,3,,2,2,[5,4294967296],[" + hex(net.fps[0]) + "," +
                               hex(net.fps[1]) + "]"}};
  for (const auto& c : cases) {
    Buffer buf(c.first);
    std::ostringstream os;
    SegmentRecordToStream(os, *buf.r(), false);
    EXPECT_EQ(os.str(), c.second);
    EXPECT_EQ(buf.bytes(c.first.size()), c.first.vec()) << "left in its byte order";
  }
}

class ThrowingBuf : public std::streambuf {
 protected:
  int_type overflow(int_type) override { throw std::runtime_error("device full"); }
  std::streamsize xsputn(const char*, std::streamsize) override {
    throw std::runtime_error("device full");
  }
};

// The binary form is the network image whatever order the record is in; the
// record is left in its order afterwards, also when the stream throws.
TEST(SegmentRecordToStream, BinaryFormIsTheNetworkImageAndTheRecordKeepsItsOrder) {
  const Bytes net = SoImage(TwoTaskIDsOneFingerprint(), true);
  for (bool big : {false, true}) {
    for (bool binary : {false, true}) {
      SCOPED_TRACE(std::string(big ? "network" : "host") + (binary ? " binary" : " text"));
      const Bytes image = SoImage(TwoTaskIDsOneFingerprint(), big);
      Buffer buf(image);
      std::ostringstream os;
      SegmentRecordToStream(os, *buf.r(), binary);
      if (binary) {
        EXPECT_EQ(Vec(os.str()), net.vec());
      }
      ThrowingBuf sink;
      std::ostream throwing(&sink);
      throwing.exceptions(std::ios::badbit);
      EXPECT_THROW(SegmentRecordToStream(throwing, *buf.r(), binary), std::runtime_error);
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
