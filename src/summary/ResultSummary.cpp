#include "summary/ResultSummary.h"

#include <algorithm>
#include <string>
#include <utility>

#include "bytes/Checked.h"
#include "bytes/Precondition.h"
#include "summary/TextFormat.h"

namespace vellum {

namespace {

constexpr const char* kGoodSymbol = "checkmark.seal.fill";
constexpr const char* kBadSymbol = "xmark.octagon.fill";
constexpr const char* kWarningSymbol = "exclamationmark.triangle.fill";

// Builds the verdict-specific parts of a summary; the constructor adds the
// card row afterwards.
class Writer {
 public:
  Writer(ResultSummary& summary, const std::optional<Card>& card)
      : s_(summary), noun_(nounFor(card)), isDrive_(card && card->isDrive()) {}

  void operator()(const QuickCheck::Result& r) const {
    using Verdict = QuickCheck::Result::Verdict;
    switch (r.verdict) {
      case Verdict::genuine:
        verdict(ResultSummary::Tone::good, kGoodSymbol, "Capacity looks genuine");
        s_.explanation = "All " + std::to_string(r.pointsTested) + " test points across the full " +
                         sizeText(r.claimedBytes) +
                         " stored and returned data correctly. Your files were left as they were.";
        s_.advice = {
            "For complete certainty and a speed rating, run the Full Test (it erases the " + noun_ +
            ")."};
        break;
      case Verdict::counterfeit:
        verdict(ResultSummary::Tone::bad, kBadSymbol, "Fake capacity");
        s_.explanation = "This " + noun_ + " claims " + sizeText(r.claimedBytes) +
                         " but only about " + sizeText(r.verifiedBytes) +
                         " actually stores data. Anything saved beyond that is lost or overwrites "
                         "earlier files.";
        s_.advice = {"Stop using it for anything important.",
                     "Ask the seller for a refund. Save this report as evidence.",
                     "Copy off anything already on it now: files past " +
                         sizeText(r.verifiedBytes) + " may already be damaged."};
        break;
      case Verdict::unreliable:
        verdict(ResultSummary::Tone::warning, kWarningSymbol, "Unreliable storage");
        s_.explanation = std::to_string(checkedAdd(r.pointsCorrupt, r.pointsAliased)) + " of " +
                         std::to_string(r.pointsTested) +
                         " test points didn't store data correctly, scattered across the " + noun_ +
                         ". It's likely failing.";
        s_.advice = {"Copy your files off now and replace the " + noun_ + ".",
                     "Run a Health Scan to see which areas are affected."};
        break;
    }
    s_.facts = {
        {"Claimed capacity", sizeText(r.claimedBytes)},
        {"Verified capacity", sizeText(r.verifiedBytes)},
        {"Test points", std::to_string(r.pointsIntact) + " good, " +
                            std::to_string(r.pointsAliased) + " wrapped, " +
                            std::to_string(r.pointsCorrupt) + " failed"},
        {"Read speed (sample)", speedText(r.readMBps)},
        {"Took", durationText(r.duration)},
    };
    // The read sample found areas that fail: worth a look whatever the verdict.
    const std::string scan = "Run a Health Scan to see which areas are affected.";
    if (r.unreadableSamples > 0 &&
        std::find(s_.advice.begin(), s_.advice.end(), scan) == s_.advice.end()) {
      s_.advice.push_back("Parts of the " + noun_ + " couldn't be read. " + scan);
    }
  }

  void operator()(const FullTest::Result& r) const {
    using Verdict = FullTest::Result::Verdict;
    const std::int64_t badBlocks = checkedAdd(r.aliasedBlocks, r.corruptBlocks);
    switch (r.verdict) {
      case Verdict::genuine:
        if (isDrive_) {
          verdict(ResultSummary::Tone::good, kGoodSymbol, "Genuine capacity");
          s_.explanation = "Every block of the " + sizeText(r.claimedBytes) +
                           " drive stored data correctly. It sustains " +
                           speedText(r.write.sustainedMBps) + " writing.";
        } else if (!r.speedClass) {
          verdict(ResultSummary::Tone::good, kGoodSymbol, "Genuine, but slow");
          s_.explanation =
              "Every block stored data correctly, but it writes slower than 2 MB/s, below any SD "
              "speed class.";
        } else {
          verdict(ResultSummary::Tone::good, kGoodSymbol,
                  "Genuine, rated " + std::string(rawValue(*r.speedClass)));
          s_.explanation = "Every block of the " + sizeText(r.claimedBytes) + " " + noun_ +
                           " stored data correctly. It sustains " +
                           speedText(r.write.sustainedMBps) + " writing, good for " +
                           std::string(suitableFor(*r.speedClass)) + ".";
        }
        break;
      case Verdict::counterfeit:
        verdict(ResultSummary::Tone::bad, kBadSymbol, "Fake capacity");
        s_.explanation = "This " + noun_ + " claims " + sizeText(r.claimedBytes) +
                         " but really holds " + sizeText(r.holdsBytes) +
                         ". Anything written beyond that is lost or overwrites earlier files.";
        s_.advice = {"Ask the seller for a refund. Save this report as evidence.",
                     isDrive_ ? "Don't store anything on it: files past the real size are lost "
                                "without warning."
                              : "Don't use it in a camera: you'd lose photos without warning."};
        break;
      case Verdict::failing:
        verdict(ResultSummary::Tone::warning, kWarningSymbol, "Failing " + noun_);
        s_.explanation = std::to_string(badBlocks) + " blocks didn't store data correctly. The " +
                         noun_ + " is wearing out or damaged.";
        s_.advice = {"Replace this " + noun_ + ". Bad areas tend to grow."};
        break;
    }
    s_.facts = {
        {"Claimed capacity", sizeText(r.claimedBytes)},
        {"Really holds", sizeText(r.holdsBytes)},
        {"Bad blocks", std::to_string(badBlocks)},
        {"Write speed", speedText(r.write.averageMBps) + " average, " +
                            speedText(r.write.sustainedMBps) + " sustained"},
        {"Read speed", speedText(r.read.averageMBps) + " average"},
    };
    if (!isDrive_) {
      s_.facts.push_back(
          {"Speed class", r.speedClass ? std::string(rawValue(*r.speedClass)) : "None"});
    }
    s_.facts.push_back({"Took", durationText(r.duration)});
    s_.advice.push_back(isDrive_ ? "The drive now holds test data. Format it before use."
                                 : "The card now holds test data. Format it before putting it "
                                   "back in your camera.");
    s_.speedCurve = r.write.curve;
    s_.speedCurveTitle = "Write speed across the " + noun_;
    s_.suggestsFormat = true;
  }

  void operator()(const HealthScan::Result& r) const {
    using Verdict = HealthScan::Result::Verdict;
    const std::size_t unreadableCount = r.unreadable.size();
    const std::size_t slowCount = r.slow.size();
    switch (r.verdict) {
      case Verdict::healthy:
        verdict(ResultSummary::Tone::good, kGoodSymbol, "Healthy");
        s_.explanation = "Every block of the " + noun_ + " could be read, at a steady speed.";
        break;
      case Verdict::slowAreas:
        verdict(ResultSummary::Tone::warning, "tortoise.fill", "Some slow areas");
        s_.explanation = "Everything could be read, but " + std::to_string(slowCount) + " area" +
                         (slowCount == 1 ? " was" : "s were") +
                         " much slower than the rest, an early sign of wear.";
        s_.advice = {"Back up what's on it, and keep an eye on this " + noun_ + "."};
        break;
      case Verdict::unreadableAreas: {
        std::int64_t unreadableBytes = 0;
        for (const HealthScan::Result::Region& region : r.unreadable) {
          unreadableBytes = checkedAdd(unreadableBytes, region.length);
        }
        verdict(ResultSummary::Tone::bad, "bandage.fill", "Unreadable areas");
        s_.explanation = sizeText(toUnsigned(unreadableBytes)) + " in " +
                         std::to_string(unreadableCount) + " area" +
                         (unreadableCount == 1 ? "" : "s") +
                         " couldn't be read. Files stored there are damaged.";
        s_.advice = {"Use Vellum Recover to rescue what you can, then replace the " + noun_ + "."};
        break;
      }
    }
    s_.facts = {
        {"Scanned", sizeText(r.scannedBytes)},
        {"Unreadable",
         unreadableCount == 0 ? "None" : std::to_string(unreadableCount) + " area(s)"},
        {"Slow areas", slowCount == 0 ? "None" : std::to_string(slowCount)},
        {"Read speed",
         speedText(r.read.averageMBps) + " average, " + speedText(r.read.minimumMBps) + " slowest"},
        {"Took", durationText(r.duration)},
    };
    s_.speedCurve = r.read.curve;
    s_.speedCurveTitle = "Read speed across the " + noun_;
  }

  void operator()(const Wipe::Result& r) const {
    if (r.isComplete()) {
      verdict(ResultSummary::Tone::good, kGoodSymbol, "Wiped and verified");
      s_.explanation = "The whole " + noun_ +
                       " was overwritten and read back, and the Vellum Recover engine found no "
                       "recoverable files.";
    } else {
      verdict(ResultSummary::Tone::bad, kBadSymbol, "Wipe incomplete");
      s_.explanation =
          "Some of the " + noun_ + " couldn't be overwritten. Don't rely on it being erased.";
      s_.advice = {"The " + noun_ + " may be failing. For sensitive data, physically destroy it."};
    }
    s_.facts = {
        {"Overwritten", sizeText(r.bytesOverwritten)},
        {"Method", std::string(displayName(r.method))},
        {"Blocks not erased", std::to_string(r.blocksNotErased)},
        {"Recoverable files afterwards", std::to_string(r.recoverableFilesFound)},
        {"Took", durationText(r.duration)},
    };
    s_.advice.push_back(isDrive_ ? "Format the drive before using it again."
                                 : "Format the " + noun_ + " to use it in a camera again.");
    s_.speedCurve = r.write.curve;
    s_.speedCurveTitle = "Write speed across the " + noun_;
    s_.suggestsFormat = true;
  }

  void operator()(const Formatted& f) const {
    const std::string fileSystem(displayName(f.fileSystem));
    verdict(ResultSummary::Tone::good, kGoodSymbol, "Ready for your camera");
    s_.explanation = "Formatted as " + fileSystem + " with the name " + f.name +
                     ". For best results, also format it once in the camera itself.";
    s_.facts = {{"File system", fileSystem}, {"Name", f.name}};
    if (f.usableBytes) {
      s_.explanation = "Formatted to the " + sizeText(*f.usableBytes) +
                       " that really store data. " + s_.explanation;
      s_.facts.push_back({"Formatted capacity", sizeText(*f.usableBytes)});
    }
  }

 private:
  void verdict(ResultSummary::Tone tone, std::string symbol, std::string headline) const {
    s_.tone = tone;
    s_.symbol = std::move(symbol);
    s_.headline = std::move(headline);
  }

  ResultSummary& s_;
  std::string noun_;
  bool isDrive_;
};

}  // namespace

ResultSummary::ResultSummary(const CheckOutcome& outcome, const std::optional<Card>& card)
    : speedCurveTitle("Write speed across the " + std::string(nounFor(card))) {
  std::visit(Writer(*this, card), outcome);
  if (card) {
    facts.insert(facts.begin(), Fact{card->isDrive() ? "Drive" : "Card",
                                     card->title() + " (" + card->sizeDescription() + ")"});
  }
}

std::string_view rawValue(ResultSummary::Tone tone) {
  switch (tone) {
    case ResultSummary::Tone::good:
      return "good";
    case ResultSummary::Tone::warning:
      return "warning";
    case ResultSummary::Tone::bad:
      return "bad";
  }
  VL_PRECONDITION(false);
}

}  // namespace vellum
