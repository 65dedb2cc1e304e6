// Speed of the carving engine's scan over an image that holds no files.
// The image is written to /tmp once and read a first time so that it sits in
// the page cache; the scan then measures the engine, not the disk.
// Run the release build: vellum-carve-bench --benchmark_repetitions=5
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <filesystem>
#include <random>

#include "bytes/FileSource.h"
#include "bytes/PositionedIo.h"
#include "bytes/UniqueFd.h"
#include "carve/CarveEngine.h"

namespace vellum {
namespace {

constexpr std::uint64_t imageBytes = 512ULL << 20;
constexpr std::uint64_t chunkBytes = 16ULL << 20;

// Writes (once per process) an image of the given filler and warms the cache.
std::string makeImage(const std::string& name, bool randomFill) {
  const std::string path = "/tmp/vellum-carve-bench-" + name + ".img";
  std::vector<std::uint8_t> chunk(chunkBytes, 0);
  std::mt19937_64 random(42);
  {
    UniqueFd fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    for (std::uint64_t offset = 0; offset < imageBytes; offset += chunkBytes) {
      if (randomFill)
        for (auto& b : chunk)
          b = static_cast<std::uint8_t>(random());
      pwriteFully(fd.get(), offset, chunk);
    }
  }
  FileSource warm(path);
  for (std::uint64_t offset = 0; offset < imageBytes; offset += chunkBytes)
    warm.readInto(offset, chunk);
  return path;
}

void scan(benchmark::State& state, const std::string& path) {
  const std::filesystem::path out =
      std::filesystem::temp_directory_path() / "vellum-carve-bench-out";
  std::int64_t found = 0;
  for (auto _ : state) {
    FileSource source(path);
    CarveEngine::Config config{
        {FormatCategory::photos, FormatCategory::rawPhotos, FormatCategory::video,
         FormatCategory::audio, FormatCategory::documents, FormatCategory::archives},
        out,
        CarveEngine::OutputMode::catalog,
        chunkBytes,
        512,
        0.3};
    CarveEngine engine(source, config);
    found = static_cast<std::int64_t>(engine.run().files.size());
  }
  state.counters["files"] = static_cast<double>(found);
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(imageBytes));
  std::filesystem::remove_all(out);
}

void scanZeroImage(benchmark::State& state) {
  static const std::string path = makeImage("zero", false);
  scan(state, path);
}
BENCHMARK(scanZeroImage)->Unit(benchmark::kMillisecond)->UseRealTime();

void scanRandomImage(benchmark::State& state) {
  static const std::string path = makeImage("random", true);
  scan(state, path);
}
BENCHMARK(scanRandomImage)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
}  // namespace vellum

BENCHMARK_MAIN();
