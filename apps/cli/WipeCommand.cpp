#include "Cli.h"
#include "Commands.h"
#include "Options.h"
#include "checks/Wipe.h"

namespace vellum::cli {

int runWipe(const std::vector<std::string>& words) {
  const Options options(words, {"--json", "--force"},
                        {"--confirm", "--method", "--backup", "--report"}, 1, 1);
  // Checked before anything else, so a typo costs nothing.
  Wipe::Method method = Wipe::Method::zeros;
  if (const auto given = options.value("--method")) {
    const auto chosen = wipeMethodFromRawValue(*given);
    if (!chosen) throw UsageError("--method takes zeros or random, not " + *given + ".");
    method = *chosen;
  }
  return runAction(CheckAction::wipe, options.positional()[0], options,
                   [&](RunRequest& request) { request.wipeMethod = method; });
}

}  // namespace vellum::cli
