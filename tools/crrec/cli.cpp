// The command line: parsing it into one of the commands, and turning
// failures into one line and an exit code.
#include "cli.h"

#include <iostream>
#include <new>

#include <CLI/CLI.hpp>

#include <crrecord/DORecord.h>

#include "commands.h"
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

std::string OneLine(std::string s) {
  for (char& c : s) {
    if (c == '\n') c = ' ';
  }
  while (!s.empty() && s.back() == ' ') s.pop_back();
  return s;
}

namespace {

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
// line on `io.err` and the exit code.
int RunCommand(const std::vector<std::string>& args, const Io& io) {
  CLI::App app{"crrec: builds DO records from files, and shows, verifies and converts records.\n"
               "Without a command it runs the demo job.",
               "crrec"};
  app.require_subcommand(0, 1);
  app.set_version_flag("--version", "crrec " CRREC_VERSION, "print crrec's version and exit");

  // Each command's parser beside what runs it; the arguments live as long
  // as this line is parsed and run.
  std::vector<std::pair<CLI::App*, Command::Bound>> commands;
  for (const Command& command : Commands()) {
    CLI::App* parser = app.add_subcommand(command.name, command.help);
    commands.emplace_back(parser, command.bind(*parser));
  }

  std::vector<const char*> argv;
  for (const std::string& a : args) argv.push_back(a.c_str());
  try {
    app.parse(static_cast<int>(argv.size()), argv.data());
  } catch (const CLI::ParseError& e) {
    if (e.get_exit_code() == 0) return app.exit(e, io.out, io.err);
    io.err << "crrec: " << Printable(OneLine(e.what()), 2 * kQuoteLimit)
           << " (see crrec --help)\n";
    return kExitUsage;
  }
  Command::Bound* chosen = nullptr;
  for (auto& [parser, bound] : commands) {
    if (parser->parsed() || (!chosen && parser->get_name() == kDefaultCommand)) {
      chosen = &bound;
    }
  }

  const std::string file = chosen->file();
  try {
    for (const CLI::App* command : app.get_subcommands()) RefuseEmptyValues(*command);
    return chosen->run(io);
  } catch (const ToolError& e) {
    ToolError named(e.exitCode(), e.where().empty() ? file : e.where(), e.reason());
    io.err << named.Line() << "\n";
    return named.exitCode();
  } catch (const std::bad_alloc&) {
    io.err << ToolError(kExitUnsound, file, "out of memory").Line() << "\n";
    return kExitUnsound;
  } catch (const Cr_ErrnoException& e) {
    const std::string reason =
        std::string(e.what()) + " (status " + std::to_string(e.GetStatus()) + ")";
    io.err << ToolError(kExitUnsound, file, reason).Line() << "\n";
    return kExitUnsound;
  } catch (const std::exception& e) {
    io.err << ToolError(kExitUnsound, file, e.what()).Line() << "\n";
    return kExitUnsound;
  }
}

}  // namespace

int Run(const std::vector<std::string>& args, std::ostream& out, std::ostream& rawErr) {
  // Every line on stderr, whoever writes it, goes through one filter.
  PrintableLines errLines(rawErr);
  std::ostream err(&errLines);
  int code = RunCommand(args, Io{out, err, &rawErr == &std::cerr});
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
