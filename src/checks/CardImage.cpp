#include "checks/CardImage.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
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
        } else if constexpr (std::is_same_v<C, ImageError::WriteFailed>) {
          return "Couldn't write the backup image " + c.path + ": " + errnoText(c.errnum) +
                 ". The partial image was removed. Check that the disk has enough free space.";
        } else if constexpr (std::is_same_v<C, ImageError::AlreadyExists>) {
          return c.path + " already exists. Choose another name; nothing was replaced.";
        } else {
          return c.path + " is a device or special file, not an image file. Save the image " +
                 "as a file in a folder.";
        }
      },
      errorCase);
}

}  // namespace

ImageError::ImageError(Case errorCase) : ErrorOf(errorCase, describe(errorCase)) {}

namespace {

// The image being written: a new file beside the destination, removed unless
// it was put in place.
class PartialImage {
 public:
  explicit PartialImage(const std::filesystem::path& destination)
      : path_(destination.string() + ".partial-XXXXXX") {
    std::string name = path_;
    fd_ = UniqueFd(::mkostemp(name.data(), O_CLOEXEC));
    if (!fd_) throw ImageError::cannotCreate(destination.string(), errno);
    path_ = name;
    ::fchmod(fd_.get(), 0644);
  }
  ~PartialImage() {
    if (!path_.empty()) ::unlink(path_.c_str());
  }
  PartialImage(const PartialImage&) = delete;
  PartialImage& operator=(const PartialImage&) = delete;

  int fd() const { return fd_.get(); }

  // Moves the finished image onto destination; replacing only when allowed.
  void putInPlace(const std::filesystem::path& destination, bool replace) {
    if (::fsync(fd_.get()) != 0) throw ImageError::writeFailed(destination.string(), errno);
    const unsigned flags = replace ? 0 : RENAME_NOREPLACE;
    if (::renameat2(AT_FDCWD, path_.c_str(), AT_FDCWD, destination.c_str(), flags) != 0) {
      if (errno == EEXIST) throw ImageError::alreadyExists(destination.string());
      throw ImageError::cannotCreate(destination.string(), errno);
    }
    path_.clear();
  }

 private:
  std::string path_;
  UniqueFd fd_;
};

// Refuses destinations that are not (or would not be) a regular file: a
// device, anything under /dev, or a symlink that leads to one.
void checkDestination(const std::filesystem::path& destination, bool replace) {
  std::error_code error;
  const std::filesystem::path resolved = std::filesystem::weakly_canonical(destination, error);
  const std::string text = (error ? destination : resolved).string();
  if (text == "/dev" || text.starts_with("/dev/")) {
    throw ImageError::notARegularFile(destination.string());
  }
  struct stat status {};
  if (::stat(destination.c_str(), &status) == 0) {
    if (!S_ISREG(status.st_mode)) throw ImageError::notARegularFile(destination.string());
    if (!replace) throw ImageError::alreadyExists(destination.string());
  } else if (::lstat(destination.c_str(), &status) == 0) {
    // A dangling symlink: following it would create a file elsewhere.
    throw ImageError::notARegularFile(destination.string());
  }
}

}  // namespace

void CardImage::save(ByteSource& source, const std::string& destination,
                     const CancellationFlag& cancel, const ProgressCallback& progress) const {
  const double start = monotonicSeconds();
  // A zero chunk could never make progress.
  VL_PRECONDITION(chunkBytes >= 1);
  // Checked and created before anything is read, so a refused destination or
  // a folder that cannot be written to fails at once.
  checkDestination(destination, replaceExisting);
  PartialImage image(destination);

  const std::uint64_t size = source.size();
  const std::uint64_t chunk = toUnsigned(chunkBytes);
  AlignedBuffer buffer(static_cast<std::size_t>(std::min(chunk, size)));
  for (std::uint64_t offset = 0; offset < size;) {
    cancel.throwIfCancelled();
    const std::uint64_t n = std::min(size - offset, chunk);
    const std::size_t got =
        source.readInto(offset, buffer.span().first(static_cast<std::size_t>(n)));
    const TransferResult written = pwriteFully(image.fd(), offset, buffer.span().first(got));
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
  image.putInPlace(destination, replaceExisting);
}

}  // namespace vellum
