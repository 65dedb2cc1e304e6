#pragma once

#include <optional>
#include <span>
#include <vector>

#include "bytes/ByteSource.h"
#include "carve/CarveTypes.h"
#include "carve/FormatCarver.h"

namespace vellum {

// Runs a carver outside a scan, on raw bytes (the entry point for fuzzing):
// no output folder is needed.

// The carver's verdict on the bytes as a file starting at offset 0, read as
// the engine reads it (an error or a zero length is no match). A carver
// must never crash, hang or read without bound on any input; this is the
// function a fuzzer drives.
std::optional<CarveMatch> carveBytes(const FormatCarver& carver,
                                     std::span<const std::uint8_t> data);

}  // namespace vellum
