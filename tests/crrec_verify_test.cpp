// crrec verify: every byte a form implies is checked and a failure names its
// check; conversions launder nothing and give the same bytes every time.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "build.h"
#include "cli.h"
#include "crrec_support.h"
#include "examine.h"
#include "json.h"
#include "load.h"
#include "images.h"

namespace {

using Image = std::vector<unsigned char>;

uint64_t Le(const Image& b, size_t at, int n) {
  uint64_t v = 0;
  for (int i = n - 1; i >= 0; --i) v = v << 8 | b[at + static_cast<size_t>(i)];
  return v;
}
void PutLe(Image& b, size_t at, uint64_t v, int n) {
  for (int i = 0; i < n; ++i) b[at + static_cast<size_t>(i)] = static_cast<unsigned char>(v >> (8 * i));
}
void PutBe(Image& b, size_t at, uint64_t v, int n) {
  for (int i = 0; i < n; ++i) {
    b[at + static_cast<size_t>(n - 1 - i)] = static_cast<unsigned char>(v >> (8 * i));
  }
}
uint64_t Be(const Image& b, size_t at, int n) {
  uint64_t v = 0;
  for (int i = 0; i < n; ++i) v = v << 8 | b[at + static_cast<size_t>(i)];
  return v;
}
void Swap16(Image& b, size_t x, size_t y) {
  for (size_t k = 0; k < 16; ++k) std::swap(b[x + k], b[y + k]);
}

// A record of 300000 bytes in containers of 100000 (several containers),
// with a task-ID and a DSID reference.
crrec::Built Build(unsigned char dotype) {
  static const Image data = crtest::Noise(300000, 5);
  crrec::BuildOptions o;
  o.dotype = dotype;
  o.fptype = 2;
  o.containerSize = 100000;
  o.time = 1700000000;
  o.chunking.kind = dotype <= 1 ? crrec::ChunkerKind::kFixed : crrec::ChunkerKind::kContentDefined;
  o.taskIds = {42};
  o.dsids = {7};
  crrec::MemorySource source(data.data(), data.size());
  return crrec::BuildRecord(source, "built", o);
}

// "done" when verify finds the bytes sound, else the exit code and line.
std::string Verdict(const Image& bytes) {
  return crtest::ToolLine([&] {
    std::ostringstream sink;
    crrec::Verify(crrec::Load("f", bytes, crrec::Hints()), crrec::VerifyOptions(), sink);
  });
}

TEST(CrrecVerify, EachDamageTheLibraryLetsThroughIsNamedByItsCheck) {
  const Image do0 = crrec::StoredBytes(*Build(0).record, false);
  const Image ser1 = crrec::SerializedBytes(*Build(1).record, true, "b");
  const Image do3 = crrec::StoredBytes(*Build(3).record, false);
  const Image ser3 = crrec::SerializedBytes(*Build(3).record, true, "b");
  const Image do4 = crrec::StoredBytes(*Build(4).record, false);
  const Image ser4 = crrec::SerializedBytes(*Build(4).record, true, "b");
  crtest::SoRec so;
  so.blank = true;
  so.unused = 0;
  so.fps = {crtest::PatternFP(1, 16)};
  const Image seg = crtest::SoImage(so, false).vec();

  // Stored layout: size at 24, ssize at 32, nfp at 56, bsize at 72; the
  // unique-DCID section behind 36-byte DO type 3 entries and 8-byte DCIDs,
  // or behind a Bloom record's length word, bitmap and 16 reserved bytes.
  const uint64_t size = Le(do3, 24, 8), nfp0 = Le(do0, 56, 4), ssize0 = Le(do0, 32, 8);
  const size_t unique3 = 80 + 36 * Le(do3, 56, 4);
  const size_t bloomZeros = 84 + Le(do4, 72, 4), unique4 = bloomZeros + 16;
  const size_t trefs3 = do3.size() - Le(do3, 68, 4);
  const size_t block4 = 32 + Be(ser4, 28, 4);  // serialized Bloom: the unique-DCID block
  const uint64_t nfp1 = Be(ser1, 20, 4), ssize1 = Be(ser1, 8, 8);
  ASSERT_GE(Le(do3, 60, 4), 2u);
  ASSERT_GE(Be(ser4, block4 + 4, 4), 2u);
  const std::string dcid0 = std::to_string(Le(do3, unique3 + 8, 8));
  const std::string dcid1 = std::to_string(Le(do3, unique3 + 24, 8));
  // A stored list is sealed by an Adler-32 in host order, a serialized
  // Bloom block by one big-endian, and the serialized head by another.
  auto resealStored = [](Image& b, size_t section) {
    PutLe(b, section, crtest::SlowAdler32(b.data() + section + 4, 4 + 16 * Le(b, section + 4, 4)), 4);
  };
  auto resealBloom = [&](Image& b) {
    PutBe(b, block4, crtest::SlowAdler32(b.data() + block4 + 4, 4 + 16 * Be(b, block4 + 4, 4)), 4);
    PutBe(b, 16, crtest::SlowAdler32(b.data() + 28, b.size() - 28), 4);
  };

  struct Case {
    const char* what;
    const Image& base;
    std::function<void(Image&)> damage;
    std::string line;
  };
  const std::string f = "1 crrec: f: ";
  const Case cases[] = {
      {"sound stored DO type 3", do3, [](Image&) {}, "done"},
      {"sound serialized Bloom", ser4, [](Image&) {}, "done"},
      {"sound segment DB record", seg, [](Image&) {}, "done"},
      {"header reserved word", do3, [](Image& b) { b[8] = 1; },
       f + "reserved: header bytes 8-11 are 01000000"},
      {"header pad bytes", do3, [](Image& b) { b[79] = 1; },
       f + "reserved: header bytes 78-79 are 0001"},
      {"Bloom reserved bytes", do4, [&](Image& b) { b[bloomZeros] = 7; },
       f + "reserved: the Bloom section's 16 reserved bytes are 07" + std::string(30, '0')},
      {"Bloom reserved bytes: the big-endian mark and one more byte", do4,
       [&](Image& b) { b[bloomZeros] = 'B', b[bloomZeros + 1] = 'E', b[bloomZeros + 15] = 1; },
       f + "reserved: the Bloom section's 16 reserved bytes are 4245" + std::string(26, '0') +
           "01"},
      {"ssize beyond 32 bits", do0, [](Image& b) { PutLe(b, 32, uint64_t{1} << 32, 8); },
       f + "size: ssize 4294967296 is no segment size (1 to 4294967295 bytes) for " +
           std::to_string(nfp0 - 1) + " segments but the last"},
      {"empty last segment", do0, [&](Image& b) { PutLe(b, 24, (nfp0 - 1) * ssize0, 8); },
       f + "size: size " + std::to_string((nfp0 - 1) * ssize0) + " leaves no bytes to the last of " +
           std::to_string(nfp0) + " segments (" + std::to_string(nfp0 - 1) + " x ssize " +
           std::to_string(ssize0) + " = " + std::to_string((nfp0 - 1) * ssize0) + ")"},
      {"serialized head size below the segments", ser1,
       [&](Image& b) { PutBe(b, 0, (nfp1 - 1) * ssize1 - 5, 8); },
       f + "size: size " + std::to_string((nfp1 - 1) * ssize1 - 5) +
           " leaves no bytes to the last of " + std::to_string(nfp1) + " segments (" +
           std::to_string(nfp1 - 1) + " x ssize " + std::to_string(ssize1) + " = " +
           std::to_string((nfp1 - 1) * ssize1) + ")"},
      {"stored size beyond the last segment", do3, [&](Image& b) { PutLe(b, 24, size + 1, 8); },
       f + "size: size " + std::to_string(size + 1) + ", but the last segment ends at " +
           std::to_string(size)},
      {"serialized head size beyond the last segment", ser3,
       [&](Image& b) { PutBe(b, 0, size + 1, 8); },
       f + "size: size " + std::to_string(size + 1) + ", but the last segment ends at " +
           std::to_string(size)},
      {"Bloom size against its unique-DCID list", do4, [&](Image& b) { PutLe(b, 24, size - 1, 8); },
       f + "size: size " + std::to_string(size - 1) + ", but the unique-DCID byte counts sum to " +
           std::to_string(size)},
      {"unique-DCID entries out of order", do3,
       [&](Image& b) { Swap16(b, unique3 + 8, unique3 + 24); resealStored(b, unique3); },
       f + "unique: entry 1 (container " + dcid0 + ") follows container " + dcid1 +
           ": not ascending"},
      {"unique-DCID entry twice", do3,
       [&](Image& b) { PutLe(b, unique3 + 24, Le(b, unique3 + 8, 8), 8); resealStored(b, unique3); },
       f + "unique: the list names container " + dcid0 + " twice"},
      {"stored Bloom entry below 64", do4,
       [&](Image& b) { PutLe(b, unique4 + 8, 5, 8); resealStored(b, unique4); },
       f + "unique: entry 0 names container 5, below 64"},
      {"serialized Bloom entries out of order", ser4,
       [&](Image& b) { Swap16(b, block4 + 8, block4 + 24); resealBloom(b); },
       f + "unique: entry 1 (container " + std::to_string(Be(ser4, block4 + 8, 8)) +
           ") follows container " + std::to_string(Be(ser4, block4 + 24, 8)) + ": not ascending"},
      {"serialized Bloom entry twice", ser4,
       [&](Image& b) { PutBe(b, block4 + 24, Be(b, block4 + 8, 8), 8); resealBloom(b); },
       f + "unique: the list names container " + std::to_string(Be(ser4, block4 + 8, 8)) +
           " twice"},
      {"typed references out of the library's order", do3,
       [&](Image& b) {
         // The task-ID reference (10 bytes) and the DSID reference (6) swap.
         Image refs(b.begin() + static_cast<long>(trefs3), b.end());
         ASSERT_EQ(refs.size(), 16u);
         std::rotate(refs.begin(), refs.begin() + 10, refs.end());
         std::copy(refs.begin(), refs.end(), b.begin() + static_cast<long>(trefs3));
       },
       f + "canonical: byte " + std::to_string(trefs3) +
           " is 0x04, the library writes 0x02 (not in canonical form)"},
      {"segment DB flags", seg, [](Image& b) { PutLe(b, 2, 4, 2); },
       f + "flags: flags 0x0004, expected 0 or 0x0002"},
      {"segment DB DCID", seg, [](Image& b) { PutLe(b, 24, 5, 8); },
       f + "DCID: DCID 5, expected 1 or at least 64"},
      {"a file ID makes it a path ID", seg, [](Image& b) { PutLe(b, 24, 5, 8); PutLe(b, 32, 9, 8); },
       "done"},
      {"segment DB unused word", seg, [](Image& b) { PutLe(b, 8, 3, 4); },
       f + "reserved: the unused word is 3"},
      {"segment DB pad and trailer", seg, [](Image& b) { b[91] = 1; b.back() = 1; },
       f + "reserved: pad is 1; the trailer is 0000000000000001"},
  };
  for (const Case& c : cases) {
    Image damaged(c.base);
    c.damage(damaged);
    EXPECT_EQ(Verdict(damaged), c.line) << c.what;
  }
}

using crtest::Crrec;
using crtest::Result;

class CrrecVerifyCli : public crtest::ScratchDir {
 protected:
  std::string Write(const std::string& name, const Image& bytes) const {
    std::ofstream(Path(name), std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    return Path(name);
  }
  Image Read(const std::string& path) const {
    std::ifstream f(path, std::ios::binary);
    return Image((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
  }
};

TEST_F(CrrecVerifyCli, UntrustedChecksumsAreSaidAndNeverLaundered) {
  crrec::Built built = Build(2);
  // Written without a checksum: the head holds the CRC.
  const Image bytes = crrec::SerializedBytes(*built.record, false, "b");
  const std::string ser = Write("r.ser", bytes), out = Path("out");
  char text[200];
  std::snprintf(text, sizeof text,
                "the head's checksum 0x%08x is not the Adler-32 of the body (0x%08x): damaged, or "
                "written without a checksum (say --no-checksum)",
                static_cast<unsigned>(Be(bytes, 16, 4)),
                crtest::SlowAdler32(bytes.data() + 28, bytes.size() - 28));
  const std::string warning = "crrec: " + ser + ": warning: " + text + "\n";
  const std::string refusal = "crrec: " + ser + ": checksum: " + text + "\n";
  const std::string fp = "--fptype=2";
  struct Case {
    std::vector<std::string> args;
    int code;
    std::string err;
  } cases[] = {
      {{"show", ser, fp}, 0, warning},
      {{"digest", ser, fp}, 0, warning},
      {{"verify", ser, fp, "-q"}, 1, refusal},
      {{"convert", ser, fp, "--to", "stored", "-o", out}, 1, refusal},
      {{"convert", ser, fp, "--to", "json", "-o", out}, 1, refusal},
      {{"show", ser, fp, "--no-checksum"}, 0, ""},
      {{"verify", ser, fp, "--no-checksum", "-q"}, 0, ""},
  };
  for (const Case& c : cases) {
    Result r = Crrec(c.args);
    EXPECT_EQ(r.code, c.code) << c.args[0] << " " << c.args.back();
    EXPECT_EQ(r.err, c.err) << c.args[0] << " " << c.args.back();
    EXPECT_EQ(access(out.c_str(), F_OK), -1) << "written: " << c.args[0];
  }
  // Told, convert writes it; the serialized form keeps the CRC unless asked.
  ASSERT_EQ(Crrec({"convert", ser, fp, "--no-checksum", "--to", "serialized", "-o", out}).code, 0);
  EXPECT_EQ(Read(out), bytes);
  ASSERT_EQ(Crrec({"convert", ser, fp, "--no-checksum", "--to", "serialized", "--with-checksum",
                   "-o", out}).code, 0);
  EXPECT_EQ(Read(out), crrec::SerializedBytes(*built.record, true, "b"));
}

TEST_F(CrrecVerifyCli, ConversionsStampNoClockAndRefuseUnsoundInputsOfEveryForm) {
  crrec::Built built = Build(3);
  const std::string ser = Write("r.ser", crrec::SerializedBytes(*built.record, true, "b"));
  const Image bloom = crrec::SerializedBytes(*Build(4).record, true, "b");
  const std::string bser = Write("b.ser", bloom);
  // ctime and mtime (offsets 44 and 48) of a record rebuilt from a
  // serialized form: 0, or the --time given; never the clock.
  const struct {
    std::string input;
    std::vector<std::string> extra;
    uint32_t time;
  } conversions[] = {{ser, {}, 0}, {ser, {"--time", "0x01020304"}, 0x01020304}, {bser, {}, 0}};
  for (const auto& c : conversions) {
    std::vector<std::string> args = {"convert", c.input, "--fptype", "2", "--to", "stored", "-o",
                                     Path("out")};
    args.insert(args.end(), c.extra.begin(), c.extra.end());
    ASSERT_EQ(Crrec(args).code, 0) << c.input;
    const Image stored = Read(Path("out"));
    ASSERT_GT(stored.size(), 80u);
    EXPECT_EQ(Le(stored, 44, 4), c.time) << c.input;
    EXPECT_EQ(Le(stored, 48, 4), c.time) << c.input;
  }
  // JSON whose size the segments contradict: nothing is written.
  crrec::Loaded loaded;
  loaded.name = "b";
  loaded.record = std::move(built.record);
  crrec::Json j = crrec::ToJson(loaded);
  const uint64_t size = j["header"]["size"].get<uint64_t>();
  j["header"]["size"] = size + 1;
  const std::string text = j.dump();
  const std::string json = Write("r.json", Image(text.begin(), text.end()));
  Result r = Crrec({"convert", json, "--to", "serialized", "-o", Path("bad")});
  EXPECT_EQ(r.code, 1);
  EXPECT_EQ(r.err, "crrec: " + json + ": size: size " + std::to_string(size + 1) +
                       ", but the last segment ends at " + std::to_string(size) + "\n");
  EXPECT_EQ(access(Path("bad").c_str(), F_OK), -1);
}

TEST_F(CrrecVerifyCli, SeveralFilesGiveTheWorstStatusAndJsonLines) {
  const Image good = crrec::StoredBytes(*Build(5).record, false);
  Image damaged(good);
  damaged[8] = 1;
  const std::string a = Write("a", good), b = Write("b", damaged), missing = Path("missing");
  const std::string bad = "crrec: " + b + ": reserved: header bytes 8-11 are 01000000\n";
  const std::string gone = "crrec: " + missing + ": cannot open: No such file or directory\n";
  struct Case {
    std::vector<std::string> args;
    int code;
    std::string err;
  } cases[] = {
      {{"verify", "-q", a, a}, 0, ""},
      {{"verify", "-q", a, b, a}, 1, bad},
      {{"verify", "-q", missing, b, a}, 2, gone + bad},
      {{"digest", a, missing, a}, 2, gone},
  };
  for (const Case& c : cases) {
    Result r = Crrec(c.args);
    EXPECT_EQ(r.code, c.code) << c.args[2];
    EXPECT_EQ(r.err, c.err) << c.args[2];
  }
  Result digests = Crrec({"digest", a, missing, a});
  EXPECT_EQ(std::count(digests.out.begin(), digests.out.end(), '\n'), 2);

  Result r = Crrec({"verify", "--json", a, b, missing});
  EXPECT_EQ(r.code, 2);
  std::istringstream lines(r.out);
  std::vector<nlohmann::ordered_json> reports;
  for (std::string line; std::getline(lines, line);) {
    reports.push_back(nlohmann::ordered_json::parse(line));
  }
  ASSERT_EQ(reports.size(), 3u);
  std::vector<std::string> keys;
  for (const auto& item : reports[1].items()) keys.push_back(item.key());
  EXPECT_EQ(keys, (std::vector<std::string>{"file", "form", "sound", "checks", "error"}));
  EXPECT_EQ(reports[0]["sound"], true);
  EXPECT_TRUE(reports[0]["error"].is_null());
  EXPECT_EQ(reports[1]["form"], "stored");
  EXPECT_EQ(reports[1]["sound"], false);
  EXPECT_EQ(reports[1]["error"], "reserved: header bytes 8-11 are 01000000");
  const nlohmann::ordered_json failed = {
      {"name", "reserved"}, {"verdict", "failed"}, {"reason", "header bytes 8-11 are 01000000"}};
  EXPECT_EQ(reports[1]["checks"][1], failed);
  for (const auto& check : reports[0]["checks"]) EXPECT_NE(check["verdict"], "failed") << check;
  EXPECT_TRUE(reports[2]["form"].is_null());
  EXPECT_EQ(reports[2]["error"], "cannot open: No such file or directory");
}

}  // namespace
