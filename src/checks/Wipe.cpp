#include "checks/Wipe.h"

#include <sys/random.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <set>
#include <system_error>
#include <vector>

#include "bytes/AlignedBuffer.h"
#include "bytes/Checked.h"
#include "bytes/DeviceError.h"
#include "bytes/ZeroFillingSource.h"
#include "carve/CarveEngine.h"
#include "devices/WriteError.h"

namespace vellum {
namespace {

constexpr std::uint64_t kCarveChunk = 16'777'216;
constexpr std::uint64_t kCarveStride = 512;
constexpr double kCarveProgressInterval = 0.3;

// The bytes a wipe writes at [offset, offset + out.size()). For random data
// this is the SplitMix64 stream started from seed XOR offset, whole words
// little-endian; a trailing remainder under 8 bytes stays 0. The same
// (offset, length, seed) always gives the same bytes, so the verify pass
// regenerates them instead of keeping them.
void fill(Wipe::Method method, std::uint64_t offset, std::uint64_t seed,
          std::span<std::uint8_t> out) {
  if (method == Wipe::Method::zeros) {
    std::memset(out.data(), 0, out.size());
    return;
  }
  const std::uint64_t state = seed ^ offset;
  const std::size_t words = out.size() / 8;
  std::uint64_t z0 = state;
  for (std::size_t k = 0; k < words; ++k) {
    z0 += 0x9E37'79B9'7F4A'7C15;
    std::uint64_t z = z0;
    z = (z ^ (z >> 30)) * 0xBF58'476D'1CE4'E5B9;
    z = (z ^ (z >> 27)) * 0x94D0'49BB'1331'11EB;
    z ^= z >> 31;
    if constexpr (std::endian::native == std::endian::big) z = __builtin_bswap64(z);
    std::memcpy(out.data() + k * 8, &z, 8);
  }
  std::memset(out.data() + words * 8, 0, out.size() - words * 8);
}

double megabytesPerSecond(double bytes, double elapsed) {
  return elapsed > 0 ? bytes / elapsed / 1e6 : 0;
}

// An RFC 4122 version 4 UUID in lower-case text, from the system's random
// source.
std::string randomUuidText() {
  std::array<std::uint8_t, 16> bytes{};
  std::size_t got = 0;
  while (got < bytes.size()) {
    const ssize_t n = ::getrandom(bytes.data() + got, bytes.size() - got, 0);
    // getrandom only fails when interrupted before the pool is ready.
    if (n > 0) got += static_cast<std::size_t>(n);
  }
  bytes[6] = static_cast<std::uint8_t>((bytes[6] & 0x0F) | 0x40);  // version 4
  bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3F) | 0x80);  // RFC 4122 variant
  static constexpr char kHex[] = "0123456789abcdef";
  std::string text;
  text.reserve(36);
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) text.push_back('-');
    text.push_back(kHex[bytes[i] >> 4]);
    text.push_back(kHex[bytes[i] & 0x0F]);
  }
  return text;
}

// The folder the carving pass writes into, removed with everything in it
// when the owner goes away (a failure to remove it is ignored).
class ScratchFolder {
 public:
  ScratchFolder() {
    std::error_code error;
    const std::filesystem::path temp = std::filesystem::temp_directory_path(error);
    if (error) refuse(std::getenv("TMPDIR") ? std::getenv("TMPDIR") : "/tmp", error.value());
    path_ = temp / ("vellum-wipe-verify-" + randomUuidText());
    // Owner-only: files carved from a card that was not erased hold the
    // user's data.
    if (::mkdir(path_.c_str(), 0700) != 0) refuse(path_, errno);
  }
  ~ScratchFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  ScratchFolder(const ScratchFolder&) = delete;
  ScratchFolder& operator=(const ScratchFolder&) = delete;

  const std::filesystem::path& path() const noexcept { return path_; }

 private:
  [[noreturn]] static void refuse(const std::filesystem::path& path, int errnum) {
    throw WriteError::refused("Couldn't create the folder " + path.string() +
                              " for the search for recoverable files (" + errnoText(errnum) +
                              "). Nothing was erased. Point TMPDIR at a folder you can write to "
                              "and try again.");
  }

  std::filesystem::path path_;
};

// Hands the device to the recovery engine and ties the engine's own
// cancellation to the run's flag: once the flag is set, the engine is told to
// stop and reads return nothing, so a slow card is not read any further.
class CancellableSource final : public ByteSource {
 public:
  CancellableSource(ByteSource& inner, const CancellationFlag& cancel)
      : inner_(inner), cancel_(cancel) {}

  void attach(CarveEngine& engine) noexcept { engine_ = &engine; }

  std::uint64_t size() const override { return inner_.size(); }
  std::int64_t badReads() const override { return inner_.badReads(); }
  std::string descriptionForReport() const override { return inner_.descriptionForReport(); }
  std::size_t readInto(std::uint64_t offset, std::span<std::uint8_t> out) override {
    if (stopIfCancelled()) return 0;
    return inner_.readInto(offset, out);
  }

  bool stopIfCancelled() {
    if (!cancel_.isCancelled()) return false;
    if (engine_ != nullptr) engine_->cancel();
    return true;
  }

 private:
  ByteSource& inner_;
  const CancellationFlag& cancel_;
  CarveEngine* engine_ = nullptr;
};

// The engine reads the card through a source that reads unreadable sectors
// as zeros and counts them, so a failing card still gets its verdict.
std::int64_t countFilesLeft(ByteSource& device, const ScratchFolder& folder,
                            const CancellationFlag& cancel, const ProgressCallback& progress) {
  CancellableSource source(device, cancel);
  CarveEngine::Config config;
  config.enabledCategories =
      FormatCategorySet(allFormatCategories.begin(), allFormatCategories.end());
  config.outputDirectory = folder.path();
  config.output = CarveEngine::OutputMode::files;
  config.chunkSize = kCarveChunk;
  config.stride = kCarveStride;
  config.progressInterval = kCarveProgressInterval;
  CarveEngine engine(source, config);
  source.attach(engine);
  engine.onProgress = [&](const CarveProgress& carve) {
    source.stopIfCancelled();
    if (progress) {
      progress(CheckProgress{CheckProgress::Phase::scanningForFiles, carve.bytesScanned,
                             carve.totalBytes, std::nullopt});
    }
  };
  CarveReport report;
  try {
    report = engine.run();
  } catch (...) {
    // Reads cut short by a stop can make the engine fail; the stop is what
    // the user asked for.
    cancel.throwIfCancelled();
    throw;
  }
  cancel.throwIfCancelled();
  return static_cast<std::int64_t>(report.files.size());
}

}  // namespace

Wipe::Result Wipe::run(BlockDevice& device, const CancellationFlag& cancel,
                       const ProgressCallback& progress) const {
  Result result;
  result.method = method;
  result.startedAt = std::chrono::system_clock::now();
  const double start = secondsNow(clock);
  const std::uint64_t block = toUnsigned(device.blockSize());
  VL_PRECONDITION(block >= 1 && chunkBytes > 0);
  const std::uint64_t wiped = device.size() / block * block;
  const std::uint64_t seed = randomNonZeroSeed();
  const std::uint64_t chunk = std::max<std::uint64_t>(1, toUnsigned(chunkBytes) / block) * block;
  const auto chunkAt = [&](std::uint64_t offset) { return std::min(wiped - offset, chunk); };
  // Made before anything is overwritten, so a folder that can't be made
  // costs the user nothing.
  const ScratchFolder folder;

  // One buffer for what is written and one for what is read back, reused for
  // every chunk. The zeros are made once.
  const auto bufferBytes = static_cast<std::size_t>(std::min(wiped, chunk));
  AlignedBuffer data(bufferBytes);
  AlignedBuffer readBack(bufferBytes);
  if (method == Method::zeros) fill(method, 0, seed, data.span());

  std::set<std::uint64_t> countedChunks;
  std::vector<double> samples;
  samples.reserve(static_cast<std::size_t>(wiped / chunk + 1));
  for (std::uint64_t offset = 0; offset < wiped; offset += chunk) {
    cancel.throwIfCancelled();
    const std::size_t n = static_cast<std::size_t>(chunkAt(offset));
    const std::span<std::uint8_t> bytes = data.span().first(n);
    if (method != Method::zeros) fill(method, offset, seed, bytes);
    const double before = secondsNow(clock);
    try {
      device.write(offset, bytes);
    } catch (const WriteError&) {
      ++result.writeErrors;
    }
    const double sample = megabytesPerSecond(static_cast<double>(n), secondsNow(clock) - before);
    samples.push_back(sample);
    if (progress) {
      progress(CheckProgress{CheckProgress::Phase::wiping, offset + n, wiped, sample * 1e6});
    }
  }

  device.synchronize();

  for (std::uint64_t offset = 0; offset < wiped; offset += chunk) {
    cancel.throwIfCancelled();
    const std::size_t n = static_cast<std::size_t>(chunkAt(offset));
    const std::span<std::uint8_t> expected = data.span().first(n);
    if (method != Method::zeros) fill(method, offset, seed, expected);
    bool same = false;
    try {
      const std::size_t got = device.readInto(offset, readBack.span().first(n));
      same = got == n && std::memcmp(readBack.data(), expected.data(), n) == 0;
    } catch (const DeviceError& error) {
      if (!error.isMediumFailure()) throw;  // the card is gone
    }
    // The whole chunk counts: the pass does not look for the blocks within it.
    if (!same) {
      result.blocksNotErased = checkedAdd(result.blocksNotErased, n / block);
      countedChunks.insert(offset / chunk);
    }
    if (progress) {
      progress(CheckProgress{CheckProgress::Phase::verifying, offset + n, wiped, std::nullopt});
    }
  }

  // Sectors that fail only during the search count as not erased too, unless
  // the verify pass already counted their chunk.
  ZeroFillingSource salvaging(device, block);
  salvaging.onUnreadable = [&](std::uint64_t sector) {
    if (!countedChunks.contains(sector / chunk)) ++result.blocksNotErased;
  };
  result.recoverableFilesFound = countFilesLeft(salvaging, folder, cancel, progress);

  result.write = SpeedSummary(samples);
  result.bytesOverwritten = wiped;
  result.duration = secondsNow(clock) - start;
  return result;
}

std::string_view rawValue(Wipe::Method method) {
  switch (method) {
    case Wipe::Method::zeros:
      return "zeros";
    case Wipe::Method::random:
      return "random";
  }
  VL_PRECONDITION(false);
}

std::optional<Wipe::Method> wipeMethodFromRawValue(std::string_view text) {
  for (const Wipe::Method method : {Wipe::Method::zeros, Wipe::Method::random}) {
    if (rawValue(method) == text) return method;
  }
  return std::nullopt;
}

std::string_view displayName(Wipe::Method method) {
  switch (method) {
    case Wipe::Method::zeros:
      return "One pass of zeros";
    case Wipe::Method::random:
      return "One pass of random data";
  }
  VL_PRECONDITION(false);
}

void to_json(nlohmann::json& json, const Wipe::Result& result) {
  const std::time_t seconds = std::chrono::system_clock::to_time_t(result.startedAt);
  std::tm utc{};
  ::gmtime_r(&seconds, &utc);
  std::array<char, 32> startedAt{};
  const std::size_t length =
      std::strftime(startedAt.data(), startedAt.size(), "%Y-%m-%dT%H:%M:%SZ", &utc);
  json = {{"method", rawValue(result.method)},
          {"bytesOverwritten", result.bytesOverwritten},
          {"writeErrors", result.writeErrors},
          {"blocksNotErased", result.blocksNotErased},
          {"recoverableFilesFound", result.recoverableFilesFound},
          {"write", result.write},
          {"startedAt", std::string(startedAt.data(), length)},
          {"duration", result.duration}};
}

}  // namespace vellum
