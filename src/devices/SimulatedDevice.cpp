#include "devices/SimulatedDevice.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstring>

#include "bytes/Checked.h"
#include "bytes/DeviceError.h"

namespace vellum {

SimulatedDevice::SimulatedDevice(std::uint64_t size, std::optional<std::uint64_t> realCapacity,
                                 Overflow overflow, std::int64_t blockSize)
    : size_(size),
      overflow_(overflow),
      blockSize_(blockSize),
      realCapacity_(realCapacity.value_or(size)),
      storage_(static_cast<std::size_t>(realCapacity_)) {
  VL_PRECONDITION(blockSize_ >= 1);
}

std::string SimulatedDevice::descriptionForReport() const {
  return "simulated(" + std::to_string(size_) + " bytes, real " + std::to_string(realCapacity_) +
         ")";
}

SimulatedDevice::Location SimulatedDevice::locate(std::uint64_t pos, std::uint64_t size,
                                                  std::uint64_t realCapacity, Overflow overflow) {
  VL_PRECONDITION(pos < size);
  const std::uint64_t toEnd = size - pos;
  if (pos < realCapacity) return {pos, std::min(toEnd, realCapacity - pos)};
  switch (overflow) {
    case Overflow::discard:
      return {std::nullopt, toEnd};
    case Overflow::wrap: {
      VL_PRECONDITION(realCapacity > 0);
      const std::uint64_t physical = pos % realCapacity;
      return {physical, std::min(toEnd, realCapacity - physical)};
    }
    case Overflow::combined: {
      VL_PRECONDITION(realCapacity > 0);
      const std::uint64_t wrapAt = std::bit_ceil(realCapacity);
      const std::uint64_t physical = pos % wrapAt;
      if (physical >= realCapacity) return {std::nullopt, std::min(toEnd, wrapAt - physical)};
      return {physical, std::min(toEnd, realCapacity - physical)};
    }
  }
  VL_PRECONDITION(false);
}

// Walks the request in runs that stay within one address-decoding regime and
// stop before the next unreadable block, so a healthy card is copied with a
// few large memcpy calls rather than one per block.
std::size_t SimulatedDevice::readInto(std::uint64_t offset, std::span<std::uint8_t> out) {
  if (offset >= size_) return 0;
  const auto want = static_cast<std::size_t>(std::min<std::uint64_t>(out.size(), size_ - offset));
  const auto block = static_cast<std::uint64_t>(blockSize_);
  std::size_t collected = 0;
  while (collected < want) {
    const std::uint64_t pos = offset + collected;
    std::size_t run = want - collected;
    if (!unreadableBlocks_.empty()) {
      const auto bad = unreadableBlocks_.lower_bound(pos / block);
      if (bad != unreadableBlocks_.end()) {
        if (*bad == pos / block) throw DeviceError::readFailed(pos, EIO);
        run = static_cast<std::size_t>(std::min<std::uint64_t>(run, *bad * block - pos));
      }
    }
    std::uint8_t* target = out.data() + collected;
    const Location where = locate(pos);
    if (!where.physical) {
      run = static_cast<std::size_t>(std::min<std::uint64_t>(run, where.length));
      std::memset(target, 0, run);
    } else {
      const std::uint64_t physical = *where.physical;
      // A piece never wraps inside one block: the rest of a block that
      // straddles the end of storage reads as zeros.
      const std::uint64_t untilStorageEnd = where.length;
      if (untilStorageEnd < run) {
        const std::uint64_t storageEnd = pos + untilStorageEnd;
        const std::uint64_t blockEnd = (storageEnd + block - 1) / block * block;
        run = static_cast<std::size_t>(std::min<std::uint64_t>(blockEnd, pos + run) - pos);
      }
      const auto copied = static_cast<std::size_t>(std::min<std::uint64_t>(run, untilStorageEnd));
      std::memcpy(target, storage_.data() + physical, copied);
      std::memset(target + copied, 0, run - copied);
    }
    collected += run;
  }
  return want;
}

void SimulatedDevice::write(std::uint64_t offset, std::span<const std::uint8_t> data) {
  checkWrite(offset, toSigned(data.size()));
  std::size_t written = 0;
  while (written < data.size()) {
    const std::uint64_t pos = offset + written;
    const Location where = locate(pos);
    // discard: the card silently loses what lies past its real capacity.
    if (!where.physical && overflow_ == Overflow::discard) return;
    const auto n =
        static_cast<std::size_t>(std::min<std::uint64_t>(where.length, data.size() - written));
    if (where.physical) std::memcpy(storage_.data() + *where.physical, data.data() + written, n);
    written += n;
  }
}

}  // namespace vellum
