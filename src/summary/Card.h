#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "devices/ExternalDisk.h"
#include "devices/SimulatedDevice.h"

namespace vellum {

// The three demo cards that live only in memory.
enum class SimulatedCard { genuine, fake, failing };

inline constexpr std::array<SimulatedCard, 3> kAllSimulatedCards{
    SimulatedCard::genuine, SimulatedCard::fake, SimulatedCard::failing};

// "genuine", "fake" or "failing".
std::string_view rawValue(SimulatedCard card);
// The demo card named by its raw value; none for any other text.
std::optional<SimulatedCard> simulatedCardFromRawValue(std::string_view text);
// The size the demo card claims: 512 MiB for the fake one, 256 MiB otherwise.
std::uint64_t claimedBytes(SimulatedCard card);

// A fresh in-memory device behaving like the demo card: the fake one really
// stores 96 MiB and wraps everything past it onto its start; the failing one
// fails reads of four 512-byte blocks.
std::unique_ptr<SimulatedDevice> makeDevice(SimulatedCard card);

// One entry of the card list: a real external disk or a demo card. Two cards
// are equal when they are the same demo card, or disks equal in every field.
struct Card {
  using Kind = std::variant<ExternalDisk, SimulatedCard>;
  Kind kind;

  bool operator==(const Card&) const = default;

  // Null for a demo card.
  const ExternalDisk* disk() const noexcept { return std::get_if<ExternalDisk>(&kind); }
  // None for a disk.
  std::optional<SimulatedCard> simulated() const noexcept;

  // The disk's identifier ("sdb"), or "sim-" + the demo card's raw value.
  std::string id() const;
  // The disk's display name, or "Demo card (genuine)" and so on.
  std::string title() const;
  // "Simulated in memory", or the disk's identifier and media name joined by
  // " · ", leaving out an empty one.
  std::string detail() const;
  // The claimed size as a decimal byte count ("268.4 MB").
  std::string sizeDescription() const;
  // True only for a disk that is not a memory card.
  bool isDrive() const;
  // "drive" for a drive, "card" for a memory card or a demo card.
  std::string_view noun() const { return isDrive() ? "drive" : "card"; }
};

// The three demo cards, in list order: genuine, fake, failing.
std::vector<Card> demoCards();

// The noun for an optional card: "card" when there is none.
inline std::string_view nounFor(const std::optional<Card>& card) {
  return card ? card->noun() : "card";
}

}  // namespace vellum

template <>
struct std::hash<vellum::Card> {
  std::size_t operator()(const vellum::Card& card) const noexcept;
};
