#include <limits>

#include "checks/CheckTestSupport.h"
#include "checks/TestPattern.h"

namespace vellum {
namespace {

using namespace testing;
using V = TestPattern::Verdict;
constexpr std::uint64_t kNonce = 0x0123456789ABCDEF;
constexpr std::uint64_t kTop = std::numeric_limits<std::uint64_t>::max();

TEST(TestPattern, BlocksDependOnTheirIndexAndTheRunsNonce) {
  const Bytes three = TestPattern(kNonce).blocks(kTop - 2, 3);
  EXPECT_EQ(part(three, 4096, 4096), TestPattern(kNonce).blocks(kTop - 1, 1));
  EXPECT_NE(part(three, 0, 4096), part(three, 4096, 4096));
  EXPECT_NE(TestPattern(kNonce).blocks(7, 1), TestPattern(kNonce + 1).blocks(7, 1));
}

TEST(TestPattern, VerdictsOfBlocksAndSlices) {
  const TestPattern pattern(kNonce);
  const Bytes seven = pattern.blocks(7, 1);
  EXPECT_EQ(pattern.verify(seven, 7), V(TestPattern::Intact{}));
  EXPECT_EQ(pattern.verify(seven, 1'000'007), V(TestPattern::Aliased{7}));
  // Same index from another run is corrupt, not aliased; so is a header
  // claiming index 8 over the fill of index 7, and blank or mis-sized slices.
  Bytes wrongFill = seven, longer = seven;
  wrongFill[16] = 8;
  longer.push_back(0);
  // clang-format off
  for (const auto& [bytes, index] : std::vector<std::pair<Bytes, std::uint64_t>>{{wrongFill, 8},
         {Bytes(4096, 0), 0}, {Bytes(4096, 0xFF), 0}, {part(seven, 0, 4095), 7}, {longer, 7}})
    // clang-format on
    EXPECT_EQ(pattern.verify(bytes, index), V(TestPattern::Corrupt{})) << index;
  EXPECT_EQ(TestPattern(kNonce + 1).verify(seven, 7), V(TestPattern::Corrupt{}));

  // Every byte counts except the reserved word at 24..31.
  for (std::size_t at = 0; at < 4096; ++at) {
    Bytes damaged = seven;
    damaged[at] ^= 0x01;
    EXPECT_EQ(isIntact(pattern.verify(damaged, 7)), at >= 24 && at < 32) << "byte " << at;
  }
}

}  // namespace
}  // namespace vellum
