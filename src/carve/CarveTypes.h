#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "bytes/Error.h"

namespace vellum {

// What kind of file a carver found. The order is the order of allCases.
enum class FormatCategory { photos, rawPhotos, video, audio, documents, archives };

inline constexpr std::array<FormatCategory, 6> allFormatCategories = {
    FormatCategory::photos, FormatCategory::rawPhotos, FormatCategory::video,
    FormatCategory::audio,  FormatCategory::documents, FormatCategory::archives};

using FormatCategorySet = std::set<FormatCategory>;

// The raw value ("rawPhotos"), used in JSON and on the command line.
std::string_view toString(FormatCategory category);
// Parses a raw value; nothing for an unknown one.
std::optional<FormatCategory> formatCategoryFromString(std::string_view raw);
// "Camera RAW" etc., for the screens.
std::string_view displayName(FormatCategory category);
// The name of the category's icon.
std::string_view symbolName(FormatCategory category);

// exact: the carver found the format's own end (end marker, size field, table).
// heuristic: the end was estimated (scan limit, failed search, clamped size).
enum class CarveConfidence { exact, heuristic };

std::string_view toString(CarveConfidence confidence);
std::optional<CarveConfidence> carveConfidenceFromString(std::string_view raw);

// What a carver reports for a file starting at the offset it was given.
struct CarveMatch {
  std::uint64_t length = 0;  // bytes from the file's first byte to its end
  std::string ext;           // lower case, no dot: "jpg"
  FormatCategory category = FormatCategory::photos;
  CarveConfidence confidence = CarveConfidence::exact;

  bool operator==(const CarveMatch&) const = default;
};

// One file found by a run.
struct CarvedFile {
  std::uint64_t start = 0;  // absolute offset of the file's first byte
  std::uint64_t length = 0;
  std::string ext;
  FormatCategory category = FormatCategory::photos;
  CarveConfidence confidence = CarveConfidence::exact;
  std::optional<std::string> outputPath;  // set when the run wrote the file
  std::optional<std::string> headDigest;  // absent when the head could not be read

  // How many leading bytes the head digest covers (fewer for shorter files).
  static constexpr std::uint64_t headDigestBytes = 4096;
  // The head digest of data: 64-bit FNV-1a, upper-case hex without leading
  // zeros. (Named apart from the field, which C++ cannot overload.)
  static std::string digestHead(std::span<const std::uint8_t> data);

  bool operator==(const CarvedFile&) const = default;
};

// Handed to the progress callback of a run.
struct CarveProgress {
  std::uint64_t bytesScanned = 0;  // never above totalBytes
  std::uint64_t totalBytes = 0;
  std::int64_t filesFound = 0;
  std::uint64_t bytesRecovered = 0;
  std::map<std::string, std::int64_t> countsByExt;
  std::int64_t badReads = 0;
  double elapsed = 0;  // seconds since the run began

  bool operator==(const CarveProgress&) const = default;
};

// The result of one run; stored as "vellum-report.json".
struct CarveReport {
  std::string sourceDescription;
  std::uint64_t totalBytes = 0;
  std::uint64_t scannedBytes = 0;
  double duration = 0;  // seconds
  std::int64_t badReads = 0;
  bool cancelled = false;
  std::vector<CarvedFile> files;  // ascending start

  // Number of files per extension (not stored in JSON).
  std::map<std::string, std::int64_t> countsByExt() const;

  bool operator==(const CarveReport&) const = default;
};

// JSON with the field names as keys; absent optionals are left out. Decoding
// throws nlohmann::json::exception on a missing key, a wrong type or an
// unknown category or confidence.
void to_json(nlohmann::json& j, const CarvedFile& file);
void from_json(const nlohmann::json& j, CarvedFile& file);
void to_json(nlohmann::json& j, const CarveReport& report);
void from_json(const nlohmann::json& j, CarveReport& report);

// Pretty-printed with sorted keys, as written to "vellum-report.json".
std::string encodeReportJson(const CarveReport& report);
CarveReport decodeReportJson(std::string_view text);
// A bare array of file objects (what an export writes).
std::string encodeFilesJson(std::span<const CarvedFile> files);

// The name of the report file in an output folder.
inline constexpr std::string_view carveReportFileName = "vellum-report.json";

namespace carve_error {
struct OutputNotWritable {
  std::string path;
  bool operator==(const OutputNotWritable&) const = default;
};
struct EmptySource {
  bool operator==(const EmptySource&) const = default;
};
}  // namespace carve_error

// Why a carve run or an export could not start.
class CarveError final : public ErrorOf<carve_error::OutputNotWritable, carve_error::EmptySource> {
 public:
  using OutputNotWritable = carve_error::OutputNotWritable;
  using EmptySource = carve_error::EmptySource;

  explicit CarveError(Case errorCase);

  static CarveError outputNotWritable(std::string path) {
    return CarveError(OutputNotWritable{std::move(path)});
  }
  static CarveError emptySource() { return CarveError(EmptySource{}); }
};

}  // namespace vellum
