// The tool's command line, in process: one table of {arguments, exit code,
// standard error}, and one golden transcript of build, show and verify.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "cli.h"
#include "json.h"
#include "images.h"
#include "util.h"

namespace {

// One run of the command line, in process.
struct Result {
  int code;
  std::string out, err;
};

// Replaces every '@' by the scratch directory and a slash.
std::string At(std::string s, const std::string& dir) {
  for (size_t i = s.find('@'); i != std::string::npos; i = s.find('@', i + dir.size())) {
    s.replace(i, 1, dir + "/");
  }
  return s;
}

// A test with a scratch directory of its own, removed afterwards.
class CrrecCli : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/crrec_test_XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir_ = pattern;
  }
  void TearDown() override { std::system(("rm -rf " + dir_).c_str()); }
  std::string Path(const std::string& name) const { return dir_ + "/" + name; }
  // A run of the command line, in process, each '@' in it a scratch path.
  Result Crrec(std::vector<std::string> args) const {
    for (std::string& a : args) a = At(a, dir_);
    args.insert(args.begin(), "crrec");
    std::ostringstream out, err;
    const int code = crrec::Run(args, out, err);
    return Result{code, out.str(), err.str()};
  }
  std::string Read(const std::string& name) const {
    std::ifstream f(Path(name), std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
  }
  std::string dir_;
};

// First the golden transcript (tests/golden/crrec_show.txt) of a record of
// three 4096-byte segments, the third a repeat of the first, in containers
// of 4096 bytes. Its fingerprints (the MD5 sums of the slices), CRC (the
// CRC-32 of the input) and unique-DCID checksum (the Adler-32 of the list's
// count and entries) were checked apart from the tool. Then the table, on
// that record and files made from it; no row leaves a file behind.
TEST_F(CrrecCli, EachCommandLineGivesItsExitCodeAndStandardError) {
  ASSERT_EQ(Crrec({"gen", "@g", "--size", "8K", "--seed", "1"}).code, 0);
  std::ofstream(Path("in")) << Read("g") << Read("g").substr(0, 4096);
  const std::vector<std::string> golden[] = {
      {"build", "@in", "--chunker", "fixed", "--segment-size", "4K", "--dotype", "3", "--fptype",
       "1", "--time", "1700000000", "--taskid", "42", "--dsid", "7", "--container-size", "4K",
       "--no-progress", "-o", "@r", "-s", "@r.ser", "-j", "@r.json"},
      {"show", "@r", "--all"}, {"show", "@r", "--json"}, {"verify", "@r.ser", "--fptype", "1"},
      {"verify", "--json", "@r", "@bad", "@missing"}};
  std::string transcript;
  for (const auto& command : golden) {
    const Result r = Crrec(command);
    transcript += "$ crrec " + command[0] + " (exit " + std::to_string(r.code) + ")\n" + r.out;
    if (command[0] == "build") std::ofstream(Path("bad")) << Read("r").replace(8, 1, "\1");
  }
  for (size_t at; (at = transcript.find(dir_ + "/")) != std::string::npos;) {
    transcript.erase(at, dir_.size() + 1);
  }
  const std::string source = __FILE__;
  std::ifstream f(source.substr(0, source.rfind('/')) + "/golden/crrec_show.txt");
  EXPECT_EQ(transcript, std::string(std::istreambuf_iterator<char>(f), {}));
  ASSERT_EQ(Crrec({"build", "@in", "-q", "-s", "@r\x1b[2J.ser"}).code, 0);
  ASSERT_EQ(Crrec({"build", "@in", "-q", "--dotype", "2", "--fptype", "1", "--crc", "0x1234",
                   "--no-checksum", "-s", "@nock.ser"}).code, 0);
  std::ofstream(Path("empty")).flush();
  std::ofstream(Path("kept")) << "old";
  std::ofstream(Path("c.json")) << R"({"form": "\u001b[31m\u0007\u009b"})";
  crrec::Json j = crrec::Json::parse(Read("r.json"));
  const std::string size = std::to_string(j["header"]["size"].get<uint64_t>());
  j["header"]["size"] = j["header"]["size"].get<uint64_t>() + 1;
  std::ofstream(Path("bad.json")) << j.dump();
  const std::string nock = Read("nock.ser");
  char text[200];
  std::snprintf(text, sizeof text,
                "the head's checksum 0x00001234 is not the Adler-32 of the body (0x%08x): damaged, "
                "or written without a checksum (say --no-checksum)",
                crtest::SlowAdler32(nock.data() + 28, nock.size() - 28));
  const std::string warn = "@nock.ser: warning: " + std::string(text);
  const std::string untrusted = "@nock.ser: checksum: " + std::string(text);
  const std::string bad = "@bad: reserved: header bytes 8-11 are 01000000";
  const std::string gone = "@missing: cannot open: No such file or directory";
  const std::string full = ": cannot write: No space left on device";
  const std::string l9(10000, '9'), lx(10000, 'x');
  struct Row {
    std::vector<std::string> args;
    int code;
    std::string err;  // each line after "crrec: "
  } rows[] = {
      {{"verify", "@missing"}, 2, gone},
      {{"convert", "@missing", "--to", "xml"}, 2,
       "--to: xml not in {stored,serialized,text,json} (see crrec --help)"},
      {{"build", "@missing", "--chunker", "cdc", "--segment-size", "4K"}, 2,
       "@missing: --segment-size is for --chunker fixed"},
      {{"build", "@in", "--dotype", "0", "--chunker", "cdc"}, 2, "@in: DO types 0 and 1 "
       "derive segment sizes from one segment size: use --chunker fixed"},
      {{"show", "@r", "--dotype", "9"}, 2, "@r: --dotype: 9 is not in 0 to 5"},
      {{"digest", "@r", "--fptype", "0x7"}, 2, "@r: --fptype: 0x7 is not in 1 to 3"},
      {{"build", "@in", "--dotype", "256"}, 2, "@in: --dotype: 256 is larger than 255"},
      {{"build", "@in", "--crc", "4294967296"}, 2,
       "@in: --crc: 4294967296 is larger than 4294967295"},
      {{"build", "@in", "--crc", "12a"}, 2, "@in: --crc: \"12a\" is not a number"},
      {{"build", "@in", "--dotype", "3", "--dotype", "2"}, 2,
       "--dotype: At Most 1 required but received 2 (see crrec --help)"},
      {{"build", "@in", "--dotype", "4", "--bloom-bytes", "0"}, 2,
       "@in: --bloom-bytes: 0 is less than 1"},
      {{"build", "@in", "--time", "0x0"}, 2,
       "@in: --time: 0 stands for the current time: give 1 or more, or leave --time out"},
      {{"gen", "@g", "--size", "K"}, 2, "@g: --size: \"K\" is not a size"},
      {{"gen", "@g", "--size", "5Kx"}, 2, "@g: --size: \"5Kx\" has an unknown unit"},
      {{"gen", "@g", "--size", "17179869184G"}, 2, "@g: --size: \"17179869184G\" is too large"},
      {{"show", "@r", "-n", "-1"}, 2, "@r: --segments: \"-1\" is not a number"},
      {{"show", "@r", "-n", ""}, 2, "@r: --segments: an empty value"},
      {{"build", "@in", "-o", ""}, 2, "@in: --stored: an empty value"},
      {{"build", "@in", "-o", "-", "-j", "-"}, 2, "@in: -o and -j name the same file"},
      {{"build", "@in", "--min", "4K", "--avg", "2K"}, 2,
       "@in: segment sizes must grow: minimum 4096 < average 2048 < maximum 16384"},
      {{"build", "@in", "--min", "32"}, 2,
       "@in: the minimum segment size must be at least 64 bytes"},
      {{"build", "@in", "--chunker", "fixed", "--segment-size", "0"}, 2,
       "@in: the segment size must be at least 1 byte"},
      {{"build", "@in", "--first-dcid", "63"}, 2,
       "@in: DCIDs below 64 are invalid: --first-dcid must be at least 64"},
      {{"show", "@r", "--text", "--json"}, 2, "@r: --text or --json, not both"},
      // Outputs are refused before the input is read; nothing is written.
      {{"convert", "@missing", "--to", "json", "-o", "@."}, 2, "@.: is a directory"},
      {{"build", "@in", "-q", "-o", "@new", "-s", "@no/x"}, 2,
       "@no/x: cannot create: No such file or directory"},
      {{"build", "@missing", "-q", "-o", "@kept"}, 2, gone},
      {{"build", "@in", "-q", "-o", "/dev/full"}, 1, "/dev/full" + full},
      {{"convert", "@r", "--to", "json", "-o", "/dev/full"}, 1, "/dev/full" + full},
      {{"build", "@in", "-q", "-o", "@kept", "-s", "/dev/full"}, 1, "/dev/full" + full},
      {{"build", "@empty", "-q", "-o", "@new"}, 1,
       "@empty: empty input: a DO record needs at least one segment"},
      {{"verify", "@empty"}, 1, "@empty: empty file"},
      // Text from outside is escaped and cut, wherever it comes from.
      {{"verify", "@a\nb\x1b]0;\xff"}, 2, "@a\\nb\\x1b]0;\\xff: cannot open: No such file or "
       "directory"},
      {{"show", "@r", "--cid", l9}, 2,
       "@r: --cid: " + l9.substr(0, 200) + "... is larger than 18446744073709551615"},
      {{"show", "@r", "--" + lx}, 2,
       ("The following argument was not expected: --" + lx).substr(0, 400) +
           "... (see crrec --help)"},
      {{"verify", "@" + lx.substr(0, 250)}, 2, At("@" + lx, dir_).substr(0, 200) + "...: cannot "
       "open: No such file or directory"},
      {{"verify", "@c.json"}, 1, "@c.json: form: \"\\x1b[31m\\x07\\xc2\\x9b\" is not one of "
       "stored, serialized, serialized-bloom, segment-db"},
      {{"digest", "@r\x1b[2J.ser"}, 0, "@r\\x1b[2J.ser: note: fingerprint types 1 and 2 fit; "
       "assumed 2 (say --fptype)"},
      // A head that is not the body's checksum: said, and never laundered.
      {{"show", "@nock.ser", "--fptype=1"}, 0, warn},
      {{"verify", "@nock.ser", "--fptype=1", "-q"}, 1, untrusted},
      {{"convert", "@nock.ser", "--fptype=1", "--to", "stored", "-o", "@out"}, 1, untrusted},
      {{"show", "@nock.ser", "--fptype=1", "--no-checksum"}, 0, ""},
      {{"verify", "@nock.ser", "--fptype=1", "--no-checksum", "-q"}, 0, ""},
      {{"convert", "@nock.ser", "--fptype=1", "--no-checksum", "--to", "serialized", "-o",
        "@same.ser"}, 0, ""},
      {{"convert", "@nock.ser", "--fptype=1", "--no-checksum", "--to", "serialized",
        "--with-checksum", "-o", "@sum.ser"}, 0, ""},
      // Several files: every one is tried, and the worst status is the exit.
      {{"verify", "-q", "@r", "@bad", "@r"}, 1, bad},
      {{"verify", "-q", "@missing", "@bad", "@r"}, 2, gone + "\ncrrec: " + bad},
      {{"digest", "@r", "@missing", "@r"}, 2, gone},
      // Converting runs every check first; byte order is kept unless told.
      {{"convert", "@bad.json", "--to", "serialized", "-o", "@out"}, 1,
       "@bad.json: size: size " + std::to_string(std::stoull(size) + 1) +
           ", but the last segment ends at " + size},
      {{"convert", "@r", "--to", "stored", "--network-order", "-o", "@net"}, 0, ""},
      {{"convert", "@net", "--to", "json", "-o", "@net.json"}, 0, ""},
      {{"convert", "@net.json", "--to", "stored", "-o", "@net2"}, 0, ""},
      {{"convert", "@net2", "--to", "stored", "--host-order", "-o", "@host"}, 0, ""},
      {{"convert", "@sum.ser", "--fptype=1", "--to", "stored", "-o", "@t0"}, 0, ""},
      {{"convert", "@sum.ser", "--fptype=1", "--to", "stored", "--time", "0x01020304", "-o",
        "@t1"}, 0, ""},
  };
  for (const Row& row : rows) {
    const Result r = Crrec(row.args);
    const std::vector<std::string>& args = row.args;
    const std::string err = row.err.empty() ? "" : At("crrec: " + row.err + "\n", dir_);
    EXPECT_EQ(r.code, row.code) << args[0] << " " << args[1];
    EXPECT_EQ(r.err, err) << args[0] << " " << args[1];
    EXPECT_TRUE(row.code != 2 || args[0] == "digest" || r.out.empty()) << r.out;
  }
  EXPECT_EQ(Read("kept"), "old");
  EXPECT_EQ(Read("same.ser"), nock);
  const std::string sum = Read("sum.ser");
  std::snprintf(text, sizeof text, "%08x", crtest::SlowAdler32(sum.data() + 28, sum.size() - 28));
  EXPECT_EQ(crtest::Hex(sum.data() + 16, 4), text);
  EXPECT_EQ(sum.substr(20), nock.substr(20));
  EXPECT_EQ(Read("net").substr(0, 2), std::string("\0\3", 2));
  EXPECT_EQ(Read("net2"), Read("net"));
  EXPECT_EQ(Read("host"), Read("r"));
  // A record read from a serialized form has ctime and mtime 0, or --time.
  EXPECT_EQ(Read("t0").substr(44, 8), std::string(8, '\0'));
  EXPECT_EQ(Read("t1").substr(44, 8), "\4\3\2\1\4\3\2\1");
  const std::string made = "g|in|r|r.ser|r.json|r\x1b\\[2J.ser|nock.ser|bad|empty|kept|c.json|"
                           "bad.json|same.ser|sum.ser|net|net.json|net2|host|t0|t1";
  EXPECT_EQ(std::system(("ls -A " + dir_ + " | grep -Evqx '" + made + "'").c_str()), 256)
      << "a file was left behind";
}

TEST(CrrecText, PrintableEscapesControlsAndBadUtf8AndCutsWholeCharacters) {
  const std::pair<std::string, std::string> cases[] = {
      {"\xc2\x9b" "1m \xc2\xa0", "\\xc2\\x9b1m \xc2\xa0"},                    // C1 CSI; NBSP stays
      {"\xe2\x80\xaetxt\xe2\x81\xa6", "\\xe2\\x80\\xaetxt\\xe2\\x81\\xa6"},  // bidi controls
      {"\xff\xc3(\xed\xa0\x80\xe2\x82", "\\xff\\xc3(\\xed\\xa0\\x80\\xe2\\x82"},
      {std::string(199, 'x') + "\xc3\xa9", std::string(199, 'x') + "..."},
      {std::string(200, 'x'), std::string(200, 'x')}};
  for (const auto& c : cases) EXPECT_EQ(crrec::Printable(c.first), c.second) << c.second;
}

}  // namespace
