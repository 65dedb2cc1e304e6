#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "carve/CarveTypes.h"

namespace vellum {

class ReadContext;

struct IsoBmffKind {
  std::string_view ext;
  FormatCategory category;
  bool operator==(const IsoBmffKind&) const = default;
};

// The major brand as text: ASCII, trimmed, lower case; empty when the bytes
// are not ASCII.
std::string decodeBrand(std::span<const std::uint8_t> bytes);
// Extension and category for a decoded brand ("qt" is a mov video, ...).
IsoBmffKind isoBmffKind(std::string_view brand);
// Offset of the first plausible file-type box (size 12 to 4096 before
// "ftyp") that begins after `after` and before `before`, searched in 1 MiB
// pieces.
std::optional<std::uint64_t> isoBmffNextFileStart(std::uint64_t after, std::uint64_t before,
                                                  ReadContext& context);

}  // namespace vellum
