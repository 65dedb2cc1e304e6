#pragma once

#include <cstdint>
#include <string>

namespace vellum {

// A byte count in decimal units with at most one decimal, as file managers
// show sizes: "512 bytes", "4 KB", "268.4 MB", "31.9 GB", "4 TB".
std::string formatByteCount(std::uint64_t bytes);

}  // namespace vellum
