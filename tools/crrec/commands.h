// The commands of crrec, one table: a command is its entry there plus the
// functions the entry names. The command line (cli.cpp) walks the table to
// add the options, run the command chosen and name the file of its errors.
#ifndef CRREC_COMMANDS_H
#define CRREC_COMMANDS_H

#include <functional>
#include <iosfwd>
#include <memory>
#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace crrec {

// Where a command writes. `errIsStderr`: a progress bar may go to the
// terminal.
struct Io {
  std::ostream& out;
  std::ostream& err;
  bool errIsStderr;
};

struct Command {
  // One parse of the command line: the command's arguments, filled in by
  // the parser, and what reads them.
  struct Bound {
    std::function<int(const Io&)> run;
    // The file that errors name when they name no other.
    std::function<std::string()> file;
  };

  // `addOptions` binds the options to a fresh `Args`; `run` may still refuse
  // a combination of them (a usage error), before it reads any file.
  template <typename Args>
  Command(const char* name, const char* help, void (*addOptions)(CLI::App&, Args&),
          int (*run)(const Args&, const Io&), std::string (*file)(const Args&))
      : name(name), help(help), bind([=](CLI::App& cmd) {
          auto args = std::make_shared<Args>();
          addOptions(cmd, *args);
          return Bound{[=](const Io& io) { return run(*args, io); },
                       [=] { return file(*args); }};
        }) {}

  const char* name;
  const char* help;
  // Adds the options to `cmd`, the command's own parser.
  std::function<Bound(CLI::App&)> bind;
};

// Every command, in the order of the help text.
const std::vector<Command>& Commands();

// What runs without a command.
constexpr const char* kDefaultCommand = "demo";

}  // namespace crrec

#endif  // CRREC_COMMANDS_H
