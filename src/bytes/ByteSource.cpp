#include "bytes/ByteSource.h"

#include <algorithm>

#include "bytes/Checked.h"

namespace vellum {

Bytes ByteSource::read(std::uint64_t offset, std::int64_t count) {
  const std::uint64_t wanted = toUnsigned(count);
  const std::uint64_t total = size();
  if (offset >= total) return {};
  Bytes buffer(static_cast<std::size_t>(std::min(wanted, total - offset)));
  buffer.resize(readInto(offset, buffer));
  return buffer;
}

}  // namespace vellum
