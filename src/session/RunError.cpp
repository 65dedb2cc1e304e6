#include "session/RunError.h"

#include <type_traits>

namespace vellum {
namespace {

std::string describe(const RunError::Case& errorCase) {
  return std::visit(
      [](const auto& c) -> std::string {
        using C = std::decay_t<decltype(c)>;
        if constexpr (std::is_same_v<C, RunError::Cancelled>) {
          return c.whatItLeft;
        } else if constexpr (std::is_same_v<C, RunError::NotConfirmed>) {
          return "Not confirmed. Nothing was written.";
        } else if constexpr (std::is_same_v<C, RunError::BackupFailed>) {
          return "The backup failed: " + c.reason + " Nothing was erased.";
        } else {
          return c.message;
        }
      },
      errorCase);
}

}  // namespace

RunError::RunError(Case errorCase) : ErrorOf(errorCase, describe(errorCase)) {}

}  // namespace vellum
