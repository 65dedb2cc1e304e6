#include <limits>

#include "checks/CheckTestSupport.h"
#include "checks/TestPattern.h"

namespace vellum {
namespace {

using namespace testing;
using V = TestPattern::Verdict;
constexpr std::uint64_t kNonce = 0x0123456789ABCDEF;
constexpr std::uint64_t kTop = std::numeric_limits<std::uint64_t>::max();

// The block format written out one word at a time, as plainly as possible.
Bytes referenceBlock(std::uint64_t nonce, std::uint64_t index) {
  Bytes block(4096, 0xAA);
  std::memcpy(block.data(), "VLVCHK01", 8);
  putWord(block, 8, nonce);
  putWord(block, 16, index);
  putWord(block, 24, 0);
  const std::uint64_t seed = (index * kGamma) ^ nonce ^ 0xD1B54A32D192ED03;
  for (std::uint64_t k = 0; k < 508; ++k)
    putWord(block, 32 + 8 * k, mix(seed + (k + 1) * kGamma));
  return block;
}

TEST(TestPattern, GenerationMatchesTheOneWordAtATimeReference) {
  for (const std::uint64_t nonce : {kNonce, std::uint64_t{1}, kTop}) {
    for (const std::uint64_t first : {std::uint64_t{0}, std::uint64_t{7}, kTop - 2}) {
      const Bytes blocks = TestPattern(nonce).blocks(first, 3);
      ASSERT_EQ(blocks.size(), 3u * 4096);
      for (std::size_t i = 0; i < 3; ++i)
        EXPECT_EQ(part(blocks, i * 4096, 4096), referenceBlock(nonce, first + i))
            << nonce << " " << first + i;
    }
  }
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

TEST(TestPatternDeathTest, IndicesPastTheTopAreFaults) {
  EXPECT_EQ(TestPattern(kNonce).blocks(kTop, 1).size(), 4096u);
  EXPECT_DEATH(TestPattern(kNonce).blocks(kTop, 2), "");
}

}  // namespace
}  // namespace vellum
