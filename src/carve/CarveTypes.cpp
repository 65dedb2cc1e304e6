#include "carve/CarveTypes.h"

#include <cstdio>
#include <limits>
#include <nlohmann/json.hpp>

#include "carve/CarveEngine.h"

namespace vellum {
namespace {

struct CategoryNames {
  FormatCategory category;
  std::string_view raw;
  std::string_view display;
  std::string_view symbol;
};

constexpr std::array<CategoryNames, 6> categoryNames = {{
    {FormatCategory::photos, "photos", "Photos", "photo"},
    {FormatCategory::rawPhotos, "rawPhotos", "Camera RAW", "camera.aperture"},
    {FormatCategory::video, "video", "Video", "film"},
    {FormatCategory::audio, "audio", "Audio", "waveform"},
    {FormatCategory::documents, "documents", "Documents", "doc.text"},
    {FormatCategory::archives, "archives", "Archives", "shippingbox"},
}};

const CategoryNames& namesOf(FormatCategory category) {
  return categoryNames[static_cast<std::size_t>(category)];
}

// Sizes and offsets must be whole non-negative numbers; a plain get<> would
// wrap -1 around.
// Integers only: a floating-point number (6.7e19) is refused rather than
// converted, which would be undefined when it is out of range.
std::uint64_t unsignedField(const nlohmann::json& j, const char* key) {
  const nlohmann::json& value = j.at(key);
  if (!value.is_number_unsigned())
    throw nlohmann::json::type_error::create(
        302, std::string(key) + " must be a non-negative integer", &j);
  return value.get<std::uint64_t>();
}

std::int64_t countField(const nlohmann::json& j, const char* key) {
  const std::uint64_t value = unsignedField(j, key);
  if (value > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()))
    throw nlohmann::json::out_of_range::create(406, std::string(key) + " is out of range", &j);
  return static_cast<std::int64_t>(value);
}

std::string describe(const CarveError::Case& errorCase) {
  if (const auto* c = std::get_if<CarveError::OutputNotWritable>(&errorCase))
    return "Cannot write to output folder " + c->path + ".";
  return "The selected source reports a size of zero bytes.";
}

}  // namespace

std::string_view toString(FormatCategory category) {
  return namesOf(category).raw;
}
std::string_view displayName(FormatCategory category) {
  return namesOf(category).display;
}
std::string_view symbolName(FormatCategory category) {
  return namesOf(category).symbol;
}

std::optional<FormatCategory> formatCategoryFromString(std::string_view raw) {
  for (const CategoryNames& names : categoryNames)
    if (names.raw == raw) return names.category;
  return std::nullopt;
}

std::string_view toString(CarveConfidence confidence) {
  return confidence == CarveConfidence::exact ? "exact" : "heuristic";
}

std::optional<CarveConfidence> carveConfidenceFromString(std::string_view raw) {
  if (raw == "exact") return CarveConfidence::exact;
  if (raw == "heuristic") return CarveConfidence::heuristic;
  return std::nullopt;
}

std::string CarvedFile::digestHead(std::span<const std::uint8_t> data) {
  std::uint64_t value = 0xCBF29CE484222325ULL;
  for (std::uint8_t b : data) {
    value ^= b;
    value *= 0x100000001B3ULL;
  }
  char text[17];
  std::snprintf(text, sizeof text, "%llX", static_cast<unsigned long long>(value));
  return text;
}

std::map<std::string, std::int64_t> CarveReport::countsByExt() const {
  std::map<std::string, std::int64_t> counts;
  for (const CarvedFile& file : files)
    ++counts[file.ext];
  return counts;
}

void to_json(nlohmann::json& j, const CarvedFile& file) {
  j = nlohmann::json{{"start", file.start},
                     {"length", file.length},
                     {"ext", file.ext},
                     {"category", toString(file.category)},
                     {"confidence", toString(file.confidence)}};
  if (file.outputPath) j["outputPath"] = *file.outputPath;
  if (file.headDigest) j["headDigest"] = *file.headDigest;
}

void from_json(const nlohmann::json& j, CarvedFile& file) {
  using nlohmann::json;
  file.start = unsignedField(j, "start");
  file.length = unsignedField(j, "length");
  file.ext = j.at("ext").get<std::string>();
  if (!isSafeExtension(file.ext))
    throw json::other_error::create(501, "invalid ext " + j.at("ext").dump(), &j);
  if (file.length == 0 || file.start > std::numeric_limits<std::uint64_t>::max() - file.length)
    throw json::out_of_range::create(406, "start and length out of range", &j);
  const auto category = formatCategoryFromString(j.at("category").get<std::string>());
  if (!category)
    throw json::other_error::create(501, "unknown category " + j.at("category").dump(), &j);
  file.category = *category;
  const auto confidence = carveConfidenceFromString(j.at("confidence").get<std::string>());
  if (!confidence)
    throw json::other_error::create(501, "unknown confidence " + j.at("confidence").dump(), &j);
  file.confidence = *confidence;
  file.outputPath.reset();
  file.headDigest.reset();
  if (j.contains("outputPath")) file.outputPath = j.at("outputPath").get<std::string>();
  if (j.contains("headDigest")) file.headDigest = j.at("headDigest").get<std::string>();
}

void to_json(nlohmann::json& j, const CarveReport& report) {
  j = nlohmann::json{{"sourceDescription", report.sourceDescription},
                     {"totalBytes", report.totalBytes},
                     {"scannedBytes", report.scannedBytes},
                     {"duration", report.duration},
                     {"badReads", report.badReads},
                     {"cancelled", report.cancelled},
                     {"files", report.files}};
}

void from_json(const nlohmann::json& j, CarveReport& report) {
  report.sourceDescription = j.at("sourceDescription").get<std::string>();
  report.totalBytes = unsignedField(j, "totalBytes");
  report.scannedBytes = unsignedField(j, "scannedBytes");
  if (!j.at("duration").is_number()) {
    throw nlohmann::json::type_error::create(302, "duration must be a number", &j);
  }
  report.duration = j.at("duration").get<double>();
  report.badReads = countField(j, "badReads");
  report.cancelled = j.at("cancelled").get<bool>();
  report.files = j.at("files").get<std::vector<CarvedFile>>();
}

// nlohmann::json keeps object keys in a std::map, so dump() sorts them.
std::string encodeReportJson(const CarveReport& report) {
  // File and volume names need not be UTF-8: invalid bytes become U+FFFD
  // rather than an exception.
  return nlohmann::json(report).dump(2, ' ', false, nlohmann::json::error_handler_t::replace) +
         "\n";
}

CarveReport decodeReportJson(std::string_view text) {
  return nlohmann::json::parse(text).get<CarveReport>();
}

std::string encodeFilesJson(std::span<const CarvedFile> files) {
  nlohmann::json array = nlohmann::json::array();
  for (const CarvedFile& file : files)
    array.push_back(file);
  return array.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

CarveError::CarveError(Case errorCase) : ErrorOf(errorCase, describe(errorCase)) {}

}  // namespace vellum
