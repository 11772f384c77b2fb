// Errors, hex, sizes, files and the capture of the library's messages.
#include "util.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include <crrecord/platform/status.h>

namespace crrec {

ToolError::ToolError(int exitCode, std::string where, std::string reason)
    : std::runtime_error(reason), exitCode_(exitCode), where_(std::move(where)),
      reason_(std::move(reason)) {}

std::string ToolError::Line() const {
  return where_.empty() ? "crrec: " + reason_ : "crrec: " + where_ + ": " + reason_;
}

void Unsound(const std::string& where, const std::string& reason) {
  throw ToolError(kExitUnsound, where, reason);
}

void Usage(const std::string& where, const std::string& reason) {
  throw ToolError(kExitUsage, where, reason);
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
  if (digits == 0) throw std::invalid_argument("\"" + text + "\" is not a size");
  std::string unit = text.substr(digits);
  uint64_t scale = 1;
  if (!unit.empty()) {
    switch (unit[0]) {
      case 'k': case 'K': scale = uint64_t{1} << 10; break;
      case 'm': case 'M': scale = uint64_t{1} << 20; break;
      case 'g': case 'G': scale = uint64_t{1} << 30; break;
      case 'b': case 'B': scale = 1; break;
      default: throw std::invalid_argument("\"" + text + "\" has an unknown unit");
    }
    std::string rest = unit.substr(1);
    bool ok = rest.empty() || rest == "iB" || rest == "B" || rest == "b" || rest == "ib";
    if (unit[0] == 'b' || unit[0] == 'B') ok = rest.empty();
    if (!ok) throw std::invalid_argument("\"" + text + "\" has an unknown unit");
  }
  uint64_t value = 0;
  for (size_t i = 0; i < digits; ++i) {
    uint64_t d = static_cast<uint64_t>(text[i] - '0');
    if (value > (UINT64_MAX - d) / 10) throw std::invalid_argument("\"" + text + "\" is too large");
    value = value * 10 + d;
  }
  if (value > UINT64_MAX / scale) throw std::invalid_argument("\"" + text + "\" is too large");
  return value * scale;
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

std::vector<unsigned char> ReadFile(const std::string& path, uint64_t limit) {
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
  }
  return data;
}

OutputFile::OutputFile(const std::string& path)
    : path_(path),
      fd_(path == "-" ? 1 : ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666)) {
  if (fd_ < 0) Unsound(path, "cannot create: " + ErrnoText(errno));
}

OutputFile::~OutputFile() {
  if (fd_ > 1) ::close(fd_);
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
}

void WriteFile(const std::string& path, const void* data, size_t n) {
  OutputFile out(path);
  out.Write(data, n);
  out.Close();
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
