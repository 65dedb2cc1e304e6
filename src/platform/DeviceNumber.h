#pragma once

#include <compare>
#include <optional>
#include <string>
#include <string_view>

namespace vellum {

// A block device's major:minor number, as sysfs `dev` files and mountinfo
// print it.
struct DeviceNumber {
  unsigned major = 0;
  unsigned minor = 0;

  auto operator<=>(const DeviceNumber&) const = default;

  // "8:16"
  std::string toString() const;
  // Parses "8:16" (surrounding white space allowed); absent otherwise.
  static std::optional<DeviceNumber> parse(std::string_view text);
  // From a dev_t such as stat's st_dev or st_rdev.
  static DeviceNumber fromDev(unsigned long long dev);
};

}  // namespace vellum
