// The tool's command line: arguments, exit codes and one-line errors.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "cli.h"
#include "crrec_support.h"
#include "json.h"
#include "images.h"

namespace {

using crtest::Crrec;
using crtest::Result;

class CrrecCli : public crtest::ScratchDir {
 protected:
  std::string Read(const std::string& name) const {
    std::ifstream f(Path(name), std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
  }
};

TEST(CrrecArgs, SizesTakeBinaryUnitsAndNumbersAreDecimalOrHexAndBounded) {
  for (auto c : {std::make_pair("12", 12ull), std::make_pair("64K", 65536ull),
                 std::make_pair("8KiB", 8192ull), std::make_pair("4M", 4194304ull),
                 std::make_pair("1G", 1073741824ull)}) {
    EXPECT_EQ(crrec::ParseSize(c.first), c.second) << c.first;
  }
  for (const char* bad : {"K", "5Q", "5Kx", "99999999999999999999", "17179869184G"}) {
    EXPECT_THROW(crrec::ParseSize(bad), std::invalid_argument) << bad;
  }
  EXPECT_EQ(crrec::ParseNumber("4294967295", UINT32_MAX, "--crc"), 4294967295u);
  EXPECT_EQ(crrec::ParseNumber("0xfeedBEEF", UINT32_MAX, "--crc"), 0xfeedbeefu);
  EXPECT_EQ(crtest::ToolLine([] { crrec::ParseNumber("4294967296", UINT32_MAX, "--crc"); }),
            std::to_string(crrec::kExitUsage) + " crrec: --crc: 4294967296 is larger than 4294967295");
  for (const char* bad : {"-1", "0x", "12a"}) {
    EXPECT_THROW(crrec::ParseNumber(bad, UINT64_MAX, "--cid"), crrec::ToolError) << bad;
  }
}

TEST(CrrecArgs, PrintableEscapesControlsAndBadUtf8AndCountsTheLimitInPrintedBytes) {
  const std::pair<std::string, std::string> cases[] = {
      {"caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80", "caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80"},
      {"a\tb\r\n\x1b[2J\x7f", "a\\tb\\r\\n\\x1b[2J\\x7f"},
      {"\xc2\x9b" "1m \xc2\xa0", "\\xc2\\x9b1m \xc2\xa0"},             // C1 CSI; NBSP stays
      {"\xe2\x80\xaetxt\xe2\x81\xa6", "\\xe2\\x80\\xaetxt\\xe2\\x81\\xa6"},  // bidi controls
      {"\xff\xc3(\xed\xa0\x80\xe2\x82", "\\xff\\xc3(\\xed\\xa0\\x80\\xe2\\x82"},
      {std::string(199, 'x') + "\x01", std::string(199, 'x') + "..."},
      {std::string(199, 'x') + "\xc3\xa9", std::string(199, 'x') + "..."},  // not half a character
      {std::string(200, 'x'), std::string(200, 'x')}};
  for (const auto& c : cases) EXPECT_EQ(crrec::Printable(c.first), c.second) << c.second;
}

TEST(CrrecArgs, HexDecodingRefusesOddAndForeignDigits) {
  std::vector<unsigned char> bytes;
  EXPECT_TRUE(crrec::HexDecode("00fFa5", &bytes));
  EXPECT_EQ(bytes, (std::vector<unsigned char>{0x00, 0xff, 0xa5}));
  EXPECT_FALSE(crrec::HexDecode("abc", &bytes));
  EXPECT_FALSE(crrec::HexDecode("0g", &bytes));
  EXPECT_EQ(crrec::HexEncode(bytes.data(), bytes.size()), "00ffa5");
}

TEST_F(CrrecCli, UsageErrorsExitTwoWithOneLineThatIsPrintableAndBounded) {
  const std::string missing = Path("missing"), input = Path("in.bin"), stored = Path("r.stored");
  ASSERT_EQ(Crrec({"gen", input, "--size", "64K"}).code, 0);
  ASSERT_EQ(Crrec({"build", input, "-q", "-o", stored}).code, 0);
  const std::string long9(10000, '9'), longX(10000, 'x');
  struct Case {
    std::vector<std::string> args;
    std::string line;  // after "crrec: "
  };
  const Case cases[] = {
      {{"verify", missing}, missing + ": cannot open: No such file or directory"},
      {{"convert", missing, "--to", "xml"},
       "--to: xml not in {stored,serialized,text,json} (see crrec --help)"},
      {{"build", missing, "--chunker", "cdc", "--segment-size", "4K"},
       missing + ": --segment-size is for --chunker fixed"},
      // Codes out of their range, whatever the command and the number's form.
      {{"show", stored, "--dotype", "9"}, stored + ": --dotype: 9 is not in 0 to 5"},
      {{"digest", stored, "--fptype", "0x7"}, stored + ": --fptype: 0x7 is not in 1 to 3"},
      {{"verify", stored, "--fptype", "0"}, stored + ": --fptype: 0 is not in 1 to 3"},
      {{"build", input, "--dotype", "256"}, input + ": --dotype: 256 is larger than 255"},
      {{"build", input, "--dotype", "3", "--dotype", "2"},
       "--dotype: At Most 1 required but received 2 (see crrec --help)"},
      {{"build", input, "--dotype", "4", "--bloom-bytes", "0"},
       input + ": --bloom-bytes: 0 is less than 1"},
      {{"build", input, "--time", "0x0"},
       input + ": --time: 0 stands for the current time: give 1 or more, or leave --time out"},
      {{"gen", missing, "--size", "0x10"}, missing + ": --size: \"0x10\" has an unknown unit"},
      {{"show", stored, "-n", "-1"}, stored + ": --segments: \"-1\" is not a number"},
      // An empty value is not an absent one.
      {{"show", stored, "-n", ""}, stored + ": --segments: an empty value"},
      {{"build", input, "-o", ""}, input + ": --stored: an empty value"},
      {{"build", input, "-o", "-", "-j", "-"}, input + ": -o and -j name the same file"},
      // The outputs are refused before the input is read.
      {{"build", missing, "-o", Path("no/x")},
       Path("no/x") + ": cannot create: No such file or directory"},
      {{"convert", missing, "--to", "json", "-o", dir_}, dir_ + ": is a directory"},
      // Control characters, bytes that are not UTF-8 and long values are
      // escaped and cut, wherever they come from.
      {{"verify", Path("a\nb\x1b]0;\xff")},
       Path("a\\nb\\x1b]0;\\xff") + ": cannot open: No such file or directory"},
      {{"show", stored, "--cid", long9},
       stored + ": --cid: " + long9.substr(0, 200) + "... is larger than 18446744073709551615"},
      {{"show", stored, "--" + longX},
       ("The following argument was not expected: --" + longX).substr(0, 400) +
           "... (see crrec --help)"},
      {{"verify", Path(longX.substr(0, 250))},
       Path(longX.substr(0, 250)).substr(0, 200) + "...: cannot open: No such file or directory"}};
  for (const Case& c : cases) {
    Result r = Crrec(c.args);
    EXPECT_EQ(r.code, 2) << c.line;
    EXPECT_EQ(r.err, "crrec: " + c.line + "\n");
    EXPECT_EQ(r.out, "");
  }
  EXPECT_EQ(std::system(("ls -A " + dir_ + " | grep -vqx 'in.bin\\|r.stored'").c_str()), 256)
      << "a file was left behind";

  // Text from inside an input, in an error or a note, whatever its words.
  const std::string named = Path("r\x1b[2J.ser");
  ASSERT_EQ(Crrec({"build", input, "-q", "-s", named}).code, 0);
  std::ofstream(Path("c.json")) << R"({"form": "\u001b[31m\u0007\u009b", "x\u001b": 1})";
  for (const auto& args : {std::vector<std::string>{"verify", Path("c.json")},
                           std::vector<std::string>{"digest", named}}) {
    Result r = Crrec(args);
    EXPECT_EQ(r.err.find_first_of(std::string("\x00\x1b\x07\r\t", 5)), std::string::npos) << r.err;
    EXPECT_EQ(r.err.find("\xc2\x9b"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("\\x1b"), std::string::npos) << r.err;
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
  }
}

TEST_F(CrrecCli, WriteFailuresExitOneAndLeaveNoOutputBehind) {
  const std::string input = Path("in.bin"), stored = Path("r.stored"), kept = Path("kept");
  ASSERT_EQ(Crrec({"gen", input, "--size", "64K"}).code, 0);
  ASSERT_EQ(Crrec({"build", input, "-q", "-o", stored}).code, 0);
  std::ofstream(kept) << "old";
  std::ofstream(Path("empty")).flush();
  const std::string full = "No space left on device";
  // Standard output that fails: a stream without a buffer, and /dev/full
  // through the buffer main gives to Run.
  const int devFull = ::open("/dev/full", O_WRONLY);
  ASSERT_GE(devFull, 0);
  const std::vector<std::string> commands[] = {
      {"digest", stored}, {"show", stored}, {"show", stored, "--json"}, {"verify", stored},
      {"--version"}, {"--help"}};
  for (const auto& command : commands) {
    std::vector<std::string> args{"crrec"};
    args.insert(args.end(), command.begin(), command.end());
    std::ostringstream err;
    std::ostream broken(nullptr);
    EXPECT_EQ(crrec::Run(args, broken, err), 1) << command[0];
    EXPECT_EQ(err.str(), "crrec: standard output: write error\n");
    err.str("");
    {
      crrec::FdOutput buffer(devFull);
      std::ostream out(&buffer);
      EXPECT_EQ(crrec::Run(args, out, err), 1) << command[0];
    }
    EXPECT_EQ(err.str(), "crrec: standard output: " + full + "\n");
  }
  ::close(devFull);

  struct Case {
    std::vector<std::string> args;
    int code;
    std::string line;
  };
  const Case cases[] = {
      {{"build", input, "-q", "-o", "/dev/full"}, 1, "/dev/full: cannot write: " + full},
      {{"convert", stored, "--to", "json", "-o", "/dev/full"}, 1,
       "/dev/full: cannot write: " + full},
      // Nothing is written when one output cannot be created, and an output
      // that exists keeps its content when the job fails.
      {{"build", input, "-q", "-o", Path("new"), "-s", Path("no/x")}, 2,
       Path("no/x") + ": cannot create: No such file or directory"},
      {{"build", input, "-q", "-o", kept, "-s", "/dev/full"}, 1,
       "/dev/full: cannot write: " + full},
      {{"build", Path("missing"), "-q", "-o", kept}, 2,
       Path("missing") + ": cannot open: No such file or directory"},
      {{"build", Path("empty"), "-q", "-o", Path("new")}, 1,
       Path("empty") + ": empty input: a DO record needs at least one segment"},
      // An endless stream is refused once its first bytes bound it.
      {{"verify", "/dev/zero"}, 1,
       "/dev/zero: more bytes than any record that begins with these bytes (56 at most)"}};
  for (const Case& c : cases) {
    Result r = Crrec(c.args);
    EXPECT_EQ(r.code, c.code) << c.line;
    EXPECT_EQ(r.err, "crrec: " + c.line + "\n");
  }
  EXPECT_EQ(Read("kept"), "old");
  const std::string others = "ls -A " + dir_ + " | grep -vqx 'in.bin\\|r.stored\\|kept\\|empty'";
  EXPECT_EQ(std::system(others.c_str()), 256) << "a file was left behind";
}

TEST(CrrecManual, DocumentsEveryOptionOfEveryCommand) {
  const std::string source = __FILE__;
  std::ifstream f(source.substr(0, source.rfind('/')) + "/../tools/crrec/crrec.1");
  const std::string manual((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
  ASSERT_FALSE(manual.empty());
  for (const char* command : {"", "demo", "build", "show", "verify", "convert", "digest", "gen"}) {
    std::vector<std::string> args{command, "--help"};
    if (args[0].empty()) args.erase(args.begin());
    Result r = Crrec(args);
    ASSERT_EQ(r.code, 0);
    EXPECT_NE(manual.find(".B crrec " + std::string(command)), std::string::npos) << command;
    std::istringstream help(r.out);
    for (std::string word; help >> word;) {
      if (word.size() < 2 || word[0] != '-') continue;
      std::istringstream names(word);  // "-o,--stored"
      for (std::string name; std::getline(names, name, ',');) {
        std::string roff;
        for (char c : name) roff += c == '-' ? std::string("\\-") : std::string(1, c);
        EXPECT_NE(manual.find(roff), std::string::npos) << command << " " << name;
      }
    }
  }
}

TEST_F(CrrecCli, BuildThenShowVerifyConvertAndDigest) {
  const std::string input = Path("in.bin"), stored = Path("r.stored"), ser = Path("r.ser");
  ASSERT_EQ(Crrec({"gen", input, "--size", "300K", "--seed", "2"}).code, 0);
  Result r = Crrec({"build", input, "--dotype", "2", "--fptype", "1", "--avg", "4K", "--time",
                  "1700000000", "--crc", "0x1234", "--cid", "500", "-o", stored, "-s", ser,
                  "--no-checksum", "--no-progress"});
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(r.out.rfind(input + "\n  bytes       307200 (300.0 KiB)\n", 0), 0u) << r.out;

  r = Crrec({"show", stored, "--json"});
  ASSERT_EQ(r.code, 0) << r.err;
  crrec::Json j = crrec::Json::parse(r.out);
  for (auto f : {std::make_pair("CID", 500u), std::make_pair("CRC", 0x1234u),
                 std::make_pair("ssize", 4096u), std::make_pair("dotype", 2u),
                 std::make_pair("fptype", 1u)}) {
    EXPECT_EQ(j["header"][f.first], f.second) << f.first;
  }

  // Written without checksum: verify refuses unless told.
  const std::string bytes = Read("r.ser");
  ASSERT_GT(bytes.size(), 28u);
  char body[16];
  std::snprintf(body, sizeof body, "0x%08x", crtest::SlowAdler32(bytes.data() + 28, bytes.size() - 28));
  r = Crrec({"verify", ser});
  EXPECT_EQ(r.code, 1);
  const std::string distrust = "the head's checksum 0x00001234 is not the Adler-32 of the body (" +
                               std::string(body) +
                               "): damaged, or written without a checksum (say --no-checksum)\n";
  EXPECT_EQ(r.err, "crrec: " + ser + ": checksum: " + distrust);
  r = Crrec({"verify", ser, "--no-checksum", "--fptype", "1"});
  EXPECT_EQ(r.code, 0) << r.err;
  EXPECT_NE(r.out.find("checksum   none (the head holds the CRC 0x00001234)"), std::string::npos)
      << r.out;

  // The assumption is said, on stderr, when the caller does not say.
  r = Crrec({"digest", ser});
  EXPECT_EQ(r.code, 0);
  EXPECT_EQ(r.err, "crrec: " + ser + ": note: fingerprint types 1 and 2 fit; assumed 2 (say "
                   "--fptype)\ncrrec: " + ser + ": warning: " + distrust);
  Result digest = Crrec({"digest", stored});
  EXPECT_EQ(digest.out.substr(0, 2), "2:");
  EXPECT_EQ(digest.out.substr(digest.out.size() - stored.size() - 3), "  " + stored + "\n");

  // --text and --json together make no sense.
  r = Crrec({"show", stored, "--text", "--json"});
  EXPECT_EQ(r.code, 2);
  EXPECT_EQ(r.err, "crrec: " + stored + ": --text or --json, not both\n");
}

TEST_F(CrrecCli, ConvertKeepsTheInputsByteOrderUnlessTold) {
  const std::string input = Path("in.bin");
  ASSERT_EQ(Crrec({"gen", input, "--size", "64K"}).code, 0);
  ASSERT_EQ(Crrec({"build", input, "-q", "--time", "5", "-o", Path("host")}).code, 0);
  ASSERT_EQ(Crrec({"build", input, "-q", "--time", "5", "--network-order", "-j", Path("net.json")})
                .code,
            0);
  ASSERT_EQ(Crrec({"convert", Path("host"), "--to", "stored", "--network-order", "-o",
                 Path("net")}).code,
            0);
  ASSERT_EQ(Crrec({"convert", Path("net"), "--to", "stored", "-o", Path("net2")}).code, 0);
  ASSERT_EQ(Crrec({"convert", Path("net.json"), "--to", "stored", "-o", Path("net3")}).code, 0);
  const std::string host = Read("host"), net = Read("net");
  ASSERT_GT(host.size(), 80u);
  EXPECT_EQ(host.substr(0, 2), std::string("\x03\x00", 2));
  EXPECT_EQ(net.substr(0, 2), std::string("\x00\x03", 2));
  EXPECT_EQ(Read("net2"), net);
  // build's --network-order also makes its JSON say so.
  EXPECT_EQ(Read("net3"), net);
}

}  // namespace
