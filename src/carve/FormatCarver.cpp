#include "carve/FormatCarver.h"

namespace vellum {

Bytes signatureBytes(std::string_view text) {
  return Bytes(text.begin(), text.end());
}

}  // namespace vellum
