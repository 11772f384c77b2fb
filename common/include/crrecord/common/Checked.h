// Unsigned arithmetic that says when it wraps, for sizes and sums read from
// input: a caller tests the result instead of reasoning about bounds.
#ifndef CRRECORD_COMMON_CHECKED_H
#define CRRECORD_COMMON_CHECKED_H

#include <type_traits>

namespace crrecord {

// *out = a + b; false (and *out unspecified) when the sum does not fit T.
template <typename T>
constexpr bool CheckedAdd(T a, T b, T *out) {
  static_assert(std::is_unsigned<T>::value, "checked arithmetic is for sizes");
  return !__builtin_add_overflow(a, b, out);
}

// *out = a * b; false (and *out unspecified) when the product does not fit T.
template <typename T>
constexpr bool CheckedMul(T a, T b, T *out) {
  static_assert(std::is_unsigned<T>::value, "checked arithmetic is for sizes");
  return !__builtin_mul_overflow(a, b, out);
}

}  // namespace crrecord

#endif  // CRRECORD_COMMON_CHECKED_H
