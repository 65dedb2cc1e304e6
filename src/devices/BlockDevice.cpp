#include "devices/BlockDevice.h"

#include "bytes/Checked.h"
#include "devices/WriteError.h"

namespace vellum {

void BlockDevice::checkWrite(std::uint64_t offset, std::int64_t count) const {
  const std::int64_t block = blockSize();
  VL_PRECONDITION(block >= 1);
  const std::uint64_t length = toUnsigned(count);
  const auto unit = static_cast<std::uint64_t>(block);
  if (offset % unit != 0 || length % unit != 0) throw WriteError::unaligned(offset, count, block);
  if (checkedAdd(offset, length) > size()) throw WriteError::outOfRange(offset, count, size());
}

}  // namespace vellum
