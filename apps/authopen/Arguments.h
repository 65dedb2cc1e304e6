#pragma once

// The checks the privileged helper applies to what it is given before it
// touches the system: its arguments, the open flags and the resolved path.
// Kept apart from main() so that they can be fuzzed and tested without root.

#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace vellum::authopen {

struct Request {
  std::optional<int> flags;  // empty: "-o" was given something that is not a number
  std::string path;
};

// "-stdoutpipe PATH" or "-stdoutpipe -o FLAGS PATH" (arguments after the
// program name); empty on any other shape.
std::optional<Request> parseArguments(std::span<const std::string_view> arguments);

// Whether the helper may open with these flags. Everything that could create,
// truncate or reach something other than the device itself (O_CREAT,
// O_TRUNC, O_PATH, O_DIRECTORY, O_TMPFILE, ...) is refused.
bool flagsAllowed(std::optional<int> flags);

// The kernel name of a whole disk node directly under /dev ("/dev/sdb" gives
// "sdb"), or empty when the resolved path is anything else.
std::optional<std::string> diskName(std::string_view resolvedPath);

}  // namespace vellum::authopen
