#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "checks/FullTest.h"
#include "checks/HealthScan.h"
#include "checks/QuickCheck.h"
#include "checks/Wipe.h"
#include "devices/FileSystem.h"

namespace vellum {

// What the user can run on a card.
enum class CheckAction { quick, full, health, wipe, format };

inline constexpr std::array<CheckAction, 5> kAllCheckActions{CheckAction::quick, CheckAction::full,
                                                             CheckAction::health, CheckAction::wipe,
                                                             CheckAction::format};

// "quick", "full", "health", "wipe" or "format".
constexpr std::string_view rawValue(CheckAction action) {
  switch (action) {
    case CheckAction::quick:
      return "quick";
    case CheckAction::full:
      return "full";
    case CheckAction::health:
      return "health";
    case CheckAction::wipe:
      return "wipe";
    case CheckAction::format:
      return "format";
  }
  return {};
}

constexpr std::optional<CheckAction> checkActionFromRawValue(std::string_view text) {
  for (const CheckAction action : kAllCheckActions) {
    if (rawValue(action) == text) return action;
  }
  return std::nullopt;
}

// "Quick Check", "Full Test", "Health Scan", "Wipe" or "Format".
constexpr std::string_view title(CheckAction action) {
  switch (action) {
    case CheckAction::quick:
      return "Quick Check";
    case CheckAction::full:
      return "Full Test";
    case CheckAction::health:
      return "Health Scan";
    case CheckAction::wipe:
      return "Wipe";
    case CheckAction::format:
      return "Format";
  }
  return {};
}

// True for the actions that destroy what is on the card.
constexpr bool erases(CheckAction action) {
  return action == CheckAction::full || action == CheckAction::wipe ||
         action == CheckAction::format;
}

// A finished format: the file system chosen and the volume name actually
// applied (after sanitising).
struct Formatted {
  FileSystem fileSystem = FileSystem::exfat;
  std::string name;
  // Set when only the capacity a Quick Check verified was formatted.
  std::optional<std::uint64_t> usableBytes = std::nullopt;
  bool operator==(const Formatted&) const = default;
};

// The result of one finished action. Every visitor over this variant fails
// to compile until it handles each alternative.
using CheckOutcome =
    std::variant<QuickCheck::Result, FullTest::Result, HealthScan::Result, Wipe::Result, Formatted>;

}  // namespace vellum
