#include "carve/CarveEngine.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstring>

#include "bytes/AlignedBuffer.h"
#include "bytes/Precondition.h"
#include "carve/CarverRegistry.h"
#include "carve/OutputFiles.h"

namespace vellum {
namespace {

constexpr std::uint64_t cancelPollBytes = 4'194'304;  // 4 MiB
constexpr std::uint64_t sectorSize = 512;             // carved files are named by sector

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

std::uint64_t roundUp(std::uint64_t value, std::uint64_t step) {
  return (value + step - 1) / step * step;
}

}  // namespace

void prepareOutputDirectory(const std::filesystem::path& dir) {
  std::filesystem::create_directories(dir);
  if (::access(dir.c_str(), W_OK | X_OK) != 0) throw CarveError::outputNotWritable(dir.string());
}

bool isSafeExtension(std::string_view ext) {
  return !ext.empty() && ext.size() <= 10 && std::all_of(ext.begin(), ext.end(), [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9');
  });
}

namespace {
// Names are built only from safe extensions, so nothing a carver or a report
// holds can lead out of the output folder ("..", "/", NUL).
std::string_view safeExtension(std::string_view ext) {
  return isSafeExtension(ext) ? ext : std::string_view("bin");
}
}  // namespace

std::string carvedFileName(std::uint64_t start, std::string_view ext) {
  // Built by appending: GCC 12 at -O3 warns falsely on chained operator+ here.
  std::string name = "f";
  name.append(std::to_string(start / sectorSize)).append(".").append(safeExtension(ext));
  return name;
}

std::string carvedFolderName(std::string_view ext) {
  std::string name(safeExtension(ext));
  for (char& c : name)
    c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return name;
}

CarveEngine::CarveEngine(ByteSource& source, Config config)
    : CarveEngine(source, config, CarverRegistry::all()) {}

CarveEngine::CarveEngine(ByteSource& source, Config config,
                         std::vector<const FormatCarver*> carvers)
    : source_(source), config_(std::move(config)), context_(source) {
  VL_PRECONDITION(config_.chunkSize > 0 && config_.stride > 0);
  for (const FormatCarver* carver : carvers) {
    const FormatCategorySet own = carver->categories();
    if (std::ranges::any_of(
            own, [&](FormatCategory c) { return config_.enabledCategories.contains(c); }))
      carvers_.push_back(carver);
  }
  for (std::size_t index = 0; index < carvers_.size(); ++index) {
    for (Bytes& pattern : carvers_[index]->signatures()) {
      VL_PRECONDITION(!pattern.empty());
      const std::uint8_t first = pattern[0];
      entries_.push_back({first, std::move(pattern), carvers_[index]->signatureOffset(), index});
    }
  }
}

void CarveEngine::cancel() {
  const std::lock_guard lock(cancelLock_);
  cancelled_ = true;
}

bool CarveEngine::isCancelled() {
  const std::lock_guard lock(cancelLock_);
  return cancelled_;
}

std::filesystem::path CarveEngine::write(std::uint64_t start, std::uint64_t length,
                                         const std::string& ext) {
  const std::filesystem::path folder = config_.outputDirectory / carvedFolderName(ext);
  std::filesystem::create_directories(folder);
  const std::filesystem::path path = folder / carvedFileName(start, ext);
  carve_detail::copyToFile(path, length, false,
                           [&](std::uint64_t offset, std::span<std::uint8_t> out) {
                             return context_.bytesInto(start + offset, out);
                           });
  return path;
}

std::optional<CarveMatch> CarveEngine::firstMatch(std::span<const std::uint8_t> chunk,
                                                  std::uint64_t i, std::uint64_t start) {
  for (const SignatureEntry& entry : entries_) {
    const std::uint64_t p = i + entry.offset;
    if (p + entry.pattern.size() > chunk.size() ||
        chunk[static_cast<std::size_t>(p)] != entry.firstByte ||
        std::memcmp(chunk.data() + p, entry.pattern.data(), entry.pattern.size()) != 0)
      continue;
    std::optional<CarveMatch> match;
    try {
      match = carvers_[entry.carverIndex]->carve(start, context_);
    } catch (const std::exception&) {
      continue;  // a carver's failure only means "no file here"
    }
    if (match && match->length > 0) return match;
  }
  return std::nullopt;
}

CarvedFile CarveEngine::record(std::uint64_t start, const CarveMatch& match) {
  CarvedFile file{start,        match.length, match.ext, match.category, match.confidence,
                  std::nullopt, std::nullopt};
  if (config_.output == OutputMode::files)
    file.outputPath = write(start, match.length, match.ext).string();
  try {
    const Bytes head = context_.bytes(
        start, static_cast<std::int64_t>(std::min(match.length, CarvedFile::headDigestBytes)));
    file.headDigest = CarvedFile::digestHead(head);
  } catch (const std::exception&) {
    // Recorded without a digest; an export then copies it unchecked.
  }
  return file;
}

CarveReport CarveEngine::run() {
  const std::uint64_t size = source_.size();
  if (size == 0) throw CarveError::emptySource();
  prepareOutputDirectory(config_.outputDirectory);

  const Clock::time_point began = Clock::now();
  std::optional<Clock::time_point> lastProgress;  // none yet: the first chunk reports
  std::vector<CarvedFile> files;
  std::map<std::string, std::int64_t> countsByExt;
  std::uint64_t bytesRecovered = 0;
  std::uint64_t position = 0;

  const auto reportProgress = [&] {
    onProgress(CarveProgress{std::min(size, position), size,
                             static_cast<std::int64_t>(files.size()), bytesRecovered, countsByExt,
                             source_.badReads(), secondsSince(began)});
  };

  // The signature test at each offset must cost next to nothing: one table
  // lookup per distinct signature offset rejects almost every position.
  std::vector<std::uint64_t> offsets;
  for (const SignatureEntry& entry : entries_)
    if (std::ranges::find(offsets, entry.offset) == offsets.end()) offsets.push_back(entry.offset);
  std::vector<std::array<bool, 256>> firstBytes(offsets.size());
  for (const SignatureEntry& entry : entries_) {
    const auto slot =
        static_cast<std::size_t>(std::ranges::find(offsets, entry.offset) - offsets.begin());
    firstBytes[slot][entry.firstByte] = true;
  }

  const std::uint64_t stride = config_.stride;
  AlignedBuffer buffer(static_cast<std::size_t>(std::min(size, config_.chunkSize)));

  while (position < size) {
    if (isCancelled()) break;
    const std::size_t want = static_cast<std::size_t>(std::min(size - position, config_.chunkSize));
    const std::size_t got = source_.readInto(position, buffer.span().first(want));
    if (got == 0) break;  // the source ended early; the report shows how far we got
    const std::span<const std::uint8_t> chunk = buffer.span().first(got);
    const std::uint64_t windowStart = position;
    context_.setWindow(windowStart, chunk);

    std::uint64_t next = windowStart + got;  // where the next chunk begins
    std::uint64_t nextPoll = cancelPollBytes;
    bool stop = false;
    for (std::uint64_t i = 0; i < got;) {
      if (i >= nextPoll) {
        nextPoll = (i / cancelPollBytes + 1) * cancelPollBytes;
        if (isCancelled()) {
          next = windowStart + i;
          stop = true;
          break;
        }
      }
      bool candidate = false;
      for (std::size_t slot = 0; slot < offsets.size() && !candidate; ++slot) {
        const std::uint64_t p = i + offsets[slot];
        candidate = p < got && firstBytes[slot][chunk[static_cast<std::size_t>(p)]];
      }
      if (!candidate) {
        i += stride;
        continue;
      }

      const std::uint64_t start = windowStart + i;
      std::optional<CarveMatch> match = firstMatch(chunk, i, start);
      if (!match) {
        i += stride;
        continue;
      }

      if (match->length > size - start) {
        match->length = size - start;
        match->confidence = CarveConfidence::heuristic;
      }
      if (config_.enabledCategories.contains(match->category)) {
        files.push_back(record(start, *match));
        ++countsByExt[match->ext];
        bytesRecovered += match->length;
      }

      // Exact finds are stepped over whole; inside a doubtful one the scan goes on.
      const std::uint64_t resume = match->confidence == CarveConfidence::exact
                                       ? roundUp(start + match->length, stride)
                                       : start + stride;
      if (resume >= windowStart + got) {
        next = resume;
        break;
      }
      i = (resume - windowStart) / stride * stride;
    }
    position = next;

    if (onProgress && (!lastProgress || secondsSince(*lastProgress) >= config_.progressInterval)) {
      lastProgress = Clock::now();
      reportProgress();
    }
    if (stop) break;
  }
  context_.clearWindow();

  const bool cancelled = isCancelled();
  if (onProgress) reportProgress();

  CarveReport report{source_.descriptionForReport(),
                     size,
                     std::min(size, position),
                     secondsSince(began),
                     source_.badReads(),
                     cancelled,
                     std::move(files)};
  carve_detail::writeTextFile(config_.outputDirectory / carveReportFileName,
                              encodeReportJson(report));
  return report;
}

}  // namespace vellum
