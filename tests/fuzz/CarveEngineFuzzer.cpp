// A whole scan over arbitrary bytes held in memory, every format enabled and
// a chunk small enough that files cross chunk edges. The scan must finish,
// and every file it reports must lie within the source, in ascending order.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "bytes/MemorySource.h"
#include "carve/CarveEngine.h"

namespace {

// One report folder per fuzzing process, removed when it exits.
struct OutputFolder {
  std::filesystem::path path =
      std::filesystem::temp_directory_path() / ("carve-engine-fuzz-" + std::to_string(::getpid()));
  ~OutputFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
  }
};

const std::filesystem::path& outputFolder() {
  static const OutputFolder folder;
  return folder.path;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;  // an empty source is refused before any scan
  vellum::MemorySource source(vellum::Bytes(data, data + size));
  vellum::CarveEngine::Config config;
  config.enabledCategories.insert(vellum::allFormatCategories.begin(),
                                  vellum::allFormatCategories.end());
  config.outputDirectory = outputFolder();
  config.chunkSize = 4096;
  config.stride = 512;
  vellum::CarveEngine engine(source, config);
  const vellum::CarveReport report = engine.run();
  std::uint64_t previous = 0;
  for (const vellum::CarvedFile& file : report.files) {
    if (file.start < previous || file.length == 0 || file.start + file.length > size) std::abort();
    previous = file.start;
  }
  return 0;
}
