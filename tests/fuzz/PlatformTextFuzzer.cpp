// The parsers of what the kernel and udev print: /proc/self/mountinfo,
// /proc/swaps, udev database entries and "major:minor" numbers. The first
// byte picks the parser. Whatever the text, they return without crashing,
// and a parsed device number prints back as it parses.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "platform/DeviceNumber.h"
#include "platform/MountTable.h"
#include "platform/UdevProperties.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 1) return 0;
  const std::string_view text(reinterpret_cast<const char*>(data + 1), size - 1);
  switch (data[0] % 4) {
    case 0:
      (void)vellum::parseMountInfo(text);
      break;
    case 1:
      (void)vellum::parseSwaps(text);
      break;
    case 2:
      (void)vellum::parseUdevProperties(text);
      break;
    default:
      if (const auto number = vellum::DeviceNumber::parse(text)) {
        if (vellum::DeviceNumber::parse(number->toString()) != number) std::abort();
      }
  }
  return 0;
}
