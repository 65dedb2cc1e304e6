#pragma once

#include <cstdint>
#include <limits>

#include "bytes/Precondition.h"

// Arithmetic on byte counts and offsets that must not overflow; an overflow is
// a programming fault.
namespace vellum {

inline std::uint64_t checkedAdd(std::uint64_t a, std::uint64_t b) {
  std::uint64_t sum = 0;
  VL_PRECONDITION(!__builtin_add_overflow(a, b, &sum));
  return sum;
}

inline std::uint64_t checkedMul(std::uint64_t a, std::uint64_t b) {
  std::uint64_t product = 0;
  VL_PRECONDITION(!__builtin_mul_overflow(a, b, &product));
  return product;
}

inline std::int64_t checkedAdd(std::int64_t a, std::int64_t b) {
  std::int64_t sum = 0;
  VL_PRECONDITION(!__builtin_add_overflow(a, b, &sum));
  return sum;
}

// A non-negative signed count as an unsigned byte count.
inline std::uint64_t toUnsigned(std::int64_t count) {
  VL_PRECONDITION(count >= 0);
  return static_cast<std::uint64_t>(count);
}

// An unsigned byte count that must fit a signed count.
inline std::int64_t toSigned(std::uint64_t count) {
  VL_PRECONDITION(count <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()));
  return static_cast<std::int64_t>(count);
}

}  // namespace vellum
