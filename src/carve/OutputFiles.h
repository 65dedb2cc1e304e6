#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <span>
#include <string_view>

namespace vellum::carve_detail {

// Writes text to path, replacing any earlier file. Throws
// std::filesystem::filesystem_error.
void writeTextFile(const std::filesystem::path& path, std::string_view text);

// Fills a piece of the output starting at the given offset into the file;
// returns how many bytes it stored (0 means the source ended).
using PieceReader = std::function<std::size_t(std::uint64_t, std::span<std::uint8_t>)>;

enum class CopyOutcome { complete, sourceEnded };

// Creates path (exclusive when `exclusive`, else truncating) and copies length
// bytes into it in pieces of at most 4 MiB. Throws
// std::filesystem::filesystem_error when the file cannot be created or
// written; the reader's exceptions pass through. The file is closed on every
// path.
CopyOutcome copyToFile(const std::filesystem::path& path, std::uint64_t length, bool exclusive,
                       const PieceReader& read);

}  // namespace vellum::carve_detail
