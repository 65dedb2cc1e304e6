#pragma once

#include <cstdint>
#include <optional>
#include <span>

namespace vellum {

// Length in bytes of the MPEG audio frame whose header starts the given bytes
// (at least 3 are examined), or nothing when they are not a walkable header:
// no frame sync, a reserved version, layer or sample rate, or a free-format or
// bad bitrate.
std::optional<std::uint64_t> mp3FrameLength(std::span<const std::uint8_t> header);

}  // namespace vellum
