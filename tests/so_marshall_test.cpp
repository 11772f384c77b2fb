// The segment DB record: byte-order conversion with and without the task
// IDs, validation of records from outside, the serialized SO record and the
// binary and text stream forms.
#include <gtest/gtest.h>

#include <cstdint>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <tuple>
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

// Each direction, in place and into another buffer, both fingerprint
// widths, keeping or dropping the task IDs: every byte lands where the layout
// says, the unconverted ones included, and a separate source stays as it was.
TEST(SegmentRecordConvert, EveryByteLandsWhereTheLayoutSaysWithOrWithoutTaskIDs) {
  for (uint8_t fptype : {1, 3}) {
    Rec rec = TwoTaskIDsOneFingerprint();
    rec.fptype = fptype;
    rec.fps = {crtest::PatternFP(0x80, crtest::FPWidth(fptype)),
               crtest::PatternFP(0x90, crtest::FPWidth(fptype))};
    Rec dropped = rec;
    dropped.taskIDs.clear();
    for (unsigned int flags : {0u, static_cast<unsigned int>(CR_SO_CONVERT_DROP_TASKIDS)}) {
      for (bool toNetwork : {true, false}) {
        for (bool inPlace : {true, false}) {
          SCOPED_TRACE(testing::Message() << "fptype " << int{fptype} << " flags " << flags
                                          << (toNetwork ? " hton" : " ntoh")
                                          << (inPlace ? " in place" : ""));
          const Bytes source = SoImage(rec, !toNetwork);
          const Bytes expected = SoImage(flags ? dropped : rec, toNetwork);
          Buffer src(source), other(Bytes().zeros(source.size()));
          (toNetwork ? SegmentRecordHton : SegmentRecordNtoh)(inPlace ? src.r() : other.r(),
                                                              src.r(), flags);
          EXPECT_EQ((inPlace ? src : other).bytes(expected.size()), expected.vec());
          if (!inPlace) {
            EXPECT_EQ(src.bytes(source.size()), source.vec());
          }
        }
      }
    }
  }
}

// A record with the given type, recsize, fingerprint type and task IDs; the
// counts, when not given, follow the lists.
Rec Make(uint16_t type, std::optional<uint32_t> recsize, uint8_t fptype,
         std::vector<uint64_t> taskIDs, std::optional<uint32_t> ntaskid = {},
         std::optional<uint32_t> ndo = {}) {
  Rec r;
  r.type = type;
  r.recsize = recsize;
  r.fptype = fptype;
  r.taskIDs = taskIDs;
  r.ntaskid = ntaskid;
  r.ndo = ndo;
  return r;
}

// The first rows break one check each and every later one too, so that a
// check made out of order reports the wrong line. Then records pass in the
// order the flags say; unknown flags give 9 without a trace line. 104 + 8 *
// 2^29 and 104 + 32 * 2^27 both wrap to 104 in 32 bits. No trace untraced.
TEST(SegmentRecordValidate, EachCheckFailsWithItsOwnTraceInOrderAndFlagsChooseTheOrder) {
  const Bytes plain = SoImage(Rec(), false), host = SoImage(TwoTaskIDsOneFingerprint(), false);
  const Bytes net = SoImage(TwoTaskIDsOneFingerprint(), true);
  const Bytes broken = SoImage(Make(3, 4, 9, {1}), false);
  const std::string wraps = "calculated size 4294967400, size 104";
  struct Row {
    Bytes image;
    unsigned int size, flags;
    cr_status_t status;
    std::string trace;  // after "Invalid SO record: "; none for status 0 and 9
  };
  const Row rows[] = {
      {broken, 95, 0, 32, "size 95, expected at least 96"},
      {broken, 112, 2, 32, "type 3, expected 2"},
      {SoImage(Make(2, 4, 9, {1}), false), 112, 2, 32, "recsize 4, size 112"},
      {SoImage(Make(2, 120, 9, {1}), false).zeros(8), 120, 2, 32, "calculated size 112, size 120"},
      {SoImage(Make(2, {}, 9, {1}), false), 112, 2, 32, "1 taskids, expected 0"},
      {SoImage(Make(2, {}, 9, {1}), false), 112, 0, 32, "invalid fp type 9"},
      {plain, 104, CR_SO_VALIDATE_NO_TASKIDS, 0, ""},
      {plain, 96, 0, 32, "recsize 104, size 96"},
      {host, 136, 0, 0, ""},
      {host, 136, CR_SO_VALIDATE_NO_TASKIDS, 32, "2 taskids, expected 0"},
      {net, 136, CR_SO_VALIDATE_NETWORK_ORDER, 0, ""},
      {net, 136, 0, 32, "type 512, expected 2"},
      {plain, 104, 4, 9, ""},
      {plain, 104, 0x80000000u, 9, ""},
      {SoImage(Make(2, 104, 1, {}, 0x20000000u, 0), false), 104, 0, 32, wraps},
      {SoImage(Make(2, 104, 3, {}, 0, 0x08000000u), false), 104, 0, 32, wraps},
  };
  for (const Row& r : rows) {
    for (bool trace : {true, false}) {
      SCOPED_TRACE(testing::Message() << "row " << &r - rows << (trace ? "" : " untraced"));
      Buffer buf(r.image);
      LogCapture log(trace);
      EXPECT_EQ(SegmentRecordValidate(buf.r(), r.size, r.flags), r.status);
      ASSERT_EQ(log.texts(), trace && !r.trace.empty()
                                 ? std::vector<std::string>{"Invalid SO record: " + r.trace}
                                 : std::vector<std::string>());
      if (!log.lines().empty()) {
        EXPECT_EQ(log.lines()[0].level, CR_LOG_TRACE);
      }
    }
  }
  EXPECT_EQ(SegmentRecordValidate(nullptr, 104, 0), 9u);
  // Every prefix, in a block of exactly its size: the sanitizer reports any read past it.
  for (size_t n = 0; n < host.size(); ++n) {
    const Buffer prefix(Bytes().raw(host.data(), n));
    EXPECT_EQ(SegmentRecordValidate(prefix.r(), static_cast<unsigned int>(n), 0), 32u) << n;
  }
}

// 33 + 65 * (2^32 - 1) bytes cannot be had; the size is logged at its
// 32-bit maximum and the outputs cleared. Refusals leave the outputs.
TEST(SegmentRecordSerialize, WritesTheHeadAndTextsRefusesKeepingTheOutputsLogsAFailedMalloc) {
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
    void* data = nullptr;
    unsigned long size = 0;
    ASSERT_EQ(SegmentRecordSerialize(buf.r(), &data, &size), 0u);
    const crtest::Malloced out(static_cast<uint8_t*>(data));
    EXPECT_EQ(crtest::BytesAt(out.get(), size), expected.u8(0).vec());
  }
  Buffer buf(SoImage(Rec(), false));
  Buffer net(SoImage(TwoTaskIDsOneFingerprint(), true));
  Buffer huge(SoImage(Make(2, 104, 3, {}, {}, 0xFFFFFFFFu), false));
  void* data = &data;
  unsigned long size = 77;
  LogCapture log;
  EXPECT_EQ(SegmentRecordSerialize(nullptr, &data, &size), 65u);
  EXPECT_EQ(SegmentRecordSerialize(buf.r(), nullptr, &size), 65u);
  EXPECT_EQ(SegmentRecordSerialize(buf.r(), &data, nullptr), 65u);
  EXPECT_EQ(SegmentRecordSerialize(net.r(), &data, &size), 9u);
  EXPECT_EQ(std::make_pair(data, size), std::make_pair(static_cast<void*>(&data), 77ul));
  EXPECT_TRUE(log.lines().empty());
  size = 0;
  EXPECT_EQ(SegmentRecordSerialize(huge.r(), &data, &size), 22u);
  EXPECT_EQ(std::make_pair(data, size), std::make_pair(static_cast<void*>(nullptr), 0ul));
  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_EQ(std::make_tuple(log.lines()[0].level, log.lines()[0].status, log.texts()[0]),
            std::make_tuple(CR_LOG_ERROR, 22u,
                            std::string("Could not serialize SO: malloc failed for 4294967295 "
                                        "bytes (") + CRStatusToStringA(22) + ")"));
}

class ThrowingBuf : public std::streambuf {
 protected:
  int_type overflow(int_type) override { throw std::runtime_error("device full"); }
  std::streamsize xsputn(const char*, std::streamsize) override {
    throw std::runtime_error("device full");
  }
};

// The example record in host order, and a record with task IDs and wide
// fingerprints in network order. The text lists the fields, task IDs and
// fingerprints; the binary form is the network image whatever order the
// record is in; the record is left in its order, also when the stream throws.
TEST(SegmentRecordToStream, TextAndBinaryFormsAndTheRecordKeepsItsOrder) {
  Rec example, net;
  example.flags = 0;
  example.fps = {crtest::PatternFP(0xC0, 16)};
  net.fptype = 3;
  net.dcid = 77;
  net.fileID = 9;
  net.taskIDs = {5, 0x100000000ull};
  net.fps = {crtest::PatternFP(0x10, 32), crtest::PatternFP(0x30, 32)};
  const auto hex = [](const std::vector<uint8_t>& fp) { return crtest::Hex(fp.data(), fp.size()); };
  const std::tuple<Rec, bool, std::string> cases[] = {
      {example, false, "2,1,0,1000,0,65536,7,1,,0,1,[],[" + hex(example.fps[0]) + "]"},
      {net, true, "2,1,2,77,9,65536,7,3,,2,2,[5,4294967296],[" + hex(net.fps[0]) + "," +
                      hex(net.fps[1]) + "]"}};
  for (const auto& c : cases) {
    for (bool binary : {false, true}) {
      SCOPED_TRACE(std::string(std::get<1>(c) ? "network" : "host") + (binary ? " binary" : ""));
      const Bytes image = SoImage(std::get<0>(c), std::get<1>(c));
      const Bytes network = SoImage(std::get<0>(c), true);
      Buffer buf(image);
      std::ostringstream os;
      SegmentRecordToStream(os, *buf.r(), binary);
      EXPECT_EQ(os.str(), binary ? std::string(network.data(), network.data() + network.size())
                                 : std::get<2>(c));
      EXPECT_EQ(buf.bytes(image.size()), image.vec());
      ThrowingBuf sink;
      std::ostream throwing(&sink);
      throwing.exceptions(std::ios::badbit);
      EXPECT_THROW(SegmentRecordToStream(throwing, *buf.r(), binary), std::runtime_error);
      EXPECT_EQ(buf.bytes(image.size()), image.vec());
    }
  }
}

}  // namespace
