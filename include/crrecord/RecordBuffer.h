/// @file
/// RecordBuffer: the record buffer that a DORecord or an SORecord holds, with
/// its allocated size, its buffer mode and whether the object owns it. Not an
/// API of its own: the record classes hold one as a private member, and their
/// headers name it only for that.
///
/// Memory rules, written here once: a record buffer comes from malloc or
/// realloc and goes back with free, and only an owned buffer goes back. A
/// caller's buffer stays the caller's until it is handed over (mode 2) or
/// replaced by a copy of the object's own. The buffer is freed when the
/// holder goes, so a constructor that throws halfway releases it without a
/// line of its own.
#ifndef CRRECORD_RECORDBUFFER_H
#define CRRECORD_RECORDBUFFER_H

#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace crrecord {

/// What a record object may do when its buffer must grow.
enum : unsigned int {
  kBufferModeFixed = 0,   ///< nothing: growth is refused
  kBufferModeCopy = 1,    ///< copy the borrowed buffer into one of its own
  kBufferModeRealloc = 2  ///< the buffer is the object's; realloc it
};

/// The record size field is 32 bits wide: no record can say it is larger.
constexpr uint64_t kLargestRecordSize = 0xFFFFFFFFu;

/// An owned or borrowed record buffer starting with a @p Header. Move-only.
template <class Header>
class RecordBuffer {
 public:
  /// No buffer.
  RecordBuffer() = default;
  /// A caller's buffer of @p size bytes in @p mode; mode 2 hands it over.
  RecordBuffer(Header* buffer, uint64_t size, unsigned int mode)
      : p_(buffer), size_(size), mode_(mode), owned_(mode == kBufferModeRealloc) {}
  /// Takes @p other's buffer over; @p other is left empty.
  RecordBuffer(RecordBuffer&& other) noexcept { *this = static_cast<RecordBuffer&&>(other); }
  /// Lets go of its own buffer, then takes @p other's over.
  RecordBuffer& operator=(RecordBuffer&& other) noexcept {
    if (this != &other) {
      Reset();
      p_ = other.p_;
      size_ = other.size_;
      mode_ = other.mode_;
      owned_ = other.owned_;
      other.p_ = nullptr;
      other.owned_ = false;
    }
    return *this;
  }
  RecordBuffer(const RecordBuffer&) = delete;
  RecordBuffer& operator=(const RecordBuffer&) = delete;
  ~RecordBuffer() { Reset(); }

  /// An owned buffer of @p size bytes, the first @p zeroed of them zero;
  /// empty (test with get()) when memory runs out.
  static RecordBuffer Allocate(uint64_t size, uint64_t zeroed) {
    RecordBuffer b(static_cast<Header*>(std::malloc(size)), size, kBufferModeRealloc);
    if (b.p_ != nullptr) std::memset(b.p_, 0, zeroed);
    return b;
  }
  /// Takes over a block that malloc gave, as an owned buffer in mode 2.
  static RecordBuffer Adopt(Header* block, uint64_t size) {
    return RecordBuffer(block, size, kBufferModeRealloc);
  }
  /// Gives a block that malloc gave back, as an owner does.
  static void Release(Header* block) { std::free(block); }

  /// The buffer; null when there is none.
  Header* get() const { return p_; }
  /// The header at the buffer's start.
  Header* operator->() const { return p_; }
  /// The buffer, so that the holder passes it where a header pointer goes.
  operator Header*() const { return p_; }  // NOLINT(google-explicit-constructor)
  /// The buffer's bytes.
  unsigned char* bytes() const { return reinterpret_cast<unsigned char*>(p_); }
  /// The allocated size in bytes.
  uint64_t size() const { return size_; }
  /// The buffer mode (kBufferModeFixed, kBufferModeCopy, kBufferModeRealloc).
  unsigned int mode() const { return mode_; }
  /// Whether the holder frees the buffer.
  bool owned() const { return owned_; }

  /// Changes the mode; mode 2 takes the buffer over.
  void SetMode(unsigned int mode) {
    mode_ = mode;
    owned_ = owned_ || mode == kBufferModeRealloc;
  }

  /// Grows to @p size bytes keeping the first @p keep: an owned buffer with
  /// realloc, a borrowed one into a copy of the object's own, which leaves
  /// the caller's untouched. The mode stays. False, and nothing changed,
  /// when memory runs out.
  bool Grow(uint64_t size, uint64_t keep) {
    if (owned_) {
      void* grown = std::realloc(p_, size);
      if (grown == nullptr) return false;
      p_ = static_cast<Header*>(grown);
    } else {
      void* copy = std::malloc(size);
      if (copy == nullptr) return false;
      std::memcpy(copy, p_, keep);
      p_ = static_cast<Header*>(copy);
      owned_ = true;
    }
    size_ = size;
    return true;
  }

  /// Lets go of the buffer, freeing it when owned.
  void Reset() {
    if (owned_) std::free(p_);
    p_ = nullptr;
    size_ = 0;
    owned_ = false;
  }

 private:
  Header* p_ = nullptr;
  uint64_t size_ = 0;
  unsigned int mode_ = kBufferModeRealloc;
  bool owned_ = false;
};

}  // namespace crrecord

#endif  // CRRECORD_RECORDBUFFER_H
