// The command line: options of every command, and turning failures into
// one line and an exit code.
#include "cli.h"

#include <unistd.h>

#include <algorithm>
#include <iostream>
#include <memory>
#include <optional>
#include <new>
#include <sstream>

#include <CLI/CLI.hpp>

#include <crrecord/DORecord.h>
#include <crrecord/SOmarshall.h>

#include "build.h"
#include "examine.h"
#include "json.h"
#include "load.h"
#include "sample.h"
#include "util.h"

namespace crrec {

namespace {

// Options whose values are codes from a short list; every command that takes
// one refuses the same values, before any file is read.
struct CodeRange {
  const char* option;
  uint64_t min, max;
};
constexpr CodeRange kCodeRanges[] = {{"--dotype", 0, 5}, {"--fptype", 1, 3}};

}  // namespace

uint64_t ParseNumber(const std::string& text, uint64_t max, const std::string& option) {
  const bool hex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
  const size_t start = hex ? 2 : 0;
  if (text.size() == start) Usage("", option + ": " + Quoted(text) + " is not a number");
  uint64_t value = 0;
  for (size_t i = start; i < text.size(); ++i) {
    const char c = text[i];
    int digit = c >= '0' && c <= '9'             ? c - '0'
                : hex && c >= 'a' && c <= 'f'    ? c - 'a' + 10
                : hex && c >= 'A' && c <= 'F'    ? c - 'A' + 10
                                                 : -1;
    if (digit < 0) Usage("", option + ": " + Quoted(text) + " is not a number");
    const uint64_t base = hex ? 16 : 10;
    if (value > (max - static_cast<uint64_t>(digit)) / base) {
      Usage("", option + ": " + Printable(text) + " is larger than " + std::to_string(max));
    }
    value = value * base + static_cast<uint64_t>(digit);
  }
  for (const CodeRange& range : kCodeRanges) {
    if (option == range.option && (value < range.min || value > range.max)) {
      Usage("", option + ": " + Printable(text) + " is not in " + std::to_string(range.min) +
                    " to " + std::to_string(range.max));
    }
  }
  return value;
}

namespace {

// A size option; `min` is the least value that means anything.
uint64_t SizeOption(const std::string& text, uint64_t min, uint64_t max,
                    const std::string& option) {
  uint64_t value = 0;
  try {
    value = ParseSize(text);
  } catch (const std::invalid_argument& e) {
    Usage("", option + ": " + e.what());
  }
  if (value > max) {
    Usage("", option + ": " + Printable(text) + " is larger than " + std::to_string(max));
  }
  if (value < min) {
    Usage("", option + ": " + Printable(text) + " is less than " + std::to_string(min));
  }
  return value;
}

// Options that say how to read the input files.
struct InputArgs {
  std::vector<std::string> files;
  std::string form, dotype, fptype, cid, time;
  bool noChecksum = false;
};

// `several`: verify and digest take more than one file.
void AddInput(CLI::App* cmd, InputArgs* in, bool several) {
  cmd->add_option("FILE", in->files,
                  std::string(several ? "the record files" : "the record file") +
                      " (- for standard input); JSON input: at most " +
                      std::to_string(kMaxJsonInput >> 20) + " MiB")
      ->required()
      ->expected(1, several ? CLI::detail::expected_max_vector_size : 1);
  cmd->add_option("--form", in->form, "what the file holds, when it cannot be recognised")
      ->check(CLI::IsMember({"stored", "serialized", "serialized-bloom", "segment-db", "json"}));
  cmd->add_option("--dotype", in->dotype, "DO type of a serialized form (0-5)");
  cmd->add_option("--fptype", in->fptype, "fingerprint type of a serialized form (1-3)");
  cmd->add_option("--cid", in->cid,
                  "container ID for a record read from a serialized form (default 0)");
  cmd->add_flag("--no-checksum", in->noChecksum,
                "the serialized form was written without a checksum: its head holds the "
                "record's CRC, not the Adler-32 of its body");
}

Hints MakeHints(const InputArgs& in) {
  Hints hints;
  if (!in.form.empty()) {
    hints.formGiven = FormFromKey(in.form, &hints.form);
  }
  if (!in.dotype.empty()) hints.dotype = static_cast<int>(ParseNumber(in.dotype, 255, "--dotype"));
  if (!in.fptype.empty()) hints.fptype = static_cast<int>(ParseNumber(in.fptype, 255, "--fptype"));
  if (!in.cid.empty()) hints.cid = ParseNumber(in.cid, UINT64_MAX, "--cid");
  if (!in.time.empty()) hints.time = static_cast<uint32_t>(ParseNumber(in.time, UINT32_MAX, "--time"));
  return hints;
}

VerifyOptions MakeVerifyOptions(const InputArgs& in) {
  VerifyOptions options;
  options.noChecksum = in.noChecksum;
  return options;
}

void PrintNotes(const Loaded& loaded, std::ostream& err) {
  for (const std::string& note : loaded.notes) {
    err << "crrec: " << loaded.name << ": note: " << note << "\n";
  }
}

// A progress bar on the terminal that stderr is, cleared when done. It
// writes to std::cerr itself, since its carriage returns are not lines.
class Progress {
 public:
  Progress(const std::string& name, bool enabled)
      // 78 columns at most: "crrec: NAME [25 marks] 100% 1023.9 MiB".
      : name_(Printable(name, 24)), enabled_(enabled && ::isatty(2) == 1) {}
  ~Progress() {
    if (shown_) std::cerr << "\r" << std::string(78, ' ') << "\r" << std::flush;
  }
  ProgressFn Fn() {
    if (!enabled_) return ProgressFn();
    return [this](uint64_t done, uint64_t total) {
      std::string line = "crrec: " + name_ + " ";
      if (total > 0) {
        const uint64_t pct = done >= total ? 100 : done * 100 / total;
        line += "[" + std::string(pct / 4, '#') + std::string(25 - pct / 4, '.') + "] " +
                std::to_string(pct) + "% ";
      }
      line += HumanBytes(done);
      std::cerr << "\r" << line << std::string(line.size() < 78 ? 78 - line.size() : 0, ' ')
                << std::flush;
      shown_ = true;
    };
  }

 private:
  std::string name_;
  bool enabled_;
  bool shown_ = false;
};

// An output named on the command line, opened before the input is read.
// Binary records are not for a terminal.
void OpenOutput(std::optional<OutputFile>* output, const std::string& path, bool binary) {
  if (path == "-" && binary && ::isatty(1) == 1) {
    Usage("", "will not write a binary record to a terminal: say -o FILE");
  }
  output->emplace(path);
}

void WriteOutput(OutputFile& output, const std::vector<unsigned char>& bytes) {
  output.Write(bytes.data(), bytes.size());
  output.Close();
}

void Write(std::optional<OutputFile>& output, const std::vector<unsigned char>& bytes) {
  if (output) output->Write(bytes.data(), bytes.size());
}

std::vector<unsigned char> TextBytes(const std::string& text) {
  return std::vector<unsigned char>(text.begin(), text.end());
}

struct BuildArgs {
  std::string file;
  std::string chunker, segmentSize, minSize, avgSize, maxSize;
  std::string dotype = "3", fptype = "2";
  std::string containerSize = "4M", firstDcid = "64", cid, crc, time;
  bool noUnique = false;
  std::string bloomBytes;
  std::vector<std::string> taskIds, dsids;
  std::string stored, serialized, json;
  bool networkOrder = false, noChecksum = false, quiet = false, noProgress = false;
};

int DoBuild(const BuildArgs& a, std::ostream& out, std::ostream& err) {
  BuildOptions o;
  o.dotype = static_cast<unsigned char>(ParseNumber(a.dotype, 255, "--dotype"));
  o.fptype = static_cast<unsigned char>(ParseNumber(a.fptype, 255, "--fptype"));
  const bool derived = o.dotype == CR_DO_TYPE_ORIGINAL || o.dotype == CR_DO_TYPE_NO_SIZE;
  const bool fixed = a.chunker.empty() ? derived || !a.segmentSize.empty() : a.chunker == "fixed";
  ChunkerParams& c = o.chunking;
  c.kind = fixed ? ChunkerKind::kFixed : ChunkerKind::kContentDefined;
  if (fixed) {
    if (!a.minSize.empty() || !a.avgSize.empty() || !a.maxSize.empty()) {
      Usage("", "--min, --avg and --max are for --chunker cdc");
    }
    if (!a.segmentSize.empty()) c.fixedSize = static_cast<uint32_t>(
        SizeOption(a.segmentSize, 0, kMaxSegmentSize, "--segment-size"));
  } else {
    if (!a.segmentSize.empty()) Usage("", "--segment-size is for --chunker fixed");
    if (!a.avgSize.empty()) c.avgSize = static_cast<uint32_t>(
        SizeOption(a.avgSize, 0, kMaxSegmentSize, "--avg"));
    c.minSize = a.minSize.empty() ? c.avgSize / 4
                                  : static_cast<uint32_t>(
                                        SizeOption(a.minSize, 0, kMaxSegmentSize, "--min"));
    c.maxSize = a.maxSize.empty()
                    ? static_cast<uint32_t>(std::min<uint64_t>(uint64_t{c.avgSize} * 8, kMaxSegmentSize))
                    : static_cast<uint32_t>(SizeOption(a.maxSize, 0, kMaxSegmentSize, "--max"));
  }
  o.containerSize = SizeOption(a.containerSize, 1, UINT64_MAX, "--container-size");
  o.firstDcid = ParseNumber(a.firstDcid, UINT64_MAX, "--first-dcid");
  o.cid = a.cid.empty() ? o.firstDcid : ParseNumber(a.cid, UINT64_MAX, "--cid");
  if (!a.crc.empty()) {
    o.crcGiven = true;
    o.crc = static_cast<uint32_t>(ParseNumber(a.crc, UINT32_MAX, "--crc"));
  }
  if (!a.time.empty()) {
    o.time = static_cast<uint32_t>(ParseNumber(a.time, UINT32_MAX, "--time"));
    // The builder takes 0 for "now": a 0 given here would not be kept.
    if (o.time == 0) {
      Usage("", "--time: 0 stands for the current time: give 1 or more, or leave --time out");
    }
  }
  o.uniqueDcidList = !a.noUnique;
  if (!a.bloomBytes.empty()) {
    o.bloomBytes =
        static_cast<uint32_t>(SizeOption(a.bloomBytes, 1, UINT32_MAX / 2, "--bloom-bytes"));
  }
  for (const std::string& id : a.taskIds) o.taskIds.push_back(ParseNumber(id, UINT64_MAX, "--taskid"));
  for (const std::string& id : a.dsids) {
    o.dsids.push_back(static_cast<uint32_t>(ParseNumber(id, UINT32_MAX, "--dsid")));
  }
  const std::string problem = CheckBuildOptions(o);
  if (!problem.empty()) Usage("", problem);

  // The outputs exist before the input is read, so that a file that cannot
  // be created is refused at once, not after cutting a large input.
  const std::pair<const char*, const std::string*> named[] = {
      {"-o", &a.stored}, {"-s", &a.serialized}, {"-j", &a.json}};
  for (size_t i = 0; i < 3; ++i) {
    for (size_t j = i + 1; j < 3; ++j) {
      if (!named[i].second->empty() && *named[i].second == *named[j].second) {
        Usage("", std::string(named[i].first) + " and " + named[j].first + " name the same file");
      }
    }
  }
  std::optional<OutputFile> stored, serialized, json;
  if (!a.stored.empty()) OpenOutput(&stored, a.stored, true);
  if (!a.serialized.empty()) OpenOutput(&serialized, a.serialized, true);
  if (!a.json.empty()) OpenOutput(&json, a.json, false);

  FileSource source(a.file);
  Built built;
  {
    Progress progress(a.file, !a.quiet && !a.noProgress);
    built = BuildRecord(source, a.file, o, progress.Fn());
  }
  const bool toStdout = a.stored == "-" || a.serialized == "-" || a.json == "-";
  if (!a.quiet) PrintBuildSummary(a.file, built, o, toStdout ? err : out);

  if (stored) Write(stored, StoredBytes(*built.record, a.networkOrder));
  if (serialized) Write(serialized, SerializedBytes(*built.record, !a.noChecksum, a.file));
  if (json) {
    Loaded loaded;
    loaded.name = a.file;
    loaded.networkOrder = a.networkOrder;
    loaded.record = std::move(built.record);
    Write(json, TextBytes(ToJson(loaded).dump(2) + "\n"));
  }
  // Named only when all of them are written: a failure leaves none behind.
  for (std::optional<OutputFile>* output : {&stored, &serialized, &json}) {
    if (*output) (*output)->Close();
  }
  return kExitOk;
}

std::string OneLine(std::string s);

// The error line of one of several inputs, which does not end the command.
void PrintError(const std::string& file, const std::string& reason, std::ostream& err) {
  err << OneLine(ToolError(kExitUnsound, file, reason).Line()) << "\n";
}

// Says on every run that a serialized form's checksum is not trusted.
void PrintWarning(const Loaded& loaded, const VerifyOptions& options, std::ostream& err) {
  const std::string problem = ChecksumProblem(loaded, options);
  if (!problem.empty()) PrintError(loaded.name, "warning: " + problem, err);
}

int DoShow(const InputArgs& in, const ShowOptions& options, bool text, bool json,
           std::ostream& out, std::ostream& err) {
  const std::string& file = in.files.front();
  Loaded loaded = LoadFile(file, MakeHints(in));
  PrintWarning(loaded, MakeVerifyOptions(in), err);
  if (json) {
    out << ToJson(loaded).dump(2) << "\n";
  } else if (text) {
    MessageScope scope;
    try {
      if (loaded.IsDO()) {
        loaded.record->ToStream(out, false);
      } else {
        SegmentRecordToStream(out, *loaded.so(), false);
      }
    } catch (const Cr_ErrnoException& e) {
      Unsound(file, Describe(e, scope));
    }
    out << "\n";
  } else {
    Show(loaded, options, out);
  }
  return kExitOk;
}

// Every file is checked; the exit status is the worst of them (2 > 1 > 0),
// and each unsound or unreadable file gets its error line.
int DoVerify(const InputArgs& in, bool quiet, bool json, std::ostream& out, std::ostream& err) {
  const Hints hints = MakeHints(in);
  const VerifyOptions options = MakeVerifyOptions(in);
  int worst = kExitOk;
  for (const std::string& file : in.files) {
    VerifyReport report;
    try {
      report = Verify(LoadFile(file, hints), options);
    } catch (const ToolError& e) {
      report = FailedReport(file, e);
    }
    if (json) {
      out << ReportJson(report) << "\n";
    } else if (!quiet) {
      PrintReport(report, out);
    }
    if (!report.sound()) PrintError(file, report.error, err);
    worst = std::max(worst, report.exitCode);
  }
  return worst;
}

struct ConvertArgs {
  std::string to, output = "-";
  bool networkOrder = false, hostOrder = false, withChecksum = false, withoutChecksum = false;
};

// Nothing is written from an input that any check of verify finds unsound,
// so that a damaged record is never sealed with fresh checksums; text and
// JSON, which an operator reads and repairs, are refused only for an
// untrusted checksum.
int DoConvert(const InputArgs& in, const ConvertArgs& a, std::ostream& err) {
  const std::string& file = in.files.front();
  std::optional<OutputFile> output;
  OpenOutput(&output, a.output, a.to == "stored" || a.to == "serialized");
  Loaded loaded = LoadFile(file, MakeHints(in));
  PrintNotes(loaded, err);
  const VerifyOptions options = MakeVerifyOptions(in);
  const std::string distrust = ChecksumProblem(loaded, options);
  if (!distrust.empty()) Unsound(file, "checksum: " + distrust);
  if (a.to == "stored" || a.to == "serialized") {
    const VerifyReport report = Verify(loaded, options);
    if (!report.sound()) Unsound(file, report.error);
  }
  if (a.to == "json") {
    WriteOutput(*output, TextBytes(ToJson(loaded).dump(2) + "\n"));
    return kExitOk;
  }
  if (a.to == "text") {
    std::ostringstream text;
    MessageScope scope;
    try {
      if (loaded.IsDO()) {
        loaded.record->ToStream(text, false);
      } else {
        SegmentRecordToStream(text, *loaded.so(), false);
      }
    } catch (const Cr_ErrnoException& e) {
      Unsound(file, Describe(e, scope));
    }
    text << "\n";
    WriteOutput(*output, TextBytes(text.str()));
    return kExitOk;
  }
  if (a.to == "stored") {
    // The byte order of the input, unless the caller says.
    const bool keep = loaded.origin == Form::kStored || loaded.origin == Form::kSegmentDb;
    const bool network = a.networkOrder || (!a.hostOrder && keep && loaded.networkOrder);
    if (loaded.IsDO()) {
      WriteOutput(*output, StoredBytes(loaded, network));
    } else {
      std::vector<uint64_t> copy(loaded.soStorage);
      _SegmentDBRecord* s = reinterpret_cast<_SegmentDBRecord*>(copy.data());
      if (network) SegmentRecordHton(s, s, 0);
      const unsigned char* p = reinterpret_cast<const unsigned char*>(copy.data());
      WriteOutput(*output, std::vector<unsigned char>(p, p + loaded.soLength));
    }
    return kExitOk;
  }
  // serialized: with the checksum the input had, unless the caller says.
  const bool serializedOrigin =
      loaded.origin == Form::kSerialized || loaded.origin == Form::kSerializedBloom;
  const bool checksum =
      a.withChecksum || (!a.withoutChecksum && (!serializedOrigin || loaded.serializedChecksum));
  if (loaded.IsDO()) {
    WriteOutput(*output, SerializedBytes(*loaded.record, checksum, file));
  } else {
    MessageScope scope;
    void* out = nullptr;
    unsigned long size = 0;
    cr_status_t status = SegmentRecordSerialize(loaded.so(), &out, &size);
    if (status != CR_STATUS_SUCCESS) Unsound(file, DescribeStatus(status, scope));
    std::vector<unsigned char> bytes(static_cast<unsigned char*>(out),
                                     static_cast<unsigned char*>(out) + size);
    std::free(out);
    WriteOutput(*output, bytes);
  }
  return kExitOk;
}

// As verify: every file, the worst exit status.
int DoDigest(const InputArgs& in, std::ostream& out, std::ostream& err) {
  const Hints hints = MakeHints(in);
  const VerifyOptions options = MakeVerifyOptions(in);
  int worst = kExitOk;
  for (const std::string& file : in.files) {
    try {
      Loaded loaded = LoadFile(file, hints);
      PrintNotes(loaded, err);
      PrintWarning(loaded, options, err);
      if (!loaded.IsDO()) Unsound(file, "a segment DB record has no digest");
      out << DigestText(*loaded.record, file) << "  " << file << "\n";
    } catch (const ToolError& e) {
      PrintError(e.where().empty() ? file : e.where(), e.reason(), err);
      worst = std::max(worst, e.exitCode());
    }
  }
  return worst;
}

int DoGen(const std::string& file, const std::string& size, const std::string& seed) {
  SampleSource source(ParseNumber(seed, UINT64_MAX, "--seed"),
                      SizeOption(size, 0, UINT64_MAX, "--size"));
  // Written block by block: a sample of any size takes a fixed amount of memory.
  std::vector<unsigned char> block(1 << 20);
  OutputFile output(file);
  while (size_t n = source.Read(block.data(), block.size())) output.Write(block.data(), n);
  output.Close();
  return kExitOk;
}

std::string OneLine(std::string s) {
  for (char& c : s) {
    if (c == '\n') c = ' ';
  }
  while (!s.empty() && s.back() == ' ') s.pop_back();
  return s;
}

// An option given with an empty value ("-o ''", "--dotype=") is refused
// like any other value that means nothing, rather than taken as not given.
void RefuseEmptyValues(const CLI::App& command) {
  for (const CLI::Option* option : command.get_options()) {
    if (option->get_type_size() == 0) continue;  // a flag
    for (const std::string& value : option->results()) {
      if (value.empty()) Usage("", option->get_name() + ": an empty value");
    }
  }
}

// Parses the command line and runs the command; every failure becomes one
// line on `err` and the exit code. `errIsStderr`: a progress bar may go to
// the terminal.
// The file an error names when it names none itself.
std::string First(const InputArgs& in) { return in.files.empty() ? "" : in.files.front(); }

int RunCommand(const std::vector<std::string>& args, std::ostream& out, std::ostream& err,
               bool errIsStderr) {
  CLI::App app{"crrec: builds DO records from files, and shows, verifies and converts records.\n"
               "Without a command it runs the demo job.",
               "crrec"};
  app.require_subcommand(0, 1);
  app.set_version_flag("--version", "crrec " CRREC_VERSION, "print crrec's version and exit");

  CLI::App* demo = app.add_subcommand("demo", "build, serialize, rebuild, verify and show a sample");

  BuildArgs b;
  CLI::App* build = app.add_subcommand("build", "cut a file into segments and build its DO record");
  build->add_option("FILE", b.file, "the file (- for standard input)")->required();
  build->add_option("--chunker", b.chunker, "fixed or cdc (content-defined); default: fixed for "
                    "DO types 0 and 1, else cdc")->check(CLI::IsMember({"fixed", "cdc"}));
  build->add_option("--segment-size", b.segmentSize, "fixed-size segments (default 8K)");
  build->add_option("--min", b.minSize, "content-defined: minimum segment size (default avg/4)");
  build->add_option("--avg", b.avgSize, "content-defined: average segment size (default 8K)");
  build->add_option("--max", b.maxSize, "content-defined: maximum segment size (default avg*8)");
  build->add_option("--dotype", b.dotype, "DO type: 0, 1 (fixed), 2, 3, 5, or 4 (Bloom)")->capture_default_str();
  build->add_option("--fptype", b.fptype, "fingerprint type: 1 MD5, 2 SHA-256/16, 3 SHA-256")->capture_default_str();
  build->add_option("--container-size", b.containerSize, "bytes per data container")->capture_default_str();
  build->add_option("--first-dcid", b.firstDcid, "DCID of the first container (64 or more)")->capture_default_str();
  build->add_option("--cid", b.cid, "the record's own container ID (default: the first DCID)");
  build->add_option("--crc", b.crc, "the CRC to store (default: the CRC-32 of the file)");
  build->add_option("--time", b.time, "ctime and mtime, seconds since 1970 (default: now)");
  build->add_flag("--no-unique-dcids", b.noUnique, "leave the unique-DCID list out");
  build->add_option("--bloom-bytes", b.bloomBytes,
                    "DO type 4: bitmap size (default 10 bits per distinct segment)");
  build->add_option("--taskid", b.taskIds, "add a task-ID reference (repeatable)");
  build->add_option("--dsid", b.dsids, "add a data-selection-ID reference (repeatable)");
  build->add_option("-o,--stored", b.stored, "write the stored record buffer here");
  build->add_flag("--network-order", b.networkOrder, "store it (and its JSON) in network order");
  build->add_option("-s,--serialized", b.serialized, "write the serialized form here");
  build->add_flag("--no-checksum", b.noChecksum, "serialize without the Adler-32 checksum");
  build->add_option("-j,--json", b.json, "write the JSON form here");
  build->add_flag("-q,--quiet", b.quiet, "print no summary and no progress");
  build->add_flag("--no-progress", b.noProgress, "no progress bar");

  InputArgs showIn;
  ShowOptions showOptions;
  std::string segments;
  bool all = false, text = false, json = false;
  CLI::App* show = app.add_subcommand("show", "print a record for a person");
  AddInput(show, &showIn, false);
  show->add_option("-n,--segments", segments, "segments to list (default 10)");
  show->add_flag("--all", all, "list every segment");
  show->add_flag("--text", text, "print the record's own text form instead");
  show->add_flag("--json", json, "print the JSON form instead");

  InputArgs verifyIn;
  bool verifyQuiet = false, verifyJson = false;
  CLI::App* verify = app.add_subcommand(
      "verify", "run every check on each file; exit 0 when every record is sound, else the "
                "worst status (2 > 1)");
  AddInput(verify, &verifyIn, true);
  verify->add_flag("-q,--quiet", verifyQuiet, "print nothing but the error lines");
  verify->add_flag("--json", verifyJson,
                   "one JSON object per file and line: {file, form, sound, checks: [{name, "
                   "verdict, reason}], error}");

  InputArgs convertIn;
  ConvertArgs convertArgs;
  CLI::App* convert = app.add_subcommand(
      "convert", "write a record in another form; to stored or serialized only when verify "
                 "finds it sound, and never from an untrusted checksum");
  AddInput(convert, &convertIn, false);
  convert->add_option("--to", convertArgs.to, "stored, serialized, text or json")
      ->required()
      ->check(CLI::IsMember({"stored", "serialized", "text", "json"}));
  convert->add_option("-o,--output", convertArgs.output, "where to write (default: stdout)");
  convert->add_option("--time", convertIn.time,
                      "ctime and mtime of a record read from a serialized form, which carries "
                      "none (default 0)");
  convert->add_flag("--network-order", convertArgs.networkOrder, "stored form in network order");
  convert->add_flag("--host-order", convertArgs.hostOrder, "stored form in host order");
  convert->add_flag("--with-checksum", convertArgs.withChecksum,
                    "write the serialized form with the Adler-32 checksum (default: as the input)");
  convert->add_flag("--without-checksum", convertArgs.withoutChecksum,
                    "write the serialized form with the record's CRC in its head instead");

  InputArgs digestIn;
  CLI::App* digest = app.add_subcommand("digest", "print each record's digest");
  AddInput(digest, &digestIn, true);

  std::string genFile, genSize = "8M", genSeed = "1";
  CLI::App* gen = app.add_subcommand("gen", "write deterministic sample data with repeated regions");
  gen->add_option("FILE", genFile, "where to write (- for stdout)")->required();
  gen->add_option("--size", genSize, "how many bytes")->capture_default_str();
  gen->add_option("--seed", genSeed, "which sample")->capture_default_str();

  std::vector<const char*> argv;
  for (const std::string& a : args) argv.push_back(a.c_str());
  try {
    app.parse(static_cast<int>(argv.size()), argv.data());
  } catch (const CLI::ParseError& e) {
    if (e.get_exit_code() == 0) return app.exit(e, out, err);
    err << "crrec: " << Printable(OneLine(e.what()), 2 * kQuoteLimit) << " (see crrec --help)\n";
    return kExitUsage;
  }
  if (!errIsStderr) b.noProgress = true;

  // The file that errors name when they name no other.
  const std::string file = *build     ? b.file
                           : *show    ? First(showIn)
                           : *verify  ? First(verifyIn)
                           : *convert ? First(convertIn)
                           : *digest  ? First(digestIn)
                           : *gen     ? genFile
                                      : "demo";
  try {
    for (const CLI::App* command : app.get_subcommands()) RefuseEmptyValues(*command);
    if (*build) return DoBuild(b, out, err);
    if (*show) {
      if (all) showOptions.segments = UINT64_MAX;
      if (!segments.empty()) showOptions.segments = ParseNumber(segments, UINT64_MAX, "--segments");
      if (text && json) Usage("", "--text or --json, not both");
      return DoShow(showIn, showOptions, text, json, out, err);
    }
    if (*verify) return DoVerify(verifyIn, verifyQuiet, verifyJson, out, err);
    if (*convert) {
      if (convertArgs.networkOrder && convertArgs.hostOrder) {
        Usage("", "--network-order or --host-order, not both");
      }
      if (convertArgs.withChecksum && convertArgs.withoutChecksum) {
        Usage("", "--with-checksum or --without-checksum, not both");
      }
      return DoConvert(convertIn, convertArgs, err);
    }
    if (*digest) return DoDigest(digestIn, out, err);
    if (*gen) return DoGen(genFile, genSize, genSeed);
    (void)demo;
    return RunDemo(out);
  } catch (const ToolError& e) {
    ToolError named(e.exitCode(), e.where().empty() ? file : e.where(), e.reason());
    err << named.Line() << "\n";
    return named.exitCode();
  } catch (const std::bad_alloc&) {
    err << ToolError(kExitUnsound, file, "out of memory").Line() << "\n";
    return kExitUnsound;
  } catch (const Cr_ErrnoException& e) {
    const std::string reason =
        std::string(e.what()) + " (status " + std::to_string(e.GetStatus()) + ")";
    err << ToolError(kExitUnsound, file, reason).Line() << "\n";
    return kExitUnsound;
  } catch (const std::exception& e) {
    err << ToolError(kExitUnsound, file, e.what()).Line() << "\n";
    return kExitUnsound;
  }
}

}  // namespace

int Run(const std::vector<std::string>& args, std::ostream& out, std::ostream& rawErr) {
  // Every line on stderr, whoever writes it, goes through one filter.
  PrintableLines errLines(rawErr);
  std::ostream err(&errLines);
  int code = RunCommand(args, out, err, &rawErr == &std::cerr);
  // What was written to `out` reaches it now; a failure to write it fails
  // the command, whatever it was.
  if (!out.flush()) {
    err << "crrec: standard output: " << OutputFailure(out) << "\n";
    if (code == kExitOk) code = kExitUnsound;
  }
  err.flush();
  return code;
}

}  // namespace crrec
