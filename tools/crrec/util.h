// Small pieces every command of crrec uses: how a command fails, hex text,
// size arguments, whole-file reads and writes, and the capture of the
// library's log and trace lines that name the reason of a refusal.
#ifndef CRREC_UTIL_H
#define CRREC_UTIL_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <ostream>
#include <stdexcept>
#include <streambuf>
#include <string>
#include <vector>

class Cr_ErrnoException;

namespace crrec {

// Exit codes: 0 success; 1 an invalid or unsound record, a job that failed
// on its data, or a failure to write standard output or a file; 2 a usage
// error (bad arguments, a missing input, an output that cannot be created).
enum ExitCode : int { kExitOk = 0, kExitUnsound = 1, kExitUsage = 2 };

// How much of a text from outside (a file name, an option value, a quoted
// piece of input) an error line repeats.
constexpr size_t kQuoteLimit = 200;

// `text` fit for a terminal line: control characters escaped (\n, \t,
// \x1b, ...; bytes that are not UTF-8 as \xNN), and cut after `limit` bytes
// of the text with "..." appended.
std::string Printable(const std::string& text, size_t limit = kQuoteLimit);
// Printable(text) in double quotes.
std::string Quoted(const std::string& text);

// A failure that ends a command, printed as one line "crrec: WHERE: reason".
class ToolError : public std::runtime_error {
 public:
  ToolError(int exitCode, std::string where, std::string reason);
  int exitCode() const { return exitCode_; }
  const std::string& where() const { return where_; }
  const std::string& reason() const { return reason_; }
  // The line to print, without a line end: printable, and bounded in length
  // whatever the place and the reason hold.
  std::string Line() const;

 private:
  int exitCode_;
  std::string where_;
  std::string reason_;
};

[[noreturn]] void Unsound(const std::string& where, const std::string& reason);
[[noreturn]] void Usage(const std::string& where, const std::string& reason);

// The text of a record's fingerprint of type fptype: the fingerprint
// library's, or plain hex for a type it has no text for.
std::string FingerprintText(const unsigned char* fp, unsigned char fptype);
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
// A stream (a pipe, a device) has no size to check in advance: `bound`, when
// given, says after each block how many bytes the input may have in view of
// what has been read, and more than that is refused before it is kept.
std::vector<unsigned char> ReadFile(
    const std::string& path, uint64_t limit,
    const std::function<uint64_t(const std::vector<unsigned char>&)>& bound = nullptr);
// A file being written ("-": standard output). It is opened when
// constructed, so that an output that cannot be created is refused (usage,
// exit 2) before any long work; writing fails with exit 1.
//
// A regular file (or a new one) is written under a temporary name in its
// directory and renamed over `path` by Close: a job that fails, or is
// interrupted by an exception, leaves no half-written or empty output, and
// an existing file keeps its content until then (and its mode; other hard
// links to it keep the old content). Standard output and targets that are
// not regular files (a device such as /dev/null, a FIFO, a symbolic link),
// and a writable file in a directory that is not, are written in place.
class OutputFile {
 public:
  explicit OutputFile(const std::string& path);
  ~OutputFile();  // removes the temporary file unless Close succeeded
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;
  const std::string& path() const { return path_; }
  void Write(const void* data, size_t n);
  // Closes the file and gives it its name.
  void Close();

 private:
  std::string path_;
  std::string temp_;  // empty when writing in place
  int fd_;
};

// Writes the bytes to path ("-": standard output); failures exit 1.
void WriteFile(const std::string& path, const void* data, size_t n);

// A buffered stream buffer over a descriptor (crrec's standard output) that
// keeps the reason of its first failed write, for the one line that says
// why the output is incomplete.
class FdOutput : public std::streambuf {
 public:
  explicit FdOutput(int fd);
  ~FdOutput() override;  // writes what is buffered, if it can
  // The errno of the first failed write; 0 while every write succeeded.
  int error() const { return error_; }

 protected:
  int_type overflow(int_type c) override;
  int sync() override;

 private:
  bool Drain();
  int fd_;
  int error_ = 0;
  char buffer_[1 << 16];
};

// Why writing `out` failed: the saved errno of an FdOutput, else "write error".
std::string OutputFailure(const std::ostream& out);

// The stream buffer every line of crrec's stderr passes through: it makes
// each line printable (Printable, kLineLimit bytes at most) before passing it
// on, so that no note, warning or error line, whoever wrote it, can carry a
// raw control character or an unbounded piece of the input to a terminal.
class PrintableLines : public std::streambuf {
 public:
  static constexpr size_t kLineLimit = 1024;
  explicit PrintableLines(std::ostream& to) : to_(to) {}
  ~PrintableLines() override;

 protected:
  int_type overflow(int_type c) override;
  int sync() override;

 private:
  void Emit(bool lineEnd);
  std::ostream& to_;
  std::string line_;
};

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
