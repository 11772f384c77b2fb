// The reader of serialized DO records (its layout, its refusals of short,
// malformed or wrapping input and of unusable caller buffers), the check of
// the head's checksum, and the DORecord constructor over serialized bytes.
//
// Input is handed over in heap copies of exactly its length, so that the
// sanitizer reports any read past it.
#include <gtest/gtest.h>

#include <cstring>
#include <ctime>
#include <string>
#include <tuple>
#include <vector>

#include "crrecord/DORecord.h"
#include "images.h"

namespace {

using crtest::Block;
using crtest::Failure;
using crtest::Malloced;
using crtest::Seg;
using crtest::Thrown;
using crtest::UEntry;

constexpr uint32_t kCrc = 0x1234;
constexpr unsigned long kUntouched = 12345;
const std::string kPrefix = "Invalid serialized DO record: ";

// Runs the reader into a buffer of its own over an exact copy of the first
// `n` bytes of `image`. The record, if any, lands in `record`.
cr_status_t Read(const std::vector<uint8_t>& image, size_t n, uint8_t dotype, uint8_t fptype,
                 Malloced* record = nullptr, unsigned long* size = nullptr) {
  Malloced input = Block(n, image.data());
  DORecordHeader* h = nullptr;
  unsigned long allocated = kUntouched;
  const cr_status_t status =
      DORecordHeaderDeserialize(&h, &allocated, input.get(), n, dotype, fptype);
  if (status != 0) {
    EXPECT_EQ(h, nullptr);
    EXPECT_EQ(allocated, kUntouched);
  }
  Malloced owned(reinterpret_cast<uint8_t*>(h));
  if (record != nullptr) *record = std::move(owned);
  if (size != nullptr) *size = allocated;
  return status;
}

std::vector<uint8_t> Image(uint8_t dotype, uint8_t fptype) {
  return crtest::SerializedDO(dotype, 10000, 4096, kCrc, crtest::ThreeSegments(fptype));
}

std::vector<uint8_t> BloomImage(const std::vector<UEntry>& entries = {{64, 8192},
                                                                     {0x0102030405060708, 1808}}) {
  return crtest::SerializedBloom(10000, 4096, crtest::PatternBitmap(37), entries);
}

// --- The records the reader builds ------------------------------------------

TEST(DODeserialize, SegmentFormBecomesAHostOrderRecord) {
  const uint8_t combos[][2] = {{3, 1}, {5, 3}, {0, 3}, {2, 1}};
  for (const auto& c : combos) {
    SCOPED_TRACE(testing::Message() << "dotype " << int{c[0]} << " fptype " << int{c[1]});
    const uint32_t before = static_cast<uint32_t>(std::time(nullptr));
    Malloced record;
    unsigned long allocated = 0;
    const std::vector<uint8_t> image = Image(c[0], c[1]);
    ASSERT_EQ(Read(image, image.size(), c[0], c[1], &record, &allocated), 0u);
    uint32_t ctime;
    std::memcpy(&ctime, record.get() + 44, 4);
    EXPECT_GE(ctime, before);
    EXPECT_LE(ctime, static_cast<uint32_t>(std::time(nullptr)));
    // Flags, CID and check time zero, both times the time of reading.
    const std::vector<uint8_t> expected = crtest::HostRecord(
        c[0], c[1], crtest::ThreeSegments(c[1]), {0, 0, kCrc, ctime, ctime});
    EXPECT_EQ(crtest::Hex(record.get(), allocated), crtest::Hex(expected.data(), expected.size()));
  }
}

TEST(DODeserialize, BloomFormKeepsLengthWordAndListAsTheyTravelled) {
  const std::vector<uint8_t> image = BloomImage();
  Malloced record;
  unsigned long allocated = 0;
  ASSERT_EQ(Read(image, image.size(), 4, 1, &record, &allocated), 0u);

  const uint32_t headChecksum = crtest::SlowAdler32(image.data() + 28, image.size() - 28);
  const std::vector<uint8_t> bitmap = crtest::PatternBitmap(37);
  const uint32_t recsize = 80 + 4 + 37 + 16 + 8 + 16 * 2;
  crtest::Bytes expected;
  expected.le16(3).le16(0).le32(recsize).le32(0).le32(0);
  expected.le64(0).le64(10000).le64(4096).le32(headChecksum);
  expected.raw(record.get() + 44, 8);  // ctime, mtime: the time of reading
  expected.le32(0).le32(0).le32(2).le32(0).le32(0).le32(37).u8(1).u8(4).u8(0).u8(0);
  // The reserved bytes say that the list stands big-endian.
  expected.be32(37).raw(bitmap.data(), bitmap.size()).raw(crrecord::kBloomListBigEndianMark, 16);
  expected.raw(image.data() + 32 + 37, 8 + 16 * 2);  // checksum, count, entries: big-endian
  ASSERT_EQ(allocated, expected.size());
  EXPECT_EQ(crtest::Hex(record.get(), allocated), crtest::Hex(expected.data(), expected.size()));
  EXPECT_EQ(DORecordHeaderValidate(reinterpret_cast<DORecordHeader*>(record.get()), recsize, 0),
            0u);
}

// --- Refused input ----------------------------------------------------------------

TEST(DODeserialize, EveryTruncationIsRefusedAsTruncated) {
  struct Form {
    std::vector<uint8_t> image;
    uint8_t dotype, fptype;
  };
  const Form forms[] = {{Image(0, 1), 0, 1}, {Image(2, 3), 2, 3},  {Image(3, 3), 3, 3},
                        {Image(5, 1), 5, 1}, {BloomImage(), 4, 1}, {BloomImage({}), 4, 3}};
  for (const Form& f : forms) {
    for (size_t n = 0; n < f.image.size(); ++n) {
      crtest::LogCapture log(true);
      ASSERT_EQ(Read(f.image, n, f.dotype, f.fptype), 120u)
          << "dotype " << int{f.dotype} << ", " << n << " of " << f.image.size() << " bytes";
      ASSERT_EQ(log.lines().size(), 1u);
      EXPECT_EQ(log.lines()[0].level, CR_LOG_TRACE);
      EXPECT_EQ(log.lines()[0].text.rfind(kPrefix, 0), 0u) << log.lines()[0].text;
      EXPECT_EQ(log.lines()[0].text.find("-byte head") != std::string::npos, n < 28) << n;
    }
  }
}

// Changes of a valid image: a byte set or xored, a big-endian word set, the
// image cut to n bytes or lengthened by a zero byte.
std::vector<uint8_t> Set(std::vector<uint8_t> image, size_t at, uint8_t v) {
  image[at] = v;
  return image;
}
std::vector<uint8_t> Xor(std::vector<uint8_t> image, size_t at, uint8_t v) {
  return Set(image, at, static_cast<uint8_t>(image[at] ^ v));
}
std::vector<uint8_t> Put32(std::vector<uint8_t> image, size_t at, uint32_t v) {
  for (int k = 0; k < 4; ++k) image[at + k] = static_cast<uint8_t>(v >> (24 - 8 * k));
  return image;
}
std::vector<uint8_t> Cut(std::vector<uint8_t> image, size_t n) {
  image.resize(n);
  return image;
}
std::vector<uint8_t> Longer(std::vector<uint8_t> image) { return Cut(image, image.size() + 1); }

// One trace line each; its text checked where the row gives one. Segment
// entries of DO type 2 are 33 + 4 bytes from 28; the Bloom form's
// unique-DCID block starts at 32 + 37.
TEST(DODeserialize, MalformedShortOrWrappingInputIsRefused) {
  const size_t block = 32 + 37;
  struct Row {
    std::vector<uint8_t> image;
    uint8_t dotype, fptype;
    cr_status_t status;
    std::string trace;
  };
  const Row rows[] = {
      {Cut(Image(0, 1), 27), 0, 1, 120, "27 bytes, shorter than the 28-byte head"},
      {Cut(Image(0, 1), 151), 0, 1, 120, "151 bytes, 3 segments need 152"},
      {Longer(Image(0, 1)), 0, 1, 121, "153 bytes, 3 segments take exactly 152"},
      {Longer(BloomImage()), 4, 1, 121, ""},
      // 29 + n x 41 wraps to 33 in 32 bits.
      {Put32(Cut(Image(0, 1), 33), 20, 104755300), 0, 1, 120, ""},
      {Put32(Image(3, 3), 20, 4), 3, 3, 120, ""},
      {Put32(Image(3, 3), 20, 0x80000000u), 3, 3, 120, ""},
      {Put32(Image(3, 3), 20, 0xFFFFFFFFu), 3, 3, 120, ""},
      // 16 x 2^28 wraps to 0: the input is exactly as long as an empty list's.
      {Put32(BloomImage({}), block + 4, 0x10000000), 4, 1, 120, ""},
      {Put32(BloomImage(), 28, 38), 4, 1, 120, ""},
      {Put32(BloomImage(), 28, 0xFFFFFFF0u), 4, 1, 120, ""},
      {Put32(BloomImage(), 28, 0xFFFFFFFFu), 4, 1, 120, ""},
      {Set(Image(2, 1), 27, 1), 2, 1, 121, ""},  // padding word
      {Set(Image(2, 1), 139, 'x'), 2, 1, 121, ""},  // byte after the entries
      {Set(Image(2, 1), 28 + 37 + 5, 'g'), 2, 1, 121,
       "fingerprint text of segment 1 is not 32 hex digits and a NUL"},
      {Set(Image(2, 1), 28 + 31, ' '), 2, 1, 121, ""},
      {Set(Image(2, 1), 28 + 31, 0), 2, 1, 121, ""},  // one digit short
      {Set(Image(2, 1), 28 + 32, '0'), 2, 1, 121, ""},  // no NUL
      {Xor(BloomImage(), 23, 1), 4, 1, 121, ""},  // segments in the Bloom form
      {Xor(BloomImage(), block + 2, 1), 4, 1, 121, ""},  // the list's checksum
      {Xor(BloomImage(), block + 11, 0x40), 4, 1, 121, ""},  // the list, checksum not
      {Xor(BloomImage(), 56 + 37 + 31, 1), 4, 1, 121, ""},  // trailing byte
      {Put32(BloomImage({}), block, 0x00040001), 4, 1, 121, ""},  // a sum for no list
      {Image(0, 1), 6, 1, 113, "DO type 6 refused"},
      {Image(0, 1), 255, 1, 113, "DO type 255 refused"},
      {Image(0, 1), 0, 0, 111, "fingerprint type 0 refused"},
      {Image(0, 1), 0, 4, 111, "fingerprint type 4 refused"},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(testing::Message() << "row " << &r - rows);
    crtest::LogCapture log(true);
    EXPECT_EQ(Read(r.image, r.image.size(), r.dotype, r.fptype), r.status);
    ASSERT_EQ(log.lines().size(), 1u);
    if (!r.trace.empty()) {
      EXPECT_EQ(log.texts()[0], kPrefix + r.trace);
    }
  }
}

// Null arguments, a caller buffer 4 bytes off the 8-byte alignment, then
// one a byte too short: none is written to.
TEST(DODeserialize, NullArgumentsAndUnusableCallerBuffersAreRefused) {
  const std::vector<uint8_t> image = Image(0, 1);
  DORecordHeader* h = nullptr;
  unsigned long size = kUntouched;
  crtest::LogCapture log(true);
  EXPECT_EQ(DORecordHeaderDeserialize(nullptr, &size, image.data(), image.size(), 0, 1), 65u);
  EXPECT_EQ(DORecordHeaderDeserialize(&h, nullptr, image.data(), image.size(), 0, 1), 65u);
  EXPECT_EQ(DORecordHeaderDeserialize(&h, &size, nullptr, 0, 0, 1), 65u);
  EXPECT_EQ(h, nullptr);
  EXPECT_EQ(size, kUntouched);
  EXPECT_EQ(log.texts(), std::vector<std::string>(3, kPrefix + "null argument"));
  Malloced storage = Block(256);
  h = reinterpret_cast<DORecordHeader*>(storage.get() + 4);
  size = 252;
  EXPECT_EQ(DORecordHeaderDeserialize(&h, &size, image.data(), image.size(), 0, 1), 9u);
  EXPECT_EQ(h, reinterpret_cast<DORecordHeader*>(storage.get() + 4));
  ASSERT_EQ(log.lines().size(), 4u);
  const std::string& text = log.lines()[3].text;
  EXPECT_EQ(text.rfind(kPrefix + "caller buffer at ", 0), 0u) << text;
  EXPECT_NE(text.find(" is not aligned to 8 bytes"), std::string::npos) << text;
  h = reinterpret_cast<DORecordHeader*>(storage.get());
  size = 151;  // the record needs 152
  EXPECT_EQ(DORecordHeaderDeserialize(&h, &size, image.data(), image.size(), 0, 1), 122u);
  EXPECT_EQ(std::make_pair(h, size), std::make_pair(reinterpret_cast<DORecordHeader*>(
                                                        storage.get()), 151ul));
  EXPECT_EQ(log.texts().back(), kPrefix + "caller buffer of 151 bytes, the record needs 152");
  EXPECT_EQ(crtest::Hex(storage.get(), 256), std::string(2 * 256, 'e'));
}

// --- The checksum of the head ----------------------------------------------------------

TEST(DOSerializedChecksum, EveryFlippedByteIsFound) {
  for (const std::vector<uint8_t>& sealed : {crtest::Sealed(Image(3, 1)), BloomImage({})}) {
    ASSERT_TRUE(DORecordSerializedHasAdler32(sealed.data(), sealed.size()));
    // The checksum covers bytes 28 to the end; it sits in bytes 16..19.
    for (size_t at = 16; at < sealed.size(); ++at) {
      if (at >= 20 && at < 28) continue;
      std::vector<uint8_t> flipped = sealed;
      flipped[at] ^= 0xFF;
      Malloced copy = Block(flipped.size(), flipped.data());
      EXPECT_FALSE(DORecordSerializedHasAdler32(copy.get(), flipped.size())) << "byte " << at;
    }
  }
  crtest::Bytes empty;
  empty.zeros(16).be32(0x00010001).zeros(8).u8(0);
  EXPECT_TRUE(DORecordSerializedHasAdler32(empty.data(), empty.size()));
  EXPECT_FALSE(DORecordSerializedHasAdler32(empty.data(), 27));
  EXPECT_FALSE(DORecordSerializedHasAdler32(nullptr, 29));
}

// --- The constructor over serialized bytes ---------------------------------------------

TEST(DORecordFromSerialized, OwnBufferIsOwnedAndTheHeaderCompletedWithValidFlagsOnly) {
  const std::vector<uint8_t> image = Image(2, 1);
  const uint32_t before = static_cast<uint32_t>(std::time(nullptr));
  crtest::LogCapture log;
  DORecord r(2, 0x0004, 100, 1, nullptr, 0, image.data(), image.size(), false);
  EXPECT_TRUE(log.lines().empty());
  // Owned (mode 2), of the record's size: the round-trip table.
  EXPECT_EQ(std::vector<uint64_t>({r.GetAllocatedSize(), r.IsSubDO(), r.GetFlags(), r.GetDCID(),
                                   r.GetCheckTime()}),
            std::vector<uint64_t>({164, 0, 4, 100, 0}));
  EXPECT_GE(r.GetMTime(), before);
  EXPECT_LE(r.GetMTime(), static_cast<uint32_t>(std::time(nullptr)));

  DORecord invalid(2, 0x0008, 100, 1, nullptr, 0, image.data(), image.size(), false);
  EXPECT_EQ(invalid.GetFlags(), 0);  // as read: the form carries no flags
  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_EQ(std::make_tuple(log.lines()[0].level, log.lines()[0].status, log.lines()[0].text),
            std::make_tuple(CR_LOG_ERROR, 9u, "Setting DORecord flags to invalid value 8"));
}

TEST(DORecordFromSerialized, SubDOTakesItsFirstContainerAndSkipsTheSizeMagnitudeCheck) {
  std::vector<Seg> segs = crtest::ThreeSegments(1);
  segs[0].dcid = 777;
  const std::vector<uint8_t> image = crtest::SerializedDO(5, 10000, 4096, kCrc, segs);
  DORecord sub(5, 0x0002, 100, 1, nullptr, 0, image.data(), image.size(), true);
  EXPECT_TRUE(sub.IsSubDO());
  EXPECT_EQ(sub.GetDCID(), 777u);
  DORecord whole(5, 0x0002, 100, 1, nullptr, 0, image.data(), image.size(), false);
  EXPECT_EQ(whole.GetDCID(), 100u);

  // Without segments there is no first container: the dcid given stays.
  const std::vector<uint8_t> bloom = BloomImage();
  DORecord bloomSub(4, 0x0002, 100, 1, nullptr, 0, bloom.data(), bloom.size(), true);
  EXPECT_EQ(bloomSub.GetDCID(), 100u);
  EXPECT_EQ(bloomSub.GetBSize(), 37u);
  EXPECT_EQ(bloomSub.GetNudcid(), 2u);

  // A sub-DO is exempt from the size magnitude check.
  const std::vector<Seg> big = {{crtest::PatternFP(1, 16), 0x80000000u, 0, 0, 64}};
  const std::vector<uint8_t> bigImage = crtest::SerializedDO(2, 0x80000000u, 4096, kCrc, big);
  DORecord bigSub(2, 0x0002, 100, 1, nullptr, 0, bigImage.data(), bigImage.size(), true);
  EXPECT_EQ(bigSub.GetSegmentSize(0), 0x80000000u);
  EXPECT_EQ(
      Thrown([&] { DORecord r(2, 2, 100, 1, nullptr, 0, bigImage.data(), bigImage.size(), 0); }),
      Failure(89, "Segment list of a DORecord is corrupt. Segment 0 has size 2147483648 (> 2 GiB). "
      "Data is probably in wrong byte order (host vs. network order)"));
}

// Sizes that add up to 900 in a 1000-byte file: that check runs after the
// buffer is built, which must then go. DO type 262 is narrowed to 6.
TEST(DORecordFromSerialized, FailuresLeaveNoBufferAndTheCallersUntouched) {
  const std::vector<uint8_t> image = Image(2, 1), short_ = crtest::SerializedDO(
      2, 1000, 512, kCrc,
      {{crtest::PatternFP(1, 16), 400, 0, 0, 64}, {crtest::PatternFP(2, 16), 500, 0, 0, 65}});
  Malloced buffer = Block(164);
  for (uint8_t* at : {static_cast<uint8_t*>(nullptr), buffer.get()}) {
    SCOPED_TRACE(at ? "caller buffer" : "own buffer");
    const auto thrown = [&](unsigned int dotype, uint8_t fptype, const std::vector<uint8_t>& in,
                            size_t n) {
      return Thrown([&] { DORecord r(dotype, 2, 100, fptype, at, at ? 164 : 0, in.data(), n, 0); });
    };
    EXPECT_EQ(thrown(2, 9, image, image.size()), Failure(9, "invalid fptype for DO"));
    EXPECT_EQ(thrown(2, 1, image, image.size() - 1), Failure(120, ""));
    EXPECT_EQ(thrown(262, 1, image, image.size()), Failure(113, ""));
    EXPECT_EQ(crtest::Hex(buffer.get(), 164), std::string(2 * 164, 'e'));
    EXPECT_EQ(thrown(2, 1, short_, short_.size()),
              Failure(89, "Segment list of DORecord CR_DO_TYPE_NO_OFFSET is corrupt. "
                          "Original file size:1000. Sum of segm. sizes:900."));
  }
}

}  // namespace
