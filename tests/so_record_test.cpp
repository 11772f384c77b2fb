// SORecord: the record it builds, its accessors and refusals in either byte
// order, in-place conversion and equality.
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "crrecord/SORecord.h"
#include "images.h"

namespace {

QorKey MakeKey(uint8_t seed) {
  QorKey key;
  for (int i = 0; i < 32; ++i) key.key[i] = static_cast<unsigned char>(seed + i);
  key.keyType = static_cast<unsigned char>(seed ^ 0xFF);
  return key;
}

std::vector<uint8_t> KeyBytes(const QorKey& key) {
  std::vector<uint8_t> b(key.key, key.key + 32);
  b.push_back(key.keyType);
  return b;
}

std::vector<uint8_t> HeaderBytes(const SORecord& rec) {
  return crtest::BytesAt(rec.GetHeader(), 104);
}

// Flags 1 ask for the task IDs to be dropped; there are none, so the
// images are the same. Each conversion is made twice: the second changes
// nothing. Equality compares the bytes as they stand, key index included.
TEST(SORecord, NewRecordIsTheHostImageConvertsToTheNetworkImageAndComparesByBytes) {
  crtest::SoRec fields;  // DCID 1000, size 65536, CRC 7, crypto mode 4, fingerprint type 1
  fields.blank = true;
  fields.unused = fields.checktime = 0;
  fields.key = KeyBytes(MakeKey(0x30));
  const std::vector<uint8_t> host = crtest::SoImage(fields, false).vec();
  const std::vector<uint8_t> net = crtest::SoImage(fields, true).vec();
  const SORecord same(2, 1000, 65536, 7, MakeKey(0x30), 4, 1);
  const SORecord otherKey(2, 1000, 65536, 7, MakeKey(0x31), 4, 1);
  for (unsigned int flags : {0u, 1u}) {
    SORecord rec(2, 1000, 65536, 7, MakeKey(0x30), 4, 1);
    EXPECT_FALSE(rec.IsInNetworkOrder());
    EXPECT_EQ(rec.GetHeaderSize(), 104u);
    EXPECT_EQ(HeaderBytes(rec), host);
    EXPECT_TRUE(rec == rec && rec == same);
    EXPECT_FALSE(rec == otherKey);
    for (int twice = 0; twice < 2; ++twice) rec.HostToNetwork(flags);
    EXPECT_TRUE(rec.IsInNetworkOrder());
    EXPECT_EQ(HeaderBytes(rec), net);
    EXPECT_FALSE(rec == same);
    for (int twice = 0; twice < 2; ++twice) rec.NetworkToHost(flags);
    EXPECT_FALSE(rec.IsInNetworkOrder());
    EXPECT_EQ(HeaderBytes(rec), host);
    rec.SetKeyIndex(1);
    EXPECT_FALSE(rec == same);
  }
}

// Values set in host order read back after conversion; values set in
// network order stand big-endian and read back as set. The key bytes and
// the key index are the same in both orders. A record with a file ID is in
// no container: its DCID reads as 0, its path ID as the stored DCID, and
// setting a DCID clears the file ID.
TEST(SORecord, AccessorsUseHostValuesInEitherOrder) {
  const QorKey key = MakeKey(0x50);
  SORecord rec(2, 1, 65536, 99, key, 3, 1);
  rec.SetCheckTime(1700000000);
  rec.SetKeyIndex(258);
  rec.HostToNetwork(0);
  rec.GetHeader()->fileID = 0x0700000000000000ul;  // 7, big-endian
  EXPECT_EQ(std::vector<uint64_t>({rec.GetFlags(), rec.GetDCID(), rec.GetPathID(), rec.GetFileID(),
                                   rec.GetSize(), rec.GetCRC(), rec.GetCheckTime(), rec.GetFPType(),
                                   rec.GetCryptoMode(), rec.GetKeyIndex()}),
            std::vector<uint64_t>({2, 0, 1, 7, 65536, 99, 1700000000, 1, 3, 258}));
  const uint8_t* base = reinterpret_cast<const uint8_t*>(rec.GetHeader());
  EXPECT_EQ(rec.GetKey(), base + 56);
  EXPECT_EQ(std::vector<uint8_t>(rec.GetKey(), rec.GetKey() + 33), KeyBytes(key));

  rec.SetFlags(0);
  rec.SetDCID(0x0102030405060708ul);
  rec.SetSize(0x1112131415161718ul);
  rec.SetCRC(0x21222324u);
  rec.SetCheckTime(0x31323334u);
  rec.SetCryptoMode(9);
  rec.SetFPType(3);
  rec.SetKey(MakeKey(0x90));
  const std::vector<uint8_t> key90 = KeyBytes(MakeKey(0x90));
  crtest::Bytes expected;
  expected.be16(2).be16(0).be32(104).zeros(8).be32(0x31323334u).zeros(4);
  expected.be64(0x0102030405060708ul).zeros(8).be64(0x1112131415161718ul).be32(0x21222324u);
  expected.zeros(4).raw(key90.data(), 33).u8(3).u8(9).zeros(1).be16(0x0201).zeros(10);
  EXPECT_EQ(crtest::Hex(base, 104), crtest::Hex(expected.data(), expected.size()));
  EXPECT_EQ(rec.GetDCID(), 0x0102030405060708ul);
}

TEST(SORecord, ConstructorRefusesBadFlagsDCIDsAndFingerprintTypes) {
  struct Row {
    unsigned short flags;
    unsigned int dcid;
    unsigned char fptype;
    bool refused;
  };
  for (const Row& r : {Row{0, 1, 1, false}, Row{2, 64, 2, false}, Row{0, 0xFFFFFFFFu, 3, false},
                       Row{1, 64, 1, true}, Row{4, 64, 1, true}, Row{0x0200, 64, 1, true},
                       Row{0, 0, 1, true}, Row{0, 2, 1, true}, Row{0, 63, 1, true},
                       Row{0, 64, 0, true}, Row{0, 64, 4, true}}) {
    const auto build = [&] { SORecord(r.flags, r.dcid, 1, 1, MakeKey(0), 0, r.fptype); };
    EXPECT_EQ(crtest::Thrown(build), r.refused ? crtest::Failure(9, "") : crtest::kPass)
        << r.flags << "," << r.dcid << "," << int{r.fptype};
  }
}

// A refused setter leaves every byte as it was, in either order.
TEST(SORecord, RefusedSettersLeaveTheRecordUnchanged) {
  for (bool net : {false, true}) {
    SORecord rec(2, 64, 1, 1, MakeKey(0), 0, 2);
    rec.GetHeader()->fileID = 5;
    if (net) rec.HostToNetwork(0);
    const std::vector<uint8_t> before = HeaderBytes(rec);
    const std::vector<void (*)(SORecord&)> refused = {
        [](SORecord& r) { r.SetFlags(1); },  [](SORecord& r) { r.SetFlags(6); },
        [](SORecord& r) { r.SetDCID(0); },   [](SORecord& r) { r.SetDCID(63); },
        [](SORecord& r) { r.SetFPType(0); }, [](SORecord& r) { r.SetFPType(255); }};
    for (size_t i = 0; i < refused.size(); ++i) {
      EXPECT_EQ(crtest::Thrown([&] { refused[i](rec); }).first, 9u) << i;
      EXPECT_EQ(HeaderBytes(rec), before) << i;
    }
  }
}

}  // namespace
