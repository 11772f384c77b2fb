// Helpers shared by the tests: capturing log lines, and writing expected
// bytes independently of the code under test.
#ifndef CRRECORD_TESTS_TEST_SUPPORT_H
#define CRRECORD_TESTS_TEST_SUPPORT_H

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "crrecord/platform/status.h"

namespace crtest {

struct LogLine {
  cr_log_level_t level;
  cr_status_t status;
  std::string text;
};

// Captures every log and trace line while it lives; restores the default
// sink and switches tracing off when it goes.
class LogCapture {
 public:
  explicit LogCapture(bool trace = false) {
    CRLogSetSink(&LogCapture::Sink, this);
    CRTraceSet(trace);
  }
  ~LogCapture() {
    CRLogSetSink(nullptr, nullptr);
    CRTraceSet(false);
  }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  const std::vector<LogLine>& lines() const { return lines_; }
  std::vector<std::string> texts() const {
    std::vector<std::string> out;
    for (const LogLine& l : lines_) out.push_back(l.text);
    return out;
  }

 private:
  static void Sink(cr_log_level_t level, cr_status_t status, const char* message, void* ctx) {
    static_cast<LogCapture*>(ctx)->lines_.push_back(LogLine{level, status, message});
  }
  std::vector<LogLine> lines_;
};

// Byte images written by hand, in the tests' own words.
class Bytes {
 public:
  Bytes& u8(uint8_t v) { b_.push_back(v); return *this; }
  Bytes& le16(uint16_t v) { return le(v, 2); }
  Bytes& le32(uint32_t v) { return le(v, 4); }
  Bytes& le64(uint64_t v) { return le(v, 8); }
  Bytes& be16(uint16_t v) { return be(v, 2); }
  Bytes& be32(uint32_t v) { return be(v, 4); }
  Bytes& be64(uint64_t v) { return be(v, 8); }
  Bytes& raw(const void* p, size_t n) {
    const uint8_t* q = static_cast<const uint8_t*>(p);
    b_.insert(b_.end(), q, q + n);
    return *this;
  }
  Bytes& str(const std::string& s) { return raw(s.data(), s.size()); }
  Bytes& zeros(size_t n) { b_.insert(b_.end(), n, 0); return *this; }
  const std::vector<uint8_t>& vec() const { return b_; }
  size_t size() const { return b_.size(); }
  const uint8_t* data() const { return b_.data(); }

 private:
  Bytes& le(uint64_t v, int n) {
    for (int i = 0; i < n; ++i) b_.push_back(static_cast<uint8_t>(v >> (8 * i)));
    return *this;
  }
  Bytes& be(uint64_t v, int n) {
    for (int i = n - 1; i >= 0; --i) b_.push_back(static_cast<uint8_t>(v >> (8 * i)));
    return *this;
  }
  std::vector<uint8_t> b_;
};

// A recognisable fingerprint: byte k is seed + k.
inline std::vector<uint8_t> PatternFP(uint8_t seed, size_t width) {
  std::vector<uint8_t> fp(width);
  for (size_t k = 0; k < width; ++k) fp[k] = static_cast<uint8_t>(seed + k);
  return fp;
}

// Reference Adler-32, written the slow way for checking the library.
inline uint32_t SlowAdler32(const void* data, size_t n) {
  const uint8_t* p = static_cast<const uint8_t*>(data);
  uint32_t a = 1, b = 0;
  for (size_t i = 0; i < n; ++i) {
    a = (a + p[i]) % 65521;
    b = (b + a) % 65521;
  }
  return (b << 16) | a;
}

inline std::string Hex(const void* data, size_t n) {
  static const char* digits = "0123456789abcdef";
  const uint8_t* p = static_cast<const uint8_t*>(data);
  std::string s;
  for (size_t i = 0; i < n; ++i) {
    s.push_back(digits[p[i] >> 4]);
    s.push_back(digits[p[i] & 15]);
  }
  return s;
}

}  // namespace crtest

#endif  // CRRECORD_TESTS_TEST_SUPPORT_H
