#pragma once

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "bytes/ByteSource.h"
#include "carve/CarveTypes.h"

namespace vellum {

class ReadContext;

// One file format the engine can carve. Each carver is a constant object (see
// formats/Carvers.h) listed once in CarverRegistry.
//
// carve() is given the absolute offset of a candidate file's first byte (the
// signature stands at start + signatureOffset()) and reads only through the
// context. It keeps no state between calls and must be safe to call on any
// bytes: every walk has a hard limit on how far it reads. It returns nothing
// when the bytes are not a file of its format; it may let the source's
// DeviceError through, which the engine treats like nothing.
class FormatCarver {
 public:
  virtual ~FormatCarver() = default;

  // Short lower-case name: "png", "jpeg", "isobmff", ...
  virtual std::string_view id() const = 0;
  // Every category the carver can report.
  virtual FormatCategorySet categories() const = 0;
  // Magics that mark a possible file; each non-empty, tried in this order.
  virtual std::vector<Bytes> signatures() const = 0;
  // Where the signature stands relative to the file's first byte.
  virtual std::uint64_t signatureOffset() const { return 0; }

  virtual std::optional<CarveMatch> carve(std::uint64_t start, ReadContext& context) const = 0;

 protected:
  FormatCarver() = default;
  FormatCarver(const FormatCarver&) = default;
  FormatCarver& operator=(const FormatCarver&) = default;
};

// Builds a signature from text such as "GIF89a" (no terminating zero).
Bytes signatureBytes(std::string_view text);

}  // namespace vellum
