// The commands of crrec: each one's options, and what it does with them.
#include "commands.h"

#include <unistd.h>

#include <algorithm>
#include <iostream>
#include <optional>
#include <sstream>
#include <thread>

#include <CLI/CLI.hpp>

#include <crrecord/DORecord.h>
#include <crrecord/SOmarshall.h>

#include "build.h"
#include "cli.h"
#include "examine.h"
#include "json.h"
#include "load.h"
#include "sample.h"
#include "util.h"

namespace crrec {

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
void AddInput(CLI::App& cmd, InputArgs& in, bool several) {
  cmd.add_option("FILE", in.files,
                 std::string(several ? "the record files" : "the record file") +
                     " (- for standard input); JSON input: at most " +
                     std::to_string(kMaxJsonInput >> 20) + " MiB")
      ->required()
      ->expected(1, several ? CLI::detail::expected_max_vector_size : 1);
  cmd.add_option("--form", in.form, "what the file holds, when it cannot be recognised")
      ->check(CLI::IsMember({"stored", "serialized", "serialized-bloom", "segment-db", "json"}));
  cmd.add_option("--dotype", in.dotype, "DO type of a serialized form (0-5)");
  cmd.add_option("--fptype", in.fptype, "fingerprint type of a serialized form (1-3)");
  cmd.add_option("--cid", in.cid,
                 "container ID for a record read from a serialized form (default 0)");
  cmd.add_flag("--no-checksum", in.noChecksum,
               "the serialized form was written without a checksum: its head holds the "
               "record's CRC, not the Adler-32 of its body");
}

// The file that errors name when they name no other.
template <typename Args>
std::string FirstInput(const Args& a) {
  return a.in.files.empty() ? "" : a.in.files.front();
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

// The JSON form as a file holds it.
std::string JsonText(const Loaded& loaded) { return ToJson(loaded).dump(2) + "\n"; }

// The record's own text form, and a line end. `loaded` is not const: the
// library's text writer of a segment record takes a non-const record.
void WriteTextForm(Loaded& loaded, const std::string& file, std::ostream& out) {
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
}

// The error line of one of several inputs, which does not end the command.
void PrintError(const std::string& file, const std::string& reason, std::ostream& err) {
  err << OneLine(ToolError(kExitUnsound, file, reason).Line()) << "\n";
}

// Says on every run that a serialized form's checksum is not trusted.
void PrintWarning(const Loaded& loaded, const VerifyOptions& options, std::ostream& err) {
  const std::string problem = ChecksumProblem(loaded, options);
  if (!problem.empty()) PrintError(loaded.name, "warning: " + problem, err);
}

struct DemoArgs {};

void AddDemoOptions(CLI::App&, DemoArgs&) {}

int DoDemo(const DemoArgs&, const Io& io) { return RunDemo(io.out); }

std::string DemoFile(const DemoArgs&) { return "demo"; }

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
  std::string threads;
};

void AddBuildOptions(CLI::App& cmd, BuildArgs& b) {
  cmd.add_option("FILE", b.file, "the file (- for standard input)")->required();
  cmd.add_option("--chunker", b.chunker, "fixed or cdc (content-defined); default: fixed for "
                 "DO types 0 and 1, else cdc")->check(CLI::IsMember({"fixed", "cdc"}));
  cmd.add_option("--segment-size", b.segmentSize, "fixed-size segments (default 8K)");
  cmd.add_option("--min", b.minSize, "content-defined: minimum segment size (default avg/4)");
  cmd.add_option("--avg", b.avgSize, "content-defined: average segment size (default 8K)");
  cmd.add_option("--max", b.maxSize, "content-defined: maximum segment size (default avg*8)");
  cmd.add_option("--dotype", b.dotype, "DO type: 0, 1 (fixed), 2, 3, 5, or 4 (Bloom)")->capture_default_str();
  cmd.add_option("--fptype", b.fptype, "fingerprint type: 1 MD5, 2 SHA-256/16, 3 SHA-256")->capture_default_str();
  cmd.add_option("--container-size", b.containerSize, "bytes per data container")->capture_default_str();
  cmd.add_option("--first-dcid", b.firstDcid, "DCID of the first container (64 or more)")->capture_default_str();
  cmd.add_option("--cid", b.cid, "the record's own container ID (default: the first DCID)");
  cmd.add_option("--crc", b.crc, "the CRC to store (default: the CRC-32 of the file)");
  cmd.add_option("--time", b.time, "ctime and mtime, seconds since 1970 (default: now)");
  cmd.add_flag("--no-unique-dcids", b.noUnique, "leave the unique-DCID list out");
  cmd.add_option("--bloom-bytes", b.bloomBytes,
                 "DO type 4: bitmap size (default 10 bits per distinct segment)");
  cmd.add_option("--taskid", b.taskIds, "add a task-ID reference (repeatable)");
  cmd.add_option("--dsid", b.dsids, "add a data-selection-ID reference (repeatable)");
  cmd.add_option("-o,--stored", b.stored, "write the stored record buffer here");
  cmd.add_flag("--network-order", b.networkOrder, "store it (and its JSON) in network order");
  cmd.add_option("-s,--serialized", b.serialized, "write the serialized form here");
  cmd.add_flag("--no-checksum", b.noChecksum, "serialize without the Adler-32 checksum");
  cmd.add_option("-j,--json", b.json, "write the JSON form here");
  cmd.add_flag("-q,--quiet", b.quiet, "print no summary and no progress");
  cmd.add_flag("--no-progress", b.noProgress, "no progress bar");
  cmd.add_option("--threads", b.threads,
                 "threads that fingerprint segments (default: one per core); the record is "
                 "the same for every count");
}

std::string BuildFile(const BuildArgs& a) { return a.file; }

int DoBuild(const BuildArgs& a, const Io& io) {
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
  // A thread count beyond the cores only adds queued memory; 256 bounds it.
  o.threads = std::max(1u, std::thread::hardware_concurrency());
  if (!a.threads.empty()) {
    o.threads = static_cast<unsigned>(ParseNumber(a.threads, 256, "--threads"));
    if (o.threads == 0) Usage("", "--threads: 0 is less than 1");
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
    Progress progress(a.file, !a.quiet && !a.noProgress && io.errIsStderr);
    built = BuildRecord(source, a.file, o, progress.Fn());
  }
  const bool toStdout = a.stored == "-" || a.serialized == "-" || a.json == "-";
  if (!a.quiet) PrintBuildSummary(a.file, built, o, toStdout ? io.err : io.out);

  if (stored) Write(stored, StoredBytes(*built.record, a.networkOrder));
  if (serialized) Write(serialized, SerializedBytes(*built.record, !a.noChecksum, a.file));
  if (json) {
    Loaded loaded;
    loaded.name = a.file;
    loaded.networkOrder = a.networkOrder;
    loaded.record = std::move(built.record);
    Write(json, TextBytes(JsonText(loaded)));
  }
  // Named only when all of them are written: a failure leaves none behind.
  for (std::optional<OutputFile>* output : {&stored, &serialized, &json}) {
    if (*output) (*output)->Close();
  }
  return kExitOk;
}

struct ShowArgs {
  InputArgs in;
  std::string segments;
  bool all = false, text = false, json = false;
};

void AddShowOptions(CLI::App& cmd, ShowArgs& a) {
  AddInput(cmd, a.in, false);
  cmd.add_option("-n,--segments", a.segments, "segments to list (default 10)");
  cmd.add_flag("--all", a.all, "list every segment");
  cmd.add_flag("--text", a.text, "print the record's own text form instead");
  cmd.add_flag("--json", a.json, "print the JSON form instead");
}

int DoShow(const ShowArgs& a, const Io& io) {
  ShowOptions options;
  if (a.all) options.segments = UINT64_MAX;
  if (!a.segments.empty()) options.segments = ParseNumber(a.segments, UINT64_MAX, "--segments");
  if (a.text && a.json) Usage("", "--text or --json, not both");

  const std::string& file = a.in.files.front();
  Loaded loaded = LoadFile(file, MakeHints(a.in));
  PrintWarning(loaded, MakeVerifyOptions(a.in), io.err);
  if (a.json) {
    io.out << JsonText(loaded);
  } else if (a.text) {
    WriteTextForm(loaded, file, io.out);
  } else {
    Show(loaded, options, io.out);
  }
  return kExitOk;
}

struct VerifyArgs {
  InputArgs in;
  bool quiet = false, json = false;
};

void AddVerifyOptions(CLI::App& cmd, VerifyArgs& a) {
  AddInput(cmd, a.in, true);
  cmd.add_flag("-q,--quiet", a.quiet, "print nothing but the error lines");
  cmd.add_flag("--json", a.json,
               "one JSON object per file and line: {file, form, sound, checks: [{name, "
               "verdict, reason}], error}");
}

// Every file is checked; the exit status is the worst of them (2 > 1 > 0),
// and each unsound or unreadable file gets its error line.
int DoVerify(const VerifyArgs& a, const Io& io) {
  const Hints hints = MakeHints(a.in);
  const VerifyOptions options = MakeVerifyOptions(a.in);
  int worst = kExitOk;
  for (const std::string& file : a.in.files) {
    VerifyReport report;
    try {
      report = Verify(LoadFile(file, hints), options);
    } catch (const ToolError& e) {
      report = FailedReport(file, e);
    }
    if (a.json) {
      io.out << ReportJson(report) << "\n";
    } else if (!a.quiet) {
      PrintReport(report, io.out);
    }
    if (!report.sound()) PrintError(file, report.error, io.err);
    worst = std::max(worst, report.exitCode);
  }
  return worst;
}

struct ConvertArgs {
  InputArgs in;
  std::string to, output = "-";
  bool networkOrder = false, hostOrder = false, withChecksum = false, withoutChecksum = false;
};

void AddConvertOptions(CLI::App& cmd, ConvertArgs& a) {
  AddInput(cmd, a.in, false);
  cmd.add_option("--to", a.to, "stored, serialized, text or json")
      ->required()
      ->check(CLI::IsMember({"stored", "serialized", "text", "json"}));
  cmd.add_option("-o,--output", a.output, "where to write (default: stdout)");
  cmd.add_option("--time", a.in.time,
                 "ctime and mtime of a record read from a serialized form, which carries "
                 "none (default 0)");
  cmd.add_flag("--network-order", a.networkOrder, "stored form in network order");
  cmd.add_flag("--host-order", a.hostOrder, "stored form in host order");
  cmd.add_flag("--with-checksum", a.withChecksum,
               "write the serialized form with the Adler-32 checksum (default: as the input)");
  cmd.add_flag("--without-checksum", a.withoutChecksum,
               "write the serialized form with the record's CRC in its head instead");
}

// Nothing is written from an input that any check of verify finds unsound,
// so that a damaged record is never sealed with fresh checksums; text and
// JSON, which an operator reads and repairs, are refused only for an
// untrusted checksum.
int DoConvert(const ConvertArgs& a, const Io& io) {
  if (a.networkOrder && a.hostOrder) Usage("", "--network-order or --host-order, not both");
  if (a.withChecksum && a.withoutChecksum) {
    Usage("", "--with-checksum or --without-checksum, not both");
  }
  const std::string& file = a.in.files.front();
  std::optional<OutputFile> output;
  OpenOutput(&output, a.output, a.to == "stored" || a.to == "serialized");
  Loaded loaded = LoadFile(file, MakeHints(a.in));
  PrintNotes(loaded, io.err);
  const VerifyOptions options = MakeVerifyOptions(a.in);
  const std::string distrust = ChecksumProblem(loaded, options);
  if (!distrust.empty()) Unsound(file, "checksum: " + distrust);
  if (a.to == "stored" || a.to == "serialized") {
    const VerifyReport report = Verify(loaded, options);
    if (!report.sound()) Unsound(file, report.error);
  }
  if (a.to == "json") {
    WriteOutput(*output, TextBytes(JsonText(loaded)));
    return kExitOk;
  }
  if (a.to == "text") {
    std::ostringstream text;
    WriteTextForm(loaded, file, text);
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

struct DigestArgs {
  InputArgs in;
};

void AddDigestOptions(CLI::App& cmd, DigestArgs& a) { AddInput(cmd, a.in, true); }

// As verify: every file, the worst exit status.
int DoDigest(const DigestArgs& a, const Io& io) {
  const Hints hints = MakeHints(a.in);
  const VerifyOptions options = MakeVerifyOptions(a.in);
  int worst = kExitOk;
  for (const std::string& file : a.in.files) {
    try {
      Loaded loaded = LoadFile(file, hints);
      PrintNotes(loaded, io.err);
      PrintWarning(loaded, options, io.err);
      if (!loaded.IsDO()) Unsound(file, "a segment DB record has no digest");
      io.out << DigestText(*loaded.record, file) << "  " << file << "\n";
    } catch (const ToolError& e) {
      PrintError(e.where().empty() ? file : e.where(), e.reason(), io.err);
      worst = std::max(worst, e.exitCode());
    }
  }
  return worst;
}

struct GenArgs {
  std::string file, size = "8M", seed = "1";
};

void AddGenOptions(CLI::App& cmd, GenArgs& a) {
  cmd.add_option("FILE", a.file, "where to write (- for stdout)")->required();
  cmd.add_option("--size", a.size, "how many bytes")->capture_default_str();
  cmd.add_option("--seed", a.seed, "which sample")->capture_default_str();
}

std::string GenFile(const GenArgs& a) { return a.file; }

int DoGen(const GenArgs& a, const Io&) {
  SampleSource source(ParseNumber(a.seed, UINT64_MAX, "--seed"),
                      SizeOption(a.size, 0, UINT64_MAX, "--size"));
  // Written block by block: a sample of any size takes a fixed amount of memory.
  std::vector<unsigned char> block(1 << 20);
  OutputFile output(a.file);
  while (size_t n = source.Read(block.data(), block.size())) output.Write(block.data(), n);
  output.Close();
  return kExitOk;
}

}  // namespace

const std::vector<Command>& Commands() {
  static const std::vector<Command> commands = {
      {"demo", "build, serialize, rebuild, verify and show a sample", AddDemoOptions, DoDemo,
       DemoFile},
      {"build", "cut a file into segments and build its DO record", AddBuildOptions, DoBuild,
       BuildFile},
      {"show", "print a record for a person", AddShowOptions, DoShow, FirstInput<ShowArgs>},
      {"verify",
       "run every check on each file; exit 0 when every record is sound, else the worst status "
       "(2 > 1)",
       AddVerifyOptions, DoVerify, FirstInput<VerifyArgs>},
      {"convert",
       "write a record in another form; to stored or serialized only when verify finds it "
       "sound, and never from an untrusted checksum",
       AddConvertOptions, DoConvert, FirstInput<ConvertArgs>},
      {"digest", "print each record's digest", AddDigestOptions, DoDigest,
       FirstInput<DigestArgs>},
      {"gen", "write deterministic sample data with repeated regions", AddGenOptions, DoGen,
       GenFile},
  };
  return commands;
}

}  // namespace crrec
