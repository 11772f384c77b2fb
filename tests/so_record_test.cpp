// SORecord: the record it builds, its accessors and refusals in either byte
// order, in-place conversion and equality.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "crrecord/SORecord.h"
#include "test_support.h"

namespace {

using crtest::Bytes;

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

// The 104 bytes of a new record, written at the documented offsets.
Bytes NewRecordImage(bool big, uint16_t flags, uint64_t dcid, uint64_t size, uint32_t crc,
                     const QorKey& key, uint8_t cryptoMode, uint8_t fptype) {
  Bytes b;
  auto u16 = [&](uint16_t v) { big ? b.be16(v) : b.le16(v); };
  auto u32 = [&](uint32_t v) { big ? b.be32(v) : b.le32(v); };
  auto u64 = [&](uint64_t v) { big ? b.be64(v) : b.le64(v); };
  u16(2);
  u16(flags);
  u32(104);
  u32(0);  // unused
  u32(0);  // task IDs
  u32(0);  // check time
  b.zeros(4);
  u64(dcid);
  u64(0);  // file ID
  u64(size);
  u32(crc);
  u32(0);  // DO fingerprints
  const std::vector<uint8_t> k = KeyBytes(key);
  b.raw(k.data(), k.size()).u8(fptype).u8(cryptoMode).u8(0).zeros(2).zeros(2).zeros(8);
  return b;
}

// Flags 1 ask for the task IDs to be dropped; there are none, so the
// images are the same.
TEST(SORecord, NewRecordIsTheHostImageAndConvertsToTheNetworkImage) {
  const QorKey key = MakeKey(0x30);
  for (unsigned int flags : {0u, 1u}) {
    SORecord rec(2, 0x12345678u, 0x00010203u, 0xCAFEF00Du, key, 7, 2);
    const std::vector<uint8_t> host =
        NewRecordImage(false, 2, 0x12345678u, 0x00010203u, 0xCAFEF00Du, key, 7, 2).vec();
    const std::vector<uint8_t> net =
        NewRecordImage(true, 2, 0x12345678u, 0x00010203u, 0xCAFEF00Du, key, 7, 2).vec();
    EXPECT_FALSE(rec.IsInNetworkOrder());
    EXPECT_EQ(rec.GetHeaderSize(), 104u);
    EXPECT_EQ(HeaderBytes(rec), host);

    rec.HostToNetwork(flags);
    EXPECT_TRUE(rec.IsInNetworkOrder());
    EXPECT_EQ(HeaderBytes(rec), net);
    rec.HostToNetwork(flags);
    EXPECT_EQ(HeaderBytes(rec), net) << "a second conversion changes nothing";

    rec.NetworkToHost(flags);
    rec.NetworkToHost(flags);
    EXPECT_FALSE(rec.IsInNetworkOrder());
    EXPECT_EQ(HeaderBytes(rec), host);
  }
}

// Values set in host order read back after conversion; values set in
// network order stand big-endian and read back as set.
TEST(SORecord, AccessorsUseHostValuesInEitherOrder) {
  const QorKey key = MakeKey(0x50);
  SORecord rec(2, 1, 65536, 99, key, 3, 1);
  rec.SetCheckTime(1700000000);
  rec.HostToNetwork(0);
  EXPECT_EQ(rec.GetFlags(), 2);
  EXPECT_EQ(rec.GetDCID(), 1u);
  EXPECT_EQ(rec.GetSize(), 65536u);
  EXPECT_EQ(rec.GetCRC(), 99u);
  EXPECT_EQ(rec.GetCheckTime(), 1700000000u);
  EXPECT_EQ(rec.GetFPType(), 1);
  EXPECT_EQ(rec.GetCryptoMode(), 3);
  EXPECT_EQ(std::vector<uint8_t>(rec.GetKey(), rec.GetKey() + 33), KeyBytes(key));

  rec.SetFlags(0);
  rec.SetDCID(0x0102030405060708ul);
  rec.SetSize(0x1112131415161718ul);
  rec.SetCRC(0x21222324u);
  rec.SetCheckTime(0x31323334u);
  rec.SetCryptoMode(9);
  rec.SetFPType(3);
  const std::vector<uint8_t> b = HeaderBytes(rec);
  auto at = [&](size_t off, size_t n) { return crtest::Hex(b.data() + off, n); };
  EXPECT_EQ(at(0, 8), "0002000000000068") << "type, flags 0, record size 104 kept";
  EXPECT_EQ(at(16, 4), "31323334");
  EXPECT_EQ(at(24, 8), "0102030405060708");
  EXPECT_EQ(at(40, 8), "1112131415161718");
  EXPECT_EQ(at(48, 4), "21222324");
  EXPECT_EQ(at(89, 2), "0309");
  EXPECT_EQ(rec.GetDCID(), 0x0102030405060708ul);
  EXPECT_EQ(rec.GetSize(), 0x1112131415161718ul);
  EXPECT_EQ(rec.GetCRC(), 0x21222324u);
  EXPECT_EQ(rec.GetCheckTime(), 0x31323334u);
}

// The key bytes and the key index are the same in both orders.
TEST(SORecord, KeyAndKeyIndexAreStoredAsGiven) {
  SORecord rec(0, 64, 1, 1, MakeKey(0x10), 0, 1);
  const uint8_t* base = reinterpret_cast<const uint8_t*>(rec.GetHeader());
  rec.SetKeyIndex(258);
  rec.SetKey(MakeKey(0x90));
  rec.HostToNetwork(0);
  EXPECT_EQ(rec.GetKeyIndex(), 258);
  EXPECT_EQ(crtest::Hex(base + 92, 2), "0201");
  EXPECT_EQ(rec.GetKey(), base + 56);
  EXPECT_EQ(std::vector<uint8_t>(base + 56, base + 89), KeyBytes(MakeKey(0x90)));
  EXPECT_EQ(base[89], 1) << "the fingerprint type after the key is untouched";
}

TEST(SORecord, FileIDDecidesBetweenDCIDAndPathID) {
  SORecord rec(0, 1000, 1, 1, MakeKey(0), 0, 1);
  rec.GetHeader()->fileID = 5;
  EXPECT_EQ(rec.GetDCID(), 0u);
  EXPECT_EQ(rec.GetPathID(), 1000u);
  EXPECT_EQ(rec.GetFileID(), 5u);
  rec.SetDCID(2000);
  EXPECT_EQ(rec.GetFileID(), 0u);
  EXPECT_EQ(rec.GetDCID(), 2000u);

  rec.HostToNetwork(0);
  rec.GetHeader()->fileID = 0x0700000000000000ul;  // 7, big-endian
  EXPECT_EQ(rec.GetFileID(), 7u);
  EXPECT_EQ(rec.GetDCID(), 0u);
  EXPECT_EQ(rec.GetPathID(), 2000u);
}

// Constructor arguments: flags, DCID, fingerprint type.
struct Args {
  unsigned short flags;
  unsigned int dcid;
  unsigned char fptype;
};

TEST(SORecord, ConstructorRefusesBadFlagsDCIDsAndFingerprintTypes) {
  for (const Args& a : {Args{0, 1, 1}, Args{2, 64, 2}, Args{0, 0xFFFFFFFFu, 3}}) {
    SORecord rec(a.flags, a.dcid, 1, 1, MakeKey(0), 0, a.fptype);
    EXPECT_EQ(rec.GetDCID(), a.dcid);
  }
  for (const Args& a : {Args{1, 64, 1}, Args{4, 64, 1}, Args{0x0200, 64, 1}, Args{0, 0, 1},
                        Args{0, 2, 1}, Args{0, 63, 1}, Args{0, 64, 0}, Args{0, 64, 4}}) {
    SCOPED_TRACE(testing::Message() << a.flags << "," << a.dcid << "," << int{a.fptype});
    try {
      SORecord rec(a.flags, a.dcid, 1, 1, MakeKey(0), 0, a.fptype);
      ADD_FAILURE() << "built";
    } catch (const Cr_ErrnoException& e) {
      EXPECT_EQ(e.GetStatus(), 9u);
      EXPECT_STREQ(e.what(), "");
    }
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
      try {
        refused[i](rec);
        ADD_FAILURE() << "setter " << i << " accepted";
      } catch (const Cr_ErrnoException& e) {
        EXPECT_EQ(e.GetStatus(), 9u) << i;
      }
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
  EXPECT_TRUE(a == a);
  EXPECT_TRUE(a == b);
  EXPECT_FALSE(a == c);
  b.HostToNetwork(0);
  EXPECT_FALSE(a == b);
  a.HostToNetwork(0);
  EXPECT_TRUE(a == b);
  b.SetKeyIndex(1);
  EXPECT_FALSE(a == b);
}

}  // namespace
