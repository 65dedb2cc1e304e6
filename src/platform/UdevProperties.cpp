#include "platform/UdevProperties.h"

namespace vellum {
namespace {

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

std::map<std::string, std::string, std::less<>> parseUdevProperties(std::string_view text) {
  std::map<std::string, std::string, std::less<>> properties;
  while (!text.empty()) {
    const std::size_t newline = text.find('\n');
    const std::string_view line = text.substr(0, newline);
    if (line.starts_with("E:")) {
      const std::size_t equals = line.find('=');
      if (equals != std::string_view::npos && equals > 2) {
        properties[std::string(line.substr(2, equals - 2))] = std::string(line.substr(equals + 1));
      }
    }
    if (newline == std::string_view::npos) break;
    text.remove_prefix(newline + 1);
  }
  return properties;
}

std::string unescapeUdev(std::string_view text) {
  std::string result;
  result.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\\' && text.size() - i >= 4 && text[i + 1] == 'x') {
      const int high = hexValue(text[i + 2]);
      const int low = hexValue(text[i + 3]);
      if (high >= 0 && low >= 0) {
        result += static_cast<char>(high * 16 + low);
        i += 3;
        continue;
      }
    }
    result += text[i];
  }
  return result;
}

}  // namespace vellum
