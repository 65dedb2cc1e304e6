#pragma once

#include <vector>

#include "carve/FormatCarver.h"

namespace vellum {

// The fixed, ordered list of format carvers. The order is the order in which
// signatures are tried at an offset, so it settles ties: PNG, JPEG, GIF, BMP,
// ISO base media, RIFF/IFF, TIFF, PDF, ZIP, OLE2, MP3.
class CarverRegistry {
 public:
  // One instance of each carver, in registry order. The carvers live for the
  // whole program.
  static const std::vector<const FormatCarver*>& all();
  // Those of all() whose categories share a member with the given set.
  static std::vector<const FormatCarver*> carvers(const FormatCategorySet& categories);
};

}  // namespace vellum
