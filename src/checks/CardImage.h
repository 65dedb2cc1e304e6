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
}  // namespace image_error

class ImageError final : public ErrorOf<image_error::CannotCreate, image_error::WriteFailed> {
 public:
  using CannotCreate = image_error::CannotCreate;
  using WriteFailed = image_error::WriteFailed;
  explicit ImageError(Case errorCase);
  static ImageError cannotCreate(std::string path, int errnum) {
    return ImageError(CannotCreate{std::move(path), errnum});
  }
  static ImageError writeFailed(std::string path, int errnum) {
    return ImageError(WriteFailed{std::move(path), errnum});
  }
};

// Copies a whole source, byte for byte, into a raw image file.
struct CardImage {
  std::int64_t chunkBytes = 8'388'608;

  // Replaces destination. Throws ImageError before reading anything when the
  // file cannot be created; a read error (DeviceError) or write error
  // (ImageError) leaves the partial file; cancellation deletes it and throws
  // CheckError::cancelled.
  void save(ByteSource& source, const std::string& destination, const CancellationFlag& cancel,
            const ProgressCallback& progress = {}) const;
};

}  // namespace vellum
