#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <limits>

#include "checks/TestPattern.h"

namespace vellum {
namespace {

constexpr std::uint64_t kNonce = 0x0123456789ABCDEF;

// The block format written out one word at a time, as plainly as possible.
Bytes referenceBlock(std::uint64_t nonce, std::uint64_t index) {
  Bytes block(4096, 0xAA);
  const auto put = [&](std::size_t at, std::uint64_t word) {
    for (int i = 0; i < 8; ++i)
      block[at + static_cast<std::size_t>(i)] = (word >> (8 * i)) & 0xFF;
  };
  std::memcpy(block.data(), "VLVCHK01", 8);
  put(8, nonce);
  put(16, index);
  put(24, 0);
  const std::uint64_t seed = (index * 0x9E3779B97F4A7C15) ^ nonce ^ 0xD1B54A32D192ED03;
  for (std::uint64_t k = 0; k < 508; ++k) {
    std::uint64_t z = seed + (k + 1) * 0x9E3779B97F4A7C15;
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EB;
    z = z ^ (z >> 31);
    put(32 + 8 * k, z);
  }
  return block;
}

Bytes slice(const Bytes& bytes, std::size_t block) {
  return Bytes(bytes.begin() + static_cast<std::ptrdiff_t>(block * 4096),
               bytes.begin() + static_cast<std::ptrdiff_t>((block + 1) * 4096));
}

TEST(TestPattern, GenerationMatchesTheOneWordAtATimeReference) {
  const std::uint64_t top = std::numeric_limits<std::uint64_t>::max();
  for (const std::uint64_t nonce : {kNonce, std::uint64_t{1}, top}) {
    const TestPattern pattern(nonce);
    for (const std::uint64_t first : {std::uint64_t{0}, std::uint64_t{7}, top - 2}) {
      const Bytes blocks = pattern.blocks(first, 3);
      ASSERT_EQ(blocks.size(), 3u * 4096);
      for (std::size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(slice(blocks, i), referenceBlock(nonce, first + i))
            << "nonce " << nonce << " index " << first + i;
      }
    }
  }
  // fill() writes in place into a buffer that already holds other data.
  Bytes buffer(2 * 4096, 0x55);
  TestPattern(kNonce).fill(40, buffer);
  EXPECT_EQ(slice(buffer, 0), referenceBlock(kNonce, 40));
  EXPECT_EQ(slice(buffer, 1), referenceBlock(kNonce, 41));
  EXPECT_TRUE(TestPattern(kNonce).blocks(0, 0).empty());
}

TEST(TestPattern, VerdictsOfWholeBlocks) {
  const TestPattern pattern(kNonce);
  const Bytes seven = pattern.blocks(7, 1);
  EXPECT_EQ(pattern.verify(seven, 7), TestPattern::Verdict(TestPattern::Intact{}));
  EXPECT_EQ(pattern.verify(seven, 1'000'007), TestPattern::Verdict(TestPattern::Aliased{7}));
  // Same index, another run: corrupt, not aliased.
  EXPECT_EQ(TestPattern(kNonce + 1).verify(seven, 7), TestPattern::Verdict(TestPattern::Corrupt{}));

  Bytes wrongFill = seven;
  wrongFill[16] = 8;  // claims index 8 but carries the fill of index 7
  EXPECT_EQ(pattern.verify(wrongFill, 8), TestPattern::Verdict(TestPattern::Corrupt{}));

  EXPECT_EQ(pattern.verify(Bytes(4096, 0x00), 0), TestPattern::Verdict(TestPattern::Corrupt{}));
  EXPECT_EQ(pattern.verify(Bytes(4096, 0xFF), 0), TestPattern::Verdict(TestPattern::Corrupt{}));
  EXPECT_EQ(pattern.verify(Bytes(seven.begin(), seven.end() - 1), 7),
            TestPattern::Verdict(TestPattern::Corrupt{}));
  Bytes longer = seven;
  longer.push_back(0);
  EXPECT_EQ(pattern.verify(longer, 7), TestPattern::Verdict(TestPattern::Corrupt{}));
}

TEST(TestPattern, EveryByteButTheReservedWordIsChecked) {
  const TestPattern pattern(kNonce);
  const Bytes original = pattern.blocks(123, 1);
  for (std::size_t at = 0; at < 4096; ++at) {
    Bytes damaged = original;
    damaged[at] ^= 0x01;
    const bool reserved = at >= 24 && at < 32;
    EXPECT_EQ(isIntact(pattern.verify(damaged, 123)), reserved) << "byte " << at;
  }
}

TEST(TestPattern, VerifyBlocksCutsSlicesAndJudgesEach) {
  const TestPattern pattern(kNonce);
  Bytes buffer = pattern.blocks(50, 3);
  buffer.resize(3 * 4096 + 100, 0);
  std::memcpy(buffer.data() + 4096, pattern.blocks(9, 1).data(), 4096);  // alias in slot 1
  buffer[2 * 4096 + 4000] ^= 0x80;

  const std::vector<TestPattern::Verdict> verdicts = pattern.verifyBlocks(buffer, 50);
  const std::vector<TestPattern::Verdict> expected = {
      TestPattern::Intact{}, TestPattern::Aliased{9}, TestPattern::Corrupt{},
      TestPattern::Corrupt{}};
  EXPECT_EQ(verdicts, expected);
  EXPECT_TRUE(pattern.verifyBlocks({}, 0).empty());
}

TEST(TestPatternDeathTest, IndicesPastTheTopAndNegativeCountsAreFaults) {
  const TestPattern pattern(kNonce);
  const std::uint64_t top = std::numeric_limits<std::uint64_t>::max();
  EXPECT_EQ(pattern.blocks(top, 1).size(), 4096u);
  EXPECT_DEATH(pattern.blocks(top, 2), "");
  EXPECT_DEATH(pattern.blocks(0, -1), "");
  Bytes oddLength(4095);
  EXPECT_DEATH(pattern.fill(0, oddLength), "");
  EXPECT_DEATH(pattern.verifyBlocks(Bytes(4097), top), "");
}

}  // namespace
}  // namespace vellum
