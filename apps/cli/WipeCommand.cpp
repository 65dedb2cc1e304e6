#include <cstdio>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>

#include "Cli.h"
#include "Commands.h"
#include "Erasing.h"
#include "Options.h"
#include "Target.h"
#include "Terminal.h"
#include "bytes/DeviceError.h"
#include "carve/CarveTypes.h"
#include "checks/Wipe.h"
#include "devices/WriteError.h"
#include "summary/ResultSummary.h"
#include "summary/SummaryText.h"

namespace vellum::cli {
namespace {

Wipe::Method chosenMethod(const std::optional<std::string>& given) {
  if (!given) return Wipe::Method::zeros;
  if (const auto method = wipeMethodFromRawValue(*given)) return *method;
  throw UsageError("--method takes zeros or random, not " + *given + ".");
}

// Failures during the wipe name the target and say what to do next; a stop
// stays a stop.
[[noreturn]] void rethrowForTarget(const Target& target) {
  const std::string noun(nounFor(target.card));
  try {
    throw;
  } catch (const CheckError& error) {
    if (error.is<CheckError::Cancelled>()) throw;
    throw WriteError::refused(target.argument + ": " + error.description());
  } catch (const DeviceError& error) {
    throw WriteError::refused(target.argument + ": " + error.description() + ". The " + noun +
                              " may be failing; a Health Scan shows which areas.");
  } catch (const WriteError& error) {
    if (error.is<WriteError::Refused>() || error.is<WriteError::Removed>()) throw;
    throw WriteError::refused(target.argument + ": " + error.description() + ". The " + noun +
                              " may be failing or write-protected.");
  } catch (const CarveError& error) {
    throw WriteError::refused(target.argument +
                              " was overwritten, but the search for recoverable files couldn't "
                              "run: " +
                              error.description());
  } catch (const std::filesystem::filesystem_error& error) {
    // The carving pass writes what it finds into the temporary folder.
    throw WriteError::refused(target.argument +
                              " was overwritten, but the search for recoverable files couldn't "
                              "write to " +
                              error.path1().string() + " (" + error.code().message() +
                              "). Make room in the temporary folder, or point TMPDIR at another "
                              "one, and wipe again.");
  }
}

}  // namespace

int runWipe(const std::vector<std::string>& words) {
  const Options options(words, {"--json", "--force"}, {"--confirm", "--method", "--backup"}, 1, 1);
  // Checked before the confirmation, so a typo costs nothing.
  Wipe wipe;
  wipe.method = chosenMethod(options.value("--method"));
  std::optional<Target> target = prepareErase(options.positional()[0], CheckAction::wipe, options);
  if (!target) return kUsage;

  Wipe::Result result;
  try {
    CancellationFlag cancel;
    SignalCancellation signals(cancel);
    ProgressLine line;
    result = wipe.run(*target->device, cancel, line.callback());
    line.finish();
  } catch (...) {
    rethrowForTarget(*target);
  }
  if (options.has("--json")) {
    printJson(nlohmann::json(result));
  } else {
    printSummary(ResultSummary(CheckOutcome(result), target->card), target->card.has_value(),
                 target->argument);
  }
  return result.isComplete() ? kGoodVerdict : kBadVerdict;
}

}  // namespace vellum::cli
