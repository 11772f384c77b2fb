// Writes the seed corpora of the fuzz targets into <fuzz dir>/corpus/<target>/:
// small inputs that reach deep into each entry point (every DO type, both
// fingerprint widths, references, unique-DCID lists, both byte orders) and a
// few that each check refuses. Run it again after a format change:
//   make_fuzz_seeds <fuzz dir>
#include <sys/stat.h>

#include <cstddef>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "crrecord/common/Endian.h"
#include "crrecord/DORecord.h"
#include "crrecord/SORecord.h"
#include "crrecord/SOmarshall.h"
#include "fuzz_input.h"
#include "fuzz_support.h"
#include "json.h"
#include "load.h"

using crfuzz::RecordParams;
using crfuzz::Writer;
typedef std::vector<uint8_t> Bytes;
using Image = crtest::Bytes;

namespace {

std::string root;
int written = 0;

void Save(const std::string& target, const std::string& name, const Bytes& bytes) {
  const std::string dir = root + "/corpus/" + target;
  mkdir((root + "/corpus").c_str(), 0755);
  mkdir(dir.c_str(), 0755);
  const std::string path = dir + "/" + name;
  FILE* f = std::fopen(path.c_str(), "wb");
  if (f == nullptr || std::fwrite(bytes.data(), 1, bytes.size(), f) != bytes.size()) {
    std::perror(path.c_str());
    std::exit(1);
  }
  std::fclose(f);
  ++written;
}

// Byte values that FPTypeFrom and DOTypeFrom turn into these types.
uint8_t FPByte(unsigned char fptype) { return static_cast<uint8_t>(fptype - 1); }

std::string Name(unsigned char dotype, unsigned char fptype) {
  return "do" + std::to_string(dotype) + "_fp" + std::to_string(fptype);
}

// Three segments in containers 64, 70, 64, a recognisable fingerprint each;
// a Bloom record gets a 37-byte bitmap and two unique DCIDs instead.
RecordParams Params(unsigned char dotype, unsigned char fptype, bool udcids, bool refs) {
  RecordParams p;
  p.dotypeByte = dotype;
  p.fptypeByte = FPByte(fptype);
  p.options = crfuzz::kBuildConsistent | (udcids || dotype == 4 ? crfuzz::kBuildUniqueDcids : 0);
  p.cid = 100;
  p.size = 1808;
  p.ssize = 4096;
  p.crc = 0x0BADF00D;
  p.ctime = 1000;
  p.mtime = 2000;
  if (dotype == 4) {
    for (int i = 0; i < 37; ++i) p.bitmap.push_back(static_cast<uint8_t>(i * 7));
  } else {
    const uint64_t dcids[] = {0, 6, 0};  // 64 + value once made consistent
    for (int s = 0; s < 3; ++s) {
      crfuzz::SegmentParams seg;
      for (unsigned int k = 0; k < crfuzz::FPWidth(fptype); ++k) {
        seg.fp.push_back(static_cast<uint8_t>(0x10 * (s + 1) + k));
      }
      seg.size = s == 2 ? 1808 : 4096;
      seg.offset = 0;
      seg.objectOffset = 4096u * s;
      seg.dcid = dcids[s];
      p.segments.push_back(seg);
    }
  }
  if ((p.options & crfuzz::kBuildUniqueDcids) != 0) p.udcids = {{64, 8192}, {70, 1808}};
  if (refs) {
    p.refs = {{0, 7}, {0, 3}, {1, 42}, {2, 0x0102030405060708ull}, {3 | (7 << 2), 99}};
  }
  return p;
}

std::unique_ptr<DORecord> Build(const RecordParams& p) {
  std::unique_ptr<DORecord> r = crfuzz::BuildRecord(p);
  if (r == nullptr || !crfuzz::AddRefs(*r, p)) {
    std::fprintf(stderr, "seed record refused\n");
    std::exit(1);
  }
  return r;
}

Bytes Serialized(const DORecord& r, bool checksum) {
  void* out = nullptr;
  unsigned long size = 0;
  if (r.Serialize(&out, &size, checksum) != 0) std::exit(1);
  return crfuzz::TakeOutput(&out, size);
}

// The record buffer with ctime and mtime fixed, so that seeds come out the
// same on every run (the library stamps the current time).
Bytes HeaderBytes(const DORecord& r) {
  const unsigned char* h = reinterpret_cast<const unsigned char*>(r.GetHeader());
  Bytes b(h, h + r.GetHeaderSize());
  const uint32_t ctime = crrecord::InRecordOrder(uint32_t{1000}, r.IsInNetworkOrder());
  const uint32_t mtime = crrecord::InRecordOrder(uint32_t{2000}, r.IsInNetworkOrder());
  crrecord::Store(b.data() + offsetof(DORecordHeader, ctime), ctime);
  crrecord::Store(b.data() + offsetof(DORecordHeader, mtime), mtime);
  return b;
}

Bytes Cat(const Bytes& a, const Bytes& b) { return Image().raw(a).raw(b).vec(); }

// A typed reference: kind, payload length, payload.
Bytes BinaryRef(uint8_t kind, const Bytes& payload) {
  return Image().u8(kind).u8(static_cast<uint8_t>(payload.size())).raw(payload).vec();
}

// A typed-reference section: task IDs 3 and 7, DSID 42, a retention
// reference, and task ID 7 again (dropped when loaded).
Bytes Section() {
  Image b;
  b.u8(2).u8(8).be64(3).u8(2).u8(8).be64(7).u8(4).u8(4).be32(42).u8(6).u8(3).u8(1).u8(2).u8(3);
  return b.u8(2).u8(8).be64(7).vec();
}

void DeserializeSeeds() {
  const std::string t = "dorecord_header_deserialize";
  auto prefix = [](unsigned char dotype, unsigned char fptype, uint8_t options, uint8_t room) {
    Writer w;
    w.u8(dotype).u8(FPByte(fptype)).u8(options).u8(room).le16(2).le64(100);
    return w.Get();
  };
  for (unsigned char dotype = 0; dotype <= 5; ++dotype) {
    for (unsigned char fptype : {1, 3}) {
      auto r = Build(Params(dotype, fptype, false, false));
      const bool checksum = fptype == 3;
      const uint8_t options = static_cast<uint8_t>((checksum ? 8 : 0) | (dotype % 2 ? 2 : 0) |
                                                   (dotype == 3 ? 4 : 0));
      const Bytes bytes = Serialized(*r, checksum);
      Save(t, Name(dotype, fptype), Cat(prefix(dotype, fptype, options, 16), bytes));
      if (fptype == 1) {
        Bytes shorter(bytes.begin(), bytes.end() - 1);
        Save(t, Name(dotype, fptype) + "_truncated", Cat(prefix(dotype, fptype, 0, 0), shorter));
        Save(t, Name(dotype, fptype) + "_small_buffer",
             Cat(prefix(dotype, fptype, 2, 0x90), bytes));
      }
    }
  }
  auto r = Build(Params(2, 1, false, false));
  Bytes bytes = Serialized(*r, false);
  Bytes badHex = bytes;
  badHex[28 + 5] = 'g';
  Save(t, "bad_fingerprint_text", Cat(prefix(2, 1, 0, 0), badHex));
  Bytes padding = bytes;
  padding[27] = 1;
  Save(t, "nonzero_padding", Cat(prefix(2, 1, 0, 0), padding));
  Save(t, "refused_dotype", Cat(prefix(0xFF, 1, 0, 0), bytes));
  auto bloom = Build(Params(4, 1, true, false));
  Bytes badSum = Serialized(*bloom, false);
  badSum[28 + 4 + 37] ^= 1;
  Save(t, "bloom_bad_list_checksum", Cat(prefix(4, 1, 0, 0), badSum));
  Save(t, "bloom_resealed", Cat(prefix(4, 1, 1, 0), badSum));
}

void TRefsSeeds() {
  const std::string t = "add_serialized_trefs";
  Writer into;
  into.u8(0).u8(0).u8(2).le64(7).le64(11).raw(Section());
  Save(t, "section_into_record", into.Get());
  Writer corrupt;
  corrupt.u8(0).u8(2).u8(0).raw(Cat(Section(), BinaryRef(11, {1})));
  Save(t, "section_with_bad_kind", corrupt.Get());
  Writer truncated;
  truncated.u8(0).u8(1).u8(0).raw(Cat(Section(), {2, 8, 0, 0}));
  Save(t, "section_truncated", truncated.Get());

  // Stored records laid out by hand: old lists, typed references, Bloom.
  struct Stored {
    const char* name;
    unsigned char dotype, fptype;
    uint8_t bufferMode, ntaskid, nds;
    uint16_t count;
    uint8_t nudcid;
    bool trefs;
  };
  const Stored stored[] = {
      {"stored_trefs", 2, 1, 1, 0, 0, 2, 0, true},
      {"stored_old_lists_copy", 3, 3, 1, 3, 2, 2, 0, false},
      {"stored_old_lists_takeover", 5, 1, 2, 2, 1, 1, 1, false},
      {"stored_old_lists_fixed", 0, 1, 0, 1, 0, 1, 0, false},
      {"stored_mixed_references", 1, 2, 1, 1, 0, 1, 0, true},
      {"stored_bloom", 4, 1, 2, 0, 0, 24, 2, true},
      {"stored_bad_mode", 2, 1, 3, 0, 0, 1, 0, false},
  };
  for (const Stored& s : stored) {
    const bool bloom = s.dotype == 4;
    const Bytes section = s.trefs ? Section() : Bytes();
    const uint64_t extra = s.dotype == 2 ? 4 : s.dotype == 3 ? 12 : s.dotype == 5 ? 8 : 0;
    const uint64_t body = bloom ? 4 + s.count + 16 : s.count * (crfuzz::FPWidth(s.fptype) + extra + 8);
    Writer w;
    w.u8(1).u8(s.dotype).u8(FPByte(s.fptype)).u8(s.bufferMode).u8(1);
    w.u8(s.ntaskid).u8(s.nds).le16(s.count).u8(s.nudcid).le16(static_cast<uint16_t>(section.size()));
    w.u8(8).le16(2).le32(0).le64(100).le64(0).le64(4096).le32(5).le32(1000).le32(2000);
    for (uint8_t i = 0; i < s.ntaskid; ++i) w.le64(i % 2 == 0 ? 7 : 3);
    for (uint8_t i = 0; i < s.nds; ++i) w.le32(40 + i);
    Bytes sections(body + (s.nudcid == 0 ? 0 : 8 + 16 * s.nudcid), 0);
    for (size_t i = 0; i < body; ++i) sections[i] = static_cast<uint8_t>(i);
    if (!bloom) {
      // Segment DCIDs of 64 and up, in place of the counting bytes.
      for (uint16_t i = 0; i < s.count; ++i) {
        crrecord::Store<uint64_t>(sections.data() + body - 8 * (s.count - i), 64 + i);
      }
    }
    for (uint8_t i = 0; i < s.nudcid; ++i) {
      crrecord::Store<uint64_t>(sections.data() + body + 8 + 16 * i, 64 + i);
      crrecord::Store<uint64_t>(sections.data() + body + 16 + 16 * i, 1000);
    }
    w.raw(sections).raw(section);
    Save(t, s.name, w.Get());
  }
}

void ValidateSeeds() {
  const std::string t = "dorecord_header_validate";
  for (unsigned char dotype = 0; dotype <= 5; ++dotype) {
    for (unsigned char fptype : {1, 3}) {
      auto r = Build(Params(dotype, fptype, dotype != 4 && fptype == 3, true));
      Save(t, Name(dotype, fptype), HeaderBytes(*r));
      if (fptype == 1) {
        r->HostToNetwork(0);
        Save(t, Name(dotype, fptype) + "_network", HeaderBytes(*r));
        r->NetworkToHost(0);
        Bytes bad = HeaderBytes(*r);
        bad[4] ^= 1;  // recsize
        Save(t, Name(dotype, fptype) + "_bad_recsize", bad);
      }
    }
  }
  auto bloom = Build(Params(4, 1, true, false));
  const Bytes bytes = Serialized(*bloom, false);
  DORecord rebuilt(4, 2, 100, 1, nullptr, 0, bytes.data(), bytes.size(), false);
  Save(t, "bloom_big_endian_list", HeaderBytes(rebuilt));
  Bytes badList = HeaderBytes(rebuilt);
  badList[badList.size() - 1] ^= 1;
  Save(t, "bloom_bad_list_checksum", badList);
  Save(t, "short", Bytes(40, 0));
}

// A segment DB record as the library would make it, key index 5, task IDs
// from 100, fingerprint bytes counting by three; host or network order.
Bytes SegmentRecord(uint32_t ntaskid, uint32_t ndo, unsigned char fptype, bool network = false) {
  crtest::SoRec r;
  r.blank = true;
  r.unused = 0;
  r.checktime = 77;
  r.key.assign(33, 0);
  r.fptype = fptype;
  r.cryptoMode = 1;
  r.keyIndex = 5;
  for (uint32_t i = 0; i < ntaskid; ++i) r.taskIDs.push_back(100 + i);
  const uint32_t d = crfuzz::FPWidth(fptype);
  for (uint32_t k = 0; k < ndo; ++k) {
    r.fps.emplace_back(d);
    for (uint32_t i = 0; i < d; ++i) r.fps.back()[i] = static_cast<uint8_t>((k * d + i) * 3);
  }
  return crtest::SoImage(r, network).vec();
}

void SegmentSeeds() {
  const std::string t = "segment_record_validate";
  QorKey key = {};
  for (int i = 0; i < 32; ++i) key.key[i] = static_cast<uint8_t>(i);
  key.keyType = 3;
  SORecord so(2, 1000, 4096, 7, key, 1, 1);
  const uint8_t* h = reinterpret_cast<const uint8_t*>(so.GetHeader());
  Save(t, "so_record", Cat({2}, Bytes(h, h + so.GetHeaderSize())));
  Save(t, "two_taskids_one_fp", Cat({0}, SegmentRecord(2, 1, 1)));
  Save(t, "taskids_fp32_network", Cat({1}, SegmentRecord(3, 2, 3, true)));
  Save(t, "taskids_refused", Cat({2}, SegmentRecord(2, 1, 1)));
  Save(t, "unknown_flag", Cat({4}, SegmentRecord(0, 0, 1)));
  Bytes shortRecord = SegmentRecord(0, 0, 1);
  shortRecord.resize(95);
  Save(t, "short", Cat({0}, shortRecord));
}

void PlatformSeeds() {
  Save("tref_new_deserialize", "section", Cat({1}, Section()));
  Save("tref_new_deserialize", "long_payload", Cat({1}, BinaryRef(10, Bytes(32, 0xEE))));
  Save("tref_new_deserialize", "text_mode", Cat({0}, Section()));
  Save("tref_new_deserialize", "bad_kind", Cat({1}, BinaryRef(11, {1})));
  Save("tref_new_deserialize", "truncated", Cat({1}, {2, 8, 0, 0}));

  const std::string t = "fp_string_to_digest";
  const std::string hex16 = "000102030405060708090a0b0c0d0e0f";
  const std::string hex32 = hex16 + "f0e1d2c3b4a5968778695a4b3c2d1e0f";
  auto text = [](uint8_t b, const std::string& s) { return Cat({b}, Bytes(s.begin(), s.end())); };
  Save(t, "fp1", text(FPByte(1), hex16));
  Save(t, "fp2_upper", text(FPByte(2), "00FFAB0102030405060708090A0B0C0D"));
  Save(t, "fp3", text(FPByte(3), hex32));
  Save(t, "bad_digit", text(FPByte(1), "x00102030405060708090a0b0c0d0e0"));
  Save(t, "odd_length", text(FPByte(1), hex16.substr(1)));
  Save(t, "refused_type", text(0xF0, hex16));
}

void RoundTripSeeds() {
  for (unsigned char dotype = 0; dotype <= 5; ++dotype) {
    for (unsigned char fptype : {1, 3}) {
      const RecordParams p = Params(dotype, fptype, fptype == 3, true);
      Writer serialize;
      serialize.u8(static_cast<uint8_t>((fptype == 3 ? 1 : 0) | (dotype % 2 ? 2 : 0)));
      p.Encode(serialize);
      Save("do_serialize_roundtrip", Name(dotype, fptype), serialize.Get());
      Writer order;
      order.u8(static_cast<uint8_t>(3 * (fptype == 3 ? 4 : 1)));  // DO record; bits 2 and 3
      p.Encode(order);
      Save("byte_order_roundtrip", Name(dotype, fptype), order.Get());
    }
  }
  RecordParams raw = Params(2, 1, false, false);
  raw.options = 0;  // DCIDs 0 and 6: refused
  Writer w;
  w.u8(0);
  raw.Encode(w);
  Save("do_serialize_roundtrip", "unchecked_dcids", w.Get());

  Writer so;
  so.u8(1).le16(2).le32(1000).le32(4096).le32(7);
  for (int i = 0; i < 33; ++i) so.u8(static_cast<uint8_t>(i));
  so.u8(1).u8(FPByte(3)).le32(77).le16(5);
  Save("byte_order_roundtrip", "so_record", so.Get());
  Writer refused;
  refused.u8(1).le16(1);
  Save("byte_order_roundtrip", "so_record_bad_flags", refused.Get());
  Writer segment;
  segment.u8(2).u8(2).u8(1).u8(FPByte(1)).le16(2).le32(0).le32(77).le32(0).le64(1000).le64(0);
  segment.le64(65536).le32(7);
  for (int i = 0; i < 33; ++i) segment.u8(static_cast<uint8_t>(i));
  segment.u8(1).u8(0).le16(5).le16(0);
  for (int i = 0; i < 2 * 8 + 16 + 8; ++i) segment.u8(static_cast<uint8_t>(i));
  Save("byte_order_roundtrip", "segment_record", segment.Get());
}

// crrec_load: every form the tool reads, each also as its JSON form, and a
// few that it refuses. Two option bytes come first (crrec_targets.cpp):
// 0x05 0x06 lets the tool recognise the form and assume the types.
void CrrecSeeds() {
  const std::string t = "crrec_load";
  const Bytes recognise = {0x05, 0x06};
  auto save = [&](const std::string& name, const Bytes& bytes) {
    Save(t, name, Cat(recognise, bytes));
    crrec::Loaded loaded = crrec::Load(name, bytes, crrec::Hints());
    crrec::Json j = crrec::ToJson(loaded);
    // A record rebuilt from a serialized form is stamped with the current
    // time; fixed here, so that seeds come out the same on every run.
    if (j.contains("header")) {
      j["header"]["ctime"] = 1000;
      j["header"]["mtime"] = 2000;
    }
    const std::string json = j.dump(2);
    Save(t, name + ".json", Cat(recognise, Bytes(json.begin(), json.end())));
  };
  RecordParams sound = Params(3, 2, true, true);
  sound.udcids = {{64, 4096 + 1808}, {70, 4096}};  // what verify adds up
  auto stored = Build(sound);
  save("stored_host", HeaderBytes(*stored));
  Bytes badRecsize = HeaderBytes(*stored);
  badRecsize[4] ^= 1;
  Save(t, "stored_bad_recsize", Cat(recognise, badRecsize));
  stored->HostToNetwork(0);
  save("stored_network", HeaderBytes(*stored));

  save("serialized_checksum", Serialized(*Build(Params(1, 2, false, false)), true));
  const Bytes plain = Serialized(*Build(Params(2, 1, false, false)), false);
  save("serialized_no_checksum", plain);
  // The form given, DO type 2 and fingerprint type 1 said, no checksum.
  Save(t, "serialized_hinted", Cat({0x09, 0x0A}, plain));
  Save(t, "serialized_truncated", Cat(recognise, Bytes(plain.begin(), plain.end() - 1)));
  save("serialized_bloom", Serialized(*Build(Params(4, 1, true, false)), true));

  save("segment_db_host", SegmentRecord(2, 2, 1));
  save("segment_db_network", SegmentRecord(1, 3, 3, true));

  crrec::Json wrongType = crrec::ToJson(crrec::Load("", HeaderBytes(*stored), crrec::Hints()));
  wrongType["header"]["dotype"] = "three";
  const std::string text = wrongType.dump();
  Save(t, "json_wrong_type", Cat(recognise, Bytes(text.begin(), text.end())));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s <fuzz directory>\n", argv[0]);
    return 2;
  }
  root = argv[1];
  crfuzz::QuietLogging();
  DeserializeSeeds();
  TRefsSeeds();
  ValidateSeeds();
  SegmentSeeds();
  PlatformSeeds();
  RoundTripSeeds();
  CrrecSeeds();
  std::printf("%d seeds written under %s/corpus\n", written, root.c_str());
  return 0;
}
