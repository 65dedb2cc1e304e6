#pragma once

// Programming faults (negative counts, zero block sizes, arithmetic overflow)
// are not user errors: they stop the program at once with the failed condition.
namespace vellum::detail {
[[noreturn]] void preconditionFailed(const char* condition, const char* file, int line) noexcept;
}  // namespace vellum::detail

#define VL_PRECONDITION(condition)                                          \
  do {                                                                      \
    if (!(condition)) [[unlikely]]                                          \
      ::vellum::detail::preconditionFailed(#condition, __FILE__, __LINE__); \
  } while (false)
