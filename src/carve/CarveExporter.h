#pragma once

#include <cstddef>
#include <filesystem>
#include <functional>
#include <vector>

#include "bytes/ByteSource.h"
#include "carve/CarveTypes.h"

namespace vellum {

// Copies files found by an earlier catalog run out of the source, after
// checking that each file's head still reads as it did when it was found.
// Existing files are never overwritten. Runs on the caller's thread.
class CarveExporter {
 public:
  struct Result {
    std::vector<CarvedFile> saved;    // outputPath set to where each was written
    std::vector<CarvedFile> changed;  // head no longer matches headDigest
    std::vector<CarvedFile> failed;   // could not be read or written
    std::filesystem::path folder;

    bool operator==(const Result&) const = default;
  };

  // progress(index, total) before each file; isCancelled() asked before each
  // file, and a true answer stops the export (later files land nowhere).
  // Throws only for the folder itself: std::filesystem::filesystem_error when
  // it cannot be created, CarveError::outputNotWritable when it is not
  // writable.
  static Result exportFiles(const std::vector<CarvedFile>& files, ByteSource& source,
                            const std::filesystem::path& folder,
                            const std::function<void(std::size_t, std::size_t)>& progress,
                            const std::function<bool()>& isCancelled);
};

}  // namespace vellum
