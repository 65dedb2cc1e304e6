#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <mutex>
#include <vector>

#include "carve/CarveTypes.h"
#include "carve/FormatCarver.h"
#include "carve/ReadContext.h"

namespace vellum {

// One scan of a source for files of the enabled formats. Walks the source in
// chunks, tests every stride-aligned offset against the signature table, lets
// the matching carver decide where the file ends, and writes the report (and
// in files mode the carved files) into the output directory.
//
// Memory stays at one chunk plus the carvers' bounded reads, whatever the
// source's size. One engine serves one run(); cancel() may come from any
// thread, everything else belongs to the thread that calls run().
class CarveEngine {
 public:
  enum class OutputMode { files, catalog };

  struct Config {
    FormatCategorySet enabledCategories;
    std::filesystem::path outputDirectory;  // created by the run if missing
    OutputMode output = OutputMode::catalog;
    std::uint64_t chunkSize = 0;  // bytes per source read; REQUIRES > 0
    std::uint64_t stride = 0;     // step between candidate offsets; REQUIRES > 0
    double progressInterval = 0;  // least seconds between two progress calls
  };

  struct SignatureEntry {
    std::uint8_t firstByte = 0;
    Bytes pattern;
    std::uint64_t offset = 0;  // the carver's signatureOffset
    std::size_t carverIndex = 0;
  };

  // REQUIRES: source outlives the engine.
  CarveEngine(ByteSource& source, Config config);
  // Uses the given carvers instead of the registry's (filtered the same way).
  CarveEngine(ByteSource& source, Config config, std::vector<const FormatCarver*> carvers);

  CarveEngine(const CarveEngine&) = delete;
  CarveEngine& operator=(const CarveEngine&) = delete;

  // Called on the scanning thread, at most once per progressInterval plus once
  // at the end. Set before run().
  std::function<void(const CarveProgress&)> onProgress;

  // Safe from any thread; the scan stops at its next check and run() returns
  // the files found so far with cancelled set.
  void cancel();

  // Throws CarveError (empty source, folder not writable), DeviceError (a
  // chunk could not be read) or std::filesystem::filesystem_error (folder or
  // carved file could not be created or written).
  CarveReport run();

  const std::vector<const FormatCarver*>& carvers() const noexcept { return carvers_; }
  const std::vector<SignatureEntry>& entries() const noexcept { return entries_; }

 private:
  bool isCancelled();
  // The first carver, in table order, whose signature stands at in-chunk
  // offset i and that reports a file of non-zero length.
  std::optional<CarveMatch> firstMatch(std::span<const std::uint8_t> chunk, std::uint64_t i,
                                       std::uint64_t start);
  // Writes the file (files mode) and digests its head.
  CarvedFile record(std::uint64_t start, const CarveMatch& match);
  std::filesystem::path write(std::uint64_t start, std::uint64_t length, const std::string& ext);

  ByteSource& source_;
  Config config_;
  ReadContext context_;
  std::vector<const FormatCarver*> carvers_;
  std::vector<SignatureEntry> entries_;
  std::mutex cancelLock_;
  bool cancelled_ = false;
};

// Creates dir with its parents and checks that files can be made in it.
// Throws std::filesystem::filesystem_error or CarveError::outputNotWritable.
void prepareOutputDirectory(const std::filesystem::path& dir);

// "f" + start / 512 + "." + ext: carved files are named by their sector.
std::string carvedFileName(std::uint64_t start, std::string_view ext);

// The extension in upper case, the sub-folder carved files of it go to.
std::string carvedFolderName(std::string_view ext);
// Whether ext is a plain extension: 1 to 10 lower-case letters and digits.
// Names for other extensions use "bin".
bool isSafeExtension(std::string_view ext);

}  // namespace vellum
