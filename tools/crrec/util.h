// Small pieces every command of crrec uses: how a command fails, hex text,
// size arguments, whole-file reads and writes, and the capture of the
// library's log and trace lines that name the reason of a refusal.
#ifndef CRREC_UTIL_H
#define CRREC_UTIL_H

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

class Cr_ErrnoException;

namespace crrec {

// Exit codes: 0 success; 1 an invalid or unsound record (or a job that
// failed on its data); 2 a usage error (bad arguments, a missing input).
enum ExitCode : int { kExitOk = 0, kExitUnsound = 1, kExitUsage = 2 };

// A failure that ends a command, printed as one line "crrec: WHERE: reason".
class ToolError : public std::runtime_error {
 public:
  ToolError(int exitCode, std::string where, std::string reason);
  int exitCode() const { return exitCode_; }
  const std::string& where() const { return where_; }
  const std::string& reason() const { return reason_; }
  // The line to print, without a line end.
  std::string Line() const;

 private:
  int exitCode_;
  std::string where_;
  std::string reason_;
};

[[noreturn]] void Unsound(const std::string& where, const std::string& reason);
[[noreturn]] void Usage(const std::string& where, const std::string& reason);

// Lower-case hex of n bytes.
std::string HexEncode(const void* data, size_t n);
// Hex digits of either case, an even number of them; false otherwise.
bool HexDecode(const std::string& text, std::vector<unsigned char>* out);

// "65536", "64K", "4M", "1G" (powers of 1024; a trailing "iB" or "B" is
// allowed). Throws std::invalid_argument naming what is wrong.
uint64_t ParseSize(const std::string& text);
// "6.0 MiB", "512 bytes": for people, next to the exact number.
std::string HumanBytes(uint64_t n);
// "1 segment", "2 segments".
std::string Count(uint64_t n, const std::string& noun);
// "2023-11-14 22:13:20 UTC".
std::string UtcTime(uint32_t seconds);

// The whole file; "-" reads standard input. A file that cannot be opened is
// a usage error (the command line named it); one over `limit` bytes is
// refused as unsound with the reason "larger than ...".
std::vector<unsigned char> ReadFile(const std::string& path, uint64_t limit);
// A file being written ("-": standard output); failures exit 1.
class OutputFile {
 public:
  explicit OutputFile(const std::string& path);
  ~OutputFile();  // closes without reporting; call Close to learn of failures
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;
  void Write(const void* data, size_t n);
  void Close();

 private:
  std::string path_;
  int fd_;
};

// Writes the bytes to path ("-": standard output); failures exit 1.
void WriteFile(const std::string& path, const void* data, size_t n);

// Collects the library's log and trace lines (tracing on) while at least
// one scope lives, instead of letting them reach stderr, so that a refusal
// can be reported in one line with its reason. Scopes nest; the tool is
// single-threaded.
class MessageScope {
 public:
  MessageScope();
  ~MessageScope();
  MessageScope(const MessageScope&) = delete;
  MessageScope& operator=(const MessageScope&) = delete;

  // The lines logged or traced since this scope began.
  std::vector<std::string> Lines() const;

 private:
  size_t first_;
};

// One line for a library exception: its message, else the first line the
// library logged or traced meanwhile, else the status text; then the status
// number in parentheses.
std::string Describe(const Cr_ErrnoException& e, const MessageScope& scope);
// The same for a returned status.
std::string DescribeStatus(unsigned int status, const MessageScope& scope);

}  // namespace crrec

#endif  // CRREC_UTIL_H
