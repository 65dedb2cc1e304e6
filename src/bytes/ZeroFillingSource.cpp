#include "bytes/ZeroFillingSource.h"

#include <algorithm>

#include "bytes/DeviceError.h"
#include "bytes/Precondition.h"

namespace vellum {

ZeroFillingSource::ZeroFillingSource(ByteSource& inner, std::uint64_t sectorSize)
    : inner_(inner), sectorSize_(sectorSize) {
  VL_PRECONDITION(sectorSize_ >= 1);
}

std::size_t ZeroFillingSource::readInto(std::uint64_t offset, std::span<std::uint8_t> out) {
  try {
    return inner_.readInto(offset, out);
  } catch (const DeviceError& error) {
    if (!error.isMediumFailure()) throw;
  }
  if (offset >= size()) return 0;
  const auto want = static_cast<std::size_t>(std::min<std::uint64_t>(out.size(), size() - offset));
  for (std::size_t done = 0; done < want;) {
    // Pieces end on sector boundaries so each failing sector is counted once.
    const std::uint64_t position = offset + done;
    const auto piece = static_cast<std::size_t>(
        std::min<std::uint64_t>(sectorSize_ - position % sectorSize_, want - done));
    const std::span<std::uint8_t> target = out.subspan(done, piece);
    bool read = false;
    try {
      read = inner_.readInto(position, target) == piece;
    } catch (const DeviceError& error) {
      if (!error.isMediumFailure()) throw;
    }
    if (!read) {
      std::fill(target.begin(), target.end(), std::uint8_t{0});
      ++badReads_;
      if (onUnreadable) onUnreadable(position - position % sectorSize_);
    }
    done += piece;
  }
  return want;
}

}  // namespace vellum
