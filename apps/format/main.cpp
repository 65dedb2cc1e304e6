// vellum-format: formats one whole disk for a user who is not root. It runs
// as root through pkexec, so it takes only a disk name, the disk sequence
// number of the medium the user chose, a file system and a volume name, and
// applies every rule of the device guard itself before it unmounts and
// formats with the same formatter as root uses (argument lists, no shell).
// What went wrong is one sentence on standard output.
//
// Usage: vellum-format --disk NAME --disk-sequence N --file-system exfat|fat32
//                      --name LABEL [--usable-bytes N] [--claimed-capacity]
//                      [--allow-disk-images]

#include <unistd.h>

#include <cstdio>
#include <string_view>
#include <vector>

#include "devices/WriteError.h"
#include "platform/FormatHelper.h"
#include "platform/Process.h"

namespace {

int say(const std::string& sentence, vellum::FormatHelperExit code) {
  std::printf("%s\n", sentence.c_str());
  return code;
}

}  // namespace

int main(int argc, char** argv) {
  using vellum::FormatHelperExit;
  const std::vector<std::string_view> arguments(argv + 1, argv + argc);
  const auto request = vellum::FormatRequest::parse(arguments);
  if (!request) {
    std::fprintf(stderr,
                 "usage: vellum-format --disk NAME --disk-sequence N --file-system exfat|fat32 "
                 "--name LABEL [--usable-bytes N] [--claimed-capacity] [--allow-disk-images]\n");
    return FormatHelperExit::usage;
  }
  if (::geteuid() != 0) {
    return say("vellum-format must run as root; start it through pkexec.",
               FormatHelperExit::refused);
  }
  try {
    request->perform();
    return FormatHelperExit::formatted;
  } catch (const vellum::WriteError& error) {
    return say(error.description(), error.is<vellum::WriteError::NeedsQuickCheck>()
                                        ? FormatHelperExit::needsQuickCheck
                                        : FormatHelperExit::refused);
  } catch (const vellum::ProcessError& error) {
    return say(error.description(), FormatHelperExit::refused);
  }
}
