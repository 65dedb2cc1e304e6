#include <cstdio>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <stop_token>
#include <thread>

#include "Cli.h"
#include "Commands.h"
#include "Options.h"
#include "Run.h"
#include "Terminal.h"
#include "bytes/ByteCountFormat.h"
#include "bytes/DeviceError.h"
#include "carve/CarveEngine.h"
#include "carve/CarveExporter.h"
#include "devices/WriteError.h"
#include "platform/DiskEnumerator.h"

namespace vellum::cli {
namespace {

constexpr std::uint64_t defaultChunk = 16'777'216;
constexpr std::uint64_t defaultStride = 512;

std::uint64_t positiveNumber(const Options& options, const std::string& name,
                             std::uint64_t fallback) {
  const auto text = options.value(name);
  if (!text) return fallback;
  std::size_t used = 0;
  unsigned long long value = 0;
  try {
    value = std::stoull(*text, &used);
  } catch (const std::exception&) {
    used = 0;
  }
  if (used != text->size() || value == 0 || text->front() == '-')
    throw UsageError(name + " needs a whole number above 0, not " + *text + ".");
  return value;
}

FormatCategorySet parseCategories(const std::optional<std::string>& text) {
  if (!text) return FormatCategorySet(allFormatCategories.begin(), allFormatCategories.end());
  FormatCategorySet categories;
  std::stringstream list(*text);
  for (std::string name; std::getline(list, name, ',');) {
    const auto category = formatCategoryFromString(name);
    if (!category)
      throw UsageError("unknown category " + name +
                       "; choose from photos, rawPhotos, video, audio, documents, archives.");
    categories.insert(*category);
  }
  if (categories.empty()) throw UsageError("--categories names no category.");
  return categories;
}

// The engine keeps its own cancel lock; Ctrl-C sets a flag that this watcher
// passes on, so the scan stops within one poll.
class CancelRelay {
 public:
  explicit CancelRelay(CarveEngine& engine)
      : signals_(flag_), watcher_([this, &engine](std::stop_token stop) {
          while (!stop.stop_requested()) {
            if (flag_.isCancelled()) {
              engine.cancel();
              return;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
          }
        }) {}

 private:
  CancellationFlag flag_;
  SignalCancellation signals_;
  std::jthread watcher_;
};

CheckProgress scanProgress(const CarveProgress& progress) {
  CheckProgress shown;
  shown.phase = CheckProgress::Phase::scanningForFiles;
  shown.completed = progress.bytesScanned;
  shown.total = progress.totalBytes;
  if (progress.elapsed > 0)
    shown.bytesPerSecond = static_cast<double>(progress.bytesScanned) / progress.elapsed;
  return shown;
}

// Folder problems come as std::filesystem errors; give them one plain sentence.
[[noreturn]] void rethrowFolderError(const std::filesystem::filesystem_error& error) {
  const std::string path = error.path1().empty() ? std::string() : error.path1().string() + ": ";
  throw WriteError::refused("Could not write " + path + error.code().message() + ".");
}

// Recovered files must never land on the disk they are recovered from: each
// one written there could overwrite the next file still to be found.
void checkOutputFolder(const std::string& argument, const std::string& out) {
  const std::optional<std::string> disk = diskName(argument);
  if (!disk) return;
  std::error_code error;
  const std::filesystem::path folder = std::filesystem::weakly_canonical(out, error);
  // The folder may not exist yet: its nearest existing parent decides.
  std::filesystem::path existing = error ? std::filesystem::path(out) : folder;
  while (!existing.empty() && !std::filesystem::exists(existing, error))
    existing = existing.parent_path();
  const auto outDisk = DiskEnumerator::wholeDisk(existing.empty() ? "." : existing);
  if (outDisk && outDisk->identifier == *disk) {
    throw UsageError(out + " is on " + *disk +
                     ", the disk being searched: writing recovered files there could overwrite "
                     "the files still to be found. Choose a folder on another disk.");
  }
}

void printTable(const CarveReport& report, const std::string& sourceName) {
  std::map<std::string, std::uint64_t> bytesByExt;
  std::uint64_t total = 0;
  for (const CarvedFile& file : report.files) {
    bytesByExt[file.ext] += file.length;
    total += file.length;
  }
  std::printf("Found %zu %s (%s) in %s.\n", report.files.size(),
              report.files.size() == 1 ? "file" : "files", formatByteCount(total).c_str(),
              sourceName.c_str());
  if (report.badReads > 0) {
    std::printf("%lld unreadable %s read as zeros; files there may be damaged or missing.\n",
                static_cast<long long>(report.badReads),
                report.badReads == 1 ? "sector was" : "sectors were");
  }
  if (report.files.empty()) return;
  std::printf("  %-6s %7s  %s\n", "Type", "Files", "Size");
  for (const auto& [ext, count] : report.countsByExt())
    std::printf("  %-6s %7lld  %s\n", ext.c_str(), static_cast<long long>(count),
                formatByteCount(bytesByExt[ext]).c_str());
}

}  // namespace

int runCarve(const std::vector<std::string>& words) {
  const Options options(words, {"--catalog"}, {"--out", "--categories", "--stride", "--chunk"}, 1,
                        1);
  const auto out = options.value("--out");
  if (!out) throw UsageError("--out DIR is needed: the folder for the files and the report.");
  const std::uint64_t stride = positiveNumber(options, "--stride", defaultStride);
  const std::uint64_t chunk = positiveNumber(options, "--chunk", defaultChunk);
  if (chunk % stride != 0) throw UsageError("--chunk must be a multiple of --stride.");

  checkOutputFolder(options.positional()[0], *out);
  RunTarget target = resolveTarget(options.positional()[0]);
  const OpenedSource source = session().openForReading(target);
  CarveEngine engine(*source,
                     CarveEngine::Config{parseCategories(options.value("--categories")), *out,
                                         options.has("--catalog") ? CarveEngine::OutputMode::catalog
                                                                  : CarveEngine::OutputMode::files,
                                         chunk, stride, 0.3});
  ProgressLine line;
  engine.onProgress = [&](const CarveProgress& progress) { line.update(scanProgress(progress)); };
  CarveReport report;
  try {
    const CancelRelay relay(engine);
    report = engine.run();
  } catch (const std::filesystem::filesystem_error& error) {
    line.finish();
    rethrowFolderError(error);
  }
  line.finish();
  printTable(report, options.positional()[0]);
  std::printf("%s %s.\n",
              options.has("--catalog") ? "Wrote vellum-report.json to"
                                       : "Wrote the files and vellum-report.json to",
              out->c_str());
  if (report.cancelled) {
    std::fprintf(stderr, "Stopped after %s of %s; the report lists what was found so far.\n",
                 formatByteCount(report.scannedBytes).c_str(),
                 formatByteCount(report.totalBytes).c_str());
    return kCancelled;
  }
  return kGoodVerdict;
}

int runExport(const std::vector<std::string>& words) {
  const Options options(words, {}, {"--out"}, 2, 2);
  const auto out = options.value("--out");
  if (!out) throw UsageError("--out DIR is needed: the folder for the exported files.");
  const std::string& reportPath = options.positional()[0];
  CarveReport report;
  {
    std::ifstream in(reportPath, std::ios::binary);
    if (!in) throw UsageError("cannot read " + reportPath + ".");
    std::stringstream text;
    text << in.rdbuf();
    try {
      report = decodeReportJson(text.str());
    } catch (const nlohmann::json::exception& error) {
      throw UsageError(reportPath + " is not a report written by vellum-check carve (" +
                       error.what() + "). Nothing was saved.");
    }
  }
  RunTarget target = resolveTarget(options.positional()[1]);
  const OpenedSource source = session().openForReading(target);
  for (const CarvedFile& file : report.files) {
    if (file.start + file.length > source->size()) {
      throw UsageError(reportPath + " lists a file at offset " + std::to_string(file.start) +
                       " that ends past the end of " + options.positional()[1] +
                       ". Is it the source the report was made from? Nothing was saved.");
    }
  }

  CancellationFlag cancel;
  SignalCancellation signals(cancel);
  CarveExporter::Result result;
  try {
    result = CarveExporter::exportFiles(report.files, *source, *out, nullptr,
                                        [&] { return cancel.isCancelled(); });
  } catch (const std::filesystem::filesystem_error& error) {
    rethrowFolderError(error);
  }
  std::printf("Saved %zu of %zu files to %s.\n", result.saved.size(), report.files.size(),
              out->c_str());
  if (!result.changed.empty()) {
    std::printf("%zu changed since the scan and were not saved.\n", result.changed.size());
    if (result.changed.size() * 2 > report.files.size()) {
      std::printf(
          "Most files changed: check that %s is the source the report was made from "
          "(%s).\n",
          options.positional()[1].c_str(), report.sourceDescription.c_str());
    }
  }
  if (!result.failed.empty())
    std::printf("%zu could not be read or written.\n", result.failed.size());
  if (cancel.isCancelled()) return kCancelled;
  return result.changed.empty() && result.failed.empty() ? kGoodVerdict : kBadVerdict;
}

}  // namespace vellum::cli
