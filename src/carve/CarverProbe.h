#pragma once

#include <optional>
#include <span>
#include <vector>

#include "bytes/ByteSource.h"
#include "carve/CarveTypes.h"
#include "carve/FormatCarver.h"

namespace vellum {

// Runs carvers outside a scan: on one file (the identify mode) or on raw
// bytes (the entry point for fuzzing). Neither needs an output folder.

// The carver's verdict on the bytes as a file starting at offset 0, read as
// the engine reads it (an error or a zero length is no match). A carver
// must never crash, hang or read without bound on any input; this is the
// function a fuzzer drives.
std::optional<CarveMatch> carveBytes(const FormatCarver& carver,
                                     std::span<const std::uint8_t> data);

struct Identification {
  const FormatCarver* carver = nullptr;
  CarveMatch match;
};

// What the registry makes of a file that begins at `start` of source: the
// first carver, in registry order, whose signature stands there and that
// reports a match. Throws the source's DeviceError for the signature read.
std::optional<Identification> identify(ByteSource& source, std::uint64_t start = 0);

}  // namespace vellum
