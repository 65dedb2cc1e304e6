#include "bytes/DeviceError.h"

#include <cerrno>
#include <type_traits>

namespace vellum {
namespace {

std::string describe(const DeviceError::Case& errorCase) {
  return std::visit(
      [](const auto& c) -> std::string {
        using C = std::decay_t<decltype(c)>;
        if constexpr (std::is_same_v<C, DeviceError::CannotOpen>) {
          return "Could not open " + c.path + ": " + errnoText(c.errnum);
        } else if constexpr (std::is_same_v<C, DeviceError::AuthorizationDenied>) {
          return "Authorization to read " + c.path + " was denied.";
        } else if constexpr (std::is_same_v<C, DeviceError::NotAFileOrDevice>) {
          return c.path + " is not a readable file or device.";
        } else if constexpr (std::is_same_v<C, DeviceError::InUse>) {
          return c.path + " is being written by another program, such as a running check. " +
                 "Wait until it has finished and try again.";
        } else {
          return "Read failed at offset " + std::to_string(c.offset) + ": " + errnoText(c.errnum);
        }
      },
      errorCase);
}

}  // namespace

DeviceError::DeviceError(Case errorCase) : ErrorOf(errorCase, describe(errorCase)) {}

bool DeviceError::isMediumFailure() const {
  const auto* failed = as<ReadFailed>();
  return failed != nullptr && !deviceIsGone(failed->errnum);
}

bool deviceIsGone(int errnum) {
  return errnum == ENODEV || errnum == ENXIO || errnum == ENOMEDIUM;
}

}  // namespace vellum
