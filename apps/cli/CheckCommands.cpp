#include <sys/stat.h>

#include <cstdio>
#include <iostream>
#include <nlohmann/json.hpp>
#include <string>

#include "Cli.h"
#include "Commands.h"
#include "Options.h"
#include "Target.h"
#include "Terminal.h"
#include "bytes/DeviceError.h"
#include "checks/CardImage.h"
#include "checks/FullTest.h"
#include "checks/HealthScan.h"
#include "checks/QuickCheck.h"
#include "devices/WriteError.h"
#include "summary/ResultSummary.h"
#include "summary/SummaryText.h"

namespace vellum::cli {
namespace {

// Runs a check with Ctrl-C wired to its cancellation flag and a live progress
// line on a terminal.
template <class Run>
auto runWithProgress(Run&& check) {
  CancellationFlag cancel;
  SignalCancellation signals(cancel);
  ProgressLine line;
  auto result = check(cancel, line.callback());
  line.finish();
  return result;
}

// Prints the outcome as the application shows it, or as JSON.
template <class Result>
void printOutcome(const Result& result, const std::optional<Card>& card, bool json) {
  if (json) {
    printJson(nlohmann::json(result));
  } else {
    std::fputs(renderText(ResultSummary(CheckOutcome(result), card)).c_str(), stdout);
  }
}

// Failures during a check name the target, and a failing medium gets a hint
// on what to do next.
[[noreturn]] void rethrowNamingTarget(const std::string& target) {
  try {
    throw;
  } catch (const CheckError& error) {
    if (error.is<CheckError::Cancelled>()) throw;
    throw WriteError::refused(target + ": " + error.description());
  } catch (const DeviceError& error) {
    throw WriteError::refused(target + ": " + error.description() +
                              ". The card may be failing; a Health Scan shows which areas.");
  } catch (const WriteError& error) {
    if (error.is<WriteError::Refused>()) throw;
    throw WriteError::refused(target + ": " + error.description() +
                              ". The card may be failing or write-protected.");
  }
}

}  // namespace

void printJson(const nlohmann::json& value) {
  std::printf("%s\n", value.dump().c_str());
}

bool confirmErase(const std::string& what, const std::string& word,
                  const std::optional<std::string>& given) {
  if (given) {
    if (*given == word) return true;
    std::fprintf(stderr,
                 "vellum-check: --confirm %s doesn't match; type --confirm %s to erase %s.\n",
                 given->c_str(), word.c_str(), what.c_str());
    return false;
  }
  if (!stdinIsTerminal()) {
    std::fprintf(stderr,
                 "vellum-check: this erases everything on %s. To confirm, add --confirm %s.\n",
                 what.c_str(), word.c_str());
    return false;
  }
  std::fprintf(stderr, "This erases everything on %s. Type %s to continue: ", what.c_str(),
               word.c_str());
  std::fflush(stderr);
  std::string answer;
  if (!std::getline(std::cin, answer) || answer != word) {
    std::fprintf(stderr, "Not confirmed. Nothing was written.\n");
    return false;
  }
  return true;
}

int runQuick(const std::vector<std::string>& words) {
  const Options options(words, {"--json"}, {}, 1, 1);
  Target target = openTarget(options.positional()[0]);
  try {
    const QuickCheck::Result result = runWithProgress([&](auto& cancel, auto progress) {
      return QuickCheck{}.run(*target.device, cancel, progress);
    });
    printOutcome(result, target.card, options.has("--json"));
    return result.verdict == QuickCheck::Result::Verdict::genuine ? kGoodVerdict : kBadVerdict;
  } catch (const Error&) {
    rethrowNamingTarget(target.argument);
  }
}

int runFull(const std::vector<std::string>& words) {
  const Options options(words, {"--json"}, {"--confirm"}, 1, 1);
  Target target = openTarget(options.positional()[0]);
  if (!confirmErase(target.argument, target.confirmWord, options.value("--confirm"))) {
    return kUsage;
  }
  try {
    const FullTest::Result result = runWithProgress([&](auto& cancel, auto progress) {
      return FullTest{}.run(*target.device, cancel, progress);
    });
    printOutcome(result, target.card, options.has("--json"));
    return result.verdict == FullTest::Result::Verdict::genuine ? kGoodVerdict : kBadVerdict;
  } catch (const Error&) {
    rethrowNamingTarget(target.argument);
  }
}

int runHealth(const std::vector<std::string>& words) {
  const Options options(words, {"--json"}, {}, 1, 1);
  std::optional<Card> card;
  const std::unique_ptr<ByteSource> source = openSource(options.positional()[0], card);
  HealthScan::Result result;
  try {
    result = runWithProgress([&](auto& cancel, auto progress) {
      return HealthScan{}.run(*source, 512, cancel, progress);
    });
  } catch (const Error&) {
    rethrowNamingTarget(options.positional()[0]);
  }
  printOutcome(result, card, options.has("--json"));
  return result.verdict == HealthScan::Result::Verdict::healthy ? kGoodVerdict : kBadVerdict;
}

int runImage(const std::vector<std::string>& words) {
  const Options options(words, {}, {}, 2, 2);
  const std::string& destination = options.positional()[1];
  std::optional<Card> card;
  const std::unique_ptr<ByteSource> source = openSource(options.positional()[0], card);
  struct stat sourceStatus {};
  struct stat destinationStatus {};
  if (::stat(options.positional()[0].c_str(), &sourceStatus) == 0 &&
      ::stat(destination.c_str(), &destinationStatus) == 0 &&
      sourceStatus.st_dev == destinationStatus.st_dev &&
      sourceStatus.st_ino == destinationStatus.st_ino) {
    throw UsageError("the backup image can't replace its own source. Choose another DEST.");
  }
  try {
    runWithProgress([&](auto& cancel, auto progress) {
      CardImage{}.save(*source, destination, cancel, progress);
      return 0;
    });
  } catch (const DeviceError&) {
    rethrowNamingTarget(options.positional()[0]);
  }
  std::printf("Saved %s to %s.\n", options.positional()[0].c_str(), destination.c_str());
  return kGoodVerdict;
}

}  // namespace vellum::cli
