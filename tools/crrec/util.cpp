// Errors, hex, sizes, files and the capture of the library's messages.
#include "util.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include <crrecord/common/Checked.h>
#include <crrecord/common/FingerprintWidth.h>
#include <crrecord/platform/fingerprint.h>
#include <crrecord/platform/status.h>

namespace crrec {

ToolError::ToolError(int exitCode, std::string where, std::string reason)
    : std::runtime_error(reason), exitCode_(exitCode), where_(std::move(where)),
      reason_(std::move(reason)) {}

std::string ToolError::Line() const {
  // The reason may quote a piece of the input itself; twice the room of a
  // quote leaves room for the words around it.
  const std::string reason = Printable(reason_, 2 * kQuoteLimit);
  return where_.empty() ? "crrec: " + reason : "crrec: " + Printable(where_) + ": " + reason;
}

void Unsound(const std::string& where, const std::string& reason) {
  throw ToolError(kExitUnsound, where, reason);
}

void Usage(const std::string& where, const std::string& reason) {
  throw ToolError(kExitUsage, where, reason);
}

std::string FingerprintText(const unsigned char* fp, unsigned char fptype) {
  crfp_digest_t digest{};
  std::memcpy(digest.digest, fp, crrecord::FingerprintWidth(fptype));
  char text[65];
  if (CRFPDigestToString_r(&digest, fptype, text, sizeof text) == nullptr) {
    return HexEncode(fp, crrecord::FingerprintWidth(fptype));
  }
  return text;
}

std::string HexEncode(const void* data, size_t n) {
  static const char kDigits[] = "0123456789abcdef";
  const unsigned char* p = static_cast<const unsigned char*>(data);
  std::string s(2 * n, '0');
  for (size_t i = 0; i < n; ++i) {
    s[2 * i] = kDigits[p[i] >> 4];
    s[2 * i + 1] = kDigits[p[i] & 15];
  }
  return s;
}

namespace {

// The length of the UTF-8 sequence of a printable character at p (n bytes
// left), or 0 for a byte to escape: a control character (C0, DEL, C1), a
// character that reorders the text around it (the bidirectional embeddings,
// overrides and isolates), or a byte that does not start well-formed UTF-8.
size_t PrintableLength(const unsigned char* p, size_t n) {
  const unsigned char c = p[0];
  if (c < 0x20 || c == 0x7f) return 0;
  if (c < 0x80) return 1;
  size_t len = 0;
  unsigned char lo = 0x80, hi = 0xbf;  // the second byte's range
  if (c >= 0xc2 && c <= 0xdf) {
    len = 2;
    if (c == 0xc2) lo = 0xa0;  // U+0080 to U+009F are the C1 controls
  } else if (c >= 0xe0 && c <= 0xef) {
    len = 3;
    if (c == 0xe0) lo = 0xa0;  // no overlong forms
    if (c == 0xed) hi = 0x9f;  // no surrogates
  } else if (c >= 0xf0 && c <= 0xf4) {
    len = 4;
    if (c == 0xf0) lo = 0x90;
    if (c == 0xf4) hi = 0x8f;  // nothing above U+10FFFF
  } else {
    return 0;
  }
  if (n < len || p[1] < lo || p[1] > hi) return 0;
  for (size_t i = 2; i < len; ++i) {
    if (p[i] < 0x80 || p[i] > 0xbf) return 0;
  }
  // U+202A to U+202E and U+2066 to U+2069.
  if (c == 0xe2 && ((p[1] == 0x80 && p[2] >= 0xaa && p[2] <= 0xae) ||
                    (p[1] == 0x81 && p[2] >= 0xa6 && p[2] <= 0xa9))) {
    return 0;
  }
  return len;
}

}  // namespace

std::string Printable(const std::string& text, size_t limit) {
  static const char kDigits[] = "0123456789abcdef";
  const unsigned char* p = reinterpret_cast<const unsigned char*>(text.data());
  const size_t n = text.size();
  std::string s;
  s.reserve(std::min(n, limit) + 3);
  for (size_t i = 0; i < n;) {
    std::string piece;
    const size_t len = PrintableLength(p + i, n - i);
    if (len > 0) {
      piece.assign(text, i, len);
    } else if (p[i] == '\n' || p[i] == '\t' || p[i] == '\r') {
      piece = p[i] == '\n' ? "\\n" : p[i] == '\t' ? "\\t" : "\\r";
    } else {
      piece = {'\\', 'x', kDigits[p[i] >> 4], kDigits[p[i] & 15]};
    }
    // The limit counts printed bytes: escaping cannot make a line longer.
    if (s.size() + piece.size() > limit) return s + "...";
    s += piece;
    i += len > 0 ? len : 1;
  }
  return s;
}

std::string Quoted(const std::string& text) { return "\"" + Printable(text) + "\""; }

namespace {

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

bool HexDecode(const std::string& text, std::vector<unsigned char>* out) {
  if (text.size() % 2 != 0) return false;
  std::vector<unsigned char> bytes(text.size() / 2);
  for (size_t i = 0; i < bytes.size(); ++i) {
    int hi = HexValue(text[2 * i]), lo = HexValue(text[2 * i + 1]);
    if (hi < 0 || lo < 0) return false;
    bytes[i] = static_cast<unsigned char>(hi << 4 | lo);
  }
  out->swap(bytes);
  return true;
}

uint64_t ParseSize(const std::string& text) {
  size_t digits = 0;
  while (digits < text.size() && text[digits] >= '0' && text[digits] <= '9') ++digits;
  if (digits == 0) throw std::invalid_argument(Quoted(text) + " is not a size");
  std::string unit = text.substr(digits);
  uint64_t scale = 1;
  if (!unit.empty()) {
    switch (unit[0]) {
      case 'k': case 'K': scale = uint64_t{1} << 10; break;
      case 'm': case 'M': scale = uint64_t{1} << 20; break;
      case 'g': case 'G': scale = uint64_t{1} << 30; break;
      case 'b': case 'B': scale = 1; break;
      default: throw std::invalid_argument(Quoted(text) + " has an unknown unit");
    }
    std::string rest = unit.substr(1);
    bool ok = rest.empty() || rest == "iB" || rest == "B" || rest == "b" || rest == "ib";
    if (unit[0] == 'b' || unit[0] == 'B') ok = rest.empty();
    if (!ok) throw std::invalid_argument(Quoted(text) + " has an unknown unit");
  }
  uint64_t value = 0;
  for (size_t i = 0; i < digits; ++i) {
    const uint64_t d = static_cast<uint64_t>(text[i] - '0');
    if (!crrecord::CheckedMul(value, uint64_t{10}, &value) ||
        !crrecord::CheckedAdd(value, d, &value)) {
      throw std::invalid_argument(Quoted(text) + " is too large");
    }
  }
  if (!crrecord::CheckedMul(value, scale, &value)) {
    throw std::invalid_argument(Quoted(text) + " is too large");
  }
  return value;
}

std::string HumanBytes(uint64_t n) {
  static const char* kUnits[] = {"KiB", "MiB", "GiB", "TiB"};
  if (n < 1024) return std::to_string(n) + (n == 1 ? " byte" : " bytes");
  double v = static_cast<double>(n) / 1024;
  int unit = 0;
  while (v >= 1024 && unit < 3) {
    v /= 1024;
    ++unit;
  }
  char buf[32];
  std::snprintf(buf, sizeof buf, "%.1f %s", v, kUnits[unit]);
  return buf;
}

std::string Count(uint64_t n, const std::string& noun) {
  return std::to_string(n) + " " + noun + (n == 1 ? "" : "s");
}

std::string UtcTime(uint32_t seconds) {
  std::time_t t = static_cast<std::time_t>(seconds);
  std::tm tm{};
  gmtime_r(&t, &tm);
  char buf[40];
  std::strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S UTC", &tm);
  return buf;
}

namespace {

// Closes a descriptor that this code opened.
struct Fd {
  int fd;
  bool owned;
  ~Fd() {
    if (owned && fd >= 0) ::close(fd);
  }
};

std::string ErrnoText(int err) {
  char buf[256];
  return strerror_r(err, buf, sizeof buf);
}

}  // namespace

std::vector<unsigned char> ReadFile(
    const std::string& path, uint64_t limit,
    const std::function<uint64_t(const std::vector<unsigned char>&)>& bound) {
  Fd in{path == "-" ? 0 : ::open(path.c_str(), O_RDONLY | O_CLOEXEC), path != "-"};
  if (in.fd < 0) Usage(path, "cannot open: " + ErrnoText(errno));
  struct stat st {};
  if (::fstat(in.fd, &st) == 0 && S_ISDIR(st.st_mode)) Usage(path, "is a directory");
  std::vector<unsigned char> data;
  if (S_ISREG(st.st_mode)) {
    if (static_cast<uint64_t>(st.st_size) > limit) {
      Unsound(path, std::to_string(st.st_size) + " bytes, larger than any record (" +
                        std::to_string(limit) + " bytes at most)");
    }
    data.reserve(static_cast<size_t>(st.st_size));
  }
  unsigned char block[65536];
  for (;;) {
    ssize_t got = ::read(in.fd, block, sizeof block);
    if (got < 0) {
      if (errno == EINTR) continue;
      Unsound(path, "cannot read: " + ErrnoText(errno));
    }
    if (got == 0) break;
    if (data.size() + static_cast<size_t>(got) > limit) {
      Unsound(path, "larger than any record (" + std::to_string(limit) + " bytes at most)");
    }
    data.insert(data.end(), block, block + got);
    if (bound && !S_ISREG(st.st_mode)) {
      const uint64_t most = bound(data);
      if (data.size() > most) {
        Unsound(path, "more bytes than any record that begins with these bytes (" +
                          std::to_string(most) + " at most)");
      }
    }
  }
  return data;
}

namespace {

// "dir/.name.crrec-PID-N", created exclusively next to `path`, so that the
// rename that gives it its name stays within one file system.
int CreateTemporary(const std::string& path, mode_t mode, std::string* temp) {
  const size_t slash = path.rfind('/');
  const std::string dir = slash == std::string::npos ? "" : path.substr(0, slash + 1);
  const std::string base = slash == std::string::npos ? path : path.substr(slash + 1);
  static unsigned serial = 0;
  for (int attempt = 0; attempt < 100; ++attempt) {
    *temp = dir + "." + base + ".crrec-" + std::to_string(::getpid()) + "-" +
            std::to_string(serial++);
    const int fd = ::open(temp->c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
    if (fd >= 0 || errno != EEXIST) return fd;
  }
  return -1;
}

}  // namespace

OutputFile::OutputFile(const std::string& path) : path_(path), fd_(-1) {
  if (path == "-") {
    fd_ = 1;
    return;
  }
  if (path.empty()) Usage("", "an empty output file name");
  struct stat st {};
  const bool exists = ::lstat(path.c_str(), &st) == 0;
  if (exists && !S_ISREG(st.st_mode)) {
    if (S_ISDIR(st.st_mode)) Usage(path, "is a directory");
    fd_ = ::open(path.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
  } else if (exists && ::access(path.c_str(), W_OK) != 0) {
    // Renaming over a file that may not be written would bypass its mode.
    fd_ = -1;
  } else {
    // A new file gets the mode the umask leaves; a replaced one keeps its own.
    fd_ = CreateTemporary(path, exists ? st.st_mode & 07777 : 0666, &temp_);
    if (fd_ >= 0 && exists) ::fchmod(fd_, st.st_mode & 07777);
    if (fd_ < 0) temp_.clear();
    if (fd_ < 0 && exists && errno == EACCES) {
      // A writable file in a directory that is not: only in place.
      fd_ = ::open(path.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
    }
  }
  if (fd_ < 0) Usage(path, "cannot create: " + ErrnoText(errno));
}

OutputFile::~OutputFile() {
  if (fd_ > 1) ::close(fd_);
  if (!temp_.empty()) ::unlink(temp_.c_str());
}

void OutputFile::Write(const void* data, size_t n) {
  const unsigned char* p = static_cast<const unsigned char*>(data);
  while (n > 0) {
    ssize_t put = ::write(fd_, p, n);
    if (put < 0) {
      if (errno == EINTR) continue;
      Unsound(path_, "cannot write: " + ErrnoText(errno));
    }
    p += put;
    n -= static_cast<size_t>(put);
  }
}

void OutputFile::Close() {
  if (fd_ <= 1) return;
  const int fd = fd_;
  fd_ = -1;
  if (::close(fd) != 0) Unsound(path_, "cannot write: " + ErrnoText(errno));
  if (!temp_.empty()) {
    if (::rename(temp_.c_str(), path_.c_str()) != 0) {
      Unsound(path_, "cannot write: " + ErrnoText(errno));
    }
    temp_.clear();
  }
}

void WriteFile(const std::string& path, const void* data, size_t n) {
  OutputFile out(path);
  out.Write(data, n);
  out.Close();
}

FdOutput::FdOutput(int fd) : fd_(fd) { setp(buffer_, buffer_ + sizeof buffer_); }

FdOutput::~FdOutput() { Drain(); }

bool FdOutput::Drain() {
  const char* p = pbase();
  size_t n = static_cast<size_t>(pptr() - pbase());
  setp(buffer_, buffer_ + sizeof buffer_);
  // After a failure the rest is dropped: the output is incomplete anyway.
  while (n > 0 && error_ == 0) {
    const ssize_t put = ::write(fd_, p, n);
    if (put < 0 && errno == EINTR) continue;
    if (put <= 0) {
      error_ = put < 0 ? errno : EIO;
      break;
    }
    p += put;
    n -= static_cast<size_t>(put);
  }
  return error_ == 0;
}

FdOutput::int_type FdOutput::overflow(int_type c) {
  if (!Drain()) return traits_type::eof();
  if (!traits_type::eq_int_type(c, traits_type::eof())) {
    *pptr() = traits_type::to_char_type(c);
    pbump(1);
  }
  return traits_type::not_eof(c);
}

int FdOutput::sync() { return Drain() ? 0 : -1; }

std::string OutputFailure(const std::ostream& out) {
  const FdOutput* fd = dynamic_cast<const FdOutput*>(out.rdbuf());
  return fd != nullptr && fd->error() != 0 ? ErrnoText(fd->error()) : "write error";
}

PrintableLines::~PrintableLines() {
  if (!line_.empty()) Emit(false);
}

PrintableLines::int_type PrintableLines::overflow(int_type c) {
  if (traits_type::eq_int_type(c, traits_type::eof())) return traits_type::not_eof(c);
  const char ch = traits_type::to_char_type(c);
  if (ch == '\n') {
    Emit(true);
  } else if (line_.size() <= kLineLimit) {
    // What lies beyond the limit is cut anyway: a huge line costs no memory.
    line_ += ch;
  }
  return c;
}

int PrintableLines::sync() {
  if (!line_.empty()) Emit(false);
  to_.flush();
  return to_ ? 0 : -1;
}

void PrintableLines::Emit(bool lineEnd) {
  to_ << Printable(line_, kLineLimit);
  if (lineEnd) to_ << '\n';
  line_.clear();
}

namespace {

std::vector<std::string>& CapturedLines() {
  static std::vector<std::string> lines;
  return lines;
}
int g_scopes = 0;

void CaptureSink(cr_log_level_t, cr_status_t, const char* message, void*) {
  CapturedLines().emplace_back(message != nullptr ? message : "");
}

}  // namespace

MessageScope::MessageScope() : first_(CapturedLines().size()) {
  if (g_scopes++ == 0) {
    CRLogSetSink(&CaptureSink, nullptr);
    CRTraceSet(true);
  }
}

MessageScope::~MessageScope() {
  if (--g_scopes == 0) {
    CRLogSetSink(nullptr, nullptr);
    CRTraceSet(false);
    CapturedLines().clear();
  }
}

std::vector<std::string> MessageScope::Lines() const {
  const std::vector<std::string>& all = CapturedLines();
  return std::vector<std::string>(all.begin() + static_cast<std::ptrdiff_t>(first_), all.end());
}

std::string DescribeStatus(unsigned int status, const MessageScope& scope) {
  std::vector<std::string> lines = scope.Lines();
  std::string text = lines.empty() ? CRStatusToStringA(status) : lines.front();
  return text + " (status " + std::to_string(status) + ")";
}

std::string Describe(const Cr_ErrnoException& e, const MessageScope& scope) {
  std::string what = e.what();
  if (what.empty()) return DescribeStatus(e.GetStatus(), scope);
  return what + " (status " + std::to_string(e.GetStatus()) + ")";
}

}  // namespace crrec
