// crrec's opening and verify: each damage to the bytes of a form is refused
// in one line that names the check it fails.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "crrec_support.h"
#include "examine.h"
#include "load.h"
#include "test_support.h"

namespace {

using crtest::Image;

// Little-endian, or big-endian when `big`.
uint64_t Get(const Image& b, size_t at, int n, bool big = false) {
  uint64_t v = 0;
  for (int i = 0; i < n; ++i) v = v << 8 | b[at + static_cast<size_t>(big ? i : n - 1 - i)];
  return v;
}
void Put(Image& b, size_t at, uint64_t v, int n, bool big = false) {
  for (int i = 0; i < n; ++i) b[at + static_cast<size_t>(big ? n - 1 - i : i)] = v >> (8 * i);
}

// "done" when verify finds the bytes sound, else the exit code and line.
std::string Verdict(const Image& bytes) {
  return crtest::ToolLine([&] {
    std::ostringstream sink;
    crrec::Verify(crrec::Load("f", bytes, crrec::Hints()), crrec::VerifyOptions(), sink);
  });
}

TEST(CrrecVerify, EachDamageIsNamedByTheCheckItFails) {
  auto stored = [](int t) { return crrec::StoredBytes(*crtest::BuildNoise(t, 2).record, false); };
  auto ser = [](int t) { return crrec::SerializedBytes(*crtest::BuildNoise(t, 2).record, 1, "b"); };
  const Image do0 = stored(0), ser1 = ser(1), do3 = stored(3), ser3 = ser(3), do4 = stored(4);
  const Image ser4 = ser(4);
  Image seg;
  ASSERT_TRUE(crrec::HexDecode(crtest::kSegmentDbHex, &seg));
  // Stored layout: size at 24, ssize at 32, nfp at 56, bsize at 72; the
  // unique-DCID section behind 36-byte DO type 3 entries and 8-byte DCIDs,
  // or behind a Bloom record's length word, bitmap and 16 reserved bytes.
  const uint64_t size = Get(do3, 24, 8), nfp0 = Get(do0, 56, 4), ssize0 = Get(do0, 32, 8);
  const size_t unique3 = 80 + 36 * Get(do3, 56, 4), trefs3 = do3.size() - Get(do3, 68, 4);
  const size_t zeros4 = 84 + Get(do4, 72, 4), unique4 = zeros4 + 16;
  const size_t block4 = 32 + Get(ser4, 28, 4, true);  // serialized Bloom: the unique-DCID block
  const uint64_t nfp1 = Get(ser1, 20, 4, true), ssize1 = Get(ser1, 8, 8, true);
  ASSERT_GE(Get(do3, 60, 4), 2u);
  ASSERT_GE(Get(ser4, block4 + 4, 4, true), 2u);
  const std::string dcid0 = std::to_string(Get(do3, unique3 + 8, 8));
  const std::string dcid1 = std::to_string(Get(do3, unique3 + 24, 8));
  const std::string bdcid0 = std::to_string(Get(ser4, block4 + 8, 8, true));
  const std::string bdcid1 = std::to_string(Get(ser4, block4 + 24, 8, true));
  // A list is sealed by an Adler-32: a stored one in host order, a
  // serialized Bloom block big-endian, itself under the head's checksum.
  auto reseal = [](Image& b, size_t list, bool big) {
    const uint64_t n = Get(b, list + 4, 4, big);
    Put(b, list, crtest::SlowAdler32(b.data() + list + 4, 4 + 16 * n), 4, big);
    if (big) Put(b, 16, crtest::SlowAdler32(b.data() + 28, b.size() - 28), 4, true);
  };
  auto lastSeg = [](uint64_t nfp, uint64_t ssize, uint64_t size) {
    return "size: size " + std::to_string(size) + " leaves no bytes to the last of " +
           std::to_string(nfp) + " segments (" + std::to_string(nfp - 1) + " x ssize " +
           std::to_string(ssize) + " = " + std::to_string((nfp - 1) * ssize) + ")";
  };
  const std::string widths = " (29 + 2 x 41, 45, 49, 53, 73, 77, 81 or 85 bytes by type)";
  struct Row {
    const Image& base;
    std::function<void(Image&)> damage;
    std::string line;  // after "crrec: f: ", or "done"
  } rows[] = {
      {do3, [](Image&) {}, "done"},
      {ser4, [](Image&) {}, "done"},
      {seg, [](Image&) {}, "done"},
      {seg, [](Image& b) { Put(b, 24, 5, 8), Put(b, 32, 9, 8); }, "done"},  // a path ID
      {do3, [](Image& b) { b.clear(); }, "empty file"},
      {do3, [](Image& b) { b.resize(20); }, "Invalid DO record: size 20, expected at least 80 "
       "(status 32)"},
      {do3, [](Image& b) { b.assign(20, 0); }, "20 bytes: too short for any record form (a "
       "serialized DO record has at least 29)"},
      {ser1, [](Image& b) { b.assign(129, 0), b[23] = 2; },
       "129 bytes do not fit a serialized DO record with 2 segments" + widths},
      {do3, [](Image& b) { b.pop_back(); }, "Invalid DO record: recsize " +
       std::to_string(do3.size()) + ", size " + std::to_string(do3.size() - 1) + " (status 32)"},
      {seg, [](Image& b) { b.resize(136); },
       "Invalid SO record: recsize 128, size 136 (status 32)"},
      {do3, [](Image& b) { b[8] = 1; }, "reserved: header bytes 8-11 are 01000000"},
      {do3, [](Image& b) { b[79] = 1; }, "reserved: header bytes 78-79 are 0001"},
      {do4, [&](Image& b) { b[zeros4] = 7; },
       "reserved: the Bloom section's 16 reserved bytes are 07" + std::string(30, '0')},
      {do4, [&](Image& b) { b[zeros4] = 'B', b[zeros4 + 1] = 'E', b[zeros4 + 15] = 1; },
       "reserved: the Bloom section's 16 reserved bytes are 4245" + std::string(26, '0') + "01"},
      {do0, [](Image& b) { Put(b, 32, uint64_t{1} << 32, 8); },
       "size: ssize 4294967296 is no segment size (1 to 4294967295 bytes) for " +
           std::to_string(nfp0 - 1) + " segments but the last"},
      {do0, [&](Image& b) { Put(b, 24, (nfp0 - 1) * ssize0, 8); },
       lastSeg(nfp0, ssize0, (nfp0 - 1) * ssize0)},
      {ser1, [&](Image& b) { Put(b, 0, (nfp1 - 1) * ssize1 - 5, 8, true); },
       lastSeg(nfp1, ssize1, (nfp1 - 1) * ssize1 - 5)},
      {do3, [&](Image& b) { Put(b, 24, size + 1, 8); }, "size: size " +
       std::to_string(size + 1) + ", but the last segment ends at " + std::to_string(size)},
      {ser3, [&](Image& b) { Put(b, 0, size + 1, 8, true); }, "size: size " +
       std::to_string(size + 1) + ", but the last segment ends at " + std::to_string(size)},
      {do4, [&](Image& b) { Put(b, 24, size - 1, 8); }, "size: size " + std::to_string(size - 1) +
       ", but the unique-DCID byte counts sum to " + std::to_string(size)},
      {do3, [&](Image& b) {
         std::swap_ranges(&b[unique3 + 8], &b[unique3 + 24], &b[unique3 + 24]);
         reseal(b, unique3, false);
       }, "unique: entry 1 (container " + dcid0 + ") follows container " + dcid1 +
           ": not ascending"},
      {do3, [&](Image& b) { Put(b, unique3 + 24, Get(b, unique3 + 8, 8), 8), reseal(b, unique3, 0); },
       "unique: the list names container " + dcid0 + " twice"},
      {do4, [&](Image& b) { Put(b, unique4 + 8, 5, 8), reseal(b, unique4, false); },
       "unique: entry 0 names container 5, below 64"},
      {ser4, [&](Image& b) {
         std::swap_ranges(&b[block4 + 8], &b[block4 + 24], &b[block4 + 24]);
         reseal(b, block4, true);
       }, "unique: entry 1 (container " + bdcid0 + ") follows container " + bdcid1 +
           ": not ascending"},
      {ser4, [&](Image& b) {
         Put(b, block4 + 24, Get(b, block4 + 8, 8, true), 8, true), reseal(b, block4, true);
       }, "unique: the list names container " + bdcid0 + " twice"},
      // The task-ID reference (10 bytes) and the DSID reference (6) swap.
      {do3, [&](Image& b) { std::rotate(&b[trefs3], &b[trefs3 + 10], &b[trefs3 + 16]); },
       "canonical: byte " + std::to_string(trefs3) +
           " is 0x04, the library writes 0x02 (not in canonical form)"},
      {seg, [](Image& b) { Put(b, 2, 4, 2); }, "flags: flags 0x0004, expected 0 or 0x0002"},
      {seg, [](Image& b) { Put(b, 24, 5, 8); }, "DCID: DCID 5, expected 1 or at least 64"},
      {seg, [](Image& b) { Put(b, 8, 3, 4); }, "reserved: the unused word is 3"},
      {seg, [](Image& b) { b[91] = 1, b.back() = 1; },
       "reserved: pad is 1; the trailer is 0000000000000001"},
  };
  for (const Row& row : rows) {
    Image damaged(row.base);
    row.damage(damaged);
    EXPECT_EQ(Verdict(damaged), row.line == "done" ? row.line : "1 crrec: f: " + row.line);
  }
}

}  // namespace
