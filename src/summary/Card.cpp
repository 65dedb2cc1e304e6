#include "summary/Card.h"

#include <functional>

#include "bytes/ByteCountFormat.h"
#include "bytes/Precondition.h"

namespace vellum {

namespace {

constexpr std::uint64_t kMiB = 1024 * 1024;
constexpr std::int64_t kDemoBlockSize = 512;

template <class... Fs>
struct Overloaded : Fs... {
  using Fs::operator()...;
};
// clang 14 does not yet deduce aggregate template arguments (P1816).
template <class... Fs>
Overloaded(Fs...) -> Overloaded<Fs...>;

}  // namespace

std::string_view rawValue(SimulatedCard card) {
  switch (card) {
    case SimulatedCard::genuine:
      return "genuine";
    case SimulatedCard::fake:
      return "fake";
    case SimulatedCard::failing:
      return "failing";
  }
  VL_PRECONDITION(false);
}

std::optional<SimulatedCard> simulatedCardFromRawValue(std::string_view text) {
  for (const SimulatedCard card : kAllSimulatedCards) {
    if (rawValue(card) == text) return card;
  }
  return std::nullopt;
}

std::vector<Card> demoCards() {
  // Emplaced, not pushed: GCC 12 wrongly reports a moved-from temporary card
  // as uninitialized.
  std::vector<Card> cards(kAllSimulatedCards.size());
  for (std::size_t index = 0; index < cards.size(); ++index)
    cards[index].kind.emplace<SimulatedCard>(kAllSimulatedCards[index]);
  return cards;
}

std::uint64_t claimedBytes(SimulatedCard card) {
  return card == SimulatedCard::fake ? 512 * kMiB : 256 * kMiB;
}

std::unique_ptr<SimulatedDevice> makeDevice(SimulatedCard card) {
  std::optional<std::uint64_t> realCapacity;
  if (card == SimulatedCard::fake) realCapacity = 96 * kMiB;
  auto device = std::make_unique<SimulatedDevice>(claimedBytes(card), realCapacity,
                                                  SimulatedDevice::Overflow::wrap, kDemoBlockSize);
  if (card == SimulatedCard::failing) {
    // Two adjacent blocks near 20 MB, one near 102 MB and one near 179 MB.
    device->unreadableBlocks() = {40000, 40001, 200000, 350123};
  }
  return device;
}

std::optional<SimulatedCard> Card::simulated() const noexcept {
  if (const auto* card = std::get_if<SimulatedCard>(&kind)) return *card;
  return std::nullopt;
}

std::string Card::id() const {
  return std::visit(Overloaded{
                        [](const ExternalDisk& d) { return d.deviceIdentifier; },
                        [](SimulatedCard c) { return "sim-" + std::string(rawValue(c)); },
                    },
                    kind);
}

std::string Card::title() const {
  return std::visit(
      Overloaded{
          [](const ExternalDisk& d) { return d.displayName(); },
          [](SimulatedCard c) { return "Demo card (" + std::string(rawValue(c)) + ")"; },
      },
      kind);
}

std::string Card::detail() const {
  return std::visit(Overloaded{
                        [](const ExternalDisk& d) {
                          std::string text = d.deviceIdentifier;
                          if (!text.empty() && !d.mediaName.empty()) text += " · ";
                          return text + d.mediaName;
                        },
                        [](SimulatedCard) { return std::string("Simulated in memory"); },
                    },
                    kind);
}

std::string Card::sizeDescription() const {
  return std::visit(Overloaded{
                        [](const ExternalDisk& d) { return d.sizeDescription(); },
                        [](SimulatedCard c) { return formatByteCount(claimedBytes(c)); },
                    },
                    kind);
}

bool Card::isDrive() const {
  const ExternalDisk* d = disk();
  return d != nullptr && !d->isMemoryCard();
}

}  // namespace vellum

std::size_t std::hash<vellum::Card>::operator()(const vellum::Card& card) const noexcept {
  // Boost's combine step: cheap, and order-sensitive so volume order counts.
  std::size_t seed = card.kind.index();
  const auto combine = [&seed](std::size_t value) {
    seed ^= value + 0x9e3779b97f4a7c15ULL + (seed << 6) + (seed >> 2);
  };
  const std::hash<std::string_view> text;
  if (const vellum::ExternalDisk* disk = card.disk()) {
    combine(text(disk->deviceIdentifier));
    combine(text(disk->mediaName));
    combine(std::hash<std::uint64_t>{}(disk->sizeBytes));
    for (const std::string& name : disk->volumeNames)
      combine(text(name));
  } else {
    combine(text(vellum::rawValue(*card.simulated())));
  }
  return seed;
}
