#include "Arguments.h"

#include <fcntl.h>

#include <climits>

namespace vellum::authopen {
namespace {

constexpr int kAllowedFlags = O_ACCMODE | O_EXCL | O_CLOEXEC | O_DIRECT | O_SYNC | O_DSYNC |
                              O_NOFOLLOW | O_NONBLOCK | O_NOATIME | O_LARGEFILE;

std::optional<int> parseFlags(std::string_view text) {
  if (text.empty() || text.size() > 10) return std::nullopt;
  long long value = 0;
  for (const char c : text) {
    if (c < '0' || c > '9') return std::nullopt;
    value = value * 10 + (c - '0');
  }
  if (value > INT_MAX) return std::nullopt;
  return static_cast<int>(value);
}

bool isKernelName(std::string_view name) {
  if (name.empty() || name.size() > 64 || name == "." || name == "..") return false;
  for (const char c : name) {
    const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                    c == '_' || c == '-' || c == '.';
    if (!ok) return false;
  }
  return true;
}

}  // namespace

std::optional<Request> parseArguments(std::span<const std::string_view> arguments) {
  if (arguments.size() == 2 && arguments[0] == "-stdoutpipe") {
    return Request{O_RDONLY, std::string(arguments[1])};
  }
  if (arguments.size() == 4 && arguments[0] == "-stdoutpipe" && arguments[1] == "-o") {
    return Request{parseFlags(arguments[2]), std::string(arguments[3])};
  }
  return std::nullopt;
}

bool flagsAllowed(std::optional<int> flags) {
  return flags && (*flags & ~kAllowedFlags) == 0 && (*flags & O_ACCMODE) != O_ACCMODE;
}

std::optional<std::string> diskName(std::string_view resolvedPath) {
  constexpr std::string_view kDev = "/dev/";
  if (!resolvedPath.starts_with(kDev)) return std::nullopt;
  const std::string_view name = resolvedPath.substr(kDev.size());
  if (!isKernelName(name)) return std::nullopt;
  return std::string(name);
}

}  // namespace vellum::authopen
