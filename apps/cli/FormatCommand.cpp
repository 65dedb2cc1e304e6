#include "Cli.h"
#include "Commands.h"
#include "Options.h"
#include "devices/FileSystem.h"

namespace vellum::cli {

int runFormat(const std::vector<std::string>& words) {
  const Options options(words, {"--json"}, {"--fs", "--name", "--confirm", "--report"}, 1, 1);
  // Checked before the guard runs, so a typo costs nothing.
  FormatChoice choice{std::nullopt, options.value("--name").value_or("")};
  if (const auto given = options.value("--fs")) {
    if (*given == "exfat") {
      choice.fileSystem = FileSystem::exfat;
    } else if (*given == "fat32") {
      choice.fileSystem = FileSystem::fat32;
    } else {
      throw UsageError("--fs takes exfat or fat32, not " + *given + ".");
    }
  }
  return runAction(CheckAction::format, options.positional()[0], options,
                   [&](RunRequest& request) { request.format = choice; });
}

}  // namespace vellum::cli
