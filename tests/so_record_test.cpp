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
  const uint8_t* p = reinterpret_cast<const uint8_t*>(rec.GetHeader());
  return std::vector<uint8_t>(p, p + 104);
}

// Flags 1 ask for the task IDs to be dropped; there are none, so the
// images are the same. Each conversion is made twice: the second changes
// nothing.
TEST(SORecord, NewRecordIsTheHostImageAndConvertsToTheNetworkImage) {
  crtest::SoRec fields;
  fields.blank = true;
  fields.unused = fields.checktime = 0;
  fields.dcid = 0x12345678u;
  fields.size = 0x00010203u;
  fields.crc = 0xCAFEF00Du;
  fields.key = KeyBytes(MakeKey(0x30));
  fields.cryptoMode = 7;
  fields.fptype = 2;
  const std::vector<uint8_t> host = crtest::SoImage(fields, false).vec();
  const std::vector<uint8_t> net = crtest::SoImage(fields, true).vec();
  for (unsigned int flags : {0u, 1u}) {
    SORecord rec(2, 0x12345678u, 0x00010203u, 0xCAFEF00Du, MakeKey(0x30), 7, 2);
    EXPECT_FALSE(rec.IsInNetworkOrder());
    EXPECT_EQ(rec.GetHeaderSize(), 104u);
    EXPECT_EQ(HeaderBytes(rec), host);
    for (int twice = 0; twice < 2; ++twice) rec.HostToNetwork(flags);
    EXPECT_TRUE(rec.IsInNetworkOrder());
    EXPECT_EQ(HeaderBytes(rec), net);
    for (int twice = 0; twice < 2; ++twice) rec.NetworkToHost(flags);
    EXPECT_FALSE(rec.IsInNetworkOrder());
    EXPECT_EQ(HeaderBytes(rec), host);
  }
}

// Values set in host order read back after conversion; values set in
// network order stand big-endian and read back as set. The key bytes and
// the key index are the same in both orders.
TEST(SORecord, AccessorsUseHostValuesInEitherOrder) {
  const QorKey key = MakeKey(0x50);
  SORecord rec(2, 1, 65536, 99, key, 3, 1);
  rec.SetCheckTime(1700000000);
  rec.SetKeyIndex(258);
  rec.HostToNetwork(0);
  EXPECT_EQ(std::vector<uint64_t>({rec.GetFlags(), rec.GetDCID(), rec.GetSize(), rec.GetCRC(),
                                   rec.GetCheckTime(), rec.GetFPType(), rec.GetCryptoMode(),
                                   rec.GetKeyIndex()}),
            std::vector<uint64_t>({2, 1, 65536, 99, 1700000000, 1, 3, 258}));
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
  EXPECT_EQ(std::vector<uint64_t>({rec.GetDCID(), rec.GetSize(), rec.GetCRC(), rec.GetCheckTime()}),
            std::vector<uint64_t>({0x0102030405060708ul, 0x1112131415161718ul, 0x21222324u,
                                   0x31323334u}));
}

TEST(SORecord, FileIDDecidesBetweenDCIDAndPathID) {
  SORecord rec(0, 1000, 1, 1, MakeKey(0), 0, 1);
  auto ids = [&] { return std::vector<uint64_t>({rec.GetFileID(), rec.GetDCID(), rec.GetPathID()}); };
  rec.GetHeader()->fileID = 5;
  EXPECT_EQ(ids(), std::vector<uint64_t>({5, 0, 1000}));
  rec.SetDCID(2000);
  EXPECT_EQ(ids(), std::vector<uint64_t>({0, 2000, 2000}));
  rec.HostToNetwork(0);
  rec.GetHeader()->fileID = 0x0700000000000000ul;  // 7, big-endian
  EXPECT_EQ(ids(), std::vector<uint64_t>({7, 0, 2000}));
}

TEST(SORecord, ConstructorRefusesBadFlagsDCIDsAndFingerprintTypes) {
  struct Args {
    unsigned short flags;
    unsigned int dcid;
    unsigned char fptype;
  };
  for (const Args& a : {Args{0, 1, 1}, Args{2, 64, 2}, Args{0, 0xFFFFFFFFu, 3}}) {
    EXPECT_EQ(SORecord(a.flags, a.dcid, 1, 1, MakeKey(0), 0, a.fptype).GetDCID(), a.dcid);
  }
  for (const Args& a : {Args{1, 64, 1}, Args{4, 64, 1}, Args{0x0200, 64, 1}, Args{0, 0, 1},
                        Args{0, 2, 1}, Args{0, 63, 1}, Args{0, 64, 0}, Args{0, 64, 4}}) {
    const auto build = [&] { SORecord(a.flags, a.dcid, 1, 1, MakeKey(0), 0, a.fptype); };
    EXPECT_EQ(crtest::Thrown(build), crtest::Failure(9, ""))
        << a.flags << "," << a.dcid << "," << int{a.fptype};
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
    rec.SetDCID(1);
    rec.SetFlags(0);
    EXPECT_EQ(rec.GetDCID(), 1u);
    EXPECT_EQ(rec.GetFlags(), 0);
  }
}

TEST(SORecord, EqualityComparesTheBytesAsTheyStand) {
  SORecord a(2, 100, 4096, 5, MakeKey(1), 1, 1);
  SORecord b(2, 100, 4096, 5, MakeKey(1), 1, 1);
  SORecord c(2, 100, 4096, 5, MakeKey(2), 1, 1);
  EXPECT_TRUE(a == a && a == b);
  EXPECT_FALSE(a == c);
  b.HostToNetwork(0);
  EXPECT_FALSE(a == b);
  a.HostToNetwork(0);
  EXPECT_TRUE(a == b);
  b.SetKeyIndex(1);
  EXPECT_FALSE(a == b);
}

}  // namespace
