#include "checks/CardImage.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <type_traits>

#include "bytes/AlignedBuffer.h"
#include "bytes/Checked.h"
#include "bytes/PositionedIo.h"
#include "bytes/UniqueFd.h"

namespace vellum {

namespace {

std::string describe(const ImageError::Case& errorCase) {
  return std::visit(
      [](const auto& c) -> std::string {
        using C = std::decay_t<decltype(c)>;
        if constexpr (std::is_same_v<C, ImageError::CannotCreate>) {
          return "Couldn't create the backup image " + c.path + ": " + errnoText(c.errnum) +
                 ". Choose a folder you can write to.";
        } else {
          return "Couldn't write the backup image " + c.path + ": " + errnoText(c.errnum) +
                 ". Check that the disk has enough free space.";
        }
      },
      errorCase);
}

}  // namespace

ImageError::ImageError(Case errorCase) : ErrorOf(errorCase, describe(errorCase)) {}

void CardImage::save(ByteSource& source, const std::string& destination,
                     const CancellationFlag& cancel, const ProgressCallback& progress) const {
  const double start = monotonicSeconds();
  // A zero chunk could never make progress.
  VL_PRECONDITION(chunkBytes >= 1);
  // Created (or emptied) before anything is read, so a folder that cannot be
  // written to fails at once.
  UniqueFd file(::open(destination.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
  if (!file) throw ImageError::cannotCreate(destination, errno);

  const std::uint64_t size = source.size();
  const std::uint64_t chunk = toUnsigned(chunkBytes);
  AlignedBuffer buffer(static_cast<std::size_t>(std::min(chunk, size)));
  for (std::uint64_t offset = 0; offset < size;) {
    if (cancel.isCancelled()) {
      ::unlink(destination.c_str());  // a failure here leaves the partial file; nothing more to do
      throw CheckError::cancelled();
    }
    const std::uint64_t n = std::min(size - offset, chunk);
    const std::size_t got =
        source.readInto(offset, buffer.span().first(static_cast<std::size_t>(n)));
    const TransferResult written = pwriteFully(file.get(), offset, buffer.span().first(got));
    if (written.errnum != 0) throw ImageError::writeFailed(destination, written.errnum);
    // A source is short only at its end.
    if (got < n) break;
    offset += n;
    if (progress) {
      const double elapsed = std::max(monotonicSeconds() - start, 0.001);
      progress(CheckProgress{CheckProgress::Phase::reading, offset, size,
                             static_cast<double>(offset) / elapsed});
    }
  }
}

}  // namespace vellum
