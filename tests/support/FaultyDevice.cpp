#include "support/FaultyDevice.h"

#include <algorithm>

namespace vellum::testing {

std::size_t FaultyDevice::readInto(std::uint64_t offset, std::span<std::uint8_t> out) {
  ++reads;
  if (beforeRead) beforeRead(offset, out.size());
  std::size_t n = inner_.readInto(offset, out);
  if (shortRead) n = std::min(n, shortRead(offset, n));
  if (afterRead) afterRead(offset, out.first(n));
  return n;
}

void FaultyDevice::write(std::uint64_t offset, std::span<const std::uint8_t> data) {
  ++writes;
  checkWrite(offset, static_cast<std::int64_t>(data.size()));
  if (beforeWrite) beforeWrite(offset, data.size());
  inner_.write(offset, data);
  if (afterWrite) afterWrite(offset, data.size());
}

void FaultyDevice::synchronize() {
  ++synchronizations;
  if (beforeSynchronize) beforeSynchronize();
  inner_.synchronize();
}

}  // namespace vellum::testing
