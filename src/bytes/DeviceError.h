#pragma once

#include <cstdint>
#include <string>

#include "bytes/Error.h"

namespace vellum {

namespace device_error {
struct CannotOpen {
  std::string path;
  int errnum;
  bool operator==(const CannotOpen&) const = default;
};
struct AuthorizationDenied {
  std::string path;
  bool operator==(const AuthorizationDenied&) const = default;
};
struct NotAFileOrDevice {
  std::string path;
  bool operator==(const NotAFileOrDevice&) const = default;
};
struct ReadFailed {
  std::uint64_t offset;
  int errnum;
  bool operator==(const ReadFailed&) const = default;
};
struct InUse {
  std::string path;
  bool operator==(const InUse&) const = default;
};
}  // namespace device_error

// Why a source could not be opened or read.
class DeviceError final
    : public ErrorOf<device_error::CannotOpen, device_error::AuthorizationDenied,
                     device_error::NotAFileOrDevice, device_error::ReadFailed,
                     device_error::InUse> {
 public:
  using CannotOpen = device_error::CannotOpen;
  using AuthorizationDenied = device_error::AuthorizationDenied;
  using NotAFileOrDevice = device_error::NotAFileOrDevice;
  using ReadFailed = device_error::ReadFailed;
  using InUse = device_error::InUse;

  explicit DeviceError(Case errorCase);

  static DeviceError cannotOpen(std::string path, int errnum) {
    return DeviceError(CannotOpen{std::move(path), errnum});
  }
  static DeviceError authorizationDenied(std::string path) {
    return DeviceError(AuthorizationDenied{std::move(path)});
  }
  static DeviceError notAFileOrDevice(std::string path) {
    return DeviceError(NotAFileOrDevice{std::move(path)});
  }
  static DeviceError readFailed(std::uint64_t offset, int errnum) {
    return DeviceError(ReadFailed{offset, errnum});
  }
  // Another program (such as a running check) is writing the disk.
  static DeviceError inUse(std::string path) { return DeviceError(InUse{std::move(path)}); }

  // A read that failed at a place on the medium (counted into a result),
  // rather than because the device itself went away or never opened.
  bool isMediumFailure() const;
};

// True when an errno means the device itself has gone away (unplugged, card
// pulled out) rather than that the medium failed at that place.
bool deviceIsGone(int errnum);

}  // namespace vellum
