#include "bytes/MemorySource.h"

#include <algorithm>
#include <cstring>

namespace vellum {

std::string MemorySource::descriptionForReport() const {
  return "memory(" + std::to_string(data_.size()) + " bytes)";
}

std::size_t MemorySource::readInto(std::uint64_t offset, std::span<std::uint8_t> out) {
  if (offset >= data_.size()) return 0;
  const std::size_t n = std::min<std::size_t>(out.size(), data_.size() - offset);
  if (n > 0) std::memcpy(out.data(), data_.data() + offset, n);
  return n;
}

}  // namespace vellum
