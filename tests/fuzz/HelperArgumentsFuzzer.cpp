// What the two privileged helpers accept as arguments (NUL-separated in the
// input). The first byte picks the helper. The disk-opening helper must only
// ever name a plain kernel name under /dev and only allowed flags; a format
// request must print back to the arguments it was parsed from.
#include <fcntl.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>
#include <vector>

#include "Arguments.h"
#include "platform/FormatHelper.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 1) return 0;
  std::vector<std::string_view> arguments;
  std::string_view rest(reinterpret_cast<const char*>(data + 1), size - 1);
  while (!rest.empty()) {
    const std::size_t end = rest.find('\0');
    arguments.push_back(rest.substr(0, end));
    rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 1);
  }
  if (data[0] % 2 == 0) {
    const auto request = vellum::authopen::parseArguments(arguments);
    if (!request) return 0;
    if (vellum::authopen::flagsAllowed(request->flags) &&
        ((*request->flags & (O_CREAT | O_TRUNC | O_APPEND)) != 0 ||
         (*request->flags & O_ACCMODE) == O_ACCMODE))
      std::abort();
    if (const auto name = vellum::authopen::diskName(request->path)) {
      if (name->empty() || name->find('/') != std::string::npos || *name == "." || *name == "..")
        std::abort();
    }
    return 0;
  }
  const auto request = vellum::FormatRequest::parse(arguments);
  if (!request) return 0;
  const std::vector<std::string> printed = request->arguments();
  const std::vector<std::string_view> again(printed.begin(), printed.end());
  const auto reparsed = vellum::FormatRequest::parse(again);
  if (!reparsed || reparsed->arguments() != printed) std::abort();
  return 0;
}
