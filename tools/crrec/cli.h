// The command line of crrec: parsing, dispatch to the commands, and the
// rule that every failure is one line "crrec: FILE: reason" with exit code 1
// (an invalid or unsound record) or 2 (a usage error).
#ifndef CRREC_CLI_H
#define CRREC_CLI_H

#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

namespace crrec {

// args[0] is the program name. Returns the exit code.
int Run(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);

// A number given on the command line: decimal, or hex after "0x". Throws
// ToolError (usage) naming the option.
uint64_t ParseNumber(const std::string& text, uint64_t max, const std::string& option);

// `s` on one line: line ends become spaces, and trailing spaces go.
std::string OneLine(std::string s);

}  // namespace crrec

#endif  // CRREC_CLI_H
