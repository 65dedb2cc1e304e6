#pragma once

#include <cstdint>
#include <string>

#include "bytes/ByteSource.h"
#include "bytes/Error.h"
#include "checks/CheckTypes.h"

namespace vellum {

// Why a backup image file could not be written.
namespace image_error {
struct CannotCreate {
  std::string path;
  int errnum;
  bool operator==(const CannotCreate&) const = default;
};
struct WriteFailed {
  std::string path;
  int errnum;
  bool operator==(const WriteFailed&) const = default;
};
struct AlreadyExists {
  std::string path;
  bool operator==(const AlreadyExists&) const = default;
};
struct NotARegularFile {
  std::string path;
  bool operator==(const NotARegularFile&) const = default;
};
}  // namespace image_error

class ImageError final : public ErrorOf<image_error::CannotCreate, image_error::WriteFailed,
                                        image_error::AlreadyExists, image_error::NotARegularFile> {
 public:
  using CannotCreate = image_error::CannotCreate;
  using WriteFailed = image_error::WriteFailed;
  using AlreadyExists = image_error::AlreadyExists;
  using NotARegularFile = image_error::NotARegularFile;
  explicit ImageError(Case errorCase);
  static ImageError cannotCreate(std::string path, int errnum) {
    return ImageError(CannotCreate{std::move(path), errnum});
  }
  static ImageError writeFailed(std::string path, int errnum) {
    return ImageError(WriteFailed{std::move(path), errnum});
  }
  static ImageError alreadyExists(std::string path) {
    return ImageError(AlreadyExists{std::move(path)});
  }
  static ImageError notARegularFile(std::string path) {
    return ImageError(NotARegularFile{std::move(path)});
  }
};

// Copies a whole source, byte for byte, into a raw image file.
struct CardImage {
  std::int64_t chunkBytes = 8'388'608;
  // Whether an existing regular file at the destination may be replaced.
  bool replaceExisting = false;

  // The image is written to a new file beside destination and renamed onto
  // it only once complete, so a stopped or failed backup never destroys an
  // earlier one and never leaves a partial file. The destination must be a
  // regular file (or not exist), never a device, a file under /dev or a
  // symlink to one. Throws ImageError before reading anything when the
  // destination is refused or the file cannot be created; a read error
  // (DeviceError) or write error (ImageError) removes the partial file and
  // passes through; cancellation throws CheckError::cancelled.
  void save(ByteSource& source, const std::string& destination, const CancellationFlag& cancel,
            const ProgressCallback& progress = {}) const;
};

}  // namespace vellum
