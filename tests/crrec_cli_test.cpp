// The tool's command line: arguments, exit codes and one-line errors.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "cli.h"
#include "crrec_support.h"
#include "json.h"
#include "test_support.h"

namespace {

struct Result {
  int code;
  std::string out, err;
};

Result Crrec(std::vector<std::string> args) {
  args.insert(args.begin(), "crrec");
  std::ostringstream out, err;
  int code = crrec::Run(args, out, err);
  return Result{code, out.str(), err.str()};
}

class CrrecCli : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/crrec_cli_XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir_ = pattern;
  }
  void TearDown() override { std::system(("rm -rf " + dir_).c_str()); }
  std::string Path(const std::string& name) const { return dir_ + "/" + name; }
  std::string Read(const std::string& name) const {
    std::ifstream f(Path(name), std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
  }
  std::string dir_;
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

TEST(CrrecArgs, HexDecodingRefusesOddAndForeignDigits) {
  std::vector<unsigned char> bytes;
  EXPECT_TRUE(crrec::HexDecode("00fFa5", &bytes));
  EXPECT_EQ(bytes, (std::vector<unsigned char>{0x00, 0xff, 0xa5}));
  EXPECT_FALSE(crrec::HexDecode("abc", &bytes));
  EXPECT_FALSE(crrec::HexDecode("0g", &bytes));
  EXPECT_EQ(crrec::HexEncode(bytes.data(), bytes.size()), "00ffa5");
}

TEST_F(CrrecCli, UsageErrorsExitTwoWithOneLine) {
  const std::string missing = Path("missing");
  const std::pair<std::vector<std::string>, std::string> cases[] = {
      {{"verify", missing}, missing + ": cannot open: No such file or directory"},
      {{"convert", missing, "--to", "xml"},
       "--to: xml not in {stored,serialized,text,json} (see crrec --help)"},
      {{"build", missing, "--chunker", "cdc", "--segment-size", "4K"},
       missing + ": --segment-size is for --chunker fixed"}};
  for (const auto& c : cases) {
    Result r = Crrec(c.first);
    EXPECT_EQ(r.code, 2);
    EXPECT_EQ(r.err, "crrec: " + c.second + "\n");
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
