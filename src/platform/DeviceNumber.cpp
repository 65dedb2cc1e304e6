#include "platform/DeviceNumber.h"

#include <sys/sysmacros.h>

#include <charconv>

namespace vellum {
namespace {

std::string_view trimmed(std::string_view text) {
  const auto first = text.find_first_not_of(" \t\r\n");
  if (first == std::string_view::npos) return {};
  const auto last = text.find_last_not_of(" \t\r\n");
  return text.substr(first, last - first + 1);
}

bool parseUnsigned(std::string_view text, unsigned& value) {
  if (text.empty()) return false;
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  return ec == std::errc() && end == text.data() + text.size();
}

}  // namespace

std::string DeviceNumber::toString() const {
  return std::to_string(major) + ":" + std::to_string(minor);
}

std::optional<DeviceNumber> DeviceNumber::parse(std::string_view text) {
  text = trimmed(text);
  const auto colon = text.find(':');
  if (colon == std::string_view::npos) return std::nullopt;
  DeviceNumber number;
  if (!parseUnsigned(text.substr(0, colon), number.major) ||
      !parseUnsigned(text.substr(colon + 1), number.minor)) {
    return std::nullopt;
  }
  return number;
}

DeviceNumber DeviceNumber::fromDev(unsigned long long dev) {
  return {::major(dev), ::minor(dev)};
}

}  // namespace vellum
