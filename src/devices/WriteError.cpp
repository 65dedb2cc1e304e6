#include "devices/WriteError.h"

#include <type_traits>

namespace vellum {
namespace {

std::string describe(const WriteError::Case& errorCase) {
  return std::visit(
      [](const auto& c) -> std::string {
        using C = std::decay_t<decltype(c)>;
        if constexpr (std::is_same_v<C, WriteError::Unaligned>) {
          return "Write at " + std::to_string(c.offset) + " of " + std::to_string(c.count) +
                 " bytes isn't aligned to the " + std::to_string(c.blockSize) + "-byte block size.";
        } else if constexpr (std::is_same_v<C, WriteError::OutOfRange>) {
          return "Write at " + std::to_string(c.offset) + " of " + std::to_string(c.count) +
                 " bytes runs past the end of the device (" + std::to_string(c.size) + " bytes).";
        } else if constexpr (std::is_same_v<C, WriteError::WriteFailed>) {
          return "Write failed at offset " + std::to_string(c.offset) + ": " + errnoText(c.errnum);
        } else if constexpr (std::is_same_v<C, WriteError::CannotOpen>) {
          return "Could not open " + c.path + " for writing: " + errnoText(c.errnum);
        } else if constexpr (std::is_same_v<C, WriteError::AuthorizationDenied>) {
          return "Permission to write to " + c.path + " was denied.";
        } else if constexpr (std::is_same_v<C, WriteError::Removed>) {
          return c.path +
                 " was removed while it was being written. Insert it again and check "
                 "it before trusting what it holds.";
        } else if constexpr (std::is_same_v<C, WriteError::NeedsQuickCheck>) {
          return c.name +
                 " reports more than 4 TB. Vellum only erases drives that size after a Quick "
                 "Check shows the capacity is fake. Run a Quick Check first.";
        } else {
          return c.message;
        }
      },
      errorCase);
}

}  // namespace

WriteError::WriteError(Case errorCase) : ErrorOf(errorCase, describe(errorCase)) {}

}  // namespace vellum
