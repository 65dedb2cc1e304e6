#include "platform/MountTable.h"

#include <charconv>

namespace vellum {
namespace {

// Splits a line at runs of spaces and tabs (escaped white space inside a field
// is written as \040 and \011, so it never splits).
std::vector<std::string_view> fields(std::string_view line) {
  std::vector<std::string_view> result;
  std::size_t pos = 0;
  while (pos < line.size()) {
    const std::size_t start = line.find_first_not_of(" \t", pos);
    if (start == std::string_view::npos) break;
    std::size_t end = line.find_first_of(" \t", start);
    if (end == std::string_view::npos) end = line.size();
    result.push_back(line.substr(start, end - start));
    pos = end;
  }
  return result;
}

bool parseInt(std::string_view text, int& value) {
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  return !text.empty() && ec == std::errc() && end == text.data() + text.size();
}

template <class Visit>
void forEachLine(std::string_view text, Visit visit) {
  while (!text.empty()) {
    const std::size_t newline = text.find('\n');
    visit(text.substr(0, newline));
    if (newline == std::string_view::npos) break;
    text.remove_prefix(newline + 1);
  }
}

}  // namespace

std::string unescapeOctal(std::string_view text) {
  const auto isOctal = [](char c) { return c >= '0' && c <= '7'; };
  std::string result;
  result.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\\' && text.size() - i >= 4 && isOctal(text[i + 1]) && isOctal(text[i + 2]) &&
        isOctal(text[i + 3])) {
      const int value = (text[i + 1] - '0') * 64 + (text[i + 2] - '0') * 8 + (text[i + 3] - '0');
      if (value <= 0xFF) {
        result += static_cast<char>(value);
        i += 3;
        continue;
      }
    }
    result += text[i];
  }
  return result;
}

std::vector<MountEntry> parseMountInfo(std::string_view text) {
  std::vector<MountEntry> entries;
  forEachLine(text, [&](std::string_view line) {
    const std::vector<std::string_view> f = fields(line);
    // id parent major:minor root mountPoint options [optional...] - type source superOptions
    if (f.size() < 7) return;
    std::size_t separator = 6;
    while (separator < f.size() && f[separator] != "-")
      ++separator;
    if (separator + 2 >= f.size()) return;
    MountEntry entry;
    const std::optional<DeviceNumber> device = DeviceNumber::parse(f[2]);
    if (!parseInt(f[0], entry.mountId) || !parseInt(f[1], entry.parentId) || !device) return;
    entry.device = *device;
    entry.root = unescapeOctal(f[3]);
    entry.mountPoint = unescapeOctal(f[4]);
    entry.fileSystemType = unescapeOctal(f[separator + 1]);
    entry.source = unescapeOctal(f[separator + 2]);
    entries.push_back(std::move(entry));
  });
  return entries;
}

std::vector<std::string> parseSwaps(std::string_view text) {
  std::vector<std::string> names;
  bool header = true;
  forEachLine(text, [&](std::string_view line) {
    if (header) {
      header = false;
      return;
    }
    const std::vector<std::string_view> f = fields(line);
    if (f.size() >= 2) names.push_back(unescapeOctal(f[0]));
  });
  return names;
}

}  // namespace vellum
